// The constraint sets do not exist yet in this build, so no expression can hold a
// constraint tag: every rule below reduces to "no tag". This file is where the merge,
// scale and freeze rules of declared and classic constraints take over.
#include "constraint/tags.h"

namespace zorp {

bool is_declared_tag(std::uint32_t) { return false; }

void freeze_on_copy(std::uint32_t) {}

std::uint32_t merge_tags(std::uint32_t, const ExprImpl*, std::uint32_t, const ExprImpl*, bool) { return kNoTag; }

std::uint32_t scale_tag(std::uint32_t, std::int64_t) { return kNoTag; }

}  // namespace zorp
