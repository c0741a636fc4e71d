#include "constraint/reachable_bounds.h"

#include <algorithm>
#include <cstdint>
#include <random>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "constraint/constraint_sets.h"
#include "support/builders.h"
#include "support/death.h"
#include "zorp.h"

namespace {

using zorp::test::DeathTestBase;
using zorp::test::Poly;

std::pair<int64_t, int64_t> reach(const Poly& e) { return {zorp_expr_neg_sum(e.get()), zorp_expr_pos_sum(e.get())}; }

Poly raw(int64_t coefficient, std::vector<uint32_t> vars) {
  return Poly(zorp_expr_create_raw_term(coefficient, vars.data(), vars.size(), 0));
}

// Brute-force extremes of one term over every assignment of its own variables.
std::pair<int64_t, int64_t> term_extremes(const zorp_term* t) {
  std::vector<uint32_t> vars;
  for (uint32_t k = 0; k < zorp_term_degree(t); ++k) vars.push_back(zorp_term_var_at(t, k) & ~ZORP_NEGATED_BIT);
  std::sort(vars.begin(), vars.end());
  vars.erase(std::unique(vars.begin(), vars.end()), vars.end());
  const int64_t c = zorp_term_coeff(t, nullptr);
  int64_t lo = INT64_MAX, hi = INT64_MIN;
  for (uint32_t pattern = 0; pattern < (1u << vars.size()); ++pattern) {
    int64_t value = c;
    for (uint32_t k = 0; k < zorp_term_degree(t); ++k) {
      const uint32_t literal = zorp_term_var_at(t, k);
      const auto at = std::lower_bound(vars.begin(), vars.end(), literal & ~ZORP_NEGATED_BIT) - vars.begin();
      const int64_t bit = (pattern >> at) & 1;
      value *= (literal & ZORP_NEGATED_BIT) ? 1 - bit : bit;
    }
    lo = std::min(lo, value);
    hi = std::max(hi, value);
  }
  return {lo, hi};
}

TEST(ReachableBounds, ConstantAlone) {
  EXPECT_EQ(reach(Poly(-4)), std::make_pair(int64_t{-4}, int64_t{-4}));
  EXPECT_EQ(reach(Poly()), std::make_pair(int64_t{0}, int64_t{0}));
}

TEST(ReachableBounds, ComplementPairCollapsesToItsConstant) {
  // x + ~x is 1 once simplified: a bound on the raw terms would say [0, 2].
  const Poly x = zorp::test::var("rb_x");
  EXPECT_EQ(reach(x + zorp::test::negated(x)), std::make_pair(int64_t{1}, int64_t{1}));
  // x - x cancels; x*x is x.
  EXPECT_EQ(reach(x - x + 3), std::make_pair(int64_t{3}, int64_t{3}));
  EXPECT_EQ(reach(Poly(-2) * x * x), std::make_pair(int64_t{-2}, int64_t{0}));
}

TEST(ReachableBounds, AtomsUseTheirRegistryBounds) {
  const zorp_var a = zorp_new_int_var("rb_a", -2, 5);
  const zorp_var b = zorp_new_int_var("rb_b", 1, 3);
  EXPECT_EQ(reach(raw(3, {a})), std::make_pair(int64_t{-6}, int64_t{15}));
  // [-2,-2] * [-2,5] = [-10,4], then * [1,3] = [-30,12].
  EXPECT_EQ(reach(raw(-2, {a, b})), std::make_pair(int64_t{-30}, int64_t{12}));
  // An atom keeps its square: the interval product [-2,5]^2 = [-10,25] is what is reported.
  EXPECT_EQ(reach(raw(1, {a, a})), std::make_pair(int64_t{-10}, int64_t{25}));
  const zorp_var x = zorp_new_var("rb_ax");
  EXPECT_EQ(reach(raw(1, {a, x}) + 7), std::make_pair(int64_t{5}, int64_t{12}));
}

TEST(ReachableBounds, PolynomialOfATaggedValueIsWhatCounts) {
  const Poly x = zorp::test::var("rb_tx"), y = zorp::test::var("rb_ty");
  Poly c(zorp_cons_between((x + y).get(), 0, 1));
  c += Poly(2) * x - 3;
  EXPECT_EQ(reach(c), std::make_pair(int64_t{-3}, int64_t{-1}));
}

TEST(ReachableBounds, QueryDoesNotFreezeADeclaredSum) {
  const Poly x = zorp::test::var("rb_fx");
  Poly c(zorp_cons_between(x.get(), 0, 1));
  const uint32_t tag = zorp_expr_attr(c.get());
  zorp_expr_neg_sum(c.get());
  zorp_expr_pos_sum(c.get());
  EXPECT_FALSE(zorp::constraint_sum_at(tag).frozen.load());
  c += Poly(zorp_cons_between(x.get(), 1, 1));
  EXPECT_EQ(zorp_expr_attr(c.get()), tag);
  EXPECT_EQ(zorp::constraint_sum_at(tag).items.size(), 2u);
}

// For binary literals the rule is exact per simplified term, and the sum of the term intervals
// must contain every value the expression takes.
TEST(ReachableBoundsProperty, MatchesPerTermBruteForceAndContainsTheTrueRange) {
  std::vector<Poly> vars;
  for (const char* name : {"rbp_a", "rbp_b", "rbp_c", "rbp_d"}) vars.push_back(zorp::test::var(name));
  std::vector<uint32_t> pool;
  for (const Poly& v : vars) {
    pool.push_back(zorp::test::index_of(v));
    pool.push_back(zorp::test::index_of(v) ^ ZORP_NEGATED_BIT);
  }
  std::mt19937 rng(77);
  for (int round = 0; round < 300; ++round) {
    Poly e(static_cast<int64_t>(rng() % 9) - 4);
    const int nterms = 1 + static_cast<int>(rng() % 6);
    for (int i = 0; i < nterms; ++i) {
      std::vector<uint32_t> term;
      const int degree = 1 + static_cast<int>(rng() % 4);
      for (int k = 0; k < degree; ++k) term.push_back(pool[rng() % pool.size()]);
      zorp_expr_iadd_raw_term(e.get(), static_cast<int64_t>(rng() % 21) - 10, term.data(), term.size());
    }
    const Poly simplified(zorp_expr_simplify_as_binary(e.get()));
    int64_t want_lo = simplified.constant(), want_hi = want_lo;
    for (uint64_t i = 0; i < simplified.size(); ++i) {
      const auto [lo, hi] = term_extremes(zorp_expr_term_at(simplified.get(), i));
      want_lo += lo;
      want_hi += hi;
    }
    const auto [got_lo, got_hi] = reach(e);
    ASSERT_EQ(got_lo, want_lo) << e.str();
    ASSERT_EQ(got_hi, want_hi) << e.str();

    for (uint32_t pattern = 0; pattern < 16; ++pattern) {
      const int64_t value =
          zorp::test::eval_binary(e.get(), [&](uint32_t index) {
            for (std::size_t k = 0; k < vars.size(); ++k)
              if (zorp::test::index_of(vars[k]) == index) return static_cast<int>((pattern >> k) & 1);
            ADD_FAILURE() << "unexpected variable " << index;
            return 0;
          });
      ASSERT_LE(got_lo, value) << e.str();
      ASSERT_GE(got_hi, value) << e.str();
    }
  }
}

using ReachableBoundsDeathTest = DeathTestBase;

TEST_F(ReachableBoundsDeathTest, UnknownAtomIsFatal) {
  const Poly e = raw(1, {ZORP_INT_ATOM_BIT | 0x3FFFFFFEu});
  EXPECT_DEATH(zorp_expr_neg_sum(e.get()), "^zorp: reachable bounds: unknown integer variable\n");
}

}  // namespace
