// ModelImpl: the flat, immutable form of a problem, built once from a simplified
// expression and read in place by solutions, evaluators and solver plug-ins.
#pragma once

#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include "algebra/expr.h"
#include "constraint/constraint_sets.h"
#include "frame/variant.h"
#include "zorp/model.h"

namespace zorp {

// Leaves new elements uninitialised on resize: the flat arrays are sized once and then
// written in full by the fill phases, so zeroing them first would be a wasted pass.
template <class T>
struct DefaultInitAllocator : std::allocator<T> {
  template <class U>
  struct rebind {
    using other = DefaultInitAllocator<U>;
  };
  using std::allocator<T>::allocator;
  template <class U>
  void construct(U* p) noexcept {
    ::new (static_cast<void*>(p)) U;
  }
  template <class U, class... Args>
  void construct(U* p, Args&&... args) {
    ::new (static_cast<void*>(p)) U(std::forward<Args>(args)...);
  }
};

template <class T>
using FlatArray = std::vector<T, DefaultInitAllocator<T>>;

// One declared constraint, with dense literals.
struct NativeConstraint {
  std::int64_t weight = 0;  // may be negative
  std::int64_t lower = 0;
  std::int64_t upper = 0;
  std::int64_t body_constant = 0;
  std::vector<std::uint32_t> vars;  // degree-1 body literals; an integer keeps bit 30
  std::vector<coeff_t> coeffs;
  std::vector<std::uint64_t> nl_head;  // empty for a linear body, else offsets into nl_vars
  std::vector<std::uint32_t> nl_vars;
  std::vector<coeff_t> nl_coeffs;
  std::vector<std::pair<std::int64_t, std::int64_t>> allowed;
  std::uint8_t penalty_exponent = 2;
  std::uint8_t penalty_shape = 0;
};

// The declared constraints of an expression, taken from its constraint-sum record for the
// length of one build.
struct ConstraintListImpl {
  std::vector<ConstraintItem> items;
  ExprImpl remainder;  // tag none
  std::uint8_t has_remainder = 0;
};

struct ModelImpl {
  std::vector<std::uint32_t> vars;       // dense index -> registry variable, ascending
  std::vector<std::uint32_t> index_map;  // registry variable -> dense index, or 0xFFFFFFFF
  energy_t constant = 0;
  std::uint32_t max_degree = 0;
  std::vector<std::uint64_t> term_counts;          // [d-1]: terms of degree d
  std::vector<FlatArray<std::uint32_t>> term_vars;  // [d-1]: d dense literals per term
  std::vector<FlatArray<coeff_t>> term_coeffs;      // [d-1]: one coefficient per term
  double scale = 1.0;
  std::vector<NativeConstraint> native_cons;  // linear bodies first, then nonlinear
  std::uint8_t has_remainder = 0;
  energy_t remainder_constant = 0;
  std::vector<std::uint64_t> remainder_head;
  std::vector<std::uint32_t> remainder_vars;
  std::vector<coeff_t> remainder_coeffs;
  std::vector<std::uint32_t> int_atoms;      // atom indices used, ascending
  std::vector<std::uint32_t> int_index_map;  // atom index -> dense integer index, or 0xFFFFFFFF
  std::vector<std::int64_t> int_lower;
  std::vector<std::int64_t> int_upper;

  // Builds from an expression simplified as binary. `scale` is ignored on purpose: every
  // model has scale 1.0.
  ModelImpl(const ExprImpl& e, double scale, const ConstraintListImpl* constraints);
  // The same build with the thread number given instead of read from the environment, so
  // that serial and pooled builds can be compared in one process.
  ModelImpl(const ExprImpl& e, double scale, const ConstraintListImpl* constraints, unsigned threads);
};

// The public handle: two words, object and share count, the same layout as the head of a
// Sol, so that a Sol can be read where a Model handle is expected.
using Model = std::shared_ptr<const ModelImpl>;

// Handle casts. Only the leading Model is read through a handle, which is what lets a Sol
// stand in for a model.
inline const Model& model_ref(const zorp_model* m) { return *reinterpret_cast<const Model*>(m); }
inline const ModelImpl& model_impl(const zorp_model* m) { return *model_ref(m); }
inline zorp_model* model_handle(Model* m) { return reinterpret_cast<zorp_model*>(m); }

}  // namespace zorp
