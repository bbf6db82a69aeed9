#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "velox/runtime/velCompiler.hpp"
#include "velox/runtime/velException.hpp"
#include "velox/runtime/velObject.hpp"
#include "velox/runtime/velStrings.hpp"
#include "velox/runtime/velWindows.hpp"

namespace velox {

/// The registry: one key is open at a time, and its values are read and written.
///
///     TRegistry registry;
///     registry.SetRootKey(HKEY_LOCAL_MACHINE);
///     if (registry.OpenKeyReadOnly("Software\\Vendor") && registry.ValueExists("Folder"))
///       folder = registry.ReadString("Folder");
///
/// Names of keys are paths whose parts "\" separates. A path counts from the open key, or from the
/// root when none is open; one that begins with "\" always counts from the root. The empty value
/// name is the key's default value. Strings are in the ANSI code page.
///
/// Functions that return a Boolean raise nothing: after false, the calling thread's last error
/// tells why. Reads and writes raise ERegistryException; without an open key they all do.
///
/// Threads: one at a time.
class VELOX_API TRegistry : public TObject {
 public:
  /// The root is HKEY_CURRENT_USER. Access are the rights (KEY_…) with which OpenKey opens;
  /// KEY_WOW64_32KEY or KEY_WOW64_64KEY among them chooses the view for all functions.
  explicit TRegistry(REGSAM Access = KEY_ALL_ACCESS);
  /// Closes the open key.
  ~TRegistry() override;

  HKEY GetRootKey() const noexcept { return RootKey_; }
  /// HKEY_LOCAL_MACHINE and its like, or any key of the caller's, which is borrowed. Another root
  /// than before closes the open key.
  void SetRootKey(HKEY Value) noexcept;

  REGSAM GetAccess() const noexcept { return Access_; }
  /// Holds for keys that are opened from now on.
  void SetAccess(REGSAM Value) noexcept { Access_ = Value; }

  /// The open key, null when none. Belongs to this object.
  HKEY GetCurrentKey() const noexcept { return CurrentKey_.get(); }
  /// Its path below the root, without a "\" at the beginning.
  const std::string& GetCurrentPath() const noexcept { return CurrentPath_; }

  /// Opens a key with the rights of GetAccess(), in place of the one that was open; on false that
  /// one stays open. CanCreate makes the key when it is missing, with those above it.
  bool OpenKey(const std::string& Key, bool CanCreate);
  /// The same with the right to read only.
  bool OpenKeyReadOnly(const std::string& Key);
  /// Does nothing when no key is open.
  void CloseKey() noexcept;

  /// Makes a key, with those above it; which key is open does not change. True also when the key is
  /// there already.
  bool CreateKey(const std::string& Key);
  /// Deletes a key with all that is below it. Only for a path that is not empty.
  bool DeleteKey(const std::string& Key);
  /// Whether the key can be opened for reading.
  bool KeyExists(const std::string& Key) const;

  bool ValueExists(const std::string& Name) const noexcept;
  bool DeleteValue(const std::string& Name) noexcept;
  /// The type (REG_SZ, REG_DWORD, …), REG_NONE when there is no such value.
  DWORD GetDataType(const std::string& Name) const noexcept;
  /// In bytes, with the zeros that end strings; -1 when there is no such value.
  int32_t GetDataSize(const std::string& Name) const noexcept;

  // Reads raise ERegistryException when there is no such value or it has another type.

  /// REG_SZ or REG_EXPAND_SZ (whose variables are left as they are), up to the first zero.
  std::string ReadString(const std::string& Name) const;
  /// REG_DWORD.
  int32_t ReadInteger(const std::string& Name) const;
  /// REG_DWORD, true unless it is 0.
  bool ReadBool(const std::string& Name) const;
  /// REG_BINARY.
  std::vector<uint8_t> ReadBinaryData(const std::string& Name) const;

  // Writes make the value or replace it, whatever type it had.

  void WriteString(const std::string& Name, const std::string& Value);
  /// The same as REG_EXPAND_SZ: "%NAME%" stands for a variable of the environment.
  void WriteExpandString(const std::string& Name, const std::string& Value);
  void WriteInteger(const std::string& Name, int32_t Value);
  /// As REG_DWORD 1 or 0.
  void WriteBool(const std::string& Name, bool Value);
  /// As REG_BINARY. Raises Exception "Incorrect parameters" for a negative size.
  void WriteBinaryData(const std::string& Name, const void* Data, int32_t Size);

  /// The names of the keys directly below the open one, and of its values, in the system's order.
  TStrings GetKeyNames() const;
  TStrings GetValueNames() const;

 protected:
  /// A value as it is stored.
  struct TStoredValue {
    DWORD Type = REG_NONE;
    std::vector<uint8_t> Data;
  };

  /// Raises ERegistryException when the value can't be read.
  TStoredValue ReadStored(const std::string& Name) const;
  /// The same when it has another type.
  std::vector<uint8_t> ReadOfType(const std::string& Name, DWORD Type) const;
  void WriteStored(const std::string& Name, DWORD Type, const void* Data, size_t Size);

 private:
  struct TKeyCloser {
    using pointer = HKEY;
    void operator()(HKEY Key) const noexcept { ::RegCloseKey(Key); }
  };
  using TKeyHandle = std::unique_ptr<HKEY, TKeyCloser>;

  HKEY BaseOf(const std::string& Key) const noexcept;
  TKeyHandle Open(const std::string& Key, REGSAM Access, bool CanCreate) const;
  bool Change(const std::string& Key, REGSAM Access, bool CanCreate);
  REGSAM View() const noexcept;

  HKEY RootKey_ = HKEY_CURRENT_USER;
  REGSAM Access_;
  TKeyHandle CurrentKey_;
  std::string CurrentPath_;
};

}  // namespace velox
