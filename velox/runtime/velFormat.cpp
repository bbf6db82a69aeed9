#include "velox/runtime/velFormat.hpp"

#include <cstdarg>
#include <cstdio>

namespace velox {

std::string Format(const char* Pattern, ...) {
  va_list arguments;
  va_start(arguments, Pattern);
  va_list again;
  va_copy(again, arguments);
  char room[256];  // for most texts
  const int length = std::vsnprintf(room, sizeof room, Pattern, arguments);
  va_end(arguments);
  std::string text;
  if (length > 0 && static_cast<size_t>(length) < sizeof room) {
    text.assign(room, static_cast<size_t>(length));
  } else if (length > 0) {
    text.resize(static_cast<size_t>(length));
    std::vsnprintf(text.data(), text.size() + 1, Pattern, again);
  }
  va_end(again);
  return text;
}

}  // namespace velox
