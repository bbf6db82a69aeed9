#pragma once

#include <cstdint>
#include <utility>

#include "velox/runtime/velMethod.hpp"
#include "velox/runtime/velObject.hpp"

namespace velox {

/// A node, followed in the same allocation by the key and then the data.
struct TAVLTreeNode {
  TAVLTreeNode* Left;   // the smaller keys
  TAVLTreeNode* Right;  // the larger keys
  int32_t Balance;      // height of the right subtree less height of the left: -1, 0 or 1
};

/// Orders two keys: negative, zero or positive as the first is smaller than, equal to or larger
/// than the second.
using TAVLTreeCompareRoutine = TMethod<int32_t(const void* Key1, const void* Key2)>;

/// Told of one node of a pass.
using TAVLIterationRoutine =
    TMethod<void(TObject* Sender, const void* Key, const void* Data, void* UserData)>;

/// A height-balanced binary search tree (Adelson-Velsky and Landis, 1962) of keys and data of fixed
/// sizes, which are copied into its nodes.
///
///     TAVLTree ages(sizeof(int32_t));  // by integer keys
///     ages.Add(&id, &age);
///     if (ages.Search(&id, &age)) Print(age);
///
/// Keys and data are copied by size: a shorter buffer than KeySize or DataSize is a fault that
/// can't be noticed. The data follows the key at once, so it may be misaligned: copy it out. An
/// exception from the comparison or from StoreData leaves the nodes of the tree as they were.
///
/// Threads: one at a time; searching an unchanging tree from several is fine. Routines that the
/// tree calls must not change it.
class VELOX_API TAVLTree : public TObject {
 public:
  /// Sizes are bytes. Raises Exception for negative ones.
  TAVLTree(int32_t AKeySize, int32_t ADataSize, TAVLTreeCompareRoutine ACompareRoutine);
  /// Keys are int32_t, ordered by CompareIntegers.
  explicit TAVLTree(int32_t ADataSize);
  ~TAVLTree() override;

  /// The difference of two int32_t, which wraps: keys further apart than 2^31 compare the wrong way
  /// round.
  static int32_t CompareIntegers(const void* Key1, const void* Key2) noexcept;

  /// Bytes of a key, and of the data kept with it.
  int32_t GetKeySize() const noexcept { return KeySize_; }
  int32_t GetDataSize() const noexcept { return DataSize_; }

  /// Stores Data under Key; a key that is there already gets the new data.
  void Add(const void* Key, const void* Data);
  /// True when the key was there.
  bool Remove(const void* Key);
  /// Copies the key's data to Data. False, and Data untouched, when the key is absent.
  bool Search(const void* Key, void* Data) const;
  bool KeyExists(const void* Key) const;
  void Clear();

  /// Calls Routine for each node by ascending keys. The sender is the tree.
  void LeftPass(const TAVLIterationRoutine& Routine, void* UserData);
  /// The same by descending keys.
  void RightPass(const TAVLIterationRoutine& Routine, void* UserData);

  /// The order of the keys. Change it only while the tree is empty.
  TAVLTreeCompareRoutine CompareRoutine;

 protected:
  struct TSearchContext;

  /// A key that is added is there already, at Link: stores the context's data.
  virtual void Add_KeyFound(TAVLTreeNode*& Link, TSearchContext& Context);
  /// Puts Data into a node, which is new (all zeros) or holds data already. Here: copies DataSize
  /// bytes.
  virtual void StoreData(TAVLTreeNode* Node, const void* Data);
  /// A node's data is about to go, which is still all zeros when StoreData raised for a new node at
  /// once. It must not raise. Descendants that override this call Clear() in their destructors.
  virtual void ReleaseData(TAVLTreeNode* Node);

  /// Where a node keeps its key, and its data behind that.
  static void* GetKeyPointer(TAVLTreeNode* Node) noexcept { return Node + 1; }
  void* GetDataPointer(TAVLTreeNode* Node) const noexcept {
    return static_cast<uint8_t*>(GetKeyPointer(Node)) + KeySize_;
  }
  /// The link to the smaller (Direction -1) or larger (1) keys.
  static TAVLTreeNode*& GetNodeLink(TAVLTreeNode* Node, int32_t Direction) noexcept {
    return Direction < 0 ? Node->Left : Node->Right;
  }
  TAVLTreeNode* GetRoot() const noexcept { return Root_; }

