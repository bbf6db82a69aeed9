#include "velox/runtime/velStream.hpp"

#include <algorithm>
#include <cstring>
#include <limits>

#include "velox/runtime/velMessages.hpp"

namespace velox {
namespace {

constexpr int64_t Limit = std::numeric_limits<int32_t>::max();

}  // namespace

int64_t TStream::GetSize() {
  const int64_t position = GetPosition();
  const int64_t size = Seek(0, TSeekOrigin::soEnd);
  SetPosition(position);
  return size;
}

void TStream::ReadBuffer(void* Buffer, int32_t Count) {
  auto* next = static_cast<uint8_t*>(Buffer);
  while (Count > 0) {
    const int32_t done = Read(next, Count);
    if (done <= 0) throw EReadError(messages::seStreamRead);
    next += done;
    Count -= done;
  }
}

void TStream::WriteBuffer(const void* Buffer, int32_t Count) {
  const auto* next = static_cast<const uint8_t*>(Buffer);
  while (Count > 0) {
    const int32_t done = Write(next, Count);
    if (done <= 0) throw EWriteError(messages::seStreamWrite);
    next += done;
    Count -= done;
  }
}

TMemoryStream::TMemoryStream(const void* Data, int32_t Size) {
  if (Size < 0) throw Exception(messages::seIncorrectParameters);
  const auto* const first = static_cast<const uint8_t*>(Data);
  Data_.assign(first, first + Size);
}

TMemoryStream::~TMemoryStream() = default;

int32_t TMemoryStream::Read(void* Buffer, int32_t Count) {
  const int64_t left = GetSize() - Position_;
  const auto done = static_cast<int32_t>(std::clamp<int64_t>(Count, 0, std::max<int64_t>(left, 0)));
  if (done > 0) std::memcpy(Buffer, Data_.data() + Position_, static_cast<size_t>(done));
  Position_ += done;
  return done;
}

int32_t TMemoryStream::Write(const void* Buffer, int32_t Count) {
  if (Count <= 0) return 0;
  if (Position_ > Limit - Count) throw EStreamError(messages::seStreamTooLarge);
  const int64_t needed = Position_ + Count;
  if (needed > static_cast<int64_t>(Data_.capacity())) {
    // At least half as much again, so that many small writes cost linear time.
    Data_.reserve(
        static_cast<size_t>(std::max(needed, std::min(Limit, GetSize() + GetSize() / 2))));
  }
  if (needed > GetSize()) Data_.resize(static_cast<size_t>(needed));
  std::memcpy(Data_.data() + Position_, Buffer, static_cast<size_t>(Count));
  Position_ += Count;
  return Count;
}

int64_t TMemoryStream::Seek(int64_t Offset, TSeekOrigin Origin) {
  int64_t base = 0;
  if (Origin == TSeekOrigin::soCurrent) base = Position_;
  if (Origin == TSeekOrigin::soEnd) base = GetSize();
  if (Offset < -base || Offset > std::numeric_limits<int64_t>::max() - base)
    throw EStreamError(messages::seStreamSeek);
  Position_ = base + Offset;
  return Position_;
}

int64_t TMemoryStream::GetSize() { return static_cast<int64_t>(Data_.size()); }

void TMemoryStream::SetSize(int64_t Size) {
  if (Size > Limit) throw EStreamError(messages::seStreamTooLarge);
  Data_.resize(static_cast<size_t>(std::max<int64_t>(Size, 0)));
  Position_ = std::min(Position_, GetSize());
}

}  // namespace velox
