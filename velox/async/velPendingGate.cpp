#include "velox/async/velPendingGate.hpp"

#include <array>
#include <limits>
#include <span>

#include "velox/foundation/velSyncUtils.hpp"
#include "velox/foundation/velSysUtils.hpp"
#include "velox/runtime/velHandle.hpp"
#include "velox/runtime/velSystemLibrary.hpp"

namespace velox {
namespace {

// The word's parts: 24 bits outstanding, 16 bits waiters, 24 bits rounds.
constexpr uint64_t OneWaiter = uint64_t{1} << 24;
constexpr uint64_t OneRound = uint64_t{1} << 40;

uint32_t Outstanding(uint64_t Word) noexcept {
  return static_cast<uint32_t>(Word & (OneWaiter - 1));
}
uint32_t Waiters(uint64_t Word) noexcept { return static_cast<uint32_t>(Word >> 24) & 0xFFFF; }
uint64_t Round(uint64_t Word) noexcept { return Word / OneRound; }

bool HasEnded(HANDLE Thread) noexcept {
  return Thread != nullptr && ::WaitForSingleObject(Thread, 0) == WAIT_OBJECT_0;
}

TSystemFunction<BOOLEAN(NTAPI*)()> ShutdownInProgress("ntdll.dll", "RtlDllShutdownInProgress");

// Whether libraries are being detached because the process ends: its other threads have been ended
// by then, wherever they were.
bool ProcessEnds() noexcept { return ShutdownInProgress && ShutdownInProgress() != FALSE; }

}  // namespace

TPendingGate::~TPendingGate() {
  while (Inside_.load() != 0 && !ProcessEnds()) ::Sleep(0);
  THandle(Semaphore_.load()).Reset();
}

void TPendingGate::Begin() noexcept { Word_.fetch_add(1); }

void TPendingGate::Finish() noexcept {
  uint64_t word = Word_.load();
  uint64_t next;
  do {
    if (Outstanding(word) == 0) return;
    next = Outstanding(word) > 1 ? word - 1 : (Round(word) + 1) * OneRound;
  } while (!Word_.compare_exchange_weak(word, next));
  // Threads that are registered stay until they are released, so the gate is still there.
  if (Outstanding(next) == 0 && Waiters(word) > 0) {
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
bool TPendingGate::Enter(uint64_t& Entry) noexcept {
  Entry = Word_.load();
  do {
    if (Outstanding(Entry) == 0) return false;
  } while (!Word_.compare_exchange_weak(Entry, Entry + OneWaiter));
  return true;
}

// Gives the registration up, when a wait ended otherwise than by the semaphore.
void TPendingGate::Leave(uint64_t Entry) noexcept {
  uint64_t word = Word_.load();
  do {
    if (Round(word) != Round(Entry)) {  // counted: its release is on the way and must be taken
      ::WaitForSingleObject(Semaphore_.load(), INFINITE);
      return;
    }
  } while (!Word_.compare_exchange_weak(word, word - OneWaiter));
}

template <class TWait>
DWORD TPendingGate::WaitWith(HANDLE Thread, bool Alertable, TWait&& WaitFor) {
  const TStay inside(*this);
  uint64_t entry;
  if (!Enter(entry)) return WAIT_OBJECT_0;
  struct TRegistration {
    TPendingGate& Gate;
    uint64_t Entry;
    bool Released = false;
    ~TRegistration() {
      if (!Released) Gate.Leave(Entry);
    }
  } registration{*this, entry};
  const std::array<HANDLE, 2> handles{Semaphore_.load(), Thread};
  for (;;) {
    const DWORD result = WaitFor(std::span(handles.data(), Thread == nullptr ? 1 : 2));
    if (result != WAIT_OBJECT_0) return result;
    if (Round(Word_.load()) != Round(entry)) {
      registration.Released = true;
      return result;
    }
    // Meant for a thread that waited for an earlier round and has not woken yet. That may be this
    // one, further out, so callbacks must run here, too; and as long as it is there the wait tells
    // nothing of the thread.
    ::ReleaseSemaphore(handles[0], 1, nullptr);
    if (HasEnded(Thread)) return WAIT_OBJECT_0 + 1;
    ::SleepEx(1, Alertable ? TRUE : FALSE);
  }
}

// Where the system has no semaphore left, it polls: a run that was requested has been requested,
// and a destructor waits all the same.
template <class TWait, class TPause>
DWORD TPendingGate::WaitOrPoll(HANDLE Thread, bool Alertable, TWait&& WaitFor, TPause&& Pause) {
  if (Outstanding(Word_.load()) == 0) return WAIT_OBJECT_0;
  if (ProcessEnds()) {  // what can still come is this thread's own
    while (Alertable && GetPending() != 0 && ::SleepEx(0, TRUE) == WAIT_IO_COMPLETION) {
    }
    return GetPending() == 0 ? WAIT_OBJECT_0 : WAIT_OBJECT_0 + 1;
  }
  if (MakeSemaphore()) return WaitWith(Thread, Alertable, WaitFor);
  const TStay inside(*this);
  while (GetPending() != 0) {
    if (HasEnded(Thread)) return WAIT_OBJECT_0 + 1;
    Pause();
  }
  return WAIT_OBJECT_0;
}

DWORD TPendingGate::Wait(HANDLE Thread) {
  const auto wait = [](std::span<const HANDLE> Handles) {
    return Handles.size() == 1 ? WaitForSingleObjectAlertable(
                                     Handles[0], "[TAsynchronousCallQueue].[WaitCallSingle]")
                               : WaitForMultipleObjectsAlertable(
                                     Handles, "[TAsynchronousCallQueue].[WaitCallMultiple]");
  };
  return WaitOrPoll(Thread, true, wait, [] { WaitAlertableOnce({}, 1); });
}

DWORD TPendingGate::WaitQuietly(HANDLE Thread) noexcept {
  const auto wait = [](std::span<const HANDLE> Handles) { return WaitAlertableQuietly(Handles); };
  return WaitOrPoll(Thread, true, wait, [] { ::SleepEx(1, TRUE); });
}

DWORD TPendingGate::WaitUnalertably(HANDLE Thread) noexcept {
  const auto wait = [](std::span<const HANDLE> Handles) {
    return ::WaitForMultipleObjects(static_cast<DWORD>(Handles.size()), Handles.data(), FALSE,
                                    INFINITE);
  };
  return WaitOrPoll(Thread, false, wait, [] { ::Sleep(1); });
}

}  // namespace velox
