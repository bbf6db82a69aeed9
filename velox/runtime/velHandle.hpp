#pragma once

#include <utility>

#include "velox/runtime/velWindows.hpp"

namespace velox {

/// Owns one kernel handle (event, thread, mapping, file, …) and closes it. INVALID_HANDLE_VALUE
/// counts as none.
class THandle {
 public:
  /// None.
  THandle() noexcept = default;
  /// Takes a handle over.
  explicit THandle(HANDLE Handle) noexcept
      : Handle_(Handle == INVALID_HANDLE_VALUE ? nullptr : Handle) {}
  /// Takes over what the other one owns; what this one owned is closed.
  THandle(THandle&& Other) noexcept : Handle_(Other.Release()) {}
  THandle& operator=(THandle&& Other) noexcept {
    Reset(Other.Release());
    return *this;
  }
  ~THandle() { Reset(); }

  /// The handle, which stays owned; null for none.
  HANDLE Get() const noexcept { return Handle_; }
  /// Whether there is one.
  explicit operator bool() const noexcept { return Handle_ != nullptr; }

  /// Gives the handle to the caller.
  HANDLE Release() noexcept { return std::exchange(Handle_, nullptr); }

  /// Closes the handle, if any, and takes another.
  void Reset(HANDLE Handle = nullptr) noexcept {
    if (Handle_ != nullptr) ::CloseHandle(Handle_);
    Handle_ = Handle == INVALID_HANDLE_VALUE ? nullptr : Handle;
  }

 private:
  HANDLE Handle_ = nullptr;
};

}  // namespace velox
