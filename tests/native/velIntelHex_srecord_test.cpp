// Intel HEX against srec_cat (package srecord) and objcopy (binutils), and files that fail, on the
// development machine only. A start of srec_cat costs more than all that is done with one image, so
// each start takes many.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include "velox/codecs/velIntelHex.hpp"
#include "velox/runtime/velException.hpp"
#include "velox/runtime/velFormat.hpp"

namespace velox {
namespace {

using TBytes = std::vector<uint8_t>;
using TArguments = std::vector<std::string>;

constexpr int Starts = 100;
constexpr int ImagesPerStart = 10;
// An image's data lies within this many bytes from its start: address 0, or one that puts the
// boundary of the first segment into the middle.
constexpr uint32_t Window = 0x4000;
constexpr uint32_t WindowStarts[] = {0, 0x10000 - Window / 2};
// Put so far apart, the images share no segment.
constexpr uint32_t Distance = 0x20000;

/// Whether the program could be started and did what it should. What it prints is dropped, except
/// its errors.
bool RunProgram(const TArguments& Arguments) {
  std::string command;
  for (const std::string& argument : Arguments) command += "'" + argument + "' ";
  return std::system((command + "> /dev/null").c_str()) == 0;
}

/// Runs of random bytes, a few of them 0xFF, anywhere in a window.
TBytes RandomWindow(std::mt19937& Random) {
  TBytes bytes;
  for (uint32_t runs = Random() % 5 + 1; runs > 0; --runs) {
    const uint32_t size = Random() % 300 + 1;
    const uint32_t start =
        Random() % 4 == 0 ? Window / 2 - Random() % size : Random() % (Window - size);
    if (bytes.size() < start + size) bytes.resize(start + size, 0xFF);
    for (uint32_t i = 0; i < size; ++i) {
      bytes[start + i] = Random() % 4 == 0 ? uint8_t{0xFF} : static_cast<uint8_t>(Random());
    }
  }
  bytes.back() = 0;
  return bytes;
}

TBytes ReadBytes(const std::string& FileName) {
  std::ifstream file(FileName, std::ios::binary);
  EXPECT_TRUE(file.is_open()) << FileName;
  TBytes bytes(std::filesystem::file_size(FileName));
  file.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
  return bytes;
}

void Assign(TIntelHex& Image, const TBytes& Bytes, uint32_t Start = 0) {
  Image.SetBufferSize(static_cast<uint32_t>(Start + Bytes.size()));
  std::memcpy(Image.GetBuffer() + Start, Bytes.data(), Bytes.size());
}

bool IsImage(const TIntelHex& Image, const TBytes& Bytes) {
  return std::equal(Image.GetBuffer(), Image.GetBuffer() + Image.GetBufferSize(), Bytes.begin(),
                    Bytes.end());
}

/// The lines of each image, which begin with its first segment's address.
std::vector<TStrings> Split(const std::string& FileName) {
  std::vector<TStrings> images;
  std::ifstream file(FileName);
  for (std::string line; std::getline(file, line);) {
    const bool segment = line.compare(7, 2, "04") == 0;
    const uint32_t start = segment ? std::stoul(line.substr(9, 4), nullptr, 16) << 16 : 0;
    if (segment && start / Distance + 1 > images.size()) images.emplace_back();
    if (!images.empty()) images.back().push_back(line);
  }
  return images;
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
  for (int start = 0; start < Starts && !HasFailure(); ++start) {
    SCOPED_TRACE(start);
    TArguments toBinary{"srec_cat", "("}, toHex = toBinary;
    TBytes all;
    std::vector<TBytes> windows;
    for (uint32_t i = 0; i < ImagesPerStart; ++i) {
      const TBytes bytes = RandomWindow(Random_);
      const uint32_t windowStart = WindowStarts[i % std::size(WindowStarts)];
      TIntelHex image;
      Assign(image, bytes, windowStart);
      const std::string name = File(Format("%u.hex", static_cast<unsigned>(i)));
      image.SaveToFile(name);
      // Put into one, the windows follow each other.
      all.resize(i * Window, 0xFF);
      all.insert(all.end(), bytes.begin(), bytes.end());
      toBinary.insert(toBinary.end(), {name, "-Intel", "-Offset",
                                       std::to_string(int64_t{i} * Window - windowStart)});
      windows.push_back(bytes);
      toHex.insert(toHex.end(), {name, "-Intel", "-Offset", std::to_string(i * Distance)});
    }
    // What we wrote, image by image, as srec_cat reads it.
    toBinary.insert(toBinary.end(), {")", "-Fill", "0xFF", "0", std::to_string(all.size()),
                                     "-Output", File("all.bin"), "-Binary"});
    ASSERT_TRUE(RunProgram(toBinary));
    EXPECT_TRUE(ReadBytes(File("all.bin")) == all);
    // What srec_cat writes, with records of many lengths, image by image.
    toHex.insert(toHex.end(), {")", "-Output", File("all.hex"), "-Intel", "-Output_Block_Size",
                               std::to_string(start == 0 ? 255 : Random_() % 254 + 1)});
    ASSERT_TRUE(RunProgram(toHex));
    const std::vector<TStrings> images = Split(File("all.hex"));
    ASSERT_EQ(images.size(), windows.size());
    for (size_t i = 0; i < images.size(); ++i) {
      TBytes apart(i * Distance + WindowStarts[i % std::size(WindowStarts)], 0xFF);
      apart.insert(apart.end(), windows[i].begin(), windows[i].end());
      TIntelHex image;
      image.LoadFromStrings(images[i]);
      EXPECT_TRUE(IsImage(image, apart)) << i;
    }
  }
}

TEST_F(IntelHexAgainst, Objcopy) {
  if (!RunProgram({"objcopy", "--version"}))
    GTEST_SKIP() << "objcopy (package binutils) is not installed";
  // Below 64 KiB, since objcopy writes segments of the kind that is refused for what follows.
  TBytes bytes(0xFFFF);
  std::generate(bytes.begin(), bytes.end(), [this] { return static_cast<uint8_t>(Random_()); });
  bytes.front() = bytes.back() = 0;
  TIntelHex image;
  Assign(image, bytes);
  image.SaveToFile(File("ours.hex"));
  ASSERT_TRUE(RunProgram({"objcopy", "-I", "ihex", "-O", "binary", "--gap-fill", "0xff",
                          File("ours.hex"), File("o.bin")}));
  EXPECT_TRUE(ReadBytes(File("o.bin")) == bytes);
  ASSERT_TRUE(
      RunProgram({"objcopy", "-I", "binary", "-O", "ihex", File("o.bin"), File("theirs.hex")}));
  image.LoadFromFile(File("theirs.hex"));
  EXPECT_TRUE(IsImage(image, bytes));
}

/// Files can't become longer than this, in its scope.
class TFileLimit {
 public:
  explicit TFileLimit(rlim_t Size) : Handler_(std::signal(SIGXFSZ, SIG_IGN)) {
    getrlimit(RLIMIT_FSIZE, &Before_);
    const rlimit limit{Size, Before_.rlim_max};
    setrlimit(RLIMIT_FSIZE, &limit);
  }
  ~TFileLimit() {
    setrlimit(RLIMIT_FSIZE, &Before_);
    std::signal(SIGXFSZ, Handler_);
  }

 private:
  rlimit Before_{};
  void (*Handler_)(int);
};

TEST_F(IntelHexAgainst, FilesThatFailOnTheWay) {
  TIntelHex image;
  Assign(image, {1, 2, 3});
  EXPECT_THROW(image.LoadFromFile(Folder_), EReadError);  // a folder can be opened, and that's all
  EXPECT_TRUE(IsImage(image, {1, 2, 3}));
  for (const uint32_t size : {3, 100'000}) {  // fails when it is closed, and long before
    Assign(image, TBytes(size, 7));
    const TFileLimit limit(10);
    EXPECT_THROW(image.SaveToFile(File("cut.hex")), EWriteError);
    EXPECT_FALSE(std::filesystem::exists(File("cut.hex")));
  }
}

}  // namespace
}  // namespace velox
