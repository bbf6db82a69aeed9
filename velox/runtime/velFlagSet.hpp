#pragma once

#include <cstdint>
#include <initializer_list>
#include <type_traits>

namespace velox {

/// A set over an enumeration whose values are 0 to 31.
///
///     TVersionInfoFileFlags flags{TVersionInfoFileFlag::viffDebug};
///     if (flags.Contains(TVersionInfoFileFlag::viffDebug))
///       flags.Exclude(TVersionInfoFileFlag::viffDebug);
template <class E>
requires std::is_enum_v<E>
class TFlagSet {
 public:
  /// The empty set, or one with these members.
  constexpr TFlagSet() noexcept = default;
  constexpr TFlagSet(std::initializer_list<E> Members) noexcept {
    for (const E member : Members) Include(member);
  }

  /// Whether it has the member; whether it has none.
  constexpr bool Contains(E Member) const noexcept { return (Bits_ & Bit(Member)) != 0; }
  constexpr bool GetIsEmpty() const noexcept { return Bits_ == 0; }

  /// Puts a member in, and takes one out; nothing happens when that is so already.
  constexpr void Include(E Member) noexcept { Bits_ |= Bit(Member); }
  constexpr void Exclude(E Member) noexcept { Bits_ &= ~Bit(Member); }

  /// Equal when both have the same members.
  friend constexpr bool operator==(const TFlagSet&, const TFlagSet&) noexcept = default;

 private:
  static constexpr uint32_t Bit(E Member) noexcept {
    return uint32_t{1} << static_cast<uint32_t>(Member);
  }

  uint32_t Bits_ = 0;
};

}  // namespace velox
