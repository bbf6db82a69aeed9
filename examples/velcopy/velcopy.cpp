// Copies a file from one program to another over a channel of the library.
//
//     velcopy receive shm:demo copy.bin      in one window, then
//     velcopy send    shm:demo original.bin  in another
//
// Read it from the end: main() parses, Send() and Receive() are the two sides. What they use stands
// beside: endpoints.cpp opens the channel that an address names, channel_link.cpp and
// datagram_link.cpp carry bytes over it by transfer operations, messages.cpp turns bytes into
// messages, progress.hpp shows how far it is.
//
// Both sides exchange messages: a header of 24 bytes, for some kinds followed by bytes. A channel
// may overwrite or drop what was not read in time. So nothing is sent that does not fit behind what
// the other side has not confirmed: the receiver tells the capacity and confirms every block, and
// the sender keeps count.

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "endpoints.hpp"
#include "messages.hpp"
#include "progress.hpp"
#include "velox/codecs/velHash.hpp"
#include "velox/foundation/velTrace.hpp"
#include "velox/runtime/velFileStream.hpp"
#include "velox/runtime/velFormat.hpp"
#include "velox/runtime/velSystemMessage.hpp"

using namespace velox;
using namespace velcopy;

namespace {

constexpr int32_t DefaultBlock = 64 << 10;

// -------------------------------------------------------------------------------------------------
// the two sides

struct TArguments {
  bool Receiving = false;
  std::string Address, File;
  std::optional<int32_t> Size;
  std::optional<int32_t> Block;
  TShow Show = OnConsole() ? TShow::Bar : TShow::Lines;
};

void PrintResult(const char* What, uint64_t Size, uint32_t Check) {
  std::printf("%s %llu bytes, CRC-32 %08X\n", What, static_cast<unsigned long long>(Size),
              static_cast<unsigned>(Check));
  std::fflush(stdout);
}

int32_t ChooseBlock(const TArguments& Arguments, int32_t Capacity) {
  const int32_t largest = Window(Capacity) - HeaderSize;
  const int32_t block = Arguments.Block.value_or(std::min(DefaultBlock, largest / 4));
  if (block <= largest) return block;
  throw Exception(
      Format("blocks of %d bytes do not fit: the receiver's room of %d bytes takes up to %d", block,
             Capacity, largest));
}

// What goes wrong with an open file (the disk is full, …) is told with the file's name.
template <typename TAction>
void OnFile(const TFileStream& File, const TAction& Action) {
  try {
    Action();
  } catch (const EStreamError& e) {
    throw Exception(File.GetFileName() + ": " + e.what());
  }
}

void TellFailure(TPeer& Peer, TLink& Link, const Exception& Failure) {
  if (dynamic_cast<const EPeerGone*>(&Failure) != nullptr) return;
  Peer.TellFailure(Failure);
  Link.Finish();
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
  const auto occupied = [&](uint64_t Outstanding) {
    return Outstanding + (Outstanding + Block - 1) / Block * HeaderSize;
  };
  uint64_t sent = 0, confirmed = 0;
  while (confirmed < Total) {
    const auto size = static_cast<int32_t>(std::min<uint64_t>(bytes.size(), Total - sent));
    if (size > 0 && occupied(sent - confirmed + static_cast<uint64_t>(size)) <= window) {
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

void Send(const TArguments& Arguments) {
  TFileStream file(Arguments.File, TFileMode::fmOpenRead);
  uint64_t total = 0;
  OnFile(file, [&] { total = static_cast<uint64_t>(file.GetSize()); });
  const std::unique_ptr<TLink> link = Open(Arguments.Address, false, Arguments.Size);
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

// -------------------------------------------------------------------------------------------------
// command line

constexpr const char* Usage =
    "velcopy receive ADDRESS FILE [--size BYTES]\n"
    "velcopy send ADDRESS FILE [--block BYTES]\n"
    "\n"
    "ADDRESS      receive    send\n"
    "  memory     shm:NAME   shm:NAME        shared memory on this machine\n"
    "  TCP        tcp:PORT   tcp:HOST:PORT\n"
    "  UDP        udp:PORT   udp:HOST:PORT\n"
    "  serial     com:N[,BAUD]                 the line at COMN, 115200 baud by default\n"
    "\n"
    "Start the receiver first.\n"
    "\n"
    "--size      how much may be on the way; for shm, the shared memory for each direction\n"
    "            (default 4194304, for com 32768)\n"
    "--block     what is sent at once (default 65536, or a quarter of the size)\n"
    "--progress  bar, lines or none (default: a bar on a console, else lines)\n";

int32_t ParseNumber(const std::string& Option, std::string_view Text, int32_t Least, int32_t Most) {
  int32_t value = 0;
  const auto [end, error] = std::from_chars(Text.data(), Text.data() + Text.size(), value);
  if (error != std::errc() || end != Text.data() + Text.size() || value < Least || value > Most) {
    RefuseArguments(Format("%s must be a number from %d to %d, not \"%s\"", Option.c_str(), Least,
                           Most, std::string(Text).c_str()));
  }
  return value;
}

TShow ParseShow(std::string_view Text) {
  if (Text == "bar") return TShow::Bar;
  if (Text == "lines") return TShow::Lines;
  if (Text == "none") return TShow::None;
  RefuseArguments("--progress must be bar, lines or none");
}

TArguments Parse(const std::vector<std::string>& Words) {
  TArguments arguments;
  std::vector<std::string> plain;
  for (size_t i = 0; i < Words.size(); ++i) {
    const std::string& word = Words[i];
    if (word.substr(0, 2) != "--") {
      plain.push_back(word);
      continue;
    }
    if (word != "--size" && word != "--block" && word != "--progress")
      RefuseArguments("unknown option " + word);
    if (++i == Words.size()) RefuseArguments(word + " needs a value");
    if (word == "--size")
      arguments.Size = ParseNumber(word, Words[i], SmallestCapacity, LargestCapacity);
    if (word == "--block") arguments.Block = ParseNumber(word, Words[i], 1, INT32_MAX);
    if (word == "--progress") arguments.Show = ParseShow(Words[i]);
  }
  if (plain.empty()) RefuseArguments("neither send nor receive is given");
  if (plain[0] != "send" && plain[0] != "receive")
    RefuseArguments("\"" + plain[0] + "\" is neither send nor receive");
  if (plain.size() < 3) RefuseArguments(plain[0] + " needs an address and a file");
  if (plain.size() > 3) RefuseArguments("\"" + plain[3] + "\" is one argument too many");
  arguments.Receiving = plain[0] == "receive";
  arguments.Address = plain[1];
  arguments.File = plain[2];
  return arguments;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    const std::vector<std::string> words(argv + 1, argv + argc);
    if (std::find(words.begin(), words.end(), "--help") != words.end()) {
      std::fputs(Usage, stdout);
      return 0;
    }
    const TArguments arguments = Parse(words);
    Trace(Format("velcopy %s %s %s", argv[1], arguments.Address.c_str(), arguments.File.c_str()),
          TTraceType::ttDebug);
    arguments.Receiving ? Receive(arguments) : Send(arguments);
    return 0;
  } catch (const std::exception& e) {
    TraceException("velcopy");
    std::fflush(stdout);
    std::fprintf(stderr, "velcopy: %s\n", e.what());
    return 1;
  }
}
