#include "tests/support/support.hpp"

#include <gtest/gtest.h>
#include <psapi.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <random>
#include "velox/foundation/velSysUtils.hpp"
#include "velox/foundation/velTrace.hpp"
#include "velox/runtime/velException.hpp"
#include "velox/runtime/velFormat.hpp"

namespace velox::test {
namespace {

std::map<std::string, TRoleBody>& Roles() {
  static std::map<std::string, TRoleBody> roles;
  return roles;
}

std::string LogText() {
  const std::string name = TTracer::GetInstance()->GetFileName();
  return std::filesystem::exists(name) ? ReadFileBytes(name) : std::string();
}

}  // namespace

bool WaitUntil(const std::function<bool()>& Condition, uint32_t Limit) {
  const ULONGLONG start = ::GetTickCount64();
  while (!Condition()) {
    if (::GetTickCount64() - start > Limit) return Condition();
    ::SleepEx(1, TRUE);
  }
  return true;
}

TRole::TRole(const char* Name, TRoleBody Body) { Roles().emplace(Name, std::move(Body)); }

int RunRole(const std::string& Name, const std::vector<std::string>& Arguments) {
  const auto found = Roles().find(Name);
  if (found == Roles().end()) return 250;
  return found->second(Arguments);
}

std::string RoleCommand(const std::string& Name, const std::vector<std::string>& Arguments) {
  std::string command = Format("\"%s\" --role=%s", GetProgramFileName().c_str(), Name.c_str());
  for (const std::string& argument : Arguments) command += " \"" + argument + "\"";
  return command;
}

TChild::TChild(const std::string& CommandLine, const THandle& Output, const THandle& Errors) {
  STARTUPINFOA startup{};
  startup.cb = sizeof startup;
  if (Output) startup.dwFlags = STARTF_USESTDHANDLES;
  startup.hStdOutput = Output.Get();
  startup.hStdError = Errors.Get();
  PROCESS_INFORMATION information{};
  std::string line = CommandLine;
  const BOOL started = ::CreateProcessA(nullptr, line.data(), nullptr, nullptr, TRUE, 0, nullptr,
                                        nullptr, &startup, &information);
  EXPECT_TRUE(started) << "cannot start " << CommandLine << ", error " << ::GetLastError();
  Process_.Reset(information.hProcess);
  THandle(information.hThread).Reset();
}

TChild::~TChild() {
  if (Process_ && Running()) Kill();
}

uint32_t TChild::Wait(uint32_t Limit) const {
  const bool ended = WaitUntil([this] { return !Running(); }, Limit);
  EXPECT_TRUE(ended) << "the child still runs";
  DWORD code = 0;
  ::GetExitCodeProcess(Process_.Get(), &code);
  return code;
}

bool TChild::Running() const { return ::WaitForSingleObject(Process_.Get(), 0) == WAIT_TIMEOUT; }

void TChild::Kill() const {
  ::TerminateProcess(Process_.Get(), 99);
  ::WaitForSingleObject(Process_.Get(), INFINITE);
}

std::string Noise(size_t Size) {
  std::mt19937 random(static_cast<uint32_t>(Size));
  std::string bytes(Size, '\0');
  for (char& byte : bytes) byte = static_cast<char>(random());
  return bytes;
}

int64_t TStopwatch::Milliseconds() const {
  const auto passed = std::chrono::steady_clock::now() - Start_;
  return std::chrono::duration_cast<std::chrono::milliseconds>(passed).count();
}

uint32_t HandleCount() {
  DWORD count = 0;
  ::GetProcessHandleCount(::GetCurrentProcess(), &count);
  return count;
}

uint64_t PrivateBytes() {
  PROCESS_MEMORY_COUNTERS counters{};
  counters.cb = sizeof counters;
  ::GetProcessMemoryInfo(::GetCurrentProcess(), &counters, sizeof counters);
  return counters.PagefileUsage;
}

TTemporaryFolder::TTemporaryFolder() {
  char base[MAX_PATH] = "";
  ::GetTempPathA(sizeof base, base);
  Path_ = base + UniqueName("velox-test-") + "\\";
  EXPECT_TRUE(::CreateDirectoryA(Path_.c_str(), nullptr)) << Path_;
}

TTemporaryFolder::~TTemporaryFolder() {
  std::error_code ignored;
  std::filesystem::remove_all(Path_, ignored);
}

int64_t ErrorCodeOf(const std::function<void()>& Action) {
  try {
    Action();
  } catch (const EOSError& e) {
    return e.ErrorCode;
  }
  return -1;
}

std::string ReadFileBytes(const std::string& FileName) {
  std::ifstream file(FileName, std::ios::binary);
  EXPECT_TRUE(file.is_open()) << FileName;
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

void WriteFileBytes(const std::string& FileName, const std::string& Bytes) {
  std::ofstream file(FileName, std::ios::binary);
  file.write(Bytes.data(), static_cast<std::streamsize>(Bytes.size()));
  EXPECT_TRUE(file.good()) << FileName;
}

TLogSince::TLogSince() : Begin_(LogText().size()) {}

std::string TLogSince::Text() const { return LogText().substr(Begin_); }

std::string UniqueName(const std::string& Prefix) {
  static std::atomic<unsigned> counter{0};
  return Format("%s%lu-%llu-%u", Prefix.c_str(), ::GetCurrentProcessId(),
                static_cast<unsigned long long>(::GetTickCount64()), ++counter);
}

}  // namespace velox::test
