#include "velox/async/velScheduler.hpp"

#include <algorithm>
#include <atomic>
#include <mutex>
#include <unordered_map>

#include "velox/async/velCallbackLink.hpp"
#include "velox/foundation/velSyncUtils.hpp"
#include "velox/foundation/velSysUtils.hpp"
#include "velox/foundation/velTrace.hpp"
#include "velox/runtime/velCallbackGuard.hpp"
#include "velox/runtime/velComThread.hpp"
#include "velox/runtime/velCriticalSection.hpp"
#include "velox/runtime/velException.hpp"
#include "velox/runtime/velFormat.hpp"
#include "velox/runtime/velHandle.hpp"
#include "velox/runtime/velMessages.hpp"
#include "velox/runtime/velSystemLibrary.hpp"

namespace velox {

int64_t MSTo100NS = 10'000;

namespace {

// The thread on which timers are armed and their completion routines run.
class TScheduler : public TObject {
 public:
  static TScheduler* GetInstance();
  /// The thread's handle, null when there is none yet.
  static HANDLE FindThread() noexcept;
  static TObject* SingletonConstruction() { return new TScheduler; }

  TScheduler();
  ~TScheduler() override;

  HANDLE GetThreadHandle() const noexcept { return Thread_.Get(); }
  DWORD GetThreadId() const noexcept { return ThreadId_; }

 private:
  void Run(void* AParameter);
  DWORD WaitForWork() noexcept;

  THandle FTerminateEvent;  // auto-reset
  THandle Thread_;
  DWORD ThreadId_ = 0;
  DWORD LastError_ = 0;   // of a failed wait
  TPendingGate Started_;  // open once the thread runs
};

TSingletonSlot SchedulerSlot;
std::atomic<HANDLE> RunningThread{nullptr};  // the scheduler's, once it runs

}  // namespace

// What a task shares with the activation calls and timer completions that may still be on their way
// to it.
struct TScheduledTaskLink : TCallbackLink<TScheduledTask> {
  using TCallbackLink::TCallbackLink;

  TCriticalSection Lock;  // guards the fields below, and makes activation, arming and cancelling
                          // exclude each other
  THandle Timer;          // auto-reset waitable timer; empty once the task is gone
  const TAsynchronousCall* ActivationCall =
      nullptr;  // the one that is to arm the timer; any other is stale
  bool TimerSet = false;
  uint32_t Id = 0;  // what the timer's completion routine is given; 0 until first armed
};

namespace {

// The tasks whose timers have been armed. A completion that was already on its way when its task
// went finds nothing.
class TTimerRegistry {
 public:
  uint32_t Add(const std::shared_ptr<TScheduledTaskLink>& Link) {
    const std::scoped_lock guard(Lock_);
    do {
      ++LastId_;
    } while (LastId_ == 0 || Links_.contains(LastId_));
    Links_.emplace(LastId_, Link);
    return LastId_;
  }

  std::shared_ptr<TScheduledTaskLink> Find(uint32_t Id) {
    const std::scoped_lock guard(Lock_);
    const auto found = Links_.find(Id);
    return found == Links_.end() ? nullptr : found->second;
  }

  void Remove(uint32_t Id) noexcept {
    const std::scoped_lock guard(Lock_);
    Links_.erase(Id);
  }

 private:
  TCriticalSection Lock_;
  std::unordered_map<uint32_t, std::shared_ptr<TScheduledTaskLink>> Links_;
  uint32_t LastId_ = 0;
};

// Carries an activation to the scheduler's thread; the task may be gone when it arrives.
class TActivationCall final : public TAsynchronousCall {
 public:
  explicit TActivationCall(std::shared_ptr<TScheduledTaskLink> ALink) : Link_(std::move(ALink)) {}

  void QueueTo(const TScheduler& Scheduler) {
    QueueEx(Scheduler.GetThreadHandle(), Scheduler.GetThreadId(),
            TAsynchronousCallHandler::Bind<&TActivationCall::Arrive>(this), false);
  }

 private:
  void Arrive(TAsynchronousCall& ACall, bool& ADestroy) {
    ADestroy = true;
    try {
      Link_->Call([&](TScheduledTask& Task) { Task.StartAsync(ACall, ADestroy); });
    } catch (...) {
      if (::GetCurrentThreadId() == Activator_) throw;  // inside SetActive
      KeepCurrentException();  // for the scheduler's wait; the call frees itself
    }
  }

