#pragma once

#include <atomic>
#include <utility>

#include "velox/async/velPendingGate.hpp"

namespace velox {

/// What an object shares with callbacks that may come late: it outlives the object (both sides hold
/// it by std::shared_ptr) and says whether the object is still there.
///
/// All callbacks of one link run on one thread, possibly nested. Cut() is called by the object when
/// it goes: afterwards no callback reaches it; one that runs on another thread is waited for, one
/// that runs on the calling thread further down the stack is the caller itself and is not.
template <class T>
class TCallbackLink {
 public:
  explicit TCallbackLink(T* Target) noexcept : Target_(Target) {}

  /// On the callbacks' thread: runs Body(target) if the object is still there.
  template <class F>
  void Call(F&& Body) {
    TRun run(*this);
    if (T* const target = Target_.load()) Body(*target);
  }

  /// From inside a callback: it will not touch the object any more, so nobody needs to wait for it.
  void Leave() noexcept {
    if (Current_ != nullptr && std::exchange(Current_->Open, false)) Gate_.Finish();
  }

  /// Thread is the one that the callbacks run on, null when not known: its end ends the wait.
  void Cut(HANDLE Thread) noexcept {
    Target_.store(nullptr);
    if (ThreadId_.load() != ::GetCurrentThreadId()) Gate_.WaitQuietly(Thread);
  }

 private:
  struct TRun {
    explicit TRun(TCallbackLink& ALink) noexcept
        : Link(ALink), Outer(ALink.Current_), OuterId(Link.ThreadId_.load()) {
      Link.Gate_.Begin();
      Link.Current_ = this;
      Link.ThreadId_.store(::GetCurrentThreadId());
    }
    ~TRun() {
      Link.Current_ = Outer;
      Link.ThreadId_.store(OuterId);
      if (Open) Link.Gate_.Finish();
    }
    TCallbackLink& Link;
    TRun* Outer;
    DWORD OuterId;
    bool Open = true;
  };

  std::atomic<T*> Target_;
  TPendingGate Gate_;
  std::atomic<DWORD> ThreadId_{0};  // of the callback that runs, 0 when none does
  TRun* Current_ = nullptr;         // of the callbacks' thread
};

}  // namespace velox
