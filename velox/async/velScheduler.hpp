#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

#include "velox/async/velAsyncQueue.hpp"
#include "velox/runtime/velDateTime.hpp"
#include "velox/runtime/velMethod.hpp"
#include "velox/runtime/velObject.hpp"
#include "velox/runtime/velWindows.hpp"

namespace velox {

struct TScheduledTaskLink;

/// Milliseconds to the system's 100-nanosecond units.
extern VELOX_API int64_t MSTo100NS;

/// Work done at a time or after a delay, once or periodically, on the process's one "Scheduler
/// Thread".
///
/// A task is configured while it is inactive (the setters of an active one raise Exception "Cannot
/// perform operation on active task"), then activated; a task that runs once stays active after it
/// ran, until it is deactivated. All tasks share the thread and run one at a time: a slow
/// one delays the others. The thread is started by the first activation. An exception that escapes
/// Execute() is logged; the thread goes on.
///
///     TCallbackTask tick;
///     tick.SetOnExecute(TTaskExecuteEvent::Bind<&TMeter::OnTick>(&meter));
///     tick.SetDuration(1000);  // first run after a second,
///     tick.SetPeriod(250);     // then four a second
///     tick.SetActive(1);
///
/// Promised: once the destructor has returned, Execute() is not running and will not run again (but
/// see TMessageTask); a task may be destroyed inside its own Execute(). After SetActive(0) from
/// another thread a run may still be under way (of a TEventTask: none): don't configure the task
/// anew before its work has told you that it is over. Asked of you: a class of your own calls
/// FreeInstance() first thing in its destructor; and destroy no task while you hold a lock that its
/// Execute() takes.
///
/// Threads: any may call; setters and destruction by one thread at a time.
class VELOX_API TScheduledTask : public TObject {
 public:
  /// Raises EOSError when the system has no timer left.
  TScheduledTask();
  ~TScheduledTask() override;

  /// Raises Exception when the task is not fully configured. For users, before they activate;
  /// SetActive does not ask.
  virtual void CheckTaskForExecution() const;

  /// Not zero: schedules the task. Zero: cancels it. Nothing happens when the value is the one set
  /// already. Raises EOSError when the scheduler's thread can't be started or reached.
  virtual void SetActive(int32_t Value);
  int32_t GetActive() const noexcept { return Active_.load(); }

  /// The work. Runs on the scheduler's thread.
  virtual void Execute() = 0;

  /// Milliseconds from activation to the first run; a negative value counts as 0, at once. Replaces
  /// an absolute time, unless it is the duration that was set last.
  void SetDuration(int64_t Value);
  int64_t GetDuration() const noexcept { return Duration_; }

  /// Milliseconds between runs after the first; 0, or less, runs once.
  void SetPeriod(int32_t Value);
  int32_t GetPeriod() const noexcept { return Period_; }

  /// The time of the first run, read as universal time; one that has passed is at once. Replaces a
  /// duration. Setting the time that was set last does nothing, on an active task too. What is no
  /// date and time of the system, which begins with 1601, is told in the trace log when the task is
  /// activated, and the task does not run.
  void SetAbsoluteTime(TDateTime Value);
  TDateTime GetAbsoluteTime() const noexcept { return AbsoluteTime_; }

  /// Arms the timer; on the scheduler's thread.
  void Start();
  /// What an activation runs on the scheduler's thread.
  void StartAsync(TAsynchronousCall& ACall, bool& ADestroy);

  /// Raises Exception "Cannot perform operation on active task" when the task is active.
  void CheckActive() const;

 protected:
  /// Deactivates the task for good: no callback reaches it any more, and one that runs on the
  /// scheduler's thread is waited for (unless this is that callback). What late callbacks may still
  /// touch is freed by the last of them.
  void FreeInstance() noexcept;

  /// From inside Execute(): the task will not be touched any more, so that whoever destroys it need
  /// not wait for the end of Execute().
  void LeaveTask() noexcept;

  /// Whether Execute() is so short that it may run under the task's lock. No run of such a task is
  /// under way after SetActive(0).
  virtual bool ExecutesUnderLock() const noexcept;

 private:
  static void CALLBACK TimerEntry(void* Id, DWORD Low, DWORD High);
  void OnTimer();
  void CancelTimer() noexcept;

  std::atomic<int32_t> Active_{0};
  bool UseAbsoluteTime_ = false;
  int64_t Duration_ = 0;  // milliseconds
  int32_t Period_ = 0;    // milliseconds
  TDateTime AbsoluteTime_ = 0;
  std::shared_ptr<TScheduledTaskLink> Link_;  // shared with callbacks on their way
};

/// Signals an event, under the task's lock: see ExecutesUnderLock(), which a class with an
/// Execute() of its own overrides too.
class VELOX_API TEventTask : public TScheduledTask {
 public:
  /// Inactive, without an event.
  TEventTask() = default;
  ~TEventTask() override;

  /// The event, borrowed.
  void SetEventHandle(HANDLE Value);
  HANDLE GetEventHandle() const noexcept { return EventHandle_; }

  /// Raises Exception "Invalid event specified" without an event.
  void CheckTaskForExecution() const override;
  void Execute() override;

 protected:
  bool ExecutesUnderLock() const noexcept override;

 private:
  HANDLE EventHandle_ = nullptr;
};

/// Sends a window message and waits for its being handled; the scheduler's thread waits meanwhile.
/// Destroying the task does not wait for that: a message that is on its way arrives all the same,
/// so what its parameters point to must live on.
class VELOX_API TMessageTask : public TScheduledTask {
 public:
  /// Inactive, without a window.
  TMessageTask() = default;
  ~TMessageTask() override;

  /// The window, the message and its two parameters.
  void SetWnd(HWND Value);
  void SetMsg(int32_t Value);
  void SetWParam(int32_t Value);
  void SetLParam(int32_t Value);
  /// All at once. Mind the order: LParam comes before WParam.
  void SetNotificationParams(HWND Wnd, int32_t Msg, int32_t LParam, int32_t WParam);

  /// As set; null, and 0, at first.
  HWND GetWnd() const noexcept { return Wnd_; }
  int32_t GetMsg() const noexcept { return Msg_; }
  int32_t GetWParam() const noexcept { return WParam_; }
  int32_t GetLParam() const noexcept { return LParam_; }

  /// Raises Exception "Invalid window handle specified" without a window.
  void CheckTaskForExecution() const override;
  void Execute() override;

 private:
  HWND Wnd_ = nullptr;
  int32_t LParam_ = 0;
  int32_t Msg_ = 0;
  int32_t WParam_ = 0;
};

/// Given the task.
using TTaskExecuteEvent = TMethod<void(TObject* Sender)>;

/// Calls a bound method.
class VELOX_API TCallbackTask : public TScheduledTask {
 public:
  /// Inactive, without a method.
  TCallbackTask() = default;
  ~TCallbackTask() override;

  /// The method to call; it runs on the scheduler's thread.
  void SetOnExecute(const TTaskExecuteEvent& Value);
  const TTaskExecuteEvent& GetOnExecute() const noexcept { return OnExecute_; }

  /// Raises Exception "Invalid event specified" without a method.
  void CheckTaskForExecution() const override;
  void Execute() override;

 private:
  TTaskExecuteEvent OnExecute_;
};

}  // namespace velox