  const DWORD Activator_ = ::GetCurrentThreadId();
  const std::shared_ptr<TScheduledTaskLink> Link_;
};

TScheduler* TScheduler::GetInstance() { return SingletonInstance<TScheduler>(SchedulerSlot); }

HANDLE TScheduler::FindThread() noexcept { return RunningThread.load(); }

TScheduler::TScheduler() : FTerminateEvent(::CreateEventA(nullptr, FALSE, FALSE, nullptr)) {
  if (!FTerminateEvent) RaiseLastOSError();
  Started_.Begin();
  Thread_.Reset(TThreadFactory::GetInstance()->CreateThread(
      "Scheduler Thread", TThreadExecutionRoutine::Bind<&TScheduler::Run>(this), nullptr,
      ThreadId_));
  if (!Thread_) RaiseLastOSError();
  // A thread that has not begun yet would run its first calls before its own first line.
  // No callback may run meanwhile: it could want this very singleton.
  // A thread that ends without having begun found no memory to remember its name.
  if (Started_.WaitUnalertably(Thread_.Get()) != WAIT_OBJECT_0) throw EOutOfMemory();
  RunningThread.store(Thread_.Get());
}

TScheduler::~TScheduler() {
  ::SetEvent(FTerminateEvent.Get());
  ::WaitForSingleObject(Thread_.Get(), INFINITE);
}

// One alertable wait; what escaped a task meanwhile is logged.
DWORD TScheduler::WaitForWork() noexcept {
  try {
    const HANDLE terminate = FTerminateEvent.Get();
    return WaitAlertableOnce({&terminate, 1});
  } catch (...) {
    TraceException("Sheduler error");
    return WAIT_IO_COMPLETION;
  }
}

void TScheduler::Run(void*) {
  const TComThread com;
  Started_.Finish();
  DWORD result;
  do {
    result = WaitForWork();
  } while (result != WAIT_FAILED && result != WAIT_OBJECT_0);
  if (result == WAIT_FAILED) {
    LastError_ = ::GetLastError();
    const std::string text =
        Format("TScheduler thread failed (Scheduler.FTerminateEvent = %.8llX). Exiting...",
               static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(FTerminateEvent.Get())));
    TTracer::GetInstance()->TraceOSError(text, LastError_);
  } else {
    Trace("TScheduler thread terminated. Exiting...", ttError);
  }
  Trace("Finally section of TScheduler thread", ttError);
}

LARGE_INTEGER AbsoluteDueTime(TDateTime Time) {
  const SYSTEMTIME parts = DateTimeToSystemTime(Time);
  FILETIME time;
  if (!::SystemTimeToFileTime(&parts, &time)) RaiseLastOSError();
  LARGE_INTEGER due;
  due.LowPart = time.dwLowDateTime;
  due.HighPart = static_cast<LONG>(time.dwHighDateTime);
  return due;
}

// Negative due times count from now. One too large for the system's clock is as good as never.
LARGE_INTEGER RelativeDueTime(int64_t Milliseconds) {
  LARGE_INTEGER due;
  due.QuadPart = -(std::min(Milliseconds, INT64_MAX / MSTo100NS) * MSTo100NS);
  return due;
}

TTimerRegistry& Registry() {
  static TTimerRegistry registry;
  return registry;
}

}  // namespace

TScheduledTask::TScheduledTask() : Link_(std::make_shared<TScheduledTaskLink>(this)) {
  Link_->Timer.Reset(::CreateWaitableTimerA(nullptr, FALSE, nullptr));
  if (!Link_->Timer) RaiseLastOSError();
}

TScheduledTask::~TScheduledTask() { FreeInstance(); }

void TScheduledTask::CheckTaskForExecution() const {}

void TScheduledTask::CheckActive() const {
  if (Active_.load() != 0) throw Exception(messages::seOperationOnActiveTask);
}

void TScheduledTask::SetDuration(int64_t Value) {
  CheckActive();
  if (Value == Duration_) return;
  Duration_ = std::max<int64_t>(Value, 0);
  UseAbsoluteTime_ = false;
}

void TScheduledTask::SetPeriod(int32_t Value) {
  CheckActive();
  Period_ = std::max(Value, 0);
}

void TScheduledTask::SetAbsoluteTime(TDateTime Value) {
  if (Value == AbsoluteTime_) return;
  CheckActive();
  AbsoluteTime_ = Value;
  UseAbsoluteTime_ = true;
}

void TScheduledTask::SetActive(int32_t Value) {
  // Made outside the lock, since that waits for its thread to begin.
  const TScheduler* const scheduler = Value == 0 ? nullptr : TScheduler::GetInstance();
  const std::scoped_lock guard(Link_->Lock);
  const int32_t old = Active_.exchange(Value);
  if (old == Value) return;
  const TAsynchronousCall* const former = std::exchange(Link_->ActivationCall, nullptr);
  if (scheduler == nullptr) {
    CancelTimer();
    return;
  }
  TActivationCall* call = nullptr;
  try {
    call = new TActivationCall(Link_);
    Link_->ActivationCall = call;
    call->QueueTo(*scheduler);  // frees itself
  } catch (...) {
    delete call;  // not queued, or left by an exception on this thread
    Link_->ActivationCall = former;
    Active_.exchange(old);
    throw;
  }
}

void TScheduledTask::StartAsync(TAsynchronousCall& ACall, bool& ADestroy) {
  ADestroy = true;
  const std::scoped_lock guard(Link_->Lock);
  if (&ACall != Link_->ActivationCall) return;
  Link_->ActivationCall = nullptr;
  Start();
}

