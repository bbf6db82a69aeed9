// Prints the addresses of a list, one a line.
#include <cstdio>
#include <cstring>
#include <string>

#include "examples/support/standard_output.hpp"
#include "velox/channels/velIPIterator.hpp"
#include "velox/runtime/velException.hpp"

namespace {

using namespace velox;

constexpr const char* Usage =
    "usage: veladdr LIST\n"
    "LIST: items separated by commas, each one of\n"
    "  10.0.0.1                   one address\n"
    "  10.0.0.3-10.0.0.9          a range within one network\n"
    "  10.0.0.5;255.255.255.0     the hosts of a network by its mask\n"
    "  192.168.1.*                a network of 254 hosts\n"
    "Network and broadcast addresses, and those already printed, are left out.\n";

void Print(TObject*, const std::string& Address, bool& Stop) {
  Stop = std::printf("%s\n", Address.c_str()) < 0;  // nobody reads any more
}

}  // namespace

int main(int argc, char** argv) try {
  if (argc == 2 && std::strcmp(argv[1], "--help") == 0) return std::fputs(Usage, stdout) < 0;
  if (argc != 2) {
    std::fputs(Usage, stderr);
    return 1;
  }
  TIPAddressIterator addresses;
  addresses.SetAddresses(argv[1]);
  addresses.SetEnumRoutine(TIPAddressEnumRoutine::Bind<&Print>());
  addresses.Enumerate();
  example::FinishOutput();
  return 0;
} catch (const std::exception& e) {
  std::fprintf(stderr, "veladdr: %s\n", e.what());
  return 1;
}
