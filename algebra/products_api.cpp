// Exported products and squares. Refusals come first; the in-place forms build the
// product aside and move it in, so an exception leaves the left operand unchanged.
#include <memory>

#include "algebra/handles.h"
#include "frame/fatal.h"
#include "zorp/expr.h"

using namespace zorp;

extern "C" {

void zorp_expr_imul_var(zorp_expr* e, zorp_var v) {
  ExprImpl& x = *impl(e);
  if (is_declared_tag(x.ext)) fatal_declared_refusal("*= var");
  x = x.mul_var(v);
}

void zorp_expr_imul_term_direct(zorp_expr* e, int64_t coeff, uint64_t word, const uint32_t* more) {
  ExprImpl& x = *impl(e);
  if (is_declared_tag(x.ext)) fatal_declared_refusal("*= term");
  x = x.mul_term(TermImpl{narrow_coeff(coeff), vararray_from_split(word, more)});
}

void zorp_expr_imul_expr(zorp_expr* e, const zorp_expr* other) {
  ExprImpl& x = *impl(e);
  if (is_declared_tag(x.ext)) fatal_declared_refusal("*= expr");
  if (is_declared_tag(impl(other)->ext)) fatal_declared_refusal("* expr");
  x = x.mul(*impl(other));
}

zorp_expr* zorp_expr_mul_expr(const zorp_expr* a, const zorp_expr* b) {
  if (is_declared_tag(impl(a)->ext) || is_declared_tag(impl(b)->ext)) fatal_declared_refusal("* expr");
  return handle(new ExprImpl(impl(a)->mul(*impl(b))));
}

zorp_expr* zorp_expr_sqr(const zorp_expr* e) {
  if (is_declared_tag(impl(e)->ext)) fatal_declared_refusal("sqr");
  return handle(new ExprImpl(impl(e)->sqr()));
}

}  // extern "C"
