#include "velox/runtime/velRegistryKey.hpp"

#include <cstring>
#include <utility>

#include "velox/runtime/velFormat.hpp"
#include "velox/runtime/velMessages.hpp"

namespace velox {
namespace {

[[noreturn]] void Raise(const char* Message, const std::string& Name) {
  throw ERegistryException(Format(Message, Name.c_str()));
}

/// Whether a call of the registry succeeded; when not, its code becomes the last error.
bool Succeeded(LSTATUS Code) noexcept {
  if (Code != ERROR_SUCCESS) ::SetLastError(static_cast<DWORD>(Code));
  return Code == ERROR_SUCCESS;
}

bool StartsAtRoot(const std::string& Key) noexcept { return Key.starts_with('\\'); }

/// The path without the "\" by which it counts from the root.
const char* Path(const std::string& Key) noexcept {
  return Key.c_str() + (StartsAtRoot(Key) ? 1 : 0);
}

/// Asks Enumerate(index, buffer, size) for one name after the other.
template <class F>
TStrings Names(const std::string& KeyPath, F Enumerate) {
  TStrings names;
  std::string buffer(256, '\0');
  for (;;) {
    auto size = static_cast<DWORD>(buffer.size());
    const LSTATUS code = Enumerate(static_cast<DWORD>(names.size()), buffer.data(), &size);
    if (code == ERROR_NO_MORE_ITEMS) return names;
    if (code == ERROR_MORE_DATA) {
      buffer.resize(buffer.size() * 2);
      continue;
    }
    if (code != ERROR_SUCCESS) Raise(messages::seRegistryGetDataFailed, KeyPath);
    names.emplace_back(buffer.data(), size);
  }
}

}  // namespace

TRegistry::TRegistry(REGSAM Access) : Access_(Access) {}

TRegistry::~TRegistry() = default;

// -------------------------------------------------------------------------------------------- keys

void TRegistry::SetRootKey(HKEY Value) noexcept {
  if (Value == RootKey_) return;
  CloseKey();
  RootKey_ = Value;
}

HKEY TRegistry::BaseOf(const std::string& Key) const noexcept {
  return CurrentKey_ == nullptr || StartsAtRoot(Key) ? RootKey_ : CurrentKey_.get();
}

REGSAM TRegistry::View() const noexcept { return Access_ & (KEY_WOW64_32KEY | KEY_WOW64_64KEY); }

TRegistry::TKeyHandle TRegistry::Open(const std::string& Key, REGSAM Access, bool CanCreate) const {
  HKEY opened = nullptr;
  const LSTATUS code =
      CanCreate ? ::RegCreateKeyExA(BaseOf(Key), Path(Key), 0, nullptr, REG_OPTION_NON_VOLATILE,
                                    Access, nullptr, &opened, nullptr)
                : ::RegOpenKeyExA(BaseOf(Key), Path(Key), 0, Access, &opened);
  return TKeyHandle(Succeeded(code) ? opened : nullptr);
}

bool TRegistry::Change(const std::string& Key, REGSAM Access, bool CanCreate) {
  TKeyHandle opened = Open(Key, Access, CanCreate);
  if (opened == nullptr) return false;
  std::string path = Path(Key);  // Key may be the current path
  if (CurrentKey_ != nullptr && !StartsAtRoot(Key) && !CurrentPath_.empty())
    path = Key.empty() ? CurrentPath_ : CurrentPath_ + '\\' + path;
  CurrentPath_ = std::move(path);
  CurrentKey_ = std::move(opened);
  return true;
}

bool TRegistry::OpenKey(const std::string& Key, bool CanCreate) {
  return Change(Key, Access_, CanCreate);
}

bool TRegistry::OpenKeyReadOnly(const std::string& Key) {
  return Change(Key, KEY_READ | View(), false);
}

void TRegistry::CloseKey() noexcept {
  CurrentKey_.reset();
  CurrentPath_.clear();
}

bool TRegistry::CreateKey(const std::string& Key) {
  return Open(Key, KEY_READ | View(), true) != nullptr;
}

bool TRegistry::DeleteKey(const std::string& Key) {
  // An empty path would delete what is below the base.
  if (*Path(Key) == '\0') return Succeeded(ERROR_INVALID_PARAMETER);
  const REGSAM access = DELETE | KEY_ENUMERATE_SUB_KEYS | KEY_QUERY_VALUE | KEY_SET_VALUE | View();
  const TKeyHandle opened = Open(Key, access, false);
  return opened != nullptr && Succeeded(::RegDeleteTreeA(opened.get(), nullptr)) &&
         Succeeded(::RegDeleteKeyExA(BaseOf(Key), Path(Key), View(), 0));
}

bool TRegistry::KeyExists(const std::string& Key) const {
  return Open(Key, KEY_READ | View(), false) != nullptr;
}

TStrings TRegistry::GetKeyNames() const {
  return Names(CurrentPath_, [this](DWORD Index, char* Name, DWORD* Size) {
    return ::RegEnumKeyExA(GetCurrentKey(), Index, Name, Size, nullptr, nullptr, nullptr, nullptr);
  });
}

TStrings TRegistry::GetValueNames() const {
  return Names(CurrentPath_, [this](DWORD Index, char* Name, DWORD* Size) {
    return ::RegEnumValueA(GetCurrentKey(), Index, Name, Size, nullptr, nullptr, nullptr, nullptr);
  });
}

// ------------------------------------------------------------------------------------------ values

bool TRegistry::ValueExists(const std::string& Name) const noexcept {
  return Succeeded(
      ::RegQueryValueExA(GetCurrentKey(), Name.c_str(), nullptr, nullptr, nullptr, nullptr));
}

bool TRegistry::DeleteValue(const std::string& Name) noexcept {
  return Succeeded(::RegDeleteValueA(GetCurrentKey(), Name.c_str()));
}

DWORD TRegistry::GetDataType(const std::string& Name) const noexcept {
  DWORD type = REG_NONE;
  const LSTATUS code =
      ::RegQueryValueExA(GetCurrentKey(), Name.c_str(), nullptr, &type, nullptr, nullptr);
  return Succeeded(code) ? type : REG_NONE;
}

int32_t TRegistry::GetDataSize(const std::string& Name) const noexcept {
  DWORD size = 0;
  const LSTATUS code =
      ::RegQueryValueExA(GetCurrentKey(), Name.c_str(), nullptr, nullptr, nullptr, &size);
  return Succeeded(code) ? static_cast<int32_t>(size) : -1;
}

TRegistry::TStoredValue TRegistry::ReadStored(const std::string& Name) const {
  TStoredValue value;
  DWORD size = 0;
  LSTATUS code =
      ::RegQueryValueExA(GetCurrentKey(), Name.c_str(), nullptr, &value.Type, nullptr, &size);
  while (code == ERROR_SUCCESS) {
    value.Data.resize(size);
    uint8_t none = 0;  // a null buffer would ask for the size once more
    code = ::RegQueryValueExA(GetCurrentKey(), Name.c_str(), nullptr, &value.Type,
                              size == 0 ? &none : value.Data.data(), &size);
    if (code == ERROR_SUCCESS) {
      value.Data.resize(size);
      return value;
    }
    if (code == ERROR_MORE_DATA) code = ERROR_SUCCESS;  // it has grown meanwhile
  }
  Raise(messages::seRegistryGetDataFailed, Name);
}

std::vector<uint8_t> TRegistry::ReadOfType(const std::string& Name, DWORD Type) const {
  TStoredValue value = ReadStored(Name);
  if (value.Type != Type) Raise(messages::seRegistryInvalidType, Name);
  return std::move(value.Data);
}

void TRegistry::WriteStored(const std::string& Name, DWORD Type, const void* Data, size_t Size) {
  const LSTATUS code = ::RegSetValueExA(GetCurrentKey(), Name.c_str(), 0, Type,
                                        static_cast<const BYTE*>(Data), static_cast<DWORD>(Size));
  if (!Succeeded(code)) Raise(messages::seRegistrySetDataFailed, Name);
}

std::string TRegistry::ReadString(const std::string& Name) const {
  const TStoredValue value = ReadStored(Name);
  if (value.Type != REG_SZ && value.Type != REG_EXPAND_SZ)
    Raise(messages::seRegistryInvalidType, Name);
  const auto* text = reinterpret_cast<const char*>(value.Data.data());
  return {text, ::strnlen(text, value.Data.size())};  // a zero at the end is not certain
}

int32_t TRegistry::ReadInteger(const std::string& Name) const {
  const std::vector<uint8_t> data = ReadOfType(Name, REG_DWORD);
  int32_t value = 0;
  if (data.size() != sizeof value) Raise(messages::seRegistryInvalidType, Name);
  std::memcpy(&value, data.data(), sizeof value);
  return value;
}

bool TRegistry::ReadBool(const std::string& Name) const { return ReadInteger(Name) != 0; }

std::vector<uint8_t> TRegistry::ReadBinaryData(const std::string& Name) const {
  return ReadOfType(Name, REG_BINARY);
}

void TRegistry::WriteString(const std::string& Name, const std::string& Value) {
  WriteStored(Name, REG_SZ, Value.c_str(), Value.size() + 1);
}

void TRegistry::WriteExpandString(const std::string& Name, const std::string& Value) {
  WriteStored(Name, REG_EXPAND_SZ, Value.c_str(), Value.size() + 1);
}

void TRegistry::WriteInteger(const std::string& Name, int32_t Value) {
  WriteStored(Name, REG_DWORD, &Value, sizeof Value);
}

void TRegistry::WriteBool(const std::string& Name, bool Value) {
  WriteInteger(Name, Value ? 1 : 0);
}

void TRegistry::WriteBinaryData(const std::string& Name, const void* Data, int32_t Size) {
  if (Size < 0) throw Exception(messages::seIncorrectParameters);
  WriteStored(Name, REG_BINARY, Data, static_cast<size_t>(Size));
}

}  // namespace velox
