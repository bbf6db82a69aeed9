#include "velox/foundation/velSysUtils.hpp"

#include <algorithm>
#include <mutex>
#include <string_view>

#include "velox/runtime/velCriticalSection.hpp"
#include "velox/runtime/velException.hpp"
#include "velox/runtime/velFormat.hpp"
#include "velox/runtime/velHandle.hpp"
#include "velox/runtime/velMessages.hpp"
#include "velox/runtime/velSystemMessage.hpp"
#include "velox/runtime/velWindows.hpp"

namespace velox {

// ---------------------------------------------------------------------------- the system's results

namespace {

// Where names the code that asked for the check.
[[noreturn]] void RaiseOSError(uint32_t Code, const void* Where) {
  if (Code == 0) throw EOSError(messages::seUnknownOSError, Code, Where);
  throw EOSError(Format(messages::seOSError, Code, SystemErrorMessage(Code).c_str()), Code, Where);
}

}  // namespace

VELOX_NOINLINE void RaiseLastOSErrorEx(int32_t ErrorCode) {
  RaiseOSError(static_cast<uint32_t>(ErrorCode), VELOX_RETURN_ADDRESS());
}

VELOX_NOINLINE void RaiseLastOSError() { RaiseOSError(::GetLastError(), VELOX_RETURN_ADDRESS()); }

VELOX_NOINLINE void CheckOSResult(uint32_t Code) {
  if (Code != 0) RaiseOSError(Code, VELOX_RETURN_ADDRESS());
}

void CheckOSResultFiltered(uint32_t Allowed) { CheckOSResultFiltered({&Allowed, 1}); }

void CheckOSResultFiltered(std::span<const uint32_t> Allowed) {
  const uint32_t code = ::GetLastError();
  if (std::find(Allowed.begin(), Allowed.end(), code) == Allowed.end()) CheckOSResult(code);
}

VELOX_NOINLINE void OleCheck(int32_t Result) {
  if (Result >= 0) return;
  const auto code = static_cast<uint32_t>(Result);
  throw EOleSysError(Format(messages::seOleError, code, SystemErrorMessage(code).c_str()), Result,
                     VELOX_RETURN_ADDRESS());
}

// ------------------------------------------------------------------------------------------- paths

namespace {

bool IsSeparator(char C) noexcept { return C == '\\' || C == '/'; }

/// The position of the last character that ends a folder or drive, npos when there is none. In code
/// pages of two bytes a character, "\" can also be the second half of a letter.
size_t LastDelimiter(std::string_view Path) noexcept {
  size_t found = std::string_view::npos;
  for (size_t i = 0; i < Path.size(); ++i) {
    if (IsSeparator(Path[i]) || Path[i] == ':') {
      found = i;
    } else if (::IsDBCSLeadByte(static_cast<BYTE>(Path[i]))) {
      ++i;
    }
  }
  return found;
}

bool EndsInSeparator(std::string_view Path) noexcept {
  return !Path.empty() && IsSeparator(Path.back()) && LastDelimiter(Path) == Path.size() - 1;
}

/// The position of the first separator at or behind Start, where a character begins; npos when
/// there is none.
size_t FindSeparator(std::string_view Path, size_t Start) noexcept {
  for (size_t i = Start; i < Path.size(); ++i) {
    if (IsSeparator(Path[i])) return i;
    if (::IsDBCSLeadByte(static_cast<BYTE>(Path[i]))) ++i;
  }
  return std::string_view::npos;
}

/// The folder part, without the separator that ends it unless that belongs to a root ("C:\", "\\").
std::string_view FolderPart(std::string_view Path) noexcept {
  const size_t last = LastDelimiter(Path);
  if (last == std::string_view::npos) return {};
  const std::string_view folder = Path.substr(0, last + 1);
  const bool isRoot = last == 0 || Path[last] == ':' || Path[last - 1] == ':' ||
                      EndsInSeparator(Path.substr(0, last));
  return isRoot ? folder : folder.substr(0, last);
}

/// "C:" or "\\server\share", empty when the path has neither.
std::string_view DrivePart(std::string_view Path) noexcept {
  if (Path.size() < 2) return {};
  if (Path[1] == ':') return Path.substr(0, 2);
  if (!IsSeparator(Path[0]) || !IsSeparator(Path[1])) return {};
  const size_t server = FindSeparator(Path, 2);
  return Path.substr(0,
                     server == std::string_view::npos ? server : FindSeparator(Path, server + 1));
}

bool IsFolder(const std::string& Path) noexcept {
  const DWORD attributes = ::GetFileAttributesA(Path.c_str());
  return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
}

std::string FullPath(const std::string& Path) {
  char full[MAX_PATH];  // as long as the system lets a name in 8-bit characters be
  const DWORD length = ::GetFullPathNameA(Path.c_str(), sizeof full, full, nullptr);
  if (length == 0) RaiseLastOSError();
  if (length >= sizeof full) RaiseLastOSErrorEx(ERROR_FILENAME_EXCED_RANGE);
  return {full, length};
}

}  // namespace

std::string ExtractFileNameWithoutExt(const std::string& FileName) {
  const std::string name = FileName.substr(LastDelimiter(FileName) + 1);  // npos + 1 is 0
  return name.substr(0, name.rfind('.'));  // a dot is never the second half of a letter
}

std::string ExtractFolder(const std::string& FileName) {
  return FileName.substr(0, LastDelimiter(FileName) + 1);  // npos + 1 is 0
}

std::string IncludeTrailingSeparator(const std::string& Folder) {
  return Folder.empty() || EndsInSeparator(Folder) ? Folder : Folder + "\\";
}

std::string GetProgramFileName() {
  std::string name(32768, '\0');  // as long as any name may be
  const DWORD length = ::GetModuleFileNameA(nullptr, name.data(), static_cast<DWORD>(name.size()));
  if (length == 0) RaiseLastOSError();
  name.resize(length);
  name.shrink_to_fit();
  return name;
}

bool EnsurePathExists(const std::string& Path) {
  if (IsFolder(Path)) return true;
  if (Path.empty() || Path.back() == ':') return false;
  const std::string parent(FolderPart(std::string_view(Path).substr(0, Path.size() - 1)));
  if (!parent.empty() && !EnsurePathExists(parent)) return false;
  // Another thread or process may make the folder at the same time.
  if (::CreateDirectoryA(Path.c_str(), nullptr)) return true;
  const DWORD error = ::GetLastError();
  const bool exists = IsFolder(Path);
  ::SetLastError(error);
  return exists;
}

std::string ExpandToAbsolutePath(const std::string& BasePath, const std::string& Path) {
  if (Path.empty()) return BasePath;
  if (BasePath.empty()) return FullPath(Path);
  if (!DrivePart(Path).empty()) return Path;
  if (Path[0] == '\\') return std::string(DrivePart(BasePath)) + Path;
  return FullPath(BasePath + (EndsInSeparator(BasePath) ? "" : "\\") + Path);
}

// -------------------------------------------------------------------------------------------- time

TDateTime FileTimeToDateTime(const FILETIME& FileTime) {
  FILETIME local;
  SYSTEMTIME time;
  if (!::FileTimeToLocalFileTime(&FileTime, &local) || !::FileTimeToSystemTime(&local, &time))
    RaiseLastOSError();
  if (time.wYear > 9999) RaiseLastOSErrorEx(ERROR_INVALID_PARAMETER);  // no date-time
  return SystemTimeToDateTime(time);
}

bool WaitOneSecond(TDateTime& LastTime) noexcept {
  constexpr TDateTime OneSecond = 1.0 / 86400;
  const TDateTime now = Now();
  if (now <= LastTime + OneSecond) return false;
  LastTime = now;
  return true;
}

// ------------------------------------------------------------------------------------ command line

namespace {

bool IsBlank(char C) noexcept { return C == ' ' || C == '\t'; }

/// Takes one parameter from the text, which begins at it. The rules are those of "Parsing C
/// Command-Line Arguments" in Microsoft's C runtime documentation.
std::string TakeParameter(std::string_view& Text) {
  std::string parameter;
  bool quoted = false;
  size_t i = 0;
  while (i < Text.size() && (quoted || !IsBlank(Text[i]))) {
    const size_t end = std::min(Text.find_first_not_of('\\', i), Text.size());
    const size_t backslashes = end - i;
    const bool beforeQuote = end < Text.size() && Text[end] == '"';
    parameter.append(beforeQuote ? backslashes / 2 : backslashes, '\\');
    i = end;
    if (!beforeQuote) {
      if (i < Text.size() && (quoted || !IsBlank(Text[i]))) {
        // The second half of a letter may look like a backslash.
        const size_t letter = ::IsDBCSLeadByte(static_cast<BYTE>(Text[i])) ? 2 : 1;
        parameter += Text.substr(i, letter);
        i = std::min(i + letter, Text.size());
      }
    } else if (backslashes % 2 != 0) {
      parameter += Text[i++];
    } else if (quoted && Text.substr(i, 2) == "\"\"") {
      parameter += '"';
      i += 2;
    } else {
      quoted = !quoted;
      ++i;
    }
  }
  Text.remove_prefix(i);
  return parameter;
}

/// The program's name is quoted or ends at the first blank; backslashes mean nothing in it.
void SkipProgramName(std::string_view& Text) noexcept {
  bool quoted = false;
  size_t i = 0;
  for (; i < Text.size() && (quoted || !IsBlank(Text[i])); ++i) {
    if (Text[i] == '"') quoted = !quoted;
  }
  Text.remove_prefix(i);
}

/// Upper case in the language of the system, byte for byte of the same length.
std::string UpperCase(const std::string& Text) {
  std::string upper(Text);
  if (!Text.empty()) {
    const int length = static_cast<int>(Text.size());
    ::LCMapStringA(LOCALE_SYSTEM_DEFAULT, LCMAP_UPPERCASE, Text.data(), length, upper.data(),
                   length);
  }
  return upper;
}

bool SameText(const std::string& A, const std::string& B, bool IgnoreCase) {
  return IgnoreCase ? UpperCase(A) == UpperCase(B) : A == B;
}

const TCharSet& SwitchChars() {
  static const TCharSet chars = TCharSet().set('-').set('/');
  return chars;
}

}  // namespace

TStrings SplitCommandLine(const std::string& CommandLine) {
  TStrings parameters;
  std::string_view rest = CommandLine;
  SkipProgramName(rest);
  for (;;) {
    while (!rest.empty() && IsBlank(rest.front())) rest.remove_prefix(1);
    if (rest.empty()) return parameters;
    parameters.push_back(TakeParameter(rest));
  }
}

bool FindCmdLineSwitchEx(const std::string& Switch, const TCharSet& Chars, bool IgnoreCase,
                         std::string& Value) {
  const std::string name = Switch;  // NOLINT: Value may be the same string
  Value.clear();
  for (const std::string& parameter : SplitCommandLine(::GetCommandLineA())) {
    const bool isSwitch =
        Chars.none() ||
        (!parameter.empty() && Chars.test(static_cast<unsigned char>(parameter.front())));
    if (!isSwitch) continue;
    const std::string text = parameter.empty() ? parameter : parameter.substr(1);
    if (!SameText(text.substr(0, name.size()), name, IgnoreCase)) continue;
    Value = text.substr(name.size());
    return true;
  }
  return false;
}

bool FindCmdLineSwitchEx(const std::string& Switch, std::string& Value) {
  return FindCmdLineSwitchEx(Switch, SwitchChars(), true, Value);
}

bool FindSwitch(const std::string& Switch) {
  std::string ignored;
  return FindCmdLineSwitchEx(Switch, ignored);
}

// ----------------------------------------------------------------------------------- child process

namespace {

/// Cuts the text that a child writes, in pieces of any size, into lines.
class TLineCutter {
 public:
  TLineCutter(const TProcessOutputEvent& OnLine, bool ReportCarriageReturnLines)
      : OnLine_(OnLine), ReportCarriageReturnLines_(ReportCarriageReturnLines) {}

