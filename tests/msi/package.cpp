#include "tests/msi/package.hpp"

#include "velox/foundation/velSysUtils.hpp"
#include "velox/runtime/velFormat.hpp"

namespace velox::test {
namespace {

constexpr const char* Tables[] = {
    "CREATE TABLE `Property` (`Property` CHAR(72) NOT NULL, `Value` LONGCHAR NOT NULL LOCALIZABLE "
    "PRIMARY KEY `Property`)",
    "CREATE TABLE `Directory` (`Directory` CHAR(72) NOT NULL, `Directory_Parent` CHAR(72), "
    "`DefaultDir` CHAR(255) NOT NULL LOCALIZABLE PRIMARY KEY `Directory`)",
    "CREATE TABLE `Component` (`Component` CHAR(72) NOT NULL, `ComponentId` CHAR(38), "
    "`Directory_` CHAR(72) NOT NULL, `Attributes` SHORT NOT NULL, `Condition` CHAR(255), "
    "`KeyPath` CHAR(72) PRIMARY KEY `Component`)",
    "CREATE TABLE `Feature` (`Feature` CHAR(38) NOT NULL, `Feature_Parent` CHAR(38), "
    "`Title` CHAR(64) LOCALIZABLE, `Description` CHAR(255) LOCALIZABLE, `Display` SHORT, "
    "`Level` SHORT NOT NULL, `Directory_` CHAR(72), `Attributes` SHORT NOT NULL "
    "PRIMARY KEY `Feature`)",
    "CREATE TABLE `FeatureComponents` (`Feature_` CHAR(38) NOT NULL, `Component_` CHAR(72) NOT "
    "NULL "
    "PRIMARY KEY `Feature_`, `Component_`)",
    "CREATE TABLE `File` (`File` CHAR(72) NOT NULL, `Component_` CHAR(72) NOT NULL, "
    "`FileName` CHAR(255) NOT NULL LOCALIZABLE, `FileSize` LONG NOT NULL, `Version` CHAR(72), "
    "`Language` CHAR(20), `Attributes` SHORT, `Sequence` SHORT NOT NULL PRIMARY KEY `File`)",
    "CREATE TABLE `Media` (`DiskId` SHORT NOT NULL, `LastSequence` SHORT NOT NULL, "
    "`DiskPrompt` CHAR(64) LOCALIZABLE, `Cabinet` CHAR(255), `VolumeLabel` CHAR(32), "
    "`Source` CHAR(72) PRIMARY KEY `DiskId`)",
    "CREATE TABLE `Binary` (`Name` CHAR(72) NOT NULL, `Data` OBJECT NOT NULL PRIMARY KEY `Name`)",
    "CREATE TABLE `CustomAction` (`Action` CHAR(72) NOT NULL, `Type` SHORT NOT NULL, "
    "`Source` CHAR(72), `Target` CHAR(255) PRIMARY KEY `Action`)",
    "CREATE TABLE `InstallExecuteSequence` (`Action` CHAR(72) NOT NULL, `Condition` CHAR(255), "
    "`Sequence` SHORT PRIMARY KEY `Action`)",
    "CREATE TABLE `ActionText` (`Action` CHAR(72) NOT NULL, `Description` LONGCHAR LOCALIZABLE, "
    "`Template` LONGCHAR LOCALIZABLE PRIMARY KEY `Action`)",
    "CREATE TABLE `Error` (`Error` SHORT NOT NULL, `Message` LONGCHAR LOCALIZABLE "
    "PRIMARY KEY `Error`)",
};

constexpr const char* Contents[] = {
    "INSERT INTO `Property` (`Property`, `Value`) VALUES ('ProductCode', "
    "'{6E7A1E3C-5E0B-4A43-9F0E-6C8A0D5B7F11}')",
    "INSERT INTO `Property` (`Property`, `Value`) VALUES ('UpgradeCode', "
    "'{6E7A1E3C-5E0B-4A43-9F0E-6C8A0D5B7F12}')",
    "INSERT INTO `Property` (`Property`, `Value`) VALUES ('ProductName', 'Velox actions')",
    "INSERT INTO `Property` (`Property`, `Value`) VALUES ('ProductVersion', '1.0.0')",
    "INSERT INTO `Property` (`Property`, `Value`) VALUES ('ProductLanguage', '1033')",
    "INSERT INTO `Property` (`Property`, `Value`) VALUES ('Manufacturer', 'Velox')",
    "INSERT INTO `Directory` (`Directory`, `Directory_Parent`, `DefaultDir`) VALUES ('TARGETDIR', "
    "'', 'SourceDir')",
    "INSERT INTO `Component` (`Component`, `ComponentId`, `Directory_`, `Attributes`, `Condition`, "
    "`KeyPath`) VALUES ('Main', '{6E7A1E3C-5E0B-4A43-9F0E-6C8A0D5B7F13}', 'TARGETDIR', 0, '', '')",
    "INSERT INTO `Feature` (`Feature`, `Title`, `Display`, `Level`, `Directory_`, `Attributes`) "
    "VALUES ('All', 'All', 1, 1, 'TARGETDIR', 0)",
    "INSERT INTO `FeatureComponents` (`Feature_`, `Component_`) VALUES ('All', 'Main')",
    "INSERT INTO `Media` (`DiskId`, `LastSequence`, `Cabinet`) VALUES (1, 0, '')",
    "INSERT INTO `ActionText` (`Action`, `Description`, `Template`) VALUES ('Report', 'Reporting', "
    "'Item [1] of [2]')",
    "INSERT INTO `Error` (`Error`, `Message`) VALUES (25001, 'Our error [1]: [2]')",
    "INSERT INTO `InstallExecuteSequence` (`Action`, `Sequence`) VALUES ('CostInitialize', 800)",
    "INSERT INTO `InstallExecuteSequence` (`Action`, `Sequence`) VALUES ('FileCost', 900)",
    "INSERT INTO `InstallExecuteSequence` (`Action`, `Sequence`) VALUES ('CostFinalize', 1000)",
    "INSERT INTO `InstallExecuteSequence` (`Action`, `Sequence`) VALUES ('InstallValidate', 1400)",
    "INSERT INTO `InstallExecuteSequence` (`Action`, `Sequence`) VALUES ('InstallInitialize', "
    "1500)",
    "INSERT INTO `InstallExecuteSequence` (`Action`, `Sequence`) VALUES ('InstallFinalize', 6600)",
};

// Types of custom actions: a function of a DLL in the table Binary, and one that is put into the
// script. From msidefs.h.
constexpr int Function = 1;
constexpr int InScript = 0x400;

struct TAction {
  const char* Name;
  int Type;
  const char* Condition;  // null for an action that only others start
  int Sequence;
};

constexpr TAction Actions[] = {
    {"Report", Function, "SCENARIO = \"Report\"", 1600},
    {"Cancel", Function, "SCENARIO = \"Cancel\"", 1601},
    {"Fail", Function, "SCENARIO = \"Fail\"", 1603},
    {"ReturnUserExit", Function, nullptr, 0},
    {"Deferred", Function | InScript, nullptr, 0},
};

void AddActions(TMSIDatabase& Database) {
  for (const TAction& action : Actions) {
    Run(Database,
        Format("INSERT INTO `CustomAction` (`Action`, `Type`, `Source`, `Target`) VALUES (?, %d, "
               "'Actions', ?)",
               action.Type),
        {action.Name, action.Name});
    if (action.Condition == nullptr) continue;
    Run(Database,
        Format("INSERT INTO `InstallExecuteSequence` (`Action`, `Condition`, `Sequence`) VALUES "
               "(?, ?, %d)",
               action.Sequence),
        {action.Name, action.Condition});
  }
}

void AddLibrary(TMSIDatabase& Database) {
  TMSIView view(Database, "INSERT INTO `Binary` (`Name`, `Data`) VALUES (?, ?)");
  TMSIRecord values(2);
  values.GetField(1).SetAsString("Actions");
  values.GetField(2).SetStream(ExtractFolder(GetProgramFileName()) + "velox_custom_actions.dll");
  view.Open(&values);
}

/// What the Installer wants to know of a package before it reads its tables.
void AddSummary(TMSIDatabase& Database) {
  TMSIHandle summary;
  CheckOSResult(::MsiGetSummaryInformationA(Database.GetHandle(), nullptr, 4, summary.Receive()));
  const auto set = [&](UINT Property, UINT Type, int Number, const char* Text) {
    CheckOSResult(
        ::MsiSummaryInfoSetPropertyA(summary.Get(), Property, Type, Number, nullptr, Text));
  };
  constexpr UINT Template = 7, Revision = 9, PageCount = 14, WordCount = 15;  // from msidefs.h
  set(Template, VT_LPSTR, 0, sizeof(void*) == 4 ? "Intel;1033" : "x64;1033");
  set(Revision, VT_LPSTR, 0, "{6E7A1E3C-5E0B-4A43-9F0E-6C8A0D5B7F14}");
  set(PageCount, VT_I4, 200, nullptr);  // the Installer's version, 2.0
  set(WordCount, VT_I4, 2, nullptr);    // files in cabinets
  CheckOSResult(::MsiSummaryInfoPersist(summary.Get()));
}

}  // namespace

MSIHANDLE OpenDatabase(const std::string& FileName, const char* Mode) {
  MSIHANDLE handle = 0;
  CheckOSResult(::MsiOpenDatabaseA(FileName.c_str(), Mode, &handle));
  return handle;
}

void Run(TMSIDatabase& Database, const std::string& Statement, const TStrings& Values) {
  TMSIView view(Database, Statement);
  TMSIRecord values(static_cast<int32_t>(Values.size()));
  values.SetFieldValues(1, Values);
  view.Open(&values);
}

TStrings Rows(TMSIDatabase& Database, const std::string& Query) {
  TStrings rows;
  TMSIView view(Database, Query);
  for (view.Open(); !view.GetEof(); view.Next()) {
    std::string row;
    for (int32_t i = 1; i <= view.GetRecord()->GetFieldCount(); ++i)
      row += (i > 1 ? "|" : "") + view.GetRecord()->GetField(i).GetAsString();
    rows.push_back(row);
  }
  return rows;
}

void MakePackage(const std::string& FileName) {
  TMSIDatabase database(OpenDatabase(FileName, MSIDBOPEN_CREATE));
  for (const char* statement : Tables) Run(database, statement);
  for (const char* statement : Contents) Run(database, statement);
  AddActions(database);
  AddLibrary(database);
  AddSummary(database);
  database.Commit();
}

}  // namespace velox::test
