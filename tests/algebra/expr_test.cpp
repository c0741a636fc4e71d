#include "algebra/expr.h"

#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "algebra/handles.h"
#include "support/builders.h"
#include "support/death.h"
#include "zorp/expr.h"
#include "zorp/term.h"
#include "zorp/var.h"

namespace {

using namespace zorp;
using zorp::test::DeathTestBase;
using zorp::test::Poly;

uint64_t split_word(zorp_var first, zorp_var second) { return uint64_t{first} | (uint64_t{second} << 32); }

uint32_t* malloc_block(uint32_t a, uint32_t b) {
  auto* block = static_cast<uint32_t*>(std::malloc(2 * sizeof(uint32_t)));
  block[0] = a;
  block[1] = b;
  return block;
}

bool same_term(const TermImpl& a, const TermImpl& b) { return std::memcmp(&a, &b, sizeof(TermImpl)) == 0; }

// Flat input for the bulk entry: terms of mixed degree 0..MAXDEG over a few thousand literals.
struct BulkInput {
  std::vector<zorp_coeff> coeffs;
  std::vector<uint32_t> degrees;
  std::vector<uint32_t> vars;

  BulkInput(std::size_t count, uint32_t seed) { append(count, seed, -1); }

  // Appends `count` terms of degree `degree`, or of random degrees when it is negative.
  BulkInput& append(std::size_t count, uint32_t seed, int degree) {
    std::mt19937 random(seed);
    for (std::size_t i = 0; i < count; ++i) {
      coeffs.push_back(static_cast<zorp_coeff>(random()));
      const uint32_t d = degree < 0 ? random() % (MAXDEG + 1) : static_cast<uint32_t>(degree);
      degrees.push_back(d);
      for (uint32_t k = 0; k < d; ++k) vars.push_back((random() % 5000) | (random() % 2 ? kNegatedBit : 0));
    }
    return *this;
  }
  std::size_t size() const { return coeffs.size(); }
};

// The bulk terms built one at a time through the checked raw entry, behind a first term so
// that all of them land in rest as the bulk entry places them.
Poly serial_reference(const BulkInput& in, zorp_var first) {
  Poly reference = Poly::var(first);
  std::size_t at = 0;
  for (std::size_t i = 0; i < in.size(); ++i) {
    zorp_expr_iadd_raw_term(reference.get(), in.coeffs[i], in.vars.data() + at, in.degrees[i]);
    at += in.degrees[i];
  }
  return reference;
}

// Fails at the first term that differs between two expressions.
::testing::AssertionResult same_terms(const zorp_expr* a, const zorp_expr* b) {
  const ExprImpl& x = *impl(a);
  const ExprImpl& y = *impl(b);
  if (x.constant != y.constant) return ::testing::AssertionFailure() << "constants differ";
  if (x.term_count() != y.term_count())
    return ::testing::AssertionFailure() << x.term_count() << " terms against " << y.term_count();
  for (uint64_t i = 0; i < x.term_count(); ++i)
    if (!same_term(x.term(i), y.term(i))) return ::testing::AssertionFailure() << "term " << i << " differs";
  return ::testing::AssertionSuccess();
}

class ExprTest : public ::testing::Test {
 protected:
  zorp_var x = zorp_new_var("x"), y = zorp_new_var("y"), z = zorp_new_var("z"), w = zorp_new_var("w"),
           v = zorp_new_var("v");
};

// ---- storage ----

TEST_F(ExprTest, FirstTermIsInlineThenRestGrowsFromFourByDoubling) {
  Poly e;
  const ExprImpl& r = *impl(e.get());
  zorp_term* t = zorp_term_create_var(2, x);
  zorp_expr_iadd_term(e.get(), t);
  EXPECT_EQ(e.size(), 1u);
  EXPECT_EQ(r.first_term.coefficient, 2);
  EXPECT_EQ(r.rest, nullptr);
  EXPECT_EQ(r.rest_capacity, 0u);
  zorp_expr_iadd_term(e.get(), t);
  EXPECT_EQ(r.rest_capacity, 4u);
  EXPECT_EQ(r.rest_size, 1u);
  for (int i = 0; i < 4; ++i) zorp_expr_iadd_term(e.get(), t);
  EXPECT_EQ(r.rest_size, 5u);
  EXPECT_EQ(r.rest_capacity, 8u);
  EXPECT_EQ(e.size(), 6u);
  zorp_term_destroy(t);
}

TEST_F(ExprTest, ZeroTermTakesTheEmptyInlineSlotButStaysInRest) {
  // A zero coefficient in the inline slot means "empty", so the next term overwrites it.
  Poly inline_zero(zorp_expr_create_add_raw_terms(0, &x, 1, 3, &y, 1));
  EXPECT_EQ(inline_zero.str(), "3*y");
  EXPECT_EQ(inline_zero.size(), 1u);
  Poly rest_zero(zorp_expr_create_add_raw_terms(3, &y, 1, 0, &x, 1));
  EXPECT_EQ(rest_zero.str(), "3*y +0*x");
  EXPECT_EQ(rest_zero.size(), 2u);
}

// ---- construction ----

TEST_F(ExprTest, ConstructionTable) {
  EXPECT_EQ(Poly(zorp_expr_create()).str(), "0");
  EXPECT_EQ(Poly(zorp_expr_create_int(-7)).str(), "-7");
  EXPECT_EQ(Poly(zorp_expr_create_var(x)).str(), "x");
  EXPECT_EQ(Poly(zorp_expr_create_add_var_var(x, y)).str(), "x +y");
  EXPECT_EQ(Poly(zorp_expr_create_add_var_int(x, 3)).str(), "3 +x");
  EXPECT_EQ(Poly(zorp_expr_create_sub_int_var(3, x)).str(), "3 -x");

  zorp_term* a = zorp_term_create_var(2, x);
  zorp_term* b = zorp_term_create_var_var(3, y, z);
  EXPECT_EQ(Poly(zorp_expr_create_add_term_term(a, b)).str(), "2*x +3*y*z");
  EXPECT_EQ(Poly(zorp_expr_create_sub_term_term(a, b)).str(), "2*x -3*y*z");
  EXPECT_EQ(Poly(zorp_expr_create_add_term_int(a, -1)).str(), "-1 +2*x");
  EXPECT_EQ(Poly(zorp_expr_create_sub_int_term(4, a)).str(), "4 -2*x");
  EXPECT_EQ(Poly(zorp_expr_create_add_term_var(b, w)).str(), "3*y*z +w");
  EXPECT_EQ(Poly(zorp_expr_create_term(a, 0)).str(), "2*x");
  EXPECT_EQ(zorp_term_str(a), std::string("2*x"));

  const uint32_t pair[] = {x, y};
  EXPECT_EQ(Poly(zorp_expr_create_raw_term(5, pair, 2, -1)).str(), "-1 +5*x*y");
  EXPECT_EQ(Poly(zorp_expr_create_add_raw_terms(1, pair, 2, -2, pair + 1, 1)).str(), "x*y -2*y");

  const zorp_coeff coeffs[] = {4, -1};
  const uint32_t degrees[] = {1, 2};
  const uint32_t vars[] = {x, y, z};
  EXPECT_EQ(Poly(zorp_expr_create_from_bulk(9, 2, coeffs, degrees, vars)).str(), "9 +4*x -y*z");

  zorp_term_destroy(a);
  zorp_term_destroy(b);
}

TEST_F(ExprTest, ConsumingCreatorsTakeExactlyTheHandlesTheyName) {
  // Run under the address sanitizer: a leak or a double free fails the run.
  zorp_term* kept = zorp_term_create_var(2, y);
  Poly ml(zorp_expr_create_add_term_term_ml(zorp_term_create_var(1, x), kept));
  EXPECT_EQ(ml.str(), "x +2*y");
  EXPECT_EQ(zorp_term_str(kept), std::string("2*y"));
  zorp_term_destroy(kept);

  Poly mm(zorp_expr_create_add_term_term_mm(zorp_term_create_var(1, x), zorp_term_create_var(-1, z)));
  EXPECT_EQ(mm.str(), "x -z");
  Poly consumed(zorp_expr_create_term(zorp_term_create_var_var(4, x, y), 1));
  EXPECT_EQ(consumed.str(), "4*x*y");

  Poly moved(zorp_expr_create_move_term(3, split_word(x, y), malloc_block(z, ZORP_NO_VAR), 7));
  EXPECT_EQ(moved.str(), "7 +3*x*y*z");
  Poly moved_null(zorp_expr_create_move_term(-1, split_word(w, ZORP_NO_VAR), nullptr, 0));
  EXPECT_EQ(moved_null.str(), "-w");

  zorp_expr_iadd_term_move(moved.get(), zorp_term_create_var(5, v));
  zorp_expr_iadd_move_term(moved.get(), 2, split_word(x, y), malloc_block(z, w));
  zorp_expr_isub_move_term(moved.get(), 2, split_word(v, ZORP_NO_VAR), nullptr);
  zorp_expr_isub_move_term(moved.get(), 6, split_word(x, w), malloc_block(ZORP_NO_VAR, ZORP_NO_VAR));
  EXPECT_EQ(moved.str(), "7 +3*x*y*z +5*v +2*x*y*z*w -2*v -6*x*w");
}

TEST_F(ExprTest, RawTermWithoutLiteralsIsADegreeZeroTermNotTheConstant) {
  Poly e(zorp_expr_create_raw_term(5, nullptr, 0, 0));
  EXPECT_EQ(e.constant(), 0);
  EXPECT_EQ(e.size(), 1u);
  EXPECT_EQ(impl(e.get())->first_term.coefficient, 5);
  EXPECT_EQ(impl(e.get())->first_term.vars.degree(), 0u);
  EXPECT_EQ(e.str(), "5");
  EXPECT_EQ(zorp_expr_term_count_degree(e.get(), 0), 1u);
}

TEST_F(ExprTest, RawTermPastMaxdegThrowsBeforeAnythingChanges) {
  const uint32_t five[] = {x, y, z, w, v};
  Poly e(zorp_expr_create_add_var_int(x, 1));
  zorp_expr_iadd_var(e.get(), y);
  EXPECT_THROW(zorp_expr_iadd_raw_term(e.get(), 2, five, 5), std::runtime_error);
  EXPECT_THROW(zorp_expr_isub_raw_term(e.get(), 2, five, 5), std::runtime_error);
  EXPECT_EQ(e.str(), "1 +x +y");
  EXPECT_EQ(impl(e.get())->rest_capacity, 4u);
  // Creators that throw leave nothing allocated; the sanitizer run checks for leaks.
  EXPECT_THROW(zorp_expr_create_raw_term(1, five, 5, 0), std::runtime_error);
  EXPECT_THROW(zorp_expr_create_add_raw_terms(1, five, 1, 1, five, 5), std::runtime_error);
  try {
    zorp_expr_create_raw_term(1, five, 5, 0);
    FAIL() << "no exception";
  } catch (const std::runtime_error& error) {
    EXPECT_STREQ(error.what(), "VarArray: degree exceeds MAXDEG capacity (4)");
  }
}

TEST_F(ExprTest, CloneIsDeepAndKeepsTheTag) {
  Poly e(zorp_expr_create_add_var_int(x, 2));
  zorp_expr_iadd_var(e.get(), y);
  impl(e.get())->ext = 17;  // an encoded-integer tag
  Poly copy(zorp_expr_clone(e.get()));
  EXPECT_EQ(zorp_expr_attr(copy.get()), 17u);
  EXPECT_NE(impl(copy.get())->rest, impl(e.get())->rest);
  EXPECT_EQ(impl(copy.get())->rest_capacity, 1u);
  zorp_expr_iadd_var(copy.get(), z);
  EXPECT_EQ(e.str(), "2 +x +y");
  EXPECT_EQ(copy.str(), "2 +x +y +z");
}

TEST_F(ExprTest, CloneOfALargeExpressionIsExact) {
  const BulkInput in(60'001, 7);
  Poly e = Poly::var(x);
  zorp_expr_iadd_terms_bulk(e.get(), -3, in.size(), in.coeffs.data(), in.degrees.data(), in.vars.data());
  Poly copy(zorp_expr_clone(e.get()));
  EXPECT_TRUE(same_terms(copy.get(), e.get()));
  EXPECT_EQ(impl(copy.get())->rest_capacity, impl(e.get())->rest_size);
}

// ---- in-place arithmetic ----

TEST_F(ExprTest, SubtractingAVariableAppendsWithoutMerging) {
  Poly e(zorp_expr_create_var(x));
  zorp_expr_isub_var(e.get(), x);
  EXPECT_EQ(e.size(), 2u);
  EXPECT_EQ(e.constant(), 0);
  EXPECT_EQ(e.str(), "x -x");
}

TEST_F(ExprTest, AddingAnExpressionFillsTheEmptySlotAndReservesExactly) {
  Poly left(zorp_expr_create_int(1));
  Poly right(zorp_expr_create_add_var_var(x, y));
  zorp_expr_iadd_expr(left.get(), right.get());
  EXPECT_EQ(left.str(), "1 +x +y");
  EXPECT_EQ(impl(left.get())->first_term.vars.slot[0], x);
  EXPECT_EQ(impl(left.get())->rest_capacity, 1u);

  Poly minus(zorp_expr_create_int(1));
  zorp_expr_isub_expr(minus.get(), right.get());
  EXPECT_EQ(minus.str(), "1 -x -y");
  EXPECT_EQ(right.str(), "x +y");
}

TEST_F(ExprTest, SelfAdditionAndSubtraction) {
  Poly e(zorp_expr_create_add_var_int(x, 3));
  zorp_expr_iadd_raw_term(e.get(), 2, &y, 1);
  zorp_expr_iadd_raw_term(e.get(), -4, &z, 1);
  zorp_expr_iadd_expr(e.get(), e.get());
  EXPECT_EQ(e.str(), "6 +x +2*y -4*z +x +2*y -4*z");
  zorp_expr_isub_expr(e.get(), e.get());
  EXPECT_EQ(e.str(), "x +2*y -4*z +x +2*y -4*z -x -2*y +4*z -x -2*y +4*z");
}

TEST_F(ExprTest, LargeSelfAdditionDoublesTheTermList) {
  const BulkInput in(30'000, 11);
  Poly e(zorp_expr_create_from_bulk(5, in.size(), in.coeffs.data(), in.degrees.data(), in.vars.data()));
  const Poly before = e;
  zorp_expr_iadd_expr(e.get(), e.get());
  ASSERT_EQ(e.size(), 2 * before.size());
  EXPECT_EQ(e.constant(), 10);
  const ExprImpl& r = *impl(e.get());
  const ExprImpl& b = *impl(before.get());
  for (uint64_t i = 0; i < b.rest_size; ++i) {
    ASSERT_TRUE(same_term(r.rest[i], b.rest[i])) << i;
    ASSERT_TRUE(same_term(r.rest[b.rest_size + i], b.rest[i])) << i;
  }
  zorp_expr_isub_expr(e.get(), before.get());
  EXPECT_EQ(e.constant(), 5);
  for (uint64_t i = 0; i < b.rest_size; ++i) {
    const TermImpl& t = r.rest[2 * b.rest_size + i];
    ASSERT_EQ(t.coefficient, wrapping_neg(b.rest[i].coefficient)) << i;
    ASSERT_EQ(t.vars, b.rest[i].vars) << i;
  }
}

TEST_F(ExprTest, ScalingWrapsCoefficientsAtThirtyTwoAndTheConstantAtSixtyFourBits) {
  Poly e(zorp_expr_create_add_var_int(x, int64_t{1} << 40));
  zorp_expr_iadd_raw_term(e.get(), 3, &y, 1);
  // The factor multiplies the constant whole but the coefficients narrowed to 32 bits.
  zorp_expr_imul_int(e.get(), (int64_t{1} << 32) + 2);
  EXPECT_EQ(e.constant(), int64_t{1} << 41);
  EXPECT_EQ(e.str(), "2199023255552 +2*x +6*y");
  Poly wrap(zorp_expr_create_raw_term(0x40000000, &x, 1, INT64_MIN));
  zorp_expr_imul_int(wrap.get(), -1);
  EXPECT_EQ(wrap.constant(), INT64_MIN);
  zorp_expr_negate(wrap.get());
  EXPECT_EQ(wrap.constant(), INT64_MIN);
  EXPECT_EQ(wrap.str(), "-9223372036854775808 +1073741824*x");
}

TEST_F(ExprTest, ScalingByZeroEmptiesTheInlineSlot) {
  Poly e(zorp_expr_create_add_var_var(x, y));
  zorp_expr_imul_int(e.get(), 0);
  EXPECT_EQ(e.size(), 1u);
  EXPECT_EQ(zorp_expr_term_at(e.get(), 0), handle(&impl(e.get())->rest[0]));
  EXPECT_EQ(e.str(), "0*y");
  // The emptied slot still holds x's literal but no longer counts as a term.
  EXPECT_EQ(zorp_expr_has(e.get(), x), 0);
  EXPECT_EQ(zorp_expr_has(e.get(), y), 1);
  zorp_expr_iadd_var(e.get(), z);
  EXPECT_EQ(e.str(), "z +0*y");
}

TEST_F(ExprTest, LargeScalingWrapsTermByTerm) {
  const BulkInput in(25'000, 3);
  Poly e(zorp_expr_create_from_bulk(7, in.size(), in.coeffs.data(), in.degrees.data(), in.vars.data()));
  const Poly original = e;
  zorp_expr_imul_int(e.get(), -3);
  zorp_expr_negate(e.get());
  EXPECT_EQ(e.constant(), 21);
  const ExprImpl& r = *impl(e.get());
  const ExprImpl& o = *impl(original.get());
  for (uint64_t i = 0; i < in.size(); ++i) {
    ASSERT_EQ(r.rest[i].coefficient, wrapping_mul<coeff_t>(in.coeffs[i], 3)) << i;
    ASSERT_EQ(r.rest[i].vars, o.rest[i].vars) << i;
  }
}

TEST_F(ExprTest, LargeExactDivisionUndoesScaling) {
  std::vector<zorp_coeff> coeffs;
  for (int i = 0; i < 30'000; ++i) coeffs.push_back(i % 2001 - 1000);
  const std::vector<uint32_t> degrees(coeffs.size(), 1);
  const std::vector<uint32_t> vars(coeffs.size(), y);
  Poly e(zorp_expr_create_from_bulk(-4, coeffs.size(), coeffs.data(), degrees.data(), vars.data()));
  zorp_expr_imul_int(e.get(), 6);
  zorp_expr_idiv_int(e.get(), -6);
  EXPECT_EQ(e.constant(), 4);
  const ExprImpl& r = *impl(e.get());
  for (std::size_t i = 0; i < coeffs.size(); ++i) ASSERT_EQ(r.rest[i].coefficient, -coeffs[i]) << i;
}

TEST_F(ExprTest, ExactDivision) {
  Poly e(zorp_expr_create_raw_term(3, &x, 1, 12));
  zorp_expr_iadd_raw_term(e.get(), -6, &y, 1);
  zorp_expr_iadd_raw_term(e.get(), 0, &z, 1);
  zorp_expr_idiv_int(e.get(), -3);
  EXPECT_EQ(e.str(), "-4 -x +2*y +0*z");
}

TEST_F(ExprTest, DivisionByMinusOneWrapsAtTheMinimum) {
  Poly e(zorp_expr_create_raw_term(INT32_MIN, &x, 1, INT64_MIN));
  zorp_expr_iadd_raw_term(e.get(), 5, &y, 1);
  zorp_expr_idiv_int(e.get(), -1);
  EXPECT_EQ(e.constant(), INT64_MIN);
  EXPECT_EQ(e.str(), "-9223372036854775808 -2147483648*x -5*y");
}

TEST_F(ExprTest, DivisorWiderThanACoefficientDividesTheConstantExactly) {
  Poly e(zorp_expr_create_var(x));
  zorp_expr_iadd_raw_term(e.get(), 0, &y, 1);
  zorp_expr_imul_int(e.get(), 0);
  zorp_expr_iadd_int(e.get(), 3 * (int64_t{1} << 33));
  zorp_expr_idiv_int(e.get(), int64_t{1} << 33);
  EXPECT_EQ(e.str(), "3 +0*y");
}

// ---- bulk ----

TEST_F(ExprTest, BulkWithNoTermsChangesOnlyTheConstant) {
  Poly e(zorp_expr_create_add_var_var(x, y));
  const ExprImpl& r = *impl(e.get());
  const TermImpl* rest_before = r.rest;
  zorp_expr_iadd_terms_bulk(e.get(), 5, 0, nullptr, nullptr, nullptr);
  EXPECT_EQ(e.str(), "5 +x +y");
  EXPECT_EQ(r.rest, rest_before);
  EXPECT_EQ(r.rest_capacity, 4u);
}

TEST_F(ExprTest, BulkTermsGoToRestInOrderAtExactCapacity) {
  Poly e;
  const zorp_coeff coeffs[] = {2, 0, -1, 7};
  const uint32_t degrees[] = {1, 2, 0, 4};
  const uint32_t vars[] = {x, y, z | kNegatedBit, x, y, z, w};
  zorp_expr_iadd_terms_bulk(e.get(), -1, 4, coeffs, degrees, vars);
  const ExprImpl& r = *impl(e.get());
  EXPECT_FALSE(r.has_first());
  EXPECT_EQ(r.rest_size, 4u);
  EXPECT_EQ(r.rest_capacity, 4u);
  EXPECT_EQ(e.str(), "-1 +2*x +0*y*~z -1 +7*x*y*z*w");
  zorp_expr_iadd_terms_bulk(e.get(), 0, 1, coeffs, degrees, vars);
  EXPECT_EQ(r.rest_capacity, 5u);
  EXPECT_EQ(e.str(), "-1 +2*x +0*y*~z -1 +7*x*y*z*w +2*x");
}

TEST_F(ExprTest, BulkPastMaxdegThrowsAndAddsNoTerm) {
  Poly e(zorp_expr_create_var(x));
  const zorp_coeff coeffs[] = {1, 1};
  const uint32_t degrees[] = {1, 5};
  const uint32_t vars[] = {x, x, y, z, w, v};
  EXPECT_THROW(zorp_expr_iadd_terms_bulk(e.get(), 0, 2, coeffs, degrees, vars), std::runtime_error);
  EXPECT_EQ(e.str(), "x");
  EXPECT_THROW(zorp_expr_create_from_bulk(0, 2, coeffs, degrees, vars), std::runtime_error);
}

class ExprBulkSizes : public ExprTest, public ::testing::WithParamInterface<std::size_t> {};

TEST_P(ExprBulkSizes, MatchesTermByTermConstruction) {
  const BulkInput in(GetParam(), static_cast<uint32_t>(GetParam()));
  Poly e = Poly::var(x);
  zorp_expr_iadd_terms_bulk(e.get(), 0, in.size(), in.coeffs.data(), in.degrees.data(), in.vars.data());
  EXPECT_EQ(impl(e.get())->rest_capacity, in.size());
  EXPECT_TRUE(same_terms(e.get(), serial_reference(in, x).get()));
  // A second batch lands behind the first.
  zorp_expr_iadd_terms_bulk(e.get(), 0, in.size(), in.coeffs.data(), in.degrees.data(), in.vars.data());
  Poly twice = serial_reference(in, x);
  Poly again = serial_reference(in, x);
  zorp_expr_imul_int(again.get(), 0);  // drops x from the copy's inline slot
  zorp_expr_iadd_expr(twice.get(), again.get());
  const ExprImpl& r = *impl(e.get());
  ASSERT_EQ(r.rest_size, 2 * in.size());
  for (std::size_t i = 0; i < in.size(); ++i) ASSERT_TRUE(same_term(r.rest[in.size() + i], r.rest[i])) << i;
}

TEST_F(ExprTest, BulkRunsOfOneDegreeAndMixedRunsMatchTermByTerm) {
  // Long runs of one degree, short mixed stretches between them, and runs of every degree.
  BulkInput in(0, 0);
  in.append(30'000, 1, 2).append(700, 2, -1).append(20'000, 3, 0).append(9, 4, -1);
  for (int d = 1; d <= static_cast<int>(MAXDEG); ++d) in.append(12'000, 10 + d, d);
  in.append(3, 5, 2);
  for (std::size_t small : {std::size_t{5}, std::size_t{9'999}}) {
    BulkInput few(0, 0);
    few.append(small, 6, 3);
    Poly e = Poly::var(x);
    zorp_expr_iadd_terms_bulk(e.get(), 0, few.size(), few.coeffs.data(), few.degrees.data(), few.vars.data());
    EXPECT_TRUE(same_terms(e.get(), serial_reference(few, x).get())) << small;
  }
  Poly e = Poly::var(x);
  zorp_expr_iadd_terms_bulk(e.get(), 0, in.size(), in.coeffs.data(), in.degrees.data(), in.vars.data());
  EXPECT_TRUE(same_terms(e.get(), serial_reference(in, x).get()));
}

INSTANTIATE_TEST_SUITE_P(AroundTheSerialThreshold, ExprBulkSizes,
                         ::testing::Values(1, 9'999, 10'000, 10'001, 123'457));

// ---- queries ----

TEST_F(ExprTest, TermAtDataSplitsTheTerm) {
  const uint32_t three[] = {x, y, z};
  const uint32_t four[] = {x, y, z, w};
  Poly e(zorp_expr_create_raw_term(-3, three, 2, 0));
  zorp_expr_iadd_raw_term(e.get(), 4, three, 3);
  zorp_expr_iadd_raw_term(e.get(), 5, four, 4);
  zorp_expr_iadd_int(e.get(), 1);

  int64_t coeff = 0;
  uint64_t word = 0;
  const uint32_t* more = &x;
  EXPECT_EQ(zorp_expr_term_at_data(e.get(), 0, &coeff, &word, &more), nullptr);
  EXPECT_EQ(more, nullptr);
  EXPECT_EQ(coeff, -3);
  EXPECT_EQ(word, split_word(x, y));

  const uint32_t* tail = zorp_expr_term_at_data(e.get(), 1, &coeff, &word, &more);
  EXPECT_EQ(tail, &impl(e.get())->rest[0].vars.slot[2]);
  EXPECT_EQ(more, tail);
  EXPECT_EQ(tail[0], z);
  EXPECT_EQ(tail[1], ZORP_NO_VAR);

  tail = zorp_expr_term_at_data(e.get(), 2, &coeff, &word, nullptr);
  ASSERT_NE(tail, nullptr);
  EXPECT_EQ(tail[1], w);
  EXPECT_EQ(coeff, 5);
}

TEST_F(ExprTest, DegreeQueriesCountZeroTermsOfRest) {
  Poly empty;
  EXPECT_EQ(zorp_expr_max_degree(empty.get()), 0u);
  const uint32_t pair[] = {x, y};
  Poly e(zorp_expr_create_raw_term(2, pair, 2, 4));
  zorp_expr_iadd_raw_term(e.get(), 0, pair, 1);
  zorp_expr_iadd_raw_term(e.get(), 3, pair, 1);
  EXPECT_EQ(zorp_expr_term_count_degree(e.get(), 1), 2u);
  EXPECT_EQ(zorp_expr_term_count_degree(e.get(), 2), 1u);
  EXPECT_EQ(zorp_expr_term_count_degree(e.get(), 0), 0u);
  EXPECT_EQ(zorp_expr_max_degree(e.get()), 2u);
  zorp_expr_imul_int(e.get(), 0);
  EXPECT_EQ(zorp_expr_term_count_degree(e.get(), 2), 0u);
  EXPECT_EQ(zorp_expr_max_degree(e.get()), 1u);
}

TEST_F(ExprTest, HasFindsAVariableThroughItsNegatedLiteral) {
  const uint32_t lits[] = {y, z | kNegatedBit};
  Poly e(zorp_expr_create_var(x));
  zorp_expr_iadd_raw_term(e.get(), 2, lits, 2);
  EXPECT_EQ(zorp_expr_has(e.get(), z), 1);
  EXPECT_EQ(zorp_expr_has(e.get(), z | kNegatedBit), 1);
  EXPECT_EQ(zorp_expr_has(e.get(), x | kNegatedBit), 1);
  EXPECT_EQ(zorp_expr_has(e.get(), w), 0);
  EXPECT_EQ(zorp_expr_has_int_atom(e.get()), 0);
  const uint32_t atom = kIntAtomBit | 3;
  zorp_expr_iadd_raw_term(e.get(), 1, &atom, 1);
  EXPECT_EQ(zorp_expr_has_int_atom(e.get()), 1);
}

TEST_F(ExprTest, GcdOfConstantAndCoefficients) {
  int64_t out = -1;
  Poly e(zorp_expr_create_raw_term(6, &x, 1, 12));
  zorp_expr_iadd_raw_term(e.get(), 9, &y, 1);
  EXPECT_EQ(zorp_expr_gcd(e.get(), &out), 3);
  EXPECT_EQ(out, 3);
  EXPECT_EQ(zorp_expr_gcd(Poly(zorp_expr_create_raw_term(-4, &x, 1, 0)).get(), nullptr), 4);
  EXPECT_EQ(zorp_expr_gcd(Poly().get(), &out), 0);
  EXPECT_EQ(out, 0);
  EXPECT_EQ(zorp_expr_gcd(Poly(zorp_expr_create_int(-8)).get(), nullptr), 8);
  EXPECT_EQ(zorp_expr_gcd(Poly(zorp_expr_create_raw_term(INT32_MIN, &x, 1, 0)).get(), nullptr), int64_t{1} << 31);
  // Zero coefficients in rest change nothing.
  Poly with_zero(zorp_expr_create_raw_term(10, &x, 1, 0));
  zorp_expr_iadd_raw_term(with_zero.get(), 0, &y, 1);
  EXPECT_EQ(zorp_expr_gcd(with_zero.get(), nullptr), 10);
}

TEST_F(ExprTest, ConstantQueryWritesItsOutput) {
  int64_t out = 0;
  EXPECT_EQ(zorp_expr_constant(Poly(zorp_expr_create_int(-12)).get(), &out), -12);
  EXPECT_EQ(out, -12);
  zorp_expr_destroy(nullptr);
}

// ---- copying arithmetic ----

TEST_F(ExprTest, CopyingFormsLeaveTheirArgumentUntouched) {
  Poly e(zorp_expr_create_add_var_int(x, 1));
  zorp_term* t = zorp_term_create_var(3, y);
  Poly other(zorp_expr_create_sub_int_var(2, z));
  EXPECT_EQ(Poly(zorp_expr_clone_add_int(e.get(), 4)).str(), "5 +x");
  EXPECT_EQ(Poly(zorp_expr_clone_sub_int(e.get(), 4)).str(), "-3 +x");
  EXPECT_EQ(Poly(zorp_expr_clone_add_var(e.get(), y)).str(), "1 +x +y");
  EXPECT_EQ(Poly(zorp_expr_clone_sub_var(e.get(), y)).str(), "1 +x -y");
  EXPECT_EQ(Poly(zorp_expr_clone_add_term(e.get(), t)).str(), "1 +x +3*y");
  EXPECT_EQ(Poly(zorp_expr_clone_sub_term(e.get(), t)).str(), "1 +x -3*y");
  EXPECT_EQ(Poly(zorp_expr_clone_add_expr(e.get(), other.get())).str(), "3 +x -z");
  EXPECT_EQ(Poly(zorp_expr_clone_sub_expr(e.get(), other.get())).str(), "-1 +x +z");
  EXPECT_EQ(Poly(zorp_expr_clone_mul_int(e.get(), -2)).str(), "-2 -2*x");
  EXPECT_EQ(e.str(), "1 +x");
  zorp_term_destroy(t);
}

TEST_F(ExprTest, PlainArithmeticDropsAnIntegerTag) {
  // Only declared constraint sums survive additive arithmetic; an encoded-integer tag does not.
  Poly e(zorp_expr_create_var(x));
  impl(e.get())->ext = 5;
  zorp_expr_iadd_int(e.get(), 1);
  EXPECT_EQ(zorp_expr_attr(e.get()), 0xFFFFFFFFu);
  impl(e.get())->ext = 5;
  zorp_expr_iadd_var(e.get(), y);
  EXPECT_EQ(zorp_expr_attr(e.get()), 0xFFFFFFFFu);
  impl(e.get())->ext = 5;
  zorp_expr_iadd_terms_bulk(e.get(), 0, 0, nullptr, nullptr, nullptr);
  EXPECT_EQ(zorp_expr_attr(e.get()), 0xFFFFFFFFu);
}

// ---- fatal paths ----

class ExprDeathTest : public DeathTestBase {
 protected:
  zorp_var x = zorp_new_var("x");
};

TEST_F(ExprDeathTest, DivisionByZero) {
  Poly e(zorp_expr_create_var(x));
  EXPECT_EXIT(zorp_expr_idiv_int(e.get(), 0), testing::KilledBySignal(SIGABRT), "^zorp: Division by zero\n$");
}

TEST_F(ExprDeathTest, IndivisibleConstant) {
  Poly e(zorp_expr_create_raw_term(4, &x, 1, 3));
  EXPECT_EXIT(zorp_expr_idiv_int(e.get(), 2), testing::KilledBySignal(SIGABRT),
              "^zorp: Indivisible division in Expr constant\n$");
}

TEST_F(ExprDeathTest, IndivisibleInlineTerm) {
  Poly e(zorp_expr_create_raw_term(3, &x, 1, 4));
  EXPECT_EXIT(zorp_expr_idiv_int(e.get(), 2), testing::KilledBySignal(SIGABRT),
              "^zorp: Indivisible division in Expr term\n$");
}

TEST_F(ExprDeathTest, IndivisibleTermDeepInALargeExpression) {
  std::vector<zorp_coeff> coeffs(50'000, 4);
  coeffs[49'999] = 6;
  std::vector<uint32_t> degrees(coeffs.size(), 1);
  std::vector<uint32_t> vars(coeffs.size(), x);
  Poly e(zorp_expr_create_from_bulk(0, coeffs.size(), coeffs.data(), degrees.data(), vars.data()));
  EXPECT_EXIT(zorp_expr_idiv_int(e.get(), 4), testing::KilledBySignal(SIGABRT),
              "^zorp: Indivisible division in Expr term\n$");
}

TEST_F(ExprDeathTest, TermRemainderIsTestedAtSixtyFourBits) {
  // 2^32 + 2 narrowed would be 2, which divides 4; the constant 0 divides by anything.
  Poly e(zorp_expr_create_raw_term(4, &x, 1, 0));
  EXPECT_EXIT(zorp_expr_idiv_int(e.get(), (int64_t{1} << 32) + 2), testing::KilledBySignal(SIGABRT),
              "^zorp: Indivisible division in Expr term\n$");
}

}  // namespace
