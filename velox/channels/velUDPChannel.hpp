#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "velox/channels/velCommonChannel.hpp"
#include "velox/channels/velPendingRequest.hpp"
#include "velox/runtime/velHandle.hpp"
#include "velox/runtime/velObject.hpp"
#include "velox/runtime/velWindows.hpp"

/// Channels over IPv4: datagrams (TUDPChannel, TMulticastChannel) and connections (TTCPChannel).
///
/// Each direction has a block of 1500 bytes between the caller's operation and the socket, and at
/// most one request to the socket at a time. Of a longer datagram only so much is delivered.
/// What a receive brought in beyond the operation's size stays in the block for the next chunk or
/// the next operation, as does what arrives while no operation waits.
///
/// A transfer ends early (GetSucceeded() is false) when its time is up, when the socket reports an
/// error (TIPOperation::GetErrorCode()), or when nothing more can come: the peer of a connection
/// has closed it, which leaves the error code 0. (A datagram sent to a port where nobody listens
/// may end a read of the same channel with error 10054: the system reports it there.)
///
/// Threads. The system tells the end of a request to the thread that made it, while that thread
/// waits alertably. Requests are made by the reactor's threads, which always do; but a thread that
/// drives a queue itself (TOperationQueue::DoOperationQueueChanged) makes them too, and then has to
/// wait alertably, by the library's waits, until the operation is complete.
///
///     TUDPChannel channel;
///     channel.SetPort(5000);
///     channel.SetActive(true);
///     std::unique_ptr<TTransferOperation> made = channel.CreateOperation();
///     auto& operation = static_cast<TIPOperation&>(*made);
///     operation.SetKind(TOperationKind::okWrite);
///     operation.SetAddress("192.168.1.20");
///     operation.SetPort(5001);
///     operation.SetSelfAllocated(true);
///     operation.SetSize(100);
///     std::memcpy(operation.GetBuffer(), bytes, 100);
///     operation.SetActive(true);
namespace velox {

class TIPChannel;
class TIPOperationQueue;
class TTCPChannel;

/// Starts Windows Sockets, version 2.2; done when the library is loaded. Raises EOSError.
VELOX_API void WSAInitialize();
/// The reverse; done when the library is unloaded.
VELOX_API void WSAFinalize() noexcept;

/// A transfer on an IP channel: what TIPChannel::CreateOperation makes.
class VELOX_API TIPOperation : public TTransferOperation {
 public:
  /// As a new TTransferOperation, without address and port.
  TIPOperation() = default;
  ~TIPOperation() override;

  /// Dotted address and port (host order). Writing to a datagram channel: where to. Reading: who
  /// sent the last chunk, to be read in the operation's events or after its end; on a connection
  /// the address that the channel is configured with. The setters raise Exception "Cannot change
  /// property of active operation" when active.
  const std::string& GetAddress() const noexcept { return Address_; }
  void SetAddress(const std::string& Value);
  uint16_t GetPort() const noexcept { return Port_; }
  void SetPort(uint16_t Value);

  /// The socket's error that ended the operation; 0 when the peer's closing of the connection did.
  /// Set by these two ends only: after another end it is still that of an earlier activation, so
  /// look at it when GetSucceeded() is false.
  int32_t GetErrorCode() const noexcept { return ErrorCode_; }

 private:
  friend class TIPOperationQueue;
  friend class TIPOperationQueueForReading;

  std::string Address_;
  uint16_t Port_ = 0;
  int32_t ErrorCode_ = 0;
};

/// The block between an operation and the socket, and the request that the system is working on.
class VELOX_API TIPOperationBuffer : public TPendingRequest {
 public:
  /// Bytes of the block.
  static constexpr uint32_t Size = 1500;

  /// An empty block for this queue.
  explicit TIPOperationBuffer(TIPOperationQueue& AQueue);
  ~TIPOperationBuffer() override;

  /// Reading: the first byte not yet copied out. Writing: the end of the bytes that wait to be
  /// sent.
  char* GetCurrentPosition() const noexcept { return DataBuffer.buf + (Received - Remaining); }

  WSABUF DataBuffer;      // the next request's length, and the block
  DWORD Received = 0;     // reading: by the last receive; writing: kept at Size
  DWORD Remaining = 0;    // reading: not copied out yet; writing: free room
  SOCKADDR_IN Address{};  // reading: the sender; writing: the destination
  int AddressLength = 0;  // given to each request
  /// Of the next receive, and of the last one.
  DWORD Flags = 0;
  /// The queue that the block works for.
  TIPOperationQueue* Queue;

  /// How many there are in the process, for tests.
  static int32_t GetInstanceCount() noexcept;

  // For the queues.

  /// Call before each request, on the thread that makes it.
  void PrepareRequest();
  /// The completion routine of requests.
  static void CALLBACK Completed(DWORD Error, DWORD Transferred, WSAOVERLAPPED* Request,
                                 DWORD Flags);

  /// What the completion routine was told, until the thread handles it.
  struct TCompletion {
    /// The system's error code (0 for none), the bytes carried, and the flags of a receive.
    DWORD Error = 0;
    DWORD Transferred = 0;
    DWORD Flags = 0;
  };
  struct TDelivery;

