// Intel HEX against srec_cat (package srecord), and files that fail, on the development machine
// only.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "velox/codecs/velIntelHex.hpp"
#include "velox/runtime/velException.hpp"

namespace velox {
namespace {

using TBytes = std::vector<uint8_t>;
using TArguments = std::vector<std::string>;

constexpr int Images = 20;
constexpr uint32_t ImageSize = 5 * 0x10000;
/// Whether the program could be started and did what it should. What it prints is dropped, except
/// its errors.
bool RunProgram(const TArguments& Arguments) {
  std::string command;
  for (const std::string& argument : Arguments) command += "'" + argument + "' ";
  return std::system((command + "> /dev/null").c_str()) == 0;
}

/// Runs of random bytes, a few of them 0xFF, with gaps between them, most of them small.
TBytes RandomImage(std::mt19937& Random) {
  TBytes bytes(Random() % 0x10000, 0xFF);
  while (bytes.size() < ImageSize) {
    for (uint32_t left = Random() % 300 + 1; left > 0; --left)
      bytes.push_back(Random() % 4 == 0 ? uint8_t{0xFF} : static_cast<uint8_t>(Random()));
    bytes.resize(bytes.size() + Random() % (Random() % 50 == 0 ? 0x20000 : 12), 0xFF);
  }
  bytes.push_back(0);
  return bytes;
}

TBytes ReadBytes(const std::string& FileName) {
  std::ifstream file(FileName, std::ios::binary);
  EXPECT_TRUE(file.is_open()) << FileName;
  TBytes bytes(std::filesystem::file_size(FileName));
  file.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
  return bytes;
}

void Assign(TIntelHex& Image, const TBytes& Bytes) {
  Image.SetBufferSize(static_cast<uint32_t>(Bytes.size()));
  std::memcpy(Image.GetBuffer(), Bytes.data(), Bytes.size());
}

bool IsImage(const TIntelHex& Image, const TBytes& Bytes) {
  return std::equal(Image.GetBuffer(), Image.GetBuffer() + Image.GetBufferSize(), Bytes.begin(),
                    Bytes.end());
}

class IntelHexAgainst : public testing::Test {
 protected:
  IntelHexAgainst() {
    std::string name = (std::filesystem::temp_directory_path() / "velox-hex-XXXXXX").string();
    EXPECT_NE(mkdtemp(name.data()), nullptr);
    Folder_ = name + "/";
  }
  ~IntelHexAgainst() override {
    std::error_code ignored;
    std::filesystem::remove_all(Folder_, ignored);
  }

  std::string File(const std::string& Name) const { return Folder_ + Name; }

  std::string Folder_;
  std::mt19937 Random_{521};
};

TEST_F(IntelHexAgainst, SrecCat) {
  if (!RunProgram({"srec_cat", "-VERSion"}))
    GTEST_SKIP() << "srec_cat (package srecord) is not installed";
  for (int i = 0; i < Images && !HasFailure(); ++i) {
    SCOPED_TRACE(i);
    const TBytes bytes = RandomImage(Random_);
    TIntelHex image;
    Assign(image, bytes);
    image.SaveToFile(File("ours.hex"));
    ASSERT_TRUE(RunProgram({"srec_cat", File("ours.hex"), "-Intel", "-Fill", "0xFF", "0",
                            std::to_string(bytes.size()), "-Output", File("o.bin"), "-Binary"}));
    EXPECT_TRUE(ReadBytes(File("o.bin")) == bytes);
    // What srec_cat writes, with records of many lengths.
    ASSERT_TRUE(
        RunProgram({"srec_cat", File("o.bin"), "-Binary", "-Output", File("theirs.hex"), "-Intel",
                    "-Output_Block_Size", std::to_string(i == 0 ? 255 : Random_() % 254 + 1)}));
    image.LoadFromFile(File("theirs.hex"));
    EXPECT_TRUE(IsImage(image, bytes));
  }
}

TEST_F(IntelHexAgainst, FilesThatFailOnTheWay) {
  TIntelHex image;
  Assign(image, {1, 2, 3});
  EXPECT_THROW(image.LoadFromFile(Folder_), EReadError);  // a folder can be opened, and that's all
  EXPECT_TRUE(IsImage(image, {1, 2, 3}));
  for (const uint32_t size : {3, 100'000}) {  // fails when it is closed, and long before
    Assign(image, TBytes(size, 7));
    std::filesystem::create_symlink("/dev/full", File("cut.hex"));
    EXPECT_THROW(image.SaveToFile(File("cut.hex")), EWriteError);
    EXPECT_FALSE(std::filesystem::is_symlink(File("cut.hex")));
  }
}

}  // namespace
}  // namespace velox
