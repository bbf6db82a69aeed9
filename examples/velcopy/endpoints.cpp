#include "endpoints.hpp"

#include <algorithm>
#include <charconv>
#include <string_view>
#include <utility>

#include "channel_link.hpp"
#include "messages.hpp"
#include "socket_endpoints.hpp"
#include "velox/channels/velCommunicationChannel.hpp"
#include "velox/channels/velSharedMemChannel.hpp"
#include "velox/foundation/velSysUtils.hpp"
#include "velox/runtime/velFormat.hpp"
#include "velox/runtime/velSystemMessage.hpp"

namespace velcopy {

using namespace velox;

namespace {

constexpr int32_t DefaultCapacity = 4 << 20;
// What a second or so carries: the sender shows progress by what is confirmed.
constexpr int32_t DefaultDatagramCapacity = 256 << 10;
constexpr int32_t DefaultLineCapacity = 32 << 10;
static_assert(Window(DefaultLineCapacity) >= MostUnconfirmed * HeaderSize);  // what a sender gets

// ---- shared memory

// Keeps a second program from using the same end of the channel, for as long as it is held.
THandle GuardEnd(const std::string& Address, const std::string& Name, const std::string& Role) {
  const std::string event = Name + Role;
  THandle guard(::CreateEventA(nullptr, FALSE, FALSE, event.c_str()));
  const DWORD error = ::GetLastError();
  // An object of another kind may have the name as well.
  if (error == ERROR_ALREADY_EXISTS || error == ERROR_INVALID_HANDLE)
    throw Exception(Address + " is in use by another " + Role);
  if (!guard) FailToOpen(Address, error);
  return guard;
}

// The channel's two memories are called NAMERead and NAMEWrite.
THandle OpenMemory(const std::string& Name) {
  return THandle(::OpenFileMappingA(FILE_MAP_READ, FALSE, Name.c_str()));
}

// A receiver makes the memory. It must not take up what a sender of a former session still holds.
void CheckUnused(const std::string& Address, const std::string& Name) {
  if (THandle(::OpenEventA(SYNCHRONIZE, FALSE, (Name + "sender").c_str())))
    throw Exception(Address + " is in use by a sender, whose receiver has ended");
  if (OpenMemory(Name + "Read") || OpenMemory(Name + "Write"))
    throw Exception(Address + " is in use by another program");
}

class TSharedMemoryLink : public TChannelLink {
 public:
  TSharedMemoryLink(THandle Guard, std::unique_ptr<TChannel> Channel, bool Receiving,
                    int32_t Capacity)
      : TChannelLink(std::move(Channel), PeerOf(Receiving), Capacity), Guard_(std::move(Guard)) {}

 private:
  const THandle Guard_;
};

std::unique_ptr<TLink> OpenSharedMemory(const std::string& Address, const std::string& Name,
                                        bool Receiving, int32_t Size) {
  // Looked at before the guard is there: a sender that comes too early is in no receiver's way.
  if (!Receiving && !OpenMemory(Name + "Read") && ::GetLastError() == ERROR_FILE_NOT_FOUND)
    throw Exception("there is no receiver on " + Address);
  THandle guard = GuardEnd(Address, Name, Receiving ? "receiver" : "sender");
  if (Receiving) CheckUnused(Address, Name);
  auto channel = std::make_unique<TSharedMemChannel>();
  channel->SetMemoryName(Name);
  channel->SetMemorySize(Size);
  channel->SetMode(Receiving ? TChannelMode::cmServer : TChannelMode::cmClient);
  try {
    channel->SetActive(true);
  } catch (const EOSError& e) {
    FailToOpen(Address, e.ErrorCode);
  }
  return std::make_unique<TSharedMemoryLink>(std::move(guard), std::move(channel), Receiving, Size);
}

// ---- serial lines

class TLineLink : public TChannelLink {
 public:
  using TChannelLink::TChannelLink;

