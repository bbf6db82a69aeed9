#include "velox/runtime/velCallbackGuard.hpp"

#include <exception>
#include <utility>
#include <vector>

namespace velox {
namespace {

// Oldest first. It nearly always holds at most one.
thread_local std::vector<std::exception_ptr> Kept;

}  // namespace

void KeepCurrentException() noexcept {
  try {
    Kept.push_back(std::current_exception());
  } catch (...) {
    return;
  }
}

bool HasKeptException() noexcept { return !Kept.empty(); }

void RaiseKeptException() {
  if (Kept.empty()) return;
  const std::exception_ptr oldest = std::move(Kept.front());
  Kept.erase(Kept.begin());
  std::rethrow_exception(oldest);
}

}  // namespace velox
