// Serves the files of a folder over HTTP/1.1.
//
//     velserve 8080 C:\site
//
// Here is the command line; file_server.cpp is the server, a TTCPServer. It reads requests, in
// whatever pieces they come (requests.cpp), finds the file (paths.cpp), and answers one after the
// other.

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <string>
#include <vector>

#include "file_server.hpp"
#include "velox/foundation/velSyncUtils.hpp"
#include "velox/foundation/velSysUtils.hpp"
#include "velox/foundation/velTrace.hpp"
#include "velox/runtime/velException.hpp"
#include "velox/runtime/velFormat.hpp"
#include "velox/runtime/velSystemMessage.hpp"

using namespace velox;
using namespace velserve;

namespace {

constexpr double SecondsADay = 86400;

constexpr const char* Usage =
    "velserve PORT FOLDER [--idle SECONDS]\n"
    "\n"
    "Serves the files of FOLDER over HTTP until Ctrl+C. PORT 0 takes any free port, which is "
    "told.\n"
    "A client that is silent for SECONDS (default 30) is disconnected.\n";

[[noreturn]] void Refuse(const std::string& What) {
  throw Exception(What + "; see velserve --help");
}

int ParseNumber(const std::string& What, const std::string& Text, int Least, int Most) {
  int value = 0;
  const char* const end = Text.data() + Text.size();
  const auto [stop, error] = std::from_chars(Text.data(), end, value);
  if (error == std::errc() && stop == end && value >= Least && value <= Most) return value;
  Refuse(Format("%s must be a number from %d to %d, not \"%s\"", What.c_str(), Least, Most,
                Text.c_str()));
}

HANDLE StopRequest() {
  static const HANDLE event = ::CreateEventA(nullptr, TRUE, FALSE, nullptr);
  return event;
}

BOOL WINAPI OnConsoleControl(DWORD) {
  ::SetEvent(StopRequest());
  return TRUE;
}

void Serve(const std::vector<std::string>& Words) {
  std::vector<std::string> plain;
  int idle = 30;
  for (size_t i = 0; i < Words.size(); ++i) {
    if (Words[i].substr(0, 2) != "--") {
      plain.push_back(Words[i]);
    } else if (Words[i] != "--idle") {
      Refuse("unknown option " + Words[i]);
    } else if (++i == Words.size()) {
      Refuse("--idle needs a value");
    } else {
      idle = ParseNumber("--idle", Words[i], 1, 86400);
    }
  }
  if (plain.size() != 2) Refuse("a port and a folder are needed");
  const int port = ParseNumber("the port", plain[0], 0, 65535);
  const DWORD attributes = ::GetFileAttributesA(plain[1].c_str());
  if (attributes == INVALID_FILE_ATTRIBUTES || (attributes & FILE_ATTRIBUTE_DIRECTORY) == 0)
    throw Exception("there is no folder " + plain[1]);
  TFileServer server(static_cast<uint16_t>(port), plain[1]);
  server.SetIdleTimeout(idle / SecondsADay);
  try {
    server.Start();
  } catch (const EOSError& e) {
    throw Exception(Format("cannot listen on port %d: ", port) + SystemErrorMessage(e.ErrorCode));
  }
  SOCKADDR_IN address{};
  int length = sizeof address;
  ::getsockname(server.GetSocket(), reinterpret_cast<SOCKADDR*>(&address), &length);
  ::SetConsoleCtrlHandler(&OnConsoleControl, TRUE);
  std::printf("serving %s on http://localhost:%u/\n", plain[1].c_str(), ntohs(address.sin_port));
  std::fflush(stdout);
  WaitForSingleObjectAlertable(StopRequest(), "velserve");
  std::printf("stopped\n");
}

}  // namespace

int main(int argc, char** argv) {
  try {
    const std::vector<std::string> words(argv + 1, argv + argc);
    if (std::find(words.begin(), words.end(), "--help") != words.end()) {
      std::fputs(Usage, stdout);
      return 0;
    }
    Serve(words);
    return 0;
  } catch (const std::exception& e) {
    TraceException("velserve");
    std::fprintf(stderr, "velserve: %s\n", e.what());
    return 1;
  }
}
