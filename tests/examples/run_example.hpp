#pragma once

#include <string>
#include <vector>

#include "velox/foundation/velSysUtils.hpp"
#include "velox/runtime/velStrings.hpp"
#include "velox/runtime/velWindows.hpp"

namespace velox::test {

/// How a run of an example ended, and the lines that it wrote to its standard streams.
struct TExampleRun {
  int32_t ExitCode;
  TStrings Lines;
};

/// An example program, which stands beside the test program.
inline std::string ExamplePath(const std::string& Name) {
  char program[MAX_PATH] = "";
  ::GetModuleFileNameA(nullptr, program, sizeof program);
  return std::string(program, std::string(program).rfind('\\') + 1) + Name + ".exe";
}

/// Runs an example program.
inline TExampleRun RunExample(const std::string& Name, const std::vector<std::string>& Arguments) {
  std::string command = "\"" + ExamplePath(Name) + "\"";
  for (const std::string& argument : Arguments) command += " \"" + argument + "\"";
  TExampleRun run;
  auto keep = [&](const std::string& line) { run.Lines.push_back(line); };
  run.ExitCode = ExecuteProcess(command, "", TProcessOutputEvent::To(keep), false, nullptr);
  return run;
}

}  // namespace velox::test
