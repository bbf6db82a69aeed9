#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "velox/containers/velObjArray.hpp"
#include "velox/runtime/velCompiler.hpp"
#include "velox/runtime/velObject.hpp"
#include "velox/runtime/velWindows.hpp"

/// Security identifiers, access control entries and lists, and security descriptors as objects:
/// extracted from the system's binary form, edited, and built back into it.
///
///     TSecurityDescriptor descriptor;
///     descriptor.ReadFromRegistry("", HKEY_CLASSES_ROOT, key, "LaunchPermission");
///     if (descriptor.DaclType != sdatPresentNotNull) return;  // no list: everyone may already
///     auto entry = std::make_unique<TAccessControlEntry>(
///         aceAccessAllowed, std::make_unique<TSecurityIdentifier>("", WinInteractiveSid));
///     entry->AccessMask = COM_RIGHTS_EXECUTE;
///     if (descriptor.GetDacl().AddAce(entry.get())) entry.release();
///     descriptor.WriteToRegistry(HKEY_CLASSES_ROOT, key, "LaunchPermission");
///
/// Look at DaclType before you add to the list that was read: where it is absent or null everyone
/// may do everything, and a list put in its place shuts out all that are not in it.
///
/// Binary data is not trusted. What it says of its own lengths is checked against all that is known
/// of them: a SID against its entry, an entry against its list, a list against the block, where
/// the block's size is given. Where it is not, the caller vouches for the memory that the data
/// claims to take.
///
/// Failed calls of the system raise EOSError.
///
/// Threads: an object belongs to one thread at a time.
namespace velox {

/// The kinds of entries; the system's types 0, 1 and 2.
enum TAccessControlEntryType : uint8_t { aceAccessAllowed, aceAccessDenied, aceSystemAudit };

/// A discretionary list says who may do what; a system list what is recorded.
enum TAccessControlListType : uint8_t { aclDiscretionary, aclSystem };

/// Whether a descriptor has a list. A present null list is not an empty one: a null discretionary
/// list grants everything to everyone, an empty one nothing to anyone.
enum TSecurityDescriptorAclType : uint8_t { sdatAbsent, sdatPresentNull, sdatPresentNotNull };

/// Names for display, by the values above.
inline constexpr const char* AccessControlEntryTypeString[] = {"Access allowed", "Access denied",
                                                               "System audit"};
inline constexpr const char* SecurityDescriptorAclTypeString[] = {"Absent", "Null", "Present"};
/// By SID_NAME_USE, which counts from 1. It ends with 9, SidTypeComputer, and newer systems report
/// 10 and more (labels, logon sessions): compare with std::size before you look up a GetSidType().
inline constexpr const char* SecurityIdentifierTypeString[] = {
    "",        "User",    "Group",   "Domain", "Alias", "Well known group", "Deleted account",
    "Invalid", "Unknown", "Computer"};

// ------------------------------------------------------------------------------------- identifiers

/// A security identifier (SID) with the names of its account. Except for one made without
/// arguments, an identifier always has both.
///
/// SystemName is the machine that is asked for names; empty is this one.
class VELOX_API TSecurityIdentifier : public TObject {
 public:
  /// No SID, no names; TryInit gives it both.
  TSecurityIdentifier() noexcept;
  /// The account of that name, such as "Everyone" or "NT AUTHORITY\SYSTEM"; AccountName and
  /// DomainName become what the system calls it. Raises Exception "Account name must not be empty".
  TSecurityIdentifier(const std::string& SystemName, const std::string& AccountName);
  /// A well-known account, such as WinWorldSid.
  TSecurityIdentifier(const std::string& SystemName, WELL_KNOWN_SID_TYPE Type);
  /// A copy of the SID. Raises Exception "Invalid SID specified", and EOSError when it maps to no
  /// account.
  TSecurityIdentifier(const std::string& SystemName, const SID* Sid);
  ~TSecurityIdentifier() override;

