#include "velox/system/velComPermissions.hpp"

#include <gtest/gtest.h>

#include <cstdio>

#include "tests/support/temporary_key.hpp"
#include "velox/runtime/velException.hpp"
#include "velox/runtime/velRegistryKey.hpp"

namespace velox {
namespace {

using enum TOSVersion;

// {5F3C7A10-0B5E-4C1A-9A77-3D2E6B7F0C51}, which no program has.
constexpr GUID AppID{0x5F3C7A10, 0x0B5E, 0x4C1A, {0x9A, 0x77, 0x3D, 0x2E, 0x6B, 0x7F, 0x0C, 0x51}};
constexpr const char* AppKey = "AppID\\{5F3C7A10-0B5E-4C1A-9A77-3D2E6B7F0C51}";

/// Leaves no setting of the server behind, nor before.
class ComPermissions : public testing::Test {
 protected:
  ComPermissions() { Remove(); }
  ~ComPermissions() override { Remove(); }
  static void Remove() {
    TRegistry registry;
    registry.SetRootKey(HKEY_CLASSES_ROOT);
    registry.DeleteKey(AppKey);
  }
};

using TEntries = std::vector<std::string>;

/// Each entry as SID, allowing mask, denial mask.
TEntries Entries(const TComServerPermissions& Permissions) {
  TEntries entries;
  for (int32_t i = 0; i < Permissions.GetEntryCount(); ++i) {
    const TComServerPermissionsEntry& entry = Permissions.GetEntries(i);
    entries.push_back(entry.GetSidString() + " " + std::to_string(entry.GetAllowingAccessMask()) +
                      " " + std::to_string(entry.GetDenialAccessMask()));
  }
  return entries;
}

/// Each entry of the list that is stored, as SID, type, mask.
TEntries Stored(const std::string& Value) {
  TSecurityDescriptor descriptor;
  descriptor.ReadFromRegistry("", HKEY_CLASSES_ROOT, AppKey, Value);
  TEntries entries;
  for (int32_t i = 0; i < descriptor.GetDacl().GetAceCount(); ++i) {
    const TAccessControlEntry& ace = descriptor.GetDacl().GetAce(i);
    entries.push_back(ace.GetSecurityIdentifier()->GetSidString() + " " +
                      std::to_string(ace.AceType) + " " + std::to_string(ace.AccessMask));
  }
  return entries;
}

TEST(ComRights, AreSplitSinceTheirServicePacks) {
  const struct {
    TOSVersion Version;
    int32_t ServicePack;
    bool Split;
  } rows[] = {{osUnknown, 9, false}, {os2000, 4, false}, {osXP, 0, false},   {osXP, 1, false},
              {osXP, 2, true},       {osXP, 3, true},    {os2003, 0, false}, {os2003, 1, true},
              {os2003R2, 0, true},   {osVista, 0, true}, {osSeven, 0, true}, {os2016, 0, true}};
  for (const auto& row : rows) {
    EXPECT_EQ(TComServerPermissions::SupportAdvancedSecurity(row.Version, row.ServicePack),
              row.Split)
        << OSVersionName(row.Version) << " " << row.ServicePack;
  }
}

TEST(ComRights, HaveNames) {
  EXPECT_EQ(StringToPermissionType("allow"), ptAllow);
  EXPECT_EQ(StringToPermissionType("DENY"), ptDeny);
  EXPECT_EQ(StringToPermissionType("None"), ptNone);
  EXPECT_EQ(StringToPermissionType("den"), ptNone);
}

// Which permissions a mask touches: the plain one, then those for activating and launching, locally
// and remotely.
TEST(ComRights, AreTouchedByMasks) {
  const TSecurityIdentifier everyone("", WinWorldSid);
  for (const auto& [mask, touched] : std::vector<std::pair<uint32_t, std::string>>{
           {0, "....."},
           {1, "PLLRR"},  // alone: every right
           {2, "....."},  // no way of execution without execution
           {3, "P.L.."},
           {5, "P...R"},
           {9, "PL..."},
           {17, "P..R."},
           {31, "PLLRR"},
           {30, "....."},
           {0x10001, "P...."}}) {
    TComServerAccessPermissionsEntry plainAccess(everyone);
    TComServerLaunchPermissionsEntry plainLaunch(everyone);
    TComServerAccessPermissionsEntryEx access(everyone);
    TComServerLaunchPermissionsEntryEx launch(everyone);
    for (TComServerPermissionsEntry* entry : std::initializer_list<TComServerPermissionsEntry*>{
             &plainAccess, &plainLaunch, &access, &launch})
      entry->UpdateMask(aceAccessAllowed, mask);
    const auto is = [](TPermissionType Value, char Letter) { return Value ? Letter : '.'; };
    EXPECT_EQ(std::string({is(plainLaunch.Permission, 'P'), is(launch.LocalActivation, 'L'),
                           is(launch.LocalLaunch, 'L'), is(launch.RemoteActivation, 'R'),
                           is(launch.RemoteLaunch, 'R')}),
              touched)
        << mask;
    EXPECT_EQ(plainAccess.Permission, plainLaunch.Permission);
    EXPECT_EQ(access.LocalAccess, launch.LocalLaunch);
    EXPECT_EQ(access.RemoteAccess, launch.RemoteLaunch);
  }
}

TEST(ComRights, StayDeniedInAnyOrder) {
  TComServerLaunchPermissionsEntryEx entry{TSecurityIdentifier("", WinWorldSid)};
  EXPECT_TRUE(entry.GetUnassigned());
  entry.UpdateMask(aceAccessAllowed, 3);
  entry.UpdateMask(aceAccessDenied, 3 | 5);
  entry.UpdateMask(aceAccessAllowed, 5 | 9);
  entry.UpdateMask(aceSystemAudit, 17);
  EXPECT_EQ(entry.GetDenialAccessMask(), 7u);
  EXPECT_EQ(entry.GetAllowingAccessMask(), 9u);
  EXPECT_EQ(entry.RemoteActivation, ptNone);
  EXPECT_FALSE(entry.GetUnassigned());
}

TEST_F(ComPermissions, AreTheServersElseTheMachinesElseTheBuiltInOnes) {
  TRegistry machine;
  machine.SetRootKey(HKEY_LOCAL_MACHINE);
  ASSERT_TRUE(machine.OpenKey("Software\\Microsoft\\Ole", true));
  if (machine.ValueExists("DefaultLaunchPermission") ||
      machine.ValueExists("DefaultAccessPermission")) {
    std::printf("not run: this machine has defaults of its own\n");
    return;
  }
  const struct TRestore {
    ~TRestore() {
      Registry.DeleteValue("DefaultLaunchPermission");
      Registry.DeleteValue("DefaultAccessPermission");
    }
    TRegistry& Registry;
  } restore{machine};
  TComServerLaunchPermissions launch(AppID);
  EXPECT_EQ(Entries(launch), (TEntries{"S-1-5-32-544 31 0", "S-1-5-4 31 0", "S-1-5-18 31 0"}));
  EXPECT_EQ(Entries(TComServerAccessPermissions(AppID)),
            (TEntries{"S-1-5-18 3 0", "S-1-5-10 7 0"}));

  TSecurityDescriptor defaults;
  defaults.DaclType = sdatPresentNotNull;
  test::AddAce(defaults.GetDacl(), aceAccessAllowed, "S-1-1-0", 31);
  test::AddAce(defaults.GetDacl(), aceAccessDenied, "S-1-1-0", 5);
  defaults.WriteToRegistry(HKEY_LOCAL_MACHINE, machine.GetCurrentPath(), "DefaultLaunchPermission");
  EXPECT_EQ(Entries(TComServerLaunchPermissions(AppID)), (TEntries{"S-1-1-0 27 5"}));
  defaults.WriteToRegistry(HKEY_LOCAL_MACHINE, machine.GetCurrentPath(), "DefaultAccessPermission");
  EXPECT_EQ(Entries(TComServerAccessPermissions(AppID)), (TEntries{"S-1-1-0 3 5"}));
  launch.Apply();
  EXPECT_EQ(Stored("LaunchPermission"),
            (TEntries{"S-1-5-32-544 0 31", "S-1-5-4 0 31", "S-1-5-18 0 31"}));
  EXPECT_EQ(Entries(TComServerLaunchPermissions(AppID)), Entries(launch));
  launch.UseDefault();
  EXPECT_EQ(Entries(launch), (TEntries{"S-1-1-0 27 5"}));
}

TEST_F(ComPermissions, AreWrittenDenialsFirstAndReadBack) {
  TComServerLaunchPermissions launch(AppID);
  while (launch.GetEntryCount() > 0) launch.DeleteEntry(0);
  TComServerPermissionsEntry& dropped =
      launch.AddEntry(TSecurityIdentifier("", WinBuiltinAdministratorsSid));
  launch.AddEntryEx("", "INTERACTIVE", ptAllow, ptAllow, ptAllow, ptAllow, ptAllow);
  launch.AddEntryEx("", "SYSTEM", ptAllow, ptNone, ptNone, ptNone, ptNone);
  launch.AddEntryEx("", "Everyone", ptAllow, ptAllow, ptDeny, ptAllow, ptDeny);
  launch.DeleteEntry(0);
  EXPECT_EQ(dropped.GetAccountName(), "Administrators");
  launch.Apply();
  EXPECT_EQ(launch.GetEntryCount(), 2);
  EXPECT_EQ(Stored("LaunchPermission"), (TEntries{"S-1-5-4 0 31", "S-1-1-0 1 25", "S-1-1-0 0 7"}));
  // Execution as such is both denied and allowed, and touches no split right.
  EXPECT_EQ(Entries(TComServerLaunchPermissions(AppID)), Entries(launch));
  EXPECT_THROW(
      launch.AddEntryEx("", "no such account", ptAllow, ptAllow, ptAllow, ptAllow, ptAllow),
      EOSError);
  EXPECT_EQ(launch.GetEntryCount(), 2);

  while (launch.GetEntryCount() > 0) launch.DeleteEntry(0);
  launch.Apply();
  EXPECT_FALSE(
      TComServerPermissions::RegistryValueExists(HKEY_CLASSES_ROOT, AppKey, "LaunchPermission"));
}

/// As on a system that does not split the rights.
class TPlainAccess : public TComServerAccessPermissions {
 public:
  TPlainAccess() : TComServerAccessPermissions(AppID) { RetrieveEntries(); }
  std::unique_ptr<TComServerPermissionsEntry> CreateComServerPermissionEntry(
      const TSecurityIdentifier& Identifier) const override {
    return std::make_unique<TComServerAccessPermissionsEntry>(Identifier);
  }
};

TEST_F(ComPermissions, OfOldSystemsMeanEveryRight) {
  TPlainAccess plain;
  while (plain.GetEntryCount() > 0) plain.DeleteEntry(0);
  plain.AddEntryEx("", "Everyone", ptAllow, ptDeny, ptDeny);
  plain.AddEntryEx("", "SYSTEM", ptDeny, ptAllow, ptAllow);
  plain.Apply();
  EXPECT_EQ(Stored("AccessPermission"), (TEntries{"S-1-1-0 0 1", "S-1-5-18 1 1"}));
  EXPECT_EQ(Entries(TComServerAccessPermissions(AppID)), (TEntries{"S-1-1-0 7 0", "S-1-5-18 0 7"}));
}

}  // namespace
}  // namespace velox
