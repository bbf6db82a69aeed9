// Turns Intel HEX files into plain memory images and back, and lists what is in them.
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "examples/support/standard_output.hpp"
#include "examples/support/whole_file.hpp"
#include "velox/codecs/velIntelHex.hpp"
#include "velox/runtime/velException.hpp"

namespace {

using namespace velox;

constexpr const char* Usage =
    "usage: velhex to-bin IN OUT   Intel HEX to a memory image that starts at address 0, gaps "
    "filled with FF\n"
    "       velhex to-hex IN OUT   a memory image to Intel HEX; bytes of FF at its end are not "
    "kept\n"
    "       velhex info IN         lists the blocks of an Intel HEX file: address, size in bytes\n";

void ToBinary(const std::string& Input, const std::string& Output) {
  TIntelHex image;
  image.LoadFromFile(Input);
  example::WriteWholeFile(Output, image.GetBuffer(), static_cast<int32_t>(image.GetBufferSize()));
}

void ToHex(const std::string& Input, const std::string& Output) {
  TIntelHex image;
  const std::vector<uint8_t> bytes = example::ReadWholeFile(Input);
  image.SetBufferSize(static_cast<uint32_t>(bytes.size()));
  if (!bytes.empty()) std::memcpy(image.GetBuffer(), bytes.data(), bytes.size());
  example::TOutputFile out(Output);
  image.SaveToFile(out.GetTemporary());
  out.Keep();
}

void PrintInfo(const std::string& Input) {
  TIntelHex image;
  image.LoadFromFile(Input);
  unsigned count = 0;
  unsigned total = 0;
  for (auto block = image.FindBlock(0); block; block = image.FindBlock(block->EndAddress + 1)) {
    const unsigned size = block->EndAddress - block->StartAddress + 1;
    std::printf("%08X  %u\n", static_cast<unsigned>(block->StartAddress), size);
    ++count;
    total += size;
  }
  std::printf("%u blocks, %u bytes, image of %u bytes\n", count, total,
              static_cast<unsigned>(image.GetBufferSize()));
}

void Run(const std::vector<std::string>& Arguments) {
  const std::string command = Arguments.empty() ? "" : Arguments[0];
  const std::vector<std::string> files(Arguments.begin() + (Arguments.empty() ? 0 : 1),
                                       Arguments.end());
  if (command == "to-bin" && files.size() == 2) return ToBinary(files[0], files[1]);
  if (command == "to-hex" && files.size() == 2) return ToHex(files[0], files[1]);
  if (command == "info" && files.size() == 1) return PrintInfo(files[0]);
  throw Exception("Unknown command or wrong number of files; velhex --help tells what there is");
}

}  // namespace

int main(int argc, char** argv) try {
  if (argc == 2 && std::strcmp(argv[1], "--help") == 0) {
    std::fputs(Usage, stdout);
  } else {
    Run({argv + 1, argv + argc});
  }
  example::FinishOutput();
  return 0;
} catch (const std::exception& e) {
  std::fprintf(stderr, "velhex: %s\n", e.what());
  return 1;
}
