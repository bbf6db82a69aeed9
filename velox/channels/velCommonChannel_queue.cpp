#include <algorithm>
#include <exception>
#include <mutex>
#include <utility>

#include "velox/channels/velChannelArithmetic.hpp"
#include "velox/channels/velCommonChannel.hpp"
#include "velox/foundation/velSysUtils.hpp"
#include "velox/foundation/velTrace.hpp"
#include "velox/runtime/velCriticalSection.hpp"
#include "velox/runtime/velException.hpp"
#include "velox/runtime/velFormat.hpp"
#include "velox/runtime/velMessages.hpp"
#include "velox/runtime/velSharedLock.hpp"

namespace velox {
namespace {

HANDLE NewEvent() {
  const HANDLE event = ::CreateEventA(nullptr, FALSE, FALSE, nullptr);
  if (event == nullptr) RaiseLastOSError();
  return event;
}

// Milliseconds of a clock that is finer than timers and limits.
uint64_t PreciseMilliseconds() noexcept {
  static const uint64_t frequency = [] {
    LARGE_INTEGER value;
    ::QueryPerformanceFrequency(&value);
    return static_cast<uint64_t>(value.QuadPart);
  }();
  LARGE_INTEGER count;
  ::QueryPerformanceCounter(&count);
  return static_cast<uint64_t>(count.QuadPart) * 1000 / frequency;
}

// How often one reaction looks for work again before it lets the others of its thread have their
// turn.
constexpr int MaximalRounds = 32;

// Queues of which a reaction's handlers activated or ended operations. The reaction looks at them
// itself before it ends: an event would have its own thread do that a little later, at the price of
// two calls of the system.
class TLooks {
 public:
  TLooks() noexcept {
    if (Current == nullptr && TReactor::IsReactorThread()) Current = this;
  }
  ~TLooks();
  TLooks(const TLooks&) = delete;
  TLooks& operator=(const TLooks&) = delete;

  /// False when the calling thread is in no reaction; the event has to tell then.
  static bool Add(const TQueueReference& Target) noexcept {
    if (Current == nullptr) return false;
    try {
      Current->Waiting_.push_back(Target);
    } catch (...) {
      return false;
    }
    return true;
  }

  /// The next one; none when there is none, or this is a run within another, which looks then.
  TQueueReference Take() noexcept {
    if (Waiting_.empty() || ++Taken_ > MaximalRounds) return {};
    TQueueReference target = std::move(Waiting_.front());
    Waiting_.erase(Waiting_.begin());
    return target;
  }

 private:
  static thread_local TLooks* Current;  // of the calling thread

  std::vector<TQueueReference> Waiting_;
  int Taken_ = 0;
};

thread_local TLooks* TLooks::Current = nullptr;

}  // namespace

// What outlives the queue while somebody is still at work with it.
struct TQueueShared {
  explicit TQueueShared(std::shared_ptr<TPendingGate> AEvents) noexcept
      : Events(std::move(AEvents)) {}

  // A word of signals: how many came since it was last cleared (low half), and how often it was
  // cleared (high half), so that a run with old knowledge can't clear what came later.
  static constexpr uint64_t OneClearing = uint64_t{1} << 32;
  static uint64_t Cleared(uint64_t Word) noexcept { return (Word / OneClearing + 1) * OneClearing; }

  /// Whether this signal is the first.
  bool Count() noexcept { return static_cast<uint32_t>(Signals.fetch_add(1)) == 0; }
  void Signal() noexcept {
    if (Count()) ::SetEvent(QueueChangedEvent.Get());
  }
  void Clear() noexcept {
    uint64_t word = Signals.load();
    while (!Signals.compare_exchange_weak(word, Cleared(word))) {
    }
  }

