// The search form of a model: negated literals expanded out of the quadratic part (which
// becomes a symmetric adjacency), higher-order terms and constraint bodies laid out for
// incremental updates. Built once per model revision and shared read-only by the workers.
#pragma once

#include <cstdint>
#include <utility>
#include <vector>

#include "common.h"
#include "problem.h"

namespace vell {

struct CompiledConstraint {
  wrap_t weight = 0;
  std::int64_t lower = 0;
  std::int64_t upper = 0;
  wrap_t constant = 0;  // with negated body literals folded in
  bool squared = true;
  bool feasibility = true;  // shape 0: must be met for a target to count
  std::uint32_t allowed_begin = 0, allowed_end = 0;
  std::uint32_t slot_begin = 0, slot_end = 0;  // one slot per distinct body variable
  std::uint32_t nl_begin = 0, nl_end = 0;      // product terms of the body
};

struct Compiled {
  std::uint32_t n = 0;
  wrap_t constant = 0;

  // Quadratic part: energy = constant + sum h_i x_i + sum_{i<j} w_ij x_i x_j; each pair is
  // stored in both rows.
  std::vector<wrap_t> h;
  std::vector<std::uint64_t> row;  // n + 1 offsets
  std::vector<std::uint32_t> col;
  std::vector<wrap_t> w;

  // Products of three or more distinct literals, with their occurrences per variable.
  std::vector<std::uint32_t> ht_begin;  // term count + 1 offsets into ht_lit
  std::vector<std::uint32_t> ht_lit;
  std::vector<wrap_t> ht_coeff;
  std::vector<std::uint64_t> hocc_head;  // n + 1
  std::vector<std::uint32_t> hocc;

  // Constraints. A slot is one (constraint, variable) membership; a product term of a body
  // refers to its literals by slot, bit 31 marking a negated literal.
  std::vector<CompiledConstraint> cons;
  std::vector<std::pair<std::int64_t, std::int64_t>> allowed;
  std::vector<std::uint32_t> slot_var;
  std::vector<std::uint32_t> slot_cons;
  std::vector<wrap_t> slot_lin;
  std::vector<std::uint64_t> var_slot_head;  // n + 1
  std::vector<std::uint32_t> var_slot;
  std::vector<std::uint32_t> nl_begin;  // body product count + 1 offsets into nl_lit
  std::vector<std::uint32_t> nl_lit;
  std::vector<wrap_t> nl_coeff;
  std::vector<std::uint64_t> slot_nl_head;  // slot count + 1
  std::vector<std::uint32_t> slot_nl;

  // The unconstrained quadratic path applies, with this many index bits under each gain;
  // no gain of any state exceeds gain_bound in magnitude.
  bool quadratic_only = false;
  unsigned label_bits = 0;
  unsigned __int128 gain_bound = 0;
  bool complement_symmetric = false;

};

Compiled compile(const Problem& p);

// Variable i's field under x (its linear coefficient plus the weights of its neighbours that
// are 1), and the part of it from neighbours above i, which counts each pair once in an energy.
struct QuadraticField {
  wrap_t field;
  wrap_t upper;
};
inline QuadraticField quadratic_field(const Compiled& c, const std::uint8_t* x, std::uint32_t i) {
  QuadraticField f{c.h[i], 0};
  for (std::uint64_t k = c.row[i]; k < c.row[i + 1]; ++k) {
    const std::uint32_t j = c.col[k];
    if (!x[j]) continue;
    f.field += c.w[k];
    if (j > i) f.upper += c.w[k];
  }
  return f;
}

wrap_t compiled_penalty(const Compiled& c, const CompiledConstraint& k, wrap_t body);
bool compiled_violated(const Compiled& c, const CompiledConstraint& k, wrap_t body);

}  // namespace vell
