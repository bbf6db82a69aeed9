#include "velox/codecs/velHash.hpp"

#include <memory>
#include <type_traits>

#include "velox/codecs/velBinary.hpp"
#include "velox/runtime/velException.hpp"
#include "velox/runtime/velFormat.hpp"
#include "velox/runtime/velMessages.hpp"
#include "velox/runtime/velModules.hpp"
#include "velox/runtime/velSingleton.hpp"

namespace velox {
namespace {

template <class T>
constexpr int32_t SizeOf = static_cast<int32_t>(sizeof(T));

/// The integer whose least significant byte comes first. The compiler makes one load of it.
template <class T>
T LoadLittle(const uint8_t* Data) noexcept {
  T value = 0;
  for (size_t i = 0; i < sizeof(T); ++i) value = static_cast<T>(value | T{Data[i]} << 8 * i);
  return value;
}

template <class T>
void StoreLittle(uint8_t* Data, T Value) noexcept {
  for (size_t i = 0; i < sizeof(T); ++i) Data[i] = static_cast<uint8_t>(Value >> 8 * i);
}

/// Writes a check value behind the data.
template <class T>
void AppendLittle(void* Data, int32_t Size, T Value) {
  StoreLittle(static_cast<uint8_t*>(Data) + Size, Value);
}

void RequireSize(int32_t Size) {
  if (Size < 0) throw Exception(messages::seIncorrectParameters);
}

}  // namespace

// --- CRC ---

template <std::unsigned_integral TValue>
TCRC<TValue>::TCRC(TValue Polynomial, TValue InitialValue, bool ReflectInput, bool ReflectOutput,
                   TValue FinalXor)
    : Polynomial_(Polynomial),
      InitialValue_(InitialValue),
      ReflectInput_(ReflectInput),
      ReflectOutput_(ReflectOutput),
      FinalXor_(FinalXor),
      CRC_(InitialValue) {
  MakeTable();
  MakeSlices();
}

template <std::unsigned_integral TValue>
void TCRC<TValue>::MakeTable() noexcept {
  constexpr int Bits = 8 * SizeOf<TValue>;
  constexpr auto Top = static_cast<TValue>(TValue{1} << (Bits - 1));
  const TValue reflected = Reverse(Polynomial_);
  for (size_t i = 0; i < Table_.size(); ++i) {
    auto r = static_cast<TValue>(ReflectInput_ ? TValue(i) : TValue(i) << (Bits - 8));
    for (int bit = 0; bit < 8; ++bit) {
      const bool carry = (r & (ReflectInput_ ? TValue{1} : Top)) != 0;
      r = static_cast<TValue>(ReflectInput_ ? r >> 1 : r << 1);
      if (carry) r ^= ReflectInput_ ? reflected : Polynomial_;
    }
    Table_[i] = r;
  }
}

template <std::unsigned_integral TValue>
void TCRC<TValue>::MakeSlices() noexcept {
  for (size_t i = 0; i < Table_.size(); ++i) {
    TValue r = Table_[i];
    for (int32_t position = BlockSize - 1; position >= 0; --position) {
      if (position < SizeOf<TWord>) Slices_[static_cast<size_t>(position)][i] = InStreamOrder(r);
      r = AfterByte(r, 0);
    }
  }
}

/// Exchanges the register's own order and the one in which its least significant byte meets the
/// next byte of data.
template <std::unsigned_integral TValue>
TValue TCRC<TValue>::InStreamOrder(TValue Value) const noexcept {
  if constexpr (sizeof(TValue) > 1) {
    if (!ReflectInput_) return BSwap(Value);
  }
  return Value;
}

template <std::unsigned_integral TValue>
TValue TCRC<TValue>::AfterByte(TValue Value, uint8_t Byte) const noexcept {
  constexpr int Bits = 8 * SizeOf<TValue>;
  if (ReflectInput_) return static_cast<TValue>(Table_[(Value ^ Byte) & 0xFF] ^ Value >> 4 >> 4);
  return static_cast<TValue>(Table_[(Value >> (Bits - 8) ^ Byte) & 0xFF] ^ Value << 4 << 4);
}

/// The register after the whole blocks of Data, all but the last one of which go through braids:
/// the words at one place of the blocks are a message of their own, and so no look-up waits for
/// those of the other braids. What the braids have come to belongs to the last block's words, whose
/// bytes then make the register.
template <std::unsigned_integral TValue>
TValue TCRC<TValue>::AfterBlocks(TValue Value, const uint8_t* Data, int32_t Blocks) const noexcept {
  std::array<TWord, Braids> braids{InStreamOrder(Value)};
  for (; Blocks > 1; --Blocks, Data += BlockSize) {
    for (size_t k = 0; k < Braids; ++k) {
      const auto word = braids[k] ^ LoadLittle<TWord>(Data + k * sizeof(TWord));
      TWord sum = 0;
      for (size_t i = 0; i < sizeof(TWord); ++i) sum ^= Slices_[i][word >> 8 * i & 0xFF];
      braids[k] = sum;
    }
  }
  TValue r = 0;
  for (size_t k = 0; k < Braids; ++k) {
    const auto word = braids[k] ^ LoadLittle<TWord>(Data + k * sizeof(TWord));
    for (size_t i = 0; i < sizeof(TWord); ++i)
      r = AfterByte(r, static_cast<uint8_t>(word >> 8 * i));
  }
  return r;
}

template <std::unsigned_integral TValue>
void TCRC<TValue>::UpdateThreadSafe(const void* Data, int32_t Size, TValue& Value) const noexcept {
  const auto* next = static_cast<const uint8_t*>(Data);
  TValue r = Value;
  if (Size >= 2 * BlockSize) {
    r = AfterBlocks(r, next, Size / BlockSize);
    next += Size - Size % BlockSize;
    Size %= BlockSize;
  }
  for (; Size > 0; --Size) r = AfterByte(r, *next++);
  Value = r;
}

template <std::unsigned_integral TValue>
TValue TCRC<TValue>::GetFinalCRC(TValue Value) const noexcept {
  const TValue r = ReflectInput_ == ReflectOutput_ ? Value : Reverse(Value);
  return static_cast<TValue>(r ^ FinalXor_);
}

template <std::unsigned_integral TValue>
TValue TCRC<TValue>::CalculateInto(TValue& Value, const void* Data, int32_t Size) const noexcept {
  Value = InitialValue_;
  UpdateThreadSafe(Data, Size, Value);
  return GetFinalCRC(Value);
}

template <std::unsigned_integral TValue>
TValue TCRC<TValue>::Append(TValue Value, void* Data, int32_t Size) const {
  AppendLittle(Data, Size, InStreamOrder(Value));
  return Value;
}

template <std::unsigned_integral TValue>
bool TCRC<TValue>::CheckInto(TValue& Value, const void* Data, int32_t Size) const noexcept {
  if (Size < SizeOf<TValue>) return false;
  const int32_t size = Size - SizeOf<TValue>;
  auto word = LoadLittle<TValue>(static_cast<const uint8_t*>(Data) + size);
  word = static_cast<TValue>(word ^ FinalXor_);
  if (ReflectInput_ != ReflectOutput_) word = Reverse(word);
  uint8_t bytes[sizeof(TValue)];
  StoreLittle(bytes, word);
  CalculateInto(Value, Data, size);
  UpdateThreadSafe(bytes, SizeOf<TValue>, Value);
  return GetFinalCRC(Value) == InitialValue_;
}

template <std::unsigned_integral TValue>
void TCRC<TValue>::Initialize() noexcept {
  CRC_ = InitialValue_;
}

template <std::unsigned_integral TValue>
void TCRC<TValue>::Update(const void* Data, int32_t Size) noexcept {
  UpdateThreadSafe(Data, Size, CRC_);
}

template <std::unsigned_integral TValue>
TValue TCRC<TValue>::GetCurrentCRC() const noexcept {
  return GetFinalCRC(CRC_);
}

template <std::unsigned_integral TValue>
TValue TCRC<TValue>::Calculate(const void* Data, int32_t Size) noexcept {
  return CalculateInto(CRC_, Data, Size);
}

template <std::unsigned_integral TValue>
TValue TCRC<TValue>::CalculateThreadSafe(const void* Data, int32_t Size) const noexcept {
  TValue value;
  return CalculateInto(value, Data, Size);
}

template <std::unsigned_integral TValue>
TValue TCRC<TValue>::CalculateAndAppend(void* Data, int32_t Size) {
  RequireSize(Size);
  return Append(Calculate(Data, Size), Data, Size);
}

template <std::unsigned_integral TValue>
TValue TCRC<TValue>::CalculateAndAppendThreadSafe(void* Data, int32_t Size) const {
  RequireSize(Size);
  return Append(CalculateThreadSafe(Data, Size), Data, Size);
}

template <std::unsigned_integral TValue>
bool TCRC<TValue>::Check(const void* Data, int32_t Size) noexcept {
  return CheckInto(CRC_, Data, Size);
}

template <std::unsigned_integral TValue>
bool TCRC<TValue>::CheckThreadSafe(const void* Data, int32_t Size) const noexcept {
  TValue value;
  return CheckInto(value, Data, Size);
}

template <std::unsigned_integral TValue>
void TCRC<TValue>::PrintTable(TCRCTablePrintFormat, TStrings& Lines) const {
  constexpr size_t EntriesOfLine = 16;
  std::string line;
  for (size_t i = 0; i < Table_.size(); ++i) {
    line +=
        velox::Format("0x%0*llX, ", 2 * SizeOf<TValue>, static_cast<unsigned long long>(Table_[i]));
    if ((i + 1) % EntriesOfLine != 0) continue;
    Lines.push_back(line);
    line.clear();
  }
}

template class TCRC<uint8_t>;
template class TCRC<uint16_t>;
template class TCRC<uint32_t>;
template class TCRC<uint64_t>;

// --- Sums ---

template <std::unsigned_integral TValue>
void TChecksum<TValue>::UpdateThreadSafe(const void* Data, int32_t Size,
                                         TValue& Sum) const noexcept {
  const auto* next = static_cast<const uint8_t*>(Data);
  TValue sum = Sum;
  for (int32_t i = 0; i < Size; ++i) sum = static_cast<TValue>(sum + next[i]);
  Sum = sum;
}

template <std::unsigned_integral TValue>
void TChecksum<TValue>::Initialize() noexcept {
  Sum_ = 0;
}

template <std::unsigned_integral TValue>
void TChecksum<TValue>::Update(const void* Data, int32_t Size) noexcept {
  UpdateThreadSafe(Data, Size, Sum_);
}

template <std::unsigned_integral TValue>
TValue TChecksum<TValue>::GetCurrentChecksum() const noexcept {
  return static_cast<TValue>(0 - Sum_);
}

template <std::unsigned_integral TValue>
TValue TChecksum<TValue>::Calculate(const void* Data, int32_t Size) noexcept {
  Initialize();
  Update(Data, Size);
  return GetCurrentChecksum();
}

template <std::unsigned_integral TValue>
TValue TChecksum<TValue>::CalculateThreadSafe(const void* Data, int32_t Size) const noexcept {
  TValue sum = 0;
  UpdateThreadSafe(Data, Size, sum);
  return static_cast<TValue>(0 - sum);
}

template <std::unsigned_integral TValue>
TValue TChecksum<TValue>::CalculateAndAppend(void* Data, int32_t Size) {
  RequireSize(Size);
  const TValue value = Calculate(Data, Size);
  AppendLittle(Data, Size, value);
  return value;
}

template <std::unsigned_integral TValue>
TValue TChecksum<TValue>::CalculateAndAppendThreadSafe(void* Data, int32_t Size) const {
  RequireSize(Size);
  const TValue value = CalculateThreadSafe(Data, Size);
  AppendLittle(Data, Size, value);
  return value;
}

template <std::unsigned_integral TValue>
bool TChecksum<TValue>::Check(const void* Data, int32_t Size) noexcept {
  return Calculate(Data, Size) == 0;
}

template class TChecksum<uint8_t>;
template class TChecksum<uint16_t>;
template class TChecksum<uint32_t>;

// --- Adler-32 and Fletcher ---

template <std::unsigned_integral TWord, uint32_t Modulus, int32_t BlockSize>
void TTwoSumChecksum<TWord, Modulus, BlockSize>::Update(const void* Data, int32_t Size) {
  constexpr int32_t Quarter = 4, Group = 4 * Quarter;  // words
  if (Size % SizeOf<TWord> != 0) throw Exception(messages::seSizeMustBeEven);
  const auto* next = static_cast<const uint8_t*>(Data);
  uint32_t a = A_, b = B_;
  // Sums four words apart from those before them, so that few additions wait for each other.
  const auto addQuarter = [&next, &a, &b] {
    uint32_t quarterA = 0, quarterB = 0;
    for (int32_t i = 0; i < Quarter; ++i, next += sizeof(TWord)) {
      quarterA += LoadLittle<TWord>(next);
      quarterB += quarterA;
    }
    b += Quarter * a + quarterB;
    a += quarterA;
  };
  while (Size > 0) {
    int32_t words = (Size < BlockSize ? Size : BlockSize) / SizeOf<TWord>;
    Size -= words * SizeOf<TWord>;
    for (; words >= Group; words -= Group) {
      for (int32_t i = 0; i < Group; i += Quarter) addQuarter();
    }
    for (; words > 0; --words, next += sizeof(TWord)) {
      a += LoadLittle<TWord>(next);
      b += a;
    }
    a %= Modulus;
    b %= Modulus;
  }
  A_ = a;
  B_ = b;
}

template <std::unsigned_integral TWord, uint32_t Modulus, int32_t BlockSize>
void TTwoSumChecksum<TWord, Modulus, BlockSize>::Initialize() noexcept {
  A_ = 1;
  B_ = 0;
}

template <std::unsigned_integral TWord, uint32_t Modulus, int32_t BlockSize>
uint32_t TTwoSumChecksum<TWord, Modulus, BlockSize>::GetCurrentChecksum() const noexcept {
  return B_ << 16 | A_;
}

template <std::unsigned_integral TWord, uint32_t Modulus, int32_t BlockSize>
uint32_t TTwoSumChecksum<TWord, Modulus, BlockSize>::Calculate(const void* Data, int32_t Size) {
  Initialize();
  Update(Data, Size);
  return GetCurrentChecksum();
}

template <std::unsigned_integral TWord, uint32_t Modulus, int32_t BlockSize>
uint32_t TTwoSumChecksum<TWord, Modulus, BlockSize>::CalculateAndAppend(void* Data, int32_t Size) {
  RequireSize(Size);
  const uint32_t value = Calculate(Data, Size);
  AppendLittle(Data, Size, value);
  return value;
}

template <std::unsigned_integral TWord, uint32_t Modulus, int32_t BlockSize>
bool TTwoSumChecksum<TWord, Modulus, BlockSize>::Check(const void* Data, int32_t Size) {
  if (Size < SizeOf<uint32_t>) return false;
  const int32_t size = Size - SizeOf<uint32_t>;
  return Calculate(Data, size) == LoadLittle<uint32_t>(static_cast<const uint8_t*>(Data) + size);
}

template class TTwoSumChecksum<uint8_t, 65521, 4096>;
template class TTwoSumChecksum<uint16_t, 65535, 256>;

// --- Named instances ---

namespace {

TSingletonSlot CRC8IButton;
TSingletonSlot CRC16Standard;
TSingletonSlot CRC16CITT;
TSingletonSlot CRC16XModem;
TSingletonSlot CRC32Standard;
TSingletonSlot CRC64Standard;
TSingletonSlot Adler32;
TSingletonSlot Checksum8;

/// Gives out a new instance, initialised, once it has proved itself on the nine bytes that
/// published check values are given for.
template <class T, class TValue>
TObject* Tested(std::unique_ptr<T> Instance, TValue Expected) {
  if (Instance->Calculate("123456789", 9) != Expected) {
    throw EAssertionFailed(messages::seAssertionFailed);
  }
  Instance->Initialize();
  return Instance.release();
}

TObject* MakeCRC8IButton() {
  return Tested(std::make_unique<TCRC8>(uint8_t{0x31}, uint8_t{0}, true, true, uint8_t{0}), 0xA1);
}

TObject* MakeCRC16(uint16_t Polynomial, uint16_t InitialValue, bool Reflect, uint16_t Expected) {
  return Tested(std::make_unique<TCRC16>(Polynomial, InitialValue, Reflect, Reflect, uint16_t{0}),
                Expected);
}
TObject* MakeCRC16Standard() { return MakeCRC16(0x8005, 0x0000, true, 0xBB3D); }
TObject* MakeCRC16CITT() { return MakeCRC16(0x1021, 0xFFFF, false, 0x29B1); }
TObject* MakeCRC16XModem() { return MakeCRC16(0x8408, 0x0000, true, 0x0C73); }

TObject* MakeCRC32Standard() { return Tested(std::make_unique<TCRC32>(), 0xCBF43926u); }

TObject* MakeCRC64Standard() {
  constexpr uint64_t Ones = ~uint64_t{0};
  return Tested(std::make_unique<TCRC64>(uint64_t{0x42F0E1EBA9EA3693}, Ones, false, false, Ones),
                uint64_t{0x62EC59E3F1A4F00A});
}

template <class T, auto Make>
T* Named(TSingletonSlot& Slot) {
  SingletonCreate(Slot, TSingletonConstructionRoutine::Bind<Make>());
  return static_cast<T*>(Slot.load(std::memory_order_acquire));
}

}  // namespace

TCRC8::~TCRC8() = default;
TCRC8* TCRC8::GetInstanceIButton() { return Named<TCRC8, &MakeCRC8IButton>(CRC8IButton); }

TCRC16::~TCRC16() = default;
TCRC16* TCRC16::GetInstanceStandard() { return Named<TCRC16, &MakeCRC16Standard>(CRC16Standard); }
TCRC16* TCRC16::GetInstanceCITT() { return Named<TCRC16, &MakeCRC16CITT>(CRC16CITT); }
TCRC16* TCRC16::GetInstanceXModem() { return Named<TCRC16, &MakeCRC16XModem>(CRC16XModem); }

TCRC32::TCRC32() : TCRC(0x04C11DB7, 0xFFFFFFFF, true, true, 0xFFFFFFFF) {}
TCRC32::~TCRC32() = default;
TCRC32* TCRC32::GetInstanceStandard() { return Named<TCRC32, &MakeCRC32Standard>(CRC32Standard); }

TCRC64::~TCRC64() = default;
TCRC64* TCRC64::GetInstanceStandard() { return Named<TCRC64, &MakeCRC64Standard>(CRC64Standard); }

TChecksum8::~TChecksum8() = default;
TChecksum8* TChecksum8::GetInstance() { return SingletonInstance<TChecksum8>(Checksum8); }
TObject* TChecksum8::SingletonConstruction() { return new TChecksum8; }

TChecksum16::~TChecksum16() = default;
TChecksum32::~TChecksum32() = default;

TAdler32Checksum::~TAdler32Checksum() = default;
TAdler32Checksum* TAdler32Checksum::GetInstance() {
  return SingletonInstance<TAdler32Checksum>(Adler32);
}
TObject* TAdler32Checksum::SingletonConstruction() {
  return Tested(std::make_unique<TAdler32Checksum>(), 0x091E01DEu);
}

TFletcherChecksum::~TFletcherChecksum() = default;

void modules::FinalizeHash() noexcept {
  for (TSingletonSlot* slot : {&CRC8IButton, &CRC16Standard, &CRC16CITT, &CRC16XModem,
                               &CRC32Standard, &CRC64Standard, &Adler32, &Checksum8}) {
    SingletonDestroy(*slot);
  }
}

}  // namespace velox
