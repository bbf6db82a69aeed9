#include <gtest/gtest.h>

#include <limits>
#include <string>
#include <vector>

#include "velox/foundation/velSysUtils.hpp"
#include "velox/runtime/velException.hpp"

namespace velox {
namespace {

TEST(SysUtilsMemory, FindsTheFirstDifferenceAtEveryPlace) {
  constexpr int32_t Largest = 27;  // three blocks of eight and a tail
  for (int32_t start = 0; start < 3; ++start) {
    for (int32_t size = 0; size <= Largest; ++size) {
      // What stands behind the end must not count.
      std::vector<uint8_t> a(start + size + 1, 0xAA), b(start + size + 1, 0xAA);
      a.back() = 0;
      uint8_t* const p = a.data() + start;
      const uint8_t* const q = b.data() + start;
      // No difference at first; then a later one, which must not win, is there already.
      for (int32_t i = size; i >= 0; --i) {
        const bool differs = i < size;
        if (differs) p[i] = 0x7F;
        EXPECT_EQ(CompareMemory(p, q, size), differs ? 1 : 0) << size << " " << i;
        EXPECT_EQ(CompareMemory(q, p, size), differs ? -1 : 0) << size << " " << i;
        EXPECT_EQ(TestMemory(0xAA, p, size), !differs);
        EXPECT_EQ(TestMemoryAndGetUnmatchedOffsetEx(0xAA, p, size), i);
        EXPECT_EQ(TestMemoryAndGetUnmatchedOffset(0xAA, p, size), differs ? i : -1);
        EXPECT_EQ(TestMemoryAndGetMatchedOffsetEx(0x7F, p, size), i);
        EXPECT_EQ(TestMemoryAndGetMatchedOffset(0x7F, p, size), differs ? i : -1);
      }
    }
  }
}

TEST(SysUtilsMemory, BytesCompareAsSignedNumbers) {
  EXPECT_EQ(CompareMemory("\x80", "\x7F", 1), -1);
  EXPECT_EQ(CompareMemory("\xFF", "\x00", 1), -1);
  EXPECT_EQ(CompareMemory("\x02\x01", "\x01\x02", 2), 1);
  EXPECT_EQ(CompareMemory(nullptr, nullptr, 0), 0);
}

TEST(SysUtilsMemory, BuffersGrowByRule) {
  constexpr int32_t Max = std::numeric_limits<int32_t>::max();
  const struct {
    int32_t Current, Required, Granularity, Expected;
  } cases[] = {
      {100, 90, 16, 112},       // kept, rounded up
      {100, 87, 1, 100},        // 100 * 7 / 8 = 87 is not below itself
      {100, 86, 1, 86},         // shrunk
      {100, 101, 16, 112},      // grown by an eighth
      {100, 200, 16, 208},      // more than an eighth
      {100, 100, 1, 100},       //
      {0, 0, 16, 0},            //
      {0, 1, 4096, 4096},       //
      {Max - 8, Max, 1, Max},   // an eighth more would not fit 32 bits
      {Max - 8, Max, 16, Max},  // nor would the next multiple
  };
  for (const auto& c : cases) {
    EXPECT_EQ(GetReallocMemorySize(c.Current, c.Required, c.Granularity), c.Expected)
        << c.Current << " " << c.Required << " " << c.Granularity;
  }
  EXPECT_THROW(GetReallocMemorySize(1, 2, 0), EDivByZero);
}

TEST(SysUtilsHex, DigitsOfBothCasesAndNothingElse) {
  const std::string digits = "0123456789ABCDEFabcdef";
  for (int code = 0; code < 256; ++code) {
    const char c = static_cast<char>(code);
    uint8_t value = 0xEE;
    const size_t place = digits.find(c);
    EXPECT_EQ(TryDigitToByte(c, value), place != std::string::npos) << code;
    if (place == std::string::npos) {
      EXPECT_EQ(value, 0xEE) << code;
      EXPECT_NO_THROW(DigitToByte(c));
    } else {
      EXPECT_EQ(value, place < 16 ? place : place - 6);
      EXPECT_EQ(DigitToByte(c), value);
    }
  }
}

TEST(SysUtilsHex, DumpsLinesOfSixteen) {
  uint8_t bytes[33];
  for (uint8_t i = 0; i < sizeof bytes; ++i) bytes[i] = static_cast<uint8_t>(i * 11);
  const std::string line1 = "> 00 0B 16 21 2C 37 42 4D | 58 63 6E 79 84 8F 9A A5\n";
  const std::string line2 = "> B0 BB C6 D1 DC E7 F2 FD | 08 13 1E 29 34 3F 4A 55\n";
  const auto dump = [&](int32_t size) { return BinToHex(bytes, size, "> ", " ", " | ", "\n"); };
  EXPECT_EQ(dump(-1), "");
  EXPECT_EQ(dump(0), "");
  EXPECT_EQ(dump(1), "00");
  EXPECT_EQ(dump(2), "> 00 0B");
  EXPECT_EQ(dump(8), line1.substr(0, 25));
  EXPECT_EQ(dump(16), line1.substr(0, line1.size() - 1));
  EXPECT_EQ(dump(17), line1 + "B0");  // the last byte goes without the prefix
  EXPECT_EQ(dump(18), line1 + "> B0 BB");
  EXPECT_EQ(dump(33), line1 + line2 + "60");
  EXPECT_EQ(BinToHex("\xAB\xCD", 2, "", "", "", ""), "ABCD");
}

}  // namespace
}  // namespace velox
