// Advice to the kernel about large blocks of plain records.
#pragma once

#include <cstddef>

namespace zorp {

// Asks for transparent huge pages over a block that is about to be written in full. First
// touch of fresh pages costs more than writing them, and huge pages cut the faults 512-fold.
// Small blocks are left alone; without huge pages the advice is ignored.
void advise_huge_pages(void* block, std::size_t bytes);

// Called before a large block is allocated or grown. Expressions grow their term block to
// exact sizes, append after append; once malloc's adaptive threshold has moved large blocks
// onto the heap, each growth becomes a copy into fresh pages. Fixing the threshold keeps
// blocks of a few MiB and up in their own mappings, which realloc moves without copying.
void prefer_mapped_large_blocks(std::size_t bytes);

}  // namespace zorp
