// Calls to another thread, the reactor and the scheduler against the bare calls of the system that
// do the same, and against Asio.

#include "velox/runtime/velWindows.hpp"
// Windows' headers come before those that would include them otherwise.
#include <asio.hpp>
#include <asio/windows/object_handle.hpp>
#include <atomic>
#include <thread>

#include "bench/harness.hpp"
#include "velox/async/velAsyncQueue.hpp"
#include "velox/async/velReactor.hpp"
#include "velox/async/velScheduler.hpp"
#include "velox/foundation/velSyncUtils.hpp"
#include "velox/runtime/velFormat.hpp"
#include "velox/runtime/velHandle.hpp"

namespace bench {
namespace {

using namespace velox;

THandle NewEvent() { return THandle(::CreateEventA(nullptr, FALSE, FALSE, nullptr)); }
void Signal(const THandle& Event) { ::SetEvent(Event.Get()); }
void Await(const THandle& Event) { ::WaitForSingleObject(Event.Get(), INFINITE); }

// Codes of APCs.
void CALLBACK Wake(ULONG_PTR) {}
void CALLBACK SetStop(ULONG_PTR Stop) { *reinterpret_cast<bool*>(Stop) = true; }

/// A thread that does nothing but run its APCs, until the object goes.
class TApcThread {
 public:
  TApcThread() : Ready_(NewEvent()), Thread_([this] { Run(); }) { Await(Ready_); }
  ~TApcThread() {
    Queue(&SetStop, &Stop_);
    Thread_.join();
  }
  HANDLE Handle() const { return Handle_.Get(); }
  DWORD Id() const { return Id_; }
  void Queue(PAPCFUNC Code, void* Data) const {
    ::QueueUserAPC(Code, Handle(), reinterpret_cast<ULONG_PTR>(Data));
  }

 private:
  void Run() {
    Id_ = ::GetCurrentThreadId();
    Handle_.Reset(GetRealCurrentThreadHandle());
    Signal(Ready_);
    while (!Stop_) ::SleepEx(INFINITE, TRUE);
  }

  bool Stop_ = false;  // belongs to the thread once it runs
  DWORD Id_ = 0;
  THandle Handle_;
  THandle Ready_;
  std::thread Thread_;
};

/// A count that wakes one waiter when it comes to nothing.
struct TCountdown {
  THandle Done = NewEvent();
  std::atomic<int> Left{0};
  void Finish() {
    if (--Left == 0) Signal(Done);
  }
  static void CALLBACK FinishFromApc(ULONG_PTR Self) {
    reinterpret_cast<TCountdown*>(Self)->Finish();
  }
};

void CallAndBackRow() {
  const TApcThread thread;
  int runs = 0;
  auto handler = [&](TAsynchronousCall&, bool&) { ++runs; };
  TAsynchronousCall call(thread.Handle(), thread.Id(), TAsynchronousCallHandler::To(handler));
  TCountdown countdown;
  const HANDLE handles[] = {countdown.Done.Get(), thread.Handle()};
  Compare({"call to another thread and back", "QueueUserAPC, an event, a wait", 0.85},
          Repeat([&] { call.Queue(true); }), Repeat([&] {
            countdown.Left = 1;
            thread.Queue(&TCountdown::FinishFromApc, &countdown);
            ::WaitForMultipleObjectsEx(2, handles, FALSE, INFINITE, TRUE);
          }));
}

void QueueRow(int Count) {
  const TApcThread thread;
  TAsynchronousCallQueue queue;
  queue.Activate(thread.Handle(), thread.Id());
  int runs = 0;
  auto handler = [&](TAsynchronousCallQueue&, void*) { ++runs; };
  TCountdown countdown;
  const HANDLE handles[] = {countdown.Done.Get(), thread.Handle()};
  const double units = Count;
  Compare({Format("call queue: %d calls, then wait for them", Count),
           "QueueUserAPC, an event, a wait", 0.85, units, units},
          Repeat([&] {
            for (int i = 0; i < Count; ++i)
              queue.Queue(TAsynchronousCallQueueHandler::To(handler), nullptr);
            queue.Wait();
          }),
          Repeat([&] {
            countdown.Left = Count;
            for (int i = 0; i < Count; ++i) thread.Queue(&TCountdown::FinishFromApc, &countdown);
            ::WaitForMultipleObjectsEx(2, handles, FALSE, INFINITE, TRUE);
          }));
}

const TGroup Calls(
    "calls",
    [] {
      CallAndBackRow();
      for (const int count : {1, 10, 100}) QueueRow(count);
    },
    true);
const TGroup ManyCalls("calls, many", [] { QueueRow(1000); });

/// Threads that wait on up to 64 handles each and answer every signal.
class TBareReactor {
 public:
  TBareReactor(const std::vector<THandle>& Events, const THandle& Answer) : Answer_(Answer) {
    for (size_t first = 0; first < Events.size(); first += Most) {
      std::vector<HANDLE> handles;
      for (size_t i = first; i < std::min(first + Most, Events.size()); ++i)
        handles.push_back(Events[i].Get());
      Threads_.emplace_back([this, handles] { Run(handles); });
    }
  }
  ~TBareReactor() {
    Stop_ = true;
    for (std::thread& thread : Threads_) {
      ::QueueUserAPC(&Wake, ::pthread_gethandle(thread.native_handle()), 0);
      thread.join();
    }
  }

