// Datagram channels and connections over loopback, against plain sockets and each other.
#include "velox/channels/velUDPChannel.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/support/support.hpp"
#include "velox/runtime/velException.hpp"

namespace velox {
namespace {

using enum TOperationKind;

SOCKADDR_IN Loopback(uint16_t Port) {
  SOCKADDR_IN address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(Port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

/// A plain socket, closed at the end.
struct TSocket {
  explicit TSocket(int Type) : Handle(::socket(AF_INET, Type, 0)) {}
  explicit TSocket(SOCKET AHandle) : Handle(AHandle) {}
  TSocket(TSocket&& Other) noexcept : Handle(std::exchange(Other.Handle, INVALID_SOCKET)) {}
  ~TSocket() { Close(); }
  void Close() {
    if (Handle != INVALID_SOCKET) ::closesocket(std::exchange(Handle, INVALID_SOCKET));
  }
  uint16_t Bind() {
    SOCKADDR_IN address = Loopback(0);
    ::bind(Handle, reinterpret_cast<SOCKADDR*>(&address), sizeof address);
    return Port();
  }
  uint16_t Port() const { return PortOf(Handle); }
  static uint16_t PortOf(SOCKET Socket) {
    SOCKADDR_IN address{};
    int length = sizeof address;
    ::getsockname(Socket, reinterpret_cast<SOCKADDR*>(&address), &length);
    return ntohs(address.sin_port);
  }
  void SendTo(uint16_t Port, const std::string& Data) const {
    const SOCKADDR_IN to = Loopback(Port);
    ::sendto(Handle, Data.data(), static_cast<int>(Data.size()), 0,
             reinterpret_cast<const SOCKADDR*>(&to), sizeof to);
  }
  void Send(const std::string& Data) const {
    ::send(Handle, Data.data(), static_cast<int>(Data.size()), 0);
  }
  std::string Receive(size_t Size) const {
    std::string data;
    char block[4096];
    while (data.size() < Size) {
      const int got = ::recv(Handle, block, sizeof block, 0);
      if (got <= 0) break;
      data.append(block, static_cast<size_t>(got));
    }
    return data;
  }
  SOCKET Handle;
};

struct TListener : TSocket {
  TListener() : TSocket(SOCK_STREAM) {
    Bind();
    ::listen(Handle, 1);
  }
  TSocket Accept() const { return TSocket(::accept(Handle, nullptr, nullptr)); }
};

struct TTransfer : TIPOperation {
  TTransfer(TChannel& Channel, TOperationKind Kind, const std::string& AData,
            const std::string& Address = "", uint16_t Port = 0)
      : Data(AData) {
    SetAddress(Address);
    SetPort(Port);
    SetChannel(&Channel);
    SetKind(Kind);
    SetBuffer(Data.data());
    SetSize(static_cast<int32_t>(Data.size()));
    SetAutoTimeout(false);
    SetOnTransferred(TOperationTransferEvent::Bind<&TTransfer::Moved>(this));
  }
  ~TTransfer() override { Close(); }
  bool Run() {
    SetActive(true);
    return Wait();
  }
  bool Wait() {
    return test::WaitUntil([this] { return !GetActive(); }) && GetSucceeded();
  }
  void Moved(TObject*, bool&) { Marks.push_back(GetTransferred()); }
  std::string Data;
  std::vector<int32_t> Marks;
};

TEST(UDPChannel, LongDatagramIsReadInPiecesAndTellsItsSender) {
  TUDPChannel channel;
  channel.SetActive(true);
  EXPECT_EQ(test::MessageOf([&] { channel.SetPort(1); }), "Cannot change active channel");
  TSocket peer(SOCK_DGRAM);
  const uint16_t port = peer.Bind();
  const std::string sent = test::Noise(300);
  peer.SendTo(TSocket::PortOf(channel.GetSocket()), sent);
  std::string got;
  for (int i = 0; i < 3; ++i) {
    TTransfer read(channel, okRead, std::string(100, ' '));
    ASSERT_TRUE(read.Run()) << i;
    EXPECT_EQ(read.GetAddress(), "127.0.0.1");
    EXPECT_EQ(read.GetPort(), port);
    got += read.Data;
  }
  EXPECT_EQ(got, sent);
}

TEST(UDPChannel, CutsLongDatagramsAndEndsWhatCannotBeSent) {
  TUDPChannel channel;
  channel.SetActive(true);
  const TSocket peer(SOCK_DGRAM);
  TTransfer read(channel, okRead, std::string(1500, '\0'));
  read.SetActive(true);
  peer.SendTo(TSocket::PortOf(channel.GetSocket()), test::Noise(2000));
  ASSERT_TRUE(read.Wait());
  EXPECT_EQ(read.GetErrorCode(), 0);
  EXPECT_TRUE(read.Data == test::Noise(2000).substr(0, 1500));

  TSocket target(SOCK_DGRAM);
  const uint16_t port = target.Bind();
  for (const std::string address : {"localhost", "127.0.0.1", "", "127.0.0.1"}) {
    TTransfer write(channel, okWrite, "data", address, port);
    const bool isAddress = address == "127.0.0.1";
    EXPECT_EQ(write.Run(), isAddress);
    EXPECT_EQ(write.GetErrorCode(), isAddress ? 0 : WSAEADDRNOTAVAIL);
  }

  TTransferOperation plain;
  plain.SetChannel(&channel);
  plain.SetSelfAllocated(true);
  plain.SetSize(1);
  EXPECT_EQ(test::MessageOf([&] { plain.SetActive(true); }), "Incorrect parameters");
}

TEST(UDPChannel, WritesDatagramsOfAtMostTheBlock) {
  TUDPChannel channel;
  channel.SetActive(true);
  TSocket peer(SOCK_DGRAM);
  TTransfer write(channel, okWrite, test::Noise(4000), "127.0.0.1", peer.Bind());
  ASSERT_TRUE(write.Run());
  EXPECT_EQ(write.Marks, (std::vector<int32_t>{1500, 3000, 4000}));
  EXPECT_EQ(peer.Receive(4000), write.Data);
}

TEST(UDPChannel, ReadEndsAfterItsTimeAlsoBehindAnotherOnesReceive) {
  TUDPChannel channel;
  channel.SetActive(true);
  const std::unique_ptr<TTransferOperation> read = channel.CreateOperation();
  ASSERT_NE(dynamic_cast<TIPOperation*>(read.get()), nullptr);
  read->SetSelfAllocated(true);
  read->SetSize(10);
  for (int i = 0; i < 2; ++i) {
    const uint64_t start = ::GetTickCount64();
    read->SetActive(true);
    ASSERT_TRUE(test::WaitUntil([&] { return !read->GetActive(); }));
    EXPECT_GE(::GetTickCount64() - start, 100u);  // 120 ms, by a coarse clock
    EXPECT_FALSE(read->GetSucceeded());
  }
  // The receive that the first one began goes to the next operation.
  TTransfer next(channel, okRead, std::string(5, ' '));
  next.SetActive(true);
  TSocket(SOCK_DGRAM).SendTo(TSocket::PortOf(channel.GetSocket()), "hello");
  ASSERT_TRUE(next.Wait());
  EXPECT_EQ(next.Data, "hello");
}

TEST(UDPChannel, MulticastGroupIsJoinedAndABadOneOnlyTraced) {
  TMulticastChannel channel;
  channel.SetMulticastGroup("239.1.2.3");
  channel.SetActive(true);
  TTransfer read(channel, okRead, std::string(3, ' '));
  read.SetActive(true);
  TSocket sender(SOCK_DGRAM);
  SOCKADDR_IN group = Loopback(TSocket::PortOf(channel.GetSocket()));
  group.sin_addr.s_addr = ::inet_addr("239.1.2.3");
  const bool sent =
      ::sendto(sender.Handle, "abc", 3, 0, reinterpret_cast<SOCKADDR*>(&group), sizeof group) == 3;
  if (sent) {
    EXPECT_TRUE(read.Wait());
  } else {
    std::puts("no route for multicast here: delivery not tested");
  }
  read.SetActive(false);

  const test::TLogSince log;
  TMulticastChannel bad;
  bad.SetMulticastGroup("1.2.3.4");
  bad.SetActive(true);
  EXPECT_TRUE(log.Holds("Cannot add membership for multicast group \"1.2.3.4\""));
}

class TConnection {
 public:
  TConnection() {
    Channel.SetStringAddress("localhost");
    Channel.SetPort(Listener_.Port());
    Channel.SetActive(true);
    Peer = std::make_unique<TSocket>(Listener_.Accept());
  }
  TTCPChannel Channel;
  std::unique_ptr<TSocket> Peer;

 private:
  TListener Listener_;
};

TEST(TCPChannel, BothWaysAndInPieces) {
  TConnection c;
  TTransfer write(c.Channel, okWrite, test::Noise(4000));
  ASSERT_TRUE(write.Run());
  EXPECT_EQ(write.Marks, (std::vector<int32_t>{1500, 3000, 4000}));
  EXPECT_EQ(c.Peer->Receive(4000), write.Data);

  TTransfer read(c.Channel, okRead, std::string(100'000, ' '));
  read.SetActive(true);
  const std::string sent = test::Noise(100'000);
  c.Peer->Send(sent);
  ASSERT_TRUE(read.Wait());
  EXPECT_EQ(read.Data, sent);
  EXPECT_EQ(read.GetAddress(), "127.0.0.1");
}

TEST(TCPChannel, PeerThatClosesEndsTheReadWithWhatCame) {
  TConnection c;
  TTransfer read(c.Channel, okRead, std::string(10, ' '));
  read.SetActive(true);
  c.Peer->Send("half");
  ASSERT_TRUE(test::WaitUntil([&] { return read.GetTransferred() == 4; }));
  c.Peer->Close();
  EXPECT_FALSE(read.Wait());
  EXPECT_EQ(read.GetTransferred(), 4);
  EXPECT_EQ(read.GetErrorCode(), 0);
  EXPECT_FALSE(TTransfer(c.Channel, okRead, "x").Run());  // and each one after it, at once
}

TEST(TCPChannel, ConnectingFailsInItsOwnWords) {
  TTCPChannel channel;
  channel.SetStringAddress("127.0.0.1");
  {
    TListener gone;
    channel.SetPort(gone.Port());
  }
  for (const int32_t limit : {0, 5000}) {
    channel.SetConnectionTimeout(limit);
    try {
      channel.SetActive(true);
      ADD_FAILURE();
    } catch (const EOSError& e) {
      EXPECT_EQ(e.ErrorCode, static_cast<uint32_t>(WSAECONNREFUSED));
    }
    EXPECT_FALSE(channel.GetActive());
  }
  EXPECT_THROW(channel.SetStringAddress("no.such.host.invalid"), EOSError);

  // A server that doesn't answer: its backlog is full.
  TListener busy;
  std::vector<TSocket> waiting;
  const SOCKADDR_IN address = Loopback(busy.Port());
  for (int i = 0; i < 8; ++i) {
    waiting.emplace_back(SOCK_STREAM);
    u_long nonBlocking = 1;
    ::ioctlsocket(waiting.back().Handle, static_cast<long>(FIONBIO), &nonBlocking);
    ::connect(waiting.back().Handle, reinterpret_cast<const SOCKADDR*>(&address), sizeof address);
  }
  channel.SetStringAddress("127.0.0.1");
  channel.SetPort(busy.Port());
  channel.SetConnectionTimeout(500);
  const uint64_t start = ::GetTickCount64();
  EXPECT_EQ(test::MessageOf([&] { channel.SetActive(true); }),
            "Connection timeout (127.0.0.1:" + std::to_string(busy.Port()) + ")");
  EXPECT_GE(::GetTickCount64() - start, 484u);
}

TEST(TCPChannel, IsClosedInTheEventThatTellsOfAnEnd) {
  const int32_t before = TIPOperationBuffer::GetInstanceCount();
  for (int round = 0; round < 200; ++round) {
    TConnection c;
    struct TClosing : TTransfer {
      TClosing(TChannel& Channel, TOperationKind Kind) : TTransfer(Channel, Kind, "x") {
        SetOnComplete(TOperationNotificationEvent::Bind<&TClosing::Completed>(this));
      }
      ~TClosing() override { Close(); }
      void Completed(TObject*) {
        GetChannel()->SetActive(false);
        Done = true;
      }
      std::atomic<bool> Done = false;
    };
    TClosing operation(c.Channel, round % 2 == 0 ? okRead : okWrite);
    operation.SetActive(true);
    if (round % 4 == 0) c.Peer->Send("y");
    if (round % 4 == 2) c.Peer->Close();
    ASSERT_TRUE(test::WaitUntil([&] { return operation.Done.load(); }));
    EXPECT_FALSE(c.Channel.GetActive());
  }
  EXPECT_TRUE(test::WaitUntil([&] { return TIPOperationBuffer::GetInstanceCount() == before; }));
}

TEST(TCPChannel, AcceptedSocketKeepsTheChannelsOwnAddress) {
  TConnection c;
  TTCPChannel server;
  const SOCKET socket = std::exchange(c.Peer->Handle, INVALID_SOCKET);
  const SOCKADDR_IN from = Loopback(1);
  server.Accept(socket, from);
  server.SetActive(true);
  EXPECT_EQ(test::MessageOf([&] { server.Accept(socket, from); }), "Cannot change active channel");
  TTransfer read(server, okRead, "     ");
  read.SetActive(true);
  ASSERT_TRUE(TTransfer(c.Channel, okWrite, "12345").Run());
  ASSERT_TRUE(read.Wait());
  EXPECT_EQ(read.Data, "12345");
  EXPECT_EQ(read.GetAddress(), "0.0.0.0");
  server.SetActive(false);
  EXPECT_THROW(server.SetActive(true), EOSError);
}

/// Drives the queue on the calling thread, which must then wait alertably itself.
TEST(TCPChannel, RequestsOfACallersThreadEndInItsWaits) {
  TConnection c;
  TTransfer read(c.Channel, okRead, "    ");
  const auto drive = [&](TTransfer& Transfer) {
    TOperationQueue& queue = *c.Channel.GetOperationQueues(okRead);
    queue.Lock();  // so that the reactor does not take the operation first
    Transfer.SetActive(true);
    queue.DoOperationQueueChanged();
    queue.Unlock();
  };
  drive(read);
  c.Peer->Send("mine");
  ASSERT_TRUE(read.Wait());  // alertably
  EXPECT_EQ(read.Data, "mine");

  // A thread that ends leaves its request behind: the next read works all the same.
  TTransfer lost(c.Channel, okRead, "    ");
  std::thread([&] { drive(lost); }).join();
  lost.SetActive(false);
  TTransfer next(c.Channel, okRead, "    ");
  next.SetActive(true);
  c.Peer->Send("next");
  EXPECT_TRUE(next.Wait());
}

TEST(TCPChannel, CancelledOperationsLeaveNothingBehind) {
  const int32_t buffers = TIPOperationBuffer::GetInstanceCount();
  { TConnection warm; }
  const uint32_t handles = test::HandleCount();
  {
    TConnection c;
    for (int i = 0; i < 5000; ++i) {
      TTransfer read(c.Channel, okRead, "x"), write(c.Channel, okWrite, "y");
      read.SetActive(true);
      write.SetActive(true);
      if (i % 3 == 0) std::this_thread::yield();
    }
  }
  EXPECT_TRUE(test::WaitUntil([&] { return TIPOperationBuffer::GetInstanceCount() == buffers; }))
      << TIPOperationBuffer::GetInstanceCount() << " of " << buffers;
  EXPECT_TRUE(test::WaitUntil([&] { return test::HandleCount() <= handles + 4; }))
      << test::HandleCount() << " of " << handles;
}

/// Threads create, cancel and destroy operations at random while data flows and the channel is
/// switched off and on.
TEST(UDPChannel, StressOfEightThreads) {
  constexpr int PerThread = 2500;
  TUDPChannel channel;
  TSocket peer(SOCK_DGRAM);
  const uint16_t peerPort = peer.Bind();
  channel.SetActive(true);
  std::atomic<bool> stop = false;
  std::atomic<int> done = 0;
  std::thread feeder([&] {
    while (!stop) {
      const SOCKET socket = channel.GetSocket();
      if (socket != INVALID_SOCKET) peer.SendTo(TSocket::PortOf(socket), "datagram");
      ::Sleep(1);
    }
  });
  std::vector<std::thread> threads;
  for (uint32_t t = 0; t < 8; ++t) {
    threads.emplace_back([&, t] {
      std::mt19937 random(t);
      for (int i = 0; i < PerThread; ++i) {
        TTransfer transfer(channel, random() % 2 == 0 ? okRead : okWrite, std::string(8, 'x'),
                           "127.0.0.1", peerPort);
        try {
          transfer.SetActive(true);
          if (random() % 4 == 0) test::WaitUntil([&] { return !transfer.GetActive(); }, 20);
          if (random() % 2 == 0) transfer.SetActive(false);
        } catch (const Exception& e) {
          EXPECT_STREQ(e.what(), "Channel is not active. Cannot perform operation.");
        }
        ++done;
      }
    });
  }
  while (done < 8 * PerThread) {
    channel.SetActive(false);
    channel.SetActive(true);
    ::Sleep(20);
  }
  for (std::thread& thread : threads) thread.join();
  stop = true;
  feeder.join();
  channel.SetActive(false);
  EXPECT_TRUE(test::WaitUntil([] { return TIPOperationBuffer::GetInstanceCount() == 0; }))
      << TIPOperationBuffer::GetInstanceCount();
}

// Ends of tests/peers/channels_peer.py, whose other ends are programs of another system.

// Sends each datagram of 512 bytes back to where it came from, until one begins with "end".
const test::TRole UDPEcho("udp-echo", [](const std::vector<std::string>&) {
  TUDPChannel channel;
  channel.SetActive(true);
  std::printf("port %u\n", TSocket::PortOf(channel.GetSocket()));
  std::fflush(stdout);
  for (;;) {
    TTransfer read(channel, okRead, std::string(512, '\0'));
    read.SetTimeout(0);  // the limit would be shared out over the bytes
    if (!read.Run()) return 1;
    if (read.Data.substr(0, 3) == "end") return 0;
    TTransfer write(channel, okWrite, read.Data, read.GetAddress(), read.GetPort());
    if (!write.Run()) return 2;
  }
});

// Connects to a port and sends back what comes, 1000 bytes at a time, until the peer closes.
const test::TRole TCPEcho("tcp-echo", [](const std::vector<std::string>& Arguments) {
  TTCPChannel channel;
  channel.SetStringAddress("localhost");
  channel.SetPort(static_cast<uint16_t>(std::stoi(Arguments[0])));
  channel.SetConnectionTimeout(30'000);
  channel.SetActive(true);
  for (;;) {
    TTransfer read(channel, okRead, std::string(1000, '\0'));
    read.SetTimeout(0);
    const bool whole = read.Run();
    TTransfer write(channel, okWrite,
                    read.Data.substr(0, static_cast<size_t>(read.GetTransferred())));
    if (!write.Data.empty() && !write.Run()) return 2;
    if (whole) continue;
    std::printf("ended after %d bytes more, error %d\n", read.GetTransferred(),
                read.GetErrorCode());
    return 0;
  }
});

}  // namespace
}  // namespace velox
