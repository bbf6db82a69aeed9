#include <gtest/gtest.h>

#include <string>

#include "tests/examples/run_example.hpp"
#include "tests/support/support.hpp"

namespace velox {
namespace {

// The values are those of the CRC catalogue's check column, Python's zlib and hashlib, and Python's
// integers for the sums.

TEST(VelHash, PrintsTheValuesInTheOrderOfTheOptionsFileByFile) {
  const test::TTemporaryFolder folder;
  const std::string digits = folder.File("digits"), four = folder.File("four");
  test::WriteFileBytes(digits, "123456789");
  test::WriteFileBytes(four, "\x01\x02\x03\x04");
  const auto all = test::RunExample(
      "velhash", {"--crc8", "--crc16", "--crc16-ccitt", "--crc16-xmodem", "--crc32", "--crc64",
                  "--sum8", "--sum16", "--sum32", "--adler32", "--md5", digits});
  EXPECT_EQ(all.ExitCode, 0);
  EXPECT_EQ(all.Lines, (TStrings{"crc8  a1  " + digits, "crc16  bb3d  " + digits,
                                 "crc16-ccitt  29b1  " + digits, "crc16-xmodem  0c73  " + digits,
                                 "crc32  cbf43926  " + digits, "crc64  62ec59e3f1a4f00a  " + digits,
                                 "sum8  23  " + digits, "sum16  fe23  " + digits,
                                 "sum32  fffffe23  " + digits, "adler32  091e01de  " + digits,
                                 "md5  25f9e794323b453885f5181f1b624d0b  " + digits}));
  const auto two = test::RunExample("velhash", {"--sum8", four, "--crc8", digits});
  EXPECT_EQ(two.ExitCode, 0);
  EXPECT_EQ(two.Lines, (TStrings{"sum8  f6  " + four, "crc8  f4  " + four, "sum8  23  " + digits,
                                 "crc8  a1  " + digits}));
  const auto none = test::RunExample("velhash", {digits});
  EXPECT_EQ(none.ExitCode, 0);
  EXPECT_EQ(none.Lines, (TStrings{"crc32  cbf43926  " + digits,
                                  "md5  25f9e794323b453885f5181f1b624d0b  " + digits}));
}

TEST(VelHash, ReadsFilesOfSeveralBlocks) {
  const test::TTemporaryFolder folder;
  const std::string file = folder.File("long");
  std::string bytes(300'000, '\0');
  for (uint64_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<char>((i * i + 7 * i) >> 3);
  test::WriteFileBytes(file, bytes);
  const auto run =
      test::RunExample("velhash", {"--crc32", "--adler32", "--fletcher", "--sum32", "--md5", file});
  EXPECT_EQ(run.ExitCode, 0);
  EXPECT_EQ(run.Lines, (TStrings{"crc32  8ddaea90  " + file, "adler32  29afc2ee  " + file,
                                 "fletcher  cb4db0fe  " + file, "sum32  fdb85f3c  " + file,
                                 "md5  a471a14b3efe744bc4b7c5ee0a003f4c  " + file}));
}

TEST(VelHash, ReadsStandardInput) {
  const test::TTemporaryFolder folder;
  const std::string file = folder.File("in");
  test::WriteFileBytes(file, "123456789");
  TStrings lines;
  auto keep = [&](const std::string& line) { lines.push_back(line); };
  const std::string command =
      "cmd.exe /c \"\"" + test::ExamplePath("velhash") + "\" --crc32 - < \"" + file + "\"\"";
  EXPECT_EQ(ExecuteProcess(command, "", TProcessOutputEvent::To(keep), false, nullptr), 0);
  EXPECT_EQ(lines, TStrings{"crc32  cbf43926  -"});
}

TEST(VelHash, AFailureKeepsNothingElseFromBeingPrinted) {
  const test::TTemporaryFolder folder;
  const std::string digits = folder.File("digits"), missing = folder.File("missing");
  test::WriteFileBytes(digits, "123456789");
  const auto run = test::RunExample("velhash", {"--fletcher", "--crc8", missing, digits});
  EXPECT_EQ(run.ExitCode, 1);
  const auto count = [&](const std::string& start) {
    int found = 0;
    for (const std::string& line : run.Lines) found += line.starts_with(start) ? 1 : 0;
    return found;
  };
  EXPECT_EQ(run.Lines.size(), 3u);
  EXPECT_EQ(count("crc8  a1  " + digits), 1);
  EXPECT_EQ(count("velhash: " + missing + ": "), 1);
  EXPECT_EQ(count("velhash: " + digits + ": no fletcher value: "), 1);
}

TEST(VelHash, ExplainsItsUse) {
  const auto help = test::RunExample("velhash", {"--help"});
  EXPECT_EQ(help.ExitCode, 0);
  ASSERT_FALSE(help.Lines.empty());
  EXPECT_TRUE(help.Lines[0].starts_with("usage: velhash "));
  for (const TStrings& arguments : {TStrings{}, TStrings{"--crc32"}, TStrings{"--crc7", "file"}}) {
    const auto run = test::RunExample("velhash", arguments);
    EXPECT_EQ(run.ExitCode, 1);
    ASSERT_EQ(run.Lines.size(), 1u);
    EXPECT_TRUE(run.Lines[0].ends_with("velhash --help tells the usage")) << run.Lines[0];
  }
}

}  // namespace
}  // namespace velox
