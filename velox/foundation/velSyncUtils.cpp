#include "velox/foundation/velSyncUtils.hpp"

#include <process.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <memory>
#include <mutex>

#include "velox/foundation/velSysUtils.hpp"
#include "velox/runtime/velCallbackGuard.hpp"
#include "velox/runtime/velModules.hpp"

namespace velox {
namespace {

TSingletonSlot FactorySlot;
std::atomic<TThreadExceptionHook> ExceptionHook{nullptr};

struct TStartRecord {
  TThreadFactory* Factory;
  std::string Name;
  TThreadExecutionRoutine Routine;
  void* Parameter;
};

// Returns the thread's exit code. Whatever escapes the body stops here: behind it are the system's
// frames.
unsigned RunThread(TStartRecord* Start) noexcept {
  const std::unique_ptr<TStartRecord> record(Start);
  try {
    const DWORD id = ::GetCurrentThreadId();
    record->Factory->MapName(id, record->Name);
    record->Routine(record->Parameter);
    record->Factory->UnmapName(id);
    return 0;
  } catch (...) {
    if (const TThreadExceptionHook hook = ExceptionHook.load()) hook(record->Name);
    return 1;
  }
}

// Makes the reason for which _beginthreadex failed the last error. It has told the C runtime alone
// when that keeps one.
void TakeStartError() noexcept {
  const int error = errno;
  if (const unsigned long code = _doserrno; code != 0) {
    ::SetLastError(code);
  } else if (error == ENOMEM) {
    ::SetLastError(ERROR_NOT_ENOUGH_MEMORY);
  }
}

unsigned __stdcall ThreadEntry(void* Start) {
  ::_endthreadex(RunThread(static_cast<TStartRecord*>(Start)));
  return 0;
}

// How a debugger is told a thread's name: this software exception with this record as its
// arguments.
constexpr DWORD ThreadNameException = 0x406D1388;

struct TThreadNameRecord {
  DWORD Type;
  LPCSTR Name;
  DWORD ThreadId;
  DWORD Flags;
};

LONG CALLBACK SwallowThreadName(EXCEPTION_POINTERS* Raised) {
  return Raised->ExceptionRecord->ExceptionCode == ThreadNameException
             ? EXCEPTION_CONTINUE_EXECUTION
             : EXCEPTION_CONTINUE_SEARCH;
}

DWORD SystemWait(std::span<const HANDLE> Handles, DWORD Milliseconds) noexcept {
  switch (Handles.size()) {
    case 0: {
      const DWORD result = ::SleepEx(Milliseconds, TRUE);
      return result == 0 ? WAIT_TIMEOUT : result;
    }
    case 1:
      return ::WaitForSingleObjectEx(Handles[0], Milliseconds, TRUE);
    default:
      return ::WaitForMultipleObjectsEx(static_cast<DWORD>(Handles.size()), Handles.data(), FALSE,
                                        Milliseconds, TRUE);
  }
}

DWORD WaitAlertable(std::span<const HANDLE> Handles) {
  DWORD result;
  do {
    result = WaitAlertableOnce(Handles);
  } while (result == WAIT_IO_COMPLETION);
  if (result == WAIT_FAILED) RaiseLastOSError();
  return result;
}

}  // namespace

// Done once, or a few times at first: no lock is held, since the system takes the loader's
// meanwhile.
void PinLibrary() noexcept {
  static std::atomic<bool> pinned{false};
  if (pinned.load()) return;
  HMODULE self;
  ::GetModuleHandleExA(GET_MODULE_HANDLE_EX_FLAG_PIN | GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS,
                       reinterpret_cast<LPCSTR>(&ThreadEntry), &self);
  pinned.store(true);
}

TThreadFactory* TThreadFactory::GetInstance() {
  return SingletonInstance<TThreadFactory>(FactorySlot);
}

TObject* TThreadFactory::SingletonConstruction() { return new TThreadFactory; }

HANDLE TThreadFactory::CreateThread(const std::string& Name, const TThreadExecutionRoutine& Routine,
                                    void* Parameter, DWORD& ThreadId) {
  PinLibrary();
  std::unique_ptr<TStartRecord> record(new TStartRecord{this, Name, Routine, Parameter});
  // The id is stored where the caller wants it before the thread runs.
  static_assert(sizeof(unsigned) == sizeof(DWORD));
  errno = 0;
  _doserrno = 0;
  const uintptr_t thread = ::_beginthreadex(nullptr, 0, &ThreadEntry, record.get(), 0,
                                            reinterpret_cast<unsigned*>(&ThreadId));
  if (thread == 0) {
    TakeStartError();
    return nullptr;
  }
  record.release();  // the thread's now
  return reinterpret_cast<HANDLE>(thread);
}

void TThreadFactory::MapName(DWORD ThreadId, const std::string& Name) {
  const std::scoped_lock guard(Lock_);
  Names_.emplace_back(Name, ThreadId);
}

void TThreadFactory::UnmapName(DWORD ThreadId) {
  const std::scoped_lock guard(Lock_);
  const auto found = std::ranges::find(Names_, ThreadId, &std::pair<std::string, DWORD>::second);
  if (found != Names_.end()) Names_.erase(found);
}

std::string TThreadFactory::GetThreadName(DWORD ThreadId) {
  const std::scoped_lock guard(Lock_);
  const auto found = std::ranges::find(Names_, ThreadId, &std::pair<std::string, DWORD>::second);
  return found == Names_.end() ? std::string() : found->first;
}

TThreadExceptionHook SetThreadExceptionHook(TThreadExceptionHook Hook) noexcept {
  return ExceptionHook.exchange(Hook);
}

void SetThreadName(const std::string& Name) {
  const TThreadNameRecord record{0x1000, Name.c_str(), 0xFFFFFFFF, 0};
  void* const handler = ::AddVectoredExceptionHandler(1, &SwallowThreadName);
  if (handler == nullptr) return;
  ::RaiseException(ThreadNameException, 0, sizeof record / sizeof(ULONG_PTR),
                   reinterpret_cast<const ULONG_PTR*>(&record));
  ::RemoveVectoredExceptionHandler(handler);
}

DWORD SleepAlertable() {
  DWORD result;
  do {
    result = WaitAlertableOnce({});
  } while (result == WAIT_IO_COMPLETION);
  return result;
}

DWORD WaitForSingleObjectAlertable(HANDLE Handle, std::string_view) {
  return WaitAlertable({&Handle, 1});
}

DWORD WaitForMultipleObjectsAlertable(std::span<const HANDLE> Handles, std::string_view) {
  if (Handles.empty()) RaiseLastOSErrorEx(ERROR_INVALID_PARAMETER);
  return WaitAlertable(Handles);
}

DWORD WaitAlertableOnce(std::span<const HANDLE> Handles, DWORD Milliseconds) {
  RaiseKeptException();
  const DWORD result = SystemWait(Handles, Milliseconds);
  if (result == WAIT_IO_COMPLETION) RaiseKeptException();
  return result;
}

DWORD WaitAlertableQuietly(std::span<const HANDLE> Handles) noexcept {
  DWORD result;
  do {
    result = SystemWait(Handles, INFINITE);
  } while (result == WAIT_IO_COMPLETION);
  return result;
}

HANDLE GetRealCurrentThreadHandle() {
  HANDLE real = nullptr;
  if (!::DuplicateHandle(::GetCurrentProcess(), ::GetCurrentThread(), ::GetCurrentProcess(), &real,
                         0, FALSE, DUPLICATE_SAME_ACCESS)) {
    RaiseLastOSError();
  }
  return real;
}

int64_t GetPerformanceFrequency() noexcept {
  LARGE_INTEGER frequency{};
  ::QueryPerformanceFrequency(&frequency);
  return frequency.QuadPart;
}

int64_t InterlockedCompareExchange64(int64_t& Target, int64_t A, int64_t B) noexcept {
  std::atomic_ref(Target).compare_exchange_strong(A, B);
  return A;
}

int64_t InterlockedExchangeAdd64(int64_t& Target, int64_t Value) noexcept {
  return std::atomic_ref(Target).fetch_add(Value);
}

int64_t InterlockedIncrement64(int64_t& Target, int64_t Value) noexcept {
  return std::atomic_ref(Target) += Value;
}

int64_t InterlockedDecrement64(int64_t& Target, int64_t Value) noexcept {
  return std::atomic_ref(Target) -= Value;
}

int64_t InterlockedAnd64(int64_t& Target, int64_t Value) noexcept {
  int64_t old;
  do {
    old = std::atomic_ref(Target).load();
  } while (InterlockedCompareExchange64(Target, old & Value, Value) != Value);
  return old;
}

int64_t InterlockedOr64(int64_t& Target, int64_t Value) noexcept {
  int64_t old;
  do {
    old = std::atomic_ref(Target).load();
  } while (InterlockedCompareExchange64(Target, old | Value, Value) != Value);
  return old;
}

void modules::FinalizeSyncUtils() noexcept { SingletonDestroy(FactorySlot); }

}  // namespace velox
