#include <memory>
#include <string>

#include "docs/samples/samples.hpp"
#include "velox/channels/velTCPServer.hpp"
#include "velox/channels/velUDPChannel.hpp"
#include "velox/foundation/velSyncUtils.hpp"
#include "velox/foundation/velSysUtils.hpp"
#include "velox/runtime/velHandle.hpp"

namespace samples {

using namespace velox;

namespace {

//! [echo]
/// Sends back what each client sends.
class TEchoServer : public TTCPServer {
 public:
  explicit TEchoServer(uint16_t Port) : TTCPServer(Port) {}
  ~TEchoServer() override { Stop(); }  // the overrides below run until then

 protected:
  void ConnectionAccepted(TTCPServerConnection& Connection) override { Connection.Receive(); }

  // What is received stands in the buffer behind the answer that was sent last.
  void ConnectionReceived(TTCPServerConnection& Connection) override {
    const int32_t answered = Connection.GetDataPosition();
    Connection.Send(Connection.GetData().data() + answered, Connection.GetDataSize() - answered);
  }

  void ConnectionSend(TTCPServerConnection& Connection) override { Connection.Receive(); }
};
//! [echo]

//! [accept]
/// Takes the first connection over into a channel.
class TReceiver {
 public:
  explicit TReceiver(uint16_t Port) : Server_(Port) {
    Server_.OnAccept = TAcceptEvent::Bind<&TReceiver::OnAccept>(this);
    Server_.Start();
  }

  SOCKET GetListeningSocket() const { return Server_.GetSocket(); }
  TTCPChannel Channel;
  THandle Taken{::CreateEventA(nullptr, TRUE, FALSE, nullptr)};

 private:
  void OnAccept(TObject*, SOCKET Socket, const SOCKADDR_IN& Address, bool& IsTaken) {
    if (Channel.GetAccepted()) return;  // the server closes it
    Channel.Accept(Socket, Address);    // (when this raises, too)
    IsTaken = true;                     // the channel closes it now
    Channel.SetActive(true);
    ::SetEvent(Taken.Get());
  }

  TCustomTCPServer Server_;  // the last member: destroyed first, which stops it
};
//! [accept]

//! [connect]
void Connect(TTCPChannel& Channel, const std::string& Host, uint16_t Port) {
  Channel.SetStringAddress(Host);  // a name is looked up here
  Channel.SetPort(Port);
  Channel.SetConnectionTimeout(5000);
  Channel.SetActive(true);  // raises EOSError when the connection is refused
}
//! [connect]

uint16_t PortOf(SOCKET Socket) {
  SOCKADDR_IN address{};
  int length = sizeof address;
  ::getsockname(Socket, reinterpret_cast<SOCKADDR*>(&address), &length);
  return ntohs(address.sin_port);
}

struct TDone {
  void OnComplete(TObject*) { ::SetEvent(Event.Get()); }
  THandle Event{::CreateEventA(nullptr, FALSE, FALSE, nullptr)};
};

bool Carry(TChannel& Channel, TOperationKind Kind, char* Bytes, int32_t Size) {
  TDone done;
  const std::unique_ptr<TTransferOperation> operation = Channel.CreateOperation();
  operation->SetKind(Kind);
  operation->SetBuffer(Bytes);
  operation->SetSize(Size);
  operation->SetAutoTimeout(false);
  operation->SetTimeout(10000 * Size);  // a read that waits counts as one byte
  operation->SetOnComplete(TOperationNotificationEvent::Bind<&TDone::OnComplete>(&done));
  operation->SetActive(true);
  WaitForSingleObjectAlertable(done.Event.Get());
  return operation->GetSucceeded();
}

}  // namespace

void RunServer() {
  TEchoServer echo(0);
  echo.Start();
  TTCPChannel client;
  Connect(client, "127.0.0.1", PortOf(echo.GetSocket()));
  for (const char* text : {"first", "again"}) {
    std::string sent = text, received(5, ' ');
    Expect(Carry(client, TOperationKind::okWrite, sent.data(), 5), "the text is sent");
    Expect(Carry(client, TOperationKind::okRead, received.data(), 5), "the echo comes");
    Expect(sent == received, "the echo is the text");
  }
  TReceiver receiver(0);
  TTCPChannel sender;
  Connect(sender, "localhost", PortOf(receiver.GetListeningSocket()));
  WaitForSingleObjectAlertable(receiver.Taken.Get());
  std::string sent = "hello", received(5, ' ');
  Expect(Carry(sender, TOperationKind::okWrite, sent.data(), 5), "the text is sent");
  Expect(Carry(receiver.Channel, TOperationKind::okRead, received.data(), 5), "it is received");
  Expect(sent == received, "what is received is what was sent");
}

}  // namespace samples