 private:
  static constexpr size_t Most = MAXIMUM_WAIT_OBJECTS;

  void Run(const std::vector<HANDLE>& Handles) {
    const auto count = static_cast<DWORD>(Handles.size());
    while (!Stop_) {
      const DWORD result = ::WaitForMultipleObjectsEx(count, Handles.data(), FALSE, INFINITE, TRUE);
      if (result < WAIT_OBJECT_0 + count) Signal(Answer_);
    }
  }

  const THandle& Answer_;
  std::atomic<bool> Stop_{false};
  std::vector<std::thread> Threads_;
};

/// The same through Asio: one thread, each handle awaited anew after each signal.
class TAsioReactor {
 public:
  TAsioReactor(const std::vector<THandle>& Events, const THandle& Answer) : Answer_(Answer) {
    for (const THandle& event : Events) {
      HANDLE own = nullptr;  // Asio closes the handles that it is given
      ::DuplicateHandle(::GetCurrentProcess(), event.Get(), ::GetCurrentProcess(), &own, 0, FALSE,
                        DUPLICATE_SAME_ACCESS);
      Handles_.push_back(std::make_unique<asio::windows::object_handle>(Context_, own));
      Arm(*Handles_.back());
    }
    Thread_ = std::thread([this] { Context_.run(); });
  }
  ~TAsioReactor() {
    Context_.stop();
    Thread_.join();
  }

 private:
  void Arm(asio::windows::object_handle& Handle) {
    Handle.async_wait([this, &Handle](const asio::error_code& Error) {
      if (Error) return;
      Signal(Answer_);
      Arm(Handle);
    });
  }

  const THandle& Answer_;
  asio::io_context Context_;
  std::vector<std::unique_ptr<asio::windows::object_handle>> Handles_;
  std::thread Thread_;
};

struct TOurReactor {
  TOurReactor(const std::vector<THandle>& Events, const THandle& Answer) : Answer_(Answer) {
    for (const THandle& event : Events) {
      Reactions_.push_back(
          std::make_unique<TEventReaction>(TReactor::GetInstance(), event.Get(), nullptr,
                                           TReactionEvent::Bind<&TOurReactor::OnEvent>(this)));
      Reactions_.back()->SetActive(true);
    }
  }
  void OnEvent(TObject*) { Signal(Answer_); }

  const THandle& Answer_;
  std::vector<std::unique_ptr<TEventReaction>> Reactions_;
};

void ReactorRow(int Count) {
  struct TSignals {
    explicit TSignals(int Size) {
      for (int i = 0; i < Size; ++i) Events.push_back(NewEvent());
    }
    void Dispatch(int Run) {
      Signal(Events[static_cast<size_t>(Run) * 7 % Events.size()]);  // another one each time
      Await(Answer);
    }
    std::vector<THandle> Events;
    THandle Answer = NewEvent();
  };
  const auto side = [](TSignals& Signals) {
    return Repeat([&Signals](int Run) { Signals.Dispatch(Run); });
  };
  const std::string name =
      Format("reactor: signal one of %d active reactions, wait for its answer", Count);
  TSignals ours(Count);
  const TOurReactor ourReactor(ours.Events, ours.Answer);
  {
    TSignals bare(Count);
    const TBareReactor bareReactor(bare.Events, bare.Answer);
    Compare({name, "loop of WaitForMultipleObjectsEx", 0.9}, side(ours), side(bare));
  }
  TSignals theirs(Count);
  const TAsioReactor asioReactor(theirs.Events, theirs.Answer);
  Compare({name, "Asio, object_handle", 5.0}, side(ours), side(theirs));
}

const TGroup Reactor1(
    "reactor, 1", [] { ReactorRow(1); }, true);
const TGroup Reactor60(
    "reactor, 60", [] { ReactorRow(60); }, true);
const TGroup Reactor1000("reactor, 1000", [] { ReactorRow(1000); });

/// Timers of the system that belong to one thread, which arms them when asked by APC.
class TBareTimers {
 public:
  TBareTimers(int Count, TCountdown& Fired) : Fired_(Fired) {
    for (int i = 0; i < Count; ++i) {
      Timers_.push_back({this, THandle(::CreateWaitableTimerA(nullptr, FALSE, nullptr))});
    }
  }
  void Arm(LONGLONG Due) {
    Due_.QuadPart = Due;
    for (TTimer& timer : Timers_) Thread_.Queue(&TBareTimers::ArmFromApc, &timer);
  }
  void Cancel() {
    for (TTimer& timer : Timers_) ::CancelWaitableTimer(timer.Handle.Get());
  }
  const TApcThread& Thread() const { return Thread_; }

