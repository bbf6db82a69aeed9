#pragma once

#include <array>
#include <concepts>
#include <cstdint>
#include <string>

#include "velox/runtime/velCompiler.hpp"
#include "velox/runtime/velObject.hpp"
#include "velox/runtime/velStream.hpp"
#include "velox/runtime/velStrings.hpp"

/// Cyclic redundancy checks of 8 to 64 bits, plain checksums, and MD5.
///
/// All of them speak the same small protocol: Initialize(), Update() for each piece of the data,
/// then the current value; Calculate() does the three at once. CalculateAndAppend() also writes the
/// value behind the data, and Check() verifies data that ends with its value.
///
///     TCRC32 crc;
///     crc.Initialize();
///     while (const int32_t count = file.Read(block, sizeof block)) crc.Update(block, count);
///     const uint32_t value = crc.GetCurrentCRC();
///
///     const uint16_t once = TCRC16::GetInstanceStandard()->CalculateThreadSafe(data, size);
///
/// Sizes are bytes; a size below 1 feeds nothing, unless said otherwise. Data is borrowed for the
/// call.
///
/// Threads: an object has one running value and is used by one thread at a time. The named
/// instances (GetInstance…) belong to the library, live until it is unloaded, and are shared by the
/// whole process: use them through the operations whose names end in ThreadSafe, which keep the
/// running value outside the object and may run on any number of threads at once, or where one
/// thread only uses them.
namespace velox {

/// How PrintTable writes a table.
enum class TCRCTablePrintFormat : uint8_t {
  crcTfC = 0  ///< the body of a C array's initialiser
};

/// What TCRC8, TCRC16, TCRC32 and TCRC64 have in common; TValue is their unsigned integer.
///
/// The parameters are those of the CRC catalogue (https://reveng.sourceforge.io/crc-catalogue/), by
/// the model of R. N. Williams, "A painless guide to CRC error detection algorithms". All tables
/// are computed by the constructor and never change. Longer data is fed in blocks of four words,
/// still with one look-up a byte: the words at one place of the blocks are four messages that don't
/// wait for each other (M. Adler's "braiding"), and a word needs a table for each of its bytes, all
/// derived from the first ("slicing", M. E. Kounavis and F. L. Berry, 2005). So an object is large:
/// from 1.3 KiB for 8 bits to 18 KiB for 64.
template <std::unsigned_integral TValue>
class TCRC : public TObject {
 public:
  /// Polynomial is given with its most significant bit first and without the leading one, whether
  /// the bits of the input and of the result are reflected or not.
  TCRC(TValue Polynomial, TValue InitialValue, bool ReflectInput, bool ReflectOutput,
       TValue FinalXor);

  /// As given to the constructor.
  TValue GetPolynomial() const noexcept { return Polynomial_; }
  TValue GetInitialValue() const noexcept { return InitialValue_; }
  bool GetReflectInput() const noexcept { return ReflectInput_; }
  bool GetReflectOutput() const noexcept { return ReflectOutput_; }
  TValue GetFinalXor() const noexcept { return FinalXor_; }
  /// Entry i is what the byte i makes of a register of zeros.
  const std::array<TValue, 256>& GetTable() const noexcept { return Table_; }

  /// Sets the running value to the initial one, as the constructor does.
  void Initialize() noexcept;

  /// Feeds bytes into the running value.
  void Update(const void* Data, int32_t Size) noexcept;

  /// The CRC of the bytes fed so far. The running value stays, so that more can be fed.
  TValue GetCurrentCRC() const noexcept;

  /// The CRC that a running value stands for: reflected when the reflection of input and output
  /// differ, then combined with the final xor value.
  TValue GetFinalCRC(TValue Value) const noexcept;

  /// The CRC of these bytes. They become the ones fed so far.
  TValue Calculate(const void* Data, int32_t Size) noexcept;

  /// The CRC of the first Size bytes, which is also written behind them, for which the caller
  /// provides the room: the least significant byte first when the input is reflected, else the most
  /// significant byte first. Raises Exception "Incorrect parameters" for a negative Size.
  TValue CalculateAndAppend(void* Data, int32_t Size);

