// Prints checksums, CRCs and MD5 digests of files.
//
//     velhash [--crc8 --crc16 --crc16-ccitt --crc16-xmodem --crc32 --crc64 --sum8 --sum16 --sum32
//              --adler32 --fletcher --md5] FILE…
//
// One line for each value, in the order of the options, file by file: the option's name, the value,
// the file. Without an option: crc32 and md5. The file "-" is standard input. Exit code 1 when a
// value could not be computed (the others still are) or the command line is wrong. How each value
// is computed is in sums.cpp.

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "examples/support/standard_output.hpp"
#include "sums.hpp"
#include "velox/runtime/velException.hpp"
#include "velox/runtime/velFileStream.hpp"
#include "velox/runtime/velFormat.hpp"
#include "velox/runtime/velWindows.hpp"

using namespace velox;
using namespace velhash;

namespace {

/// The bytes of a file or of standard input.
class TInput {
 public:
  explicit TInput(const std::string& Name) {
    if (Name != "-") File_ = std::make_unique<TFileStream>(Name, TFileMode::fmOpenRead);
  }

  /// Fills the block; fewer bytes only at the end. Whole blocks keep words of 16 bits together.
  int32_t ReadBlock(std::vector<uint8_t>& Block) {
    int32_t size = 0;
    while (size < static_cast<int32_t>(Block.size())) {
      const int32_t count = Read(Block.data() + size, static_cast<int32_t>(Block.size()) - size);
      if (count <= 0) break;
      size += count;
    }
    return size;
  }

 private:
  int32_t Read(void* Buffer, int32_t Count) {
    if (File_) return File_->Read(Buffer, Count);
    DWORD done = 0;
    if (::ReadFile(::GetStdHandle(STD_INPUT_HANDLE), Buffer, static_cast<DWORD>(Count), &done,
                   nullptr)) {
      return static_cast<int32_t>(done);
    }
    const DWORD error = ::GetLastError();
    if (error == ERROR_BROKEN_PIPE || error == ERROR_HANDLE_EOF) return 0;  // the writer is done
    throw EReadError(Format("Cannot read standard input, error %lu", error));
  }

  std::unique_ptr<TFileStream> File_;
};

void Complain(const std::string& File, const char* Text) {
  std::fprintf(stderr, "velhash: %s: %s\n", File.c_str(), Text);
}

/// A value being computed for a file, and why that could not go on; the other values do.
struct TRunning {
  const TAlgorithm* Algorithm;
  TSum Sum;
  std::string Failure;

  template <class TStep>
  void Do(const TStep& Step) {
    if (!Failure.empty()) return;
    try {
      Step();
    } catch (const std::exception& e) {
      Failure = e.what();
    }
  }
};

bool PrintSum(const std::string& File, TRunning& Running) {
  const char* name = Running.Algorithm->Name.c_str();
  std::string text;
  Running.Do([&] { text = Running.Sum.Text(); });
  if (!Running.Failure.empty()) {
    Complain(File, Format("no %s value: %s", name, Running.Failure.c_str()).c_str());
    return false;
  }
  std::printf("%s  %s  %s\n", name, text.c_str(), File.c_str());
  return true;
}

/// Prints the values of one file. False, with a message, when one of them could not be computed.
bool PrintSums(const std::string& File, const std::vector<const TAlgorithm*>& Chosen) {
  try {
    TInput input(File);
    std::vector<TRunning> sums;
    sums.reserve(Chosen.size());
    for (const TAlgorithm* algorithm : Chosen) {
      TRunning& running = sums.emplace_back(TRunning{algorithm, {}, {}});
      running.Do([&] { running.Sum = algorithm->Start(); });
    }

    std::vector<uint8_t> block(256 * 1024);
    while (const int32_t size = input.ReadBlock(block)) {
      for (TRunning& running : sums) {
        running.Do([&] { running.Sum.Update(block.data(), size); });
      }
    }

    bool complete = true;
    for (TRunning& running : sums) complete = PrintSum(File, running) && complete;
    return complete;
  } catch (const std::exception& e) {
    Complain(File, e.what());
    return false;
  }
}

void PrintUsage() {
  std::string names;
  for (const TAlgorithm& algorithm : Algorithms) names += " [--" + algorithm.Name + "]";
  std::printf("usage: velhash%s FILE...\nthe file \"-\" is standard input\n", names.c_str());
}

[[noreturn]] void WrongUsage(const std::string& Fault) {
  throw Exception(Fault + "; velhash --help tells the usage");
}

/// False, with messages, when a value could not be computed.
bool Run(const std::vector<std::string>& Arguments) {
  std::vector<const TAlgorithm*> chosen;
  std::vector<std::string> files;
  for (const std::string& argument : Arguments) {
    if (!argument.starts_with("--")) {
      files.push_back(argument);
      continue;
    }
    const TAlgorithm* algorithm = FindAlgorithm(argument.substr(2));
    if (algorithm == nullptr) WrongUsage("no option " + argument);
    chosen.push_back(algorithm);
  }
  if (files.empty()) WrongUsage("no file given");
  if (chosen.empty()) chosen = {FindAlgorithm("crc32"), FindAlgorithm("md5")};

  bool complete = true;
  for (const std::string& file : files) complete = PrintSums(file, chosen) && complete;
  return complete;
}

}  // namespace

int main(int argc, char** argv) try {
  const std::vector<std::string> arguments(argv + 1, argv + argc);
  bool complete = true;
  if (arguments == std::vector<std::string>{"--help"}) {
    PrintUsage();
  } else {
    complete = Run(arguments);
  }
  example::FinishOutput();
  return complete ? 0 : 1;
} catch (const std::exception& e) {
  std::fprintf(stderr, "velhash: %s\n", e.what());
  return 1;
}
