// The shared-memory channel between two processes against bare calls that do the same, and against
// Boost.Interprocess. Each side sends operations to a process of its own, which sends each back.

#include "velox/runtime/velWindows.hpp"
// Windows' headers come before those that would include them otherwise.
// Wine lacks what Boost looks for to find a folder of its own.
#define BOOST_INTERPROCESS_SHARED_DIR_PATH "C:\\windows\\temp"
#include <boost/interprocess/ipc/message_queue.hpp>
#include <cstring>

#include "bench/harness.hpp"
#include "velox/channels/velSharedMemChannel.hpp"
#include "velox/runtime/velFormat.hpp"
#include "velox/runtime/velHandle.hpp"

namespace bench {
namespace {

using namespace velox;
namespace ipc = boost::interprocess;

constexpr int Trips = 64;  // in one repetition, so that starting and ending one weighs little
constexpr int32_t MemorySize = 256 << 10;  // bytes each way

THandle NamedEvent(const std::string& Name) {
  return THandle(::CreateEventA(nullptr, FALSE, FALSE, Name.c_str()));
}

/// A process that plays a role until the object goes.
class TPeer {
 public:
  TPeer(const char* Role, const std::string& Name, int32_t Size) {
    const THandle ready = NamedEvent(Name + " ready");
    std::string line = RoleCommand(Role, {Name, std::to_string(Size)});
    STARTUPINFOA startup{};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION information{};
    if (!::CreateProcessA(nullptr, line.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr,
                          &startup, &information)) {
      throw Exception("cannot start " + line);
    }
    Process_.Reset(information.hProcess);
    THandle(information.hThread).Reset();
    const HANDLE either[] = {ready.Get(), Process_.Get()};
    if (::WaitForMultipleObjects(2, either, FALSE, INFINITE) != WAIT_OBJECT_0)
      throw Exception("ended: " + line);
  }
  ~TPeer() {
    ::TerminateProcess(Process_.Get(), 0);
    ::WaitForSingleObject(Process_.Get(), INFINITE);
  }
  TPeer(const TPeer&) = delete;
  TPeer& operator=(const TPeer&) = delete;

  /// In the role: tells that it is up.
  static void TellReady(const std::string& Name) { ::SetEvent(NamedEvent(Name + " ready").Get()); }

 private:
  THandle Process_;
};

/// Sends and receives in turns, all in the completions, as a program that serves a channel does.
class TOurEnd {
 public:
  TOurEnd(const std::string& Name, int32_t Size, TChannelMode Mode)
      : Data_(static_cast<size_t>(Size)) {
    Channel_.SetMemoryName(Name);
    Channel_.SetMemorySize(MemorySize);
    Channel_.SetMode(Mode);
    Channel_.SetActive(true);
    for (TTransferOperation* operation : {&Reading_, &Writing_}) {
      operation->SetChannel(&Channel_);
      operation->SetAutoTimeout(false);
      operation->SetBuffer(Data_.data());
      operation->SetSize(Size);
    }
    Writing_.SetKind(TOperationKind::okWrite);
    Reading_.SetOnComplete(TOperationNotificationEvent::Bind<&TOurEnd::OnRead>(this));
  }
  ~TOurEnd() { Channel_.SetActive(false); }

  void Ping() {
    Left_ = Trips;
    Reading_.SetActive(true);
    Writing_.SetActive(true);
    ::WaitForSingleObject(Done_.Get(), INFINITE);
  }
  void Serve() {
    Left_ = INT_MAX;
    Reading_.SetActive(true);
    ::Sleep(INFINITE);
  }

 private:
  void OnRead(TObject*) {
    if (!Reading_.GetSucceeded()) return;
    if (--Left_ == 0) {
      ::SetEvent(Done_.Get());
      return;
    }
    Reading_.SetActive(true);
    Writing_.SetActive(true);
  }

  std::vector<uint8_t> Data_;
  TSharedMemChannel Channel_;
  TTransferOperation Reading_, Writing_;
  int Left_ = 0;
  THandle Done_{::CreateEventA(nullptr, FALSE, FALSE, nullptr)};
};

const TRole OurPeer("channel", [](const std::vector<std::string>& Arguments) {
  TOurEnd end(Arguments[0], std::stoi(Arguments[1]), TChannelMode::cmClient);
  TPeer::TellReady(Arguments[0]);
  end.Serve();
});

/// One direction of the bare exchange: a block in shared memory, its mutex, and the event of its
/// reader.
class TBareBlock {
 public:
  explicit TBareBlock(const std::string& Name)
      : Mapping_(::CreateFileMappingA(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, MemorySize,
                                      (Name + " memory").c_str())),
        Mutex_(::CreateMutexA(nullptr, FALSE, (Name + " mutex").c_str())),
        Full_(NamedEvent(Name + " full")),
        Memory_(::MapViewOfFile(Mapping_.Get(), FILE_MAP_ALL_ACCESS, 0, 0, 0)) {}
  ~TBareBlock() { ::UnmapViewOfFile(Memory_); }

