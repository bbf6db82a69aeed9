#include "velox/channels/velTCPServer.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "tests/channels/transfer.hpp"
#include "tests/support/sockets.hpp"
#include "velox/channels/velUDPChannel.hpp"
#include "velox/runtime/velException.hpp"

namespace velox {
namespace {

uint16_t PortOf(const TCustomTCPServer& Server) { return test::PortOf(Server.GetSocket()); }

struct TClient : test::TSocket {
  explicit TClient(uint16_t Port, DWORD Limit = 30'000)
      : TSocket(SOCK_STREAM), Connected(Connect(Port)) {
    SetLimit(Limit);
  }
  /// Whether a message is answered with itself.
  bool Echoes(const std::string& Message) const {
    return Send(Message) && Receive(Message.size()) == Message;
  }
  bool IsClosed() const { return Receive(1).empty(); }

  const bool Connected;
};

/// Answers each message of MessageSize bytes with itself. Some first bytes are commands.
class TEchoServer : public TTCPServer {
 public:
  explicit TEchoServer(int32_t AMessageSize = 1, uint16_t Port = 0)
      : TTCPServer(Port), MessageSize(AMessageSize) {}
  ~TEchoServer() override { Stop(); }

  const int32_t MessageSize;
  std::atomic<int> Accepted = 0, Received = 0, Sent = 0, Closed = 0;
  std::atomic<int32_t> LargestData = 0;
  std::atomic<DWORD> Thread = 0;
  std::atomic<bool> OtherThread = false;

