#pragma once

#include <string>
#include <vector>

namespace velox {

/// An ordered list of strings.
using TStrings = std::vector<std::string>;

}  // namespace velox
