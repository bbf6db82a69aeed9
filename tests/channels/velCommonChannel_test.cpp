// Channels, transfer operations and their queue, over a medium in memory that the cases control
// byte by byte.
#include "velox/channels/velCommonChannel.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <functional>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/support/support.hpp"
#include "velox/runtime/velException.hpp"
#include "velox/runtime/velFormat.hpp"

namespace velox {
namespace {

using enum TOperationKind;
using enum TOperationState;

/// Moves no data; it counts. Synchronous: takes up to Chunk bytes of its Room at once. Otherwise
/// each chunk stays pending until End() says how much of it was moved.
class TTestQueue : public TOperationQueue {
 public:
  using TOperationQueue::TOperationQueue;
  ~TTestQueue() override { Close(); }

  /// The pending chunk ends with this many bytes moved (-1: all).
  void End(int32_t Moved = -1) {
    Lock();
    Moved_ = Moved < 0 ? GetTransferSize() : Moved;
    Unlock();
    DoChannelReady(nullptr);
  }
  void GiveRoom(int32_t Bytes) {
    Lock();
    Room += Bytes;
    Unlock();
    DoChannelReady(nullptr);
  }
  bool Pending() {
    Lock();
    const bool pending = GetTransferPending() && GetTransferSize() > 0;
    Unlock();
    return pending;
  }
  std::vector<int32_t> Chunks() {
    Lock();
    std::vector<int32_t> result = Chunks_;
    Unlock();
    return result;
  }

  bool Synchronous = true;
  int32_t Room = 1 << 30;
  int32_t Chunk = 1 << 20;
  int32_t Excess = 0;  // moved on top of each request
  std::atomic<int> Cancelled = 0;
  std::function<void()> OnTransfer;

 protected:
  int32_t GetActualCompletedSize() override {
    return Synchronous ? TOperationQueue::GetActualCompletedSize() : std::exchange(Moved_, 0);
  }
  int32_t GetAvailableSize(const TTransferOperation&) override { return std::min(Room, Chunk); }
  bool TransferData(TTransferOperation&, void* Data, int32_t& Size) override {
    static_cast<volatile char*>(Data)[Size - 1] = 1;  // within the buffer
    if (OnTransfer) OnTransfer();
    if (Chunks_.size() < 1000) Chunks_.push_back(Size);
    if (!Synchronous) return false;
    Room -= Size;
    Size += Excess;
    return true;
  }
  void CancelTransfer() override {
    TOperationQueue::CancelTransfer();
    Moved_ = 0;
    ++Cancelled;
  }

 private:
  int32_t Moved_ = 0;
  std::vector<int32_t> Chunks_;
};

/// Active from the start.
class TTestChannel final : public TChannel {
 public:
  explicit TTestChannel(bool Synchronous = true) : Synchronous_(Synchronous) { SetActive(true); }
  ~TTestChannel() override { Close(); }

  TTestQueue& Queue(TOperationKind Kind = okRead) {
    return static_cast<TTestQueue&>(*GetOperationQueues(Kind));
  }
  void SetAddress() { CheckActive(); }
  bool Refuse = false;

 protected:
  void InitializeQueues() override {
    if (Refuse) throw Exception("no medium");
    for (const TOperationKind kind : {okRead, okWrite}) {
      auto* queue = new TTestQueue(*this);
      queue->Synchronous = Synchronous_;
      SetOperationQueues(kind, queue);
    }
  }
  void FinalizeQueues() override {
    for (const TOperationKind kind : {okRead, okWrite}) DestroyQueue(kind);
  }

 private:
  const bool Synchronous_;
};

/// While one lives, the memory of destroyed operations is filled and kept; its end shows what was
/// written there.
class TQuarantine {
 public:
  TQuarantine() { SetKept(&Own_); }
  ~TQuarantine() {
    SetKept(nullptr);
    for (const auto& [memory, size] : Own_) {
      const std::string bytes(static_cast<const char*>(memory), size);
      EXPECT_EQ(bytes.find_first_not_of(Fill), std::string::npos);
      ::operator delete(memory);
    }
  }
  TQuarantine(const TQuarantine&) = delete;
  TQuarantine& operator=(const TQuarantine&) = delete;

  static bool Take(void* Memory, size_t Size) {
    const std::scoped_lock guard(Lock_);
    if (Kept_ == nullptr) return false;
    std::memset(Memory, Fill, Size);
    Kept_->emplace_back(Memory, Size);
    return true;
  }

