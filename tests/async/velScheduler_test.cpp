#include "velox/async/velScheduler.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <random>
#include <thread>
#include <vector>

#include "tests/support/support.hpp"
#include "velox/foundation/velSyncUtils.hpp"
#include "velox/foundation/velTrace.hpp"
#include "velox/runtime/velDateTime.hpp"
#include "velox/runtime/velException.hpp"

namespace velox {
namespace {

struct TCounter {
  std::atomic<int> Runs{0};
  std::atomic<DWORD> Thread{0};
  std::function<void(TObject*)> During;
  void Execute(TObject* Sender) {
    Thread = ::GetCurrentThreadId();
    ++Runs;
    if (During) During(Sender);
  }
  TTaskExecuteEvent Event() { return TTaskExecuteEvent::Bind<&TCounter::Execute>(this); }
};

// Returns when the scheduler's thread has been through everything that was queued and due
// before.
void Settle() {
  TCounter last;
  TCallbackTask task;
  task.SetOnExecute(last.Event());
  task.SetActive(1);
  EXPECT_TRUE(test::WaitUntil([&] { return last.Runs > 0; }));
}

TEST(Scheduler, RunsOnceAfterTheDurationOnItsNamedThread) {
  TCounter counter;
  TCallbackTask task;
  task.SetOnExecute(counter.Event());
  task.SetDuration(100);
  const ULONGLONG start = ::GetTickCount64();
  task.SetActive(1);
  task.SetActive(1);  // one activation
  EXPECT_TRUE(test::WaitUntil([&] { return counter.Runs > 0; }));
  EXPECT_GE(::GetTickCount64() - start, 90u);
  EXPECT_EQ(TThreadFactory::GetInstance()->GetThreadName(counter.Thread), "Scheduler Thread");
  Settle();
  EXPECT_EQ(counter.Runs, 1);
  EXPECT_NE(task.GetActive(), 0);  // until deactivated
  task.SetActive(0);
  task.SetActive(0);
  task.SetDuration(0);
  task.SetActive(1);
  EXPECT_TRUE(test::WaitUntil([&] { return counter.Runs == 2; }));
}

TEST(Scheduler, RepeatsUntilDeactivated) {
  TCounter counter;
  TCallbackTask task;
  task.SetOnExecute(counter.Event());
  task.SetPeriod(5);
  task.SetActive(1);
  EXPECT_TRUE(test::WaitUntil([&] { return counter.Runs >= 5; }));
  task.SetActive(0);
  Settle();
  const int runs = counter.Runs;
  ::SleepEx(50, TRUE);
  Settle();
  EXPECT_EQ(counter.Runs, runs);
}

TEST(Scheduler, AnAbsoluteTimeIsUniversal) {
  SYSTEMTIME now;
  ::GetSystemTime(&now);
  TCounter past;
  TCounter future;
  TCallbackTask due;
  TCallbackTask later;
  due.SetOnExecute(past.Event());
  due.SetAbsoluteTime(SystemTimeToDateTime(now) - 1.0 / 1440);
  later.SetOnExecute(future.Event());
  later.SetAbsoluteTime(SystemTimeToDateTime(now) + 1.0 / 24);
  later.SetActive(1);
  due.SetActive(1);
  EXPECT_TRUE(test::WaitUntil([&] { return past.Runs == 1; }));
  EXPECT_EQ(future.Runs, 0);
  due.SetAbsoluteTime(due.GetAbsoluteTime());  // the same: nothing happens, active or not
  EXPECT_THROW(due.SetAbsoluteTime(1.0), Exception);
}

TEST(Scheduler, SettersCheckAndCorrect) {
  TCallbackTask task;
  task.SetDuration(-5);
  task.SetPeriod(-5);
  EXPECT_EQ(task.GetDuration(), 0);
  EXPECT_EQ(task.GetPeriod(), 0);
  TCounter counter;
  task.SetOnExecute(counter.Event());
  task.SetDuration(1'000'000);
  task.SetActive(1);
  for (const std::function<void()>& setter : std::initializer_list<std::function<void()>>{
           [&] { task.SetDuration(1'000'000); }, [&] { task.SetPeriod(0); },
           [&] { task.SetOnExecute(counter.Event()); }}) {
    try {
      setter();
      ADD_FAILURE();
    } catch (const Exception& e) {
      EXPECT_STREQ(e.what(), "Cannot perform operation on active task");
    }
  }
  TEventTask event;
  TMessageTask message;
  TCallbackTask callback;
  const std::pair<TScheduledTask*, const char*> unconfigured[] = {
      {&event, "Invalid event specified"},
      {&message, "Invalid window handle specified"},
      {&callback, "Invalid event specified"}};
  for (const auto& [bare, text] : unconfigured) {
    try {
      bare->CheckTaskForExecution();
      ADD_FAILURE();
    } catch (const Exception& e) {
      EXPECT_STREQ(e.what(), text);
    }
  }
}

TEST(Scheduler, DeactivatedAtOnceItDoesNotRunAndAStaleActivationArmsNothing) {
  TCounter never;
  TCounter once;
  std::vector<std::unique_ptr<TCallbackTask>> tasks;
  for (int i = 0; i < 50; ++i) {
    auto task = std::make_unique<TCallbackTask>();
    task->SetOnExecute(i % 2 ? once.Event() : never.Event());
    task->SetDuration(20);
    task->SetActive(1);
    task->SetActive(0);
    if (i % 2) task->SetActive(1);
    tasks.push_back(std::move(task));
  }
  EXPECT_TRUE(test::WaitUntil([&] { return once.Runs == 25; }));
  ::SleepEx(60, TRUE);
  Settle();
  EXPECT_EQ(once.Runs, 25);
  EXPECT_EQ(never.Runs, 0);
}

TEST(Scheduler, AnActivationThatCannotBeArmedIsLoggedAndLeavesNothing) {
  const test::TLogSince log;
  TCounter counter;
  TCallbackTask task;
  task.SetOnExecute(counter.Event());
  task.SetAbsoluteTime(1e9);  // no date
  task.SetActive(1);
  Settle();
  task.SetActive(0);
  task.SetDuration(1);  // replaces it
  task.SetActive(1);
  EXPECT_TRUE(test::WaitUntil([&] { return counter.Runs == 1; }));
  EXPECT_TRUE(log.Holds("Sheduler error: Invalid date or time. EConvertError at "));
}

TEST(Scheduler, AnExceptionIsLoggedAndTheThreadGoesOn) {
  const test::TLogSince log;
  TCounter counter;
  counter.During = [](TObject*) { throw Exception("task failed"); };
  TCallbackTask task;
  task.SetOnExecute(counter.Event());
  task.SetActive(1);
  EXPECT_TRUE(test::WaitUntil([&] { return counter.Runs == 1; }));
  Settle();
  EXPECT_TRUE(log.Holds("Scheduled task completion error: task failed. Exception at "));
  EXPECT_TRUE(log.Holds("Sheduler error: task failed. Exception at "));
}

TEST(Scheduler, ATaskMayDestroyItself) {
  std::atomic<int> destroyed{0};
  TCounter counter;
  counter.During = [&](TObject* Sender) {
    delete Sender;
    ++destroyed;
  };
  for (int i = 0; i < 20; ++i) {
    auto* task = new TCallbackTask;
    task->SetOnExecute(counter.Event());
    task->SetPeriod(1);
    task->SetActive(1);
  }
  EXPECT_TRUE(test::WaitUntil([&] { return destroyed == 20; }));
}

TEST(Scheduler, DestructionWaitsForTheRunThatIsUnderWay) {
  std::atomic<bool> inside{false};
  std::atomic<bool> left{false};
  TCounter counter;
  counter.During = [&](TObject*) {
    inside = true;
    ::SleepEx(50, FALSE);
    left = true;
  };
  auto task = std::make_unique<TCallbackTask>();
  task->SetOnExecute(counter.Event());
  task->SetActive(1);
  EXPECT_TRUE(test::WaitUntil([&] { return inside.load(); }));
  task.reset();
  EXPECT_TRUE(left);
}

TEST(EventTask, SignalsAndIsSilentOnceDeactivated) {
  THandle event(::CreateEventA(nullptr, TRUE, FALSE, nullptr));
  TEventTask task;
  task.SetEventHandle(event.Get());
  task.SetActive(1);
  EXPECT_EQ(WaitForSingleObjectAlertable(event.Get()), WAIT_OBJECT_0);
  task.SetActive(0);
  // Fired or not, after SetActive(0) and ResetEvent no late signal comes.
  for (int i = 0; i < 200; ++i) {
    task.SetDuration(i % 3);
    task.SetActive(1);
    if (i % 4 == 0) ::SleepEx(1, TRUE);
    task.SetActive(0);
    ::ResetEvent(event.Get());
    EXPECT_EQ(::WaitForSingleObject(event.Get(), 0), static_cast<DWORD>(WAIT_TIMEOUT));
  }
  Settle();
  EXPECT_EQ(::WaitForSingleObject(event.Get(), 0), static_cast<DWORD>(WAIT_TIMEOUT));
}

struct TSeen {
  std::atomic<WPARAM> WParam{0};
  std::atomic<LPARAM> LParam{0};
  std::atomic<int> Count{0};
  std::unique_ptr<TMessageTask> Doomed;
};
TSeen* Seen = nullptr;

LRESULT CALLBACK WindowProcedure(HWND Window, UINT Message, WPARAM WParam, LPARAM LParam) {
  if (Message != WM_APP) return ::DefWindowProcA(Window, Message, WParam, LParam);
  Seen->WParam = WParam;
  Seen->LParam = LParam;
  ++Seen->Count;
  Seen->Doomed.reset();  // inside the message that the task is sending
  return 0;
}

TEST(MessageTask, SendsItsParametersAndMayBeDestroyedByTheReceiver) {
  TSeen seen;
  Seen = &seen;
  WNDCLASSA windowClass{};
  windowClass.lpfnWndProc = &WindowProcedure;
  windowClass.lpszClassName = "VeloxMessageTaskTest";
  ::RegisterClassA(&windowClass);
  const HWND window = ::CreateWindowA("VeloxMessageTaskTest", "", 0, 0, 0, 0, 0, HWND_MESSAGE,
                                      nullptr, nullptr, nullptr);
  ASSERT_NE(window, nullptr);
  const auto pumpUntil = [&](int count) {
    return test::WaitUntil([&] {
      MSG message;
      ::PeekMessageA(&message, nullptr, 0, 0, PM_REMOVE);
      return seen.Count == count;
    });
  };
  TMessageTask task;
  task.SetNotificationParams(window, WM_APP, 1, 2);  // LParam before WParam
  task.SetActive(1);
  EXPECT_TRUE(pumpUntil(1));
  EXPECT_EQ(seen.WParam, 2u);
  EXPECT_EQ(seen.LParam, 1);
  seen.Doomed = std::make_unique<TMessageTask>();
  seen.Doomed->SetNotificationParams(window, WM_APP, 3, 4);
  seen.Doomed->SetActive(1);
  EXPECT_TRUE(pumpUntil(2));
  EXPECT_EQ(seen.Doomed, nullptr);
  ::DestroyWindow(window);
}

// Eight threads make, activate, deactivate and destroy 20,000 tasks at random. One that was left
// alone runs once; one that is gone does not run; handles and memory come back.
TEST(SchedulerStress, TasksComeAndGoFromManyThreads) {
  constexpr int Threads = 8;
  const auto round = [](int Operations) {
    std::vector<std::thread> threads;
    for (int t = 0; t < Threads; ++t) {
      threads.emplace_back([t, Operations] {
        std::minstd_rand random(static_cast<unsigned>(t + 1));
        struct TOwned {
          // A run that touches it after its end is caught by the mark.
          std::atomic<uint32_t> Mark{0xA11FE};
          TCounter Counter;
          TCallbackTask Task;
          TOwned() {
            Counter.During = [this](TObject*) { EXPECT_EQ(Mark, 0xA11FEu); };
            Task.SetOnExecute(Counter.Event());
          }
        };
        std::vector<std::unique_ptr<TOwned>> awaited;
        for (int n = 0; n < Operations; ++n) {
          auto owned = std::make_unique<TOwned>();
          owned->Task.SetDuration(random() % 3);
          owned->Task.SetActive(1);
          switch (random() % 4) {
            case 0:
              awaited.push_back(std::move(owned));
              break;
            case 1:
              owned->Task.SetActive(0);
              owned->Task.SetActive(1);
              break;
            case 2:
              if (random() % 8 == 0) ::SleepEx(1, TRUE);
              owned->Task.SetActive(0);
              break;
            default:
              break;  // destroyed active
          }
          if (awaited.size() >= 64 || n + 1 == Operations) {
            for (const auto& one : awaited) {
              EXPECT_TRUE(test::WaitUntil([&] { return one->Counter.Runs == 1; }));
            }
            awaited.clear();
          }
        }
      });
    }
    for (std::thread& thread : threads) thread.join();
  };
  round(50);
  Settle();
  const uint32_t handles = test::HandleCount();
  const uint64_t memory = test::PrivateBytes();
  round(20'000 / Threads);
  Settle();
  EXPECT_LE(test::HandleCount(), handles + 8);
  EXPECT_LE(test::PrivateBytes(), memory + 4'000'000);
}

}  // namespace
}  // namespace velox
