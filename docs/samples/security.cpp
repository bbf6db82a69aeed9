#include <memory>
#include <string>

#include "docs/samples/samples.hpp"
#include "velox/runtime/velFormat.hpp"
#include "velox/runtime/velRegistryKey.hpp"
#include "velox/system/velComPermissions.hpp"
#include "velox/system/velSecurity.hpp"

namespace samples {

using namespace velox;

void SetLaunchPermissions(const GUID& AppID);

namespace {

//! [descriptor]
/// Lets an account read, in a descriptor that a program keeps in the registry.
void AllowReading(HKEY Root, const std::string& KeyName, const std::string& ValueName,
                  const std::string& Account) {
  TSecurityDescriptor descriptor;
  descriptor.ReadFromRegistry("", Root, KeyName, ValueName);
  // Without a list everyone may read: one with this account alone would shut all others out.
  if (descriptor.DaclType != sdatPresentNotNull) return;

  auto entry = std::make_unique<TAccessControlEntry>(
      aceAccessAllowed, std::make_unique<TSecurityIdentifier>("", Account));
  entry->AccessMask = GENERIC_READ;
  if (descriptor.GetDacl().AddAce(entry.get())) static_cast<void>(entry.release());

  descriptor.WriteToRegistry(Root, KeyName, ValueName);
}
//! [descriptor]

//! [launch]
/// Lets everyone start the server from this machine, and from another one only those whose entries
/// stand further up, such as the administrators.
void AllowLocalStart(TComServerLaunchPermissions& Permissions) {
  const std::string everyone = TSecurityIdentifier::GetWellKnownAccountName("", WinWorldSid);
  Permissions.AddEntryEx("", everyone, ptAllow,  // where rights are not split
                         ptAllow, ptAllow,       // local launch and activation
                         ptDeny, ptDeny);        // remote launch and activation
}
//! [launch]

constexpr GUID NoServer = {
    0x2d1f0a54, 0x7c39, 0x4b1e, {0x9a, 0x60, 0x35, 0xe8, 0x41, 0xc7, 0xd2, 0x0b}};

}  // namespace

//! [apply]
void SetLaunchPermissions(const GUID& AppID) {
  TComServerLaunchPermissions permissions(AppID);  // reads what holds now
  AllowLocalStart(permissions);
  permissions.Apply();  // writes
}
//! [apply]

// SetLaunchPermissions is compiled only: it changes who may do what on the machine.
void RunSecurity() {
  const std::string key = Format("Software\\VeloxSamples%lu", ::GetCurrentProcessId());
  TSecurityDescriptor nobody, written;
  nobody.DaclType = sdatPresentNotNull;  // a list, which is empty
  nobody.WriteToRegistry(HKEY_CURRENT_USER, key, "Security");
  AllowReading(HKEY_CURRENT_USER, key, "Security",
               TSecurityIdentifier::GetWellKnownAccountName("", WinWorldSid));
  written.ReadFromRegistry("", HKEY_CURRENT_USER, key, "Security");
  TRegistry().DeleteKey(key);
  Expect(written.GetDacl().GetAceCount() == 1 &&
             written.GetDacl().GetAce(0).AccessMask == GENERIC_READ,
         "everyone may read");

  TComServerLaunchPermissions permissions(NoServer);
  AllowLocalStart(permissions);
  const int32_t index = permissions.GetEntryIndexBySecurityIdentifier({"", WinWorldSid});
  Expect(index >= 0 && !permissions.GetEntries(index).GetUnassigned(), "everyone has an entry");
}

}  // namespace samples
