#include <gtest/gtest.h>

#include <algorithm>
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
  const auto run = test::RunCommand("cmd.exe /c \"\"" + test::ExamplePath("velhash") +
                                    "\" --crc32 - < \"" + file + "\"\"");
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

}  // namespace
}  // namespace velox
