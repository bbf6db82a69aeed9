// Runs a program and keeps what it prints in the trace log, vellog.log beside this program, with
// the time of each line:
//
//     vellog PROGRAM ARGUMENT…
//
// The lines go to the standard output as well. Ends with the program's exit code.

#include <cstdio>
#include <string>

#include "velox/foundation/velSysUtils.hpp"
#include "velox/foundation/velTrace.hpp"
#include "velox/runtime/velFormat.hpp"
#include "velox/runtime/velSystemMessage.hpp"

namespace {

using namespace velox;

void OnLine(const std::string& Line) {
  Trace(Line, ttDebug);
  std::printf("%s\n", Line.c_str());
  std::fflush(stdout);
}

/// What follows this program's own name in its command line, as it was written: the words alone
/// don't tell how they were quoted.
std::string CommandLine() {
  const std::string line = ::GetCommandLineA();
  const size_t end = line[0] == '"' ? line.find('"', 1) + 1 : line.find_first_of(" \t");
  return line.substr(line.find_first_not_of(" \t", end));
}

}  // namespace

int main(int argc, char** argv) try {
  const bool help = argc == 2 && std::string(argv[1]) == "--help";
  if (argc < 2 || help) {
    std::fputs("usage: vellog PROGRAM ARGUMENT...\n", help ? stdout : stderr);
    return help ? 0 : 1;
  }
  const std::string command = CommandLine();
  Trace("begins: " + command, ttDebug);
  const int32_t code =
      ExecuteProcess(command, "", TProcessOutputEvent::Bind<&OnLine>(), false, nullptr);
  if (const DWORD error = ::GetLastError(); error != 0)
    throw Exception("Cannot run it: " + SystemErrorMessage(error));
  Trace(Format("ended with exit code %d", code), ttDebug);
  return code;
} catch (const std::exception& e) {
  TraceException("vellog");
  std::fprintf(stderr, "vellog: %s\n", e.what());
  return 1;
}
