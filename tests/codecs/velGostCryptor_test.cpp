#include "velox/codecs/velGostCryptor.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <new>
#include <string>
#include <vector>

#include "examples/velgost/parameter_sets.hpp"
#include "tests/support/message_of.hpp"
#include "velox/runtime/velException.hpp"

namespace velox {
namespace {

using test::MessageOf;
using TBytes = std::vector<uint8_t>;

void Prepare(TGostCryptor& Cryptor) {
  TGostSubstitutionTable table;
  ASSERT_TRUE(parameter_sets::ReadTable(std::end(parameter_sets::All)[-1].Lines, table));
  Cryptor.SetSubstitutionTable(table);
  Cryptor.Key = {0xffeeddcc, 0xbbaa9988, 0x77665544, 0x33221100,
                 0xf0f1f2f3, 0xf4f5f6f7, 0xf8f9fafb, 0xfcfdfeff};
}

TBytes Counting(size_t Size) {
  TBytes bytes(Size);
  for (size_t i = 0; i < Size; ++i) bytes[i] = static_cast<uint8_t>(i * 37 + i / 256);
  return bytes;
}

int32_t SizeOf(const TBytes& Bytes) { return static_cast<int32_t>(Bytes.size()); }

class GostCryptor : public testing::Test {
 protected:
  GostCryptor() { Prepare(Cryptor_); }

  TGostCryptor Cryptor_;
};

TEST_F(GostCryptor, BlockOfTheStandardsExample) {
  // GOST R 34.12-2015, appendix A; RFC 8891, appendix A has the same numbers.
  TGostCryptedBlock block{0x76543210, 0xfedcba98};
  Cryptor_.Crypt(&block, sizeof block, true);
  EXPECT_EQ(block, (TGostCryptedBlock{0xc2d8ca3d, 0x4ee901e5}));
  Cryptor_.Crypt(&block, sizeof block, false);
  EXPECT_EQ(block, (TGostCryptedBlock{0x76543210, 0xfedcba98}));
}

TEST_F(GostCryptor, NewObjectReplacesNothing) {
  const TGostCryptor fresh;
  EXPECT_EQ(fresh.Substitute(0x89abcdef), 0x89abcdefu);
  TGostCryptedBlock block;
  fresh.Crypt(&block, sizeof block, true);
  EXPECT_EQ(block, TGostCryptedBlock());
  Cryptor_.InitializeSubstitutionTable();
  EXPECT_EQ(Cryptor_.Substitute(0x89abcdef), 0x89abcdefu);
}

TEST_F(GostCryptor, MACFillsUpWithZerosAndTakesEveryBit) {
  EXPECT_EQ(Cryptor_.CalculateMAC(nullptr, 0), 0u);
  EXPECT_EQ(Cryptor_.CalculateMAC("12345", 5), Cryptor_.CalculateMAC("12345\0\0\0", 8));
  TBytes text = Counting(21);
  const uint32_t mac = Cryptor_.CalculateMAC(text.data(), SizeOf(text));
  for (size_t bit = 0; bit < text.size() * 8; ++bit) {
    text[bit / 8] ^= static_cast<uint8_t>(1 << bit % 8);
    EXPECT_NE(Cryptor_.CalculateMAC(text.data(), SizeOf(text)), mac) << bit;
    text[bit / 8] ^= static_cast<uint8_t>(1 << bit % 8);
  }
}

TEST_F(GostCryptor, MACOfAFixedText) {
  // By a plain Python program of the rounds, which also gives the standard's example, with the
  // halves exchanged behind each 16 rounds.
  EXPECT_EQ(Cryptor_.CalculateMAC("12345678", 8), 0x0426149Eu);
  EXPECT_EQ(Cryptor_.CalculateMAC("123456789", 9), 0x2C6D1DD9u);
}

TEST_F(GostCryptor, RefusesSizes) {
  const TBytes text = Counting(16);
  for (const int32_t size : {12, 1, 7, 15, -8, -1}) {
    TBytes data = text;
    EXPECT_EQ(MessageOf([&] { Cryptor_.Crypt(data.data(), size, true); }), "Size incorrect")
        << size;
    EXPECT_EQ(data, text);
  }
  Cryptor_.Crypt(nullptr, 0, true);
  uint8_t byte = 0;
  EXPECT_THROW(Cryptor_.CryptInCipherFeedbackMode(&byte, -1, {}, true), Exception);
  EXPECT_THROW(Cryptor_.CalculateMAC(&byte, -1), Exception);
}

TEST_F(GostCryptor, ReadsVectors) {
  const TGostSubstitutionVector before{1, 2, 3};
  struct {
    const char* Text;
    bool Read;
  } const cases[] = {{"0123456789ABCDEF", true},  {"0123456789ABCDEFzz", true},
                     {"0123456789ABCDE", false},  {"", false},
                     {"0123456789ABCDEE", false}, {"0123456789ABCDEg", false},
                     {"0123456789ABCDE ", false}, {" 123456789ABCDEF0", false}};
  for (const auto& each : cases) {
    TGostSubstitutionVector vector = before;
    EXPECT_EQ(TGostCryptor::TryStrToSubstitutionVector(each.Text, vector), each.Read) << each.Text;
    EXPECT_EQ(vector == before, !each.Read) << each.Text;
  }
  TGostSubstitutionVector vector;
  ASSERT_TRUE(TGostCryptor::TryStrToSubstitutionVector("fEdCba9876543210", vector));
  for (size_t i = 0; i < vector.size(); ++i) EXPECT_EQ(vector[i], 15 - i);
}

TEST_F(GostCryptor, AnInvalidTableDoesNotReplaceThePresentOne) {
  const TGostSubstitutionTable good = Cryptor_.GetSubstitutionTable();
  for (const size_t broken : {0, 7}) {
    for (const uint8_t entry : {uint8_t{16}, uint8_t{255}, good[broken][4]}) {
      TGostSubstitutionTable table = good;
      table[broken][5] = entry;
      EXPECT_FALSE(TGostCryptor::ValidateSubstitutionTable(table));
      EXPECT_EQ(MessageOf([&] { Cryptor_.SetSubstitutionTable(table); }),
                "Incorrect substitution table");
      EXPECT_EQ(Cryptor_.GetSubstitutionTable(), good);
      EXPECT_EQ(Cryptor_.Substitute(0xfdb97531), 0x2a196f34u);
    }
  }
}

TEST_F(GostCryptor, LeavesNothingInMemory) {
  alignas(TGostCryptor) static uint8_t storage[sizeof(TGostCryptor)];
  const auto trace = [] {
    // Beyond what any object of the library has at its start, its table of functions.
    return sizeof storage - sizeof(void*) -
           static_cast<size_t>(std::count(storage + sizeof(void*), std::end(storage), uint8_t{0}));
  };
  auto* cryptor = new (storage) TGostCryptor;
  Prepare(*cryptor);
  EXPECT_GT(trace(), 1000u);
  cryptor->~TGostCryptor();
  EXPECT_EQ(trace(), 0u);
}

}  // namespace
}  // namespace velox
