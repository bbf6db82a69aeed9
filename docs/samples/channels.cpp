#include "velox/channels/velCommonChannel.hpp"

#include <memory>
#include <string>
#include <vector>

#include "docs/samples/samples.hpp"
#include "velox/channels/velSharedMemChannel.hpp"
#include "velox/channels/velUDPChannel.hpp"
#include "velox/foundation/velSyncUtils.hpp"
#include "velox/foundation/velTrace.hpp"
#include "velox/runtime/velFormat.hpp"
#include "velox/runtime/velHandle.hpp"

namespace samples {

using namespace velox;

namespace {

//! [read]
/// Reads records of a fixed size, one after the other.
class TRecordReader {
 public:
  TRecordReader(TChannel& Channel, int32_t Size) : Read_(Channel.CreateOperation()) {
    Read_->SetKind(TOperationKind::okRead);
    Read_->SetSelfAllocated(true);  // the operation's own buffer,
    Read_->SetSize(Size);           // of this many bytes
    Read_->SetAutoTimeout(false);
    Read_->SetTimeout(0);  // no limit
    Read_->SetOnComplete(TOperationNotificationEvent::Bind<&TRecordReader::OnRead>(this));
  }

  void Start() { Read_->SetActive(true); }  // returns at once

  std::vector<std::string> Records;  // only OnRead touches them until Done is signalled
  THandle Done{::CreateEventA(nullptr, FALSE, FALSE, nullptr)};

 private:
  void OnRead(TObject*) {
    if (Read_->GetSucceeded()) {
      const char* const bytes = static_cast<const char*>(Read_->GetBuffer());
      Records.emplace_back(bytes, bytes + Read_->GetTransferred());
      if (Records.size() < 2) return Read_->SetActive(true);  // the next one
    }
    ::SetEvent(Done.Get());
  }

  const std::unique_ptr<TTransferOperation> Read_;  // the last member: destroying it cancels it
};
//! [read]

//! [write]
/// Told of each write that could not be carried whole.
void OnWritten(TObject* Sender) {
  const auto& write = static_cast<const TTransferOperation&>(*Sender);
  if (write.GetSucceeded()) return;
  Trace(Format("only %d of %d bytes written", write.GetTransferred(), write.GetSize()), ttError);
}

/// Sends a copy of the text; nobody needs to wait, or to free anything.
void Send(TChannel& Channel, const std::string& Text) {
  std::unique_ptr<TTransferOperation> write = Channel.CreateOperation();
  write->SetKind(TOperationKind::okWrite);
  write->SetSelfAllocated(true);
  write->SetSize(static_cast<int32_t>(Text.size()));
  Text.copy(static_cast<char*>(write->GetBuffer()), Text.size());
  write->SetOnComplete(TOperationNotificationEvent::Bind<&OnWritten>());
  write->SetFreeOnComplete(true);
  write->SetActive(true);              // raises when the channel is not active
  static_cast<void>(write.release());  // it is the channel's now
}
//! [write]

//! [limit]
/// Writes to a channel and waits for the end; tells whether all was carried in time. Done is the
/// event that its OnComplete sets. (Milliseconds should be at least the size divided by 1500.)
bool SendInTime(TTransferOperation& Write, HANDLE Done, int32_t Milliseconds) {
  Write.SetAutoTimeout(false);
  Write.SetTimeout(Milliseconds);  // for the whole operation; each chunk gets its share
  Write.SetActive(true);
  WaitForSingleObjectAlertable(Done, "the end of the write");
  return Write.GetSucceeded();
}
//! [limit]

//! [shared memory]
/// One end of a pair; the server's is activated first.
void Open(TSharedMemChannel& Channel, const std::string& Name, TChannelMode Mode) {
  Channel.SetMemoryName(Name);
  Channel.SetMemorySize(64 * 1024);  // bytes each way; both ends name the same
  Channel.SetMode(Mode);
  Channel.SetActive(true);
}
//! [shared memory]

//! [datagram]
/// Sends a datagram; the receiver's operation tells in GetAddress() and GetPort() where from.
void SendTo(TUDPChannel& Channel, const std::string& Address, uint16_t Port,
            const std::string& Text) {
  std::unique_ptr<TTransferOperation> made = Channel.CreateOperation();
  auto& write = static_cast<TIPOperation&>(*made);  // an IP channel makes these
  write.SetKind(TOperationKind::okWrite);
  write.SetAddress(Address);
  write.SetPort(Port);
  write.SetSelfAllocated(true);
  write.SetSize(static_cast<int32_t>(Text.size()));
  Text.copy(static_cast<char*>(write.GetBuffer()), Text.size());
  write.SetFreeOnComplete(true);
  write.SetActive(true);
  static_cast<void>(made.release());
}
//! [datagram]

/// The port that the system chose.
uint16_t PortOf(const TUDPChannel& Channel) {
  SOCKADDR_IN address{};
  int length = sizeof address;
  ::getsockname(Channel.GetSocket(), reinterpret_cast<SOCKADDR*>(&address), &length);
  return ntohs(address.sin_port);
}

struct TDone {
  void OnComplete(TObject*) { ::SetEvent(Event.Get()); }
  THandle Event{::CreateEventA(nullptr, FALSE, FALSE, nullptr)};
};

}  // namespace

void RunChannels() {
  TSharedMemChannel server, client;
  const std::string name = Format("velox-samples-%lu", ::GetCurrentProcessId());
  Open(server, name, TChannelMode::cmServer);
  Open(client, name, TChannelMode::cmClient);
  TRecordReader reader(server, 4);
  reader.Start();
  Send(client, "ABCD");
  Send(client, "EFGH");
  WaitForSingleObjectAlertable(reader.Done.Get());
  Expect(reader.Records == std::vector<std::string>{"ABCD", "EFGH"}, "two records come whole");

  TUDPChannel from, to;
  from.SetActive(true);
  to.SetActive(true);
  TRecordReader receiver(to, 4);
  receiver.Start();
  SendTo(from, "127.0.0.1", PortOf(to), "ABCD");
  SendTo(from, "127.0.0.1", PortOf(to), "EFGH");
  WaitForSingleObjectAlertable(receiver.Done.Get());
  Expect(receiver.Records == std::vector<std::string>{"ABCD", "EFGH"}, "two datagrams come");

  TDone done;
  char text[] = "IJKL";
  const std::unique_ptr<TTransferOperation> write = from.CreateOperation();
  static_cast<TIPOperation&>(*write).SetAddress("127.0.0.1");
  static_cast<TIPOperation&>(*write).SetPort(PortOf(to));
  write->SetKind(TOperationKind::okWrite);
  write->SetBuffer(text);
  write->SetSize(4);
  write->SetOnComplete(TOperationNotificationEvent::Bind<&TDone::OnComplete>(&done));
  Expect(SendInTime(*write, done.Event.Get(), 1000), "a datagram is sent in time");
}

}  // namespace samples
