// SimplePool.cpp: the one platform call of the block pools, kept out of the
// header so that the header compiles on any system.
#include "SimplePool.h"

#include <cstdint>

#if defined(__linux__)
#include <sys/mman.h>
#endif

namespace BRIX_TOOLS {

// Large blocks are filled front to back, so transparent huge pages save most
// of the page faults of first touch, which dominate the system time of a
// large triangulation. Only the whole huge pages inside the block are
// advised, and only for blocks of at least four of them. Where the system
// has no such hint, nothing happens.
void adviseHugePages(void* p, size_t bytes) {
#if defined(MADV_HUGEPAGE)
  const uintptr_t hugePage = uintptr_t(1) << 21;
  if (bytes < 4 * hugePage) return;
  const uintptr_t lo = (reinterpret_cast<uintptr_t>(p) + hugePage - 1) & ~(hugePage - 1);
  const uintptr_t hi = (reinterpret_cast<uintptr_t>(p) + bytes) & ~(hugePage - 1);
  if (hi > lo) madvise(reinterpret_cast<void*>(lo), hi - lo, MADV_HUGEPAGE);
#else
  (void)p;
  (void)bytes;
#endif
}

} // namespace BRIX_TOOLS