  /// Whether the data, whose Size includes the CRC appended to it, leads to the residue that equals
  /// the initial value. False for less data than a CRC takes.
  ///
  /// Beware: the residue is the initial value only for some models. It is for all the named
  /// instances but the CITT one (initial value 0xFFFF, final xor 0), for which Check reports false
  /// for intact data; there, calculate and compare.
  bool Check(const void* Data, int32_t Size) noexcept;

  /// The same operations with the running value in the caller's variable, which starts as
  /// GetInitialValue() and stands for the CRC GetFinalCRC(Value).
  void UpdateThreadSafe(const void* Data, int32_t Size, TValue& Value) const noexcept;
  TValue CalculateThreadSafe(const void* Data, int32_t Size) const noexcept;
  TValue CalculateAndAppendThreadSafe(void* Data, int32_t Size) const;
  bool CheckThreadSafe(const void* Data, int32_t Size) const noexcept;

  /// Adds the table to Lines as 16 lines of 16 entries such as "0xC0C1, ", the last one too ends
  /// with a comma and a space.
  void PrintTable(TCRCTablePrintFormat Format, TStrings& Lines) const;

 private:
  using TWord = std::conditional_t<sizeof(TValue) == 8, uint64_t, uint32_t>;
  static constexpr size_t Braids = 4;
  static constexpr int32_t BlockSize = Braids * sizeof(TWord);  // bytes: a word of each braid

  TValue CalculateInto(TValue& Value, const void* Data, int32_t Size) const noexcept;
  TValue Append(TValue Value, void* Data, int32_t Size) const;
  bool CheckInto(TValue& Value, const void* Data, int32_t Size) const noexcept;
  TValue AfterByte(TValue Value, uint8_t Byte) const noexcept;
  TValue AfterBlocks(TValue Value, const uint8_t* Data, int32_t Blocks) const noexcept;
  TValue InStreamOrder(TValue Value) const noexcept;
  void MakeTable() noexcept;
  void MakeSlices() noexcept;

  TValue Polynomial_;
  TValue InitialValue_;
  bool ReflectInput_;
  bool ReflectOutput_;
  TValue FinalXor_;
  std::array<TValue, 256> Table_;
  TValue CRC_;
  // What a byte makes of a register of zeros when it stands at this position of a word, and zeros
  // follow until the same braid's next word. The values are in stream order, so that one loop
  // serves both directions.
  std::array<std::array<TValue, 256>, sizeof(TWord)> Slices_;
};

extern template class VELOX_API TCRC<uint8_t>;
extern template class VELOX_API TCRC<uint16_t>;
extern template class VELOX_API TCRC<uint32_t>;
extern template class VELOX_API TCRC<uint64_t>;

/// CRCs of 8 bits. Appended to data as one byte.
class VELOX_API TCRC8 : public TCRC<uint8_t> {
 public:
  using TCRC::TCRC;
  ~TCRC8() override;

  /// CRC-8/MAXIM-DOW: 0x31, 0x00, reflected, final xor 0x00; "123456789" gives 0xA1.
  static TCRC8* GetInstanceIButton();
};

/// CRCs of 16 bits.
class VELOX_API TCRC16 : public TCRC<uint16_t> {
 public:
  using TCRC::TCRC;
  ~TCRC16() override;

  /// CRC-16/ARC: 0x8005, 0x0000, reflected, final xor 0x0000; "123456789" gives 0xBB3D.
  static TCRC16* GetInstanceStandard();
  /// CRC-16/IBM-3740: 0x1021, 0xFFFF, not reflected, final xor 0x0000; "123456789" gives 0x29B1.
  /// See Check about it.
  static TCRC16* GetInstanceCITT();
  /// 0x8408, 0x0000, reflected, final xor 0x0000; "123456789" gives 0x0C73. The polynomial is in
  /// fact 0x1021 reflected, and is reflected once more, so the result is neither that of
  /// CRC-16/XMODEM nor that of CRC-16/KERMIT, and stays so for the sake of the data that carries
  /// it.
  static TCRC16* GetInstanceXModem();
};

/// CRCs of 32 bits.
class VELOX_API TCRC32 : public TCRC<uint32_t> {
 public:
  using TCRC::TCRC;
  /// With the parameters of GetInstanceStandard().
  TCRC32();
  ~TCRC32() override;

