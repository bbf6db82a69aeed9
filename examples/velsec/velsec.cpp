// Shows security descriptors that are stored in the registry or in files, and shows and edits who
// may call and start COM servers.
#include <algorithm>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "examples/support/whole_file.hpp"
#include "velox/foundation/velStringUtils.hpp"
#include "velox/runtime/velException.hpp"
#include "velox/runtime/velFormat.hpp"
#include "velox/runtime/velRegistryKey.hpp"
#include "velox/system/velComPermissions.hpp"
#include "velox/system/velSecurity.hpp"

namespace {

using namespace velox;

using TArguments = std::vector<std::string>;

constexpr const char* Usage =
    "usage: velsec show KEY VALUE      the security descriptor in a binary value of the registry;\n"
    "                                  KEY begins with HKLM\\, HKCU\\, HKCR\\ or HKU\\\n"
    "       velsec show --file FILE    the self-relative one that a file holds\n"
    "       velsec com APPID [--access | --launch] [CHANGE...]\n"
    "                                  who may call a COM server (access) and start it (launch);\n"
    "                                  without a choice both, also for changes:\n"
    "         add ACCOUNT allow|deny|none [RIGHT...]\n"
    "                                  sets these rights of the account, without RIGHT all;\n"
    "                                  accounts for which nothing is left are dropped. The first\n"
    "                                  change of a setting that lets everyone in for want of a\n"
    "                                  list makes one, with this account alone\n"
    "         default                  drops the server's own setting, also a damaged one, and\n"
    "                                  stands alone\n"
    "       RIGHT: local-access, remote-access; local-launch, local-activation, remote-launch,\n"
    "       remote-activation; on systems that do not split them: permission\n";

// ------------------------------------------------------------------------------------ descriptors

struct TBitName {
  uint32_t Bit;
  const char* Name;
};
using TBitNames = std::vector<TBitName>;

// From winnt.h, as the rest of the tables.
const TBitNames CommonRights = {
    {DELETE, "delete"},
    {READ_CONTROL, "read control"},
    {WRITE_DAC, "write DACL"},
    {WRITE_OWNER, "write owner"},
    {SYNCHRONIZE, "synchronize"},
    {ACCESS_SYSTEM_SECURITY, "access system security"},
    {MAXIMUM_ALLOWED, "maximum allowed"},
    {GENERIC_ALL, "generic all"},
    {GENERIC_EXECUTE, "generic execute"},
    {GENERIC_WRITE, "generic write"},
    {GENERIC_READ, "generic read"},
};

const TBitNames ComRights = {
    {COM_RIGHTS_EXECUTE, "execute"},
    {COM_RIGHTS_EXECUTE_LOCAL, "execute locally"},
    {COM_RIGHTS_EXECUTE_REMOTE, "execute remotely"},
    {COM_RIGHTS_ACTIVATE_LOCAL, "activate locally"},
    {COM_RIGHTS_ACTIVATE_REMOTE, "activate remotely"},
};

const TBitNames EntryFlags = {
    {OBJECT_INHERIT_ACE, "objects inherit"},
    {CONTAINER_INHERIT_ACE, "containers inherit"},
    {NO_PROPAGATE_INHERIT_ACE, "not further down"},
    {INHERIT_ONLY_ACE, "inherit only"},
    {INHERITED_ACE, "inherited"},
    {SUCCESSFUL_ACCESS_ACE_FLAG, "successes"},
    {FAILED_ACCESS_ACE_FLAG, "failures"},
};

const TBitNames ControlBits = {
    {SE_OWNER_DEFAULTED, "owner by default"},   {SE_GROUP_DEFAULTED, "group by default"},
    {SE_DACL_PRESENT, "DACL present"},          {SE_DACL_DEFAULTED, "DACL by default"},
    {SE_SACL_PRESENT, "SACL present"},          {SE_SACL_DEFAULTED, "SACL by default"},
    {SE_DACL_AUTO_INHERITED, "DACL inherited"}, {SE_SACL_AUTO_INHERITED, "SACL inherited"},
    {SE_DACL_PROTECTED, "DACL protected"},      {SE_SACL_PROTECTED, "SACL protected"},
    {SE_SELF_RELATIVE, "self-relative"},
};

/// The names of the bits that are set, and those without a name as a number.
std::string NamesOf(uint32_t Bits, const TBitNames& Names) {
  std::string text;
  for (const TBitName& each : Names) {
    if ((Bits & each.Bit) == 0) continue;
    text = StrAddTail(text, ", ", each.Name);
    Bits &= ~each.Bit;
  }
  if (Bits != 0) text = StrAddTail(text, ", ", Format("0x%X", Bits));
  return text.empty() ? "none" : text;
}

std::string NameOf(const TSecurityIdentifier* Identifier) {
  if (Identifier == nullptr) return "none";
  return Identifier->GetFullAccountName() + " (" + Identifier->GetSidString() + ")";
}

void PrintList(const char* Name, const TAccessControlList& List, TSecurityDescriptorAclType Type,
               const TBitNames& Rights) {
  std::printf("%-9s%s", Name, SecurityDescriptorAclTypeString[Type]);
  if (Type == sdatPresentNotNull) std::printf(", entries: %d", List.GetAceCount());
  std::printf("\n");
  for (int32_t i = 0; i < List.GetAceCount(); ++i) {
    const TAccessControlEntry& entry = List.GetAce(i);
    std::printf("  %-15s%s: %s", AccessControlEntryTypeString[entry.AceType],
                NameOf(entry.GetSecurityIdentifier()).c_str(),
                NamesOf(entry.AccessMask, Rights).c_str());
    if (entry.AceFlags != 0)
      std::printf("; flags: %s", NamesOf(entry.AceFlags, EntryFlags).c_str());
    std::printf("\n");
  }
}

void Print(const TSecurityDescriptor& Descriptor, const TBitNames& Rights) {
  std::printf("Owner    %s\n", NameOf(Descriptor.GetOwner()).c_str());
  std::printf("Group    %s\n", NameOf(Descriptor.GetPrimaryGroup()).c_str());
  std::printf("Control  %s\n", NamesOf(Descriptor.Control, ControlBits).c_str());
  PrintList("DACL", Descriptor.GetDacl(), Descriptor.DaclType, Rights);
  PrintList("SACL", Descriptor.GetSacl(), Descriptor.SaclType, Rights);
}

/// Takes the root off a key's name.
HKEY TakeRoot(std::string& Key) {
  const struct {
    const char* Names[2];
    HKEY Root;
  } roots[] = {{{"HKLM", "HKEY_LOCAL_MACHINE"}, HKEY_LOCAL_MACHINE},
               {{"HKCU", "HKEY_CURRENT_USER"}, HKEY_CURRENT_USER},
               {{"HKCR", "HKEY_CLASSES_ROOT"}, HKEY_CLASSES_ROOT},
               {{"HKU", "HKEY_USERS"}, HKEY_USERS}};
  std::string name;
  StrGetToken(Key, "\\", name);
  for (const auto& each : roots) {
    if (StrEqualText(name, each.Names[0]) || StrEqualText(name, each.Names[1])) return each.Root;
  }
  throw Exception("A key begins with HKLM\\, HKCU\\, HKCR\\ or HKU\\, not with " + name);
}

void ShowValue(const std::string& FullKey, const std::string& Value) {
  std::string key = FullKey;
  TRegistry registry;
  registry.SetRootKey(TakeRoot(key));
  if (!registry.OpenKeyReadOnly(key)) throw Exception("Cannot open the key " + FullKey);
  if (!registry.ValueExists(Value)) throw Exception(FullKey + " has no value " + Value);
  TSecurityDescriptor descriptor;
  descriptor.ReadFromRegistry("", registry.GetRootKey(), key, Value);

  TBitNames rights = CommonRights;
  for (const char* setting : {"AccessPermission", "LaunchPermission", "DefaultAccessPermission",
                              "DefaultLaunchPermission"}) {
    if (StrEqualText(Value, setting))
      rights.insert(rights.begin(), ComRights.begin(), ComRights.end());
  }
  Print(descriptor, rights);
}

void ShowFile(const std::string& File) {
  const std::vector<uint8_t> bytes = example::ReadWholeFile(File);
  TSecurityDescriptor descriptor;
  descriptor.Extract("", bytes.data(), static_cast<int32_t>(bytes.size()));
  Print(descriptor, CommonRights);
}

// ------------------------------------------------------------------------------------ COM servers

struct TServer {
  GUID AppID;
  std::string Key;  ///< below HKEY_CLASSES_ROOT
};

TServer ParseServer(const std::string& Text) {
  const std::string braced = Text.starts_with("{") ? Text : "{" + Text + "}";
  TServer server{{}, "AppID\\" + braced};
  const std::wstring wide(braced.begin(), braced.end());
  if (FAILED(::CLSIDFromString(wide.c_str(), &server.AppID)))
    throw Exception("Not an application identifier: " + Text);
  return server;
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

/// The registry's value for one of the two kinds.
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

/// A line for each entry.
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

/// Prints what holds now, and where it comes from.
void Show(const TServer& Server, bool Launch) {
  const std::unique_ptr<TComServerPermissions> permissions = Read(Server, Launch);
  std::printf("%s of %s%s\n", ValueOf(Launch).c_str(), permissions->GetAppID().c_str(),
              HasOwnSetting(Server, Launch) ? "" : ", by default");
  const std::string entries = Describe(*permissions);
  std::fputs(entries.empty() ? WithoutEntries(Server, Launch) : entries.c_str(), stdout);
}

TPermissionType ParsePermission(const std::string& Text) {
  const TPermissionType type = StringToPermissionType(Text);
  if (type == ptNone && !StrEqualText(Text, PermissionTypeString[ptNone]))
    throw Exception("allow, deny or none expected, not " + Text);
  return type;
}

/// "add ACCOUNT PERMISSION [RIGHT...]"
struct TChange {
  std::string Account;
  TPermissionType Value;
  TStrings Rights;  ///< none: all
};

/// The changes that stand one after another.
std::vector<TChange> ParseChanges(const TArguments& Words) {
  std::vector<TChange> changes;
  for (size_t i = 0; i < Words.size();) {
    if (Words[i] != "add" || i + 2 >= Words.size())
      throw Exception("add ACCOUNT allow|deny|none expected at: " + Words[i]);
    TChange change{Words[i + 1], ParsePermission(Words[i + 2]), {}};
    for (i += 3; i < Words.size() && Words[i] != "add"; ++i) change.Rights.push_back(Words[i]);
    changes.push_back(change);
  }
  return changes;
}

/// The permissions of one kind while they are changed.
struct TSetting {
  bool Launch;
  std::unique_ptr<TComServerPermissions> Permissions;
  bool Changed = false;
};

/// Sets the rights of a change in each setting that has them.
void Make(const TChange& Change, std::vector<TSetting>& Settings) {
  TSecurityIdentifier account;
  if (!account.TryInit("", Change.Account)) throw Exception("No account " + Change.Account);
  TStrings unknown = Change.Rights;
  for (TSetting& setting : Settings) {
    for (const TNamedRight& right : RightsOf(setting.Permissions->AddEntry(account))) {
      const auto named = [&](const std::string& Name) { return StrEqualText(Name, right.Name); };
      if (!Change.Rights.empty() && std::ranges::none_of(Change.Rights, named)) continue;
      *right.Value = Change.Value;
      setting.Changed = true;
      std::erase_if(unknown, named);
    }
  }
  if (!unknown.empty())
    throw Exception("No right " + unknown[0] + " here; velsec --help lists them");
}

/// Keys that may not be written are left alone without a word, so what is there now is compared.
/// Comparing entries is not enough: what was to be written may be what holds by default, too.
void Verify(bool Written) {
  if (!Written) throw Exception("The setting could not be written");
}

void Save(TComServerPermissions& Permissions, const TServer& Server, bool Launch) {
  bool own = false;
  for (int32_t i = 0; i < Permissions.GetEntryCount(); ++i)
    own = own || !Permissions.GetEntries(i).GetUnassigned();
  Permissions.Apply();  // without anything to write it drops the setting
  Verify(HasOwnSetting(Server, Launch) == own &&
         Describe(*Read(Server, Launch)) == Describe(Permissions));
}

/// Does what TComServerPermissions::UseDefault does, without reading the setting: a damaged one
/// can't be read.
void Drop(const TServer& Server, bool Launch) {
  TRegistry registry;
  registry.SetRootKey(HKEY_CLASSES_ROOT);
  if (registry.OpenKey(Server.Key, false)) registry.DeleteValue(ValueOf(Launch));
  Verify(!HasOwnSetting(Server, Launch));
}

/// Makes all changes before it writes the first, so that a wrong word changes nothing.
void Change(const TServer& Server, const std::vector<bool>& Kinds, const TArguments& Words) {
  std::vector<TSetting> settings;
  for (const bool launch : Kinds) settings.push_back({launch, Read(Server, launch)});
  for (const TChange& change : ParseChanges(Words)) Make(change, settings);
  for (const TSetting& setting : settings) {
    if (setting.Changed) Save(*setting.Permissions, Server, setting.Launch);
  }
}

void Com(TArguments Words) {
  const TServer server = ParseServer(Words.at(0));
  Words.erase(Words.begin());
  std::vector<bool> kinds = {false, true};  // whether it is launching
  if (!Words.empty() && (Words[0] == "--access" || Words[0] == "--launch")) {
    kinds = {Words[0] == "--launch"};
    Words.erase(Words.begin());
  }
  if (Words == TArguments{"default"}) {
    for (const bool launch : kinds) Drop(server, launch);
  } else if (!Words.empty()) {
    Change(server, kinds, Words);
  }
  for (const bool launch : kinds) Show(server, launch);
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
