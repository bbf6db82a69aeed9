#pragma once

#include <string>

#include "velox/runtime/velCompiler.hpp"

namespace velox {

/// Text made from a printf pattern (C99's rules on every platform). The compiler checks the
/// arguments.
VELOX_API std::string Format(const char* Pattern, ...) VELOX_PRINTF(1, 2);

}  // namespace velox
