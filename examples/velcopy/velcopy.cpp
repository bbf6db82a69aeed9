// Copies a file from one program to another over a channel of the library.
//
//     velcopy receive shm:demo copy.bin      in one window, then
//     velcopy send    shm:demo original.bin  in another
//
// Read it from the end: main() parses, Send() and Receive() are the two sides, TPeer turns messages
// into transfer operations, TProgress shows how far it is.
//
// Both sides exchange messages: a header of 24 bytes, for some kinds followed by bytes. The channel
// favours a live writer and overwrites what was not read in time. So nothing is sent that does not
// fit behind what the other side has not confirmed: the receiver tells the channel's capacity and
// confirms every block, and the sender keeps count.

#include <algorithm>
#include <atomic>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "velox/async/velScheduler.hpp"
#include "velox/channels/velCommonChannel.hpp"
#include "velox/channels/velSharedMemChannel.hpp"
#include "velox/codecs/velHash.hpp"
#include "velox/foundation/velSyncUtils.hpp"
#include "velox/foundation/velTrace.hpp"
#include "velox/runtime/velFileStream.hpp"
#include "velox/runtime/velFormat.hpp"
#include "velox/runtime/velSystemMessage.hpp"

using namespace velox;

namespace {

constexpr int32_t DefaultMemory = 4 << 20;
constexpr int32_t SmallestMemory = 1024;
constexpr int32_t LargestMemory = INT32_MAX - 12;  // the channel adds its own 12 bytes
constexpr int32_t DefaultBlock = 64 << 10;
constexpr int32_t LongestReason = 200;  // bytes of text
constexpr int StillLimit = 8;           // seconds in which an operation moves no byte

[[noreturn]] void RefuseArguments(const std::string& What) {
  throw Exception(What + "; see velcopy --help");
}

// -------------------------------------------------------------------------------------------------
// messages

enum class TKind : uint32_t {
  Hello,      // sender: Position is the file's size; receiver: Position is the channel's capacity
  Data,       // Position in the file, followed by Size bytes
  Confirmed,  // Position: so much is written
  End,        // Check is the CRC-32 of the whole file
  Done,       // likewise, as received; the file is in place
  Failed      // followed by Size bytes of text: why
};

struct THeader {
  uint32_t Magic = 0x50434C56;  // "VLCP"
  TKind Kind = TKind::Hello;
  uint64_t Position = 0;
  uint32_t Size = 0;
  uint32_t Check = 0;
};
static_assert(sizeof(THeader) == 24);
constexpr int32_t HeaderSize = sizeof(THeader);

// What may be outstanding in one direction. A message of failure always fits on top of it.
constexpr int32_t Window(int32_t Capacity) { return Capacity - 1 - HeaderSize - LongestReason; }

// The other side. Each message is carried by a transfer operation: activated here, moved by the
// reactor's thread, and waited for on an event that OnComplete sets. A task of the scheduler
// watches that none, read or write, stands still.
class TPeer {
 public:
  TPeer(TChannel& Channel, std::string Name)
      : Name_(std::move(Name)), Done_(::CreateEventA(nullptr, FALSE, FALSE, nullptr)) {
    for (TTransferOperation* operation : {&Reader_, &Writer_}) {
      operation->SetChannel(&Channel);
      operation->SetOnComplete(TOperationNotificationEvent::Bind<&TPeer::OnComplete>(this));
      operation->SetOnTransferred(TOperationTransferEvent::Bind<&TPeer::OnTransferred>(this));
    }
    Writer_.SetKind(TOperationKind::okWrite);
    Watchdog_.SetOnExecute(TTaskExecuteEvent::Bind<&TPeer::OnSecond>(this));
    Watchdog_.SetDuration(1000);
    Watchdog_.SetPeriod(1000);
  }

  void StartWatchdog() { Watchdog_.SetActive(1); }

  // Bytes, when the kind has any, are Header.Size.
  void Send(const THeader& Header, const void* Bytes = nullptr) {
    Message_.resize(HeaderSize + (Bytes == nullptr ? 0 : Header.Size));
    std::memcpy(Message_.data(), &Header, HeaderSize);
    if (Bytes != nullptr) std::memcpy(Message_.data() + HeaderSize, Bytes, Header.Size);
    Carry(Writer_, Message_.data(), static_cast<int32_t>(Message_.size()));
  }

  // The next message. Raises when it is Failed, or none of the kinds expected.
  THeader Receive(std::initializer_list<TKind> Expected) {
    THeader header;
    Carry(Reader_, &header, HeaderSize);
    if (header.Magic != THeader().Magic)
      throw Exception("the data from the " + Name_ + " is damaged");
    if (header.Kind == TKind::Failed) {
      std::string reason(std::min<uint32_t>(header.Size, LongestReason), '\0');
      if (!reason.empty()) ReceiveBytes(reason.data(), static_cast<int32_t>(reason.size()));
      Told_ = true;
      throw Exception("the " + Name_ + " gave up: " + reason);
    }
    if (std::find(Expected.begin(), Expected.end(), header.Kind) == Expected.end()) {
      throw Exception("the " + Name_ + " sent what was not expected");
    }
    return header;
  }

