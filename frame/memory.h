// Advice to the kernel about large blocks of plain records.
#pragma once

#include <cstddef>

namespace zorp {

// Asks for transparent huge pages over a block that is about to be written in full. First
// touch of fresh pages costs more than writing them, and huge pages cut the faults 512-fold.
// Small blocks are left alone; without huge pages the advice is ignored.
void advise_huge_pages(void* block, std::size_t bytes);

}  // namespace zorp
