#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "link.hpp"
#include "velox/runtime/velWindows.hpp"

namespace velcopy {

constexpr int32_t DefaultCapacity = 4 << 20;

/// Addresses of the kinds tcp and udp; Rest is what stands behind the kind.
std::unique_ptr<TLink> OpenTCP(const std::string& Address, const std::string& Rest, bool Receiving,
                               int32_t Capacity);
std::unique_ptr<TLink> OpenUDP(const std::string& Address, const std::string& Rest, bool Receiving,
                               int32_t Capacity);

// ---- what endpoints of all kinds use

inline const char* PeerOf(bool Receiving) { return Receiving ? "sender" : "receiver"; }
[[noreturn]] void FailToOpen(const std::string& Address, DWORD Error);

}  // namespace velcopy
