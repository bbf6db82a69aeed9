#pragma once

#include <string>

#include "velox/runtime/velCompiler.hpp"
#include "velox/runtime/velRegistryKey.hpp"
#include "velox/runtime/velStrings.hpp"

namespace velox {

/// The registry, with lists of strings as values (REG_MULTI_SZ) and default values of keys.
///
///     TRegistryEx registry;
///     if (registry.OpenKey("Software\\Vendor", true)) registry.WriteStringList("Servers",
///     servers); TRegistryEx::WriteDefaultString(registry, "\\Software\\Vendor\\Kind", "main");
///
/// Failures raise ERegistryException, which names the value or key. Threads: one at a time.
class VELOX_API TRegistryEx : public TRegistry {
 public:
  using TRegistry::TRegistry;
  ~TRegistryEx() override;

  /// Appends the strings of a REG_MULTI_SZ value of the open key to Strings, in stored order; what
  /// Strings holds stays in front. The first empty string, or the end of the data, ends the value.
  /// Raises ERegistryException when there is no such value or it has another type; Strings is then
  /// as it was.
  void ReadStringList(const std::string& Name, TStrings& Strings) const;

  /// Makes or replaces a REG_MULTI_SZ value of the open key. Empty strings are left out, since one
  /// would end the value early; and a string goes as far as its first zero.
  void WriteStringList(const std::string& Name, const TStrings& Strings);

  /// Opens a key in Registry, making it when it is missing, writes its default value as REG_SZ, and
  /// closes the key. KeyName counts from the key that is open in Registry, or from its root; after
  /// the call no key is open, unless KeyName itself could not be opened.
  static void WriteDefaultString(TRegistry& Registry, const std::string& KeyName,
                                 const std::string& Value);
};

}  // namespace velox
