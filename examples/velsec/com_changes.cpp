#include "com_changes.hpp"

#include <algorithm>

#include "velox/foundation/velStringUtils.hpp"
#include "velox/runtime/velException.hpp"
#include "velox/runtime/velRegistryKey.hpp"

namespace velsec {

using namespace velox;

namespace {

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
std::vector<TChange> ParseChanges(const TStrings& Words) {
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

/// Keys that may not be written are left alone without a word.
void Verify(bool Written) {
  if (!Written) throw Exception("The setting could not be written");
}

void Save(TComServerPermissions& Permissions, const TServer& Server, bool Launch) {
  bool own = false;
  for (int32_t i = 0; i < Permissions.GetEntryCount(); ++i)
    own = own || !Permissions.GetEntries(i).GetUnassigned();
  Permissions.Apply();  // without anything to write it drops the setting
  // The entries alone don't tell: those that should be written may hold by default, too.
  Verify(HasOwnSetting(Server, Launch) == own &&
         Describe(*Read(Server, Launch)) == Describe(Permissions));
}

}  // namespace

void ChangeSettings(const TServer& Server, const std::vector<bool>& Kinds, const TStrings& Words) {
  std::vector<TSetting> settings;
  settings.reserve(Kinds.size());
  for (const bool launch : Kinds) settings.push_back({launch, Read(Server, launch)});
  for (const TChange& change : ParseChanges(Words)) Make(change, settings);
  for (const TSetting& setting : settings) {
    if (setting.Changed) Save(*setting.Permissions, Server, setting.Launch);
  }
}

void DropSetting(const TServer& Server, bool Launch) {
  TRegistry registry;
  registry.SetRootKey(HKEY_CLASSES_ROOT);
  if (registry.OpenKey(Server.Key, false)) registry.DeleteValue(ValueOf(Launch));
  Verify(!HasOwnSetting(Server, Launch));
}

}  // namespace velsec
