#include "frame/memory.h"

#include <malloc.h>
#include <sys/mman.h>

#include <cstdint>

namespace zorp {

namespace {
constexpr std::size_t kHugePage = std::size_t{2} << 20;
}

void advise_huge_pages(void* block, std::size_t bytes) {
#if defined(MADV_HUGEPAGE)
  // Below a few huge pages the advice is not worth a system call.
  if (bytes < 4 * kHugePage) return;
  const auto first = reinterpret_cast<std::uintptr_t>(block);
  const std::uintptr_t begin = (first + kHugePage - 1) & ~(kHugePage - 1);
  const std::uintptr_t end = (first + bytes) & ~(kHugePage - 1);
  if (end > begin) madvise(reinterpret_cast<void*>(begin), end - begin, MADV_HUGEPAGE);
#else
  (void)block;
  (void)bytes;
#endif
}

void prefer_mapped_large_blocks(std::size_t bytes) {
  constexpr std::size_t kThreshold = std::size_t{4} << 20;
  if (bytes < kThreshold) return;
  // Once per process, and only when a caller first builds something this large.
  static const bool applied = mallopt(M_MMAP_THRESHOLD, static_cast<int>(kThreshold)) == 1;
  (void)applied;
}

}  // namespace zorp