  /// CRC-32/ISO-HDLC, that of Ethernet, PKZIP and PNG: 0x04C11DB7, 0xFFFFFFFF, reflected, final xor
  /// 0xFFFFFFFF; "123456789" gives 0xCBF43926.
  static TCRC32* GetInstanceStandard();
};

/// CRCs of 64 bits.
class VELOX_API TCRC64 : public TCRC<uint64_t> {
 public:
  using TCRC::TCRC;
  ~TCRC64() override;

  /// CRC-64/WE: 0x42F0E1EBA9EA3693, all ones, not reflected, final xor all ones; "123456789" gives
  /// 0x62EC59E3F1A4F00A.
  static TCRC64* GetInstanceStandard();
};

/// What TChecksum8, TChecksum16 and TChecksum32 have in common: the sum of all bytes, modulo the
/// range of TValue; the checksum is its two's complement.
template <std::unsigned_integral TValue>
class TChecksum : public TObject {
 public:
  /// The sum is 0.
  TChecksum() noexcept = default;

  /// Sets the sum to 0.
  void Initialize() noexcept;
  /// Adds bytes to the sum.
  void Update(const void* Data, int32_t Size) noexcept;
  /// The two's complement of the sum so far. The sum stays.
  TValue GetCurrentChecksum() const noexcept;
  /// The checksum of these bytes.
  TValue Calculate(const void* Data, int32_t Size) noexcept;
  /// The checksum of the first Size bytes, which is also written behind them, the least significant
  /// byte first; the caller provides the room. Raises Exception "Incorrect parameters" for a
  /// negative Size.
  TValue CalculateAndAppend(void* Data, int32_t Size);
  /// Whether all Size bytes, the appended checksum included, add up to 0.
  ///
  /// Beware: that holds for all intact data with a checksum of 8 bits only. The wider ones add the
  /// bytes of the checksum one by one, too, and so report false for nearly all intact data; there,
  /// calculate and compare.
  bool Check(const void* Data, int32_t Size) noexcept;

  /// The same operations with the sum in the caller's variable, which starts as 0 and stands for
  /// the checksum 0 - Sum.
  void UpdateThreadSafe(const void* Data, int32_t Size, TValue& Sum) const noexcept;
  TValue CalculateThreadSafe(const void* Data, int32_t Size) const noexcept;
  TValue CalculateAndAppendThreadSafe(void* Data, int32_t Size) const;

 private:
  TValue Sum_ = 0;
};

extern template class VELOX_API TChecksum<uint8_t>;
extern template class VELOX_API TChecksum<uint16_t>;
extern template class VELOX_API TChecksum<uint32_t>;

/// The sum of 8 bits, as in the records of Intel HEX files.
class VELOX_API TChecksum8 : public TChecksum<uint8_t> {
 public:
  ~TChecksum8() override;
  /// The one of the process, made on first use by SingletonConstruction.
  static TChecksum8* GetInstance();
  static TObject* SingletonConstruction();
};

/// The sum of 16 bits.
class VELOX_API TChecksum16 : public TChecksum<uint16_t> {
 public:
  ~TChecksum16() override;
};

/// The sum of 32 bits.
class VELOX_API TChecksum32 : public TChecksum<uint32_t> {
 public:
  ~TChecksum32() override;
};

/// What TAdler32Checksum and TFletcherChecksum have in common: A adds up the little-endian words of
/// the data and B the values of A, both modulo Modulus. The modulo is taken once after BlockSize
/// bytes, few enough that the 32 bits of B hold their sums.
template <std::unsigned_integral TWord, uint32_t Modulus, int32_t BlockSize>
class TTwoSumChecksum : public TObject {
 public:
  /// A is 1 and B is 0.
  TTwoSumChecksum() noexcept = default;

