// The GOST cipher against libgcrypt, and Intel HEX files of one size against a quarter of it.

#include <gcrypt.h>

#include <cstring>

#include "bench/harness.hpp"
#include "examples/velgost/parameter_sets.hpp"
#include "velox/codecs/velGostCryptor.hpp"
#include "velox/codecs/velIntelHex.hpp"
#include "velox/runtime/velException.hpp"
#include "velox/runtime/velStrings.hpp"

namespace bench {
namespace {

using namespace velox;

constexpr int32_t Size = 1 << 20;
constexpr char Key[] = "0123456789abcdef0123456789abcdef";
constexpr char Start[] = "12345678";
// Both sides take this table.
constexpr const parameter_sets::TParameterSet& Set = parameter_sets::All[0];

void Check(gcry_error_t Error) {
  if (Error != 0) throw Exception(std::string("libgcrypt: ") + gcry_strerror(Error));
}

/// libgcrypt's cipher of the same name, with the same key and table.
class TTheirCipher {
 public:
  explicit TTheirCipher(gcry_cipher_modes Mode) {
    static const bool ready = gcry_check_version(nullptr) != nullptr;
    if (!ready) throw Exception("libgcrypt does not start");
    Check(gcry_cipher_open(&Handle_, GCRY_CIPHER_GOST28147, Mode, 0));
    Check(gcry_cipher_ctl(Handle_, GCRYCTL_SET_SBOX, const_cast<char*>(Set.Identifier), 0));
    Check(gcry_cipher_setkey(Handle_, Key, 32));
  }
  ~TTheirCipher() { gcry_cipher_close(Handle_); }
  TTheirCipher(const TTheirCipher&) = delete;
  TTheirCipher& operator=(const TTheirCipher&) = delete;

  void Encrypt(std::string& Data) {
    Check(gcry_cipher_setiv(Handle_, Start, 8));
    Check(gcry_cipher_encrypt(Handle_, Data.data(), Data.size(), nullptr, 0));
  }

 private:
  gcry_cipher_hd_t Handle_ = nullptr;
};

/// Its values differ from ours, which exchange the halves behind each 16 rounds: the work is the
/// same, and is not compared.
TSide TheirMac(const std::string& Data) {
  return [&Data](TMeter Meter) {
    gcry_mac_hd_t mac = nullptr;
    Check(gcry_mac_open(&mac, GCRY_MAC_GOST28147_IMIT, 0, nullptr));
    Check(gcry_mac_ctl(mac, GCRYCTL_SET_SBOX, const_cast<char*>(Set.Identifier), 0));
    Check(gcry_mac_setkey(mac, Key, 32));
    Meter.measure([&] {
      uint8_t sum[4];
      size_t length = sizeof sum;
      gcry_mac_reset(mac);
      Check(gcry_mac_write(mac, Data.data(), Data.size()));
      Check(gcry_mac_read(mac, sum, &length));
      return sum[0];
    });
    gcry_mac_close(mac);
  };
}

void Prepare(TGostCryptor& Cryptor) {
  TGostSubstitutionTable table;
  if (!parameter_sets::ReadTable(Set.Lines, table)) throw Exception("no table");
  Cryptor.SetSubstitutionTable(table);
  std::memcpy(Cryptor.Key.data(), Key, sizeof Cryptor.Key);
}

/// What is measured must be the same work.
void RequireSame(const std::string& Ours, const std::string& Theirs) {
  if (Ours != Theirs) throw Exception("libgcrypt encrypts to something else");
}

const TGroup Cipher("cipher", [] {
  std::string data = SampleNoise(Size);
  TGostCryptor cryptor;
  Prepare(cryptor);
  TTheirCipher blocks(GCRY_CIPHER_MODE_ECB);
  TTheirCipher feedback(GCRY_CIPHER_MODE_CFB);
  TGostCryptedBlock iv;
  std::memcpy(&iv, Start, sizeof iv);
  std::string ours = data, theirs = data;
  cryptor.Crypt(ours.data(), Size, true);
  blocks.Encrypt(theirs);
  RequireSame(ours, theirs);
  cryptor.CryptInCipherFeedbackMode(ours.data(), Size, iv, true);
  feedback.Encrypt(theirs);
  RequireSame(ours, theirs);
  Compare({"GOST 28147-89: encrypt 1 MiB in blocks", "libgcrypt, ECB", 1.0},
          Repeat([&] { cryptor.Crypt(data.data(), Size, true); }),
          Repeat([&] { blocks.Encrypt(data); }));
  Compare({"GOST 28147-89: encrypt 1 MiB with feedback", "libgcrypt, CFB", 1.0},
          Repeat([&] { cryptor.CryptInCipherFeedbackMode(data.data(), Size, iv, true); }),
          Repeat([&] { feedback.Encrypt(data); }));
  Compare({"GOST 28147-89: MAC of 1 MiB", "libgcrypt, GOST28147_IMIT", 1.0},
          Repeat([&] { return cryptor.CalculateMAC(data.data(), Size); }), TheirMac(data));
});

struct TImage {
  explicit TImage(uint32_t Bytes) {
    const std::string noise = SampleNoise(Bytes);
    Hex.SetBufferSize(Bytes);
    std::copy(noise.begin(), noise.end(), Hex.GetBuffer());
    Hex.SaveToStrings(Lines);
  }
  TIntelHex Hex;
  TStrings Lines;
};

// Four times the work may take at most 4.4 times as long: a ratio of at least 0.91 of the times per
// MiB.
const TGroup Images("Intel HEX", [] {
  TImage large(16 << 20);
  TImage small(4 << 20);
  const auto load = [](TImage& Image) {
    return Repeat([&Image] {
      TIntelHex hex;
      hex.LoadFromStrings(Image.Lines);
      return hex.GetBufferSize();
    });
  };
  const auto save = [](TImage& Image) {
    return Repeat([&Image] {
      TStrings lines;
      Image.Hex.SaveToStrings(lines);
      return lines.size();
    });
  };
  Compare({"Intel HEX: load 16 MiB, per MiB", "itself with 4 MiB", 4 / 4.4, 16, 4}, load(large),
          load(small));
  Compare({"Intel HEX: save 16 MiB, per MiB", "itself with 4 MiB", 4 / 4.4, 16, 4}, save(large),
          save(small));
});

}  // namespace
}  // namespace bench