  /// Has the calling thread handle the end of the request in its next alertable wait. False when
  /// the system has no room for that.
  bool Tell(const TCompletion& Completion) noexcept;

 private:
  static void CALLBACK Handle(ULONG_PTR Buffer);

  const TQueueReference Target_;
  std::unique_ptr<char[]> Block_;
  TCompletion Completion_;
};

/// One direction of an IP channel. Concrete ones say with which call of Windows Sockets a request
/// is made.
class VELOX_API TIPOperationQueue : public TOperationQueue {
 public:
  /// The channel is borrowed.
  explicit TIPOperationQueue(TIPChannel& Channel);
  ~TIPOperationQueue() override;

 protected:
  int32_t GetActualCompletedSize() override { return DoneSize_; }
  bool TransferData(TTransferOperation& Operation, void* Data, int32_t& Size) override;
  void CancelTransfer() override;
  void StartTimeoutTask(TTransferOperation& Operation) override;
  /// A new block, as it is before the first request.
  virtual std::unique_ptr<TIPOperationBuffer> CreateBuffer();
  /// Carries what can be carried now, and makes the next request. Whether the chunk is done.
  virtual bool InternalTransferData() = 0;
  /// A request has ended without or with an error (not 0). Whether there is something to book.
  virtual bool WSACompleted(DWORD Transferred, DWORD Flags, DWORD Error) = 0;
  /// Makes a request. False: it is pending, as it always is; its failure is told like its end.
  virtual bool WSATransferData() = 0;

  /// Gives the buffer up, to its request if it has one, and takes a new one.
  void ReplaceBuffer();
  /// Makes a request with Call, which gets the socket and the completion routine.
  template <class TCall>
  bool Request(const char* Failure, TCall Call);

  /// The channel, as what it is.
  TIPChannel& IPChannel_;
  TIPOperationBuffer* Buffer_ = nullptr;  // frees itself when it is given up with a request
  /// Bytes of the chunk that is being carried.
  int32_t RequestSize_ = 0;
  /// Bytes of it that have been carried.
  int32_t DoneSize_ = 0;
  /// Its place in the operation's buffer.
  char* RequestData_ = nullptr;
  /// The operation that it belongs to.
  TIPOperation* CurrentOperation_ = nullptr;

 private:
  friend class TIPOperationBuffer;
  void TakeDelivery(int32_t& ACompletedIndex, int32_t& ACompletedCount, TObject* AParameter);
  void CarryOn(int32_t& ACompletedIndex, int32_t& ACompletedCount, TObject* AParameter);
};

/// Receives, whatever the protocol.
class VELOX_API TIPOperationQueueForReading : public TIPOperationQueue {
 public:
  using TIPOperationQueue::TIPOperationQueue;

 protected:
  /// 0 while a receive is outstanding, else what is left in the block, but at least 1: the byte
  /// that a receive is started for.
  int32_t GetAvailableSize(const TTransferOperation& Operation) override;
  bool InternalTransferData() override;
  bool WSACompleted(DWORD Transferred, DWORD Flags, DWORD Error) override;

 private:
  void Rescue();
};

/// Sends, whatever the protocol.
class VELOX_API TIPOperationQueueForWriting : public TIPOperationQueue {
 public:
  using TIPOperationQueue::TIPOperationQueue;

 protected:
  /// 0 while a send is outstanding, else the block's size.
  int32_t GetAvailableSize(const TTransferOperation& Operation) override;
  void CancelTransfer() override;
  std::unique_ptr<TIPOperationBuffer> CreateBuffer() override;
  bool InternalTransferData() override;
  bool WSACompleted(DWORD Transferred, DWORD Flags, DWORD Error) override;
};

/// Receives datagrams.
class VELOX_API TUDPOperationQueueForReading : public TIPOperationQueueForReading {
 public:
  using TIPOperationQueueForReading::TIPOperationQueueForReading;
  ~TUDPOperationQueueForReading() override;

 protected:
  bool WSATransferData() override;
};

/// Sends datagrams.
class VELOX_API TUDPOperationQueueForWriting : public TIPOperationQueueForWriting {
 public:
  using TIPOperationQueueForWriting::TIPOperationQueueForWriting;
  ~TUDPOperationQueueForWriting() override;

 protected:
  bool WSATransferData() override;
};

/// Receives on a connection.
class VELOX_API TTCPOperationQueueForReading : public TIPOperationQueueForReading {
 public:
  using TIPOperationQueueForReading::TIPOperationQueueForReading;
  ~TTCPOperationQueueForReading() override;

 protected:
  bool WSATransferData() override;
};

/// Sends on a connection.
class VELOX_API TTCPOperationQueueForWriting : public TIPOperationQueueForWriting {
 public:
  using TIPOperationQueueForWriting::TIPOperationQueueForWriting;
  ~TTCPOperationQueueForWriting() override;

 protected:
  bool WSATransferData() override;
};

/// What datagram channels and connections share: a port and a socket. Latence is 100 ms, Bandwidth
/// 1 MiB/s. So with AutoTimeout a read on which nothing arrives ends after 120 ms.
class VELOX_API TIPChannel : public TChannel {
 public:
  TClass GetOperationClass() const override;

