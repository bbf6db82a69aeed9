// Packets from and to the channel; what they mean is in datagram_link.cpp.

#include <cstddef>
#include <cstring>

#include "datagram_link.hpp"
#include "velox/codecs/velHash.hpp"

namespace velcopy {

using namespace velox;

namespace {

constexpr uint32_t PacketMagic = 0x47445056;  // "VPDG"
constexpr size_t HeaderSize = 24;

uint32_t CheckOf(const std::vector<char>& Packet) {
  TCRC32 crc;
  crc.Initialize();
  crc.Update(Packet.data(), static_cast<int32_t>(Packet.size()));
  return crc.GetCurrentCRC();
}

}  // namespace

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

// ---- what is sent, on the link's thread

std::vector<char> TDatagramLink::MakePacket(uint32_t Number, const char* Bytes, size_t Size) const {
  static_assert(sizeof(TPacketHeader) == HeaderSize);
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
