#include "velox/foundation/velTraceHeap.hpp"

#include <algorithm>

#include "velox/runtime/velWindows.hpp"

namespace velox {
namespace {

constexpr DWORD SmallBlock = 4096;  // bytes
constexpr DWORD MostHeaps = 256;

// Where the blocks that follow a region's entry lie; large ones come last and lie elsewhere.
struct TRegion {
  const void* Begin = nullptr;
  const void* End = nullptr;
  bool Holds(const void* Block) const noexcept { return Begin <= Block && Block < End; }
};

void AddEntry(const PROCESS_HEAP_ENTRY& Entry, TRegion& Region, THeapStatus& Status) noexcept {
  if (Entry.wFlags & PROCESS_HEAP_REGION) {
    Region = {Entry.lpData, Entry.Region.lpLastBlock};
    Status.TotalCommitted += Entry.Region.dwCommittedSize;
    Status.TotalUncommitted += Entry.Region.dwUnCommittedSize;
  } else if (Entry.wFlags & PROCESS_HEAP_ENTRY_BUSY) {
    Status.TotalAllocated += Entry.cbData;
    Status.Overhead += Entry.cbOverhead;
    if (!Region.Holds(Entry.lpData)) Status.TotalCommitted += Entry.cbData + Entry.cbOverhead;
  } else if (!(Entry.wFlags & PROCESS_HEAP_UNCOMMITTED_RANGE)) {
    (Entry.cbData < SmallBlock ? Status.FreeSmall : Status.FreeBig) += Entry.cbData;
  }
}

void AddHeap(HANDLE Heap, THeapStatus& Status) noexcept {
  if (!::HeapValidate(Heap, 0, nullptr)) {
    ++Status.HeapErrorCode;
    return;
  }
  if (!::HeapLock(Heap)) return;
  PROCESS_HEAP_ENTRY entry{};
  TRegion region;
  while (::HeapWalk(Heap, &entry)) AddEntry(entry, region, Status);
  ::HeapUnlock(Heap);
}

}  // namespace

THeapStatus GetHeapStatus() noexcept {
  THeapStatus status;
  HANDLE heaps[MostHeaps] = {};
  DWORD count = ::GetProcessHeaps(MostHeaps, heaps);
  if (count > MostHeaps) {  // the list may not have been filled
    heaps[0] = ::GetProcessHeap();
    count = 1;
  }
  for (DWORD i = 0; i < count; ++i) AddHeap(heaps[i], status);
  status.TotalAddrSpace = status.TotalCommitted + status.TotalUncommitted;
  status.TotalFree = status.FreeSmall + status.FreeBig;
  const uint64_t known = status.TotalAllocated + status.TotalFree + status.Overhead;
  status.Unused = status.TotalCommitted - std::min(status.TotalCommitted, known);
  return status;
}

}  // namespace velox