 protected:
  /// Inactive.
  TIPChannel();

  /// Opens the socket. Raises EOSError.
  void InitializeQueues() override;
  /// Closes the socket, then completes what is queued, writes first, and destroys the queues.
  void FinalizeQueues() override;

  /// An open socket for overlapped requests, or INVALID_SOCKET with the reason as last error.
  virtual SOCKET CreateSocket() = 0;

 public:
  /// In host order. Datagrams: the local port, 0 for one that the system chooses. Connections: the
  /// peer's. Default 0. Raises Exception "Cannot change active channel" when active.
  virtual void SetPort(uint16_t Value);
  uint16_t GetPort() const noexcept { return Port_; }

  /// INVALID_SOCKET while the channel has none.
  SOCKET GetSocket() const noexcept { return Socket_; }

 protected:
  /// Closes the channel's socket, if it has one, once no request is being made with it.
  void CloseSocket() noexcept;
  /// Takes a socket as the channel's own.
  void AdoptSocket(SOCKET Socket) noexcept;

 private:
  friend class TIPOperationQueue;

  uint16_t Port_ = 0;
  // A request is made with SocketLock_ shared, so that no other socket can have got the number
  // meanwhile.
  SRWLOCK SocketLock_ = SRWLOCK_INIT;
  SOCKET Socket_ = INVALID_SOCKET;
};

/// Datagrams from and to any address. A write goes out in datagrams of at most 1500 bytes.
class VELOX_API TUDPChannel : public TIPChannel {
 public:
  /// Inactive; the system will choose the port.
  TUDPChannel() = default;
  ~TUDPChannel() override;

  /// Kept for the user's own purposes: it is not given to the socket. Default 64. Raises Exception
  /// "Cannot change active channel" when active.
  int32_t GetTTL() const noexcept { return TTL_; }
  void SetTTL(int32_t Value);

 protected:
  void InitializeQueues() override;
  SOCKET CreateSocket() override;
  /// Binds the channel's socket to the port on all local addresses. Raises EOSError.
  virtual void BindSocket();

 private:
  int32_t TTL_ = 64;
};

/// A datagram channel that joins a multicast group, and may share its port with others.
class VELOX_API TMulticastChannel : public TUDPChannel {
 public:
  /// Inactive, without a group.
  TMulticastChannel() = default;
  ~TMulticastChannel() override;

  /// As TTL: kept only. Default 1.
  int32_t GetMulticastTTL() const noexcept { return MulticastTTL_; }
  void SetMulticastTTL(int32_t Value);

  /// The group's dotted address, joined on the default interface when the channel is activated. A
  /// group that can't be joined is told in the trace log only. Default empty. The setter raises
  /// Exception "Cannot change active channel" when active.
  const std::string& GetMulticastGroup() const noexcept { return MulticastGroup_; }
  void SetMulticastGroup(const std::string& Value);

 protected:
  void BindSocket() override;

 private:
  int32_t MulticastTTL_ = 1;
  std::string MulticastGroup_;
};

/// One connection: made by connecting to an address when the channel is activated, or taken over
/// from a server by Accept.
class VELOX_API TTCPChannel : public TIPChannel {
 public:
  /// Inactive, without an address.
  TTCPChannel();
  ~TTCPChannel() override;

  void SetPort(uint16_t Value) override;

  /// Where to connect to: a dotted address or a host's name, which is looked up at once and may
  /// take its time. Raises Exception "Cannot change active channel" when active, and EOSError when
  /// the name is not found.
  const std::string& GetStringAddress() const noexcept { return StringAddress_; }
  void SetStringAddress(const std::string& Value);

  /// The address in network order, with the port.
  const SOCKADDR_IN& GetRemoteAddress() const noexcept { return RemoteAddress_; }

  /// Milliseconds that SetActive(true) may take to connect; then it raises Exception "Connection
  /// timeout (ADDRESS:PORT)". 0 (default) or less: as long as the system tries. A connection that
  /// is refused raises EOSError in either case.
  int32_t GetConnectionTimeout() const noexcept { return ConnectionTimeout_; }
  void SetConnectionTimeout(int32_t Value) noexcept { ConnectionTimeout_ = Value; }

  /// Takes over a connected socket, which the next activation uses, and closes one that the channel
  /// had. From then on the channel is one for accepted sockets: it does not connect any more, and
  /// each activation needs another socket, else it raises EOSError. Address is not used: the
  /// channel's addresses stay what they are. Raises Exception "Cannot change active channel" when
  /// active; the socket is then still the caller's.
  void Accept(SOCKET Socket, const SOCKADDR_IN& Address);
  bool GetAccepted() const noexcept { return Accepted_; }

 protected:
  void InitializeQueues() override;
  SOCKET CreateSocket() override;

 private:
  void Connect();
  void ConnectInTime();

  std::string StringAddress_;
  SOCKADDR_IN RemoteAddress_{};
  bool Accepted_ = false;
  int32_t ConnectionTimeout_ = 0;
};

}  // namespace velox
