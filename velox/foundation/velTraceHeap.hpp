#pragma once

#include <cstdint>

namespace velox {

/// The state of all heaps of the process, in bytes, for the trace log's report when memory runs
/// out.
struct THeapStatus {
  uint64_t TotalAddrSpace = 0;    ///< address space that the heaps have reserved
  uint64_t TotalUncommitted = 0;  ///< of it: without memory behind it
  uint64_t TotalCommitted = 0;    ///< of it: with memory behind it
  uint64_t TotalAllocated = 0;    ///< in blocks in use
  uint64_t TotalFree = 0;         ///< in free blocks
  uint64_t FreeSmall = 0;         ///< in free blocks below 4 KiB
  uint64_t FreeBig = 0;           ///< in the larger free blocks
  uint64_t Unused = 0;            ///< committed, neither in use nor free nor overhead
  uint64_t Overhead = 0;          ///< the heaps' own bookkeeping of blocks in use
  uint64_t HeapErrorCode = 0;     ///< 0 when every heap is intact, else the number of broken ones
};

/// Walks the heaps. Allocates nothing; other threads that allocate wait meanwhile.
THeapStatus GetHeapStatus() noexcept;

}  // namespace velox
