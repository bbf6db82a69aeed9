#pragma once

#include <cstdio>

#include "velox/runtime/velException.hpp"

namespace example {

/// What has been printed is on its way to whoever reads it. Raises Exception when any of it could
/// not be written: a program calls this at its end.
inline void FinishOutput() {
  if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0)
    throw velox::Exception("Cannot write to the standard output");
}

}  // namespace example
