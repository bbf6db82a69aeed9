#include "velox/foundation/velTrace.hpp"

#include <memory>
#include <mutex>
#include <new>
#include <string_view>
#include <typeinfo>
#include <utility>

#include "velox/foundation/velSyncUtils.hpp"
#include "velox/foundation/velSysUtils.hpp"
#include "velox/foundation/velTraceHeap.hpp"
#include "velox/runtime/velCallbackGuard.hpp"
#include "velox/runtime/velDateTime.hpp"
#include "velox/runtime/velException.hpp"
#include "velox/runtime/velFormat.hpp"
#include "velox/runtime/velModules.hpp"
#include "velox/runtime/velSystemLibrary.hpp"
#include "velox/runtime/velSystemMessage.hpp"
#include "velox/system/velModuleInfo.hpp"

namespace velox {

std::atomic<bool> TerminateOnOutOfMemoryRequired{false};

namespace {

constexpr int64_t RotationSize = 0x6400000;  // bytes: 100 MiB

TSingletonSlot TracerSlot;
std::atomic<bool> OutOfMemoryHandled{false};

using TGetAllUsersProfileDirectory = BOOL(WINAPI*)(LPSTR, LPDWORD);
TSystemFunction<TGetAllUsersProfileDirectory> AllUsersProfileDirectory(
    "userenv.dll", "GetAllUsersProfileDirectoryA");

// Empty when the system does not tell.
std::string AllUsersFolder() {
  char path[1024] = "";
  DWORD size = sizeof path;
  if (!AllUsersProfileDirectory || !AllUsersProfileDirectory(path, &size) || size < 2) return {};
  return std::string(path, size - 1);
}

// What a line begins with: local time, thread.
std::string LinePrefix(bool WithThreadId) {
  SYSTEMTIME now;
  ::GetLocalTime(&now);
  std::string prefix = FormatTimeStamp(now) + " ";
  if (WithThreadId) prefix += Format("  [%08lX]  ", ::GetCurrentThreadId());
  return prefix;
}

THandle OpenForAppending(const std::string& FileName, DWORD Disposition) noexcept {
  return THandle(::CreateFileA(FileName.c_str(),
                               FILE_APPEND_DATA | FILE_READ_ATTRIBUTES | SYNCHRONIZE,
                               FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                               Disposition, FILE_ATTRIBUTE_NORMAL, nullptr));
}

bool IsFull(const THandle& File) noexcept {
  LARGE_INTEGER size;
  return ::GetFileSizeEx(File.Get(), &size) && size.QuadPart >= RotationSize;
}

bool IsFull(const std::string& FileName) noexcept {
  WIN32_FILE_ATTRIBUTE_DATA data;
  if (!::GetFileAttributesExA(FileName.c_str(), GetFileExInfoStandard, &data)) return false;
  return (int64_t{data.nFileSizeHigh} << 32) + data.nFileSizeLow >= RotationSize;
}

// While it lives, no other process of this account renames a log. That is rare, so one mutex does
// for all logs.
class TRotationTurn {
 public:
  TRotationTurn() noexcept
      : Mutex_(::CreateMutexA(nullptr, FALSE, "Global\\Velox trace log rotation")) {
    if (Mutex_) ::WaitForSingleObject(Mutex_.Get(), LongestWait);
  }
  ~TRotationTurn() {
    if (Mutex_) ::ReleaseMutex(Mutex_.Get());
  }
  TRotationTurn(const TRotationTurn&) = delete;
  TRotationTurn& operator=(const TRotationTurn&) = delete;