  TCriticalSection Lock;
  THandle QueueChangedEvent{NewEvent()};
  /// Signals not 0: someone is going to look for work, because the event is set or because a
  /// reaction is running and looks again before it ends. So only the signal that finds 0 needs the
  /// system.
  std::atomic<uint64_t> Signals{0};
  std::atomic<bool> Closed{false};             // set under Lock, for good
  const std::shared_ptr<TPendingGate> Events;  // the channel's
  bool Gone = false;                           // guarded by Lock: the queue is being destroyed
};

namespace {

TLooks::~TLooks() {
  if (Current != this) return;
  Current = nullptr;
  for (const TQueueReference& left : Waiting_) ::SetEvent(left.Shared->QueueChangedEvent.Get());
}

void Signal(const TQueueReference& Target) noexcept {
  if (Target.Shared->Count() && !TLooks::Add(Target))
    ::SetEvent(Target.Shared->QueueChangedEvent.Get());
}

}  // namespace

// One reaction run. Signals that come during the run are taken by the run itself.
struct TOperationQueue::TTurn {
  explicit TTurn(TShared& AShared) noexcept
      : Shared(AShared), Seen(AShared.Signals.fetch_add(1) + 1) {}
  ~TTurn() {
    // Left by an exception: what was signalled since is work for the next run.
    if (!Ended && !Shared.Signals.compare_exchange_strong(Seen, TShared::Cleared(Seen))) HandOver();
  }

  /// True when nothing was signalled since the last look; the run is over then.
  bool End() noexcept {
    uint64_t current = Seen;
    Ended = Shared.Signals.compare_exchange_strong(current, TShared::Cleared(Seen)) ||
            // A run on another thread has looked meanwhile, after all signals known here; those
            // that came later have set the event, or are that run's.
            current / TShared::OneClearing != Seen / TShared::OneClearing;
    Seen = current;
    return Ended;
  }

  /// Leaves what was signalled to another run.
  void HandOver() noexcept {
    Ended = true;
    Shared.Clear();
    Shared.Signal();
  }

  TShared& Shared;
  uint64_t Seen;
  bool Ended = false;
};

// The procedures at work under the lock. An event raised by one of them may cancel operations or
// destroy the queue, that is, start another step inside this one, which then has to correct what
// this one knows.
struct TOperationQueue::TStep {
  explicit TStep(const TReference& Target)
      : Queue(Target.Queue), Guard(Target.Shared->Lock), QueueDestroyed(Target.Shared->Gone) {
    if (!QueueDestroyed) Outer = std::exchange(Queue->Step_, this);
  }
  ~TStep() {
    if (!QueueDestroyed) Queue->Step_ = Outer;
  }

  /// The operation at this position has left the queue.
  void Removed(int32_t Position) noexcept {
    if (Position < Index) {
      --Index;
    } else if (Position < Index + Count) {
      --Count;
    } else if (Position == Index + Count) {
      CurrentRemoved = true;
    }
  }

  TOperationQueue* Queue;
  std::unique_lock<TCriticalSection> Guard;
  TStep* Outer = nullptr;
  int32_t Index = 0;
  int32_t Count = 0;
  bool CurrentRemoved = false;  // the one behind those finished
  bool Transferring = false;
  bool QueueDestroyed;
};

// Operations that have left their queue and wait, on one thread's stack, for their OnComplete. All
// batches are listed, so that an operation that is being destroyed can be found and taken out.
class TOperationQueue::TBatch {
 public:
  /// Events counts the batches of a channel that hold anything.
  explicit TBatch(std::shared_ptr<TPendingGate> Events) noexcept : Events_(std::move(Events)) {
    const TForWriting guard(ListLock);
    Next_ = First;
    if (Next_ != nullptr) Next_->Previous_ = this;
    First = this;
  }

  ~TBatch() {
    {
      const TForWriting guard(ListLock);
      (Previous_ == nullptr ? First : Previous_->Next_) = Next_;
      if (Next_ != nullptr) Next_->Previous_ = Previous_;
    }
    if (Counted_) Events_->Finish();
  }

  /// With the queue locked: so whoever has emptied the queue finds all batches counted that were
  /// taken out before.
  void Add(TTransferOperation* const* Begin, TTransferOperation* const* End) {
    const TForWriting guard(ListLock);
    Waiting_.insert(Waiting_.end(), Begin, End);
    if (!std::exchange(Counted_, true)) Events_->Begin();
  }

