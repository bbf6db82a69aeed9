#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "tests/examples/run_example.hpp"
#include "tests/support/support.hpp"

namespace velox {
namespace {

int32_t VelZip(const std::vector<std::string>& Arguments) {
  return test::RunExample("velzip", Arguments).ExitCode;
}

size_t CountFiles(const std::string& Folder) {
  size_t count = 0;
  for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator(Folder)) ++count;
  return count;
}

TEST(VelZip, BringsFilesBack) {
  const test::TTemporaryFolder folder;
  const std::string plain = folder.File("plain"), packed = folder.File("packed");
  std::string text;
  for (int i = 0; i < 40'000; ++i) text += std::to_string(i * i);
  // The second byte names the level in two bits (RFC 1950, FLEVEL).
  const struct {
    TStrings Level;
    char Flags;
  } cases[] = {{{"-1"}, '\x01'}, {{"-9"}, '\xDA'}, {{}, '\x9C'}};
  for (const std::string& content : {text, std::string()}) {
    test::WriteFileBytes(plain, content);
    for (const auto& [level, flags] : cases) {
      TStrings arguments{"compress", plain, packed};
      arguments.insert(arguments.begin() + 1, level.begin(), level.end());
      EXPECT_EQ(VelZip(arguments), 0);
      EXPECT_EQ(test::ReadFileBytes(packed)[1], flags);
      arguments = {"decompress", packed, packed};  // in its own place
      arguments.insert(arguments.begin() + 1, level.begin(), level.end());
      EXPECT_EQ(VelZip(arguments), 0);
      EXPECT_TRUE(test::ReadFileBytes(packed) == content);
    }
  }
}

TEST(VelZip, LeavesNoFileWhenItFails) {
  const test::TTemporaryFolder folder;
  const std::string plain = folder.File("plain"), packed = folder.File("packed"),
                    out = folder.File("out");
  test::WriteFileBytes(plain, std::string(1000, 'a'));
  EXPECT_EQ(VelZip({"compress", plain, packed}), 0);
  const std::string bytes = test::ReadFileBytes(packed);
  for (const std::string& content : {bytes.substr(0, bytes.size() - 1), bytes + "x",
                                     std::string("no zlib data"), std::string()}) {
    test::WriteFileBytes(packed, content);
    EXPECT_EQ(VelZip({"decompress", packed, out}), 1);
  }
  const auto missing = test::RunExample("velzip", {"compress", out, folder.File("no\\folder")});
  EXPECT_EQ(missing.ExitCode, 1);
  ASSERT_EQ(missing.Lines.size(), 1u);
  EXPECT_NE(missing.Lines[0].find(out), std::string::npos) << "the input comes first";
  EXPECT_EQ(VelZip({"compress", "-7", plain, out}), 1);
  EXPECT_EQ(VelZip({}), 1);
  EXPECT_EQ(VelZip({"--help"}), 0);
  EXPECT_EQ(CountFiles(folder.Path()), 2u) << "plain and packed";
}

}  // namespace
}  // namespace velox
