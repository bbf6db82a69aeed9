#pragma once

#include <atomic>

#include "velox/runtime/velWindows.hpp"

namespace velox {

/// Loads a library from the system's own folder, so that no file of its name beside the program or
/// in the current folder takes its place, and looks a function up. The library then stays loaded
/// until the process ends. Null, with nothing loaded, when the system does not have the two.
FARPROC FindSystemFunction(const char* Library, const char* Name) noexcept;

/// A function of a system library that is loaded when the function is first called, so that loading
/// this library does not load what the program may never use. Zero-cost to construct; keep it at
/// namespace scope. Thread-safe.
///
///     TSystemFunction<decltype(&::CoInitializeEx)> CoInitialize("ole32.dll", "CoInitializeEx");
///     if (CoInitialize) CoInitialize(nullptr, COINIT_MULTITHREADED);
template <class F>
class TSystemFunction;

/// The one for functions of the system's calling convention; see there.
template <class R, class... Args>
class TSystemFunction<R(WINAPI*)(Args...)> {
 public:
  /// The function's pointer type.
  using TPointer = R(WINAPI*)(Args...);

  /// Names the function; loads nothing yet. The names must live as long as the object: literals do.
  constexpr TSystemFunction(const char* Library, const char* Name) noexcept
      : Library_(Library), Name_(Name) {}

  /// Whether the system has the library and the function.
  explicit operator bool() const noexcept { return Get() != nullptr; }

  /// Calls it. Only when it is there.
  R operator()(Args... Arguments) const { return Get()(Arguments...); }

  /// The function, null when the system does not have it.
  TPointer Get() const noexcept {
    TPointer found = Function_.load(std::memory_order_acquire);
    if (found != nullptr) return found;
    found =
        reinterpret_cast<TPointer>(reinterpret_cast<void*>(FindSystemFunction(Library_, Name_)));
    Function_.store(found, std::memory_order_release);
    return found;
  }

 private:
  const char* Library_;
  const char* Name_;
  mutable std::atomic<TPointer> Function_{nullptr};
};

}  // namespace velox
