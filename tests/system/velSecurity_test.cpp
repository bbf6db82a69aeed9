#include "velox/system/velSecurity.hpp"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <functional>
#include <iostream>

#include "tests/support/support.hpp"
#include "tests/support/temporary_key.hpp"
#include "velox/foundation/velStringUtils.hpp"
#include "velox/foundation/velSysUtils.hpp"
#include "velox/runtime/velException.hpp"
#include "velox/runtime/velFormat.hpp"

namespace velox {
namespace {

using test::AddAce;
using test::MessageOf;

using TIdentifier = std::unique_ptr<TSecurityIdentifier>;

TIdentifier Account(const std::string& SidString, const std::string& SystemName = "") {
  return TSecurityIdentifier::CreateFromSidString(SystemName, SidString);
}

std::string ComputerName() {
  char name[MAX_COMPUTERNAME_LENGTH + 1] = "";
  DWORD size = sizeof name;
  ::GetComputerNameA(name, &size);
  return name;
}

/// Counts how many of its kind live.
struct TCountedEntry : TAccessControlEntry {
  TCountedEntry(TAccessControlEntryType Type, TIdentifier Identifier)
      : TAccessControlEntry(Type, std::move(Identifier)) {
    ++Count;
  }
  ~TCountedEntry() override { --Count; }
  static inline int Count = 0;
};

std::string Hex(const uint8_t* Bytes, int32_t Size) {
  return BinToHex(Bytes, Size, "", "", "", "");
}

// SIDs and names: "Well-known SIDs" of the Windows documentation.
TEST(SecurityIdentifier, FindsNamesAndSids) {
  const TSecurityIdentifier everyone("", WinWorldSid);
  EXPECT_EQ(everyone.GetSidString(), "S-1-1-0");
  EXPECT_EQ(everyone.GetFullAccountName(), "Everyone");
  EXPECT_EQ(everyone.GetSidLength(), 12u);
  EXPECT_EQ(SecurityIdentifierTypeString[everyone.GetSidType()], std::string("Well known group"));
  const TSecurityIdentifier system("", "system");
  EXPECT_EQ(system.GetSidString(), "S-1-5-18");
  EXPECT_EQ(system.GetFullAccountName(), "NT AUTHORITY\\SYSTEM");
  const TIdentifier copy = system.Clone();
  EXPECT_TRUE(copy->IsEqual(system));
  EXPECT_EQ(copy->GetDomainName(), "NT AUTHORITY");
  EXPECT_EQ(TSecurityIdentifier::GetWellKnownAccountName("", WinBuiltinAdministratorsSid),
            "BUILTIN\\Administrators");
  EXPECT_EQ(TSecurityIdentifier::GetWellKnownAccountSidString("", WinBuiltinAdministratorsSid),
            "S-1-5-32-544");
}

TEST(SecurityIdentifier, RaisesForWhatIsNoAccount) {
  const SID cut{SID_REVISION, 16, SECURITY_NT_AUTHORITY, {18}};
  EXPECT_EQ(MessageOf([] { TSecurityIdentifier("", ""); }), "Account name must not be empty");
  EXPECT_EQ(MessageOf([&] { TSecurityIdentifier("", &cut); }), "Invalid SID specified");
  EXPECT_EQ(MessageOf([] { TSecurityIdentifier("", static_cast<const SID*>(nullptr)); }),
            "Invalid SID specified");
  EXPECT_EQ(test::ErrorCodeOf([] { TSecurityIdentifier("", "no such account"); }), 1332);
  EXPECT_EQ(test::ErrorCodeOf([] { Account("S-1-5-99-1"); }), 1332);
  EXPECT_EQ(test::ErrorCodeOf([] { Account("no SID"); }), ERROR_INVALID_SID);
}

TEST(SecurityIdentifier, TryInitLeavesNothingOfAFailure) {
  TSecurityIdentifier identifier;
  ASSERT_TRUE(identifier.TryInit("", "Everyone"));
  EXPECT_FALSE(identifier.TryInit("x", ""));
  EXPECT_TRUE(identifier.IsEqual(*Account("S-1-1-0")));
  EXPECT_FALSE(identifier.TryInit("", "no such account"));
  EXPECT_EQ(identifier.GetSid(), nullptr);
  EXPECT_EQ(identifier.GetFullAccountName(), "");
  EXPECT_FALSE(identifier.GetResolved());
  EXPECT_EQ(test::ErrorCodeOf([&] { identifier.IsEqual(*Account("S-1-1-0")); }), ERROR_INVALID_SID);
}

TEST(SecurityIdentifier, EqualsOnTheSameSystemOnly) {
  const std::string computer = ComputerName();
  const TIdentifier local = Account("S-1-1-0"), named = Account("S-1-1-0", computer);
  EXPECT_TRUE(local->IsEqual(*Account("S-1-1-0")));
  EXPECT_FALSE(local->IsEqual(*Account("S-1-5-18")));
  EXPECT_FALSE(local->IsEqual(*named));
  EXPECT_TRUE(named->IsEqual(*Account("S-1-1-0", computer)));
  std::string other = computer;
  ::CharLowerA(other.data());
  TSecurityIdentifier lower;
  if (lower.TryInit(other, "Everyone")) {
    EXPECT_TRUE(named->IsEqual(lower));
  } else {
    std::printf("not run: the system takes its own name in capitals only\n");
  }
}

TEST(AccessControlList, RefusesForeignTypesAndSecondEntries) {
  const struct {
    TAccessControlListType List;
    TAccessControlEntryType Entry;
    const char* Sid;
    bool Accepted;
  } cases[] = {
      {aclDiscretionary, aceAccessAllowed, "S-1-1-0", true},
      {aclDiscretionary, aceAccessAllowed, "S-1-1-0", false},
      {aclDiscretionary, aceAccessDenied, "S-1-1-0", true},
      {aclDiscretionary, aceAccessAllowed, "S-1-5-18", true},
      {aclDiscretionary, aceSystemAudit, "S-1-5-18", false},
      {aclSystem, aceAccessAllowed, "S-1-5-18", false},
      {aclSystem, aceAccessDenied, "S-1-5-18", false},
      {aclSystem, aceSystemAudit, "S-1-5-18", true},
      {aclSystem, aceSystemAudit, "S-1-5-18", false},
      {aclDiscretionary, static_cast<TAccessControlEntryType>(3), "S-1-5-18", false},
      {aclSystem, static_cast<TAccessControlEntryType>(3), "S-1-1-0", false},
  };
  {
    TAccessControlList discretionary(aclDiscretionary), system(aclSystem);
    for (const auto& c : cases) {
      auto entry = std::make_unique<TCountedEntry>(c.Entry, Account(c.Sid));
      TAccessControlList& list = c.List == aclSystem ? system : discretionary;
      EXPECT_EQ(list.AddAce(entry.get()), c.Accepted) << &c - cases;
      if (c.Accepted) entry.release();
    }
    EXPECT_EQ(TCountedEntry::Count, 4);
    EXPECT_EQ(discretionary.GetAceIndexBySecurityIdentifier(*Account("S-1-5-18")), 2);
    EXPECT_EQ(discretionary.GetAceIndexBySecurityIdentifier(*Account("S-1-5-32-544")), -1);
  }
  EXPECT_EQ(TCountedEntry::Count, 0);
  EXPECT_EQ(MessageOf([] { TAccessControlEntry(aceAccessAllowed, nullptr); }),
            "Security identifier is empty");
}

TEST(AccessControlList, AppendsAfterADeletion) {
  TAccessControlList list(aclDiscretionary);
  for (const char* sid : {"S-1-1-0", "S-1-5-18", "S-1-5-4"}) AddAce(list, aceAccessAllowed, sid);
  list.DeleteAce(&list.GetAce(0));
  AddAce(list, aceAccessAllowed, "S-1-5-11");  // likely at the freed one's address
  EXPECT_EQ(list.GetAceIndexBySecurityIdentifier(*Account("S-1-5-11")), 2);
}

// The binary forms are those of [MS-DTYP] 2.4.
TEST(SecurityDescriptor, HasTheSystemsForm) {
  TSecurityDescriptor descriptor;
  descriptor.SetOwner(Account("S-1-5-18"));
  descriptor.SetOwner(TIdentifier(descriptor.GetOwner()));  // the held one: nothing happens
  descriptor.SetPrimaryGroup(Account("S-1-5-32-544"));
  AddAce(descriptor.GetDacl(), aceAccessDenied, "S-1-1-0", 0x12345678);
  descriptor.GetDacl().GetAce(0).AceFlags = 0x0B;
  descriptor.DaclType = sdatPresentNotNull;
  descriptor.SaclType = sdatPresentNull;
  descriptor.Control = 0x1008;
  const int32_t size = descriptor.GetSize();
  ASSERT_EQ(size, 76);
  EXPECT_EQ(Hex(descriptor.BuildDescriptor(true).get(), size),
            "01001C90300000003C0000000000000014000000"
            "02001C0001000000010B140078563412010100000000000100000000"
            "01010000000000051200000001020000000000052000000020020000");

  const int32_t header = sizeof(SECURITY_DESCRIPTOR), parts = size - 20;
  ASSERT_EQ(descriptor.GetSize(false), header + parts);
  const auto relative = descriptor.BuildDescriptor(true),
             absolute = descriptor.BuildDescriptor(false);
  EXPECT_EQ(std::memcmp(relative.get() + 20, absolute.get() + header, static_cast<size_t>(parts)),
            0);
  EXPECT_EQ(Hex(absolute.get(), 4), "01001C10");
  TSecurityDescriptor read;
  for (const auto& form : {absolute.get(), relative.get()}) {
    read.Extract("", form);
    const bool selfRelative = form == relative.get();
    EXPECT_EQ(read.Control, selfRelative ? 0x901C : 0x101C);
    EXPECT_EQ(read.SaclType, sdatPresentNull);
    EXPECT_EQ(Hex(read.BuildDescriptor(true).get(), size), Hex(relative.get(), size));
  }
  TSecurityDescriptor open;
  open.DaclType = sdatPresentNull;
  EXPECT_EQ(Hex(open.BuildDescriptor(true).get(), open.GetSize()),
            "0100048000000000000000000000000000000000");
  read.Clear();
  EXPECT_EQ(read.GetOwner(), nullptr);
  EXPECT_EQ(read.GetSize(), 20);
  EXPECT_EQ(read.Control, 0x901C);
}

TEST(SecurityDescriptor, DoesNotBuildWhatItsFormCannotSay) {
  TSecurityDescriptor descriptor;
  descriptor.SetOwner(std::make_unique<TSecurityIdentifier>());
  EXPECT_EQ(MessageOf([&] { descriptor.BuildDescriptor(true); }), "Invalid SID specified");
  descriptor.Clear();
  descriptor.DaclType = sdatPresentNotNull;
  AddAce(descriptor.GetDacl(), aceAccessAllowed, "S-1-1-0");
  descriptor.GetDacl().GetAce(0).SetSecurityIdentifier(nullptr);
  EXPECT_EQ(MessageOf([&] { descriptor.BuildDescriptor(true); }),
            "Cannot build ace - security identifier is absent");
}

/// A block that ends where memory ends: reading behind it would end the program.
class TGuardedBlock {
 public:
  explicit TGuardedBlock(const std::vector<uint8_t>& Bytes)
      : Size_(static_cast<int32_t>(Bytes.size())) {
    constexpr size_t Page = 4096;
    const size_t room = (Bytes.size() + Page - 1) / Page * Page;
    Memory_ =
        static_cast<uint8_t*>(::VirtualAlloc(nullptr, room + Page, MEM_RESERVE, PAGE_NOACCESS));
    if (room != 0) ::VirtualAlloc(Memory_, room, MEM_COMMIT, PAGE_READWRITE);
    Begin_ = Memory_ + room - Bytes.size();
    std::copy(Bytes.begin(), Bytes.end(), Begin_);
  }
  ~TGuardedBlock() { ::VirtualFree(Memory_, 0, MEM_RELEASE); }
  TGuardedBlock(const TGuardedBlock&) = delete;
  TGuardedBlock& operator=(const TGuardedBlock&) = delete;

