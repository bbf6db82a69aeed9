#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <vector>

#include "velox/async/velPendingGate.hpp"
#include "velox/async/velReactor.hpp"
#include "velox/async/velScheduler.hpp"
#include "velox/runtime/velHandle.hpp"
#include "velox/runtime/velMethod.hpp"
#include "velox/runtime/velObject.hpp"

/// Two-way data channels. Nobody calls "read" or "write": a transfer is an object. A caller makes a
/// TTransferOperation, gives it a buffer, a size and events, and switches it active; the channel
/// carries it in the background, chunk by chunk, and the operation's events tell of its progress
/// and its end.
///
///     channel.SetActive(true);
///     std::unique_ptr<TTransferOperation> read = channel.CreateOperation();
///     read->SetKind(TOperationKind::okRead);
///     read->SetBuffer(data);
///     read->SetSize(sizeof data);
///     // OnRead looks at GetSucceeded() and GetTransferred().
///     read->SetOnComplete(TOperationNotificationEvent::Bind<&TReader::OnRead>(this));
///     read->SetActive(true);  // returns at once; `read` lives on until its end
///
/// A concrete channel (shared memory, a socket, a serial port) derives from TChannel and brings two
/// queues derived from TOperationQueue that know how to move bytes.
namespace velox {

class TChannel;
class TOperationQueue;
class TTransferOperation;

/// Which way an operation carries.
enum class TOperationKind : uint8_t {
  okRead = 0,  ///< from the channel into the buffer
  okWrite = 1  ///< from the buffer into the channel
};

/// How far an operation has come.
enum class TOperationState : uint8_t {
  osNone = 0,          ///< never active yet
  osPending = 1,       ///< waits in its queue for those before it
  osTransferring = 2,  ///< at the head of its queue, being carried
  osComplete = 3       ///< left its queue: carried whole, timed out or cancelled
};

/// Sender is the operation.
using TOperationNotificationEvent = TMethod<void(TObject* Sender)>;
/// Sender is the operation. A handler that sets Reset (false on entry) starts the count of carried
/// bytes anew, so that the next chunk goes to the start of the buffer again.
using TOperationTransferEvent = TMethod<void(TObject* Sender, bool& Reset)>;
/// Sender is the channel.
using TChannelNotificationEvent = TMethod<void(TObject* Sender)>;

/// One step of a queue's work, run under its lock. On return ACompletedCount operations from
/// ACompletedIndex on (both 0 on entry) are finished and leave the queue.
using TProcessOperationsProcedure =
    TMethod<void(int32_t& ACompletedIndex, int32_t& ACompletedCount, TObject* AParameter)>;

/// One transfer: what to carry, how long it may take, and whom to tell.
///
/// Life: SetActive(true) puts it into its channel's queue (osPending). At the head of the queue
/// OnStart is raised (osTransferring), then OnTransferred after each chunk. It ends when all bytes
/// are carried, its time is up, it is cancelled, or the channel is deactivated: it leaves the
/// queue, GetActive() becomes false, and OnComplete is raised, once. There is no result code:
/// GetSucceeded() tells whether all bytes were carried. It may then be used again.
///
/// Threads: an inactive operation belongs to one thread at a time. While it is active all
/// properties are frozen (the setters raise Exception "Cannot change property of active operation")
/// and can be read from any thread. Events run on the thread that drives the queue: mostly a
/// reactor thread; for a cancelled operation the canceller's own. OnStart and OnTransferred run
/// with the queue locked: they must be short, and must not wait for a thread that uses the same
/// queue. OnComplete runs with no lock held (unless the operation is cancelled from inside an
/// OnStart or OnTransferred). No event may wait for other operations: their queues may be this
/// thread's to drive.
///
/// In each of its events an operation may be cancelled or destroyed, in OnComplete also activated
/// again, alone or with others. An exception from OnStart or OnTransferred ends the queue's present
/// run: the operation stays in the queue, stopped; cancel it. (One that was carried whole ends when
/// the queue next has something to do; one that the same run had timed out or given up is dropped
/// without OnComplete and stays active until it is destroyed.) An exception from OnComplete changes
/// nothing. Each reaches the canceller or, on a reactor thread, the trace log.
///
/// Whoever makes an operation destroys it, unless FreeOnComplete hands it to the queue; never both.
class VELOX_API TTransferOperation : public TObject {
 public:
  /// Inactive, for reading, without channel, buffer and events; AutoTimeout is true, all else 0.
  TTransferOperation() = default;

