#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "velox/codecs/velZLib.hpp"

namespace velox {
namespace {

constexpr int BufferCount = 1000;

using TRandom = std::mt19937;

/// The output of a command, empty when it fails.
std::string OutputOf(const std::string& Command) {
  FILE* pipe = ::popen(Command.c_str(), "r");
  if (pipe == nullptr) return {};
  std::string output;
  char piece[256];
  while (std::fgets(piece, sizeof piece, pipe) != nullptr) output += piece;
  return ::pclose(pipe) == 0 ? output : std::string();
}

struct TFolder {
  TFolder() { std::filesystem::create_directory(Path); }
  ~TFolder() { std::filesystem::remove_all(Path); }
  const std::filesystem::path Path = std::filesystem::temp_directory_path() /
                                     ("velox-zlib-" + std::to_string(std::random_device{}()));
};

std::string ReadBlock(std::istream& File) {
  uint8_t size[4];
  File.read(reinterpret_cast<char*>(size), 4);
  std::string bytes(size[0] | size[1] << 8 | size[2] << 16 | static_cast<uint32_t>(size[3]) << 24,
                    '\0');
  File.read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  return bytes;
}

void WriteBlock(std::ostream& File, const void* Bytes, int64_t Size) {
  for (int shift = 0; shift < 32; shift += 8) File.put(static_cast<char>(Size >> shift));
  File.write(static_cast<const char*>(Bytes), Size);
}

/// A size between 1 and what is left, small ones as likely as large ones.
int32_t Chunk(TRandom& Random, size_t Left) {
  const auto limit = static_cast<size_t>(1) << Random() % 21;
  return static_cast<int32_t>(std::min(Random() % limit + 1, Left));
}

std::string Unpack(const std::string& Packed, size_t Expected, TRandom& Random) {
  TMemoryStream source(Packed.data(), static_cast<int32_t>(Packed.size()));
  TDecompressionStream unpacker(source);
  std::string plain(Expected + 1, '\0');
  size_t at = 0;
  while (at < plain.size()) {
    const int32_t done = unpacker.Read(plain.data() + at, Chunk(Random, plain.size() - at));
    if (done == 0) break;
    at += static_cast<size_t>(done);
  }
  EXPECT_TRUE(unpacker.GetComplete());
  plain.resize(at);
  return plain;
}

void Pack(const std::string& Plain, TMemoryStream& Dest, TRandom& Random) {
  TCompressionStream packer(
      Random() % 2 == 0 ? TCompressionLevel::clFastest : TCompressionLevel::clDefault, Dest);
  for (size_t at = 0; at < Plain.size();) {
    const int32_t count = Chunk(Random, Plain.size() - at);
    packer.WriteBuffer(Plain.data() + at, count);
    at += static_cast<size_t>(count);
  }
  packer.Finish();
}

TEST(ZLib, AgreesWithPython) {
  if (OutputOf("python3 -c 'import zlib; print(1)'").empty()) {
    GTEST_SKIP() << "python3 with its zlib module, the reference, is not installed";
  }
  const std::string script = "python3 '" VELOX_TESTS_DIRECTORY "/native/zlib_reference.py' ";
  const TFolder folder;
  const std::string theirs = (folder.Path / "theirs").string();
  const std::string ours = (folder.Path / "ours").string();
  const unsigned seed = std::random_device{}();
  SCOPED_TRACE(testing::Message() << "seed " << seed);
  TRandom random(seed);
  OutputOf(script + "make " + std::to_string(seed) + " " + std::to_string(BufferCount) + " " +
           theirs);
  {
    std::ifstream in(theirs, std::ios::binary);
    std::ofstream out(ours, std::ios::binary);
    for (int i = 0; i < BufferCount; ++i) {
      const std::string plain = ReadBlock(in);
      const std::string packed = ReadBlock(in);
      ASSERT_TRUE(in.good()) << i;
      ASSERT_TRUE(Unpack(packed, plain.size(), random) == plain) << i;
      TMemoryStream dest;
      Pack(plain, dest, random);
      WriteBlock(out, plain.data(), static_cast<int64_t>(plain.size()));
      WriteBlock(out, dest.GetMemory(), dest.GetSize());
    }
  }
  EXPECT_EQ(OutputOf(script + "check " + ours), std::to_string(BufferCount) + "\n");
}

}  // namespace
}  // namespace velox
