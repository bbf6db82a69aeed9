#include "velox/async/velAsyncQueue.hpp"

#include <optional>

#include "velox/foundation/velSyncUtils.hpp"
#include "velox/foundation/velSysUtils.hpp"
#include "velox/foundation/velTrace.hpp"
#include "velox/runtime/velException.hpp"
#include "velox/runtime/velMessages.hpp"

namespace velox {
namespace {

using enum TCallState;
using enum TAsynchronousCallQueueState;

void CALLBACK CallEntry(ULONG_PTR Call) { reinterpret_cast<TAsynchronousCall*>(Call)->Call(); }

// A call that a queue makes for one request.
class TQueuedCall final : public TAsynchronousCall {
 public:
  TQueuedCall(HANDLE AThreadHandle, DWORD AThreadId, const TAsynchronousCallHandler& AHandler,
              const TAsynchronousCallQueueHandler& ARequest, void* AData)
      : TAsynchronousCall(AThreadHandle, AThreadId, AHandler),
        Request(ARequest),
        RequestData(AData) {}

  using TAsynchronousCall::ForgetThread;

  const TAsynchronousCallQueueHandler Request;
  void* const RequestData;
};

// Once queued, the call frees itself after its run.
void QueueOwned(std::unique_ptr<TQueuedCall> Call) {
  TQueuedCall* const queued = Call.release();
  try {
    queued->Queue(false);
  } catch (...) {
    // Not queued: still ours. (A handler that raised here and now leaves its call "in call".)
    if (queued->GetState() == clsFree) delete queued;
    throw;
  }
}

}  // namespace

TAsynchronousCall::TAsynchronousCall(HANDLE AThreadHandle, DWORD AThreadId,
                                     const TAsynchronousCallHandler& AHandler)
    : Handler_(AHandler), ThreadHandle_(AThreadHandle), ThreadId_(AThreadId) {}

TAsynchronousCall::~TAsynchronousCall() {
  const TCallState old = StateExchange(clsDestroying);
  // A run that this very thread is in, or has left by an exception, can't be waited for.
  if (old == clsInCall && ThreadId_.load() == ::GetCurrentThreadId()) return;
  Finished_.WaitQuietly(ThreadHandle_.load());
}

void TAsynchronousCall::Queue(bool AWait) {
  QueueEx(ThreadHandle_.load(), ThreadId_.load(), Handler_, AWait);
}

void TAsynchronousCall::QueueEx(HANDLE AThreadHandle, DWORD AThreadId,
                                const TAsynchronousCallHandler& AHandler, bool AWait) {
  if (AThreadHandle == nullptr || !AHandler) throw Exception(messages::seIncorrectParameters);
  if (!StateCompareExchange(clsQueued, clsFree)) throw Exception(messages::seCallIsBusy);
  Finished_.Begin();
  Handler_ = AHandler;
  ThreadHandle_.store(AThreadHandle);
  ThreadId_.store(AThreadId);
  if (AThreadId == ::GetCurrentThreadId()) {
    Call();
    return;
  }
  // Whoever does not wait touches the call no more once it is queued: it may destroy itself.
  std::optional<TPendingGate::TStay> stay;
  if (AWait) stay.emplace(Finished_);
  if (TraceAndQueueUserAPC(&CallEntry, AThreadHandle, reinterpret_cast<ULONG_PTR>(this)) == 0) {
    const DWORD error = ::GetLastError();
    if (!StateCompareExchange(clsFree, clsQueued)) StateCompareExchange(clsFree, clsCancelled);
    Finished_.Finish();
    RaiseLastOSErrorEx(static_cast<int32_t>(error));
  }
  if (AWait) WaitForFinished();
}

void TAsynchronousCall::Call() {
  bool destroy = false;
  if (StateCompareExchange(clsInCall, clsQueued) && Handler_) Handler_(*this, destroy);
  if (!StateCompareExchange(clsFree, clsInCall)) StateCompareExchange(clsFree, clsCancelled);
  Finished_.Finish();  // unless the call is its own, it may be gone from here on
  if (destroy) delete this;
}

bool TAsynchronousCall::CancelNeedsWait() noexcept {
  if (StateCompareExchange(clsCancelled, clsQueued)) return false;
  return StateCompareExchange(clsCancelled, clsInCall);
}

bool TAsynchronousCall::Cancel() {
  if (!CancelNeedsWait()) return false;
  WaitForFinished();
  return true;
}

bool TAsynchronousCall::CancelQuietly() noexcept {
  if (!CancelNeedsWait()) return false;
  WaitForFinishedQuietly();
  return true;
}

DWORD TAsynchronousCall::WaitForFinished() { return Finished_.Wait(ThreadHandle_.load()); }

DWORD TAsynchronousCall::WaitForFinishedQuietly() noexcept {
  return Finished_.WaitQuietly(ThreadHandle_.load());
}

struct TAsynchronousCallQueue::TThread {
  HANDLE Handle;
  DWORD Id;
  THandle Owned;  // the handle again, when the queue is to close it
};

TAsynchronousCallQueue::~TAsynchronousCallQueue() {
  StateExchange(acqsInactive);
  const std::shared_ptr<const TThread> thread = Thread_.load();
  if (thread != nullptr && thread->Id == ::GetCurrentThreadId()) {
    // The calls of handlers that have raised stay outstanding for good; all others come here.
    while (Pending_.load() > Raised_.load()) ::SleepEx(1, TRUE);
    if (Raised_.load() > 0) return;
  }
  Idle_.WaitQuietly(thread == nullptr ? nullptr : thread->Handle);
}

void TAsynchronousCallQueue::Activate(HANDLE AThreadHandle, DWORD AThreadId) {
  if (!StateCompareExchange(acqsActivating, acqsInactive)) return;
  CloseWhenIdle_.store(false);
  try {
    if (AThreadHandle != nullptr && AThreadId != 0) {
      Thread_.store(std::make_shared<const TThread>(TThread{AThreadHandle, AThreadId, THandle()}));
    } else {
      THandle real(GetRealCurrentThreadHandle());
      const HANDLE handle = real.Get();
      Thread_.store(std::make_shared<const TThread>(
          TThread{handle, ::GetCurrentThreadId(), std::move(real)}));
    }
  } catch (...) {
    CloseHandles();
    throw;
  }
  if (!StateCompareExchange(acqsActive, acqsActivating)) CloseHandles();
}

void TAsynchronousCallQueue::Deactivate(bool AWait) {
  switch (StateExchange(acqsDeactivating)) {
    case acqsInactive:
      StateExchange(acqsInactive);
      return;
    case acqsActive:
      if (AWait) Wait();
      return;
    case acqsActivating:    // the activating thread sees it and cleans up
    case acqsDeactivating:  // already
      return;
  }
}

void TAsynchronousCallQueue::Queue(const TAsynchronousCallQueueHandler& Handler, void* AData) {
  // Counted before the state is looked at, so that a Wait can't slip in between.
  Idle_.Begin();
  Pending_.fetch_add(1);
  bool atOnce = false;
  try {
    // In this order: while the state is active, the thread is the one it was activated for.
    const bool active = GetState() == acqsActive;
    const std::shared_ptr<const TThread> thread = Thread_.load();
    if (!active || thread == nullptr) throw Exception("Queue is inactive");
    auto call = std::make_unique<TQueuedCall>(
        thread->Handle, thread->Id,
        TAsynchronousCallHandler::Bind<&TAsynchronousCallQueue::Call>(this), Handler, AData);
    atOnce = thread->Id == ::GetCurrentThreadId();
    QueueOwned(std::move(call));
  } catch (...) {
    if (atOnce) --Raised_;  // not outstanding for good
    Leave();
    throw;
  }
}

void TAsynchronousCallQueue::Call(TAsynchronousCall& ACall, bool& ADestroy) {
  auto& call = static_cast<TQueuedCall&>(ACall);
  call.ForgetThread();
  ADestroy = true;
  ++InCall_;
  try {
    call.Request(*this, call.RequestData);
  } catch (...) {
    ++Raised_;
    throw;
  }
  --InCall_;
  FinishCall();
}

// A call of a queue that is being deactivated: with the last one out it is inactive, be that this
// one or a request that is refused just now.
void TAsynchronousCallQueue::FinishCall() noexcept {
  if (GetState() == acqsDeactivating) CloseWhenIdle_.store(true);
  Leave();
}

void TAsynchronousCallQueue::Leave() noexcept {
  if (Pending_.fetch_sub(1) == 1 && GetState() == acqsDeactivating &&
      CloseWhenIdle_.exchange(false))
    CloseHandles();
  Idle_.Finish();  // the queue may be gone from here on
}

DWORD TAsynchronousCallQueue::Wait() {
  const std::shared_ptr<const TThread> thread = Thread_.load();
  if (thread == nullptr) return Idle_.Wait(nullptr);
  if (InCall_.load() > 0 && thread->Id == ::GetCurrentThreadId()) {
    throw Exception("Queue is in call now and can be deadlocked");
  }
  return Idle_.Wait(thread->Handle);
}

void TAsynchronousCallQueue::CloseHandles() noexcept {
  Thread_.store(nullptr);
  StateExchange(acqsInactive);
}

}  // namespace velox
