#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "tests/examples/run_example.hpp"
#include "tests/support/support.hpp"
#include "tests/support/temporary_key.hpp"
#include "velox/foundation/velStringUtils.hpp"
#include "velox/system/velSecurity.hpp"

namespace velox {
namespace {

const std::string AppID = "{5F3C7A10-0B5E-4C1A-9A77-3D2E6B7F0C53}";
const std::string AppKey = "AppID\\" + AppID;

TStrings Velsec(const TStrings& Arguments) { return test::ExampleOutput("velsec", Arguments); }

std::string Refusal(const TStrings& Arguments) { return test::ExampleRefusal("velsec", Arguments); }

/// A binary value as the system's own program prints it, empty when there is none.
std::vector<uint8_t> RegQuery(const std::string& Value) {
  const auto run = test::RunCommand("reg query \"HKCR\\" + AppKey + "\" /v " + Value);
  std::vector<uint8_t> bytes;
  for (const std::string& line : run.Lines) {
    const TStrings words = StrGetTokens(line, " ", true, true);
    if (words.size() != 3 || words[0] != Value) continue;
    EXPECT_EQ(words[1], "REG_BINARY");
    for (size_t i = 0; i + 1 < words[2].size(); i += 2)
      bytes.push_back(static_cast<uint8_t>(std::stoul(words[2].substr(i, 2), nullptr, 16)));
  }
  return bytes;
}

class VelSec : public testing::Test {
 protected:
  VelSec() { Remove(); }
  ~VelSec() override { Remove(); }
  static void Remove() {
    TRegistry registry;
    registry.SetRootKey(HKEY_CLASSES_ROOT);
    registry.DeleteKey(AppKey);
  }
};

TEST_F(VelSec, SetsPermissionsThatTheSystemShows) {
  const TStrings initial = Velsec({"com", AppID, "--launch"});
  EXPECT_EQ(initial[0], "LaunchPermission of " + AppID + ", by default");
  EXPECT_TRUE(RegQuery("LaunchPermission").empty());

  const TStrings changed = Velsec({"com", AppID, "--launch", "add", "INTERACTIVE", "none",  //
                                   "add", "SYSTEM", "deny", "remote-launch", "remote-activation",
                                   "add", "Everyone", "allow", "local-activation"});
  const TStrings expected = {
      "LaunchPermission of " + AppID,
      "  BUILTIN\\Administrators (S-1-5-32-544): local-launch Allow, local-activation Allow, "
      "remote-launch Allow, remote-activation Allow",
      "  NT AUTHORITY\\SYSTEM (S-1-5-18): local-launch Allow, local-activation Allow, "
      "remote-launch Deny, remote-activation Deny",
      "  Everyone (S-1-1-0): local-launch None, local-activation Allow, remote-launch None, "
      "remote-activation None"};
  EXPECT_EQ(changed, expected);
  EXPECT_EQ(Velsec({"com", AppID, "--launch"}), expected);

  const std::vector<uint8_t> seen = RegQuery("LaunchPermission");
  const test::TTemporaryFolder folder;
  test::WriteFileBytes(folder.File("sd"), {seen.begin(), seen.end()});
  const TStrings shown = {
      "Owner    BUILTIN\\Administrators (S-1-5-32-544)",
      "Group    BUILTIN\\Administrators (S-1-5-32-544)",
      "Control  DACL present, self-relative",
      "DACL     Present, entries: 4",
      "  Access allowed BUILTIN\\Administrators (S-1-5-32-544): 0x1F",
      "  Access denied  NT AUTHORITY\\SYSTEM (S-1-5-18): 0x15",
      "  Access allowed NT AUTHORITY\\SYSTEM (S-1-5-18): 0xB",
      "  Access allowed Everyone (S-1-1-0): 0x9",
      "SACL     Absent",
  };
  EXPECT_EQ(Velsec({"show", "--file", folder.File("sd")}), shown);
  EXPECT_EQ(Velsec({"show", "HKCR\\" + AppKey, "launchpermission"})[7],
            "  Access allowed Everyone (S-1-1-0): execute, activate locally");

  EXPECT_EQ(Velsec({"com", AppID, "--launch", "default"}), initial);
  EXPECT_TRUE(RegQuery("LaunchPermission").empty());
}

TEST_F(VelSec, NeverWritesAnEmptyList) {
  const TStrings initial = Velsec({"com", AppID, "--access"});
  Velsec({"com", AppID, "--access", "add", "SELF", "none", "add", "SYSTEM", "deny"});
  EXPECT_EQ(RegQuery("AccessPermission").size(), 20u + 8 + 20 + 16 + 16);
  EXPECT_EQ(Velsec({"com", AppID, "--access", "add", "SYSTEM", "none"}), initial);
  EXPECT_TRUE(RegQuery("AccessPermission").empty());
}

TEST_F(VelSec, ChangesBothKindsUnlessOneIsChosen) {
  const TStrings initial = Velsec({"com", AppID});
  Velsec({"com", AppID, "add", "Everyone", "deny", "remote-launch"});
  EXPECT_TRUE(RegQuery("AccessPermission").empty()) << "it has no such right";
  EXPECT_FALSE(RegQuery("LaunchPermission").empty());
  Velsec({"com", AppID, "add", "Everyone", "deny"});
  const TStrings both = Velsec({"com", AppID});
  ASSERT_EQ(both.size(), initial.size() + 2);
  EXPECT_EQ(both[3], "  Everyone (S-1-1-0): local-access Deny, remote-access Deny");
  EXPECT_EQ(both[8],
            "  Everyone (S-1-1-0): local-launch Deny, local-activation Deny, remote-launch Deny, "
            "remote-activation Deny");
  EXPECT_EQ(Velsec({"com", AppID, "default"}), initial);
}

TEST_F(VelSec, DropsADamagedSetting) {
  const TStrings initial = Velsec({"com", AppID});
  TRegistry registry;
  registry.SetRootKey(HKEY_CLASSES_ROOT);
  ASSERT_TRUE(registry.OpenKey(AppKey, true));
  registry.WriteBinaryData("AccessPermission", "damaged", 7);
  registry.CloseKey();
  EXPECT_EQ(Refusal({"com", AppID}),
            "Cannot read the AccessPermission: Security descriptor is invalid");
  EXPECT_EQ(Velsec({"com", AppID, "default"}), initial);
}

TEST_F(VelSec, TellsListsWithoutEntriesApart) {
  const std::pair<TSecurityDescriptorAclType, const char*> cases[] = {
      {sdatAbsent, "  the list is absent: everyone may"},
      {sdatPresentNull, "  the list is null: everyone may"},
      {sdatPresentNotNull, "  the list is empty: nobody may"}};
  for (const auto& [type, line] : cases) {
    TSecurityDescriptor descriptor;
    descriptor.DaclType = type;
    descriptor.WriteToRegistry(HKEY_CLASSES_ROOT, AppKey, "LaunchPermission");
    EXPECT_EQ(Velsec({"com", AppID, "--launch"}), (TStrings{"LaunchPermission of " + AppID, line}));
  }
}

TEST_F(VelSec, SaysThatNothingWasWritten) {
  Velsec({"com", AppID, "--access", "add", "SELF", "none"});
  const test::TReadOnlyKey locked(HKEY_CLASSES_ROOT, AppKey);
  for (const TStrings& change : {TStrings{"default"}, TStrings{"add", "SYSTEM", "none"},
                                 TStrings{"add", "Everyone", "deny"}}) {
    TStrings arguments = {"com", AppID, "--access"};
    arguments.insert(arguments.end(), change.begin(), change.end());
    EXPECT_EQ(Refusal(arguments), "The setting could not be written");
  }
  // What holds by default is not written either, though it would read the same.
  EXPECT_EQ(Refusal({"com", AppID, "--launch", "add", "SYSTEM", "allow"}),
            "The setting could not be written");
}

TEST_F(VelSec, ShowsFlagsAndNullLists) {
  const test::TTemporaryKey key;
  TSecurityDescriptor descriptor;
  descriptor.DaclType = sdatPresentNull;
  descriptor.SaclType = sdatPresentNotNull;
  auto entry = std::make_unique<TAccessControlEntry>(
      aceSystemAudit, std::make_unique<TSecurityIdentifier>("", WinWorldSid));
  entry->AccessMask = GENERIC_ALL | 0x100;
  entry->AceFlags = CONTAINER_INHERIT_ACE | FAILED_ACCESS_ACE_FLAG;
  ASSERT_TRUE(descriptor.GetSacl().AddAce(entry.get()));
  entry.release();
  descriptor.WriteToRegistry(HKEY_CURRENT_USER, key.Path(), "Value");
  EXPECT_EQ(Velsec({"show", "hkey_current_user\\" + key.Path(), "Value"}),
            (TStrings{"Owner    none", "Group    none",
                      "Control  DACL present, SACL present, self-relative", "DACL     Null",
                      "SACL     Present, entries: 1",
                      "  System audit   Everyone (S-1-1-0): generic all, 0x100; flags: "
                      "containers inherit, failures"}));
}

TEST_F(VelSec, RefusesInOneLine) {
  const std::pair<TStrings, std::string> cases[] = {
      {{"com", "x"}, "Not an application identifier: x"},
      {{"com", AppID, "--launch", "add", "nobody?", "allow"}, "No account nobody?"},
      {{"com", AppID, "--launch", "add", "SYSTEM", "perhaps"},
       "allow, deny or none expected, not perhaps"},
      {{"com", AppID, "--access", "add", "SYSTEM", "allow", "local-launch"},
       "No right local-launch here; velsec --help lists them"},
      {{"show", "HKLM\\no such key", "Value"}, "Cannot open the key HKLM\\no such key"},
      {{"show", "HKLM\\Software", "no value"}, "HKLM\\Software has no value no value"},
      {{"show", "Software", "Value"},
       "A key begins with HKLM\\, HKCU\\, HKCR\\ or HKU\\, not with Software"},
  };
  for (const auto& [arguments, line] : cases) EXPECT_EQ(Refusal(arguments), line);
  EXPECT_TRUE(RegQuery("LaunchPermission").empty());
}

}  // namespace
}  // namespace velox
