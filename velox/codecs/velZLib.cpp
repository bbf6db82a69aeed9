#include "velox/codecs/velZLib.hpp"

// Makes zlib's input pointer a const one.
#define ZLIB_CONST
#include <zlib.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <new>

#include "velox/codecs/velZLibConst.hpp"

namespace velox {
namespace {

constexpr const char* Error = "error";
constexpr const char* ZlibVersion = "1.2.3";  // zlib compares the first digit with its own
constexpr size_t BlockSize = 65536;
constexpr int32_t SkipSize = 4096;

// No exception may pass through zlib's frames: it is told of missing memory by a null pointer.
void* Allocate(void*, unsigned Items, unsigned Size) {
  if (Size != 0 && Items > static_cast<size_t>(PTRDIFF_MAX) / Size) return nullptr;
  return ::operator new (size_t{Items} * Size, std::nothrow);
}

void Release(void*, void* Block) { ::operator delete(Block); }

z_stream NewStream() {
  z_stream stream{};
  stream.zalloc = &Allocate;
  stream.zfree = &Release;
  return stream;
}

template <class E>
int Check(int Result) {
  if (Result < 0) throw E(Error);
  return Result;
}

void InitDeflate(z_stream& Stream, TCompressionLevel CompressionLevel) {
  static constexpr int Levels[] = {Z_NO_COMPRESSION, Z_BEST_SPEED, Z_DEFAULT_COMPRESSION,
                                   Z_BEST_COMPRESSION};
  const auto index = static_cast<size_t>(CompressionLevel);
  if (index >= std::size(Levels)) throw Exception(messages::seIncorrectParameters);
  Check<ECompressionError>(deflateInit_(&Stream, Levels[index], ZlibVersion, sizeof Stream));
}

void InitInflate(z_stream& Stream) {
  Check<EDecompressionError>(inflateInit_(&Stream, ZlibVersion, sizeof Stream));
}

// A preset dictionary can't be given to this module, so data that asks for one is as good as
// damaged.
template <class E>
int CheckInflate(int Result) {
  if (Result == Z_NEED_DICT) throw E(Error);
  return Check<E>(Result);
}

// The zlib stream of one whole buffer.
class TBufferStream {
 public:
  using TEnd = int(z_stream*);

  TBufferStream(const void* InBuf, int32_t InBytes, TEnd& End) : Stream(NewStream()), End_(End) {
    if (InBytes < 0) throw Exception(messages::seIncorrectParameters);
    Stream.next_in = static_cast<const Bytef*>(InBuf);
    Stream.avail_in = static_cast<uInt>(InBytes);
  }
  ~TBufferStream() { End_(&Stream); }
  TBufferStream(const TBufferStream&) = delete;
  TBufferStream& operator=(const TBufferStream&) = delete;

  // Extends the output by Step bytes and aims zlib at them. The vector at least doubles its room
  // when it must move: a step may be a thousandth of the whole, and moving for each would copy it
  // all hundreds of times.
  void Grow(size_t Step) {
    const size_t done = Output.size() - Stream.avail_out;
    if (Step > Output.max_size() - Output.size()) throw EOutOfMemory();
    Output.resize(Output.size() + Step);
    Stream.next_out = Output.data() + done;
    Stream.avail_out = static_cast<uInt>(Output.size() - done);
  }

  std::vector<uint8_t> TakeOutput() {
    Output.resize(Output.size() - Stream.avail_out);
    Output.shrink_to_fit();
    return std::move(Output);
  }

  z_stream Stream;
  std::vector<uint8_t> Output;

