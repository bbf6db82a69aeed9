// Compiled, but not run: these change who may do what on the machine.
#if __has_include("velox/system/velComPermissions.hpp")  // until that module is there
#include <memory>
#include <string>

#include "velox/foundation/velSysUtils.hpp"
#include "velox/system/velComPermissions.hpp"
#include "velox/system/velSecurity.hpp"

namespace samples {

using namespace velox;

void AllowReading(const std::string& KeyName, const std::string& ValueName,
                  const std::string& Account);
void SetLaunchPermissions(const GUID& AppID);

//! [descriptor]
/// Lets an account read, in a descriptor that a program keeps in the registry.
void AllowReading(const std::string& KeyName, const std::string& ValueName,
                  const std::string& Account) {
  TSecurityDescriptor descriptor;
  descriptor.ReadFromRegistry("", HKEY_LOCAL_MACHINE, KeyName, ValueName);
  // Without a list everyone may read: one with this account alone would shut all others out.
  if (descriptor.DaclType != sdatPresentNotNull) return;

  auto entry = std::make_unique<TAccessControlEntry>(
      aceAccessAllowed, std::make_unique<TSecurityIdentifier>("", Account));
  entry->AccessMask = GENERIC_READ;
  if (descriptor.GetDacl().AddAce(entry.get())) static_cast<void>(entry.release());

  descriptor.WriteToRegistry(HKEY_LOCAL_MACHINE, KeyName, ValueName);
}
//! [descriptor]

//! [launch]
/// Lets everyone start the server from this machine, and nobody from another one.
void SetLaunchPermissions(const GUID& AppID) {
  const std::string everyone = TSecurityIdentifier::GetWellKnownAccountName("", WinWorldSid);
  TComServerLaunchPermissions permissions(AppID);  // reads what holds now
  permissions.AddEntryEx("", everyone, ptAllow,    // where rights are not split
                         ptAllow, ptAllow,         // local launch and activation
                         ptDeny, ptDeny);          // remote launch and activation
  permissions.Apply();                             // writes
}
//! [launch]

}  // namespace samples

#endif
