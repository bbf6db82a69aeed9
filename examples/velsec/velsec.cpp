// Shows security descriptors that are stored in the registry or in files, and shows and edits who
// may call and start COM servers. The first is in descriptors.cpp, the second here.
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "descriptors.hpp"
#include "velox/foundation/velStringUtils.hpp"
#include "velox/runtime/velException.hpp"
#include "velox/system/velComPermissions.hpp"
#include "velox/system/velSecurity.hpp"

namespace {

using namespace velox;
using namespace velsec;

using TArguments = std::vector<std::string>;

constexpr const char* Usage =
    "usage: velsec show KEY VALUE      the security descriptor in a binary value of the registry;\n"
    "                                  KEY begins with HKLM\\, HKCU\\, HKCR\\ or HKU\\\n"
    "       velsec show --file FILE    the self-relative one that a file holds\n"
    "       velsec com APPID [--access | --launch] [CHANGE...]\n"
    "                                  who may call a COM server (access) or start it (launch);\n"
    "                                  changes ask for one of the two:\n"
    "         add ACCOUNT allow|deny|none [RIGHT...]\n"
    "                                  sets these rights of the account, without RIGHT all;\n"
    "                                  accounts for which nothing is left are dropped\n"
    "         default                  drops the server's own setting, and stands alone\n"
    "       RIGHT: local-access, remote-access; local-launch, local-activation, remote-launch,\n"
    "       remote-activation; on systems that do not split them: permission\n";

GUID ParseAppID(const std::string& Text) {
  const std::string braced = Text.starts_with("{") ? Text : "{" + Text + "}";
  GUID id;
  if (FAILED(::CLSIDFromString(std::wstring(braced.begin(), braced.end()).c_str(), &id)))
    throw Exception("Not an application identifier: " + Text);
  return id;
}

struct TNamedRight {
  const char* Name;
  TPermissionType* Value;
};

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

std::unique_ptr<TComServerPermissions> Read(const GUID& AppID, bool Launch) {
  if (Launch) return std::make_unique<TComServerLaunchPermissions>(AppID);
  return std::make_unique<TComServerAccessPermissions>(AppID);
}

bool HasOwnSetting(const TComServerPermissions& Permissions) {
  return TComServerPermissions::RegistryValueExists(
      HKEY_CLASSES_ROOT, "AppID\\" + Permissions.GetAppID(), Permissions.RegistryPermissionValue());
}

/// Where the entries come from, and the entries, a line each.
std::string Describe(const TComServerPermissions& Permissions) {
  std::string text = Permissions.RegistryPermissionValue() + " of " + Permissions.GetAppID() +
                     (HasOwnSetting(Permissions) ? "\n" : ", by default\n");
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

TPermissionType ParsePermission(const std::string& Text) {
  const TPermissionType type = StringToPermissionType(Text);
  if (type == ptNone && !StrEqualText(Text, PermissionTypeString[ptNone]))
    throw Exception("allow, deny or none expected, not " + Text);
  return type;
}

void SetRight(TComServerPermissionsEntry& Entry, const std::string& Name, TPermissionType Value) {
  for (const TNamedRight& right : RightsOf(Entry)) {
    if (!StrEqualText(Name, right.Name)) continue;
    *right.Value = Value;
    return;
  }
  throw Exception("No right " + Name + " here; velsec --help lists them");
}

/// Makes the changes "add ACCOUNT PERMISSION [RIGHT...]" that stand one after another.
void Change(TComServerPermissions& Permissions, const TArguments& Words) {
  for (size_t i = 0; i < Words.size();) {
    if (Words[i] != "add" || i + 2 >= Words.size())
      throw Exception("add ACCOUNT allow|deny|none expected at: " + Words[i]);
    TSecurityIdentifier account;
    if (!account.TryInit("", Words[i + 1])) throw Exception("No account " + Words[i + 1]);
    TComServerPermissionsEntry& entry = Permissions.AddEntry(account);
    const TPermissionType value = ParsePermission(Words[i + 2]);
    i += 3;
    if (i == Words.size() || Words[i] == "add") {
      for (const TNamedRight& right : RightsOf(entry)) *right.Value = value;
    }
    for (; i < Words.size() && Words[i] != "add"; ++i) SetRight(entry, Words[i], value);
  }
}

/// Keys that may not be written are left alone without a word, so what is there now is read again.
void Save(TComServerPermissions& Permissions, const GUID& AppID, bool Launch, bool Default) {
  if (Default) {
    Permissions.UseDefault();
  } else {
    Permissions.Apply();
  }
  const bool kept = Default && HasOwnSetting(Permissions);
  if (kept || Describe(*Read(AppID, Launch)) != Describe(Permissions))
    throw Exception("The setting could not be written");
}

void Com(TArguments Words) {
  const GUID id = ParseAppID(Words.at(0));
  Words.erase(Words.begin());
  bool access = true;
  bool launch = true;
  if (!Words.empty() && (Words[0] == "--access" || Words[0] == "--launch")) {
    access = Words[0] == "--access";
    launch = !access;
    Words.erase(Words.begin());
  }
  if (!Words.empty() && access && launch) throw Exception("Changes ask for --access or --launch");
  for (const bool kind : {false, true}) {
    if (!(kind ? launch : access)) continue;
    const std::unique_ptr<TComServerPermissions> permissions = Read(id, kind);
    const bool byDefault = Words == TArguments{"default"};
    if (!byDefault) Change(*permissions, Words);
    if (!Words.empty()) Save(*permissions, id, kind, byDefault);
    std::fputs(Describe(*permissions).c_str(), stdout);
  }
}

void Run(const TArguments& Arguments) {
  const size_t count = Arguments.size();
  if (count == 3 && Arguments[0] == "show" && Arguments[1] == "--file") {
    ShowFile(Arguments[2]);
  } else if (count == 3 && Arguments[0] == "show") {
    ShowValue(Arguments[1], Arguments[2]);
  } else if (count >= 2 && Arguments[0] == "com") {
    Com({Arguments.begin() + 1, Arguments.end()});
  } else {
    throw Exception("Unknown command or wrong number of words; velsec --help tells what there is");
  }
  if (std::fflush(stdout) != 0) throw Exception("Cannot write to the standard output");
}

}  // namespace

int main(int argc, char** argv) try {
  const TArguments arguments(argv + 1, argv + argc);
  if (arguments == TArguments{"--help"}) return std::fputs(Usage, stdout) < 0;
  Run(arguments);
  return 0;
} catch (const std::exception& e) {
  std::fprintf(stderr, "velsec: %s\n", e.what());
  return 1;
}