  /// Waits until no other thread completes operations of the channel. (Those further up the calling
  /// thread do nothing more with it.)
  static void WaitForOthers(TPendingGate& Events) noexcept {
    const DWORD thread = ::GetCurrentThreadId();
    {
      const TForWriting guard(ListLock);
      for (TBatch* batch = First; batch != nullptr; batch = batch->Next_) {
        if (batch->ThreadId_ == thread && batch->Events_.get() == &Events &&
            std::exchange(batch->Counted_, false))
          Events.Finish();
      }
    }
    Events.WaitQuietly(nullptr);
  }

  /// Completes all. The first exception passes at the end, the others go to the trace log.
  void Complete() {
    std::exception_ptr first;
    while (TakeNext()) {
      try {
        OperationCompleted(*Current_);
      } catch (...) {
        if (first == nullptr) {
          first = std::current_exception();
        } else {
          TraceException("[TOperationQueue.OperationCompleted] completion error");
        }
      }
      Leave();
    }
    if (first != nullptr) std::rethrow_exception(first);
  }

  /// For an operation that is being destroyed: no batch holds it any more on return. True when one
  /// held it waiting; its completion is the caller's business then.
  static bool Forget(TTransferOperation& Operation) noexcept {
    const DWORD thread = ::GetCurrentThreadId();
    bool waiting = false;
    const TForWriting guard(ListLock);
    for (TBatch* batch = First; batch != nullptr; batch = batch->Next_) {
      // Destroyed by its own OnComplete. (One that another thread runs is waited for.)
      if (batch->Current_ == &Operation && batch->ThreadId_ == thread) {
        batch->Current_ = nullptr;
        Operation.Events_.Finish();
      }
      for (TTransferOperation*& entry : batch->Waiting_) {
        if (entry != &Operation) continue;
        entry = nullptr;
        waiting = true;
      }
    }
    return waiting;
  }

 private:
  bool TakeNext() noexcept {
    const TForWriting guard(ListLock);
    while (Position_ < Waiting_.size()) {
      Current_ = std::exchange(Waiting_[Position_++], nullptr);
      if (Current_ == nullptr) continue;
      Current_->Events_.Begin();
      Activation_ = Current_->Activations_;
      return true;
    }
    return false;
  }

  /// After OnComplete, which may have destroyed the operation, or activated it again.
  void Leave() noexcept {
    TTransferOperation* operation;
    bool owned = false;
    {
      const TForWriting guard(ListLock);
      operation = std::exchange(Current_, nullptr);
      if (operation == nullptr) return;
      owned = operation->FreeOnComplete_ && operation->Activations_ == Activation_;
    }
    operation->Events_.Finish();
    if (owned) delete operation;
  }

  static inline SRWLOCK ListLock = SRWLOCK_INIT;  // guards the list and all that follows
  static inline TBatch* First = nullptr;

