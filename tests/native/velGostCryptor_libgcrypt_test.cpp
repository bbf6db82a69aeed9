// The cipher against libgcrypt, on the development machine only. CMake defines VELOX_HAVE_LIBGCRYPT
// when it is there.
#include <gtest/gtest.h>

#include "velox/codecs/velGostCryptor.hpp"

#if defined(VELOX_HAVE_LIBGCRYPT)

#include <gcrypt.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <vector>

#include "examples/velgost/parameter_sets.hpp"

namespace velox {
namespace {

using TBytes = std::vector<uint8_t>;

constexpr int Buffers = 1000;

TBytes RandomBytes(std::mt19937& Random, size_t Size) {
  TBytes bytes(Size);
  std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<uint8_t>(Random()); });
  return bytes;
}

/// libgcrypt's cipher in one mode.
class TReference {
 public:
  TReference(int Mode, const char* Table, const TBytes& Key) {
    EXPECT_EQ(gcry_cipher_open(&Handle_, GCRY_CIPHER_GOST28147, Mode, 0), 0u);
    EXPECT_EQ(gcry_cipher_ctl(Handle_, GCRYCTL_SET_SBOX, const_cast<char*>(Table), 0), 0u);
    EXPECT_EQ(gcry_cipher_setkey(Handle_, Key.data(), Key.size()), 0u);
  }
  ~TReference() { gcry_cipher_close(Handle_); }

  TBytes Run(TBytes Data, const TBytes& IV, bool Encrypt) {
    EXPECT_EQ(gcry_cipher_setiv(Handle_, IV.data(), IV.size()), 0u);
    const auto run = Encrypt ? &gcry_cipher_encrypt : &gcry_cipher_decrypt;
    EXPECT_EQ(run(Handle_, Data.data(), Data.size(), nullptr, 0), 0u);
    return Data;
  }

 private:
  gcry_cipher_hd_t Handle_ = nullptr;
};

class GostAgainstLibgcrypt : public testing::Test {
 protected:
  void SetUp() override { ASSERT_NE(gcry_check_version(nullptr), nullptr); }

  /// Calls Body with a cryptor, the same key's bytes and the table's identifier: every parameter
  /// set in turn.
  template <class TBody>
  void ForEachBuffer(const TBody& Body) {
    for (int i = 0; i < Buffers && !HasFailure(); ++i) {
      SCOPED_TRACE(i);
      const parameter_sets::TParameterSet& set =
          parameter_sets::All[i % std::size(parameter_sets::All)];
      TGostSubstitutionTable table;
      ASSERT_TRUE(parameter_sets::ReadTable(set.Lines, table)) << set.Name;
      TGostCryptor cryptor;
      cryptor.SetSubstitutionTable(table);
      const TBytes key = RandomBytes(Random_, sizeof cryptor.Key);
      std::memcpy(cryptor.Key.data(), key.data(), key.size());
      Body(cryptor, key, set.Identifier);
    }
  }

  std::mt19937 Random_{28147};
};

TEST_F(GostAgainstLibgcrypt, SimpleReplacement) {
  ForEachBuffer([&](const TGostCryptor& cryptor, const TBytes& key, const char* table) {
    const TBytes text = RandomBytes(Random_, Random_() % 65 * 8);
    TReference reference(GCRY_CIPHER_MODE_ECB, table, key);
    for (const bool encrypt : {true, false}) {
      TBytes data = text;
      cryptor.Crypt(data.data(), static_cast<int32_t>(data.size()), encrypt);
      EXPECT_EQ(data, reference.Run(text, {}, encrypt));
    }
  });
}

TEST_F(GostAgainstLibgcrypt, GammaWithFeedback) {
  ForEachBuffer([&](const TGostCryptor& cryptor, const TBytes& key, const char* table) {
    const TBytes text = RandomBytes(Random_, Random_() % 500);
    const TBytes start = RandomBytes(Random_, 8);
    TGostCryptedBlock iv;
    std::memcpy(&iv, start.data(), start.size());
    TReference reference(GCRY_CIPHER_MODE_CFB, table, key);
    for (const bool encrypt : {true, false}) {
      TBytes data = text;
      cryptor.CryptInCipherFeedbackMode(data.data(), static_cast<int32_t>(data.size()), iv,
                                        encrypt);
      EXPECT_EQ(data, reference.Run(text, start, encrypt));
    }
  });
}

}  // namespace
}  // namespace velox

#else

TEST(GostAgainstLibgcrypt, IsNotInstalled) {
  GTEST_SKIP() << "libgcrypt's development files (package libgcrypt20-dev) were not found when "
                  "this was configured";
}

#endif
