// Custom actions that the Installer runs in the cases. They tell what they see in the file that the
// property REPORT names, a line for each thing.

#include <fstream>
#include <functional>
#include <string>

#include "velox/foundation/velSysUtils.hpp"
#include "velox/runtime/velFormat.hpp"
#include "velox/system/velMSInstaller.hpp"

namespace {

using namespace velox;

constexpr int32_t OurError = 25001;  // of the table Error

void Tell(const std::string& FileName, const std::string& Line) {
  std::ofstream(FileName, std::ios::app) << Line << '\n';
}

/// Runs the body of an action, whose exception becomes the action's result.
UINT Guard(MSIHANDLE Session, const std::function<void(TMSIInstaller&)>& Body) {
  TMSIInstaller installer(Session);
  try {
    Body(installer);
    return ERROR_SUCCESS;
  } catch (const std::exception& e) {
    return installer.HandleException(e, OurError, MB_OK | MB_ICONERROR, {e.what()});
  }
}

/// The action's data: the file for reports, then the text to write there.
void TellScheduled(TMSIInstaller& Installer) {
  const std::string data = Installer.GetPropertyValue("CustomActionData");
  const size_t bar = data.find('|');
  Tell(data.substr(0, bar),
       Format("deferred %s scheduled %d rollback %d", data.substr(bar + 1).c_str(),
              Installer.GetActionScheduled(), Installer.GetActionRollback()));
}

void TellSession(TMSIInstaller& Installer) {
  const std::string report = Installer.GetPropertyValue("REPORT");
  const auto tell = [&](const std::string& line) { Tell(report, line); };
  tell("product " + Installer.GetPropertyValue("ProductName"));
  tell("missing <" + Installer.GetPropertyValue("NoSuchProperty") + ">");
  Installer.SetPropertyValue("Ours", "a \"quoted\" [text]");
  tell("ours " + Installer.GetPropertyValue("Ours"));
  tell("eval " + Installer.Eval("[ProductName]/[ProductVersion]"));
  tell(Format("installing %d language %u scheduled %d", Installer.GetInstalling(),
              Installer.GetLanguage(), Installer.GetActionScheduled()));
  tell(Format("component %d", static_cast<int>(Installer.GetComponentProcessingState("Main"))));
  TMSIView view(Installer.GetActiveDatabase(), "SELECT `Message` FROM `Error`");
  view.Open();
  tell("error " + view.GetRecord()->GetField(1).GetAsString());
  Installer.ActionDataMessage({"1", "2"});
  Installer.LogMessage("Logged [1] and [2]", {"one", "two"});
  Installer.ScheduleCustomAction("Deferred", report + "|with data");
  tell("data <" + Installer.GetPropertyValue("Deferred") + ">");
}

}  // namespace

#define VELOX_ACTION(Name) extern "C" UINT __stdcall Name(MSIHANDLE Session)

VELOX_ACTION(Report) { return Guard(Session, &TellSession); }

VELOX_ACTION(Deferred) { return Guard(Session, &TellScheduled); }

// Ends as the action does that it starts.
VELOX_ACTION(Cancel) {
  return Guard(Session, [](TMSIInstaller& installer) {
    try {
      installer.DoAction("ReturnUserExit");
    } catch (const EMSICaUserExit& e) {
      Tell(installer.GetPropertyValue("REPORT"), Format("user exit: %s", e.what()));
      throw;
    }
  });
}

VELOX_ACTION(Fail) {
  return Guard(Session, [](TMSIInstaller& installer) {
    TMSIView(installer.GetActiveDatabase(), "SELECT `Nothing` FROM `NoSuchTable`").Open();
  });
}

VELOX_ACTION(ReturnUserExit) {
  return Session == 0 ? ERROR_INVALID_HANDLE : ERROR_INSTALL_USEREXIT;
}