  /// Cancels the operation when it is active, so that OnComplete is raised; frees a buffer of its
  /// own. When another thread runs an event of it just then, waits for that to return. From here on
  /// activating it, in such an event, does nothing. Exceptions of handlers go to the trace log.
  ~TTransferOperation() override;

  /// True from the moment a queue accepts the operation until just before its OnComplete.
  bool GetActive() const noexcept { return Active_; }

  /// True hands the operation to its channel, with nothing carried yet. Raises Exception, the first
  /// that applies, and stays inactive: "Specify size and buffer for operation. Cannot perform
  /// operation." (the size is below 1, or there is no buffer); "Specify channel for operation.
  /// Cannot perform operation."; "Channel is not active. Cannot perform operation."; "Incorrect
  /// parameters" (the operation is not of the channel's GetOperationClass()). False cancels:
  /// on return OnComplete has run, on the calling thread. An operation whose end is just being
  /// reported, on whatever thread, is left to that. Does nothing when the value is the present one.
  void SetActive(bool Value);

  /// Carries read or write. Default okRead.
  TOperationKind GetKind() const noexcept { return Kind_; }
  void SetKind(TOperationKind Value);

  /// The channel that carries the operation, borrowed; it must outlive the operation's activity.
  /// Default null. The operation must be of the channel's class of operations or derived from it:
  /// TChannel::CreateOperation makes such ones.
  TChannel* GetChannel() const noexcept { return Channel_; }
  void SetChannel(TChannel* Value);

  /// The data. A new pointer is borrowed: an own buffer is freed, SelfAllocated becomes false and
  /// Size 0, so set the size afterwards. (Only when SelfAllocated was true; else the size stays.)
  /// Setting the present pointer does nothing, even while active.
  void* GetBuffer() const noexcept { return Buffer_; }
  void SetBuffer(void* Value);

  /// Bytes to carry. With SelfAllocated the buffer is reallocated: the content is kept up to the
  /// smaller size, 0 frees.
  int32_t GetSize() const noexcept { return Size_; }
  void SetSize(int32_t Value);

  /// Whether the buffer is the operation's own, allocated by SetSize. A change frees an own buffer
  /// and leaves Size 0 and no buffer. Default false.
  bool GetSelfAllocated() const noexcept { return SelfAllocated_; }
  void SetSelfAllocated(bool Value);

  /// Time allowance of the whole operation in milliseconds, used when AutoTimeout is false; each
  /// chunk gets its share by size, and one whose share is less than 1 has no limit. (On sockets and
  /// serial ports a read that waits is a chunk of one byte: to end it after t without a byte, give
  /// t times the size.) 0 (default) is no limit. A negative value is ignored.
  int32_t GetTimeout() const noexcept { return Timeout_; }
  void SetTimeout(int32_t Value);

  /// Computes each chunk's time from the channel's Bandwidth and Latence (TChannel::GetTimeout).
  /// Default true.
  bool GetAutoTimeout() const noexcept { return AutoTimeout_; }
  void SetAutoTimeout(bool Value);

  /// The queue destroys the operation after OnComplete, on the same thread; it must then come from
  /// `new`. One that is active again by then lives on until it completes next. Default false.
  bool GetFreeOnComplete() const noexcept { return FreeOnComplete_; }
  void SetFreeOnComplete(bool Value);

  /// Raised when the first chunk is about to be carried.
  const TOperationNotificationEvent& GetOnStart() const noexcept { return OnStart_; }
  void SetOnStart(const TOperationNotificationEvent& Value);
  /// Raised after each chunk.
  const TOperationTransferEvent& GetOnTransferred() const noexcept { return OnTransferred_; }
  void SetOnTransferred(const TOperationTransferEvent& Value);
  /// Raised once when the operation has left its queue.
  const TOperationNotificationEvent& GetOnComplete() const noexcept { return OnComplete_; }
  void SetOnComplete(const TOperationNotificationEvent& Value);

