#include "velox/async/velReactor.hpp"

#include <algorithm>
#include <array>
#include <mutex>
#include <span>
#include <utility>

#include "velox/async/velCallbackLink.hpp"
#include "velox/foundation/velSyncUtils.hpp"
#include "velox/foundation/velSysUtils.hpp"
#include "velox/foundation/velTrace.hpp"
#include "velox/runtime/velComThread.hpp"
#include "velox/runtime/velException.hpp"
#include "velox/runtime/velHandle.hpp"
#include "velox/runtime/velModules.hpp"

namespace velox {

using enum TReactionState;

namespace {

constexpr int32_t MostReactions = MAXIMUM_WAIT_OBJECTS;  // that one wait of the system takes
constexpr int32_t RunsInARow = 64;

TSingletonSlot ReactorSlot;

void CALLBACK WakeUp(ULONG_PTR) {}

}  // namespace

// One thread of the reactor. The set is touched by the thread itself only: what others want of it
// arrives as calls.
class TReactorThread : public TObject {
 public:
  TReactorThread();
  ~TReactorThread() override;

  /// Returns when the thread has ended.
  void Stop() noexcept;

  /// Takes the reaction if there is a place, and requests that it be added. By the registering
  /// thread.
  bool Offer(TReaction& Reaction);
  /// Requests that the reaction be taken out. False when the thread has ended, and so has let go of
  /// it.
  bool RequestRemoval(TReaction& Reaction);

  bool HasEnded() const noexcept {
    return ::WaitForSingleObject(Thread_.Get(), 0) == WAIT_OBJECT_0;
  }
  HANDLE GetHandle() const noexcept { return Thread_.Get(); }

  /// On this thread: whether Reaction is the one that runs now. If so its gate stays shut until the
  /// run is over.
  bool Defer(TReaction& Reaction) noexcept;

  /// On a reactor thread: if Reaction is the one that runs there, it is being destroyed inside its
  /// own Run().
  static void ForgetRunning(TReaction& Reaction) noexcept;

  /// Of the calling thread, or null.
  static TReactorThread* GetCurrent() noexcept { return Current_; }

 private:
  void Execute(void* AParameter);
  void WaitAndRun();
  void RunReaction(TReaction& Reaction);
  void Finish() noexcept;
  void RunQueuedRequests() noexcept;
  void Add(TAsynchronousCall& ACall, bool& ADestroy);
  void Remove(TAsynchronousCall& ACall, bool& ADestroy);
  void RemoveAt(int32_t Index) noexcept;
  void Post(TReaction& Reaction, const TAsynchronousCallHandler& Handler);

  std::array<HANDLE, MostReactions + 1> Handles_{};
  std::array<TReaction*, MostReactions + 1> Reactions_{};  // parallel to Handles_
  int32_t Count_ = 0;
  std::atomic<int32_t> Reserved_{0};  // registrations accepted, queued or in the set
  TCriticalSection
      RequestLock_;  // no request is queued any more once Terminated_ has been set under it
  std::atomic<bool> Terminated_{false};
  // A request may have been queued since the last look. A wait that a handle satisfies at once
  // would not let it run, and one that stays signalled would keep it from running for ever.
  std::atomic<bool> Requested_{false};
  // Reactions run since callbacks of the system had their turn, which a handle that stays signalled
  // would keep away in the same manner.
  int32_t Runs_ = 0;

  TReaction* Running_ = nullptr;  // the reaction whose Run() is under way
  int32_t Deferred_ = 0;          // removals of it that its gate has not been told of

  THandle Thread_;
  DWORD ThreadId_ = 0;
  TPendingGate Started_;  // open once the thread runs