  TBatch* Previous_ = nullptr;
  TBatch* Next_ = nullptr;
  std::vector<TTransferOperation*> Waiting_;  // null: done, or destroyed
  size_t Position_ = 0;
  TTransferOperation* Current_ =
      nullptr;  // its OnComplete is running; null once that has destroyed it
  uint32_t Activation_ = 0;
  const DWORD ThreadId_ = ::GetCurrentThreadId();
  const std::shared_ptr<TPendingGate> Events_;
  bool Counted_ = false;
};

TOperationQueue::TOperationQueue(TChannel& Channel)
    : Channel_(Channel),
      Shared_(std::make_shared<TShared>(Channel.Events_)),
      TimeoutEvent_(NewEvent()),
      TimeoutTask_(std::make_unique<TEventTask>()) {
  TimeoutTask_->SetEventHandle(TimeoutEvent_.Get());
  QueueChangedReaction_ = std::make_unique<TEventReaction>(
      TReactor::GetInstance(), Shared_->QueueChangedEvent.Get(), nullptr,
      TReactionEvent::Bind<&TOperationQueue::DoOperationQueueChangedAsync>(this));
  TimeoutReaction_ = std::make_unique<TEventReaction>(
      TReactor::GetInstance(), TimeoutEvent_.Get(), nullptr,
      TReactionEvent::Bind<&TOperationQueue::DoOperationTimeout>(this));
  QueueChangedReaction_->SetActive(true);
  TimeoutReaction_->SetActive(true);
}

TOperationQueue::~TOperationQueue() { Close(); }

void TOperationQueue::Close() noexcept {
  {
    const std::scoped_lock guard(Shared_->Lock);
    if (Shared_->Closed.exchange(true)) return;
  }
  try {
    Finalize();
  } catch (...) {
    TraceException("[TOperationQueue.Destroy] completion error");
  }
  {
    // Called from inside an event: the steps further up this thread end at once, and let go of the
    // lock now, since a reaction that waits for it could not be ended otherwise.
    const std::scoped_lock guard(Shared_->Lock);
    for (TStep* step = Step_; step != nullptr; step = step->Outer) {
      step->QueueDestroyed = true;
      step->Guard.unlock();
    }
    Step_ = nullptr;
    Shared_->Gone = true;
  }
  TimeoutReaction_.reset();
  QueueChangedReaction_.reset();
  TimeoutTask_.reset();
}

void TOperationQueue::WaitForEvents(TPendingGate& Events) noexcept {
  TBatch::WaitForOthers(Events);
}

void TOperationQueue::Lock() noexcept { Shared_->Lock.lock(); }

void TOperationQueue::Unlock() noexcept { Shared_->Lock.unlock(); }

int32_t TOperationQueue::GetCount() const {
  const std::scoped_lock guard(Shared_->Lock);
  return static_cast<int32_t>(Operations_.size());
}

int32_t TOperationQueue::GetOperationIndex(const TTransferOperation& Operation) const {
  const std::scoped_lock guard(Shared_->Lock);
  const auto found = std::find(Operations_.begin(), Operations_.end(), &Operation);
  return found == Operations_.end() ? -1 : static_cast<int32_t>(found - Operations_.begin());
}

void TOperationQueue::AddOperation(TTransferOperation& Operation) {
  AddOperation(GetReference(), Operation);
}

// Once the lock is released, the operation may complete, and its events may destroy the queue.
void TOperationQueue::AddOperation(const TReference& Target, TTransferOperation& Operation) {
  {
    const std::scoped_lock guard(Target.Shared->Lock);
    // The channel becomes inactive before its queues are emptied, so nothing slips in behind that.
    if (Target.Shared->Closed || !Target.Queue->Channel_.GetActive())
      throw Exception(messages::seChannelIsNotActive);
    std::vector<TTransferOperation*>& operations = Target.Queue->Operations_;
    const size_t count = operations.size();
    if (count == operations.capacity()) operations.reserve(count * 11 / 10 + 10);
    Operation.Departed_ = false;
    Operation.Active_ = true;
    if (Operation.Closing_) {  // its destructor sees that it is active, or is seen here
      Operation.Active_ = false;
      return;
    }
    operations.push_back(&Operation);
    ++Operation.Activations_;
    Operation.Transferred_ = 0;
    Operation.State_ = TOperationState::osPending;
  }
  Signal(Target);
}

void TOperationQueue::CancelOperation(TTransferOperation& Operation) {
  CancelOperation(GetReference(), Operation);
}

void TOperationQueue::CancelOperation(const TReference& Target, TTransferOperation& Operation) {
  struct TSignalAtEnd {
    ~TSignalAtEnd() { Signal(Target); }
    const TReference& Target;
  };
  const TSignalAtEnd atEnd{Target};  // OnComplete may destroy the queue
  Execute(Target,
          {TProcessOperationsProcedure::Bind<&TOperationQueue::TerminateOperation>(Target.Queue)},
          &Operation);
}

void TOperationQueue::Finalize() {
  ExecuteOperationProcess(
      {TProcessOperationsProcedure::Bind<&TOperationQueue::TerminateAllOperations>(this)}, nullptr);
}

void TOperationQueue::ScheduleOperationQueueChanged() { Signal(GetReference()); }

void TOperationQueue::DoOperationQueueChanged() {
  ExecuteOperationProcess(
      {TProcessOperationsProcedure::Bind<&TOperationQueue::TransferOperationDataWhenIdle>(this)},
      nullptr);
}

void TOperationQueue::DoChannelReady(TObject*) {
  RunOnReactor(GetReference(),
               {TProcessOperationsProcedure::Bind<&TOperationQueue::TransferOperationData>(this)},
               nullptr);
}

void TOperationQueue::DoOperationQueueChangedAsync(TObject*) {
  RunOnReactor(
      GetReference(),
      {TProcessOperationsProcedure::Bind<&TOperationQueue::TransferOperationDataWhenIdle>(this)},
      nullptr);
}

void TOperationQueue::DoOperationTimeout(TObject*) {
  RunOnReactor(
      GetReference(),
      {TProcessOperationsProcedure::Bind<&TOperationQueue::TerminateTimedOutOperation>(this),
       TProcessOperationsProcedure::Bind<&TOperationQueue::TransferOperationDataWhenIdle>(this)},
      nullptr);
}

// The reference is a copy: the caller's may stand in what the run destroys.
// NOLINTNEXTLINE(performance-unnecessary-value-param)
void TOperationQueue::RunOnReactor(TReference Target,
                                   std::initializer_list<TProcessOperationsProcedure> Procedures,
                                   TObject* Parameter) {
  TLooks looks;
  RunTurn(Target, Procedures, Parameter);
  for (TReference other = looks.Take(); other.Queue != nullptr; other = looks.Take())
    RunTurn(other,
            {TProcessOperationsProcedure::Bind<&TOperationQueue::TransferOperationDataWhenIdle>(
                other.Queue)},
            nullptr);
}

void TOperationQueue::RunTurn(const TReference& Target,
                              std::initializer_list<TProcessOperationsProcedure> Procedures,
                              TObject* Parameter) {
  const auto idle =
      TProcessOperationsProcedure::Bind<&TOperationQueue::TransferOperationDataWhenIdle>(
          Target.Queue);
  TTurn turn(*Target.Shared);
  Execute(Target, Procedures, Parameter);
  for (int round = 0; !Target.Shared->Closed && !turn.End(); ++round) {
    if (round == MaximalRounds) return turn.HandOver();
    Execute(Target, {idle}, nullptr);
  }
}

void TOperationQueue::ExecuteOperationProcess(
    std::initializer_list<TProcessOperationsProcedure> Procedures, TObject* Parameter) {
  Execute(GetReference(), Procedures, Parameter);
}

void TOperationQueue::Execute(const TReference& Target,
                              std::initializer_list<TProcessOperationsProcedure> Procedures,
                              TObject* Parameter) {
  TBatch batch(Target.Shared->Events);
  {
    TStep step(Target);
    for (const TProcessOperationsProcedure& procedure : Procedures) {
      if (step.QueueDestroyed) break;
      step.Index = 0;
      step.Count = 0;
      procedure(step.Index, step.Count, Parameter);
      if (!step.QueueDestroyed) Target.Queue->TakeCompleted(batch);
    }
  }
  batch.Complete();
}

void TOperationQueue::TakeCompleted(TBatch& Batch) {
  const TStep& step = *Step_;
  if (step.Count <= 0) return;
  const auto begin = Operations_.begin() + step.Index;
  const auto end = begin + step.Count;
  Batch.Add(&*begin, &*begin + step.Count);
  for (auto left = begin; left != end; ++left) (*left)->Departed_ = true;
  Operations_.erase(begin, end);
  for (TStep* outer = step.Outer; outer != nullptr; outer = outer->Outer) {
    for (int32_t i = 0; i < step.Count; ++i) outer->Removed(step.Index);
  }
}

void TOperationQueue::OperationCompleted(TTransferOperation& Operation) {
  Operation.State_ = TOperationState::osComplete;
  Operation.Active_ = false;
  Operation.DoComplete();
}

void TOperationQueue::Detach(TTransferOperation& Operation) noexcept {
  if (TBatch::Forget(Operation)) {
    try {
      OperationCompleted(Operation);
    } catch (...) {
      TraceException("[TTransferOperation.Destroy] completion error");
    }
  }
  Operation.Events_.WaitQuietly(nullptr);
}

// The transfer loop. The operations finished are always the first ones.
void TOperationQueue::TransferOperationData(int32_t&, int32_t& ACompletedCount, TObject*) {
  TStep& step = *Step_;
  for (const TStep* outer = step.Outer; outer != nullptr; outer = outer->Outer) {
    // Called inside an event of the loop, which goes on by itself when the event returns.
    if (outer->Transferring) return;
  }
  step.Transferring = true;
  ACompletedCount = GetHead();
  TransferSize_ = TransferPending_ ? GetActualCompletedSize() : 0;
  TransferPending_ = false;
  for (;;) {
    TransferCompleted(ACompletedCount);
    if (step.QueueDestroyed) return;
    TTransferOperation* const operation = StartNextOperation();
    if (operation == nullptr) return;
    TransferChunk(*operation);
    if (TransferPending_) return StartTimeoutTask(*operation);
  }
}

void TOperationQueue::TransferOperationDataWhenIdle(int32_t& ACompletedIndex,
                                                    int32_t& ACompletedCount, TObject* AParameter) {
  if (!TransferPending_) TransferOperationData(ACompletedIndex, ACompletedCount, AParameter);
}

// Position of the operation that is carried or is next. Those before it are full: an exception has
// ended the run that made them so, before they left the queue.
int32_t TOperationQueue::GetHead() const noexcept {
  const auto head =
      std::find_if(Operations_.begin(), Operations_.end(), [](const TTransferOperation* Operation) {
        return Operation->State_ != TOperationState::osTransferring ||
               Operation->Transferred_ < Operation->Size_;
      });
  return static_cast<int32_t>(head - Operations_.begin());
}

// Books TransferSize_ bytes on the operation at Index, and steps over the operation when it is
// full.
void TOperationQueue::TransferCompleted(int32_t& Index) {
  const int32_t size = std::exchange(TransferSize_, 0);
  if (size == 0 || Index >= static_cast<int32_t>(Operations_.size())) return;
  TTransferOperation& operation = *Operations_[static_cast<size_t>(Index)];
  const int32_t transferred = AddWrapped(operation.Transferred_, size);
  operation.Transferred_ = transferred;
  if (operation.Size_ <= transferred) {
    if (operation.Size_ < transferred) {
      Trace(Format("Size %d, transferred %d", operation.Size_, transferred), TTraceType::ttError);
    }
    ++Index;
    FinishTimeoutTask();
  }
  operation.DoTransferred();
}

// The operation to carry now; null when there is none left, or OnStart has destroyed the queue.
TTransferOperation* TOperationQueue::StartNextOperation() {
  TStep& step = *Step_;
  while (step.Count < static_cast<int32_t>(Operations_.size())) {
    if (!Channel_.GetActive()) return nullptr;  // those left are about to be ended
    TTransferOperation* const operation = Operations_[static_cast<size_t>(step.Count)];
    if (operation->State_ != TOperationState::osPending) return operation;
    step.CurrentRemoved = false;
    operation->DoStart();
    if (step.QueueDestroyed) return nullptr;
    if (step.CurrentRemoved) continue;
    operation->State_ = TOperationState::osTransferring;
    return operation;
  }
  return nullptr;
}

void TOperationQueue::TransferChunk(TTransferOperation& Operation) {
  const int32_t transferred = Operation.Transferred_;
  TransferSize_ = 0;
  int32_t size = GetAvailableSize(Operation);
  TransferPending_ = true;
  size = std::clamp(size, 0, std::max(0, Operation.Size_ - transferred));
  if (size == 0) return;
  // Until the medium has taken it, no byte counts as moved.
  TransferPending_ =
      !TransferData(Operation, static_cast<char*>(Operation.Buffer_) + transferred, size);
  TransferSize_ = size;
}

int32_t TOperationQueue::GetActualCompletedSize() { return TransferSize_; }

void TOperationQueue::CancelTransfer() {
  TransferPending_ = false;
  TransferSize_ = 0;
}

void TOperationQueue::StartTimeoutTask(TTransferOperation& Operation) {
  ArmTimeoutTask(GetChunkTimeout(Operation, TransferSize_));
}

int32_t TOperationQueue::GetChunkTimeout(const TTransferOperation& Operation, int32_t Size) const {
  return Operation.AutoTimeout_ ? Channel_.GetTimeout(Size)
                                : MultiplyDivide(Operation.Timeout_, Size, Operation.Size_);
}

void TOperationQueue::ArmTimeoutTask(int32_t Timeout) {
  TimeoutArmed_ = Timeout != 0;
  if (!TimeoutArmed_) return;
  const uint64_t now = PreciseMilliseconds();
  TimeoutDue_ = now + static_cast<uint64_t>(std::max(Timeout, 0));
  StartTimer(now);
}

// The timer is left alone when it fires before it is needed: it is started anew then. So a queue
// whose chunks are done in time sets it once in a while, not for each of them. (One that is overdue
// may have failed: the scheduler can tell that to the trace log only.)
void TOperationQueue::StartTimer(uint64_t Now) {
  if (TimerDue_ > Now && TimerDue_ <= TimeoutDue_) return;
  TimerDue_ = 0;
  TimeoutTask_->SetActive(0);
  ::ResetEvent(TimeoutEvent_.Get());
  const auto left = static_cast<int64_t>(TimeoutDue_ - Now);
  TimeoutTask_->SetDuration(std::max<int64_t>(0, left));
  TimeoutTask_->SetActive(1);
  TimerDue_ = TimeoutDue_;
}

void TOperationQueue::FinishTimeoutTask() { TimeoutArmed_ = false; }

/// What the timer has fired for, if anything, may have been done long ago.
void TOperationQueue::TerminateTimedOutOperation(int32_t& ACompletedIndex, int32_t& ACompletedCount,
                                                 TObject*) {
  TimerDue_ = 0;
  if (!TimeoutArmed_) return;
  const uint64_t now = PreciseMilliseconds();
  if (now < TimeoutDue_) return StartTimer(now);
  TerminateOperationByIndex(ACompletedIndex, ACompletedCount,
                            reinterpret_cast<TObject*>(static_cast<intptr_t>(GetHead())));
}

void TOperationQueue::TerminateOperation(int32_t& ACompletedIndex, int32_t& ACompletedCount,
                                         TObject* AParameter) {
  const int32_t index = GetOperationIndex(*static_cast<TTransferOperation*>(AParameter));
  TerminateOperationByIndex(ACompletedIndex, ACompletedCount,
                            reinterpret_cast<TObject*>(static_cast<intptr_t>(index)));
}

void TOperationQueue::TerminateOperationByIndex(int32_t& ACompletedIndex, int32_t& ACompletedCount,
                                                TObject* AParameter) {
  ACompletedIndex = static_cast<int32_t>(reinterpret_cast<intptr_t>(AParameter));
  ACompletedCount = 0;
  if (ACompletedIndex < 0 || ACompletedIndex >= static_cast<int32_t>(Operations_.size())) return;
  if (ACompletedIndex == GetHead()) {
    FinishTimeoutTask();
    CancelTransfer();
  }
  ACompletedCount = 1;
}

void TOperationQueue::TerminateAllOperations(int32_t& ACompletedIndex, int32_t& ACompletedCount,
                                             TObject*) {
  ACompletedIndex = 0;
  ACompletedCount = static_cast<int32_t>(Operations_.size());
  if (ACompletedCount == 0) return;
  FinishTimeoutTask();
  CancelTransfer();
}

}  // namespace velox
