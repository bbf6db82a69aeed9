#include "velox/runtime/velSingleton.hpp"

#include <cstdint>
#include <thread>

namespace velox {
namespace {

TObject* UnderConstruction() noexcept { return reinterpret_cast<TObject*>(uintptr_t{1}); }

}  // namespace

void SingletonCreate(TSingletonSlot& Instance, const TSingletonConstructionRoutine& Construct) {
  for (;;) {
    TObject* found = Instance.load(std::memory_order_acquire);
    if (found == nullptr && Instance.compare_exchange_strong(found, UnderConstruction())) {
      try {
        Instance.exchange(Construct());
      } catch (...) {
        Instance.exchange(nullptr);
        throw;
      }
    } else if (found == UnderConstruction()) {
      while (Instance.load(std::memory_order_acquire) == UnderConstruction())
        std::this_thread::yield();
    } else if (found != nullptr) {
      return;
    }
  }
}

void SingletonDestroy(TSingletonSlot& Instance) noexcept {
  TObject* object = Instance.exchange(nullptr);
  if (object != UnderConstruction()) delete object;
}

}  // namespace velox
