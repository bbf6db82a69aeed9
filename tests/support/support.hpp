#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/message_of.hpp"
#include "velox/runtime/velHandle.hpp"

/// What the cases share: waiting for a state, children that play a part, counts of what the process
/// holds.
namespace velox::test {

/// Waits until Condition holds, alertably (so APCs queued to the calling thread run meanwhile).
/// False after Limit milliseconds; the limit is for broken code, not for slow machines, so leave it
/// generous.
bool WaitUntil(const std::function<bool()>& Condition, uint32_t Limit = 30'000);

/// Part of a case that runs in a process of its own: the program starts itself with --role=NAME.
///
///     const TRole CrashRole("crash", [](const std::vector<std::string>& Arguments) { return 3; });
using TRoleBody = std::function<int(const std::vector<std::string>&)>;
struct TRole {
  TRole(const char* Name, TRoleBody Body);
};
int RunRole(const std::string& Name, const std::vector<std::string>& Arguments);

/// A started child.
class TChild {
 public:
  /// Runs a command line; the environment and current folder are this process's, and so are the
  /// standard streams unless others are given.
  explicit TChild(const std::string& CommandLine, const THandle& Output = {},
                  const THandle& Errors = {});
  /// Ends the child when it still runs.
  ~TChild();
  TChild(TChild&&) = default;

  /// The exit code, waiting for it; fails the case when the child is not done within Limit
  /// milliseconds.
  uint32_t Wait(uint32_t Limit = 60'000) const;
  bool Running() const;
  void Kill() const;
  HANDLE Process() const { return Process_.Get(); }

 private:
  THandle Process_;
};

/// The command line that runs a role in a child.
std::string RoleCommand(const std::string& Name, const std::vector<std::string>& Arguments = {});

/// Runs Body on so many threads at once, each with its number, and waits for all.
template <class TBody>
void RunThreads(int Count, const TBody& Body) {
  std::vector<std::jthread> threads;
  for (int i = 0; i < Count; ++i) threads.emplace_back([&Body, i] { Body(i); });
}

/// Bytes that look like noise; the same for the same size.
std::string Noise(size_t Size);

/// Tells the time that has passed since it was made.
class TStopwatch {
 public:
  int64_t Milliseconds() const;

 private:
  const std::chrono::steady_clock::time_point Start_ = std::chrono::steady_clock::now();
};

/// Handles that this process holds now.
uint32_t HandleCount();
/// Bytes of memory that this process has committed privately.
uint64_t PrivateBytes();

/// A folder that did not exist before and is removed with all that is in it.
class TTemporaryFolder {
 public:
  TTemporaryFolder();
  ~TTemporaryFolder();
  TTemporaryFolder(const TTemporaryFolder&) = delete;
  TTemporaryFolder& operator=(const TTemporaryFolder&) = delete;
  /// Its path, ending in a backslash.
  const std::string& Path() const { return Path_; }
  std::string File(const std::string& Name) const { return Path_ + Name; }

 private:
  std::string Path_;
};

/// The code of the system's error that an action raises; -1 when it raises none.
int64_t ErrorCodeOf(const std::function<void()>& Action);

/// Whole files.
std::string ReadFileBytes(const std::string& FileName);
void WriteFileBytes(const std::string& FileName, const std::string& Bytes);

/// What is written to this process's trace log from when the object is made.
class TLogSince {
 public:
  TLogSince();
  std::string Text() const;
  bool Holds(const std::string& Part) const { return Text().find(Part) != std::string::npos; }

 private:
  const size_t Begin_;
};

/// A name for a kernel object that no other run uses.
std::string UniqueName(const std::string& Prefix);

}  // namespace velox::test
