#pragma once

#include <string>
#include <vector>

#include "com_settings.hpp"

namespace velsec {

/// Makes changes, each "add ACCOUNT PERMISSION [RIGHT...]", in the settings of these kinds (launch
/// or not) that have the rights. All are made before the first is written, so that a wrong word
/// changes nothing. Raises Exception when a setting could not be written.
void ChangeSettings(const TServer& Server, const std::vector<bool>& Kinds,
                    const std::vector<std::string>& Words);

/// Does what TComServerPermissions::UseDefault does, without reading the setting: a damaged one
/// can't be read. Raises Exception when it could not be dropped.
void DropSetting(const TServer& Server, bool Launch);

}  // namespace velsec
