#include "descriptors.hpp"

#include <cstdio>
#include <vector>

#include "examples/support/whole_file.hpp"
#include "velox/foundation/velStringUtils.hpp"
#include "velox/runtime/velException.hpp"
#include "velox/runtime/velFormat.hpp"
#include "velox/runtime/velRegistryKey.hpp"

namespace velsec {

using namespace velox;

namespace {

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

}  // namespace

std::string NameOf(const TSecurityIdentifier* Identifier) {
  if (Identifier == nullptr) return "none";
  return Identifier->GetFullAccountName() + " (" + Identifier->GetSidString() + ")";
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

}  // namespace velsec
