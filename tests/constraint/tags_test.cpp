#include "constraint/tags.h"

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "constraint/constraint_sets.h"
#include "support/builders.h"
#include "support/death.h"
#include "zorp.h"

// How the extension tag follows an expression through arithmetic. Records are read
// through the internal sets; tags are only ever compared with tags the test was given.

namespace {

using zorp::test::DeathTestBase;
using zorp::test::escaped_regex;
using zorp::test::Poly;

constexpr uint32_t kNone = 0xFFFFFFFFu;

uint32_t tag(const Poly& e) { return zorp_expr_attr(e.get()); }
bool is_expr_expr(const Poly& e) { return (tag(e) >> 30) == 2u; }
bool is_sum(const Poly& e) { return tag(e) != kNone && (tag(e) >> 30) == 3u; }
const zorp::ConstraintSumRecord& sum_of(const Poly& e) { return zorp::constraint_sum_at(tag(e)); }
uint32_t index_of_tag(uint32_t t) { return t & 0x3FFFFFFFu; }

std::string text(const zorp::ExprImpl& e) { return zorp_expr_str(reinterpret_cast<const zorp_expr*>(&e)); }
std::string body_text(uint32_t index) { return text(zorp::expr_expr_at(index, "test: bad index").body); }

// (body text, weight) of every item, in order.
std::vector<std::pair<std::string, int64_t>> items_of(const Poly& e) {
  std::vector<std::pair<std::string, int64_t>> out;
  for (const zorp::ConstraintItem& item : sum_of(e).items) out.emplace_back(body_text(item.index), item.weight);
  return out;
}

std::string remainder_text(const Poly& e) {
  const zorp::ConstraintSumRecord& record = sum_of(e);
  return record.remainder ? text(*record.remainder) : std::string("<none>");
}

Poly between(const Poly& body, int64_t lo, int64_t hi) { return Poly(zorp_cons_between(body.get(), lo, hi)); }

// A classic constraint: penalty polynomial (body - 1)^2 tagged with the body.
Poly classic(const Poly& body) {
  const Poly shifted = body - 1;
  const Poly penalty(zorp_expr_sqr(shifted.get()));
  Poly ee(zorp_exprexprelem_create(penalty.get(), body.get()));
  zorp_exprexpr_set_bounds(ee.get(), 1, 1);
  return ee;
}

class DeclaredTags : public ::testing::Test {
 protected:
  Poly x = zorp::test::var("tg_x"), y = zorp::test::var("tg_y"), z = zorp::test::var("tg_z");
  Poly f = x + y, g = z;
  std::string fs = f.str(), gs = g.str();
};

TEST_F(DeclaredTags, TwoDeclaredValuesHoldTwoItemsAndNoPolynomial) {
  const Poly copied = between(f, 2, 5) + between(g, 0, 0);
  Poly in_place = between(f, 2, 5);
  in_place += between(g, 0, 0);
  for (const Poly* c : {&copied, static_cast<const Poly*>(&in_place)}) {
    ASSERT_TRUE(is_sum(*c));
    EXPECT_EQ(zorp_expr_is_declared(c->get()), 1);
    EXPECT_EQ(items_of(*c), (std::vector<std::pair<std::string, int64_t>>{{fs, 1}, {gs, 1}}));
    EXPECT_EQ(remainder_text(*c), "<none>");
    EXPECT_EQ(c->size(), 0u);
    EXPECT_EQ(c->constant(), 0);
    const zorp::ExprExprRecord& first = zorp::expr_expr_at(sum_of(*c).items[0].index, "test");
    EXPECT_EQ(std::make_pair(first.lower, first.upper), std::make_pair(int64_t{2}, int64_t{5}));
  }
}

TEST_F(DeclaredTags, PlainPolynomialBesideDeclaredIsObjective) {
  const Poly left = x + between(f, 0, 1);
  const Poly right = between(f, 0, 1) + x;
  Poly in_place = x;
  in_place += between(f, 0, 1);
  for (const Poly* c : {&left, &right, static_cast<const Poly*>(&in_place)}) {
    EXPECT_EQ(zorp_expr_is_declared(c->get()), 1);
    EXPECT_EQ(c->str(), x.str());
    EXPECT_EQ(items_of(*c), (std::vector<std::pair<std::string, int64_t>>{{fs, 1}}));
    EXPECT_EQ(remainder_text(*c), "<none>");
  }
}

TEST_F(DeclaredTags, RepeatedSumsGrowOneRecordUntilACopyFreezesIt) {
  Poly c = between(f, 0, 1);
  const uint32_t first_tag = tag(c);
  for (int i = 1; i <= 20; ++i) {
    c += between(g, 0, i);
    c += x;  // objective only: the record is untouched
    ASSERT_EQ(tag(c), first_tag);
    ASSERT_EQ(sum_of(c).items.size(), static_cast<std::size_t>(i + 1));
  }
  EXPECT_FALSE(sum_of(c).frozen.load());
  EXPECT_EQ(remainder_text(c), "<none>");

  const Poly copy(zorp_expr_clone(c.get()));
  EXPECT_EQ(tag(copy), first_tag);
  EXPECT_TRUE(sum_of(copy).frozen.load());
  c += between(f, 3, 3);
  EXPECT_NE(tag(c), first_tag);
  EXPECT_EQ(sum_of(c).items.size(), 22u);
  EXPECT_EQ(sum_of(copy).items.size(), 21u);
  // The rebuilt record is open to in-place growth again.
  const uint32_t rebuilt = tag(c);
  c += between(g, 0, 0);
  EXPECT_EQ(tag(c), rebuilt);
  EXPECT_EQ(sum_of(copy).items.size(), 21u);
}

TEST_F(DeclaredTags, EmptyValueTakesTheTagAndSharesItFrozen) {
  const Poly c = between(f, 0, 1);
  Poly total;
  total += c;
  EXPECT_EQ(tag(total), tag(c));
  EXPECT_TRUE(sum_of(c).frozen.load());
  total += between(g, 0, 0);
  EXPECT_NE(tag(total), tag(c));
  EXPECT_EQ(sum_of(c).items.size(), 1u);
  EXPECT_EQ(sum_of(total).items.size(), 2u);
}

TEST_F(DeclaredTags, SelfSumRepeatsEveryItemAndTheFreeFormPart) {
  Poly c = between(f, 0, 1);
  c += between(g, 0, 0);
  c += Poly(zorp_cons_mark((Poly(2) * x).get()));
  zorp_expr_iadd_expr(c.get(), c.get());
  EXPECT_EQ(items_of(c), (std::vector<std::pair<std::string, int64_t>>{{fs, 1}, {gs, 1}, {fs, 1}, {gs, 1}}));
  ASSERT_TRUE(sum_of(c).remainder);
  EXPECT_EQ(zorp_expr_term_count(reinterpret_cast<const zorp_expr*>(sum_of(c).remainder.get())), 2u);
}

TEST_F(DeclaredTags, ScalingMultipliesWeightsAndFreeFormPart) {
  Poly c = between(f, 0, 1);
  const Poly tripled(zorp_expr_clone_mul_int(c.get(), 3));
  EXPECT_EQ(items_of(tripled), (std::vector<std::pair<std::string, int64_t>>{{fs, 3}}));
  EXPECT_EQ(items_of(c), (std::vector<std::pair<std::string, int64_t>>{{fs, 1}}));
  EXPECT_EQ(zorp_expr_is_declared(tripled.get()), 1);

  Poly negated = c;
  zorp_expr_negate(negated.get());
  EXPECT_EQ(items_of(negated), (std::vector<std::pair<std::string, int64_t>>{{fs, -1}}));
  Poly minus_one = c;
  zorp_expr_imul_int(minus_one.get(), -1);
  EXPECT_EQ(items_of(minus_one), (std::vector<std::pair<std::string, int64_t>>{{fs, -1}}));

  Poly marked(zorp_cons_mark((Poly(2) * x + 1).get()));
  marked += between(g, 0, 0);
  zorp_expr_imul_int(marked.get(), -3);
  EXPECT_EQ(items_of(marked), (std::vector<std::pair<std::string, int64_t>>{{gs, -3}}));
  const zorp::ExprImpl& remainder = *sum_of(marked).remainder;
  EXPECT_EQ(remainder.constant, -3);
  EXPECT_EQ(remainder.first_term.coefficient, -6);
  EXPECT_EQ(zorp_expr_is_declared(marked.get()), 1);
}

TEST_F(DeclaredTags, ZeroTimesObjectiveShapesDropsTheTag) {
  Poly shapes(zorp_abs_term(f.get(), 1));
  shapes += Poly(zorp_relu_term(g.get(), 2));
  shapes += x;
  zorp_expr_imul_int(shapes.get(), 0);
  EXPECT_EQ(tag(shapes), kNone);
  EXPECT_EQ(zorp_expr_constant(Poly(zorp_expr_simplify(shapes.get())).get(), nullptr), 0);
  EXPECT_EQ(zorp_expr_term_count(Poly(zorp_expr_simplify(shapes.get())).get()), 0u);
  const Poly one(zorp_abs_term(f.get(), 1));
  EXPECT_EQ(tag(Poly(zorp_expr_clone_mul_int(one.get(), 0))), kNone);
}

TEST_F(DeclaredTags, SubtractingDeclaredNegatesItsWeights) {
  const Poly c = between(f, 0, 1), d = between(g, 0, 0);
  const Poly difference = c - d;
  EXPECT_EQ(items_of(difference), (std::vector<std::pair<std::string, int64_t>>{{fs, 1}, {gs, -1}}));
  const Poly objective_minus = x - d;
  EXPECT_EQ(items_of(objective_minus), (std::vector<std::pair<std::string, int64_t>>{{gs, -1}}));
  EXPECT_EQ(objective_minus.str(), x.str());
  Poly empty;
  empty -= d;
  EXPECT_EQ(items_of(empty), (std::vector<std::pair<std::string, int64_t>>{{gs, -1}}));
  EXPECT_EQ(items_of(d), (std::vector<std::pair<std::string, int64_t>>{{gs, 1}}));
  Poly self = between(f, 0, 1);
  zorp_expr_isub_expr(self.get(), self.get());
  EXPECT_EQ(items_of(self), (std::vector<std::pair<std::string, int64_t>>{{fs, 1}, {fs, -1}}));
  // Subtracting a classic value from a declared one keeps the declared tag as it is.
  Poly keeps = between(f, 0, 1);
  const uint32_t before = tag(keeps);
  keeps -= classic(x);
  EXPECT_EQ(tag(keeps), before);
  EXPECT_EQ(sum_of(keeps).items.size(), 1u);
}

TEST_F(DeclaredTags, NumbersTermsAndVariablesGoToTheObjective) {
  const Poly base = between(f, 0, 1);
  zorp_term* t = zorp_term_create_var_var(4, zorp::test::index_of(x), zorp::test::index_of(y));
  const uint32_t xv = zorp::test::index_of(x);
  const zorp_coeff one = 1;
  const uint32_t degree = 1;
  using Op = void (*)(zorp_expr*, zorp_term*, uint32_t);
  const std::vector<std::pair<const char*, Op>> in_place{
      {"iadd_int", [](zorp_expr* e, zorp_term*, uint32_t) { zorp_expr_iadd_int(e, 3); }},
      {"isub_int", [](zorp_expr* e, zorp_term*, uint32_t) { zorp_expr_isub_int(e, 3); }},
      {"iadd_var", [](zorp_expr* e, zorp_term*, uint32_t v) { zorp_expr_iadd_var(e, v); }},
      {"isub_var", [](zorp_expr* e, zorp_term*, uint32_t v) { zorp_expr_isub_var(e, v); }},
      {"iadd_term", [](zorp_expr* e, zorp_term* t, uint32_t) { zorp_expr_iadd_term(e, t); }},
      {"iadd_term_move", [](zorp_expr* e, zorp_term* t, uint32_t) { zorp_expr_iadd_term_move(e, zorp_term_clone(t)); }},
      {"isub_term", [](zorp_expr* e, zorp_term* t, uint32_t) { zorp_expr_isub_term(e, t); }},
      {"iadd_raw_term", [](zorp_expr* e, zorp_term*, uint32_t v) { zorp_expr_iadd_raw_term(e, 2, &v, 1); }},
      {"isub_raw_term", [](zorp_expr* e, zorp_term*, uint32_t v) { zorp_expr_isub_raw_term(e, 2, &v, 1); }},
      {"iadd_move_term", [](zorp_expr* e, zorp_term*, uint32_t v) { zorp_expr_iadd_move_term(e, 2, uint64_t{v} | (uint64_t{0xFFFFFFFFu} << 32), nullptr); }},
      {"isub_move_term", [](zorp_expr* e, zorp_term*, uint32_t v) { zorp_expr_isub_move_term(e, 2, uint64_t{v} | (uint64_t{0xFFFFFFFFu} << 32), nullptr); }},
  };
  for (const auto& [name, op] : in_place) {
    Poly c = base;
    const uint32_t before = tag(c);
    op(c.get(), t, xv);
    EXPECT_EQ(tag(c), before) << name;
    EXPECT_EQ(items_of(c), (std::vector<std::pair<std::string, int64_t>>{{fs, 1}})) << name;
    EXPECT_EQ(remainder_text(c), "<none>") << name;
  }
  {
    Poly c = base;
    const uint32_t before = tag(c);
    zorp_expr_iadd_terms_bulk(c.get(), 5, 1, &one, &degree, &xv);
    EXPECT_EQ(tag(c), before);
    EXPECT_EQ(c.constant(), 5);
  }
  const std::vector<std::pair<const char*, Poly>> copies = [&] {
    std::vector<std::pair<const char*, Poly>> v;
    v.emplace_back("clone_add_int", Poly(zorp_expr_clone_add_int(base.get(), 7)));
    v.emplace_back("clone_sub_int", Poly(zorp_expr_clone_sub_int(base.get(), 7)));
    v.emplace_back("clone_add_var", Poly(zorp_expr_clone_add_var(base.get(), xv)));
    v.emplace_back("clone_sub_var", Poly(zorp_expr_clone_sub_var(base.get(), xv)));
    v.emplace_back("clone_add_term", Poly(zorp_expr_clone_add_term(base.get(), t)));
    v.emplace_back("clone_sub_term", Poly(zorp_expr_clone_sub_term(base.get(), t)));
    return v;
  }();
  for (const auto& [name, c] : copies) {
    EXPECT_EQ(zorp_expr_is_declared(c.get()), 1) << name;
    EXPECT_EQ(items_of(c), (std::vector<std::pair<std::string, int64_t>>{{fs, 1}})) << name;
    EXPECT_EQ(remainder_text(c), "<none>") << name;
  }
  zorp_term_destroy(t);
}

TEST_F(DeclaredTags, MarkedClassicJoinsDeclared) {
  const Poly ee = classic(x);
  Poly c = between(f, 0, 1);
  c += Poly(zorp_cons_mark(ee.get()));
  EXPECT_EQ(items_of(c), (std::vector<std::pair<std::string, int64_t>>{{fs, 1}, {x.str(), 1}}));
  EXPECT_EQ(zorp_expr_is_declared(c.get()), 1);
}

class ClassicTags : public ::testing::Test {
 protected:
  Poly x = zorp::test::var("ct_x"), y = zorp::test::var("ct_y");
  uint32_t xv = zorp::test::index_of(x);
  Poly ee = classic(x);
  uint32_t ee_index = index_of_tag(zorp_expr_attr(ee.get()));
};

TEST_F(ClassicTags, NumbersEndTheRecordExceptAddingZeroToACopy) {
  Poly plus_one = ee;
  zorp_expr_iadd_int(plus_one.get(), 1);
  EXPECT_EQ(tag(plus_one), kNone);
  EXPECT_EQ(plus_one.constant(), ee.constant() + 1);
  Poly minus_zero = ee;
  zorp_expr_isub_int(minus_zero.get(), 0);
  EXPECT_EQ(tag(minus_zero), kNone);
  EXPECT_EQ(tag(Poly(zorp_expr_clone_add_int(ee.get(), 0))), tag(ee));
  EXPECT_EQ(tag(Poly(zorp_expr_clone_add_int(ee.get(), 1))), kNone);
  EXPECT_EQ(tag(Poly(zorp_expr_clone_sub_int(ee.get(), 0))), kNone);
  const zorp_coeff one = 1;
  const uint32_t degree = 1;
  Poly bulk = ee;
  zorp_expr_iadd_terms_bulk(bulk.get(), 0, 1, &one, &degree, &xv);
  EXPECT_EQ(tag(bulk), kNone);
}

TEST_F(ClassicTags, AddingATermMakesATrackedSumWithTheTermAsFreeForm) {
  Poly sum = ee;
  const uint64_t terms = sum.size();
  zorp_expr_iadd_var(sum.get(), zorp::test::index_of(y));
  ASSERT_TRUE(is_sum(sum));
  EXPECT_EQ(zorp_expr_is_declared(sum.get()), 0);
  EXPECT_EQ(items_of(sum), (std::vector<std::pair<std::string, int64_t>>{{x.str(), 1}}));
  EXPECT_EQ(remainder_text(sum), y.str());
  EXPECT_EQ(sum.size(), terms + 1);
  // Further terms join the same record in place.
  const uint32_t sum_tag = tag(sum);
  zorp_term* t = zorp_term_create_var(5, xv);
  zorp_expr_iadd_term(sum.get(), t);
  zorp_expr_iadd_raw_term(sum.get(), 2, &xv, 1);
  zorp_expr_iadd_term_move(sum.get(), zorp_term_clone(t));
  EXPECT_EQ(tag(sum), sum_tag);
  EXPECT_EQ(zorp_expr_term_count(reinterpret_cast<const zorp_expr*>(sum_of(sum).remainder.get())), 4u);
  // The copying form builds its own record and leaves the original an ExprExpr.
  const Poly copied(zorp_expr_clone_add_term(ee.get(), t));
  EXPECT_TRUE(is_expr_expr(ee));
  EXPECT_EQ(items_of(copied), (std::vector<std::pair<std::string, int64_t>>{{x.str(), 1}}));
  EXPECT_EQ(remainder_text(copied), Poly(zorp_expr_create_term(t, 0)).str());
  zorp_term_destroy(t);
}

TEST_F(ClassicTags, OtherTermFormsEndTheRecord) {
  zorp_term* t = zorp_term_create_var(5, xv);
  const uint64_t word = uint64_t{xv} | (uint64_t{0xFFFFFFFFu} << 32);
  std::vector<Poly> results;
  for (int i = 0; i < 5; ++i) results.push_back(ee);
  zorp_expr_isub_term(results[0].get(), t);
  zorp_expr_isub_var(results[1].get(), xv);
  zorp_expr_isub_raw_term(results[2].get(), 1, &xv, 1);
  zorp_expr_iadd_move_term(results[3].get(), 1, word, nullptr);
  zorp_expr_isub_move_term(results[4].get(), 1, word, nullptr);
  results.emplace_back(zorp_expr_clone_sub_term(ee.get(), t));
  results.emplace_back(zorp_expr_clone_add_var(ee.get(), xv));
  results.emplace_back(zorp_expr_clone_sub_var(ee.get(), xv));
  for (std::size_t i = 0; i < results.size(); ++i) EXPECT_EQ(tag(results[i]), kNone) << i;
  zorp_term_destroy(t);
}

TEST_F(ClassicTags, SumsOfClassicValuesTrackEveryPart) {
  const Poly other = classic(y);
  const Poly both = ee + other;
  EXPECT_EQ(zorp_expr_is_declared(both.get()), 0);
  EXPECT_EQ(items_of(both), (std::vector<std::pair<std::string, int64_t>>{{x.str(), 1}, {y.str(), 1}}));
  EXPECT_EQ(remainder_text(both), "<none>");
  const Poly p = Poly(3) * y;
  const Poly with_plain = ee + p;
  EXPECT_EQ(remainder_text(with_plain), p.str());
  const Poly plain_first = p + ee;
  EXPECT_EQ(items_of(plain_first), (std::vector<std::pair<std::string, int64_t>>{{x.str(), 1}}));
  EXPECT_EQ(remainder_text(plain_first), p.str());
  Poly empty;
  empty += ee;
  EXPECT_EQ(tag(empty), tag(ee));
}

TEST_F(ClassicTags, InPlaceGrowthStopsAtACopy) {
  Poly sum = ee;
  sum += Poly(2) * y;
  const uint32_t first_tag = tag(sum);
  const Poly copy = sum;
  sum += y;
  EXPECT_NE(tag(sum), first_tag);
  EXPECT_EQ(remainder_text(copy), (Poly(2) * y).str());
  EXPECT_EQ(zorp_expr_term_count(reinterpret_cast<const zorp_expr*>(sum_of(sum).remainder.get())), 2u);
}

TEST_F(ClassicTags, SubtractionAndNegationLoseTheRecordButKeepThePolynomial) {
  const std::string penalty = ee.str();
  Poly negated = ee;
  zorp_expr_negate(negated.get());
  EXPECT_EQ(tag(negated), kNone);
  for (int value : {0, 1}) {
    const auto at = [value](uint32_t) { return value; };
    EXPECT_EQ(zorp::test::eval_binary(negated.get(), at), -zorp::test::eval_binary(ee.get(), at));
  }
  Poly minus_one = ee;
  zorp_expr_imul_int(minus_one.get(), -1);
  EXPECT_EQ(tag(minus_one), kNone);
  EXPECT_EQ(minus_one.str(), negated.str());
  Poly zero = ee;
  zorp_expr_imul_int(zero.get(), 0);
  EXPECT_EQ(tag(zero), kNone);
  EXPECT_EQ(tag(ee - y), kNone);
  EXPECT_EQ(tag(y - ee), kNone);
  EXPECT_EQ(ee.str(), penalty);
}

TEST_F(ClassicTags, ScalingUpKeepsAClassicSum) {
  const Poly doubled(zorp_expr_clone_mul_int(ee.get(), 2));
  EXPECT_EQ(zorp_expr_is_declared(doubled.get()), 0);
  EXPECT_EQ(items_of(doubled), (std::vector<std::pair<std::string, int64_t>>{{x.str(), 2}}));
  Poly sum = ee + Poly(3) * y;
  zorp_expr_imul_int(sum.get(), 4);
  EXPECT_EQ(items_of(sum), (std::vector<std::pair<std::string, int64_t>>{{x.str(), 4}}));
  EXPECT_EQ(sum_of(sum).remainder->first_term.coefficient, 12);
}

TEST_F(ClassicTags, ProductsAndDivisionEndTheRecord) {
  Poly by_var = ee;
  zorp_expr_imul_var(by_var.get(), xv);
  EXPECT_EQ(tag(by_var), kNone);
  Poly by_expr = ee;
  zorp_expr_imul_expr(by_expr.get(), y.get());
  EXPECT_EQ(tag(by_expr), kNone);
  EXPECT_EQ(tag(Poly(zorp_expr_sqr(ee.get()))), kNone);
  EXPECT_EQ(tag(ee * y), kNone);
  Poly divided = ee;
  zorp_expr_idiv_int(divided.get(), 1);
  EXPECT_EQ(tag(divided), kNone);
  EXPECT_EQ(ee_index, index_of_tag(tag(ee)));
}

using TagDeathTest = DeathTestBase;

std::string refusal(const std::string& word) {
  return "^" + escaped_regex("zorp: zorp::cons: '" + word + "' is not allowed on an expression with declared constraints") +
         "\n";
}

TEST_F(TagDeathTest, ZeroTimesDeclaredConstraintsIsFatal) {
  const Poly x = zorp::test::var("td_x");
  const std::string line = "^zorp: zorp::cons: multiplying declared constraints by 0 would silently drop them\n";
  const Poly c(zorp_cons_between(x.get(), 0, 1));
  EXPECT_DEATH(zorp_expr_imul_int(c.get(), 0), line);
  EXPECT_DEATH(zorp_expr_clone_mul_int(c.get(), 0), line);
  Poly mixed(zorp_abs_term(x.get(), 1));
  mixed += c;
  EXPECT_DEATH(zorp_expr_imul_int(mixed.get(), 0), line);
  const Poly free_form(zorp_cons_mark(x.get()));
  EXPECT_DEATH(zorp_expr_imul_int(free_form.get(), 0), line);
}

TEST_F(TagDeathTest, DeclaredAndClassicDoNotMix) {
  const Poly x = zorp::test::var("td_mx");
  const std::string line =
      "^zorp: zorp::cons: cannot mix declared constraints with classic penalty-style constraints in one expression; "
      "wrap the classic part with zorp::cons\\(\\.\\.\\.\\) as well\n";
  const Poly c(zorp_cons_between(x.get(), 0, 1));
  const Poly ee = classic(x);
  const Poly classic_sum = ee + x;
  EXPECT_DEATH(zorp_expr_iadd_expr(Poly(c).get(), ee.get()), line);
  EXPECT_DEATH(zorp_expr_iadd_expr(Poly(ee).get(), c.get()), line);
  EXPECT_DEATH(zorp_expr_clone_add_expr(c.get(), classic_sum.get()), line);
  EXPECT_DEATH(zorp_expr_clone_add_expr(classic_sum.get(), c.get()), line);
  EXPECT_DEATH(zorp_expr_isub_expr(Poly(ee).get(), c.get()), line);
}

TEST_F(TagDeathTest, AlgebraRefusesDeclaredOperands) {
  const Poly x = zorp::test::var("td_rx");
  const uint32_t xv = zorp::test::index_of(x);
  const Poly c(zorp_cons_between(x.get(), 0, 1));
  EXPECT_DEATH(zorp_expr_idiv_int(Poly(c).get(), 1), refusal("/="));
  EXPECT_DEATH(zorp_expr_sqr(c.get()), refusal("sqr"));
  EXPECT_DEATH(zorp_expr_imul_term_direct(Poly(c).get(), 1, uint64_t{xv} | (uint64_t{0xFFFFFFFFu} << 32), nullptr),
               refusal("*= term"));
  EXPECT_DEATH(zorp_expr_imul_var(Poly(c).get(), xv), refusal("*= var"));
  EXPECT_DEATH(zorp_expr_imul_expr(Poly(c).get(), x.get()), refusal("*= expr"));
  EXPECT_DEATH(zorp_expr_imul_expr(Poly(x).get(), c.get()), refusal("* expr"));
  EXPECT_DEATH(zorp_expr_mul_expr(c.get(), x.get()), refusal("* expr"));
  EXPECT_DEATH(zorp_expr_mul_expr(x.get(), c.get()), refusal("* expr"));
}

}  // namespace
