#include "velox/codecs/velIntelHex.hpp"

#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <limits>
#include <memory>
#include <new>
#include <string_view>
#include <system_error>
#include <utility>

#include "velox/codecs/velBinary.hpp"
#include "velox/codecs/velHash.hpp"
#include "velox/foundation/velSysUtils.hpp"
#include "velox/runtime/velException.hpp"
#include "velox/runtime/velFormat.hpp"
#include "velox/runtime/velMessages.hpp"

namespace velox {
namespace {

static_assert(std::endian::native == std::endian::little,
              "addresses are swapped between the text's order and the processor's");

constexpr uint8_t Nothing = 0xFF;
constexpr uint32_t SegmentSize = 0x10000;
constexpr uint32_t LargestSize = std::numeric_limits<int32_t>::max();
// The most room that growing takes beyond what is needed at the moment.
constexpr uint32_t LargestSpare = 16 << 20;
// Fewer bytes of 0xFF than this between data are saved as data: a new record would cost more.
constexpr uint32_t SplittingGap = 6;
constexpr uint32_t BytesPerLine = 16;

enum TRecordType : uint8_t {
  rtData = 0,
  rtEndOfFile = 1,
  rtExtendedLinearAddress = 4,
  rtStartLinearAddress = 5
};

// Offsets of a record's fields, and what it has besides its data.
constexpr size_t LengthAt = 0;
constexpr size_t AddressAt = 1;
constexpr size_t TypeAt = 3;
constexpr size_t DataAt = 4;
constexpr int32_t Overhead = 5;

uint16_t LoadWord(const uint8_t* At) noexcept {
  uint16_t value;
  std::memcpy(&value, At, sizeof value);
  return value;
}

void StoreWord(uint8_t* At, uint16_t Value) noexcept { std::memcpy(At, &Value, sizeof Value); }

std::string_view Trim(std::string_view Text) noexcept {
  const auto blank = [](char c) { return static_cast<unsigned char>(c) <= ' '; };
  while (!Text.empty() && blank(Text.front())) Text.remove_prefix(1);
  while (!Text.empty() && blank(Text.back())) Text.remove_suffix(1);
  return Text;
}

struct TCloseFile {
  void operator()(std::FILE* File) const noexcept { std::fclose(File); }
};
using TFile = std::unique_ptr<std::FILE, TCloseFile>;

std::string LastReason() { return std::generic_category().message(errno); }

// The lines of a text that comes in parts. CR LF counts as one end, whether or not a part ends
// within it.
class TLineSplitter {
 public:
  void Add(std::string_view Part) {
    while (!Part.empty()) {
      if (AfterReturn_ && Part.front() == '\n') Part.remove_prefix(1);
      AfterReturn_ = false;
      const auto end =
          std::find_if(Part.begin(), Part.end(), [](char c) { return c == '\r' || c == '\n'; });
      Line_.append(Part.begin(), end);
      if (end == Part.end()) return;
      AfterReturn_ = *end == '\r';
      EndLine();
      Part.remove_prefix(static_cast<size_t>(end - Part.begin()) + 1);
    }
  }

  TStrings Finish() {
    if (!Line_.empty()) EndLine();
    return std::move(Lines_);
  }

 private:
  void EndLine() {
    Lines_.push_back(Line_);
    Line_.clear();
  }

