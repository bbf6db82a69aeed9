#include "velox/containers/velCyclicBuffer.hpp"

#include <algorithm>
#include <atomic>
#include <cstring>

#include "velox/runtime/velException.hpp"
#include "velox/runtime/velMessages.hpp"

namespace velox {
namespace {

/// Holds the lock of a buffer for a scope.
class TLocked {
 public:
  explicit TLocked(TCyclicBuffer& Buffer) : Buffer_(Buffer) { Buffer_.Lock(); }
  ~TLocked() { Buffer_.Unlock(); }
  TLocked(const TLocked&) = delete;
  TLocked& operator=(const TLocked&) = delete;

 private:
  TCyclicBuffer& Buffer_;
};

uint8_t* Advance(uint8_t* Start, ptrdiff_t Bytes) noexcept {
  return reinterpret_cast<uint8_t*>(reinterpret_cast<uintptr_t>(Start) +
                                    static_cast<uintptr_t>(Bytes));
}

uintptr_t Distance(const uint8_t* Start, const uint8_t* Address) noexcept {
  return reinterpret_cast<uintptr_t>(Address) - reinterpret_cast<uintptr_t>(Start);
}

}  // namespace

/// What an operation works with: read once, checked once, so that nobody can change it meanwhile.
struct TCyclicBuffer::TPositions {
  ptrdiff_t Size;  // items
  ptrdiff_t End;   // bytes, as are the positions
  ptrdiff_t Head;
  ptrdiff_t Tail;
};

TCyclicBuffer::TPositions TCyclicBuffer::Load() {
  const int32_t size = GetSize();
  const int64_t end = int64_t{size} * ItemSize_;
  if (end > PTRDIFF_MAX - ItemSize_) throw Exception(messages::seBufferIsTooSmall);
  uintptr_t head = Distance(Buffer_, GetHead());
  const uintptr_t tail = Distance(Buffer_, GetTail());
  const auto last = static_cast<uintptr_t>(end);
  // After overwriting up to the end the oldest item is the second one.
  if (head == last + static_cast<uintptr_t>(ItemSize_)) head = static_cast<uintptr_t>(ItemSize_);
  if (size < 0 || head > last || tail > last) throw Exception(messages::seBufferIsDamaged);
  return {size, static_cast<ptrdiff_t>(end), static_cast<ptrdiff_t>(head),
          static_cast<ptrdiff_t>(tail)};
}

ptrdiff_t TCyclicBuffer::ItemsIn(ptrdiff_t Bytes) const noexcept {
  return ItemSize_ == 1 ? Bytes : Bytes / ItemSize_;
}

ptrdiff_t TCyclicBuffer::CountOf(const TPositions& Positions) const noexcept {
  const ptrdiff_t count = ItemsIn(Positions.Tail - Positions.Head);
  return count < 0 ? count + Positions.Size : count;
}

/// The address of a range of the data area, after making sure that it is inside.
uint8_t* TCyclicBuffer::Part(const TPositions& Positions, ptrdiff_t Offset, ptrdiff_t Bytes) const {
  if (Bytes > std::min(Positions.End, Length_) - Offset)
    throw Exception(messages::seBufferIsTooSmall);
  return Buffer_ + Offset;
}

void TCyclicBuffer::ReadData(void* Buffer, int32_t& Count) {
  if (Count == 0) return;
  if (Count < 0) throw Exception(messages::seIncorrectParameters);
  const TLocked locked(*this);
  CheckAllocated();
  const TPositions at = Load();
  const ptrdiff_t count = std::min<ptrdiff_t>(Count, CountOf(at));
  ptrdiff_t head = at.Head;
  ptrdiff_t first = 0;  // bytes up to the end, when the data wraps
  if (head > at.Tail) {
    first = std::min(at.Size - ItemsIn(head), count) * ItemSize_;
    head += first;
    if (ItemsIn(head) >= at.Size) head = 0;
  }
  const ptrdiff_t rest = count * ItemSize_ - first;
  const uint8_t* const firstPart = first > 0 ? Part(at, at.Head, first) : nullptr;
  const uint8_t* const restPart = rest > 0 ? Part(at, head, rest) : nullptr;
  if (first > 0) std::memcpy(Buffer, firstPart, static_cast<size_t>(first));
  if (rest > 0)
    std::memcpy(static_cast<uint8_t*>(Buffer) + first, restPart, static_cast<size_t>(rest));
  head += rest;
  if (head != at.Head) SetHead(Buffer_ + head);
  Count = static_cast<int32_t>(count);
}

void TCyclicBuffer::WriteData(const void* Buffer, int32_t& Count) {
  if (Count == 0) return;
  if (Count < 0) throw Exception(messages::seIncorrectParameters);
  const TLocked locked(*this);
  CheckAllocated();
  const TPositions at = Load();
  const ptrdiff_t old = CountOf(at);
  const ptrdiff_t free = at.Size - 1 - (Overwritable_ ? 0 : old);
  const ptrdiff_t count = std::max<ptrdiff_t>(0, std::min<ptrdiff_t>(Count, free));
  if (count > 0) {
    const ptrdiff_t bytes = count * ItemSize_;
    const ptrdiff_t first = std::min(at.Size - ItemsIn(at.Tail), count) * ItemSize_;
    const ptrdiff_t beyond = bytes - first;  // what continues at the start
    uint8_t* const firstPart = first > 0 ? Part(at, at.Tail, first) : nullptr;
    uint8_t* const startPart = beyond > 0 ? Part(at, 0, beyond) : nullptr;
    const auto* source = static_cast<const uint8_t*>(Buffer);
    ptrdiff_t tail = at.Tail + bytes;
    if (tail > at.End) tail -= at.End;
    ptrdiff_t head = at.Head;
    if (at.Size - old <= count) head = tail + ItemSize_;  // the write reaches the oldest item
    if (head == at.End) head = 0;

    // The oldest items are given up before they are overwritten, and the new ones counted when they
    // are there: a process may be ended anywhere in between, and another one goes on with the ring.
    // (With the tail at the end, a head at the start would mean a full ring.)
    const ptrdiff_t early = head == 0 && at.Tail == at.End ? at.End : head;
    if (early != at.Head) SetHead(Advance(Buffer_, early));
    std::atomic_signal_fence(std::memory_order_seq_cst);
    if (beyond > 0) std::memcpy(startPart, source + first, static_cast<size_t>(beyond));
    if (first > 0) std::memcpy(firstPart, source, static_cast<size_t>(first));
    std::atomic_signal_fence(std::memory_order_seq_cst);
    SetTail(Buffer_ + tail);
    if (head != early) SetHead(Advance(Buffer_, head));
  }
  Count = static_cast<int32_t>(count);
}

int32_t TCyclicBuffer::GetCount() {
  const TLocked locked(*this);
  return static_cast<int32_t>(CountOf(Load()));
}

bool TCyclicBuffer::GetEmpty() {
  const TLocked locked(*this);
  const TPositions at = Load();
  return at.Head == at.Tail;
}

int32_t TCyclicBuffer::GetAvailable() {
  const TLocked locked(*this);
  const TPositions at = Load();
  return static_cast<int32_t>(at.Size - 1 - CountOf(at));
}

int32_t TCyclicBuffer::GetMaximalAvailable() {
  return Overwritable_ ? GetSize() - 1 : GetAvailable();
}

void TCyclicBuffer::SetItemSize(int32_t Bytes) {
  if (Bytes < 1) throw Exception(messages::seIncorrectParameters);
  if (Buffer_ != nullptr) throw Exception("Already Allocated");
  ItemSize_ = Bytes;
}

void TCyclicBuffer::CheckAllocated() {
  if (Buffer_ == nullptr || GetSize() == 0) throw Exception(messages::seBufferHaveNotBeenAllocated);
}

void TCyclicBuffer::Lock() {}

void TCyclicBuffer::Unlock() {}

void TCyclicBuffer::SetStorage(uint8_t* Start, ptrdiff_t Length) noexcept {
  Buffer_ = Start;
  Length_ = Length;
}

void TLocalCyclicBuffer::Reset(uint8_t* Start, ptrdiff_t Length, int32_t Size) noexcept {
  SetStorage(Start, Length);
  Size_ = Size;
  Head_ = Tail_ = Start;
}

void TInternalCyclicBuffer::SetSize(int32_t Size) {
  if (Size < 0) throw Exception(messages::seIncorrectParameters);
  if (Size == GetSize()) return;
  const TLocked locked(*this);
  std::unique_ptr<uint8_t[]> storage;
  if (Size > 0) storage = std::make_unique<uint8_t[]>(static_cast<size_t>(Size));
  Storage_ = std::move(storage);
  Reset(Storage_.get(), Size, Size);
}

void TExternalCyclicBuffer::SetBuffer(void* Buffer, int32_t Size) {
  const int64_t length = int64_t{Size} * GetItemSize();
  if (Size < 0 || length > PTRDIFF_MAX) throw Exception(messages::seIncorrectParameters);
  const TLocked locked(*this);
  Reset(static_cast<uint8_t*>(Buffer), static_cast<ptrdiff_t>(length), Size);
}

void TExternalCyclicBuffer::SetSize(int32_t) { throw Exception(messages::seCannotSetSize); }

void TSharedCyclicBuffer::SetBuffer(void* Block, int32_t BlockSize) {
  Attach(Block, BlockSize, CreateNew_ ? BlockSize - ptrdiff_t{HeaderSize} : UnknownLength);
}

void TSharedCyclicBuffer::Attach(void* Block, int32_t BlockSize, ptrdiff_t Length) {
  if (Block != nullptr && CreateNew_ && BlockSize < HeaderSize) {
    throw Exception(messages::seIncorrectParameters);
  }
  const TLocked locked(*this);
  auto* const words = static_cast<volatile uint32_t*>(Block);
  SizeWord_ = words;
  HeadWord_ = words == nullptr ? nullptr : words + 1;
  TailWord_ = words == nullptr ? nullptr : words + 2;
  SetStorage(words == nullptr ? nullptr : static_cast<uint8_t*>(Block) + HeaderSize, Length);
  if (words == nullptr || !CreateNew_) return;
  *HeadWord_ = 0;
  *TailWord_ = 0;
  *SizeWord_ = static_cast<uint32_t>(BlockSize - HeaderSize);
}

int32_t TSharedCyclicBuffer::GetSize() {
  if (SizeWord_ == nullptr) return 0;
  const auto size = static_cast<int32_t>(*SizeWord_);
  // The creator counts the bytes as items, whatever their size: so only this much can be told.
  if (size < 0 || size > GetLength()) throw Exception(messages::seBufferIsDamaged);
  return size;
}

uint8_t* TSharedCyclicBuffer::Position(const volatile uint32_t* Word) const noexcept {
  return Word == nullptr ? nullptr : Advance(GetBuffer(), static_cast<ptrdiff_t>(uintptr_t{*Word}));
}

uint8_t* TSharedCyclicBuffer::GetHead() { return Position(HeadWord_); }

uint8_t* TSharedCyclicBuffer::GetTail() { return Position(TailWord_); }

void TSharedCyclicBuffer::SetHead(uint8_t* Value) {
  *HeadWord_ = static_cast<uint32_t>(Distance(GetBuffer(), Value));
}

void TSharedCyclicBuffer::SetTail(uint8_t* Value) {
  *TailWord_ = static_cast<uint32_t>(Distance(GetBuffer(), Value));
}

void TSharedCyclicBuffer::SetSize(int32_t) { throw Exception(messages::seCannotSetSize); }

}  // namespace velox
