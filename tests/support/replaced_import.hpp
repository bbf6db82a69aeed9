#pragma once

#include <algorithm>

#include "velox/runtime/velWindows.hpp"

namespace velox::test {

/// While it lives, what a loaded module calls of a function that another one exports goes to a
/// replacement: the way to have a call of the system fail, or something happen during it.
///
///     const TReplacedImport failing("velox.dll", "kernel32.dll", "WriteFile", &WriteNothing);
class TReplacedImport {
 public:
  template <class F>
  TReplacedImport(const char* Module, const char* Exporter, const char* Name, F* Replacement) {
    auto* const base = reinterpret_cast<uint8_t*>(::GetModuleHandleA(Module));
    const auto* dos = reinterpret_cast<IMAGE_DOS_HEADER*>(base);
    const auto& header = reinterpret_cast<IMAGE_NT_HEADERS*>(base + dos->e_lfanew)->OptionalHeader;
    const auto& table = header.DataDirectory[IMAGE_DIRECTORY_ENTRY_IAT];
    auto** const imports = reinterpret_cast<const void**>(base + table.VirtualAddress);
    auto** const end = imports + table.Size / sizeof *imports;
    Before_ = reinterpret_cast<const void*>(::GetProcAddress(::GetModuleHandleA(Exporter), Name));
    Import_ = std::find(imports, end, Before_);
    if (Import_ == end) Import_ = nullptr;
    Set(reinterpret_cast<const void*>(Replacement));
  }
  ~TReplacedImport() { Set(Before_); }
  TReplacedImport(const TReplacedImport&) = delete;
  TReplacedImport& operator=(const TReplacedImport&) = delete;

  /// False when the module does not import the function.
  explicit operator bool() const { return Import_ != nullptr; }

 private:
  void Set(const void* Function) {
    DWORD protection = 0;
    if (Import_ == nullptr ||
        !::VirtualProtect(Import_, sizeof *Import_, PAGE_READWRITE, &protection))
      return;
    *Import_ = Function;
    ::VirtualProtect(Import_, sizeof *Import_, protection, &protection);
  }

  const void* Before_;
  const void** Import_;
};

}  // namespace velox::test
