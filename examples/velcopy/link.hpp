#pragma once

#include <cstdint>
#include <string>

#include "velox/runtime/velException.hpp"

namespace velcopy {

constexpr int StillLimit = 8;  // seconds in which nothing moves

/// The other side can't be reached, has ended, or has stood still for StillLimit.
class EPeerGone : public velox::Exception {
 public:
  using Exception::Exception;
};

/// The way to the other side: what is written arrives whole and in order. Used by one thread.
/// Functions raise EPeerGone, with a message for the user.
class TLink {
 public:
  virtual ~TLink() = default;

  /// For the receiver: returns when there may be a sender. Has no time limit.
  virtual void AwaitPeer() {}

  /// Until this is called Read has no time limit either, unless AwaitPeer made sure that there is a
  /// sender.
  virtual void StartWatchdog() = 0;

  virtual void Write(const void* Bytes, int32_t Size) = 0;
  virtual void Read(void* Bytes, int32_t Size) = 0;

  /// Call when all is said: gives what was written last a short time to arrive. Raises nothing.
  virtual void Finish() noexcept {}

  /// Bytes that may be on the way to the receiver unread without being lost; the receiver tells the
  /// sender.
  virtual int32_t GetCapacity() const = 0;
};

}  // namespace velcopy
