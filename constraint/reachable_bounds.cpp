#include "constraint/reachable_bounds.h"

#include <algorithm>

#include "algebra/merge.h"
#include "constraint/int_var_registry.h"
#include "frame/fatal.h"

namespace zorp {

std::pair<std::int64_t, std::int64_t> reachable_bounds(const ExprImpl& e) {
  // Simplified straight from `e`: a copy of a tagged value would freeze its constraint sum
  // and end in-place growth for a mere query.
  const ExprImpl simplified = expr_simplify_as_binary(e);
  auto lo = static_cast<std::int64_t>(simplified.constant), hi = lo;
  simplified.for_each_term([&](const TermImpl& t) {
    if (t.coefficient == 0) return;
    std::int64_t term_lo = t.coefficient, term_hi = t.coefficient;
    for (unsigned k = 0; k < MAXDEG && t.vars.slot[k] != kNoVar; ++k) {
      std::int64_t range_lo = 0, range_hi = 1;
      if (is_int_atom(t.vars.slot[k])) {
        const IntVarBlock* block = IntVarRegistry::instance().find(t.vars.slot[k]);
        if (block == nullptr) fatal("reachable bounds: unknown integer variable");
        range_lo = block->lo;
        range_hi = block->hi;
      }
      const std::int64_t corners[4] = {wrapping_mul(term_lo, range_lo), wrapping_mul(term_lo, range_hi),
                                       wrapping_mul(term_hi, range_lo), wrapping_mul(term_hi, range_hi)};
      term_lo = *std::min_element(corners, corners + 4);
      term_hi = *std::max_element(corners, corners + 4);
    }
    lo = wrapping_add(lo, term_lo);
    hi = wrapping_add(hi, term_hi);
  });
  return {lo, hi};
}

}  // namespace zorp
