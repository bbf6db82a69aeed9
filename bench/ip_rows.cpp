// Channels over TCP and UDP against bare overlapped calls that do the same, and against Asio; the
// TCP server against one on Asio, with the same clients.

#include "velox/runtime/velWindows.hpp"
// Windows' headers come before those that would include them otherwise.
#include <psapi.h>

#include <asio.hpp>
#include <atomic>
#include <cstdio>
#include <memory>
#include <thread>

#include "bench/harness.hpp"
#include "velox/channels/velTCPServer.hpp"
#include "velox/channels/velUDPChannel.hpp"
#include "velox/foundation/velSyncUtils.hpp"
#include "velox/runtime/velFormat.hpp"
#include "velox/runtime/velHandle.hpp"

namespace bench {
namespace {

using namespace velox;
using enum TOperationKind;

constexpr auto Limit = std::chrono::seconds(10);

/// Wakes one waiter when so many things are done.
struct TCountdown {
  void OnComplete(TObject*) { Finish(); }
  void Finish() {
    if (--Left == 0) ::SetEvent(Done.Get());
  }
  void Await() const { ::WaitForSingleObject(Done.Get(), INFINITE); }
  std::atomic<int> Left{0};
  const THandle Done{::CreateEventA(nullptr, FALSE, FALSE, nullptr)};
};

SOCKADDR_IN Loopback(uint16_t NetworkOrderPort) {
  SOCKADDR_IN address{};
  address.sin_family = AF_INET;
  address.sin_port = NetworkOrderPort;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

SOCKADDR_IN NameOf(SOCKET Socket) {
  SOCKADDR_IN address{};
  int length = sizeof address;
  ::getsockname(Socket, reinterpret_cast<SOCKADDR*>(&address), &length);
  return Loopback(address.sin_port);
}

SOCKET NewSocket(int Type) {
  const SOCKET socket = ::WSASocketA(AF_INET, Type, 0, nullptr, 0, WSA_FLAG_OVERLAPPED);
  const SOCKADDR_IN any = Loopback(0);
  ::bind(socket, reinterpret_cast<const SOCKADDR*>(&any), sizeof any);
  return socket;
}

/// Two ends: of one connection, or two sockets that send datagrams to each other.
struct TEnds {
  explicit TEnds(int AType) : Type(AType), From(NewSocket(AType)) {
    if (Type == SOCK_DGRAM) {
      To = NewSocket(Type);
    } else {
      const SOCKET listener = NewSocket(Type);
      ::listen(listener, 1);
      Connect(listener);
      To = ::accept(listener, nullptr, nullptr);
      ::closesocket(listener);
      return;
    }
    Connect(To);
  }
  void Connect(SOCKET Socket) const {
    const SOCKADDR_IN address = NameOf(Socket);
    ::connect(From, reinterpret_cast<const SOCKADDR*>(&address), sizeof address);
  }
  const int Type;
  const SOCKET From;
  SOCKET To = INVALID_SOCKET;
};

// ---- ours

class TOurTransfers {
 public:
  TOurTransfers(int Type, int Count, int32_t Size) : Data_(static_cast<size_t>(Size)) {
    if (Type == SOCK_STREAM) {
      const TEnds ends(Type);
      Open<TTCPChannel>(ends.From, From_);
      Open<TTCPChannel>(ends.To, To_);
    } else {
      for (auto* channel : {&From_, &To_}) {
        *channel = std::make_unique<TUDPChannel>();
        (*channel)->SetActive(true);
      }
    }
    for (int i = 0; i < Count; ++i) {
      Add(*To_, okRead);
      Add(*From_, okWrite);
    }
  }

  void Run() {
    Countdown_.Left = static_cast<int>(Operations_.size());
    for (const auto& operation : Operations_) operation->SetActive(true);
    Countdown_.Await();
  }

 private:
  template <class T>
  static void Open(SOCKET Socket, std::unique_ptr<TIPChannel>& Channel) {
    auto made = std::make_unique<T>();
    made->Accept(Socket, {});
    made->SetActive(true);
    Channel = std::move(made);
  }

  void Add(TIPChannel& Channel, TOperationKind Kind) {
    auto operation = std::make_unique<TIPOperation>();
    operation->SetChannel(&Channel);
    operation->SetKind(Kind);
    operation->SetBuffer(Data_.data());
    operation->SetSize(static_cast<int32_t>(Data_.size()));
    operation->SetAutoTimeout(false);
    operation->SetTimeout(1'000'000);  // shared out by bytes: a byte of 1400 gets 0.7 s
    operation->SetOnComplete(
        TOperationNotificationEvent::Bind<&TCountdown::OnComplete>(&Countdown_));
    operation->SetAddress("127.0.0.1");
    operation->SetPort(ntohs(NameOf(To_->GetSocket()).sin_port));
    Operations_.push_back(std::move(operation));
  }

  TCountdown Countdown_;
  std::vector<char> Data_;
  std::unique_ptr<TIPChannel> From_, To_;
  std::vector<std::unique_ptr<TIPOperation>> Operations_;
};

// ---- bare

/// A thread with one send and one receive at a time, each started by the completion of the last.
class TBareTransfers {
 public:
  TBareTransfers(int Type, int Count, int32_t Size)
      : Ends_(Type), Count_(Count), Data_(static_cast<size_t>(Size)) {
    Receive_.hEvent = Send_.hEvent = this;
    Countdown_.Left = 1;
    Thread_ = std::thread([this] {
      Handle_.Reset(GetRealCurrentThreadHandle());
      Countdown_.Finish();
      while (!Stop_) ::SleepEx(INFINITE, TRUE);
    });
    Countdown_.Await();
  }
  ~TBareTransfers() {
    ::QueueUserAPC(&End, Handle_.Get(), reinterpret_cast<ULONG_PTR>(this));
    Thread_.join();
    ::closesocket(Ends_.From);
    ::closesocket(Ends_.To);
  }

  void Run() {
    Countdown_.Left = 2;
    ::QueueUserAPC(&Begin, Handle_.Get(), reinterpret_cast<ULONG_PTR>(this));
    Countdown_.Await();
  }

 private:
  static void CALLBACK End(ULONG_PTR Self) {
    reinterpret_cast<TBareTransfers*>(Self)->Stop_ = true;
  }
  static void CALLBACK Begin(ULONG_PTR Self) {
    auto& self = *reinterpret_cast<TBareTransfers*>(Self);
    self.ToReceive_ = self.ToSend_ = self.Count_ * static_cast<int64_t>(self.Data_.size());
    self.StartReceive();
    self.StartSend();
  }

  void StartReceive() {
    WSABUF buffer{static_cast<ULONG>(Data_.size()), Data_.data()};
    DWORD flags = 0, bytes;
    ::WSARecv(Ends_.To, &buffer, 1, &bytes, &flags, &Receive_, &Received);
  }
  void StartSend() {
    WSABUF buffer{static_cast<ULONG>(Data_.size()), Data_.data()};
    DWORD bytes;
    ::WSASend(Ends_.From, &buffer, 1, &bytes, 0, &Send_, &Sent);
  }
  static void CALLBACK Received(DWORD, DWORD Bytes, WSAOVERLAPPED* Overlapped, DWORD) {
    auto& self = *static_cast<TBareTransfers*>(Overlapped->hEvent);
    (self.ToReceive_ -= Bytes) > 0 ? self.StartReceive() : self.Countdown_.Finish();
  }
  static void CALLBACK Sent(DWORD, DWORD Bytes, WSAOVERLAPPED* Overlapped, DWORD) {
    auto& self = *static_cast<TBareTransfers*>(Overlapped->hEvent);
    (self.ToSend_ -= Bytes) > 0 ? self.StartSend() : self.Countdown_.Finish();
  }

  const TEnds Ends_;
  const int Count_;
  std::vector<char> Data_;
  TCountdown Countdown_;
  WSAOVERLAPPED Receive_{}, Send_{};
  int64_t ToReceive_ = 0, ToSend_ = 0;
  bool Stop_ = false;  // the thread's
  THandle Handle_;
  std::thread Thread_;
};

// ---- Asio

/// One direction: a message after the other, each with a deadline.
template <class TSocket>
class TAsioEnd {
 public:
  TAsioEnd(asio::io_context& Context, TSocket& Socket, TCountdown& Countdown, size_t Size)
      : Socket_(Socket), Deadline_(Context), Countdown_(Countdown), Data_(Size) {}

  void Start(bool Sending, int Count) {
    Left_ = Count;
    Next(Sending);
  }

 private:
  void Next(bool Sending) {
    Deadline_.expires_after(Limit);
    Deadline_.async_wait([this](const asio::error_code& Error) {
      if (!Error) Socket_.cancel();
    });
    const auto done = [this, Sending](const asio::error_code&, size_t) {
      Deadline_.cancel();
      --Left_ > 0 ? Next(Sending) : Countdown_.Finish();
    };
    const auto buffer = asio::buffer(Data_);
    if constexpr (std::is_same_v<TSocket, asio::ip::udp::socket>)
      Sending ? Socket_.async_send(buffer, done) : Socket_.async_receive(buffer, done);
    else
      Sending ? asio::async_write(Socket_, buffer, done) : asio::async_read(Socket_, buffer, done);
  }

  TSocket& Socket_;
  asio::steady_timer Deadline_;
  TCountdown& Countdown_;
  std::vector<char> Data_;
  int Left_ = 0;
};

template <class TProtocol>
class TAsioTransfers {
 public:
  TAsioTransfers(int Type, int Count, int32_t Size)
      : TAsioTransfers(TEnds(Type), Count, static_cast<size_t>(Size)) {}
  ~TAsioTransfers() {
    Work_.reset();
    Context_.stop();
    Thread_.join();
  }

  void Run() {
    Countdown_.Left = 2;
    asio::post(Context_, [this] {
      Receiver_.Start(false, Count_);
      Sender_.Start(true, Count_);
    });
    Countdown_.Await();
  }

 private:
  TAsioTransfers(const TEnds& Ends, int Count, size_t Size)
      : Count_(Count),
        From_(Context_, TProtocol::v4(), Ends.From),
        To_(Context_, TProtocol::v4(), Ends.To),
        Sender_(Context_, From_, Countdown_, Size),
        Receiver_(Context_, To_, Countdown_, Size),
        Work_(Context_.get_executor()),
        Thread_([this] { Context_.run(); }) {}

  const int Count_;
  TCountdown Countdown_;
  asio::io_context Context_;
  typename TProtocol::socket From_, To_;
  TAsioEnd<typename TProtocol::socket> Sender_, Receiver_;
  asio::executor_work_guard<asio::io_context::executor_type> Work_;
  std::thread Thread_;
};

template <class TProtocol>
void TransferRows(const char* Protocol, int Type) {
  for (const int count : {1, 64}) {
    for (const int32_t size : {64, 1400}) {
      TOurTransfers ours(Type, count, size);
      TBareTransfers bare(Type, count, size);
      TAsioTransfers<TProtocol> theirs(Type, count, size);
      const std::string name =
          Format("%s channel: send and receive %d x %d bytes", Protocol, count, size);
      Compare({name, "overlapped calls with completion routines", 0.6}, Repeat([&] { ours.Run(); }),
              Repeat([&] { bare.Run(); }));
      Compare({name, "Asio, a deadline on each", 0.8}, Repeat([&] { ours.Run(); }),
              Repeat([&] { theirs.Run(); }));
    }
  }
}

const TGroup TCPRows(
    "TCP channel", [] { TransferRows<asio::ip::tcp>("TCP", SOCK_STREAM); }, true);
const TGroup UDPRows(
    "UDP channel", [] { TransferRows<asio::ip::udp>("UDP", SOCK_DGRAM); }, true);

// ---- servers

class TOurServer : public TTCPServer {
 public:
  TOurServer() : TTCPServer(0) { Start(); }
  ~TOurServer() override { Stop(); }
  uint16_t NetworkOrderPort() const { return NameOf(GetSocket()).sin_port; }

 protected:
  void ConnectionAccepted(TTCPServerConnection& Connection) override { Connection.Receive(); }
  void ConnectionReceived(TTCPServerConnection& Connection) override {
    const int32_t sent = Connection.GetDataPosition();  // the answer before stands in front
    Connection.Send(Connection.GetData().data() + sent, Connection.GetDataSize() - sent);
  }
  void ConnectionSend(TTCPServerConnection& Connection) override { Connection.Receive(); }
};

class TAsioServer {
 public:
  TAsioServer() {
    Accept();
    Thread_ = std::thread([this] { Context_.run(); });  // which needs something to wait for
  }
  ~TAsioServer() {
    Context_.stop();
    Thread_.join();
  }
  uint16_t NetworkOrderPort() const { return htons(Acceptor_.local_endpoint().port()); }

 private:
  struct TSession : std::enable_shared_from_this<TSession> {
    explicit TSession(asio::ip::tcp::socket ASocket) : Socket(std::move(ASocket)) {}
    void Receive() {
      Socket.async_read_some(asio::buffer(Data), [self = this->shared_from_this()](
                                                     const asio::error_code& Error, size_t Size) {
        if (!Error) self->Send(Size);
      });
    }
    void Send(size_t Size) {
      asio::async_write(Socket, asio::buffer(Data, Size),
                        [self = this->shared_from_this()](const asio::error_code& Error, size_t) {
                          if (!Error) self->Receive();
                        });
    }
    asio::ip::tcp::socket Socket;
    std::array<char, 1500> Data;
  };

  void Accept() {
    Acceptor_.async_accept([this](const asio::error_code& Error, asio::ip::tcp::socket Socket) {
      if (!Error) std::make_shared<TSession>(std::move(Socket))->Receive();
      Accept();
    });
  }

  asio::io_context Context_;
  asio::ip::tcp::acceptor Acceptor_{Context_, {asio::ip::address_v4::loopback(), 0}};
  std::thread Thread_;
};

/// Connections with blocking calls, all used in turn by one thread.
class TClients {
 public:
  TClients(uint16_t NetworkOrderPort, int Count, int32_t Size) : Data_(static_cast<size_t>(Size)) {
    const SOCKADDR_IN address = Loopback(NetworkOrderPort);
    for (int i = 0; i < Count; ++i) {
      Sockets_.push_back(::socket(AF_INET, SOCK_STREAM, 0));
      ::connect(Sockets_.back(), reinterpret_cast<const SOCKADDR*>(&address), sizeof address);
    }
  }
  ~TClients() {
    for (const SOCKET socket : Sockets_) ::closesocket(socket);
  }

  void Echo() {
    const int size = static_cast<int>(Data_.size());
    for (const SOCKET socket : Sockets_) ::send(socket, Data_.data(), size, 0);
    for (const SOCKET socket : Sockets_)
      for (int got = 0; got < size;) got += ::recv(socket, Data_.data(), size - got, 0);
  }

 private:
  std::vector<char> Data_;
  std::vector<SOCKET> Sockets_;
};

size_t PrivateBytes() {
  PROCESS_MEMORY_COUNTERS counters{};
  ::GetProcessMemoryInfo(::GetCurrentProcess(), &counters, sizeof counters);
  return counters.PagefileUsage;
}

void PrintMemory() {
  constexpr int connections = 500, operations = 10'000;
  TOurServer server;
  { TClients warm(server.NetworkOrderPort(), 1, 64); }
  const size_t before = PrivateBytes();
  TClients clients(server.NetworkOrderPort(), connections, 64);
  clients.Echo();
  const size_t connected = PrivateBytes();
  TUDPChannel channel;
  channel.SetActive(true);
  std::vector<std::unique_ptr<TTransferOperation>> queued;
  const size_t empty = PrivateBytes();
  char byte = 0;
  for (int i = 0; i < operations; ++i) {
    queued.push_back(channel.CreateOperation());
    queued.back()->SetAutoTimeout(false);
    queued.back()->SetBuffer(&byte);
    queued.back()->SetSize(1);
    queued.back()->SetActive(true);
  }
  std::printf(
      "memory: %u bytes a connection of 500 of the TCP server, both ends; "
      "%u bytes a queued operation of 10,000\n",
      static_cast<unsigned>((connected - before) / connections),
      static_cast<unsigned>((PrivateBytes() - empty) / operations));
}

const TGroup ServerRows("TCP server", [] {
  for (const int connections : {1, 64, 500}) {
    for (const int32_t size : {64, 1400}) {
      TOurServer ours;
      TAsioServer theirs;
      TClients ourClients(ours.NetworkOrderPort(), connections, size);
      TClients theirClients(theirs.NetworkOrderPort(), connections, size);
      Compare({Format("TCP server: %d connections echo %d bytes", connections, size),
               "Asio server, same clients", 1.0},
              Repeat([&] { ourClients.Echo(); }), Repeat([&] { theirClients.Echo(); }));
    }
  }
  PrintMemory();
});

}  // namespace
}  // namespace bench
