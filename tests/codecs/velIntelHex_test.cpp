#include "velox/codecs/velIntelHex.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "tests/support/message_of.hpp"
#include "velox/runtime/velException.hpp"
#include "velox/runtime/velFormat.hpp"

namespace velox {
namespace {

using test::MessageOf;
using TBytes = std::vector<uint8_t>;
/// Runs of bytes by their addresses.
using TRuns = std::map<uint32_t, TBytes>;

void Assign(TIntelHex& Image, const TRuns& Runs) {
  for (const auto& [start, bytes] : Runs) {
    Image.SetBufferSize(static_cast<uint32_t>(start + bytes.size()));
    std::copy(bytes.begin(), bytes.end(), Image.GetBuffer() + start);
  }
}

TBytes BytesOf(const TIntelHex& Image) {
  return {Image.GetBuffer(), Image.GetBuffer() + Image.GetBufferSize()};
}

TStrings Saved(const TRuns& Runs) {
  TIntelHex image;
  Assign(image, Runs);
  TStrings lines;
  image.SaveToStrings(lines);
  return lines;
}

TBytes Loaded(const TStrings& Lines) {
  TIntelHex image;
  image.LoadFromStrings(Lines);
  return BytesOf(image);
}

/// One record's line, with the right checksum.
std::string Record(uint8_t Type, uint16_t Address, const TBytes& Data) {
  std::string line;
  TIntelHex::GetLine(Data.data(), static_cast<uint8_t>(Data.size()), line, Type, Address);
  return line;
}

const std::string EndOfFile = ":00000001FF";

// The lines are those of "srec_cat in.bin -binary -exclude ... -o - -intel", checked record by
// record.
TEST(IntelHex, SavesRunsOfData) {
  struct {
    const char* What;
    TRuns Runs;
    TStrings Lines;
  } const cases[] = {
      {"nothing", {}, {EndOfFile}},
      {"only FF", {{70000, {0xFF}}}, {EndOfFile}},
      {"a gap of five", {{0, {1}}, {6, {2}}}, {":0700000001FFFFFFFFFF02FB", EndOfFile}},
      {"a gap of six", {{0, {1}}, {7, {2}}}, {":0100000001FE", ":0100070002F6", EndOfFile}},
      {"slices count from the start of the run",
       {{3, TBytes(17, 0x11)}},
       {":10000300"
        "11111111111111111111111111111111"
        "DD",
        ":0100130011DB", EndOfFile}},
      {"FF at the ends of a slice",
       {{0, {1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 0xFF, 0xFF, 0xFF, 0xFF, 2}}},
       {":0E000000"
        "0101010101010101010101010101"
        "E4",
        ":0100120002EB", EndOfFile}},
      {"a run across two segments",
       {{0xFFFF, {1, 2}}},
       {":01FFFF000100", ":020000040001F9", ":0100000002FD", EndOfFile}},
      {"a gap across two segments",
       {{0xFFEE, TBytes(16, 1)}, {0x10001, {2}}},
       {":10FFEE00"
        "01010101010101010101010101010101"
        "F3",
        ":020000040001F9", ":0100010002FC", EndOfFile}},
      {"segments without data",
       {{0x3FFFF, {1}}, {0x1000000, {2}}},
       {":020000040003F7", ":01FFFF000100", ":020000040100F9", ":0100000002FD", EndOfFile}},
  };
  for (const auto& each : cases) EXPECT_EQ(Saved(each.Runs), each.Lines) << each.What;
}

TEST(IntelHex, SavingAppends) {
  TIntelHex image;
  TStrings lines{"kept"};
  image.SaveToStrings(lines);
  EXPECT_EQ(lines, (TStrings{"kept", EndOfFile}));
}

TEST(IntelHex, LoadsRecords) {
  struct {
    const char* What;
    TStrings Lines;
    TRuns Runs;
  } const cases[] = {
      {"no lines", {}, {}},
      {"no data", {EndOfFile}, {}},
      {"no end of file", {":0100000001FE"}, {{0, {1}}}},
      {"lines behind the end of file", {":0100000001FE", EndOfFile, "whatever"}, {{0, {1}}}},
      {"blanks, empty lines, small digits", {"", " \t:01000200ab52\t \r", "   "}, {{2, {0xAB}}}},
      {"a start address", {":0400000500000000F7", ":0100000001FE"}, {{0, {1}}}},
      {"overlapping records", {":020000000101FC", ":0100010005F9"}, {{0, {1, 5}}}},
      {"a segment left and entered again",
       {":020000040001F9", ":0100000002FD", ":020000040000FA", ":0100000001FE"},
       {{0, {1}}, {0x10000, {2}}}},
      {"data beyond the end of its segment", {":03FFFF00010203F9"}, {{0xFFFF, {1, 2, 3}}}},
      {"a record without bytes ends the image, too", {":00000200FE"}, {{0, {0xFF, 0xFF}}}},
      {"the longest record", {Record(0, 0xFF00, TBytes(255, 7))}, {{0xFF00, TBytes(255, 7)}}},
  };
  for (const auto& each : cases) {
    TIntelHex expected;
    Assign(expected, each.Runs);
    EXPECT_EQ(Loaded(each.Lines), BytesOf(expected)) << each.What;
  }
}

TEST(IntelHex, NamesTheFault) {
  struct {
    TStrings Lines;
    const char* Reason;
  } const cases[] = {
      {{"0100000001FE"}, "Line 1 : Col 1 - \":\" Expected"},
      {{"", ":0100000001FE", "", " x:"}, "Line 4 : Col 1 - \":\" Expected"},
      {{":01000000G1FE"}, "Line 1 : Col 10 - Hex byte expected"},
      {{":010000001GFE"}, "Line 1 : Col 10 - Hex byte expected"},
      {{":0100000001F "}, "Line 1 : Incorrect record checksum"},
      {{":01 000000 01FE"}, "Line 1 : Col 4 - Hex byte expected"},
      {{":0100000001F\xE9"}, "Line 1 : Col 12 - Hex byte expected"},
      {{":"}, "Line 1 : Incorrect record length"},
      {{":0100000001"}, "Line 1 : Incorrect record length"},
      {{":0100000001FE00"}, "Line 1 : Incorrect record length"},
      {{":FF00000001"}, "Line 1 : Incorrect record length"},
      {{":" + std::string(100000, '0')}, "Line 1 : Incorrect record length"},
      {{":0100000001FF"}, "Line 1 : Incorrect record checksum"},
      {{":0100000201FC"}, "Line 1 : Incorrect record type"},
      {{":020000021000EC"}, "Line 1 : Incorrect record type"},
      {{":0400000300003800C1"}, "Line 1 : Incorrect record type"},
      {{":00000006FA"}, "Line 1 : Incorrect record type"},
      {{":00000004FC"}, "Line 1 : Incorrect record length"},
      {{":02000004FFFFFC"}, "Line 1 : Image cannot exceed 2 GiB"},
      {{":020000047FFF7C"}, "Line 1 : Image cannot exceed 2 GiB"},
  };
  for (const auto& each : cases) {
    EXPECT_EQ(MessageOf([&] { Loaded(each.Lines); }), each.Reason) << each.Lines.back();
  }
}

TEST(IntelHex, AFaultLeavesWhatCameBefore) {
  TIntelHex image;
  EXPECT_THROW(image.LoadFromStrings({":0100000001FE", ":020000040001F9", ":0100000002FD", ":"}),
               Exception);
  ASSERT_EQ(image.GetBufferSize(), 0x20000u);
  EXPECT_EQ(image.GetBuffer()[0], 1);
  EXPECT_EQ(image.GetBuffer()[1], 0xFF);
  EXPECT_EQ(image.GetBuffer()[0x10000], 2);
  image.LoadFromStrings({EndOfFile});
  EXPECT_EQ(image.GetBufferSize(), 0u);
}

TEST(IntelHex, ResizingFillsWithFF) {
  TIntelHex image;
  image.SetBufferSize(4);
  std::memcpy(image.GetBuffer(), "abcd", 4);
  image.SetBufferSize(2);
  image.SetBufferSize(5);
  EXPECT_EQ(BytesOf(image), (TBytes{'a', 'b', 0xFF, 0xFF, 0xFF}));
  uint8_t part[3] = {};
  image.ReadBuffer(1, 3, part);
  EXPECT_EQ(TBytes(part, part + 3), (TBytes{'b', 0xFF, 0xFF}));
  EXPECT_THROW(image.SetBufferSize(0x80000000), Exception);
  EXPECT_EQ(image.GetBufferSize(), 5u);
  TStrings lines;
  uint32_t segment = 0;
  EXPECT_THROW(image.SaveBlockToStrings(segment, 0, 5, lines), Exception);
  image.Clear();
  EXPECT_EQ(image.GetBufferSize(), 0u);
}

TEST(IntelHex, FilesWithAnyLineEnd) {
  const std::string name = testing::TempDir() + "velox-lines.hex";
  const auto write = [&](const std::string& text) {
    std::ofstream(name, std::ios::binary) << text;
  };
  TIntelHex image;
  for (const std::string end : {"\r\n", "\n", "\r", "\r\r\n", "\n\n"}) {
    write(":0100000001FE" + end + ":0100010002FC" + end + EndOfFile);
    image.LoadFromFile(name);
    EXPECT_EQ(BytesOf(image), (TBytes{1, 2}));
    write(end + ":0100000001FE" + end + ":");
    const int line = end == "\r\r\n" || end == "\n\n" ? 5 : 3;
    EXPECT_EQ(MessageOf([&] { image.LoadFromFile(name); }),
              Format("Line %d : Incorrect record length", line));
  }
  write("");
  image.LoadFromFile(name);
  EXPECT_EQ(image.GetBufferSize(), 0u);
  Assign(image, {{0x10000, {1}}});
  image.SaveToFile(name);
  std::ifstream file(name, std::ios::binary);
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(file), {}),
            ":020000040001F9\r\n:0100000001FE\r\n:00000001FF\r\n");
  file.close();  // an open file can't be removed
  std::remove(name.c_str());
  EXPECT_THROW(image.LoadFromFile(name), EFOpenError);
  EXPECT_THROW(image.SaveToFile(name + "/no/such/folder"), EFCreateError);
  EXPECT_EQ(image.GetBufferSize(), 0x10001u);
}

