#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "tests/support/support.hpp"
#include "velox/runtime/velFormat.hpp"

namespace velox {
namespace {

/// The exit code of velzip.exe, which is built beside the tests.
uint32_t VelZip(const std::string& Arguments) {
  char program[MAX_PATH] = "";
  ::GetModuleFileNameA(nullptr, program, sizeof program);
  const std::string folder = std::filesystem::path(program).parent_path().string();
  return test::TChild(Format("\"%s\\velzip.exe\" %s", folder.c_str(), Arguments.c_str())).Wait();
}

size_t CountFiles(const std::string& Folder) {
  size_t count = 0;
  for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator(Folder)) ++count;
  return count;
}

TEST(VelZip, BringsFilesBackAndLeavesNoneWhenItFails) {
  const test::TTemporaryFolder folder;
  const std::string plain = folder.File("plain");
  const std::string packed = folder.File("packed");
  const std::string out = folder.File("out");
  std::string text;
  for (int i = 0; i < 40'000; ++i) text += std::to_string(i * i);
  test::WriteFileBytes(plain, text);
  EXPECT_EQ(VelZip(Format("compress -9 \"%s\" \"%s\"", plain.c_str(), packed.c_str())), 0u);
  EXPECT_EQ(VelZip(Format("decompress \"%s\" \"%s\"", packed.c_str(), packed.c_str())), 0u)
      << "in its own place";
  EXPECT_TRUE(test::ReadFileBytes(packed) == text);
  EXPECT_EQ(VelZip(Format("compress -1 \"%s\" \"%s\"", plain.c_str(), packed.c_str())), 0u);

  std::string bytes = test::ReadFileBytes(packed);
  const std::string bad[] = {bytes.substr(0, bytes.size() - 1), bytes + "x", "no zlib data", ""};
  for (const std::string& content : bad) {
    test::WriteFileBytes(packed, content);
    EXPECT_EQ(VelZip(Format("decompress \"%s\" \"%s\"", packed.c_str(), out.c_str())), 1u);
  }
  EXPECT_EQ(VelZip(Format("decompress \"%s\" \"%s\"", out.c_str(), out.c_str())), 1u) << "no input";
  EXPECT_EQ(VelZip(Format("compress -7 \"%s\" \"%s\"", plain.c_str(), out.c_str())), 1u);
  EXPECT_EQ(VelZip("--help"), 0u);
  EXPECT_EQ(VelZip(""), 1u);
  EXPECT_EQ(CountFiles(folder.Path()), 2u) << "plain and packed";
}

}  // namespace
}  // namespace velox
