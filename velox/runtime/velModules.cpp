#include "velox/runtime/velModules.hpp"

#include <cstddef>
#include <cstdio>
#include <iterator>
#include <new>

#include "velox/foundation/velTrace.hpp"
#include "velox/runtime/velCallbackGuard.hpp"
#include "velox/runtime/velException.hpp"
#include "velox/runtime/velWindows.hpp"

namespace velox {
namespace {

struct TModule {
  const char* Name;
  void (*Initialize)();         // null when the module has nothing to do
  void (*Finalize)() noexcept;  // likewise
};

// A module stands behind those it uses. Finalisations run from the last to the first.
constexpr TModule Table[] = {
    {"runtime", &modules::InitializeRuntime, &modules::FinalizeRuntime},
    {"velCallbackGuard", &modules::InitializeCallbackGuard, &modules::FinalizeCallbackGuard},
    {"velSyncUtils", nullptr, &modules::FinalizeSyncUtils},
    {"velModuleInfo", nullptr, &modules::FinalizeModuleInfo},
    {"velSysInfo", nullptr, &modules::FinalizeSysInfo},
    {"velTrace", &modules::InitializeTrace, &modules::FinalizeTrace},
    {"velReactor", nullptr, &modules::FinalizeReactor},
    {"velUDPChannel", &modules::InitializeUDPChannel, &modules::FinalizeUDPChannel},
    {"velHash", nullptr, &modules::FinalizeHash},
    {"velHash_md5", nullptr, &modules::FinalizeMD5},
};

size_t Initialized = 0;

bool InitializeAll() noexcept {
  for (; Initialized < std::size(Table); ++Initialized) {
    try {
      if (Table[Initialized].Initialize != nullptr) Table[Initialized].Initialize();
    } catch (...) {
      char text[64];  // no allocation: memory may be what is missing
      std::snprintf(text, sizeof text, "%s cannot be initialised", Table[Initialized].Name);
      TraceException(text);
      return false;
    }
  }
  return true;
}

void FinalizeAll() noexcept {
  while (Initialized > 0) {
    --Initialized;
    if (Table[Initialized].Finalize != nullptr) Table[Initialized].Finalize();
  }
}

std::new_handler PriorHandler = nullptr;

void RaiseOutOfMemory() { throw EOutOfMemory(); }

}  // namespace

void modules::InitializeRuntime() {
  PriorHandler = std::get_new_handler();
  if (PriorHandler == nullptr) std::set_new_handler(&RaiseOutOfMemory);
}

void modules::FinalizeRuntime() noexcept {
  if (std::get_new_handler() == &RaiseOutOfMemory) std::set_new_handler(PriorHandler);
}

}  // namespace velox

extern "C" BOOL WINAPI DllMain(HINSTANCE, DWORD Reason, void* Terminating) {
  switch (Reason) {
    case DLL_PROCESS_ATTACH:
      if (velox::InitializeAll()) return TRUE;
      velox::FinalizeAll();
      return FALSE;
    case DLL_PROCESS_DETACH:
      // When the process ends, its other threads were stopped wherever they were: whatever they
      // held stays held, and the system takes everything back anyway.
      if (Terminating == nullptr) velox::FinalizeAll();
      return TRUE;
    case DLL_THREAD_DETACH:
      velox::DropKeptExceptions();
      return TRUE;
    default:
      return TRUE;
  }
}
