// Exported functions of the model family: building and sharing handles, the read accessors
// that plug-ins take the flat arrays through, and evaluation from raw bits.
#include <memory>
#include <optional>

#include "algebra/handles.h"
#include "constraint/constraint_sets.h"
#include "frame/fatal.h"
#include "frame/literal.h"
#include "model/model_impl.h"

using namespace zorp;

namespace {

// Bit i of word i / 64, as a Sol packs its assignment.
inline bool bit_at(const std::uint64_t* bits, std::uint32_t i) { return ((bits[i >> 6] >> (i & 63)) & 1u) != 0; }

zorp_model* build(const zorp_expr* e, double scale) {
  const ExprImpl& expr = *impl(e);
  // Only declared constraints reach the build; a classic tag's penalty already is the polynomial.
  std::optional<ConstraintListImpl> constraints;
  if (is_declared_tag(expr.ext)) {
    const ConstraintSumRecord& record = constraint_sum_at(expr.ext);
    constraints.emplace();
    constraints->items = record.items;
    if (record.remainder) {
      constraints->remainder = *record.remainder;
      constraints->remainder.ext = kNoTag;
      constraints->has_remainder = 1;
    }
  }
  auto model = std::make_unique<Model>(std::make_shared<const ModelImpl>(expr, scale, constraints ? &*constraints : nullptr));
  return model_handle(model.release());
}

const NativeConstraint& native_cons_at(const zorp_model* m, std::uint64_t i) { return model_impl(m).native_cons[i]; }

inline std::int64_t written(std::int64_t value, std::int64_t* out) {
  if (out != nullptr) *out = value;
  return value;
}

}  // namespace

