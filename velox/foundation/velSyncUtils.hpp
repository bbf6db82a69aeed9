#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "velox/runtime/velCriticalSection.hpp"
#include "velox/runtime/velMethod.hpp"
#include "velox/runtime/velObject.hpp"
#include "velox/runtime/velSingleton.hpp"
#include "velox/runtime/velWindows.hpp"

/// Named threads, alertable waits and 64-bit interlocked arithmetic. (SingletonCreate comes with
/// velSingleton.hpp.)
namespace velox {

/// The body of a thread; it is given the parameter that the thread was started with.
using TThreadExecutionRoutine = TMethod<void(void* AParameter)>;

/// Starts threads and knows the names of those that run.
///
///     DWORD id;
///     THandle thread(TThreadFactory::GetInstance()->CreateThread(
///         "Reader", TThreadExecutionRoutine::Bind<&TReader::Execute>(this), nullptr, id));
///
/// Threads: every operation may be called from any thread.
class VELOX_API TThreadFactory : public TObject {
 public:
  /// The one of the process, made on first use by SingletonConstruction.
  static TThreadFactory* GetInstance();
  static TObject* SingletonConstruction();

  /// Starts a thread that is known by Name until it ends. It runs at once, with the default stack.
  /// Returns its handle, which the caller closes, and its id; null (see GetLastError) when the
  /// system starts no more threads.
  ///
  /// An exception that escapes Routine ends that thread alone, with exit code 1: it is written to
  /// the trace log and the name stays in the table. A thread that ends in order has exit code 0.
  /// The first thread started keeps this library loaded until the process ends.
  HANDLE CreateThread(const std::string& Name, const TThreadExecutionRoutine& Routine,
                      void* Parameter, DWORD& ThreadId);

  /// Adds a name for a thread, whoever started it. A thread may have several: the oldest counts.
  void MapName(DWORD ThreadId, const std::string& Name);
  /// Removes the oldest name of a thread; does nothing when it has none.
  void UnmapName(DWORD ThreadId);
  /// The oldest name of a thread, empty when it has none.
  std::string GetThreadName(DWORD ThreadId);

 private:
  std::vector<std::pair<std::string, DWORD>> Names_;
  TCriticalSection Lock_;  // guards Names_
};

/// Called on a thread of the factory whose body raised, inside the handler of that exception.
using TThreadExceptionHook = void (*)(const std::string& ThreadName) noexcept;
/// Sets the one hook, null for none; returns the one before. The trace log sets it when the library
/// is loaded.
VELOX_API TThreadExceptionHook SetThreadExceptionHook(TThreadExceptionHook Hook) noexcept;

/// Keeps this library loaded until the process ends, for whoever gives the system an address in it.
/// Starting a thread and queueing an APC do so by themselves.
VELOX_API void PinLibrary() noexcept;

/// Tells a debugger the calling thread's name; without one it does nothing.
VELOX_API void SetThreadName(const std::string& Name);

// ------------------------------------------------------------------------------- alertable waits
// User APCs and I/O completion routines of the calling thread run during these waits, and the wait
// goes on afterwards. An exception that escaped such a callback is raised by the wait (see
// velCallbackGuard.hpp); one left over from an earlier wait is raised at once, before waiting. The
// text names the wait for a reader of the source; it has no effect.

/// Sleeps for ever, running APCs. It ends only by an exception that escapes one of them.
VELOX_API DWORD SleepAlertable();

/// Waits without limit. Returns WAIT_OBJECT_0, or WAIT_ABANDONED_0 for a mutex whose owner ended.
/// Raises EOSError when the wait fails, say for a handle that is none.
VELOX_API DWORD WaitForSingleObjectAlertable(HANDLE Handle, std::string_view Text = {});

/// The same for any one of up to 64 handles: WAIT_OBJECT_0 (or WAIT_ABANDONED_0) plus the index of
/// the first signalled.
VELOX_API DWORD WaitForMultipleObjectsAlertable(std::span<const HANDLE> Handles,
                                                std::string_view Text = {});

/// One alertable wait, for loops that look at every result themselves: also returns
/// WAIT_IO_COMPLETION after callbacks ran, WAIT_TIMEOUT and WAIT_FAILED. Without handles it sleeps.
/// Raises only what a callback let escape.
VELOX_API DWORD WaitAlertableOnce(std::span<const HANDLE> Handles, DWORD Milliseconds = INFINITE);

/// The wait of destructors: raises nothing. Exceptions of callbacks stay kept for the thread's next
/// wait. Returns WAIT_FAILED when the wait fails.
VELOX_API DWORD WaitAlertableQuietly(std::span<const HANDLE> Handles) noexcept;

// ------------------------------------------------------------------- the calling thread, the clock

/// A handle of the calling thread that other threads can use, for instance to queue APCs to it. The
/// caller closes it. Raises EOSError when the system has none left.
VELOX_API HANDLE GetRealCurrentThreadHandle();

/// Counts per second of the high-resolution counter (QueryPerformanceCounter).
VELOX_API int64_t GetPerformanceFrequency() noexcept;

// ------------------------------------------------------------------------ interlocked operations
// Atomic operations on a 64-bit integer, sequentially consistent.

/// If Target equals A, stores B. Returns what Target held. Mind the order: compared first, stored
/// second.
VELOX_API int64_t InterlockedCompareExchange64(int64_t& Target, int64_t A, int64_t B) noexcept;
/// Adds; returns the value before.
VELOX_API int64_t InterlockedExchangeAdd64(int64_t& Target, int64_t Value) noexcept;
/// Adds Value (not one); returns the value after.
VELOX_API int64_t InterlockedIncrement64(int64_t& Target, int64_t Value) noexcept;
/// Subtracts Value (not one); returns the value after.
VELOX_API int64_t InterlockedDecrement64(int64_t& Target, int64_t Value) noexcept;
/// Waits until Target is a subset of Value's bits ((Target and Value) = Target) or equals Value,
/// then stores Value. It spins meanwhile: another thread has to make the condition true. Returns
/// what Target held before.
VELOX_API int64_t InterlockedAnd64(int64_t& Target, int64_t Value) noexcept;
/// The same with a superset: (Target or Value) = Target.
VELOX_API int64_t InterlockedOr64(int64_t& Target, int64_t Value) noexcept;

}  // namespace velox
