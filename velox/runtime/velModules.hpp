#pragma once

/// What a module does when the library is loaded and unloaded. Each stands in the module's own
/// source; the table in velModules.cpp gives the order. All of them run inside the loader's lock:
/// they start no thread and wait for none.
namespace velox::modules {

/// Returns normally, or raises: loading the library then fails, and the reason is written to the
/// trace log.
void InitializeRuntime();
void FinalizeRuntime() noexcept;
void InitializeCallbackGuard();
void FinalizeCallbackGuard() noexcept;
void FinalizeSyncUtils() noexcept;
void FinalizeModuleInfo() noexcept;
void FinalizeSysInfo() noexcept;
void InitializeTrace();
void FinalizeTrace() noexcept;
void FinalizeReactor() noexcept;
void InitializeUDPChannel();
void FinalizeUDPChannel() noexcept;
void FinalizeHash() noexcept;
void FinalizeMD5() noexcept;

}  // namespace velox::modules
