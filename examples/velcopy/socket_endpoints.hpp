#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "link.hpp"

namespace velcopy {

/// Addresses of the kinds tcp and udp; Rest is what stands behind the kind.
std::unique_ptr<TLink> OpenTCP(const std::string& Address, const std::string& Rest, bool Receiving,
                               int32_t Capacity);
std::unique_ptr<TLink> OpenUDP(const std::string& Address, const std::string& Rest, bool Receiving,
                               int32_t Capacity);

}  // namespace velcopy
