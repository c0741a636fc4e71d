#include "frame/memory.h"

#include <malloc.h>
#include <sys/mman.h>

#include <cstdint>

namespace zorp {

namespace {
constexpr std::size_t kHugePage = std::size_t{2} << 20;
constexpr std::size_t kSmallPage = 4096;
}

void advise_huge_pages(void* block, std::size_t bytes) {
#if defined(MADV_HUGEPAGE)
  // Below a few huge pages the advice is not worth a system call.
  if (bytes < 4 * kHugePage) return;
  // The range is widened to whole small pages, not narrowed to huge ones: a large block is a
  // mapping of its own, and advice over all of it leaves it one mapping that realloc can
  // still move with mremap. Advice over part of it would split it, and every later growth
  // would fall back to copying.
  const auto first = reinterpret_cast<std::uintptr_t>(block);
  const std::uintptr_t begin = first & ~(kSmallPage - 1);
  const std::uintptr_t end = (first + bytes + kSmallPage - 1) & ~(kSmallPage - 1);
  madvise(reinterpret_cast<void*>(begin), end - begin, MADV_HUGEPAGE);
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