 private:
  TEnd& End_;  // does nothing for a stream that was not initialised
};

constexpr size_t RoundUp(size_t Bytes) { return (Bytes + 255) / 256 * 256; }

}  // namespace

EZlibError::~EZlibError() = default;
ECompressionError::~ECompressionError() = default;
EDecompressionError::~EDecompressionError() = default;

std::vector<uint8_t> CompressBuf(const void* InBuf, int32_t InBytes) {
  TBufferStream buffer(InBuf, InBytes, deflateEnd);
  InitDeflate(buffer.Stream, TCompressionLevel::clMax);
  const auto size = static_cast<size_t>(InBytes);
  buffer.Grow(RoundUp(size + size / 10 + 12));
  while (Check<ECompressionError>(deflate(&buffer.Stream, Z_FINISH)) != Z_STREAM_END)
    buffer.Grow(256);
  return buffer.TakeOutput();
}

std::vector<uint8_t> DecompressBuf(const void* InBuf, int32_t InBytes, int32_t OutEstimate) {
  if (OutEstimate < 0) throw Exception(messages::seIncorrectParameters);
  TBufferStream buffer(InBuf, InBytes, inflateEnd);
  InitInflate(buffer.Stream);
  const size_t step = RoundUp(static_cast<size_t>(InBytes));
  buffer.Grow(OutEstimate != 0 ? static_cast<size_t>(OutEstimate) : step);
  while (CheckInflate<EDecompressionError>(inflate(&buffer.Stream, Z_NO_FLUSH)) != Z_STREAM_END) {
    // zlib stops early, with room left, only where the input ends.
    if (buffer.Stream.avail_out > 0) throw EDecompressionError(Error);
    buffer.Grow(step);
  }
  return buffer.TakeOutput();
}

void DecompressToUserBuf(const void* InBuf, int32_t InBytes, void* OutBuf, int32_t BufSize) {
  if (BufSize < 0) throw Exception(messages::seIncorrectParameters);
  TBufferStream buffer(InBuf, InBytes, inflateEnd);
  InitInflate(buffer.Stream);
  Bytef none = 0;  // zlib wants an address even for no room
  buffer.Stream.next_out = BufSize > 0 ? static_cast<Bytef*>(OutBuf) : &none;
  buffer.Stream.avail_out = static_cast<uInt>(BufSize);
  const int result = inflate(&buffer.Stream, Z_FINISH);
  if (result == Z_STREAM_END) return;
  // With room left it is the input that ended too early.
  if (result == Z_BUF_ERROR && buffer.Stream.avail_out == 0)
    throw EZlibError(sTargetBufferTooSmall);
  throw EDecompressionError(Error);
}

// zlib counts bytes in 32 bits on Windows, so the counts are kept here.
struct TCustomZlibStream::TEngine {
  z_stream Stream = NewStream();
  int64_t BytesIn = 0;
  int64_t BytesOut = 0;
  std::array<Bytef, BlockSize> Block;

  // Calls deflate or inflate.
  int Count(int (&Call)(z_stream*, int), int Flush) {
    const uInt in = Stream.avail_in;
    const uInt out = Stream.avail_out;
    const int result = Call(&Stream, Flush);
    BytesIn += in - Stream.avail_in;
    BytesOut += out - Stream.avail_out;
    return result;
  }

  size_t Filled() const noexcept { return BlockSize - Stream.avail_out; }

