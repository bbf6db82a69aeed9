#include "socket_endpoints.hpp"

#include <utility>

#include "channel_link.hpp"
#include "datagram_link.hpp"
#include "endpoints.hpp"
#include "velox/channels/velTCPServer.hpp"
#include "velox/channels/velUDPChannel.hpp"
#include "velox/foundation/velSyncUtils.hpp"
#include "velox/foundation/velSysUtils.hpp"
#include "velox/foundation/velTrace.hpp"
#include "velox/runtime/velSystemMessage.hpp"

namespace velcopy {

using namespace velox;

namespace {

constexpr int32_t ConnectionLimit = 8000;  // milliseconds

// HOST:PORT for a sender, PORT for a receiver.
TPlace ParsePlace(const std::string& Address, const std::string& Rest, bool Receiving) {
  TPlace place;
  const size_t colon = Rest.rfind(':');
  if (Receiving == (colon != std::string::npos) || colon == 0) {
    RefuseArguments("\"" + Address + "\" is no address like " + Address.substr(0, 3) +
                    (Receiving ? ":PORT" : ":HOST:PORT"));
  }
  const std::string port = Rest.substr(Receiving ? 0 : colon + 1);
  place.Port = static_cast<uint16_t>(ParseNumber("the port", port, 1, 65535));
  if (!Receiving) place.Address = Rest.substr(0, colon);
  return place;
}

// Asks for the host's address, if it is given by name. How long that may take the system decides.
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
    try {
      auto& channel = static_cast<TTCPChannel&>(GetChannel());
      if (!channel.GetActive()) return;
      ::shutdown(channel.GetSocket(), SD_SEND);
      StartWatchdog();
      char rest[4096];
      const ULONGLONG start = ::GetTickCount64();
      while (::GetTickCount64() - start < 2000 && Carry(Reader(), rest, sizeof rest, 2)) continue;
    } catch (const Exception&) {
      TraceException("velcopy");
    }
  }

 private:
  std::string ReasonOf(const TTransferOperation& Operation) const override {
    const int32_t error = static_cast<const TIPOperation&>(Operation).GetErrorCode();
    if (error == 0) return "the " + GetPeer() + " has ended the connection";
    return "lost the connection to the " + GetPeer() + ": " +
           SystemErrorMessage(static_cast<uint32_t>(error));
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
    StartWatchdog();  // who has connected has to say something
  }

 private:
  // On the server's thread. What comes after the first is closed.
  void OnAccept(TObject*, SOCKET Socket, const SOCKADDR_IN& Address, bool& Taken) {
    auto& channel = static_cast<TTCPChannel&>(GetChannel());
    if (channel.GetAccepted()) return;
    channel.Accept(Socket, Address);
    Taken = true;
    ::SetEvent(Taken_.Get());
  }

  const THandle Taken_;
  TCustomTCPServer Server_;
};

std::unique_ptr<TLink> Connect(const std::string& Address, const TPlace& Place, int32_t Capacity) {
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
  return std::make_unique<TTCPLink>(std::move(channel), PeerOf(false), Capacity);
}

}  // namespace

std::unique_ptr<TLink> OpenTCP(const std::string& Address, const std::string& Rest, bool Receiving,
                               int32_t Capacity) {
  const TPlace place = ParsePlace(Address, Rest, Receiving);
  if (Receiving) return std::make_unique<TListeningLink>(Address, place.Port, Capacity);
  return Connect(Address, place, Capacity);
}

std::unique_ptr<TLink> OpenUDP(const std::string& Address, const std::string& Rest, bool Receiving,
                               int32_t Capacity) {
  TPlace place = ParsePlace(Address, Rest, Receiving);
  try {
    if (Receiving) return std::make_unique<TDatagramLink>(place.Port, Capacity);
    TTCPChannel resolver;
    SetHost(resolver, place.Address);
    const IN_ADDR& address = resolver.GetRemoteAddress().sin_addr;
    place.Address = ::inet_ntoa(address);
    return std::make_unique<TDatagramLink>(place, Capacity);
  } catch (const EOSError& e) {
    FailToOpen(Address, e.ErrorCode);
  }
}

}  // namespace velcopy
