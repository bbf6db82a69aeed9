#include "velox/channels/velTCPServer.hpp"

#include <algorithm>
#include <cstring>
#include <span>

#include "velox/channels/velSocket.hpp"
#include "velox/foundation/velSyncUtils.hpp"
#include "velox/foundation/velSysUtils.hpp"
#include "velox/foundation/velTrace.hpp"
#include "velox/runtime/velCallbackGuard.hpp"
#include "velox/runtime/velException.hpp"
#include "velox/runtime/velFormat.hpp"
#include "velox/runtime/velMessages.hpp"
#include "velox/runtime/velSharedLock.hpp"

namespace velox {
namespace {

constexpr DWORD LongestWait = 5000;  // milliseconds
constexpr int32_t BlockSize = 1500;
constexpr int32_t DataStep = 4096;

THandle NewSocketEvent() {
  THandle event(::WSACreateEvent());
  if (!event) RaiseLastOSError();
  return event;
}

/// An accepted socket has the listening one's way of telling events; it starts afresh.
void DetachFromEvents(SOCKET Socket) noexcept {
  u_long nonblocking = 0;
  ::WSAEventSelect(Socket, nullptr, 0);
  ::ioctlsocket(Socket, static_cast<long>(FIONBIO), &nonblocking);
}

/// Closes a socket unless somebody has taken it.
struct TUntaken {
  ~TUntaken() {
    if (!Taken) ::closesocket(Socket);
  }
  const SOCKET Socket;
  bool Taken = false;
};

}  // namespace

// --- TCustomTCPServer ---

TCustomTCPServer::TCustomTCPServer(uint16_t Port) : Port_(Port) {}

TCustomTCPServer::~TCustomTCPServer() { Stop(); }

std::string TCustomTCPServer::GetServerName() const {
  return Format("localhost:%u (tcp-server)", Port_);
}

void TCustomTCPServer::Start() {
  if (GetActive()) return;
  try {
    InitializeSocket();
    if (!Bound_) BindSocket();
    Bound_ = true;
    Listen();
    const TForWriting guard(ThreadLock_);  // the thread begins when it is known here
    Thread_.Reset(TThreadFactory::GetInstance()->CreateThread(
        GetServerName(), TThreadExecutionRoutine::Bind<&TCustomTCPServer::ThreadRoutine>(this),
        nullptr, ThreadId_));
    if (!Thread_) RaiseLastOSError();
  } catch (...) {
    Release();
    throw;
  }
}

void TCustomTCPServer::InitializeSocket() {
  if (Socket_ != 0) return;
  const SOCKET socket = OverlappedSocket(SOCK_STREAM, IPPROTO_TCP);
  if (socket == INVALID_SOCKET) RaiseLastOSError();
  Socket_ = socket;
}

void TCustomTCPServer::BindSocket() {
  SOCKADDR_IN address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(Port_);
  if (::bind(Socket_, reinterpret_cast<const SOCKADDR*>(&address), sizeof address) != 0)
    RaiseLastOSError();
}

void TCustomTCPServer::Listen() {
  AcceptEvent_ = NewSocketEvent();
  StopEvent_ = NewSocketEvent();
  if (::WSAEventSelect(Socket_, AcceptEvent_.Get(), FD_ACCEPT) != 0) RaiseLastOSError();
  if (::listen(Socket_, SOMAXCONN) != 0) RaiseLastOSError();
}

void TCustomTCPServer::Stop() {
  if (GetActive()) {
    ::WSASetEvent(StopEvent_.Get());
    if (::GetCurrentThreadId() == ThreadId_) return;
    const HANDLE thread[] = {Thread_.Get()};
    WaitAlertableQuietly(thread);
    Thread_.Reset();
  }
  Release();
}

void TCustomTCPServer::Release() noexcept {
  if (Socket_ != 0) ::closesocket(Socket_);
  Socket_ = 0;
  Bound_ = false;
  AcceptEvent_.Reset();
  StopEvent_.Reset();
}

void TCustomTCPServer::ThreadRoutine(void*) {
  { const TForReading started(ThreadLock_); }
  LastCheck_ = Now();
  const std::string name = GetServerName();  // made while there is memory for it
  for (;;) {
    try {
      if (!ServeOnce()) return;
      CheckWhenDue();
    } catch (...) {
      TraceException(name);
    }
  }
}

/// Waits for something to do, and does it. False when the thread has to end. Completion routines of
/// what was started on this thread run inside the wait.
bool TCustomTCPServer::ServeOnce() {
  const HANDLE events[] = {StopEvent_.Get(), AcceptEvent_.Get()};
  switch (WaitAlertableOnce(events, LongestWait)) {
    case WAIT_OBJECT_0:
      return false;
    case WAIT_OBJECT_0 + 1:
      AcceptOne();
      // A wait that an event ends at once runs no completion routine: those who are served have
      // their turn here, however many want to connect.
      WaitAlertableOnce(std::span(events, 1), 0);
      return true;
    case WAIT_IO_COMPLETION:
    case WAIT_TIMEOUT:
      return true;
    default:
      TraceOSError(GetServerName() + " wait error");
      return false;
  }
}

void TCustomTCPServer::AcceptOne() {
  // Before accepting: that signals the event again when there are more.
  ::WSAResetEvent(AcceptEvent_.Get());
  SOCKADDR_IN address{};
  int length = sizeof address;
  const SOCKET accepted = ::accept(Socket_, reinterpret_cast<SOCKADDR*>(&address), &length);
  if (accepted == INVALID_SOCKET) {
    if (::WSAGetLastError() != WSAEWOULDBLOCK) TraceOSError(GetServerName() + " accept error");
    return;
  }
  TUntaken socket{accepted};
  KeepFromChildren(accepted);
  DetachFromEvents(accepted);
  DoAccept(this, accepted, address, socket.Taken);
}

void TCustomTCPServer::CheckWhenDue() {
  if (IdleTimeout_ <= 0 || Now() - LastCheck_ <= IdleTimeout_) return;
  LastCheck_ = Now();
  CheckConnections();
}

void TCustomTCPServer::CheckConnections() {}

void TCustomTCPServer::DoAccept(TObject* Sender, SOCKET ASocket, const SOCKADDR_IN& AAddress,
                                bool& AChannelAccepted) {
  if (OnAccept) OnAccept(Sender, ASocket, AAddress, AChannelAccepted);
}

// --- TTCPServerConnection ---

/// The request of a connection and the block that the system reads or writes. It outlives the
/// connection while the system is working on it.
class TTCPServerConnection::TTransfer : public TPendingRequest {
 public:
  explicit TTransfer(TTCPServerConnection& AConnection) : Connection(AConnection) {}

