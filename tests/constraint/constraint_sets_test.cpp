#include "constraint/constraint_sets.h"

#include <algorithm>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "algebra/handles.h"
#include "algebra/merge.h"
#include "support/builders.h"
#include "support/death.h"
#include "zorp.h"

namespace {

using zorp::test::DeathTestBase;
using zorp::test::Poly;

constexpr uint32_t kNone = 0xFFFFFFFFu;

uint32_t tag(const Poly& e) { return zorp_expr_attr(e.get()); }
std::string text(const zorp::ExprImpl& e) { return zorp_expr_str(reinterpret_cast<const zorp_expr*>(&e)); }

// Each thread declares its own constraints and sums them in place; the other thread's appends
// to the shared sets must neither lose a record nor mix bodies up.
TEST(ConstraintSets, ConcurrentDeclarationsLoseNothing) {
  constexpr int kThreads = 4, kPerThread = 400;
  std::vector<zorp_var> vars;
  for (int t = 0; t < kThreads; ++t) vars.push_back(zorp_new_var(("cs_thread" + std::to_string(t)).c_str()));
  std::vector<Poly> sums(kThreads);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      Poly& sum = sums[t];
      for (int i = 0; i < kPerThread; ++i) {
        // The body names the thread by its variable and the step by its constant.
        Poly body = Poly::var(vars[t]) + i;
        sum += Poly(zorp_cons_between(body.get(), t, i));
        if (i % 50 == 0) sum += Poly::var(vars[t]);  // objective along the way
      }
    });
  }
  for (std::thread& th : threads) th.join();

  for (int t = 0; t < kThreads; ++t) {
    ASSERT_EQ(zorp_expr_is_declared(sums[t].get()), 1);
    const zorp::ConstraintSumRecord& record = zorp::constraint_sum_at(tag(sums[t]));
    ASSERT_EQ(record.items.size(), static_cast<std::size_t>(kPerThread)) << "thread " << t;
    EXPECT_FALSE(record.remainder);
    for (int i = 0; i < kPerThread; ++i) {
      const zorp::ConstraintItem& item = record.items[i];
      EXPECT_EQ(item.weight, 1);
      const zorp::ExprExprRecord& r = zorp::expr_expr_at(item.index, "test: bad index");
      ASSERT_EQ(r.body.term_count(), 1u);
      EXPECT_EQ(r.body.first_term.vars.slot[0], vars[t]) << "thread " << t << " item " << i;
      EXPECT_EQ(r.body.constant, i);
      EXPECT_EQ(r.lower, t);
      EXPECT_EQ(r.upper, i);
    }
    EXPECT_EQ(sums[t].size(), static_cast<uint64_t>((kPerThread + 49) / 50));
  }
  // Every record index is distinct across threads.
  std::vector<uint32_t> seen;
  for (int t = 0; t < kThreads; ++t)
    for (const zorp::ConstraintItem& item : zorp::constraint_sum_at(tag(sums[t])).items) seen.push_back(item.index);
  std::sort(seen.begin(), seen.end());
  EXPECT_EQ(std::adjacent_find(seen.begin(), seen.end()), seen.end());
}

zorp::ExprImpl simplified(const zorp::ExprImpl& e) { return zorp::expr_simplify_as_binary(e); }

