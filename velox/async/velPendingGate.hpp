#pragma once

#include <atomic>
#include <cstdint>

#include "velox/runtime/velCompiler.hpp"
#include "velox/runtime/velWindows.hpp"

namespace velox {

/// Counts what is outstanding, and lets threads wait until nothing is.
///
/// While nobody waits it costs neither a kernel object nor a call of the system. Finish() is the
/// last that touches the gate: a thread whose wait it ends may destroy the gate at once, as may the
/// thread that called Finish(), since destroying lets those leave first whose waits have ended.
///
/// Threads: any, except that the gate is destroyed by one thread when no other uses it.
class VELOX_API TPendingGate {
 public:
  /// Nothing is outstanding.
  TPendingGate() noexcept = default;
  TPendingGate(const TPendingGate&) = delete;
  TPendingGate& operator=(const TPendingGate&) = delete;
  ~TPendingGate();

  /// One more is outstanding.
  void Begin() noexcept;
  /// One less; the last one ends all waits. Does nothing when nothing is outstanding.
  void Finish() noexcept;
  int32_t GetPending() const noexcept;

  /// Waits alertably until nothing is outstanding (WAIT_OBJECT_0) or, when Thread is not null, that
  /// thread has ended (WAIT_OBJECT_0 + 1), for it was the one to call Finish. (When the process
  /// ends all others have.) Raises what callbacks let escape.
  DWORD Wait(HANDLE Thread);
  /// The same for destructors: raises nothing.
  DWORD WaitQuietly(HANDLE Thread) noexcept;
  /// The same, and no callback runs meanwhile.
  DWORD WaitUnalertably(HANDLE Thread) noexcept;

  /// While one lives, the gate's destructor waits: for a thread that is about to wait for an object
  /// that may destroy itself.
  class TStay {
   public:
    /// The gate is borrowed.
    explicit TStay(TPendingGate& AGate) noexcept : Inside_(AGate.Inside_) { ++Inside_; }
    ~TStay() { --Inside_; }
    TStay(const TStay&) = delete;
    TStay& operator=(const TStay&) = delete;

   private:
    std::atomic<int32_t>& Inside_;
  };

 private:
  bool Enter(uint64_t& Entry) noexcept;
  void Leave(uint64_t Entry) noexcept;
  bool MakeSemaphore() noexcept;
  template <class TWait>
  DWORD WaitWith(HANDLE Thread, bool Alertable, TWait&& WaitFor);
  template <class TWait, class TPause>
  DWORD WaitOrPoll(HANDLE Thread, bool Alertable, TWait&& WaitFor, TPause&& Pause);

  // What is outstanding, how many threads wait for its end, and how often it has come to an end.
  // The Finish that makes the first 0 takes the second, counts the third up, and releases the
  // semaphore once for each waiter. A waiter that a release for an earlier round has woken passes
  // it on.
  std::atomic<uint64_t> Word_{0};
  std::atomic<HANDLE> Semaphore_{nullptr};  // made by the first wait
  std::atomic<int32_t> Inside_{0};          // threads in a wait, or about to
};

}  // namespace velox
