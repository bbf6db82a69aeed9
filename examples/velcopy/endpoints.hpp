#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "link.hpp"

namespace velcopy {

constexpr int32_t SmallestCapacity = 1024;
constexpr int32_t LargestCapacity = INT32_MAX - 12;  // shared memory needs 12 bytes more

[[noreturn]] void RefuseArguments(const std::string& What);

/// Opens one end of a way to the other side. Address is KIND:REST, as the program's usage tells.
/// Capacity is the link's, by default what suits the kind. Raises Exception with a message for the
/// user.
std::unique_ptr<TLink> Open(const std::string& Address, bool Receiving,
                            std::optional<int32_t> Capacity);

}  // namespace velcopy
