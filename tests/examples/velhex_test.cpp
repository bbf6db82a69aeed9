#include <gtest/gtest.h>

#include <filesystem>
#include <iterator>
#include <string>

#include "tests/examples/run_example.hpp"
#include "tests/support/support.hpp"

namespace velox {
namespace {

TEST(VelHex, ConvertsBothWaysAndListsBlocks) {
  const test::TTemporaryFolder folder;
  const std::string bin = folder.File("in.bin"), hex = folder.File("out.hex"),
                    back = folder.File("back.bin");
  std::string image(0x10002, '\xFF');
  image[0] = 'a';
  image[0x10000] = 'b';
  image[0x10001] = 'c';
  test::WriteFileBytes(bin, image);
  EXPECT_EQ(test::RunExample("velhex", {"to-hex", bin, hex}).ExitCode, 0);
  EXPECT_EQ(test::ReadFileBytes(hex),
            ":01000000619E\r\n:020000040001F9\r\n:020000006263"
            "39\r\n:00000001FF\r\n");
  EXPECT_EQ(test::RunExample("velhex", {"to-bin", hex, back}).ExitCode, 0);
  EXPECT_TRUE(test::ReadFileBytes(back) == image);
  const auto info = test::RunExample("velhex", {"info", hex});
  EXPECT_EQ(info.ExitCode, 0);
  EXPECT_EQ(info.Lines,
            (TStrings{"00000000  1", "00010000  2", "2 blocks, 3 bytes, image of 65538 bytes"}));
}

TEST(VelHex, LeavesOtherPeoplesPartFilesAlone) {
  const test::TTemporaryFolder folder;
  const std::string out = folder.File("out.hex"), in = out + ".part";
  test::WriteFileBytes(in, "a");
  EXPECT_EQ(test::RunExample("velhex", {"to-hex", in, out}).ExitCode, 0);
  EXPECT_EQ(test::ReadFileBytes(in), "a");
  EXPECT_EQ(test::ReadFileBytes(out), ":01000000619E\r\n:00000001FF\r\n");
}

TEST(VelHex, RefusesInOneLineAndLeavesNoFile) {
  const test::TTemporaryFolder folder;
  const std::string in = folder.File("in.hex"), out = folder.File("out.bin");
  test::WriteFileBytes(in, ":0100000001FE\n:0100000001FF\n");
  struct {
    TStrings Arguments;
    std::string Line;
  } const cases[] = {
      {{"to-bin", in, out}, "velhex: Line 2 : Incorrect record checksum"},
      {{"info", in}, "velhex: Line 2 : Incorrect record checksum"},
      {{"to-bin", folder.File("none"), out}, ""},
      {{"to-hex", folder.File("none"), out}, ""},
      {{"to-hex", in, folder.File("no\\such\\folder")}, ""},
      {{"to-bin", in}, ""},
      {{"from-bin", in, out}, ""},
  };
  for (const auto& each : cases) {
    const auto run = test::RunExample("velhex", each.Arguments);
    EXPECT_EQ(run.ExitCode, 1);
    ASSERT_EQ(run.Lines.size(), 1u);
    EXPECT_EQ(run.Lines[0].rfind("velhex: ", 0), 0u) << run.Lines[0];
    EXPECT_TRUE(each.Line.empty() || run.Lines[0] == each.Line) << run.Lines[0];
  }
  std::filesystem::create_directory(folder.File("folder"));
  EXPECT_EQ(test::RunExample("velhex", {"to-hex", in, folder.File("folder")}).ExitCode, 1);
  std::filesystem::remove(folder.File("folder"));
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder.Path()),
                          std::filesystem::directory_iterator()),
            1);
}

}  // namespace
}  // namespace velox