  static thread_local TReactorThread* Current_;  // of the calling thread
};

thread_local TReactorThread* TReactorThread::Current_ = nullptr;

TReactorThread::TReactorThread() {
  Started_.Begin();
  Thread_.Reset(TThreadFactory::GetInstance()->CreateThread(
      "Reactor thread", TThreadExecutionRoutine::Bind<&TReactorThread::Execute>(this), nullptr,
      ThreadId_));
  if (!Thread_) RaiseLastOSError();
  // A thread that has not begun yet would run its first requests before its own first line.
  // No callback may run meanwhile: the reactor's lock is held.
  // A thread that ends without having begun found no memory to remember its name.
  if (Started_.WaitUnalertably(Thread_.Get()) != WAIT_OBJECT_0) throw EOutOfMemory();
}

TReactorThread::~TReactorThread() { Stop(); }

void TReactorThread::Stop() noexcept {
  Terminated_.store(true);
  while (TraceAndQueueUserAPC(&WakeUp, Thread_.Get(), 0) == 0 && !HasEnded()) ::Sleep(10);
  const HANDLE thread = Thread_.Get();
  WaitAlertableQuietly({&thread, 1});
}

void TReactorThread::Post(TReaction& Reaction, const TAsynchronousCallHandler& Handler) {
  Reaction.Call_.QueueEx(Thread_.Get(), ThreadId_, Handler, false);
  Requested_.store(true);
}

bool TReactorThread::Offer(TReaction& Reaction) {
  const std::scoped_lock guard(RequestLock_);
  if (Terminated_.load()) return false;
  // A place is taken before the request is queued, so that the set can't overflow.
  if (Reserved_.fetch_add(1) >= MostReactions) {
    Reserved_.fetch_sub(1);
    return false;
  }
  Reaction.Thread_.store(this);
  try {
    Post(Reaction, TAsynchronousCallHandler::Bind<&TReactorThread::Add>(this));
  } catch (...) {
    Reserved_.fetch_sub(1);
    throw;
  }
  return true;
}

bool TReactorThread::RequestRemoval(TReaction& Reaction) {
  const std::scoped_lock guard(RequestLock_);
  // Its own thread takes it out at once, up to its end; for others the thread does so when it ends.
  if (Terminated_.load() && ThreadId_ != ::GetCurrentThreadId()) return false;
  Post(Reaction, TAsynchronousCallHandler::Bind<&TReactorThread::Remove>(this));
  return true;
}

void TReactorThread::Add(TAsynchronousCall& ACall, bool&) {
  auto& reaction = *static_cast<TReaction*>(ACall.Data);
  if (!reaction.StatusCompareExchange(rsActivated, rsActivating)) return;
  Handles_[static_cast<size_t>(Count_)] = reaction.GetHandle();
  Reactions_[static_cast<size_t>(Count_)] = &reaction;
  ++Count_;
}

void TReactorThread::Remove(TAsynchronousCall& ACall, bool&) {
  const auto* reaction = static_cast<TReaction*>(ACall.Data);
  const auto end = Reactions_.begin() + Count_;
  const auto found = std::find(Reactions_.begin(), end, reaction);
  if (found != end) RemoveAt(static_cast<int32_t>(found - Reactions_.begin()));
}

void TReactorThread::RemoveAt(int32_t Index) noexcept {
  TReaction& reaction = *Reactions_[static_cast<size_t>(Index)];
  std::copy(Handles_.begin() + Index + 1, Handles_.begin() + Count_, Handles_.begin() + Index);
  std::copy(Reactions_.begin() + Index + 1, Reactions_.begin() + Count_,
            Reactions_.begin() + Index);
  --Count_;
  Reserved_.fetch_sub(1);
  reaction.Deactivated();
}

void TReactorThread::Execute(void*) {
  const TComThread com;
  Current_ = this;
  Started_.Finish();
  while (!Terminated_.load()) {
    try {
      WaitAndRun();
    } catch (...) {
      TraceException("Exception in [TReactorThread.Run]");
    }
  }
  Finish();
}

void TReactorThread::WaitAndRun() {
  // (Back to the loop then: the call that ends the thread may have been among them.)
  if (Requested_.exchange(false)) return RunQueuedRequests();
  const auto count = static_cast<DWORD>(Count_);
  const DWORD result = WaitAlertableOnce({Handles_.data(), count});
  if (result == WAIT_IO_COMPLETION) {
    Runs_ = 0;
  } else if (result == WAIT_FAILED) {
    TraceOSError("[TReactorThread.Run] Wait error");
    Terminated_.store(true);
  } else if (result < WAIT_OBJECT_0 + MostReactions) {
    const DWORD index = result - WAIT_OBJECT_0;
    if (++Runs_ == RunsInARow) {
      Runs_ = 0;
      Requested_.store(true);
    }
    if (index < static_cast<DWORD>(Count_)) RunReaction(*Reactions_[index]);
  } else if (result >= WAIT_ABANDONED_0 && result < WAIT_ABANDONED_0 + MostReactions) {
    const DWORD index = result - WAIT_ABANDONED_0;
    if (index >= static_cast<DWORD>(Count_)) return;
    ::ReleaseMutex(Handles_[index]);  // the wait has made it this thread's
    RemoveAt(static_cast<int32_t>(index));
  } else if (result == WAIT_TIMEOUT) {
    Trace("Timeout exausted ??? in [TReactorThread.Run][Wait]", ttError);
  }
}

// A removal that arrives while the reaction runs (Run() waited alertably, or removed itself) takes
// effect on the set at once; whoever waits to destroy the reaction is told only when Run() has
// returned.
void TReactorThread::RunReaction(TReaction& Reaction) {
  struct TRun {
    TReactorThread& Thread;
    ~TRun() {
      TReaction* const reaction = std::exchange(Thread.Running_, nullptr);
      if (reaction == nullptr) return;  // destroyed meanwhile
      for (int32_t left = std::exchange(Thread.Deferred_, 0); left > 0; --left)
        reaction->InSet_.Finish();
    }
  } const run{*this};
  Running_ = &Reaction;
  Reaction.RunEx();
}

bool TReactorThread::Defer(TReaction& Reaction) noexcept {
  if (Running_ != &Reaction) return false;
  ++Deferred_;
  return true;
}

void TReactorThread::ForgetRunning(TReaction& Reaction) noexcept {
  if (Current_ == nullptr || Current_->Running_ != &Reaction) return;
  Current_->Running_ = nullptr;
  for (int32_t left = std::exchange(Current_->Deferred_, 0); left > 0; --left)
    Reaction.InSet_.Finish();
}

void TReactorThread::Finish() noexcept {
  {
    const std::scoped_lock guard(RequestLock_);
    Terminated_.store(true);
  }
  RunQueuedRequests();
  while (Count_ > 0) RemoveAt(Count_ - 1);
  Reserved_.store(0);
}

// The requests that were queued before the thread stopped taking any.
void TReactorThread::RunQueuedRequests() noexcept {
  DWORD result = WAIT_IO_COMPLETION;
  while (result == WAIT_IO_COMPLETION) {
    try {
      result = WaitAlertableOnce({}, 0);
    } catch (...) {
      TraceException("Exception in [TReactorThread.Run]");
    }
  }
}

TReactor* TReactor::GetInstance() { return SingletonInstance<TReactor>(ReactorSlot); }

bool TReactor::IsReactorThread() noexcept { return TReactorThread::GetCurrent() != nullptr; }

TObject* TReactor::SingletonConstruction() { return new TReactor; }

TReactor::TReactor() : Threads_(TClass::Of<TReactorThread>()) { Threads_.SetSharedObjects(false); }

TReactor::~TReactor() {
  {
    const std::scoped_lock guard(Lock_);
    Terminating_.store(true);
  }
  // A reaction that still runs on one thread may destroy one of another.
  for (int32_t i = Threads_.GetCount(); i-- > 0;)
    static_cast<TReactorThread*>(Threads_.GetItems(i))->Stop();
  Threads_.Clear();
}

void TReactor::RegisterReaction(TReaction& AReaction) {
  const std::scoped_lock guard(Lock_);
  if (Terminating_.load()) throw Exception("Reactor terminated");
  for (int32_t i = 0; i < Threads_.GetCount(); ++i) {
    if (static_cast<TReactorThread*>(Threads_.GetItems(i))->Offer(AReaction)) return;
  }
  auto thread = std::make_unique<TReactorThread>();
  Threads_.Add(thread.get());
  thread.release()->Offer(AReaction);
}

TReaction::TReaction(TReactor* AReactor, HANDLE AHandle) : Reactor_(AReactor), Handle_(AHandle) {
  if (AReactor == nullptr) throw Exception("Reactor must be specified");
  if (AHandle == nullptr) throw Exception("Handle must be specified");
  Call_.Data = this;
}

TReaction::~TReaction() { Retire(); }

bool TReaction::GetActive() const noexcept {
  const TReactionState status = GetStatus();
  return status == rsActivated || status == rsDeactivating;
}

void TReaction::SetActive(bool Value) {
  if (Value) {
    Activate();
  } else if (StatusCompareExchange(rsDeactivating, rsActivating)) {
    Call_.CancelQuietly();
    StatusExchange(rsNone);
    InSet_.Finish();
  } else if (StatusCompareExchange(rsDeactivating, rsActivated)) {
    try {
      RequestRemoval();
    } catch (...) {
      // Being destroyed meanwhile? Then that waits for what is requested here.
      if (!StatusCompareExchange(rsActivated, rsDeactivating)) return RequestRemovalQuietly();
      throw;
    }
  }
}

void TReaction::Activate() {
  if (GetStatus() != rsNone) return;
  // A request that was cancelled may still be on its way; the call is free once it has arrived.
  Call_.CancelQuietly();
  Call_.WaitForFinishedQuietly();
  InSet_.Begin();
  if (!StatusCompareExchange(rsActivating, rsNone)) return InSet_.Finish();
  try {
    Reactor_->RegisterReaction(*this);
  } catch (...) {
    if (StatusCompareExchange(rsNone, rsActivating)) InSet_.Finish();
    throw;
  }
}

void TReaction::RequestRemoval() {
  TReactorThread* const thread = Thread_.load();
  if (thread == nullptr) {  // taken out already: its mutex was abandoned, or its thread has ended
    StatusCompareExchange(rsNone, rsDeactivating);
    return;
  }
  Call_.CancelQuietly();
  Call_.WaitForFinishedQuietly();
  thread->RequestRemoval(*this);
}

// A destructor can't give up: without the removal, the thread would go on waiting on the handle.
void TReaction::RequestRemovalQuietly() noexcept {
  for (;;) {
    try {
      return RequestRemoval();
    } catch (...) {
      const TReactorThread* const thread = Thread_.load();
      if (thread != nullptr && thread->HasEnded()) return Deactivated();
      TraceException("[TReaction.Destroy] removal failed, trying again");
      ::SleepEx(10, FALSE);
    }
  }
}

void TReaction::RunEx() {
  if (GetStatus() == rsActivated) Run();
}

void TReaction::Deactivated() noexcept {
  TReactorThread* const thread = Thread_.exchange(nullptr);
  StatusCompareExchange(rsNone, rsDeactivating);
  if (thread == nullptr || !thread->Defer(*this)) InSet_.Finish();
}

void TReaction::Retire() noexcept {
  const TReactorThread* thread = Thread_.load();
  switch (StatusExchange(rsDestroyed)) {
    case rsActivating:
      Call_.CancelQuietly();
      InSet_.Finish();
      thread = nullptr;
      break;
    case rsActivated:
      RequestRemovalQuietly();
      break;
    case rsDestroyed:
      return;
    case rsNone:  // of an activation that was taken back; the reactor may be gone since
      thread = nullptr;
      break;
    case rsDeactivating:
      break;
  }
  TReactorThread::ForgetRunning(*this);
  // Threads live as long as the reactor, which the owner of an active reaction keeps until here.
  InSet_.WaitQuietly(thread == nullptr ? nullptr : thread->GetHandle());
}

struct TEventReaction::TLink : TCallbackLink<TEventReaction> {
  using TCallbackLink::TCallbackLink;
};

TEventReaction::TEventReaction(TReactor* AReactor, HANDLE AHandle, HANDLE AThreadHandle,
                               const TReactionEvent& OnEvent)
    : TReaction(AReactor, AHandle), OnEvent_(OnEvent), ThreadHandle_(AThreadHandle) {
  if (!OnEvent) throw Exception("Event must be specified");
  if (AThreadHandle != nullptr) Link_ = std::make_shared<TLink>(this);
}

TEventReaction::~TEventReaction() {
  // First of all no method any more: while the removal is waited for, an APC that is on its way
  // could run it on this thread.
  if (Link_ != nullptr) Link_->Cut(ThreadHandle_);
  Retire();
}

void TEventReaction::Run() {
  if (ThreadHandle_ == nullptr) {
    OnEvent_(this);
    return;
  }
  auto link = std::make_unique<std::shared_ptr<TLink>>(Link_);
  if (TraceAndQueueUserAPC(&TEventReaction::RunOnThread, ThreadHandle_,
                           reinterpret_cast<ULONG_PTR>(link.get())) == 0) {
    RaiseLastOSError();
  }
  link.release();  // the APC's now
}

void CALLBACK TEventReaction::RunOnThread(ULONG_PTR Data) {
  const std::unique_ptr<std::shared_ptr<TLink>> link(
      reinterpret_cast<std::shared_ptr<TLink>*>(Data));
  (*link)->Call([](TEventReaction& Reaction) { Reaction.OnEvent_(&Reaction); });
}

void modules::FinalizeReactor() noexcept { SingletonDestroy(ReactorSlot); }

}  // namespace velox
