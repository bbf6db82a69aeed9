#include "endpoints.hpp"

#include <algorithm>
#include <charconv>
#include <string_view>
#include <utility>

#include "channel_link.hpp"
#include "datagram_link.hpp"
#include "velox/channels/velCommunicationChannel.hpp"
#include "velox/channels/velSharedMemChannel.hpp"
#include "velox/channels/velTCPServer.hpp"
#include "velox/channels/velUDPChannel.hpp"
#include "velox/foundation/velSyncUtils.hpp"
#include "velox/foundation/velSysUtils.hpp"
#include "velox/runtime/velFormat.hpp"
#include "velox/runtime/velSystemMessage.hpp"

namespace velcopy {

using namespace velox;

namespace {

constexpr int32_t DefaultCapacity = 4 << 20;
constexpr int32_t ConnectionLimit = 8000;  // milliseconds

const char* PeerOf(bool Receiving) { return Receiving ? "sender" : "receiver"; }

[[noreturn]] void FailToOpen(const std::string& Address, DWORD Error) {
  throw Exception("cannot open " + Address + ": " + SystemErrorMessage(Error));
}

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

// The guard keeps a second program from using the same end of the channel.
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

// ---- sockets

// HOST:PORT for a sender, PORT for a receiver.
TPlace ParsePlace(const std::string& Address, const std::string& Rest, bool Receiving) {
  TPlace place;
  const size_t colon = Rest.rfind(':');
  if (Receiving == (colon != std::string::npos) || colon == 0) {
    RefuseArguments("\"" + Address + "\" is no address like " + Address.substr(0, 3) +
                    (Receiving ? ":PORT" : ":HOST:PORT"));
  }
  const std::string_view port = std::string_view(Rest).substr(Receiving ? 0 : colon + 1);
  const auto [end, error] = std::from_chars(port.data(), port.data() + port.size(), place.Port);
  if (error != std::errc() || end != port.data() + port.size() || place.Port == 0) {
    RefuseArguments("the port in \"" + Address + "\" must be a number from 1 to 65535");
  }
  if (!Receiving) place.Address = Rest.substr(0, colon);
  return place;
}

// Asks for the host's address, if it is given by name.
void SetHost(TTCPChannel& Channel, const std::string& Host) {
  try {
    Channel.SetStringAddress(Host);
  } catch (const EOSError& e) {
    throw Exception("cannot find the host " + Host + ": " + SystemErrorMessage(e.ErrorCode));
  }
}

class TTCPLink : public TChannelLink {
 public:
  using TChannelLink::TChannelLink;

  // Closing a socket with bytes unread would take back what was sent last. So this side says that
  // it sends no more, and takes what comes until the other says so too.
  void Finish() noexcept override {
    auto& channel = static_cast<TTCPChannel&>(GetChannel());
    if (!channel.GetActive()) return;
    ::shutdown(channel.GetSocket(), SD_SEND);
    StartWatchdog();
    char rest[4096];
    const ULONGLONG start = ::GetTickCount64();
    while (::GetTickCount64() - start < 2000 && Carry(Reader(), rest, sizeof rest, 2)) continue;
  }
};

// A receiver's: listens, and takes the first connection over into its channel.
class TListeningLink : public TTCPLink {
 public:
  TListeningLink(const std::string& Address, uint16_t Port, int32_t Capacity)
      : TTCPLink(std::make_unique<TTCPChannel>(), PeerOf(true), Capacity),
        Taken_(::CreateEventA(nullptr, TRUE, FALSE, nullptr)),
        Server_(Port) {
    Server_.OnAccept = TAcceptEvent::Bind<&TListeningLink::OnAccept>(this);
    try {
      Server_.Start();
    } catch (const EOSError& e) {
      FailToOpen(Address, e.ErrorCode);
    }
  }

  void AwaitPeer() override {
    WaitForSingleObjectAlertable(Taken_.Get(), "velcopy");
    Server_.Stop();
    GetChannel().SetActive(true);
  }

 private:
  // On the server's thread. What comes after the first is closed.
  void OnAccept(TObject*, SOCKET Socket, const SOCKADDR_IN& Address, bool& Taken) {
    auto& channel = static_cast<TTCPChannel&>(GetChannel());
    if (channel.GetAccepted()) return;
    Taken = true;
    channel.Accept(Socket, Address);
    ::SetEvent(Taken_.Get());
  }

