#pragma once

#include "velox/runtime/velWindows.hpp"

namespace velox {

/// Scoped guards of a slim lock: any number of readers, or one writer. Not recursive.
struct TForReading {
  explicit TForReading(SRWLOCK& ALock) noexcept : Lock(ALock) { ::AcquireSRWLockShared(&Lock); }
  ~TForReading() { ::ReleaseSRWLockShared(&Lock); }
  TForReading(const TForReading&) = delete;
  TForReading& operator=(const TForReading&) = delete;
  SRWLOCK& Lock;
};

struct TForWriting {
  explicit TForWriting(SRWLOCK& ALock) noexcept : Lock(ALock) { ::AcquireSRWLockExclusive(&Lock); }
  ~TForWriting() { ::ReleaseSRWLockExclusive(&Lock); }
  TForWriting(const TForWriting&) = delete;
  TForWriting& operator=(const TForWriting&) = delete;
  SRWLOCK& Lock;
};

}  // namespace velox
