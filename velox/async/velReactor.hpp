#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

#include "velox/async/velAsyncQueue.hpp"
#include "velox/async/velPendingGate.hpp"
#include "velox/containers/velObjArray.hpp"
#include "velox/runtime/velCriticalSection.hpp"
#include "velox/runtime/velMethod.hpp"
#include "velox/runtime/velObject.hpp"
#include "velox/runtime/velWindows.hpp"

namespace velox {

class TReaction;
class TReactorThread;

/// Spreads active reactions over threads named "Reactor thread", up to 64 on each, and starts
/// another thread when all are full. Threads live as long as the reactor. Programs use the one of
/// GetInstance().
///
/// Threads: any may register; one that is not the reactor's destroys, when no other thread
/// activates, deactivates or destroys a reaction any more.
class VELOX_API TReactor : public TObject {
 public:
  /// The one of the process, made on first use by SingletonConstruction.
  static TReactor* GetInstance();
  static TObject* SingletonConstruction();

  /// Whether the calling thread is one of a reactor's.
  static bool IsReactorThread() noexcept;

  /// Without threads: reactions bring them.
  TReactor();
  /// Ends the threads; reactions that are still active are taken out of their sets.
  ~TReactor() override;

  /// Places a reaction on a thread; TReaction::SetActive does that. Raises Exception "Reactor
  /// terminated" once the destructor has begun, EOSError when the system starts no more threads.
  void RegisterReaction(TReaction& AReaction);

 private:
  TObjectArray Threads_;
  TCriticalSection Lock_;  // guards Threads_
  std::atomic<bool> Terminating_{false};
};

/// Where a reaction is between inactive and active.
enum class TReactionState : uint32_t {
  rsNone = 0,          ///< inactive
  rsActivating = 1,    ///< on its way into a thread's set
  rsActivated = 2,     ///< in the set
  rsDeactivating = 3,  ///< on its way out
  rsDestroyed = 4      ///< retired for good
};

/// Calls an action each time a kernel handle is signalled.
///
/// While a reaction is active, a reactor thread waits on its handle together with up to 63 others
/// and calls Run() whenever the wait is satisfied by it. The handle stays in the set afterwards:
/// use an auto-reset handle, or reset it in Run(), or Run() is called again at once. Of several
/// signalled handles the one registered first is served first. A mutex whose owner ended is taken
/// out of the set and released, and its reaction does not run.
///
/// Promised: once the destructor has returned, Run() is not running and will not run again;
/// destroying a reaction inside its own Run() is allowed. After SetActive(false) from another
/// thread a run may still be under way; and of a TEventReaction for a thread, methods that were on
/// their way to it still run. Asked of you: keep the handle open until
/// GetStatus() is rsNone again; keep Run() short, since it delays the other reactions of its
/// thread; a class of your own calls Retire() first thing in its destructor.
///
/// An exception that escapes Run() is logged; the thread goes on. When a wait fails (a handle was
/// closed while it was waited on) the thread logs it, takes all its reactions out of its set, and
/// ends.
///
/// Threads: any may deactivate; one at a time may activate or destroy. Run() runs on the reactor's
/// thread.
class VELOX_API TReaction : public TObject {
 public:
  /// The reactor and the handle are borrowed. Raises Exception "Reactor must be specified" or
  /// "Handle must be specified".
  TReaction(TReactor* AReactor, HANDLE AHandle);
  /// Waits until the reactor's thread has let go of the handle.
  ~TReaction() override;

  /// What the signal calls for. Runs on the reactor's thread.
  virtual void Run() = 0;

  /// True from the moment the reactor's thread has taken the handle into its set until it has been
  /// asked for and taken out. (Of a reaction taken out otherwise, by an abandoned mutex or the end
  /// of its thread, it stays true until SetActive(false).)
  bool GetActive() const noexcept;
  /// Requests the change; the reactor's thread carries it out when it next can. Nothing happens
  /// when it was requested already, nor when it is to become active before a removal on its way has
  /// been carried out (GetStatus() is then rsDeactivating). Both may wait, alertably, for the last
  /// request to arrive: hold no lock that another Run() takes. Activating raises what
  /// TReactor::RegisterReaction does; deactivating raises EOSError when the system takes no request
  /// for the thread, and the reaction stays active.
  void SetActive(bool Value);

  /// Run(), if the reaction is in a set and not leaving it.
  void RunEx();

  /// Called by the reactor's thread when it has taken the reaction out of its set.
  void Deactivated() noexcept;

  /// As given to the constructor.
  TReactor* GetReactor() const noexcept { return Reactor_; }
  HANDLE GetHandle() const noexcept { return Handle_; }

  /// The status, and its change to another, which returns the one before. The changes are for the
  /// reactor and the reaction.
  TReactionState GetStatus() const noexcept { return Status_.load(); }
  TReactionState StatusExchange(TReactionState Value) noexcept { return Status_.exchange(Value); }
  /// True when the status was Comparand and has been replaced.
  bool StatusCompareExchange(TReactionState Value, TReactionState Comparand) noexcept {
    return Status_.compare_exchange_strong(Comparand, Value);
  }

 protected:
  /// Takes the reaction out of its set for good and waits until that is done and Run() has returned
  /// (unless this is inside Run()).
  void Retire() noexcept;

 private:
  friend class TReactorThread;

  void Activate();
  void RequestRemoval();
  void RequestRemovalQuietly() noexcept;

  TReactor* const Reactor_;
  const HANDLE Handle_;
  std::atomic<TReactionState> Status_{TReactionState::rsNone};
  std::atomic<TReactorThread*> Thread_{nullptr};  // the thread whose set holds it, or is about to
  TPendingGate InSet_;      // open when no set holds it and no run is under way
  TAsynchronousCall Call_;  // carries every request to the thread
};

/// Given the reaction.
using TReactionEvent = TMethod<void(TObject* ASender)>;

/// A reaction that calls a bound method, on the reactor's thread or as an APC on a thread of the
/// user's.
///
///     TEventReaction ready(TReactor::GetInstance(), event, nullptr,
///                          TReactionEvent::Bind<&TReader::OnReady>(this));
///     ready.SetActive(true);
///
/// The promise about Run() holds for the method as well: after the destructor it does not run,
/// wherever it was to run.
class VELOX_API TEventReaction : public TReaction {
 public:
  /// With a thread's handle (borrowed), the method runs on that thread when it next waits
  /// alertably; with null, on the reactor's thread. Raises Exception "Event must be specified"
  /// without a method.
  TEventReaction(TReactor* AReactor, HANDLE AHandle, HANDLE AThreadHandle,
                 const TReactionEvent& OnEvent);
  ~TEventReaction() override;

  /// Raises EOSError when the system takes no APC for the thread.
  void Run() override;

 private:
  struct TLink;
  static void CALLBACK RunOnThread(ULONG_PTR Data);

  const TReactionEvent OnEvent_;
  const HANDLE ThreadHandle_;
  std::shared_ptr<TLink> Link_;  // shared with APCs on their way; only with a thread's handle
};

}  // namespace velox