  void Add(std::string_view Text) {
    if (!OnLine_) return;
    Pending_ += Text;
    size_t begin = 0;
    for (size_t end; (end = NextLineEnd()) != std::string::npos; begin = end) {
      Report(std::string_view(Pending_).substr(begin, end - begin));
    }
    Pending_.erase(0, begin);
    Scanned_ -= begin;
  }

  /// What is left is the last line.
  void Finish() {
    if (!Pending_.empty()) Report(Pending_);
  }

 private:
  /// The position behind the next line; npos when the line is not complete. Goes on where it
  /// stopped, so that a line that never ends is looked at once, not again with each piece.
  size_t NextLineEnd() noexcept {
    const size_t i = Pending_.find_first_of("\r\n", Scanned_);
    Scanned_ = std::min(i, Pending_.size());
    if (i == std::string::npos) return i;
    if (Pending_[i] == '\n') return ++Scanned_;
    if (i + 1 == Pending_.size()) return std::string::npos;  // a line feed may follow
    return Scanned_ = i + (Pending_[i + 1] == '\n' ? 2 : 1);
  }

  void Report(std::string_view Line) const {
    if (Line.back() == '\r' && !ReportCarriageReturnLines_) return;
    OnLine_(std::string(Line.substr(0, Line.find_last_not_of("\r\n") + 1)));  // npos + 1 is 0
  }

