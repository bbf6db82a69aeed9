#include <memory>
#include <string>
#include <vector>

#include "endpoints.hpp"
#include "sides.hpp"
#include "velox/codecs/velHash.hpp"
#include "velox/runtime/velSystemMessage.hpp"

namespace velcopy {

using namespace velox;

namespace {

// The file while it is being written: FILE.part, which is removed unless it was put in its place.
class TPartialFile {
 public:
  explicit TPartialFile(const std::string& Name)
      : Name_(Name), Stream_(std::make_unique<TFileStream>(Name + ".part", TFileMode::fmCreate)) {}
  ~TPartialFile() {
    if (Stream_ == nullptr) return;
    Stream_.reset();
    ::DeleteFileA((Name_ + ".part").c_str());
  }

  TFileStream& Stream() { return *Stream_; }

  void PutInPlace() {
    Stream_.reset();
    const std::string part = Name_ + ".part";
    if (::MoveFileExA(part.c_str(), Name_.c_str(), MOVEFILE_REPLACE_EXISTING)) return;
    const std::string reason = SystemErrorMessage(::GetLastError());
    ::DeleteFileA(part.c_str());
    throw Exception("cannot put " + Name_ + " in place: " + reason);
  }

 private:
  const std::string Name_;
  std::unique_ptr<TFileStream> Stream_;
};

// Receives the blocks into the file, and returns their CRC, which is what the sender says it is.
uint32_t ReceiveBlocks(TPeer& Peer, TFileStream& File, uint64_t Total, int32_t Capacity,
                       TShow Show) {
  TProgress progress(Show, Total);
  TCRC32 crc;
  crc.Initialize();
  std::vector<char> bytes;
  uint64_t received = 0;
  for (;;) {
    const THeader header = Peer.Receive({TKind::Data, TKind::End});
    if (header.Kind == TKind::End) {
      if (received != Total) throw Exception("the file ended early");
      if (header.Check != crc.GetCurrentCRC())
        throw Exception("the data arrived changed: its CRC-32 is another");
      return header.Check;
    }
    if (header.Position != received || header.Size > static_cast<uint32_t>(Capacity) ||
        header.Size > Total - received) {
      throw Exception("the sender sent a block that does not belong there");
    }
    bytes.resize(header.Size);
    const auto size = static_cast<int32_t>(header.Size);
    Peer.ReceiveBytes(bytes.data(), size);
    OnFile(File, [&] { File.WriteBuffer(bytes.data(), size); });
    crc.Update(bytes.data(), size);
    received += header.Size;
    Peer.Send({.Kind = TKind::Confirmed, .Position = received});
    progress.Update(received);
  }
}

}  // namespace

void Receive(const TArguments& Arguments) {
  const std::unique_ptr<TLink> link = Open(Arguments.Address, true, Arguments.Size);
  TPartialFile file(Arguments.File);
  TPeer peer(*link, "sender");
  std::printf("waiting for a sender on %s\n", Arguments.Address.c_str());
  std::fflush(stdout);
  link->AwaitPeer();
  try {
    const uint64_t total = peer.Receive({TKind::Hello}).Position;
    link->StartWatchdog();
    const int32_t capacity = link->GetCapacity();
    peer.Send({.Kind = TKind::Hello, .Position = static_cast<uint64_t>(capacity)});
    const uint32_t check = ReceiveBlocks(peer, file.Stream(), total, capacity, Arguments.Show);
    file.PutInPlace();
    peer.Send({.Kind = TKind::Done, .Position = total, .Check = check});
    link->Finish();
    PrintResult("received", total, check);
  } catch (const Exception& e) {
    TellFailure(peer, *link, e);
    throw;
  }
}

}  // namespace velcopy
