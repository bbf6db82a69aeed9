#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

#include "link.hpp"

namespace velcopy {

constexpr int32_t LongestReason = 200;  // bytes of text

enum class TKind : uint32_t {
  Hello,      // sender: Position is the file's size; receiver: Position is the channel's capacity
  Data,       // Position in the file, followed by Size bytes
  Confirmed,  // Position: so much is written
  End,        // Check is the CRC-32 of the whole file
  Done,       // likewise, as received; the file is in place
  Failed      // followed by Size bytes of text: why
};

struct THeader {
  uint32_t Magic = 0x50434C56;  // "VLCP"
  TKind Kind = TKind::Hello;
  uint64_t Position = 0;
  uint32_t Size = 0;
  uint32_t Check = 0;
};
static_assert(sizeof(THeader) == 24);
constexpr int32_t HeaderSize = sizeof(THeader);

// What may be outstanding in one direction. A message of failure always fits on top of it.
constexpr int32_t Window(int32_t Capacity) { return Capacity - 1 - HeaderSize - LongestReason; }

// Blocks that may be unconfirmed, however small they are: nobody reads the confirmations while the
// sender sends, and the way back has to have room for them.
constexpr int32_t MostUnconfirmed = 1024;

/// The conversation with the other side, over a link.
class TPeer {
 public:
  /// The link is borrowed. Name is what the other side is called in messages.
  TPeer(TLink& Link, std::string Name) : Link_(Link), Name_(std::move(Name)) {}

  /// Bytes, when the kind has any, are Header.Size.
  void Send(const THeader& Header, const void* Bytes = nullptr);

  /// The next message. Raises when it is Failed, or none of the kinds expected.
  THeader Receive(std::initializer_list<TKind> Expected);
  void ReceiveBytes(void* Bytes, int32_t Size) { Link_.Read(Bytes, Size); }

  /// Tells the other side why this one ends, unless that was the first to give up.
  void TellFailure(const velox::Exception& Failure) noexcept;

 private:
  TLink& Link_;
  const std::string Name_;
  bool Told_ = false;
  std::vector<char> Message_;
};

}  // namespace velcopy
