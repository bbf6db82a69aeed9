#pragma once

#include <array>
#include <cstdint>
#include <string>

#include "velox/runtime/velObject.hpp"

namespace velox {

/// The cipher's 64-bit block. In memory N1 is the first four bytes and N2 the next four, each
/// little-endian.
struct TGostCryptedBlock {
  uint32_t N1 = 0;  ///< the first half
  uint32_t N2 = 0;  ///< the second half

  /// Equal when both halves are.
  friend bool operator==(const TGostCryptedBlock&, const TGostCryptedBlock&) = default;
};

/// What a 4-bit value is replaced by: entry i stands for value i. Valid when it is a permutation of
/// 0..15.
using TGostSubstitutionVector = std::array<uint8_t, 16>;
/// Vector k replaces nibble k of a word, nibble 0 being the least significant.
using TGostSubstitutionTable = std::array<TGostSubstitutionVector, 8>;

/// The block cipher GOST 28147-89 (RFC 5830): 64-bit blocks, a 256-bit key, 32 rounds and a
/// substitution table that the user chooses. It has the standard's simple replacement (each block
/// on its own), its gamma with feedback, and an authentication code of 32 bits after the
/// imitation insert; see CalculateMAC about how it differs.
///
/// A new object has an all-zero key and a table that replaces nothing: set both before real use.
/// Key and table are wiped from memory when the object ends.
///
/// Threads: any number may use one object as long as none changes its table or key meanwhile.
///
///     TGostCryptor cryptor;
///     cryptor.SetSubstitutionTable(table);
///     cryptor.Key = key;  // eight words of 32 bits
///     cryptor.CryptInCipherFeedbackMode(text.data(), size, iv, true);
class VELOX_API TGostCryptor : public TObject {
 public:
  /// The order in which the 32 rounds take the words of the key, 0 to 7. CalculateMAC uses
  /// the first 16 rounds of the encryption order.
  static constexpr uint8_t EncryptionKeyOrder[32] = {0, 1, 2, 3, 4, 5, 6, 7, 0, 1, 2,
                                                     3, 4, 5, 6, 7, 0, 1, 2, 3, 4, 5,
                                                     6, 7, 7, 6, 5, 4, 3, 2, 1, 0};
  static constexpr uint8_t DecryptionKeyOrder[32] = {0, 1, 2, 3, 4, 5, 6, 7, 7, 6, 5,
                                                     4, 3, 2, 1, 0, 7, 6, 5, 4, 3, 2,
                                                     1, 0, 7, 6, 5, 4, 3, 2, 1, 0};

  /// The identity table and a key of zeros.
  TGostCryptor();
  /// Wipes key and table.
  ~TGostCryptor() override;

  /// Sets every vector to the identity, with which substitution does nothing.
  void InitializeSubstitutionTable();

  /// Copies the table. Raises Exception "Incorrect substitution table", and keeps the present one,
  /// when a vector of it is no permutation of 0..15.
  void SetSubstitutionTable(const TGostSubstitutionTable& Table);
  const TGostSubstitutionTable& GetSubstitutionTable() const noexcept { return SubstitutionTable_; }

  /// True when every entry is below 16 and none repeats.
  static bool ValidateSubstitutionVector(const TGostSubstitutionVector& Vector) noexcept;
  /// True when all eight vectors are valid.
  static bool ValidateSubstitutionTable(const TGostSubstitutionTable& Table) noexcept;

  /// Reads the first 16 characters of S as hexadecimal digits, one an entry, in either case; what
  /// follows them is ignored. False, with Vector as it was, when S is shorter, holds anything else,
  /// or the vector would not be valid.
  static bool TryStrToSubstitutionVector(const std::string& S, TGostSubstitutionVector& Vector);

  /// Replaces the eight nibbles of a word by means of the table.
  uint32_t Substitute(uint32_t Value) const noexcept;

  /// Runs that many rounds on a block; round r adds Key[KeyOrder[r]]. KeyOrder holds Rounds
  /// entries, each 0 to 7.
  void TransformBlock(TGostCryptedBlock& Block, const uint8_t* KeyOrder,
                      int32_t Rounds) const noexcept;

  /// Simple replacement, in place. Raises Exception "Size incorrect", and changes nothing, when
  /// Size (bytes) is no multiple of 8 or is negative.
  void Crypt(void* Data, int32_t Size, bool Encrypt) const;

  /// Gamma with feedback, in place, for any Size in bytes. Decrypting needs the IV that was used to
  /// encrypt. A text must be encrypted in one call: the state at the end is not handed out. Raises
  /// Exception "Size incorrect" for a negative Size.
  void CryptInCipherFeedbackMode(void* Data, int32_t Size, const TGostCryptedBlock& IV,
                                 bool Encrypt) const;

  /// An authentication code, after the imitation insert, of Size bytes; a last part of a block
  /// counts as filled up with zeros, and nothing at all gives 0. Raises Exception "Size incorrect"
  /// for a negative Size.
  ///
  /// As TransformBlock does, each step exchanges the halves behind its 16 rounds. Programs that
  /// chain the rounds without that exchange (libgcrypt's GOST28147_IMIT is one) come to other
  /// values.
  uint32_t CalculateMAC(const void* Data, int32_t Size) const;

  /// The key's eight words K0 to K7, written directly.
  std::array<uint32_t, 8> Key{};

 private:
  void Fold() noexcept;

  TGostSubstitutionTable SubstitutionTable_;
  // For byte b of a word holding v: v's two nibbles replaced, in their place, and the word then
  // rotated as a round rotates it. A round's substitution and rotation are thus four look-ups.
  std::array<std::array<uint32_t, 256>, 4> Folded_;
};

}  // namespace velox
