#include "velox/codecs/velBinary.hpp"

#include <utility>

namespace velox {

void Reverse(void* Buffer, int32_t Size) noexcept {
  if (Size <= 0) return;
  auto* first = static_cast<uint8_t*>(Buffer);
  auto* last = first + Size - 1;
  for (; first < last; ++first, --last) {
    *first = std::exchange(*last, ReversedBytes[*first]);
    *first = ReversedBytes[*first];
  }
  if (first == last) *first = ReversedBytes[*first];
}

}  // namespace velox
