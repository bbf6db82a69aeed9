#include "velox/containers/velAVLTree.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "velox/runtime/velException.hpp"

namespace velox {
namespace {

/// A tree that can be looked into.
template <class TTree>
class TOpenTree : public TTree {
 public:
  using TTree::TTree;

  /// Checks order and balance of the whole tree, and counts the nodes.
  size_t Check() {
    size_t nodes = 0;
    const void* previous = nullptr;
    Height(this->GetRoot(), nodes, previous);
    return nodes;
  }
  TAVLTreeNode* Root() { return this->GetRoot(); }

 private:
  int Height(TAVLTreeNode* Node, size_t& Nodes, const void*& Previous) {
    if (Node == nullptr) return 0;
    const int left = Height(Node->Left, Nodes, Previous);
    if (Previous != nullptr) {
      EXPECT_LT(this->CompareRoutine(Previous, this->GetKeyPointer(Node)), 0);
    }
    Previous = this->GetKeyPointer(Node);
    ++Nodes;
    const int right = Height(Node->Right, Nodes, Previous);
    EXPECT_EQ(Node->Balance, right - left);
    EXPECT_LE(std::abs(Node->Balance), 1);
    return 1 + std::max(left, right);
  }
};

using TIntegers = std::vector<int32_t>;

TIntegers Keys(TAVLTree& Tree, void (TAVLTree::*Pass)(const TAVLIterationRoutine&, void*)) {
  TIntegers keys;
  auto note = [&Tree](TObject* Sender, const void* Key, const void*, void* UserData) {
    EXPECT_EQ(Sender, &Tree);
    int32_t key = 0;
    std::memcpy(&key, Key, sizeof key);
    static_cast<TIntegers*>(UserData)->push_back(key);
  };
  (Tree.*Pass)(TAVLIterationRoutine::To(note), &keys);
  return keys;
}

TEST(AVLTree, BehavesAsTheStandardMap) {
  std::mt19937 random(1);
  for (const int32_t range : {20, 1000, 100'000}) {
    TOpenTree<TAVLTree> tree(sizeof(uint64_t));
    std::map<int32_t, uint64_t> model;
    for (int i = 0; i < 333'334; ++i) {
      const auto key = static_cast<int32_t>(random() % static_cast<unsigned>(range)) - range / 2;
      uint64_t data = random();
      switch (random() % 5) {
        case 0:
        case 1:
          tree.Add(&key, &data);
          model[key] = data;
          break;
        case 2:
        case 3:
          ASSERT_EQ(tree.Remove(&key), model.erase(key) == 1) << i;
          break;
        default:
          const auto found = model.find(key);
          const uint64_t expected = found == model.end() ? data : found->second;
          ASSERT_EQ(tree.Search(&key, &data), found != model.end()) << i;
          ASSERT_EQ(data, expected) << i;
          ASSERT_EQ(tree.KeyExists(&key), found != model.end()) << i;
      }
      if (i % 30'000 == 0 || (range == 20 && i < 2000)) {
        ASSERT_EQ(tree.Check(), model.size()) << i;
      }
    }
    ASSERT_EQ(tree.Check(), model.size());
    TIntegers keys;
    for (const auto& [key, data] : model) keys.push_back(key);
    EXPECT_EQ(Keys(tree, &TAVLTree::LeftPass), keys);
    EXPECT_EQ(Keys(tree, &TAVLTree::RightPass), TIntegers(keys.rbegin(), keys.rend()));
    for (const int32_t key : keys) tree.Remove(&key);
    EXPECT_EQ(tree.Root(), nullptr);
  }
}

TEST(AVLTree, KeysAndDataHaveAnySize) {
  for (const int32_t size : {1, 3, 17, 4000}) {
    auto compare = [size](const void* A, const void* B) -> int32_t {
      return std::memcmp(A, B, static_cast<size_t>(size));
    };
    for (const int32_t dataSize : {0, 1, 5, 3000}) {
      TOpenTree<TAVLTree> tree(size, dataSize, TAVLTreeCompareRoutine::To(compare));
      for (char c = 'a'; c <= 'z'; ++c) {
        tree.Add(std::string(static_cast<size_t>(size), c).data(),
                 std::string(static_cast<size_t>(dataSize), static_cast<char>(c - 32)).data());
      }
      EXPECT_TRUE(tree.Remove(std::string(static_cast<size_t>(size), 'p').data()));
      EXPECT_EQ(tree.Check(), 25u);
      std::string data(static_cast<size_t>(dataSize), '?');
      EXPECT_TRUE(tree.Search(std::string(static_cast<size_t>(size), 'q').data(), data.data()));
      EXPECT_EQ(data, std::string(static_cast<size_t>(dataSize), 'Q'));
    }
  }
  EXPECT_THROW(TAVLTree(-1), Exception);
  EXPECT_THROW(TAVLTree(-1, 4, nullptr), Exception);
}

TEST(AVLTree, IntegersCompareByTheirWrappingDifference) {
  const int32_t largest = 0x7FFFFFFF;
  const int32_t minusOne = -1;
  TAVLTree tree(0);
  tree.Add(&minusOne, nullptr);
  tree.Add(&largest, nullptr);
  EXPECT_EQ(Keys(tree, &TAVLTree::LeftPass), (TIntegers{largest, minusOne}));
}

TEST(AVLTree, AComparisonThatRaisesLeavesTheTreeAsItWas) {
  TOpenTree<TAVLTree> tree(sizeof(int32_t));
  int until = 1 << 30;
  auto compare = [&until](const void* A, const void* B) {
    if (--until == 0) throw Exception("comparison");
    return TAVLTree::CompareIntegers(A, B);
  };
  tree.CompareRoutine = TAVLTreeCompareRoutine::To(compare);
  for (int32_t key = 0; key < 200; key += 2) tree.Add(&key, &key);
  for (int32_t key = 0; key < 200; ++key) {
    // An absent key takes 6 comparisons at least.
    until = key % 2 == 0 ? 1 : 1 + key % 5;
    EXPECT_THROW(tree.Add(&key, &key), Exception);
    until = key % 2 == 0 ? 1 : 1 + key % 5;
    EXPECT_THROW(tree.Remove(&key), Exception);
    until = 1 << 30;
    ASSERT_EQ(tree.Check(), 100u);
    ASSERT_EQ(tree.KeyExists(&key), key % 2 == 0);
  }
}

// The sanitizer's build sees whether a list stays behind.
TEST(AVLTree, DataThatCannotBeStoredAddsNoNode) {
  class TRefusingTree : public TOpenTree<TAVLDuplicatedKeyTree> {
   public:
    using TOpenTree::TOpenTree;
    bool StoreFirst = false;
    int Released = 0;

   protected:
    void StoreData(TAVLTreeNode* Node, const void* Data) override {
      if (StoreFirst) TOpenTree::StoreData(Node, Data);
      throw Exception("no room");
    }
    void ReleaseData(TAVLTreeNode* Node) override {
      TOpenTree::ReleaseData(Node);
      ++Released;
    }
  };
  TRefusingTree tree(4);
  const int32_t key = 1;
  for (const bool first : {false, true}) {
    tree.StoreFirst = first;
    EXPECT_THROW(tree.Add(&key, &key), Exception);
    EXPECT_EQ(tree.Root(), nullptr);
    EXPECT_EQ(tree.Released, first ? 2 : 1);
  }
}

TEST(AVLDuplicatedKeyTree, KeepsTheValuesOfAKeyInTheirOrder) {
  TOpenTree<TAVLDuplicatedKeyTree> tree(3);
  for (int32_t key = 0; key < 100; ++key) {
    tree.Add(&key, "abc");
    tree.Add(&key, "def");
  }
  // Removing inner nodes moves lists between nodes: none may be freed twice or lost.
  for (int32_t key = 0; key < 100; key += 3) EXPECT_TRUE(tree.Remove(&key));
  EXPECT_EQ(tree.Check(), 66u);
  for (int32_t key = 0; key < 100; ++key) {
    const uint8_t* list = nullptr;
    ASSERT_EQ(tree.Search(&key, &list), key % 3 != 0);
    if (key % 3 != 0) {
      EXPECT_EQ(std::memcmp(list, "\2\0\0\0abcdef", 10), 0);
    }
  }
}

int32_t CompareLetters(const void* A, const void* B) { return std::memcmp(A, B, 3); }

TEST(AVLTree, KindsOfTreesTakeOtherKeysAndOrders) {
  const auto byLetters = TAVLTreeCompareRoutine::Bind<&CompareLetters>();
  TAVLDuplicatedKeyTree lists(3, 1, byLetters);
  lists.Add("abc", "x");
  lists.Add("abd", "z");
  lists.Add("abc", "y");
  const uint8_t* list = nullptr;
  ASSERT_TRUE(lists.Search("abc", &list));
  EXPECT_EQ(std::memcmp(list, "\2\0\0\0xy", 6), 0);

  TAVLObjectTree objects(3, byLetters);
  TObject object;
  objects.Add("abc", &object);
  EXPECT_EQ(objects.Search("abcd"), &object);
}

TEST(AVLObjectTree, MapsKeysToObjectsThatItDoesNotOwn) {
  TObject one;
  TObject two;
  TAVLObjectTree tree;
  const int32_t keys[] = {1, 2, 3};
  tree.Add(&keys[0], &two);
  tree.Add(&keys[1], &two);
  tree.Add(&keys[0], &one);  // replaces
  EXPECT_EQ(tree.Search(&keys[0]), &one);
  EXPECT_EQ(tree.Search(&keys[2]), nullptr);
  EXPECT_FALSE(tree.Remove(&keys[2]));
  using TObjects = std::vector<TObject*>;
  auto note = [&tree](TObject* Sender, const void*, const void* Data, void* UserData) {
    EXPECT_NE(dynamic_cast<TAVLTree*>(Sender), nullptr);  // the tree inside
    EXPECT_NE(Sender, &tree);
    std::memcpy(&static_cast<TObjects*>(UserData)->emplace_back(), Data, sizeof(TObject*));
  };
  TObjects ascending;
  TObjects descending;
  tree.LeftPass(TAVLIterationRoutine::To(note), &ascending);
  tree.RightPass(TAVLIterationRoutine::To(note), &descending);
  EXPECT_EQ(ascending, (TObjects{&one, &two}));
  EXPECT_EQ(descending, (TObjects{&two, &one}));
  EXPECT_TRUE(tree.Remove(&keys[0]));
  tree.Clear();
  EXPECT_FALSE(tree.KeyExists(&keys[1]));
}

}  // namespace
}  // namespace velox
