#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "tests/examples/run_example.hpp"
#include "tests/support/support.hpp"

namespace velox {
namespace {

const std::string Key = "ccddeeff8899aabb4455667700112233f3f2f1f0f7f6f5f4fbfaf9f8fffefdfc";

// The block of GOST R 34.12-2015, appendix A, in memory order.
const std::string Plain = "\x10\x32\x54\x76\x98\xba\xdc\xfe";
const std::string Crypted = "\x3d\xca\xd8\xc2\xe5\x01\xe9\x4e";

TStrings Velgost(const std::string& Command, const TStrings& Rest,
                 const std::string& Table = "tc26-z") {
  TStrings arguments{Command, "--key", Key, "--sbox", Table};
  arguments.insert(arguments.end(), Rest.begin(), Rest.end());
  return test::ExampleOutput("velgost", arguments);
}

TEST(VelGost, EncryptsAndDecryptsFiles) {
  const test::TTemporaryFolder folder;
  const std::string in = folder.File("in"), out = folder.File("out"), back = folder.File("back");
  const std::string table = folder.File("table");
  test::WriteFileBytes(in, Plain);
  test::WriteFileBytes(
      table,
      "c462a5b9e8d703f1\r\n68239a5c1e47bd0f\r\nb3582fade174c960\r\nc821d4f670a53e9b\r\n"
      "7f5a816d093eb42c\r\n5df692cab78143e0\r\n8e25691cf4b0da37\r\n17ed05834fa69cb2\r\n");
  for (const std::string& sbox : {std::string("TC26-Z"), table}) {
    Velgost("encrypt", {in, out}, sbox);
    EXPECT_EQ(test::ReadFileBytes(out), Crypted) << sbox;
  }
  Velgost("decrypt", {out, back});
  EXPECT_EQ(test::ReadFileBytes(back), Plain);
  // The feedback's first gamma is the encrypted start, and any size will do.
  for (const size_t size : {5, 0}) {
    const std::string text(size, '\0');
    test::WriteFileBytes(in, text);
    for (const std::string command : {"encrypt", "decrypt"}) {
      Velgost(command, {"--iv", "1032547698badcfe", in, in});
      EXPECT_EQ(test::ReadFileBytes(in), command == "encrypt" ? Crypted.substr(0, size) : text);
    }
  }
  // By the same Python program as the value in the cipher's own tests.
  for (const auto& [text, code] : {std::pair("123456789", "2C6D1DD9"), std::pair("", "00000000")}) {
    test::WriteFileBytes(in, text);
    EXPECT_EQ(Velgost("mac", {in}), TStrings{code});
  }
}

TEST(VelGost, RefusesInOneLineAndLeavesNoFile) {
  const test::TTemporaryFolder folder;
  const std::string in = folder.File("in"), out = folder.File("out"), table = folder.File("table"),
                    words = folder.File("words");
  test::WriteFileBytes(in, "123456789");
  test::WriteFileBytes(table, "0123456789abcdef\n");
  std::string line = "0123456789abcdef";
  for (int i = 1; i < 8; ++i) line += " 0123456789abcdef";
  test::WriteFileBytes(words, line);
  const TStrings cases[] = {
      {"encrypt", "--key", Key, "--sbox", "tc26-z", in, out},                 // 9 bytes
      {"encrypt", "--key", Key, "--sbox", "tc26-z", in},                      // no output
      {"encrypt", "--key", Key + "0", "--sbox", "tc26-z", in, out},           // key too long
      {"encrypt", "--key", std::string(64, 'x'), "--sbox", "test", in, out},  // no digit
      {"encrypt", "--sbox", "tc26-z", in, out},                               // no key
      {"encrypt", "--key", Key, "--iv", "12", "--sbox", "tc26-z", in, out},   // short start
      {"encrypt", "--key", Key, "--sbox", "no-such-table", in, out},          // neither
      {"encrypt", "--key", Key, "--sbox", table, in, out},                    // one line
      {"mac", "--key", Key, "--sbox", words, in},                             // one line, 8 words
      {"decrypt", "--key", Key, "--sbox", "tc26-z", folder.File("none"), out},
      {"mac", "--key", Key, "--sbox", "tc26-z", in, out},
      {"sign", "--key", Key, "--sbox", "tc26-z", in, out},
      {"encrypt", "--unknown", in, out},
      {"encrypt", in, out, "--key"},
  };
  for (const TStrings& arguments : cases) {
    const std::string said = test::ExampleRefusal("velgost", arguments);
    EXPECT_FALSE(std::filesystem::exists(out)) << said;
  }
}

}  // namespace
}  // namespace velox
