#include "velox/containers/velObjArray.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "tests/support/message_of.hpp"

namespace velox {
namespace {

using test::MessageOf;

int Living = 0;

class TNumber : public TObject {
 public:
  explicit TNumber(int AValue) : Value(AValue) { ++Living; }
  ~TNumber() override { --Living; }
  int Value;
};

int32_t CompareNumbers(TObject* A, TObject* B) {
  return static_cast<TNumber*>(A)->Value - static_cast<TNumber*>(B)->Value;
}
const auto ByValue = TObjectCompareRoutine::Bind<&CompareNumbers>();

/// Reaches what descendants may use.
class TOpenArray : public TObjectArray {
 public:
  TOpenArray() : TObjectArray(TClass::Of<TNumber>()) {}
  using TObjectArray::AddItem;
  using TObjectArray::CompareObjects;
  using TObjectArray::DeleteItem;
};

/// An array that owns numbers, filled in the given order.
struct TNumbers {
  explicit TNumbers(std::initializer_list<int> Values, bool Sorted = false) {
    Array.CompareRoutine = ByValue;
    Array.SetSorted(Sorted);
    for (int value : Values) Array.Add(Make(value));
  }
  TNumber* Make(int Value) { return Owned.emplace_back(std::make_unique<TNumber>(Value)).get(); }
  std::vector<int> Values() const {
    std::vector<int> values;
    for (int32_t i = 0; i < Array.GetCount(); ++i) {
      values.push_back(static_cast<TNumber*>(Array.GetItems(i))->Value);
    }
    return values;
  }
  std::vector<std::unique_ptr<TNumber>> Owned;
  TOpenArray Array;
};
using TValues = std::vector<int>;

/// Writes down what an array tells, and refuses on demand.
struct TListener {
  explicit TListener(TObjectArray& Array) {
    Array.OnModifying = TContainerModifyingEvent::Bind<&TListener::Modifying>(this);
    Array.OnModify = TContainerModifyEvent::Bind<&TListener::Modified>(this);
  }
  void Modifying(TObject* Sender, TObject* AObject, TContainerModifyAction Action, bool& Accept) {
    Tell(Action == maAdd ? "+?" : "-?", Sender, AObject);
    EXPECT_TRUE(Accept);
    Accept = Refuse-- <= 0;
  }
  void Modified(TObject* Sender, TObject* AObject, TContainerModifyAction Action) {
    Tell(Action == maAdd ? "+" : "-", Sender, AObject);
  }
  void Tell(const char* What, TObject* Sender, TObject* AObject) {
    Log += What + std::to_string(static_cast<TNumber*>(AObject)->Value) + "/" +
           std::to_string(static_cast<TObjectArray*>(Sender)->GetCount()) + " ";
  }
  std::string Log;
  int Refuse = 0;  // so many of the next questions
};

TEST(ObjectArray, GrowsByItsRule) {
  TNumbers numbers({});
  std::vector<int32_t> capacities{numbers.Array.GetAllocCount()};
  for (int i = 0; i < 40; ++i) {
    numbers.Array.Add(numbers.Make(i));
    if (numbers.Array.GetAllocCount() != capacities.back()) {
      capacities.push_back(numbers.Array.GetAllocCount());
    }
  }
  EXPECT_EQ(capacities, (TValues{0, 10, 21, 33, 46}));
  numbers.Array.SetAllocCount(100);
  numbers.Array.SetAllocCount(5);
  EXPECT_EQ(numbers.Array.GetAllocCount(), 100);
}

TEST(ObjectArray, NullIsAnItemLikeOthers) {
  TOpenArray array;
  EXPECT_TRUE(array.Add(nullptr));
  EXPECT_EQ(array.GetItems(0), nullptr);
}

TEST(ObjectArray, AddKeepsOneReferenceInOrderOfAdditionOrOfValues) {
  TNumbers plain({3, 1, 2});
  EXPECT_TRUE(plain.Array.Add(plain.Owned[1].get()));
  EXPECT_EQ(plain.Values(), (TValues{3, 1, 2}));
  // In an unsorted array an equal object is another one; in a sorted one it is the same item.
  plain.Array.Add(plain.Make(3));
  EXPECT_EQ(plain.Values(), (TValues{3, 1, 2, 3}));

  TNumbers sorted({5, 1, 4, 2, 3}, true);
  EXPECT_TRUE(sorted.Array.Add(sorted.Make(4)));
  EXPECT_EQ(sorted.Values(), (TValues{1, 2, 3, 4, 5}));
  EXPECT_EQ(sorted.Array.IndexOf(sorted.Make(4)), 3);
}

TEST(ObjectArray, ListenerSeesAndRefusesChanges) {
  TNumbers numbers({});
  TListener listener(numbers.Array);
  numbers.Array.Add(numbers.Make(7));
  numbers.Array.Insert(numbers.Make(8), 0);
  numbers.Array.Add(numbers.Owned[0].get());
  numbers.Array.MoveTo(0, 1);
  EXPECT_EQ(listener.Log, "+?7/0 +7/1 +?8/1 +8/2 ");

  listener.Log.clear();
  listener.Refuse = 3;
  EXPECT_FALSE(numbers.Array.Add(numbers.Make(9)));
  numbers.Array.Delete(0);
  numbers.Array.Delete(numbers.Owned[0].get());
  EXPECT_EQ(numbers.Values(), (TValues{7, 8}));
  EXPECT_EQ(listener.Log, "+?9/2 -?7/2 -?7/2 ");

  listener.Log.clear();
  listener.Refuse = 3;  // Clear asks until the answer is yes
  numbers.Array.Clear();
  EXPECT_EQ(listener.Log, "-?8/2 -?8/2 -?8/2 -?8/2 -8/1 -?7/1 -7/0 ");
}

TEST(ObjectArray, DescendantsBringTheirOwnOrderAndEvents) {
  class TOwnRules : public TObjectArray {
   public:
    TOwnRules() : TObjectArray(TClass::Of<TNumber>()) {}
    std::string Log;

   protected:
    int32_t CompareObjects(TObject* A, TObject* B) override { return CompareNumbers(A, B); }
    void DoModifying(TObject* AObject, TContainerModifyAction, bool& Accept) override {
      Accept = static_cast<TNumber*>(AObject)->Value != 13;
    }
    void DoModify(TObject* AObject, TContainerModifyAction Action) override {
      Log += (Action == maAdd ? "+" : "-") + std::to_string(static_cast<TNumber*>(AObject)->Value);
    }
  };
  TNumbers numbers({3, 13, 1, 2});
  TOwnRules array;
  TListener unheard(array);
  array.SetSorted(true);
  array.AddArray(numbers.Array);
  EXPECT_EQ(array.GetItems(0), numbers.Owned[2].get());
  EXPECT_EQ(array.GetItems(2), numbers.Owned[0].get());
  EXPECT_FALSE(array.Add(numbers.Owned[1].get()));
  array.Clear();
  EXPECT_EQ(array.Log, "+3+1+2-3-2-1");
  EXPECT_EQ(unheard.Log, "");
}

TEST(ObjectArray, AListenerThatDropsTheItemItIsAskedAboutIsTold) {
  TNumbers numbers({1, 2});
  auto drop = [](TObject* Sender, TObject* AObject, TContainerModifyAction, bool&) {
    auto& array = *static_cast<TObjectArray*>(Sender);
    array.OnModifying = nullptr;
    array.Delete(AObject);
  };
  numbers.Array.OnModifying = TContainerModifyingEvent::To(drop);
  EXPECT_EQ(MessageOf([&] { numbers.Array.Delete(0); }), "Invalid index");
  EXPECT_EQ(numbers.Values(), (TValues{2}));
}

TEST(ObjectArray, OwnerFreesWhatItDropsAfterTellingOfIt) {
  const int before = Living;
  {
    TObjectArray array(TClass::Of<TNumber>());
    array.SetSharedObjects(false);
    for (int i = 0; i < 4; ++i) array.Add(new TNumber(i));
    int seen = 0;
    auto look = [&seen](TObject*, TObject*, TContainerModifyAction) { seen = Living; };
    array.OnModify = TContainerModifyEvent::To(look);
    array.Delete(0);
    EXPECT_EQ(seen, before + 4);
    EXPECT_EQ(Living, before + 3);
    auto fail = [](TObject*, TObject*, TContainerModifyAction) { throw Exception("listener"); };
    array.OnModify = TContainerModifyEvent::To(fail);
    EXPECT_THROW(array.Delete(array.GetItems(0)), Exception);
    EXPECT_EQ(Living, before + 2);
    EXPECT_EQ(array.GetCount(), 2);
    array.OnModify = TContainerModifyEvent::To(look);
    array.Clear();
    EXPECT_EQ(seen, before + 1);  // the last one still lives while it is told of
    EXPECT_EQ(Living, before);
    for (int i = 0; i < 2; ++i) array.Add(new TNumber(i));
    array.OnModify = TContainerModifyEvent::To(fail);
  }  // the listener raises here too
  EXPECT_EQ(Living, before);
}

TEST(ObjectArray, FaultsAreToldAndChangeNothing) {
  TNumbers numbers({1, 2, 3});
  TObjectArray& array = numbers.Array;
  TNumber* more = numbers.Make(9);
  const std::string badIndex = "Invalid index";
  EXPECT_EQ(MessageOf([&] { array.Insert(nullptr, 0); }), "Object cannot be null");
  for (int32_t index : {-1, 4}) {
    EXPECT_EQ(MessageOf([&] { array.Insert(more, index); }), badIndex);
  }
  for (int32_t index : {-1, 3}) {
    EXPECT_EQ(MessageOf([&] { array.GetItems(index); }), badIndex);
    EXPECT_EQ(MessageOf([&] { array.Delete(index); }), badIndex);
    EXPECT_EQ(MessageOf([&] { array.MoveTo(index, 0); }), badIndex);
    EXPECT_EQ(MessageOf([&] { array.MoveTo(0, index); }), badIndex);
    EXPECT_EQ(MessageOf([&] { array.MoveTo(index, index); }), "nothing raised");
  }
  EXPECT_EQ(MessageOf([&] { array.Insert(numbers.Owned[0].get(), 3); }), badIndex);  // a move
  EXPECT_EQ(numbers.Values(), (TValues{1, 2, 3}));
  array.SetSorted(true);
  const std::string sorted = "Cannot move element in sorted array";
  EXPECT_EQ(MessageOf([&] { array.MoveTo(0, 7); }), sorted);
  EXPECT_EQ(MessageOf([&] { array.Insert(numbers.Owned[0].get(), 1); }), sorted);
  array.Insert(numbers.Owned[0].get(), 0);
  EXPECT_EQ(numbers.Values(), (TValues{1, 2, 3}));
  array.Insert(more, 0);  // the caller's index counts, in a sorted array too
  EXPECT_EQ(numbers.Values(), (TValues{9, 1, 2, 3}));
}

TEST(ObjectArray, MovesBothWays) {
  struct {
    int32_t From, To;
    TValues Result;
  } const cases[] = {{0, 3, {1, 2, 3, 0, 4}},
                     {3, 0, {3, 0, 1, 2, 4}},
                     {1, 2, {0, 2, 1, 3, 4}},
                     {4, 3, {0, 1, 2, 4, 3}}};
  for (const auto& one : cases) {
    TNumbers numbers({0, 1, 2, 3, 4});
    numbers.Array.MoveTo(one.From, one.To);
    EXPECT_EQ(numbers.Values(), one.Result);
    TNumber* moved = numbers.Owned[static_cast<size_t>(one.From)].get();
    EXPECT_EQ(numbers.Array.IndexOf(moved), one.To);
  }
  TNumbers contained({0, 1, 2});
  contained.Array.Insert(contained.Owned[2].get(), 0);
  EXPECT_EQ(contained.Values(), (TValues{2, 0, 1}));
}

TEST(ObjectArray, EqualityIsBySequenceWhenBothAreSortedElseByMembership) {
  TNumbers a({1, 2, 3});
  TObjectArray b(TClass::Of<TNumber>());
  b.AddArray(a.Array);
  b.MoveTo(0, 2);
  EXPECT_TRUE(a.Array.IsEqual(b));
  a.Array.SetSorted(true);
  EXPECT_TRUE(a.Array.IsEqual(b));
  EXPECT_TRUE(b.IsEqual(a.Array));
  TNumber equal(1);  // found by the sorted array's comparison, but another object
  b.Delete(a.Owned[0].get());
  b.Insert(&equal, 0);
  EXPECT_TRUE(a.Array.IsEqual(b));
  b.CompareRoutine = ByValue;
  b.SetSorted(true);
  EXPECT_FALSE(a.Array.IsEqual(b));
  b.Delete(0);
  EXPECT_FALSE(a.Array.IsEqual(b));
}

// What the last lookup leaves behind, rule by rule.
TEST(ObjectArray, LastLookupIsRemembered) {
  TNumbers numbers({1, 2, 3});
  TNumber* fresh = numbers.Make(4);
  numbers.Array.Insert(fresh, 0);
  EXPECT_EQ(numbers.Array.IndexOf(fresh), 3);  // where FindItem had reported it
  numbers.Array.IndexOf(numbers.Owned[0].get());
  EXPECT_EQ(numbers.Array.IndexOf(fresh), 0);

  int calls = 0;
  auto counting = [&calls](TObject* A, TObject* B) {
    ++calls;
    return CompareNumbers(A, B);
  };
  TNumbers sorted({1, 2, 3, 4, 5}, true);
  sorted.Array.CompareRoutine = TObjectCompareRoutine::To(counting);
  TNumber* last = sorted.Owned[4].get();
  EXPECT_EQ(sorted.Array.IndexOf(sorted.Make(0)), -1);
  calls = 0;
  EXPECT_EQ(sorted.Array.IndexOf(last), 4);
  EXPECT_EQ(sorted.Array.IndexOf(last), 4);
  EXPECT_EQ(calls, 3);
  EXPECT_EQ(sorted.Array.IndexOf(sorted.Owned[2].get()), 2);  // hit on the way: not remembered
  EXPECT_EQ(sorted.Array.IndexOf(last), 4);
  EXPECT_EQ(calls, 4);
  sorted.Array.Delete(sorted.Owned[2].get());
  EXPECT_EQ(sorted.Array.IndexOf(last), -1);  // a deletion marks the remembered one absent
  sorted.Array.AddItem(sorted.Make(9), 4);
  EXPECT_EQ(sorted.Array.IndexOf(last), 4);  // an insertion, as found
}

TEST(ObjectArray, SomeChangesForgetTheLastLookup) {
  // Only the reference is forgotten: null is then taken for it, and NullFound is the flag it left.
  struct {
    void (*Change)(TOpenArray& Array);
    bool NullFound;
    bool Found;
    int32_t Index;
  } const cases[] = {
      {[](TOpenArray& Array) { Array.Delete(1); }, false, true, 1},
      {[](TOpenArray& Array) { Array.Clear(); }, false, false, 0},
      {[](TOpenArray& Array) { Array.SetSorted(true); }, true, true, 0},
      {[](TOpenArray& Array) { Array.MoveTo(0, 2); }, true, true, 1},
  };
  for (const auto& one : cases) {
    SCOPED_TRACE(&one - cases);
    TNumbers numbers({9, 8, 1});
    TNumber* last = numbers.Owned[2].get();
    EXPECT_EQ(numbers.Array.IndexOf(last), 2);
    one.Change(numbers.Array);
    int32_t index = -1;
    EXPECT_EQ(numbers.Array.FindItem(nullptr, index), one.NullFound);
    EXPECT_EQ(index, 2);
    EXPECT_EQ(numbers.Array.FindItem(last, index), one.Found);
    EXPECT_EQ(index, one.Index);
  }
}

TEST(ObjectArray, PositionRememberedFromBeforeDeletionsStaysWithinTheArray) {
  TNumbers numbers({1, 2, 3, 4, 5, 6, 7, 8, 9, 10}, true);
  TNumber* largest = numbers.Make(99);
  EXPECT_EQ(numbers.Array.IndexOf(largest), -1);
  for (size_t i : {4, 2}) numbers.Array.Delete(numbers.Owned[i].get());  // both hit on the way
  EXPECT_TRUE(numbers.Array.Add(largest));
  EXPECT_EQ(numbers.Values(), (TValues{1, 2, 4, 6, 7, 8, 9, 10, 99}));
}

TEST(ObjectArray, DefaultOrderIsTheDifferenceOfAddresses) {
  TNumber objects[2] = {TNumber(0), TNumber(1)};
  TOpenArray array;
  EXPECT_EQ(array.CompareObjects(&objects[1], &objects[0]), static_cast<int32_t>(sizeof(TNumber)));
  EXPECT_EQ(array.CompareObjects(&objects[0], &objects[1]), -static_cast<int32_t>(sizeof(TNumber)));
}

TValues Ordered(const TObjectArraySecondaryIndex& Index) {
  TValues values;
  for (int32_t i = 0; i < Index.GetCount(); ++i) {
    values.push_back(static_cast<TNumber*>(Index.GetOrderedItems(i))->Value);
  }
  return values;
}

TEST(ObjectArray, SortsLikeTheStandardLibrary) {
  std::mt19937 random(1);
  for (int size : {0, 1, 2, 3, 10, 1000, 20000}) {
    for (int range : {1, 5, 1 << 30}) {
      TNumbers numbers({});
      for (int i = 0; i < size; ++i) {
        numbers.Array.AddItem(
            numbers.Make(static_cast<int>(random() % static_cast<unsigned>(range))), i);
      }
      TValues expected = numbers.Values();
      std::sort(expected.begin(), expected.end());
      TObjectArraySecondaryIndex index(nullptr);
      index.OnCompare = ByValue;
      index.SetSource(&numbers.Array);
      ASSERT_EQ(Ordered(index), expected) << size << " of " << range;
      numbers.Array.SetSorted(true);
      ASSERT_EQ(numbers.Values(), expected) << size << " of " << range;
    }
  }
}

TEST(ObjectArray, ComparisonsThatContradictThemselvesEndInAnException) {
  TNumbers numbers({3, 1, 2});
  for (int32_t answer : {-1, 1}) {
    auto same = [answer](TObject*, TObject*) { return answer; };
    numbers.Array.CompareRoutine = TObjectCompareRoutine::To(same);
    EXPECT_EQ(MessageOf([&] { numbers.Array.SetSorted(true); }), "Invalid index");
    EXPECT_FALSE(numbers.Array.GetSorted());
    TObjectArraySecondaryIndex index(&numbers.Array);
    index.OnCompare = numbers.Array.CompareRoutine;
    EXPECT_EQ(MessageOf([&] { index.UpdateIndex(); }), "Invalid index");
  }
}

TEST(SecondaryIndex, OrdersASnapshotAndLeavesTheSource) {
  TNumbers numbers({30, 10, 20});
  TObjectArraySecondaryIndex index(&numbers.Array);
  EXPECT_EQ(Ordered(index), (TValues{30, 10, 20}));
  index.OnCompare = ByValue;
  index.UpdateIndex();
  EXPECT_EQ(Ordered(index), (TValues{10, 20, 30}));
  EXPECT_EQ(numbers.Values(), (TValues{30, 10, 20}));

  numbers.Array.Add(numbers.Make(5));
  EXPECT_EQ(index.GetCount(), 3);
  index.UpdateIndex();
  EXPECT_EQ(Ordered(index), (TValues{5, 10, 20, 30}));
  numbers.Array.Delete(3);
  EXPECT_EQ(MessageOf([&] { index.GetOrderedItems(0); }), "Invalid index");
  EXPECT_EQ(MessageOf([&] { index.GetOrderedItems(4); }), "Invalid index");
  index.SetSource(nullptr);
  EXPECT_EQ(index.GetCount(), 0);
}

TEST(StringIndex, ComparesKeysByteByByteKeptOrAskedForAnew) {
  TNumbers numbers({0, 1, 2, 3, 4});
  const std::string keys[] = {"b", "\xE4", "B", "", "bb"};
  int asked = 0;
  auto key = [&](TObject* AObject) {
    ++asked;
    return keys[static_cast<TNumber*>(AObject)->Value];
  };
  for (bool cached : {false, true}) {
    TObjectArrayStringSecondaryIndex index(&numbers.Array);
    index.CacheStrings = cached;
    index.UpdateIndex();  // no keys yet: the source's order
    EXPECT_EQ(Ordered(index), (TValues{0, 1, 2, 3, 4}));
    index.OnGetString = TGetObjectStringEvent::To(key);
    asked = 0;
    index.UpdateIndex();
    EXPECT_EQ(Ordered(index), (TValues{3, 2, 0, 4, 1}));
    if (cached) {
      EXPECT_EQ(asked, 5);
    } else {
      EXPECT_EQ(asked % 2, 0);
      EXPECT_GT(asked, 10);
    }
    index.Sort();  // keys that are kept have moved with their items
    EXPECT_EQ(Ordered(index), (TValues{3, 2, 0, 4, 1}));
  }
}

}  // namespace
}  // namespace velox
