#include "datagram_link.hpp"

#include <algorithm>
#include <array>
#include <cstring>
#include <random>

#include "velox/codecs/velHash.hpp"
#include "velox/foundation/velSyncUtils.hpp"
#include "velox/foundation/velTrace.hpp"
#include "velox/runtime/velFormat.hpp"
#include "velox/runtime/velSystemMessage.hpp"

namespace velcopy {

using namespace velox;

namespace {

constexpr uint32_t PacketMagic = 0x47445056;  // "VPDG"
constexpr size_t HeaderSize = 24;
constexpr size_t Payload = 1400;  // with the headers of IP and UDP it fits an Ethernet frame
constexpr size_t Window = 32;     // packets
constexpr size_t MostWaiting = 4 * Window;
// Milliseconds. The first delay is doubled each time nothing is heard of a packet.
constexpr ULONGLONG FirstDelay = 100, LongestDelay = 1600;
constexpr ULONGLONG LongestFarewell = 2000, Quiet = 250;

uint32_t CheckOf(const std::vector<char>& Packet) {
  TCRC32 crc;
  crc.Initialize();
  crc.Update(Packet.data(), static_cast<int32_t>(Packet.size()));
  return crc.GetCurrentCRC();
}

}  // namespace

TDatagramLink::TDatagramLink(std::string Peer, uint16_t LocalPort, int32_t Capacity)
    : Peer_(std::move(Peer)),
      Capacity_(Capacity),
      Arrived_(::CreateEventA(nullptr, FALSE, FALSE, nullptr)),
      Delay_(FirstDelay),
      Progress_(::GetTickCount64()) {
  static_assert(sizeof(TPacketHeader) == HeaderSize);
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

// ---- what arrives, on the reactor's thread

// A datagram comes in two chunks: its first byte, which the operation waited for, and the rest.
void TDatagramLink::OnTransferred(TObject* Sender, bool& Reset) {
  const auto& operation = static_cast<const TIPOperation&>(*Sender);
  Reset = true;
  const TPlace from{operation.GetAddress(), operation.GetPort()};
  if (from != DatagramFrom_) Datagram_.clear();
  DatagramFrom_ = from;
  Datagram_.insert(Datagram_.end(), ReadBuffer_, ReadBuffer_ + operation.GetTransferred());
  CutPackets(from);
}

// Takes the whole packets out of what has come, and skips what is none.
void TDatagramLink::CutPackets(const TPlace& From) {
  size_t at = 0;
  while (Datagram_.size() - at >= HeaderSize) {
    TPacketHeader header;
    std::memcpy(&header, Datagram_.data() + at, HeaderSize);
    if (header.Magic != PacketMagic || header.Size > Payload) {
      ++at;
      continue;
    }
    if (Datagram_.size() - at < HeaderSize + header.Size) break;
    const auto start = Datagram_.begin() + static_cast<ptrdiff_t>(at);
    const auto body = start + static_cast<ptrdiff_t>(HeaderSize);
    const auto end = body + static_cast<ptrdiff_t>(header.Size);
    std::vector<char> packet(start, end);
    std::memset(packet.data() + offsetof(TPacketHeader, Check), 0, sizeof header.Check);
    if (CheckOf(packet) != header.Check) {
      ++at;
      continue;
    }
    at += packet.size();
    const std::scoped_lock lock(Mutex_);
    // More can't have been asked for; what is dropped comes again.
    if (Packets_.size() < MostWaiting)
      Packets_.push_back({From, header, std::vector<char>(body, end)});
    ::SetEvent(Arrived_.Get());
  }
  Datagram_.erase(Datagram_.begin(), Datagram_.begin() + static_cast<ptrdiff_t>(at));
}

// Only an error ends the operation, or an empty datagram. Some systems tell here that a datagram
// sent before found nobody. It is worth a message, if nothing better comes, but no reason to stop,
// as others are, which would come again at once.
void TDatagramLink::OnReadComplete(TObject* Sender) {
  auto& operation = static_cast<TIPOperation&>(*Sender);
  const int32_t error = operation.GetErrorCode();
  if (error != 0) Error_ = error;
  if (!Closing_ && (error == 0 || error == WSAECONNRESET || error == WSAENETRESET))
    operation.SetActive(true);
}

void TDatagramLink::OnSendComplete(TObject* Sender) {
  const int32_t error = static_cast<TIPOperation&>(*Sender).GetErrorCode();
  if (error != 0) Error_ = error;
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

std::vector<char> TDatagramLink::MakePacket(uint32_t Number, const char* Bytes, size_t Size) const {
  TPacketHeader header{PacketMagic, Session_, Number, Expected_, static_cast<uint32_t>(Size), 0};
  std::vector<char> packet(HeaderSize + Size);
  std::memcpy(packet.data(), &header, HeaderSize);
  if (Size > 0) std::memcpy(packet.data() + HeaderSize, Bytes, Size);
  header.Check = CheckOf(packet);
  std::memcpy(packet.data(), &header, HeaderSize);
  return packet;
}

// The queue carries it and frees it. Whether it goes out nobody waits for: it may get lost anyway.
void TDatagramLink::SendDatagram(const std::vector<char>& Datagram) {
  std::unique_ptr<TTransferOperation> made = Channel_.CreateOperation();
  auto& operation = static_cast<TIPOperation&>(*made);
  operation.SetKind(TOperationKind::okWrite);
  operation.SetAddress(Place_.Address);
  operation.SetPort(Place_.Port);
  operation.SetSelfAllocated(true);
  operation.SetSize(static_cast<int32_t>(Datagram.size()));
  std::memcpy(operation.GetBuffer(), Datagram.data(), Datagram.size());
  operation.SetOnComplete(TOperationNotificationEvent::Bind<&TDatagramLink::OnSendComplete>(this));
  operation.SetFreeOnComplete(true);
  operation.SetActive(true);
  made.release();
}

}  // namespace velcopy
