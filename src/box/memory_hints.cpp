#include "box/memory_hints.h"

#include <cstdint>

#if defined(__linux__)
#include <sys/mman.h>
#endif

namespace mp4stbl {

void adviseHugePages(void* data, size_t bytes) {
#if defined(__linux__) && defined(MADV_HUGEPAGE)
  constexpr size_t kHugePage = size_t{2} << 20;
  constexpr uintptr_t kPage = 4096;
  if (data == nullptr || bytes < kHugePage) return;
  // madvise takes whole pages: the part of the block that covers them.
  const auto start = reinterpret_cast<uintptr_t>(data);
  const uintptr_t first = (start + kPage - 1) & ~(kPage - 1);
  const uintptr_t end = (start + bytes) & ~(kPage - 1);
  if (end > first) madvise(reinterpret_cast<void*>(first), end - first, MADV_HUGEPAGE);
#else
  (void)data;
  (void)bytes;
#endif
}

}  // namespace mp4stbl