  /// How far the operation has come.
  TOperationState GetState() const noexcept { return State_; }
  /// Bytes carried so far.
  int32_t GetTransferred() const noexcept { return Transferred_; }
  /// Whether all bytes were carried.
  bool GetSucceeded() const noexcept { return Size_ <= GetTransferred(); }

 protected:
  /// Raises Exception "Cannot change property of active operation" when active.
  void CheckActive() const;

  /// What the destructor does first: cancels, and waits until no event of the operation runs on
  /// another thread. A derived class with a state of its own calls it at the start of its
  /// destructor, while that state still exists.
  void Close() noexcept;

 private:
  friend class TOperationQueue;
  struct TWatch;
  void DoStart();
  void DoTransferred();
  void DoComplete();

  bool SelfAllocated_ = false;
  std::atomic<bool> Active_ = false;
  std::atomic<int32_t> Transferred_ = 0;
  int32_t Size_ = 0;
  void* Buffer_ = nullptr;
  TChannel* Channel_ = nullptr;
  TOperationKind Kind_ = TOperationKind::okRead;
  std::atomic<TOperationState> State_ = TOperationState::osNone;
  TOperationTransferEvent OnTransferred_;
  TOperationNotificationEvent OnComplete_;
  bool FreeOnComplete_ = false;
  TOperationNotificationEvent OnStart_;
  int32_t Timeout_ = 0;
  bool AutoTimeout_ = true;

  /// How often it entered a queue; tells an OnComplete's caller that the handler activated it
  /// again.
  std::atomic<uint32_t> Activations_ = 0;
  /// Has left its queue since it was last activated. While it is active still, it waits for its
  /// OnComplete, or was dropped without one (see TOperationQueue::ExecuteOperationProcess): the
  /// queue has no more to do with it, and the channel may be gone.
  std::atomic<bool> Departed_ = false;
  /// Its destructor has begun: it enters no queue any more.
  std::atomic<bool> Closing_ = false;
  /// Counts its events that are running, which the destructor waits for.
  TPendingGate Events_;
  /// Its OnStart and OnTransferred that are running, the innermost one, and their thread. (Only one
  /// thread at a time holds the queue's lock.) So the destructor can tell that thread's own.
  TWatch* Watch_ = nullptr;
  std::atomic<DWORD> WatchThread_ = 0;
};

struct TQueueShared;

/// A queue that may be destroyed meanwhile, and the part of it that is not. For channels and queues
/// themselves.
struct TQueueReference {
  TOperationQueue* Queue = nullptr;      ///< the queue, while Shared says that it is there
  std::shared_ptr<TQueueShared> Shared;  ///< what outlives it
};

/// The base of all channels: two queues, the on/off switch, and the figures that timeouts are
/// computed from.
///
/// Threads: one thread at a time configures, activates and deactivates; operations may be activated
/// and cancelled on any thread meanwhile. Deactivating or destroying the channel in an operation's
/// OnComplete is allowed; no other thread may be using it then. Destroying it is not, in an event
/// that its own deactivation raises: GetActive() is false in such an OnComplete, and OnDeactivate
/// is one. The destructor waits, alertably, until no OnComplete of an operation runs on another
/// thread any more: two channels must not be destroyed in each other's events.
class VELOX_API TChannel : public TObject {
 public:
  /// The channel is inactive by now: see Close().
  ~TChannel() override;

 protected:
  /// Opens the medium and has the two queues ready.
  virtual void InitializeQueues() = 0;
  /// The reverse; completes every operation still queued.
  virtual void FinalizeQueues() = 0;

 public:
  /// Switching on: opens the medium, then raises OnActivate. When opening fails the exception
  /// passes and the channel stays inactive. Switching off: raises OnDeactivate, then completes all
  /// queued operations (their OnComplete runs on the calling thread, but for those whose transfer
  /// ends just then) and closes the medium. While that is under way, in an OnComplete that it
  /// raises, switching on raises Exception "Channel is being deactivated". Does nothing when the
  /// value is the present one.
  virtual void SetActive(bool Value);
  bool GetActive() const noexcept { return Active_; }

