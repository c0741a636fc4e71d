#include <csignal>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/builders.h"
#include "support/model_handle.h"
#include "support/death.h"
#include "zorp.h"

namespace {

using zorp::test::ModelPtr;
using zorp::test::SolPtr;

using zorp::test::DeathTestBase;
using zorp::test::index_of;
using zorp::test::Poly;
using zorp::test::var;


// A solution over exactly the variables of `vars`, all 0; item readers only need the
// assignment, so constraints play no part in it.
SolPtr sol_over(const std::vector<const Poly*>& vars) {
  Poly sum;
  for (const Poly* v : vars) sum += *v;
  return SolPtr(zorp_sol_create_from_expr(sum.get()));
}

Poly times(int64_t factor, const Poly& p) { return Poly(zorp_expr_clone_mul_int(p.get(), factor)); }

struct Info {
  int bounded = -1;
  std::string body;
  int64_t weight = 0, lower = -99, upper = -99;
  uint32_t body_tag = 0;
};

Info info(const Poly& e, uint64_t i) {
  Info out;
  zorp_expr* body = nullptr;
  out.bounded = zorp_cons_item_info(e.get(), i, &body, &out.weight, &out.lower, &out.upper);
  out.body = zorp_expr_str(body);
  out.body_tag = zorp_expr_attr(body);
  zorp_expr_destroy(body);
  return out;
}

struct Eval {
  int64_t value = 0, lower = 0, upper = 0, violation = 0, weight = 0;
};

Eval eval(const Poly& e, uint64_t i, const zorp_sol* sol) {
  Eval out;
  EXPECT_EQ(zorp_cons_item_eval(e.get(), i, sol, &out.value, &out.lower, &out.upper, &out.violation, &out.weight), 1);
  return out;
}

TEST(ConsItems, PlainExpressionIsOneItemHeldAtZero) {
  const Poly x = var("x");
  const Poly e = times(2, x) - Poly(1);
  EXPECT_EQ(zorp_cons_item_count(e.get()), 1u);
  const Info item = info(e, 0);
  EXPECT_EQ(item.bounded, 0);
  EXPECT_EQ(item.body, e.str());
  EXPECT_EQ(item.weight, 1);
  EXPECT_EQ(item.lower, 0);
  EXPECT_EQ(item.upper, 0);

  const SolPtr sol = sol_over({&x});
  zorp_sol_set(sol.get(), index_of(x), 1);
  const Eval v = eval(e, 0, sol.get());
  EXPECT_EQ(v.value, 1);
  EXPECT_EQ(v.violation, 1);
  EXPECT_EQ(v.weight, 1);

  int k = 0, shape = 7;
  EXPECT_EQ(zorp_cons_item_shape(e.get(), 0, &k, &shape), 0);
  EXPECT_EQ(k, 2);
  EXPECT_EQ(shape, 0);
  EXPECT_EQ(zorp_cons_item_allowed(e.get(), 0, nullptr, nullptr, 0), 0u);
}

TEST(ConsItems, SumOfConstraintsEndsWithItsFreeFormPart) {
  const Poly x = var("x"), y = var("y"), z = var("z");
  const int64_t los[] = {0, 3}, his[] = {0, 3};
  const Poly between(zorp_cons_between((x + y).get(), 1, 1));
  const Poly equal = times(3, Poly(zorp_cons_equal((x + times(2, z)).get(), los, his, 2)));
  const Poly free_form(zorp_cons_mark((x - y - Poly(1)).get()));
  const Poly e = between + equal + free_form;
  ASSERT_EQ(zorp_cons_item_count(e.get()), 3u);

  const Info first = info(e, 0), second = info(e, 1), third = info(e, 2);
  EXPECT_EQ(first.bounded, 1);
  EXPECT_EQ(first.body, (x + y).str());
  EXPECT_EQ(first.body_tag, ZORP_NO_VAR);
  EXPECT_EQ(first.weight, 1);
  EXPECT_EQ(first.lower, 1);
  EXPECT_EQ(first.upper, 1);
  EXPECT_EQ(second.bounded, 1);
  EXPECT_EQ(second.weight, 3);
  EXPECT_EQ(second.lower, 0);
  EXPECT_EQ(second.upper, 3);
  EXPECT_EQ(third.bounded, 0);
  EXPECT_EQ(third.body, (x - y - Poly(1)).str());
  EXPECT_EQ(third.weight, 1);

  int64_t got_los[2] = {-1, -1}, got_his[2] = {-1, -1};
  EXPECT_EQ(zorp_cons_item_allowed(e.get(), 1, got_los, got_his, 1), 2u);
  EXPECT_EQ(got_los[0], 0);
  EXPECT_EQ(got_his[0], 0);
  EXPECT_EQ(got_los[1], -1);  // past the capacity: untouched
  EXPECT_EQ(zorp_cons_item_allowed(e.get(), 1, got_los, got_his, 2), 2u);
  EXPECT_EQ(got_los[1], 3);
  EXPECT_EQ(got_his[1], 3);
  EXPECT_EQ(zorp_cons_item_allowed(e.get(), 0, got_los, got_his, 2), 0u);
  EXPECT_EQ(zorp_cons_item_allowed(e.get(), 2, got_los, got_his, 2), 0u);

  // y = 1: between holds, equal holds at 0, the free-form part is -2.
  const SolPtr sol = sol_over({&x, &y, &z});
  zorp_sol_set(sol.get(), index_of(y), 1);
  EXPECT_EQ(eval(e, 0, sol.get()).violation, 0);
  EXPECT_EQ(eval(e, 1, sol.get()).violation, 0);
  const Eval rest = eval(e, 2, sol.get());
  EXPECT_EQ(rest.value, -2);
  EXPECT_EQ(rest.violation, -2);
  EXPECT_EQ(rest.lower, 0);
  EXPECT_EQ(rest.upper, 0);
  EXPECT_EQ(zorp_cons_violation_count(e.get(), sol.get()), 1u);
  EXPECT_EQ(zorp_sol_eval_expr(sol.get(), e.get(), nullptr), -2);

  // All ones: x + y = 2 misses 1, x + 2z = 3 is allowed, the free-form part is -1.
  zorp_sol_set(sol.get(), index_of(x), 1);
  zorp_sol_set(sol.get(), index_of(z), 1);
  const Eval off = eval(e, 0, sol.get());
  EXPECT_EQ(off.value, 2);
  EXPECT_EQ(off.lower, 1);
  EXPECT_EQ(off.upper, 1);
  EXPECT_EQ(off.violation, 1);
  EXPECT_EQ(off.weight, 1);
  const Eval allowed = eval(e, 1, sol.get());
  EXPECT_EQ(allowed.value, 3);
  EXPECT_EQ(allowed.violation, 0);
  EXPECT_EQ(allowed.weight, 3);
  EXPECT_EQ(zorp_cons_violation_count(e.get(), sol.get()), 2u);
  EXPECT_EQ(zorp_sol_eval_expr(sol.get(), e.get(), nullptr), 1 + 0 - 1);
}

TEST(ConsItems, ObjectiveShapesAreNeverCountedAsViolations) {
  const Poly x = var("x"), y = var("y");
  const Poly body = x + times(2, y);
  const Poly e = Poly(5) + Poly(zorp_abs_term(body.get(), 2));
  const SolPtr sol = sol_over({&x, &y});
  zorp_sol_set(sol.get(), index_of(x), 1);
  zorp_sol_set(sol.get(), index_of(y), 1);
  const Eval v = eval(e, 0, sol.get());
  EXPECT_EQ(v.value, 3);
  EXPECT_EQ(v.violation, 3);
  EXPECT_EQ(zorp_cons_violation_count(e.get(), sol.get()), 0u);
  EXPECT_EQ(zorp_sol_eval_expr(sol.get(), e.get(), nullptr), 5 + 9);
  int k = 0, shape = 0;
  EXPECT_EQ(zorp_cons_item_shape(e.get(), 0, &k, &shape), 1);
  EXPECT_EQ(k, 2);
  EXPECT_EQ(shape, 1);
  EXPECT_EQ(zorp_cons_item_shape(e.get(), 1, &k, &shape), 0);

  // relu counts only the positive side, linearly for k = 1.
  const Poly relu(zorp_relu_term((x - times(2, y)).get(), 1));
  EXPECT_EQ(eval(relu, 0, sol.get()).violation, 0);  // -1 stays above the reachable minimum
  EXPECT_EQ(zorp_sol_eval_expr(sol.get(), relu.get(), nullptr), 0);
  zorp_sol_set(sol.get(), index_of(y), 0);
  EXPECT_EQ(eval(relu, 0, sol.get()).violation, 1);
  EXPECT_EQ(zorp_sol_eval_expr(sol.get(), relu.get(), nullptr), 1);
  EXPECT_EQ(zorp_cons_violation_count(relu.get(), sol.get()), 0u);
}

TEST(ConsItems, WeightsAreReportedAsStored) {
  const Poly x = var("x");
  const Poly c(zorp_cons_between(x.get(), 1, 1));
  const Poly e = times(3, c) - c;
  EXPECT_EQ(info(e, 0).weight, 3);
  EXPECT_EQ(info(e, 1).weight, -1);
  const SolPtr sol = sol_over({&x});
  EXPECT_EQ(eval(e, 1, sol.get()).weight, -1);
  EXPECT_EQ(zorp_sol_eval_expr(sol.get(), e.get(), nullptr), 3 - 1);
  // The count ignores weights, even negative ones.
  EXPECT_EQ(zorp_cons_violation_count(e.get(), sol.get()), 2u);
}

TEST(ConsItems, VariablesMissingFromTheSolutionCountAsZero) {
  const Poly x = var("x"), y = var("y");
  const Poly e(zorp_cons_between((x + times(4, y)).get(), 0, 2));
  const SolPtr sol = sol_over({&x});
  zorp_sol_set(sol.get(), index_of(x), 1);
  const Eval v = eval(e, 0, sol.get());
  EXPECT_EQ(v.value, 1);
  EXPECT_EQ(v.violation, 0);
  const Poly unknown = var("unknown") + Poly(2);
  EXPECT_EQ(zorp_sol_eval_expr(sol.get(), unknown.get(), nullptr), 2);
}

TEST(ConsItems, LoneClassicConstraintIgnoresTheIndex) {
  const Poly x = var("x"), y = var("y");
  const Poly penalty = times(7, x);
  const Poly body = x + y;
  Poly ee(zorp_exprexprelem_create(penalty.get(), body.get()));
  EXPECT_EQ(zorp_cons_item_count(ee.get()), 1u);

  // Without bounds the whole expression stands in for the item.
  const Info unbounded = info(ee, 5);
  EXPECT_EQ(unbounded.bounded, 0);
  EXPECT_EQ(unbounded.body, penalty.str());
  EXPECT_EQ(unbounded.body_tag, ZORP_NO_VAR);
  EXPECT_EQ(zorp_cons_item_shape(ee.get(), 0, nullptr, nullptr), 0);
  const SolPtr sol = sol_over({&x, &y});
  EXPECT_EQ(zorp_cons_violation_count(ee.get(), sol.get()), 0u);

  zorp_exprexpr_set_bounds(ee.get(), 2, 2);
  const Info bounded = info(ee, 5);
  EXPECT_EQ(bounded.bounded, 1);
  EXPECT_EQ(bounded.body, body.str());
  EXPECT_EQ(bounded.lower, 2);
  EXPECT_EQ(zorp_cons_item_shape(ee.get(), 0, nullptr, nullptr), 1);
  EXPECT_EQ(zorp_cons_item_shape(ee.get(), 1, nullptr, nullptr), 0);
  EXPECT_EQ(eval(ee, 9, sol.get()).violation, 2);
  EXPECT_EQ(zorp_cons_violation_count(ee.get(), sol.get()), 1u);
  // Classic: the polynomial already is the penalty, nothing is added to it.
  EXPECT_EQ(zorp_sol_eval_expr(sol.get(), ee.get(), nullptr), 0);

  const int64_t lo[] = {0}, hi[] = {0};
  zorp_exprexpr_set_allowed(ee.get(), lo, hi, 1);
  int64_t got_lo = -1, got_hi = -1;
  EXPECT_EQ(zorp_cons_item_allowed(ee.get(), 3, &got_lo, &got_hi, 1), 1u);
  EXPECT_EQ(got_lo, 0);
  EXPECT_EQ(zorp_cons_violation_count(ee.get(), sol.get()), 0u);
}

TEST(ConsItems, ClassicSumItemWithoutBoundsReportsTheWholeExpression) {
  const Poly x = var("x"), y = var("y");
  Poly bounded(zorp_exprexprelem_create(x.get(), x.get()));
  zorp_exprexpr_set_bounds(bounded.get(), 0, 0);
  const Poly unbounded(zorp_exprexprelem_create(y.get(), y.get()));
  const Poly e = bounded + unbounded;
  ASSERT_EQ(zorp_cons_item_count(e.get()), 2u);
  const Info item = info(e, 1);
  EXPECT_EQ(item.bounded, 0);
  EXPECT_EQ(item.body, e.str());
  EXPECT_EQ(item.weight, 1);
  const SolPtr sol = sol_over({&x, &y});
  zorp_sol_set(sol.get(), index_of(x), 1);
  zorp_sol_set(sol.get(), index_of(y), 1);
  EXPECT_EQ(zorp_cons_violation_count(e.get(), sol.get()), 1u);
}

class ConsItemsDeathTest : public DeathTestBase {};

TEST_F(ConsItemsDeathTest, IndexPastTheLastItem) {
  const Poly x = var("x"), y = var("y");
  const Poly plain = x + y;
  const Poly sum = Poly(zorp_cons_between(x.get(), 0, 1)) + Poly(zorp_cons_mark(y.get()));
  const Poly no_rest = Poly(zorp_cons_between(x.get(), 0, 1)) + Poly(zorp_cons_between(y.get(), 0, 1));
  const SolPtr sol = sol_over({&x, &y});
  EXPECT_EXIT(zorp_cons_item_info(plain.get(), 1, nullptr, nullptr, nullptr, nullptr),
              testing::KilledBySignal(SIGABRT), "^zorp: zorp_cons_item_info: bad item index\n$");
  EXPECT_EXIT(zorp_cons_item_info(sum.get(), 2, nullptr, nullptr, nullptr, nullptr), testing::KilledBySignal(SIGABRT),
              "^zorp: zorp_cons_item_info: bad item index\n$");
  EXPECT_EXIT(zorp_cons_item_info(no_rest.get(), 2, nullptr, nullptr, nullptr, nullptr),
              testing::KilledBySignal(SIGABRT), "^zorp: zorp_cons_item_info: bad item index\n$");
  EXPECT_EXIT(zorp_cons_item_eval(plain.get(), 1, sol.get(), nullptr, nullptr, nullptr, nullptr, nullptr),
              testing::KilledBySignal(SIGABRT), "^zorp: zorp_cons_item_eval: bad item index\n$");
  EXPECT_EXIT(zorp_cons_item_eval(sum.get(), 2, sol.get(), nullptr, nullptr, nullptr, nullptr, nullptr),
              testing::KilledBySignal(SIGABRT), "^zorp: zorp_cons_item_eval: bad item index\n$");
  EXPECT_EXIT(zorp_cons_item_eval(no_rest.get(), 2, sol.get(), nullptr, nullptr, nullptr, nullptr, nullptr),
              testing::KilledBySignal(SIGABRT), "^zorp: zorp_cons_item_eval: bad item index\n$");
}

TEST_F(ConsItemsDeathTest, ReportsNeedConstraintsWithBounds) {
  const Poly x = var("x");
  const Poly ee(zorp_exprexprelem_create(x.get(), x.get()));
  const SolPtr sol = sol_over({&x});
  EXPECT_EXIT(zorp_cons_item_eval(ee.get(), 0, sol.get(), nullptr, nullptr, nullptr, nullptr, nullptr),
              testing::KilledBySignal(SIGABRT), "^zorp: violations: constraint has no recorded bounds\n$");
  EXPECT_EXIT(zorp_cons_violation_count(x.get(), sol.get()), testing::KilledBySignal(SIGABRT),
              "^zorp: cons\\(sol\\): expression carries no constraints\n$");
}

}  // namespace