  void ExtractTo(TSecurityDescriptor& Descriptor) const { Descriptor.Extract("", Begin_, Size_); }

 private:
  uint8_t* Memory_;
  uint8_t* Begin_;
  int32_t Size_;
};

TEST(SecurityDescriptor, BelievesNoLengthOrOffsetInABlock) {
  TSecurityDescriptor source;
  source.SetOwner(Account("S-1-5-18"));
  source.DaclType = source.SaclType = sdatPresentNotNull;
  AddAce(source.GetDacl(), aceAccessAllowed, "S-1-5-18");
  AddAce(source.GetSacl(), aceSystemAudit, "S-1-1-0");
  const auto built = source.BuildDescriptor(true);
  const std::vector<uint8_t> good(built.get(), built.get() + source.GetSize());
  ASSERT_EQ(good.size(), 88u);  // header, list at 20, its entry at 28, list at 48, owner at 76
  constexpr const char* Descriptor = "Security descriptor is invalid";
  constexpr const char* Type = "Incorrect access control entry type";
  const struct {
    const char* What;
    size_t Size, Offset;
    uint8_t Byte;
    const char* Raised;
  } cases[] = {
      {"unchanged", 88, 0, 1, "nothing raised"},
      {"nothing", 0, 0, 0, Descriptor},
      {"header cut", 19, 0, 1, Descriptor},
      {"owner cut", 87, 0, 1, Descriptor},
      {"revision", 88, 0, 2, Descriptor},
      {"absolute form", 88, 3, 0, Descriptor},
      {"owner not aligned", 88, 4, 78, Descriptor},
      {"owner far outside", 88, 7, 0x80, Descriptor},
      {"owner in the header", 88, 4, 4, Descriptor},
      {"owner is no SID", 88, 4, 80, Descriptor},
      {"owner's revision", 88, 76, 2, Descriptor},
      {"owner's length", 88, 77, 2, Descriptor},
      {"list cut", 88, 16, 84, Descriptor},
      {"list's size, beyond the block", 88, 22, 88, Descriptor},
      {"list's size, below its header", 88, 22, 4, Descriptor},
      {"list's count", 88, 24, 2, Descriptor},
      {"entry's size 0", 88, 30, 0, Descriptor},
      {"entry's size not aligned", 88, 30, 21, Descriptor},
      {"entry's size, beyond the list", 88, 30, 24, Descriptor},
      {"entry's size cuts its SID", 88, 30, 12, Descriptor},
      {"list's revision", 88, 20, 9, Descriptor},
      {"entry's SID, its revision", 88, 36, 2, Descriptor},
      {"entry for a callback", 88, 28, ACCESS_ALLOWED_CALLBACK_ACE_TYPE, Type},
      {"entry for a label", 88, 28, SYSTEM_MANDATORY_LABEL_ACE_TYPE, Type},
      {"entry's SID, beyond the entry", 88, 37, 2, Descriptor},
      {"entry's SID, impossibly long", 88, 37, 255, Descriptor},
  };
  for (const auto& c : cases) {
    std::vector<uint8_t> bytes(good.begin(), good.begin() + static_cast<ptrdiff_t>(c.Size));
    if (!bytes.empty()) bytes[c.Offset] = c.Byte;
    TSecurityDescriptor read;
    EXPECT_EQ(MessageOf([&] { TGuardedBlock(bytes).ExtractTo(read); }), c.Raised) << c.What;
  }
}

TEST(AccessControlList, BelievesNoLengthEither) {
  TAccessControlList list(aclDiscretionary);
  AddAce(list, aceAccessAllowed, "S-1-1-0");
  std::vector<uint8_t> bytes(static_cast<size_t>(list.GetSize()));
  auto* const acl = reinterpret_cast<ACL*>(bytes.data());
  auto* const ace = reinterpret_cast<ACE_HEADER*>(acl + 1);
  list.Build(*acl);
  constexpr const char* Invalid = "Invalid ACL specified";
  EXPECT_EQ(MessageOf([&] { list.Extract("", nullptr); }), Invalid);
  bytes[17] = 2;  // the SID's length
  EXPECT_EQ(MessageOf([&] { list.Extract("", acl); }), Invalid);
  EXPECT_EQ(MessageOf([&] { TAccessControlEntry("", ace); }), "Invalid SID specified");
  bytes[17] = 1;
  bytes[4] = 2;  // the count of entries
  EXPECT_EQ(MessageOf([&] { list.Extract("", acl); }), Invalid);
  ace->AceType = ACCESS_ALLOWED_OBJECT_ACE_TYPE;
  EXPECT_EQ(MessageOf([&] { TAccessControlEntry("", ace); }),
            "Incorrect access control entry type");
}

/// Nothing of it can be read once it is freed.
struct TWipedIdentifier : TSecurityIdentifier {
  using TSecurityIdentifier::TSecurityIdentifier;
  static void operator delete(void* Memory, size_t Size) {
    ::SecureZeroMemory(Memory, Size);
    ::operator delete(Memory);
  }
};

// The name of the system that is asked may belong to what the call replaces.
TEST(SecurityDescriptor, TakesNamesOfItsOwnParts) {
  const test::TTemporaryKey key;
  const std::string computer = ComputerName();
  const auto system = [&] { return std::make_unique<TWipedIdentifier>(computer, WinWorldSid); };
  TSecurityDescriptor descriptor;
  TAccessControlList& list = descriptor.GetDacl();
  descriptor.SetOwner(system());
  descriptor.DaclType = sdatPresentNotNull;
  AddAce(list, aceAccessAllowed, "S-1-1-0");
  descriptor.WriteToRegistry(HKEY_CURRENT_USER, key.Path(), "Value");
  std::vector<uint8_t> bytes(static_cast<size_t>(list.GetSize()));
  list.Build(*reinterpret_cast<ACL*>(bytes.data()));

  EXPECT_TRUE(descriptor.ReadFromRegistry(descriptor.GetOwner()->GetSystemName(), HKEY_CURRENT_USER,
                                          key.Path(), "Value"));
  EXPECT_EQ(descriptor.GetOwner()->GetSystemName(), computer);
  list.GetAce(0).SetSecurityIdentifier(system());
  list.Extract(list.GetAce(0).GetSecurityIdentifier()->GetSystemName(),
               reinterpret_cast<const ACL*>(bytes.data()));
  EXPECT_EQ(list.GetAce(0).GetSecurityIdentifier()->GetSystemName(), computer);
}

TEST(SecurityDescriptor, IsKeptInTheRegistry) {
  const test::TTemporaryKey key;
  const std::string below = key.Path() + "\\made";
  TSecurityDescriptor written, read;
  written.SetOwner(Account("S-1-5-18"));
  AddAce(written.GetDacl(), aceAccessAllowed, "S-1-1-0", 5);
  written.DaclType = sdatPresentNotNull;
  written.Control = 0x1000;

  read.SetOwner(Account("S-1-1-0"));
  read.ReadFromRegistry("", HKEY_CURRENT_USER, below, "Value");
  EXPECT_NE(read.GetOwner(), nullptr) << "no key: untouched";
  written.WriteToRegistry(HKEY_CURRENT_USER, below, "Value");
  read.ReadFromRegistry("", HKEY_CURRENT_USER, below, "Value");
  EXPECT_EQ(Hex(read.BuildDescriptor(true).get(), read.GetSize()),
            Hex(written.BuildDescriptor(true).get(), written.GetSize()));
  read.ReadFromRegistry("", HKEY_CURRENT_USER, below, "Other");
  EXPECT_EQ(read.GetSize(), 20) << "no value: cleared";
  EXPECT_EQ(read.Control, 0x9004);

  TRegistry registry;
  ASSERT_TRUE(registry.OpenKey(below, false));
  registry.WriteString("Text", "text");
  EXPECT_THROW(read.ReadFromRegistry("", HKEY_CURRENT_USER, below, "Text"), ERegistryException);
  registry.WriteBinaryData("Cut", written.BuildDescriptor(true).get(), written.GetSize() - 1);
  EXPECT_EQ(MessageOf([&] { read.ReadFromRegistry("", HKEY_CURRENT_USER, below, "Cut"); }),
            "Security descriptor is invalid");
}

// Were a comparison to ask the system, this would take minutes.
TEST(AccessControlList, ComparesWithoutTheSystem) {
  TAccessControlList list(aclDiscretionary);
  for (const char* sid : {"S-1-1-0", "S-1-5-4", "S-1-5-11", "S-1-5-18", "S-1-5-32-544"})
    AddAce(list, aceAccessAllowed, sid);
  TAccessControlEntry second(aceAccessAllowed, Account("S-1-5-32-544"));
  const test::TStopwatch watch;
  for (int i = 0; i < 1'000'000; ++i) ASSERT_FALSE(list.AddAce(&second));
  EXPECT_LT(watch.Milliseconds(), 20'000);
}

// --------------------------------------------------------------- for tests/peers/security_peer.py

// A descriptor in words: OWNER GROUP CONTROL DACL SACL, with "-" for none. A list is "absent",
// "null" or its entries TYPE,FLAGS,MASK,SID, each followed by ";" and all of them by "end".

std::string InWords(const TSecurityIdentifier* Identifier) {
  return Identifier == nullptr ? "-" : Identifier->GetSidString();
}

std::string InWords(const TAccessControlList& List, TSecurityDescriptorAclType Type) {
  if (Type != sdatPresentNotNull) return Type == sdatAbsent ? "absent" : "null";
  std::string words;
  for (int32_t i = 0; i < List.GetAceCount(); ++i) {
    const TAccessControlEntry& entry = List.GetAce(i);
    words += Format("%d,%d,%u,%s;", entry.AceType, entry.AceFlags, entry.AccessMask,
                    entry.GetSecurityIdentifier()->GetSidString().c_str());
  }
  return words + "end";
}

TIdentifier IdentifierFrom(const std::string& Words) {
  return Words == "-" ? nullptr : Account(Words);
}

TSecurityDescriptorAclType ListFrom(TAccessControlList& List, std::string Words) {
  if (Words == "absent") return sdatAbsent;
  if (Words == "null") return sdatPresentNull;
  for (std::string entry; StrGetToken(Words, ";", entry), entry != "end";) {
    const TStrings parts = StrGetTokens(entry, ",", false, false);
    AddAce(List, static_cast<TAccessControlEntryType>(std::stoul(parts.at(0))), parts.at(3),
           std::stoul(parts.at(2)));
    List.GetAce(List.GetAceCount() - 1).AceFlags = static_cast<uint8_t>(std::stoul(parts.at(1)));
  }
  return sdatPresentNotNull;
}

std::string Answer(const std::string& Question) {
  const TStrings words = StrGetTokens(Question, " ", false, true);
  TSecurityDescriptor descriptor;
  if (words.at(0) == "read") {
    std::vector<uint8_t> bytes;
    for (size_t i = 0; words.size() > 1 && i < words[1].size(); i += 2)
      bytes.push_back(static_cast<uint8_t>(std::stoul(words[1].substr(i, 2), nullptr, 16)));
    TGuardedBlock(bytes).ExtractTo(descriptor);
    return InWords(descriptor.GetOwner()) + " " + InWords(descriptor.GetPrimaryGroup()) + " " +
           std::to_string(descriptor.Control) + " " +
           InWords(descriptor.GetDacl(), descriptor.DaclType) + " " +
           InWords(descriptor.GetSacl(), descriptor.SaclType);
  }
  descriptor.SetOwner(IdentifierFrom(words.at(1)));
  descriptor.SetPrimaryGroup(IdentifierFrom(words.at(2)));
  descriptor.Control = static_cast<uint16_t>(std::stoul(words.at(3)));
  descriptor.DaclType = ListFrom(descriptor.GetDacl(), words.at(4));
  descriptor.SaclType = ListFrom(descriptor.GetSacl(), words.at(5));
  return Hex(descriptor.BuildDescriptor(true).get(), descriptor.GetSize());
}

/// Answers each line of the standard input, "read BYTES" or "write WORDS", with one line.
const test::TRole SecurityPeer("security-peer", [](const std::vector<std::string>&) {
  for (std::string question; std::getline(std::cin, question);) {
    std::string answer;
    const std::string raised = MessageOf([&] { answer = Answer(Trim(question)); });
    std::printf("%s\n",
                raised == "nothing raised" ? answer.c_str() : ("refused: " + raised).c_str());
  }
  return 0;
});

}  // namespace
}  // namespace velox
