// The settings of ports, and channels over a pair of ports that tests/peers/serial_peer.py
// connects.
#include "velox/channels/velCommunicationChannel.hpp"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "tests/channels/transfer.hpp"

namespace velox {
namespace {

using enum TOperationKind;

// The block as words: the flags stand in the third, in the order of the system's structure.
std::vector<uint32_t> WordsOf(const TCommunicationDCB& Settings) {
  const DCB block = Settings.EncodeDCB();
  std::vector<uint32_t> words(sizeof block / 4);
  std::memcpy(words.data(), &block, sizeof block);
  return words;
}

TEST(CommunicationDCB, EncodesAndDecodesEachSettingInItsPlace) {
  TCommunicationDCB defaults;
  // 19200; binary, DTR and RTS on; 512 and 128; 8 bits; the bytes 17 and 19.
  EXPECT_EQ(WordsOf(defaults),
            (std::vector<uint32_t>{28, 19200, 0x1011, 512u << 16, 0x00080080, 0x00131100, 0}));
  const struct {
    void (*Set)(TCommunicationDCB&);
    uint32_t Flags;  // those that are set besides binary, in place of DTR and RTS
  } flags[] = {
      {[](TCommunicationDCB& d) { d.SetEnableParity(true); }, 0x2},
      {[](TCommunicationDCB& d) { d.SetOutxCtsFlow(true); }, 0x4},
      {[](TCommunicationDCB& d) { d.SetOutxDsrFlow(true); }, 0x8},
      {[](TCommunicationDCB& d) { d.SetDtrControl(TCommDtrControl::dtrEnable); }, 0x10},
      {[](TCommunicationDCB& d) { d.SetDtrControl(TCommDtrControl::dtrHandshake); }, 0x20},
      {[](TCommunicationDCB& d) { d.SetDsrSensitivity(true); }, 0x40},
      {[](TCommunicationDCB& d) { d.SetTXContinueOnXoff(true); }, 0x80},
      {[](TCommunicationDCB& d) { d.SetOutX(true); }, 0x100},
      {[](TCommunicationDCB& d) { d.SetInX(true); }, 0x200},
      {[](TCommunicationDCB& d) { d.SetEnableErrorChar(true); }, 0x400},
      {[](TCommunicationDCB& d) { d.SetEnableNull(true); }, 0x800},
      {[](TCommunicationDCB& d) { d.SetRtsControl(TCommRtsControl::rtsEnable); }, 0x1000},
      {[](TCommunicationDCB& d) { d.SetRtsControl(TCommRtsControl::rtsToggle); }, 0x3000},
      {[](TCommunicationDCB& d) { d.SetAbortOnError(true); }, 0x4000},
  };
  for (const auto& [set, bits] : flags) {
    TCommunicationDCB settings;
    settings.SetDtrControl(TCommDtrControl::dtrDisable);
    settings.SetRtsControl(TCommRtsControl::rtsDisable);
    set(settings);
    EXPECT_EQ(WordsOf(settings)[2], bits | 1);
    TCommunicationDCB back;
    back.DecodeDCB(settings.EncodeDCB());
    EXPECT_EQ(WordsOf(back), WordsOf(settings));
  }
  TCommunicationDCB settings;
  settings.SetBaudRate(TCommBaudRate::cbr460800);
  settings.SetXonLim(1);
  settings.SetXoffLim(2);
  settings.SetByteSize(7);
  settings.SetParityScheme(TCommParityScheme::cpSpace);
  settings.SetStopBits(TCommStopBits::csbTwo);
  settings.SetXonChar(250);
  settings.SetXoffChar(251);
  settings.SetErrorChar(252);
  settings.SetEofChar(253);
  settings.SetEvtChar(254);
  EXPECT_EQ(WordsOf(settings),
            (std::vector<uint32_t>{28, 460800, 0x1011, 1u << 16, 0x04070002, 0xFCFBFA02, 0xFEFD}));
  TCommunicationDCB back;
  back.DecodeDCB(settings.EncodeDCB());
  EXPECT_EQ(WordsOf(back), WordsOf(settings));
  back.InitializeDefault();
  EXPECT_EQ(WordsOf(back), WordsOf(defaults));
}

TEST(CommunicationDCB, RefusesValuesThatItHasNoNameFor) {
  const struct {
    void (*Spoil)(DCB&);
    std::string What;
  } cases[] = {
      {[](DCB& b) { b.BaudRate = 921600; }, "baud rate"},  // can be set all the same
      {[](DCB& b) { b.BaudRate = 12345; }, "baud rate"},
      {[](DCB& b) { b.fDtrControl = 3; }, "dtr control"},
      {[](DCB& b) { b.Parity = 5; }, "parity"},
      {[](DCB& b) { b.StopBits = 3; }, "stop bits"},
  };
  for (const auto& [spoil, what] : cases) {
    TCommunicationDCB settings;
    DCB block = settings.EncodeDCB();
    spoil(block);
    settings.SetXonLim(7);
    EXPECT_EQ(test::MessageOf([&] { settings.DecodeDCB(block); }), "Incorrect value for " + what);
    EXPECT_EQ(settings.GetXonLim(), 7);  // nothing was taken over
  }
  TCommunicationDCB fast;
  fast.SetBaudRate(TCommBaudRate::cbr921600);
  EXPECT_EQ(fast.EncodeDCB().BaudRate, 921600u);
}

TEST(CommunicationDCB, BandwidthCountsTheBitsOfAByte) {
  TCommunicationDCB settings;
  EXPECT_EQ(settings.GetBandwidth(), 1920);
  settings.SetBaudRate(TCommBaudRate::cbr9600);
  settings.SetByteSize(7);
  settings.SetParityScheme(TCommParityScheme::cpEven);
  settings.SetStopBits(TCommStopBits::csbOneAndHalf);
  EXPECT_EQ(settings.GetBandwidth(), 872);
}

TEST(CommunicationChannel, TimeoutsFollowBandwidthAndLatence) {
  for (const bool nt : {true, false}) {
    TCommunicationChannel channel(nt);
    channel.SetBandwidth(1920);
    channel.SetLatence(30);
    EXPECT_EQ(channel.GetTimeouts().GetWriteTotalTimeoutMultiplier(), 1u);
    EXPECT_EQ(channel.GetTimeouts().GetWriteTotalTimeoutConstant(), 30u);
    channel.SetBandwidth(11);
    EXPECT_EQ(channel.GetTimeouts().GetWriteTotalTimeoutMultiplier(), 91u);
    EXPECT_THROW(channel.SetBandwidth(0), EDivByZero);
    EXPECT_FALSE(channel.GetTimeouts().GetModified());
    channel.SetCommPortIndex(250);
    EXPECT_THROW(channel.SetActive(true), EOSError);
    EXPECT_FALSE(channel.GetActive());
    EXPECT_EQ(channel.GetHandle(), INVALID_HANDLE_VALUE);
  }
}

// --- A pair of connected ports ---

using TTransfer = test::TTransfer<>;

/// Both ends of the line, each with the way of telling the end of requests that the case is for.
class CommunicationPorts : public testing::TestWithParam<bool> {
 protected:
  void SetUp() override {
    const char* const ports = std::getenv("VELOX_TEST_PORTS");
    if (ports == nullptr)
      GTEST_SKIP() << "there are no serial ports here; tests/peers/serial_peer.py runs this";
    Near.SetCommPortIndex(std::atoi(ports));
    Far.SetCommPortIndex(std::atoi(std::strchr(ports, ',') + 1));
    for (TCommunicationChannel* channel : {&Near, &Far}) {
      channel->GetDCB().SetBaudRate(TCommBaudRate::cbr115200);
      channel->SetActive(true);
      EXPECT_EQ(channel->GetBandwidth(), 11520);
    }
  }

