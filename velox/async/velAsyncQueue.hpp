#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

#include "velox/async/velPendingGate.hpp"
#include "velox/runtime/velMethod.hpp"
#include "velox/runtime/velObject.hpp"
#include "velox/runtime/velWindows.hpp"

/// Work delivered to one chosen thread. It travels as a user APC, so it runs when that thread next
/// waits alertably (velSyncUtils.hpp); work aimed at the calling thread itself runs at once. There
/// is no worker thread here: whoever owns the chosen thread makes it wait.
namespace velox {

/// Where a call is between being queued and being free again.
enum class TCallState : uint32_t {
  clsFree = 0,       ///< no run is outstanding; the call can be queued
  clsQueued = 1,     ///< on its way to its thread
  clsInCall = 2,     ///< its handler runs
  clsCancelled = 3,  ///< cancelled, and not yet through with the run that was outstanding
  clsDestroying = 4  ///< its destructor has begun
};

/// Where a queue is between being bound to a thread and being free again.
enum class TAsynchronousCallQueueState : uint32_t {
  acqsInactive = 0,     ///< bound to no thread; refuses calls
  acqsActivating = 1,   ///< being bound
  acqsActive = 2,       ///< takes calls
  acqsDeactivating = 3  ///< refuses calls; those outstanding still run
};

class TAsynchronousCall;
class TAsynchronousCallQueue;

/// Runs on the target thread. Setting ADestroy makes the call object, which must come from `new`,
/// free itself after the handler has returned.
using TAsynchronousCallHandler = TMethod<void(TAsynchronousCall& ACall, bool& ADestroy)>;

/// Runs on the queue's thread, with the data given to Queue().
using TAsynchronousCallQueueHandler = TMethod<void(TAsynchronousCallQueue& Sender, void* AData)>;

/// One call slot, aimed at one thread, that can be used again and again: free, queued, in call,
/// free.
///
/// A handler that raises leaves the call "in call" for good; the exception is logged and raised on
/// the target thread.
///
/// Threads: any may queue, cancel and wait; one at a time may destroy, when no other uses the call.
class VELOX_API TAsynchronousCall : public TObject {
 public:
  /// The thread's handle is borrowed: keep it open while the call may be queued or waited for.
  /// Without thread and handler, only QueueEx can be used.
  TAsynchronousCall() = default;
  TAsynchronousCall(HANDLE AThreadHandle, DWORD AThreadId,
                    const TAsynchronousCallHandler& AHandler);
  /// Waits until no run is outstanding, or the target thread has ended. Not from inside the call's
  /// own handler: that sets ADestroy.
  ~TAsynchronousCall() override;

  /// Delivers one run of the handler. With AWait it returns only after the run, or when the target
  /// thread has ended; APCs of the calling thread run meanwhile. Raises Exception "Incorrect
  /// parameters" without thread or handler, "Call is busy" while a run is outstanding, EOSError
  /// when the system takes no APC for that thread.
  void Queue(bool AWait);
  void QueueEx(HANDLE AThreadHandle, DWORD AThreadId, const TAsynchronousCallHandler& AHandler,
               bool AWait);

  /// One run, on the calling thread. (What the APC does: not while that is on its way.)
  void Call();

  /// A run that has not begun is dropped: false at once (the call is free when the dropped run
  /// would have come). One that is under way is waited for: true. Otherwise false. Not from inside
  /// the call's own handler, which would wait for itself.
  bool Cancel();

  /// Waits until no run is outstanding (WAIT_OBJECT_0) or the target thread has ended
  /// (WAIT_OBJECT_0 + 1).
  DWORD WaitForFinished();

  /// The same two where nothing may be raised: exceptions of APCs stay kept for the calling
  /// thread's next wait.
  bool CancelQuietly() noexcept;
  DWORD WaitForFinishedQuietly() noexcept;

  /// The state, and its change to another, which returns the one before. The changes are for the
  /// call itself and what is built on it.
  TCallState GetState() const noexcept { return State_.load(); }
  TCallState StateExchange(TCallState NewState) noexcept { return State_.exchange(NewState); }
  /// True when the state was Comparand and has been replaced.
  bool StateCompareExchange(TCallState NewState, TCallState Comparand) noexcept {
    return State_.compare_exchange_strong(Comparand, NewState);
  }

  /// The thread that runs are delivered to: its handle, borrowed, and its id.
  HANDLE GetThreadHandle() const noexcept { return ThreadHandle_.load(); }
  DWORD GetThreadId() const noexcept { return ThreadId_.load(); }

  /// Anything the user wants to find in the handler. Not touched by the call.
  TObject* Data = nullptr;

