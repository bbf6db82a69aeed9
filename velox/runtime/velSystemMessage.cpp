#include "velox/runtime/velSystemMessage.hpp"

#include <string_view>

#include "velox/runtime/velFormat.hpp"
#include "velox/runtime/velWindows.hpp"

namespace velox {

std::string SystemErrorMessage(uint32_t ErrorCode) {
  char text[1024];
  const DWORD length = ::FormatMessageA(
      FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS | FORMAT_MESSAGE_ARGUMENT_ARRAY,
      nullptr, ErrorCode, 0, text, sizeof text, nullptr);
  const std::string_view found(text, length);
  const size_t last = found.find_last_not_of("\r\n ");
  if (last == std::string_view::npos) return Format("Error %u", ErrorCode);
  return std::string(found.substr(0, last + 1));
}

}  // namespace velox