  /// One search: what is done where the key is found, where it is missing, and at each link on the
  /// way back up, with the direction that was taken there. Null handlers do nothing.
  struct TSearchContext {
    /// What is looked for, and what may be stored there.
    const void* Key;
    const void* Data;
    /// Called at the key's link, or at the empty link where it would stand.
    void (TAVLTree::*KeyFound)(TAVLTreeNode*& Link, TSearchContext& Context);
    void (TAVLTree::*KeyNotFound)(TAVLTreeNode*& Link, TSearchContext& Context);
    /// Called at each link on the way back up.
    void (*Iteration)(TAVLTreeNode*& Link, int32_t Direction, TSearchContext& Context);
    /// Whether the key was there.
    bool Found;
  };

 private:
  struct TNodeDeleter;
  struct TPath;

  void InternalSearchEx(TSearchContext& Context);
  TAVLTreeNode* Find(const void* Key) const;
  template <class TVisit, class TCompare>
  std::pair<TAVLTreeNode**, bool> Descend(const void* Key, TVisit Visit, TCompare Compare);
  template <class TVisit>
  std::pair<TAVLTreeNode**, bool> Descend(const void* Key, TVisit Visit);

  void Add_KeyNotFound(TAVLTreeNode*& Link, TSearchContext& Context);
  void Remove_KeyFound(TAVLTreeNode*& Link, TSearchContext& Context);
  void ReplaceByMinimum(TAVLTreeNode*& Link, TSearchContext& Context);
  static void AddStep(TAVLTreeNode*& Link, int32_t Direction, TSearchContext& Context);
  static void RemoveStep(TAVLTreeNode*& Link, int32_t Direction, TSearchContext& Context);
  static void Rebalance(TAVLTreeNode*& Link) noexcept;
  static TAVLTreeNode* Rotate(TAVLTreeNode* Node, int32_t Side) noexcept;

  void ClearSubtree(TAVLTreeNode* Node);
  void Pass(TAVLTreeNode* Node, int32_t First, const TAVLIterationRoutine& Routine, void* UserData);

  TAVLTreeNode* Root_ = nullptr;
  int32_t KeySize_;
  int32_t DataSize_;
};

/// Keeps every value that is added under a key. The data of a node, and what Search gives, is a
/// pointer to the key's list: an int32_t count, then as many values of ItemSize bytes, in the order
/// they were added. The list belongs to the tree, and its address changes when a value is added: so
/// the Data given to Add must not lie in the key's own list.
class VELOX_API TAVLDuplicatedKeyTree : public TAVLTree {
 public:
  /// Sizes are bytes. Raises Exception for negative ones.
  TAVLDuplicatedKeyTree(int32_t AKeySize, int32_t AItemSize,
                        TAVLTreeCompareRoutine ACompareRoutine);
  /// Keys are int32_t.
  explicit TAVLDuplicatedKeyTree(int32_t AItemSize);
  ~TAVLDuplicatedKeyTree() override;

  /// Bytes of a value.
  int32_t GetItemSize() const noexcept { return ItemSize_; }

 protected:
  /// Appends the value.
  void StoreData(TAVLTreeNode* Node, const void* Data) override;
  void ReleaseData(TAVLTreeNode* Node) override;

 private:
  int32_t ItemSize_;
};

/// Maps keys to objects, which it only refers to.
class VELOX_API TAVLObjectTree : public TObject {
 public:
  /// KeySize is bytes. Raises Exception for a negative one.
  TAVLObjectTree(int32_t KeySize, TAVLTreeCompareRoutine CompareRoutine);
  /// Keys are int32_t.
  TAVLObjectTree();

  /// Refers to Obj under Key, in place of what stood there.
  void Add(const void* Key, TObject* Obj);
  /// Null when the key is absent.
  TObject* Search(const void* Key) const;
  bool KeyExists(const void* Key) const { return Tree_.KeyExists(Key); }
  bool Remove(const void* Key) { return Tree_.Remove(Key); }
  void Clear() { Tree_.Clear(); }

  /// As the passes of TAVLTree; the sender is the tree inside, the data an object reference.
  void LeftPass(const TAVLIterationRoutine& Routine, void* UserData) {
    Tree_.LeftPass(Routine, UserData);
  }
  void RightPass(const TAVLIterationRoutine& Routine, void* UserData) {
    Tree_.RightPass(Routine, UserData);
  }

 private:
  TAVLTree Tree_;
};

}  // namespace velox
