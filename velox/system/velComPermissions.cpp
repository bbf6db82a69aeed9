#include "velox/system/velComPermissions.hpp"

#include <utility>

#include "velox/foundation/velStringUtils.hpp"
#include "velox/runtime/velFormat.hpp"
#include "velox/runtime/velRegistryKey.hpp"

namespace velox {
namespace {

constexpr const char* DefaultsKey = "Software\\Microsoft\\Ole";

// The rights as access masks say them: execution and one way of it.
constexpr uint32_t Execute = COM_RIGHTS_EXECUTE;
constexpr uint32_t Local = Execute | COM_RIGHTS_EXECUTE_LOCAL;
constexpr uint32_t Remote = Execute | COM_RIGHTS_EXECUTE_REMOTE;
constexpr uint32_t LocalActivate = Execute | COM_RIGHTS_ACTIVATE_LOCAL;
constexpr uint32_t RemoteActivate = Execute | COM_RIGHTS_ACTIVATE_REMOTE;

void UpdatePermissionType(TPermissionType& Permission, TAccessControlEntryType AceType) noexcept {
  if (AceType == aceAccessDenied) Permission = ptDeny;
  if (AceType == aceAccessAllowed && Permission == ptNone) Permission = ptAllow;
}

std::string GUIDToString(const GUID& Id) {
  std::string text = Format("{%08lX-%04X-%04X-", Id.Data1, Id.Data2, Id.Data3);
  for (size_t i = 0; i < sizeof Id.Data4; ++i)
    text += Format(i == 2 ? "-%02X" : "%02X", Id.Data4[i]);
  return text + "}";
}

void AddAce(TAccessControlList& List, TAccessControlEntryType Type, uint32_t Mask,
            const TSecurityIdentifier& Identifier) {
  if (Mask == 0) return;
  auto ace = std::make_unique<TAccessControlEntry>(Type, Identifier.Clone());
  ace->AccessMask = Mask;
  if (List.AddAce(ace.get())) ace.release();
}

std::unique_ptr<TSecurityIdentifier> Administrators() {
  return std::make_unique<TSecurityIdentifier>("", WinBuiltinAdministratorsSid);
}

}  // namespace

TPermissionType StringToPermissionType(const std::string& Text) noexcept {
  for (const auto type : {ptNone, ptAllow, ptDeny}) {
    if (StrEqualText(Text, PermissionTypeString[type])) return type;
  }
  return ptNone;
}

// ----------------------------------------------------------------------------------------- entries

TComServerPermissionsEntry::TComServerPermissionsEntry(
    const TSecurityIdentifier& SecurityIdentifier, std::vector<TRight> Rights)
    : SecurityIdentifier_(SecurityIdentifier.Clone()), Rights_(std::move(Rights)) {}

TComServerPermissionsEntry::~TComServerPermissionsEntry() = default;

uint32_t TComServerPermissionsEntry::GetAllowingAccessMask() const { return MaskOf(ptAllow); }

uint32_t TComServerPermissionsEntry::GetDenialAccessMask() const { return MaskOf(ptDeny); }

uint32_t TComServerPermissionsEntry::MaskOf(TPermissionType Value) const noexcept {
  uint32_t mask = 0;
  for (const TRight& right : Rights_) {
    if (*right.Permission == Value) mask |= right.Mask;
  }
  return mask;
}

void TComServerPermissionsEntry::UpdateMask(TAccessControlEntryType AceType, uint32_t Mask) {
  for (const TRight& right : Rights_) {
    if ((Mask & right.Mask) == right.Mask || Mask == Execute)
      UpdatePermissionType(*right.Permission, AceType);
  }
}

TComServerAccessPermissionsEntry::TComServerAccessPermissionsEntry(
    const TSecurityIdentifier& SecurityIdentifier)
    : TComServerPermissionsEntry(SecurityIdentifier, {{&Permission, Execute}}) {}

TComServerAccessPermissionsEntry::~TComServerAccessPermissionsEntry() = default;

TComServerAccessPermissionsEntryEx::TComServerAccessPermissionsEntryEx(
    const TSecurityIdentifier& SecurityIdentifier)
    : TComServerPermissionsEntry(SecurityIdentifier,
                                 {{&LocalAccess, Local}, {&RemoteAccess, Remote}}) {}

TComServerAccessPermissionsEntryEx::~TComServerAccessPermissionsEntryEx() = default;

TComServerLaunchPermissionsEntry::TComServerLaunchPermissionsEntry(
    const TSecurityIdentifier& SecurityIdentifier)
    : TComServerPermissionsEntry(SecurityIdentifier, {{&Permission, Execute}}) {}

TComServerLaunchPermissionsEntry::~TComServerLaunchPermissionsEntry() = default;

TComServerLaunchPermissionsEntryEx::TComServerLaunchPermissionsEntryEx(
    const TSecurityIdentifier& SecurityIdentifier)
    : TComServerPermissionsEntry(SecurityIdentifier, {{&LocalLaunch, Local},
                                                      {&RemoteLaunch, Remote},
                                                      {&LocalActivation, LocalActivate},
                                                      {&RemoteActivation, RemoteActivate}}) {}

TComServerLaunchPermissionsEntryEx::~TComServerLaunchPermissionsEntryEx() = default;

// ------------------------------------------------------------------------------------ permissions

TComServerPermissions::TComServerPermissions(const GUID& AppID)
    : AppID_(GUIDToString(AppID)), Entries_(TClass::Of<TComServerPermissionsEntry>()) {}

TComServerPermissions::~TComServerPermissions() = default;

void TComServerPermissions::RetrieveEntries() {
  Entries_.Clear();
  TSecurityDescriptor descriptor;
  const std::string value = RegistryPermissionValue();
  if (!ReadFromRegistry(HKEY_CLASSES_ROOT, KeyName(), value, descriptor) &&
      !ReadFromRegistry(HKEY_LOCAL_MACHINE, DefaultsKey, "Default" + value, descriptor)) {
    SetDefaultPermissions();
  }
  const TAccessControlList& dacl = descriptor.GetDacl();
  for (int32_t i = 0; i < dacl.GetAceCount(); ++i) {
    const TAccessControlEntry& ace = dacl.GetAce(i);
    AddEntry(*ace.GetSecurityIdentifier()).UpdateMask(ace.AceType, ace.AccessMask);
  }
}

void TComServerPermissions::Apply() {
  for (int32_t i = GetEntryCount() - 1; i >= 0; --i) {
    if (GetEntries(i).GetUnassigned()) DeleteEntry(i);
  }
  if (GetEntryCount() == 0) {
    UseDefault();
    return;
  }
  TSecurityDescriptor descriptor;
  descriptor.SetOwner(Administrators());
  descriptor.SetPrimaryGroup(Administrators());
  for (int32_t i = 0; i < GetEntryCount(); ++i) {
    const TComServerPermissionsEntry& entry = GetEntries(i);
    const TSecurityIdentifier& identifier = entry.GetSecurityIdentifier();
    AddAce(descriptor.GetDacl(), aceAccessDenied, entry.GetDenialAccessMask(), identifier);
    AddAce(descriptor.GetDacl(), aceAccessAllowed, entry.GetAllowingAccessMask(), identifier);
  }
  descriptor.DaclType = sdatPresentNotNull;
  descriptor.WriteToRegistry(HKEY_CLASSES_ROOT, KeyName(), RegistryPermissionValue());
}

void TComServerPermissions::UseDefault() {
  {
    TRegistry registry(KEY_ALL_ACCESS);
    registry.SetRootKey(HKEY_CLASSES_ROOT);
    if (registry.OpenKey(KeyName(), false)) registry.DeleteValue(RegistryPermissionValue());
  }
  RetrieveEntries();
}

TComServerPermissionsEntry& TComServerPermissions::AddEntry(const TSecurityIdentifier& Identifier) {
  const int32_t index = GetEntryIndexBySecurityIdentifier(Identifier);
  if (index >= 0) return GetEntries(index);
  Created_.push_back(CreateComServerPermissionEntry(Identifier));
  Entries_.Add(Created_.back().get());
  return *Created_.back();
}

void TComServerPermissions::DeleteEntry(int32_t Index) { Entries_.Delete(Index); }

TComServerPermissionsEntry& TComServerPermissions::GetEntries(int32_t Index) const {
  return static_cast<TComServerPermissionsEntry&>(*Entries_.GetItems(Index));
}

int32_t TComServerPermissions::GetEntryIndexBySecurityIdentifier(
    const TSecurityIdentifier& Identifier) const {
  for (int32_t i = 0; i < GetEntryCount(); ++i) {
    if (GetEntries(i).GetSecurityIdentifier().IsEqual(Identifier)) return i;
  }
  return -1;
}

bool TComServerPermissions::ReadFromRegistry(HKEY RootKey, const std::string& KeyName,
                                             const std::string& ValueName,
                                             TSecurityDescriptor& Descriptor) {
  // Asked first: without the value the descriptor would be cleared.
  return RegistryValueExists(RootKey, KeyName, ValueName) &&
         Descriptor.ReadFromRegistry("", RootKey, KeyName, ValueName);
}

bool TComServerPermissions::RegistryValueExists(HKEY RootKey, const std::string& KeyName,
                                                const std::string& ValueName) {
  TRegistry registry;
  registry.SetRootKey(RootKey);
  return registry.OpenKeyReadOnly(KeyName) && registry.ValueExists(ValueName);
}

bool TComServerPermissions::SupportAdvancedSecurity(TOSVersion Version,
                                                    int32_t ServicePackMajor) noexcept {
  if (Version < TOSVersion::osXP) return false;
  if (Version == TOSVersion::osXP) return ServicePackMajor >= 2;
  if (Version == TOSVersion::os2003) return ServicePackMajor >= 1;
  return true;
}

bool TComServerPermissions::SupportAdvancedSecurity() {
  const TOSInfo& system = TSystemInfo::GetInstance()->GetOSInfo();
  return SupportAdvancedSecurity(system.GetVersion(), system.GetServicePackMajor());
}

TComServerAccessPermissions::TComServerAccessPermissions(const GUID& AppID)
    : TComServerPermissions(AppID) {
  RetrieveEntries();
}

TComServerAccessPermissions::~TComServerAccessPermissions() = default;

TComServerPermissionsEntry& TComServerAccessPermissions::AddEntryEx(const std::string& SystemName,
                                                                    const std::string& AccountName,
                                                                    TPermissionType Permission,
                                                                    TPermissionType LocalAccess,
                                                                    TPermissionType RemoteAccess) {
  TComServerPermissionsEntry& entry = AddEntry(TSecurityIdentifier(SystemName, AccountName));
  if (auto* const plain = dynamic_cast<TComServerAccessPermissionsEntry*>(&entry)) {
    plain->Permission = Permission;
  } else if (auto* const split = dynamic_cast<TComServerAccessPermissionsEntryEx*>(&entry)) {
    split->LocalAccess = LocalAccess;
    split->RemoteAccess = RemoteAccess;
  }
  return entry;
}

std::unique_ptr<TComServerPermissionsEntry>
TComServerAccessPermissions::CreateComServerPermissionEntry(
    const TSecurityIdentifier& Identifier) const {
  if (SupportAdvancedSecurity())
    return std::make_unique<TComServerAccessPermissionsEntryEx>(Identifier);
  return std::make_unique<TComServerAccessPermissionsEntry>(Identifier);
}

std::string TComServerAccessPermissions::RegistryPermissionValue() const {
  return "AccessPermission";
}

void TComServerAccessPermissions::SetDefaultPermissions() {
  const auto name = [](WELL_KNOWN_SID_TYPE Type) {
    return TSecurityIdentifier::GetWellKnownAccountName("", Type);
  };
  AddEntryEx("", name(WinLocalSystemSid), ptAllow, ptAllow, ptNone);
  if (SupportAdvancedSecurity()) AddEntryEx("", name(WinSelfSid), ptAllow, ptAllow, ptAllow);
}

TComServerLaunchPermissions::TComServerLaunchPermissions(const GUID& AppID)
    : TComServerPermissions(AppID) {
  RetrieveEntries();
}

TComServerLaunchPermissions::~TComServerLaunchPermissions() = default;

TComServerPermissionsEntry& TComServerLaunchPermissions::AddEntryEx(
    const std::string& SystemName, const std::string& AccountName, TPermissionType Permission,
    TPermissionType LocalLaunch, TPermissionType LocalActivation, TPermissionType RemoteLaunch,
    TPermissionType RemoteActivation) {
  TComServerPermissionsEntry& entry = AddEntry(TSecurityIdentifier(SystemName, AccountName));
  if (auto* const plain = dynamic_cast<TComServerLaunchPermissionsEntry*>(&entry)) {
    plain->Permission = Permission;
  } else if (auto* const split = dynamic_cast<TComServerLaunchPermissionsEntryEx*>(&entry)) {
    split->LocalLaunch = LocalLaunch;
    split->LocalActivation = LocalActivation;
    split->RemoteLaunch = RemoteLaunch;
    split->RemoteActivation = RemoteActivation;
  }
  return entry;
}

std::unique_ptr<TComServerPermissionsEntry>
TComServerLaunchPermissions::CreateComServerPermissionEntry(
    const TSecurityIdentifier& Identifier) const {
  if (SupportAdvancedSecurity())
    return std::make_unique<TComServerLaunchPermissionsEntryEx>(Identifier);
  return std::make_unique<TComServerLaunchPermissionsEntry>(Identifier);
}

std::string TComServerLaunchPermissions::RegistryPermissionValue() const {
  return "LaunchPermission";
}

void TComServerLaunchPermissions::SetDefaultPermissions() {
  for (const auto type : {WinBuiltinAdministratorsSid, WinInteractiveSid, WinLocalSystemSid}) {
    AddEntryEx("", TSecurityIdentifier::GetWellKnownAccountName("", type), ptAllow, ptAllow,
               ptAllow, ptAllow, ptAllow);
  }
}

}  // namespace velox
