#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

#include "velox/runtime/velCompiler.hpp"
#include "velox/runtime/velDateTime.hpp"
#include "velox/runtime/velMethod.hpp"
#include "velox/runtime/velObject.hpp"
#include "velox/runtime/velStrings.hpp"

struct _FILETIME;

#undef GetClassName  // windows.h may have come first

/// Small helpers that the whole library uses: checks of the operating system's results, tests of
/// memory, hexadecimal text, paths, switches of the command line, growth of buffers, and a child
/// process whose output is read by lines.
///
/// The header needs nothing of Windows, so that portable code can use the helpers which are
/// portable themselves (memory, pointers, hexadecimal text, buffer growth, the choices). Where it
/// is used together with Windows' own, velWindows.hpp stands in for windows.h. All functions may be
/// called by any thread.
namespace velox {

// ---------------------------------------------------------------------------- the system's results

/// Raises EOSError with this code and the system's own text for it. Code 0 raises it too, with the
/// text for an unknown error.
[[noreturn]] VELOX_API void RaiseLastOSErrorEx(int32_t ErrorCode);

/// The same with the calling thread's last error.
[[noreturn]] VELOX_API void RaiseLastOSError();

/// For functions that return an error code: raises EOSError unless the code is 0.
VELOX_API void CheckOSResult(uint32_t Code);

/// Raises EOSError for the calling thread's last error, unless that is 0 or the allowed one.
VELOX_API void CheckOSResultFiltered(uint32_t Allowed);
/// The same with any number of allowed codes.
VELOX_API void CheckOSResultFiltered(std::span<const uint32_t> Allowed);

/// For COM's functions: raises EOleSysError with this HRESULT, and the system's own text for it,
/// when it tells of a failure (is negative).
VELOX_API void OleCheck(int32_t Result);

// ------------------------------------------------------------------------------------------ memory
// Sizes are bytes; a negative one counts as 0.

/// Orders two blocks of Size bytes: 0 when they are equal, else -1 or 1 by the first byte that
/// differs. Bytes compare as signed numbers: 0x80 stands before 0x7F.
VELOX_API int32_t CompareMemory(const void* P1, const void* P2, int32_t Size) noexcept;

/// Whether every byte equals Value; true for no bytes.
VELOX_API bool TestMemory(uint8_t Value, const void* Buffer, int32_t Size) noexcept;

/// The offset of the first byte that differs from Value; Size when there is none.
VELOX_API int32_t TestMemoryAndGetUnmatchedOffsetEx(uint8_t Value, const void* Buffer,
                                                    int32_t Size) noexcept;
/// The same; -1 when there is none.
VELOX_API int32_t TestMemoryAndGetUnmatchedOffset(uint8_t Value, const void* Buffer,
                                                  int32_t Size) noexcept;

/// The offset of the first byte that equals Value; Size when there is none.
VELOX_API int32_t TestMemoryAndGetMatchedOffsetEx(uint8_t Value, const void* Buffer,
                                                  int32_t Size) noexcept;
/// The same; -1 when there is none.
VELOX_API int32_t TestMemoryAndGetMatchedOffset(uint8_t Value, const void* Buffer,
                                                int32_t Size) noexcept;

/// Advances P by Delta bytes and returns what it was before.
template <class Byte>
requires(sizeof(Byte) == 1) constexpr Byte* PtrInc(Byte*& P, ptrdiff_t Delta) noexcept {
  Byte* const before = P;
  P += Delta;
  return before;
}

/// Advances P by Delta bytes and returns its new value.
template <class Byte>
requires(sizeof(Byte) == 1) constexpr Byte* IncPtr(Byte*& P, ptrdiff_t Delta) noexcept {
  return P += Delta;
}

/// The address Delta bytes behind P.
inline void* OfsPtr(void* P, ptrdiff_t Delta) noexcept { return static_cast<uint8_t*>(P) + Delta; }
inline const void* OfsPtr(const void* P, ptrdiff_t Delta) noexcept {
  return static_cast<const uint8_t*>(P) + Delta;
}

/// The capacity, in bytes, that a buffer of Current bytes should get to hold Required. Growing
/// takes at least an eighth more; shrinking is put off until Required is below seven eighths. The
/// result is rounded up to a multiple of Granularity (as far as 2 GiB allow) and is never less than
/// Required. Raises EDivByZero for granularity 0.
VELOX_API int32_t GetReallocMemorySize(int32_t Current, int32_t Required, int32_t Granularity);

// ------------------------------------------------------------------------------- choices and names

/// TrueValue or FalseValue, as Condition says.
VELOX_API TObject* IfThen(bool Condition, TObject* TrueValue, TObject* FalseValue) noexcept;
VELOX_API std::string IfThen(bool Condition, const std::string& TrueValue,
                             const std::string& FalseValue);
VELOX_API int32_t IfThen(bool Condition, int32_t TrueValue, int32_t FalseValue) noexcept;

/// Whether A is null or is B.
VELOX_API bool EqualOrUnassinged(const TObject* A, const TObject* B) noexcept;

/// The class's name, or Default for no class.
VELOX_API std::string GetClassName(const TClass& AClass, const std::string& Default);

/// "Yes" or "No".
VELOX_API std::string BoolToYesNo(bool Value);

// ------------------------------------------------------------------------------ hexadecimal digits

/// The value of a hexadecimal digit of either case. False, and B untouched, for any other
/// character.
VELOX_API bool TryDigitToByte(char C, uint8_t& B) noexcept;

/// The value of a hexadecimal digit. Any other character is no error: the result is then
/// unspecified. Check with TryDigitToByte where the text is not trusted.
VELOX_API uint8_t DigitToByte(char C);

/// A dump of Size bytes as two upper-case digits each. Between bytes stands ByteSeparator, in the
/// middle of a line of 16 GroupSeparator, after its 16th byte LineEnd; each line opens with
/// LinePrefix. The very last byte stands alone: nothing follows it, and when it would open a line,
/// no prefix precedes it. Empty for Size below 1.
VELOX_API std::string BinToHex(const void* Buffer, int32_t Size, const std::string& LinePrefix,
                               const std::string& ByteSeparator, const std::string& GroupSeparator,
                               const std::string& LineEnd);

// ------------------------------------------------------------------------------------------- paths
// "\" and "/" both separate folders.

/// The last part of a file name, without its extension. "C:\data\log.2.txt" gives "log.2".
VELOX_API std::string ExtractFileNameWithoutExt(const std::string& FileName);

/// The part before the last one, with the separator that ends it, so that a name can be appended:
/// "C:\\data\\log.txt" gives "C:\\data\\", and "log.txt" nothing.
VELOX_API std::string ExtractFolder(const std::string& FileName);

/// The folder with a separator at its end. An empty name stays empty.
VELOX_API std::string IncludeTrailingSeparator(const std::string& Folder);

/// The full name of the running program's file. Raises EOSError when the system does not tell.
VELOX_API std::string GetProgramFileName();

/// Makes the folder, and the folders above it that are missing. False when that fails (the drive is
/// missing, a file is in the way, no right to do it); the last error then tells why. True when the
/// folder is there.
VELOX_API bool EnsurePathExists(const std::string& Path);

/// The absolute path that Path means when it is seen from the folder BasePath. An empty one of the
/// two leaves the other. A path with a drive or a share is returned as it is; one that begins with
/// "\" (not "/") gets the base's drive (or share). Raises EOSError when the system can't tell the
/// full name.
VELOX_API std::string ExpandToAbsolutePath(const std::string& BasePath, const std::string& Path);

// -------------------------------------------------------------------------------------------- time

/// A file's time (100-ns units, universal time) as local date-time, to the millisecond. Raises
/// EOSError when the system can't convert it, and for years from 10000 on.
VELOX_API TDateTime FileTimeToDateTime(const _FILETIME& FileTime);

/// Throttles what repeats to once a second: when more than one second has passed since LastTime,
/// sets LastTime to now and returns true. Start with LastTime 0. The caller serialises calls that
/// share LastTime.
VELOX_API bool WaitOneSecond(TDateTime& LastTime) noexcept;

// ------------------------------------------------------------------------------------ command line

/// The parameters of a command line, without the program's name, by the rules by which C programs
/// get theirs: blanks separate, quotes keep blanks, \" is a quote, backslashes before a quote count
/// half.
VELOX_API TStrings SplitCommandLine(const std::string& CommandLine);

/// Looks for a switch among the parameters of this process: a character of Chars, then Switch. With
/// no Chars, the first character is any. The first match returns true, and Value is what follows
/// the switch in that parameter (else empty). The name is a prefix: "-port80" is the switch "port"
/// with value "80", and also the switch "po" with value "rt80". IgnoreCase follows the system's
/// language.
VELOX_API bool FindCmdLineSwitchEx(const std::string& Switch, const TCharSet& Chars,
                                   bool IgnoreCase, std::string& Value);
/// The same for switches that begin with "-" or "/", ignoring case.
VELOX_API bool FindCmdLineSwitchEx(const std::string& Switch, std::string& Value);
/// The same when only its presence matters.
VELOX_API bool FindSwitch(const std::string& Switch);

// ----------------------------------------------------------------------------------- child process

/// Takes one line of a child's output, without its line end.
using TProcessOutputEvent = TMethod<void(const std::string&)>;

/// Runs a program, hidden, and waits for its end; what it writes to its standard output and error
/// comes to OnOutput by lines, on the calling thread, while it runs. Its standard input is the
/// caller's.
///
/// A line ends at a line feed, or at a carriage return without one. The latter is how a program
/// rewrites a line in place, such as a counter of progress: those lines are passed on only when
/// ReportCarriageReturnLines is set. A last line without an end is passed on as well. A line is
/// kept in memory until its end comes, however long it gets. The calling thread runs no APCs
/// meanwhile.
///
/// Returns when the child has ended and everyone who holds its output has closed that: a program
/// which the child has started inherits it as a rule, and is then waited for like the child.
///
/// CurrentDirectory may be empty: the caller's own. Another thread may set *Cancel (it is cleared
/// when the child has been started): the child is then ended with exit code 1223 as soon as it next
/// writes something; a child that stays silent is waited for.
///
/// The result is the child's exit code, and the thread's last error is 0, also when that code is
/// -1. Any other last error is the reason for a failure, and the result is no exit code: -1 when
/// the child could not be started or its exit code not be obtained, the error code itself when no
/// pipe could be made. An exception from OnOutput passes through; the child goes on without a
/// reader.
///
///     TStrings lines;
///     auto keep = [&](const std::string& line) { lines.push_back(line); };
///     const auto event = TProcessOutputEvent::To(keep);
///     const int32_t code = ExecuteProcess("ping host", "", event, false, nullptr);
VELOX_API int32_t ExecuteProcess(const std::string& CommandLine,
                                 const std::string& CurrentDirectory,
                                 const TProcessOutputEvent& OnOutput,
                                 bool ReportCarriageReturnLines, std::atomic<uint8_t>* Cancel);

}  // namespace velox
