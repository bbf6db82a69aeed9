#pragma once

#include <memory>
#include <string>
#include <vector>

#include "velox/system/velComPermissions.hpp"

namespace velsec {

/// A COM server of which two settings tell who may call it, and who may start it.
struct TServer {
  GUID AppID;
  std::string Key;  ///< below HKEY_CLASSES_ROOT
};

/// With or without braces. Raises Exception for what is no AppID.
TServer ParseServer(const std::string& Text);

/// The registry's value that holds a setting.
std::string ValueOf(bool Launch);
/// Raises Exception for a damaged setting.
std::unique_ptr<velox::TComServerPermissions> Read(const TServer& Server, bool Launch);
bool HasOwnSetting(const TServer& Server, bool Launch);

struct TNamedRight {
  const char* Name;
  velox::TPermissionType* Value;  ///< belongs to the entry
};

std::vector<TNamedRight> RightsOf(velox::TComServerPermissionsEntry& Entry);

/// A line for each entry.
std::string Describe(const velox::TComServerPermissions& Permissions);
/// Prints what holds now, and where it comes from.
void ShowSetting(const TServer& Server, bool Launch);

}  // namespace velsec
