#include "zorp/cons.h"

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "algebra/handles.h"
#include "constraint/constraint_sets.h"
#include "support/builders.h"
#include "support/death.h"
#include "zorp.h"

namespace {

using zorp::test::DeathTestBase;
using zorp::test::escaped_regex;
using zorp::test::Poly;

using Intervals = std::vector<std::pair<int64_t, int64_t>>;

constexpr uint32_t kNone = 0xFFFFFFFFu;

uint32_t tag(const Poly& e) { return zorp_expr_attr(e.get()); }
const zorp::ConstraintSumRecord& sum_of(const Poly& e) { return zorp::constraint_sum_at(tag(e)); }
const zorp::ExprExprRecord& record_at(uint32_t index) { return zorp::expr_expr_at(index, "test: bad index"); }
// The record of a classic value, or of the single item of a declared one.
const zorp::ExprExprRecord& only_record(const Poly& e) {
  if ((tag(e) >> 30) == 2u) return record_at(tag(e));
  EXPECT_EQ(sum_of(e).items.size(), 1u);
  return record_at(sum_of(e).items.at(0).index);
}
std::string text(const zorp::ExprImpl& e) { return zorp_expr_str(reinterpret_cast<const zorp_expr*>(&e)); }
std::pair<int64_t, int64_t> bounds(const zorp::ExprExprRecord& r) { return {r.lower, r.upper}; }

class ConsApi : public ::testing::Test {
 protected:
  Poly x = zorp::test::var("ca_x"), y = zorp::test::var("ca_y");
  Poly f = x + y - 1;
};

TEST_F(ConsApi, ClassicRecordCopiesPenaltyAndBody) {
  Poly body = x + 2;
  const Poly penalty = Poly(zorp_expr_sqr(body.get()));
  const Poly ee(zorp_exprexprelem_create(penalty.get(), body.get()));
  EXPECT_EQ(tag(ee) >> 30, 2u);
  EXPECT_EQ(ee.str(), penalty.str());
  EXPECT_EQ(zorp_expr_is_declared(ee.get()), 0);
  const std::string body_before = body.str();
  body += y;  // the record keeps its own copy
  EXPECT_EQ(text(only_record(ee).body), body_before);
  EXPECT_EQ(Poly(zorp_expr_clone(zorp_exprexprelem_get_body(ee.get()))).str(), body_before);

  int64_t lo = 111, hi = 222;
  EXPECT_EQ(zorp_exprexpr_get_bounds(ee.get(), &lo, &hi), 0);
  EXPECT_EQ(std::make_pair(lo, hi), std::make_pair(int64_t{111}, int64_t{222}));
  zorp_exprexpr_set_bounds(ee.get(), -4, 9);
  EXPECT_EQ(zorp_exprexpr_get_bounds(ee.get(), &lo, &hi), 1);
  EXPECT_EQ(std::make_pair(lo, hi), std::make_pair(int64_t{-4}, int64_t{9}));
  EXPECT_EQ(only_record(ee).penalty_exponent, 2);
  EXPECT_EQ(only_record(ee).penalty_shape, 0);

  // No classic record: nothing to report.
  EXPECT_EQ(zorp_exprexpr_get_bounds(x.get(), &lo, &hi), 0);
  const Poly declared(zorp_cons_between(x.get(), 0, 1));
  EXPECT_EQ(zorp_exprexpr_get_bounds(declared.get(), &lo, &hi), 0);
}

TEST_F(ConsApi, SetAllowedKeepsIntervalsAsGivenAndTakesTheHull) {
  Poly ee(zorp_exprexprelem_create(x.get(), x.get()));
  zorp_exprexpr_set_bounds(ee.get(), 100, 200);
  const int64_t los[] = {5, -3, 0, 5};
  const int64_t his[] = {7, 2, 6, 5};
  zorp_exprexpr_set_allowed(ee.get(), los, his, 4);
  EXPECT_EQ(only_record(ee).allowed, (Intervals{{5, 7}, {-3, 2}, {0, 6}, {5, 5}}));
  EXPECT_EQ(bounds(only_record(ee)), std::make_pair(int64_t{-3}, int64_t{7}));
  // A later call replaces the set instead of adding to it.
  const int64_t one_lo[] = {4}, one_hi[] = {4};
  zorp_exprexpr_set_allowed(ee.get(), one_lo, one_hi, 1);
  EXPECT_EQ(only_record(ee).allowed, (Intervals{{4, 4}}));
  int64_t lo = 0, hi = 0;
  EXPECT_EQ(zorp_exprexpr_get_bounds(ee.get(), &lo, &hi), 1);
  EXPECT_EQ(std::make_pair(lo, hi), std::make_pair(int64_t{4}, int64_t{4}));

  Poly fresh(zorp_exprexprelem_create(x.get(), x.get()));
  zorp_exprexpr_set_allowed(fresh.get(), one_lo, one_hi, 1);
  EXPECT_EQ(only_record(fresh).has_bounds, 1);
}

TEST_F(ConsApi, BetweenDeclaresOneItemOnACopyOfTheBody) {
  const Poly c(zorp_cons_between(f.get(), -2, 5));
  EXPECT_EQ(zorp_expr_is_declared(c.get()), 1);
  EXPECT_EQ(c.size(), 0u);
  EXPECT_EQ(c.constant(), 0);
  ASSERT_EQ(sum_of(c).items.size(), 1u);
  EXPECT_EQ(sum_of(c).items[0].weight, 1);
  EXPECT_FALSE(sum_of(c).remainder);
  const zorp::ExprExprRecord& r = only_record(c);
  EXPECT_EQ(text(r.body), f.str());
  EXPECT_EQ(r.body.constant, -1);
  EXPECT_EQ(r.has_bounds, 1);
  EXPECT_EQ(bounds(r), std::make_pair(int64_t{-2}, int64_t{5}));
  EXPECT_TRUE(r.allowed.empty());
  EXPECT_EQ(r.penalty_exponent, 2);
  EXPECT_EQ(r.penalty_shape, 0);
}

TEST_F(ConsApi, EqualStoresTheSetAndItsHull) {
  const int64_t los[] = {1, 4}, his[] = {1, 4};
  const Poly c(zorp_cons_equal(f.get(), los, his, 2));
  EXPECT_EQ(bounds(only_record(c)), std::make_pair(int64_t{1}, int64_t{4}));
  EXPECT_EQ(only_record(c).allowed, (Intervals{{1, 1}, {4, 4}}));
  EXPECT_EQ(only_record(c).has_bounds, 1);
  const int64_t mixed_lo[] = {9, -6, 0}, mixed_hi[] = {12, -1, 10};
  const Poly d(zorp_cons_equal(f.get(), mixed_lo, mixed_hi, 3));
  EXPECT_EQ(bounds(only_record(d)), std::make_pair(int64_t{-6}, int64_t{12}));
  EXPECT_EQ(only_record(d).allowed, (Intervals{{9, 12}, {-6, -1}, {0, 10}}));
}

TEST_F(ConsApi, AbsAndReluAreObjectiveShapes) {
  for (int64_t k : {1, 2}) {
    const Poly a(zorp_abs_term(f.get(), k));
    const zorp::ExprExprRecord& r = only_record(a);
    EXPECT_EQ(r.penalty_exponent, k);
    EXPECT_EQ(r.penalty_shape, 1);
    EXPECT_EQ(bounds(r), std::make_pair(int64_t{0}, int64_t{0}));
    EXPECT_EQ(text(r.body), f.str());
    EXPECT_EQ(zorp_expr_all_objective_only(a.get()), 1);
  }
  // relu's lower end is the body's reachable minimum when that is below 0.
  const Poly low(zorp_relu_term((Poly(3) * x - Poly(5) * y + 1).get(), 2));
  EXPECT_EQ(bounds(only_record(low)), std::make_pair(int64_t{-4}, int64_t{0}));
  EXPECT_EQ(only_record(low).penalty_shape, 1);
  EXPECT_EQ(only_record(low).penalty_exponent, 2);
  const Poly high(zorp_relu_term((x + 2).get(), 1));
  EXPECT_EQ(bounds(only_record(high)), std::make_pair(int64_t{0}, int64_t{0}));
  const zorp_var a = zorp_new_int_var("ca_atom", -9, 4);
  const Poly with_atom(zorp_relu_term(Poly::var(a).get(), 1));
  EXPECT_EQ(bounds(only_record(with_atom)), std::make_pair(int64_t{-9}, int64_t{0}));
}

TEST_F(ConsApi, MarkDeclaresWhatAValueHolds) {
  // A declared value: the same record on a zero expression.
  Poly c(zorp_cons_between(f.get(), 0, 1));
  c += x;
  const Poly marked_declared(zorp_cons_mark(c.get()));
  EXPECT_EQ(tag(marked_declared), tag(c));
  EXPECT_EQ(marked_declared.size(), 0u);
  EXPECT_EQ(marked_declared.constant(), 0);

  // A classic value: its bounds take over and its penalty polynomial is dropped.
  Poly ee(zorp_exprexprelem_create((x + 5).get(), y.get()));
  const Poly marked_classic(zorp_cons_mark(ee.get()));
  EXPECT_EQ(zorp_expr_is_declared(marked_classic.get()), 1);
  EXPECT_EQ(marked_classic.size(), 0u);
  EXPECT_EQ(marked_classic.constant(), 0);
  ASSERT_EQ(sum_of(marked_classic).items.size(), 1u);
  EXPECT_EQ(sum_of(marked_classic).items[0].index, tag(ee) & 0x3FFFFFFFu);
  EXPECT_FALSE(sum_of(marked_classic).remainder);

  // A classic sum: every item at weight 1, the free-form part copied.
  Poly classic_sum(zorp_expr_clone_mul_int(ee.get(), 3));
  classic_sum += Poly(4) * x;
  ASSERT_EQ(sum_of(classic_sum).items[0].weight, 3);
  const Poly marked_sum(zorp_cons_mark(classic_sum.get()));
  ASSERT_EQ(sum_of(marked_sum).items.size(), 1u);
  EXPECT_EQ(sum_of(marked_sum).items[0].weight, 1);
  ASSERT_TRUE(sum_of(marked_sum).remainder);
  EXPECT_EQ(text(*sum_of(marked_sum).remainder), (Poly(4) * x).str());
  EXPECT_NE(sum_of(marked_sum).remainder.get(), sum_of(classic_sum).remainder.get());
  EXPECT_EQ(zorp_expr_is_declared(marked_sum.get()), 1);

  // A plain polynomial becomes a free-form penalty.
  const Poly p = Poly(2) * x - y + 3;
  const Poly marked_plain(zorp_cons_mark(p.get()));
  EXPECT_EQ(zorp_expr_is_declared(marked_plain.get()), 1);
  EXPECT_TRUE(sum_of(marked_plain).items.empty());
  ASSERT_TRUE(sum_of(marked_plain).remainder);
  EXPECT_EQ(text(*sum_of(marked_plain).remainder), p.str());
  EXPECT_EQ(sum_of(marked_plain).remainder->ext, kNone);
  EXPECT_EQ(marked_plain.size(), 0u);
}

TEST_F(ConsApi, QueriesOnEveryKindOfValue) {
  const Poly plain = x + 1;
  const Poly ee(zorp_exprexprelem_create(x.get(), y.get()));
  const Poly classic_sum = ee + y;
  const Poly one(zorp_cons_between(f.get(), 0, 1));
  const Poly two = one + Poly(zorp_cons_between(x.get(), 0, 0));
  const Poly with_free_form = one + Poly(zorp_cons_mark(y.get()));
  const Poly only_free_form(zorp_cons_mark(y.get()));
  const Poly shapes = Poly(zorp_abs_term(x.get(), 1)) + Poly(zorp_relu_term(y.get(), 2)) + x;
  const Poly shape_and_cons = Poly(zorp_abs_term(x.get(), 1)) + one;
  const Poly shape_and_free = Poly(zorp_abs_term(x.get(), 1)) + only_free_form;
  const Poly classic_shape_mark(zorp_cons_mark(ee.get()));

  struct Row {
    const char* name;
    const Poly& value;
    int declared, has_body, objective_only;
  };
  const Row rows[] = {
      {"plain", plain, 0, 0, 0},
      {"classic", ee, 0, 1, 0},
      {"classic sum", classic_sum, 0, 0, 0},
      {"one declared", one, 1, 1, 0},
      {"two declared", two, 1, 0, 0},
      {"declared and free form", with_free_form, 1, 0, 0},
      {"free form only", only_free_form, 1, 0, 0},
      {"abs and relu", shapes, 1, 0, 1},
      {"abs and between", shape_and_cons, 1, 0, 0},
      {"abs and free form", shape_and_free, 1, 0, 0},
      {"marked classic", classic_shape_mark, 1, 1, 0},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(zorp_expr_is_declared(row.value.get()), row.declared) << row.name;
    EXPECT_EQ(zorp_expr_has_body(row.value.get()), row.has_body) << row.name;
    EXPECT_EQ(zorp_expr_all_objective_only(row.value.get()), row.objective_only) << row.name;
  }
}

TEST_F(ConsApi, ClassicBodiesAreAcceptedWhereDeclaredOnesAreRefused) {
  const Poly ee(zorp_exprexprelem_create(x.get(), y.get()));
  const Poly classic_sum = ee + x;
  const int64_t los[] = {0}, his[] = {1};
  for (const Poly* body : {&ee, &classic_sum}) {
    const std::vector<Poly> made = [&] {
      std::vector<Poly> v;
      v.emplace_back(zorp_cons_between(body->get(), 0, 1));
      v.emplace_back(zorp_cons_equal(body->get(), los, his, 1));
      v.emplace_back(zorp_abs_term(body->get(), 1));
      v.emplace_back(zorp_relu_term(body->get(), 1));
      return v;
    }();
    for (const Poly& c : made) {
      EXPECT_EQ(zorp_expr_is_declared(c.get()), 1);
      EXPECT_EQ(only_record(c).body.ext, kNone);
    }
    const Poly compared(zorp_exprexprelem_create(body->get(), body->get()));
    EXPECT_EQ(tag(compared) >> 30, 2u);
    EXPECT_NE(tag(compared), tag(*body));
    EXPECT_EQ(only_record(compared).body.ext, kNone);
  }
}

TEST_F(ConsApi, BodyOfASingleConstraintIsBorrowedFromTheRecord) {
  const Poly c(zorp_cons_between(f.get(), 0, 1));
  const zorp_expr* body = zorp_exprexprelem_get_body(c.get());
  EXPECT_EQ(zorp::impl(body), &only_record(c).body);
  EXPECT_EQ(Poly(zorp_expr_clone(body)).str(), f.str());
  const Poly ee(zorp_exprexprelem_create(x.get(), y.get()));
  EXPECT_EQ(Poly(zorp_expr_clone(zorp_exprexprelem_get_body(ee.get()))).str(), y.str());
}

using ConsApiDeathTest = DeathTestBase;

std::string line(const std::string& text) { return "^" + escaped_regex(text) + "\n"; }

std::string refusal(const std::string& word) {
  return line("zorp: zorp::cons: '" + word + "' is not allowed on an expression with declared constraints");
}

TEST_F(ConsApiDeathTest, DeclaredArgumentsAreRefused) {
  const Poly x = zorp::test::var("cad_x");
  const Poly c(zorp_cons_between(x.get(), 0, 1));
  const int64_t los[] = {0}, his[] = {1};
  EXPECT_DEATH(zorp_exprexprelem_create(c.get(), x.get()), refusal("== / <= (comparing declared constraints)"));
  EXPECT_DEATH(zorp_exprexprelem_create(x.get(), c.get()), refusal("== / <= (comparing declared constraints)"));
  EXPECT_DEATH(zorp_cons_between(c.get(), 0, 1), refusal("cons(body, ...) on declared constraints"));
  EXPECT_DEATH(zorp_cons_equal(c.get(), los, his, 1), refusal("cons(body, equal=...) on declared constraints"));
  EXPECT_DEATH(zorp_abs_term(c.get(), 1), refusal("abs/relu body carrying declared constraints"));
  EXPECT_DEATH(zorp_relu_term(c.get(), 2), refusal("abs/relu body carrying declared constraints"));
  // The refusal comes before the exponent check.
  EXPECT_DEATH(zorp_abs_term(c.get(), 3), refusal("abs/relu body carrying declared constraints"));
}

TEST_F(ConsApiDeathTest, ExponentMustBeOneOrTwo) {
  const Poly x = zorp::test::var("cad_k");
  EXPECT_DEATH(zorp_abs_term(x.get(), 3), line("zorp: zorp::abs: the exponent k must be 1 or 2 (got 3)"));
  EXPECT_DEATH(zorp_abs_term(x.get(), 0), line("zorp: zorp::abs: the exponent k must be 1 or 2 (got 0)"));
  EXPECT_DEATH(zorp_relu_term(x.get(), -1), line("zorp: zorp::relu: the exponent k must be 1 or 2 (got -1)"));
  EXPECT_DEATH(zorp_relu_term(x.get(), 258), line("zorp: zorp::relu: the exponent k must be 1 or 2 (got 258)"));
}

TEST_F(ConsApiDeathTest, EmptyAllowedSetsAreFatal) {
  const Poly x = zorp::test::var("cad_e");
  const int64_t none[] = {0};
  EXPECT_DEATH(zorp_cons_equal(x.get(), none, none, 0), line("zorp: zorp_cons_equal: empty allowed-value set"));
  Poly ee(zorp_exprexprelem_create(x.get(), x.get()));
  EXPECT_DEATH(zorp_exprexpr_set_allowed(ee.get(), none, none, 0), line("zorp: ExprExprSet: set_allowed empty set"));
}

TEST_F(ConsApiDeathTest, ClassicSettersNeedAClassicRecord) {
  const Poly x = zorp::test::var("cad_s");
  const int64_t v[] = {1};
  Poly plain = x + 1;
  Poly declared(zorp_cons_between(x.get(), 0, 1));
  for (Poly* e : {&plain, &declared}) {
    EXPECT_DEATH(zorp_exprexpr_set_bounds(e->get(), 0, 1), line("zorp: zorp_exprexpr_set_bounds: not an ExprExpr"));
    EXPECT_DEATH(zorp_exprexpr_set_allowed(e->get(), v, v, 1), line("zorp: zorp_exprexpr_set_allowed: not an ExprExpr"));
  }
}

TEST_F(ConsApiDeathTest, BodyAccessNeedsExactlyOneConstraint) {
  const Poly x = zorp::test::var("cad_b");
  EXPECT_DEATH(zorp_exprexprelem_get_body(x.get()),
               line("zorp: ExprExpr body access on a value that is not an ExprExpr (plain Expr, VarInt or constraint "
                    "sum)."));
  Poly stale = x;
  zorp::impl(stale.get())->ext = 0xBFFFFFFEu;  // an ExprExpr tag past the end of the set
  EXPECT_DEATH(zorp_exprexprelem_get_body(stale.get()),
               line("zorp: ExprExpr body access on a value that is no longer an ExprExpr (e.g. after ee += 1, "
                    "ee.sqr())."));
  zorp::impl(stale.get())->ext = kNone;

  const Poly one(zorp_cons_between(x.get(), 0, 1));
  const Poly two = one + Poly(zorp_cons_between(x.get(), 1, 1));
  EXPECT_DEATH(zorp_exprexprelem_get_body(two.get()),
               line("zorp: body() requires exactly one constraint, but this value holds 2 constraint(s); use "
                    "violations(sol) instead."));
  const Poly with_free_form = one + Poly(zorp_cons_mark(x.get()));
  EXPECT_DEATH(zorp_exprexprelem_get_body(with_free_form.get()),
               line("zorp: body() requires exactly one constraint, but this value holds 1 constraint(s) and a "
                    "free-form penalty; use violations(sol) instead."));
  const Poly free_form(zorp_cons_mark(x.get()));
  EXPECT_DEATH(zorp_exprexprelem_get_body(free_form.get()),
               line("zorp: body() requires exactly one constraint, but this value holds 0 constraint(s) and a "
                    "free-form penalty; use violations(sol) instead."));
  // A classic sum is held to the same rule.
  const Poly ee(zorp_exprexprelem_create(x.get(), x.get()));
  const Poly classic_sum = ee + x;
  EXPECT_DEATH(zorp_exprexprelem_get_body(classic_sum.get()),
               line("zorp: body() requires exactly one constraint, but this value holds 1 constraint(s) and a "
                    "free-form penalty; use violations(sol) instead."));
}

}  // namespace