TEST(ConstraintSets, TransformRebuildsRecordsAroundNewBodies) {
  const Poly x = zorp::test::var("cs_tx"), y = zorp::test::var("cs_ty");
  const Poly messy = x + y + x - y;  // simplifies to 2*x
  Poly ee(zorp_exprexprelem_create(x.get(), messy.get()));
  const int64_t los[] = {0, 2}, his[] = {0, 2};
  zorp_exprexpr_set_allowed(ee.get(), los, his, 2);
  const uint32_t moved = zorp::transform_constraint_tag(tag(ee), simplified);
  ASSERT_EQ(moved & 0xC0000000u, zorp::kExprExprKind);
  EXPECT_NE(moved, tag(ee));
  const zorp::ExprExprRecord& old_record = zorp::expr_expr_at(tag(ee), "test");
  const zorp::ExprExprRecord& new_record = zorp::expr_expr_at(moved, "test");
  EXPECT_EQ(text(new_record.body), (Poly(2) * x).str());
  EXPECT_EQ(text(old_record.body), messy.str());
  EXPECT_EQ(new_record.allowed, old_record.allowed);
  EXPECT_EQ(new_record.lower, 0);
  EXPECT_EQ(new_record.upper, 2);
  EXPECT_EQ(new_record.has_bounds, 1);

  Poly sum = Poly(zorp_abs_term(messy.get(), 1)) + Poly(zorp_cons_between(x.get(), 0, 1));
  zorp_expr_imul_int(sum.get(), -2);
  sum += Poly(zorp_cons_mark(messy.get()));
  const uint32_t rebuilt = zorp::transform_constraint_tag(tag(sum), simplified);
  ASSERT_EQ(rebuilt & 0xC0000000u, zorp::kConstraintSumKind);
  const zorp::ConstraintSumRecord& before = zorp::constraint_sum_at(tag(sum));
  const zorp::ConstraintSumRecord& after = zorp::constraint_sum_at(rebuilt);
  EXPECT_EQ(after.declared, 1);
  ASSERT_EQ(after.items.size(), 2u);
  for (std::size_t i = 0; i < 2; ++i) {
    EXPECT_EQ(after.items[i].weight, -2);
    EXPECT_NE(after.items[i].index, before.items[i].index);
    const zorp::ExprExprRecord& a = zorp::expr_expr_at(after.items[i].index, "test");
    const zorp::ExprExprRecord& b = zorp::expr_expr_at(before.items[i].index, "test");
    EXPECT_EQ(a.penalty_shape, b.penalty_shape);
    EXPECT_EQ(a.penalty_exponent, b.penalty_exponent);
    EXPECT_EQ(std::make_pair(a.lower, a.upper), std::make_pair(b.lower, b.upper));
  }
  EXPECT_EQ(text(zorp::expr_expr_at(after.items[0].index, "test").body), (Poly(2) * x).str());
  ASSERT_TRUE(after.remainder);
  EXPECT_EQ(text(*after.remainder), (Poly(2) * x).str());

  // Tags that are not constraints pass unchanged.
  EXPECT_EQ(zorp::transform_constraint_tag(kNone, simplified), kNone);
  EXPECT_EQ(zorp::transform_constraint_tag(7, simplified), 7u);
}

using ConstraintSetsDeathTest = DeathTestBase;

TEST_F(ConstraintSetsDeathTest, StaleTagsAreFatalWithTheirOwnWords) {
  const Poly x = zorp::test::var("cs_stale");
  Poly stale_classic = x;
  zorp::impl(stale_classic.get())->ext = 0xBFFFFFFEu;
  int64_t lo = 0, hi = 0;
  const int64_t v[] = {1};
  EXPECT_DEATH(zorp_exprexpr_get_bounds(stale_classic.get(), &lo, &hi), "^zorp: ExprExprSet: get_bounds bad index\n");
  EXPECT_DEATH(zorp_exprexpr_set_bounds(stale_classic.get(), 0, 1), "^zorp: ExprExprSet: set_bounds bad index\n");
  EXPECT_DEATH(zorp_exprexpr_set_allowed(stale_classic.get(), v, v, 1), "^zorp: ExprExprSet: set_allowed bad index\n");
  Poly stale_sum = x;
  zorp::impl(stale_sum.get())->ext = 0xFFFFFFFEu;
  EXPECT_DEATH(zorp_expr_is_declared(stale_sum.get()), "^zorp: ConstraintSumSet: bad index\n");
  EXPECT_DEATH(zorp_expr_has_body(stale_sum.get()), "^zorp: ConstraintSumSet: bad index\n");
  zorp::impl(stale_classic.get())->ext = kNone;
  zorp::impl(stale_sum.get())->ext = kNone;
}

}  // namespace
