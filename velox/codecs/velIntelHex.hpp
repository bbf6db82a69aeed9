#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "velox/runtime/velObject.hpp"
#include "velox/runtime/velStrings.hpp"

namespace velox {

/// A run of data in an image, by the addresses of its first and its last byte.
struct TIntelHexBlock {
  uint32_t StartAddress;  ///< of the first byte
  uint32_t EndAddress;    ///< of the last byte
};

/// A memory image, such as a device's firmware, as one flat buffer, and its text form: Intel HEX
/// with 32-bit linear addresses (Intel's "Hexadecimal Object File Format", revision A, 1988,
/// its I32HEX variant).
///
/// The index in the buffer is the absolute address, so the image reaches from address 0 to its last
/// byte and takes that much memory, at most 2 GiB less one byte. A byte of 0xFF means that nothing
/// is there: such bytes are not saved, except within a stretch of data.
///
/// A record is the bytes that one line of text stands for: length n, address (two bytes, high byte
/// first), type, n bytes of data, checksum.
///
///     TIntelHex image;
///     image.LoadFromFile("firmware.hex");
///     Program(image.GetBuffer(), image.GetBufferSize());
class VELOX_API TIntelHex : public TObject {
 public:
  /// An empty image.
  TIntelHex();
  ~TIntelHex() override;

  /// Empties the buffer and gives its memory back.
  void Clear() noexcept;

  /// The image's first byte; valid until the size changes.
  uint8_t* GetBuffer() noexcept { return Buffer_.data(); }
  const uint8_t* GetBuffer() const noexcept { return Buffer_.data(); }

  /// The size in bytes. Bytes added by growing are 0xFF. Raises Exception "Image cannot exceed 2
  /// GiB", or EOutOfMemory; the image is then as it was.
  uint32_t GetBufferSize() const noexcept { return static_cast<uint32_t>(Buffer_.size()); }
  void SetBufferSize(uint32_t Size);

  /// Copies Count bytes from Offset. That they lie within the image is yours to see to: nothing is
  /// checked.
  void ReadBuffer(int32_t Offset, int32_t Count, void* Dest) const noexcept;

  /// The first run of data at or behind From, as saving sees it: fewer than 6 bytes of 0xFF don't
  /// end a run.
  std::optional<TIntelHexBlock> FindBlock(uint32_t From) const noexcept;

  /// Replaces the image by the one these lines describe; it ends with its last byte of data. Blanks
  /// around a line and empty lines don't matter, a data record without bytes counts as an end all
  /// the same, digits may be of either case. Where records overlap the later one stands. Lines
  /// behind the end-of-file record are ignored, and it may be missing. Records of type 5 (start
  /// address) are ignored, those of types 2 and 3 refused.
  ///
  /// A fault raises Exception "Line %d : %s" with the line's number (from 1) and the reason: those
  /// of DecodeLine and CheckRecord, or that the address is beyond what an image can hold. The image
  /// then has what came before, and its size is not yet cut to that.
  void LoadFromStrings(const TStrings& Lines);
  /// The same with a text file, whose lines may end in CR LF, LF or CR. Raises EFOpenError or
  /// EReadError, with the image as it was, when the file can't be read.
  void LoadFromFile(const std::string& FileName);

  /// Appends the image's text to Lines: one data record for each 16 addresses of a run of data,
  /// counted from its start, without the bytes of 0xFF at either end; an extended address where the
  /// upper half of the address changes; the end-of-file record.
  void SaveToStrings(TStrings& Lines) const;
  /// The same into a file, with lines that end in CR LF; a file that exists is emptied first.
  /// Raises EFCreateError, or EWriteError after deleting the file.
  void SaveToFile(const std::string& FileName) const;

  /// Turns a line into a record and returns its size in bytes. Record has room for half as many
  /// bytes as Line has characters. A single last digit makes a byte. Raises Exception "Col %d - ":"
  /// Expected" or "Col %d - Hex byte expected" with the column, counted from 1, of the two
  /// characters.
  static int32_t DecodeLine(const std::string& Line, void* Record);

  /// Checks a record as it came from DecodeLine and turns its address into the processor's byte
  /// order. Raises Exception "Incorrect record length", "Incorrect record checksum" or "Incorrect
  /// record type".
  static void CheckRecord(int32_t Size, void* Record);

  /// Makes Line the text of one record: ":" and upper-case digits, no line end.
  static void GetLine(const void* Data, uint8_t Length, std::string& Line, uint8_t RecordType,
                      uint16_t Address);

  /// Appends the records of the bytes from StartAddress to EndAddress, both included. Segment is
  /// the upper half of the address that readers are at, and is kept up to date. Raises Exception
  /// "Incorrect parameters" when EndAddress is not within the image.
  void SaveBlockToStrings(uint32_t& Segment, uint32_t StartAddress, uint32_t EndAddress,
                          TStrings& Lines) const;

 private:
  void RequireBufferSize(uint64_t Size);
  // Carries out a data or address record. Base and HighestEnd are the state of a load: the address
  // that the last extended address set, and the end of the data so far.
  void StoreRecord(const uint8_t* Record, uint32_t& Base, uint32_t& HighestEnd);

  std::vector<uint8_t> Buffer_;
};

}  // namespace velox
