#include "velox/channels/velPendingRequest.hpp"

#include <algorithm>
#include <vector>

#include "velox/foundation/velSyncUtils.hpp"
#include "velox/runtime/velSharedLock.hpp"

namespace velox {
namespace {

// Guards the lists' members and, in every request, Orphaned and Unclaimed_.
SRWLOCK OrphansLock = SRWLOCK_INIT;
std::vector<TPendingRequest*> Orphans;  // given up, not ended
size_t OrphansLimit = 16;               // how many there may be before the forsaken are looked for

}  // namespace

void TPendingRequest::PrepareRequest() {
  Overlapped = {};
  Overlapped.hEvent = this;
  if (ThreadId_ == ::GetCurrentThreadId()) return;
  Thread_ = THandle(GetRealCurrentThreadHandle());
  ThreadId_ = ::GetCurrentThreadId();
}

bool TPendingRequest::IsForsaken() const noexcept {
  return Pending && ::WaitForSingleObject(Thread_.Get(), 0) == WAIT_OBJECT_0;
}

bool TPendingRequest::Leave(bool Unclaimed) noexcept {
  {
    const TForWriting guard(OrphansLock);
    if (!Orphaned) {
      Unclaimed_ = Unclaimed;
      return false;
    }
    std::erase(Orphans, this);
  }
  delete this;
  return true;
}

/// When the thread that should be told of the request's end has ended, the system has ended the
/// request with it.
void TPendingRequest::Orphan() noexcept {
  if (!Pending || IsForsaken()) return delete this;
  std::vector<TPendingRequest*> done;
  {
    const TForWriting guard(OrphansLock);
    if (Unclaimed_) {
      done.push_back(this);
    } else {
      Orphaned = true;
      Orphans.push_back(this);
    }
    if (Orphans.size() > OrphansLimit) {
      const auto forsaken = std::partition(Orphans.begin(), Orphans.end(),
                                           [](auto* Request) { return !Request->IsForsaken(); });
      done.insert(done.end(), forsaken, Orphans.end());
      Orphans.erase(forsaken, Orphans.end());
      OrphansLimit = Orphans.size() * 2 + 16;
    }
  }
  for (TPendingRequest* request : done) delete request;
}

}  // namespace velox
