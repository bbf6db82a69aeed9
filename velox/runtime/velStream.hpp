#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "velox/runtime/velException.hpp"
#include "velox/runtime/velObject.hpp"

namespace velox {

/// What an offset is counted from.
enum class TSeekOrigin : uint16_t {
  soBeginning = 0,  ///< the first byte
  soCurrent = 1,    ///< the present position
  soEnd = 2         ///< behind the last byte
};

/// A sequence of bytes with a position. Sizes and positions are bytes. A stream is used by one
/// thread at a time.
class VELOX_API TStream : public TObject {
 public:
  /// Reads up to Count bytes at the position, advances it and returns how many there were; fewer
  /// than Count, or 0, at the end. A negative Count reads nothing.
  virtual int32_t Read(void* Buffer, int32_t Count) = 0;

  /// Writes at the position, advances it and returns how many bytes were taken; fewer than Count
  /// when the medium is full.
  virtual int32_t Write(const void* Buffer, int32_t Count) = 0;

  /// Moves the position and returns the new one, counted from the beginning. Behind the end is
  /// allowed.
  virtual int64_t Seek(int64_t Offset, TSeekOrigin Origin) = 0;

  /// The size; the position stays where it is.
  virtual int64_t GetSize();

  /// The position, in bytes from the beginning.
  int64_t GetPosition() { return Seek(0, TSeekOrigin::soCurrent); }
  void SetPosition(int64_t Position) { Seek(Position, TSeekOrigin::soBeginning); }

  /// Reads exactly Count bytes, or raises EReadError "Stream read error".
  void ReadBuffer(void* Buffer, int32_t Count);
  /// Writes exactly Count bytes, or raises EWriteError "Stream write error".
  void WriteBuffer(const void* Buffer, int32_t Count);
};

/// A stream over memory that it owns and grows as needed, up to 2 GiB less one byte.
class VELOX_API TMemoryStream : public TStream {
 public:
  /// Starts empty.
  TMemoryStream() = default;
  /// Starts with a copy of these bytes, positioned at the first. Raises Exception "Incorrect
  /// parameters" for a negative Size.
  TMemoryStream(const void* Data, int32_t Size);
  ~TMemoryStream() override;

  int32_t Read(void* Buffer, int32_t Count) override;
  int32_t Write(const void* Buffer, int32_t Count) override;
  int64_t Seek(int64_t Offset, TSeekOrigin Origin) override;
  int64_t GetSize() override;

  /// Cuts or extends (with zero bytes). The position moves only when it would lie behind the end.
  void SetSize(int64_t Size);

  /// The bytes; valid until the next write or change of size.
  const uint8_t* GetMemory() const noexcept { return Data_.data(); }
  uint8_t* GetMemory() noexcept { return Data_.data(); }

 private:
  std::vector<uint8_t> Data_;
  int64_t Position_ = 0;
};

}  // namespace velox
