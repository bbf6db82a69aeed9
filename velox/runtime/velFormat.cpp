#include "velox/runtime/velFormat.hpp"

#include <cstdarg>
#include <cstdio>

namespace velox {

std::string Format(const char* Pattern, ...) {
  va_list arguments;
  va_start(arguments, Pattern);
  va_list again;
  va_copy(again, arguments);
  const int length = std::vsnprintf(nullptr, 0, Pattern, arguments);
  va_end(arguments);
  std::string text(length > 0 ? static_cast<size_t>(length) : 0, '\0');
  if (length > 0) std::vsnprintf(text.data(), text.size() + 1, Pattern, again);
  va_end(again);
  return text;
}

}  // namespace velox
