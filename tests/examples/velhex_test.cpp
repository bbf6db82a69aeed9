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

TEST(VelHex, RefusesInOneLineAndLeavesNoFile) {
  const test::TTemporaryFolder folder;
  const std::string in = folder.File("in.hex"), out = folder.File("out.bin");
  test::WriteFileBytes(in, ":0100000001FE\n:0100000001FF\n");
  for (const TStrings& arguments : {TStrings{"to-bin", in, out}, TStrings{"info", in}}) {
    EXPECT_EQ(test::ExampleRefusal("velhex", arguments), "Line 2 : Incorrect record checksum");
  }
  std::filesystem::create_directory(folder.File("folder"));
  const TStrings cases[] = {{"to-bin", folder.File("none"), out},
                            {"to-hex", folder.File("none"), out},
                            {"to-hex", in, folder.File("no\\such\\folder")},
                            {"to-hex", in, folder.File("folder")},
                            {"to-bin", in},
                            {"from-bin", in, out}};
  for (const TStrings& arguments : cases) test::ExampleRefusal("velhex", arguments);
  std::filesystem::remove(folder.File("folder"));
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder.Path()),
                          std::filesystem::directory_iterator()),
            1);
}

}  // namespace
}  // namespace velox
