// Checksums, CRCs and MD5 against Boost, zlib and the system's cryptographic service.

#include <zlib.h>

#include <boost/crc.hpp>

#include "bench/harness.hpp"
#include "velox/codecs/velHash.hpp"
#include "velox/runtime/velFormat.hpp"
#include "velox/runtime/velHandle.hpp"

#include <wincrypt.h>

namespace bench {
namespace {

using namespace velox;

constexpr int32_t Size = 1 << 20;
constexpr const char* OurCRC32 = "our CRC-32";

/// One of our CRCs against our CRC-32 over the same bytes.
template <class TSum>
void SiblingRow(const char* Name, const std::string& Data, TSum& Sum) {
  TCRC32& crc32 = *TCRC32::GetInstanceStandard();
  Compare({Format("%s of 1 MiB", Name), OurCRC32, 0.8},
          Repeat([&] { return Sum.CalculateThreadSafe(Data.data(), Size); }),
          Repeat([&] { return crc32.CalculateThreadSafe(Data.data(), Size); }));
}

const TGroup CRCs("CRC", [] {
  const std::string data = SampleNoise(Size);
  TCRC32& crc32 = *TCRC32::GetInstanceStandard();
  const auto ours = Repeat([&] { return crc32.CalculateThreadSafe(data.data(), Size); });
  Compare({"CRC-32 of 1 MiB", "Boost.CRC, crc_32_type", 4.0}, ours, Repeat([&] {
            boost::crc_32_type sum;
            sum.process_bytes(data.data(), data.size());
            return sum.checksum();
          }));
  const auto* bytes = reinterpret_cast<const Bytef*>(data.data());
  Compare({"CRC-32 of 1 MiB", "zlib, crc32", 0}, ours,
          Repeat([&] { return ::crc32(0, bytes, Size); }));
  TCRC8 plain8(0x07, 0, false, false, 0);
  TCRC16 plain16(0x1021, 0, false, false, 0);
  TCRC64 plain64(0x42F0E1EBA9EA3693, 0, false, false, 0);
  SiblingRow("CRC-8, reflected,", data, *TCRC8::GetInstanceIButton());
  SiblingRow("CRC-8, not reflected,", data, plain8);
  SiblingRow("CRC-16, reflected,", data, *TCRC16::GetInstanceStandard());
  SiblingRow("CRC-16, not reflected,", data, plain16);
  SiblingRow("CRC-64, reflected,", data, *TCRC64::GetInstanceStandard());
  SiblingRow("CRC-64, not reflected,", data, plain64);
});

const TGroup Sums("checksums", [] {
  const std::string data = SampleNoise(Size);
  const auto* bytes = reinterpret_cast<const Bytef*>(data.data());
  const auto theirs = Repeat([&] { return ::adler32(1, bytes, Size); });
  TAdler32Checksum adler;
  TFletcherChecksum fletcher;
  Compare({"Adler-32 of 1 MiB", "zlib, adler32", 0.9},
          Repeat([&] { return adler.Calculate(data.data(), Size); }), theirs);
  Compare({"Fletcher's checksum of 1 MiB", "zlib, adler32", 0.9},
          Repeat([&] { return fletcher.Calculate(data.data(), Size); }), theirs);
});

/// What a program without this library would write: read a piece, hash it.
std::string BareMD5(TStream& Stream, HCRYPTPROV Provider) {
  HCRYPTHASH hash = 0;
  ::CryptCreateHash(Provider, CALG_MD5, 0, 0, &hash);
  std::vector<BYTE> piece(1 << 16);
  Stream.SetPosition(0);
  while (const int32_t count = Stream.Read(piece.data(), static_cast<int32_t>(piece.size()))) {
    ::CryptHashData(hash, piece.data(), static_cast<DWORD>(count), 0);
  }
  DWORD length = 16;
  std::string digest(length, '\0');
  ::CryptGetHashParam(hash, HP_HASHVAL, reinterpret_cast<BYTE*>(digest.data()), &length, 0);
  ::CryptDestroyHash(hash);
  return digest;
}

const TGroup Digests("MD5", [] {
  const std::string data = SampleNoise(64 << 20);
  TMemoryStream stream(data.data(), static_cast<int32_t>(data.size()));
  TMD5 md5;
  HCRYPTPROV provider = 0;
  ::CryptAcquireContextA(&provider, nullptr, nullptr, PROV_RSA_FULL, CRYPT_VERIFYCONTEXT);
  const auto ours = [&] {
    stream.SetPosition(0);
    TMD5Digest digest;
    md5.CalculateForStream(stream, digest);
    return digest;
  };
  const TMD5Digest digest = ours();
  if (BareMD5(stream, provider) != std::string(digest.begin(), digest.end()))
    throw Exception("MD5: the sides differ");
  Compare({"MD5 of a stream of 64 MiB", "bare CryptoAPI loop, pieces of 64 KiB", 0.97},
          Repeat(ours), Repeat([&] { return BareMD5(stream, provider); }));
  ::CryptReleaseContext(provider, 0);
});

}  // namespace
}  // namespace bench
