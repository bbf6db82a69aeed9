// Datagram channels and connections over loopback, against plain sockets and each other.
#include "velox/channels/velUDPChannel.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/channels/transfer.hpp"
#include "tests/support/sockets.hpp"
#include "velox/runtime/velException.hpp"

namespace velox {
namespace {

using enum TOperationKind;
using test::Loopback;
using test::PortOf;
using test::TSocket;
struct TListener : TSocket {
  TListener() : TSocket(SOCK_STREAM) {
    Bind();
    ::listen(Handle, 1);
  }
  TSocket Accept() const { return TSocket(::accept(Handle, nullptr, nullptr)); }
};

struct TTransfer : test::TTransfer<TIPOperation> {
  TTransfer(TChannel& Channel, TOperationKind Kind, const std::string& AData,
            const std::string& Address = "", uint16_t Port = 0)
      : test::TTransfer<TIPOperation>(Channel, Kind, AData) {
    SetAddress(Address);
    SetPort(Port);
  }
};

TEST(UDPChannel, CutsLongDatagramsAndEndsWhatCannotBeSent) {
  TUDPChannel channel;
  channel.SetActive(true);
  EXPECT_EQ(test::MessageOf([&] { channel.SetPort(1); }), "Cannot change active channel");
  const TSocket peer(SOCK_DGRAM);
  TTransfer read(channel, okRead, std::string(1500, '\0'));
  read.SetActive(true);
  peer.SendTo(PortOf(channel.GetSocket()), test::Noise(2000));
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
  TSocket(SOCK_DGRAM).SendTo(PortOf(channel.GetSocket()), "hello");
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
  SOCKADDR_IN group = Loopback(PortOf(channel.GetSocket()));
  group.sin_addr.s_addr = ::inet_addr("239.1.2.3");
  const bool sent = sender.SendTo(group, "abc");
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
    Channel.SetPort(PortOf(Listener_.Handle));
    Channel.SetActive(true);
    Peer = std::make_unique<TSocket>(Listener_.Accept());
  }
  TTCPChannel Channel;
  std::unique_ptr<TSocket> Peer;

 private:
  TListener Listener_;
};

TEST(TCPChannel, PeerThatClosesEndsTheReadWithWhatCame) {
  TConnection c;
  TTransfer read(c.Channel, okRead, std::string(10, ' '));
  read.SetActive(true);
  c.Peer->Send("half");
  ASSERT_TRUE(test::WaitUntil([&] { return read.GetTransferred() == 4; }));
  c.Peer->Close();
  EXPECT_FALSE(read.Wait());
  EXPECT_EQ(read.GetTransferred(), 4);
  EXPECT_EQ(read.GetAddress(), "127.0.0.1");
  EXPECT_EQ(read.GetErrorCode(), 0);
  EXPECT_FALSE(TTransfer(c.Channel, okRead, "x").Run());  // and each one after it, at once
}

TEST(TCPChannel, ConnectingFailsInItsOwnWords) {
  TTCPChannel channel;
  channel.SetStringAddress("127.0.0.1");
  {
    TListener gone;
    channel.SetPort(PortOf(gone.Handle));
  }
  for (const int32_t limit : {0, 5000}) {
    channel.SetConnectionTimeout(limit);
    EXPECT_EQ(test::ErrorCodeOf([&] { channel.SetActive(true); }), WSAECONNREFUSED);
    EXPECT_FALSE(channel.GetActive());
  }
  EXPECT_THROW(channel.SetStringAddress("no.such.host.invalid"), EOSError);

  // A server that doesn't answer: its backlog is full.
  TListener busy;
  std::vector<TSocket> waiting;
  for (int i = 0; i < 8; ++i) {
    waiting.emplace_back(SOCK_STREAM);
    u_long nonBlocking = 1;
    ::ioctlsocket(waiting.back().Handle, static_cast<long>(FIONBIO), &nonBlocking);
    waiting.back().Connect(PortOf(busy.Handle));
  }
  channel.SetStringAddress("127.0.0.1");
  channel.SetPort(PortOf(busy.Handle));
  channel.SetConnectionTimeout(500);
  const uint64_t start = ::GetTickCount64();
  EXPECT_EQ(test::MessageOf([&] { channel.SetActive(true); }),
            "Connection timeout (127.0.0.1:" + std::to_string(channel.GetPort()) + ")");
  EXPECT_GE(::GetTickCount64() - start, 484u);
}

TEST(TCPChannel, IsClosedInTheEventThatTellsOfAnEnd) {
  const int32_t before = TIPOperationBuffer::GetInstanceCount();
  for (int round = 0; round < 200; ++round) {
    TConnection c;
    std::atomic<bool> done = false;
    auto close = [&](TObject*) {
      c.Channel.SetActive(false);
      done = true;
    };
    TTransfer operation(c.Channel, round % 2 == 0 ? okRead : okWrite, "x");
    operation.SetOnComplete(TOperationNotificationEvent::To(close));
    operation.SetActive(true);
    if (round % 4 == 0) c.Peer->Send("y");
    if (round % 4 == 2) c.Peer->Close();
    ASSERT_TRUE(test::WaitUntil([&] { return done.load(); }));
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

/// While data flows.
TEST(UDPChannel, StressOfEightThreads) {
  TUDPChannel channel;
  const TSocket peer(SOCK_DGRAM);
  const uint16_t peerPort = peer.Bind();
  channel.SetActive(true);
  {
    const std::jthread feeder([&](const std::stop_token& Stop) {
      while (!Stop.stop_requested()) {
        const SOCKET socket = channel.GetSocket();
        if (socket != INVALID_SOCKET) peer.SendTo(PortOf(socket), "datagram");
        ::Sleep(1);
      }
    });
    test::StressWhileSwitching(channel, 2500, [&](std::mt19937& Random) {
      return std::make_unique<TTransfer>(channel, Random() % 2 == 0 ? okRead : okWrite, "12345678",
                                         "127.0.0.1", peerPort);
    });
  }
  channel.SetActive(false);
  EXPECT_TRUE(test::WaitUntil([] { return TIPOperationBuffer::GetInstanceCount() == 0; }))
      << TIPOperationBuffer::GetInstanceCount();
}

// Ends of tests/peers/channels_peer.py, whose other ends are programs of another system.

// Sends each datagram of 512 bytes back to where it came from, until one begins with "end".
const test::TRole UDPEcho("udp-echo", [](const std::vector<std::string>&) {
  TUDPChannel channel;
  channel.SetActive(true);
  std::printf("port %u\n", PortOf(channel.GetSocket()));
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
