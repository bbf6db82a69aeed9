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
inline TExampleRun RunCommand(const std::string& Command, bool ReportCarriageReturnLines = false,
                              const std::string& Folder = {}) {
  TExampleRun run;
  auto keep = [&](const std::string& line) { run.Lines.push_back(line); };
  run.ExitCode = ExecuteProcess(Command, Folder, TProcessOutputEvent::To(keep),
                                ReportCarriageReturnLines, nullptr);
  return run;
}

/// A file beside the test program, where the examples stand.
inline std::string FileOfPrograms(const std::string& Name) {
  return ExtractFolder(GetProgramFileName()) + Name;
}

/// The beginning of the command line of an example.
inline std::string ExampleCommand(const std::string& Name) {
  return "\"" + FileOfPrograms(Name + ".exe") + "\" ";
}

/// Runs an example program.
inline TExampleRun RunExample(const std::string& Name, const TStrings& Arguments) {
  std::string command = ExampleCommand(Name);
  for (const std::string& argument : Arguments) command += "\"" + argument + "\" ";
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

}  // namespace velox::test