 private:
  static constexpr DWORD LongestWait = 1000;  // milliseconds: who has stopped must not stop others
  const THandle Mutex_;
};

// Makes room for records; returns whether there is. Looks again before it renames: another process
// that has just done so has begun a new file, whose renaming would cost the old one.
bool Rotate(const std::string& FileName) {
  const TRotationTurn turn;
  if (!IsFull(FileName)) return true;
  const std::string old = FileName + ".1";
  ::DeleteFileA(old.c_str());
  ::MoveFileA(FileName.c_str(), old.c_str());
  return !IsFull(FileName);
}

// Returns how many bytes were written: fewer than there are when the medium is full.
size_t WriteAll(const THandle& File, const std::string& Text) noexcept {
  DWORD written = 0;
  if (File)
    ::WriteFile(File.Get(), Text.data(), static_cast<DWORD>(Text.size()), &written, nullptr);
  return written;
}

// "TEXT: MESSAGE. CLASS at ADDRESS"
std::string ExceptionText(std::string_view Text, const TExceptionDescription& Raised) {
  std::string message;
  if (Raised.HasMessage) {
    const bool separate = Text.empty() || (Text.back() != '\r' && Text.back() != '\n');
    message = (separate ? ": " : "") + Raised.Message;
  }
  return std::string(Text) + message + ". " + Raised.ClassName +
         Format(" at %08llX",
                static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(Raised.Address)));
}

// Runs Write; a record for which there is no memory is lost.
template <class F>
void TryWrite(F&& Write) noexcept {
  try {
    Write();
  } catch (...) {
    // The log is the last resort: there is nobody left to tell.
  }
}

// Empty for a program without a version, or when that can't be read. An object of its own describes
// the program, not the shared one: making that takes the loader's lock, and a library that traces
// while it is being loaded would wait for it.
std::string VersionLine() {
  std::string version;
  TryWrite([&] { version = TModuleInfo(HMODULE{nullptr}).ModuleVersion(); });
  return version.empty() ? version : "Module version: " + version;
}

std::string StartedLine() {
  return "Module started: " + FormatTimeStamp(TProcessInfo::GetInstance()->GetCreationTime()) + " ";
}

void TraceHeapStatus(TTracer& Tracer) {
  const THeapStatus status = GetHeapStatus();
  const struct {
    const char* Label;
    uint64_t Value;
  } lines[] = {{"TotalAddrSpace = ", status.TotalAddrSpace},
               {"TotalUncommitted = ", status.TotalUncommitted},
               {"TotalCommitted = ", status.TotalCommitted},
               {"TotalAllocated = ", status.TotalAllocated},
               {"TotalFree = ", status.TotalFree},
               {"FreeSmall = ", status.FreeSmall},
               {"FreeBig = ", status.FreeBig},
               {"Unused = ", status.Unused},
               {"Overhead = ", status.Overhead},
               {"HeapErrorCode = ", status.HeapErrorCode}};
  for (const auto& line : lines) {
    TryWrite([&] {
      Tracer.Trace(Format("%s%llu", line.Label, static_cast<unsigned long long>(line.Value)),
                   ttError);
    });
  }
}

// Whether the exception being handled says that memory ran out. Allocates nothing.
bool IsOutOfMemory() noexcept {
  if (std::current_exception() == nullptr) return false;
  try {
    throw;
  } catch (const EOutOfMemory& e) {
    return typeid(e) == typeid(EOutOfMemory);
  } catch (const std::bad_alloc&) {
    return true;
  } catch (...) {
    return false;
  }
}

// Once a process: tells the state of the heaps, and ends the process if that is wanted, whether or
// not there is memory left to tell it. Without memory for the log itself, Tracer is null.
void HandleOutOfMemory(TTracer* Tracer) noexcept {
  if (OutOfMemoryHandled.exchange(true)) return;
  if (Tracer != nullptr) TraceHeapStatus(*Tracer);
  if (!TerminateOnOutOfMemoryRequired) return;
  if (Tracer != nullptr) Tracer->Trace("Application terminated due to out of memory", ttError);
  ::TerminateProcess(::GetCurrentProcess(), 1);
}

struct TUserAPC {
  uint32_t Number;
  PAPCFUNC Routine;
  HANDLE Thread;
  ULONG_PTR Data;
};

std::atomic<uint32_t> UserAPCCount{0};

std::string DescribeUserAPC(const TUserAPC& Call) noexcept {
  try {
    return Format("Error  : APC = %08llX, hThread = %.8llX, dwData = %.8llX",
                  static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(Call.Routine)),
                  static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(Call.Thread)),
                  static_cast<unsigned long long>(Call.Data));
  } catch (...) {
    return {};
  }
}