  TStrings Lines_;
  std::string Line_;
  bool AfterReturn_ = false;
};

TStrings ReadLines(const std::string& FileName) {
  const TFile file(std::fopen(FileName.c_str(), "rb"));
  if (file == nullptr) {
    throw EFOpenError(Format(messages::seCannotOpenFile, FileName.c_str(), LastReason().c_str()));
  }
  TLineSplitter splitter;
  std::array<char, 65536> chunk;
  while (const size_t count = std::fread(chunk.data(), 1, chunk.size(), file.get())) {
    splitter.Add({chunk.data(), count});
  }
  if (std::ferror(file.get()))
    throw EReadError(std::string(messages::seStreamRead) + ". " + LastReason());
  return splitter.Finish();
}

// At least doubles what is there when it doesn't suffice, so that many small blocks cost linear
// time too.
void ReserveLines(TStrings& Lines, size_t Count) {
  const size_t needed = Lines.size() + Count;
  if (needed > Lines.capacity()) Lines.reserve(std::max(needed, 2 * Lines.capacity()));
}

bool WriteLines(std::FILE* File, const TStrings& Lines) {
  for (const std::string& line : Lines) {
    if (std::fwrite(line.data(), 1, line.size(), File) != line.size() ||
        std::fputs("\r\n", File) < 0)
      return false;
  }
  return true;
}

}  // namespace

TIntelHex::TIntelHex() = default;
TIntelHex::~TIntelHex() = default;

void TIntelHex::Clear() noexcept { Buffer_ = std::vector<uint8_t>(); }

void TIntelHex::SetBufferSize(uint32_t Size) {
  if (Size > LargestSize) throw Exception(messages::seImageTooLarge);
  // Doubling a large image could ask for twice the memory that it needs, so there the room grows by
  // steps.
  const uint64_t capacity = Buffer_.capacity();
  const uint64_t roomy = std::min<uint64_t>({2 * capacity, capacity + LargestSpare, LargestSize});
  try {
    if (Size > capacity) Buffer_.reserve(static_cast<size_t>(std::max<uint64_t>(Size, roomy)));
    Buffer_.resize(Size, Nothing);
  } catch (const std::exception&) {
    throw EOutOfMemory();
  }
}

void TIntelHex::RequireBufferSize(uint64_t Size) {
  if (Size <= Buffer_.size()) return;
  if (Size > LargestSize) throw Exception(messages::seImageTooLarge);
  SetBufferSize(static_cast<uint32_t>(Size));
}

void TIntelHex::ReadBuffer(int32_t Offset, int32_t Count, void* Dest) const noexcept {
  if (Count > 0) std::memcpy(Dest, Buffer_.data() + Offset, static_cast<size_t>(Count));
}

std::optional<TIntelHexBlock> TIntelHex::FindBlock(uint32_t From) const noexcept {
  const uint32_t size = GetBufferSize();
  const auto nextData = [&](uint32_t at) {
    return at + static_cast<uint32_t>(TestMemoryAndGetUnmatchedOffsetEx(
                    Nothing, Buffer_.data() + at, static_cast<int32_t>(size - at)));
  };
  const auto nextGap = [&](uint32_t at) {
    return at + static_cast<uint32_t>(TestMemoryAndGetMatchedOffsetEx(
                    Nothing, Buffer_.data() + at, static_cast<int32_t>(size - at)));
  };
  if (From >= size) return std::nullopt;
  const uint32_t start = nextData(From);
  if (start == size) return std::nullopt;
  for (uint32_t position = start;;) {
    const uint32_t end = nextGap(position);
    const uint32_t next = nextData(end);
    if (next == size || next - end >= SplittingGap) return TIntelHexBlock{start, end - 1};
    position = next;
  }
}

int32_t TIntelHex::DecodeLine(const std::string& Line, void* Record) {
  if (Line.empty() || Line[0] != ':') throw Exception(Format(messages::seColonExpected, 1));
  auto* next = static_cast<uint8_t*>(Record);
  for (size_t i = 1; i < Line.size(); i += 2) {
    uint8_t high = 0;
    uint8_t low = 0;
    const bool single = i + 1 == Line.size();
    if (!TryDigitToByte(Line[i], high) || (!single && !TryDigitToByte(Line[i + 1], low))) {
      throw Exception(Format(messages::seHexByteExpected, static_cast<int>(i + 1)));
    }
    *next++ = static_cast<uint8_t>(single ? high : high << 4 | low);
  }
  return static_cast<int32_t>(next - static_cast<uint8_t*>(Record));
}

void TIntelHex::CheckRecord(int32_t Size, void* Record) {
  auto* bytes = static_cast<uint8_t*>(Record);
  if (Size < Overhead || Size != bytes[LengthAt] + Overhead)
    throw Exception(messages::seIncorrectRecordLength);
  if (TChecksum8::GetInstance()->CalculateThreadSafe(bytes, Size) != 0) {
    throw Exception(messages::seIncorrectRecordChecksum);
  }
  const uint8_t type = bytes[TypeAt];
  if (type != rtData && type != rtEndOfFile && type != rtExtendedLinearAddress &&
      type != rtStartLinearAddress) {
    throw Exception(messages::seIncorrectRecordType);
  }
  StoreWord(bytes + AddressAt, BSwap(LoadWord(bytes + AddressAt)));
}

void TIntelHex::LoadFromStrings(const TStrings& Lines) {
  Clear();
  SetBufferSize(SegmentSize);
  uint32_t base = 0;
  uint32_t highestEnd = 0;
  std::string line;
  std::vector<uint8_t> record;
  for (size_t i = 0; i < Lines.size(); ++i) {
    line = Trim(Lines[i]);
    if (line.empty()) continue;
    try {
      record.resize(line.size() / 2);
      CheckRecord(DecodeLine(line, record.data()), record.data());
      if (record[TypeAt] == rtEndOfFile) break;
      StoreRecord(record.data(), base, highestEnd);
    } catch (const Exception& e) {
      throw Exception(Format(messages::seLineError, static_cast<int>(i + 1), e.what()));
    }
  }
  SetBufferSize(highestEnd);
  Buffer_.shrink_to_fit();  // an address record far up opens a segment that may stay empty
}

void TIntelHex::StoreRecord(const uint8_t* Record, uint32_t& Base, uint32_t& HighestEnd) {
  const uint8_t length = Record[LengthAt];
  if (Record[TypeAt] == rtData) {
    const uint64_t start = uint64_t{Base} + LoadWord(Record + AddressAt);
    RequireBufferSize(start + length);
    std::memcpy(Buffer_.data() + start, Record + DataAt, length);
    HighestEnd = std::max(HighestEnd, static_cast<uint32_t>(start + length));
  } else if (Record[TypeAt] == rtExtendedLinearAddress) {
    if (length != sizeof(uint16_t)) throw Exception(messages::seIncorrectRecordLength);
    Base = uint32_t{BSwap(LoadWord(Record + DataAt))} * SegmentSize;
    RequireBufferSize(uint64_t{Base} + SegmentSize);
  }
}

void TIntelHex::LoadFromFile(const std::string& FileName) { LoadFromStrings(ReadLines(FileName)); }

void TIntelHex::SaveToStrings(TStrings& Lines) const {
  uint32_t segment = 0;
  for (auto block = FindBlock(0); block; block = FindBlock(block->EndAddress + 1)) {
    SaveBlockToStrings(segment, block->StartAddress, block->EndAddress, Lines);
  }
  GetLine(nullptr, 0, Lines.emplace_back(), rtEndOfFile, 0);
}

void TIntelHex::SaveToFile(const std::string& FileName) const {
  TStrings lines;
  SaveToStrings(lines);
  TFile file(std::fopen(FileName.c_str(), "wb"));
  if (file == nullptr) {
    throw EFCreateError(
        Format(messages::seCannotCreateFile, FileName.c_str(), LastReason().c_str()));
  }
  // What is still in the stream's buffer can fail to be written as well, so closing tells whether
  // all went well.
  const bool written = WriteLines(file.get(), lines);
  if (std::fclose(file.release()) == 0 && written) return;
  const std::string reason = LastReason();
  std::remove(FileName.c_str());
  throw EWriteError(std::string(messages::seStreamWrite) + ". " + reason);
}

void TIntelHex::GetLine(const void* Data, uint8_t Length, std::string& Line, uint8_t RecordType,
                        uint16_t Address) {
  std::array<uint8_t, 255 + Overhead> record;
  record[LengthAt] = Length;
  StoreWord(&record[AddressAt], BSwap(Address));
  record[TypeAt] = RecordType;
  if (Length > 0) std::memcpy(&record[DataAt], Data, Length);
  TChecksum8::GetInstance()->CalculateAndAppendThreadSafe(record.data(),
                                                          static_cast<int32_t>(DataAt) + Length);
  Line.assign(1, ':');
  Line += BinToHex(record.data(), Length + Overhead, "", "", "", "");
}

void TIntelHex::SaveBlockToStrings(uint32_t& Segment, uint32_t StartAddress, uint32_t EndAddress,
                                   TStrings& Lines) const {
  if (EndAddress >= Buffer_.size()) throw Exception(messages::seIncorrectParameters);
  if (StartAddress > EndAddress) return;
  ReserveLines(Lines, (EndAddress - StartAddress) / BytesPerLine + 1);
  while (StartAddress <= EndAddress) {
    const uint32_t segment = StartAddress / SegmentSize;
    const uint32_t segmentEnd = std::min((segment + 1) * SegmentSize - 1, EndAddress);
    if (segment != Segment) {
      Segment = segment;
      const uint16_t value = BSwap(static_cast<uint16_t>(segment));
      GetLine(&value, sizeof value, Lines.emplace_back(), rtExtendedLinearAddress, 0);
    }
    for (; StartAddress <= segmentEnd; StartAddress += BytesPerLine) {
      uint32_t first = StartAddress;
      uint32_t end = std::min(StartAddress + BytesPerLine, segmentEnd + 1);
      while (first < end && Buffer_[first] == Nothing) ++first;
      while (first < end && Buffer_[end - 1] == Nothing) --end;
      if (first == end) continue;
      GetLine(&Buffer_[first], static_cast<uint8_t>(end - first), Lines.emplace_back(), rtData,
              static_cast<uint16_t>(first));
    }
    StartAddress = segmentEnd + 1;
  }
}

}  // namespace velox
