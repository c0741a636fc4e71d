#include "model/sol.h"

#include <algorithm>
#include <utility>

#include "frame/fatal.h"
#include "frame/literal.h"

namespace zorp {

namespace {

// Value of a dense model literal: an integer reads its value, a binary its bit, complemented
// for a negated literal.
energy_t literal_value(const Sol& sol, std::uint32_t literal) {
  if (is_int_atom(literal)) return static_cast<energy_t>(sol.int_vals[literal & kIndexMask]);
  return static_cast<energy_t>(sol_bit(sol, literal & kIndexMask) != is_negated(literal));
}

energy_t objective_terms(const Sol& sol, const ModelImpl& m) {
  energy_t total = 0;
  for (std::uint32_t d = 1; d <= m.max_degree; ++d) {
    const std::uint64_t count = m.term_counts[d - 1];
    const std::uint32_t* literals = m.term_vars[d - 1].data();
    const coeff_t* coeffs = m.term_coeffs[d - 1].data();
    for (std::uint64_t t = 0; t < count; ++t) {
      energy_t value = coeffs[t];
      const std::uint32_t* term = literals + t * d;
      bool alive = true;
      for (std::uint32_t i = 0; i < d && alive; ++i) {
        const std::uint32_t literal = term[i];
        if (is_int_atom(literal)) {
          const std::int64_t x = sol.int_vals[literal & kIndexMask];
          if (x == 0) alive = false;
          else value = wrapping_mul(value, static_cast<energy_t>(x));
        } else if (sol_bit(sol, literal & kIndexMask) == is_negated(literal)) {
          alive = false;
        }
      }
      if (alive) total = wrapping_add(total, value);
    }
  }
  return total;
}

energy_t native_body(const Sol& sol, const NativeConstraint& c) {
  energy_t body = c.body_constant;
  for (std::size_t j = 0; j < c.vars.size(); ++j)
    body = wrapping_add(body, wrapping_mul(static_cast<energy_t>(c.coeffs[j]), literal_value(sol, c.vars[j])));
  if (c.nl_head.size() < 2) return body;
  for (std::size_t t = 0; t + 1 < c.nl_head.size(); ++t) {
    energy_t product = c.nl_coeffs[t];
    for (std::uint64_t k = c.nl_head[t]; k < c.nl_head[t + 1] && product != 0; ++k)
      product = wrapping_mul(product, literal_value(sol, c.nl_vars[k]));
    body = wrapping_add(body, product);
  }
  return body;
}

energy_t interval_distance(energy_t value, std::int64_t lo, std::int64_t hi) {
  if (value < lo) return wrapping_sub(static_cast<energy_t>(lo), value);
  if (value > hi) return wrapping_sub(value, static_cast<energy_t>(hi));
  return 0;
}

energy_t nearest_allowed_distance(const std::vector<std::pair<std::int64_t, std::int64_t>>& allowed, energy_t value) {
  energy_t best = interval_distance(value, allowed[0].first, allowed[0].second);
  for (std::size_t i = 1; i < allowed.size() && best != 0; ++i)
    best = std::min(best, interval_distance(value, allowed[i].first, allowed[i].second));
  return best;
}

// Both one-sided distances are summed, so bounds stored crossed (lower > upper) charge both.
energy_t native_violation(const NativeConstraint& c, energy_t body) {
  if (!c.allowed.empty()) return nearest_allowed_distance(c.allowed, body);
  energy_t v = 0;
  if (body < c.lower) v = wrapping_add(v, wrapping_sub(static_cast<energy_t>(c.lower), body));
  if (body > c.upper) v = wrapping_add(v, wrapping_sub(body, static_cast<energy_t>(c.upper)));
  return v;
}

[[noreturn]] void not_in_model(std::string_view label, std::uint32_t index) {
  fatal(label, ": variable not in model (index=", index, ")");
}

std::uint32_t dense_or_fatal(const Sol& sol, std::uint32_t literal, std::string_view label) {
  const std::uint32_t dense = sol_dense_index(sol, literal);
  if (dense == kNoVar) not_in_model(label, positive_literal(literal));
  return dense;
}

std::uint32_t dense_int_or_fatal(const Sol& sol, std::uint32_t literal, std::string_view label) {
  if (!is_int_atom(literal) || is_negated(literal)) fatal(label, ": not an integer variable index");
  const std::uint32_t dense = sol_dense_int_index(sol, literal);
  if (dense == kNoVar) fatal(label, ": integer variable not in model");
  return dense;
}

void write_bit(Sol& sol, std::uint32_t dense, bool on) {
  const std::uint64_t mask = std::uint64_t{1} << (dense & 63);
  std::uint64_t& word = sol.bits[dense >> 6];
  word = on ? (word | mask) : (word & ~mask);
}

}  // namespace

std::unique_ptr<Sol> make_sol(Model model) {
  auto sol = std::make_unique<Sol>();
  sol->scale = model->scale;
  sol->bits.assign(sol_word_count(static_cast<std::uint32_t>(model->vars.size())), 0);
  sol->int_vals = model->int_lower;
  sol->model = std::move(model);
  sol->energy = sol_energy(*sol);
  sol->energy_valid = 1;
  return sol;
}

std::unique_ptr<Sol> adopt_sol(Model model, energy_t energy, std::vector<std::uint64_t>&& bits, double tts,
                               std::vector<std::int64_t>&& int_values) {
  auto sol = std::make_unique<Sol>();
  sol->scale = model->scale;
  sol->bits = std::move(bits);
  sol->int_vals = int_values.empty() ? model->int_lower : std::move(int_values);
  sol->model = std::move(model);
  sol->energy = energy;
  sol->energy_valid = 1;
  sol->tts = tts;
  return sol;
}

energy_t sol_energy(const Sol& sol) {
  const ModelImpl& m = *sol.model;
  return wrapping_add(wrapping_add(m.constant, objective_terms(sol, m)), sol_constraint_tally(sol).penalties);
}

ConstraintTally sol_constraint_tally(const Sol& sol) {
  ConstraintTally tally;
  for (const NativeConstraint& c : sol.model->native_cons) {
    const energy_t v = native_violation(c, native_body(sol, c));
    const energy_t weighted = wrapping_mul(static_cast<energy_t>(c.weight), v);
    tally.penalties = wrapping_add(tally.penalties, c.penalty_exponent == 2 ? wrapping_mul(weighted, v) : weighted);
    if (c.penalty_shape == 0) {
      ++tally.plain;
      tally.plain_violated += v != 0;
    }
  }
  return tally;
}

std::uint32_t sol_dense_index(const Sol& sol, std::uint32_t literal) {
  const std::uint32_t index = positive_literal(literal);
  const std::vector<std::uint32_t>& map = sol.model->index_map;
  return index < map.size() ? map[index] : kNoVar;
}

std::uint32_t sol_dense_int_index(const Sol& sol, std::uint32_t literal) {
  const std::uint32_t atom = literal & kIndexMask;
  const std::vector<std::uint32_t>& map = sol.model->int_index_map;
  return atom < map.size() ? map[atom] : kNoVar;
}

bool sol_get(const Sol& sol, std::uint32_t literal) {
  return sol_bit(sol, dense_or_fatal(sol, literal, "Sol::get")) != is_negated(literal);
}

void sol_set(Sol& sol, std::uint32_t literal, std::int32_t value) {
  const std::uint32_t dense = dense_or_fatal(sol, literal, "Sol::set");
  const std::int32_t v = is_negated(literal) ? wrapping_sub<std::int32_t>(1, value) : value;
  write_bit(sol, dense, v != 0);
  sol.energy_valid = 0;
}

void sol_flip(Sol& sol, std::uint32_t literal) {
  const std::uint32_t dense = dense_or_fatal(sol, literal, "Sol::flip");
  sol.bits[dense >> 6] ^= std::uint64_t{1} << (dense & 63);
  sol.energy_valid = 0;
}

std::int64_t sol_get_int(const Sol& sol, std::uint32_t literal) {
  return sol.int_vals[dense_int_or_fatal(sol, literal, "Sol::get")];
}

void sol_set_int(Sol& sol, std::uint32_t literal, std::int64_t value) {
  const std::uint32_t dense = dense_int_or_fatal(sol, literal, "Sol::set");
  const std::int64_t lo = sol.model->int_lower[dense], hi = sol.model->int_upper[dense];
  if (value < lo || value > hi)
    fatal("Sol::set: value ", value, " outside the integer variable's bounds [", lo, ",", hi, "]");
  sol.int_vals[dense] = value;
  sol.energy_valid = 0;
}

void sol_set_from_sol(Sol& dst, const Sol& src) {
  const ModelImpl& from = *src.model;
  // No check before writing: one pass suffices, since a refusal ends the process anyway.
  for (const std::uint32_t index : from.vars) {
    const std::uint32_t s = dense_or_fatal(src, index, "Sol::get");
    const std::uint32_t d = dense_or_fatal(dst, index, "Sol::set");
    write_bit(dst, d, sol_bit(src, s));
    dst.energy_valid = 0;
  }
  for (std::size_t k = 0; k < from.int_atoms.size(); ++k)
    sol_set_int(dst, from.int_atoms[k] | kIntAtomBit, src.int_vals[k]);
}

std::vector<std::uint64_t> sol_steal_bits(Sol& sol) {
  std::vector<std::uint64_t> taken = std::move(sol.bits);
  sol.bits = {};
  return taken;
}

energy_t sol_eval_polynomial(const Sol& sol, const ExprImpl& e) {
  energy_t total = e.constant;
  e.for_each_term([&](const TermImpl& t) {
    if (t.coefficient == 0) return;
    energy_t product = t.coefficient;
    for (unsigned i = 0; i < MAXDEG && t.vars.slot[i] != kNoVar; ++i) {
      const std::uint32_t literal = t.vars.slot[i];
      if (is_int_atom(literal)) {
        const std::uint32_t dense = sol_dense_int_index(sol, literal);
        if (dense == kNoVar) return;
        const std::int64_t x = sol.int_vals[dense];
        if (x == 0) return;
        product = wrapping_mul(product, static_cast<energy_t>(x));
      } else {
        const std::uint32_t dense = sol_dense_index(sol, literal);
        if (dense == kNoVar || sol_bit(sol, dense) == is_negated(literal)) return;
      }
    }
    total = wrapping_add(total, product);
  });
  return total;
}

energy_t record_violation(const ExprExprRecord& record, energy_t value) {
  if (!record.allowed.empty()) return nearest_allowed_distance(record.allowed, value);
  if (record.has_bounds == 0) return 0;
  if (value < record.lower) return wrapping_sub(static_cast<energy_t>(record.lower), value);
  if (value > record.upper) return wrapping_sub(value, static_cast<energy_t>(record.upper));
  return 0;
}

energy_t sol_eval_expr(const Sol& sol, const ExprImpl& e) {
  energy_t total = sol_eval_polynomial(sol, e);
  if (!is_declared_tag(e.ext)) return total;
  const ConstraintSumRecord& sum = constraint_sum_at(e.ext);
  for (const ConstraintItem& item : sum.items) {
    const ExprExprRecord& record = expr_expr_body_record(item.index);
    const energy_t d = record_violation(record, sol_eval_polynomial(sol, record.body));
    const energy_t penalty = record.penalty_exponent == 1 ? d : wrapping_mul(d, d);
    total = wrapping_add(total, wrapping_mul(static_cast<energy_t>(item.weight), penalty));
  }
  if (sum.remainder) total = wrapping_add(total, sol_eval_polynomial(sol, *sum.remainder));
  return total;
}

}  // namespace zorp
