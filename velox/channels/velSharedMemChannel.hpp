#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "velox/channels/velCommonChannel.hpp"
#include "velox/containers/velCyclicBuffer.hpp"

namespace velox {

/// Which end of the channel this one is.
enum class TChannelMode : uint8_t {
  cmServer = 0,  ///< creates the shared memory
  cmClient = 1   ///< opens what the server has created
};

/// One direction of a TSharedMemChannel: a ring buffer in shared memory, and two events by which
/// its two ends wake each other. Every chunk is copied at once, on the reactor thread, while the
/// lock between the processes is held.
class VELOX_API TSharedMemOperationQueue : public TOperationQueue {
 public:
  /// Opens the direction's kernel objects. Raises EOSError; the events, when made by then, are kept
  /// until the next call, or ReleaseMemory. Raises Exception "Incorrect parameters" for a size
  /// above 2,147,483,635.
  void CreateMemory(const std::string& Name, int32_t Size, TChannelMode Mode);
  /// Does nothing any more when the other end wakes this one: of an activation that went no
  /// further.
  void IgnoreRemote() noexcept;
  /// Closes them. Waits for the reaction on the event to end, unless called from inside it.
  void ReleaseMemory() noexcept;

  /// Half the capacity, in bytes: how far a full buffer must drain before its writer is woken.
  int32_t GetResumeThreshold() const noexcept { return ResumeThreshold_; }

 protected:
  /// The channel is borrowed.
  explicit TSharedMemOperationQueue(TChannel& Channel) : TOperationQueue(Channel) {}
  ~TSharedMemOperationQueue() override;

  /// Wakes the other end.
  void SignalRemote() const noexcept { ::SetEvent(RemoteReadyEvent_.Get()); }

  /// The ring; null while the channel is inactive. Guarded by the queue's lock.
  std::unique_ptr<TSharedMemBuffer> Buffer_;

 private:
  int32_t ResumeThreshold_ = 0;
  THandle ReadyEvent_;        // this side waits on it
  THandle RemoteReadyEvent_;  // this side wakes the other with it
  std::unique_ptr<TEventReaction> ReadyReaction_;
};

/// What takes data out of the ring that the other end fills.
class VELOX_API TSharedMemOperationQueueForReading : public TSharedMemOperationQueue {
 public:
  /// The channel is borrowed.
  explicit TSharedMemOperationQueueForReading(TChannel& Channel)
      : TSharedMemOperationQueue(Channel) {}
  ~TSharedMemOperationQueueForReading() override;

 protected:
  /// Bytes in the buffer, as seen without taking the lock. (That would be two requests to the
  /// system, and what counts is what TransferData finds.)
  int32_t GetAvailableSize(const TTransferOperation& Operation) override;
  bool TransferData(TTransferOperation& Operation, void* Data, int32_t& Size) override;

 private:
  bool RemoteBlocked_ = false;  // the buffer was seen full: the writer may be waiting for room
};

/// What puts data into the ring that the other end empties.
class VELOX_API TSharedMemOperationQueueForWriting : public TSharedMemOperationQueue {
 public:
  /// The channel is borrowed.
  explicit TSharedMemOperationQueueForWriting(TChannel& Channel)
      : TSharedMemOperationQueue(Channel) {}
  ~TSharedMemOperationQueueForWriting() override;

 protected:
  /// The whole capacity less one byte, whatever the reader has taken.
  int32_t GetAvailableSize(const TTransferOperation& Operation) override;
  bool TransferData(TTransferOperation& Operation, void* Data, int32_t& Size) override;
};

/// A channel between two processes of one machine (or two places in one process): a ring buffer in
/// named shared memory for each direction. One end is the server: it is activated first, and
/// creates the memory. The client opens it.
///
///     TSharedMemChannel channel;
///     channel.SetMemoryName("Global\\Meter");
///     channel.SetMemorySize(64 * 1024);
///     channel.SetMode(TChannelMode::cmClient);
///     channel.SetActive(true);
///
/// It favours a live producer over a slow consumer: a writer never waits (but for ever when the
/// server's memory is of one byte, which holds none). A reader that falls
/// behind by the buffer's capacity or more loses the oldest bytes it has not read. Who must not
/// lose any has the reader acknowledge through the other direction, and keeps less than the
/// capacity outstanding.
///
/// A read waits for data without limit, a write ends at once: Timeout and AutoTimeout have no
/// effect. That the other end has gone is not noticed.
///
/// One server and one client a name; a second one is not refused, and they would share the same
/// memory.
///
/// Names, for M the memory's name. Data from the client to the server goes through the mapping
/// "MRead", guarded by the mutex "MReadMutex"; the server waits on the event "MReadReadyEvent", the
/// client on "MReadRemoteReadyEvent". The other way it is "MWrite", "MWriteMutex", and the client
/// waits on "MWriteRemoteReadyEvent", the server on "MWriteReadyEvent".
///
/// The setters raise Exception "Cannot change active channel" when active. Activation raises
/// Exception "Specify name of shared memory." or "Specify size of shared memory.", "Incorrect
/// parameters" for a server's size above 2,147,483,635, and EOSError when the system refuses: of
/// the client, when there is no server.
///
/// Cost: the two queues, with their four reactions, exist from construction on and are kept when
/// the channel is destroyed, until the process ends. So use a channel again (with another name, if
/// need be) rather than making new ones without end.
class VELOX_API TSharedMemChannel : public TChannel {
 public:
  /// Bandwidth is 1048576 bytes per second, Latence 0.
  TSharedMemChannel();
  ~TSharedMemChannel() override;

  /// Begins the names of the channel's kernel objects. No default.
  void SetMemoryName(const std::string& Value);
  const std::string& GetMemoryName() const noexcept { return MemoryName_; }

  /// Bytes that each direction's buffer has; it holds one less. The server's value counts; the
  /// client's, which has to be positive too, decides only how far the client lets a full buffer
  /// drain before it wakes the server. No default.
  void SetMemorySize(int32_t Value);
  int32_t GetMemorySize() const noexcept { return MemorySize_; }

  /// Default cmServer.
  void SetMode(TChannelMode Value);
  TChannelMode GetMode() const noexcept { return Mode_; }

 protected:
  void InitializeQueues() override;
  void FinalizeQueues() override;

 private:
  int32_t MemorySize_ = 0;
  std::string MemoryName_;
  TChannelMode Mode_ = TChannelMode::cmServer;
};

}  // namespace velox
