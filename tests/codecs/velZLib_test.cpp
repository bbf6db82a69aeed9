#include "velox/codecs/velZLib.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <random>
#include <string>

#include "velox/codecs/velZLibConst.hpp"

namespace velox {
namespace {

using TBytes = std::vector<uint8_t>;

// Made with Python's zlib module (zlib 1.2.13), which also says what is in them.
const TBytes PythonEmpty = {0x78, 0xda, 0x03, 0x00, 0x00, 0x00, 0x00, 0x01};  // compress(b"", 9)
const TBytes PythonFox = {                                                    // compress(Fox)
    0x78, 0x9c, 0x2b, 0xc9, 0x48, 0x55, 0x28, 0x2c, 0xcd, 0x4c, 0xce, 0x56, 0x48, 0x2a,
    0xca, 0x2f, 0xcf, 0x53, 0x48, 0xcb, 0xaf, 0x50, 0xc8, 0x2a, 0xcd, 0x2d, 0x28, 0x56,
    0xc8, 0x2f, 0x4b, 0x2d, 0x52, 0x28, 0x01, 0x4a, 0xe7, 0x24, 0x56, 0x55, 0x2a, 0xa4,
    0xe4, 0xa7, 0xeb, 0x80, 0x79, 0xb4, 0x51, 0x0c, 0x00, 0x19, 0xf1, 0x30, 0xd0};
const std::string Fox =
    "the quick brown fox jumps over the lazy dog, the quick brown fox jumps over the lazy dog, "
    "the quick brown fox jumps over the lazy dog, ";
// Compressed with a preset dictionary: compressobj(9, zdict=b"the quick brown fox").
const TBytes PythonDictionary = {0x78, 0xf9, 0x47, 0x8e, 0x07, 0x34, 0x2b, 0xc1,
                                 0x14, 0x02, 0x00, 0x47, 0x8e, 0x07, 0x34};

std::string Text(const TBytes& Bytes) { return {Bytes.begin(), Bytes.end()}; }
int32_t Size(const auto& Bytes) { return static_cast<int32_t>(Bytes.size()); }

// Noise that does not shrink, or words that do.
TBytes Sample(size_t Count, bool Noise) {
  std::mt19937 random(static_cast<unsigned>(Count) * 2 + Noise);
  TBytes bytes(Count);
  for (uint8_t& byte : bytes)
    byte = static_cast<uint8_t>(Noise ? random() : "etaoin "[random() % 7]);
  return bytes;
}

template <class E>
void ExpectRaises(const char* Message, const std::function<void()>& Action) {
  try {
    Action();
    ADD_FAILURE() << "nothing raised, expected " << Message;
  } catch (const Exception& e) {
    EXPECT_EQ(e.ClassName(), TypeName(typeid(E)));
    EXPECT_STREQ(e.what(), Message);
  }
}

TBytes Decompressed(const TBytes& Packed, int32_t Estimate = 0) {
  return DecompressBuf(Packed.data(), Size(Packed), Estimate);
}

TBytes Decompressed(TMemoryStream& Stream) {
  return Decompressed({Stream.GetMemory(), Stream.GetMemory() + Stream.GetSize()});
}

// A memory stream seen through a narrow, moody opening that may lie far from the beginning.
class TTestStream : public TStream {
 public:
  explicit TTestStream(const TBytes& Bytes = {}) : Memory(Bytes.data(), Size(Bytes)) {}

  int32_t Read(void* Buffer, int32_t Count) override {
    Blocks.push_back(Count);
    if (Blocks.size() > FailAfter) throw EReadError("device");
    return Memory.Read(Buffer, std::min(Count, ReadLimit));
  }
  int32_t Write(const void* Buffer, int32_t Count) override {
    Blocks.push_back(Count);
    if (!Fail) return Memory.Write(Buffer, Count);
    Memory.Write(Buffer, Count / 2);  // a medium that becomes full on the way
    throw EWriteError("device");
  }
  int64_t Seek(int64_t Offset, TSeekOrigin Origin) override {
    if (Origin == TSeekOrigin::soBeginning) Offset -= Base;
    return Memory.Seek(Offset, Origin) + Base;
  }