 private:
  using TBlocks = std::vector<std::pair<void*, size_t>>;
  static void SetKept(TBlocks* Kept) {
    const std::scoped_lock guard(Lock_);
    Kept_ = Kept;
  }
  static constexpr char Fill = '\x5A';
  static inline std::mutex Lock_;
  static inline TBlocks* Kept_ = nullptr;
  TBlocks Own_;
};

enum TTestEvent { teStart, teTransferred, teComplete };

/// An operation without a time limit that writes its events into a common log, and runs what a case
/// adds to them.
class TTestOperation : public TTransferOperation {
 public:
  TTestOperation(TChannel& Channel, int32_t Size, std::string Name = {},
                 std::vector<std::string>* Log = nullptr)
      : Name_(std::move(Name)), Log_(Log) {
    ++Living;
    SetChannel(&Channel);
    SetSelfAllocated(true);
    SetSize(Size);
    SetAutoTimeout(false);
    SetOnStart(TOperationNotificationEvent::Bind<&TTestOperation::Started>(this));
    SetOnTransferred(TOperationTransferEvent::Bind<&TTestOperation::Moved>(this));
    SetOnComplete(TOperationNotificationEvent::Bind<&TTestOperation::Completed>(this));
  }
  ~TTestOperation() override {
    Close();
    --Living;
  }

  bool Wait() {
    return test::WaitUntil([this] { return Completions > 0; });
  }

  static void operator delete(void* Memory, size_t Size) {
    if (!TQuarantine::Take(Memory, Size)) ::operator delete(Memory);
  }

  static inline std::atomic<int> Living = 0, AllCompletions = 0;
  std::function<void()> Do[3];  // in each event
  bool ResetsCount = false;
  std::atomic<int> Completions = 0;

 private:
  void Note(const std::string& Event) {
    static std::mutex guard;
    const std::scoped_lock lock(guard);
    if (Log_ != nullptr) Log_->push_back(Event + " " + Name_);
  }
  void Started(TObject*) {
    Note("start");
    Act(teStart);
  }
  void Moved(TObject*, bool& Reset) {
    Note("moved " + std::to_string(GetTransferred()));
    Reset = ResetsCount;
    Act(teTransferred);
  }
  void Completed(TObject*) {
    EXPECT_EQ(GetState(), osComplete);
    Note(GetSucceeded() ? "done" : "ended");
    ++Completions;
    ++AllCompletions;
    Act(teComplete);
  }
  void Act(TTestEvent Event) {
    if (const auto body = Do[Event]) body();  // a copy, for it may destroy the operation
  }

