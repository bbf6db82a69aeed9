#pragma once

#include "velox/runtime/velWindows.hpp"

namespace velox {

/// A recursive lock of this process. Used through std::scoped_lock, which its lower-case names are
/// for.
class TCriticalSection {
 public:
  /// Held by no thread.
  TCriticalSection() noexcept { ::InitializeCriticalSection(&Section_); }
  ~TCriticalSection() { ::DeleteCriticalSection(&Section_); }
  TCriticalSection(const TCriticalSection&) = delete;
  TCriticalSection& operator=(const TCriticalSection&) = delete;

  /// As std::scoped_lock and its like call them.
  void lock() noexcept { ::EnterCriticalSection(&Section_); }
  bool try_lock() noexcept { return ::TryEnterCriticalSection(&Section_) != FALSE; }
  void unlock() noexcept { ::LeaveCriticalSection(&Section_); }

 private:
  CRITICAL_SECTION Section_;
};

}  // namespace velox