 protected:
  void ConnectionAccepted(TTCPServerConnection& Connection) override {
    ++Accepted;
    Thread = ::GetCurrentThreadId();
    Connection.Receive();
    EXPECT_THROW(Connection.Receive(), Exception);
    EXPECT_THROW(Connection.Send("x", 1), Exception);
  }
  void ConnectionReceived(TTCPServerConnection& Connection) override {
    ++Received;
    if (::GetCurrentThreadId() != Thread) OtherThread = true;
    // An answer that was sent before stands in front.
    const char* const message = Connection.GetData().data() + Connection.GetDataPosition();
    const int32_t size = Connection.GetDataSize() - Connection.GetDataPosition();
    if (size < MessageSize) return Connection.Receive();
    LargestData = static_cast<int32_t>(Connection.GetData().size());
    if (*message == 'C') return Connection.Close();
    if (*message == 'S') ::shutdown(Connection.GetSocket(), SD_SEND);  // the answer is refused
    if (*message == 'E') throw Exception("a handler's own failure");
    Connection.Send(message, size);
  }
  void ConnectionSend(TTCPServerConnection& Connection) override {
    ++Sent;
    Connection.Receive();
  }
  void ConnectionClosed(TTCPServerConnection& Connection) override {
    ++Closed;
    TTCPServer::ConnectionClosed(Connection);
  }
};

TEST(TCPServer, EchoesWholeMessagesOnItsOneThread) {
  TEchoServer server(5000);
  server.Start();
  server.Start();
  EXPECT_TRUE(server.GetActive());
  {
    const TClient client(PortOf(server)), other(PortOf(server));
    ASSERT_TRUE(client.Connected && other.Connected);
    for (int round = 1; round <= 3; ++round) {
      const std::string message = test::Noise(5000 - static_cast<size_t>(round)) +
                                  std::string(static_cast<size_t>(round), 'x');
      ASSERT_TRUE(client.Echoes(message));
      // Four pieces or more come in, four go out, and one event tells of that.
      ASSERT_TRUE(test::WaitUntil([&] { return server.Sent == round; }));
      EXPECT_GE(server.Received, 4 * round);
      EXPECT_EQ(server.LargestData, round == 1 ? 8192 : 12288);
    }
    EXPECT_EQ(server.Accepted, 2);
    EXPECT_FALSE(server.OtherThread);
  }
  ASSERT_TRUE(test::WaitUntil([&] { return server.Closed == 2; }));
  server.Stop();
  EXPECT_EQ(server.GetConnections().GetCount(), 0);
  EXPECT_EQ(server.GetSocket(), 0u);
  EXPECT_FALSE(server.GetActive() || server.GetBound());
}

TEST(TCPServer, AConnectionEndsInItsOwnEventsAndTheServerGoesOn) {
  TEchoServer server;
  server.SetActive(true);
  const uint16_t port = PortOf(server);
  const TClient closed(port), failed(port), refused(port), fine(port);
  ASSERT_TRUE(closed.Send("C"));
  EXPECT_TRUE(closed.IsClosed());
  ASSERT_TRUE(test::WaitUntil([&] { return server.Closed == 1; }));
  ASSERT_TRUE(refused.Send("S"));
  EXPECT_TRUE(test::WaitUntil([&] { return server.Closed == 2; }));
  ASSERT_TRUE(failed.Send("E"));  // goes to the log
  EXPECT_TRUE(fine.Echoes("a"));
  EXPECT_EQ(server.Closed, 2);
}

TEST(TCPServer, StopsWithConnectionsOpenAndStartsAgainOnThePort) {
  TEchoServer server;
  server.Start();
  server.SetPort(PortOf(server));
  for (int round = 0; round < 5; ++round) {
    {
      const TClient client(server.GetPort()), silent(server.GetPort());
      ASSERT_TRUE(client.Echoes("a"));
      ASSERT_TRUE(test::WaitUntil([&] { return server.Accepted == 2 * round + 2; }));
      server.Stop();
      EXPECT_EQ(server.GetConnections().GetCount(), 2 * round + 2);  // kept, but dead
    }
    EXPECT_FALSE(TClient(server.GetPort()).Connected);
    server.Start();
  }
}

TEST(TCPServer, AKeptConnectionCanBeUsedByAnotherThread) {
  TEchoServer server;
  server.Start();
  const TClient client(PortOf(server));
  ASSERT_TRUE(test::WaitUntil([&] { return server.Accepted == 1; }));
  server.Stop();
  auto& kept = static_cast<TTCPServerConnection&>(*server.GetConnections().GetItems(0));
  kept.Receive();
  ASSERT_TRUE(client.Send("a"));
  ASSERT_TRUE(test::WaitUntil([&] { return server.Sent == 1; }));  // alertably
  EXPECT_EQ(client.Receive(1), "a");
}

TEST(TCPServer, StopsWhileClientsPourIn) {
  for (int round = 0; round < 3; ++round) {
    TEchoServer server;
    server.Start();
    const uint16_t port = PortOf(server);
    std::vector<std::jthread> clients;
    for (int i = 0; i < 4; ++i)
      clients.emplace_back([port](const std::stop_token& Stop) {
        while (!Stop.stop_requested()) TClient(port, 1);
      });
    const TClient served(port);
    ASSERT_TRUE(served.Connected);
    for (int i = 0; i < 20; ++i) ASSERT_TRUE(served.Echoes("a"));
    server.Stop();
    EXPECT_FALSE(server.GetActive());
  }
}

TEST(TCPServer, APortInUseIsAnErrorThatLeavesNothingOpen) {
  TEchoServer first;
  first.Start();
  TEchoServer second(1, PortOf(first));
  EXPECT_EQ(test::ErrorCodeOf([&] { second.Start(); }), WSAEADDRINUSE);
  EXPECT_FALSE(second.GetActive() || second.GetBound());
  EXPECT_EQ(second.GetSocket(), 0u);
  EXPECT_EQ(second.GetServerName(),
            "localhost:" + std::to_string(second.GetPort()) + " (tcp-server)");
  first.Stop();
  second.Start();
  EXPECT_TRUE(TClient(second.GetPort()).Connected);
}

TEST(TCPServer, ASocketGoesToAChannelOrIsClosed) {
  int count = 0;
  TTCPChannel channel;
  auto takeSecond = [&](TObject*, SOCKET Socket, const SOCKADDR_IN& Address, bool& Taken) {
    EXPECT_FALSE(Taken);
    EXPECT_EQ(Address.sin_addr.s_addr, htonl(INADDR_LOOPBACK));
    if (++count == 1) return;
    channel.Accept(Socket, Address);
    Taken = true;
    channel.SetActive(true);
  };
  TCustomTCPServer server(0);
  server.OnAccept = TAcceptEvent::To(takeSecond);
  server.Start();
  EXPECT_TRUE(TClient(PortOf(server)).IsClosed());
  const TClient client(PortOf(server));
  ASSERT_TRUE(test::WaitUntil([&] { return channel.GetActive(); }));
  ASSERT_TRUE(client.Send("ping"));
  test::TTransfer<TIPOperation> read(channel, TOperationKind::okRead, "    ");
  ASSERT_TRUE(read.Run());
  EXPECT_EQ(read.Data, "ping");
  ASSERT_TRUE(test::TTransfer<TIPOperation>(channel, TOperationKind::okWrite, "ping").Run());
  EXPECT_EQ(client.Receive(4), "ping");
  server.Stop();
  EXPECT_TRUE(channel.GetActive());
}

// Connections that come and go at random on eight threads, while the server closes some itself, is
// stopped with others open, and starts again.
TEST(TCPServer, StressNothingIsLostOrLeft) {
  constexpr int Threads = 8, Rounds = 150;
  TEchoServer warm;
  warm.Start();
  { const TClient client(PortOf(warm)); }
  warm.Stop();
  const uint32_t handles = test::HandleCount();
  std::atomic<int> wrong = 0, echoed = 0;
  {
    TEchoServer server;
    server.Start();
    server.SetPort(PortOf(server));
    std::vector<std::thread> threads;
    for (int t = 0; t < Threads; ++t) {
      threads.emplace_back([&, t] {
        std::mt19937 random(static_cast<unsigned>(t));
        for (int round = 0; round < Rounds; ++round) {
          // Not for long: a server that was stopped keeps its connections, and does not answer.
          const TClient client(server.GetPort(), 300);
          if (!client.Connected) continue;
          for (unsigned n = random() % 4; n > 0; --n) {
            const std::string message(1 + random() % 5000, random() % 10 == 0 ? 'C' : 'm');
            if (random() % 8 == 0) break;  // leaves in the middle
            if (!client.Send(message)) break;
            const std::string answer = client.Receive(message.size());
            if (message[0] == 'C' || answer.size() < message.size()) break;
            if (answer != message) ++wrong;
            ++echoed;
          }
        }
      });
    }
    for (int stop = 0; stop < 5; ++stop) {
      const int before = echoed;
      test::WaitUntil([&] { return echoed >= before + 50; }, 5000);
      server.Stop();
      server.Start();
    }
    for (std::thread& thread : threads) thread.join();
  }
  EXPECT_EQ(wrong, 0);
  EXPECT_GT(echoed, Threads * Rounds / 4);
  EXPECT_TRUE(test::WaitUntil([&] { return test::HandleCount() <= handles + 2; }))
      << handles << ", now " << test::HandleCount();
}

}  // namespace
}  // namespace velox
