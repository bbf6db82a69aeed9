#pragma once

#include "velox/runtime/velWindows.hpp"

namespace velox {

/// Holds a slim lock for reading in its scope: together with any number of readers, without a
/// writer. Not recursive.
struct TForReading {
  /// Waits for the lock.
  explicit TForReading(SRWLOCK& ALock) noexcept : Lock(ALock) { ::AcquireSRWLockShared(&Lock); }
  ~TForReading() { ::ReleaseSRWLockShared(&Lock); }
  TForReading(const TForReading&) = delete;
  TForReading& operator=(const TForReading&) = delete;
  SRWLOCK& Lock;  ///< borrowed
};

/// Holds a slim lock for writing in its scope: alone. Not recursive.
struct TForWriting {
  /// Waits for the lock.
  explicit TForWriting(SRWLOCK& ALock) noexcept : Lock(ALock) { ::AcquireSRWLockExclusive(&Lock); }
  ~TForWriting() { ::ReleaseSRWLockExclusive(&Lock); }
  TForWriting(const TForWriting&) = delete;
  TForWriting& operator=(const TForWriting&) = delete;
  SRWLOCK& Lock;  ///< borrowed
};

}  // namespace velox
