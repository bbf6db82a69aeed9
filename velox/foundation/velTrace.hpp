#pragma once

#include <atomic>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "velox/runtime/velCriticalSection.hpp"
#include "velox/runtime/velHandle.hpp"
#include "velox/runtime/velObject.hpp"
#include "velox/runtime/velWindows.hpp"

namespace velox {

/// What a record is about. It decides only whether the record is written; it does not appear in the
/// line.
enum class TTraceType : uint8_t {
  ttComment = 0,  ///< never written
  ttDebug = 1,    ///< written
  ttError = 2     ///< written
};
using enum TTraceType;

/// The trace log of the process: a text file with one line a record.
///
/// The file is NAME.log, NAME being the program's file name without extension. It stands beside the
/// program, or, after SetProgramDataSubdir, in the folder SUBDIR\Logs below the all-users profile.
/// It is opened and closed around every record, so it can be read, moved or deleted at any time and
/// nothing is lost when the process is killed. A file that has reached 104,857,600 bytes is renamed
/// to NAME.log.1, replacing the one before, and a new one begun; processes that share a file take
/// turns at that. The first record of a process is preceded by lines that tell the program's
/// version, if it has one, and when it started.
///
///     2024-03-05 14:07:09.042   [000004D2]  Connection refused
///
/// The Trace operations raise nothing: a record that can't be written is lost. A literal as their
/// text allocates nothing, so they may be called where memory has run out.
///
/// Threads: all operations may be called from any thread. Records are written one at a time, in the
/// order of their time stamps.
class VELOX_API TTracer : public TObject {
 public:
  /// The log of the process, made on first use by SingletonConstruction.
  static TTracer* GetInstance();
  static TObject* SingletonConstruction();

  /// For SingletonConstruction: programs use GetInstance().
  TTracer();

  /// Chooses the folder; empty for the program's own. Nothing happens when it is the one in use
  /// (letter case counts). Raises EOSError when the system does not tell the program's name; the
  /// folder is then the one before.
  void SetProgramDataSubdir(const std::string& Subdir);
  std::string GetProgramDataSubdir() const;
  /// The log's full path.
  std::string GetFileName() const;

  /// Works the path out anew from the program's name and the chosen folder. Raises EOSError.
  void InitializeFileName();

  /// Opens the log for appending, after rotating a full one. F stays empty when that is not
  /// possible. The result tells whether the log's folder exists.
  bool OpenFile(THandle& F);

  /// Writes one record.
  void Trace(std::string_view Text, TTraceType AType) noexcept;

  /// Writes a record about the exception being handled: "TEXT: MESSAGE. CLASS at ADDRESS". The
  /// first EOutOfMemory of a process (or std::bad_alloc, which goes by that name here, but none
  /// derived from EOutOfMemory) is followed by the state of its heaps; then the process ends, with
  /// exit code 1, when TerminateOnOutOfMemoryRequired is set. It ends even when no memory is left
  /// for the records.
  void TraceException(std::string_view Text) noexcept;

  /// Writes a record with the system's text for an error code: "TEXT - MESSAGE".
  void TraceOSError(std::string_view Text, uint32_t ErrorCode) noexcept;

 private:
  // A line that precedes the first record: none until it is known what it says, empty when there is
  // nothing (more) to write.
  using TBannerLine = std::optional<std::string>;

  void UseSubdir(const std::string& Before, const std::string& Subdir);
  void FindOut(TBannerLine& Line, std::string (*Tell)());
  void GatherBanner() noexcept;
  void WriteRecord(std::string_view Text);

  const bool WithThreadId_ = true;
  std::string FileName_;
  std::atomic<bool> BannerPending_{true};
  TBannerLine Version_;
  TBannerLine Started_;
  bool Torn_ = false;  // the file ends with a part of a record
  // Guards all fields, and the file. Nothing that takes the loader's lock is called with it held: a
  // library that traces while it is being loaded holds that one already.
  mutable TCriticalSection Lock_;
  std::string BaseFolder_;
  std::string ProgramDataSubdir_;
};

/// Whether the process ends once it has traced that it is out of memory. False at first.
extern VELOX_API std::atomic<bool> TerminateOnOutOfMemoryRequired;

/// The operations of the process's log.
VELOX_API void Trace(std::string_view Text, TTraceType AType) noexcept;
VELOX_API void TraceException(std::string_view Text) noexcept;
/// Of the calling thread's last error. Build a text that is no literal before the call that may
/// fail, since building it may change the last error.
VELOX_API void TraceOSError(std::string_view Text) noexcept;

/// Writes one line to the calling thread's own file, NAME and the thread's id in eight hexadecimal
/// digits and ".log", beside the program. No lock, no rotation, no heading; never raises.
VELOX_API void TraceThread(std::string_view Text) noexcept;

/// Queues APC(Data) to a thread, which runs it when it next waits alertably. An exception that
/// escapes it is written to the log and raised on that thread by the wait of the library that ran
/// it. Returns QueueUserAPC's result: 0 when the APC could not be queued (see GetLastError). The
/// first call keeps this library loaded until the process ends.
VELOX_API DWORD WINAPI TraceAndQueueUserAPC(PAPCFUNC APC, HANDLE Thread, ULONG_PTR Data);

}  // namespace velox