  /// The class of the operations that CreateOperation makes; TTransferOperation here.
  virtual TClass GetOperationClass() const;

  /// Nominal rate, bytes per second, and fixed delay, milliseconds: what the timeouts of operations
  /// with AutoTimeout are computed from. May be set at any time, by any thread. Both default to 0;
  /// a channel whose transfers can stay pending must be given a bandwidth.
  virtual void SetBandwidth(int32_t Value);
  virtual void SetLatence(int32_t Value);
  int32_t GetBandwidth() const noexcept { return Bandwidth_; }
  int32_t GetLatence() const noexcept { return Latence_; }

  /// Milliseconds allowed for a chunk of Size bytes: (Size * 1000 / Bandwidth + Latence) * 12 / 10,
  /// in 32-bit arithmetic that wraps and truncates; 0, no limit, for Size 0. Raises EDivByZero when
  /// Bandwidth is 0.
  int32_t GetTimeout(int32_t Size) const;

  /// A new operation of GetOperationClass() on this channel. The caller owns it (and releases it to
  /// the queue when it sets FreeOnComplete).
  std::unique_ptr<TTransferOperation> CreateOperation();

  /// The queue of a kind; null when the channel has none now. The setter does not free the queue it
  /// replaces. For concrete channels; any thread may activate and cancel operations meanwhile.
  /// Raises Exception "Incorrect parameters" for no kind (its highest bit is ignored).
  TOperationQueue* GetOperationQueues(TOperationKind Kind) const;
  void SetOperationQueues(TOperationKind Kind, TOperationQueue* Queue);

  /// Raised after the channel became active, and before it becomes inactive. Either may be
  /// unassigned.
  TChannelNotificationEvent OnActivate;
  TChannelNotificationEvent OnDeactivate;

 protected:
  /// Inactive.
  TChannel() = default;

  /// Raises Exception "Cannot change active channel" when active. For the setters of what a
  /// connection rests on.
  void CheckActive() const;

  /// SetActive(false) for destructors: exceptions go to the trace log, and the medium is closed all
  /// the same; then it waits for the events that other threads run. Every class that implements
  /// FinalizeQueues calls it at the start of its destructor, while it still can be called.
  void Close() noexcept;

  /// For channels whose queues live no longer than one activation: completes what is queued,
  /// empties the slot and destroys the queue. Operations that other threads are just activating or
  /// cancelling find it gone. Exceptions of handlers go to the trace log.
  void DestroyQueue(TOperationKind Kind) noexcept;

 private:
  friend class TTransferOperation;
  friend class TOperationQueue;
  void Deactivate();
  void AddOperation(TTransferOperation& Operation);
  void DeleteOperation(TTransferOperation& Operation);
  TQueueReference ReferTo(TOperationKind Kind) const;

  std::atomic<bool> Active_ = false;
  std::atomic<bool> Finalizing_ = false;       // FinalizeQueues is under way
  mutable SRWLOCK QueuesLock_ = SRWLOCK_INIT;  // guards the next
  std::array<TOperationQueue*, 2> OperationQueues_{};
  /// Counts the threads that complete operations just now. Queues may outlive the channel.
  const std::shared_ptr<TPendingGate> Events_ = std::make_shared<TPendingGate>();
  std::atomic<int32_t> Latence_ = 0;
  std::atomic<int32_t> Bandwidth_ = 0;
};

/// The engine behind one direction of a channel. Holds the active operations of one kind in order
/// of arrival, carries them strictly one after another in chunks as large as the medium takes,
/// times pending chunks out, and completes operations. It owns no thread: the reactor and the
/// scheduler do all its waiting.
///
/// A concrete queue implements GetAvailableSize and TransferData, and calls DoChannelReady when a
/// chunk that it left pending has ended, or when a medium that had nothing available may have
/// something again. Its destructor begins with Close().
///
/// Threads: everything may be called from any thread. The lock is recursive; it is held during the
/// virtual functions and during OnStart and OnTransferred. The queue may be destroyed from inside
/// any event of its operations (no other thread may be using it then).
class VELOX_API TOperationQueue : public TObject {
 public:
  /// The channel is borrowed. Raises EOSError when the system has no event or timer left.
  explicit TOperationQueue(TChannel& Channel);
  ~TOperationQueue() override;

