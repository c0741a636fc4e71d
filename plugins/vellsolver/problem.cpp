#include "problem.h"

#include <algorithm>

namespace vell {

namespace {

bool literal_true(const std::uint8_t* x, std::uint32_t lit) { return (x[lit_var(lit)] != 0) != lit_neg(lit); }

bool product_true(const std::uint8_t* x, const std::uint32_t* lits, std::uint64_t count) {
  for (std::uint64_t k = 0; k < count; ++k)
    if (!literal_true(x, lits[k])) return false;
  return true;
}

wrap_t interval_distance(wrap_t value, std::int64_t lo, std::int64_t hi) {
  if (sgn(value) < lo) return wrap(lo) - value;
  if (sgn(value) > hi) return value - wrap(hi);
  return 0;
}

}  // namespace

wrap_t bounds_violation(std::int64_t lower, std::int64_t upper, wrap_t body) {
  wrap_t v = 0;
  if (sgn(body) < lower) v += wrap(lower) - body;
  if (sgn(body) > upper) v += body - wrap(upper);
  return v;
}

wrap_t set_violation(const std::pair<std::int64_t, std::int64_t>* allowed, std::size_t count, wrap_t body) {
  wrap_t best = interval_distance(body, allowed[0].first, allowed[0].second);
  for (std::size_t i = 1; i < count && best != 0; ++i)
    best = wrap(std::min(sgn(best), sgn(interval_distance(body, allowed[i].first, allowed[i].second))));
  return best;
}

wrap_t violation(const ConstraintDef& c, wrap_t body) {
  if (!c.allowed.empty()) return set_violation(c.allowed.data(), c.allowed.size(), body);
  return bounds_violation(c.lower, c.upper, body);
}

Problem::Problem(std::uint32_t var_count, std::uint32_t max_degree, std::int64_t constant,
                 const std::uint64_t* const* term_counts, const std::uint32_t* const* term_vars,
                 const std::int32_t* const* term_coeffs)
    : n_(var_count), max_degree_(max_degree), constant_(constant) {
  counts_.assign(max_degree, 0);
  vars_.assign(max_degree, nullptr);
  coeffs_.assign(max_degree, nullptr);
  for (std::uint32_t d = 0; d < max_degree; ++d) {
    if (term_counts && term_counts[d]) counts_[d] = *term_counts[d];
    if (counts_[d] == 0) continue;
    vars_[d] = term_vars[d];
    coeffs_[d] = term_coeffs[d];
  }
}

void Problem::add_constraint(ConstraintDef&& c) {
  cons_.push_back(std::move(c));
  ++revision_;
}

void Problem::set_last_shape(std::uint32_t exponent, std::uint32_t shape) {
  if (cons_.empty()) return;
  cons_.back().exponent = exponent;
  cons_.back().shape = shape;
  ++revision_;
}

void Problem::set_remainder(std::int64_t constant, std::uint64_t term_count, const std::uint64_t* head,
                            const std::uint32_t* vars, const std::int32_t* coeffs) {
  has_remainder_ = true;
  rem_constant_ = constant;
  if (term_count == 0 || !head) {
    rem_head_.assign(1, 0);
    rem_vars_.clear();
    rem_coeffs_.clear();
  } else {
    rem_head_.assign(head, head + term_count + 1);
    for (auto& off : rem_head_) off -= head[0];
    rem_vars_.assign(vars + head[0], vars + head[term_count]);
    rem_coeffs_.assign(coeffs, coeffs + term_count);
  }
  ++revision_;
}

wrap_t Problem::objective_terms(const std::uint8_t* x) const {
  wrap_t total = 0;
  for (std::uint32_t d = 1; d <= max_degree_; ++d) {
    const std::uint64_t count = counts_[d - 1];
    const std::uint32_t* lits = vars_[d - 1];
    const std::int32_t* coeffs = coeffs_[d - 1];
    for (std::uint64_t t = 0; t < count; ++t)
      if (product_true(x, lits + t * d, d)) total += wrap(coeffs[t]);
  }
  return total;
}

wrap_t Problem::body(const ConstraintDef& c, const std::uint8_t* x) const {
  wrap_t b = wrap(c.constant);
  for (std::size_t j = 0; j < c.vars.size(); ++j)
    if (literal_true(x, c.vars[j])) b += wrap(c.coeffs[j]);
  for (std::size_t t = 0; t < c.nl_coeffs.size(); ++t)
    if (product_true(x, c.nl_vars.data() + c.nl_head[t], c.nl_head[t + 1] - c.nl_head[t])) b += wrap(c.nl_coeffs[t]);
  return b;
}

wrap_t Problem::remainder_value(const std::uint8_t* x) const {
  wrap_t r = wrap(rem_constant_);
  for (std::size_t t = 0; t < rem_coeffs_.size(); ++t)
    if (product_true(x, rem_vars_.data() + rem_head_[t], rem_head_[t + 1] - rem_head_[t])) r += wrap(rem_coeffs_[t]);
  return r;
}

wrap_t Problem::energy(const std::uint8_t* x) const {
  wrap_t total = wrap(constant_) + objective_terms(x);
  for (const ConstraintDef& c : cons_) total += penalty(c, body(c, x));
  return total;
}

}  // namespace vell
