// Copies a file from one program to another over a channel of the library.
//
//     velcopy receive shm:demo copy.bin      in one window, then
//     velcopy send    shm:demo original.bin  in another
//
// Here is the command line; send.cpp and receive.cpp are the two sides. What they use stands
// beside: endpoints.cpp and socket_endpoints.cpp open the channel that an address names,
// channel_link.cpp and datagram_link.cpp carry bytes over it by transfer operations, messages.cpp
// turns bytes into messages, progress.hpp shows how far it is.
//
// Both sides exchange messages: a header of 24 bytes, for some kinds followed by bytes. A channel
// may overwrite or drop what was not read in time. So nothing is sent that does not fit behind what
// the other side has not confirmed: the receiver tells the capacity and confirms every block, and
// the sender keeps count. The confirmations have to fit as well, so their number has a limit too.

#include <algorithm>
#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

#include "endpoints.hpp"
#include "sides.hpp"
#include "velox/foundation/velTrace.hpp"
#include "velox/runtime/velFormat.hpp"

using namespace velox;
using namespace velcopy;

namespace {

constexpr const char* Usage =
    "velcopy receive ADDRESS FILE [--size BYTES]\n"
    "velcopy send ADDRESS FILE [--block BYTES]\n"
    "\n"
    "ADDRESS      receive    send\n"
    "  memory     shm:NAME   shm:NAME        shared memory on this machine\n"
    "  TCP        tcp:PORT   tcp:HOST:PORT\n"
    "  UDP        udp:PORT   udp:HOST:PORT\n"
    "  serial     com:N[,BAUD]                 the line at COMN, 115200 baud by default\n"
    "\n"
    "Start the receiver first.\n"
    "\n"
    "--size      how much may be on the way; for shm, the shared memory for each direction\n"
    "            (default 4194304, for udp 262144, for com 32768)\n"
    "--block     what is sent at once (default 65536, or a quarter of the size)\n"
    "--progress  bar, lines or none (default: a bar on a console, else lines)\n";

TShow ParseShow(std::string_view Text) {
  if (Text == "bar") return TShow::Bar;
  if (Text == "lines") return TShow::Lines;
  if (Text == "none") return TShow::None;
  RefuseArguments("--progress must be bar, lines or none");
}

TArguments Parse(const std::vector<std::string>& Words) {
  TArguments arguments;
  std::vector<std::string> plain;
  for (size_t i = 0; i < Words.size(); ++i) {
    const std::string& word = Words[i];
    if (word.substr(0, 2) != "--") {
      plain.push_back(word);
      continue;
    }
    if (word != "--size" && word != "--block" && word != "--progress")
      RefuseArguments("unknown option " + word);
    if (++i == Words.size()) RefuseArguments(word + " needs a value");
    if (word == "--size")
      arguments.Size = ParseNumber(word, Words[i], SmallestCapacity, LargestCapacity);
    if (word == "--block") arguments.Block = ParseNumber(word, Words[i], 1, INT32_MAX);
    if (word == "--progress") arguments.Show = ParseShow(Words[i]);
  }
  if (plain.empty()) RefuseArguments("neither send nor receive is given");
  if (plain[0] != "send" && plain[0] != "receive")
    RefuseArguments("\"" + plain[0] + "\" is neither send nor receive");
  if (plain.size() < 3) RefuseArguments(plain[0] + " needs an address and a file");
  if (plain.size() > 3) RefuseArguments("\"" + plain[3] + "\" is one argument too many");
  arguments.Receiving = plain[0] == "receive";
  if (arguments.Receiving && arguments.Block) RefuseArguments("--block is for send");
  if (!arguments.Receiving && arguments.Size) RefuseArguments("--size is for receive");
  arguments.Address = plain[1];
  arguments.File = plain[2];
  return arguments;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    const std::vector<std::string> words(argv + 1, argv + argc);
    if (std::find(words.begin(), words.end(), "--help") != words.end()) {
      std::fputs(Usage, stdout);
      return 0;
    }
    const TArguments arguments = Parse(words);
    Trace(Format("velcopy %s %s %s", argv[1], arguments.Address.c_str(), arguments.File.c_str()),
          TTraceType::ttDebug);
    arguments.Receiving ? Receive(arguments) : Send(arguments);
    return 0;
  } catch (const std::exception& e) {
    TraceException("velcopy");
    std::fflush(stdout);
    std::fprintf(stderr, "velcopy: %s\n", e.what());
    return 1;
  }
}
