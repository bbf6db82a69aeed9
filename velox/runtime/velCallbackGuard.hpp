#pragma once

#include "velox/runtime/velCompiler.hpp"

/// Exceptions and the operating system's frames. An exception that leaves a callback which the
/// system called (an APC, a timer or completion routine, a thread's entry, a window procedure)
/// would end the process, since it can't be unwound through the system's own frames. So each such
/// callback runs its body through GuardCallback, which keeps an escaping exception in a list of the
/// thread; the library's alertable wait that let the callback run raises it as soon as the system's
/// call has returned. Several exceptions in one wait: the oldest is raised by that wait, each of
/// the others by one of the waits that follow on the thread. A callback that waits itself is raised
/// only what was kept since it began: what the callbacks before it let escape belongs to the wait
/// that runs them all. What is left when the thread ends is dropped.
namespace velox {

/// Adds the exception being handled to the calling thread's list. (Without memory for the list
/// entry, it is dropped.)
VELOX_API void KeepCurrentException() noexcept;

/// Whether the calling thread's list holds an exception.
VELOX_API bool HasKeptException() noexcept;

/// Takes the oldest exception from the calling thread's list and raises it; returns when there is
/// none.
VELOX_API void RaiseKeptException();

/// Drops what the calling thread's list holds. (When a thread ends, the library does that.)
VELOX_API void DropKeptExceptions() noexcept;

/// Stands for a callback while it runs: until its end, the calling thread's list holds only what is
/// kept during this time; then that joins what was kept before. GuardCallback has one; a callback
/// that handles its exceptions itself needs one of its own.
class VELOX_API TCallbackScope {
 public:
  /// Sets aside what the calling thread's list holds.
  TCallbackScope() noexcept;
  ~TCallbackScope();
  TCallbackScope(const TCallbackScope&) = delete;
  TCallbackScope& operator=(const TCallbackScope&) = delete;

 private:
  void* const Outer_;  // the list set aside, null when nothing was kept
};

/// Runs the body of a callback; an exception that escapes it is kept for the thread's next wait.
template <class F>
void GuardCallback(F&& Body) noexcept {
  const TCallbackScope scope;
  try {
    Body();
  } catch (...) {
    KeepCurrentException();
  }
}

}  // namespace velox
