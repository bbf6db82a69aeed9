#pragma once

#include <string>

#include "velox/system/velSecurity.hpp"

namespace velsec {

/// The account's name and its SID; "none" for null.
std::string NameOf(const velox::TSecurityIdentifier* Identifier);

/// Prints the descriptor that a binary value of the registry holds. The key begins with its root.
void ShowValue(const std::string& FullKey, const std::string& Value);
/// Prints the self-relative descriptor that a file holds.
void ShowFile(const std::string& File);

}  // namespace velsec
