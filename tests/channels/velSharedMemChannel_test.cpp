// The shared-memory channel, against itself and against a peer made of plain system calls.
#include "velox/channels/velSharedMemChannel.hpp"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "tests/channels/transfer.hpp"
#include "velox/runtime/velException.hpp"

namespace velox {
namespace {

using enum TOperationKind;
using enum TChannelMode;

/// The channels of all cases: their queues are kept for ever, so they are used again.
class TPair {
 public:
  TPair() : Name(test::UniqueName("velox-shm-")) {}
  ~TPair() {
    Client().SetActive(false);
    Server().SetActive(false);
  }
  void Activate(TSharedMemChannel& Channel, int32_t Size) const {
    Channel.SetMemoryName(Name);
    Channel.SetMemorySize(Size);
    Channel.SetMode(&Channel == &Server() ? cmServer : cmClient);
    Channel.SetActive(true);
  }
  void Activate(int32_t Size) const {
    Activate(Server(), Size);
    Activate(Client(), Size);
  }
  static TSharedMemChannel& Server() {
    static TSharedMemChannel channel;
    return channel;
  }
  static TSharedMemChannel& Client() {
    static TSharedMemChannel channel;
    return channel;
  }
  const std::string Name;
};

using TTransfer = test::TTransfer<>;

std::string Numbers(size_t Count, char First = 0) {
  std::string result(Count, First);
  for (size_t i = 0; i < Count; ++i) result[i] = static_cast<char>(First + i);
  return result;
}

THandle Event(const std::string& Name) {
  return THandle(::OpenEventA(EVENT_ALL_ACCESS, FALSE, Name.c_str()));
}

TEST(SharedMemChannel, RefusesWhatIsMissingNameFirst) {
  const TPair pair;
  TSharedMemChannel& channel = TPair::Server();
  const auto activate = [&] { channel.SetActive(true); };
  channel.SetMemoryName("");
  channel.SetMemorySize(0);
  EXPECT_EQ(test::MessageOf(activate), "Specify name of shared memory.");
  channel.SetMemoryName(pair.Name);
  EXPECT_EQ(test::MessageOf(activate), "Specify size of shared memory.");
  channel.SetMemorySize(-1);
  EXPECT_EQ(test::MessageOf(activate), "Specify size of shared memory.");
  EXPECT_EQ(channel.GetBandwidth(), 1048576);
}

TEST(SharedMemChannel, AClientNeedsAServerAndCanTryAgain) {
  TPair pair;
  TSharedMemChannel& client = TPair::Client();
  EXPECT_EQ(test::ErrorCodeOf([&] { pair.Activate(client, 100); }), ERROR_FILE_NOT_FOUND);
  EXPECT_FALSE(client.GetActive());
  pair.Activate(100);
  EXPECT_THROW(client.SetMemorySize(1), Exception);
  EXPECT_THROW(client.SetMemoryName("x"), Exception);
  EXPECT_THROW(client.SetMode(cmServer), Exception);
}

TEST(SharedMemChannel, OneDestroyedAfterAnActivationThatFailedHalfWayLeavesNothing) {
  const std::string name = test::UniqueName("velox-channel-");
  // In the way of the second of the channel's two blocks.
  const THandle taken(::CreateEventA(nullptr, FALSE, FALSE, (name + "Write").c_str()));
  {
    TSharedMemChannel channel;
    channel.SetMemoryName(name);
    channel.SetMemorySize(100);
    channel.SetMode(cmServer);
    EXPECT_THROW(channel.SetActive(true), Exception);
    EXPECT_TRUE(Event(name + "ReadReadyEvent"));
  }
  EXPECT_FALSE(Event(name + "ReadReadyEvent"));
}

TEST(SharedMemChannel, CarriesBothWaysAlsoUnderANewName) {
  for (int round = 0; round < 3; ++round) {
    TPair pair;
    pair.Activate(1000);
    for (const bool fromClient : {true, false}) {
      TChannel& from = fromClient ? TPair::Client() : TPair::Server();
      TChannel& to = fromClient ? TPair::Server() : TPair::Client();
      const std::string sent = Numbers(700, static_cast<char>(round));
      TTransfer read(to, okRead, std::string(700, ' '));
      read.SetActive(true);
      ASSERT_TRUE(TTransfer(from, okWrite, sent.substr(0, 300)).Run());
      ASSERT_TRUE(test::WaitUntil([&] { return read.GetTransferred() == 300; }));
      EXPECT_TRUE(read.GetActive());  // until the rest arrives
      ASSERT_TRUE(TTransfer(from, okWrite, sent.substr(300)).Run());
      ASSERT_TRUE(read.Wait());
      EXPECT_EQ(read.Data, sent);
    }
  }
}

TEST(SharedMemChannel, AWriterNeverWaitsAndTheReaderGetsTheNewest) {
  TPair pair;
  pair.Activate(64);  // holds 63
  TTransfer write(TPair::Client(), okWrite, Numbers(200));
  ASSERT_TRUE(write.Run());
  EXPECT_EQ(write.Marks, (std::vector<int32_t>{63, 126, 189, 200}));
  TTransfer read(TPair::Server(), okRead, std::string(63, ' '));
  ASSERT_TRUE(read.Run());
  EXPECT_EQ(read.Data, Numbers(63, static_cast<char>(137)));
}

TEST(SharedMemChannel, WakesAWriterWhenAFullBufferHasDrainedToHalf) {
  TPair pair;
  pair.Activate(16);  // holds 15; half is 8
  TPair::Client().SetActive(false);
  const THandle wake = Event(pair.Name + "ReadRemoteReadyEvent");
  ASSERT_TRUE(wake);
  TPair::Client().SetActive(true);
  ASSERT_TRUE(TTransfer(TPair::Client(), okWrite, Numbers(15)).Run());
  TPair::Client().SetActive(false);  // no one else takes the signal
  ASSERT_TRUE(TTransfer(TPair::Server(), okRead, "123456").Run());
  EXPECT_EQ(::WaitForSingleObject(wake.Get(), 0), static_cast<DWORD>(WAIT_TIMEOUT));
  ASSERT_TRUE(TTransfer(TPair::Server(), okRead, "1").Run());
  EXPECT_EQ(::WaitForSingleObject(wake.Get(), 0), static_cast<DWORD>(WAIT_OBJECT_0));
}

TEST(SharedMemChannel, EndsItsOperationsWhenDeactivated) {
  TPair pair;
  pair.Activate(64);
  TTransfer a(TPair::Server(), okRead, "12345678"), b(TPair::Server(), okRead, "12345678");
  a.SetActive(true);
  b.SetActive(true);
  TPair::Server().SetActive(false);
  EXPECT_FALSE(a.GetActive() || b.GetActive());
  EXPECT_FALSE(a.GetSucceeded());
}

/// The peer, without the library: takes what the server writes, and writes the same bytes, each
/// plus one, back. The block: capacity, read position, write position (32-bit words), then the
/// data.
struct TRawBlock {
  explicit TRawBlock(const std::string& Name)
      : Mapping(::OpenFileMappingA(FILE_MAP_ALL_ACCESS, FALSE, Name.c_str())),
        Mutex(::OpenMutexA(MUTEX_ALL_ACCESS, FALSE, (Name + "Mutex").c_str())) {
    if (Mapping)
      Words = static_cast<uint32_t*>(::MapViewOfFile(Mapping.Get(), FILE_MAP_ALL_ACCESS, 0, 0, 0));
  }
  char* Data() const { return reinterpret_cast<char*>(Words + 3); }
  explicit operator bool() const { return Words != nullptr && Mutex; }
  THandle Mapping, Mutex;
  uint32_t* Words = nullptr;
};

int RawPeer(const std::vector<std::string>& Arguments) {
  const std::string& name = Arguments.at(0);
  const TRawBlock toServer(name + "Read"), toClient(name + "Write");
  if (!toServer || !toClient || toServer.Words[0] != 100 || toClient.Words[0] != 100) return 2;
  const THandle arrived = Event(name + "WriteRemoteReadyEvent");
  const THandle wakeReader = Event(name + "ReadReadyEvent");
  // The events on which the two writers wait.
  const THandle room = Event(name + "ReadRemoteReadyEvent");
  const THandle otherRoom = Event(name + "WriteReadyEvent");
  if (!arrived || !wakeReader || !room || !otherRoom) return 3;
  if (::WaitForSingleObject(arrived.Get(), 30'000) != WAIT_OBJECT_0) return 4;
  ::WaitForSingleObject(toClient.Mutex.Get(), INFINITE);
  const uint32_t count = toClient.Words[2] - toClient.Words[1];
  if (count != 40 || toClient.Words[1] != 0) return 5;
  std::vector<char> bytes(toClient.Data(), toClient.Data() + count);
  toClient.Words[1] = count;
  ::ReleaseMutex(toClient.Mutex.Get());

  for (char& byte : bytes) ++byte;
  ::WaitForSingleObject(toServer.Mutex.Get(), INFINITE);
  std::memcpy(toServer.Data(), bytes.data(), count);
  toServer.Words[2] = count;
  ::ReleaseMutex(toServer.Mutex.Get());
  ::SetEvent(wakeReader.Get());
  return 0;
}
const test::TRole RawPeerRole("shared-memory-peer", &RawPeer);

TEST(SharedMemChannel, SpeaksItsProtocolWithAPeerOfPlainCalls) {
  TPair pair;
  TSharedMemChannel& server = TPair::Server();
  pair.Activate(server, 100);
  test::TChild peer(test::RoleCommand("shared-memory-peer", {pair.Name}));
  TTransfer write(server, okWrite, Numbers(40)), read(server, okRead, std::string(40, ' '));
  read.SetActive(true);
  ASSERT_TRUE(write.Run());
  EXPECT_TRUE(read.Wait());
  EXPECT_EQ(read.Data, Numbers(40, 1));
  EXPECT_EQ(peer.Wait(), 0u);
}

}  // namespace
}  // namespace velox