  const THandle Taken_;
  TCustomTCPServer Server_;
};

std::unique_ptr<TLink> Connect(const std::string& Address, const TPlace& Place) {
  auto channel = std::make_unique<TTCPChannel>();
  SetHost(*channel, Place.Address);
  channel->SetPort(Place.Port);
  channel->SetConnectionTimeout(ConnectionLimit);
  try {
    channel->SetActive(true);
  } catch (const EOSError& e) {
    if (e.ErrorCode == WSAECONNREFUSED) throw Exception("there is no receiver on " + Address);
    FailToOpen(Address, e.ErrorCode);
  }
  return std::make_unique<TTCPLink>(std::move(channel), PeerOf(false), DefaultCapacity);
}

std::unique_ptr<TLink> OpenDatagrams(const std::string& Address, TPlace Place, bool Receiving,
                                     int32_t Capacity) {
  try {
    if (Receiving) return std::make_unique<TDatagramLink>(Place.Port, Capacity);
    TTCPChannel resolver;
    SetHost(resolver, Place.Address);
    const IN_ADDR& address = resolver.GetRemoteAddress().sin_addr;
    Place.Address = ::inet_ntoa(address);
    return std::make_unique<TDatagramLink>(Place, Capacity);
  } catch (const EOSError& e) {
    FailToOpen(Address, e.ErrorCode);
  }
}

// ---- serial lines

constexpr int32_t DefaultLineCapacity = 32 << 10;

int32_t ParseNumber(const std::string& What, std::string_view Text, int32_t Most) {
  int32_t value = 0;
  const auto [end, error] = std::from_chars(Text.data(), Text.data() + Text.size(), value);
  if (error == std::errc() && end == Text.data() + Text.size() && value > 0 && value <= Most)
    return value;
  RefuseArguments(Format("%s must be a number from 1 to %d, not \"%s\"", What.c_str(), Most,
                         std::string(Text).c_str()));
}

TCommBaudRate ParseRate(std::string_view Text) {
  const auto wanted = static_cast<DWORD>(ParseNumber("the rate", Text, INT32_MAX));
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
  channel->SetCommPortIndex(ParseNumber("the port", Rest.substr(0, comma), 65535));
  channel->SetReadBufferSize(Capacity);
  channel->GetDCB().SetBaudRate(comma == std::string::npos ? TCommBaudRate::cbr115200
                                                           : ParseRate(Rest.substr(comma + 1)));
  // Chunks short enough to show within a second that the line moves.
  channel->SetWriteBufferSize(std::clamp(channel->GetDCB().GetBandwidth(), 1, 4096));
  try {
    channel->SetActive(true);
  } catch (const EOSError& e) {
    FailToOpen(Address, e.ErrorCode);
  }
  ::PurgeComm(channel->GetHandle(), PURGE_RXCLEAR);  // of a former session
  return std::make_unique<TChannelLink>(std::move(channel), PeerOf(Receiving), Capacity);
}

}  // namespace

[[noreturn]] void RefuseArguments(const std::string& What) {
  throw Exception(What + "; see velcopy --help");
}

std::unique_ptr<TLink> Open(const std::string& Address, bool Receiving,
                            std::optional<int32_t> Capacity) {
  const size_t colon = Address.find(':');
  const std::string kind = Address.substr(0, colon);
  const std::string rest = colon == std::string::npos ? "" : Address.substr(colon + 1);
  if (rest.empty()) RefuseArguments("\"" + Address + "\" is no address like shm:NAME");
  const int32_t capacity = Capacity.value_or(DefaultCapacity);
  if (kind == "shm") return OpenSharedMemory(Address, rest, Receiving, capacity);
  if (kind == "tcp") {
    const TPlace place = ParsePlace(Address, rest, Receiving);
    if (Receiving) return std::make_unique<TListeningLink>(Address, place.Port, capacity);
    return Connect(Address, place);
  }
  if (kind == "udp")
    return OpenDatagrams(Address, ParsePlace(Address, rest, Receiving), Receiving, capacity);
  if (kind == "com")
    return OpenLine(Address, rest, Receiving, Capacity.value_or(DefaultLineCapacity));
  RefuseArguments("\"" + kind + "\" is no kind of channel (there are shm, tcp, udp and com)");
}

}  // namespace velcopy