  void ReceiveBytes(void* Bytes, int32_t Size) { Carry(Reader_, Bytes, Size); }

  // Tells the other side why this one ends, unless it knows or can't be told.
  void TellFailure(std::string Reason) {
    if (std::exchange(Told_, true)) return;
    Reason.resize(std::min<size_t>(Reason.size(), LongestReason));
    THeader header{.Kind = TKind::Failed, .Size = static_cast<uint32_t>(Reason.size())};
    try {
      Send(header, Reason.data());
    } catch (const Exception&) {
      TraceException("velcopy");  // what is reported is the failure itself
    }
  }

 private:
  void Carry(TTransferOperation& Operation, void* Bytes, int32_t Size) {
    SecondsStill_ = 0;
    Operation.SetBuffer(Bytes);
    Operation.SetSize(Size);
    Operation.SetActive(true);
    while (Operation.GetActive() && SecondsStill_ < StillLimit)
      WaitForSingleObjectAlertable(Done_.Get(), "velcopy");
    if (Operation.GetActive()) Operation.SetActive(false);
    if (Operation.GetSucceeded()) return;
    throw Exception(Format("the %s has not responded for %d seconds; has it ended?", Name_.c_str(),
                           StillLimit));
  }

  void OnComplete(TObject*) { ::SetEvent(Done_.Get()); }
  void OnTransferred(TObject*, bool&) { SecondsStill_ = 0; }
  // Counts between the operations too; Carry begins anew.
  void OnSecond(TObject*) {
    if (++SecondsStill_ >= StillLimit) ::SetEvent(Done_.Get());
  }

  const std::string Name_;
  const THandle Done_;
  std::atomic<int> SecondsStill_ = 0;
  bool Told_ = false;
  std::vector<char> Message_;
  // Destroyed first, in reverse order: the task, then the operations, whose events use what stands
  // above.
  TTransferOperation Reader_, Writer_;
  TCallbackTask Watchdog_;
};

// -------------------------------------------------------------------------------------------------
// addresses

// The channel, and what keeps a second program from using the same end of it: that goes last.
struct TEndpoint {
  THandle Guard;
  std::unique_ptr<TChannel> Channel;
};

[[noreturn]] void FailToOpen(const std::string& Address, DWORD Error) {
  throw Exception("cannot open " + Address + ": " + SystemErrorMessage(Error));
}

THandle GuardEnd(const std::string& Address, const std::string& Name, const std::string& Role) {
  const std::string event = Name + Role;
  THandle guard(::CreateEventA(nullptr, FALSE, FALSE, event.c_str()));
  const DWORD error = ::GetLastError();
  // An object of another kind may have the name as well.
  if (error == ERROR_ALREADY_EXISTS || error == ERROR_INVALID_HANDLE)
    throw Exception(Address + " is in use by another " + Role);
  if (!guard) FailToOpen(Address, error);
  return guard;
}

THandle OpenMemory(const std::string& Name) {
  return THandle(::OpenFileMappingA(FILE_MAP_READ, FALSE, Name.c_str()));
}

// A receiver makes the memory. It must not take up what a sender of a former session still holds.
void CheckUnused(const std::string& Address, const std::string& Name) {
  if (THandle(::OpenEventA(SYNCHRONIZE, FALSE, (Name + "sender").c_str())))
    throw Exception(Address + " is in use by a sender, whose receiver has ended");
  if (OpenMemory(Name + "Read") || OpenMemory(Name + "Write"))
    throw Exception(Address + " is in use by another program");
}

TEndpoint OpenSharedMemory(const std::string& Address, const std::string& Name, bool Receiving,
                           int32_t Size) {
  // Looked at before the guard is there: a sender that comes too early is in no receiver's way.
  if (!Receiving && !OpenMemory(Name + "Read") && ::GetLastError() == ERROR_FILE_NOT_FOUND)
    throw Exception("there is no receiver on " + Address);
  TEndpoint endpoint;
  endpoint.Guard = GuardEnd(Address, Name, Receiving ? "receiver" : "sender");
  if (Receiving) CheckUnused(Address, Name);
  auto channel = std::make_unique<TSharedMemChannel>();
  channel->SetMemoryName(Name);
  channel->SetMemorySize(Size);
  channel->SetMode(Receiving ? TChannelMode::cmServer : TChannelMode::cmClient);
  try {
    channel->SetActive(true);
  } catch (const EOSError& e) {
    FailToOpen(Address, e.ErrorCode);
  }
  endpoint.Channel = std::move(channel);
  return endpoint;
}

// The one place that knows the kinds of address, KIND:REST.
TEndpoint Open(const std::string& Address, bool Receiving, int32_t Size) {
  const size_t colon = Address.find(':');
  const std::string kind = Address.substr(0, colon);
  const std::string rest = colon == std::string::npos ? "" : Address.substr(colon + 1);
  if (rest.empty()) RefuseArguments("\"" + Address + "\" is no address like shm:NAME");
  if (kind == "shm") return OpenSharedMemory(Address, rest, Receiving, Size);
  RefuseArguments("\"" + kind + "\" is no kind of channel (there is shm)");
}

// -------------------------------------------------------------------------------------------------
// progress

enum class TShow { Bar, Lines, None };

class TProgress {
 public:
  TProgress(TShow Show, uint64_t Total) : Show_(Show), Total_(Total) {}
  ~TProgress() {
    if (OpenLine_) std::printf("\n");
  }

