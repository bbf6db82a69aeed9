#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "velox/containers/velObjArray.hpp"
#include "velox/runtime/velCompiler.hpp"
#include "velox/runtime/velObject.hpp"
#include "velox/runtime/velWindows.hpp"
#include "velox/system/velSecurity.hpp"
#include "velox/system/velSysInfo.hpp"

/// Who may start a COM server that runs in a process of its own, and who may call it.
///
/// Windows keeps this for each application identifier (AppID) as a security descriptor in the
/// registry. Here it is a list of accounts, each with a permission for every right:
///
///     TComServerLaunchPermissions permissions(AppID);
///     const auto name = TSecurityIdentifier::GetWellKnownAccountName("", WinInteractiveSid);
///     permissions.AddEntryEx("", name, ptAllow, ptAllow, ptAllow, ptNone, ptNone);
///     permissions.Apply();
///
/// A server without a setting of its own has the machine's default, or if there is none either, the
/// system's built-in one; the list then shows that.
///
/// No entries does not tell who may: a setting whose discretionary list is absent or null lets
/// everyone in, one with an empty list nobody, and each is read as no entries. What is added there
/// and applied becomes the whole list. Where that matters, look at the DaclType of the descriptor
/// that ReadFromRegistry gives.
///
/// Since Windows XP SP2 and Windows 2003 SP1 the rights are split into local and remote ones, and
/// launching from activating. Entries are of the classes with "Ex" in their names there, and of the
/// plain ones, which know a single permission, on older systems.
///
/// Writing takes administrator's rights. Keys that can't be opened count as absent when reading,
/// and are left alone when writing. What velSecurity.hpp says of errors holds here.
///
/// Threads: an object belongs to one thread at a time.
namespace velox {

/// Whether a right is granted to an account.
enum TPermissionType : uint8_t { ptNone, ptAllow, ptDeny };

/// Names for display, by the values above.
inline constexpr const char* PermissionTypeString[] = {"None", "Allow", "Deny"};

/// The value of that name, ignoring case; ptNone for any other text.
VELOX_API TPermissionType StringToPermissionType(const std::string& Text) noexcept;

// ----------------------------------------------------------------------------------------- entries

/// The permissions of one account.
class VELOX_API TComServerPermissionsEntry : public TObject {
 public:
  ~TComServerPermissionsEntry() override;

  /// The COM rights (COM_RIGHTS_…) that are allowed, and those that are denied.
  virtual uint32_t GetAllowingAccessMask() const;
  virtual uint32_t GetDenialAccessMask() const;
  /// Takes over what an access control entry says. A denial stays, whatever comes before or after.
  /// A mask of COM_RIGHTS_EXECUTE alone, as older systems write it, means every right.
  virtual void UpdateMask(TAccessControlEntryType AceType, uint32_t Mask);

  /// Whether nothing is allowed or denied.
  bool GetUnassigned() const { return GetAllowingAccessMask() == 0 && GetDenialAccessMask() == 0; }

  /// The account.
  const TSecurityIdentifier& GetSecurityIdentifier() const noexcept { return *SecurityIdentifier_; }
  /// Of the account, as TSecurityIdentifier has it.
  std::string GetAccountName() const { return SecurityIdentifier_->GetAccountName(); }
  std::string GetDomain() const { return SecurityIdentifier_->GetDomainName(); }
  std::string GetSystemName() const { return SecurityIdentifier_->GetSystemName(); }
  std::string GetSidString() const { return SecurityIdentifier_->GetSidString(); }

 protected:
  /// A permission, which is a member of the derived class, and its bits in a mask.
  struct TRight {
    TPermissionType* Permission;  ///< belongs to the entry
    uint32_t Mask;                ///< COM_RIGHTS_…
  };

  /// Clones the identifier.
  TComServerPermissionsEntry(const TSecurityIdentifier& SecurityIdentifier,
                             std::vector<TRight> Rights);

 private:
  uint32_t MaskOf(TPermissionType Value) const noexcept;

  const std::unique_ptr<TSecurityIdentifier> SecurityIdentifier_;
  const std::vector<TRight> Rights_;
};

/// An account that may, or may not, call the server, where the rights are not split.
class VELOX_API TComServerAccessPermissionsEntry : public TComServerPermissionsEntry {
 public:
  /// Without a permission yet. The identifier is cloned.
  explicit TComServerAccessPermissionsEntry(const TSecurityIdentifier& SecurityIdentifier);
  ~TComServerAccessPermissionsEntry() override;

  /// The one permission.
  TPermissionType Permission = ptNone;
};

/// The same where they are split.
class VELOX_API TComServerAccessPermissionsEntryEx : public TComServerPermissionsEntry {
 public:
  /// Without permissions yet. The identifier is cloned.
  explicit TComServerAccessPermissionsEntryEx(const TSecurityIdentifier& SecurityIdentifier);
  ~TComServerAccessPermissionsEntryEx() override;

  /// Calls from this machine, and from others.
  TPermissionType LocalAccess = ptNone;
  TPermissionType RemoteAccess = ptNone;
};

/// An account that may, or may not, start the server, where the rights are not split.
class VELOX_API TComServerLaunchPermissionsEntry : public TComServerPermissionsEntry {
 public:
  /// Without a permission yet. The identifier is cloned.
  explicit TComServerLaunchPermissionsEntry(const TSecurityIdentifier& SecurityIdentifier);
  ~TComServerLaunchPermissionsEntry() override;

  /// The one permission.
  TPermissionType Permission = ptNone;
};

/// The same where they are split.
class VELOX_API TComServerLaunchPermissionsEntryEx : public TComServerPermissionsEntry {
 public:
  /// Without permissions yet. The identifier is cloned.
  explicit TComServerLaunchPermissionsEntryEx(const TSecurityIdentifier& SecurityIdentifier);
  ~TComServerLaunchPermissionsEntryEx() override;

