// What the runtime adds on Windows: dates, files, system texts, kept exceptions.
#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <new>
#include <string>

#include "tests/support/support.hpp"
#include "velox/runtime/velDateTime.hpp"
#include "velox/runtime/velException.hpp"
#include "velox/runtime/velFileStream.hpp"
#include "velox/runtime/velSystemMessage.hpp"

namespace velox {
namespace {

TEST(DateTime, KnownDaysHaveKnownNumbers) {
  const struct {
    WORD Year, Month, Day, Hour, Minute;
    double Expected;
  } cases[] = {{1899, 12, 30, 0, 0, 0.0},
               {1900, 1, 1, 12, 0, 2.5},
               {1970, 1, 1, 0, 0, 25569.0},
               {2000, 2, 29, 18, 0, 36585.75},
               {1899, 12, 29, 6, 0, -1.25}};
  for (const auto& c : cases) {
    SYSTEMTIME time{c.Year, c.Month, 0, c.Day, c.Hour, c.Minute, 0, 0};
    EXPECT_DOUBLE_EQ(SystemTimeToDateTime(time), c.Expected);
    const SYSTEMTIME back = DateTimeToSystemTime(c.Expected);
    EXPECT_EQ(FormatTimeStamp(back), FormatTimeStamp(time));
  }
}

TEST(DateTime, RoundsToMillisecondsAndRefusesNonsense) {
  EXPECT_EQ(FormatTimeStamp(25568.9999999999), FormatTimeStamp(25569.0));
  const SYSTEMTIME feb30{2023, 2, 0, 30, 0, 0, 0, 0};
  EXPECT_THROW(SystemTimeToDateTime(feb30), EConvertError);
  EXPECT_THROW(DateTimeToSystemTime(1e9), EConvertError);
  EXPECT_THROW(DateTimeToSystemTime(std::numeric_limits<double>::quiet_NaN()), EConvertError);
  const SYSTEMTIME stamp{2024, 3, 0, 5, 14, 7, 9, 42};
  EXPECT_EQ(FormatTimeStamp(stamp), "2024-03-05 14:07:09.042");
}

TEST(FileStream, WritesReadsAndReportsReasons) {
  const test::TTemporaryFolder folder;
  const std::string name = folder.File("data.bin");
  {
    TFileStream out(name, TFileMode::fmCreate);
    out.WriteBuffer("0123456789", 10);
    out.SetPosition(4);
    out.WriteBuffer("x", 1);
  }
  TFileStream in(name, TFileMode::fmOpenRead);
  EXPECT_EQ(in.GetSize(), 10);
  char text[10];
  in.ReadBuffer(text, 10);
  EXPECT_EQ(std::string(text, 10), "0123x56789");
  EXPECT_THROW(in.Write("y", 1), EWriteError);
  EXPECT_THROW(in.Seek(-1, TSeekOrigin::soBeginning), EStreamError);
  const std::string reason =
      test::MessageOf([&] { TFileStream(folder.File("missing"), TFileMode::fmOpenRead); });
  EXPECT_NE(reason.find("missing"), std::string::npos);
  EXPECT_NE(reason.find(SystemErrorMessage(ERROR_FILE_NOT_FOUND)), std::string::npos);
  EXPECT_THROW(TFileStream(folder.File("no\\such\\x"), TFileMode::fmCreate), EFCreateError);
}

TEST(SystemMessage, KnownAndUnknownCodes) {
  EXPECT_FALSE(SystemErrorMessage(ERROR_ACCESS_DENIED).empty());
  EXPECT_EQ(SystemErrorMessage(ERROR_ACCESS_DENIED).find('\n'), std::string::npos);
  EXPECT_EQ(SystemErrorMessage(0x2FFF1234), "Error 805245492");
}

TEST(OutOfMemory, AFailedNewRaisesTheLibrarysException) {
  volatile size_t tooMuch = static_cast<size_t>(std::numeric_limits<ptrdiff_t>::max()) - 4096;
  EXPECT_THROW(::operator delete(::operator new(tooMuch)), EOutOfMemory);
  EXPECT_EQ(::operator new(tooMuch, std::nothrow), nullptr);
}

}  // namespace
}  // namespace velox