  /// From text such as "S-1-5-32-544". Raises EOSError when it is none or maps to no account.
  static std::unique_ptr<TSecurityIdentifier> CreateFromSidString(const std::string& SystemName,
                                                                  const std::string& SidString);

  /// Takes the account of that name; false when it is not found: no SID and no names are left then.
  /// An empty AccountName changes nothing, and the result is false.
  bool TryInit(const std::string& SystemName, const std::string& AccountName);

  /// Another identifier of the same account, its names looked up anew.
  std::unique_ptr<TSecurityIdentifier> Clone() const;

  /// The SID as text. Raises EOSError when there is none.
  std::string GetSidString() const;
  /// "DOMAIN\account", or the account alone when it has no domain.
  std::string GetFullAccountName() const;

  /// The account's full name, and its SID as text. Raise EOSError.
  static std::string GetWellKnownAccountName(const std::string& SystemName,
                                             WELL_KNOWN_SID_TYPE Type);
  static std::string GetWellKnownAccountSidString(const std::string& SystemName,
                                                  WELL_KNOWN_SID_TYPE Type);

  /// Whether SIDs and system names are the same, ignoring the case of names: one SID on two
  /// machines is two identifiers. Asks the system for nothing. Raises EOSError when the system
  /// names are the same and there is no SID to compare.
  bool IsEqual(const TSecurityIdentifier& Other) const;

  /// Looks up the SID and DomainName by AccountName. False when that fails: there is no SID then,
  /// and the last error tells why.
  bool LookupAccount();
  /// Looks up AccountName and DomainName by the SID. False when that fails: both are empty then,
  /// and the last error tells why.
  bool LookupSid();
  /// Drops the SID; the names stay.
  void FinalizeSid() noexcept;

  /// Null when there is none. Belongs to this object.
  const SID* GetSid() const noexcept;
  /// Its length in bytes, 0 when there is none.
  uint32_t GetSidLength() const noexcept { return static_cast<uint32_t>(Sid_.size()); }
  const std::string& GetSystemName() const noexcept { return SystemName_; }
  const std::string& GetAccountName() const noexcept { return AccountName_; }
  const std::string& GetDomainName() const noexcept { return DomainName_; }
  /// What the last look-up said of the account: a user, a group, …
  SID_NAME_USE GetSidType() const noexcept { return SidType_; }
  /// Whether LookupSid found the names.
  bool GetResolved() const noexcept { return Resolved_; }

 private:
  void Assign(const SID* Source);
  bool FindNames();

  std::vector<uint8_t> Sid_;
  std::string SystemName_;
  std::string AccountName_;
  std::string DomainName_;
  SID_NAME_USE SidType_ = SidTypeUnknown;
  bool Resolved_ = false;
};

// --------------------------------------------------------------------------------- entries, lists

/// An access control entry (ACE): rights that are granted to an account, denied to it, or recorded.
class VELOX_API TAccessControlEntry : public TObject {
 public:
  /// No rights and no flags yet. Raises Exception "Security identifier is empty" for none.
  TAccessControlEntry(TAccessControlEntryType AAceType,
                      std::unique_ptr<TSecurityIdentifier> SecurityIdentifier);
  /// Extracts.
  TAccessControlEntry(const std::string& SystemName, const ACE_HEADER* Ace);
  ~TAccessControlEntry() override;

  /// Takes everything from an entry in the system's form; an identifier held before is freed.
  /// Raises Exception "Incorrect access control entry type" for others than the three (those of
  /// objects, of callbacks and the like), "Invalid SID specified", also for a SID that does not end
  /// within the entry's size, "Incorrect parameters" for null, and EOSError when the SID maps to no
  /// account.
  void Extract(const std::string& SystemName, const ACE_HEADER* Ace);
  /// Writes GetSize() bytes from Target on. Raises Exception "Cannot build ace - security
  /// identifier is absent", also for an identifier without a SID.
  void Build(ACE_HEADER& Target) const;
  /// In bytes: 8 more than the SID.
  int32_t GetSize() const noexcept;