  /// The channel that the queue belongs to.
  TChannel& GetChannel() const noexcept { return Channel_; }
  /// Operations queued now.
  int32_t GetCount() const;
  /// Position of an operation from the head, or -1.
  int32_t GetOperationIndex(const TTransferOperation& Operation) const;

  /// The queue's lock, which is recursive.
  void Lock() noexcept;
  void Unlock() noexcept;

  /// Appends an operation and has it carried in its turn. (TTransferOperation::SetActive checks and
  /// calls it.) Does nothing when the operation is being destroyed; raises Exception "Channel is
  /// not active. Cannot perform operation.".
  void AddOperation(TTransferOperation& Operation);
  /// Takes an operation out, stopping its transfer when it is the head, and completes it on the
  /// calling thread. Ignores one that is not in the queue.
  void CancelOperation(TTransferOperation& Operation);
  /// Completes every operation, head first, on the calling thread.
  void Finalize();

  /// Has the reactor look for work soon. Costs a system call only when no such look is due already.
  void ScheduleOperationQueueChanged();
  /// Starts what can be started, unless a chunk is pending.
  void DoOperationQueueChanged();
  /// A pending chunk has ended, or the medium may be ready: books the chunk and goes on. Not from
  /// inside TransferData.
  void DoChannelReady(TObject* Sender);

 protected:
  // The medium; each of these runs with the lock held.

  /// Bytes that the chunk which was pending has really moved. Here: the bytes requested.
  virtual int32_t GetActualCompletedSize();
  /// Bytes that the medium can take or deliver for the operation right now; 0 or less: none, the
  /// queue waits for DoChannelReady.
  virtual int32_t GetAvailableSize(const TTransferOperation& Operation) = 0;
  /// Moves up to Size bytes between the medium and Data. True: done, Size is what was moved. False:
  /// started, the end will be told through DoChannelReady.
  virtual bool TransferData(TTransferOperation& Operation, void* Data, int32_t& Size) = 0;
  /// Gives the pending chunk up. An override calls this one, then stops its input or output.
  virtual void CancelTransfer();
  /// Starts the clock for the chunk just left pending: GetTimeout of the chunk's size with
  /// AutoTimeout, else the operation's Timeout by the chunk's share of its size (32-bit arithmetic
  /// that wraps). 0 starts none, so a wait for a medium with nothing available has no limit.
  virtual void StartTimeoutTask(TTransferOperation& Operation);

  /// The size of the chunk in transfer (0 inside TransferData), and whether it is pending.
  int32_t GetTransferSize() const noexcept { return TransferSize_; }
  bool GetTransferPending() const noexcept { return TransferPending_; }

  /// Ends the clock of the former chunk and starts one of Timeout milliseconds; none when 0. Under
  /// the lock.
  void ArmTimeoutTask(int32_t Timeout);
  /// Stops the clock; drops a timeout that has fired and was not handled yet. Under the lock.
  void FinishTimeoutTask();

  /// Completes what is queued, refuses new operations and ends the reactions, so that no thread
  /// calls into the queue any more. Exceptions of handlers go to the trace log. The destructor of a
  /// concrete class calls it first, while the class's own part still exists; later calls do
  /// nothing.
  void Close() noexcept;

  /// The one place where operations leave the queue. Runs the procedures in order under the lock,
  /// taking out after each what it finished; then, with the lock released, completes what was taken
  /// out, in that order. When a procedure raises, the exception passes, and operations that former
  /// procedures took out are dropped: they stay active and get no OnComplete. When several
  /// OnComplete raise, the first exception passes, after all are done.
  void ExecuteOperationProcess(std::initializer_list<TProcessOperationsProcedure> Procedures,
                               TObject* Parameter);

