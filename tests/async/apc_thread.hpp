#pragma once

#include <atomic>
#include <string>

#include "tests/support/support.hpp"
#include "velox/foundation/velSyncUtils.hpp"
#include "velox/runtime/velHandle.hpp"

namespace velox::test {

/// A thread that runs the APCs queued to it, and can be kept from doing so for a while.
class TApcThread {
 public:
  TApcThread() {
    Thread_.Reset(TThreadFactory::GetInstance()->CreateThread(
        "APC thread", TThreadExecutionRoutine::Bind<&TApcThread::Run>(this), nullptr, Id_));
    WaitUntil([this] { return Begun_.load(); });
  }
  ~TApcThread() { Stop(); }

  HANDLE Handle() const { return Thread_.Get(); }
  DWORD Id() const { return Id_; }
  /// Exceptions that reached its wait.
  int Caught() const { return Caught_; }

  /// From its return on, no APC runs until Release().
  void Hold() {
    Held_ = true;
    ::SetEvent(Wake_.Get());
    WaitUntil([this] { return Holding_.load(); });
  }
  void Release() {
    Held_ = false;
    WaitUntil([this] { return !Holding_.load(); });
  }
  void Stop() {
    Held_ = false;
    StopWithoutApcs();
    ::WaitForSingleObject(Thread_.Get(), INFINITE);
  }
  /// Ends a held thread without running what is queued.
  void StopWithoutApcs() {
    Stopped_ = true;
    ::SetEvent(Wake_.Get());
  }

 private:
  void Run(void*) {
    Begun_ = true;
    while (!Stopped_) {
      Holding_ = Held_.load();
      if (Holding_) {
        ::SleepEx(1, FALSE);
        continue;
      }
      try {
        const HANDLE wake = Wake_.Get();
        WaitAlertableOnce({&wake, 1});
      } catch (...) {
        ++Caught_;
      }
    }
  }

  THandle Wake_{::CreateEventA(nullptr, FALSE, FALSE, nullptr)};
  std::atomic<bool> Begun_{false};
  std::atomic<bool> Held_{false};
  std::atomic<bool> Holding_{false};
  std::atomic<bool> Stopped_{false};
  std::atomic<int> Caught_{0};
  THandle Thread_;
  DWORD Id_ = 0;
};

}  // namespace velox::test
