#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "link.hpp"
#include "velox/channels/velUDPChannel.hpp"
#include "velox/runtime/velHandle.hpp"

namespace velcopy {

/// Where datagrams come from or go to.
struct TPlace {
  std::string Address;  // dotted
  uint16_t Port = 0;
  bool operator==(const TPlace&) const = default;
};

/// A link over datagrams, which may be lost, doubled and reordered.
///
/// What is written is cut into numbered packets. Each packet also tells the number that its sender
/// expects next, which confirms all before it. A packet is kept until it is confirmed, and sent
/// again when that takes too long, or when three confirmations in a row tell that just this one is
/// missing. At most Window packets are on the way. Packets that come too early are kept for later.
///
/// The link works while its thread is inside Write, Read or Finish; only the receiving operation
/// goes on all the time.
class TDatagramLink : public TLink {
 public:
  /// The receiver's: listens on a port, and belongs to the first sender that calls.
  TDatagramLink(uint16_t Port, int32_t Capacity);
  /// The sender's.
  TDatagramLink(const TPlace& Receiver, int32_t Capacity);
  ~TDatagramLink() override;

  void AwaitPeer() override;
  void StartWatchdog() override {}  // there is a limit as soon as there is a sender
  void Write(const void* Bytes, int32_t Size) override;
  void Read(void* Bytes, int32_t Size) override;
  void Finish() noexcept override;
  int32_t GetCapacity() const override { return Capacity_; }

 private:
  static constexpr size_t Payload =
      1400;                             // with the headers of IP and UDP it fits an Ethernet frame
  static constexpr size_t Window = 32;  // packets
  static constexpr size_t MostWaiting = 4 * Window;

  struct TPacketHeader {
    uint32_t Magic;
    uint32_t Session;   // chosen by the sender, not 0; tells former and other senders apart
    uint32_t Number;    // of this packet; without bytes: of the next one
    uint32_t Expected;  // all packets before this number have arrived
    uint32_t Size;      // bytes that follow
    uint32_t Check;     // CRC-32 of the packet, with 0 in this place
  };
  struct TPacket {
    TPlace From;
    TPacketHeader Header;
    std::vector<char> Bytes;
  };
  struct TSent {
    uint32_t Number;
    std::vector<char> Packet;
    ULONGLONG Time;
  };

  TDatagramLink(std::string Peer, uint16_t LocalPort, int32_t Capacity);

  // On the reactor's thread.
  void OnTransferred(velox::TObject* Sender, bool& Reset);
  void OnReadComplete(velox::TObject* Sender);
  void OnSendComplete(velox::TObject* Sender);
  void CutPackets(const TPlace& From);

  // On the link's.
  void Work();
  void WorkUntilMoved();
  void Handle(TPacket& Packet);
  void HandleConfirmation(const TPacket& Packet);
  void DeliverInOrder();
  void Repeat();
  void SendAgain(TSent& Sent);
  std::vector<char> MakePacket(uint32_t Number, const char* Bytes, size_t Size) const;
  void SendDatagram(const std::vector<char>& Datagram);

  const std::string Peer_;
  const int32_t Capacity_;
  velox::THandle Arrived_;

  std::mutex Mutex_;  // guards the next
  std::deque<TPacket> Packets_;
  std::atomic<int32_t> Error_ = 0;  // of the last datagram that could not be sent or received
  std::atomic<bool> Closing_ = false;

  std::vector<char> Datagram_;  // what has come of it; the reactor's alone
  TPlace DatagramFrom_;

  TPlace Place_;  // the other side's; empty while there is none
  uint32_t Session_ = 0;
  std::deque<TSent> Unconfirmed_;
  uint32_t NextNumber_ = 0;
  uint32_t Expected_ = 0;
  std::map<uint32_t, std::vector<char>> Early_;
  std::deque<char> Received_;
  int SameConfirmations_ = 0;
  ULONGLONG Delay_;     // before a packet is sent again
  ULONGLONG Progress_;  // when there was some last
  ULONGLONG Heard_ = 0;

  velox::TUDPChannel Channel_;
  std::unique_ptr<velox::TTransferOperation> Reader_;
  char ReadBuffer_[velox::TIPOperationBuffer::Size];
};

}  // namespace velcopy
