#include "velox/runtime/velStream.hpp"

#include <gtest/gtest.h>

#include <limits>
#include <string>

namespace velox {
namespace {

TEST(MemoryStream, WritesReadsAndSeeks) {
  TMemoryStream stream;
  stream.WriteBuffer("hello world", 11);
  EXPECT_EQ(stream.GetSize(), 11);
  EXPECT_EQ(stream.Seek(-5, TSeekOrigin::soEnd), 6);
  char text[16] = "";
  EXPECT_EQ(stream.Read(text, 16), 5);
  EXPECT_EQ(std::string(text, 5), "world");
  EXPECT_EQ(stream.Read(text, 16), 0);
  EXPECT_THROW(stream.ReadBuffer(text, 1), EReadError);
  EXPECT_THROW(stream.Seek(-1, TSeekOrigin::soBeginning), EStreamError);
}

TEST(MemoryStream, WritingBehindTheEndFillsTheGapWithZeros) {
  TMemoryStream stream("ab", 2);
  stream.SetPosition(4);
  stream.WriteBuffer("c", 1);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(stream.GetMemory()), 5),
            std::string("ab\0\0c", 5));
  stream.SetSize(1);
  EXPECT_EQ(stream.GetPosition(), 1);
}

TEST(MemoryStream, RefusesWhatItCannotHold) {
  TMemoryStream stream;
  stream.SetPosition(std::numeric_limits<int32_t>::max());
  EXPECT_THROW(stream.Write("x", 1), EStreamError);
  stream.SetPosition(std::numeric_limits<int64_t>::max());
  EXPECT_THROW(stream.Seek(1, TSeekOrigin::soCurrent), EStreamError);
  EXPECT_EQ(stream.Read(nullptr, 1), 0);
  EXPECT_EQ(stream.GetSize(), 0);
  EXPECT_THROW(TMemoryStream("ab", -1), Exception);
}

}  // namespace
}  // namespace velox
