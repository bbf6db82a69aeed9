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
#include "velox/runtime/velDateTime.hpp"
#include "velox/runtime/velException.hpp"

namespace velox {
namespace {

using test::MessageOf;

// A task that counts its runs.
struct TCounted {
  std::atomic<int> Runs{0};
  std::atomic<DWORD> Thread{0};
  std::function<void()> During;
  TCallbackTask Task;
  TCounted() { Task.SetOnExecute(TTaskExecuteEvent::Bind<&TCounted::Execute>(this)); }
  void Execute(TObject*) {
    Thread = ::GetCurrentThreadId();
    ++Runs;
    if (During) During();
  }
  bool WaitForRun(int Number) {
    return test::WaitUntil([&] { return Runs >= Number; });
  }
};

// Returns when the scheduler's thread has been through everything that was queued and due
// before.
void Settle() {
  TCounted last;
  last.Task.SetActive(1);
  EXPECT_TRUE(last.WaitForRun(1));
}

TEST(Scheduler, RunsOnceAfterTheDurationOnItsNamedThread) {
  TCounted once;
  once.Task.SetDuration(100);
  const ULONGLONG start = ::GetTickCount64();
  once.Task.SetActive(1);
  once.Task.SetActive(1);  // one activation
  EXPECT_TRUE(once.WaitForRun(1));
  EXPECT_GE(::GetTickCount64() - start, 90u);
  EXPECT_EQ(TThreadFactory::GetInstance()->GetThreadName(once.Thread), "Scheduler Thread");
  Settle();
  EXPECT_EQ(once.Runs, 1);
  EXPECT_NE(once.Task.GetActive(), 0);  // until deactivated
  once.Task.SetActive(0);
  once.Task.SetActive(0);
  once.Task.SetDuration(0);
  once.Task.SetActive(1);
  EXPECT_TRUE(once.WaitForRun(2));
}

TEST(Scheduler, RepeatsUntilDeactivated) {
  TCounted repeated;
  repeated.Task.SetPeriod(5);
  repeated.Task.SetActive(1);
  EXPECT_TRUE(repeated.WaitForRun(5));
  repeated.Task.SetActive(0);
  Settle();
  const int runs = repeated.Runs;
  ::SleepEx(50, TRUE);
  Settle();
  EXPECT_EQ(repeated.Runs, runs);
}

TEST(Scheduler, AnAbsoluteTimeIsUniversal) {
  SYSTEMTIME now;
  ::GetSystemTime(&now);
  TCounted due;
  TCounted later;
  due.Task.SetAbsoluteTime(SystemTimeToDateTime(now) - 1.0 / 1440);
  later.Task.SetAbsoluteTime(SystemTimeToDateTime(now) + 1.0 / 24);
  later.Task.SetActive(1);
  due.Task.SetActive(1);
  EXPECT_TRUE(due.WaitForRun(1));
  EXPECT_EQ(later.Runs, 0);
  due.Task.SetAbsoluteTime(due.Task.GetAbsoluteTime());  // the same: nothing happens, even active
  EXPECT_THROW(due.Task.SetAbsoluteTime(1.0), Exception);
}

TEST(Scheduler, SettersCheckAndCorrect) {
  TCallbackTask task;
  task.SetDuration(-5);
  task.SetPeriod(-5);
  EXPECT_EQ(task.GetDuration(), 0);
  EXPECT_EQ(task.GetPeriod(), 0);
  EXPECT_EQ(MessageOf([&] { task.CheckTaskForExecution(); }), "Invalid event specified");
  EXPECT_EQ(MessageOf([] { TEventTask().CheckTaskForExecution(); }), "Invalid event specified");
  EXPECT_EQ(MessageOf([] { TMessageTask().CheckTaskForExecution(); }),
            "Invalid window handle specified");
  task.SetDuration(1'000'000);
  task.SetActive(1);
  const std::string active = "Cannot perform operation on active task";
  EXPECT_EQ(MessageOf([&] { task.SetDuration(1'000'000); }), active);
  EXPECT_EQ(MessageOf([&] { task.SetPeriod(0); }), active);
  EXPECT_EQ(MessageOf([&] { task.SetOnExecute(nullptr); }), active);
}

TEST(Scheduler, DeactivatedAtOnceItDoesNotRunAndAStaleActivationArmsNothing) {
  TCounted never[25];
  TCounted once[25];
  for (int i = 0; i < 25; ++i) {
    for (TCounted* const counted : {&never[i], &once[i]}) {
      counted->Task.SetDuration(20);
      counted->Task.SetActive(1);
      counted->Task.SetActive(0);
    }
    once[i].Task.SetActive(1);
  }
  for (TCounted& counted : once) EXPECT_TRUE(counted.WaitForRun(1));
  ::SleepEx(60, TRUE);
  Settle();
  for (const TCounted& counted : once) EXPECT_EQ(counted.Runs, 1);
  for (const TCounted& counted : never) EXPECT_EQ(counted.Runs, 0);
}

TEST(Scheduler, AnActivationThatCannotBeArmedIsLoggedAndLeavesNothing) {
  const test::TLogSince log;
  TCounted counted;
  counted.Task.SetAbsoluteTime(1e9);  // no date
  counted.Task.SetActive(1);
  Settle();
  counted.Task.SetActive(0);
  counted.Task.SetDuration(1);  // replaces it
  counted.Task.SetActive(1);
  EXPECT_TRUE(counted.WaitForRun(1));
  EXPECT_TRUE(log.Holds("Sheduler error: Invalid date or time. EConvertError at "));
}

TEST(Scheduler, AnExceptionIsLoggedAndTheThreadGoesOn) {
  const test::TLogSince log;
  TCounted faulty;
  faulty.During = [] { throw Exception("task failed"); };
  faulty.Task.SetActive(1);
  EXPECT_TRUE(faulty.WaitForRun(1));
  Settle();
  EXPECT_TRUE(log.Holds("Scheduled task completion error: task failed. Exception at "));
  EXPECT_TRUE(log.Holds("Sheduler error: task failed. Exception at "));
}

TEST(Scheduler, ATaskMayDestroyItself) {
  std::atomic<int> destroyed{0};
  auto destroy = [&](TObject* Sender) {
    delete Sender;
    ++destroyed;
  };
  for (int i = 0; i < 20; ++i) {
    auto* task = new TCallbackTask;
    task->SetOnExecute(TTaskExecuteEvent::To(destroy));
    task->SetPeriod(1);
    task->SetActive(1);
  }
  EXPECT_TRUE(test::WaitUntil([&] { return destroyed == 20; }));
}

TEST(Scheduler, DestructionWaitsForTheRunThatIsUnderWay) {
  std::atomic<bool> left{false};
  auto slow = std::make_unique<TCounted>();
  slow->During = [&] {
    ::SleepEx(50, FALSE);
    left = true;
  };
  slow->Task.SetActive(1);
  EXPECT_TRUE(slow->WaitForRun(1));
  slow.reset();
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
    test::RunThreads(Threads, [Operations](int t) {
      std::minstd_rand random(static_cast<unsigned>(t + 1));
      struct TOwned {
        // A run that touches it after its end is caught by the mark.
        std::atomic<uint32_t> Mark{0xA11FE};
        TCounted Counted;
        TOwned() {
          Counted.During = [this] { EXPECT_EQ(Mark, 0xA11FEu); };
        }
      };
      std::vector<std::unique_ptr<TOwned>> awaited;
      for (int n = 0; n < Operations; ++n) {
        auto owned = std::make_unique<TOwned>();
        owned->Counted.Task.SetDuration(random() % 3);
        owned->Counted.Task.SetActive(1);
        switch (random() % 4) {
          case 0:
            awaited.push_back(std::move(owned));
            break;
          case 1:
            owned->Counted.Task.SetActive(0);
            owned->Counted.Task.SetActive(1);
            break;
          case 2:
            if (random() % 8 == 0) ::SleepEx(1, TRUE);
            owned->Counted.Task.SetActive(0);
            break;
          default:
            break;  // destroyed active
        }
        if (awaited.size() >= 64 || n + 1 == Operations) {
          for (const auto& one : awaited) {
            EXPECT_TRUE(test::WaitUntil([&] { return one->Counted.Runs == 1; }));
          }
          awaited.clear();
        }
      }
    });
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