  /// Sets A to 1 and B to 0.
  void Initialize() noexcept;
  /// Adds words. Raises Exception "Size must be 2 * n", with nothing added, when the last word is
  /// incomplete.
  void Update(const void* Data, int32_t Size);
  /// B in the upper and A in the lower 16 bits. Both stay.
  uint32_t GetCurrentChecksum() const noexcept;
  /// The checksum of these bytes. Raises as Update.
  uint32_t Calculate(const void* Data, int32_t Size);
  /// The checksum of the first Size bytes, which is also written behind them as 4 bytes, the least
  /// significant first; the caller provides the room. Raises as Update, and Exception "Incorrect
  /// parameters" for a negative Size.
  uint32_t CalculateAndAppend(void* Data, int32_t Size);
  /// Whether the last 4 of the Size bytes are the checksum of those before them. False for less
  /// than 4 bytes. Raises as Update.
  bool Check(const void* Data, int32_t Size);

 private:
  uint32_t A_ = 1;
  uint32_t B_ = 0;
};

/// What TAdler32Checksum is made of.
using TAdler32Base = TTwoSumChecksum<uint8_t, 65521, 4096>;
/// What TFletcherChecksum is made of.
using TFletcherBase = TTwoSumChecksum<uint16_t, 65535, 256>;
extern template class VELOX_API TTwoSumChecksum<uint8_t, 65521, 4096>;
extern template class VELOX_API TTwoSumChecksum<uint16_t, 65535, 256>;

/// Adler-32 as in RFC 1950, section 8.2 (but appended with its least significant byte first).
class VELOX_API TAdler32Checksum : public TAdler32Base {
 public:
  ~TAdler32Checksum() override;
  /// "123456789" gives 0x091E01DE.
  static TAdler32Checksum* GetInstance();
  static TObject* SingletonConstruction();
};

/// A Fletcher sum over words of 16 bits, which takes an even number of bytes. It starts with A = 1,
/// unlike Fletcher's own, so that leading zeros count.
class VELOX_API TFletcherChecksum : public TFletcherBase {
 public:
  ~TFletcherChecksum() override;
};

/// The 16 bytes of an MD5 digest, in the order that RFC 1321 gives them.
using TMD5Digest = std::array<uint8_t, 16>;

/// MD5 digests (RFC 1321), computed by the system's cryptographic service.
///
/// An object holds one hash session of the service, open from the constructor on. GetCurrentMD5()
/// ends the hashing: after it Update() fails until the next Initialize(), with which every
/// operation named Calculate… begins. Any failure of the service raises EOSError.
///
///     TMD5Digest digest;
///     TMD5::CalculateForStringThreadSafe("abc", digest);
///     const std::string text = TMD5::ToString(digest);  // "900150983CD24FB0D6963F7D28E17F72"
///
/// MD5 is no protection against anyone who wants two files to look the same; it finds accidental
/// changes.
class VELOX_API TMD5 : public TObject {
 public:
  /// Opens a session of the service. Raises EOSError.
  TMD5();
  ~TMD5() override;

  /// Starts anew, releasing the session there was.
  void Initialize();
  /// Releases the session. Initialize() opens the next one.
  void Finalize() noexcept;
  /// Feeds bytes. Raises Exception "Incorrect parameters" for a negative Size.
  void Update(const void* Data, int32_t Size);
  /// The digest of the bytes fed so far; ends the hashing.
  void GetCurrentMD5(TMD5Digest& Digest);

  /// The digest of these bytes, or of this text.
  void Calculate(const void* Data, int32_t Size, TMD5Digest& Digest);
  void CalculateForString(const std::string& S, TMD5Digest& Digest);
  /// From the stream's position to its end.
  void CalculateForStream(TStream& Stream, TMD5Digest& Digest);
  /// The whole file. Others may read it meanwhile but not write it. Raises EFOpenError when it
  /// can't be opened so.
  void CalculateForFile(const std::string& FileName, TMD5Digest& Digest);

  /// 32 upper-case hexadecimal digits.
  static std::string ToString(const TMD5Digest& Digest);

  /// The one of the process, made on first use by SingletonConstruction.
  static TMD5* GetInstance();
  static TObject* SingletonConstruction();

  /// The same with an object of the call's own, for any number of threads.
  static void CalculateThreadSafe(const void* Data, int32_t Size, TMD5Digest& Digest);
  static void CalculateForStringThreadSafe(const std::string& S, TMD5Digest& Digest);

 private:
  // HCRYPTPROV and HCRYPTHASH, which are integers of a pointer's size; 0 when there is none.
  uintptr_t Provider_ = 0;
  uintptr_t Hash_ = 0;
};

}  // namespace velox
