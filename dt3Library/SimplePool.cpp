// SimplePool.cpp: the pool's one call into the operating system.
#include "SimplePool.h"

#if defined(__linux__)
#include <sys/mman.h>
#endif

namespace BRIX_TOOLS {

void prefaultPages(void* p, size_t bytes) {
#if defined(__linux__) && defined(MADV_POPULATE_WRITE)
  // Whole pages only; a kernel without the call answers EINVAL, which is
  // harmless: the pages then fault in on first touch.
  const uintptr_t page = 4096;
  const uintptr_t lo = (reinterpret_cast<uintptr_t>(p) + page - 1) & ~(page - 1);
  const uintptr_t hi = (reinterpret_cast<uintptr_t>(p) + bytes) & ~(page - 1);
  if (hi > lo) madvise(reinterpret_cast<void*>(lo), hi - lo, MADV_POPULATE_WRITE);
#else
  (void)p;
  (void)bytes;
#endif
}

} // namespace BRIX_TOOLS
