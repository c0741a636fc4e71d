// The exported simplifications carry tags: encoded integers pass, constraint records are
// rebuilt around simplified bodies.
#include <gtest/gtest.h>

#include "constraint/constraint_sets.h"
#include "support/builders.h"
#include "zorp.h"

namespace {

using zorp::test::negated;
using zorp::test::Poly;
using zorp::test::var;

TEST(SimplifyTags, DeclaredSumIsRebuiltAroundSimplifiedBodies) {
  const Poly x = var("x"), y = var("y");
  // body x + x + ~y simplifies to 1 + 2x - y.
  const Poly body = x + x + negated(y);
  Poly declared(zorp_cons_between(body.get(), 1, 2));
  Poly objective = x * y + x * x;
  objective += declared;
  ASSERT_EQ(zorp_expr_is_declared(objective.get()), 1);

  const Poly simplified(zorp_expr_simplify_as_binary(objective.get()));
  EXPECT_EQ(simplified.str(), "x +x*y");
  ASSERT_EQ(zorp_expr_is_declared(simplified.get()), 1);
  EXPECT_NE(zorp_expr_attr(simplified.get()), zorp_expr_attr(objective.get()));
  EXPECT_EQ(zorp_cons_item_count(simplified.get()), 1u);
  EXPECT_STREQ(zorp_expr_str(zorp_exprexprelem_get_body(simplified.get())), "1 +2*x -y");
  // The argument's own record still holds the raw body.
  EXPECT_STREQ(zorp_expr_str(zorp_exprexprelem_get_body(objective.get())), "x +x +~y");

  const zorp::ConstraintSumRecord& record = zorp::constraint_sum_at(zorp_expr_attr(simplified.get()));
  const zorp::ExprExprRecord& item = zorp::expr_expr_body_record(record.items[0].index);
  EXPECT_EQ(item.lower, 1);
  EXPECT_EQ(item.upper, 2);
  EXPECT_EQ(record.items[0].weight, 1);
}

TEST(SimplifyTags, ClassicBodyIsSimplifiedBySpinRulesToo) {
  const Poly x = var("x");
  const Poly body = x * x + negated(x);
  Poly classic(zorp_exprexprelem_create((body * body).get(), body.get()));
  zorp_exprexpr_set_bounds(classic.get(), 0, 0);
  const Poly spin(zorp_expr_simplify_as_spin(classic.get()));
  int64_t lower = -1, upper = -1;
  ASSERT_EQ(zorp_exprexpr_get_bounds(spin.get(), &lower, &upper), 1);
  EXPECT_EQ(lower, 0);
  EXPECT_EQ(upper, 0);
  EXPECT_STREQ(zorp_expr_str(zorp_exprexprelem_get_body(spin.get())), "1 -x");
}

TEST(SimplifyTags, PlainAndEncodedIntegerTagsPassThrough) {
  const Poly x = var("x");
  const Poly sum = x + x;
  const Poly simplified(zorp_expr_simplify(sum.get()));
  EXPECT_EQ(zorp_expr_attr(simplified.get()), 0xFFFFFFFFu);
  EXPECT_EQ(simplified.str(), "2*x");
}

}  // namespace
