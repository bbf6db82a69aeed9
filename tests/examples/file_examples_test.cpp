#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <utility>

#include "tests/examples/run_example.hpp"
#include "tests/support/support.hpp"
#include "velox/codecs/velZLib.hpp"

namespace velox {
namespace {

// The values are those of the CRC catalogue's check column, Python's zlib and hashlib, and Python's
// integers for the sums.

TEST(VelHash, PrintsTheValuesInTheOrderOfTheOptionsFileByFile) {
  const test::TTemporaryFolder folder;
  const std::string digits = folder.File("digits"), four = folder.File("four");
  test::WriteFileBytes(digits, "123456789");
  test::WriteFileBytes(four, "\x01\x02\x03\x04");
  const TStrings all = test::ExampleOutput(
      "velhash", {"--crc8", "--crc16", "--crc16-ccitt", "--crc16-xmodem", "--crc32", "--crc64",
                  "--sum8", "--sum16", "--sum32", "--adler32", "--md5", digits});
  EXPECT_EQ(all, (TStrings{"crc8  a1  " + digits, "crc16  bb3d  " + digits,
                           "crc16-ccitt  29b1  " + digits, "crc16-xmodem  0c73  " + digits,
                           "crc32  cbf43926  " + digits, "crc64  62ec59e3f1a4f00a  " + digits,
                           "sum8  23  " + digits, "sum16  fe23  " + digits,
                           "sum32  fffffe23  " + digits, "adler32  091e01de  " + digits,
                           "md5  25f9e794323b453885f5181f1b624d0b  " + digits}));
  EXPECT_EQ(test::ExampleOutput("velhash", {"--sum8", four, "--crc8", digits}),
            (TStrings{"sum8  f6  " + four, "crc8  f4  " + four, "sum8  23  " + digits,
                      "crc8  a1  " + digits}));
  EXPECT_EQ(
      test::ExampleOutput("velhash", {digits}),
      (TStrings{"crc32  cbf43926  " + digits, "md5  25f9e794323b453885f5181f1b624d0b  " + digits}));
}

TEST(VelHash, ReadsFilesOfSeveralBlocks) {
  const test::TTemporaryFolder folder;
  const std::string file = folder.File("long");
  std::string bytes(300'000, '\0');
  for (uint64_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<char>((i * i + 7 * i) >> 3);
  test::WriteFileBytes(file, bytes);
  const TStrings lines = test::ExampleOutput(
      "velhash", {"--crc32", "--adler32", "--fletcher", "--sum32", "--md5", file});
  EXPECT_EQ(lines, (TStrings{"crc32  8ddaea90  " + file, "adler32  29afc2ee  " + file,
                             "fletcher  cb4db0fe  " + file, "sum32  fdb85f3c  " + file,
                             "md5  a471a14b3efe744bc4b7c5ee0a003f4c  " + file}));
}

TEST(VelHash, ReadsStandardInput) {
  const test::TTemporaryFolder folder;
  const std::string file = folder.File("in");
  test::WriteFileBytes(file, "123456789");
  const auto run = test::RunCommand("cmd.exe /c \"" + test::ExampleCommand("velhash") +
                                    "--crc32 - < \"" + file + "\"\"");
  EXPECT_EQ(run.ExitCode, 0);
  EXPECT_EQ(run.Lines, TStrings{"crc32  cbf43926  -"});
}

TEST(VelHash, AFailureKeepsNothingElseFromBeingPrinted) {
  const test::TTemporaryFolder folder;
  const std::string digits = folder.File("digits"), missing = folder.File("missing");
  test::WriteFileBytes(digits, "123456789");
  const auto run = test::RunExample("velhash", {"--fletcher", "--crc8", missing, digits});
  EXPECT_EQ(run.ExitCode, 1);
  EXPECT_EQ(run.Lines.size(), 3u);
  for (const std::string& start : {"crc8  a1  " + digits, "velhash: " + missing + ": ",
                                   "velhash: " + digits + ": no fletcher value: "}) {
    EXPECT_EQ(std::count_if(run.Lines.begin(), run.Lines.end(),
                            [&](const std::string& line) { return line.starts_with(start); }),
              1)
        << start;
  }
}

TEST(VelHash, ExplainsItsUse) {
  const TStrings help = test::ExampleOutput("velhash", {"--help"});
  EXPECT_TRUE(help.at(0).starts_with("usage: velhash "));
  for (const TStrings& arguments : {TStrings{}, TStrings{"--crc32"}, TStrings{"--crc7", "file"}}) {
    const std::string line = test::ExampleRefusal("velhash", arguments);
    EXPECT_TRUE(line.ends_with("velhash --help tells the usage")) << line;
  }
}

TEST(VelHex, ConvertsBothWaysAndListsBlocks) {
  const test::TTemporaryFolder folder;
  const std::string bin = folder.File("in.bin"), hex = folder.File("out.hex"),
                    back = folder.File("back.bin");
  std::string image(0x10002, '\xFF');
  image[0] = 'a';
  image[0x10000] = 'b';
  image[0x10001] = 'c';
  test::WriteFileBytes(bin, image);
  test::ExampleOutput("velhex", {"to-hex", bin, hex});
  EXPECT_EQ(test::ReadFileBytes(hex),
            ":01000000619E\r\n:020000040001F9\r\n:02000000626339\r\n:00000001FF\r\n");
  test::ExampleOutput("velhex", {"to-bin", hex, back});
  EXPECT_TRUE(test::ReadFileBytes(back) == image);
  EXPECT_EQ(test::ExampleOutput("velhex", {"info", hex}),
            (TStrings{"00000000  1", "00010000  2", "2 blocks, 3 bytes, image of 65538 bytes"}));
}

TEST(VelHex, LeavesOtherPeoplesPartFilesAlone) {
  const test::TTemporaryFolder folder;
  const std::string out = folder.File("out.hex"), in = out + ".part";
  test::WriteFileBytes(in, "a");
  test::ExampleOutput("velhex", {"to-hex", in, out});
  EXPECT_EQ(test::ReadFileBytes(in), "a");
  EXPECT_EQ(test::ReadFileBytes(out), ":01000000619E\r\n:00000001FF\r\n");
}

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

TEST(VelZip, BringsFilesBack) {
  const test::TTemporaryFolder folder;
  const std::string plain = folder.File("plain"), packed = folder.File("packed");
  std::string text;
  for (int i = 0; i < 40'000; ++i) text += std::to_string(i * i);
  // The second byte names the level in two bits (RFC 1950, FLEVEL).
  const std::pair<TStrings, char> cases[] = {{{"-1"}, '\x01'}, {{"-9"}, '\xDA'}, {{}, '\x9C'}};
  for (const std::string& content : {text, std::string()}) {
    test::WriteFileBytes(plain, content);
    for (const auto& [level, flags] : cases) {
      TStrings arguments{"compress", plain, packed};
      arguments.insert(arguments.begin() + 1, level.begin(), level.end());
      test::ExampleOutput("velzip", arguments);
      EXPECT_EQ(test::ReadFileBytes(packed)[1], flags);
      arguments = {"decompress", packed, packed};  // in its own place
      arguments.insert(arguments.begin() + 1, level.begin(), level.end());
      test::ExampleOutput("velzip", arguments);
      EXPECT_TRUE(test::ReadFileBytes(packed) == content);
    }
  }
}

TEST(Examples, RefuseInOneLineAndLeaveNoFile) {
  const test::TTemporaryFolder folder;
  const auto file = [&](const char* Name, const std::string& Bytes) {
    test::WriteFileBytes(folder.File(Name), Bytes);
    return folder.File(Name);
  };
  std::string words = "0123456789abcdef";
  for (int i = 1; i < 8; ++i) words += " 0123456789abcdef";
  const std::vector<uint8_t> packed = CompressBuf("aaaa", 4);
  const std::string bytes(packed.begin(), packed.end());
  const std::string in = file("in", "123456789"), out = file("out", "as it was"),
                    table = file("table", "0123456789abcdef\n"), line = file("words", words),
                    hex = file("hex", ":0100000001FE\n:0100000001FF\n"), xml = file("xml", "<a/>"),
                    bad = file("bad", "<a>\n<b></a>"), empty = file("empty", ""),
                    cut = file("cut", bytes.substr(0, bytes.size() - 1)),
                    more = file("more", bytes + "x"), none = folder.File("none"),
                    lost = folder.File("no\\such\\folder"), sub = folder.File("folder");
  std::filesystem::create_directory(sub);
  const struct {
    const char* Name;
    TStrings Arguments;
    std::string Line = {};
  } cases[] = {
      {"velgost", {"encrypt", "--key", Key, "--sbox", "tc26-z", in, out}},
      {"velgost", {"encrypt", "--key", Key, "--sbox", "tc26-z", in}},
      {"velgost", {"encrypt", "--key", Key + "0", "--sbox", "tc26-z", in, out}},
      {"velgost", {"encrypt", "--key", std::string(64, 'x'), "--sbox", "test", in, out}},
      {"velgost", {"encrypt", "--sbox", "tc26-z", in, out}},
      {"velgost", {"encrypt", "--key", Key, "--iv", "12", "--sbox", "tc26-z", in, out}},
      {"velgost", {"encrypt", "--key", Key, "--sbox", "no-such-table", in, out}},
      {"velgost", {"encrypt", "--key", Key, "--sbox", table, in, out}},
      {"velgost", {"mac", "--key", Key, "--sbox", line, in}},
      {"velgost", {"decrypt", "--key", Key, "--sbox", "tc26-z", none, out}},
      {"velgost", {"mac", "--key", Key, "--sbox", "tc26-z", in, out}},
      {"velgost", {"sign", "--key", Key, "--sbox", "tc26-z", in, out}},
      {"velgost", {"encrypt", "--unknown", in, out}},
      {"velgost", {"encrypt", in, out, "--key"}},
      {"velhex", {"to-bin", hex, out}, "Line 2 : Incorrect record checksum"},
      {"velhex", {"info", hex}, "Line 2 : Incorrect record checksum"},
      {"velhex", {"to-bin", none, out}},
      {"velhex", {"to-hex", none, out}},
      {"velhex", {"to-hex", hex, lost}},
      {"velhex", {"to-hex", hex, sub}},
      {"velhex", {"to-bin", hex}},
      {"velhex", {"from-bin", hex, out}},
      {"velzip", {"decompress", cut, out}},
      {"velzip", {"decompress", more, out}},
      {"velzip", {"decompress", in, out}},
      {"velzip", {"decompress", empty, out}},
      {"velzip", {"compress", none, lost}, "Cannot open file \"" + none},  // the input comes first
      {"velzip", {"compress", "-7", in, out}},
      {"velzip", {}},
      {"velxml", {bad, out}, bad + " cannot be read: "},
      {"velxml", {empty, out}},
      {"velxml", {sub, out}},
      {"velxml", {none, out}},
      {"velxml", {xml}},
      {"velxml", {xml, lost}},
  };
  const auto files = [&] {
    return std::distance(std::filesystem::directory_iterator(folder.Path()), {});
  };
  const auto before = files();
  for (const auto& c : cases) {
    const std::string said = test::ExampleRefusal(c.Name, c.Arguments);
    EXPECT_TRUE(said.starts_with(c.Line)) << said;
    EXPECT_EQ(test::ReadFileBytes(out), "as it was") << said;
    EXPECT_EQ(files(), before) << said;
  }
}

/// What becomes of a document in its own file, and stays when it is formatted again.
std::string Formatted(const std::string& Xml) {
  const test::TTemporaryFolder folder;
  const std::string file = folder.File("in.xml");
  test::WriteFileBytes(file, Xml);
  std::string texts[2];
  for (std::string& text : texts) {
    test::ExampleOutput("velxml", {file, file});
    text = test::ReadFileBytes(file);
    std::erase(text, '\r');
  }
  EXPECT_EQ(texts[0], texts[1]);
  return texts[0];
}

// Blanks are indentation among elements alone.
TEST(VelXml, FormatsAndKeepsBlanksOfTexts) {
  const std::pair<const char*, const char*> cases[] = {
      {"<?xml version=\"1.0\"?><a> <b x=\"1\">t</b><c>\n<d/> and <e/> </c>\n<f> x<g/>y </f></a>",
       "<a>\n\t<b x=\"1\">t</b>\n\t<c>\n\t\t<d/> and "
       "<e/>\n\t</c>\n\t<f>\n\t\tx<g/>y\n\t</f>\n</a>"},
      {"<p>see <b>A</b> <i>B</i> now<q> </q></p>",
       "<p>\n\tsee <b>A</b> <i>B</i> now<q> </q>\n</p>"},
      {"<a>\n  <b> <c/> </b>\n  <!-- d -->\n</a>",
       "<a>\n\t<b>\n\t\t<c/>\n\t</b>\n\t<!-- d -->\n</a>"},
      {"<a><b/> <![CDATA[x]]> </a>", "<a>\n\t<b/> <![CDATA[x]]>\n</a>"},
      {"<a> <b xml:space='preserve'> <c xml:space='preserve'> </c>  <d/></b> </a>",
       "<a>\n\t<b xml:space=\"preserve\"> <c xml:space=\"preserve\"> </c>  <d/></b>\n</a>"},
      {"<a xml:space='preserve'> <b/></a>", "<a xml:space=\"preserve\"> <b/></a>"},
  };
  for (const auto& [xml, expected] : cases) {
    const std::string text = Formatted(xml);
    EXPECT_NE(text.find(expected), std::string::npos) << text;
  }
}

TEST(VelXml, BearsDeepNesting) {
  std::string deep = "t";
  for (int i = 0; i < 200; ++i) deep = "<e>" + deep + "</e>";
  const std::string inner =
      "\n" + std::string(199, '\t') + "<e>t</e>\n" + std::string(198, '\t') + "</e>";
  EXPECT_NE(Formatted(deep).find(inner), std::string::npos);
}

TEST(Examples, TellThatTheirOutputIsLost) {
  const test::TTemporaryFolder folder;
  const std::string in = folder.File("in"), said = folder.File("said");
  test::WriteFileBytes(in, ":00000001FF\r\n");
  const std::pair<std::string, std::string> cases[] = {
      {"velhash", "--crc8 " + in},
      {"velhex", "info " + in},
      {"velzip", "compress " + in + " " + folder.File("out")},
      {"velgost", "mac --sbox test --key " + std::string(64, '1') + " " + in},
      {"velgost", "--help"}};
  for (const auto& [name, arguments] : cases) {
    const THandle errors = test::OpenStream(said, GENERIC_WRITE, CREATE_ALWAYS);
    const THandle output = test::OpenStream(said, GENERIC_READ, OPEN_EXISTING);  // to read only
    const test::TChild child(test::ExampleCommand(name) + arguments, output, errors);
    EXPECT_EQ(child.Wait(), 1u) << name;
    EXPECT_EQ(test::ReadFileBytes(said), name + ": Cannot write to the standard output\r\n");
  }
}

}  // namespace
}  // namespace velox
