#include "channel_link.hpp"

#include "velox/foundation/velSyncUtils.hpp"
#include "velox/runtime/velFormat.hpp"

namespace velcopy {

using namespace velox;

TChannelLink::TChannelLink(std::unique_ptr<TChannel> Channel, std::string Peer, int32_t Capacity)
    : Peer_(std::move(Peer)),
      Capacity_(Capacity),
      Done_(::CreateEventA(nullptr, FALSE, FALSE, nullptr)),
      Channel_(std::move(Channel)),
      Reader_(MakeOperation(TOperationKind::okRead)),
      Writer_(MakeOperation(TOperationKind::okWrite)) {
  Watchdog_.SetOnExecute(TTaskExecuteEvent::Bind<&TChannelLink::OnSecond>(this));
  Watchdog_.SetDuration(1000);
  Watchdog_.SetPeriod(1000);
}

TChannelLink::~TChannelLink() = default;

std::unique_ptr<TTransferOperation> TChannelLink::MakeOperation(TOperationKind Kind) {
  std::unique_ptr<TTransferOperation> operation = Channel_->CreateOperation();
  operation->SetKind(Kind);
  operation->SetAutoTimeout(false);  // and no limit: the watchdog ends it
  operation->SetOnComplete(TOperationNotificationEvent::Bind<&TChannelLink::OnComplete>(this));
  operation->SetOnTransferred(TOperationTransferEvent::Bind<&TChannelLink::OnTransferred>(this));
  return operation;
}

void TChannelLink::Write(const void* Bytes, int32_t Size) {
  // An operation's buffer serves both directions; a write does not change it.
  if (!Carry(*Writer_, const_cast<void*>(Bytes), Size)) TellWhy(*Writer_);
}

void TChannelLink::Read(void* Bytes, int32_t Size) {
  if (!Carry(*Reader_, Bytes, Size)) TellWhy(*Reader_);
}

bool TChannelLink::Carry(TTransferOperation& Operation, void* Bytes, int32_t Size, int Limit) {
  SecondsStill_ = 0;
  Operation.SetBuffer(Bytes);
  Operation.SetSize(Size);
  Operation.SetActive(true);
  while (Operation.GetActive() && SecondsStill_ < Limit)
    WaitForSingleObjectAlertable(Done_.Get(), "velcopy");
  if (Operation.GetActive()) Operation.SetActive(false);
  return Operation.GetSucceeded();
}

void TChannelLink::TellWhy(const TTransferOperation& Operation) const {
  if (SecondsStill_ >= StillLimit) {
    throw EPeerGone(Format("the %s has not responded for %d seconds; has it ended?", Peer_.c_str(),
                           StillLimit));
  }
  throw EPeerGone(ReasonOf(Operation));
}

std::string TChannelLink::ReasonOf(const TTransferOperation&) const {
  return "the channel to the " + Peer_ + " has failed";
}

void TChannelLink::OnComplete(TObject*) { ::SetEvent(Done_.Get()); }

void TChannelLink::OnTransferred(TObject*, bool&) { SecondsStill_ = 0; }

// Counts between the operations too; Carry begins anew. Whoever waits looks each second.
void TChannelLink::OnSecond(TObject*) {
  ++SecondsStill_;
  ::SetEvent(Done_.Get());
}

}  // namespace velcopy
