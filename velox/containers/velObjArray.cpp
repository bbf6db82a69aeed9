#include "velox/containers/velObjArray.hpp"

#include <algorithm>
#include <limits>
#include <memory>
#include <numeric>
#include <utility>

namespace velox {
namespace {

int32_t Middle(int32_t L, int32_t R) noexcept {
  return static_cast<int32_t>((static_cast<uint32_t>(L) + static_cast<uint32_t>(R)) >> 1);
}

/// Partitions L..R and its parts until all is in order, the left part of each always first.
/// Partition takes L and R and gives the positions {I, J} at which its two scans ended. The ranges
/// that wait are kept on the heap: the worst order of items leaves as many of them as there are
/// items, which a thread's stack might not hold.
template <class TPartition>
void SortRanges(int32_t L, int32_t R, TPartition Partition) {
  std::vector<std::pair<int32_t, int32_t>> waiting{{L, R}};
  while (!waiting.empty()) {
    const auto [left, right] = waiting.back();
    waiting.pop_back();
    const auto [i, j] = Partition(left, right);
    if (i < right) waiting.emplace_back(i, right);
    if (left < j) waiting.emplace_back(left, j);
  }
}

}  // namespace

TObjectArray::TObjectArray(TClass AItemClass)
    : CompareRoutine(TObjectCompareRoutine::Bind<&TObjectArray::CompareObjects>(this)),
      ItemClass_(AItemClass) {}

TObjectArray::~TObjectArray() {
  try {
    Clear();
  } catch (...) {
    // Nobody is left to tell. What the array owns must go all the same.
    if (SharedObjects_) return;
    for (TObject* item : Items_) delete item;
  }
}

bool TObjectArray::Add(TObject* AObject) {
  int32_t index = 0;
  return FindItem(AObject, index) || AddItem(AObject, index);
}

void TObjectArray::AddArray(const TObjectArray& AArray) {
  const int32_t count = AArray.GetCount();
  for (int32_t i = 0; i < count; ++i) Add(AArray.GetItems(i));
}

void TObjectArray::Insert(TObject* AObject, int32_t Index) {
  if (AObject == nullptr) throw Exception(seObjectIsNull);
  if (Index < 0 || Index > GetCount()) throw Exception(seInvalidIndex);
  int32_t found = 0;
  if (FindItem(AObject, found)) {
    MoveTo(found, Index);
  } else {
    AddItem(AObject, Index);
  }
}

void TObjectArray::Delete(TObject* AObject) {
  int32_t index = 0;
  if (FindItem(AObject, index)) DeleteItem(index);
}

void TObjectArray::Delete(int32_t Index) {
  CheckIndex(Index);
  LastObject_ = nullptr;
  DeleteItem(Index);
}

void TObjectArray::Clear() {
  LastObject_ = nullptr;
  while (GetCount() >= 1) DeleteItem(GetCount() - 1);
}

bool TObjectArray::FindItem(TObject* AObject, int32_t& Index) {
  if (AObject == LastObject_) {
    Index = LastIndex_;
    return LastFound_;
  }
  if (!Sorted_) {
    Index = static_cast<int32_t>(std::find(Items_.begin(), Items_.end(), AObject) - Items_.begin());
    return Remember(AObject, Index, Index < GetCount());
  }
  int32_t low = 0;
  int32_t high = GetCount() - 1;
  if (high < 0) return Remember(AObject, Index = 0, false);
  while (low < high) {
    const int32_t middle = Middle(low, high);
    const int32_t order = CompareRoutine(AObject, Items_[static_cast<size_t>(middle)]);
    if (order == 0) {
      Index = middle;
      return true;  // the last lookup stays remembered
    }
    if (order < 0) {
      high = middle - 1;
    } else {
      low = middle + 1;
    }
  }
  const int32_t order = CompareRoutine(AObject, Items_[static_cast<size_t>(low)]);
  Index = order > 0 ? low + 1 : low;
  return Remember(AObject, Index, order == 0);
}

int32_t TObjectArray::IndexOf(TObject* AObject) {
  int32_t index = 0;
  return FindItem(AObject, index) ? index : -1;
}

bool TObjectArray::IsContain(TObject* AObject) {
  int32_t index = 0;
  return FindItem(AObject, index);
}

bool TObjectArray::IsEqual(TObjectArray& AArray) {
  if (GetCount() != AArray.GetCount()) return false;
  if (Sorted_ && AArray.Sorted_) return Items_ == AArray.Items_;
  TObjectArray& searched = Sorted_ ? *this : AArray;
  const TObjectArray& asked = Sorted_ ? AArray : *this;
  return std::all_of(asked.Items_.begin(), asked.Items_.end(),
                     [&searched](TObject* Item) { return searched.IsContain(Item); });
}

void TObjectArray::MoveTo(int32_t FromIndex, int32_t ToIndex) {
  if (FromIndex == ToIndex) return;
  if (Sorted_) throw Exception(seCannotMoveElementInSortedArray);
  CheckIndex(FromIndex);
  CheckIndex(ToIndex);
  const auto from = Items_.begin() + FromIndex;
  const auto to = Items_.begin() + ToIndex;
  if (FromIndex < ToIndex) {
    std::rotate(from, from + 1, to + 1);
  } else {
    std::rotate(to, from, from + 1);
  }
  LastObject_ = nullptr;
}

void TObjectArray::Sort() {
  if (GetCount() > 1) QuickSort(0, GetCount() - 1);
}

TObject* TObjectArray::GetItems(int32_t Index) const {
  CheckIndex(Index);
  return Items_[static_cast<size_t>(Index)];
}

void TObjectArray::SetAllocCount(int32_t Value) {
  if (Value <= GetAllocCount()) return;
  if (static_cast<size_t>(Value) > Items_.max_size()) throw EOutOfMemory();
  Items_.reserve(static_cast<size_t>(Value));
}

void TObjectArray::SetSorted(bool Value) {
  if (Sorted_ == Value) return;
  if (Value) {
    LastObject_ = nullptr;
    Sort();
  }
  Sorted_ = Value;
}

void TObjectArray::DoModifying(TObject* AObject, TContainerModifyAction Action, bool& Accept) {
  if (OnModifying) OnModifying(this, AObject, Action, Accept);
}

void TObjectArray::DoModify(TObject* AObject, TContainerModifyAction Action) {
  if (OnModify) OnModify(this, AObject, Action);
}

int32_t TObjectArray::CompareObjects(TObject* AObject1, TObject* AObject2) {
  const auto difference = static_cast<intptr_t>(reinterpret_cast<uintptr_t>(AObject1) -
                                                reinterpret_cast<uintptr_t>(AObject2));
  // Addresses of 32 bits always fit and may wrap; wider ones keep their sign.
  return static_cast<int32_t>(std::clamp<intptr_t>(difference, std::numeric_limits<int32_t>::min(),
                                                   std::numeric_limits<int32_t>::max()));
}

bool TObjectArray::AddItem(TObject* AObject, int32_t Index) {
  bool accept = true;
  DoModifying(AObject, maAdd, accept);
  if (!accept) return false;
  if (GetAllocCount() == GetCount()) {
    const int64_t grown = int64_t{GetCount()} * 11 / 10 + 10;
    if (grown > std::numeric_limits<int32_t>::max()) throw EOutOfMemory();
    SetAllocCount(static_cast<int32_t>(grown));
  }
  Items_.insert(Items_.begin() + std::clamp(Index, 0, GetCount()), AObject);
  LastFound_ = true;
  DoModify(AObject, maAdd);
  return true;
}

void TObjectArray::DeleteItem(int32_t Index) {
  TObject* const object = GetItems(Index);
  bool accept = true;
  DoModifying(object, maDelete, accept);
  if (!accept) return;
  // A listener that has itself changed the array must not make it drop one item and free another.
  if (GetItems(Index) != object) throw Exception(seInvalidIndex);
  Items_.erase(Items_.begin() + Index);
  LastFound_ = false;
  const auto release = [this](TObject* Dropped) {
    if (!SharedObjects_) delete Dropped;
  };
  const std::unique_ptr<TObject, decltype(release)> dropped(object, release);
  DoModify(object, maDelete);
}

void TObjectArray::QuickSort(int32_t L, int32_t R) {
  SortRanges(L, R, [this](int32_t I, int32_t J) {
    TObject* const pivot = GetItems(Middle(I, J));
    do {
      // GetItems ends a scan that a contradictory comparison would lead out of the array.
      while (CompareRoutine(GetItems(I), pivot) < 0) ++I;
      while (CompareRoutine(GetItems(J), pivot) > 0) --J;
      if (I <= J) std::swap(Items_[static_cast<size_t>(I++)], Items_[static_cast<size_t>(J--)]);
    } while (I <= J);
    return std::pair(I, J);
  });
}

bool TObjectArray::Remember(TObject* AObject, int32_t Index, bool Found) noexcept {
  LastObject_ = AObject;
  LastIndex_ = Index;
  LastFound_ = Found;
  return Found;
}

void TObjectArray::CheckIndex(int32_t Index) const {
  if (Index < 0 || Index >= GetCount()) throw Exception(seInvalidIndex);
}

void TAbstractQuickSorter::Sort() {
  if (GetCount() >= 1) QuickSort(0, GetCount() - 1);
}

void TAbstractQuickSorter::QuickSort(int32_t L, int32_t R) {
  SortRanges(L, R, [this](int32_t I, int32_t J) {
    int32_t pivot = Middle(I, J);
    do {
      while (CompareItems(I, pivot) < 0) ++I;
      while (CompareItems(J, pivot) > 0) --J;
      if (I > J) break;
      if (CompareItems(I, J) != 0) {
        ExchangeItems(I, J);
        if (pivot == I) {
          pivot = J;
        } else if (pivot == J) {
          pivot = I;
        }
      }
      ++I;
      --J;
    } while (I <= J);
    return std::pair(I, J);
  });
}

TObjectArraySecondaryIndex::TObjectArraySecondaryIndex(TObjectArray* ASource) {
  SetSource(ASource);
}

void TObjectArraySecondaryIndex::SetSource(TObjectArray* ASource) {
  Source_ = ASource;
  Index_.clear();
  if (Source_ == nullptr) return;
  BeforeSorting();
  Sort();
}

TObject* TObjectArraySecondaryIndex::GetOrderedItems(int32_t I) const {
  if (I < 0 || I >= GetCount()) throw Exception(seInvalidIndex);
  return Source_->GetItems(Index_[static_cast<size_t>(I)]);
}

int32_t TObjectArraySecondaryIndex::CompareItems(int32_t I, int32_t J) {
  return CompareObjects(GetOrderedItems(I), GetOrderedItems(J));
}

void TObjectArraySecondaryIndex::ExchangeItems(int32_t I, int32_t J) {
  std::swap(Index_[static_cast<size_t>(I)], Index_[static_cast<size_t>(J)]);
}

void TObjectArraySecondaryIndex::BeforeSorting() {
  Index_.resize(static_cast<size_t>(Source_->GetCount()));
  std::iota(Index_.begin(), Index_.end(), 0);
}

int32_t TObjectArraySecondaryIndex::CompareObjects(TObject* AObject1, TObject* AObject2) {
  return OnCompare ? OnCompare(AObject1, AObject2) : 0;
}

int32_t TObjectArrayStringSecondaryIndex::CompareItems(int32_t I, int32_t J) {
  if (!CacheStrings || Strings_.empty()) return TObjectArraySecondaryIndex::CompareItems(I, J);
  if (std::min(I, J) < 0 || std::max(I, J) >= GetCount()) throw Exception(seInvalidIndex);
  return Strings_[static_cast<size_t>(I)].compare(Strings_[static_cast<size_t>(J)]);
}

void TObjectArrayStringSecondaryIndex::ExchangeItems(int32_t I, int32_t J) {
  TObjectArraySecondaryIndex::ExchangeItems(I, J);
  if (!Strings_.empty())
    std::swap(Strings_[static_cast<size_t>(I)], Strings_[static_cast<size_t>(J)]);
}

void TObjectArrayStringSecondaryIndex::BeforeSorting() {
  TObjectArraySecondaryIndex::BeforeSorting();
  Strings_.clear();
  if (!CacheStrings || !OnGetString) return;
  std::vector<std::string> keys;
  keys.reserve(static_cast<size_t>(GetCount()));
  for (int32_t i = 0; i < GetCount(); ++i) keys.push_back(OnGetString(GetSource()->GetItems(i)));
  Strings_ = std::move(keys);
}

int32_t TObjectArrayStringSecondaryIndex::CompareObjects(TObject* AObject1, TObject* AObject2) {
  if (!OnGetString) return 0;
  const std::string first = OnGetString(AObject1);
  const std::string second = OnGetString(AObject2);
  return first.compare(second);
}

}  // namespace velox
