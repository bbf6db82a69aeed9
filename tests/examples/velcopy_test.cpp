// The program velcopy, run as its users run it: two processes, their output, their exit codes.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <deque>
#include <filesystem>
#include <iterator>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/examples/run_example.hpp"
#include "tests/support/sockets.hpp"
#include "tests/support/support.hpp"
#include "velox/runtime/velFormat.hpp"
#include "velox/runtime/velHandle.hpp"

namespace velox {
namespace {

/// velcopy with its output, both streams, in a file.
class TVelcopy {
 public:
  TVelcopy(const test::TTemporaryFolder& Folder, const std::string& Arguments)
      : Output_(Folder.File(test::UniqueName("output-"))),
        Stream_(test::OpenStream(Output_, GENERIC_WRITE, CREATE_ALWAYS)),
        Child_(test::ExampleCommand("velcopy") + Arguments, Stream_, Stream_) {}

  uint32_t Wait() const { return Child_.Wait(120'000); }
  std::string Output() const { return test::ReadFileBytes(Output_); }
  bool Says(const std::string& Text) const {
    return test::WaitUntil([&] { return Output().find(Text) != std::string::npos; });
  }
  void Kill() const { Child_.Kill(); }

 private:
  const std::string Output_;
  const THandle Stream_;
  const test::TChild Child_;
};

// An error is one line.
void ExpectError(const TVelcopy& Program, const std::string& Message) {
  const std::string output = Program.Output();
  const size_t at = output.find("velcopy: ");
  ASSERT_NE(at, std::string::npos) << output;
  EXPECT_NE(output.find(Message, at), std::string::npos) << output << "lacks: " << Message;
  EXPECT_EQ(output.find('\n', at), output.size() - 1) << output;
}

// The longest line, where the bar writes itself anew on one.
size_t Width(const std::string& Output) {
  size_t width = 0, start = 0;
  while (start < Output.size()) {
    const size_t end = std::min(Output.find_first_of("\r\n", start), Output.size());
    width = std::max(width, end - start);
    start = end + 1;
  }
  return width;
}

TEST(Velcopy, CopiesFilesBothWaysAtOnce) {
  const test::TTemporaryFolder folder;
  const struct {
    std::string Bytes;
    const char* Receiver;
    const char* Sender;
    int Directions;
  } cases[] = {{"", "", "", 1},
               {"x", "--size 1024", "--block 1", 1},
               {"123456789", "", "", 1},
               {test::Noise(100'000), "--size 10000", "--block 4096", 1},
               {test::Noise(2 << 20), "", "--block 4096 --progress bar", 2},
               {test::Noise((5 << 20) + 7), "", "--block 1048576", 2}};
  for (const auto& c : cases) {
    SCOPED_TRACE(
        Format("%u bytes, %s %s", static_cast<unsigned>(c.Bytes.size()), c.Receiver, c.Sender));
    const std::string from = folder.File("from");
    test::WriteFileBytes(from, c.Bytes);
    std::deque<TVelcopy> programs;
    std::vector<std::string> copies;
    for (int i = 0; i < c.Directions; ++i) {
      const std::string address = "shm:" + test::UniqueName("velcopy-");
      copies.push_back(folder.File(test::UniqueName("to-")));
      const TVelcopy& receiver = programs.emplace_back(
          folder, "receive " + address + " " + copies.back() + " " + c.Receiver);
      ASSERT_TRUE(receiver.Says("waiting for a sender on " + address)) << receiver.Output();
      programs.emplace_back(folder, "send " + address + " " + from + " " + c.Sender);
    }
    std::string check;
    for (const TVelcopy& program : programs) {
      EXPECT_EQ(program.Wait(), 0u) << program.Output();
      const std::string output = program.Output();
      const size_t at = output.find("CRC-32 ");
      ASSERT_NE(at, std::string::npos) << output;
      if (check.empty()) check = output.substr(at, 15);
      EXPECT_EQ(output.substr(at, 15), check);
      EXPECT_EQ(output.find("100%") != std::string::npos, !c.Bytes.empty()) << output;
      EXPECT_LE(Width(output), 79u) << output;
    }
    // CRC-32/ISO-HDLC, the check value of its published catalogue entry.
    if (c.Bytes == "123456789") {
      const std::string output = programs.back().Output();
      EXPECT_NE(output.find("sent 9 bytes, CRC-32 CBF43926"), std::string::npos) << output;
    }
    for (const std::string& copy : copies) {
      EXPECT_TRUE(test::ReadFileBytes(copy) == c.Bytes);
      EXPECT_FALSE(std::filesystem::exists(copy + ".part"));
    }
  }
}

// A port that was free just now.
uint16_t FreePort(int Type) { return test::TSocket(Type).Bind(); }

/// Passes datagrams on between the one who sends to its port and the one at another port. One in
/// Every is lost, one doubled, and one held back behind the next.
class TBadRelay {
 public:
  TBadRelay(uint16_t Target, unsigned Every) : Every_(Every), Server_(Target) {
    Front_.Bind();
    Back_.Bind();
    Forth_ = std::jthread(
        [this](const std::stop_token& Stop) { Run(Front_, Client_, Back_, Server_, Stop); });
    Return_ = std::jthread(
        [this](const std::stop_token& Stop) { Run(Back_, Server_, Front_, Client_, Stop); });
  }

  uint16_t GetPort() const { return test::PortOf(Front_.Handle); }
  std::atomic<unsigned> Lost = 0, Doubled = 0, Reordered = 0;

 private:
  using TPort = std::atomic<uint16_t>;

  void Run(const test::TSocket& From, TPort& Sender, const test::TSocket& To, const TPort& Receiver,
           const std::stop_token& Stop) {
    std::mt19937 random(5);
    std::vector<char> buffer(2000);
    std::string held;
    From.SetLimit(20);
    while (!Stop.stop_requested()) {
      SOCKADDR_IN sender{};
      int length = sizeof sender;
      const int size = ::recvfrom(From.Handle, buffer.data(), static_cast<int>(buffer.size()), 0,
                                  reinterpret_cast<SOCKADDR*>(&sender), &length);
      if (size < 0) continue;
      Sender = ntohs(sender.sin_port);
      const std::string datagram(buffer.data(), static_cast<size_t>(size));
      const unsigned fate = random() % Every_;
      if (fate == 0) {
        ++Lost;
      } else if (fate == 2 && held.empty()) {
        ++Reordered;
        held = datagram;
      } else {
        if (fate == 1) To.SendTo(Receiver, datagram);
        Doubled += fate == 1;
        To.SendTo(Receiver, datagram);
        if (!held.empty()) To.SendTo(Receiver, std::exchange(held, {}));
      }
    }
  }

  const unsigned Every_;
  const test::TSocket Front_{SOCK_DGRAM}, Back_{SOCK_DGRAM};
  TPort Server_, Client_ = 0;
  std::jthread Forth_, Return_;
};

TEST(Velcopy, CopiesOverConnections) {
  const test::TTemporaryFolder folder;
  for (const size_t size : {size_t{0}, size_t{1}, size_t{3'000'001}}) {
    const std::string from = folder.File("from"), to = folder.File("to"), bytes = test::Noise(size),
                      port = std::to_string(FreePort(SOCK_STREAM));
    test::WriteFileBytes(from, bytes);
    TVelcopy receiver(folder, "receive tcp:" + port + " " + to);
    ASSERT_TRUE(receiver.Says("waiting for a sender on tcp:" + port)) << receiver.Output();
    TVelcopy other(folder, "receive tcp:" + port + " " + to + "2");
    EXPECT_EQ(other.Wait(), 1u);
    ExpectError(other, "cannot open tcp:" + port + ": ");
    TVelcopy sender(folder, "send tcp:localhost:" + port + " " + from);
    EXPECT_EQ(sender.Wait(), 0u) << sender.Output();
    EXPECT_EQ(receiver.Wait(), 0u) << receiver.Output();
    EXPECT_TRUE(test::ReadFileBytes(to) == bytes);
  }
}

// This receiver tells its failure before it has read anything. The sender, which listens only when
// it may send no more, has by then sent as many blocks as may be unconfirmed, and none after.
TEST(Velcopy, LeavesNoMoreThan1024BlocksUnconfirmed) {
  struct THeader {
    uint32_t Magic = 0x50434C56, Kind = 0;
    uint64_t Position = 0;
    uint32_t Size = 0, Check = 0;
  };
  const struct {
    THeader Hello{.Position = 64 << 20}, Failed{.Kind = 5, .Size = 4};
    char Reason[4] = {'s', 't', 'o', 'p'};
  } answer;
  const test::TTemporaryFolder folder;
  const std::string from = folder.File("from");
  test::WriteFileBytes(from, test::Noise(100'000));
  const test::TSocket listener(SOCK_STREAM);
  const std::string port = std::to_string(listener.Bind());
  ASSERT_EQ(::listen(listener.Handle, 1), 0);
  TVelcopy sender(folder, "send tcp:127.0.0.1:" + port + " " + from + " --block 30");
  const test::TSocket receiver(::accept(listener.Handle, nullptr, nullptr));
  const int answered = sizeof answer.Hello + sizeof answer.Failed + sizeof answer.Reason;
  EXPECT_TRUE(receiver.Send(std::string(reinterpret_cast<const char*>(&answer), answered)));
  EXPECT_EQ(receiver.Receive(1 << 20).size(), 24u + 1024 * (24 + 30));
  EXPECT_EQ(sender.Wait(), 1u);
  ExpectError(sender, "the receiver gave up: stop");
}

// The figures are those of a line that loses, doubles and reorders 5 % each.
TEST(Velcopy, CopiesOverDatagramsThatAreLostDoubledAndReordered) {
  const test::TTemporaryFolder folder;
  const std::string from = folder.File("from"), to = folder.File("to"),
                    bytes = test::Noise(4 << 20);
  const uint16_t port = FreePort(SOCK_DGRAM);
  test::WriteFileBytes(from, bytes);
  TVelcopy receiver(folder, "receive udp:" + std::to_string(port) + " " + to);
  ASSERT_TRUE(receiver.Says("waiting")) << receiver.Output();
  const TBadRelay relay(port, 20);
  // What is no packet changes nothing.
  const test::TSocket stranger(SOCK_DGRAM);
  for (const size_t size : {0, 1, 100, 1400}) stranger.SendTo(port, bytes.substr(0, size));
  TVelcopy sender(folder, "send udp:127.0.0.1:" + std::to_string(relay.GetPort()) + " " + from);
  EXPECT_EQ(sender.Wait(), 0u) << sender.Output();
  EXPECT_EQ(receiver.Wait(), 0u) << receiver.Output();
  EXPECT_TRUE(test::ReadFileBytes(to) == bytes);
  for (const unsigned count : {relay.Lost.load(), relay.Doubled.load(), relay.Reordered.load()})
    EXPECT_GT(count, 50u);
}

TEST(Velcopy, RefusesBadInputWithOneLine) {
  const test::TTemporaryFolder folder;
  const std::string file = folder.File("from"), used = test::UniqueName("velcopy-used-"),
                    foreign = test::UniqueName("velcopy-foreign-"),
                    held = test::UniqueName("velcopy-held-"),
                    refused = std::to_string(FreePort(SOCK_STREAM));
  const auto to = [&] { return folder.File(test::UniqueName("to-")); };
  test::WriteFileBytes(file, "x");
  test::WriteFileBytes(folder.File("other"), "good");
  const THandle memory(::CreateFileMappingA(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, 2000,
                                            (foreign + "Write").c_str())),
      guard(::CreateEventA(nullptr, FALSE, FALSE, (held + "sender").c_str()));
  TVelcopy receiver(folder, "receive shm:" + used + " " + folder.File("other") + " --size 2000");
  ASSERT_TRUE(receiver.Says("waiting"));
  const struct {
    std::string Arguments, Message;
  } cases[] = {
      {"send shm:velcopy-nobody " + file, "there is no receiver on shm:velcopy-nobody"},
      {"send shm:velcopy-nobody " + folder.File("none"), "Cannot open file"},
      {"send shm: " + file, "is no address like shm:NAME; see velcopy --help"},
      {"send tcp:5000 " + file, "\"tcp:5000\" is no address like tcp:HOST:PORT"},
      {"receive udp:host:5000 " + to(), "\"udp:host:5000\" is no address like udp:PORT"},
      {"receive tcp:65536 " + to(), "must be a number from 1 to 65535"},
      {"send tcp:127.0.0.1:" + refused + " " + file,
       "there is no receiver on tcp:127.0.0.1:" + refused},
      {"send tcp:no.such.host.invalid:1 " + file, "cannot find the host no.such.host.invalid: "},
      {"send shm:" + used + " " + file + " --block 0",
       "--block must be a number from 1 to 2147483647"},
      {"receive shm:" + used + " " + to(), "shm:" + used + " is in use by another receiver"},
      {"receive shm:" + foreign + " " + to(), "shm:" + foreign + " is in use by another program"},
      {"receive shm:" + held + " " + to(), "shm:" + held + " is in use by a sender"},
      {"receive shm:velcopy\\no\\such " + to(), "cannot open shm:velcopy\\no\\such: "},
      {"receive shm:velcopy-x " + to() + " --size -5",
       "--size must be a number from 1024 to 2147483635, not \"-5\"; see velcopy --help"},
      {"receive shm:velcopy-x " + to() + " --size 2147483636", "from 1024 to 2147483635"},
      {"receive shm:velcopy-x " + to() + " --size 9999999999", "from 1024 to 2147483635"},
      {"receive shm:velcopy-x " + to() + " --size", "--size needs a value; see velcopy --help"},
      {"receive shm:velcopy-x " + to() + " --fast", "unknown option --fast; see velcopy --help"},
      // A receiver that can't do its part is there for no sender, not even for a moment.
      {"receive shm:" + used + " " + folder.File("no\\such\\to"), "Cannot create file"},
      {"send shm:" + used + " " + file + " --size 5000",
       "--size is for receive; see velcopy --help"},
      {"receive shm:velcopy-x " + to() + " --block 1", "--block is for send; see velcopy --help"},
      {"", "neither send nor receive is given; see velcopy --help"},
      {"copy shm:velcopy-x " + to(), "\"copy\" is neither send nor receive; see velcopy --help"},
      {"receive shm:velcopy-x", "receive needs an address and a file; see velcopy --help"},
      {"receive shm:velcopy-x " + to() + " 1", "\"1\" is one argument too many"}};
  std::deque<TVelcopy> programs;
  for (const auto& c : cases) programs.emplace_back(folder, c.Arguments);
  for (size_t i = 0; i < std::size(cases); ++i) {
    SCOPED_TRACE(cases[i].Arguments);
    EXPECT_EQ(programs[i].Wait(), 1u);
    ExpectError(programs[i], cases[i].Message);
  }
  // This one reaches the receiver, which ends with it.
  TVelcopy sender(folder, "send shm:" + used + " " + file + " --block 2000");
  EXPECT_EQ(sender.Wait(), 1u);
  ExpectError(sender, "blocks of 2000 bytes do not fit");
  EXPECT_EQ(receiver.Wait(), 1u);
  ExpectError(receiver, "the sender gave up: blocks of 2000 bytes");
  EXPECT_EQ(test::ReadFileBytes(folder.File("other")), "good");
  for (const auto& entry : std::filesystem::directory_iterator(folder.Path())) {
    const std::string name = entry.path().filename().string();
    EXPECT_TRUE(!name.starts_with("to-") && !name.ends_with(".part")) << name;
  }
}

// What the system keeps for later may fail then. The null device takes everything, and can't say
// that it is written.
TEST(Velcopy, TellsBothSidesThatTheFileCouldNotBeWritten) {
  const test::TTemporaryFolder folder;
  const std::string from = folder.File("from"), address = "shm:" + test::UniqueName("velcopy-");
  test::WriteFileBytes(from, "x");
  TVelcopy receiver(folder, "receive " + address + " NUL");
  ASSERT_TRUE(receiver.Says("waiting")) << receiver.Output();
  TVelcopy sender(folder, "send " + address + " " + from);
  EXPECT_EQ(sender.Wait(), 1u);
  EXPECT_EQ(receiver.Wait(), 1u);
  ExpectError(receiver, "velcopy: NUL.part: ");
  ExpectError(sender, "the receiver gave up: NUL.part: ");
}

TEST(Velcopy, RefusesASecondSenderAndFinishesTheCopy) {
  const test::TTemporaryFolder folder;
  const std::string from = folder.File("from"), to = folder.File("to"),
                    bytes = test::Noise(12 << 20);
  test::WriteFileBytes(from, bytes);
  const std::string address = "shm:" + test::UniqueName("velcopy-");
  TVelcopy receiver(folder, "receive " + address + " " + to);
  ASSERT_TRUE(receiver.Says("waiting"));
  const std::string send = "send " + address + " " + from + " --block 512";
  TVelcopy sender(folder, send);
  ASSERT_TRUE(sender.Says(" s left")) << sender.Output();
  TVelcopy second(folder, send);
  EXPECT_EQ(second.Wait(), 1u);
  ExpectError(second, address + " is in use by another sender");
  EXPECT_TRUE(std::filesystem::exists(to + ".part")) << "the copy was too short";
  EXPECT_EQ(sender.Wait(), 0u) << sender.Output();
  EXPECT_EQ(receiver.Wait(), 0u) << receiver.Output();
  EXPECT_TRUE(test::ReadFileBytes(to) == bytes);
}

TEST(Velcopy, EndsWhenTheOtherSideIsKilled) {
  const test::TTemporaryFolder folder;
  const std::string from = folder.File("from");
  test::WriteFileBytes(from, "");
  std::filesystem::resize_file(from, 1u << 30);  // takes longer to copy than the case runs
  struct TCopy {
    TCopy(const test::TTemporaryFolder& Folder, const std::string& From, const std::string& To,
          const std::string& Kind, int SocketType)
        : File(Folder.File(To)),
          Place(SocketType == 0 ? test::UniqueName("velcopy-")
                                : std::to_string(FreePort(SocketType))),
          Receiver(Folder, "receive " + Kind + Place + " " + File) {
      test::WriteFileBytes(File, "good");
      EXPECT_TRUE(Receiver.Says("waiting"));
      Sender.emplace(Folder, "send " + Kind + (SocketType == 0 ? "" : "127.0.0.1:") + Place + " " +
                                 From + " --block 4096");
    }
    // Both print lines, as their output is no console.
    void AwaitLines() const {
      EXPECT_TRUE(Receiver.Says(" s left")) << File << ": " << Receiver.Output();
      EXPECT_TRUE(Sender->Says(" s left")) << File << ": " << Sender->Output();
    }
    const std::string File, Place;
    TVelcopy Receiver;
    std::optional<TVelcopy> Sender;
  };
  const struct {
    const char* Kind;
    int SocketType;
    const char* Message;
  } kinds[] = {{"shm:", 0, " has not responded for 8 seconds"},
               {"tcp:", SOCK_STREAM, "the "},  // the system tells, in one of two ways
               {"udp:", SOCK_DGRAM, " has not responded for 8 seconds"}};
  std::deque<TCopy> as, bs;
  for (const auto& [kind, socketType, message] : kinds) {
    SCOPED_TRACE(kind);
    as.emplace_back(folder, from, std::string("a") + kind[0], kind, socketType);
    bs.emplace_back(folder, from, std::string("b") + kind[0], kind, socketType);
  }
  for (const auto* copies : {&as, &bs})
    for (const TCopy& copy : *copies) copy.AwaitLines();
  // And one that was killed before it said a word, as it were.
  const std::string port = std::to_string(FreePort(SOCK_STREAM));
  TVelcopy alone(folder, "receive tcp:" + port + " " + folder.File("alone"));
  ASSERT_TRUE(alone.Says("waiting")) << alone.Output();
  const test::TSocket silent(SOCK_STREAM);
  EXPECT_TRUE(silent.Connect(static_cast<uint16_t>(std::stoi(port))));
  for (TCopy& a : as) a.Receiver.Kill();
  for (TCopy& b : bs) b.Sender->Kill();
  const ULONGLONG start = ::GetTickCount64();
  for (size_t i = 0; i < std::size(kinds); ++i) {
    SCOPED_TRACE(kinds[i].Kind);
    const TCopy &a = as[i], &b = bs[i];
    EXPECT_EQ(a.Sender->Wait(), 1u);
    EXPECT_EQ(b.Receiver.Wait(), 1u);
    // 8 seconds, and time for a machine with other work.
    EXPECT_LT(::GetTickCount64() - start, 20'000u);
    ExpectError(*a.Sender, kinds[i].Message);
    ExpectError(*a.Sender, "receiver");
    ExpectError(b.Receiver, kinds[i].Message);
    ExpectError(b.Receiver, "sender");
    for (const TCopy* copy : {&a, &b}) EXPECT_EQ(test::ReadFileBytes(copy->File), "good");
    EXPECT_TRUE(std::filesystem::exists(a.File + ".part"));  // the killed can't clean up
    EXPECT_FALSE(std::filesystem::exists(b.File + ".part"));
  }
  EXPECT_EQ(alone.Wait(), 1u);
  EXPECT_LT(::GetTickCount64() - start, 20'000u);
  ExpectError(alone, "the sender has not responded for 8 seconds");
}

}  // namespace
}  // namespace velox
