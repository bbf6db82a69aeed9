#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "velox/channels/velPendingRequest.hpp"
#include "velox/containers/velObjArray.hpp"
#include "velox/runtime/velDateTime.hpp"
#include "velox/runtime/velHandle.hpp"
#include "velox/runtime/velMethod.hpp"
#include "velox/runtime/velObject.hpp"
#include "velox/runtime/velWindows.hpp"

/// TCP servers over IPv4. TCustomTCPServer listens and hands each connection to an event;
/// TTCPServer keeps connections, receives and sends for them, and drops idle ones.
///
/// A server that wants a channel for a connection hands its socket to TTCPChannel::Accept:
///
///     void TReceiver::OnAccept(TObject*, SOCKET Socket, const SOCKADDR_IN& Address, bool& Taken) {
///       Channel.Accept(Socket, Address);
///       Taken = true;
///       Channel.SetActive(true);
///     }
///
/// One that serves requests and answers in turn derives from TTCPServer:
///
///     class TEchoServer : public TTCPServer {
///      public:
///       explicit TEchoServer(uint16_t Port) : TTCPServer(Port) {}
///       ~TEchoServer() override { Stop(); }  // the overrides below run until then
///
///      protected:
///       void ConnectionAccepted(TTCPServerConnection& Connection) override {
///         Connection.Receive();
///       }
///
///       // What is received stands in the buffer behind the answer that was sent last.
///       void ConnectionReceived(TTCPServerConnection& Connection) override {
///         const int32_t answered = Connection.GetDataPosition();
///         Connection.Send(Connection.GetData().data() + answered,
///                         Connection.GetDataSize() - answered);
///       }
///
///       void ConnectionSend(TTCPServerConnection& Connection) override { Connection.Receive(); }
///     };
namespace velox {

class TTCPServerConnection;

/// Called for each accepted connection, on the accept thread. A handler that takes the socket sets
/// AChannelAccepted (false on entry) and has to close it; else the server closes it.
using TAcceptEvent = TMethod<void(TObject* Sender, SOCKET ASocket, const SOCKADDR_IN& AAddress,
                                  bool& AChannelAccepted)>;
/// Sender is the connection.
using TTCPServerConnectionEvent = TMethod<void(TTCPServerConnection& Sender)>;

/// Listens on a port of all local addresses, with a thread of its own that accepts.
///
/// Threads: one thread at a time starts and stops. Events come on the accept thread. What they
/// raise goes to the trace log, and the server goes on; a connection whose event has raised before
/// it began a transfer stays open and idle.
class VELOX_API TCustomTCPServer : public TObject {
 public:
  /// Not listening yet. Port 0 has the system choose one when the server starts.
  explicit TCustomTCPServer(uint16_t Port);

  /// Stops. A derived class calls Stop() first in its own destructor, since its overrides may be
  /// running until then. Not from inside an event of the server.
  ~TCustomTCPServer() override;

  /// Starts listening; does nothing when active. Raises EOSError, and leaves nothing open, when the
  /// port is taken or the system has no socket, event or thread left.
  void Start();

  /// Stops accepting, waits for the accept thread, closes the listening socket. Connections that
  /// were accepted stay open; but what they were receiving or sending through the accept thread is
  /// given up by the system. Called in an event, on the accept thread, it only tells that thread to
  /// end after the event: have another thread call it then. May be followed by Start().
  void Stop();

  /// Whether it was started and not stopped.
  bool GetActive() const noexcept { return static_cast<bool>(Thread_); }
  void SetActive(bool Value) { Value ? Start() : Stop(); }

  /// Takes effect with the next Start().
  uint16_t GetPort() const noexcept { return Port_; }
  void SetPort(uint16_t Value) noexcept { Port_ = Value; }

  /// The listening socket, 0 when there is none.
  SOCKET GetSocket() const noexcept { return Socket_; }
  /// Whether the listening socket is bound to the port.
  bool GetBound() const noexcept { return Bound_; }

  /// "localhost:8080 (tcp-server)": the accept thread's name, and how the trace log calls the
  /// server.
  std::string GetServerName() const;

  /// Days (30.0 / 86400 is half a minute). More than 0: CheckConnections is called whenever so much
  /// time has passed since the last call, at the latest 5 seconds late, by the local clock. 0
  /// (default): never. Set it before Start().
  TDateTime GetIdleTimeout() const noexcept { return IdleTimeout_; }
  void SetIdleTimeout(TDateTime Value) noexcept { IdleTimeout_ = Value; }

  /// May be unassigned. Set it before Start().
  TAcceptEvent OnAccept;

 protected:
  /// Nothing here. On the accept thread.
  virtual void CheckConnections();
  /// Raises OnAccept. On the accept thread.
  virtual void DoAccept(TObject* Sender, SOCKET ASocket, const SOCKADDR_IN& AAddress,
                        bool& AChannelAccepted);
  /// Binds the listening socket to the port. Raises EOSError.
  virtual void BindSocket();

 private:
  void InitializeSocket();
  void Listen();
  void Release() noexcept;
  void ThreadRoutine(void*);
  bool ServeOnce();
  void AcceptOne();
  void CheckWhenDue();

