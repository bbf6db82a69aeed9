// Encrypts and decrypts files with GOST 28147-89, or computes their authentication code.
#include <cctype>
#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "examples/support/whole_file.hpp"
#include "examples/velgost/parameter_sets.hpp"
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
  std::map<std::string, std::string> Options;
  TStrings Files;
};

[[noreturn]] void WrongUsage(const std::string& Fault) {
  throw Exception(Fault + "; velgost --help tells the usage");
}

TArguments Parse(int Count, char** Values) {
  if (Count < 2) WrongUsage("No command");
  TArguments arguments{Values[1], {}, {}};
  for (int i = 2; i < Count; ++i) {
    const std::string value = Values[i];
    if (value.rfind("--", 0) != 0) {
      arguments.Files.push_back(value);
    } else if (value != "--key" && value != "--sbox" && value != "--iv") {
      WrongUsage("Unknown option " + value);
    } else if (++i == Count) {
      WrongUsage(value + " needs a value");
    } else if (!arguments.Options.emplace(value, Values[i]).second) {
      WrongUsage(value + " is given twice");
    }
  }
  return arguments;
}

// The text's bytes, in memory order, as the value of Result.
template <class T>
void ReadHex(const TArguments& Arguments, const char* Option, T& Result) {
  const auto found = Arguments.Options.find(Option);
  if (found == Arguments.Options.end()) WrongUsage(std::string(Option) + " is missing");
  const std::string& text = found->second;
  uint8_t bytes[sizeof Result] = {};
  bool valid = text.size() == 2 * sizeof Result;
  for (size_t i = 0; valid && i < text.size(); ++i) {
    uint8_t digit = 0;
    valid = TryDigitToByte(text[i], digit);
    bytes[i / 2] = static_cast<uint8_t>(bytes[i / 2] << 4 | digit);
  }
  if (!valid) {
    throw Exception(Format("%s must be %u hexadecimal digits", Option,
                           static_cast<unsigned>(2 * sizeof Result)));
  }
  std::memcpy(&Result, bytes, sizeof bytes);
}

std::string LowerCase(std::string Text) {
  for (char& c : Text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return Text;
}

TStrings SplitWords(const std::vector<uint8_t>& Text) {
  TStrings words;
  bool inside = false;
  for (const uint8_t c : Text) {
    if (std::isspace(c)) {
      inside = false;
      continue;
    }
    if (!inside) words.emplace_back();
    words.back() += static_cast<char>(c);
    inside = true;
  }
  return words;
}

TGostSubstitutionTable ReadTable(const TArguments& Arguments) {
  const auto found = Arguments.Options.find("--sbox");
  if (found == Arguments.Options.end()) WrongUsage("--sbox is missing");
  TGostSubstitutionTable table;
  for (const auto& set : parameter_sets::All) {
    if (LowerCase(found->second) == set.Name && parameter_sets::ReadTable(set.Lines, table))
      return table;
  }
  const TStrings lines = SplitWords(example::ReadWholeFile(found->second));
  bool valid = lines.size() == table.size();
  for (const std::string& line : lines) valid = valid && line.size() == table[0].size();
  if (!valid || !parameter_sets::ReadTable(lines, table)) {
    throw Exception(found->second +
                    ": a table is 8 lines, each with the 16 hexadecimal digits in some order");
  }
  return table;
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
  cryptor.SetSubstitutionTable(ReadTable(Arguments));
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

int main(int argc, char** argv) {
  if (argc == 2 && std::strcmp(argv[1], "--help") == 0) {
    PrintUsage();
    return 0;
  }
  try {
    Run(Parse(argc, argv));
    return 0;
  } catch (const std::exception& e) {
    std::fprintf(stderr, "velgost: %s\n", e.what());
    return 1;
  }
}
