#pragma once

#include <cstddef>

namespace velox {

/// Sets Size bytes to zero, also where nobody reads them afterwards, which a compiler would
/// otherwise take as leave not to write them: for keys and the like.
inline void Wipe(void* Data, size_t Size) noexcept {
  auto* bytes = static_cast<volatile unsigned char*>(Data);
  for (size_t i = 0; i < Size; ++i) bytes[i] = 0;
}

}  // namespace velox
