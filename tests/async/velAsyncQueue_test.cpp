#include "velox/async/velAsyncQueue.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <functional>
#include <memory>
#include <numeric>
#include <random>
#include <thread>
#include <vector>

#include "tests/async/apc_thread.hpp"
#include "tests/support/support.hpp"
#include "velox/foundation/velSyncUtils.hpp"
#include "velox/runtime/velException.hpp"
#include "velox/runtime/velHandle.hpp"

namespace velox {
namespace {

using enum TCallState;
using enum TAsynchronousCallQueueState;
using test::MessageOf;
using test::TApcThread;

struct TRecorder {
  std::atomic<int> Runs{0};
  std::atomic<DWORD> Thread{0};
  std::function<void()> During;
  void Run() {
    Thread = ::GetCurrentThreadId();
    if (During) During();
    ++Runs;
  }
  void Handle(TAsynchronousCall&, bool&) { Run(); }
  TAsynchronousCallHandler Handler() {
    return TAsynchronousCallHandler::Bind<&TRecorder::Handle>(this);
  }
  void HandleQueued(TAsynchronousCallQueue&, void*) { Run(); }
  TAsynchronousCallQueueHandler QueueHandler() {
    return TAsynchronousCallQueueHandler::Bind<&TRecorder::HandleQueued>(this);
  }
};

// A call to a thread.
struct AsynchronousCall : testing::Test {
  TApcThread target;
  TRecorder recorder;
  TAsynchronousCall call{target.Handle(), target.Id(), recorder.Handler()};
};

TEST_F(AsynchronousCall, RunsOnItsThreadAndCanBeUsedAgain) {
  for (int i = 1; i <= 3; ++i) {
    call.Queue(true);
    EXPECT_EQ(recorder.Runs, i);
    EXPECT_EQ(recorder.Thread, target.Id());
    EXPECT_EQ(call.GetState(), clsFree);
  }
  EXPECT_EQ(call.WaitForFinished(), WAIT_OBJECT_0);
}

TEST_F(AsynchronousCall, RefusesWhatCannotRun) {
  TAsynchronousCall bare;
  EXPECT_EQ(MessageOf([&] { bare.Queue(false); }), "Incorrect parameters");
  EXPECT_EQ(MessageOf([&] { bare.QueueEx(target.Handle(), target.Id(), nullptr, false); }),
            "Incorrect parameters");
  target.Hold();
  call.Queue(false);
  EXPECT_EQ(MessageOf([&] { call.Queue(false); }), "Call is busy");
  target.Release();
  call.WaitForFinished();
  THandle event(::CreateEventA(nullptr, FALSE, FALSE, nullptr));  // no thread
  EXPECT_THROW(call.QueueEx(event.Get(), target.Id(), recorder.Handler(), false), EOSError);
  EXPECT_EQ(call.GetState(), clsFree);
}

TEST_F(AsynchronousCall, CancelledBeforeItsRunItIsSkipped) {
  target.Hold();
  call.Queue(false);
  EXPECT_FALSE(call.Cancel());
  EXPECT_EQ(call.GetState(), clsCancelled);
  target.Release();
  call.WaitForFinished();
  EXPECT_EQ(recorder.Runs, 0);
  EXPECT_EQ(call.GetState(), clsFree);
  EXPECT_FALSE(call.Cancel());
}

TEST_F(AsynchronousCall, CancelledDuringItsRunItIsWaitedFor) {
  std::atomic<bool> inside{false};
  std::atomic<bool> go{false};
  recorder.During = [&] {
    inside = true;
    test::WaitUntil([&] { return go.load(); });
  };
  call.Queue(false);
  EXPECT_TRUE(test::WaitUntil([&] { return inside.load(); }));
  std::thread release([&] {
    test::WaitUntil([&] { return call.GetState() == clsCancelled; });
    go = true;
  });
  EXPECT_TRUE(call.Cancel());
  EXPECT_EQ(recorder.Runs, 1);
  EXPECT_EQ(call.GetState(), clsFree);
  release.join();
}

TEST_F(AsynchronousCall, WaitsEndWithTheTargetThread) {
  target.Hold();
  call.Queue(false);
  std::thread stop([&] {
    ::SleepEx(20, FALSE);
    target.StopWithoutApcs();
  });
  EXPECT_EQ(call.WaitForFinished(), WAIT_OBJECT_0 + 1);
  stop.join();
}

TEST_F(AsynchronousCall, AHandlerThatRaisesReachesTheWaitOfItsThread) {
  recorder.During = [] { throw Exception("from the handler"); };
  call.Queue(false);
  EXPECT_TRUE(test::WaitUntil([&] { return target.Caught() == 1; }));
  EXPECT_EQ(call.GetState(), clsInCall);
  target.Stop();
}

TEST_F(AsynchronousCall, AHandlerThatRaisesOnTheCallingThreadLeavesACallThatCanBeDestroyed) {
  const THandle own(GetRealCurrentThreadHandle());
  recorder.During = [] { throw Exception("at once"); };
  EXPECT_EQ(MessageOf([&] {
              TAsynchronousCall here(own.Get(), ::GetCurrentThreadId(), recorder.Handler());
              here.Queue(false);
            }),
            "at once");
}

// Its memory is made useless when it is destroyed.
struct TOnce : TAsynchronousCall {
  using TAsynchronousCall::TAsynchronousCall;
  static void operator delete(void* Memory, size_t Size) {
    std::memset(Memory, 0x5A, Size);
    ::operator delete(Memory);
  }
};

TEST_F(AsynchronousCall, OneThatDestroysItselfCanBeWaitedFor) {
  auto handle = [](TAsynchronousCall&, bool& ADestroy) { ADestroy = true; };
  for (int i = 0; i < 2000; ++i) {
    (new TOnce(target.Handle(), target.Id(), TAsynchronousCallHandler::To(handle)))->Queue(true);
  }
}

// Each thread begins something, has another thread finish it, and waits: no wait may end before the
// thread's own is finished, though other rounds of the gate end all the time, and every wait ends.
TEST(PendingGate, NoWaitEndsEarlyAndEveryWaitEnds) {
  constexpr int Threads = 6;
  TPendingGate gate;
  std::atomic<std::atomic<bool>*> handed[Threads] = {};
  std::atomic<int> running{Threads};
  std::thread finisher([&] {
    while (running > 0) {
      for (auto& slot : handed) {
        if (std::atomic<bool>* const done = slot.exchange(nullptr)) {
          *done = true;
          gate.Finish();
        }
      }
      ::Sleep(0);
    }
  });
  test::RunThreads(Threads, [&](int t) {
    for (int n = 0; n < 300; ++n) {
      std::atomic<bool> done{false};
      gate.Begin();
      handed[t] = &done;
      EXPECT_EQ(gate.WaitQuietly(nullptr), WAIT_OBJECT_0);
      EXPECT_TRUE(done);
    }
    --running;
  });
  finisher.join();
  gate.Finish();  // one too many changes nothing
  EXPECT_EQ(gate.GetPending(), 0);
}

void CALLBACK RunBody(ULONG_PTR Body) { (*reinterpret_cast<std::function<void()>*>(Body))(); }

// What runs in a wait for the gate ends the wait's round, and waits for another, which a callback
// ends, or which the end of a thread leaves open.
TEST(PendingGate, CallbacksRunInAWaitInsideAWait) {
  TPendingGate gate;
  const auto runInWait = [&gate](std::function<void()> Body) {
    gate.Begin();
    ::QueueUserAPC(&RunBody, ::GetCurrentThread(), reinterpret_cast<ULONG_PTR>(&Body));
    EXPECT_EQ(gate.WaitQuietly(nullptr), WAIT_OBJECT_0);
  };
  std::function<void()> finish = [&gate] { gate.Finish(); };
  runInWait([&] {
    gate.Finish();
    gate.Begin();
    ::QueueUserAPC(&RunBody, ::GetCurrentThread(), reinterpret_cast<ULONG_PTR>(&finish));
    EXPECT_EQ(gate.WaitQuietly(nullptr), WAIT_OBJECT_0);
  });
  EXPECT_EQ(gate.GetPending(), 0);
  TApcThread ended;
  ended.Stop();
  runInWait([&] {
    gate.Finish();
    gate.Begin();
    EXPECT_EQ(gate.WaitQuietly(ended.Handle()), WAIT_OBJECT_0 + 1);
  });
}

TEST(AsynchronousCallQueue, RunsInOrderOnTheBoundThreadOnly) {
  TApcThread target;
  std::vector<int> numbers(100);
  std::iota(numbers.begin(), numbers.end(), 0);
  std::vector<int> order;
  auto append = [&](TAsynchronousCallQueue&, void* Data) {
    order.push_back(*static_cast<int*>(Data));
  };
  TAsynchronousCallQueue queue;
  queue.Activate(target.Handle(), target.Id());
  EXPECT_EQ(queue.GetState(), acqsActive);
  target.Hold();
  for (int& number : numbers) queue.Queue(TAsynchronousCallQueueHandler::To(append), &number);
  EXPECT_EQ(queue.GetPending(), 100);
  EXPECT_TRUE(order.empty());
  target.Release();
  EXPECT_EQ(queue.Wait(), WAIT_OBJECT_0);
  EXPECT_EQ(queue.GetPending(), 0);
  EXPECT_EQ(order, numbers);
}

TEST(AsynchronousCallQueue, BoundToTheCallingThreadItRunsAtOnce) {
  TRecorder recorder;
  TAsynchronousCallQueue queue;
  EXPECT_EQ(MessageOf([&] { queue.Queue(recorder.QueueHandler(), nullptr); }), "Queue is inactive");
  EXPECT_EQ(queue.GetPending(), 0);
  queue.Activate(nullptr, 0);
  queue.Activate(nullptr, 0);  // does nothing
  queue.Queue(recorder.QueueHandler(), nullptr);
  EXPECT_EQ(recorder.Runs, 1);
  std::string inside;
  TRecorder nested;
  recorder.During = [&] {
    queue.Queue(nested.QueueHandler(), nullptr);
    inside = MessageOf([&] { queue.Wait(); });
  };
  queue.Queue(recorder.QueueHandler(), nullptr);
  EXPECT_EQ(inside, "Queue is in call now and can be deadlocked");
  EXPECT_EQ(queue.Wait(), WAIT_OBJECT_0);
}

TEST(AsynchronousCallQueue, DeactivationWaitsForWhatIsPendingAndEndsInactive) {
  TApcThread target;
  TRecorder recorder;
  TAsynchronousCallQueue queue;
  queue.Deactivate(true);
  EXPECT_EQ(queue.GetState(), acqsInactive);
  queue.Activate(target.Handle(), target.Id());
  target.Hold();
  for (int i = 0; i < 5; ++i) queue.Queue(recorder.QueueHandler(), nullptr);
  std::thread release([&] {
    test::WaitUntil([&] { return queue.GetState() == acqsDeactivating; });
    target.Release();
  });
  queue.Deactivate(true);
  EXPECT_EQ(recorder.Runs, 5);
  EXPECT_EQ(queue.GetState(), acqsInactive);
  release.join();

  queue.Activate(target.Handle(), target.Id());
  queue.Deactivate(true);  // nothing pending: it stays so
  EXPECT_EQ(queue.GetState(), acqsDeactivating);
  queue.Activate(target.Handle(), target.Id());
  EXPECT_EQ(queue.GetState(), acqsDeactivating);
  EXPECT_EQ(MessageOf([&] { queue.Queue(recorder.QueueHandler(), nullptr); }), "Queue is inactive");
}

TEST(AsynchronousCallQueue, RefusedRequestsDoNotKeepItDeactivating) {
  TApcThread target;
  TRecorder recorder;
  TAsynchronousCallQueue queue;
  std::jthread refused([&](const std::stop_token& Stop) {
    while (!Stop.stop_requested())
      MessageOf([&] { queue.Queue(recorder.QueueHandler(), nullptr); });
  });
  for (int i = 0; i < 200; ++i) {
    queue.Activate(target.Handle(), target.Id());
    queue.Queue(recorder.QueueHandler(), nullptr);
    const int runs = recorder.Runs;
    queue.Deactivate(true);
    if (recorder.Runs == runs) queue.CloseHandles();  // it had run before
    ASSERT_TRUE(test::WaitUntil([&] { return queue.GetState() == acqsInactive; }));
  }
}

TEST(AsynchronousCallQueue, ItsDestructorWaitsForAHandlerOnAnotherThread) {
  TApcThread target;
  TRecorder recorder;
  auto queue = std::make_unique<TAsynchronousCallQueue>();
  std::atomic<bool> inside{false};
  recorder.During = [&inside, queue = queue.get()] {
    inside = true;
    test::WaitUntil([&] { return queue->GetState() == acqsInactive; });
  };
  queue->Activate(target.Handle(), target.Id());
  queue->Queue(recorder.QueueHandler(), nullptr);
  EXPECT_TRUE(test::WaitUntil([&] { return inside.load(); }));
  queue.reset();
  EXPECT_EQ(recorder.Runs, 1);
}

TEST(AsynchronousCallQueue, AHandlerThatRaisesLeavesAQueueThatItsThreadCanDestroy) {
  TRecorder raising, other;
  raising.During = [] { throw Exception("from the handler"); };
  auto queue = std::make_unique<TAsynchronousCallQueue>();
  queue->Activate(nullptr, 0);
  EXPECT_EQ(MessageOf([&] { queue->Queue(raising.QueueHandler(), nullptr); }), "from the handler");
  EXPECT_EQ(queue->GetPending(), 0);
  const auto queueElsewhere = [&](TRecorder& Recorder) {
    std::thread([&] { queue->Queue(Recorder.QueueHandler(), nullptr); }).join();
  };
  const HANDLE process = ::GetCurrentProcess();  // which does not end here
  queueElsewhere(raising);
  EXPECT_EQ(MessageOf([&] { WaitAlertableOnce({&process, 1}); }), "from the handler");
  EXPECT_EQ(queue->GetPending(), 1);  // and stays so
  queueElsewhere(other);
  WaitAlertableOnce({&process, 1});
  EXPECT_EQ(other.Runs, 1);
  queueElsewhere(other);
  queue.reset();
  EXPECT_EQ(other.Runs, 2);
}

// Eight threads send 20,000 calls to two threads, through queues and through single calls that they
// cancel and destroy at random. Every call that was not cancelled runs exactly once, and nothing is
// left behind.
TEST(AsyncStress, NoCallIsLostOrDoubledAndNothingIsLeft) {
  constexpr int Threads = 8;
  constexpr int Operations = 20'000 / Threads;
  TApcThread targets[2];
  const auto round = [&] {
    TAsynchronousCallQueue queues[2];
    for (int i = 0; i < 2; ++i) queues[i].Activate(targets[i].Handle(), targets[i].Id());
    std::atomic<int> queued{0};
    std::atomic<int> called{0};
    TRecorder viaQueue;
    TRecorder viaCall;
    test::RunThreads(Threads, [&](int t) {
      std::minstd_rand random(static_cast<unsigned>(t + 1));
      for (int n = 0; n < Operations; ++n) {
        const size_t target = random() % 2;
        switch (random() % 4) {
          case 0: {
            TAsynchronousCall call(targets[target].Handle(), targets[target].Id(),
                                   viaCall.Handler());
            call.Queue(random() % 2 == 0);
            if (random() % 2 == 0) call.Cancel();
            call.WaitForFinished();
            EXPECT_EQ(call.GetState(), clsFree);
            ++called;
            break;
          }
          case 1: {
            TAsynchronousCall call(targets[target].Handle(), targets[target].Id(),
                                   viaCall.Handler());
            call.Queue(false);
            ++called;  // destroyed at once: it may or may not have run
            break;
          }
          default:
            ++queued;
            queues[target].Queue(viaQueue.QueueHandler(), nullptr);
        }
      }
    });
    for (TAsynchronousCallQueue& queue : queues) EXPECT_EQ(queue.Wait(), WAIT_OBJECT_0);
    EXPECT_EQ(viaQueue.Runs, queued);
    EXPECT_LE(viaCall.Runs, called);
  };
  round();
  const uint32_t handles = test::HandleCount();
  const uint64_t memory = test::PrivateBytes();
  round();
  EXPECT_LE(test::HandleCount(), handles + 8);
  EXPECT_LE(test::PrivateBytes(), memory + 4'000'000);
}

}  // namespace
}  // namespace velox
