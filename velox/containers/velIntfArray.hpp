#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "velox/containers/velContainersCommon.hpp"
#include "velox/runtime/velWindows.hpp"

namespace velox {

VELOX_COM_CLASSES_BEGIN
/// An enumerator of objects. It has no operations of its own yet: a container that hands one out
/// derives an interface with its own.
struct IObjectEnumerator : public IInterface {};
VELOX_COM_CLASSES_END

/// Gives a counted reference back.
struct TInterfaceRelease {
  /// Gives it back.
  void operator()(IInterface* Item) const { Item->Release(); }
};
/// A counted reference that is given back when it goes; null for none.
using TInterfaceReference = std::unique_ptr<IInterface, TInterfaceRelease>;

/// A growable array of reference-counted interfaces. It holds one counted reference for each place,
/// so it keeps its items alive; destroying it gives all of them back.
///
/// An item whose last reference is the array's is destroyed inside the operation that removes it;
/// it must not touch the array then. Indexes count from 0; a wrong one raises Exception "Invalid
/// index" and changes nothing, in every operation that takes one.
///
/// Threads: one at a time.
class VELOX_API TInterfaceArray : public TObject {
 public:
  /// Empty.
  TInterfaceArray() noexcept = default;
  ~TInterfaceArray() override;

  /// Appends. Null, and what is there already, are items like others.
  void Add(IInterface* Item) { AddItem(Item, Count_); }
  /// Inserts at Index (0..Count), moving those from there on up.
  void AddItem(IInterface* Item, int32_t Index);

  /// Removes the first place that holds the item; nothing when it is absent.
  void Remove(IInterface* Item);
  void Remove(int32_t Index);
  /// Removes the place and moves those behind it down, each as an assignment: the moved reference
  /// is taken, then the overwritten one is given back.
  void DeleteItem(int32_t Index);

  /// The first index that holds this very interface pointer, -1 when absent.
  int32_t Find(const IInterface* Item) const noexcept;
  /// A new reference to the item; null when the place holds null.
  TInterfaceReference GetItem(int32_t Index) const;
  /// Raises Exception "Invalid index" unless there is an item at Index.
  void CheckIndex(int32_t Index) const;

  /// Items.
  int32_t GetCount() const noexcept { return Count_; }
  /// The number of items there is room for before memory is allocated again; it never shrinks.
  int32_t GetAllocCount() const noexcept { return static_cast<int32_t>(Items_.size()); }

 private:
  void Assign(int32_t Index, IInterface* Item);

  int32_t Count_ = 0;
  std::vector<IInterface*> Items_;  // as long as the capacity; null behind Count_
};

}  // namespace velox
