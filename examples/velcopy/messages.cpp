#include "messages.hpp"

#include <algorithm>
#include <cstring>

#include "velox/foundation/velTrace.hpp"

namespace velcopy {

using namespace velox;

void TPeer::Send(const THeader& Header, const void* Bytes) {
  Message_.resize(HeaderSize + (Bytes == nullptr ? 0 : Header.Size));
  std::memcpy(Message_.data(), &Header, HeaderSize);
  if (Bytes != nullptr) std::memcpy(Message_.data() + HeaderSize, Bytes, Header.Size);
  Link_.Write(Message_.data(), static_cast<int32_t>(Message_.size()));
}

THeader TPeer::Receive(std::initializer_list<TKind> Expected) {
  THeader header;
  Link_.Read(&header, HeaderSize);
  if (header.Magic != THeader().Magic)
    throw Exception("the data from the " + Name_ + " is damaged");
  if (header.Kind == TKind::Failed) {
    std::string reason(std::min<uint32_t>(header.Size, LongestReason), '\0');
    if (!reason.empty()) ReceiveBytes(reason.data(), static_cast<int32_t>(reason.size()));
    Told_ = true;
    throw Exception("the " + Name_ + " gave up: " + reason);
  }
  if (std::find(Expected.begin(), Expected.end(), header.Kind) == Expected.end())
    throw Exception("the " + Name_ + " sent what was not expected");
  return header;
}

void TPeer::TellFailure(const Exception& Failure) noexcept {
  if (std::exchange(Told_, true)) return;
  try {
    std::string reason = Failure.what();
    reason.resize(std::min<size_t>(reason.size(), LongestReason));
    Send({.Kind = TKind::Failed, .Size = static_cast<uint32_t>(reason.size())}, reason.data());
  } catch (const Exception&) {
    TraceException("velcopy");  // what is reported is the failure itself
  }
}

}  // namespace velcopy
