// The interval of values an expression can reach over 0/1 literals and atom bounds.
#pragma once

#include <cstdint>
#include <utility>

#include "algebra/expr.h"

namespace zorp {

// Simplified as binary first; each term is bounded by interval products, and the term
// intervals are summed. Aborts on an unknown atom.
std::pair<std::int64_t, std::int64_t> reachable_bounds(const ExprImpl& e);

}  // namespace zorp
