#pragma once

#include <string>
#include <vector>

#include "velox/runtime/velStrings.hpp"
#include "velox/system/velMSInstaller.hpp"

/// Databases and packages that the cases make.
namespace velox::test {

/// Opens a database, whose handle a TMSIDatabase takes over. Mode is one of MSIDBOPEN_….
MSIHANDLE OpenDatabase(const std::string& FileName, const char* Mode);

/// Runs a statement, with values for its "?".
void Run(TMSIDatabase& Database, const std::string& Statement, const TStrings& Values = {});

/// The rows of a query, each as its fields joined by "|".
TStrings Rows(TMSIDatabase& Database, const std::string& Query);

/// Makes a package that installs nothing but runs our custom actions (custom_actions.cpp), each
/// when the property SCENARIO has the action's name.
void MakePackage(const std::string& FileName);

}  // namespace velox::test
