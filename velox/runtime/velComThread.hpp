#pragma once

#include "velox/runtime/velCompiler.hpp"

namespace velox {

/// COM on the calling thread, as multithreaded, for the life of this object.
class VELOX_API TComThread {
 public:
  /// Initialises COM on the thread, unless that was done in another way.
  TComThread() noexcept;
  ~TComThread();
  TComThread(const TComThread&) = delete;
  TComThread& operator=(const TComThread&) = delete;

 private:
  bool Initialized_;
};

}  // namespace velox
