#include "velox/runtime/velComThread.hpp"

#include "velox/runtime/velSystemLibrary.hpp"
#include "velox/runtime/velWindows.hpp"

namespace velox {
namespace {

const TSystemFunction<HRESULT(WINAPI*)(void*, DWORD)> InitializeCom("ole32.dll", "CoInitializeEx");
const TSystemFunction<void(WINAPI*)()> UninitializeCom("ole32.dll", "CoUninitialize");

}  // namespace

TComThread::TComThread() noexcept
    : Initialized_(InitializeCom && SUCCEEDED(InitializeCom(nullptr, COINIT_MULTITHREADED))) {}

TComThread::~TComThread() {
  if (Initialized_) UninitializeCom();
}

}  // namespace velox