  void Write(const std::vector<uint8_t>& Data) {
    ::WaitForSingleObject(Mutex_.Get(), INFINITE);
    std::memcpy(Memory_, Data.data(), Data.size());
    ::ReleaseMutex(Mutex_.Get());
    ::SetEvent(Full_.Get());
  }
  void Read(std::vector<uint8_t>& Data) {
    ::WaitForSingleObjectEx(Full_.Get(), INFINITE, TRUE);
    ::WaitForSingleObject(Mutex_.Get(), INFINITE);
    std::memcpy(Data.data(), Memory_, Data.size());
    ::ReleaseMutex(Mutex_.Get());
  }

 private:
  THandle Mapping_, Mutex_, Full_;
  void* Memory_;
};

const TRole BarePeer("bare", [](const std::vector<std::string>& Arguments) {
  std::vector<uint8_t> data(static_cast<size_t>(std::stoi(Arguments[1])));
  TBareBlock there(Arguments[0] + " there"), back(Arguments[0] + " back");
  TPeer::TellReady(Arguments[0]);
  for (;;) {
    there.Read(data);
    back.Write(data);
  }
});

/// Receives one message of the size of Data.
void Receive(ipc::message_queue& Queue, std::vector<uint8_t>& Data) {
  ipc::message_queue::size_type size = 0;
  unsigned priority = 0;
  Queue.receive(Data.data(), Data.size(), size, priority);
}

const TRole BoostPeer("boost", [](const std::vector<std::string>& Arguments) {
  std::vector<uint8_t> data(static_cast<size_t>(std::stoi(Arguments[1])));
  ipc::message_queue there(ipc::open_only, (Arguments[0] + "-there").c_str());
  ipc::message_queue back(ipc::open_only, (Arguments[0] + "-back").c_str());
  TPeer::TellReady(Arguments[0]);
  for (;;) {
    Receive(there, data);
    back.send(data.data(), data.size(), 0);
  }
});

void ChannelRows(int32_t Size) {
  const std::string id = Format("velox-bench-%lu-%d", ::GetCurrentProcessId(), Size);
  const std::string row =
      Format("shared-memory channel: %d bytes to another process and back", Size);
  std::vector<uint8_t> data(static_cast<size_t>(Size), 7);

  TOurEnd ours(id + "-ours", Size, TChannelMode::cmServer);
  const TPeer ourPeer("channel", id + "-ours", Size);
  const TSide ourSide = Repeat([&] { ours.Ping(); });
  {
    TBareBlock there(id + "-bare there"), back(id + "-bare back");
    const TPeer barePeer("bare", id + "-bare", Size);
    Compare({row, "the same mutex, events and copies", 0.8, Trips, Trips}, ourSide, Repeat([&] {
              for (int i = 0; i < Trips; ++i) {
                there.Write(data);
                back.Read(data);
              }
            }));
  }
  const std::string boost = id + "-boost";
  const std::string names[] = {boost + "-there", boost + "-back"};
  {
    // One of an ended run's that had the same process id may be left.
    for (const std::string& name : names) ipc::message_queue::remove(name.c_str());
    ipc::message_queue there(ipc::create_only, names[0].c_str(), 4, data.size());
    ipc::message_queue back(ipc::create_only, names[1].c_str(), 4, data.size());
    const TPeer boostPeer("boost", boost, Size);
    Compare({row, "Boost.Interprocess, message_queue", 0, Trips, Trips}, ourSide, Repeat([&] {
              for (int i = 0; i < Trips; ++i) {
                there.send(data.data(), data.size(), 0);
                Receive(back, data);
              }
            }));
  }
  for (const std::string& name : names) ipc::message_queue::remove(name.c_str());
}

const TGroup Channels(
    "shared-memory channel", [] { ChannelRows(4096); }, true);
const TGroup OtherSizes("shared-memory channel, other sizes", [] {
  ChannelRows(256);
  ChannelRows(65536);
});

}  // namespace
}  // namespace bench
