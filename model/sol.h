// Sol: one assignment of a model, with its cached energy, and the value of expressions and
// constraint bodies under it.
#pragma once

#include <cstdint>
#include <memory>
#include <type_traits>
#include <vector>

#include "algebra/expr.h"
#include "constraint/constraint_sets.h"
#include "frame/variant.h"
#include "model/model_impl.h"

namespace zorp {

// The model share comes first and has the layout of a Model handle, so the exported layer
// can hand a Sol out wherever a model handle is read.
struct Sol {
  Model model;
  double scale = 1.0;
  std::vector<std::uint64_t> bits;     // bit i of word i / 64 is dense variable i
  std::vector<std::int64_t> int_vals;  // one value per dense integer index
  energy_t energy = 0;
  std::uint8_t energy_valid = 0;
  double tts = -1.0;
};

static_assert(std::is_standard_layout_v<Sol>, "a Sol must be readable as its leading Model");

// Words for `n` variables, in 32 bits like every variable count of a model.
constexpr std::uint32_t sol_word_count(std::uint32_t n) { return (n + 63u) / 64u; }

// All bits 0, integers at their lower bounds, energy computed.
std::unique_ptr<Sol> make_sol(Model model);

// A Sol over `model` taking a search result's assignment as it stands: the energy is trusted,
// not recomputed. An empty `int_values` leaves the integers at their lower bounds.
std::unique_ptr<Sol> adopt_sol(Model model, energy_t energy, std::vector<std::uint64_t>&& bits, double tts,
                               std::vector<std::int64_t>&& int_values);

// Energy of the present assignment: objective terms, then weighted violations of the native
// constraints. Does not touch the cache.
energy_t sol_energy(const Sol& sol);

inline bool sol_bit(const Sol& sol, std::uint32_t dense) { return (sol.bits[dense >> 6] >> (dense & 63)) & 1u; }

// Dense index of a binary literal's variable (bit 31 ignored), or kNoVar when the model lacks it.
std::uint32_t sol_dense_index(const Sol& sol, std::uint32_t literal);

// The native constraints under the present assignment: their summed penalties, and how many
// of the ordinary ones (shape 0, not abs/relu terms) there are and how many are violated.
struct ConstraintTally {
  energy_t penalties = 0;
  std::uint64_t plain = 0;
  std::uint64_t plain_violated = 0;
};
ConstraintTally sol_constraint_tally(const Sol& sol);
// Dense integer index of an atom literal (bit 30 set), or kNoVar when the model lacks it.
std::uint32_t sol_dense_int_index(const Sol& sol, std::uint32_t literal);

// Value of a binary literal; aborts "<label>: variable not in model (index=...)" when absent.
bool sol_get(const Sol& sol, std::uint32_t literal);
void sol_set(Sol& sol, std::uint32_t literal, std::int32_t value);
void sol_flip(Sol& sol, std::uint32_t literal);
// Integer values, looked up under the label "Sol::get" or "Sol::set"; set checks the bounds
// and leaves the Sol unchanged when it refuses.
std::int64_t sol_get_int(const Sol& sol, std::uint32_t literal);
void sol_set_int(Sol& sol, std::uint32_t literal, std::int64_t value);
// Copies every variable of the source's model by identity; bounds are those of `dst`.
void sol_set_from_sol(Sol& dst, const Sol& src);
// Hands the bit words over; the Sol is left with none.
std::vector<std::uint64_t> sol_steal_bits(Sol& sol);

// Value of `e` under the assignment. A variable the model lacks counts as 0, with no error.
energy_t sol_eval_polynomial(const Sol& sol, const ExprImpl& e);
// Violation of a constraint record by a body value: distance to the nearest allowed interval,
// else to the bounds (one side at a time); 0 without bounds.
energy_t record_violation(const ExprExprRecord& record, energy_t value);
// The polynomial of `e` plus, when `e` is declared, its weighted violations and free-form
// part: what the energy of a model built from `e` would be.
energy_t sol_eval_expr(const Sol& sol, const ExprImpl& e);

}  // namespace zorp
