#pragma once

#include <gtest/gtest.h>

#include <string>

#include "tests/support/support.hpp"
#include "velox/foundation/velSysUtils.hpp"
#include "velox/runtime/velStrings.hpp"
#include "velox/runtime/velWindows.hpp"

namespace velox::test {

/// How a run of an example ended, and the lines that it wrote to its standard streams.
struct TExampleRun {
  int32_t ExitCode;
  TStrings Lines;
};

/// Runs a command line.
inline TExampleRun RunCommand(const std::string& Command) {
  TExampleRun run;
  auto keep = [&](const std::string& line) { run.Lines.push_back(line); };
  run.ExitCode = ExecuteProcess(Command, "", TProcessOutputEvent::To(keep), false, nullptr);
  return run;
}

/// A file beside the test program, where the examples stand.
inline std::string FileOfPrograms(const std::string& Name) {
  char program[MAX_PATH] = "";
  ::GetModuleFileNameA(nullptr, program, sizeof program);
  return std::string(program, std::string(program).rfind('\\') + 1) + Name;
}

/// An example program.
inline std::string ExamplePath(const std::string& Name) { return FileOfPrograms(Name + ".exe"); }

/// Runs an example program.
inline TExampleRun RunExample(const std::string& Name, const TStrings& Arguments) {
  std::string command = "\"" + ExamplePath(Name) + "\"";
  for (const std::string& argument : Arguments) command += " \"" + argument + "\"";
  return RunCommand(command);
}

/// What an example writes that has to end well.
inline TStrings ExampleOutput(const std::string& Name, const TStrings& Arguments) {
  const TExampleRun run = RunExample(Name, Arguments);
  EXPECT_EQ(run.ExitCode, 0) << Name << testing::PrintToString(Arguments)
                             << testing::PrintToString(run.Lines);
  return run.Lines;
}

/// The one line in which an example has to refuse its arguments, without its name in front.
inline std::string ExampleRefusal(const std::string& Name, const TStrings& Arguments) {
  const TExampleRun run = RunExample(Name, Arguments);
  const std::string start = Name + ": ", line = run.Lines.empty() ? "" : run.Lines[0];
  const bool refused =
      run.ExitCode == 1 && run.Lines.size() == 1 && line.compare(0, start.size(), start) == 0;
  EXPECT_TRUE(refused) << Name << testing::PrintToString(Arguments) << " ended with "
                       << run.ExitCode << testing::PrintToString(run.Lines);
  return refused ? line.substr(start.size()) : line;
}

/// A file for a standard stream of an example.
inline THandle OpenStream(const std::string& File, DWORD Access, DWORD Disposition) {
  SECURITY_ATTRIBUTES inheritable{sizeof inheritable, nullptr, TRUE};
  return THandle(::CreateFileA(File.c_str(), Access, FILE_SHARE_READ | FILE_SHARE_WRITE,
                               &inheritable, Disposition, FILE_ATTRIBUTE_NORMAL, nullptr));
}

/// Starts an example that writes to these; gives its process.
inline THandle StartExample(const std::string& Name, const std::string& Arguments,
                            const THandle& Output, const THandle& Errors) {
  STARTUPINFOA startup{};
  startup.cb = sizeof startup;
  startup.dwFlags = STARTF_USESTDHANDLES;
  startup.hStdOutput = Output.Get();
  startup.hStdError = Errors.Get();
  std::string line = "\"" + ExamplePath(Name) + "\" " + Arguments;
  PROCESS_INFORMATION information{};
  EXPECT_TRUE(::CreateProcessA(nullptr, line.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr,
                               &startup, &information))
      << line << ", error " << ::GetLastError();
  THandle(information.hThread).Reset();
  return THandle(information.hProcess);
}

/// The exit code of a process, waiting for its end.
inline DWORD AwaitExitCode(const THandle& Process, uint32_t Limit = 30'000) {
  DWORD code = STILL_ACTIVE;
  EXPECT_TRUE(WaitUntil(
      [&] { return ::GetExitCodeProcess(Process.Get(), &code) && code != STILL_ACTIVE; }, Limit));
  return code;
}

}  // namespace velox::test