// Sound texts, damaged at random: each either loads or is refused with the number of a line. The
// sanitizer's build sees whether anything is touched that should not be.
TEST(IntelHex, DamagedTextsAreLoadedOrRefused) {
  std::mt19937 random{28};
  TStrings sound;
  for (uint16_t i = 0; i < 20; ++i) {
    TBytes data(random() % 256);
    std::generate(data.begin(), data.end(), [&] { return static_cast<uint8_t>(random()); });
    sound.push_back(Record(0, static_cast<uint16_t>(random()), data));
  }
  sound.insert(sound.begin() + 10, ":020000040003F7");
  int refused = 0;
  for (int round = 0; round < 1000; ++round) {
    TStrings lines = sound;
    std::string& line = lines[random() % lines.size()];
    switch (random() % 4) {
      case 0:
        line[random() % line.size()] = static_cast<char>(random());
        break;
      case 1:
        line.resize(random() % line.size());
        break;
      case 2:
        line.insert(random() % line.size(), 1, "0123456789abcdef"[random() % 16]);
        break;
      default: {
        // A record of any kind and address with the right checksum, so that only its content can be
        // refused.
        TBytes data(random() % 4);
        std::generate(data.begin(), data.end(), [&] { return static_cast<uint8_t>(random() % 2); });
        line = Record(static_cast<uint8_t>(random() % 8), static_cast<uint16_t>(random()), data);
      }
    }
    const std::string complaint = MessageOf([&] { Loaded(lines); });
    if (complaint == "nothing raised") continue;
    ++refused;
    EXPECT_EQ(complaint.rfind("Line ", 0), 0u) << complaint;
  }
  EXPECT_GT(refused, 500);
  EXPECT_LT(refused, 1000);
}

}  // namespace
}  // namespace velox