void RunUserAPC(const TUserAPC& Call) {
  try {
    Call.Routine(Call.Data);
  } catch (...) {
    TraceException(DescribeUserAPC(Call));
    throw;
  }
}

void CALLBACK UserAPCEntry(ULONG_PTR Call) {
  const std::unique_ptr<TUserAPC> call(reinterpret_cast<TUserAPC*>(Call));
  GuardCallback([&call] { RunUserAPC(*call); });
}

std::string DescribeThread(const std::string& Name) noexcept {
  try {
    return "Thread \"" + Name + "\" ended by an exception";
  } catch (...) {
    return {};
  }
}

void TraceThreadException(const std::string& ThreadName) noexcept {
  TraceException(DescribeThread(ThreadName));
}

}  // namespace

TTracer* TTracer::GetInstance() { return SingletonInstance<TTracer>(TracerSlot); }

TObject* TTracer::SingletonConstruction() { return new TTracer; }

TTracer::TTracer() { InitializeFileName(); }

void TTracer::SetProgramDataSubdir(const std::string& Subdir) {
  const std::string before = GetProgramDataSubdir();
  if (Subdir != before) UseSubdir(before, Subdir);
}

std::string TTracer::GetProgramDataSubdir() const {
  const std::scoped_lock guard(Lock_);
  return ProgramDataSubdir_;
}

std::string TTracer::GetFileName() const {
  const std::scoped_lock guard(Lock_);
  return FileName_;
}

void TTracer::InitializeFileName() {
  const std::string subdir = GetProgramDataSubdir();
  UseSubdir(subdir, subdir);
}

// All or nothing, and nothing when another thread has meanwhile replaced Before.
void TTracer::UseSubdir(const std::string& Before, const std::string& Subdir) {
  const std::string program = GetProgramFileName();
  const std::string allUsers = Subdir.empty() ? std::string() : AllUsersFolder();
  std::string folder = ExtractFolder(program), logFolder = folder, subdir = Subdir;
  if (!allUsers.empty()) {
    folder = IncludeTrailingSeparator(IncludeTrailingSeparator(allUsers) + Subdir);
    logFolder = folder + "Logs\\";
  }
  std::string name = logFolder + ExtractFileNameWithoutExt(program) + ".log";
  const std::scoped_lock guard(Lock_);
  if (ProgramDataSubdir_ != Before) return;
  ProgramDataSubdir_.swap(subdir);
  BaseFolder_.swap(folder);
  FileName_.swap(name);
}

bool TTracer::OpenFile(THandle& F) {
  const std::scoped_lock guard(Lock_);
  // The usual case first: the folder need not be looked for when the file is there.
  F = OpenForAppending(FileName_, OPEN_EXISTING);
  if (F && !IsFull(F)) return true;
  F.Reset();
  const bool full = IsFull(FileName_) && !Rotate(FileName_);
  const bool folderExists = EnsurePathExists(ExtractFolder(FileName_));
  // A full file that could not be renamed stays as it is, and the record is lost.
  if (!full) F = OpenForAppending(FileName_, OPEN_ALWAYS);
  return folderExists;
}

// Without the lock while it asks, and only when it is not known yet: another thread may have found
// out, and even written, it meanwhile.
void TTracer::FindOut(TBannerLine& Line, std::string (*Tell)()) {
  {
    const std::scoped_lock guard(Lock_);
    if (Line) return;
  }
  std::string text = Tell();
  const std::scoped_lock guard(Lock_);
  if (!Line) Line = std::move(text);
}

