#pragma once

#include <array>
#include <bit>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "velox/runtime/velCompiler.hpp"

/// Byte order, bit order and rotations of integers. Everything here is a value in, value out
/// function that any thread may call. A signed value is treated as its bit pattern; the result has
/// the argument's type, so mind that a plain literal is an `int` of 32 bits.
///
///     static_assert(BSwap(uint16_t{0x1122}) == 0x2211);
///     static_assert(Reverse(uint16_t{0x8408}) == 0x1021);
///     static_assert(Rol(uint8_t{0x81}, 1) == 0x03);
namespace velox {

/// The integers that rotate: 8, 16 or 32 bits, signed or not.
template <class T>
concept RotatableInteger = std::integral<T> && !std::same_as<T, bool> && sizeof(T) <= 4;
/// The integers with a byte order: 16, 32 or 64 bits.
template <class T>
concept SwappableInteger = std::integral<T> && sizeof(T) >= 2 && sizeof(T) <= 8;
/// The integers with a bit order: 8, 16, 32 or 64 bits.
template <class T>
concept ReversibleInteger = std::integral<T> && !std::same_as<T, bool> && sizeof(T) <= 8;

/// Entry i is i with its eight bits in reverse order.
inline constexpr std::array<uint8_t, 256> ReversedBytes = [] {
  std::array<uint8_t, 256> table{};
  for (unsigned i = 0; i < table.size(); ++i) {
    unsigned reversed = 0;
    for (unsigned bit = 0; bit < 8; ++bit) reversed |= (i >> bit & 1) << (7 - bit);
    table[i] = static_cast<uint8_t>(reversed);
  }
  return table;
}();

/// The bytes of Value in reverse order.
template <SwappableInteger T>
constexpr T BSwap(T Value) noexcept {
  auto rest = static_cast<std::make_unsigned_t<T>>(Value);
  std::make_unsigned_t<T> result = 0;
  for (size_t i = 0; i < sizeof(T); ++i) {
    result = static_cast<std::make_unsigned_t<T>>(result << 8 | (rest & 0xFF));
    rest = static_cast<std::make_unsigned_t<T>>(rest >> 8);
  }
  return static_cast<T>(result);
}

/// The bits of Value in reverse order: bit 0 changes places with the highest bit of the type.
template <ReversibleInteger T>
constexpr T Reverse(T Value) noexcept {
  const auto bits = static_cast<std::make_unsigned_t<T>>(Value);
  uint64_t result = 0;
  for (size_t i = 0; i < sizeof(T); ++i) result = result << 8 | ReversedBytes[bits >> 8 * i & 0xFF];
  return static_cast<T>(result);
}

/// Reverses the bit order of a whole buffer of Size bytes in place: the first byte changes places
/// with the last, each with its bits reversed. A Size below 1 changes nothing.
VELOX_API void Reverse(void* Buffer, int32_t Size) noexcept;

/// Rotates left by Count. As in the processor's instruction only the low five bits of Count matter;
/// since the widths divide 32, that is a rotation by Count modulo the width.
template <RotatableInteger T>
constexpr T Rol(T Value, uint8_t Count) noexcept {
  return static_cast<T>(std::rotl(static_cast<std::make_unsigned_t<T>>(Value), Count % 32));
}

/// Rotates right by Count, which is taken as in Rol.
template <RotatableInteger T>
constexpr T Ror(T Value, uint8_t Count) noexcept {
  return static_cast<T>(std::rotr(static_cast<std::make_unsigned_t<T>>(Value), Count % 32));
}

/// Rotates left through a carry bit above the value: a rotation of width + 1 bits. The carry enters
/// as 0, and the one that leaves is dropped. The low five bits of Count count, for 8 and 16 bits
/// modulo 9 and 17.
template <RotatableInteger T>
constexpr T Rcl(T Value, uint8_t Count) noexcept {
  constexpr unsigned Bits = 8 * sizeof(T) + 1;
  const unsigned count = Count % 32 % Bits;
  const uint64_t bits = static_cast<std::make_unsigned_t<T>>(Value);
  return static_cast<T>(bits << count | bits >> (Bits - count));
}

/// Rotates right through the carry bit; carry and Count as in Rcl.
template <RotatableInteger T>
constexpr T Rcr(T Value, uint8_t Count) noexcept {
  constexpr unsigned Bits = 8 * sizeof(T) + 1;
  const unsigned count = Count % 32 % Bits;
  const uint64_t bits = static_cast<std::make_unsigned_t<T>>(Value);
  return static_cast<T>(bits >> count | bits << (Bits - count));
}

}  // namespace velox