  TCommunicationChannel Near{GetParam()}, Far{GetParam()};
};

INSTANTIATE_TEST_SUITE_P(BothWays, CommunicationPorts, testing::Bool());

TEST_P(CommunicationPorts, CarryAMebibyteBothWaysAtOnce) {
  const std::string forth = test::Noise(1 << 20), back = test::Noise((1 << 20) - 5);
  TTransfer readForth(Far, okRead, std::string(forth.size(), 0)),
      readBack(Near, okRead, std::string(back.size(), 0)), writeForth(Near, okWrite, forth),
      writeBack(Far, okWrite, back);
  for (TTransfer* transfer : {&readForth, &readBack, &writeForth, &writeBack})
    transfer->SetActive(true);
  for (TTransfer* transfer : {&writeForth, &writeBack, &readForth, &readBack})
    EXPECT_TRUE(transfer->Wait(300'000));
  EXPECT_TRUE(readForth.Data == forth);
  EXPECT_TRUE(readBack.Data == back);
}

TEST_P(CommunicationPorts, ACancelledReadLeavesWhatComesToTheNext) {
  const uint32_t handles = test::HandleCount();
  std::string sent, got;
  for (int i = 0; i < 500; ++i) {
    const std::string message = "message " + std::to_string(i) + ";";
    TTransfer cancelled(Far, okRead, std::string(5, 0));
    cancelled.SetActive(true);
    TTransfer write(Near, okWrite, message);
    ASSERT_TRUE(write.Run());
    sent += message;
    cancelled.SetActive(false);
    got += cancelled.Data.substr(0, static_cast<size_t>(cancelled.GetTransferred()));
    TTransfer read(Far, okRead, std::string(sent.size() - got.size(), 0));
    ASSERT_TRUE(read.Run()) << i;
    got += read.Data;
    ASSERT_EQ(got, sent);
  }
  EXPECT_TRUE(test::WaitUntil([&] { return test::HandleCount() <= handles + 4; }));
}

TEST_P(CommunicationPorts, OperationsComeAndGoAtRandom) {
  test::StressWhileSwitching(Near, 300, [&](std::mt19937& Random) {
    return std::make_unique<TTransfer>(Random() % 2 == 0 ? Near : Far,
                                       Random() % 2 == 0 ? okRead : okWrite,
                                       std::string(1 + Random() % 50, 'x'));
  });
}

TEST_P(CommunicationPorts, AReadEndsInTime) {
  if (!GetParam()) GTEST_SKIP() << "reads have no time limit where an event tells their end";
  TTransfer read(Far, okRead, std::string(100, 0));
  read.SetAutoTimeout(true);
  Far.SetLatence(50);  // without it the time of a single byte comes to nothing, which is no limit
  int whole = 0;
  while (read.Run()) ++whole;  // what another case has left on the line comes first
  EXPECT_FALSE(read.GetActive());
  EXPECT_LT(whole, 10'000);
}

TEST_P(CommunicationPorts, AnOperationEndsThatThePortDoesNotTake) {
  // The port's handle becomes one of something else, as if the device had gone.
  const HANDLE port = Near.GetHandle();
  ::CloseHandle(port);
  std::vector<HANDLE> others;
  do others.push_back(::CreateEventA(nullptr, FALSE, FALSE, nullptr));
  while (others.back() != port && others.size() < 1000);
  ASSERT_EQ(others.back(), port);
  others.pop_back();  // the channel's now
  for (const HANDLE other : others) ::CloseHandle(other);
  for (const TOperationKind kind : {okRead, okWrite}) {
    TTransfer first(Near, kind, "12345"), second(Near, kind, "12345");  // without time limits
    first.SetActive(true);
    second.SetActive(true);
    for (TTransfer* transfer : {&first, &second}) {
      EXPECT_FALSE(transfer->Wait());
      EXPECT_FALSE(transfer->GetActive()) << "kind " << static_cast<int>(kind);
    }
  }
}

TEST_P(CommunicationPorts, SettingsReachThePortAsTheyShould) {
  const auto rate = [this] {
    DCB block{};
    block.DCBlength = sizeof block;
    EXPECT_TRUE(::GetCommState(Near.GetHandle(), &block));
    return block.BaudRate;
  };
  const auto constant = [this] {
    COMMTIMEOUTS timeouts{};
    EXPECT_TRUE(::GetCommTimeouts(Near.GetHandle(), &timeouts));
    return timeouts.ReadTotalTimeoutConstant;
  };
  TCommunicationDCB& settings = Near.GetDCB();
  TCommunicationTimeouts& timeouts = Near.GetTimeouts();
  EXPECT_EQ(rate(), 115200u);
  settings.SetBaudRate(TCommBaudRate::cbr9600);
  EXPECT_EQ(rate(), 9600u);
  settings.BeginUpdate();
  settings.BeginUpdate();
  settings.SetBaudRate(TCommBaudRate::cbr19200);
  settings.EndUpdate();
  EXPECT_EQ(rate(), 9600u);
  EXPECT_TRUE(settings.GetModified());
  settings.EndUpdate();
  EXPECT_EQ(rate(), 19200u);
  EXPECT_FALSE(settings.GetModified());

  const DWORD before = constant();
  timeouts.SetReadTotalTimeoutConstant(before + 77);
  EXPECT_EQ(constant(), before);
  timeouts.BeginUpdate();
  timeouts.SetReadIntervalTimeout(5);
  timeouts.EndUpdate();
  EXPECT_EQ(constant(), before + 77);
  EXPECT_THROW(Near.SetReadBufferSize(1), Exception);

  // Opened inside an update, the port gets them all.
  Near.SetActive(false);
  Near.SetLatence(500);
  timeouts.BeginUpdate();
  Near.SetActive(true);
  timeouts.EndUpdate();
  COMMTIMEOUTS written{};
  EXPECT_TRUE(::GetCommTimeouts(Near.GetHandle(), &written));
  EXPECT_EQ(written.WriteTotalTimeoutConstant, 500u);
  EXPECT_EQ(written.WriteTotalTimeoutMultiplier, 1u);
  EXPECT_EQ(constant(), before + 77);
}

}  // namespace
}  // namespace velox