  void Update(uint64_t Done) {
    const ULONGLONG now = ::GetTickCount64();
    const bool last = Done == Total_;
    if (Show_ == TShow::None || (!last && now - Shown_ < (Show_ == TShow::Bar ? 100u : 1000u)))
      return;
    Shown_ = now;
    const double seconds = static_cast<double>(now - Start_) / 1000;
    const double rate = seconds > 0 ? static_cast<double>(Done) / seconds : 0;
    const double left = rate > 0 ? static_cast<double>(Total_ - Done) / rate : 0;
    const double part = Total_ == 0 ? 1 : static_cast<double>(Done) / static_cast<double>(Total_);
    const std::string text = Format("%3.0f%%  %s  %.1f MiB/s  %.0f s left", part * 100,
                                    Amount(Done).c_str(), rate / MiB, left);
    if (Show_ == TShow::Lines) {
      std::printf("%s\n", text.c_str());
    } else {
      const auto filled = static_cast<size_t>(part * 16);
      std::string bar = std::string(filled, '#') + std::string(16 - filled, '.');
      std::printf("\r[%s] %-60.60s", bar.c_str(), text.c_str());  // 79 columns
      OpenLine_ = true;
    }
    std::fflush(stdout);
  }

 private:
  static constexpr double MiB = 1 << 20;

  std::string Amount(uint64_t Done) const {
    const auto done = static_cast<double>(Done), total = static_cast<double>(Total_);
    return total < MiB ? Format("%.0f of %.0f bytes", done, total)
                       : Format("%.1f of %.1f MiB", done / MiB, total / MiB);
  }

  const TShow Show_;
  const uint64_t Total_;
  const ULONGLONG Start_ = ::GetTickCount64();
  ULONGLONG Shown_ = Start_;
  bool OpenLine_ = false;
};

bool OnConsole() {
  DWORD mode;
  return ::GetConsoleMode(::GetStdHandle(STD_OUTPUT_HANDLE), &mode) != FALSE;
}

// -------------------------------------------------------------------------------------------------
// the two sides

struct TArguments {
  bool Receiving = false;
  std::string Address, File;
  int32_t Size = DefaultMemory;
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
      Format("blocks of %d bytes do not fit: the receiver's memory of %d bytes takes up to %d",
             block, Capacity, largest));
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

int32_t ReceiveCapacity(TPeer& Peer) {
  const uint64_t capacity = Peer.Receive({TKind::Hello}).Position;
  if (capacity >= SmallestMemory && capacity <= LargestMemory)
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
  const TEndpoint endpoint = Open(Arguments.Address, false, Arguments.Size);
  TPeer peer(*endpoint.Channel, "receiver");
  peer.StartWatchdog();
  try {
    peer.Send({.Kind = TKind::Hello, .Position = total});
    const int32_t capacity = ReceiveCapacity(peer);
    const uint32_t check =
        SendBlocks(peer, file, total, capacity, ChooseBlock(Arguments, capacity), Arguments.Show);
    peer.Send({.Kind = TKind::End, .Position = total, .Check = check});
    if (peer.Receive({TKind::Done}).Check != check)
      throw Exception("the copy differs: its CRC-32 is another");
    PrintResult("sent", total, check);
  } catch (const Exception& e) {
    peer.TellFailure(e.what());
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
  const TEndpoint endpoint = Open(Arguments.Address, true, Arguments.Size);
  TPartialFile file(Arguments.File);
  TPeer peer(*endpoint.Channel, "sender");
  std::printf("waiting for a sender on %s\n", Arguments.Address.c_str());
  std::fflush(stdout);
  try {
    const uint64_t total = peer.Receive({TKind::Hello}).Position;
    peer.StartWatchdog();
    peer.Send({.Kind = TKind::Hello, .Position = static_cast<uint64_t>(Arguments.Size)});
    const uint32_t check =
        ReceiveBlocks(peer, file.Stream(), total, Arguments.Size, Arguments.Show);
    file.PutInPlace();
    peer.Send({.Kind = TKind::Done, .Position = total, .Check = check});
    PrintResult("received", total, check);
  } catch (const Exception& e) {
    peer.TellFailure(e.what());
    throw;
  }
}

// -------------------------------------------------------------------------------------------------
// command line

constexpr const char* Usage =
    "velcopy receive shm:NAME FILE [--size BYTES]\n"
    "velcopy send shm:NAME FILE [--block BYTES]\n"
    "\n"
    "Start the receiver first. --size is the shared memory for each direction (default 4194304),\n"
    "--block what is sent at once (default 65536, or a quarter of the memory).\n"
    "--progress bar|lines|none: default is a bar on a console, else lines.\n";

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
      arguments.Size = ParseNumber(word, Words[i], SmallestMemory, LargestMemory);
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
