#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "velox/runtime/velException.hpp"
#include "velox/runtime/velMethod.hpp"
#include "velox/runtime/velStream.hpp"

/// Compression in the zlib format (RFC 1950: a header, deflate data, an Adler-32 checksum of the
/// plain bytes): whole buffers at once, or streams of any length. Calls the zlib library; nothing
/// here locks, so one object belongs to one thread at a time.
namespace velox {

/// A failure of compression or decompression.
VELOX_EXCEPTION(EZlibError, Exception);
VELOX_EXCEPTION(ECompressionError, EZlibError);
VELOX_EXCEPTION(EDecompressionError, EZlibError);

/// How much time is spent on a smaller result.
enum class TCompressionLevel : uint8_t {
  clNone,     ///< zlib's level 0: stored, not compressed
  clFastest,  ///< zlib's level 1
  clDefault,  ///< zlib's own choice between speed and size (level -1)
  clMax       ///< zlib's level 9
};

/// Compresses InBytes bytes at the best level and returns the compressed ones; zero bytes give a
/// valid, empty stream. Raises ECompressionError "error" when zlib refuses, Exception "Incorrect
/// parameters" for a negative size, EOutOfMemory.
VELOX_API std::vector<uint8_t> CompressBuf(const void* InBuf, int32_t InBytes);

/// The plain bytes of a whole compressed stream; bytes behind its end are ignored. OutEstimate is
/// the room to begin with, in bytes: the right one saves copying, any other works too, and 0 stands
/// for as much as the input has. Raises EDecompressionError "error" for damaged or incomplete data
/// and for data made with a preset dictionary, Exception "Incorrect parameters" for a negative
/// size, EOutOfMemory.
VELOX_API std::vector<uint8_t> DecompressBuf(const void* InBuf, int32_t InBytes,
                                             int32_t OutEstimate = 0);

/// Decompresses a whole stream into a buffer of BufSize bytes; bytes of it behind the plain data
/// stay undefined. Raises EZlibError "ZLib error: target buffer may be too small" when the buffer
/// is full before the end of the data, and otherwise what DecompressBuf raises.
VELOX_API void DecompressToUserBuf(const void* InBuf, int32_t InBytes, void* OutBuf,
                                   int32_t BufSize);

/// Called with the stream that makes progress.
using TNotifyEvent = TMethod<void(TObject* Sender)>;

/// What the two directions share: the wrapped stream, which they borrow. It is read or written in
/// blocks of 65536 bytes from where it stood at construction. Others may move its position between
/// calls: each call goes on where the one before it left off.
///
/// Neither direction knows the size of its plain data in advance: GetSize() raises like the seek to
/// the end it rests on.
class VELOX_API TCustomZlibStream : public TStream {
 public:
  ~TCustomZlibStream() override;

  /// Called after each block read from or written to the wrapped stream, within Read or Write. An
  /// exception of it passes to the caller of those; the stream can be used on.
  TNotifyEvent OnProgress;

 protected:
  struct TEngine;  // zlib's record, the block, and the counts of bytes

  /// Wraps a stream where it stands.
  explicit TCustomZlibStream(TStream& Strm);

  /// Calls OnProgress when it is assigned.
  virtual void Progress(TObject* Sender);

  /// Moves the wrapped stream back to FStrmPos when somebody has moved it.
  void RestorePosition();

  /// The wrapped stream, borrowed.
  TStream& FStrm;
  /// Position in the wrapped stream of the next block.
  int64_t FStrmPos;
  std::unique_ptr<TEngine> Engine_;
};

/// Compresses what is written to it into the wrapped stream.
///
///     TFileStream file("log.z", TFileMode::fmCreate);
///     TCompressionStream packed(TCompressionLevel::clMax, file);
///     packed.WriteBuffer(text.data(), size);
///     packed.Finish();
class VELOX_API TCompressionStream : public TCustomZlibStream {
 public:
  /// Raises Exception "Incorrect parameters" for an unknown level, ECompressionError "error" when
  /// zlib has no memory.
  TCompressionStream(TCompressionLevel CompressionLevel, TStream& Dest);

  /// Finishes the compressed data when Finish() has not. A destructor can't raise: call Finish() to
  /// learn of failures.
  ~TCompressionStream() override;

  /// Takes Count bytes and returns Count; a negative Count takes nothing. What the wrapped stream
  /// raises passes on; Seek(0, soCurrent) then tells how many bytes were taken, and writing those
  /// behind them tries again. Raises ECompressionError "error" when zlib refuses, "Invalid stream
  /// operation" after Finish().
  int32_t Write(const void* Buffer, int32_t Count) override;

  /// Raises ECompressionError "Invalid stream operation".
  int32_t Read(void* Buffer, int32_t Count) override;

  /// Seek(0, soCurrent) returns the number of plain bytes taken so far; all else raises
  /// ECompressionError "Invalid stream operation".
  int64_t Seek(int64_t Offset, TSeekOrigin Origin) override;

  /// Writes what is still buffered and the end mark; the wrapped stream then stands behind the
  /// compressed data. Does nothing when done already; after an exception of the wrapped stream it
  /// can be called again.
  void Finish();

  /// Percent saved so far: (1 - compressed / plain) * 100, and 0 when nothing was written. Negative
  /// for data that grew.
  float GetCompressionRate() const noexcept;

 private:
  void WriteArea();
  void WriteFullArea();

  bool Finished_ = false;
};

/// Reads the plain bytes of compressed data in the wrapped stream.
class VELOX_API TDecompressionStream : public TCustomZlibStream {
 public:
  /// Reads nothing yet. Raises EDecompressionError "error" when zlib has no memory.
  explicit TDecompressionStream(TStream& Source);
  ~TDecompressionStream() override;

  /// Reads up to Count plain bytes; fewer when the compressed data or the source ends.
  /// GetComplete() tells these two apart. Raises ECompressionError (that class, though this is the
  /// other direction) "error" for damaged data and for data made with a preset dictionary; what the
  /// source or OnProgress raises passes on. Bytes produced before are in Buffer then and count as
  /// read: Seek(0, soCurrent) tells how many came, and reading goes on behind them.
  int32_t Read(void* Buffer, int32_t Count) override;

  /// Raises EDecompressionError "Invalid stream operation".
  int32_t Write(const void* Buffer, int32_t Count) override;

  /// Seek(0, soBeginning) starts over, at position 0 of the source wherever the compressed data
  /// began at construction. A non-negative Offset from the current position, or an absolute one
  /// behind it, reads and drops the bytes up to there or up to the end of the data. All else raises
  /// EDecompressionError "Invalid stream operation". Returns the number of plain bytes produced so
  /// far.
  int64_t Seek(int64_t Offset, TSeekOrigin Origin) override;

  /// True once the end of the compressed data was reached and its checksum found right. A reader
  /// that asked for exactly as many bytes as there are may have to ask for one more.
  bool GetComplete() const noexcept { return Complete_; }

  /// Compressed bytes taken so far, without those read ahead.
  int64_t GetCompressedBytes() const noexcept;

 private:
  bool ReadBlock();
  void Skip(int64_t Count);

  bool Complete_ = false;
};

}  // namespace velox