extern "C" {

zorp_model* zorp_model_create(const zorp_expr* e) { return build(e, 0.0); }

zorp_model* zorp_model_create_scaled(const zorp_expr* e, double scale) { return build(e, scale); }

zorp_model* zorp_model_clone(const zorp_model* m) { return model_handle(new Model(model_ref(m))); }

void zorp_model_destroy(zorp_model* m) { delete reinterpret_cast<Model*>(m); }

uint32_t zorp_model_var_count(const zorp_model* m) { return static_cast<uint32_t>(model_impl(m).vars.size()); }

zorp_var zorp_model_var(const zorp_model* m, uint32_t i) { return model_impl(m).vars[i]; }

uint32_t zorp_model_var_index(const zorp_model* m, zorp_var literal) {
  const ModelImpl& model = model_impl(m);
  const std::uint32_t idx = positive_literal(literal);
  return idx < model.index_map.size() ? model.index_map[idx] : kNoVar;
}

int zorp_model_has(const zorp_model* m, zorp_var literal) { return zorp_model_var_index(m, literal) != kNoVar ? 1 : 0; }

int64_t zorp_model_constant(const zorp_model* m, int64_t* out) {
  return written(static_cast<std::int64_t>(model_impl(m).constant), out);
}

double zorp_model_scale(const zorp_model* m) { return model_impl(m).scale; }

uint32_t zorp_model_max_degree(const zorp_model* m) { return model_impl(m).max_degree; }

uint64_t zorp_model_term_count(const zorp_model* m, uint32_t d) {
  const ModelImpl& model = model_impl(m);
  return d == 0 || d > model.max_degree ? 0 : model.term_counts[d - 1];
}

const uint32_t* zorp_model_term_vars(const zorp_model* m, uint32_t d) {
  const ModelImpl& model = model_impl(m);
  return d == 0 || d > model.max_degree ? nullptr : model.term_vars[d - 1].data();
}

const zorp_coeff* zorp_model_coeff_array(const zorp_model* m, uint32_t d) {
  const ModelImpl& model = model_impl(m);
  return d == 0 || d > model.max_degree ? nullptr : model.term_coeffs[d - 1].data();
}

int64_t zorp_model_coeff_at(const zorp_model* m, uint32_t d, uint64_t i, int64_t* out) {
  return written(model_impl(m).term_coeffs[d - 1][i], out);
}

int zorp_model_has_negated_literals(const zorp_model* m) {
  for (const auto& literals : model_impl(m).term_vars)
    for (const std::uint32_t literal : literals)
      if (is_negated(literal)) return 1;
  return 0;
}

uint32_t zorp_model_int_var_count(const zorp_model* m) { return static_cast<uint32_t>(model_impl(m).int_atoms.size()); }

void zorp_model_int_var_bounds(const zorp_model* m, uint32_t i, int64_t* lower, int64_t* upper) {
  const ModelImpl& model = model_impl(m);
  if (i >= model.int_atoms.size()) fatal("zorp_model_int_var_bounds: index out of range");
  *lower = model.int_lower[i];
  *upper = model.int_upper[i];
}

zorp_var zorp_model_int_var_orig(const zorp_model* m, uint32_t i) {
  const ModelImpl& model = model_impl(m);
  if (i >= model.int_atoms.size()) fatal("zorp_model_int_var_orig: index out of range");
  return model.int_atoms[i] | kIntAtomBit;
}

uint64_t zorp_model_native_cons_count(const zorp_model* m) { return model_impl(m).native_cons.size(); }

uint64_t zorp_model_native_cons_nterms(const zorp_model* m, uint64_t i) {
  const NativeConstraint& c = native_cons_at(m, i);
  if (!c.nl_coeffs.empty())
    fatal("MIP/ILP solvers do not support nonlinear (degree>=2) constraint bodies inside cons(). Call expand_cons() "
          "on the expression to get the classic penalty form, or use a bundled heuristic solver "
          "(VellSolver/TallonSolver/MIRKSolver).");
  if (!c.allowed.empty())
    fatal("MIP/ILP solvers do not support allowed-value set constraints (equal{...}) inside cons(). Use a bundled "
          "heuristic solver (VellSolver/TallonSolver/MIRKSolver).");
  return c.vars.size();
}

const uint32_t* zorp_model_native_cons_vars(const zorp_model* m, uint64_t i) { return native_cons_at(m, i).vars.data(); }

const zorp_coeff* zorp_model_native_cons_coeffs(const zorp_model* m, uint64_t i) {
  return native_cons_at(m, i).coeffs.data();
}

void zorp_model_native_cons_bounds(const zorp_model* m, uint64_t i, int64_t* lower, int64_t* upper, int64_t* constant,
                                   int64_t* weight) {
  const NativeConstraint& c = native_cons_at(m, i);
  *lower = c.lower;
  *upper = c.upper;
  *constant = c.body_constant;
  *weight = c.weight;
}

void zorp_model_native_cons_shape(const zorp_model* m, uint64_t i, int* k, int* shape) {
  const NativeConstraint& c = native_cons_at(m, i);
  *k = c.penalty_exponent;
  *shape = c.penalty_shape;
}

int zorp_model_has_penalty_shapes(const zorp_model* m) {
  for (const NativeConstraint& c : model_impl(m).native_cons)
    if (c.penalty_exponent != 2 || c.penalty_shape != 0) return 1;
  return 0;
}

int zorp_model_has_remainder(const zorp_model* m) { return model_impl(m).has_remainder; }

void zorp_model_remainder_info(const zorp_model* m, int64_t* constant, uint64_t* nterms) {
  const ModelImpl& model = model_impl(m);
  *constant = static_cast<std::int64_t>(model.remainder_constant);
  *nterms = model.remainder_coeffs.size();
}

const uint64_t* zorp_model_remainder_head(const zorp_model* m) { return model_impl(m).remainder_head.data(); }

const uint32_t* zorp_model_remainder_vars(const zorp_model* m) { return model_impl(m).remainder_vars.data(); }

const zorp_coeff* zorp_model_remainder_coeffs(const zorp_model* m) { return model_impl(m).remainder_coeffs.data(); }

int64_t zorp_model_eval(const zorp_model* m, const uint64_t* bits, int64_t* out) {
  const ModelImpl& model = model_impl(m);
  if (!model.int_atoms.empty()) fatal("Model eval", ": native integer variables (int_var) are not supported yet.");
  energy_t total = model.constant;
  for (std::uint32_t d = 1; d <= model.max_degree; ++d) {
    const std::uint32_t* literals = model.term_vars[d - 1].data();
    const coeff_t* coeffs = model.term_coeffs[d - 1].data();
    const std::uint64_t n = model.term_counts[d - 1];
    for (std::uint64_t t = 0; t < n; ++t) {
      bool on = true;
      for (std::uint32_t k = 0; k < d && on; ++k) {
        const std::uint32_t literal = literals[t * d + k];
        on = bit_at(bits, positive_literal(literal)) != is_negated(literal);
      }
      if (on) total = wrapping_add(total, static_cast<energy_t>(coeffs[t]));
    }
  }
  return written(static_cast<std::int64_t>(total), out);
}

int64_t zorp_expr_eval_with_model(const zorp_expr* e, const zorp_model* m, const uint64_t* bits, int64_t* out) {
  const ExprImpl& expr = *impl(e);
  if (is_declared_tag(expr.ext)) fatal_declared_refusal("eval_with_model (evaluate against a Sol instead)");
  bool has_atom = false;
  expr.for_each_term([&](const TermImpl& t) {
    for (unsigned i = 0, d = t.vars.degree(); i < d; ++i) has_atom = has_atom || is_int_atom(t.vars.slot[i]);
  });
  if (has_atom)
    fatal("eval_with_model: native integer variables (int_var) are not supported yet (bit assignments cannot value "
          "integer atoms).");
  const ModelImpl& model = model_impl(m);
  energy_t total = expr.constant;
  expr.for_each_term([&](const TermImpl& t) {
    if (t.coefficient == 0) return;
    for (unsigned i = 0, d = t.vars.degree(); i < d; ++i) {
      const std::uint32_t literal = t.vars.slot[i];
      const std::uint32_t idx = positive_literal(literal);
      // A variable the model does not hold has no bit: the term drops, negated or not.
      if (idx >= model.index_map.size() || model.index_map[idx] == kNoVar) return;
      if (bit_at(bits, model.index_map[idx]) == is_negated(literal)) return;
    }
    total = wrapping_add(total, static_cast<energy_t>(t.coefficient));
  });
  return written(static_cast<std::int64_t>(total), out);
}

}  // extern "C"
