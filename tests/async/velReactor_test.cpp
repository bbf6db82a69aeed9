#include "velox/async/velReactor.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <random>
#include <set>
#include <thread>
#include <vector>

#include "tests/async/apc_thread.hpp"
#include "tests/support/support.hpp"
#include "velox/foundation/velSyncUtils.hpp"
#include "velox/runtime/velException.hpp"

namespace velox {
namespace {

using enum TReactionState;
using test::MessageOf;

THandle AutoEvent() { return THandle(::CreateEventA(nullptr, FALSE, FALSE, nullptr)); }

struct TSink {
  std::atomic<int> Runs{0};
  std::atomic<DWORD> Thread{0};
  std::function<void(TObject*)> During;
  void Run(TObject* Sender) {
    Thread = ::GetCurrentThreadId();
    ++Runs;
    if (During) During(Sender);
  }
  TReactionEvent Event() { return TReactionEvent::Bind<&TSink::Run>(this); }
};

// An event, or another handle, with a reaction to it.
struct TWatched {
  explicit TWatched(TReactor& Reactor, HANDLE Target = nullptr, THandle Handle = AutoEvent())
      : Event(std::move(Handle)),
        Reaction(std::make_unique<TEventReaction>(&Reactor, Event.Get(), Target, Sink.Event())) {}
  void Activate() {
    Reaction->SetActive(true);
    EXPECT_TRUE(test::WaitUntil([this] { return Reaction->GetStatus() == rsActivated; }));
  }
  // Returns when the run has begun.
  void SignalAndWait() {
    const int before = Sink.Runs;
    ::SetEvent(Event.Get());
    EXPECT_TRUE(test::WaitUntil([&] { return Sink.Runs > before; }));
  }
  THandle Event;
  TSink Sink;
  std::unique_ptr<TEventReaction> Reaction;
};

TEST(Reactor, RunsTheReactionOfASignalledHandle) {
  TReactor reactor;
  TWatched watched(reactor);
  EXPECT_FALSE(watched.Reaction->GetActive());
  watched.Activate();
  EXPECT_TRUE(watched.Reaction->GetActive());
  for (int i = 0; i < 3; ++i) watched.SignalAndWait();
  EXPECT_EQ(watched.Sink.Runs, 3);
  EXPECT_EQ(TThreadFactory::GetInstance()->GetThreadName(watched.Sink.Thread), "Reactor thread");
  watched.Reaction->SetActive(false);
  EXPECT_TRUE(test::WaitUntil([&] { return watched.Reaction->GetStatus() == rsNone; }));
  ::SetEvent(watched.Event.Get());
  watched.Activate();  // the signal waited in the event
  EXPECT_TRUE(test::WaitUntil([&] { return watched.Sink.Runs == 4; }));
}

TEST(Reactor, RefusesWhatIsNotSpecified) {
  TReactor reactor;
  TSink sink;
  const THandle event = AutoEvent();
  EXPECT_EQ(MessageOf([&] { TEventReaction(nullptr, event.Get(), nullptr, sink.Event()); }),
            "Reactor must be specified");
  EXPECT_EQ(MessageOf([&] { TEventReaction(&reactor, nullptr, nullptr, sink.Event()); }),
            "Handle must be specified");
  EXPECT_EQ(MessageOf([&] { TEventReaction(&reactor, event.Get(), nullptr, nullptr); }),
            "Event must be specified");
}

TEST(Reactor, The65thReactionStartsASecondThread) {
  TReactor reactor;
  std::vector<std::unique_ptr<TWatched>> all;
  for (int i = 0; i < 65; ++i) {
    all.push_back(std::make_unique<TWatched>(reactor));
    all.back()->Activate();
  }
  std::set<DWORD> first;
  for (int i = 0; i < 64; ++i) {
    all[static_cast<size_t>(i)]->SignalAndWait();
    first.insert(all[static_cast<size_t>(i)]->Sink.Thread);
  }
  all[64]->SignalAndWait();
  EXPECT_EQ(first.size(), 1u);
  EXPECT_FALSE(first.contains(all[64]->Sink.Thread));
  all.erase(all.begin() + 10);  // its place is free again
  TWatched next(reactor);
  next.Activate();
  next.SignalAndWait();
  EXPECT_TRUE(first.contains(next.Sink.Thread));
}

TEST(Reactor, SignalledTogetherTheyRunInOrderOfRegistration) {
  TReactor reactor;
  std::vector<int> order;
  TWatched gate(reactor);
  TWatched first(reactor);
  TWatched second(reactor);
  for (TWatched* watched : {&gate, &first, &second}) watched->Activate();
  gate.Sink.During = [&](TObject*) {  // on the thread, so both are signalled before its next wait
    ::SetEvent(second.Event.Get());
    ::SetEvent(first.Event.Get());
  };
  first.Sink.During = [&](TObject*) { order.push_back(1); };
  second.Sink.During = [&](TObject*) { order.push_back(2); };
  gate.SignalAndWait();
  EXPECT_TRUE(test::WaitUntil([&] { return second.Sink.Runs == 1; }));
  EXPECT_EQ(order, (std::vector<int>{1, 2}));
}

TEST(Reactor, DeactivatedBeforeItWasAddedItNeverEntersTheSet) {
  TReactor reactor;
  TWatched blocker(reactor);
  TWatched late(reactor);
  std::atomic<bool> go{false};
  blocker.Sink.During = [&](TObject*) {
    while (!go) ::SleepEx(1, FALSE);  // not alertable: requests wait
  };
  blocker.Activate();
  blocker.SignalAndWait();
  late.Reaction->SetActive(true);
  EXPECT_EQ(late.Reaction->GetStatus(), rsActivating);
  late.Reaction->SetActive(false);
  EXPECT_EQ(late.Reaction->GetStatus(), rsNone);
  ::SetEvent(late.Event.Get());
  go = true;
  late.Activate();  // while the dropped request is still on its way
  EXPECT_TRUE(test::WaitUntil([&] { return late.Sink.Runs == 1; }));
}

TEST(Reactor, AHandleThatStaysSignalledKeepsNoRequestWaiting) {
  TReactor reactor;
  TWatched other(reactor);
  TWatched always(reactor, nullptr, THandle(::CreateEventA(nullptr, TRUE, TRUE, nullptr)));
  always.Activate();
  EXPECT_TRUE(test::WaitUntil([&] { return always.Sink.Runs > 10; }));
  other.Activate();
  always.Reaction->SetActive(false);
  EXPECT_TRUE(test::WaitUntil([&] { return always.Reaction->GetStatus() == rsNone; }));
  other.SignalAndWait();
  always.Activate();
  always.Reaction.reset();
  const int runs = always.Sink.Runs;
  other.SignalAndWait();
  EXPECT_EQ(always.Sink.Runs, runs);
}

TEST(Reactor, AReactionMayDestroyOrDeactivateItselfAndOthersInItsRun) {
  TReactor reactor;
  TWatched own(reactor);
  auto other = std::make_unique<TWatched>(reactor);
  std::atomic<bool> done{false};
  own.Activate();
  other->Activate();
  own.Sink.During = [&](TObject*) {
    other.reset();
    own.Reaction.reset();
    done = true;
  };
  ::SetEvent(own.Event.Get());
  EXPECT_TRUE(test::WaitUntil([&] { return done.load(); }));

  TWatched off(reactor);
  off.Sink.During = [&](TObject*) { off.Reaction->SetActive(false); };
  off.Activate();
  off.SignalAndWait();
  EXPECT_TRUE(test::WaitUntil([&] { return off.Reaction->GetStatus() == rsNone; }));
  off.Sink.During = [&](TObject*) {
    off.Reaction->SetActive(false);
    off.Reaction->SetActive(true);
    off.Reaction.reset();
    done = false;
  };
  off.Activate();
  ::SetEvent(off.Event.Get());
  EXPECT_TRUE(test::WaitUntil([&] { return !done; }));
}

TEST(Reactor, DestructionWaitsForTheRunEvenWhenTheRunWaitsAlertably) {
  TReactor reactor;
  for (const BOOL alertable : {FALSE, TRUE}) {
    TWatched watched(reactor);
    std::atomic<bool> left{false};
    watched.Sink.During = [&](TObject*) {
      const ULONGLONG start = ::GetTickCount64();
      while (::GetTickCount64() - start < 60) ::SleepEx(5, alertable);
      left = true;
    };
    watched.Activate();
    watched.SignalAndWait();
    watched.Reaction.reset();
    EXPECT_TRUE(left);
  }
}

TEST(Reactor, AnAbandonedMutexLeavesTheSetWithoutARun) {
  TReactor reactor;
  TWatched mutex(reactor, nullptr, THandle(::CreateMutexA(nullptr, FALSE, nullptr)));
  TWatched neighbour(reactor);
  neighbour.Activate();
  std::atomic<bool> owned{false};
  std::atomic<bool> end{false};
  std::thread owner([&] {
    ::WaitForSingleObject(mutex.Event.Get(), INFINITE);
    owned = true;
    test::WaitUntil([&] { return end.load(); });
  });
  EXPECT_TRUE(test::WaitUntil([&] { return owned.load(); }));
  mutex.Activate();
  end = true;
  owner.join();
  neighbour.SignalAndWait();
  neighbour.SignalAndWait();
  EXPECT_EQ(mutex.Sink.Runs, 0);
  EXPECT_EQ(::WaitForSingleObject(mutex.Event.Get(), 0), WAIT_OBJECT_0);  // nobody owns it any more
  EXPECT_EQ(mutex.Reaction->GetStatus(), rsActivated);
  mutex.Reaction->SetActive(false);
  EXPECT_EQ(mutex.Reaction->GetStatus(), rsNone);
}

TEST(Reactor, AHandleClosedUnderItEndsTheThreadWhichLetsGoOfAll) {
  const test::TLogSince log;
  TReactor reactor;
  TWatched healthy(reactor);
  auto broken = std::make_unique<TWatched>(reactor);
  healthy.Activate();
  broken->Activate();
  broken->Event.Reset();
  ::SetEvent(healthy.Event.Get());  // makes the thread wait anew
  // The signal may be served before the wait fails; afterwards nobody watches.
  EXPECT_TRUE(test::WaitUntil([&] { return log.Holds("[TReactorThread.Run] Wait error - "); }));
  broken.reset();
  healthy.Reaction->SetActive(false);
  EXPECT_TRUE(test::WaitUntil([&] { return healthy.Reaction->GetStatus() == rsNone; }));
  healthy.Activate();  // on a new thread
  healthy.SignalAndWait();
}

TEST(Reactor, AnExceptionIsLoggedAndTheThreadGoesOn) {
  const test::TLogSince log;
  TReactor reactor;
  TWatched watched(reactor);
  watched.Sink.During = [](TObject*) { throw Exception("reaction failed"); };
  watched.Activate();
  watched.SignalAndWait();
  watched.SignalAndWait();
  EXPECT_TRUE(log.Holds("Exception in [TReactorThread.Run]: reaction failed. Exception at "));
}

TEST(Reactor, WithATargetThreadTheMethodRunsThereUntilTheReactionIsGone) {
  TReactor reactor;
  test::TApcThread target;
  auto watched = std::make_unique<TWatched>(reactor, target.Handle());
  watched->Activate();
  watched->SignalAndWait();
  EXPECT_EQ(watched->Sink.Thread, target.Id());
  target.Hold();
  ::SetEvent(watched->Event.Get());
  EXPECT_TRUE(test::WaitUntil(
      [&] { return ::WaitForSingleObject(watched->Event.Get(), 0) == WAIT_TIMEOUT; }));
  const int runs = watched->Sink.Runs;
  watched->Reaction.reset();  // its APC is still queued
  std::atomic<bool> behind{false};
  auto mark = [&](TAsynchronousCall&, bool&) { behind = true; };
  TAsynchronousCall marker(target.Handle(), target.Id(), TAsynchronousCallHandler::To(mark));
  marker.Queue(false);
  target.Release();
  EXPECT_TRUE(test::WaitUntil([&] { return behind.load(); }));
  EXPECT_EQ(watched->Sink.Runs, runs);
}

TEST(Reactor, AMethodOnItsThreadMayDestroyTheReactionThoughMoreCallsAreQueued) {
  TReactor reactor;
  const THandle own(GetRealCurrentThreadHandle());
  TWatched watched(reactor, own.Get());
  watched.Activate();
  std::atomic<int> destroyed{0};
  watched.Sink.During = [&](TObject*) {
    watched.Reaction.reset();  // waits alertably for its removal
    ++destroyed;
  };
  for (int i = 0; i < 3; ++i) {
    ::SetEvent(watched.Event.Get());
    while (::WaitForSingleObject(watched.Event.Get(), 0) == WAIT_OBJECT_0) {
      ::SetEvent(watched.Event.Get());
      ::Sleep(1);  // not alertable
    }
  }
  EXPECT_TRUE(test::WaitUntil([&] { return destroyed > 0; }));
  EXPECT_FALSE(test::WaitUntil([&] { return destroyed > 1; }, 20));
}

TEST(Reactor, RefusesWhileItEnds) {
  auto* const reactor = new TReactor;
  TWatched first(*reactor);
  std::string refused;
  first.Sink.During = [&](TObject*) {  // keeps the reactor's destructor waiting until it is refused
    do {
      refused = MessageOf([&] {
        TWatched late(*reactor);
        late.Reaction->SetActive(true);
        ::SleepEx(1, FALSE);
      });
    } while (refused == "nothing raised");
  };
  first.Activate();
  first.SignalAndWait();
  delete reactor;
  EXPECT_EQ(refused, "Reactor terminated");
}

TEST(Reactor, ItsEndLetsGoOfActiveReactions) {
  auto reactor = std::make_unique<TReactor>();
  TWatched watched(*reactor), takenBack(*reactor);
  takenBack.Reaction->SetActive(true);
  takenBack.Reaction->SetActive(false);
  watched.Activate();
  reactor.reset();
  watched.Reaction->SetActive(false);
  EXPECT_EQ(watched.Reaction->GetStatus(), rsNone);
}

// Eight threads make, signal, deactivate and destroy 20,000 reactions at random, some from inside
// their own runs. A reaction left in its set runs for its signal; one that is gone does not run;
// handles and memory come back.
TEST(ReactorStress, ReactionsComeAndGoFromManyThreads) {
  constexpr int Threads = 8;
  const auto round = [](int Operations) {
    TReactor reactor;
    test::RunThreads(Threads, [&reactor, Operations](int t) {
      std::minstd_rand random(static_cast<unsigned>(t + 1));
      for (int n = 0; n < Operations; ++n) {
        TWatched watched(reactor);
        watched.Reaction->SetActive(true);
        switch (random() % 4) {
          case 0:
            watched.SignalAndWait();
            break;
          case 1:
            ::SetEvent(watched.Event.Get());
            watched.Reaction->SetActive(false);
            if (random() % 2) watched.Reaction->SetActive(true);
            break;
          case 2: {
            std::atomic<bool> gone{false};
            watched.Sink.During = [&](TObject*) {
              watched.Reaction.reset();
              gone = true;
            };
            ::SetEvent(watched.Event.Get());
            EXPECT_TRUE(test::WaitUntil([&] { return gone.load(); }));
            break;
          }
          default:
            ::SetEvent(watched.Event.Get());
            break;  // destroyed active, its signal on the way
        }
      }
    });
  };
  round(50);
  const uint32_t handles = test::HandleCount();
  const uint64_t memory = test::PrivateBytes();
  round(20'000 / Threads);
  EXPECT_LE(test::HandleCount(), handles + 8);
  EXPECT_LE(test::PrivateBytes(), memory + 8'000'000);
}

}  // namespace
}  // namespace velox