  TMemoryStream Memory;
  int32_t ReadLimit = INT32_MAX;
  int64_t Base = 0;             // the position of the first byte
  bool Fail = false;            // when it is written to
  size_t FailAfter = SIZE_MAX;  // reading fails once this many blocks were asked for
  std::vector<int32_t> Blocks;  // what was asked for
};

TEST(ZLib, BuffersSurviveTheRoundTrip) {
  for (const size_t count : {0u, 1u, 2u, 243u, 244u, 255u, 256u, 65535u, 65536u, 300'000u}) {
    for (const bool noise : {false, true}) {
      SCOPED_TRACE(testing::Message() << count << (noise ? " of noise" : " of words"));
      const TBytes plain = Sample(count, noise);
      const TBytes packed = CompressBuf(plain.data(), Size(plain));
      for (const int32_t estimate : {0, 1, Size(plain), Size(plain) + 1000}) {
        EXPECT_EQ(Decompressed(packed, estimate), plain) << estimate;
      }
    }
  }
}

TEST(ZLib, BuffersAreThoseOfZlib) {
  EXPECT_EQ(CompressBuf(nullptr, 0), PythonEmpty);
  EXPECT_TRUE(Decompressed(PythonEmpty).empty());
  EXPECT_EQ(Text(Decompressed(PythonFox)), Fox);
  // A long run shrinks a thousandfold: the output grows in many steps of the input's size.
  const TBytes zeros(20'000'000);
  const TBytes packed = CompressBuf(zeros.data(), Size(zeros));
  EXPECT_LT(packed.size(), 20'000u);
  EXPECT_EQ(Decompressed(packed), zeros);
}

TEST(ZLib, UserBufferMustHoldItAll) {
  std::string out(Fox.size(), '?');
  DecompressToUserBuf(PythonFox.data(), Size(PythonFox), out.data(), Size(out));
  EXPECT_EQ(out, Fox);
  DecompressToUserBuf(PythonEmpty.data(), Size(PythonEmpty), nullptr, 0);
  for (const int32_t size : {0, 1, Size(Fox) - 1}) {
    ExpectRaises<EZlibError>("ZLib error: target buffer may be too small", [&] {
      DecompressToUserBuf(PythonFox.data(), Size(PythonFox), out.data(), size);
    });
  }
}

TEST(ZLib, BadBuffersAreRefused) {
  std::vector<TBytes> bad = {{}, {0x78}, {'P', 'K', 3, 4}, PythonDictionary};
  for (size_t cut = 1; cut < PythonFox.size(); ++cut)
    bad.emplace_back(PythonFox.begin(), PythonFox.end() - cut);
  bad.push_back(PythonFox);
  bad.back().back() ^= 1;  // the checksum
  bad.push_back(PythonFox);
  bad.back()[5] ^= 0x40;  // the data
  char out[1000];
  for (const TBytes& bytes : bad) {
    SCOPED_TRACE(testing::PrintToString(bytes));
    ExpectRaises<EDecompressionError>("error", [&] { Decompressed(bytes); });
    ExpectRaises<EDecompressionError>("error", [&] { Decompressed(bytes, 135); });
    ExpectRaises<EDecompressionError>(
        "error", [&] { DecompressToUserBuf(bytes.data(), Size(bytes), out, sizeof out); });
  }
  ExpectRaises<ECompressionError>("error", [] { CompressBuf(nullptr, 1); });
  ExpectRaises<Exception>("Incorrect parameters", [] { CompressBuf("", -1); });
  ExpectRaises<Exception>("Incorrect parameters", [] { DecompressBuf("", -1); });
  ExpectRaises<Exception>("Incorrect parameters", [] { DecompressBuf("", 0, -1); });
  ExpectRaises<Exception>("Incorrect parameters", [] { DecompressToUserBuf("", 0, nullptr, -1); });
}

TEST(ZLib, StreamsTakeAnyChunksAndOthersMovingTheWrappedStream) {
  const TBytes plain = Sample(700'000, true);
  std::mt19937 random(5);
  for (const auto level : {TCompressionLevel::clNone, TCompressionLevel::clFastest,
                           TCompressionLevel::clDefault, TCompressionLevel::clMax}) {
    TTestStream file(TBytes{1, 2, 3});
    file.Base = int64_t{5} << 30;  // positions that 32 bits don't hold
    file.Memory.SetPosition(3);
    {
      TCompressionStream packer(level, file);
      for (size_t at = 0; at < plain.size();) {
        const auto count = std::min<size_t>(random() % 150'000, plain.size() - at);
        packer.WriteBuffer(plain.data() + at, static_cast<int32_t>(count));
        at += count;
        EXPECT_EQ(packer.Seek(0, TSeekOrigin::soCurrent), static_cast<int64_t>(at));
        file.Memory.SetPosition(random() % 10);
      }
    }
    EXPECT_EQ(file.Memory.GetMemory()[2], 3) << "what stood before the compressed data";
    EXPECT_EQ(file.Memory.GetPosition(), file.Memory.GetSize());

    file.Memory.SetPosition(3);
    TDecompressionStream unpacker(file);
    TBytes got(plain.size() + 1);
    size_t at = 0;
    while (!unpacker.GetComplete() && at < plain.size()) {
      file.ReadLimit = static_cast<int32_t>(random() % 100'000 + 1);
      const auto count = std::min<size_t>(random() % 150'000, got.size() - at);
      at += static_cast<size_t>(unpacker.Read(got.data() + at, static_cast<int32_t>(count)));
      file.Memory.SetPosition(random() % 10);
    }
    EXPECT_EQ(unpacker.Read(got.data(), 1), 0);
    EXPECT_TRUE(unpacker.GetComplete());
    EXPECT_EQ(unpacker.GetCompressedBytes(), file.Memory.GetSize() - 3);
    got.pop_back();
    EXPECT_TRUE(got == plain);
  }
}

TEST(ZLib, DataCanBeStoredOnlyAndThereIsNoFifthLevel) {
  TMemoryStream memory;
  TCompressionStream packer(TCompressionLevel::clNone, memory);
  packer.WriteBuffer(Fox.data(), Size(Fox));
  packer.Finish();
  EXPECT_GT(memory.GetSize(), Size(Fox));
  ExpectRaises<Exception>("Incorrect parameters",
                          [&] { TCompressionStream(TCompressionLevel{4}, memory); });
}

TEST(ZLib, BlocksAndProgress) {
  TTestStream file;
  int calls = 0;
  auto count = [&](TObject*) { ++calls; };
  const TBytes plain = Sample(200'000, true);
  {
    TCompressionStream packer(TCompressionLevel::clFastest, file);
    packer.OnProgress = TNotifyEvent::To(count);
    EXPECT_EQ(packer.GetCompressionRate(), 0);
    EXPECT_EQ(packer.Write(plain.data(), -1), 0);
    packer.WriteBuffer(plain.data(), Size(plain));
    EXPECT_EQ(calls, 3);
    packer.Finish();
    EXPECT_EQ(calls, 3);
    const double stored = static_cast<double>(file.Memory.GetSize());
    EXPECT_NEAR(packer.GetCompressionRate(), (1 - stored / 200'000) * 100, 1e-4);
    ExpectRaises<ECompressionError>("Invalid stream operation",
                                    [&] { packer.Write(plain.data(), 1); });
  }
  const int32_t last = static_cast<int32_t>(file.Memory.GetSize()) - 3 * 65536;
  EXPECT_EQ(file.Blocks, (std::vector<int32_t>{65536, 65536, 65536, last}));

  file.Memory.SetPosition(0);
  file.Blocks.clear();
  TDecompressionStream unpacker(file);
  unpacker.OnProgress = TNotifyEvent::To(count);
  EXPECT_TRUE(file.Blocks.empty()) << "nothing is read before it is asked for";
  EXPECT_EQ(unpacker.Seek(INT64_MAX, TSeekOrigin::soCurrent), 200'000);
  EXPECT_EQ(file.Blocks, std::vector<int32_t>(4, 65536));
  EXPECT_EQ(calls, 7);
}

TEST(ZLib, StreamsRefuseWhatTheyCannotDo) {
  TMemoryStream memory(PythonFox.data(), Size(PythonFox));
  TDecompressionStream unpacker(memory);
  TMemoryStream out;
  TCompressionStream packer(TCompressionLevel::clMax, out);
  packer.WriteBuffer("ab", 2);
  EXPECT_EQ(unpacker.Seek(10, TSeekOrigin::soBeginning), 10);
  char byte = 0;
  const struct {
    int64_t Offset;
    TSeekOrigin Origin;
  } table[] = {{0, TSeekOrigin::soEnd},       {1, TSeekOrigin::soEnd},
               {-1, TSeekOrigin::soCurrent},  {-1, TSeekOrigin::soBeginning},
               {9, TSeekOrigin::soBeginning}, {10, TSeekOrigin::soBeginning}};
  for (const auto& row : table) {
    SCOPED_TRACE(testing::Message() << row.Offset << " from " << static_cast<int>(row.Origin));
    ExpectRaises<EDecompressionError>(sInvalidStreamOp,
                                      [&] { unpacker.Seek(row.Offset, row.Origin); });
    ExpectRaises<ECompressionError>(sInvalidStreamOp, [&] { packer.Seek(row.Offset, row.Origin); });
  }
  ExpectRaises<ECompressionError>(sInvalidStreamOp,
                                  [&] { packer.Seek(1, TSeekOrigin::soCurrent); });
  ExpectRaises<ECompressionError>(sInvalidStreamOp,
                                  [&] { packer.Seek(0, TSeekOrigin::soBeginning); });
  ExpectRaises<ECompressionError>(sInvalidStreamOp, [&] { packer.Read(&byte, 1); });
  ExpectRaises<EDecompressionError>(sInvalidStreamOp, [&] { unpacker.Write(&byte, 1); });
  EXPECT_EQ(packer.GetPosition(), 2);
  EXPECT_EQ(unpacker.GetPosition(), 10);
}

TEST(ZLib, DecompressionSeeksForwardAndBackToTheBeginning) {
  const TBytes plain = Sample(50'000, false);
  const TBytes packed = CompressBuf(plain.data(), Size(plain));
  TMemoryStream memory(packed.data(), Size(packed));
  TDecompressionStream unpacker(memory);
  for (int round = 0; round < 2; ++round) {
    uint8_t got[3];
    EXPECT_EQ(unpacker.Seek(0, TSeekOrigin::soBeginning), 0);
    EXPECT_EQ(unpacker.Seek(4096 * 3 + 5, TSeekOrigin::soBeginning), 4096 * 3 + 5);
    unpacker.ReadBuffer(got, 3);
    EXPECT_TRUE(std::equal(got, got + 3, plain.begin() + 4096 * 3 + 5));
    EXPECT_EQ(unpacker.Seek(20'000, TSeekOrigin::soCurrent), 4096 * 3 + 8 + 20'000);
    unpacker.ReadBuffer(got, 3);
    EXPECT_TRUE(std::equal(got, got + 3, plain.begin() + 4096 * 3 + 8 + 20'000));
    EXPECT_EQ(unpacker.Seek(0, TSeekOrigin::soCurrent), 4096 * 3 + 11 + 20'000);
    EXPECT_FALSE(unpacker.GetComplete());
    EXPECT_EQ(unpacker.Seek(90'000, TSeekOrigin::soBeginning), 50'000) << "behind the end";
    EXPECT_TRUE(unpacker.GetComplete());
  }
  // Starting over goes to the source's beginning, not to where the data began.
  TBytes shifted = PythonFox;
  shifted.insert(shifted.begin(), {'P', 'K'});
  TMemoryStream other(shifted.data(), Size(shifted));
  other.SetPosition(2);
  TDecompressionStream second(other);
  char byte = 0;
  second.ReadBuffer(&byte, 1);
  second.Seek(0, TSeekOrigin::soBeginning);
  EXPECT_EQ(other.GetPosition(), 0);
  ExpectRaises<ECompressionError>("error", [&] { second.Read(&byte, 1); });
}

TEST(ZLib, DecompressionStopsAtTheEndAndTellsWhetherItIsOne) {
  TBytes bytes = PythonFox;
  bytes.insert(bytes.end(), {9, 9, 9});
  for (int32_t size = 0; size <= Size(bytes); ++size) {
    SCOPED_TRACE(size);
    TMemoryStream memory(bytes.data(), size);
    TDecompressionStream unpacker(memory);
    std::string got(Fox.size() + 10, '\0');
    got.resize(static_cast<size_t>(unpacker.Read(got.data(), Size(got))));
    EXPECT_EQ(got, Fox.substr(0, got.size()));
    EXPECT_EQ(unpacker.GetPosition(), static_cast<int64_t>(got.size()));
    EXPECT_EQ(unpacker.GetComplete(), size >= Size(PythonFox));
    EXPECT_EQ(unpacker.GetCompressedBytes(), std::min(size, Size(PythonFox)));
    EXPECT_TRUE(got == Fox || !unpacker.GetComplete());
  }
}

TEST(ZLib, DamagedStreamsRaiseTheCompressionError) {
  std::vector<TBytes> bad = {{'P', 'K', 3, 4}, PythonDictionary, PythonFox};
  bad.back().back() ^= 1;
  for (const TBytes& bytes : bad) {
    TMemoryStream memory(bytes.data(), Size(bytes));
    TDecompressionStream unpacker(memory);
    char out[1000];
    ExpectRaises<ECompressionError>("error", [&] { unpacker.Read(out, sizeof out); });
    EXPECT_FALSE(unpacker.GetComplete());
  }
}

TEST(ZLib, ExceptionsOfTheWrappedStreamPassAndLoseNothing) {
  const TBytes plain = Sample(300'000, true);
  TTestStream file;
  TCompressionStream packer(TCompressionLevel::clFastest, file);
  int calls = 0;
  auto count = [&](TObject*) { ++calls; };
  packer.OnProgress = TNotifyEvent::To(count);
  file.Fail = true;
  ExpectRaises<EWriteError>("device", [&] { packer.Write(plain.data(), Size(plain)); });
  const auto taken = static_cast<int32_t>(packer.GetPosition());
  EXPECT_GT(taken, 0);
  EXPECT_LT(taken, Size(plain));
  ExpectRaises<EWriteError>("device",
                            [&] { packer.Write(plain.data() + taken, Size(plain) - taken); });
  EXPECT_EQ(packer.GetPosition(), taken);
  ExpectRaises<EWriteError>("device", [&] { packer.Finish(); });
  EXPECT_EQ(calls, 0);
  file.Fail = false;
  packer.WriteBuffer(plain.data() + taken, Size(plain) - taken);
  EXPECT_EQ(calls, 4) << "the block that had failed counts, too";
  file.Fail = true;
  ExpectRaises<EWriteError>("device", [&] { packer.Finish(); });
  file.Fail = false;
  packer.Finish();
  EXPECT_TRUE(Decompressed(file.Memory) == plain);

  file.Fail = true;  // nothing comes out of the destructor
  { TCompressionStream lost(TCompressionLevel::clMax, file); }
}

TEST(ZLib, WhatCameBeforeTheSourceFailedIsCounted) {
  const TBytes plain = Sample(300'000, true);
  const TBytes packed = CompressBuf(plain.data(), Size(plain));
  TTestStream file(packed);
  file.FailAfter = 1;
  TDecompressionStream unpacker(file);
  TBytes got(plain.size());
  ExpectRaises<EReadError>("device", [&] { unpacker.Read(got.data(), Size(got)); });
  const auto came = static_cast<int32_t>(unpacker.Seek(0, TSeekOrigin::soCurrent));
  EXPECT_GT(came, 0);
  EXPECT_LT(came, Size(plain));
  EXPECT_TRUE(std::equal(got.begin(), got.begin() + came, plain.begin()));
  file.FailAfter = SIZE_MAX;
  unpacker.ReadBuffer(got.data() + came, Size(got) - came);
  EXPECT_TRUE(got == plain);
}

TEST(ZLib, DecompressBufIgnoresBytesBehindTheEnd) {
  TBytes bytes = PythonFox;
  bytes.insert(bytes.end(), {0x78, 0x9c, 9});
  EXPECT_EQ(Text(Decompressed(bytes)), Fox);
  EXPECT_EQ(Text(Decompressed(bytes, Size(Fox))), Fox);
}

TEST(ZLib, AnExceptionOfTheProgressEventLeavesTheStreamUsable) {
  const TBytes plain = Sample(200'000, true);
  TMemoryStream memory;
  {
    TCompressionStream packer(TCompressionLevel::clNone, memory);
    auto stop = [](TObject*) { throw Exception("stop"); };
    packer.OnProgress = TNotifyEvent::To(stop);
    ExpectRaises<Exception>("stop", [&] { packer.Write(plain.data(), Size(plain)); });
    packer.OnProgress = nullptr;
    const auto taken = static_cast<int32_t>(packer.GetPosition());
    packer.WriteBuffer(plain.data() + taken, Size(plain) - taken);
  }
  EXPECT_TRUE(Decompressed(memory) == plain);
}

}  // namespace
}  // namespace velox