  using TEnd = void (TTCPServerConnection::*)(DWORD Error, DWORD Transferred);

  void Prepare(int32_t Size, TEnd AEnd) {
    PrepareRequest();
    Buffer = {static_cast<ULONG>(Size), Block};
    End = AEnd;
    Flags = 0;
    Pending = true;
  }

  static void CALLBACK Completed(DWORD Error, DWORD Transferred, WSAOVERLAPPED* Request, DWORD) {
    auto* const transfer = static_cast<TTransfer*>(Of(Request));
    if (transfer->Leave(false)) return;
    transfer->Pending = false;
    GuardCallback([&] { (transfer->Connection.*transfer->End)(Error, Transferred); });
  }

  static void CALLBACK Failed(ULONG_PTR Transfer) {
    auto* const transfer = reinterpret_cast<TTransfer*>(Transfer);
    Completed(transfer->Failure, 0, &transfer->Overlapped, 0);
  }

  TTCPServerConnection& Connection;
  TEnd End = nullptr;
  WSABUF Buffer{};
  DWORD Flags = 0;
  DWORD Bytes = 0;
  DWORD Failure = 0;  // why it could not be started
  char Block[BlockSize] = {};
};

TTCPServerConnection::TTCPServerConnection(SOCKET Socket, const SOCKADDR_IN& Address)
    : Address_(Address), Socket_(Socket), Transfer_(new TTransfer(*this)), LastActivity_(Now()) {}

TTCPServerConnection::~TTCPServerConnection() { ::closesocket(Socket_); }

void TTCPServerConnection::CheckIdle() {
  if (!Transfer_->Pending) return;
  if (!Transfer_->IsForsaken()) throw Exception(messages::seTransferNotFinished);
  Transfer_.reset(new TTransfer(*this));  // the thread that began it has ended, and it with that
}

void TTCPServerConnection::EnlargeData(int32_t Size) {
  if (Size <= static_cast<int32_t>(Data_.size())) return;
  Data_.resize((static_cast<size_t>(Size) + DataStep - 1) / DataStep * DataStep);
}

/// A transfer that could not be started ends the connection like one that failed later: when the
/// thread waits next, so that the caller finds the connection as it was.
void TTCPServerConnection::NoteStart(int Result, const char* Failure) {
  LastError_ = Result == 0 ? 0 : ::WSAGetLastError();
  if (LastError_ == WSA_IO_PENDING) LastError_ = 0;
  if (LastError_ == 0) return;
  TraceOSError(Failure);
  Transfer_->Failure = static_cast<DWORD>(LastError_);
  Transfer_->Pending = TraceAndQueueUserAPC(&TTransfer::Failed, ::GetCurrentThread(),
                                            reinterpret_cast<ULONG_PTR>(Transfer_.get())) != 0;
}

/// Notes how a transfer ended. False when that ends the connection.
bool TTCPServerConnection::NoteResult(DWORD Error, DWORD Transferred) {
  LastError_ = static_cast<int32_t>(Error);
  if (Error != 0 || Transferred == 0) return false;
  LastActivity_ = Now();
  return true;
}

void TTCPServerConnection::CompleteCheck(int32_t Error, int32_t Transferred) {
  if (!NoteResult(static_cast<DWORD>(Error), static_cast<DWORD>(Transferred))) Close();
}

void TTCPServerConnection::Close() {
  if (OnClose) OnClose(*this);
}

void TTCPServerConnection::Receive() {
  CheckIdle();
  ReceivingBegin();
}

void TTCPServerConnection::ReceivingBegin() {
  TTransfer& t = *Transfer_;
  t.Prepare(BlockSize, &TTCPServerConnection::ReceivingEnd);
  NoteStart(::WSARecv(Socket_, &t.Buffer, 1, &t.Bytes, &t.Flags, &t.Overlapped, &t.Completed),
            "[TTCPServerConnection].[ReceivingBegin] WSARecv error");
}

void TTCPServerConnection::ReceivingEnd(DWORD Error, DWORD Transferred) {
  if (!NoteResult(Error, Transferred)) return Close();
  const auto size = static_cast<int32_t>(Transferred);
  EnlargeData(DataSize_ + size);
  std::memcpy(Data_.data() + DataSize_, Transfer_->Block, Transferred);
  DataSize_ += size;
  if (OnReceive) OnReceive(*this);
}

void TTCPServerConnection::Send(const void* Data, int32_t Size) {
  CheckIdle();
  if (Size < 1) throw Exception(messages::seIncorrectParameters);
  const char* from = static_cast<const char*>(Data);
  const bool inside = !Data_.empty() && from >= Data_.data() && from < Data_.data() + Data_.size();
  const ptrdiff_t offset = inside ? from - Data_.data() : 0;
  EnlargeData(Size);
  if (inside) from = Data_.data() + offset;
  std::memmove(Data_.data(), from, static_cast<size_t>(Size));
  DataSize_ = Size;
  DataPosition_ = 0;
  SendingBegin();
}

void TTCPServerConnection::SendingBegin() {
  TTransfer& t = *Transfer_;
  const int32_t size = std::min(BlockSize, DataSize_ - DataPosition_);
  std::memcpy(t.Block, Data_.data() + DataPosition_, static_cast<size_t>(size));
  t.Prepare(size, &TTCPServerConnection::SendingEnd);
  NoteStart(::WSASend(Socket_, &t.Buffer, 1, &t.Bytes, 0, &t.Overlapped, &t.Completed),
            "[TTCPServerConnection].[SendingBegin] WSASend error");
}

void TTCPServerConnection::SendingEnd(DWORD Error, DWORD Transferred) {
  if (!NoteResult(Error, Transferred)) return Close();
  DataPosition_ += static_cast<int32_t>(Transferred);
  if (DataPosition_ < DataSize_) return SendingBegin();
  if (OnSend) OnSend(*this);
}

// --- TTCPServer ---

TTCPServer::TTCPServer(uint16_t Port)
    : TCustomTCPServer(Port), Connections_(TClass::Of<TTCPServerConnection>()) {
  Connections_.SetSharedObjects(false);
}

TTCPServer::~TTCPServer() { Stop(); }

void TTCPServer::CheckConnections() {
  const TDateTime now = Now();
  for (int32_t i = Connections_.GetCount() - 1; i >= 0; --i) {
    if (i >= Connections_.GetCount()) continue;  // closing one may have closed others
    auto& connection = static_cast<TTCPServerConnection&>(*Connections_.GetItems(i));
    if (now - connection.GetLastActivity() > GetIdleTimeout()) connection.Close();
  }
}

void TTCPServer::DoAccept(TObject* Sender, SOCKET ASocket, const SOCKADDR_IN& AAddress,
                          bool& AChannelAccepted) {
  TCustomTCPServer::DoAccept(Sender, ASocket, AAddress, AChannelAccepted);
  auto made = std::make_unique<TTCPServerConnection>(ASocket, AAddress);
  AChannelAccepted = true;  // it closes the socket from now on
  Connections_.Add(made.get());
  TTCPServerConnection& connection = *made.release();
  connection.OnClose = TTCPServerConnectionEvent::Bind<&TTCPServer::ConnectionClosed>(this);
  connection.OnSend = TTCPServerConnectionEvent::Bind<&TTCPServer::ConnectionSend>(this);
  connection.OnReceive = TTCPServerConnectionEvent::Bind<&TTCPServer::ConnectionReceived>(this);
  ConnectionAccepted(connection);
}

void TTCPServer::ConnectionAccepted(TTCPServerConnection&) {}
void TTCPServer::ConnectionReceived(TTCPServerConnection&) {}
void TTCPServer::ConnectionSend(TTCPServerConnection&) {}

void TTCPServer::ConnectionClosed(TTCPServerConnection& Connection) {
  Connections_.Delete(&Connection);
}

}  // namespace velox
