#include "velox/foundation/velSyncUtils.hpp"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <functional>
#include <thread>
#include <vector>

#include "tests/support/support.hpp"
#include "velox/runtime/velCallbackGuard.hpp"
#include "velox/runtime/velException.hpp"

namespace velox {
namespace {

struct TBody {
  std::function<void(void*)> Work;
  void Execute(void* Parameter) { Work(Parameter); }
  THandle Start(const std::string& Name, void* Parameter = nullptr) {
    THandle thread(TThreadFactory::GetInstance()->CreateThread(
        Name, TThreadExecutionRoutine::Bind<&TBody::Execute>(this), Parameter, Id));
    EXPECT_TRUE(thread);
    return thread;
  }
  DWORD Id = 0;
};

DWORD ExitCode(const THandle& Thread) {
  DWORD code = 0;
  ::GetExitCodeThread(Thread.Get(), &code);
  return code;
}

TEST(ThreadFactory, AThreadHasItsNameAndParameterWhileItRuns) {
  THandle go(::CreateEventA(nullptr, TRUE, FALSE, nullptr));
  int parameter = 0;
  std::string seen;
  TBody body{[&](void* Parameter) {
    *static_cast<int*>(Parameter) = 7;
    seen = TThreadFactory::GetInstance()->GetThreadName(::GetCurrentThreadId());
    WaitForSingleObjectAlertable(go.Get());
  }};
  const THandle thread = body.Start("Worker", &parameter);
  EXPECT_TRUE(test::WaitUntil(
      [&] { return TThreadFactory::GetInstance()->GetThreadName(body.Id) == "Worker"; }));
  ::SetEvent(go.Get());
  WaitForSingleObjectAlertable(thread.Get());
  EXPECT_EQ(parameter, 7);
  EXPECT_EQ(seen, "Worker");
  EXPECT_EQ(ExitCode(thread), 0u);
  EXPECT_EQ(TThreadFactory::GetInstance()->GetThreadName(body.Id), "");
}

TEST(ThreadFactory, TheOldestNameCountsAndIsRemovedFirst) {
  TThreadFactory& factory = *TThreadFactory::GetInstance();
  constexpr DWORD NoThread = 0xFFFF0001;
  EXPECT_EQ(factory.GetThreadName(NoThread), "");
  factory.MapName(NoThread, "first");
  factory.MapName(NoThread, "second");
  EXPECT_EQ(factory.GetThreadName(NoThread), "first");
  factory.UnmapName(NoThread);
  EXPECT_EQ(factory.GetThreadName(NoThread), "second");
  factory.UnmapName(NoThread);
  factory.UnmapName(NoThread);
  EXPECT_EQ(factory.GetThreadName(NoThread), "");
}

TEST(ThreadFactory, ManyThreadsStartAtOnceAndLeaveNothing) {
  std::atomic<int> ran{0};
  TBody body{[&](void*) { ++ran; }};
  body.Start("warm up");
  const uint32_t handles = test::HandleCount();
  for (int round = 0; round < 8; ++round) {
    std::vector<THandle> threads;
    for (int i = 0; i < 32; ++i) threads.push_back(body.Start("crowd"));
    for (const THandle& thread : threads) WaitForSingleObjectAlertable(thread.Get());
  }
  EXPECT_TRUE(test::WaitUntil([&] { return ran == 8 * 32 + 1; }));
  EXPECT_LE(test::HandleCount(), handles + 4);
}

TEST(SetThreadName, DoesNothingWithoutADebugger) { SetThreadName("nobody listens"); }

void CALLBACK Count(ULONG_PTR Counter) { ++*reinterpret_cast<std::atomic<int>*>(Counter); }
void CALLBACK Raise(ULONG_PTR) {
  GuardCallback([] { throw Exception("from an APC"); });
}

void CALLBACK WaitAndCount(ULONG_PTR Counter) {
  GuardCallback([Counter] {
    const THandle signalled(::CreateEventA(nullptr, TRUE, TRUE, nullptr));
    WaitForSingleObjectAlertable(signalled.Get());
    Count(Counter);
  });
}

TEST(AlertableWait, RunsApcsAndGoesOnWaiting) {
  THandle go(::CreateEventA(nullptr, TRUE, FALSE, nullptr));
  THandle never(::CreateEventA(nullptr, TRUE, FALSE, nullptr));
  const std::array handles{never.Get(), go.Get()};
  const struct {
    DWORD Result;
    std::function<DWORD()> Wait;
  } cases[] = {
      {WAIT_OBJECT_0, [&] { return WaitForSingleObjectAlertable(go.Get(), "single"); }},
      {WAIT_OBJECT_0 + 1, [&] { return WaitForMultipleObjectsAlertable(handles, "several"); }},
      {WAIT_OBJECT_0 + 1, [&] { return WaitAlertableQuietly(handles); }},
      {WAIT_IO_COMPLETION, [&] {
         EXPECT_THROW(SleepAlertable(), Exception);  // what ends a sleep
         return DWORD{WAIT_IO_COMPLETION};
       }}};
  for (const auto& c : cases) {
    std::atomic<int> counter{0};
    std::atomic<bool> begun{false};
    std::atomic<bool> done{false};
    ::ResetEvent(go.Get());
    DWORD result = 0;
    TBody body{[&](void*) {
      begun = true;
      result = c.Wait();
      done = true;
    }};
    const THandle thread = body.Start("waiter");
    EXPECT_TRUE(test::WaitUntil([&] { return begun.load(); }));
    for (int n = 1; n <= 3; ++n) {
      ::QueueUserAPC(&Count, thread.Get(), reinterpret_cast<ULONG_PTR>(&counter));
      EXPECT_TRUE(test::WaitUntil([&] { return counter == n; }));
      EXPECT_FALSE(done);
    }
    ::SetEvent(go.Get());
    if (c.Result == WAIT_IO_COMPLETION) ::QueueUserAPC(&Raise, thread.Get(), 0);
    WaitForSingleObjectAlertable(thread.Get());
    EXPECT_EQ(result, c.Result);
  }
}

TEST(AlertableWait, RaisesWhatAnApcLetEscapeNoneLost) {
  THandle own(GetRealCurrentThreadHandle());
  THandle signalled(::CreateEventA(nullptr, TRUE, TRUE, nullptr));
  ::QueueUserAPC(&Raise, own.Get(), 0);
  EXPECT_THROW(SleepAlertable(), Exception);

  for (int i = 0; i < 3; ++i) ::QueueUserAPC(&Raise, own.Get(), 0);
  EXPECT_THROW(SleepAlertable(),
               Exception);  // the first of three; a signalled handle alone would run no APC
  for (int i = 1; i < 3; ++i)
    EXPECT_THROW(WaitForSingleObjectAlertable(signalled.Get()), Exception) << i;
  EXPECT_EQ(WaitForSingleObjectAlertable(signalled.Get()), WAIT_OBJECT_0);

  THandle timer(::CreateWaitableTimerA(nullptr, TRUE, nullptr));
  LARGE_INTEGER soon;
  soon.QuadPart = -100'000;  // 10 ms
  ::SetWaitableTimer(timer.Get(), &soon, 0, nullptr, nullptr, FALSE);
  ::QueueUserAPC(&Raise, own.Get(), 0);
  EXPECT_EQ(WaitAlertableQuietly(std::array{timer.Get()}), WAIT_OBJECT_0);
  EXPECT_THROW(WaitAlertableOnce({}, 0), Exception);
}

TEST(AlertableWait, AWaitInsideAnApcIsNotRaisedWhatAnotherApcLetEscape) {
  THandle own(GetRealCurrentThreadHandle());
  std::atomic<int> counter{0};
  ::QueueUserAPC(&Raise, own.Get(), 0);
  ::QueueUserAPC(&WaitAndCount, own.Get(), reinterpret_cast<ULONG_PTR>(&counter));
  EXPECT_THROW(SleepAlertable(), Exception);
  EXPECT_EQ(counter, 1);
  EXPECT_FALSE(HasKeptException());

  // What is kept inside a callback, and not raised there, is left for the outer waits, in order.
  GuardCallback([] { throw Exception("before"); });
  GuardCallback([] {
    GuardCallback([] { throw EConvertError("nested"); });
    GuardCallback([] { throw EConvertError("nested"); });
    EXPECT_THROW(RaiseKeptException(), EConvertError);
    throw EAssertionFailed("own");
  });
  EXPECT_EQ(test::MessageOf(&RaiseKeptException), "before");
  EXPECT_THROW(RaiseKeptException(), EConvertError);
  EXPECT_THROW(RaiseKeptException(), EAssertionFailed);
  EXPECT_FALSE(HasKeptException());
}

TEST(AlertableWait, AnInvalidHandleIsAnError) {
  const HANDLE closed = reinterpret_cast<HANDLE>(static_cast<uintptr_t>(0x7FF0));
  EXPECT_EQ(test::ErrorCodeOf([&] { WaitForSingleObjectAlertable(closed); }), ERROR_INVALID_HANDLE);
  EXPECT_THROW(WaitForMultipleObjectsAlertable(std::array{closed, closed}), EOSError);
  EXPECT_THROW(WaitForMultipleObjectsAlertable({}), EOSError);
}

TEST(AlertableWait, AnAbandonedMutexIsTold) {
  THandle mutex(::CreateMutexA(nullptr, FALSE, nullptr));
  TBody body{[&](void*) { ::WaitForSingleObject(mutex.Get(), INFINITE); }};
  WaitForSingleObjectAlertable(body.Start("owner").Get());
  EXPECT_EQ(WaitForSingleObjectAlertable(mutex.Get()), static_cast<DWORD>(WAIT_ABANDONED_0));
  ::ReleaseMutex(mutex.Get());
}

TEST(Interlocked64, ValuesAndResults) {
  int64_t t = 10;
  EXPECT_EQ(InterlockedIncrement64(t, 5), 15);
  EXPECT_EQ(InterlockedExchangeAdd64(t, 5), 15);
  EXPECT_EQ(InterlockedDecrement64(t, 13), 7);
  EXPECT_EQ(InterlockedCompareExchange64(t, 7, 9), 7);
  EXPECT_EQ(InterlockedCompareExchange64(t, 7, 1), 9);
  EXPECT_EQ(t, 9);
  t = 0x1'0000'0000;
  EXPECT_EQ(InterlockedAnd64(t, 0x3'0000'0001), 0x3'0000'0001);  // a subset: replaced
  EXPECT_EQ(InterlockedAnd64(t, 0x3'0000'0001), 0x3'0000'0001);  // equal: nothing changes
  EXPECT_EQ(InterlockedOr64(t, 0x1'0000'0001), 0x1'0000'0001);   // a superset: replaced
  EXPECT_EQ(t, 0x1'0000'0001);
}

TEST(Interlocked64, AndWaitsForAnotherThread) {
  int64_t target = 8;
  std::atomic<bool> done{false};
  std::thread spinner([&] {
    InterlockedAnd64(target, 3);  // 8 is no subset of 3
    done = true;
  });
  EXPECT_FALSE(done);
  InterlockedCompareExchange64(target, 8, 1);
  spinner.join();
  EXPECT_EQ(target, 3);
}

TEST(Interlocked64, NoUpdateIsLostBetweenThreads) {
  constexpr int64_t Start = 0xFFFF'FF00;
  int64_t sum = Start;  // the carry into the upper half falls into the run
  test::RunThreads(8, [&](int) {
    for (int n = 0; n < 20'000; ++n) InterlockedIncrement64(sum, n % 2 ? 3 : -1);
  });
  EXPECT_EQ(sum, Start + 8 * 20'000);
}

TEST(PerformanceFrequency, IsTheCountersOwn) {
  LARGE_INTEGER frequency;
  ::QueryPerformanceFrequency(&frequency);
  EXPECT_EQ(GetPerformanceFrequency(), frequency.QuadPart);
}

}  // namespace
}  // namespace velox
