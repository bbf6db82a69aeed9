#include <gtest/gtest.h>

#include <filesystem>
#include <iterator>
#include <string>
#include <utility>

#include "tests/examples/run_example.hpp"
#include "tests/support/support.hpp"

namespace velox {
namespace {

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

TEST(VelZip, LeavesNoFileWhenItFails) {
  const test::TTemporaryFolder folder;
  const std::string plain = folder.File("plain"), packed = folder.File("packed"),
                    out = folder.File("out");
  test::WriteFileBytes(plain, std::string(1000, 'a'));
  test::ExampleOutput("velzip", {"compress", plain, packed});
  const std::string bytes = test::ReadFileBytes(packed);
  for (const std::string& content : {bytes.substr(0, bytes.size() - 1), bytes + "x",
                                     std::string("no zlib data"), std::string()}) {
    test::WriteFileBytes(packed, content);
    test::ExampleRefusal("velzip", {"decompress", packed, out});
  }
  const std::string line =
      test::ExampleRefusal("velzip", {"compress", out, folder.File("no\\folder")});
  EXPECT_NE(line.find(out), std::string::npos) << "the input comes first";
  test::ExampleRefusal("velzip", {"compress", "-7", plain, out});
  test::ExampleRefusal("velzip", {});
  test::ExampleOutput("velzip", {"--help"});
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder.Path()),
                          std::filesystem::directory_iterator()),
            2)
      << "plain and packed";
}

}  // namespace
}  // namespace velox