  // Closing gives the port its prior settings back, whatever is still to be sent. A flush waits for
  // that, but has no time limit: it comes when there is next to nothing left.
  void Finish() noexcept override {
    const HANDLE port = static_cast<TCommunicationChannel&>(GetChannel()).GetHandle();
    const ULONGLONG start = ::GetTickCount64();
    DWORD errors = 0;
    COMSTAT status{};
    while (::ClearCommError(port, &errors, &status) && status.cbOutQue > 0) {
      if (::GetTickCount64() - start >= StillLimit * 1000ull) return;
      ::Sleep(10);
    }
    ::FlushFileBuffers(port);
  }
};

TCommBaudRate ParseRate(std::string_view Text) {
  const auto wanted = static_cast<DWORD>(ParseNumber("the rate", Text, 1, INT32_MAX));
  TCommunicationDCB settings;
  for (auto rate = TCommBaudRate::cbr110; rate <= TCommBaudRate::cbr921600;
       rate = static_cast<TCommBaudRate>(static_cast<int>(rate) + 1)) {
    settings.SetBaudRate(rate);
    if (settings.EncodeDCB().BaudRate == wanted) return rate;
  }
  RefuseArguments("serial lines have no rate of " + std::string(Text));
}

// N[,BAUD]. Nothing stops the other side from sending: so the driver's input queue holds as much as
// may be on the way.
std::unique_ptr<TLink> OpenLine(const std::string& Address, const std::string& Rest, bool Receiving,
                                int32_t Capacity) {
  const size_t comma = Rest.find(',');
  auto channel = std::make_unique<TCommunicationChannel>();
  channel->SetCommPortIndex(ParseNumber("the port", Rest.substr(0, comma), 1, 65535));
  channel->SetReadBufferSize(Capacity);
  channel->GetDCB().SetBaudRate(comma == std::string::npos ? TCommBaudRate::cbr115200
                                                           : ParseRate(Rest.substr(comma + 1)));
  // Chunks short enough to show within a second that the line moves.
  channel->SetWriteBufferSize(std::clamp(channel->GetDCB().GetBandwidth(), 1, 4096));
  try {
    // All timeouts, since the port may have been left with others. The driver gives a write more
    // time than the watchdog does.
    channel->SetLatence(StillLimit * 1000);
    channel->GetTimeouts().BeginUpdate();
    channel->SetActive(true);
    channel->GetTimeouts().EndUpdate();
  } catch (const EOSError& e) {
    FailToOpen(Address, e.ErrorCode);
  }
  ::PurgeComm(channel->GetHandle(), PURGE_RXCLEAR);  // of a former session
  return std::make_unique<TLineLink>(std::move(channel), PeerOf(Receiving), Capacity);
}

}  // namespace

[[noreturn]] void FailToOpen(const std::string& Address, uint32_t Error) {
  throw Exception("cannot open " + Address + ": " + SystemErrorMessage(Error));
}

[[noreturn]] void RefuseArguments(const std::string& What) {
  throw Exception(What + "; see velcopy --help");
}

int32_t ParseNumber(const std::string& What, std::string_view Text, int32_t Least, int32_t Most) {
  int32_t value = 0;
  const auto [end, error] = std::from_chars(Text.data(), Text.data() + Text.size(), value);
  if (error == std::errc() && end == Text.data() + Text.size() && value >= Least && value <= Most)
    return value;
  RefuseArguments(Format("%s must be a number from %d to %d, not \"%s\"", What.c_str(), Least, Most,
                         std::string(Text).c_str()));
}

std::unique_ptr<TLink> Open(const std::string& Address, bool Receiving,
                            std::optional<int32_t> Capacity) {
  const size_t colon = Address.find(':');
  const std::string kind = Address.substr(0, colon);
  const std::string rest = colon == std::string::npos ? "" : Address.substr(colon + 1);
  if (rest.empty()) RefuseArguments("\"" + Address + "\" is no address like shm:NAME");
  const int32_t capacity = Capacity.value_or(DefaultCapacity);
  if (kind == "shm") return OpenSharedMemory(Address, rest, Receiving, capacity);
  if (kind == "tcp") return OpenTCP(Address, rest, Receiving, capacity);
  if (kind == "udp")
    return OpenUDP(Address, rest, Receiving, Capacity.value_or(DefaultDatagramCapacity));
  if (kind == "com")
    return OpenLine(Address, rest, Receiving, Capacity.value_or(DefaultLineCapacity));
  RefuseArguments("\"" + kind + "\" is no kind of channel (there are shm, tcp, udp and com)");
}

}  // namespace velcopy
