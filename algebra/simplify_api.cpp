// Exported simplifications: each returns a canonical copy and carries the argument's tag
// through, so an encoded integer stays one and constraint records follow their bodies.
#include <memory>

#include "algebra/handles.h"
#include "algebra/merge.h"
#include "constraint/constraint_sets.h"
#include "zorp/expr.h"

using namespace zorp;

namespace {

using Simplifier = ExprImpl (*)(const ExprImpl&);

// A constraint tag names records whose bodies are simplified by the same rules into new
// records; any other tag (an encoded integer, or none) passes through.
std::uint32_t tag_after_simplify(std::uint32_t ext, Simplifier simplify) { return transform_constraint_tag(ext, simplify); }

zorp_expr* simplified(const zorp_expr* e, Simplifier simplify) {
  const ExprImpl& argument = *impl(e);
  auto result = std::make_unique<ExprImpl>(simplify(argument));
  result->ext = tag_after_simplify(argument.ext, simplify);
  return handle(result.release());
}

}  // namespace

extern "C" {

zorp_expr* zorp_expr_simplify(const zorp_expr* e) {
  return simplified(e, [](const ExprImpl& x) { return expr_simplify(x); });
}

zorp_expr* zorp_expr_simplify_as_binary(const zorp_expr* e) {
  return simplified(e, [](const ExprImpl& x) { return expr_simplify_as_binary(x); });
}

zorp_expr* zorp_expr_simplify_as_spin(const zorp_expr* e) {
  return simplified(e, [](const ExprImpl& x) { return expr_simplify_as_spin(x); });
}

}  // extern "C"
