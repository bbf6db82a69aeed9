#include "com_settings.hpp"

#include <cstdio>

#include "descriptors.hpp"
#include "velox/foundation/velStringUtils.hpp"
#include "velox/runtime/velException.hpp"

namespace velsec {

using namespace velox;

TServer ParseServer(const std::string& Text) {
  const std::string braced = Text.starts_with("{") ? Text : "{" + Text + "}";
  TServer server{{}, "AppID\\" + braced};
  const std::wstring wide(braced.begin(), braced.end());
  if (FAILED(::CLSIDFromString(wide.c_str(), &server.AppID)))
    throw Exception("Not an application identifier: " + Text);
  return server;
}

std::vector<TNamedRight> RightsOf(TComServerPermissionsEntry& Entry) {
  if (auto* const access = dynamic_cast<TComServerAccessPermissionsEntryEx*>(&Entry)) {
    return {{"local-access", &access->LocalAccess}, {"remote-access", &access->RemoteAccess}};
  }
  if (auto* const launch = dynamic_cast<TComServerLaunchPermissionsEntryEx*>(&Entry)) {
    return {{"local-launch", &launch->LocalLaunch},
            {"local-activation", &launch->LocalActivation},
            {"remote-launch", &launch->RemoteLaunch},
            {"remote-activation", &launch->RemoteActivation}};
  }
  if (auto* const access = dynamic_cast<TComServerAccessPermissionsEntry*>(&Entry))
    return {{"permission", &access->Permission}};
  return {{"permission", &dynamic_cast<TComServerLaunchPermissionsEntry&>(Entry).Permission}};
}

std::string ValueOf(bool Launch) { return Launch ? "LaunchPermission" : "AccessPermission"; }

std::unique_ptr<TComServerPermissions> Read(const TServer& Server, bool Launch) try {
  if (Launch) return std::make_unique<TComServerLaunchPermissions>(Server.AppID);
  return std::make_unique<TComServerAccessPermissions>(Server.AppID);
} catch (const Exception& e) {
  throw Exception("Cannot read the " + ValueOf(Launch) + ": " + e.what());
}

bool HasOwnSetting(const TServer& Server, bool Launch) {
  return TComServerPermissions::RegistryValueExists(HKEY_CLASSES_ROOT, Server.Key, ValueOf(Launch));
}

std::string Describe(const TComServerPermissions& Permissions) {
  std::string text;
  for (int32_t i = 0; i < Permissions.GetEntryCount(); ++i) {
    TComServerPermissionsEntry& entry = Permissions.GetEntries(i);
    std::string rights;
    for (const TNamedRight& right : RightsOf(entry)) {
      rights = StrAddTail(rights, ", ",
                          std::string(right.Name) + " " + PermissionTypeString[*right.Value]);
    }
    text += "  " + NameOf(&entry.GetSecurityIdentifier()) + ": " + rights + "\n";
  }
  return text;
}

namespace {

/// Why there are no entries. Lists that are absent, null or empty all have none, and don't mean the
/// same.
const char* WithoutEntries(const TServer& Server, bool Launch) {
  TSecurityDescriptor descriptor;
  if (!TComServerPermissions::ReadFromRegistry(HKEY_CLASSES_ROOT, Server.Key, ValueOf(Launch),
                                               descriptor)) {
    TComServerPermissions::ReadFromRegistry(HKEY_LOCAL_MACHINE, "Software\\Microsoft\\Ole",
                                            "Default" + ValueOf(Launch), descriptor);
  }
  switch (descriptor.DaclType) {
    case sdatAbsent:
      return "  the list is absent: everyone may\n";
    case sdatPresentNull:
      return "  the list is null: everyone may\n";
    default:
      return "  the list is empty: nobody may\n";
  }
}

}  // namespace

void ShowSetting(const TServer& Server, bool Launch) {
  const std::unique_ptr<TComServerPermissions> permissions = Read(Server, Launch);
  std::printf("%s of %s%s\n", ValueOf(Launch).c_str(), permissions->GetAppID().c_str(),
              HasOwnSetting(Server, Launch) ? "" : ", by default");
  const std::string entries = Describe(*permissions);
  std::fputs(entries.empty() ? WithoutEntries(Server, Launch) : entries.c_str(), stdout);
}

}  // namespace velsec
