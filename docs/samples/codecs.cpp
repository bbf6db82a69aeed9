#include <array>
#include <cstring>
#include <string>
#include <vector>

#include "docs/samples/samples.hpp"
#include "velox/codecs/velBinary.hpp"
#include "velox/codecs/velGostCryptor.hpp"
#include "velox/codecs/velHash.hpp"
#include "velox/codecs/velIntelHex.hpp"
#include "velox/codecs/velZLib.hpp"
#include "velox/runtime/velStream.hpp"

namespace samples {

using namespace velox;

namespace {

//! [crc]
/// The CRC of a whole stream, read in pieces.
uint32_t CrcOf(TStream& Stream) {
  TCRC32 crc;  // an object of one's own: it holds the running value
  char piece[4096];
  while (const int32_t count = Stream.Read(piece, sizeof piece)) crc.Update(piece, count);
  return crc.GetCurrentCRC();
}

/// The CRC of a record by the instance that the process shares; any thread may call this.
uint16_t CrcOf(const std::string& Record) {
  return TCRC16::GetInstanceStandard()->CalculateThreadSafe(Record.data(),
                                                            static_cast<int32_t>(Record.size()));
}
//! [crc]

//! [md5]
std::string DigestOf(const std::string& Text) {
  TMD5Digest digest;
  TMD5::CalculateForStringThreadSafe(Text, digest);
  return TMD5::ToString(digest);
}
//! [md5]

//! [zlib]
/// Compresses From, to its end, into To.
void Pack(TStream& From, TStream& To) {
  TCompressionStream packer(TCompressionLevel::clDefault, To);
  char piece[4096];
  while (const int32_t count = From.Read(piece, sizeof piece)) packer.WriteBuffer(piece, count);
  packer.Finish();  // a destructor could not tell of a failure
}

std::string Unpack(TStream& From) {
  TDecompressionStream unpacker(From);
  std::string plain;
  char piece[4096];
  while (const int32_t count = unpacker.Read(piece, sizeof piece))
    plain.append(piece, static_cast<size_t>(count));
  if (!unpacker.GetComplete()) throw EDecompressionError("the data ends too early");
  return plain;
}
//! [zlib]

//! [hex]
/// The text form of an image that has these bytes from an address on.
TStrings HexOf(uint32_t Address, const std::string& Bytes) {
  TIntelHex image;
  image.SetBufferSize(Address + static_cast<uint32_t>(Bytes.size()));  // new bytes are 0xFF
  std::memcpy(image.GetBuffer() + Address, Bytes.data(), Bytes.size());
  TStrings lines;
  image.SaveToStrings(lines);
  return lines;
}
//! [hex]

//! [cipher]
/// Encrypts, or decrypts, text of any size in place.
void Crypt(std::string& Text, const TGostSubstitutionTable& Table,
           const std::array<uint32_t, 8>& Key, const TGostCryptedBlock& Start, bool Encrypt) {
  TGostCryptor cryptor;
  cryptor.SetSubstitutionTable(Table);  // raises when it is no table
  cryptor.Key = Key;
  cryptor.CryptInCipherFeedbackMode(Text.data(), static_cast<int32_t>(Text.size()), Start, Encrypt);
}
//! [cipher]

//! [bytes]
/// A number that a protocol sends with its highest byte first.
uint32_t FromNetwork(uint32_t Value) { return BSwap(Value); }
//! [bytes]

}  // namespace

void RunCodecs() {
  TMemoryStream digits("123456789", 9);
  Expect(CrcOf(digits) == 0xCBF43926, "the CRC-32 of the catalogue");
  Expect(CrcOf("123456789") == 0xBB3D, "the CRC-16 of the catalogue");
  Expect(DigestOf("abc") == "900150983CD24FB0D6963F7D28E17F72", "the MD5 of RFC 1321");

  const std::string text(10000, 'v');
  TMemoryStream plain(text.data(), static_cast<int32_t>(text.size())), packed;
  Pack(plain, packed);
  Expect(packed.GetSize() < 100, "it gets smaller");
  packed.SetPosition(0);
  Expect(Unpack(packed) == text, "and comes back");

  const TStrings lines = HexOf(0x10, "AB");
  Expect(lines == TStrings{":0200100041426B", ":00000001FF"}, "a record and the end");

  TGostCryptor identity;
  std::string secret = "any size at all";
  const std::array<uint32_t, 8> key{1, 2, 3, 4, 5, 6, 7, 8};
  Crypt(secret, identity.GetSubstitutionTable(), key, {17, 4}, true);
  Expect(secret != "any size at all", "it is encrypted");
  Crypt(secret, identity.GetSubstitutionTable(), key, {17, 4}, false);
  Expect(secret == "any size at all", "and decrypted");
  Expect(FromNetwork(0x11223344) == 0x44332211, "the bytes turn round");
}

}  // namespace samples