  const std::string Name_;
  std::vector<std::string>* const Log_;
};

using TLog = std::vector<std::string>;

TEST(TransferOperation, ActivationTellsWhatIsMissingFirst) {
  TTestChannel channel;
  channel.SetActive(false);
  TTransferOperation operation;
  char data[8];
  const char* const sizeAndBuffer =
      "Specify size and buffer for operation. Cannot perform operation.";
  const auto activate = [&] { operation.SetActive(true); };
  operation.SetBuffer(data);
  EXPECT_EQ(test::MessageOf(activate), sizeAndBuffer);
  operation.SetSize(-1);
  EXPECT_EQ(test::MessageOf(activate), sizeAndBuffer);
  operation.SetSize(8);
  operation.SetBuffer(nullptr);
  EXPECT_EQ(test::MessageOf(activate), sizeAndBuffer);
  operation.SetBuffer(data);
  EXPECT_EQ(test::MessageOf(activate), "Specify channel for operation. Cannot perform operation.");
  operation.SetChannel(&channel);
  EXPECT_EQ(test::MessageOf(activate), "Channel is not active. Cannot perform operation.");
  EXPECT_FALSE(operation.GetActive());
  EXPECT_EQ(operation.GetState(), osNone);
}

TEST(TransferOperation, IsFrozenWhileActive) {
  TTestChannel channel(false);
  TTestOperation operation(channel, 8);
  operation.SetTimeout(7);
  operation.SetTimeout(-1);
  EXPECT_EQ(operation.GetTimeout(), 7);
  operation.SetTimeout(0);
  operation.SetActive(true);
  char other[8];
  const std::function<void()> setters[] = {[&] { operation.SetKind(okWrite); },
                                           [&] { operation.SetChannel(nullptr); },
                                           [&] { operation.SetSize(4); },
                                           [&] { operation.SetSelfAllocated(false); },
                                           [&] { operation.SetBuffer(other); },
                                           [&] { operation.SetTimeout(1); },
                                           [&] { operation.SetAutoTimeout(true); },
                                           [&] { operation.SetFreeOnComplete(true); },
                                           [&] { operation.SetOnStart(nullptr); },
                                           [&] { operation.SetOnTransferred(nullptr); },
                                           [&] { operation.SetOnComplete(nullptr); }};
  for (const auto& set : setters)
    EXPECT_EQ(test::MessageOf(set), "Cannot change property of active operation");
  EXPECT_NO_THROW(operation.SetBuffer(operation.GetBuffer()));
  operation.SetActive(false);
  EXPECT_EQ(operation.Completions, 1);
}

TEST(TransferOperation, BufferAndSizeFollowTheOwnership) {
  TTransferOperation operation;
  operation.SetSelfAllocated(true);
  operation.SetSize(4);
  ASSERT_NE(operation.GetBuffer(), nullptr);
  std::copy_n("abcd", 4, static_cast<char*>(operation.GetBuffer()));
  operation.SetSize(100);
  EXPECT_EQ(std::string(static_cast<char*>(operation.GetBuffer()), 4), "abcd");
  operation.SetSelfAllocated(false);
  EXPECT_EQ(operation.GetSize(), 0);
  EXPECT_EQ(operation.GetBuffer(), nullptr);

  char data[16];
  operation.SetBuffer(data);
  operation.SetSize(16);
  operation.SetBuffer(data + 1);  // borrowed before and after: the size stays
  EXPECT_EQ(operation.GetSize(), 16);
  operation.SetSelfAllocated(true);
  operation.SetSize(8);
  operation.SetBuffer(data);
  EXPECT_FALSE(operation.GetSelfAllocated());
  EXPECT_EQ(operation.GetSize(), 0);
}

TEST(Channel, TimeoutIsFixedArithmetic) {
  TTestChannel channel;
  const struct {
    int32_t Size, Bandwidth, Latence, Expected;
  } cases[] = {{0, 0, 50, 0},
               {1000, 9600, 50, 184},
               {1, 1048576, 100, 120},
               // 3,000,000,000 wraps to -1,294,967,296; divided -1234, by 12 -14808, by 10 -1480
               {3000000, 1048576, 0, -1480}};
  for (const auto& c : cases) {
    channel.SetBandwidth(c.Bandwidth);
    channel.SetLatence(c.Latence);
    EXPECT_EQ(channel.GetTimeout(c.Size), c.Expected) << c.Size;
  }
  channel.SetBandwidth(0);
  EXPECT_THROW(channel.GetTimeout(1), EDivByZero);
}

TEST(Channel, SwitchesWithItsEvents) {
  TTestChannel channel;
  channel.SetActive(false);
  TLog log;
  auto activated = [&](TObject* Sender) {
    EXPECT_EQ(Sender, &channel);
    log.push_back(channel.GetActive() ? "activated" : "wrong");
  };
  auto deactivated = [&](TObject*) {
    log.push_back(channel.GetActive() ? "deactivating" : "wrong");
  };
  channel.OnActivate = TChannelNotificationEvent::To(activated);
  channel.OnDeactivate = TChannelNotificationEvent::To(deactivated);
  channel.Refuse = true;
  EXPECT_EQ(test::MessageOf([&] { channel.SetActive(true); }), "no medium");
  EXPECT_FALSE(channel.GetActive());
  channel.Refuse = false;
  channel.SetActive(true);
  channel.SetActive(true);
  EXPECT_EQ(test::MessageOf([&] { channel.SetAddress(); }), "Cannot change active channel");
  channel.SetActive(false);
  channel.SetActive(false);
  EXPECT_EQ(log, (TLog{"activated", "deactivating"}));

  const std::unique_ptr<TTransferOperation> made = channel.CreateOperation();
  EXPECT_EQ(made->GetChannel(), &channel);
  EXPECT_TRUE(made->GetAutoTimeout());
  EXPECT_EQ(channel.GetOperationQueues(static_cast<TOperationKind>(0x81)),
            channel.GetOperationQueues(okWrite));
  EXPECT_THROW(channel.GetOperationQueues(static_cast<TOperationKind>(2)), Exception);
}

TEST(OperationQueue, SplitsIntoTheChunksThatTheMediumTakes) {
  TTestChannel channel;
  channel.Queue().Chunk = 4;
  TLog log;
  TTestOperation operation(channel, 10, "a", &log);
  operation.SetActive(true);
  ASSERT_TRUE(operation.Wait());
  EXPECT_EQ(channel.Queue().Chunks(), (std::vector<int32_t>{4, 4, 2}));
  EXPECT_EQ(log, (TLog{"start a", "moved 4 a", "moved 8 a", "moved 10 a", "done a"}));
  EXPECT_EQ(channel.Queue().Cancelled, 0);
}

TEST(OperationQueue, CarriesOneAfterAnotherAndFinishesSeveralInOneRun) {
  TTestChannel channel;
  TLog log;
  TTestOperation a(channel, 5, "a", &log), b(channel, 6, "b", &log), c(channel, 7, "c", &log);
  channel.Queue().Room = 12;
  channel.Queue().Lock();  // so that all are there when the reactor comes
  for (TTestOperation* operation : {&a, &b, &c}) operation->SetActive(true);
  EXPECT_EQ(channel.Queue().GetOperationIndex(c), 2);
  channel.Queue().Unlock();
  ASSERT_TRUE(b.Wait());
  EXPECT_EQ(log, (TLog{"start a", "moved 5 a", "start b", "moved 6 b", "start c", "moved 1 c",
                       "done a", "done b"}));
  EXPECT_EQ(c.GetState(), osTransferring);
  channel.Queue().GiveRoom(100);
  EXPECT_TRUE(c.Wait());
  EXPECT_TRUE(c.GetSucceeded());
}

TEST(OperationQueue, ReportsAMediumThatMovesTooMuch) {
  TTestChannel channel;
  channel.Queue().Excess = 2;
  const test::TLogSince log;
  TTestOperation operation(channel, 10);
  operation.SetActive(true);
  ASSERT_TRUE(operation.Wait());
  EXPECT_EQ(operation.GetTransferred(), 12);
  EXPECT_TRUE(operation.GetSucceeded());
  EXPECT_TRUE(log.Holds("Size 10, transferred 12"));
}

TEST(OperationQueue, TimesOutTheHeadOnlyAndStartsTheNext) {
  TTestChannel channel(false), idle;
  idle.Queue().Room = 0;
  TTestOperation waiting(idle, 10);  // nothing available: its time does not run
  waiting.SetTimeout(1);
  waiting.SetActive(true);
  TTestOperation first(channel, 10), second(channel, 20);
  first.SetTimeout(50);
  first.SetActive(true);
  second.SetActive(true);
  ASSERT_TRUE(first.Wait());
  EXPECT_FALSE(first.GetSucceeded());
  EXPECT_EQ(channel.Queue().Chunks(), (std::vector<int32_t>{10, 20}));
  EXPECT_EQ(channel.Queue().Cancelled, 1);
  EXPECT_EQ(second.Completions, 0);
  channel.Queue().End();
  EXPECT_TRUE(second.GetSucceeded());
  EXPECT_TRUE(waiting.GetActive());

  // By bandwidth and latence: a millisecond for the byte, and 20, and a fifth more.
  channel.SetBandwidth(1000);
  channel.SetLatence(20);
  TTestOperation byRate(channel, 1);
  byRate.SetAutoTimeout(true);
  byRate.SetActive(true);
  EXPECT_TRUE(byRate.Wait());
  EXPECT_FALSE(byRate.GetSucceeded());
}

TEST(OperationQueue, ATimeoutIsOfOneChunk) {
  // Each chunk has half of the second; the operation takes longer than that in all, and is not
  // timed out.
  TTestChannel channel(false);
  channel.Queue().Chunk = 5;
  TTestOperation operation(channel, 10);
  operation.SetTimeout(600);
  operation.SetActive(true);
  for (int chunk = 1; chunk <= 2; ++chunk) {
    ASSERT_TRUE(test::WaitUntil(
        [&] { return channel.Queue().Chunks().size() == static_cast<size_t>(chunk); }));
    const ULONGLONG start = ::GetTickCount64();
    test::WaitUntil([&] { return operation.Completions > 0 || ::GetTickCount64() - start > 200; });
    if (chunk == 1) channel.Queue().End();
  }
  EXPECT_EQ(operation.Completions, 0);
  EXPECT_TRUE(operation.Wait());  // the second chunk never ends
  EXPECT_EQ(operation.GetTransferred(), 5);
}

TEST(OperationQueue, TheTimerOfAChunkThatEndedCutsNoLaterOneShort) {
  TTestChannel channel(false);
  for (int32_t wait = 1; wait <= 40; wait += 3) {
    TTestOperation first(channel, 1), second(channel, 1);
    first.SetTimeout(40);
    second.SetTimeout(12);
    first.SetActive(true);
    // Until shortly before the first one's time.
    const test::TStopwatch age;
    test::WaitUntil([&] { return first.Completions > 0 || age.Milliseconds() >= wait; });
    channel.Queue().End();
    ASSERT_TRUE(first.Wait());
    const test::TStopwatch life;
    second.SetActive(true);
    ASSERT_TRUE(second.Wait());
    EXPECT_GE(life.Milliseconds(), 11) << wait;
  }
}

TEST(OperationQueue, CancelsQuietlyBehindTheHeadAndStopsTheHead) {
  TTestChannel channel(false);
  TLog log;
  TTestOperation a(channel, 1, "a", &log), b(channel, 2, "b", &log), c(channel, 3, "c", &log);
  for (TTestOperation* operation : {&a, &b, &c}) operation->SetActive(true);
  TTestQueue& queue = channel.Queue();
  ASSERT_TRUE(test::WaitUntil([&] { return queue.Pending(); }));
  b.SetActive(false);
  EXPECT_EQ(b.Completions, 1);
  EXPECT_EQ(queue.Cancelled, 0);
  a.SetActive(false);
  EXPECT_EQ(queue.Cancelled, 1);
  queue.CancelOperation(a);  // no longer there
  EXPECT_EQ(queue.Cancelled, 1);
  ASSERT_TRUE(test::WaitUntil([&] { return queue.Pending(); }));
  queue.End(2);
  EXPECT_EQ(c.GetTransferred(), 2);
  queue.End();
  EXPECT_EQ(log,
            (TLog{"start a", "ended b", "ended a", "start c", "moved 2 c", "moved 3 c", "done c"}));
  a.SetActive(true);  // may be used again
  EXPECT_EQ(a.GetTransferred(), 0);
}

TEST(OperationQueue, DeactivationCompletesAllInOrder) {
  TTestChannel channel(false);
  TLog log;
  TTestOperation a(channel, 1, "a", &log), b(channel, 2, "b", &log);
  b.Do[teComplete] = [&] {
    EXPECT_EQ(test::MessageOf([&] { a.SetActive(true); }),
              "Channel is not active. Cannot perform operation.");
    EXPECT_EQ(test::MessageOf([&] { channel.SetActive(true); }), "Channel is being deactivated");
  };
  a.SetActive(true);
  b.SetActive(true);
  ASSERT_TRUE(test::WaitUntil([&] { return channel.Queue().Pending(); }));
  channel.SetActive(false);
  EXPECT_EQ(log, (TLog{"start a", "ended a", "ended b"}));
  channel.SetActive(true);
}

TEST(OperationQueue, ResetLetsAnOperationReceiveForEver) {
  TTestChannel channel;
  channel.Queue().Room = 0;
  TTestOperation operation(channel, 4);
  int32_t sum = 0;
  operation.ResetsCount = true;
  operation.Do[teTransferred] = [&] { sum += operation.GetTransferred(); };
  operation.SetActive(true);
  for (int i = 0; i < 5; ++i) channel.Queue().GiveRoom(3);
  EXPECT_EQ(sum, 15);
  EXPECT_EQ(operation.GetTransferred(), 0);
  EXPECT_TRUE(operation.GetActive());
  channel.Queue().GiveRoom(4);  // full, and so complete; but counted from nothing again
  EXPECT_EQ(operation.Completions, 1);
  EXPECT_FALSE(operation.GetSucceeded());
}

TEST(OperationQueue, ExceptionsStopTheRunAndLoseNothingElse) {
  TTestChannel channel;
  TTestOperation bad(channel, 3), good(channel, 4);
  const test::TLogSince log;
  bad.Do[teStart] = [] { throw Exception("refused by OnStart"); };
  bad.SetActive(true);
  ASSERT_TRUE(test::WaitUntil([&] { return log.Holds("refused by OnStart"); }));
  EXPECT_TRUE(bad.GetActive());
  bad.Do[teComplete] = [] { throw Exception("refused by OnComplete"); };
  good.SetActive(true);
  EXPECT_EQ(test::MessageOf([&] { bad.SetActive(false); }),
            "refused by OnComplete");  // the canceller's own
  EXPECT_TRUE(good.Wait());

  // Of several that end in one run each gets its completion.
  bad.Do[teStart] = nullptr;
  good.Completions = 0;
  channel.Queue().Lock();
  bad.SetActive(true);
  good.SetActive(true);
  channel.Queue().Unlock();
  EXPECT_TRUE(good.Wait());

  // What is full when its OnTransferred raises is complete as soon as the queue looks again.
  const test::TLogSince later;
  bad.Do[teComplete] = nullptr;
  bad.Do[teTransferred] = [] { throw Exception("refused by OnTransferred"); };
  bad.Completions = good.Completions = 0;
  bad.SetActive(true);
  ASSERT_TRUE(test::WaitUntil([&] { return later.Holds("refused by OnTransferred"); }));
  good.SetActive(true);
  EXPECT_TRUE(bad.Wait());
  EXPECT_TRUE(bad.GetSucceeded());
  EXPECT_TRUE(good.Wait());

  // A pending chunk on a channel without bandwidth: no time can be computed; the chunk goes on.
  TTestChannel pending(false);
  TTestOperation operation(pending, 5);
  operation.SetAutoTimeout(true);
  operation.SetActive(true);
  ASSERT_TRUE(test::WaitUntil([&] { return pending.Queue().Pending(); }));
  pending.Queue().End();
  EXPECT_TRUE(operation.GetSucceeded());
}

// The chunk of the next operation is started by the run that ends in the exception: what is done
// with it afterwards concerns that operation, not the full one that is still before it.
TEST(OperationQueue, AnExceptionBehindAFullOperationConfusesNoChunks) {
  for (const bool cancelled : {true, false}) {
    TTestChannel channel(false);  // without bandwidth
    TTestOperation full(channel, 3), next(channel, 4);
    next.SetAutoTimeout(true);
    full.SetActive(true);
    next.SetActive(true);
    TTestQueue& queue = channel.Queue();
    ASSERT_TRUE(test::WaitUntil([&] { return queue.Pending(); }));
    EXPECT_THROW(queue.End(), EDivByZero);
    ASSERT_TRUE(queue.Pending());
    if (cancelled) {
      next.SetActive(false);
      EXPECT_EQ(queue.Cancelled, 1);
    } else {
      queue.End();
    }
    EXPECT_TRUE(full.Wait());
    EXPECT_EQ(full.GetTransferred(), 3);
    EXPECT_EQ(next.GetTransferred(), cancelled ? 0 : 4);
  }
}

TEST(OperationQueue, WhatALaterStepDropsStaysActiveAndCanStillBeDestroyed) {
  auto channel = std::make_unique<TTestChannel>(false);
  auto timedOut = std::make_unique<TTestOperation>(*channel, 5);
  TTestOperation next(*channel, 5);
  timedOut->SetTimeout(30);
  const test::TLogSince log;
  next.Do[teStart] = [] { throw Exception("refused by OnStart"); };
  timedOut->SetActive(true);
  next.SetActive(true);
  ASSERT_TRUE(test::WaitUntil([&] { return channel->Queue().GetCount() == 1; }));
  ASSERT_TRUE(test::WaitUntil([&] { return log.Holds("refused by OnStart"); }));
  EXPECT_TRUE(timedOut->GetActive());
  channel.reset();
  EXPECT_EQ(next.Completions, 1);
  EXPECT_EQ(timedOut->Completions, 0);
  timedOut.reset();
}

TEST(OperationQueue, HandlersMayDestroyCancelAndReuse) {
  const TQuarantine quarantine;
  TTestChannel channel;
  channel.Queue().Chunk = 2;
  const int before = TTestOperation::Living;
  const struct {
    TTestEvent Event;  // of the middle one of three operations
    int32_t Transferred;
  } cases[] = {{teStart, 0}, {teTransferred, 2}, {teTransferred, 6}, {teComplete, 6}};
  for (const auto& [event, transferred] : cases) {
    for (int victim = 0; victim < 3; ++victim) {
      for (const bool destroy : {false, true}) {
        SCOPED_TRACE(
            Format("event %d at %d, victim %d, destroy %d", event, transferred, victim, destroy));
        const int completed = TTestOperation::AllCompletions;
        std::unique_ptr<TTestOperation> operations[3];
        for (auto& operation : operations) operation = std::make_unique<TTestOperation>(channel, 6);
        operations[1]->Do[event] = [&, at = transferred, middle = operations[1].get()] {
          if (middle->GetTransferred() != at) return;
          if (destroy) {
            operations[victim].reset();
          } else {
            operations[victim]->SetActive(false);
          }
        };
        channel.Queue().Lock();
        for (auto& operation : operations) operation->SetActive(true);
        channel.Queue().Unlock();
        const auto ended = [&] { return TTestOperation::AllCompletions == completed + 3; };
        EXPECT_TRUE(test::WaitUntil(ended));
        channel.Queue().Lock();
        channel.Queue().Unlock();
        for (auto& operation : operations) operation.reset();
        EXPECT_TRUE(ended());
        EXPECT_EQ(TTestOperation::Living, before);
      }
    }
  }
}

TEST(OperationQueue, HandlersGiveOtherQueuesWorkAlsoWhenTheyRaise) {
  TTestChannel channel;
  TTestOperation read(channel, 3), write(channel, 3);
  write.SetKind(okWrite);
  // More turns than one reaction takes; each leaves what it gave work by an exception.
  read.Do[teComplete] = [&] {
    if (read.Completions >= 500) return;
    write.SetActive(true);
    throw Exception("after giving work");
  };
  write.Do[teComplete] = [&] { read.SetActive(true); };
  read.SetActive(true);
  EXPECT_TRUE(test::WaitUntil([&] { return read.Completions == 500; }));
  EXPECT_EQ(write.Completions, 499);
}

TEST(OperationQueue, AStreamCanBeDestroyed) {
  const TQuarantine quarantine;
  TTestChannel channel;
  for (int i = 0; i < 1000; ++i) {
    auto operation = std::make_unique<TTestOperation>(channel, 3);
    operation->Do[teComplete] = [stream = operation.get()] { stream->SetActive(true); };
    operation->SetActive(true);
    ASSERT_TRUE(operation->Wait());
    operation.reset();
    EXPECT_EQ(channel.Queue().GetCount(), 0);
  }
}

TEST(OperationQueue, AStreamIsKeptGoingFromOnCompleteAndFreedAtItsEnd) {
  TTestChannel channel;
  const int before = TTestOperation::Living;
  std::atomic<int> runs = 0;
  auto* operation = new TTestOperation(channel, 3);
  operation->SetFreeOnComplete(true);
  operation->Do[teComplete] = [&runs, operation] {
    if (++runs < 500) operation->SetActive(true);  // lives on
  };
  operation->SetActive(true);
  EXPECT_TRUE(test::WaitUntil([&] { return TTestOperation::Living == before; }));
  EXPECT_EQ(runs, 500);
}

TEST(OperationQueue, OneThatWouldFreeItselfIsFreedOnceWhenDestroyedBefore) {
  const TQuarantine quarantine;
  TTestChannel channel(false);
  const int before = TTestOperation::Living;
  TTestOperation head(channel, 3);
  head.SetActive(true);
  for (const bool isHead : {false, true}) {
    if (isHead) head.SetActive(false);
    auto operation = std::make_unique<TTestOperation>(channel, 3);
    operation->SetFreeOnComplete(true);
    operation->SetActive(true);
    operation.reset();
    EXPECT_EQ(TTestOperation::Living, before + 1);
  }
}

TEST(OperationQueue, TheChannelMayBeDestroyedInAnyEvent) {
  for (const TTestEvent event : {teStart, teTransferred, teComplete}) {
    for (const bool synchronous : {true, false}) {
      SCOPED_TRACE(Format("event %d, synchronous %d", event, synchronous));
      auto channel = std::make_unique<TTestChannel>(synchronous);
      TTestOperation a(*channel, 3), b(*channel, 4);
      std::atomic<bool> destroyed = false;
      const auto destroy = [&] {
        if (channel == nullptr) return;
        channel.reset();
        destroyed = true;
      };
      a.Do[event] = destroy;
      TTestQueue& queue = channel->Queue();
      queue.Lock();
      a.SetActive(true);
      b.SetActive(true);
      queue.Unlock();
      if (!synchronous && event != teStart) {
        ASSERT_TRUE(test::WaitUntil([&] { return queue.Pending(); }));
        queue.End();
      }
      EXPECT_TRUE(test::WaitUntil([&] { return destroyed && b.Completions == 1; }));
      EXPECT_EQ(a.Completions, 1);
    }
  }
}

TEST(OperationQueue, ADestructorWaitsForAnEventOnAnotherThread) {
  TTestChannel channel;
  for (const TTestEvent event : {teStart, teTransferred, teComplete}) {
    SCOPED_TRACE(event);
    auto operation = std::make_unique<TTestOperation>(channel, 3);
    std::atomic<int> step = 0;
    operation->Do[event] = [&, cancelled = operation.get()] {
      cancelled->SetActive(false);  // as OnComplete it finds nothing to cancel
      step = 1;
      test::WaitUntil([&] { return step == 2; });
      ::SwitchToThread();
      step = 3;
    };
    operation->SetActive(true);
    ASSERT_TRUE(test::WaitUntil([&] { return step == 1; }));
    EXPECT_FALSE(operation->GetActive());
    step = 2;
    operation.reset();
    EXPECT_EQ(step, 3);
  }
}

TEST(OperationQueue, AChannelsDestructorWaitsForAnEventOnAnotherThread) {
  auto channel = std::make_unique<TTestChannel>(false);
  TTestOperation operation(*channel, 3);
  std::atomic<bool> inside = false, destroyed = false, early = false;
  operation.Do[teComplete] = [&] {
    inside = true;
    early = test::WaitUntil([&] { return destroyed.load(); }, 100);
  };
  operation.SetActive(true);
  TTestQueue& queue = channel->Queue();
  ASSERT_TRUE(test::WaitUntil([&] { return queue.Pending(); }));
  std::jthread device([&] { queue.End(); });
  ASSERT_TRUE(test::WaitUntil([&] { return inside.load(); }));
  channel.reset();
  destroyed = true;
  device.join();
  EXPECT_FALSE(early);
}

TEST(OperationQueue, TwoChannelsMaySwitchEachOtherOff) {
  TTestChannel channels[] = {TTestChannel(false), TTestChannel(false)};
  TTestOperation first(channels[0], 3), second(channels[1], 3);
  std::atomic<int> inside = 0;
  const auto switchOff = [&](TTestChannel& Channel) {
    ++inside;
    EXPECT_TRUE(test::WaitUntil([&] { return inside == 2; }));
    Channel.SetActive(false);
  };
  first.Do[teComplete] = [&] { switchOff(channels[1]); };
  second.Do[teComplete] = [&] { switchOff(channels[0]); };
  first.SetActive(true);
  second.SetActive(true);
  for (TTestChannel& channel : channels)
    ASSERT_TRUE(test::WaitUntil([&] { return channel.Queue().Pending(); }));
  std::vector<std::jthread> devices;
  for (TTestChannel& channel : channels)
    devices.emplace_back([&queue = channel.Queue()] { queue.End(); });
  devices.clear();
  EXPECT_EQ(inside, 2);
}

/// Eight threads make, cancel, destroy and reuse operations of both kinds, while a device ends the
/// pending chunks.
class TStress {
 public:
  explicit TStress(TTestChannel& Channel) : Channel_(Channel) {}

