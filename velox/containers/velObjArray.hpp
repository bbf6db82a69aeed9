#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "velox/containers/velContainersCommon.hpp"

namespace velox {

/// A growable array of object references. It can keep itself sorted and find its items by binary
/// search, own its items or merely refer to them, and lets a listener refuse and observe every
/// insertion and deletion.
///
///     TObjectArray modules(TClass::Of<TModule>());
///     modules.SetSharedObjects(false);  // the array frees what it drops
///     modules.CompareRoutine = TObjectCompareRoutine::Bind<&CompareModuleNames>();
///     modules.SetSorted(true);
///     modules.Add(new TModule("velox.dll"));
///
/// Indexes count from 0. A wrong one raises Exception "Invalid index" and changes nothing.
///
/// The result of the last FindItem is remembered, and returned at once when the same reference is
/// asked for again. The remembered state follows insertions and deletions only coarsely: an
/// insertion marks the remembered reference as found, a deletion as absent, at the position it was
/// found at; Clear, Delete by index, MoveTo and switching Sorted on forget it (asked for null,
/// FindItem then answers with what was remembered); Sort does not. An exact hit within the halving
/// of a sorted array leaves it as it was.
///
/// So the answer may be out of date when the object's key has changed since, or when a new object
/// has got the address of one that is gone. Delete(IndexOf(object)) forgets, Delete(object) does
/// not: use the former before you change an item's key, and for an item that is freed.
///
/// Threads: one at a time; callers that share an array lock around it.
class VELOX_API TObjectArray : public TObject {
 public:
  /// An empty array of capacity 0 that refers to its items, unsorted. The class is only kept for
  /// the reader of GetItemClass(); nothing checks items against it.
  explicit TObjectArray(TClass AItemClass);

  /// Clears. Overrides of DoModifying and DoModify in a descendant are no longer reached from here:
  /// a descendant that needs them for its last items calls Clear() in its own destructor. What a
  /// listener raises here is dropped.
  ~TObjectArray() override;

  /// Puts the object where FindItem says. True when it is contained afterwards (already, or newly),
  /// false when the listener refused. Null is an item like others.
  bool Add(TObject* AObject);
  /// Adds each item of AArray, first to last.
  void AddArray(const TObjectArray& AArray);
  /// Puts the object at Index (0..Count), in a sorted array too; one that is contained already is
  /// moved there (0..Count - 1; see MoveTo). Raises Exception "Object cannot be null" or "Invalid
  /// index".
  void Insert(TObject* AObject, int32_t Index);

  /// Drops the object; does nothing when it is absent.
  void Delete(TObject* AObject);
  void Delete(int32_t Index);
  /// Drops all items, the last one first. A listener that refuses is asked about the same item
  /// again, without end.
  void Clear();

  /// Looks for the object: by reference in an unsorted array, by CompareRoutine in a sorted one.
  /// Index receives its position, or the one where it would be added.
  bool FindItem(TObject* AObject, int32_t& Index);
  /// The position that FindItem finds, -1 when absent.
  int32_t IndexOf(TObject* AObject);
  bool IsContain(TObject* AObject);
  /// True when both hold the same items: position by position when both are sorted, otherwise as
  /// sets of equal Count (an item held twice is not counted).
  bool IsEqual(TObjectArray& AArray);

  /// Takes an item out and puts it at ToIndex; no events. Equal indexes do nothing, not even
  /// checks. Raises Exception "Cannot move element in sorted array".
  void MoveTo(int32_t FromIndex, int32_t ToIndex);
  /// Sorts by CompareRoutine; equal items may change places. No events. When a comparison raises,
  /// all items are still there, in any order.
  void Sort();

  /// The item at Index. The array stays its owner, if it is.
  TObject* GetItems(int32_t Index) const;
  /// Items, and whether there are none.
  int32_t GetCount() const noexcept { return static_cast<int32_t>(Items_.size()); }
  bool GetIsEmpty() const noexcept { return Items_.empty(); }

  /// The number of items there is room for before memory is allocated again. Setting it only ever
  /// grows it.
  int32_t GetAllocCount() const noexcept { return static_cast<int32_t>(Items_.capacity()); }
  void SetAllocCount(int32_t Value);

  /// As given to the constructor.
  TClass GetItemClass() const noexcept { return ItemClass_; }

  /// Whether the array keeps itself sorted. Switching it on sorts; when a comparison raises, it
  /// stays off.
  bool GetSorted() const noexcept { return Sorted_; }
  void SetSorted(bool Value);

  /// True (initially): the array only refers to its items. False: it frees each item that it drops,
  /// after OnModify.
  bool GetSharedObjects() const noexcept { return SharedObjects_; }
  void SetSharedObjects(bool Value) noexcept { SharedObjects_ = Value; }

  /// Called after, and before, each insertion and deletion; the sender is the array. An OnModifying
  /// that itself changes the array makes a deletion raise Exception "Invalid index" when the item
  /// has left its place.
  TContainerModifyEvent OnModify;
  TContainerModifyingEvent OnModifying;
  /// The order of a sorted array; initially the array's own CompareObjects.
  TObjectCompareRoutine CompareRoutine;

