// Shows and writes lists of strings that the registry holds (REG_MULTI_SZ), below
// HKEY_CURRENT_USER:
//
//     vellist show KEY NAME
//     vellist write KEY NAME STRING…
//     vellist delete KEY NAME

#include <cstdio>
#include <string>

#include "examples/support/standard_output.hpp"
#include "velox/runtime/velException.hpp"
#include "velox/system/velRegistry.hpp"

namespace {

using namespace velox;

constexpr const char* Usage =
    "usage: vellist show KEY NAME             the strings of a value, a line each\n"
    "       vellist write KEY NAME STRING...  makes or replaces it, and its key\n"
    "       vellist delete KEY NAME           removes it; a key that is then empty stays\n"
    "KEY counts from HKEY_CURRENT_USER.\n";

void Open(TRegistryEx& Registry, const std::string& Key) {
  if (!Registry.OpenKey(Key, false)) throw Exception("Cannot open the key " + Key);
}

void Run(const TStrings& Words) {
  const std::string command = Words.empty() ? "" : Words[0];
  if (Words.size() < 3 || (command == "write") != (Words.size() > 3))
    throw Exception("Wrong number of words; vellist --help tells what there is");
  const std::string& key = Words[1];
  const std::string& name = Words[2];
  TRegistryEx registry;
  if (command == "show") {
    registry.SetAccess(KEY_READ);
    Open(registry, key);
    TStrings strings;
    registry.ReadStringList(name, strings);
    for (const std::string& string : strings) std::printf("%s\n", string.c_str());
  } else if (command == "write") {
    if (!registry.OpenKey(key, true)) throw Exception("Cannot open or make the key " + key);
    registry.WriteStringList(name, {Words.begin() + 3, Words.end()});
  } else if (command == "delete") {
    Open(registry, key);
    if (!registry.DeleteValue(name)) throw Exception("Cannot delete the value " + name);
  } else {
    throw Exception("No command " + command + "; vellist --help tells what there is");
  }
}

}  // namespace

int main(int argc, char** argv) try {
  const TStrings words(argv + 1, argv + argc);
  if (words == TStrings{"--help"}) return std::fputs(Usage, stdout) < 0;
  Run(words);
  example::FinishOutput();
  return 0;
} catch (const std::exception& e) {
  std::fprintf(stderr, "vellist: %s\n", e.what());
  return 1;
}
