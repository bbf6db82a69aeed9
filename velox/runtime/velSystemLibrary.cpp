#include "velox/runtime/velSystemLibrary.hpp"

#include <cstdio>

namespace velox {

FARPROC FindSystemFunction(const char* Library, const char* Name) noexcept {
  char folder[MAX_PATH], path[MAX_PATH];
  const UINT length = ::GetSystemDirectoryA(folder, sizeof folder);
  if (length == 0 || length >= sizeof folder) return nullptr;
  const int size = std::snprintf(path, sizeof path, "%s\\%s", folder, Library);
  if (size < 0 || size >= static_cast<int>(sizeof path)) return nullptr;
  const HMODULE library = ::LoadLibraryA(path);
  if (library == nullptr) return nullptr;
  const FARPROC found = ::GetProcAddress(library, Name);
  if (found == nullptr) ::FreeLibrary(library);
  return found;
}

}  // namespace velox
