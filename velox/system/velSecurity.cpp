#include "velox/system/velSecurity.hpp"

#include <cstddef>
#include <cstring>
#include <limits>
#include <optional>
#include <span>
#include <utility>

#include "velox/foundation/velStringUtils.hpp"
#include "velox/foundation/velSysUtils.hpp"
#include "velox/runtime/velException.hpp"
#include "velox/runtime/velMessages.hpp"
#include "velox/runtime/velRegistryKey.hpp"

namespace velox {
namespace {

using TBytes = std::span<const uint8_t>;

// Allowed, denied and audit entries have one layout.
using TAce = ACCESS_ALLOWED_ACE;

constexpr size_t SidHeaderSize = offsetof(SID, SubAuthority);
constexpr size_t AceHeaderSize = offsetof(TAce, SidStart);
static_assert(SidHeaderSize == 8 && AceHeaderSize == 8 && sizeof(ACL) == 8);
static_assert(sizeof(SECURITY_DESCRIPTOR_RELATIVE) == 20);

/// Memory that the system allocated for its caller.
struct TLocalFree {
  void operator()(void* Memory) const noexcept { ::LocalFree(Memory); }
};
template <class T>
using TLocalMemory = std::unique_ptr<T, TLocalFree>;

/// An empty name is the local machine.
const char* SystemPointer(const std::string& SystemName) noexcept {
  return SystemName.empty() ? nullptr : SystemName.c_str();
}

/// Whether a look-up without buffers failed for want of them, and not otherwise.
bool OnlyAskedForLengths() noexcept {
  const DWORD error = ::GetLastError();
  return error == ERROR_SUCCESS || error == ERROR_INSUFFICIENT_BUFFER;
}

std::string CutAtZero(std::string Text) {
  Text.resize(std::strlen(Text.c_str()));
  return Text;
}

PSID AsPSID(const void* Sid) noexcept { return const_cast<void*>(Sid); }

/// Whether a whole SID stands at the beginning of the bytes.
bool HoldsSid(TBytes Bytes) noexcept {
  if (Bytes.size() < SidHeaderSize) return false;
  const size_t count = Bytes[offsetof(SID, SubAuthorityCount)];
  return Bytes[offsetof(SID, Revision)] == SID_REVISION && count <= SID_MAX_SUB_AUTHORITIES &&
         SidHeaderSize + count * sizeof(DWORD) <= Bytes.size();
}

/// Whether a list begins the bytes that does not claim to be longer than they are. AcesOf checks
/// the rest.
bool HoldsAcl(TBytes Bytes) noexcept {
  ACL header;
  if (Bytes.size() < sizeof header) return false;
  std::memcpy(&header, Bytes.data(), sizeof header);
  return header.AclSize <= Bytes.size();
}

/// Whether an entry of one of the three types holds a whole SID; others are refused by their type.
bool HoldsItsSid(const ACE_HEADER& Ace) noexcept {
  if (Ace.AceType > SYSTEM_AUDIT_ACE_TYPE) return true;
  const TBytes bytes(reinterpret_cast<const uint8_t*>(&Ace), Ace.AceSize);
  return bytes.size() >= AceHeaderSize && HoldsSid(bytes.subspan(AceHeaderSize));
}

/// The entries of a list, nothing when it is invalid. The system's check alone would accept an
/// entry of size 0, read the header behind the last, and differ between versions in whether it
/// looks at the SIDs.
std::optional<std::vector<const ACE_HEADER*>> AcesOf(const ACL& Acl) {
  std::vector<const ACE_HEADER*> aces;
  size_t position = sizeof(ACL);
  if (Acl.AclSize < position) return std::nullopt;
  for (size_t i = 0; i < Acl.AceCount; ++i) {
    const auto* const ace =
        reinterpret_cast<const ACE_HEADER*>(reinterpret_cast<const uint8_t*>(&Acl) + position);
    if (position + sizeof(ACE_HEADER) > Acl.AclSize || ace->AceSize < sizeof(ACE_HEADER) ||
        ace->AceSize % sizeof(DWORD) != 0 || position + ace->AceSize > Acl.AclSize ||
        !HoldsItsSid(*ace)) {
      return std::nullopt;
    }
    aces.push_back(ace);
    position += ace->AceSize;
  }
  if (!::IsValidAcl(const_cast<ACL*>(&Acl))) return std::nullopt;
  return aces;
}

/// The parts of a descriptor, wherever it keeps them; null for those it has none of.
struct TParts {
  const void* Owner = nullptr;
  const void* Group = nullptr;
  const void* Sacl = nullptr;
  const void* Dacl = nullptr;
};

/// Lists without their bit in Control are none.
TParts WithoutAbsentLists(TParts Parts, uint16_t Control) noexcept {
  if ((Control & SE_SACL_PRESENT) == 0) Parts.Sacl = nullptr;
  if ((Control & SE_DACL_PRESENT) == 0) Parts.Dacl = nullptr;
  return Parts;
}

TParts PartsOf(const SECURITY_DESCRIPTOR_RELATIVE& Header) noexcept {
  const auto at = [&Header](DWORD Offset) {
    return Offset == 0 ? nullptr : OfsPtr(static_cast<const void*>(&Header), Offset);
  };
  return WithoutAbsentLists({at(Header.Owner), at(Header.Group), at(Header.Sacl), at(Header.Dacl)},
                            Header.Control);
}

TParts PartsOf(const SECURITY_DESCRIPTOR& Header) noexcept {
  return WithoutAbsentLists({Header.Owner, Header.Group, Header.Sacl, Header.Dacl}, Header.Control);
}

TParts PartsOf(const void* Descriptor) noexcept {
  // Both forms begin alike, up to the control bits.
  const auto& relative = *static_cast<const SECURITY_DESCRIPTOR_RELATIVE*>(Descriptor);
  return (relative.Control & SE_SELF_RELATIVE) != 0
             ? PartsOf(relative)
             : PartsOf(*static_cast<const SECURITY_DESCRIPTOR*>(Descriptor));
}

/// Whether the system takes the descriptor, and its parts are what they should be: not every
/// version of the system looks at those.
bool IsValidDescriptor(const void* Descriptor) {
  if (Descriptor == nullptr || !::IsValidSecurityDescriptor(const_cast<void*>(Descriptor)))
    return false;
  const auto sid = [](const void* Sid) { return Sid == nullptr || ::IsValidSid(AsPSID(Sid)); };
  const auto list = [](const void* Acl) {
    return Acl == nullptr || AcesOf(*static_cast<const ACL*>(Acl)).has_value();
  };
  const TParts parts = PartsOf(Descriptor);
  return sid(parts.Owner) && sid(parts.Group) && list(parts.Sacl) && list(parts.Dacl);
}

/// Whether a self-relative descriptor begins the bytes, all parts of which lie within them and
/// behind its header, aligned as the system asks for.
bool HoldsDescriptor(TBytes Bytes) noexcept {
  SECURITY_DESCRIPTOR_RELATIVE header;
  if (Bytes.size() < sizeof header) return false;
  std::memcpy(&header, Bytes.data(), sizeof header);
  if ((header.Control & SE_SELF_RELATIVE) == 0) return false;
  const auto holds = [Bytes](DWORD Offset, bool (*Check)(TBytes) noexcept) {
    if (Offset == 0) return true;
    return Offset >= sizeof header && Offset % sizeof(DWORD) == 0 && Offset <= Bytes.size() &&
           Check(Bytes.subspan(Offset));
  };
  return holds(header.Owner, &HoldsSid) && holds(header.Group, &HoldsSid) &&
         ((header.Control & SE_SACL_PRESENT) == 0 || holds(header.Sacl, &HoldsAcl)) &&
         ((header.Control & SE_DACL_PRESENT) == 0 || holds(header.Dacl, &HoldsAcl));
}

void SetBit(uint16_t& Control, uint16_t Bit, bool On) noexcept {
  Control = static_cast<uint16_t>(On ? Control | Bit : Control & ~Bit);
}

int32_t SidSize(const TSecurityIdentifier* Identifier) noexcept {
  return Identifier == nullptr ? 0 : static_cast<int32_t>(Identifier->GetSidLength());
}

/// Puts an owner or a group at Position and advances it. Returns where that is, null for none.
const void* PutSid(uint8_t*& Position, const TSecurityIdentifier* Identifier) {
  if (Identifier == nullptr) return nullptr;
  if (Identifier->GetSid() == nullptr) throw Exception(messages::seInvalidSid);
  std::memcpy(Position, Identifier->GetSid(), Identifier->GetSidLength());
  return PtrInc(Position, SidSize(Identifier));
}

const void* PutAcl(uint8_t*& Position, const TAccessControlList& List,
                   TSecurityDescriptorAclType Type) {
  if (Type != sdatPresentNotNull) return nullptr;
  List.Build(*reinterpret_cast<ACL*>(Position));
  return PtrInc(Position, List.GetSize());
}

/// Takes the identifier that is handed over, even if it is the one already held.
void TakeIdentifier(std::unique_ptr<TSecurityIdentifier>& Held,
                    std::unique_ptr<TSecurityIdentifier> Value) noexcept {
  if (Held == Value) {
    Value.release();
  } else {
    Held = std::move(Value);
  }
}

}  // namespace

// ------------------------------------------------------------------------------------- identifiers

TSecurityIdentifier::TSecurityIdentifier() noexcept = default;

TSecurityIdentifier::TSecurityIdentifier(const std::string& SystemName,
                                         const std::string& AccountName)
    : SystemName_(SystemName), AccountName_(AccountName) {
  if (AccountName.empty()) throw Exception(messages::seAccountNameIsEmpty);
  if (!LookupAccount() || !LookupSid()) RaiseLastOSError();
}

TSecurityIdentifier::TSecurityIdentifier(const std::string& SystemName, WELL_KNOWN_SID_TYPE Type)
    : SystemName_(SystemName) {
  alignas(SID) uint8_t sid[SECURITY_MAX_SID_SIZE];
  static_assert(sizeof sid == 68);
  DWORD size = sizeof sid;
  if (!::CreateWellKnownSid(Type, nullptr, sid, &size)) RaiseLastOSError();
  Assign(reinterpret_cast<const SID*>(sid));
}

TSecurityIdentifier::TSecurityIdentifier(const std::string& SystemName, const SID* Sid)
    : SystemName_(SystemName) {
  Assign(Sid);
}

TSecurityIdentifier::~TSecurityIdentifier() = default;

void TSecurityIdentifier::Assign(const SID* Source) {
  if (Source == nullptr || !::IsValidSid(AsPSID(Source))) throw Exception(messages::seInvalidSid);
  Sid_.resize(::GetLengthSid(AsPSID(Source)));
  if (!::CopySid(GetSidLength(), Sid_.data(), AsPSID(Source))) RaiseLastOSError();
  if (!LookupSid()) RaiseLastOSError();
}

std::unique_ptr<TSecurityIdentifier> TSecurityIdentifier::CreateFromSidString(
    const std::string& SystemName, const std::string& SidString) {
  PSID sid = nullptr;
  if (!::ConvertStringSidToSidA(SidString.c_str(), &sid)) RaiseLastOSError();
  const TLocalMemory<SID> owned(static_cast<SID*>(sid));
  return std::make_unique<TSecurityIdentifier>(SystemName, owned.get());
}

bool TSecurityIdentifier::TryInit(const std::string& SystemName, const std::string& AccountName) {
  if (AccountName.empty()) return false;
  std::string account = AccountName;  // which may be this object's SystemName
  SystemName_ = SystemName;
  AccountName_ = std::move(account);
  if (LookupAccount() && LookupSid()) return true;
  FinalizeSid();
  SystemName_.clear();
  AccountName_.clear();
  DomainName_.clear();
  Resolved_ = false;
  return false;
}

std::unique_ptr<TSecurityIdentifier> TSecurityIdentifier::Clone() const {
  return CreateFromSidString(SystemName_, GetSidString());
}

std::string TSecurityIdentifier::GetSidString() const {
  char* text = nullptr;
  if (!::ConvertSidToStringSidA(AsPSID(GetSid()), &text)) RaiseLastOSError();
  const TLocalMemory<char> owned(text);
  return text;
}

std::string TSecurityIdentifier::GetFullAccountName() const {
  return StrAddTail(DomainName_, "\\", AccountName_);
}

std::string TSecurityIdentifier::GetWellKnownAccountName(const std::string& SystemName,
                                                         WELL_KNOWN_SID_TYPE Type) {
  return TSecurityIdentifier(SystemName, Type).GetFullAccountName();
}

std::string TSecurityIdentifier::GetWellKnownAccountSidString(const std::string& SystemName,
                                                              WELL_KNOWN_SID_TYPE Type) {
  return TSecurityIdentifier(SystemName, Type).GetSidString();
}

bool TSecurityIdentifier::IsEqual(const TSecurityIdentifier& Other) const {
  if (!StrEqualText(SystemName_, Other.SystemName_)) return false;
  // Equal bytes are what gives equal texts. Without a SID there is no text, which this raises.
  if (Sid_.empty() || Other.Sid_.empty()) return GetSidString() == Other.GetSidString();
  return Sid_ == Other.Sid_;
}

bool TSecurityIdentifier::LookupAccount() {
  FinalizeSid();
  const char* const system = SystemPointer(SystemName_);
  DWORD sidLength = 0;
  DWORD domainLength = 0;
  if (!::LookupAccountNameA(system, AccountName_.c_str(), nullptr, &sidLength, nullptr,
                            &domainLength, &SidType_) &&
      !OnlyAskedForLengths()) {
    return false;
  }
  std::vector<uint8_t> sid(sidLength);
  std::string domain(domainLength, '\0');
  if (!::LookupAccountNameA(system, AccountName_.c_str(), sid.data(), &sidLength, domain.data(),
                            &domainLength, &SidType_)) {
    return false;
  }
  sid.resize(::GetLengthSid(sid.data()));  // there may have been room for more
  Sid_ = std::move(sid);
  DomainName_ = CutAtZero(std::move(domain));
  return true;
}

bool TSecurityIdentifier::LookupSid() {
  Resolved_ = FindNames();
  if (!Resolved_) {
    AccountName_.clear();
    DomainName_.clear();
  }
  return Resolved_;
}

bool TSecurityIdentifier::FindNames() {
  const char* const system = SystemPointer(SystemName_);
  DWORD nameLength = 0;
  DWORD domainLength = 0;
  if (!::LookupAccountSidA(system, AsPSID(GetSid()), nullptr, &nameLength, nullptr, &domainLength,
                           &SidType_) &&
      !OnlyAskedForLengths()) {
    return false;
  }
  std::string name(nameLength, '\0');
  std::string domain(domainLength, '\0');
  if (!::LookupAccountSidA(system, AsPSID(GetSid()), name.data(), &nameLength, domain.data(),
                           &domainLength, &SidType_)) {
    return false;
  }
  AccountName_ = CutAtZero(std::move(name));
  DomainName_ = CutAtZero(std::move(domain));
  return true;
}

void TSecurityIdentifier::FinalizeSid() noexcept { Sid_.clear(); }

const SID* TSecurityIdentifier::GetSid() const noexcept {
  return Sid_.empty() ? nullptr : reinterpret_cast<const SID*>(Sid_.data());
}

// ----------------------------------------------------------------------------------------- entries

TAccessControlEntry::TAccessControlEntry(TAccessControlEntryType AAceType,
                                         std::unique_ptr<TSecurityIdentifier> SecurityIdentifier)
    : AceType(AAceType), SecurityIdentifier_(std::move(SecurityIdentifier)) {
  if (SecurityIdentifier_ == nullptr) throw Exception(messages::seSecurityIdentifierIsEmpty);
}

TAccessControlEntry::TAccessControlEntry(const std::string& SystemName, const ACE_HEADER* Ace) {
  Extract(SystemName, Ace);
}

TAccessControlEntry::~TAccessControlEntry() = default;

void TAccessControlEntry::Extract(const std::string& SystemName, const ACE_HEADER* Ace) {
  if (Ace == nullptr) throw Exception(messages::seIncorrectParameters);
  AceType = WinntAceTypeToAceType(Ace->AceType);
  AceFlags = Ace->AceFlags;
  const TBytes bytes(reinterpret_cast<const uint8_t*>(Ace), Ace->AceSize);
  if (bytes.size() < AceHeaderSize || !HoldsSid(bytes.subspan(AceHeaderSize)))
    throw Exception(messages::seInvalidSid);
  AccessMask = reinterpret_cast<const TAce*>(Ace)->Mask;
  SecurityIdentifier_ = std::make_unique<TSecurityIdentifier>(
      SystemName, reinterpret_cast<const SID*>(bytes.data() + AceHeaderSize));
}

void TAccessControlEntry::Build(ACE_HEADER& Target) const {
  if (SidSize(SecurityIdentifier_.get()) == 0) throw Exception(messages::seCannotBuildAce);
  auto& ace = reinterpret_cast<TAce&>(Target);
  ace.Header = {AceTypeToWinntAceType(), AceFlags, static_cast<WORD>(GetSize())};
  ace.Mask = AccessMask;
  std::memcpy(OfsPtr(&Target, AceHeaderSize), SecurityIdentifier_->GetSid(),
              SecurityIdentifier_->GetSidLength());
}

int32_t TAccessControlEntry::GetSize() const noexcept {
  return static_cast<int32_t>(AceHeaderSize) + SidSize(SecurityIdentifier_.get());
}

uint8_t TAccessControlEntry::AceTypeToWinntAceType() const {
  switch (AceType) {
    case aceAccessAllowed:
      return ACCESS_ALLOWED_ACE_TYPE;
    case aceAccessDenied:
      return ACCESS_DENIED_ACE_TYPE;
    case aceSystemAudit:
      return SYSTEM_AUDIT_ACE_TYPE;
  }
  throw Exception(messages::seIncorrectAceType);
}

TAccessControlEntryType TAccessControlEntry::WinntAceTypeToAceType(uint8_t WinntAceType) const {
  switch (WinntAceType) {
    case ACCESS_ALLOWED_ACE_TYPE:
      return aceAccessAllowed;
    case ACCESS_DENIED_ACE_TYPE:
      return aceAccessDenied;
    case SYSTEM_AUDIT_ACE_TYPE:
      return aceSystemAudit;
    default:
      throw Exception(messages::seIncorrectAceType);
  }
}

void TAccessControlEntry::SetSecurityIdentifier(
    std::unique_ptr<TSecurityIdentifier> Value) noexcept {
  TakeIdentifier(SecurityIdentifier_, std::move(Value));
}

// ------------------------------------------------------------------------------------------- lists

TAccessControlList::TAccessControlList(TAccessControlListType AclType)
    : Aces_(TClass::Of<TAccessControlEntry>()), AclType_(AclType) {
  Aces_.SetSharedObjects(false);
  Aces_.OnModifying = TContainerModifyingEvent::Bind<&TAccessControlList::AceModifing>(this);
}

TAccessControlList::TAccessControlList(const std::string& SystemName,
                                       TAccessControlListType AclType, const ACL* Acl)
    : TAccessControlList(AclType) {
  Extract(SystemName, Acl);
}

TAccessControlList::~TAccessControlList() = default;

bool TAccessControlList::AddAce(TAccessControlEntry* Entry) {
  if (Entry == nullptr) throw Exception(messages::seObjectIsNull);
  return Aces_.Add(Entry);
}

void TAccessControlList::DeleteAce(int32_t Index) { Aces_.Delete(Index); }

// By the index: deleting an object lets the array remember its place, and the next entry would go
// there if it got the same address.
void TAccessControlList::DeleteAce(TAccessControlEntry* Entry) {
  const int32_t index = Aces_.IndexOf(Entry);
  if (index >= 0) Aces_.Delete(index);
}

TAccessControlEntry& TAccessControlList::GetAce(int32_t Index) const {
  return static_cast<TAccessControlEntry&>(*Aces_.GetItems(Index));
}

void TAccessControlList::Clear() { Aces_.Clear(); }

int32_t TAccessControlList::GetAceIndexBySecurityIdentifier(
    const TSecurityIdentifier& Identifier) const {
  for (int32_t i = 0; i < GetAceCount(); ++i) {
    const TSecurityIdentifier* const held = GetAce(i).GetSecurityIdentifier();
    if (held != nullptr && held->IsEqual(Identifier)) return i;
  }
  return -1;
}

int32_t TAccessControlList::GetSize() const noexcept {
  int32_t size = sizeof(ACL);
  for (int32_t i = 0; i < GetAceCount(); ++i) size += GetAce(i).GetSize();
  return size;
}

void TAccessControlList::Build(ACL& Target) const {
  const int32_t size = GetSize();
  if (size > std::numeric_limits<WORD>::max()) throw Exception(messages::seAclTooLarge);
  Target.AclRevision = ACL_REVISION;
  Target.AclSize = static_cast<WORD>(size);
  Target.AceCount = static_cast<WORD>(GetAceCount());
  auto* position = reinterpret_cast<uint8_t*>(&Target) + sizeof(ACL);
  for (int32_t i = 0; i < GetAceCount(); ++i) {
    const TAccessControlEntry& entry = GetAce(i);
    entry.Build(*reinterpret_cast<ACE_HEADER*>(position));
    position += entry.GetSize();
  }
}

void TAccessControlList::Extract(const std::string& SystemName, const ACL* Acl) {
  const std::string system = SystemName;  // NOLINT: it may belong to an entry of this list
  Clear();
  const auto aces = Acl == nullptr ? std::nullopt : AcesOf(*Acl);
  if (!aces) throw Exception(messages::seInvalidAcl);
  for (const ACE_HEADER* ace : *aces) {
    auto entry = std::make_unique<TAccessControlEntry>(system, ace);
    if (AddAce(entry.get())) entry.release();
  }
}

void TAccessControlList::AceModifing(TObject*, TObject* Item, TContainerModifyAction Action,
                                     bool& Allow) {
  if (Action != maAdd) return;
  const auto& added = static_cast<const TAccessControlEntry&>(*Item);
  const TSecurityIdentifier* const identifier = added.GetSecurityIdentifier();
  if (identifier == nullptr) throw Exception(messages::seSecurityIdentifierIsEmpty);
  const bool access = added.AceType == aceAccessAllowed || added.AceType == aceAccessDenied;
  Allow = (AclType_ == aclDiscretionary && access) ||
          (AclType_ == aclSystem && added.AceType == aceSystemAudit);
  for (int32_t i = 0; Allow && i < GetAceCount(); ++i) {
    const TAccessControlEntry& entry = GetAce(i);
    const TSecurityIdentifier* const held = entry.GetSecurityIdentifier();
    if (entry.AceType == added.AceType && held != nullptr && held->IsEqual(*identifier))
      Allow = false;
  }
}

// ------------------------------------------------------------------------------------- descriptors

TSecurityDescriptor::TSecurityDescriptor() : Dacl_(aclDiscretionary), Sacl_(aclSystem) {}

TSecurityDescriptor::~TSecurityDescriptor() = default;

void TSecurityDescriptor::Clear() {
  Owner_.reset();
  PrimaryGroup_.reset();
  Dacl_.Clear();
  Sacl_.Clear();
  DaclType = sdatAbsent;
  SaclType = sdatAbsent;
}

void TSecurityDescriptor::SetOwner(std::unique_ptr<TSecurityIdentifier> Value) noexcept {
  TakeIdentifier(Owner_, std::move(Value));
}

void TSecurityDescriptor::SetPrimaryGroup(std::unique_ptr<TSecurityIdentifier> Value) noexcept {
  TakeIdentifier(PrimaryGroup_, std::move(Value));
}

int32_t TSecurityDescriptor::GetSize(bool SelfRelative) const noexcept {
  size_t size = SelfRelative ? sizeof(SECURITY_DESCRIPTOR_RELATIVE) : sizeof(SECURITY_DESCRIPTOR);
  if (DaclType == sdatPresentNotNull) size += static_cast<size_t>(Dacl_.GetSize());
  if (SaclType == sdatPresentNotNull) size += static_cast<size_t>(Sacl_.GetSize());
  return static_cast<int32_t>(size) + SidSize(Owner_.get()) + SidSize(PrimaryGroup_.get());
}

void TSecurityDescriptor::Build(SECURITY_DESCRIPTOR& Target, bool SelfRelative) const {
  auto* const begin = reinterpret_cast<uint8_t*>(&Target);
  std::memset(begin, 0, static_cast<size_t>(GetSize(SelfRelative)));
  uint16_t control = Control;
  SetBit(control, SE_DACL_PRESENT, DaclType != sdatAbsent);
  SetBit(control, SE_SACL_PRESENT, SaclType != sdatAbsent);
  SetBit(control, SE_SELF_RELATIVE, SelfRelative);

  uint8_t* position =
      begin + (SelfRelative ? sizeof(SECURITY_DESCRIPTOR_RELATIVE) : sizeof(SECURITY_DESCRIPTOR));
  const void* const dacl = PutAcl(position, Dacl_, DaclType);
  const void* const sacl = PutAcl(position, Sacl_, SaclType);
  const void* const owner = PutSid(position, Owner_.get());
  const void* const group = PutSid(position, PrimaryGroup_.get());

  if (SelfRelative) {
    const auto offset = [begin](const void* Part) -> DWORD {
      return Part == nullptr ? 0 : static_cast<DWORD>(static_cast<const uint8_t*>(Part) - begin);
    };
    const SECURITY_DESCRIPTOR_RELATIVE header{SECURITY_DESCRIPTOR_REVISION,
                                              0,
                                              control,
                                              offset(owner),
                                              offset(group),
                                              offset(sacl),
                                              offset(dacl)};
    std::memcpy(begin, &header, sizeof header);
  } else {
    Target = {SECURITY_DESCRIPTOR_REVISION,
              0,
              control,
              AsPSID(owner),
              AsPSID(group),
              static_cast<ACL*>(const_cast<void*>(sacl)),
              static_cast<ACL*>(const_cast<void*>(dacl))};
  }
}

std::unique_ptr<uint8_t[]> TSecurityDescriptor::BuildDescriptor(bool SelfRelative) const {
  auto memory = std::make_unique<uint8_t[]>(static_cast<size_t>(GetSize(SelfRelative)));
  Build(reinterpret_cast<SECURITY_DESCRIPTOR&>(*memory.get()), SelfRelative);
  return memory;
}

void TSecurityDescriptor::Extract(const std::string& SystemName, const void* Descriptor) {
  const std::string system = SystemName;  // which may belong to a part of this descriptor
  Clear();
  if (!IsValidDescriptor(Descriptor)) throw Exception(messages::seInvalidSecurityDescriptor);
  Control = static_cast<const SECURITY_DESCRIPTOR_RELATIVE*>(Descriptor)->Control;
  const TParts parts = PartsOf(Descriptor);
  const auto identifier = [&system](const void* Sid) {
    return Sid == nullptr
               ? nullptr
               : std::make_unique<TSecurityIdentifier>(system, static_cast<const SID*>(Sid));
  };
  Owner_ = identifier(parts.Owner);
  PrimaryGroup_ = identifier(parts.Group);
  DaclType = ExtractAcl(Dacl_, system, SE_DACL_PRESENT, parts.Dacl);
  SaclType = ExtractAcl(Sacl_, system, SE_SACL_PRESENT, parts.Sacl);
}

TSecurityDescriptorAclType TSecurityDescriptor::ExtractAcl(TAccessControlList& List,
                                                           const std::string& SystemName,
                                                           uint16_t PresentBit,
                                                           const void* Acl) const {
  if ((Control & PresentBit) == 0) return sdatAbsent;
  if (Acl == nullptr) return sdatPresentNull;
  List.Extract(SystemName, static_cast<const ACL*>(Acl));
  return sdatPresentNotNull;
}

void TSecurityDescriptor::Extract(const std::string& SystemName, const void* Descriptor,
                                  int32_t Size) {
  if (Descriptor == nullptr || Size < 0 ||
      !HoldsDescriptor({static_cast<const uint8_t*>(Descriptor), static_cast<size_t>(Size)})) {
    Clear();
    throw Exception(messages::seInvalidSecurityDescriptor);
  }
  Extract(SystemName, Descriptor);
}

bool TSecurityDescriptor::ReadFromRegistry(const std::string& SystemName, HKEY RootKey,
                                           const std::string& KeyName,
                                           const std::string& ValueName) {
  TRegistry registry;
  registry.SetRootKey(RootKey);
  if (!registry.OpenKeyReadOnly(KeyName)) return false;
  if (!registry.ValueExists(ValueName)) {
    Clear();
    return false;
  }
  const std::vector<uint8_t> data = registry.ReadBinaryData(ValueName);
  Extract(SystemName, data.data(), static_cast<int32_t>(data.size()));
  return true;
}

void TSecurityDescriptor::WriteToRegistry(HKEY RootKey, const std::string& KeyName,
                                          const std::string& ValueName) const {
  TRegistry registry(KEY_READ | KEY_WRITE);
  registry.SetRootKey(RootKey);
  if (!registry.OpenKey(KeyName, true)) return;
  registry.WriteBinaryData(ValueName, BuildDescriptor(true).get(), GetSize());
}

}  // namespace velox
