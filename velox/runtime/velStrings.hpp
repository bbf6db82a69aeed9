#pragma once

#include <bitset>
#include <string>
#include <vector>

namespace velox {

/// An ordered list of strings.
using TStrings = std::vector<std::string>;

/// A set of characters, each by its unsigned code.
using TCharSet = std::bitset<256>;

}  // namespace velox