  const TProcessOutputEvent& OnLine_;
  const bool ReportCarriageReturnLines_;
  std::string Pending_;
  size_t Scanned_ = 0;  // no line ends before this position of Pending_
};

struct TChildProcess {
  THandle Process;
  THandle Thread;
  THandle Output;  // the read end of the pipe
};

/// Held from making a pipe until its write end is closed here: another child started meanwhile
/// would inherit the write end too, and the reader would wait for that child's end as well.
TCriticalSection& StartLock() {
  static TCriticalSection lock;
  return lock;
}

/// Starts a child that writes to Output. Returns the system's error code.
DWORD StartProcess(std::string CommandLine, const std::string& CurrentDirectory, HANDLE Output,
                   TChildProcess& Child) {
  STARTUPINFOA startup{};
  startup.cb = sizeof startup;
  startup.dwFlags = STARTF_USESHOWWINDOW | STARTF_USESTDHANDLES;
  startup.wShowWindow = SW_HIDE;
  startup.hStdInput = ::GetStdHandle(STD_INPUT_HANDLE);
  startup.hStdOutput = Output;
  startup.hStdError = Output;
  PROCESS_INFORMATION information{};
  if (!::CreateProcessA(nullptr, CommandLine.data(), nullptr, nullptr, TRUE, NORMAL_PRIORITY_CLASS,
                        nullptr, CurrentDirectory.empty() ? nullptr : CurrentDirectory.c_str(),
                        &startup, &information)) {
    return ::GetLastError();
  }
  Child.Process.Reset(information.hProcess);
  Child.Thread.Reset(information.hThread);
  return ERROR_SUCCESS;
}

/// Makes the pipe and starts the child. Returns whether it runs; if not, Result is what
/// ExecuteProcess returns, and the last error tells why.
bool StartWithPipe(const std::string& CommandLine, const std::string& CurrentDirectory,
                   TChildProcess& Child, int32_t& Result) {
  const std::scoped_lock lock(StartLock());
  SECURITY_ATTRIBUTES attributes{sizeof attributes, nullptr, TRUE};
  HANDLE readEnd = nullptr, writeEnd = nullptr;
  if (!::CreatePipe(&readEnd, &writeEnd, &attributes, 0)) {
    Result = static_cast<int32_t>(::GetLastError());
    return false;
  }
  Child.Output.Reset(readEnd);
  THandle output(writeEnd);
  // A child that held the read end itself would hang, not fail, when nobody reads what it writes
  // any more.
  ::SetHandleInformation(readEnd, HANDLE_FLAG_INHERIT, 0);
  const DWORD error = StartProcess(CommandLine, CurrentDirectory, output.Get(), Child);
  output.Reset();
  if (error == ERROR_SUCCESS) return true;
  Child.Output.Reset();
  ::SetLastError(error);
  Result = -1;
  return false;
}

bool IsSet(const std::atomic<uint8_t>* Flag) noexcept {
  return Flag != nullptr && Flag->load() != 0;
}

void ReadOutput(HANDLE Pipe, const std::atomic<uint8_t>* Cancel, TLineCutter& Lines) {
  char buffer[255];
  DWORD count = 0;
  while (!IsSet(Cancel) && ::ReadFile(Pipe, buffer, sizeof buffer, &count, nullptr) && count > 0) {
    Lines.Add({buffer, count});
  }
}

/// Waits for the child's end. Returns the system's error code.
DWORD WaitForExitCode(HANDLE Process, int32_t& ExitCode) noexcept {
  DWORD code = 0;
  if (::WaitForSingleObject(Process, INFINITE) != WAIT_OBJECT_0 ||
      !::GetExitCodeProcess(Process, &code))
    return ::GetLastError();
  ExitCode = static_cast<int32_t>(code);
  return ERROR_SUCCESS;
}

}  // namespace

int32_t ExecuteProcess(const std::string& CommandLine, const std::string& CurrentDirectory,
                       const TProcessOutputEvent& OnOutput, bool ReportCarriageReturnLines,
                       std::atomic<uint8_t>* Cancel) {
  TChildProcess child;
  int32_t result = -1;
  if (!StartWithPipe(CommandLine, CurrentDirectory, child, result)) return result;
  if (Cancel != nullptr) Cancel->store(0);
  TLineCutter lines(OnOutput, ReportCarriageReturnLines);
  ReadOutput(child.Output.Get(), Cancel, lines);
  if (IsSet(Cancel)) ::TerminateProcess(child.Process.Get(), ERROR_CANCELLED);
  const DWORD error = WaitForExitCode(child.Process.Get(), result);
  child = {};
  lines.Finish();
  ::SetLastError(error);  // the end of the output was an error of the pipe
  return result;
}

}  // namespace velox
