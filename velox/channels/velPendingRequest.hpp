#pragma once

#include <cstdint>

#include "velox/runtime/velHandle.hpp"
#include "velox/runtime/velObject.hpp"
#include "velox/runtime/velWindows.hpp"

namespace velox {

/// A request to the system whose end is told to a completion routine, with what the system writes
/// to meanwhile. A request can't be taken back: when its owner is done with it, or destroyed, while
/// it is pending, the owner gives it up by Orphan(), and it frees itself as soon as it has ended.
/// Made by `new`, freed by Orphan() or Leave() only.
///
/// The system tells the end to the thread that made the request, while that thread waits alertably.
/// When that thread has ended, so has the request, and nobody is told.
///
/// Threads: as its owner, except for Orphan and Leave, which exclude each other.
class VELOX_API TPendingRequest : public TObject {
 public:
  WSAOVERLAPPED Overlapped{};  // its event is this object: completion routines need none
  bool Pending = false;        // its end has not been handled yet
  bool Orphaned = false;       // the owner has given it up

  /// The request that a completion routine is called for.
  static TPendingRequest* Of(WSAOVERLAPPED* Request) noexcept {
    return static_cast<TPendingRequest*>(Request->hEvent);
  }

  /// Call before each request, on the thread that makes it.
  void PrepareRequest();
  /// Whether it is pending and its end won't be told any more.
  bool IsForsaken() const noexcept;

  /// The owner gives it up. Frees it: now, or when its request has ended.
  void Orphan() noexcept;
  /// Its request has ended. When the owner has given it up this frees it, and returns true. Unless
  /// the owner is going to be told (Unclaimed), it frees it when giving it up.
  bool Leave(bool Unclaimed) noexcept;

 protected:
  /// Not pending.
  TPendingRequest() = default;
  ~TPendingRequest() override = default;

 private:
  bool Unclaimed_ = false;  // it has ended without its owner being told
  THandle Thread_;          // the one that made the request
  DWORD ThreadId_ = 0;
};

/// For std::unique_ptr.
struct TOrphanRequest {
  /// Gives the request up.
  void operator()(TPendingRequest* Request) const noexcept { Request->Orphan(); }
};

}  // namespace velox
