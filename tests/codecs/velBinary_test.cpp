#include "velox/codecs/velBinary.hpp"

#include <gtest/gtest.h>

#include <limits>
#include <vector>

namespace velox {
namespace {

TEST(Binary, SwapsBytesOfEveryWidthAndSign) {
  EXPECT_EQ(BSwap(uint16_t{0x1122}), 0x2211);
  EXPECT_EQ(BSwap(uint32_t{0x11223344}), 0x44332211u);
  EXPECT_EQ(BSwap(uint64_t{0x1122334455667788}), 0x8877665544332211u);
  EXPECT_EQ(BSwap(int16_t{0x00FF}), int16_t{-256});
  EXPECT_EQ(BSwap(int64_t{0x80}), std::numeric_limits<int64_t>::min());
}

TEST(Binary, ReversesBitsOfEveryWidthAndSign) {
  EXPECT_EQ(Reverse(uint8_t{0x01}), 0x80);
  // The polynomials of the CRC catalogue in both notations.
  EXPECT_EQ(Reverse(uint16_t{0x8408}), 0x1021);
  EXPECT_EQ(Reverse(uint32_t{0x04C11DB7}), 0xEDB88320u);
  EXPECT_EQ(Reverse(uint64_t{0x42F0E1EBA9EA3693}), 0xC96C5795D7870F42u);
  EXPECT_EQ(Reverse(int8_t{-2}), int8_t{0x7F});
  EXPECT_EQ(Reverse(int64_t{-2}), std::numeric_limits<int64_t>::max());
}

TEST(Binary, ReversesWholeBuffers) {
  const struct {
    std::vector<uint8_t> Before, After;
  } Cases[] = {
      {{}, {}},
      {{0x01}, {0x80}},
      {{0x01, 0x02, 0x03}, {0xC0, 0x40, 0x80}},
      {{0x01, 0x02, 0x03, 0xF0}, {0x0F, 0xC0, 0x40, 0x80}},
  };
  for (const auto& test : Cases) {
    std::vector<uint8_t> buffer = test.Before;
    Reverse(buffer.data(), static_cast<int32_t>(buffer.size()));
    EXPECT_EQ(buffer, test.After);
    Reverse(buffer.data(), -1);
    EXPECT_EQ(buffer, test.After);
  }
}

// The expected values follow the processor manual's description of ROL, ROR, RCL and RCR.
TEST(Binary, RotatesLikeTheProcessor) {
  EXPECT_EQ(Rol(uint8_t{0x81}, 1), 0x03);
  EXPECT_EQ(Rol(uint8_t{0x81}, 32), 0x81);
  EXPECT_EQ(Rol(uint8_t{0x81}, 255), 0xC0);
  EXPECT_EQ(Rol(uint16_t{0x8001}, 20), 0x0018);
  EXPECT_EQ(Rol(uint32_t{0x80000001}, 33), 3u);
  EXPECT_EQ(Rol(int32_t{-0x7FFFFFFF}, 4), 0x18);
  EXPECT_EQ(Ror(uint8_t{0x81}, 1), 0xC0);
  EXPECT_EQ(Ror(int8_t{-127}, 9), int8_t{-64});
  EXPECT_EQ(Ror(uint16_t{0x8001}, 17), 0xC000);
  EXPECT_EQ(Ror(uint32_t{0x80000001}, 31), 3u);
}

TEST(Binary, RotatesThroughACarryThatEntersAsZero) {
  const struct {
    uint8_t Count;
    uint8_t Left8, Right8;
    uint16_t Left16, Right16;
    uint32_t Left32, Right32;
  } Cases[] = {
      // Values 0x81, 0x8001 and 0x80000001, with the carry bit 0 above them.
      {1, 0x02, 0x40, 0x0002, 0x4000, 0x00000002, 0x40000000},
      {8, 0x40, 0x02, 0x0140, 0x0280, 0x00000140, 0x02800000},
      {9, 0x81, 0x81, 0x0280, 0x0140, 0x00000280, 0x01400000},
      {17, 0x40, 0x02, 0x8001, 0x8001, 0x00028000, 0x00014000},
      {31, 0x14, 0x28, 0x5000, 0x000A, 0xA0000000, 0x00000005},
      {32, 0x81, 0x81, 0x8001, 0x8001, 0x80000001, 0x80000001},
  };
  for (const auto& test : Cases) {
    SCOPED_TRACE(int{test.Count});
    EXPECT_EQ(Rcl(uint8_t{0x81}, test.Count), test.Left8);
    EXPECT_EQ(Rcr(uint8_t{0x81}, test.Count), test.Right8);
    EXPECT_EQ(Rcl(uint16_t{0x8001}, test.Count), test.Left16);
    EXPECT_EQ(Rcr(uint16_t{0x8001}, test.Count), test.Right16);
    EXPECT_EQ(Rcl(uint32_t{0x80000001}, test.Count), test.Left32);
    EXPECT_EQ(Rcr(uint32_t{0x80000001}, test.Count), test.Right32);
  }
  EXPECT_EQ(Rcl(int8_t{-127}, 1), int8_t{2});
}

}  // namespace
}  // namespace velox
