// The custom actions are compiled only: Windows Installer calls them.
#include <exception>
#include <string>

#include "docs/samples/samples.hpp"
#include "velox/foundation/velStringUtils.hpp"
#include "velox/foundation/velSysUtils.hpp"
#include "velox/system/velMSInstaller.hpp"

namespace samples {

using namespace velox;

//! [action]
/// Sets PORTVALID to 1 when the property PORT holds digits only, as a dialog may ask for.
extern "C" __declspec(dllexport) UINT __stdcall CheckPort(MSIHANDLE Session) {
  TMSIInstaller installer(Session);
  try {
    const std::string port = installer.GetPropertyValue("PORT");
    const bool valid = !port.empty() && port.find_first_not_of("0123456789") == std::string::npos;
    installer.SetPropertyValue("PORTVALID", valid ? "1" : "");  // empty removes it
    return ERROR_SUCCESS;
  } catch (const std::exception& e) {
    return installer.HandleException(e, 25001, MB_OK | MB_ICONERROR, {e.what()});
  }
}
//! [action]

//! [schedule]
/// Immediate: has the deferred action WriteSettings run later, with what it needs to know.
extern "C" __declspec(dllexport) UINT __stdcall ScheduleSettings(MSIHANDLE Session) {
  TMSIInstaller installer(Session);
  try {
    installer.ScheduleCustomAction("WriteSettings", installer.Eval("[INSTALLDIR];[PORT]"));
    return ERROR_SUCCESS;
  } catch (const std::exception& e) {
    return installer.HandleException(e, 25001, MB_OK | MB_ICONERROR, {e.what()});
  }
}

/// Deferred: finds it in CustomActionData.
extern "C" __declspec(dllexport) UINT __stdcall WriteSettings(MSIHANDLE Session) {
  TMSIInstaller installer(Session);
  try {
    std::string data = installer.GetPropertyValue("CustomActionData"), folder;
    StrGetToken(data, ";", folder);  // leaves the port in data
    installer.ActionDataMessage({folder, data});
    if (!EnsurePathExists(folder)) RaiseLastOSError();
    return ERROR_SUCCESS;
  } catch (const std::exception& e) {
    return installer.HandleException(e, 25001, MB_OK | MB_ICONERROR, {e.what()});
  }
}
//! [schedule]

namespace {

//! [database]
/// A property of a package that lies on the disk; empty when it has none of that name.
std::string ReadProperty(const std::string& FileName, const std::string& Name) {
  TMSIHandle handle;
  CheckOSResult(::MsiOpenDatabaseA(FileName.c_str(), MSIDBOPEN_READONLY, handle.Receive()));
  TMSIDatabase database(handle.Release());
  TMSIView view(database, "SELECT `Value` FROM `Property` WHERE `Property` = ?");
  TMSIRecord parameters(1);
  parameters.GetField(1).SetAsString(Name);
  view.Open(&parameters);
  return view.GetEof() ? "" : view.GetRecord()->GetField(1).GetAsString();
}
//! [database]

void MakePackage(const std::string& FileName) {
  TMSIHandle handle;
  CheckOSResult(::MsiOpenDatabaseA(FileName.c_str(), MSIDBOPEN_CREATE, handle.Receive()));
  TMSIDatabase database(handle.Release());
  for (const char* query :
       {"CREATE TABLE `Property` (`Property` CHAR(72) NOT NULL, `Value` CHAR(0) PRIMARY KEY "
        "`Property`)",
        "INSERT INTO `Property` (`Property`, `Value`) VALUES ('PORT', '8080')"}) {
    TMSIView(database, query).Open();
  }
  database.Commit();
}

}  // namespace

void RunInstaller() {
  char folder[MAX_PATH] = "", file[MAX_PATH] = "";
  ::GetTempPathA(sizeof folder, folder);
  if (::GetTempFileNameA(folder, "vel", 0, file) == 0) RaiseLastOSError();
  MakePackage(file);
  const std::string port = ReadProperty(file, "PORT"), none = ReadProperty(file, "NONE");
  ::DeleteFileA(file);
  Expect(port == "8080" && none.empty(), "the property is read");
}

}  // namespace samples
