// Exported functions of the term family.
#include <cstdlib>
#include <memory>

#include "algebra/handles.h"
#include "frame/fatal.h"
#include "zorp/term.h"

using namespace zorp;

namespace {

zorp_term* new_term(const TermImpl& value) { return handle(new TermImpl(value)); }

}  // namespace

extern "C" {

zorp_term* zorp_term_create(int64_t coeff) { return new_term(make_term(narrow_coeff(coeff))); }

zorp_term* zorp_term_create_var(int64_t coeff, zorp_var v) {
  TermImpl t = make_term(narrow_coeff(coeff));
  t.vars.slot[0] = v;
  return new_term(t);
}

zorp_term* zorp_term_create_var_var(int64_t coeff, zorp_var a, zorp_var b) {
  TermImpl t = make_term(narrow_coeff(coeff));
  t.vars.slot[0] = a;
  t.vars.slot[1] = b;
  return new_term(t);
}

zorp_term* zorp_term_create_vararray(int64_t coeff, uint64_t word, const uint32_t* more) {
  return new_term(TermImpl{narrow_coeff(coeff), vararray_from_split(word, more)});
}

zorp_term* zorp_term_clone(const zorp_term* t) { return new_term(*impl(t)); }

void zorp_term_destroy(zorp_term* t) { delete impl(t); }

void zorp_term_mul_coeff(zorp_term* t, int64_t c) {
  impl(t)->coefficient = wrapping_mul(impl(t)->coefficient, narrow_coeff(c));
}

void zorp_term_mul_var(zorp_term* t, zorp_var v) { impl(t)->vars.push(v); }

zorp_term* zorp_term_mul_term(const zorp_term* a, const zorp_term* b) {
  TermImpl product = *impl(a);
  product.coefficient = wrapping_mul(product.coefficient, impl(b)->coefficient);
  product.vars.append(impl(b)->vars);
  return new_term(product);
}

zorp_term* zorp_term_mul_term_move(zorp_term* a, const zorp_term* b) {
  impl(a)->vars.append(impl(b)->vars);
  impl(a)->coefficient = wrapping_mul(impl(a)->coefficient, impl(b)->coefficient);
  return a;
}

void zorp_term_negate(zorp_term* t) { impl(t)->coefficient = wrapping_neg(impl(t)->coefficient); }

void zorp_term_div_coeff(zorp_term* t, int64_t divisor) {
  if (divisor == 0) fatal("Division by zero");
  const auto value = static_cast<int64_t>(impl(t)->coefficient);
  // -1 is a negation, which wraps instead of trapping on the minimum value.
  if (divisor == -1) {
    impl(t)->coefficient = wrapping_neg(impl(t)->coefficient);
    return;
  }
  if (value % divisor != 0) fatal("Indivisible division in Term");
  impl(t)->coefficient = narrow_coeff(value / divisor);
}

int64_t zorp_term_coeff(const zorp_term* t, int64_t* out) {
  const auto value = static_cast<int64_t>(impl(t)->coefficient);
  if (out != nullptr) *out = value;
  return value;
}

uint32_t zorp_term_degree(const zorp_term* t) { return impl(t)->vars.degree(); }

zorp_var zorp_term_var_at(const zorp_term* t, uint32_t slot) { return impl(t)->vars.slot[slot]; }

}  // extern "C"
