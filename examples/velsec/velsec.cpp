// Shows security descriptors that are stored in the registry or in files, and shows and edits who
// may call and start COM servers. The first is in descriptors.cpp, the second in com_settings.cpp
// and com_changes.cpp.
#include <cstdio>
#include <string>
#include <vector>

#include "com_changes.hpp"
#include "com_settings.hpp"
#include "descriptors.hpp"
#include "examples/support/standard_output.hpp"
#include "velox/runtime/velException.hpp"

namespace {

using namespace velox;
using namespace velsec;

using TArguments = std::vector<std::string>;

constexpr const char* Usage =
    "usage: velsec show KEY VALUE      the security descriptor in a binary value of the registry;\n"
    "                                  KEY begins with HKLM\\, HKCU\\, HKCR\\ or HKU\\\n"
    "       velsec show --file FILE    the self-relative one that a file holds\n"
    "       velsec com APPID [--access | --launch] [CHANGE...]\n"
    "                                  who may call a COM server (access) and start it (launch);\n"
    "                                  without a choice both, also for changes:\n"
    "         add ACCOUNT allow|deny|none [RIGHT...]\n"
    "                                  sets these rights of the account, without RIGHT all;\n"
    "                                  accounts for which nothing is left are dropped. The first\n"
    "                                  change of a setting that lets everyone in for want of a\n"
    "                                  list makes one, with this account alone\n"
    "         default                  drops the server's own setting, also a damaged one, and\n"
    "                                  stands alone\n"
    "       RIGHT: local-access, remote-access; local-launch, local-activation, remote-launch,\n"
    "       remote-activation; on systems that do not split them: permission\n";

void Com(TArguments Words) {
  const TServer server = ParseServer(Words.at(0));
  Words.erase(Words.begin());
  std::vector<bool> kinds = {false, true};  // whether it is launching
  if (!Words.empty() && (Words[0] == "--access" || Words[0] == "--launch")) {
    kinds = {Words[0] == "--launch"};
    Words.erase(Words.begin());
  }
  if (Words == TArguments{"default"}) {
    for (const bool launch : kinds) DropSetting(server, launch);
  } else if (!Words.empty()) {
    ChangeSettings(server, kinds, Words);
  }
  for (const bool launch : kinds) ShowSetting(server, launch);
}

void Run(const TArguments& Arguments) {
  const size_t count = Arguments.size();
  if (count == 3 && Arguments[0] == "show" && Arguments[1] == "--file") {
    ShowFile(Arguments[2]);
  } else if (count == 3 && Arguments[0] == "show") {
    ShowValue(Arguments[1], Arguments[2]);
  } else if (count >= 2 && Arguments[0] == "com") {
    Com({Arguments.begin() + 1, Arguments.end()});
  } else {
    throw Exception("Unknown command or wrong number of words; velsec --help tells what there is");
  }
  example::FinishOutput();
}

}  // namespace

int main(int argc, char** argv) try {
  const TArguments arguments(argv + 1, argv + argc);
  if (arguments == TArguments{"--help"}) return std::fputs(Usage, stdout) < 0;
  Run(arguments);
  return 0;
} catch (const std::exception& e) {
  std::fprintf(stderr, "velsec: %s\n", e.what());
  return 1;
}