void TScheduledTask::Start() {
  const std::scoped_lock guard(Link_->Lock);
  if (!Link_->Timer) return;
  if (Link_->Id == 0) Link_->Id = Registry().Add(Link_);
  const LARGE_INTEGER due =
      UseAbsoluteTime_ ? AbsoluteDueTime(AbsoluteTime_) : RelativeDueTime(Duration_);
  void* const id = reinterpret_cast<void*>(static_cast<uintptr_t>(Link_->Id));
  if (!::SetWaitableTimer(Link_->Timer.Get(), &due, Period_, &TScheduledTask::TimerEntry, id,
                          FALSE)) {
    RaiseLastOSError();
  }
  Link_->TimerSet = true;
}

void TScheduledTask::CancelTimer() noexcept {
  if (!Link_->TimerSet) return;
  if (!::CancelWaitableTimer(Link_->Timer.Get()))
    TraceOSError("[TScheduledTask.SetActive] CancelWaitableTimer error");
  Link_->TimerSet = false;
}

void CALLBACK TScheduledTask::TimerEntry(void* Id, DWORD, DWORD) {
  GuardCallback([Id] {
    const auto link = Registry().Find(static_cast<uint32_t>(reinterpret_cast<uintptr_t>(Id)));
    if (link != nullptr) link->Call([](TScheduledTask& Task) { Task.OnTimer(); });
  });
}

void TScheduledTask::OnTimer() {
  try {
    std::unique_lock lock(Link_->Lock);
    if (!Link_->TimerSet) return;               // deactivated while this completion was on its way
    if (Period_ == 0) Link_->TimerSet = false;  // it has done its work: nothing to cancel
    if (!ExecutesUnderLock()) lock.unlock();
    Execute();
  } catch (...) {
    TraceException("Scheduled task completion error");
    throw;
  }
}

void TScheduledTask::FreeInstance() noexcept {
  if (!Link_->Timer) return;
  try {
    SetActive(0);
  } catch (...) {
    TraceException("[TScheduledTask.FreeInstance] deactivation error");
  }
  {
    const std::scoped_lock guard(Link_->Lock);
    Link_->ActivationCall = nullptr;
    CancelTimer();
    Link_->Timer.Reset();
    if (Link_->Id != 0) Registry().Remove(Link_->Id);
  }
  Link_->Cut(TScheduler::FindThread());
}

void TScheduledTask::LeaveTask() noexcept { Link_->Leave(); }

bool TScheduledTask::ExecutesUnderLock() const noexcept { return false; }

TEventTask::~TEventTask() { FreeInstance(); }

void TEventTask::SetEventHandle(HANDLE Value) {
  CheckActive();
  EventHandle_ = Value;
}

void TEventTask::CheckTaskForExecution() const {
  if (EventHandle_ == nullptr) throw Exception(messages::seInvalidEvent);
}

void TEventTask::Execute() { ::SetEvent(EventHandle_); }

bool TEventTask::ExecutesUnderLock() const noexcept { return true; }

TMessageTask::~TMessageTask() { FreeInstance(); }

void TMessageTask::SetWnd(HWND Value) {
  CheckActive();
  Wnd_ = Value;
}

void TMessageTask::SetMsg(int32_t Value) {
  CheckActive();
  Msg_ = Value;
}

void TMessageTask::SetWParam(int32_t Value) {
  CheckActive();
  WParam_ = Value;
}

void TMessageTask::SetLParam(int32_t Value) {
  CheckActive();
  LParam_ = Value;
}

void TMessageTask::SetNotificationParams(HWND Wnd, int32_t Msg, int32_t LParam, int32_t WParam) {
  CheckActive();
  Wnd_ = Wnd;
  Msg_ = Msg;
  LParam_ = LParam;
  WParam_ = WParam;
}

void TMessageTask::CheckTaskForExecution() const {
  if (Wnd_ == nullptr) throw Exception(messages::seInvalidWindow);
}

void TMessageTask::Execute() {
  using TSendMessage = LRESULT(WINAPI*)(HWND, UINT, WPARAM, LPARAM);
  static const TSystemFunction<TSendMessage> sendMessage("user32.dll", "SendMessageA");
  const HWND window = Wnd_;
  const auto message = static_cast<UINT>(Msg_);
  const auto wParam = static_cast<WPARAM>(WParam_);
  const LPARAM lParam = LParam_;
  // The window's thread may be about to destroy this task, and would wait for the send that waits
  // for it.
  LeaveTask();
  if (sendMessage) sendMessage(window, message, wParam, lParam);
}

TCallbackTask::~TCallbackTask() { FreeInstance(); }

void TCallbackTask::SetOnExecute(const TTaskExecuteEvent& Value) {
  CheckActive();
  OnExecute_ = Value;
}

void TCallbackTask::CheckTaskForExecution() const {
  if (!OnExecute_) throw Exception(messages::seInvalidEvent);
}

void TCallbackTask::Execute() { OnExecute_(this); }

}  // namespace velox
