#pragma once

#include <atomic>

#include "velox/runtime/velCompiler.hpp"
#include "velox/runtime/velMethod.hpp"
#include "velox/runtime/velObject.hpp"

namespace velox {

/// Makes the one object of a class.
using TSingletonConstructionRoutine = TMethod<TObject*()>;

/// Where a class keeps its one object: null, the mark "under construction", or the object.
/// Zero-initialised, at namespace scope in the class's own source.
using TSingletonSlot = std::atomic<TObject*>;

/// Makes sure that Instance holds an object; on return it does. Any number of threads may call at
/// once: one of them runs Construct, the others yield until it is done. No lock is involved, so it
/// works before any lock exists. When Construct raises, the exception reaches the thread that ran
/// it, and the next caller constructs anew.
VELOX_API void SingletonCreate(TSingletonSlot& Instance,
                               const TSingletonConstructionRoutine& Construct);

/// The body of every GetInstance: the slot's object, made on first use by the class's own
/// SingletonConstruction.
template <class T>
T* SingletonInstance(TSingletonSlot& Slot) {
  SingletonCreate(Slot, TSingletonConstructionRoutine::Bind<&T::SingletonConstruction>());
  return static_cast<T*>(Slot.load(std::memory_order_acquire));
}

/// Frees the object of a slot and empties it. For the finalisation of the library, when no other
/// thread uses it.
VELOX_API void SingletonDestroy(TSingletonSlot& Instance) noexcept;

}  // namespace velox
