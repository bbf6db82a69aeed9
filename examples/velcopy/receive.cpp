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
      : Name_(Name),
        Part_(Name + ".part"),
        Stream_(std::make_unique<TFileStream>(Part_, TFileMode::fmCreate)) {}
  ~TPartialFile() {
    if (Stream_ == nullptr) return;
    Stream_.reset();
    ::DeleteFileA(Part_.c_str());
  }

  void Write(const std::vector<char>& Bytes) {
    OnFile(*Stream_,
           [&] { Stream_->WriteBuffer(Bytes.data(), static_cast<int32_t>(Bytes.size())); });
    Unflushed_ += Bytes.size();
    if (Unflushed_ >= MostUnflushed) Flush();
  }

  void PutInPlace() {
    Flush();
    Stream_.reset();
    if (::MoveFileExA(Part_.c_str(), Name_.c_str(), MOVEFILE_REPLACE_EXISTING)) return;
    const std::string reason = SystemErrorMessage(::GetLastError());
    ::DeleteFileA(Part_.c_str());
    throw Exception("cannot put " + Name_ + " in place: " + reason);
  }

 private:
  // So little that the disk writes it while the sender still waits.
  static constexpr size_t MostUnflushed = 16 << 20;

  // The system takes what is written, and may find out later that it can't keep it.
  void Flush() {
    if (!::FlushFileBuffers(Stream_->GetHandle()))
      throw Exception(Part_ + ": " + SystemErrorMessage(::GetLastError()));
    Unflushed_ = 0;
  }

  const std::string Name_, Part_;
  std::unique_ptr<TFileStream> Stream_;
  size_t Unflushed_ = 0;
};

// Receives the blocks into the file, and returns their CRC, which is what the sender says it is.
uint32_t ReceiveBlocks(TPeer& Peer, TPartialFile& File, uint64_t Total, int32_t Capacity,
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
    File.Write(bytes);
    crc.Update(bytes.data(), size);
    received += header.Size;
    Peer.Send({.Kind = TKind::Confirmed, .Position = received});
    progress.Update(received);
  }
}

}  // namespace

void Receive(const TArguments& Arguments) {
  TPartialFile file(Arguments.File);  // first: who can't receive is not there for a sender
  const std::unique_ptr<TLink> link = Open(Arguments.Address, true, Arguments.Size);
  TPeer peer(*link, "sender");
  std::printf("waiting for a sender on %s\n", Arguments.Address.c_str());
  std::fflush(stdout);
  link->AwaitPeer();
  try {
    const uint64_t total = peer.Receive({TKind::Hello}).Position;
    link->StartWatchdog();
    const int32_t capacity = link->GetCapacity();
    peer.Send({.Kind = TKind::Hello, .Position = static_cast<uint64_t>(capacity)});
    const uint32_t check = ReceiveBlocks(peer, file, total, capacity, Arguments.Show);
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
