#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "link.hpp"

namespace velcopy {

constexpr int32_t SmallestCapacity = 1024;
constexpr int32_t LargestCapacity = INT32_MAX - 12;  // shared memory needs 12 bytes more

/// Opens one end of a way to the other side. Address is KIND:REST, as the program's usage tells.
/// Capacity is the link's, by default what suits the kind. Raises Exception with a message for the
/// user.
std::unique_ptr<TLink> Open(const std::string& Address, bool Receiving,
                            std::optional<int32_t> Capacity = std::nullopt);

// ---- what endpoints of all kinds use

inline const char* PeerOf(bool Receiving) { return Receiving ? "sender" : "receiver"; }
[[noreturn]] void FailToOpen(const std::string& Address, uint32_t Error);

// ---- and the command line too

[[noreturn]] void RefuseArguments(const std::string& What);
/// What is the number's name.
int32_t ParseNumber(const std::string& What, std::string_view Text, int32_t Least, int32_t Most);

}  // namespace velcopy