  /// The system's number of AceType, and back. Raise Exception "Incorrect access control entry
  /// type".
  virtual uint8_t AceTypeToWinntAceType() const;
  virtual TAccessControlEntryType WinntAceTypeToAceType(uint8_t WinntAceType) const;

  /// Null when there is none. Belongs to this object.
  TSecurityIdentifier* GetSecurityIdentifier() const noexcept { return SecurityIdentifier_.get(); }
  void SetSecurityIdentifier(std::unique_ptr<TSecurityIdentifier> Value) noexcept;

  /// Bits, whose meaning depends on what is protected.
  uint32_t AccessMask = 0;
  TAccessControlEntryType AceType = aceAccessAllowed;
  /// The system's flags, such as CONTAINER_INHERIT_ACE.
  uint8_t AceFlags = 0;

 private:
  std::unique_ptr<TSecurityIdentifier> SecurityIdentifier_;
};

/// An access control list (ACL). It owns its entries, and keeps them in the order in which they
/// were added: denials are not moved ahead of grants.
///
/// A discretionary list takes allowing and denying entries, a system list those of audits, and each
/// only one of a kind for an account: an entry is refused when one of the same type with an equal
/// identifier is there. (Entries are compared as they are now; one that is changed while it is in a
/// list is not looked at again.)
class VELOX_API TAccessControlList : public TObject {
 public:
  /// Without entries.
  explicit TAccessControlList(TAccessControlListType AclType);
  /// Extracts.
  TAccessControlList(const std::string& SystemName, TAccessControlListType AclType, const ACL* Acl);
  ~TAccessControlList() override;

  /// Appends the entry. True: the list owns it now (or did before). False: it is refused, and stays
  /// the caller's. Raises Exception "Object cannot be null", and "Security identifier is empty" for
  /// an entry without one; the entry stays the caller's then, too.
  bool AddAce(TAccessControlEntry* Entry);
  /// Frees an entry. Raises Exception "Invalid index"; an entry that is not in the list is none of
  /// its business.
  void DeleteAce(int32_t Index);
  void DeleteAce(TAccessControlEntry* Entry);
  /// Raises Exception "Invalid index".
  TAccessControlEntry& GetAce(int32_t Index) const;
  int32_t GetAceCount() const noexcept { return Aces_.GetCount(); }
  /// Frees all entries.
  void Clear();

  /// The first entry with an identifier equal to this one, -1 when there is none.
  int32_t GetAceIndexBySecurityIdentifier(const TSecurityIdentifier& Identifier) const;

  /// In bytes: 8 and the sizes of the entries.
  int32_t GetSize() const noexcept;
  /// Writes GetSize() bytes from Target on, except for the reserved fields. Raises Exception
  /// "Access control list cannot exceed 65535 bytes", which is as much as its form can say.
  void Build(ACL& Target) const;
  /// Clears, then adds each entry of a list in the system's form as AddAce does: one that is
  /// refused is dropped. Raises Exception "Invalid ACL specified", also for an entry or a SID that
  /// leaves the list or is damaged, and what extracting an entry raises; the entries before that
  /// one are then in the list.
  void Extract(const std::string& SystemName, const ACL* Acl);

  /// As given to the constructor.
  TAccessControlListType GetAclType() const noexcept { return AclType_; }

  /// What refuses entries: the array's OnModifying.
  void AceModifing(TObject* Sender, TObject* Item, TContainerModifyAction Action, bool& Allow);

 private:
  TObjectArray Aces_;  // owns them
  TAccessControlListType AclType_;
};

// ------------------------------------------------------------------------------------- descriptors

/// A security descriptor: whose a thing is, who may do what with it, and what of that is recorded.
class VELOX_API TSecurityDescriptor : public TObject {
 public:
  /// No owner, no group, both lists absent.
  TSecurityDescriptor();
  ~TSecurityDescriptor() override;

