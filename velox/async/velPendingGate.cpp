#include "velox/async/velPendingGate.hpp"

#include <array>
#include <limits>
#include <span>

#include "velox/foundation/velSyncUtils.hpp"
#include "velox/foundation/velSysUtils.hpp"
#include "velox/runtime/velHandle.hpp"

namespace velox {
namespace {

constexpr uint64_t OneWaiter = uint64_t{1} << 32;

uint32_t Outstanding(uint64_t Word) noexcept { return static_cast<uint32_t>(Word); }
uint32_t Waiters(uint64_t Word) noexcept { return static_cast<uint32_t>(Word >> 32); }

}  // namespace

TPendingGate::~TPendingGate() { THandle(Semaphore_.load()).Reset(); }

void TPendingGate::Begin() noexcept { Word_.fetch_add(1); }

void TPendingGate::Finish() noexcept {
  uint64_t word = Word_.load();
  while (!Word_.compare_exchange_weak(word, Outstanding(word) == 1 ? 0 : word - 1)) {
  }
  // Threads that are registered stay until they are released, so the gate is still there.
  if (Outstanding(word) == 1 && Waiters(word) > 0) {
    ::ReleaseSemaphore(Semaphore_.load(), static_cast<LONG>(Waiters(word)), nullptr);
  }
}

int32_t TPendingGate::GetPending() const noexcept {
  return static_cast<int32_t>(Outstanding(Word_.load()));
}

bool TPendingGate::MakeSemaphore() noexcept {
  if (Semaphore_.load() != nullptr) return true;
  THandle made(::CreateSemaphoreA(nullptr, 0, std::numeric_limits<LONG>::max(), nullptr));
  HANDLE none = nullptr;
  if (made && Semaphore_.compare_exchange_strong(none, made.Get())) made.Release();
  return Semaphore_.load() != nullptr;
}

// Registers the calling thread as waiting. False when nothing is outstanding.
bool TPendingGate::Enter() noexcept {
  uint64_t word = Word_.load();
  do {
    if (Outstanding(word) == 0) return false;
  } while (!Word_.compare_exchange_weak(word, word + OneWaiter));
  return true;
}

// Gives the registration up, when a wait ended otherwise than by the semaphore.
void TPendingGate::Leave() noexcept {
  uint64_t word = Word_.load();
  do {
    if (Waiters(word) ==
        0) {  // a Finish has counted this thread: its release is on the way and must be taken
      ::WaitForSingleObject(Semaphore_.load(), INFINITE);
      return;
    }
  } while (!Word_.compare_exchange_weak(word, word - OneWaiter));
}

template <class TWait>
DWORD TPendingGate::WaitWith(HANDLE Thread, TWait&& WaitFor) {
  if (!Enter()) return WAIT_OBJECT_0;
  struct TRegistration {
    TPendingGate& Gate;
    bool Released = false;
    ~TRegistration() {
      if (!Released) Gate.Leave();
    }
  } registration{*this};
  const std::array<HANDLE, 2> handles{Semaphore_.load(), Thread};
  const DWORD result = WaitFor(std::span(handles.data(), Thread == nullptr ? 1 : 2));
  registration.Released = result == WAIT_OBJECT_0;
  return result;
}

DWORD TPendingGate::Wait(HANDLE Thread) {
  if (Outstanding(Word_.load()) == 0) return WAIT_OBJECT_0;
  if (!MakeSemaphore()) RaiseLastOSError();
  return WaitWith(Thread, [](std::span<const HANDLE> Handles) {
    return Handles.size() == 1 ? WaitForSingleObjectAlertable(Handles[0])
                               : WaitForMultipleObjectsAlertable(Handles);
  });
}

DWORD TPendingGate::WaitQuietly(HANDLE Thread) noexcept {
  if (Outstanding(Word_.load()) == 0) return WAIT_OBJECT_0;
  if (!MakeSemaphore()) {
    // The system has no semaphore left; a destructor waits all the same.
    while (GetPending() != 0) {
      if (Thread != nullptr && ::WaitForSingleObject(Thread, 0) == WAIT_OBJECT_0)
        return WAIT_OBJECT_0 + 1;
      ::SleepEx(1, TRUE);
    }
    return WAIT_OBJECT_0;
  }
  return WaitWith(Thread,
                  [](std::span<const HANDLE> Handles) { return WaitAlertableQuietly(Handles); });
}

}  // namespace velox
