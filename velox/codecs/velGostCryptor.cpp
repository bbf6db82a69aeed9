#include "velox/codecs/velGostCryptor.hpp"

#include <bit>
#include <cstddef>
#include <cstring>
#include <utility>

#include "velox/codecs/velBinary.hpp"
#include "velox/foundation/velSysUtils.hpp"
#include "velox/runtime/velException.hpp"
#include "velox/runtime/velMessages.hpp"
#include "velox/runtime/velWipe.hpp"

namespace velox {
namespace {

static_assert(std::endian::native == std::endian::little,
              "blocks are words in little-endian order");

constexpr int32_t BlockSize = sizeof(TGostCryptedBlock);
constexpr int32_t CryptRounds = 32;
constexpr int32_t MACRounds = 16;
constexpr uint8_t RoundRotation = 11;
constexpr const char* SizeIncorrect = "Size incorrect";

// Blocks that don't depend on each other and are transformed side by side, so that the processor
// has something to do while it waits for a look-up.
constexpr int32_t Lanes = 4;

using TFolded = std::array<std::array<uint32_t, 256>, 4>;
using TKey = std::array<uint32_t, 8>;

// The words are exclusive: each folded word sets only the bits of its own byte. N2 joins first,
// being known early.
inline uint32_t Round(const TFolded& Folded, uint32_t Sum, uint32_t N2) noexcept {
  return N2 ^ Folded[0][Sum & 0xFF] ^ Folded[1][(Sum >> 8) & 0xFF] ^ Folded[3][Sum >> 24] ^
         Folded[2][(Sum >> 16) & 0xFF];
}

template <int32_t Count>
inline void Transform(const TFolded& Folded, const TKey& Key, TGostCryptedBlock (&Blocks)[Count],
                      const uint8_t* KeyOrder, int32_t Rounds) noexcept {
  for (int32_t r = 0; r < Rounds; ++r) {
    const uint32_t key = Key[KeyOrder[r]];
    for (TGostCryptedBlock& block : Blocks) {
      const uint32_t next = Round(Folded, block.N1 + key, block.N2);
      block.N2 = block.N1;
      block.N1 = next;
    }
  }
  for (TGostCryptedBlock& block : Blocks) std::swap(block.N1, block.N2);
}

inline TGostCryptedBlock Xor(const TGostCryptedBlock& A, const TGostCryptedBlock& B) noexcept {
  return {A.N1 ^ B.N1, A.N2 ^ B.N2};
}

inline TGostCryptedBlock Load(const uint8_t* Data, int32_t Size = BlockSize) noexcept {
  TGostCryptedBlock block;
  std::memcpy(&block, Data, static_cast<size_t>(Size));
  return block;
}

inline void Store(uint8_t* Data, const TGostCryptedBlock& Block,
                  int32_t Size = BlockSize) noexcept {
  std::memcpy(Data, &Block, static_cast<size_t>(Size));
}

void RequireNotNegative(int32_t Size) {
  if (Size < 0) throw Exception(SizeIncorrect);
}

}  // namespace

TGostCryptor::TGostCryptor() { InitializeSubstitutionTable(); }

TGostCryptor::~TGostCryptor() {
  Wipe(&SubstitutionTable_, sizeof SubstitutionTable_);
  Wipe(&Key, sizeof Key);
  Wipe(&Folded_, sizeof Folded_);
}

void TGostCryptor::InitializeSubstitutionTable() {
  for (TGostSubstitutionVector& vector : SubstitutionTable_) {
    for (size_t i = 0; i < vector.size(); ++i) vector[i] = static_cast<uint8_t>(i);
  }
  Fold();
}

void TGostCryptor::SetSubstitutionTable(const TGostSubstitutionTable& Table) {
  if (!ValidateSubstitutionTable(Table)) throw Exception(messages::seIncorrectSubstitutionTable);
  SubstitutionTable_ = Table;
  Fold();
}

bool TGostCryptor::ValidateSubstitutionVector(const TGostSubstitutionVector& Vector) noexcept {
  uint32_t seen = 0;
  for (const uint8_t entry : Vector) {
    if (entry >= Vector.size() || (seen >> entry & 1) != 0) return false;
    seen |= 1u << entry;
  }
  return true;
}

bool TGostCryptor::ValidateSubstitutionTable(const TGostSubstitutionTable& Table) noexcept {
  for (const TGostSubstitutionVector& vector : Table) {
    if (!ValidateSubstitutionVector(vector)) return false;
  }
  return true;
}

bool TGostCryptor::TryStrToSubstitutionVector(const std::string& S,
                                              TGostSubstitutionVector& Vector) {
  TGostSubstitutionVector read;
  if (S.size() < read.size()) return false;
  for (size_t i = 0; i < read.size(); ++i) {
    if (!TryDigitToByte(S[i], read[i])) return false;
  }
  if (!ValidateSubstitutionVector(read)) return false;
  Vector = read;
  return true;
}

uint32_t TGostCryptor::Substitute(uint32_t Value) const noexcept {
  uint32_t result = 0;
  for (size_t k = 0; k < SubstitutionTable_.size(); ++k) {
    result |= static_cast<uint32_t>(SubstitutionTable_[k][Value >> 4 * k & 0xF]) << 4 * k;
  }
  return result;
}

void TGostCryptor::Fold() noexcept {
  for (size_t byte = 0; byte < Folded_.size(); ++byte) {
    const uint32_t mask = 0xFFu << 8 * byte;
    for (uint32_t value = 0; value < 256; ++value) {
      Folded_[byte][value] = Rol(Substitute(value << 8 * byte) & mask, RoundRotation);
    }
  }
}

void TGostCryptor::TransformBlock(TGostCryptedBlock& Block, const uint8_t* KeyOrder,
                                  int32_t Rounds) const noexcept {
  TGostCryptedBlock blocks[1] = {Block};
  Transform(Folded_, Key, blocks, KeyOrder, Rounds);
  Block = blocks[0];
}

void TGostCryptor::Crypt(void* Data, int32_t Size, bool Encrypt) const {
  if (Size < 0 || Size % BlockSize != 0) throw Exception(SizeIncorrect);
  const uint8_t* order = Encrypt ? EncryptionKeyOrder : DecryptionKeyOrder;
  auto* next = static_cast<uint8_t*>(Data);
  for (; Size >= Lanes * BlockSize; Size -= Lanes * BlockSize) {
    TGostCryptedBlock blocks[Lanes];
    std::memcpy(blocks, next, sizeof blocks);
    Transform(Folded_, Key, blocks, order, CryptRounds);
    std::memcpy(next, blocks, sizeof blocks);
    next += sizeof blocks;
  }
  for (; Size > 0; Size -= BlockSize, next += BlockSize) {
    TGostCryptedBlock block = Load(next);
    TransformBlock(block, order, CryptRounds);
    Store(next, block);
  }
}

void TGostCryptor::CryptInCipherFeedbackMode(void* Data, int32_t Size, const TGostCryptedBlock& IV,
                                             bool Encrypt) const {
  RequireNotNegative(Size);
  auto* next = static_cast<uint8_t*>(Data);
  TGostCryptedBlock gamma = IV;
  // Decrypting, all the registers are there in the text, so blocks can go side by side.
  for (; !Encrypt && Size >= Lanes * BlockSize; Size -= Lanes * BlockSize) {
    TGostCryptedBlock text[Lanes];
    std::memcpy(text, next, sizeof text);
    TGostCryptedBlock gammas[Lanes] = {gamma, text[0], text[1], text[2]};
    gamma = text[Lanes - 1];
    Transform(Folded_, Key, gammas, EncryptionKeyOrder, CryptRounds);
    for (int32_t i = 0; i < Lanes; ++i) text[i] = Xor(text[i], gammas[i]);
    std::memcpy(next, text, sizeof text);
    next += sizeof text;
  }
  for (; Size >= BlockSize; Size -= BlockSize, next += BlockSize) {
    TransformBlock(gamma, EncryptionKeyOrder, CryptRounds);
    const TGostCryptedBlock before = Load(next);
    const TGostCryptedBlock after = Xor(before, gamma);
    Store(next, after);
    gamma = Encrypt ? after : before;
  }
  if (Size == 0) return;
  TransformBlock(gamma, EncryptionKeyOrder, CryptRounds);
  Store(next, Xor(Load(next, Size), gamma), Size);
}

uint32_t TGostCryptor::CalculateMAC(const void* Data, int32_t Size) const {
  RequireNotNegative(Size);
  const auto* next = static_cast<const uint8_t*>(Data);
  TGostCryptedBlock sum;
  for (; Size >= BlockSize; Size -= BlockSize, next += BlockSize) {
    sum = Xor(sum, Load(next));
    TransformBlock(sum, EncryptionKeyOrder, MACRounds);
  }
  if (Size == 0) return sum.N1;
  sum = Xor(sum, Load(next, Size));
  TransformBlock(sum, EncryptionKeyOrder, MACRounds);
  return sum.N1;
}

}  // namespace velox
