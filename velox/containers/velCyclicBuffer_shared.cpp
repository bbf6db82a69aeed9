#include "velox/containers/velCyclicBuffer.hpp"
#include "velox/foundation/velSysUtils.hpp"
#include "velox/runtime/velException.hpp"
#include "velox/runtime/velMessages.hpp"
#include "velox/runtime/velWindows.hpp"

namespace velox {
namespace {

/// Bytes that are mapped from View on.
size_t MappedBytes(const void* View) {
  MEMORY_BASIC_INFORMATION information{};
  if (::VirtualQuery(View, &information, sizeof information) == 0) RaiseLastOSError();
  return information.RegionSize;
}

}  // namespace

TSharedMemBuffer::~TSharedMemBuffer() { ReleaseMemory(); }

void TSharedMemBuffer::CreateMemory(int32_t Size) {
  if (Memory_ != nullptr) throw Exception("Already Allocated");
  if (GetCreateNew() && (Size < 0 || Size > INT32_MAX - HeaderSize)) {
    throw Exception(messages::seIncorrectParameters);
  }
  ReleaseMemory();  // what a failed attempt has left
  const int32_t length = GetCreateNew() ? Size + HeaderSize : 0;
  OpenMapping(length);
  Memory_ = ::MapViewOfFile(Mapping_, FILE_MAP_ALL_ACCESS, 0, 0, static_cast<SIZE_T>(length));
  if (Memory_ == nullptr) RaiseLastOSError();
  Mutex_ = ::CreateMutexA(nullptr, FALSE, (MemoryName_ + "Mutex").c_str());
  if (Mutex_ == nullptr) RaiseLastOSError();
  const size_t mapped = GetCreateNew() ? static_cast<size_t>(length) : MappedBytes(Memory_);
  Attach(Memory_, length, static_cast<ptrdiff_t>(mapped) - HeaderSize);
}

void TSharedMemBuffer::OpenMapping(int32_t Length) {
  Mapping_ = GetCreateNew() ? ::CreateFileMappingA(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0,
                                                   static_cast<DWORD>(Length), MemoryName_.c_str())
                            : ::OpenFileMappingA(FILE_MAP_ALL_ACCESS, FALSE, MemoryName_.c_str());
  if (Mapping_ == nullptr) RaiseLastOSError();
}

void TSharedMemBuffer::ReleaseMemory() noexcept {
  if (Mutex_ != nullptr) {
    // A lock that is still held would stay so for the other process, until this thread ends.
    if (Owner_ == ::GetCurrentThreadId()) ::ReleaseMutex(Mutex_);
    ::CloseHandle(Mutex_);
    Mutex_ = nullptr;
  }
  Owner_ = 0;
  Depth_ = 0;
  if (Memory_ != nullptr) {
    Attach(nullptr, 0, 0);
    ::UnmapViewOfFile(Memory_);
    Memory_ = nullptr;
  }
  if (Mapping_ != nullptr) {
    ::CloseHandle(Mapping_);
    Mapping_ = nullptr;
  }
}

void TSharedMemBuffer::Lock() {
  if (Mutex_ == nullptr) return;
  const DWORD self = ::GetCurrentThreadId();
  if (Owner_.load(std::memory_order_relaxed) != self) {
    // An abandoned mutex is acquired all the same. Its last owner may have left a depth.
    if (::WaitForSingleObject(Mutex_, INFINITE) == WAIT_FAILED) RaiseLastOSError();
    Owner_.store(self, std::memory_order_relaxed);
    Depth_ = 0;
  }
  ++Depth_;
}

void TSharedMemBuffer::Unlock() {
  if (Mutex_ == nullptr || Owner_.load(std::memory_order_relaxed) != ::GetCurrentThreadId()) return;
  if (--Depth_ > 0) return;
  Owner_.store(0, std::memory_order_relaxed);
  ::ReleaseMutex(Mutex_);
}

}  // namespace velox
