// The compression streams against bare zlib with the same level and the same buffers.

#define ZLIB_CONST
#include <zlib.h>

#include "bench/harness.hpp"
#include "velox/codecs/velZLib.hpp"

namespace bench {
namespace {

using namespace velox;

constexpr int32_t TextSize = 16 << 20;
constexpr int32_t Piece =
    1 << 16;  // bytes given to or asked of a stream at once, and zlib's own output area

void BareDeflate(const std::string& Text, TMemoryStream& Out) {
  std::vector<Bytef> area(Piece);
  z_stream stream{};
  deflateInit(&stream, Z_DEFAULT_COMPRESSION);
  const auto* data = reinterpret_cast<const Bytef*>(Text.data());
  int result = Z_OK;
  for (int32_t at = 0; result != Z_STREAM_END;) {
    const int32_t count = std::min(Piece, TextSize - at);
    stream.next_in = data + at;
    stream.avail_in = static_cast<uInt>(count);
    at += count;
    do {
      stream.next_out = area.data();
      stream.avail_out = Piece;
      result = deflate(&stream, at == TextSize ? Z_FINISH : Z_NO_FLUSH);
      Out.WriteBuffer(area.data(), Piece - static_cast<int32_t>(stream.avail_out));
    } while (stream.avail_out == 0);
  }
  deflateEnd(&stream);
}

void OurDeflate(const std::string& Text, TMemoryStream& Out) {
  TCompressionStream packer(TCompressionLevel::clDefault, Out);
  for (int32_t at = 0; at < TextSize; at += Piece)
    packer.WriteBuffer(Text.data() + at, std::min(Piece, TextSize - at));
  packer.Finish();
}

void BareInflate(TMemoryStream& In, std::vector<uint8_t>& Plain) {
  std::vector<Bytef> area(Piece);
  z_stream stream{};
  inflateInit(&stream);
  In.SetPosition(0);
  for (int result = Z_OK; result != Z_STREAM_END;) {
    stream.next_out = Plain.data();
    stream.avail_out = Piece;
    while (stream.avail_out > 0 && result != Z_STREAM_END) {
      if (stream.avail_in == 0) {
        stream.avail_in = static_cast<uInt>(In.Read(area.data(), Piece));
        stream.next_in = area.data();
      }
      result = inflate(&stream, Z_NO_FLUSH);
    }
  }
  inflateEnd(&stream);
}

void OurInflate(TMemoryStream& In, std::vector<uint8_t>& Plain) {
  In.SetPosition(0);
  TDecompressionStream unpacker(In);
  while (unpacker.Read(Plain.data(), Piece) > 0) continue;
}

const TGroup Rows("compression", [] {
  const std::string text = SampleText(TextSize);
  TMemoryStream packed;
  const auto into = [&](auto Pack) {
    return Repeat([&text, &packed, Pack] {
      packed.SetPosition(0);
      Pack(text, packed);
    });
  };
  Compare({"compress 16 MiB of text through a stream", "zlib, same level and buffers", 0.97},
          into(OurDeflate), into(BareDeflate));
  std::vector<uint8_t> plain(Piece);
  const auto from = [&](auto Unpack) {
    return Repeat([&packed, &plain, Unpack] { Unpack(packed, plain); });
  };
  Compare({"decompress 16 MiB of text through a stream", "zlib, same buffers", 0.97},
          from(OurInflate), from(BareInflate));
});

}  // namespace
}  // namespace bench