  void EmptyBlock() noexcept {
    Stream.next_out = Block.data();
    Stream.avail_out = BlockSize;
  }
};

TCustomZlibStream::TCustomZlibStream(TStream& Strm)
    : FStrm(Strm), FStrmPos(Strm.GetPosition()), Engine_(std::make_unique<TEngine>()) {}

TCustomZlibStream::~TCustomZlibStream() = default;

void TCustomZlibStream::Progress(TObject* Sender) {
  if (OnProgress) OnProgress(Sender);
}

void TCustomZlibStream::RestorePosition() {
  if (FStrm.GetPosition() != FStrmPos) FStrm.SetPosition(FStrmPos);
}

TCompressionStream::TCompressionStream(TCompressionLevel CompressionLevel, TStream& Dest)
    : TCustomZlibStream(Dest) {
  Engine_->EmptyBlock();
  InitDeflate(Engine_->Stream, CompressionLevel);
}

TCompressionStream::~TCompressionStream() {
  try {
    Finish();
  } catch (...) {
    // Whoever wants to know has called Finish().
  }
  deflateEnd(&Engine_->Stream);
}

int32_t TCompressionStream::Write(const void* Buffer, int32_t Count) {
  if (Finished_) throw ECompressionError(sInvalidStreamOp);
  if (Count <= 0) return 0;
  TEngine& engine = *Engine_;
  engine.Stream.next_in = static_cast<const Bytef*>(Buffer);
  engine.Stream.avail_in = static_cast<uInt>(Count);
  RestorePosition();
  WriteFullArea();  // a block that could not be written before
  while (engine.Stream.avail_in > 0) {
    Check<ECompressionError>(engine.Count(deflate, Z_NO_FLUSH));
    WriteFullArea();
  }
  return Count;
}

void TCompressionStream::WriteFullArea() {
  if (Engine_->Stream.avail_out > 0) return;
  WriteArea();
  Progress(this);
}

// A block that can't be written stays, and FStrmPos with it, for another try.
void TCompressionStream::WriteArea() {
  FStrm.WriteBuffer(Engine_->Block.data(), static_cast<int32_t>(Engine_->Filled()));
  Engine_->EmptyBlock();
  FStrmPos = FStrm.GetPosition();
}

int32_t TCompressionStream::Read(void*, int32_t) { throw ECompressionError(sInvalidStreamOp); }

int64_t TCompressionStream::Seek(int64_t Offset, TSeekOrigin Origin) {
  if (Offset != 0 || Origin != TSeekOrigin::soCurrent) throw ECompressionError(sInvalidStreamOp);
  return Engine_->BytesIn;
}

void TCompressionStream::Finish() {
  if (Finished_) return;
  TEngine& engine = *Engine_;
  engine.Stream.next_in = nullptr;
  engine.Stream.avail_in = 0;
  RestorePosition();
  do {
    if (engine.Stream.avail_out == 0) WriteArea();
  } while (Check<ECompressionError>(engine.Count(deflate, Z_FINISH)) != Z_STREAM_END);
  WriteArea();
  Finished_ = true;
}

float TCompressionStream::GetCompressionRate() const noexcept {
  if (Engine_->BytesIn == 0) return 0;
  return static_cast<float>(
      (1.0 - static_cast<double>(Engine_->BytesOut) / static_cast<double>(Engine_->BytesIn)) *
      100.0);
}

TDecompressionStream::TDecompressionStream(TStream& Source) : TCustomZlibStream(Source) {
  InitInflate(Engine_->Stream);
}

TDecompressionStream::~TDecompressionStream() { inflateEnd(&Engine_->Stream); }

int32_t TDecompressionStream::Read(void* Buffer, int32_t Count) {
  if (Count <= 0) return 0;
  z_stream& stream = Engine_->Stream;
  stream.next_out = static_cast<Bytef*>(Buffer);
  stream.avail_out = static_cast<uInt>(Count);
  RestorePosition();
  while (stream.avail_out > 0 && !Complete_) {
    if (stream.avail_in == 0 && !ReadBlock()) break;
    Complete_ =
        CheckInflate<ECompressionError>(Engine_->Count(inflate, Z_NO_FLUSH)) == Z_STREAM_END;
  }
  return Count - static_cast<int32_t>(stream.avail_out);
}

// False at the end of the source.
bool TDecompressionStream::ReadBlock() {
  const int32_t done = FStrm.Read(Engine_->Block.data(), BlockSize);
  if (done <= 0) return false;
  Engine_->Stream.next_in = Engine_->Block.data();
  Engine_->Stream.avail_in = static_cast<uInt>(done);
  FStrmPos = FStrm.GetPosition();
  Progress(this);
  return true;
}

int32_t TDecompressionStream::Write(const void*, int32_t) {
  throw EDecompressionError(sInvalidStreamOp);
}

int64_t TDecompressionStream::Seek(int64_t Offset, TSeekOrigin Origin) {
  TEngine& engine = *Engine_;
  if (Offset == 0 && Origin == TSeekOrigin::soBeginning) {
    FStrm.SetPosition(0);
    FStrmPos = 0;
    Check<EDecompressionError>(inflateReset(&engine.Stream));
    engine.Stream.avail_in = 0;
    engine.BytesIn = engine.BytesOut = 0;
    Complete_ = false;
  } else if (Offset >= 0 && Origin == TSeekOrigin::soCurrent) {
    Skip(Offset);
  } else if (Offset > engine.BytesOut && Origin == TSeekOrigin::soBeginning) {
    Skip(Offset - engine.BytesOut);
  } else {
    throw EDecompressionError(sInvalidStreamOp);
  }
  return engine.BytesOut;
}

void TDecompressionStream::Skip(int64_t Count) {
  std::array<uint8_t, SkipSize> dropped;
  while (Count > 0) {
    const auto piece = static_cast<int32_t>(std::min<int64_t>(Count, SkipSize));
    if (Read(dropped.data(), piece) < piece) return;
    Count -= piece;
  }
}

int64_t TDecompressionStream::GetCompressedBytes() const noexcept { return Engine_->BytesIn; }

}  // namespace velox