 protected:
  /// Raises OnModifying, and OnModify. Here is where a descendant takes part.
  virtual void DoModifying(TObject* AObject, TContainerModifyAction Action, bool& Accept);
  virtual void DoModify(TObject* AObject, TContainerModifyAction Action);
  /// Identity order: the difference of the two addresses.
  virtual int32_t CompareObjects(TObject* AObject1, TObject* AObject2);

  /// Inserts with events; false when the listener refused. An Index behind the end (as a remembered
  /// position may be, after deletions) means the end.
  bool AddItem(TObject* AObject, int32_t Index);
  /// Deletes with events, unless the listener refuses.
  void DeleteItem(int32_t Index);
  /// Sorts the positions L..R.
  void QuickSort(int32_t L, int32_t R);

 private:
  bool Remember(TObject* AObject, int32_t Index, bool Found) noexcept;
  void CheckIndex(int32_t Index) const;

  std::vector<TObject*> Items_;  // its capacity is AllocCount
  TClass ItemClass_;
  bool SharedObjects_ = true;
  bool Sorted_ = false;
  TObject* LastObject_ = nullptr;
  int32_t LastIndex_ = 0;
  bool LastFound_ = false;
};

/// A quicksort that knows positions only: a descendant says how many items there are, how two of
/// them compare and how two change places. Items that compare equal are not exchanged; the sort is
/// not stable all the same.
class VELOX_API TAbstractQuickSorter : public TObject {
 public:
  /// How many items there are.
  virtual int32_t GetCount() const = 0;

 protected:
  /// Orders the items at two positions: negative, zero or positive.
  virtual int32_t CompareItems(int32_t I, int32_t J) = 0;
  /// Has the items at two positions change places.
  virtual void ExchangeItems(int32_t I, int32_t J) = 0;

 public:
  /// Sorts all items.
  virtual void Sort();

 protected:
  /// Sorts the positions L..R.
  void QuickSort(int32_t L, int32_t R);
};

/// Another order of an array's items, which leaves the array as it is. A snapshot: later changes of
/// the array show after UpdateIndex. The array is borrowed and has to outlive the index or be
/// replaced by SetSource.
///
///     TObjectArraySecondaryIndex byAge(&people);
///     byAge.OnCompare = TObjectCompareRoutine::Bind<&CompareAges>();
///     byAge.UpdateIndex();
///     for (int32_t i = 0; i < byAge.GetCount(); ++i) Print(byAge.GetOrderedItems(i));
class VELOX_API TObjectArraySecondaryIndex : public TAbstractQuickSorter {
 public:
  /// Null for no source yet. A descendant with an order of its own calls UpdateIndex() in its
  /// constructor.
  explicit TObjectArraySecondaryIndex(TObjectArray* ASource);

  /// The array that is ordered; null when there is none.
  TObjectArray* GetSource() const noexcept { return Source_; }
  /// Takes the array (null for none) and builds its order.
  void SetSource(TObjectArray* ASource);
  /// Builds the order anew.
  void UpdateIndex() { SetSource(Source_); }

  int32_t GetCount() const override { return static_cast<int32_t>(Index_.size()); }
  /// The item that has place I in the order. Raises Exception "Invalid index", also for an item
  /// that the source has lost since.
  TObject* GetOrderedItems(int32_t I) const;

  /// The order. Unassigned, all items are equal and stay as in the source.
  TObjectCompareRoutine OnCompare;

 protected:
  int32_t CompareItems(int32_t I, int32_t J) override;
  void ExchangeItems(int32_t I, int32_t J) override;
  /// Sets the index to the source's own order.
  virtual void BeforeSorting();
  /// The order: calls OnCompare.
  virtual int32_t CompareObjects(TObject* AObject1, TObject* AObject2);

 private:
  TObjectArray* Source_ = nullptr;
  std::vector<int32_t> Index_;  // positions in the source
};

/// The key of an object.
using TGetObjectStringEvent = TMethod<std::string(TObject* AObject)>;

/// An order by a string key, compared byte by byte.
class VELOX_API TObjectArrayStringSecondaryIndex : public TObjectArraySecondaryIndex {
 public:
  using TObjectArraySecondaryIndex::TObjectArraySecondaryIndex;

  /// Gives the keys. Unassigned, the items stay as in the source.
  TGetObjectStringEvent OnGetString;
  /// True: each key is asked for once a build and kept. False (initially): two keys are asked for
  /// in each comparison.
  bool CacheStrings = false;

 protected:
  int32_t CompareItems(int32_t I, int32_t J) override;
  void ExchangeItems(int32_t I, int32_t J) override;
  void BeforeSorting() override;
  int32_t CompareObjects(TObject* AObject1, TObject* AObject2) override;

 private:
  std::vector<std::string>
      Strings_;  // the key of each place of the index; empty when keys are not kept
};

}  // namespace velox
