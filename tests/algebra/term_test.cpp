#include "algebra/term.h"

#include <climits>
#include <cstdint>
#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

#include "algebra/handles.h"
#include "support/death.h"
#include "zorp/term.h"
#include "zorp/var.h"

namespace {

using namespace zorp;
using zorp::test::DeathTestBase;

constexpr const char* kPushPastMaxdeg = "VarArray: degree exceeds MAXDEG capacity (4)";
constexpr const char* kAppendPastMaxdeg = "VarArray::append: degree exceeds MAXDEG capacity";

uint64_t split_word(zorp_var first, zorp_var second) { return uint64_t{first} | (uint64_t{second} << 32); }

// Owns a term handle for the length of a test.
struct Term {
  zorp_term* t;
  explicit Term(zorp_term* adopted) : t(adopted) {}
  Term(const Term&) = delete;
  ~Term() { zorp_term_destroy(t); }
  operator zorp_term*() const { return t; }
  int64_t coeff() const { return zorp_term_coeff(t, nullptr); }
  uint32_t degree() const { return zorp_term_degree(t); }
  std::string str() const { return zorp_term_str(t); }
};

// The runtime_error text raised by `f`, or "" when nothing is thrown.
template <class F>
std::string error_text(F&& f) {
  try {
    f();
  } catch (const std::runtime_error& e) {
    return e.what();
  }
  return "";
}

class TermTest : public ::testing::Test {
 protected:
  zorp_var x = zorp_new_var("x"), y = zorp_new_var("y"), z = zorp_new_var("z"), w = zorp_new_var("w"),
           v = zorp_new_var("v");
};

TEST_F(TermTest, ConstructionForms) {
  const Term constant(zorp_term_create(-7));
  EXPECT_EQ(constant.degree(), 0u);
  EXPECT_EQ(constant.coeff(), -7);
  for (uint32_t k = 0; k < MAXDEG; ++k) EXPECT_EQ(zorp_term_var_at(constant, k), ZORP_NO_VAR);

  const Term single(zorp_term_create_var(3, x));
  EXPECT_EQ(single.degree(), 1u);
  EXPECT_EQ(zorp_term_var_at(single, 0), x);
  EXPECT_EQ(zorp_term_var_at(single, 1), ZORP_NO_VAR);

  const Term square(zorp_term_create_var_var(1, x, x));
  EXPECT_EQ(square.degree(), 2u);
  EXPECT_EQ(square.str(), "x*x");

  const Term ordered(zorp_term_create_var_var(2, y, x));
  EXPECT_EQ(zorp_term_var_at(ordered, 0), y);
  EXPECT_EQ(zorp_term_var_at(ordered, 1), x);
}

TEST_F(TermTest, CoefficientArrivesNarrowedAndLeavesSignExtended) {
  const Term wide(zorp_term_create((int64_t{1} << 32) + 3));
  EXPECT_EQ(wide.coeff(), 3);
  const Term negative(zorp_term_create_var(-5, x));
  int64_t out = 0;
  EXPECT_EQ(zorp_term_coeff(negative, &out), -5);
  EXPECT_EQ(out, -5);
}

TEST_F(TermTest, SplitFormReadsTheBlockOnlyAsFarAsItHoldsLiterals) {
  const uint32_t two_more[] = {z, w};
  const Term four(zorp_term_create_vararray(1, split_word(x, y), two_more));
  EXPECT_EQ(four.degree(), 4u);
  EXPECT_EQ(four.str(), "x*y*z*w");

  const uint32_t one_more[] = {z, ZORP_NO_VAR};
  EXPECT_EQ(Term(zorp_term_create_vararray(1, split_word(x, y), one_more)).str(), "x*y*z");

  // The second index is not read when the first is absent.
  const uint32_t absent[] = {ZORP_NO_VAR, w};
  EXPECT_EQ(Term(zorp_term_create_vararray(1, split_word(x, y), absent)).degree(), 2u);

  EXPECT_EQ(Term(zorp_term_create_vararray(-1, split_word(x, y), nullptr)).str(), "-x*y");
  EXPECT_EQ(Term(zorp_term_create_vararray(1, split_word(x, ZORP_NO_VAR), nullptr)).str(), "x");
  EXPECT_EQ(Term(zorp_term_create_vararray(9, split_word(ZORP_NO_VAR, ZORP_NO_VAR), nullptr)).degree(), 0u);
  // The block stays the caller's: it lives on this stack, so a free would be caught.
  EXPECT_EQ(two_more[0], z);
}

TEST_F(TermTest, CloneIsIndependent) {
  const Term original(zorp_term_create_var(2, x));
  const Term copy(zorp_term_clone(original));
  zorp_term_mul_var(copy, y);
  zorp_term_mul_coeff(copy, 5);
  EXPECT_EQ(original.str(), "2*x");
  EXPECT_EQ(copy.str(), "10*x*y");
  zorp_term_destroy(nullptr);
}

TEST_F(TermTest, MulVarPastMaxdegThrowsAndLeavesTheTerm) {
  const Term t(zorp_term_create_var(3, x));
  zorp_term_mul_var(t, y);
  zorp_term_mul_var(t, z);
  zorp_term_mul_var(t, w);
  EXPECT_EQ(t.str(), "3*x*y*z*w");
  EXPECT_EQ(error_text([&] { zorp_term_mul_var(t, v); }), kPushPastMaxdeg);
  EXPECT_EQ(t.str(), "3*x*y*z*w");
}

TEST_F(TermTest, ProductConcatenatesInOrder) {
  const Term a(zorp_term_create_var_var(3, x, y));
  const Term b(zorp_term_create_var_var(-2, w, z));
  const Term product(zorp_term_mul_term(a, b));
  EXPECT_EQ(product.degree(), 4u);
  EXPECT_EQ(product.str(), "-6*x*y*w*z");
  EXPECT_EQ(a.str(), "3*x*y");
  EXPECT_EQ(b.str(), "-2*w*z");

  const Term by_number(zorp_term_mul_term(a, Term(zorp_term_create(4))));
  EXPECT_EQ(by_number.str(), "12*x*y");
}

TEST_F(TermTest, ProductPastMaxdegThrowsAndLeavesBothOperands) {
  const Term a(zorp_term_create_var_var(3, x, y));
  zorp_term_mul_var(a, z);
  const Term b(zorp_term_create_var_var(5, w, v));
  EXPECT_EQ(error_text([&] { zorp_term_destroy(zorp_term_mul_term(a, b)); }), kAppendPastMaxdeg);
  EXPECT_EQ(error_text([&] { zorp_term_mul_term_move(a, b); }), kAppendPastMaxdeg);
  EXPECT_EQ(a.str(), "3*x*y*z");
  EXPECT_EQ(b.str(), "5*w*v");
}

TEST_F(TermTest, ProductInPlaceReturnsTheLeftAndKeepsTheRight) {
  const Term a(zorp_term_create_var(3, x));
  const Term b(zorp_term_create_var_var(-1, y, z));
  EXPECT_EQ(zorp_term_mul_term_move(a, b), a.t);
  EXPECT_EQ(a.str(), "-3*x*y*z");
  EXPECT_EQ(b.str(), "-y*z");
}

TEST_F(TermTest, ArithmeticWrapsAtThirtyTwoBits) {
  const Term t(zorp_term_create_var(INT32_MIN, x));
  zorp_term_negate(t);
  EXPECT_EQ(t.coeff(), INT32_MIN);
  zorp_term_mul_coeff(t, -1);
  EXPECT_EQ(t.coeff(), INT32_MIN);
  zorp_term_div_coeff(t, -1);
  EXPECT_EQ(t.coeff(), INT32_MIN);

  const Term big(zorp_term_create_var(0x40000000, x));
  zorp_term_mul_coeff(big, 4);
  EXPECT_EQ(big.coeff(), 0);
  // The factor is narrowed to the coefficient width before it multiplies.
  const Term narrowed(zorp_term_create_var(3, x));
  zorp_term_mul_coeff(narrowed, (int64_t{1} << 32) + 2);
  EXPECT_EQ(narrowed.coeff(), 6);

  const Term product(zorp_term_mul_term(Term(zorp_term_create_var(0x10000, x)), Term(zorp_term_create_var(0x10000, y))));
  EXPECT_EQ(product.coeff(), 0);
}

TEST_F(TermTest, MulCoeffByZeroKeepsTheVariables) {
  const Term t(zorp_term_create_var_var(7, x, y));
  zorp_term_mul_coeff(t, 0);
  EXPECT_EQ(t.coeff(), 0);
  EXPECT_EQ(t.degree(), 2u);
  EXPECT_EQ(t.str(), "0*x*y");
}

TEST_F(TermTest, ExactDivision) {
  const Term t(zorp_term_create_var(6, x));
  zorp_term_div_coeff(t, -3);
  EXPECT_EQ(t.coeff(), -2);
  zorp_term_div_coeff(t, 2);
  EXPECT_EQ(t.coeff(), -1);
  const Term zero(zorp_term_create_var(0, x));
  zorp_term_div_coeff(zero, INT64_MIN);
  EXPECT_EQ(zero.coeff(), 0);
}

TEST(LiteralSortKey, NegationSitsBesideItsVariableAndAtomsComeLast) {
  const uint32_t x = 5, next = 6;
  EXPECT_LT(literal_sort_key(x), literal_sort_key(x | kNegatedBit));
  EXPECT_LT(literal_sort_key(x | kNegatedBit), literal_sort_key(next));
  const uint32_t small_atom = kIntAtomBit | 0, large_binary = 0x3FFFFFFE;
  EXPECT_LT(literal_sort_key(large_binary | kNegatedBit), literal_sort_key(small_atom));
  EXPECT_LT(literal_sort_key(small_atom), literal_sort_key(small_atom | kNegatedBit));
}

TermImpl term_of(std::initializer_list<uint32_t> literals, coeff_t coefficient = 1) {
  TermImpl t = make_term(coefficient);
  for (uint32_t literal : literals) t.vars.push(literal);
  return t;
}

TEST(TermOrder, FewerLiteralsFirstThenLexicographicByKey) {
  const uint32_t neg = kNegatedBit;
  // Degree decides before any slot: the first slot of the longer term is smaller here.
  EXPECT_TRUE(term_less(term_of({9}), term_of({1, 2})));
  EXPECT_TRUE(term_less(term_of({5, 6}), term_of({1, 2, 3})));
  EXPECT_FALSE(term_less(term_of({1, 2, 3}), term_of({5, 6})));
  EXPECT_TRUE(term_less(term_of({1}), term_of({1, 0})));
  EXPECT_FALSE(term_less(term_of({1, 0}), term_of({1})));
  EXPECT_TRUE(term_less(term_of({}), term_of({0})));
  // Equal degree: the first differing slot decides by key.
  EXPECT_TRUE(term_less(term_of({3, 7}), term_of({3 | neg, 1})));
  EXPECT_TRUE(term_less(term_of({3, 7}), term_of({3, 7 | neg})));
  EXPECT_TRUE(term_less(term_of({2, 3, 4, 5}), term_of({2, 3, 4, 6})));
  EXPECT_TRUE(term_less(term_of({0x3FFFFFFE}), term_of({kIntAtomBit})));
  // Coefficients never take part.
  EXPECT_FALSE(term_less(term_of({1, 2}, 5), term_of({1, 2}, -5)));
  EXPECT_FALSE(term_less(term_of({1, 2}, -5), term_of({1, 2}, 5)));
  EXPECT_FALSE(term_less(term_of({}, 1), term_of({}, 2)));
}

TEST(VarArraySort, InsertionSortByKey) {
  TermImpl two = term_of({4 | kNegatedBit, 4});
  two.vars.sort_by_key();
  EXPECT_EQ(two.vars, term_of({4, 4 | kNegatedBit}).vars);
  TermImpl four = term_of({9, 2 | kNegatedBit, 2, 2 | kNegatedBit});
  four.vars.sort_by_key();
  EXPECT_EQ(four.vars, term_of({2, 2 | kNegatedBit, 2 | kNegatedBit, 9}).vars);
  TermImpl atoms = term_of({kIntAtomBit | 1, 7, kIntAtomBit});
  atoms.vars.sort_by_key();
  EXPECT_EQ(atoms.vars, term_of({7, kIntAtomBit, kIntAtomBit | 1}).vars);
}

TEST(VarArrayAppend, CheckComesFirst) {
  VarArray left = term_of({1, 2, 3}).vars;
  EXPECT_THROW(left.append(term_of({4, 5}).vars), std::runtime_error);
  EXPECT_EQ(left, term_of({1, 2, 3}).vars);
  left.append(VarArray::empty());
  EXPECT_EQ(left, term_of({1, 2, 3}).vars);
  left.append(term_of({4}).vars);
  EXPECT_EQ(left, term_of({1, 2, 3, 4}).vars);
}

class TermDeathTest : public DeathTestBase {};

TEST_F(TermDeathTest, DivisionByZero) {
  zorp_term* t = zorp_term_create_var(6, zorp_new_var("d"));
  EXPECT_EXIT(zorp_term_div_coeff(t, 0), testing::KilledBySignal(SIGABRT), "^zorp: Division by zero\n$");
  zorp_term_destroy(t);
}

TEST_F(TermDeathTest, IndivisibleDivision) {
  zorp_term* t = zorp_term_create_var(7, zorp_new_var("d"));
  EXPECT_EXIT(zorp_term_div_coeff(t, 2), testing::KilledBySignal(SIGABRT), "^zorp: Indivisible division in Term\n$");
  zorp_term_destroy(t);
}

TEST_F(TermDeathTest, RemainderIsTestedBeforeNarrowingTheDivisor) {
  // 2^32 + 2 narrowed to 32 bits would be 2, which divides 4.
  zorp_term* t = zorp_term_create_var(4, zorp_new_var("d"));
  EXPECT_EXIT(zorp_term_div_coeff(t, (int64_t{1} << 32) + 2), testing::KilledBySignal(SIGABRT),
              "^zorp: Indivisible division in Term\n$");
  zorp_term_destroy(t);
}

}  // namespace
