// Encrypts and decrypts files with GOST 28147-89, or computes their authentication code.
#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "examples/support/standard_output.hpp"
#include "examples/support/whole_file.hpp"
#include "parameter_sets.hpp"
#include "substitution_tables.hpp"
#include "velox/codecs/velGostCryptor.hpp"
#include "velox/foundation/velSysUtils.hpp"
#include "velox/runtime/velException.hpp"
#include "velox/runtime/velFormat.hpp"
#include "velox/runtime/velStrings.hpp"

namespace {

using namespace velox;

constexpr const char* Usage =
    "usage: velgost encrypt|decrypt --key HEX --sbox NAME|FILE [--iv HEX] IN OUT\n"
    "       velgost mac --key HEX --sbox NAME|FILE IN\n"
    "\n"
    "  --key   64 hexadecimal digits: the bytes of the words K0 to K7, each word's lowest byte "
    "first\n"
    "  --sbox  a published table (%s), or a file of 8 lines\n"
    "          of 16 hexadecimal digits, line k for nibble k, the lowest nibble first\n"
    "  --iv    16 hexadecimal digits: encrypts with feedback from this start; without it each "
    "block of 8 bytes\n"
    "          is encrypted on its own, and the size must be a multiple of 8\n"
    "\n"
    "mac prints a 32-bit authentication code after the imitation insert as 8 hexadecimal digits. "
    "Other "
    "programs that\n"
    "chain the rounds without exchanging the halves come to other values.\n";

struct TArguments {
  std::string Command;
  std::map<std::string, const char*> Options;  // the values stay where the system has put them
  TStrings Files;
};

[[noreturn]] void WrongUsage(const std::string& Fault) {
  throw Exception(Fault + "; velgost --help tells the usage");
}

TArguments Parse(int Count, char** Values) {
  if (Count < 2) WrongUsage("No command");
  TArguments arguments{Values[1], {}, {}};
  for (int i = 2; i < Count; ++i) {
    const std::string word = Values[i];
    if (word.rfind("--", 0) != 0) {
      arguments.Files.push_back(word);
    } else if (word != "--key" && word != "--sbox" && word != "--iv") {
      WrongUsage("Unknown option " + word);
    } else if (++i == Count) {
      WrongUsage(word + " needs a value");
    } else if (!arguments.Options.emplace(word, Values[i]).second) {
      WrongUsage(word + " is given twice");
    }
  }
  return arguments;
}

const char* Option(const TArguments& Arguments, const char* Name) {
  const auto found = Arguments.Options.find(Name);
  if (found == Arguments.Options.end()) WrongUsage(std::string(Name) + " is missing");
  return found->second;
}

// The text's bytes, in memory order, as the value of Result, with no copy elsewhere.
template <class T>
void ReadHex(const TArguments& Arguments, const char* Name, T& Result) {
  const char* const text = Option(Arguments, Name);
  auto* bytes = reinterpret_cast<uint8_t*>(&Result);
  bool valid = std::strlen(text) == 2 * sizeof Result;
  for (size_t i = 0; valid && i < 2 * sizeof Result; ++i) {
    uint8_t digit = 0;
    valid = TryDigitToByte(text[i], digit);
    bytes[i / 2] = static_cast<uint8_t>(bytes[i / 2] << 4 | digit);
  }
  if (!valid) {
    throw Exception(
        Format("%s must be %u hexadecimal digits", Name, static_cast<unsigned>(2 * sizeof Result)));
  }
}

void SetTable(const TArguments& Arguments, TGostCryptor& Cryptor) {
  TGostSubstitutionTable table;
  const substitution_tables::TWiper wiper(&table, sizeof table);
  substitution_tables::Read(Option(Arguments, "--sbox"), table);
  Cryptor.SetSubstitutionTable(table);
}

void Crypt(const TArguments& Arguments, const TGostCryptor& Cryptor, bool Encrypt) {
  if (Arguments.Files.size() != 2)
    WrongUsage(Arguments.Command + " needs an input and an output file");
  const bool feedback = Arguments.Options.count("--iv") > 0;
  TGostCryptedBlock iv;
  if (feedback) ReadHex(Arguments, "--iv", iv);
  std::vector<uint8_t> data = example::ReadWholeFile(Arguments.Files[0]);
  const auto size = static_cast<int32_t>(data.size());
  if (feedback) {
    Cryptor.CryptInCipherFeedbackMode(data.data(), size, iv, Encrypt);
  } else if (size % 8 != 0) {
    throw Exception(Format("%s has %d bytes: without --iv the size must be a multiple of 8",
                           Arguments.Files[0].c_str(), static_cast<int>(size)));
  } else {
    Cryptor.Crypt(data.data(), size, Encrypt);
  }
  example::WriteWholeFile(Arguments.Files[1], data.data(), size);
}

void PrintMAC(const TArguments& Arguments, const TGostCryptor& Cryptor) {
  if (Arguments.Files.size() != 1) WrongUsage("mac needs one input file");
  if (Arguments.Options.count("--iv") > 0) WrongUsage("mac takes no --iv");
  const std::vector<uint8_t> data = example::ReadWholeFile(Arguments.Files[0]);
  std::printf("%08X\n", static_cast<unsigned>(
                            Cryptor.CalculateMAC(data.data(), static_cast<int32_t>(data.size()))));
}

void Run(const TArguments& Arguments) {
  const std::string& command = Arguments.Command;
  if (command != "encrypt" && command != "decrypt" && command != "mac") {
    WrongUsage("Unknown command " + command);
  }
  TGostCryptor cryptor;
  ReadHex(Arguments, "--key", cryptor.Key);
  SetTable(Arguments, cryptor);
  if (command == "mac") {
    PrintMAC(Arguments, cryptor);
  } else {
    Crypt(Arguments, cryptor, command == "encrypt");
  }
}

void PrintUsage() {
  std::string names;
  for (const auto& set : parameter_sets::All)
    names += (names.empty() ? "" : ", ") + std::string(set.Name);
  std::printf(Usage, names.c_str());
}

}  // namespace

int main(int argc, char** argv) try {
  if (argc == 2 && std::strcmp(argv[1], "--help") == 0) {
    PrintUsage();
  } else {
    Run(Parse(argc, argv));
  }
  example::FinishOutput();
  return 0;
} catch (const std::exception& e) {
  std::fprintf(stderr, "velgost: %s\n", e.what());
  return 1;
}
