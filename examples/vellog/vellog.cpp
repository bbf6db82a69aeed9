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

/// A command line of words none of which holds a quotation mark.
std::string CommandLine(int Count, char** Words) {
  std::string line;
  for (int i = 0; i < Count; ++i) {
    const std::string word = Words[i];
    if (word.find('"') != word.npos) throw Exception("Arguments with \" can't be passed on");
    const bool plain = !word.empty() && word.find_first_of(" \t") == word.npos;
    line += (i > 0 ? " " : "") + (plain ? word : '"' + word + '"');
  }
  return line;
}

}  // namespace

int main(int argc, char** argv) try {
  const bool help = argc == 2 && std::string(argv[1]) == "--help";
  if (argc < 2 || help) {
    std::fputs("usage: vellog PROGRAM ARGUMENT...\n", help ? stdout : stderr);
    return help ? 0 : 1;
  }
  const std::string command = CommandLine(argc - 1, argv + 1);
  Trace("begins: " + command, ttDebug);
  ::SetLastError(0);
  const int32_t code =
      ExecuteProcess(command, "", TProcessOutputEvent::Bind<&OnLine>(), false, nullptr);
  const DWORD error = ::GetLastError();
  if (code == -1 && error != 0) throw Exception("Cannot run it: " + SystemErrorMessage(error));
  Trace(Format("ended with exit code %d", code), ttDebug);
  return code;
} catch (const std::exception& e) {
  TraceException("vellog");
  std::fprintf(stderr, "vellog: %s\n", e.what());
  return 1;
}
