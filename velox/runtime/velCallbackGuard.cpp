#include "velox/runtime/velCallbackGuard.hpp"

#include <exception>
#include <list>
#include <memory>
#include <utility>

#include "velox/runtime/velException.hpp"
#include "velox/runtime/velModules.hpp"
#include "velox/runtime/velSystemMessage.hpp"
#include "velox/runtime/velWindows.hpp"

namespace velox {
namespace {

using TKept = std::list<std::exception_ptr>;  // oldest first; never empty

// The calling thread's list stands in a slot of the system's, null while there is nothing to keep.
// A thread_local object would be destroyed too late here: the compiler's storage for it goes before
// its destructor runs.
DWORD Slot = TLS_OUT_OF_INDEXES;

TKept* Find() noexcept { return static_cast<TKept*>(::TlsGetValue(Slot)); }

}  // namespace

void KeepCurrentException() noexcept {
  try {
    if (TKept* const kept = Find()) {
      kept->push_back(std::current_exception());
      return;
    }
    auto first = std::make_unique<TKept>(1, std::current_exception());
    if (::TlsSetValue(Slot, first.get())) first.release();  // the slot's now
  } catch (...) {
    return;
  }
}

bool HasKeptException() noexcept { return Find() != nullptr; }

void RaiseKeptException() {
  TKept* const kept = Find();
  if (kept == nullptr) return;
  const std::exception_ptr oldest = std::move(kept->front());
  kept->pop_front();
  if (kept->empty()) DropKeptExceptions();
  std::rethrow_exception(oldest);
}

void DropKeptExceptions() noexcept {
  const std::unique_ptr<TKept> kept(Find());
  if (kept != nullptr) ::TlsSetValue(Slot, nullptr);
}

TCallbackScope::TCallbackScope() noexcept : Outer_(Find()) {
  if (Outer_ != nullptr) ::TlsSetValue(Slot, nullptr);
}

TCallbackScope::~TCallbackScope() {
  if (Outer_ == nullptr) return;
  auto* const outer = static_cast<TKept*>(Outer_);
  const std::unique_ptr<TKept> inner(Find());
  if (inner != nullptr) outer->splice(outer->end(), *inner);
  ::TlsSetValue(Slot, outer);
}

void modules::InitializeCallbackGuard() {
  Slot = ::TlsAlloc();
  if (Slot == TLS_OUT_OF_INDEXES)
    throw EOSError(SystemErrorMessage(::GetLastError()), ::GetLastError());
}

void modules::FinalizeCallbackGuard() noexcept {
  DropKeptExceptions();
  ::TlsFree(Slot);
  Slot = TLS_OUT_OF_INDEXES;
}

}  // namespace velox
