#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "endpoints.hpp"
#include "sides.hpp"
#include "velox/codecs/velHash.hpp"
#include "velox/runtime/velFormat.hpp"

namespace velcopy {

using namespace velox;

namespace {

constexpr int32_t DefaultBlock = 64 << 10;

int32_t ChooseBlock(const TArguments& Arguments, int32_t Capacity) {
  const int32_t largest = Window(Capacity) - HeaderSize;
  const int32_t block = Arguments.Block.value_or(std::min(DefaultBlock, largest / 4));
  if (block <= largest) return block;
  throw Exception(
      Format("blocks of %d bytes do not fit: the receiver's room of %d bytes takes up to %d", block,
             Capacity, largest));
}

int32_t ReceiveCapacity(TPeer& Peer) {
  const uint64_t capacity = Peer.Receive({TKind::Hello}).Position;
  if (capacity >= SmallestCapacity && capacity <= LargestCapacity)
    return static_cast<int32_t>(capacity);
  throw Exception("the receiver told a capacity that cannot be");
}

// Sends the blocks, and returns the file's CRC.
uint32_t SendBlocks(TPeer& Peer, TFileStream& File, uint64_t Total, int32_t Capacity, int32_t Block,
                    TShow Show) {
  TProgress progress(Show, Total);
  TCRC32 crc;
  crc.Initialize();
  std::vector<char> bytes(static_cast<size_t>(Block));
  const auto window = static_cast<uint64_t>(Window(Capacity));
  // Every block but the last is full, so what is sent and not confirmed tells how many messages
  // that were.
  const auto fits = [&](uint64_t Outstanding) {
    const uint64_t blocks = (Outstanding + Block - 1) / Block;
    return blocks <= MostUnconfirmed && Outstanding + blocks * HeaderSize <= window;
  };
  uint64_t sent = 0, confirmed = 0;
  while (confirmed < Total) {
    const auto size = static_cast<int32_t>(std::min<uint64_t>(bytes.size(), Total - sent));
    if (size > 0 && fits(sent - confirmed + static_cast<uint64_t>(size))) {
      OnFile(File, [&] { File.ReadBuffer(bytes.data(), size); });
      crc.Update(bytes.data(), size);
      Peer.Send({.Kind = TKind::Data, .Position = sent, .Size = static_cast<uint32_t>(size)},
                bytes.data());
      sent += static_cast<uint64_t>(size);
    } else {
      confirmed = Peer.Receive({TKind::Confirmed}).Position;
      if (confirmed > sent) throw Exception("the receiver confirmed more than was sent");
      progress.Update(confirmed);
    }
  }
  return crc.GetCurrentCRC();
}

}  // namespace

void Send(const TArguments& Arguments) {
  TFileStream file(Arguments.File, TFileMode::fmOpenRead);
  uint64_t total = 0;
  OnFile(file, [&] { total = static_cast<uint64_t>(file.GetSize()); });
  const std::unique_ptr<TLink> link = Open(Arguments.Address, false);
  link->StartWatchdog();
  TPeer peer(*link, "receiver");
  try {
    peer.Send({.Kind = TKind::Hello, .Position = total});
    const int32_t capacity = ReceiveCapacity(peer);
    const uint32_t check =
        SendBlocks(peer, file, total, capacity, ChooseBlock(Arguments, capacity), Arguments.Show);
    peer.Send({.Kind = TKind::End, .Position = total, .Check = check});
    if (peer.Receive({TKind::Done}).Check != check)
      throw Exception("the copy differs: its CRC-32 is another");
    link->Finish();
    PrintResult("sent", total, check);
  } catch (const Exception& e) {
    TellFailure(peer, *link, e);
    throw;
  }
}

}  // namespace velcopy
