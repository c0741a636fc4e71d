// The model as the library hands it over: objective terms (kept in place), declared
// constraints and the remainder, with a plain evaluator that shares nothing with the search
// state; the energy of the returned best solution is recomputed with it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

#include "common.h"

namespace vell {

struct ConstraintDef {
  std::int64_t weight = 0;
  std::int64_t lower = 0;
  std::int64_t upper = 0;
  std::int64_t constant = 0;
  std::uint32_t exponent = 2;
  std::uint32_t shape = 0;
  std::vector<std::pair<std::int64_t, std::int64_t>> allowed;  // empty: plain bounds
  std::vector<std::uint32_t> vars;
  std::vector<std::int64_t> coeffs;
  std::vector<std::uint64_t> nl_head;  // nl_count + 1 offsets, or empty
  std::vector<std::uint32_t> nl_vars;
  std::vector<std::int64_t> nl_coeffs;

  bool counts_for_feasibility() const { return shape == 0; }
};

// Distance of a body value from the allowed range, with the library's conventions: crossed
// bounds charge both sides, a set takes the nearest interval.
wrap_t bounds_violation(std::int64_t lower, std::int64_t upper, wrap_t body);
wrap_t set_violation(const std::pair<std::int64_t, std::int64_t>* allowed, std::size_t count, wrap_t body);
wrap_t violation(const ConstraintDef& c, wrap_t body);
inline wrap_t penalty_of(wrap_t weight, bool squared, wrap_t v) { return squared ? weight * v * v : weight * v; }
inline wrap_t penalty(const ConstraintDef& c, wrap_t body) {
  return penalty_of(wrap(c.weight), c.exponent == 2, violation(c, body));
}

class Problem {
 public:
  Problem(std::uint32_t var_count, std::uint32_t max_degree, std::int64_t constant,
          const std::uint64_t* const* term_counts, const std::uint32_t* const* term_vars,
          const std::int32_t* const* term_coeffs);

  std::uint32_t var_count() const { return n_; }
  std::uint32_t max_degree() const { return max_degree_; }
  std::int64_t constant() const { return constant_; }
  std::uint64_t term_count(std::uint32_t degree) const { return counts_[degree - 1]; }
  const std::uint32_t* term_vars(std::uint32_t degree) const { return vars_[degree - 1]; }
  const std::int32_t* term_coeffs(std::uint32_t degree) const { return coeffs_[degree - 1]; }

  void add_constraint(ConstraintDef&& c);
  // Shape of the constraint added last; ignored when there is none.
  void set_last_shape(std::uint32_t exponent, std::uint32_t shape);
  void set_remainder(std::int64_t constant, std::uint64_t term_count, const std::uint64_t* head,
                     const std::uint32_t* vars, const std::int32_t* coeffs);

  const std::vector<ConstraintDef>& constraints() const { return cons_; }
  bool has_remainder() const { return has_remainder_; }
  // Bumped by every change after creation, so that a cached search form can notice.
  std::uint64_t revision() const { return revision_; }

  // x holds one byte per variable (0 or 1).
  wrap_t energy(const std::uint8_t* x) const;
  wrap_t remainder_value(const std::uint8_t* x) const;

 private:
  std::uint32_t n_;
  std::uint32_t max_degree_;
  std::int64_t constant_;
  std::vector<std::uint64_t> counts_;
  std::vector<const std::uint32_t*> vars_;
  std::vector<const std::int32_t*> coeffs_;
  std::vector<ConstraintDef> cons_;
  bool has_remainder_ = false;
  std::int64_t rem_constant_ = 0;
  std::vector<std::uint64_t> rem_head_;
  std::vector<std::uint32_t> rem_vars_;
  std::vector<std::int64_t> rem_coeffs_;
  std::uint64_t revision_ = 0;

  wrap_t objective_terms(const std::uint8_t* x) const;
  wrap_t body(const ConstraintDef& c, const std::uint8_t* x) const;
};

}  // namespace vell
