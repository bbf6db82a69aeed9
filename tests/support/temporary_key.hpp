#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "tests/support/support.hpp"
#include "velox/runtime/velRegistryKey.hpp"
#include "velox/system/velSecurity.hpp"

namespace velox::test {

/// A key below HKEY_CURRENT_USER that did not exist before and is removed with all that is in it.
class TTemporaryKey {
 public:
  TTemporaryKey() : Path_("Software\\" + UniqueName("VeloxTest")) { TRegistry().CreateKey(Path_); }
  ~TTemporaryKey() { TRegistry().DeleteKey(Path_); }
  TTemporaryKey(const TTemporaryKey&) = delete;
  TTemporaryKey& operator=(const TTemporaryKey&) = delete;
  /// Its path below HKEY_CURRENT_USER.
  const std::string& Path() const { return Path_; }

 private:
  std::string Path_;
};

/// Appends an entry for an account to a list, which must take it.
inline void AddAce(TAccessControlList& List, TAccessControlEntryType Type,
                   const std::string& SidString, uint32_t Mask = 1) {
  auto entry = std::make_unique<TAccessControlEntry>(
      Type, TSecurityIdentifier::CreateFromSidString("", SidString));
  entry->AccessMask = Mask;
  ASSERT_TRUE(List.AddAce(entry.get()));
  entry.release();
}

/// Lets nobody write into a key, for as long as it lives.
class TReadOnlyKey {
 public:
  TReadOnlyKey(HKEY RootKey, const std::string& Path) {
    Registry_.SetRootKey(RootKey);
    Registry_.OpenKey(Path, false);
    Allow(KEY_READ);
  }
  ~TReadOnlyKey() { Allow(KEY_ALL_ACCESS); }
  TReadOnlyKey(const TReadOnlyKey&) = delete;
  TReadOnlyKey& operator=(const TReadOnlyKey&) = delete;

 private:
  void Allow(uint32_t Mask) {
    TSecurityDescriptor descriptor;
    AddAce(descriptor.GetDacl(), aceAccessAllowed, "S-1-1-0", Mask);
    descriptor.DaclType = sdatPresentNotNull;
    const auto built = descriptor.BuildDescriptor(false);
    EXPECT_EQ(
        ::RegSetKeySecurity(Registry_.GetCurrentKey(), DACL_SECURITY_INFORMATION, built.get()),
        ERROR_SUCCESS);
  }

  TRegistry Registry_;  // its handle keeps the rights that it was opened with
};

}  // namespace velox::test
