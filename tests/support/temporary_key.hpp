#pragma once

#include <string>

#include "tests/support/support.hpp"
#include "velox/runtime/velRegistryKey.hpp"

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

}  // namespace velox::test
