#include "datagram_link.hpp"

#include <algorithm>
#include <array>
#include <random>

#include "velox/foundation/velSyncUtils.hpp"
#include "velox/foundation/velTrace.hpp"
#include "velox/runtime/velFormat.hpp"
#include "velox/runtime/velSystemMessage.hpp"

namespace velcopy {

using namespace velox;

namespace {

// Milliseconds. The first delay is doubled each time nothing is heard of a packet.
constexpr ULONGLONG FirstDelay = 100, LongestDelay = 1600;
constexpr ULONGLONG LongestFarewell = 2000, Quiet = 250;

}  // namespace

TDatagramLink::TDatagramLink(std::string Peer, uint16_t LocalPort, int32_t Capacity)
    : Peer_(std::move(Peer)),
      Capacity_(Capacity),
      Arrived_(::CreateEventA(nullptr, FALSE, FALSE, nullptr)),
      Delay_(FirstDelay),
      Progress_(::GetTickCount64()) {
  Channel_.SetPort(LocalPort);
  Channel_.SetActive(true);
  // One operation receives everything: OnTransferred takes each chunk and resets it.
  Reader_ = Channel_.CreateOperation();
  Reader_->SetAutoTimeout(false);
  Reader_->SetBuffer(ReadBuffer_);
  Reader_->SetSize(sizeof ReadBuffer_);
  Reader_->SetOnTransferred(TOperationTransferEvent::Bind<&TDatagramLink::OnTransferred>(this));
  Reader_->SetOnComplete(TOperationNotificationEvent::Bind<&TDatagramLink::OnReadComplete>(this));
  Reader_->SetActive(true);
}

TDatagramLink::TDatagramLink(uint16_t Port, int32_t Capacity)
    : TDatagramLink("sender", Port, Capacity) {}

TDatagramLink::TDatagramLink(const TPlace& Receiver, int32_t Capacity)
    : TDatagramLink("receiver", 0, Capacity) {
  Place_ = Receiver;
  Session_ = std::random_device()() | 1;
}

TDatagramLink::~TDatagramLink() {
  Closing_ = true;
  Reader_.reset();
  try {
    Channel_.SetActive(false);  // completes the sends that are queued
  } catch (const Exception&) {
    TraceException("velcopy");
  }
}

// ---- the two directions

void TDatagramLink::AwaitPeer() {
  while (Place_.Port == 0) Work();
  Progress_ = ::GetTickCount64();
}

void TDatagramLink::Write(const void* Bytes, int32_t Size) {
  const char* from = static_cast<const char*>(Bytes);
  for (auto left = static_cast<size_t>(Size); left > 0;) {
    while (Unconfirmed_.size() >= Window) WorkUntilMoved();
    const size_t size = std::min(left, Payload);
    Unconfirmed_.push_back({NextNumber_, MakePacket(NextNumber_, from, size), ::GetTickCount64()});
    ++NextNumber_;
    if (Unconfirmed_.size() == 1) Progress_ = ::GetTickCount64();
    SendDatagram(Unconfirmed_.back().Packet);
    from += size;
    left -= size;
  }
}

void TDatagramLink::Read(void* Bytes, int32_t Size) {
  const auto size = static_cast<size_t>(Size);
  Progress_ = ::GetTickCount64();
  while (Received_.size() < size) WorkUntilMoved();
  const auto end = Received_.begin() + Size;
  std::copy(Received_.begin(), end, static_cast<char*>(Bytes));
  Received_.erase(Received_.begin(), end);
}

// The last confirmation may get lost, and only who keeps listening learns it: so a side leaves when
// it has been quiet for longer than a packet waits for its confirmation.
void TDatagramLink::Finish() noexcept {
  try {
    const ULONGLONG start = ::GetTickCount64();
    Heard_ = start;
    for (ULONGLONG now = start; now - start < LongestFarewell; now = ::GetTickCount64()) {
      if (Unconfirmed_.empty() && now - Heard_ >= Quiet) return;
      Work();
    }
  } catch (const Exception&) {
    TraceException("velcopy");
  }
}

// ---- packets, on the link's thread

// Waits for packets, no longer than until one is to be sent again, and handles them.
void TDatagramLink::Work() {
  const std::array handles{Arrived_.Get()};
  WaitAlertableOnce(handles, static_cast<DWORD>(FirstDelay / 2));
  std::deque<TPacket> packets;
  {
    const std::scoped_lock lock(Mutex_);
    packets.swap(Packets_);
  }
  bool confirm = false;
  for (TPacket& packet : packets) {
    Handle(packet);
    confirm |= packet.Header.Size > 0;
  }
  DeliverInOrder();
  if (confirm && Place_.Port != 0) SendDatagram(MakePacket(NextNumber_, nullptr, 0));
  Repeat();
}

void TDatagramLink::WorkUntilMoved() {
  Work();
  if (::GetTickCount64() - Progress_ < StillLimit * 1000ull) return;
  if (const int32_t error = Error_; error != 0) {
    throw EPeerGone("cannot reach the " + Peer_ + ": " +
                    SystemErrorMessage(static_cast<uint32_t>(error)));
  }
  throw EPeerGone(
      Format("the %s has not responded for %d seconds; has it ended?", Peer_.c_str(), StillLimit));
}

void TDatagramLink::Handle(TPacket& Packet) {
  const TPacketHeader& header = Packet.Header;
  if (Place_.Port == 0 && header.Number == 0 && header.Size > 0) {
    Place_ = Packet.From;
    Session_ = header.Session;
  }
  if (header.Session != Session_ || Packet.From != Place_) return;
  Heard_ = ::GetTickCount64();
  HandleConfirmation(Packet);
  // Numbers may pass 2^32 and begin anew: what counts is the distance.
  if (header.Size > 0 && header.Number - Expected_ < Window)
    Early_.try_emplace(header.Number, std::move(Packet.Bytes));
}

void TDatagramLink::HandleConfirmation(const TPacket& Packet) {
  if (Unconfirmed_.empty()) return;
  const uint32_t confirmed = Packet.Header.Expected - Unconfirmed_.front().Number;
  if (confirmed > Unconfirmed_.size()) return;  // of the past
  if (confirmed > 0) {
    Unconfirmed_.erase(Unconfirmed_.begin(),
                       Unconfirmed_.begin() + static_cast<ptrdiff_t>(confirmed));
    SameConfirmations_ = 0;
    Delay_ = FirstDelay;
    Progress_ = ::GetTickCount64();
  } else if (Packet.Header.Size == 0 && ++SameConfirmations_ == 3) {
    SendAgain(Unconfirmed_.front());
  }
}

void TDatagramLink::DeliverInOrder() {
  for (auto found = Early_.find(Expected_); found != Early_.end(); found = Early_.find(Expected_)) {
    Received_.insert(Received_.end(), found->second.begin(), found->second.end());
    Early_.erase(found);
    ++Expected_;
    Progress_ = ::GetTickCount64();
  }
}

// Only the oldest: when that has arrived the other side mostly has the rest.
void TDatagramLink::Repeat() {
  if (Unconfirmed_.empty() || ::GetTickCount64() - Unconfirmed_.front().Time < Delay_) return;
  SendAgain(Unconfirmed_.front());
  Delay_ = std::min(Delay_ * 2, LongestDelay);
}

void TDatagramLink::SendAgain(TSent& Sent) {
  Sent.Time = ::GetTickCount64();
  SendDatagram(Sent.Packet);
}

}  // namespace velcopy