  SRWLOCK ThreadLock_ = SRWLOCK_INIT;  // held while the thread is being started
  THandle Thread_;
  DWORD ThreadId_ = 0;
  SOCKET Socket_ = 0;
  uint16_t Port_;
  THandle AcceptEvent_;
  THandle StopEvent_;
  bool Bound_ = false;
  TDateTime IdleTimeout_ = 0;
  TDateTime LastCheck_ = 0;  // the accept thread's
};

/// One accepted connection of a TTCPServer: receives and sends in turn, through one buffer.
///
/// Only one transfer at a time: start the next when OnReceive or OnSend has told the end of the
/// last. Received bytes are appended to the buffer; sending puts an answer at its front, and what
/// is received after that stands behind the answer.
///
/// An error, or the peer's closing, closes the connection: OnClose is raised, in which a TTCPServer
/// destroys it. Destroying it in any of its events is allowed.
///
/// Threads: the ends of transfers, and so the events, come on the thread that started the transfer,
/// while it waits alertably. When that is the server's accept thread (as for all that starts in
/// ConnectionAccepted or in the connection's own events), everything stays on that one thread.
class VELOX_API TTCPServerConnection : public TObject {
 public:
  /// Takes the socket over, and closes it in the end.
  TTCPServerConnection(SOCKET Socket, const SOCKADDR_IN& Address);
  /// Closes the socket. Raises no event.
  ~TTCPServerConnection() override;

  /// The peer's.
  const SOCKADDR_IN& GetAddress() const noexcept { return Address_; }
  /// The connection's socket, which belongs to it.
  SOCKET GetSocket() const noexcept { return Socket_; }

  /// Begins to receive up to 1500 bytes; OnReceive is raised when some have come. Raises Exception
  /// "Transfer of the connection is not finished". A request that the system refuses ends the
  /// connection like an error that comes later: not before the thread waits alertably.
  void Receive();

  /// Copies Size bytes to the front of the buffer, in place of what is there, and begins to send
  /// them, in pieces of at most 1500; OnSend is raised when all are sent. Data may point into the
  /// buffer. Errors as for Receive; Exception "Incorrect parameters" for a size below 1.
  void Send(const void* Data, int32_t Size);

  /// Raises OnClose, and does nothing else.
  void Close();

  /// Does nothing: a place for what the server's owner may want to check.
  void Check() noexcept {}

  /// For an owner that transfers over the socket by itself: notes the result of a transfer as
  /// GetLastError() and GetLastActivity(), and closes when there was an error or no byte.
  void CompleteCheck(int32_t Error, int32_t Transferred);

  /// The buffer; GetDataSize() of its bytes are in use. It grows in steps of 4096 bytes and never
  /// shrinks.
  const std::vector<char>& GetData() const noexcept { return Data_; }
  int32_t GetDataSize() const noexcept { return DataSize_; }
  /// Sending: the bytes that have gone.
  int32_t GetDataPosition() const noexcept { return DataPosition_; }

  /// The last transfer's socket error, 0 when it had none.
  int32_t GetLastError() const noexcept { return LastError_; }
  /// When it was accepted, or last transferred something.
  TDateTime GetLastActivity() const noexcept { return LastActivity_; }

  /// May be unassigned.
  TTCPServerConnectionEvent OnClose;
  TTCPServerConnectionEvent OnSend;
  TTCPServerConnectionEvent OnReceive;

 private:
  class TTransfer;

  void ReceivingBegin();
  void ReceivingEnd(DWORD Error, DWORD Transferred);
  void SendingBegin();
  void SendingEnd(DWORD Error, DWORD Transferred);
  bool NoteResult(DWORD Error, DWORD Transferred);
  void NoteStart(int Result, const char* Failure);
  void EnlargeData(int32_t Size);
  void CheckIdle();

  const SOCKADDR_IN Address_;
  const SOCKET Socket_;
  std::unique_ptr<TTransfer, TOrphanRequest> Transfer_;
  int32_t DataSize_ = 0;
  int32_t DataPosition_ = 0;
  std::vector<char> Data_;
  int32_t LastError_ = 0;
  TDateTime LastActivity_;
};

/// A server that keeps its connections, and closes those that were idle for longer than
/// IdleTimeout. A derived class drives the protocol by overriding what is told of a connection; all
/// of it comes on the accept thread, as long as transfers are started there.
class VELOX_API TTCPServer : public TCustomTCPServer {
 public:
  /// Not listening yet. Port 0 has the system choose one when the server starts.
  explicit TTCPServer(uint16_t Port);
  /// Stops, then closes all connections.
  ~TTCPServer() override;

  /// The open connections, owned. For the accept thread, or while the server is stopped.
  const TObjectArray& GetConnections() const noexcept { return Connections_; }

 protected:
  /// Closes, from the last to the first, those without activity for longer than IdleTimeout.
  void CheckConnections() override;
  /// Raises OnAccept, then keeps the connection, whatever the handler answers: a handler must
  /// neither close the socket nor give it to a channel.
  void DoAccept(TObject* Sender, SOCKET ASocket, const SOCKADDR_IN& AAddress,
                bool& AChannelAccepted) override;

  /// A new connection: begin to receive, or to send. Nothing here, as in the next two.
  virtual void ConnectionAccepted(TTCPServerConnection& Connection);
  /// It has received something.
  virtual void ConnectionReceived(TTCPServerConnection& Connection);
  /// It has sent all.
  virtual void ConnectionSend(TTCPServerConnection& Connection);
  /// It has ended, by its peer, an error, idleness or its Close(). Destroys it: an override calls
  /// this one at its end.
  virtual void ConnectionClosed(TTCPServerConnection& Connection);

 private:
  TObjectArray Connections_;
};

}  // namespace velox