  /// The same for the end of a chunk, on a queue that may be gone; then goes on carrying for as
  /// long as handlers add operations, so that these need no signal through the system. On a reactor
  /// thread that includes what handlers add to other queues.
  static void RunOnReactor(TQueueReference Target,
                           std::initializer_list<TProcessOperationsProcedure> Procedures,
                           TObject* Parameter);

  /// The part of it that is about one queue.
  static void RunTurn(const TQueueReference& Target,
                      std::initializer_list<TProcessOperationsProcedure> Procedures,
                      TObject* Parameter);

  /// For whom may call the queue when it is gone.
  TQueueReference GetReference() const { return {const_cast<TOperationQueue*>(this), Shared_}; }

  /// Procedures for it. The transfer loop: books the pending chunk, starts the next ones. The same
  /// unless a chunk is pending. Taking out the operation that is the parameter.
  void TransferOperationData(int32_t& ACompletedIndex, int32_t& ACompletedCount,
                             TObject* AParameter);
  void TransferOperationDataWhenIdle(int32_t& ACompletedIndex, int32_t& ACompletedCount,
                                     TObject* AParameter);
  void TerminateOperation(int32_t& ACompletedIndex, int32_t& ACompletedCount, TObject* AParameter);

  /// Milliseconds allowed for a chunk of Size bytes of the operation.
  int32_t GetChunkTimeout(const TTransferOperation& Operation, int32_t Size) const;

 private:
  friend class TTransferOperation;
  friend class TChannel;
  using TShared = TQueueShared;
  using TReference = TQueueReference;
  struct TStep;
  struct TTurn;
  class TBatch;

  // Reactions.
  void DoOperationQueueChangedAsync(TObject* Sender);
  void DoOperationTimeout(TObject* Sender);

  static void WaitForEvents(TPendingGate& Events) noexcept;
  static void AddOperation(const TReference& Target, TTransferOperation& Operation);
  static void CancelOperation(const TReference& Target, TTransferOperation& Operation);
  static void Execute(const TReference& Target,
                      std::initializer_list<TProcessOperationsProcedure> Procedures,
                      TObject* Parameter);

  // Procedures. TerminateOperationByIndex takes the index as its parameter.
  void TerminateOperationByIndex(int32_t& ACompletedIndex, int32_t& ACompletedCount,
                                 TObject* AParameter);
  void TerminateTimedOutOperation(int32_t& ACompletedIndex, int32_t& ACompletedCount,
                                  TObject* AParameter);
  void TerminateAllOperations(int32_t& ACompletedIndex, int32_t& ACompletedCount,
                              TObject* AParameter);

  void TransferCompleted(int32_t& Index);
  int32_t GetHead() const noexcept;
  TTransferOperation* StartNextOperation();
  void TransferChunk(TTransferOperation& Operation);
  void TakeCompleted(TBatch& Batch);
  void StartTimer(uint64_t Now);

  /// Makes sure that no completion of the operation is due or running elsewhere (see
  /// TTransferOperation::Close).
  static void Detach(TTransferOperation& Operation) noexcept;
  static void OperationCompleted(TTransferOperation& Operation);

  TChannel& Channel_;
  /// The lock and QueueChangedEvent, which those who are at work when the queue is destroyed
  /// co-own.
  std::shared_ptr<TShared> Shared_;
  THandle TimeoutEvent_;
  std::unique_ptr<TEventTask> TimeoutTask_;
  std::unique_ptr<TEventReaction> QueueChangedReaction_;
  std::unique_ptr<TEventReaction> TimeoutReaction_;

  // Guarded by the lock.
  std::vector<TTransferOperation*> Operations_;  // head first
  int32_t TransferSize_ = 0;
  bool TransferPending_ = false;
  bool TimeoutArmed_ = false;  // there is a limit for the pending chunk
  uint64_t TimeoutDue_ = 0;    // its end, in milliseconds of the performance counter
  uint64_t TimerDue_ = 0;      // when the timer fires next; 0: not set
  TStep* Step_ = nullptr;      // the innermost step at work
};

}  // namespace velox