 protected:
  /// From inside the handler: waits for this run need not end with the target thread's end any
  /// more.
  void ForgetThread() noexcept { ThreadHandle_.store(nullptr); }

 private:
  bool CancelNeedsWait() noexcept;

  TAsynchronousCallHandler
      Handler_;  // written by the thread that took the state from free to queued
  std::atomic<TCallState> State_{TCallState::clsFree};
  TPendingGate Finished_;  // open when no run is outstanding
  std::atomic<HANDLE> ThreadHandle_{nullptr};
  std::atomic<DWORD> ThreadId_{0};
};

/// A queue of calls bound to one thread; it counts those not finished, and lets its owner wait for
/// them.
///
///     TAsynchronousCallQueue queue;
///     queue.Activate(nullptr, 0);  // bound to the calling thread, which waits alertably at times
///     // From any thread:
///     queue.Queue(TAsynchronousCallQueueHandler::Bind<&TReader::Handle>(this), data);
///
/// A handler that raises leaves the queue counting its call as outstanding and "in call", for good:
/// other threads' Wait() then ends with the bound thread only. The exception is logged and raised
/// on the bound thread. (One that ran at once, inside Queue(), is counted as "in call" only.) Catch
/// in the handler what it can expect.
///
/// Calls that the bound thread has not run when it ends stay outstanding, and their memory is lost.
/// Destroy such a queue while it is bound, or at least don't wait for it after CloseHandles():
/// the end of the thread that it was bound to ends no wait any more.
///
/// Threads: any may queue and wait. Handlers run on the bound thread, one at a time, in the order
/// they were queued; one that the bound thread itself queues runs before those. The queue must not
/// be destroyed from inside a handler.
class VELOX_API TAsynchronousCallQueue : public TObject {
 public:
  /// Bound to no thread yet: see Activate().
  TAsynchronousCallQueue() = default;
  /// Waits until no call is outstanding, or the bound thread has ended.
  ~TAsynchronousCallQueue() override;

  /// Binds an inactive queue to a thread; the handle is borrowed. With a null handle or id: to the
  /// calling thread. Does nothing when the queue is not inactive. Raises EOSError when the system
  /// has no handle left.
  void Activate(HANDLE AThreadHandle, DWORD AThreadId);

  /// Stops accepting calls; with AWait returns after those outstanding have run. The queue is
  /// inactive again, and can be activated, once the last of them has run; when none was outstanding
  /// it stays deactivating until CloseHandles().
  void Deactivate(bool AWait);

  /// Requests one run of Handler(queue, AData) on the bound thread; does not wait. On the bound
  /// thread itself the handler runs at once, and what it raises comes out here. Raises Exception
  /// "Queue is inactive", and EOSError when the system takes no call for that thread.
  void Queue(const TAsynchronousCallQueueHandler& Handler, void* AData);

  /// Waits until no call is outstanding (WAIT_OBJECT_0) or the bound thread has ended
  /// (WAIT_OBJECT_0 + 1). Raises Exception "Queue is in call now and can be deadlocked" inside a
  /// handler.
  DWORD Wait();

  /// Unbinds the thread; the queue is inactive.
  void CloseHandles() noexcept;

  /// What each queued call runs on the bound thread.
  void Call(TAsynchronousCall& ACall, bool& ADestroy);

  /// Calls that were queued and have not finished.
  int32_t GetPending() const noexcept { return Pending_.load(); }

  /// The state, and its change to another, which returns the one before. The changes are for the
  /// queue itself.
  TAsynchronousCallQueueState GetState() const noexcept { return State_.load(); }
  TAsynchronousCallQueueState StateExchange(TAsynchronousCallQueueState NewState) noexcept {
    return State_.exchange(NewState);
  }
  /// True when the state was Comparand and has been replaced.
  bool StateCompareExchange(TAsynchronousCallQueueState NewState,
                            TAsynchronousCallQueueState Comparand) noexcept {
    return State_.compare_exchange_strong(Comparand, NewState);
  }

 private:
  struct TThread;
  void FinishCall() noexcept;
  void Leave() noexcept;

  std::atomic<TAsynchronousCallQueueState> State_{TAsynchronousCallQueueState::acqsInactive};
  std::atomic<std::shared_ptr<const TThread>>
      Thread_;                       // the bound thread; those who wait for it keep it meanwhile
  std::atomic<int32_t> Pending_{0};  // queued and not finished
  TPendingGate Idle_;                // open when no call is outstanding
  std::atomic<int32_t> InCall_{0};   // handlers that are under way, one inside another, or raised
  std::atomic<int32_t> Raised_{0};   // calls that are outstanding for good
  std::atomic<bool> CloseWhenIdle_{false};  // a call has finished since the queue was deactivated
};

}  // namespace velox
