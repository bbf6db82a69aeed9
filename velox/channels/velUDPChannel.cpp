#include "velox/channels/velUDPChannel.hpp"

#include <algorithm>
#include <atomic>
#include <cstring>

#include "velox/channels/velSocket.hpp"
#include "velox/foundation/velSyncUtils.hpp"
#include "velox/foundation/velSysUtils.hpp"
#include "velox/foundation/velTrace.hpp"
#include "velox/runtime/velCallbackGuard.hpp"
#include "velox/runtime/velException.hpp"
#include "velox/runtime/velFormat.hpp"
#include "velox/runtime/velModules.hpp"
#include "velox/runtime/velSharedLock.hpp"

namespace velox {
namespace {

std::string DottedText(const SOCKADDR_IN& Address) {
  const auto* octets = reinterpret_cast<const uint8_t*>(&Address.sin_addr);
  return Format("%u.%u.%u.%u", octets[0], octets[1], octets[2], octets[3]);
}

SOCKADDR_IN MakeAddress(uint32_t NetworkOrder, uint16_t Port) noexcept {
  SOCKADDR_IN address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(Port);
  address.sin_addr.s_addr = NetworkOrder;
  return address;
}

std::atomic<int32_t> BufferCount{0};

}  // namespace

void WSAInitialize() {
  TTracer::GetInstance();
  WSADATA data;
  const int error = ::WSAStartup(MAKEWORD(2, 2), &data);
  if (error != 0) RaiseLastOSErrorEx(error);
}

void WSAFinalize() noexcept { ::WSACleanup(); }

void modules::InitializeUDPChannel() { WSAInitialize(); }

void modules::FinalizeUDPChannel() noexcept { WSAFinalize(); }

// --- Operations ---

TIPOperation::~TIPOperation() { Close(); }

void TIPOperation::SetAddress(const std::string& Value) {
  CheckActive();
  Address_ = Value;
}

void TIPOperation::SetPort(uint16_t Value) {
  CheckActive();
  Port_ = Value;
}

// --- Buffers ---

// The end of a request on its way to the queue.
struct TIPOperationBuffer::TDelivery : TObject {
  explicit TDelivery(TIPOperationBuffer& ABuffer) noexcept
      : Buffer(&ABuffer), Completion(ABuffer.Completion_) {}
  TIPOperationBuffer* Buffer;
  TCompletion Completion;
  bool Taken = false;
  bool EndedOperation = false;
};

TIPOperationBuffer::TIPOperationBuffer(TIPOperationQueue& AQueue)
    : Queue(&AQueue), Target_(AQueue.GetReference()), Block_(std::make_unique<char[]>(Size)) {
  DataBuffer = {Size, Block_.get()};
  ++BufferCount;
}

TIPOperationBuffer::~TIPOperationBuffer() { --BufferCount; }

int32_t TIPOperationBuffer::GetInstanceCount() noexcept { return BufferCount; }

void TIPOperationBuffer::PrepareRequest() {
  TPendingRequest::PrepareRequest();
  AddressLength = sizeof Address;
}

/// The completion routine: runs inside a wait of the system, so it only notes what it is told and
/// has the thread's next wait handle it.
void CALLBACK TIPOperationBuffer::Completed(DWORD Error, DWORD Transferred, WSAOVERLAPPED* Request,
                                            DWORD Flags) {
  auto* const buffer = static_cast<TIPOperationBuffer*>(Of(Request));
  if (buffer->Tell({Error, Transferred, Flags})) return;
  GuardCallback([buffer] { Handle(reinterpret_cast<ULONG_PTR>(buffer)); });
}

bool TIPOperationBuffer::Tell(const TCompletion& Completion) noexcept {
  Completion_ = Completion;
  const auto data = reinterpret_cast<ULONG_PTR>(this);
  return TraceAndQueueUserAPC(&Handle, ::GetCurrentThread(), data) != 0;
}

void CALLBACK TIPOperationBuffer::Handle(ULONG_PTR Buffer) {
  auto* const buffer = reinterpret_cast<TIPOperationBuffer*>(Buffer);
  if (buffer->Leave(false)) return;
  TDelivery delivery(*buffer);
  TIPOperationQueue* const queue = buffer->Queue;
  struct TLeave {
    ~TLeave() {
      if (!Delivery.Taken) Delivery.Buffer->Leave(true);
    }
    TDelivery& Delivery;
  };
  const TLeave leave{delivery};  // an event of the operation may raise
  TIPOperationQueue::RunOnReactor(
      buffer->Target_,
      {TProcessOperationsProcedure::Bind<&TIPOperationQueue::TakeDelivery>(queue),
       TProcessOperationsProcedure::Bind<&TIPOperationQueue::CarryOn>(queue)},
      &delivery);
}

// --- Queues ---

TIPOperationQueue::TIPOperationQueue(TIPChannel& Channel)
    : TOperationQueue(Channel), IPChannel_(Channel) {}

TIPOperationQueue::~TIPOperationQueue() {
  if (Buffer_ != nullptr) Buffer_->Orphan();
}

std::unique_ptr<TIPOperationBuffer> TIPOperationQueue::CreateBuffer() {
  return std::make_unique<TIPOperationBuffer>(*this);
}

void TIPOperationQueue::ReplaceBuffer() {
  TIPOperationBuffer* const fresh = CreateBuffer().release();
  if (Buffer_ != nullptr) Buffer_->Orphan();
  Buffer_ = fresh;
}

bool TIPOperationQueue::TransferData(TTransferOperation& Operation, void* Data, int32_t& Size) {
  RequestSize_ = Size;
  DoneSize_ = 0;
  RequestData_ = static_cast<char*>(Data);
  CurrentOperation_ = &static_cast<TIPOperation&>(Operation);
  return InternalTransferData();
}

void TIPOperationQueue::CancelTransfer() {
  TOperationQueue::CancelTransfer();
  RequestSize_ = 0;
  DoneSize_ = 0;
  RequestData_ = nullptr;
  CurrentOperation_ = nullptr;
}

/// An operation that has to wait for the receive of one before it waits for a byte, like any other.
void TIPOperationQueue::StartTimeoutTask(TTransferOperation& Operation) {
  ArmTimeoutTask(GetChunkTimeout(Operation, std::max(1, GetTransferSize())));
}

/// First thing when a request has ended: an error, or nothing at all, ends the operation. (A
/// datagram that was cut off to the block's size is no error.)
void TIPOperationQueue::TakeDelivery(int32_t& ACompletedIndex, int32_t& ACompletedCount,
                                     TObject* AParameter) {
  auto& delivery = *static_cast<TIPOperationBuffer::TDelivery*>(AParameter);
  if (delivery.Buffer != Buffer_) return;
  delivery.Taken = true;
  Buffer_->Pending = false;
  Buffer_->Flags = delivery.Completion.Flags;
  if (delivery.Completion.Error == WSAEMSGSIZE && delivery.Completion.Transferred != 0)
    delivery.Completion.Error = 0;
  if (delivery.Completion.Error == 0 && delivery.Completion.Transferred != 0) return;
  TIPOperation* const operation = CurrentOperation_;
  if (operation == nullptr || GetOperationIndex(*operation) < 0) return;
  operation->ErrorCode_ = static_cast<int32_t>(delivery.Completion.Error);
  delivery.EndedOperation = true;
  TerminateOperation(ACompletedIndex, ACompletedCount, operation);
}

/// Then: the bytes are booked, and the next request is made; after an operation that was ended,
/// only when it has been told so.
void TIPOperationQueue::CarryOn(int32_t& ACompletedIndex, int32_t& ACompletedCount,
                                TObject* AParameter) {
  const auto& delivery = *static_cast<TIPOperationBuffer::TDelivery*>(AParameter);
  const TIPOperationBuffer::TCompletion& ended = delivery.Completion;
  if (delivery.EndedOperation) return ScheduleOperationQueueChanged();
  if (delivery.Taken && WSACompleted(ended.Transferred, ended.Flags, ended.Error))
    TransferOperationData(ACompletedIndex, ACompletedCount, nullptr);
}

/// A failure reaches the operation in the same way as the end of a request. Should the system have
/// no room to tell it, the operation ends when its time is up.
template <class TCall>
bool TIPOperationQueue::Request(const char* Failure, TCall Call) {
  Buffer_->PrepareRequest();
  Buffer_->Pending = true;
  int error = 0;
  {
    const TForReading guard(IPChannel_.SocketLock_);
    if (Call(IPChannel_.Socket_) != 0) error = ::WSAGetLastError();
  }
  if (error == 0 || error == WSA_IO_PENDING) return false;
  ::SetLastError(static_cast<DWORD>(error));
  TraceOSError(Failure);
  Buffer_->Pending = Buffer_->Tell({static_cast<DWORD>(error), 0, 0});
  return false;
}

int32_t TIPOperationQueueForReading::GetAvailableSize(const TTransferOperation&) {
  if (Buffer_ != nullptr && Buffer_->IsForsaken()) Rescue();
  if (Buffer_ == nullptr) ReplaceBuffer();
  if (Buffer_->Pending) return 0;
  return static_cast<int32_t>(std::max<DWORD>(1, Buffer_->Remaining));
}

/// The end of a request that a thread made which has ended itself is never told; but the request
/// may have brought something.
void TIPOperationQueueForReading::Rescue() {
  const auto brought = static_cast<DWORD>(Buffer_->Overlapped.InternalHigh);
  if (Buffer_->Overlapped.Internal != 0 || brought == 0 || brought > TIPOperationBuffer::Size)
    return ReplaceBuffer();
  Buffer_->Pending = false;
  Buffer_->Received = Buffer_->Remaining = brought;
}

bool TIPOperationQueueForReading::InternalTransferData() {
  while (!Buffer_->Pending && DoneSize_ < RequestSize_) {
    if (Buffer_->Remaining == 0) {
      WSATransferData();
      return false;
    }
    const DWORD size = std::min(Buffer_->Remaining, static_cast<DWORD>(RequestSize_ - DoneSize_));
    std::memcpy(RequestData_ + DoneSize_, Buffer_->GetCurrentPosition(), size);
    Buffer_->Remaining -= size;
    DoneSize_ += static_cast<int32_t>(size);
    CurrentOperation_->Address_ = DottedText(Buffer_->Address);
    CurrentOperation_->Port_ = ntohs(Buffer_->Address.sin_port);
  }
  return !Buffer_->Pending;
}

bool TIPOperationQueueForReading::WSACompleted(DWORD Transferred, DWORD, DWORD Error) {
  if (Error == 0) Buffer_->Received = Buffer_->Remaining = Transferred;
  // Without an open request, an operation may wait for the receive of one before it.
  return RequestData_ == nullptr || InternalTransferData();
}

int32_t TIPOperationQueueForWriting::GetAvailableSize(const TTransferOperation&) {
  if (Buffer_ == nullptr) ReplaceBuffer();
  return Buffer_->Pending ? 0 : static_cast<int32_t>(TIPOperationBuffer::Size);
}

/// What was handed to the system can't be taken back: the send keeps its buffer.
void TIPOperationQueueForWriting::CancelTransfer() {
  TIPOperationQueue::CancelTransfer();
  if (Buffer_ == nullptr) return;
  Buffer_->Orphan();
  Buffer_ = nullptr;  // the next chunk takes a new one
}

std::unique_ptr<TIPOperationBuffer> TIPOperationQueueForWriting::CreateBuffer() {
  auto buffer = TIPOperationQueue::CreateBuffer();
  buffer->Received = buffer->Remaining = TIPOperationBuffer::Size;
  return buffer;
}

bool TIPOperationQueueForWriting::InternalTransferData() {
  if (Buffer_->Pending) return false;
  const auto waiting = static_cast<int32_t>(TIPOperationBuffer::Size - Buffer_->Remaining);
  const int32_t rest = RequestSize_ - DoneSize_ - waiting;
  if (rest > 0) {
    const DWORD size = std::min(Buffer_->Remaining, static_cast<DWORD>(rest));
    std::memcpy(Buffer_->GetCurrentPosition(), RequestData_ + DoneSize_ + waiting, size);
    Buffer_->Remaining -= size;
  }
  if (Buffer_->Remaining == TIPOperationBuffer::Size) return true;
  WSATransferData();
  return false;
}

bool TIPOperationQueueForWriting::WSACompleted(DWORD Transferred, DWORD, DWORD Error) {
  if (Error != 0 || Buffer_ == nullptr) return true;
  const DWORD waiting = TIPOperationBuffer::Size - Buffer_->Remaining;
  const DWORD sent = std::min(Transferred, waiting);
  std::memmove(Buffer_->DataBuffer.buf, Buffer_->DataBuffer.buf + sent, waiting - sent);
  Buffer_->Remaining += sent;
  DoneSize_ += static_cast<int32_t>(sent);
  return InternalTransferData();
}

TUDPOperationQueueForReading::~TUDPOperationQueueForReading() { Close(); }

bool TUDPOperationQueueForReading::WSATransferData() {
  return Request("[TUDPOperationQueueForReading].[WSATransferData] WSARecvFrom error",
                 [&b = *Buffer_](SOCKET Socket) {
                   b.DataBuffer.len = TIPOperationBuffer::Size;
                   b.Flags = 0;
                   return ::WSARecvFrom(Socket, &b.DataBuffer, 1, &b.Received, &b.Flags,
                                        reinterpret_cast<SOCKADDR*>(&b.Address), &b.AddressLength,
                                        &b.Overlapped, &TIPOperationBuffer::Completed);
                 });
}

TUDPOperationQueueForWriting::~TUDPOperationQueueForWriting() { Close(); }

bool TUDPOperationQueueForWriting::WSATransferData() {
  const std::string& text = CurrentOperation_->GetAddress();
  const uint32_t address = ::inet_addr(text.c_str());
  const bool isAddress = address != INADDR_NONE || text == "255.255.255.255";
  Buffer_->Address = MakeAddress(address, CurrentOperation_->GetPort());
  return Request("[TUDPOperationQueueForWriting].[WSATransferData] WSASendTo error",
                 [&b = *Buffer_, isAddress](SOCKET Socket) {
                   if (!isAddress) {
                     ::WSASetLastError(WSAEADDRNOTAVAIL);
                     return SOCKET_ERROR;
                   }
                   b.DataBuffer.len = TIPOperationBuffer::Size - b.Remaining;
                   DWORD sent;  // told once more at the end
                   return ::WSASendTo(Socket, &b.DataBuffer, 1, &sent, 0,
                                      reinterpret_cast<SOCKADDR*>(&b.Address), b.AddressLength,
                                      &b.Overlapped, &TIPOperationBuffer::Completed);
                 });
}

namespace {

const SOCKADDR_IN& PeerOf(const TIPChannel& Channel) noexcept {
  return static_cast<const TTCPChannel&>(Channel).GetRemoteAddress();
}

}  // namespace

TTCPOperationQueueForReading::~TTCPOperationQueueForReading() { Close(); }

bool TTCPOperationQueueForReading::WSATransferData() {
  Buffer_->Address = PeerOf(IPChannel_);
  return Request("[TTCPOperationQueueForReading].[WSATransferData] WSARecv error",
                 [&b = *Buffer_](SOCKET Socket) {
                   b.DataBuffer.len = TIPOperationBuffer::Size;
                   b.Flags = 0;
                   return ::WSARecv(Socket, &b.DataBuffer, 1, &b.Received, &b.Flags, &b.Overlapped,
                                    &TIPOperationBuffer::Completed);
                 });
}

TTCPOperationQueueForWriting::~TTCPOperationQueueForWriting() { Close(); }

bool TTCPOperationQueueForWriting::WSATransferData() {
  Buffer_->Address = PeerOf(IPChannel_);
  return Request("[TTCPOperationQueueForWriting].[WSATransferData] WSASend error",
                 [&b = *Buffer_](SOCKET Socket) {
                   b.DataBuffer.len = TIPOperationBuffer::Size - b.Remaining;
                   DWORD sent;  // told once more at the end
                   return ::WSASend(Socket, &b.DataBuffer, 1, &sent, 0, &b.Overlapped,
                                    &TIPOperationBuffer::Completed);
                 });
}

// --- Channels ---

TIPChannel::TIPChannel() {
  TIPChannel::SetLatence(100);
  TIPChannel::SetBandwidth(1048576);
}

TClass TIPChannel::GetOperationClass() const { return TClass::Of<TIPOperation>(); }

void TIPChannel::SetPort(uint16_t Value) {
  CheckActive();
  Port_ = Value;
}

void TIPChannel::InitializeQueues() {
  AdoptSocket(CreateSocket());
  if (Socket_ == INVALID_SOCKET) RaiseLastOSError();
}

void TIPChannel::FinalizeQueues() {
  CloseSocket();  // which ends the outstanding requests
  DestroyQueue(TOperationKind::okWrite);
  DestroyQueue(TOperationKind::okRead);
}

void TIPChannel::AdoptSocket(SOCKET Socket) noexcept {
  const TForWriting guard(SocketLock_);
  Socket_ = Socket;
}

void TIPChannel::CloseSocket() noexcept {
  const TForWriting guard(SocketLock_);
  if (Socket_ != INVALID_SOCKET) ::closesocket(std::exchange(Socket_, INVALID_SOCKET));
}

TUDPChannel::~TUDPChannel() { Close(); }

void TUDPChannel::SetTTL(int32_t Value) {
  CheckActive();
  TTL_ = Value;
}

void TUDPChannel::InitializeQueues() {
  TIPChannel::InitializeQueues();
  try {
    SetOperationQueues(TOperationKind::okRead, new TUDPOperationQueueForReading(*this));
    SetOperationQueues(TOperationKind::okWrite, new TUDPOperationQueueForWriting(*this));
  } catch (...) {
    TIPChannel::FinalizeQueues();
    throw;
  }
}

SOCKET TUDPChannel::CreateSocket() {
  const SOCKET socket = OverlappedSocket(SOCK_DGRAM, IPPROTO_UDP);
  if (socket == INVALID_SOCKET) return socket;
  AdoptSocket(socket);
  try {
    BindSocket();
  } catch (...) {
    CloseSocket();
    throw;
  }
  return socket;
}

void TUDPChannel::BindSocket() {
  const SOCKADDR_IN address = MakeAddress(INADDR_ANY, GetPort());
  if (::bind(GetSocket(), reinterpret_cast<const SOCKADDR*>(&address), sizeof address) != 0)
    RaiseLastOSError();
}

TMulticastChannel::~TMulticastChannel() { Close(); }

void TMulticastChannel::SetMulticastTTL(int32_t Value) {
  CheckActive();
  MulticastTTL_ = Value;
}

void TMulticastChannel::SetMulticastGroup(const std::string& Value) {
  CheckActive();
  MulticastGroup_ = Value;
}

void TMulticastChannel::BindSocket() {
  const auto setOption = [this](int Level, int Name, const auto& Value,
                                const std::string& Failure) {
    if (::setsockopt(GetSocket(), Level, Name, reinterpret_cast<const char*>(&Value),
                     sizeof Value) != 0)
      TraceOSError(Failure);
  };
  const BOOL on = TRUE;
  setOption(SOL_SOCKET, SO_REUSEADDR, on, "Cannot reuse multicast address");
  setOption(SOL_SOCKET, SO_BROADCAST, on, "Cannot enable network broadcast");
  TUDPChannel::BindSocket();
  ip_mreq group{};
  group.imr_multiaddr.s_addr = ::inet_addr(MulticastGroup_.c_str());
  group.imr_interface.s_addr = INADDR_ANY;
  setOption(IPPROTO_IP, IP_ADD_MEMBERSHIP, group,
            Format("Cannot add membership for multicast group \"%s\"", MulticastGroup_.c_str()));
}

TTCPChannel::TTCPChannel() { RemoteAddress_.sin_family = AF_INET; }

TTCPChannel::~TTCPChannel() {
  Close();
  CloseSocket();  // one that was accepted and never used
}

void TTCPChannel::SetPort(uint16_t Value) {
  TIPChannel::SetPort(Value);
  RemoteAddress_.sin_port = htons(Value);
}

void TTCPChannel::SetStringAddress(const std::string& Value) {
  CheckActive();
  StringAddress_ = Value;
  uint32_t address = ::inet_addr(Value.c_str());
  if (address == INADDR_NONE) {
    const hostent* const host = ::gethostbyname(Value.c_str());
    if (host == nullptr) RaiseLastOSError();
    std::memcpy(&address, host->h_addr_list[0], sizeof address);
  }
  RemoteAddress_.sin_addr.s_addr = address;
}

void TTCPChannel::Accept(SOCKET Socket, const SOCKADDR_IN&) {
  CheckActive();
  CloseSocket();
  AdoptSocket(Socket);
  Accepted_ = true;
}

SOCKET TTCPChannel::CreateSocket() {
  if (!Accepted_) return OverlappedSocket(SOCK_STREAM, IPPROTO_TCP);
  if (GetSocket() == INVALID_SOCKET) ::SetLastError(WSAENOTSOCK);  // closed by a deactivation
  return GetSocket();
}

void TTCPChannel::InitializeQueues() {
  TIPChannel::InitializeQueues();
  try {
    SetOperationQueues(TOperationKind::okRead, new TTCPOperationQueueForReading(*this));
    SetOperationQueues(TOperationKind::okWrite, new TTCPOperationQueueForWriting(*this));
    if (!Accepted_) Connect();
  } catch (...) {
    TIPChannel::FinalizeQueues();
    throw;
  }
}

void TTCPChannel::Connect() {
  if (ConnectionTimeout_ > 0) return ConnectInTime();
  const auto* address = reinterpret_cast<const SOCKADDR*>(&RemoteAddress_);
  if (::connect(GetSocket(), address, sizeof RemoteAddress_) != 0) RaiseLastOSError();
}

void TTCPChannel::ConnectInTime() {
  const THandle event(::WSACreateEvent());
  if (!event) RaiseLastOSError();
  if (::WSAEventSelect(GetSocket(), event.Get(), FD_CONNECT) != 0) RaiseLastOSError();
  const auto* address = reinterpret_cast<const SOCKADDR*>(&RemoteAddress_);
  if (::connect(GetSocket(), address, sizeof RemoteAddress_) != 0 &&
      ::WSAGetLastError() != WSAEWOULDBLOCK)
    RaiseLastOSError();

  const HANDLE handles[] = {event.Get()};
  const uint64_t due = ::GetTickCount64() + static_cast<uint64_t>(ConnectionTimeout_);
  DWORD result;
  do {
    const uint64_t now = ::GetTickCount64();
    result = WaitAlertableOnce(handles, now < due ? static_cast<DWORD>(due - now) : 0);
  } while (result == WAIT_IO_COMPLETION);
  if (result == WAIT_TIMEOUT)
    throw Exception(Format("Connection timeout (%s:%d)", StringAddress_.c_str(), GetPort()));
  if (result != WAIT_OBJECT_0) RaiseLastOSError();

  WSANETWORKEVENTS events;
  if (::WSAEnumNetworkEvents(GetSocket(), event.Get(), &events) != 0) RaiseLastOSError();
  const int error = events.iErrorCode[FD_CONNECT_BIT];
  if (error != 0) RaiseLastOSErrorEx(error);
  ::WSAEventSelect(GetSocket(), nullptr, 0);  // the event is about to go
}

}  // namespace velox