  /// Making objects in a running server, and starting it: from this machine, and from others.
  TPermissionType LocalActivation = ptNone;
  TPermissionType LocalLaunch = ptNone;
  TPermissionType RemoteActivation = ptNone;
  TPermissionType RemoteLaunch = ptNone;
};

// ------------------------------------------------------------------------------------ permissions

/// The permissions of a COM server, one entry an account. TComServerAccessPermissions and
/// TComServerLaunchPermissions are the two kinds; a class derived from this one calls
/// RetrieveEntries() in its constructor.
///
/// Entries live as long as this object: an entry that is deleted, or replaced by reading again, is
/// no longer in the list, and stays valid, since callers hold references to it. Each reading thus
/// takes memory until this object ends: to look at a setting from time to time, make a new object
/// each time.
class VELOX_API TComServerPermissions : public TObject {
 public:
  ~TComServerPermissions() override;

  /// Reads the server's own setting, else the machine's default, else takes the built-in one.
  /// Raises Exception "Security descriptor is invalid" and what else reading a descriptor raises,
  /// as for an account that does not exist any more. (To get rid of such a setting, delete the
  /// value RegistryPermissionValue() of the key "AppID\{...}" below HKEY_CLASSES_ROOT.)
  void RetrieveEntries();
  /// Deletes the entries that allow and deny nothing, and writes the others as the server's own
  /// setting: for each its denials, then its grants. When none are left it is UseDefault(). Windows
  /// takes entries in their order, so an account's denial counts against a grant to a group of its
  /// only when its entry comes first. The setting's owner and group become the administrators;
  /// what else a descriptor can hold, as a system list or flags of its entries, is not kept. A key
  /// of the server that is not there is made.
  void Apply();
  /// Deletes the server's own setting, and reads again.
  void UseDefault();

  /// The entry of an account, a new one at the end of the list when it has none.
  TComServerPermissionsEntry& AddEntry(const TSecurityIdentifier& Identifier);
  /// Raises Exception "Invalid index".
  void DeleteEntry(int32_t Index);
  TComServerPermissionsEntry& GetEntries(int32_t Index) const;
  int32_t GetEntryCount() const noexcept { return Entries_.GetCount(); }
  /// -1 when the account has no entry.
  int32_t GetEntryIndexBySecurityIdentifier(const TSecurityIdentifier& Identifier) const;

  /// In braces, as the registry has it.
  const std::string& GetAppID() const noexcept { return AppID_; }

  /// False, and the descriptor untouched, when there is no such value.
  static bool ReadFromRegistry(HKEY RootKey, const std::string& KeyName,
                               const std::string& ValueName, TSecurityDescriptor& Descriptor);
  static bool RegistryValueExists(HKEY RootKey, const std::string& KeyName,
                                  const std::string& ValueName);

  /// Whether this system has the split rights.
  static bool SupportAdvancedSecurity();
  /// Whether a system of this version and service pack has them.
  static bool SupportAdvancedSecurity(TOSVersion Version, int32_t ServicePackMajor) noexcept;

  /// A new entry of the kind that this system has, without permissions.
  virtual std::unique_ptr<TComServerPermissionsEntry> CreateComServerPermissionEntry(
      const TSecurityIdentifier& Identifier) const = 0;
  /// The name of the registry's value.
  virtual std::string RegistryPermissionValue() const = 0;
  /// Adds the entries that hold where nothing is set.
  virtual void SetDefaultPermissions() = 0;

 protected:
  /// Without entries: derived classes read them.
  explicit TComServerPermissions(const GUID& AppID);

 private:
  std::string KeyName() const { return "AppID\\" + AppID_; }

  const std::string AppID_;
  std::vector<std::unique_ptr<TComServerPermissionsEntry>> Created_;  // whether listed or not
  TObjectArray Entries_;                                              // refers to them
};

/// Who may call the server.
class VELOX_API TComServerAccessPermissions : public TComServerPermissions {
 public:
  /// Reads; raises what RetrieveEntries() raises.
  explicit TComServerAccessPermissions(const GUID& AppID);
  ~TComServerAccessPermissions() override;

  /// The entry of an account, set to these values: a plain one to Permission, one with split rights
  /// to the others. Raises EOSError for an unknown account.
  TComServerPermissionsEntry& AddEntryEx(const std::string& SystemName,
                                         const std::string& AccountName, TPermissionType Permission,
                                         TPermissionType LocalAccess, TPermissionType RemoteAccess);

  std::unique_ptr<TComServerPermissionsEntry> CreateComServerPermissionEntry(
      const TSecurityIdentifier& Identifier) const override;
  std::string RegistryPermissionValue() const override;
  void SetDefaultPermissions() override;
};

/// Who may start the server and activate its objects.
class VELOX_API TComServerLaunchPermissions : public TComServerPermissions {
 public:
  /// Reads; raises what RetrieveEntries() raises.
  explicit TComServerLaunchPermissions(const GUID& AppID);
  ~TComServerLaunchPermissions() override;

  /// As for access.
  TComServerPermissionsEntry& AddEntryEx(const std::string& SystemName,
                                         const std::string& AccountName, TPermissionType Permission,
                                         TPermissionType LocalLaunch,
                                         TPermissionType LocalActivation,
                                         TPermissionType RemoteLaunch,
                                         TPermissionType RemoteActivation);

  std::unique_ptr<TComServerPermissionsEntry> CreateComServerPermissionEntry(
      const TSecurityIdentifier& Identifier) const override;
  std::string RegistryPermissionValue() const override;
  void SetDefaultPermissions() override;
};

}  // namespace velox