  void Run(int PerThread) {
    std::vector<std::jthread> threads;
    for (unsigned seed = 1; seed <= 8; ++seed)
      threads.emplace_back([=, this] { Work(seed, PerThread); });
    std::jthread device([this](const std::stop_token& Stop) {
      while (!Stop.stop_requested()) {
        Channel_.Queue(okRead).End();
        ::Sleep(0);
      }
    });
    threads.clear();
    EXPECT_TRUE(test::WaitUntil([this] { return Completed() == Activated; }));
  }

  int Completed() const { return TTestOperation::AllCompletions - Before_; }
  std::atomic<int> Activated = 0;

 private:
  std::unique_ptr<TTestOperation> Make(std::mt19937& Random) {
    auto operation =
        std::make_unique<TTestOperation>(Channel_, static_cast<int32_t>(Random() % 300 + 1));
    operation->SetKind(Random() % 2 == 0 ? okRead : okWrite);
    operation->SetAutoTimeout(Random() % 4 == 0);
    return operation;
  }

  void Activate(TTestOperation& Operation) {
    ++Activated;
    Operation.SetActive(true);
  }

  void Work(unsigned Seed, int Number) {
    std::mt19937 random(Seed);
    std::unique_ptr<TTestOperation> live[6];
    for (int made = 0; made < Number;) {
      auto& slot = live[random() % 6];
      switch (random() % 6) {
        case 0:
          if (slot != nullptr) slot->SetActive(false);
          break;
        case 1:
          slot.reset();
          break;
        case 2:
          if (slot != nullptr && !slot->GetActive()) {
            ++made;
            Activate(*slot);
          }
          break;
        case 3: {
          auto operation = Make(random);
          operation->SetFreeOnComplete(true);
          if (random() % 2 == 0) {
            operation->Do[teComplete] = [this, again = std::make_shared<bool>(true),
                                         raw = operation.get()] {
              if (std::exchange(*again, false)) Activate(*raw);
            };
          }
          ++made;
          Activate(*operation.release());
          break;
        }
        default:
          slot = Make(random);
          ++made;
          Activate(*slot);
          if (random() % 4 == 0) slot.reset();
      }
    }
  }

  TTestChannel& Channel_;
  const int Before_ = TTestOperation::AllCompletions;
};

TEST(OperationQueueStress, NothingIsLostOrDoubled) {
  const int living = TTestOperation::Living;
  const auto round = [&](int perThread) {
    TTestChannel channel(false);
    channel.Queue(okWrite).Synchronous = true;
    channel.Queue(okRead).Chunk = 100;
    channel.Queue(okWrite).Chunk = 100;
    channel.SetBandwidth(20000);  // chunks time out now and then
    TStress stress(channel);
    stress.Run(perThread);
    channel.SetActive(false);
    EXPECT_EQ(stress.Completed(), stress.Activated);
    EXPECT_EQ(TTestOperation::Living, living);
  };
  round(100);  // what is made once and kept
  const uint32_t handles = test::HandleCount();
  const uint64_t memory = test::PrivateBytes();
  round(2500);
  EXPECT_TRUE(test::WaitUntil([&] { return test::HandleCount() <= handles; }, 5000))
      << handles << " handles before, " << test::HandleCount() << " after";
  EXPECT_LT(test::PrivateBytes(), memory + (4u << 20));
}

}  // namespace
}  // namespace velox