 private:
  struct TTimer {
    TBareTimers* Owner;
    THandle Handle;
  };
  static void CALLBACK ArmFromApc(ULONG_PTR Timer) {
    const TTimer& timer = *reinterpret_cast<TTimer*>(Timer);
    ::SetWaitableTimer(timer.Handle.Get(), &timer.Owner->Due_, 0, &TBareTimers::Fire, timer.Owner,
                       FALSE);
  }
  static void CALLBACK Fire(void* Owner, DWORD, DWORD) {
    static_cast<TBareTimers*>(Owner)->Fired_.Finish();
  }

  TCountdown& Fired_;
  LARGE_INTEGER Due_{};
  std::vector<TTimer> Timers_;
  TApcThread Thread_;
};

class TOurTasks {
 public:
  TOurTasks(int Count, TCountdown& Fired) : Fired_(Fired) {
    for (int i = 0; i < Count; ++i) {
      Tasks_.push_back(std::make_unique<TCallbackTask>());
      Tasks_.back()->SetOnExecute(TTaskExecuteEvent::Bind<&TOurTasks::OnExecute>(this));
    }
  }
  void Arm(int64_t Milliseconds) {
    for (const auto& task : Tasks_) {
      task->SetDuration(Milliseconds);
      task->SetActive(1);
    }
  }
  void Cancel() {
    for (const auto& task : Tasks_) task->SetActive(0);
  }

 private:
  void OnExecute(TObject*) { Fired_.Finish(); }

  TCountdown& Fired_;
  std::vector<std::unique_ptr<TCallbackTask>> Tasks_;
};

constexpr int64_t Hour = 3'600'000;

/// Sides begin to cancel when all timers are armed: they learn it from one that fires at once.
void CancelRow(int Count) {
  TCountdown none, barrier;
  TOurTasks ours(Count, none), ourLast(1, barrier);
  TBareTimers bare(Count, none);
  const double units = Count;
  Compare({Format("scheduler: arm %d tasks, then cancel them", Count),
           "waitable timers armed through QueueUserAPC", 0.8, units, units},
          Repeat([&] {
            barrier.Left = 1;
            ours.Arm(Hour);
            ourLast.Arm(0);
            Await(barrier.Done);
            ours.Cancel();
            ourLast.Cancel();
          }),
          Repeat([&] {
            barrier.Left = 1;
            bare.Arm(-Hour * 10'000);
            bare.Thread().Queue(&TCountdown::FinishFromApc, &barrier);
            Await(barrier.Done);
            bare.Cancel();
          }));
}

void FireRow(int Count) {
  TCountdown ourFired, bareFired;
  TOurTasks ours(Count, ourFired);
  TBareTimers bare(Count, bareFired);
  const double units = Count;
  // A task stays active once fired and must be made inactive to be armed again; a bare timer need
  // not be cancelled.
  const TSide ourSide = Repeat([&] {
    ourFired.Left = Count;
    ours.Arm(1);
    Await(ourFired.Done);
    ours.Cancel();
  });
  const std::string name =
      Format("scheduler: arm %d tasks due in 1 ms, wait until all have run", Count);
  Compare({name, "waitable timers armed through QueueUserAPC", 0.8, units, units}, ourSide,
          Repeat([&] {
            bareFired.Left = Count;
            bare.Arm(-10'000);
            Await(bareFired.Done);
          }));

  if (Count > 1000) return;
  asio::io_context context;
  std::vector<asio::steady_timer> timers;
  for (int i = 0; i < Count; ++i) timers.emplace_back(context);
  TCountdown theirFired;
  const auto work = asio::make_work_guard(context);
  std::thread thread([&] { context.run(); });
  Compare({name, "Asio, steady_timer", 0, units, units}, ourSide, Repeat([&] {
            theirFired.Left = Count;
            for (asio::steady_timer& timer : timers) {
              asio::post(context, [&] {
                timer.expires_after(std::chrono::milliseconds(1));
                timer.async_wait([&](const asio::error_code&) { theirFired.Finish(); });
              });
            }
            Await(theirFired.Done);
          }));
  context.stop();
  thread.join();
}

void SchedulerRows(int Count) {
  CancelRow(Count);
  FireRow(Count);
}

const TGroup Scheduler100(
    "scheduler, 100", [] { SchedulerRows(100); }, true);
const TGroup Scheduler1000("scheduler, 1000", [] { SchedulerRows(1000); });
const TGroup Scheduler10000("scheduler, 10000", [] { SchedulerRows(10'000); });

}  // namespace
}  // namespace bench
