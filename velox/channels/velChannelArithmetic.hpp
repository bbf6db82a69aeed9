#pragma once

#include <cstdint>

#include "velox/runtime/velException.hpp"

/// The arithmetic of timeouts: 32-bit, signed, results beyond 32 bits wrap.
namespace velox {

constexpr int32_t AddWrapped(int32_t A, int32_t B) noexcept {
  return static_cast<int32_t>(static_cast<uint32_t>(A) + static_cast<uint32_t>(B));
}

constexpr int32_t MultiplyWrapped(int32_t A, int32_t B) noexcept {
  return static_cast<int32_t>(static_cast<uint32_t>(A) * static_cast<uint32_t>(B));
}

/// A * B / C: the product wraps before the division, which truncates. Raises EDivByZero when C is
/// 0.
inline int32_t MultiplyDivide(int32_t A, int32_t B, int32_t C) {
  if (C == 0) throw EDivByZero();
  const int32_t product = MultiplyWrapped(A, B);
  return C == -1 ? MultiplyWrapped(product, -1)
                 : product / C;  // the smallest number has no opposite
}

}  // namespace velox
