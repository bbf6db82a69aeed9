#include "velox/codecs/velHash.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <string>
#include <vector>

#include "velox/codecs/velBinary.hpp"
#include "velox/runtime/velException.hpp"

namespace velox {
namespace {

using TBytes = std::vector<uint8_t>;

constexpr char Digits[] = "123456789";

/// Ten thousand bytes without a short period; the values that other programs give for them stand in
/// the cases.
TBytes Pattern() {
  TBytes bytes(10'000);
  for (size_t i = 0; i < bytes.size(); ++i) {
    bytes[i] = static_cast<uint8_t>((i * i + 7 * i) >> 3);
  }
  return bytes;
}

int32_t SizeOf(const TBytes& Bytes) { return static_cast<int32_t>(Bytes.size()); }

/// "123456789" with room for a check value behind it.
TBytes DigitsWithRoom(size_t Room) {
  TBytes bytes(9 + Room, 0xEE);
  std::copy(Digits, Digits + 9, bytes.begin());
  return bytes;
}

// The parameters and check values of the CRC catalogue,
// https://reveng.sourceforge.io/crc-catalogue/all.htm.
template <class T>
struct TModel {
  const char* Name;
  T Polynomial, InitialValue;
  bool Reflect;
  T FinalXor, Check;
};

template <class TOwn, class T, size_t Count>
void ExpectCheckValues(const TModel<T> (&Models)[Count]) {
  for (const TModel<T>& model : Models) {
    SCOPED_TRACE(model.Name);
    TOwn crc(model.Polynomial, model.InitialValue, model.Reflect, model.Reflect, model.FinalXor);
    EXPECT_EQ(crc.Calculate(Digits, 9), model.Check);
    EXPECT_EQ(crc.CalculateThreadSafe(Digits, 9), model.Check);
    EXPECT_EQ(crc.GetPolynomial(), model.Polynomial);
  }
}

TEST(CRC, GivesTheCheckValuesOfTheCatalogue) {
  ExpectCheckValues<TCRC8, uint8_t>({
      {"CRC-8/SMBUS", 0x07, 0x00, false, 0x00, 0xF4},
      {"CRC-8/I-432-1", 0x07, 0x00, false, 0x55, 0xA1},
      {"CRC-8/ROHC", 0x07, 0xFF, true, 0x00, 0xD0},
      {"CRC-8/MAXIM-DOW", 0x31, 0x00, true, 0x00, 0xA1},
  });
  ExpectCheckValues<TCRC16, uint16_t>({
      {"CRC-16/XMODEM", 0x1021, 0x0000, false, 0x0000, 0x31C3},
      {"CRC-16/KERMIT", 0x1021, 0x0000, true, 0x0000, 0x2189},
      {"CRC-16/GENIBUS", 0x1021, 0xFFFF, false, 0xFFFF, 0xD64E},
      {"CRC-16/USB", 0x8005, 0xFFFF, true, 0xFFFF, 0xB4C8},
  });
  ExpectCheckValues<TCRC32, uint32_t>({
      {"CRC-32/BZIP2", 0x04C11DB7, 0xFFFFFFFF, false, 0xFFFFFFFF, 0xFC891918},
      {"CRC-32/MPEG-2", 0x04C11DB7, 0xFFFFFFFF, false, 0x00000000, 0x0376E6E7},
      {"CRC-32/ISCSI", 0x1EDC6F41, 0xFFFFFFFF, true, 0xFFFFFFFF, 0xE3069283},
      {"CRC-32/XFER", 0x000000AF, 0x00000000, false, 0x00000000, 0xBD0BE338},
  });
  ExpectCheckValues<TCRC64, uint64_t>({
      {"CRC-64/ECMA-182", 0x42F0E1EBA9EA3693, 0, false, 0, 0x6C40DF5F0B497347},
      {"CRC-64/XZ", 0x42F0E1EBA9EA3693, ~0ull, true, ~0ull, 0x995DC9BBDF1939FA},
      {"CRC-64/GO-ISO", 0x1B, ~0ull, true, ~0ull, 0xB90956C775A41001},
  });
}

TEST(CRC, NamedInstancesGiveTheirCheckValues) {
  EXPECT_EQ(TCRC8::GetInstanceIButton()->CalculateThreadSafe(Digits, 9), 0xA1);
  EXPECT_EQ(TCRC16::GetInstanceStandard()->CalculateThreadSafe(Digits, 9), 0xBB3D);
  EXPECT_EQ(TCRC16::GetInstanceCITT()->CalculateThreadSafe(Digits, 9), 0x29B1);
  EXPECT_EQ(TCRC16::GetInstanceXModem()->CalculateThreadSafe(Digits, 9), 0x0C73);
  EXPECT_EQ(TCRC32::GetInstanceStandard()->CalculateThreadSafe(Digits, 9), 0xCBF43926);
  EXPECT_EQ(TCRC64::GetInstanceStandard()->CalculateThreadSafe(Digits, 9), 0x62EC59E3F1A4F00A);
  EXPECT_EQ(TCRC16::GetInstanceCITT(), TCRC16::GetInstanceCITT());
  EXPECT_EQ(TCRC32().Calculate(Digits, 9), 0xCBF43926);
}

TEST(CRC, NoBytesGiveTheFinalValueOfTheInitialOne) {
  EXPECT_EQ(TCRC16::GetInstanceStandard()->CalculateThreadSafe(nullptr, 0), 0x0000);
  EXPECT_EQ(TCRC16::GetInstanceCITT()->CalculateThreadSafe(nullptr, 0), 0xFFFF);
  EXPECT_EQ(TCRC32().Calculate(nullptr, -1), 0u);
}

TEST(CRC, ReflectsTheResultWhenInputAndOutputDiffer) {
  // Reversals of the values for CRC-16/XMODEM, CRC-16/KERMIT and CRC-32/BZIP2 without its final
  // xor.
  EXPECT_EQ(TCRC16(0x1021, 0, false, true, 0).Calculate(Digits, 9), Reverse(uint16_t{0x31C3}));
  EXPECT_EQ(TCRC16(0x1021, 0, true, false, 0).Calculate(Digits, 9), Reverse(uint16_t{0x2189}));
  TCRC32 mixed(0x04C11DB7, 0xFFFFFFFF, false, true, 0x12345678);
  EXPECT_EQ(mixed.Calculate(Digits, 9), Reverse(uint32_t{0x0376E6E7}) ^ 0x12345678);
}

TEST(CRC, LongDataGivesWhatOtherProgramsGive) {
  // Python's zlib.crc32.
  const TBytes pattern = Pattern();
  EXPECT_EQ(TCRC32().Calculate(pattern.data(), SizeOf(pattern)), 0x473599F7u);
  const TBytes ones(100'000, 0xFF);
  EXPECT_EQ(TCRC32().Calculate(ones.data(), SizeOf(ones)), 0x68C6CEC4u);
}

/// Bit by bit, without any table, as in the definition of the parameters.
template <class T>
T BitByBit(const TCRC<T>& Model, const uint8_t* Data, int32_t Size) {
  constexpr auto Top = static_cast<T>(T{1} << (8 * sizeof(T) - 1));
  T r = Model.GetInitialValue();
  if (Model.GetReflectInput()) r = Reverse(r);  // ours starts with the register's own order
  for (int32_t i = 0; i < 8 * Size; ++i) {
    const bool bit = Data[i / 8] >> (Model.GetReflectInput() ? i % 8 : 7 - i % 8) & 1;
    if (bit) r ^= Top;
    r = static_cast<T>(r << 1 ^ ((r & Top) != 0 ? Model.GetPolynomial() : 0));
  }
  return static_cast<T>((Model.GetReflectOutput() ? Reverse(r) : r) ^ Model.GetFinalXor());
}

/// Short pieces take the plain table, long ones the derived ones in braids: whatever the size, the
/// place in memory and the pieces, the value is the one of the definition.
template <class T>
void ExpectTheDefinition(TCRC<T>&& Crc) {
  SCOPED_TRACE(testing::Message() << 8 * sizeof(T) << " bits, " << Crc.GetReflectInput());
  const TBytes pattern = Pattern();
  std::vector<int32_t> sizes{95, 96, 127, 128, 129, 1000, 4999};
  for (int32_t size = 0; size < 70; ++size) sizes.push_back(size);
  for (const int32_t size : sizes) {
    const uint8_t* data = pattern.data() + size;  // of every alignment
    const T value = BitByBit(Crc, data, size);
    ASSERT_EQ(Crc.Calculate(data, size), value) << size;
    Crc.Initialize();
    Crc.Update(data, size / 3);
    Crc.Update(data + size / 3, size - size / 3);
    ASSERT_EQ(Crc.GetCurrentCRC(), value) << size;
  }
}

TEST(CRC, AnySizeGivesTheValueOfTheDefinition) {
  for (const bool reflect : {false, true}) {
    ExpectTheDefinition<uint8_t>(TCRC8(0x31, 0x5A, reflect, reflect, 0x12));
    ExpectTheDefinition<uint16_t>(TCRC16(0x1021, 0xFFFE, reflect, true, 0x1234));
    ExpectTheDefinition<uint32_t>(TCRC32(0x1EDC6F41, ~2u, reflect, false, 1));
    ExpectTheDefinition<uint64_t>(TCRC64(0x42F0E1EBA9EA3693, ~3ull, reflect, true, 7));
  }
}

TEST(CRC, AppendsInTheOrderOfTheInput) {
  const auto appended = [](auto* crc, size_t width) {
    TBytes bytes = DigitsWithRoom(width + 1);
    crc->CalculateAndAppendThreadSafe(bytes.data(), 9);
    EXPECT_EQ(bytes.back(), 0xEE) << "one byte too many was written";
    return TBytes(bytes.begin() + 9, bytes.end() - 1);
  };
  EXPECT_EQ(appended(TCRC8::GetInstanceIButton(), 1), (TBytes{0xA1}));
  EXPECT_EQ(appended(TCRC16::GetInstanceStandard(), 2), (TBytes{0x3D, 0xBB}));
  EXPECT_EQ(appended(TCRC16::GetInstanceCITT(), 2), (TBytes{0x29, 0xB1}));
  EXPECT_EQ(appended(TCRC32::GetInstanceStandard(), 4), (TBytes{0x26, 0x39, 0xF4, 0xCB}));
  EXPECT_EQ(appended(TCRC64::GetInstanceStandard(), 8),
            (TBytes{0x62, 0xEC, 0x59, 0xE3, 0xF1, 0xA4, 0xF0, 0x0A}));
  // Reversals of the registers of CRC-16/GENIBUS and CRC-16/USB.
  TCRC16 out(0x1021, 0xFFFF, false, true, 0xFFFF);
  EXPECT_EQ(appended(&out, 2), (TBytes{0x72, 0x6B}));
  TCRC16 in(0x8005, 0xFFFF, true, false, 0xFFFF);
  EXPECT_EQ(appended(&in, 2), (TBytes{0x2D, 0x13}));
  EXPECT_THROW(TCRC32().CalculateAndAppend(nullptr, -1), Exception);
}

/// Whether intact data passes; data with a wrong bit must not.
template <class TOwn>
bool ChecksIntact(TOwn* Instance, size_t Width) {
  TBytes bytes = DigitsWithRoom(Width);
  Instance->CalculateAndAppendThreadSafe(bytes.data(), 9);
  const bool intact = Instance->CheckThreadSafe(bytes.data(), SizeOf(bytes));
  for (size_t i = 0; i < bytes.size(); ++i) {
    bytes[i] ^= 0x10;
    EXPECT_FALSE(Instance->CheckThreadSafe(bytes.data(), SizeOf(bytes))) << "byte " << i;
    bytes[i] ^= 0x10;
  }
  for (const int32_t size : {static_cast<int32_t>(Width) - 1, -1, INT32_MIN}) {
    EXPECT_FALSE(Instance->CheckThreadSafe(bytes.data(), size)) << size;
  }
  return intact;
}

TEST(CRC, ChecksDataThatEndsWithItsCRC) {
  EXPECT_TRUE(ChecksIntact(TCRC8::GetInstanceIButton(), 1));
  EXPECT_TRUE(ChecksIntact(TCRC16::GetInstanceStandard(), 2));
  EXPECT_TRUE(ChecksIntact(TCRC16::GetInstanceXModem(), 2));
  EXPECT_TRUE(ChecksIntact(TCRC32::GetInstanceStandard(), 4));
  EXPECT_TRUE(ChecksIntact(TCRC64::GetInstanceStandard(), 8));
  // Its residue, 0, is not its initial value.
  EXPECT_FALSE(ChecksIntact(TCRC16::GetInstanceCITT(), 2));
}

TEST(CRC, ChecksModelsWhoseReflectionsDiffer) {
  for (const bool in : {false, true}) {
    TCRC8 crc8(0x07, 0xFF, in, !in, 0xFF);
    TCRC16 crc16(0x1021, 0xFFFF, in, !in, 0xFFFF);
    TCRC32 crc32(0x1EDC6F41, 0, in, !in, 0);
    TCRC64 crc64(0x42F0E1EBA9EA3693, ~0ull, in, !in, ~0ull);
    EXPECT_TRUE(ChecksIntact(&crc8, 1));
    EXPECT_TRUE(ChecksIntact(&crc16, 2));
    EXPECT_TRUE(ChecksIntact(&crc32, 4));
    EXPECT_TRUE(ChecksIntact(&crc64, 8));
    // The residue is the final xor, which is not the initial value here.
    TCRC16 other(0x1021, 0xFFFF, in, !in, 0);
    EXPECT_FALSE(ChecksIntact(&other, 2));
  }
}

/// The operations with the object's own running value, on data of every kind of length.
template <class TOwn>
void ExpectOwnValueChecks(TOwn&& Crc, int32_t Width) {
  for (const int32_t size : {0, 1, 9, 16, 100}) {
    SCOPED_TRACE(testing::Message() << 8 * Width << " bits, " << size << " bytes");
    TBytes bytes = Pattern();
    Crc.Update(Digits, 4);  // must not matter
    const auto value = Crc.CalculateAndAppend(bytes.data(), size);
    EXPECT_EQ(value, Crc.CalculateThreadSafe(bytes.data(), size));
    EXPECT_EQ(value, Crc.GetCurrentCRC());
    EXPECT_TRUE(Crc.Check(bytes.data(), size + Width));
    EXPECT_FALSE(Crc.Check(bytes.data(), INT32_MIN));
    bytes[static_cast<size_t>(size)] ^= 0x10;
    EXPECT_FALSE(Crc.Check(bytes.data(), size + Width));
  }
}

TEST(CRC, ChecksWithItsOwnRunningValue) {
  ExpectOwnValueChecks(TCRC8(0x31, 0, true, true, 0), 1);
  ExpectOwnValueChecks(TCRC16(0x8005, 0, true, true, 0), 2);
  ExpectOwnValueChecks(TCRC32(), 4);
  ExpectOwnValueChecks(TCRC64(0x42F0E1EBA9EA3693, ~0ull, false, false, ~0ull), 8);
}

TEST(CRC, ThreadSafeOperationsLeaveTheRunningValue) {
  TCRC16 crc(0x8005, 0, true, true, 0);
  crc.Update(Digits, 4);
  uint16_t value = crc.GetInitialValue();
  crc.UpdateThreadSafe(Digits, 5, value);
  crc.CalculateThreadSafe(Digits, 7);
  crc.CheckThreadSafe(Digits, 9);
  TBytes bytes = DigitsWithRoom(2);
  crc.CalculateAndAppendThreadSafe(bytes.data(), 9);
  crc.Update(Digits + 4, 5);
  EXPECT_EQ(crc.GetCurrentCRC(), 0xBB3D);
  crc.UpdateThreadSafe(Digits + 5, 4, value);
  EXPECT_EQ(crc.GetFinalCRC(value), 0xBB3D);
}

TEST(CRC, PrintsItsTable) {
  TStrings lines{"kept"};
  TCRC16::GetInstanceStandard()->PrintTable(TCRCTablePrintFormat::crcTfC, lines);
  ASSERT_EQ(lines.size(), 17u);
  EXPECT_EQ(lines[0], "kept");
  // The table of CRC-16/ARC as it is published with many protocols, that of Modbus for one.
  EXPECT_EQ(lines[1],
            "0x0000, 0xC0C1, 0xC181, 0x0140, 0xC301, 0x03C0, 0x0280, 0xC241, "
            "0xC601, 0x06C0, 0x0780, 0xC741, 0x0500, 0xC5C1, 0xC481, 0x0440, ");
  EXPECT_TRUE(lines[16].ends_with("0x4100, 0x81C1, 0x8081, 0x4040, ")) << lines[16];
  lines.clear();
  TCRC8::GetInstanceIButton()->PrintTable(TCRCTablePrintFormat::crcTfC, lines);
  ASSERT_EQ(lines.size(), 16u);
  // Maxim's application note 27.
  EXPECT_TRUE(lines[0].starts_with("0x00, 0x5E, 0xBC, 0xE2, 0x61, 0x3F, ")) << lines[0];
}

TEST(Checksum, IsTheTwosComplementOfTheSum) {
  // '1' + … + '9' = 0x1DD; the pattern adds up to 0x137C1E (Python's sum).
  EXPECT_EQ(TChecksum8().Calculate(Digits, 9), 0x23);
  EXPECT_EQ(TChecksum16().Calculate(Digits, 9), 0xFE23);
  EXPECT_EQ(TChecksum32().Calculate(Digits, 9), 0xFFFFFE23);
  const TBytes pattern = Pattern();
  const uint32_t sum = 0x137C1E;
  EXPECT_EQ(TChecksum8().Calculate(pattern.data(), SizeOf(pattern)), uint8_t(0 - sum));
  EXPECT_EQ(TChecksum16().Calculate(pattern.data(), SizeOf(pattern)), uint16_t(0 - sum));
  EXPECT_EQ(TChecksum32().Calculate(pattern.data(), SizeOf(pattern)), 0 - sum);
  EXPECT_EQ(TChecksum16().Calculate(nullptr, 0), 0);
}

TEST(Checksum, AppendsAndChecks) {
  TBytes bytes = DigitsWithRoom(1);
  TChecksum8* sum8 = TChecksum8::GetInstance();
  EXPECT_EQ(sum8->CalculateAndAppendThreadSafe(bytes.data(), 9), 0x23);
  EXPECT_TRUE(TChecksum8().Check(bytes.data(), 10));
  bytes[3] ^= 1;
  EXPECT_FALSE(TChecksum8().Check(bytes.data(), 10));

  bytes = DigitsWithRoom(4);
  TChecksum32 sum32;
  EXPECT_EQ(sum32.CalculateAndAppend(bytes.data(), 9), 0xFFFFFE23);
  EXPECT_EQ(TBytes(bytes.begin() + 9, bytes.end()), (TBytes{0x23, 0xFE, 0xFF, 0xFF}));
  // The wide sums add the bytes of their value one by one, which does not lead to 0.
  EXPECT_FALSE(sum32.Check(bytes.data(), 13));
  bytes.assign(6, 0);
  TChecksum16 sum16;
  sum16.CalculateAndAppend(bytes.data(), 4);
  EXPECT_TRUE(sum16.Check(bytes.data(), 6));
}

TEST(Checksum, ThreadSafeOperationsLeaveTheSum) {
  TChecksum8 sum;
  sum.Update(Digits, 4);
  uint8_t other = 0;
  sum.UpdateThreadSafe(Digits, 9, other);
  EXPECT_EQ(other, 0xDD);
  EXPECT_EQ(sum.CalculateThreadSafe(Digits, 9), 0x23);
  sum.Update(Digits + 4, 5);
  EXPECT_EQ(sum.GetCurrentChecksum(), 0x23);
}

TEST(Adler32, GivesWhatOtherProgramsGive) {
  TAdler32Checksum adler;
  EXPECT_EQ(adler.Calculate(nullptr, 0), 1u);  // RFC 1950, section 9
  EXPECT_EQ(TAdler32Checksum::GetInstance()->Calculate(Digits, 9), 0x091E01DEu);
  // Python's zlib.adler32; the second has the largest sums between two divisions.
  const TBytes pattern = Pattern();
  EXPECT_EQ(adler.Calculate(pattern.data(), SizeOf(pattern)), 0x68447D3Cu);
  const TBytes ones(100'000, 0xFF);
  EXPECT_EQ(adler.Calculate(ones.data(), SizeOf(ones)), 0x149A302Cu);
  adler.Initialize();
  adler.Update(ones.data(), 4095);
  adler.Update(ones.data(), 1);
  adler.Update(ones.data(), SizeOf(ones) - 4096);
  EXPECT_EQ(adler.GetCurrentChecksum(), 0x149A302Cu);
}

TEST(Adler32, AppendsAndChecks) {
  TAdler32Checksum adler;
  TBytes bytes = DigitsWithRoom(4);
  EXPECT_EQ(adler.CalculateAndAppend(bytes.data(), 9), 0x091E01DEu);
  EXPECT_EQ(TBytes(bytes.begin() + 9, bytes.end()), (TBytes{0xDE, 0x01, 0x1E, 0x09}));
  EXPECT_TRUE(adler.Check(bytes.data(), 13));
  bytes[0] ^= 1;
  EXPECT_FALSE(adler.Check(bytes.data(), 13));
  EXPECT_FALSE(adler.Check(bytes.data(), 3));
  EXPECT_FALSE(adler.Check(bytes.data(), INT32_MIN));
}

TEST(Fletcher, AddsWords) {
  TFletcherChecksum fletcher;
  EXPECT_EQ(fletcher.Calculate(nullptr, 0), 1u);
  // By hand: A is 0x0202, then 0x0605; B is their sum.
  const TBytes four{1, 2, 3, 4};
  EXPECT_EQ(fletcher.Calculate(four.data(), 4), 0x08070605u);
  // By Python's integers, without any limit on the sums.
  const TBytes pattern = Pattern();
  EXPECT_EQ(fletcher.Calculate(pattern.data(), SizeOf(pattern)), 0x4A42307Eu);
  // Words of 0xFFFF are 0 modulo 65535, so A stays 1 and B counts them.
  const TBytes ones(100'000, 0xFF);
  EXPECT_EQ(fletcher.Calculate(ones.data(), SizeOf(ones)), uint32_t{50'000} << 16 | 1);
}

TEST(Fletcher, AppendsAndChecks) {
  TFletcherChecksum fletcher;
  TBytes bytes{1, 2, 3, 4, 0xEE, 0xEE, 0xEE, 0xEE};
  EXPECT_EQ(fletcher.CalculateAndAppend(bytes.data(), 4), 0x08070605u);
  EXPECT_EQ(bytes, (TBytes{1, 2, 3, 4, 0x05, 0x06, 0x07, 0x08}));
  EXPECT_TRUE(fletcher.Check(bytes.data(), 8));
  bytes[7] ^= 1;
  EXPECT_FALSE(fletcher.Check(bytes.data(), 8));
}

TEST(Fletcher, RefusesAnOddSizeAndConsumesNothing) {
  TFletcherChecksum fletcher;
  fletcher.Update("ab", 2);
  const uint32_t before = fletcher.GetCurrentChecksum();
  try {
    fletcher.Update(Digits, 9);
    FAIL() << "nothing was raised";
  } catch (const Exception& e) {
    EXPECT_STREQ(e.what(), "Size must be 2 * n");
  }
  EXPECT_EQ(fletcher.GetCurrentChecksum(), before);
}

}  // namespace
}  // namespace velox