// What can't be found out comes another time.
void TTracer::GatherBanner() noexcept {
  TryWrite([&] { FindOut(Version_, &VersionLine); });
  TryWrite([&] { FindOut(Started_, &StartedLine); });
}

void TTracer::Trace(std::string_view Text, TTraceType AType) noexcept {
  if (AType != ttDebug && AType != ttError) return;
  const DWORD lastError = ::GetLastError();
  if (BannerPending_) GatherBanner();
  TryWrite([&] { WriteRecord(Text); });
  ::SetLastError(lastError);
}

// With what is to be written of the banner.
void TTracer::WriteRecord(std::string_view Text) {
  const std::scoped_lock guard(Lock_);
  const std::string prefix = LinePrefix(WithThreadId_);
  THandle file;
  OpenFile(file);
  if (!file) return;
  std::string lines = Torn_ ? "\r\n" : "";
  for (const TBannerLine* line : {&Version_, &Started_}) {
    if (*line && !(*line)->empty()) lines += prefix + **line + "\r\n";
  }
  lines.append(prefix).append(Text).append("\r\n");
  const size_t written = WriteAll(file, lines);
  if (written > 0) Torn_ = written < lines.size();
  if (written < lines.size()) return;
  for (TBannerLine* line : {&Version_, &Started_}) {
    if (*line) (*line)->clear();
  }
  BannerPending_ = !Version_ || !Started_;
}

void TTracer::TraceException(std::string_view Text) noexcept {
  const bool outOfMemory = IsOutOfMemory();
  TryWrite([&] { Trace(ExceptionText(Text, DescribeCurrentException()), ttError); });
  if (outOfMemory) HandleOutOfMemory(this);
}

void TTracer::TraceOSError(std::string_view Text, uint32_t ErrorCode) noexcept {
  TryWrite([&] { Trace(std::string(Text) + " - " + SystemErrorMessage(ErrorCode), ttError); });
}

void Trace(std::string_view Text, TTraceType AType) noexcept {
  TryWrite([&] { TTracer::GetInstance()->Trace(Text, AType); });
}

void TraceException(std::string_view Text) noexcept {
  TTracer* tracer = nullptr;
  TryWrite([&] { tracer = TTracer::GetInstance(); });
  if (tracer != nullptr) {
    tracer->TraceException(Text);
  } else if (IsOutOfMemory()) {
    HandleOutOfMemory(nullptr);
  }
}

void TraceOSError(std::string_view Text) noexcept {
  const DWORD error = ::GetLastError();
  TryWrite([&] { TTracer::GetInstance()->TraceOSError(Text, error); });
}

void TraceThread(std::string_view Text) noexcept {
  TryWrite([&] {
    const std::string program = GetProgramFileName();
    const std::string name = ExtractFolder(program) + ExtractFileNameWithoutExt(program) +
                             Format("%08lX.log", ::GetCurrentThreadId());
    WriteAll(OpenForAppending(name, OPEN_ALWAYS), LinePrefix(true).append(Text).append("\r\n"));
  });
}

DWORD WINAPI TraceAndQueueUserAPC(PAPCFUNC APC, HANDLE Thread, ULONG_PTR Data) {
  PinLibrary();
  std::unique_ptr<TUserAPC> call(new (std::nothrow) TUserAPC{++UserAPCCount, APC, Thread, Data});
  if (call == nullptr) {
    ::SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return 0;
  }
  const DWORD result =
      ::QueueUserAPC(&UserAPCEntry, Thread, reinterpret_cast<ULONG_PTR>(call.get()));
  if (result != 0) call.release();  // the APC's now
  return result;
}

void modules::InitializeTrace() { SetThreadExceptionHook(&TraceThreadException); }

void modules::FinalizeTrace() noexcept {
  SetThreadExceptionHook(nullptr);
  SingletonDestroy(TracerSlot);
}

}  // namespace velox
