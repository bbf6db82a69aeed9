#pragma once

#include <cstdint>
#include <string>

#include "velox/runtime/velCompiler.hpp"

namespace velox {

/// The system's own text for an error code, without the line break it ends with. "Error N" when it
/// has none.
VELOX_API std::string SystemErrorMessage(uint32_t ErrorCode);

}  // namespace velox