  /// As after construction, except for Control, which stays.
  void Clear();

  /// Null when there is none. Belongs to this object.
  TSecurityIdentifier* GetOwner() const noexcept { return Owner_.get(); }
  TSecurityIdentifier* GetPrimaryGroup() const noexcept { return PrimaryGroup_.get(); }
  /// Frees the one held, unless that is what is set. Null for none.
  void SetOwner(std::unique_ptr<TSecurityIdentifier> Value) noexcept;
  void SetPrimaryGroup(std::unique_ptr<TSecurityIdentifier> Value) noexcept;

  /// What of a list counts depends on DaclType and SaclType: with sdatPresentNotNull the list, with
  /// the others nothing of it.
  TAccessControlList& GetDacl() noexcept { return Dacl_; }
  const TAccessControlList& GetDacl() const noexcept { return Dacl_; }
  TAccessControlList& GetSacl() noexcept { return Sacl_; }
  const TAccessControlList& GetSacl() const noexcept { return Sacl_; }

  /// Bytes that Build writes. The absolute form has a larger header in 64-bit programs.
  int32_t GetSize(bool SelfRelative = true) const noexcept;

  /// Writes GetSize(SelfRelative) bytes from Target on: the header, then the discretionary list,
  /// the system list, owner and group. The self-relative form refers to them by offsets, and can be
  /// stored and moved; the absolute form by addresses, and so has to stay where it is. Raises what
  /// building a list does, and Exception "Invalid SID specified" for an owner or group without a
  /// SID.
  void Build(SECURITY_DESCRIPTOR& Target, bool SelfRelative) const;
  /// The same in memory of its own.
  std::unique_ptr<uint8_t[]> BuildDescriptor(bool SelfRelative) const;

  /// Takes everything from a descriptor in the system's form, absolute or self-relative. The caller
  /// vouches for the memory that it refers to. Raises Exception "Security descriptor is invalid",
  /// also for a damaged SID or list; nothing is taken then. Raises Exception "Incorrect access
  /// control entry type" for entries of other types, and EOSError for a SID that maps to no
  /// account; what came before that is then taken.
  void Extract(const std::string& SystemName, const void* Descriptor);
  /// The same for a self-relative descriptor in a block of Size bytes, such as a file or a value of
  /// the registry: nothing outside it is read. Parts that do not lie within it, and the absolute
  /// form, raise Exception "Security descriptor is invalid".
  void Extract(const std::string& SystemName, const void* Descriptor, int32_t Size);

  /// Extracts a binary value of the registry. Clears when there is no such value, and does nothing
  /// when there is no such key or it can't be opened; the result is false then, and true when a
  /// value was extracted. Raises ERegistryException for values of other types.
  bool ReadFromRegistry(const std::string& SystemName, HKEY RootKey, const std::string& KeyName,
                        const std::string& ValueName);
  /// Writes the self-relative form, making the key when it is missing. Does nothing when that is
  /// refused.
  void WriteToRegistry(HKEY RootKey, const std::string& KeyName,
                       const std::string& ValueName) const;

  /// What there is of each list: nothing, a null list, or its entries.
  TSecurityDescriptorAclType DaclType = sdatAbsent;
  TSecurityDescriptorAclType SaclType = sdatAbsent;
  /// The system's control bits (SE_…), as last extracted. Build sets and clears those three that
  /// tell of lists and form.
  uint16_t Control = 0;

 private:
  TSecurityDescriptorAclType ExtractAcl(TAccessControlList& List, const std::string& SystemName,
                                        uint16_t PresentBit, const void* Acl) const;

  std::unique_ptr<TSecurityIdentifier> Owner_;
  std::unique_ptr<TSecurityIdentifier> PrimaryGroup_;
  TAccessControlList Dacl_;
  TAccessControlList Sacl_;
};

}  // namespace velox
