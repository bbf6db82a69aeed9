#include "velox/containers/velIntfArray.hpp"

#include <algorithm>
#include <limits>
#include <utility>

#include "velox/runtime/velException.hpp"

namespace velox {

TInterfaceArray::~TInterfaceArray() {
  for (int32_t i = 0; i < Count_; ++i) Assign(i, nullptr);
}

void TInterfaceArray::AddItem(IInterface* Item, int32_t Index) {
  if (Index < 0 || Index > Count_) throw Exception(seInvalidIndex);
  if (GetAllocCount() == Count_) {
    const int64_t grown = std::max(int64_t{Count_} + 10, int64_t{Count_} * 11 / 10);
    if (grown > std::numeric_limits<int32_t>::max()) throw EOutOfMemory();
    Items_.reserve(static_cast<size_t>(grown));  // resizing alone would double the room
    Items_.resize(static_cast<size_t>(grown));
  }
  const auto place = Items_.begin() + Index;
  std::move_backward(place, Items_.begin() + Count_, Items_.begin() + Count_ + 1);
  *place = Item;
  ++Count_;
  if (Item != nullptr) Item->AddRef();
}

void TInterfaceArray::Remove(IInterface* Item) {
  const int32_t index = Find(Item);
  if (index >= 0) DeleteItem(index);
}

void TInterfaceArray::Remove(int32_t Index) {
  CheckIndex(Index);
  DeleteItem(Index);
}

void TInterfaceArray::DeleteItem(int32_t Index) {
  CheckIndex(Index);
  const int32_t last = --Count_;
  for (int32_t i = Index; i < last; ++i) Assign(i, Items_[static_cast<size_t>(i) + 1]);
  Assign(last, nullptr);
}

int32_t TInterfaceArray::Find(const IInterface* Item) const noexcept {
  const auto end = Items_.begin() + Count_;
  const auto found = std::find(Items_.begin(), end, Item);
  return found == end ? -1 : static_cast<int32_t>(found - Items_.begin());
}

TInterfaceReference TInterfaceArray::GetItem(int32_t Index) const {
  CheckIndex(Index);
  IInterface* const item = Items_[static_cast<size_t>(Index)];
  if (item != nullptr) item->AddRef();
  return TInterfaceReference(item);
}

void TInterfaceArray::CheckIndex(int32_t Index) const {
  if (Index < 0 || Index >= Count_) throw Exception(seInvalidIndex);
}

void TInterfaceArray::Assign(int32_t Index, IInterface* Item) {
  if (Item != nullptr) Item->AddRef();
  IInterface* const old = std::exchange(Items_[static_cast<size_t>(Index)], Item);
  if (old != nullptr) old->Release();
}

}  // namespace velox
