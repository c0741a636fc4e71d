#include <csignal>
#include <cstdint>
#include <cstring>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "algebra/expr.h"
#include "algebra/handles.h"
#include "support/builders.h"
#include "support/death.h"
#include "zorp/cons.h"
#include "zorp/expr.h"
#include "zorp/var.h"

namespace {

using namespace zorp;
using zorp::test::DeathTestBase;
using zorp::test::Poly;
using zorp::test::eval_binary;

// ---- an independent reference: logical terms in, positions out ----

std::vector<TermImpl> logical_terms(const zorp_expr* e) {
  std::vector<TermImpl> terms;
  for (uint64_t i = 0; i < zorp_expr_term_count(e); ++i) terms.push_back(*impl(zorp_expr_term_at(e, i)));
  return terms;
}

// Every position as written: 0 is first_term even when its coefficient is 0.
std::vector<TermImpl> positions(const zorp_expr* e) {
  const ExprImpl& x = *impl(e);
  std::vector<TermImpl> all;
  if (x.rest_size > 0 || x.has_first()) all.push_back(x.first_term);
  all.insert(all.end(), x.rest, x.rest + x.rest_size);
  return all;
}

coeff_t wrap_mul(int64_t a, int64_t b) { return static_cast<coeff_t>(static_cast<uint32_t>(a) * static_cast<uint32_t>(b)); }

TermImpl product(const TermImpl& a, const TermImpl& b, coeff_t factor = 1) {
  TermImpl t{wrap_mul(wrap_mul(a.coefficient, b.coefficient), factor), a.vars};
  unsigned d = 0;
  while (d < MAXDEG && t.vars.slot[d] != kNoVar) ++d;
  for (unsigned k = 0; k < MAXDEG && b.vars.slot[k] != kNoVar; ++k) t.vars.slot[d++] = b.vars.slot[k];
  return t;
}

TermImpl scaled(const TermImpl& t, int64_t factor) { return TermImpl{wrap_mul(t.coefficient, factor), t.vars}; }

std::vector<TermImpl> reference_mul(const zorp_expr* a, const zorp_expr* b) {
  const auto ta = logical_terms(a), tb = logical_terms(b);
  const int64_t A = zorp_expr_constant(a, nullptr), B = zorp_expr_constant(b, nullptr);
  std::vector<TermImpl> out;
  if (A != 0)
    for (const auto& t : tb) out.push_back(scaled(t, A));
  if (B != 0)
    for (const auto& t : ta) out.push_back(scaled(t, B));
  for (const auto& x : ta)
    for (const auto& y : tb) out.push_back(product(x, y));
  return out;
}

std::vector<TermImpl> reference_sqr(const zorp_expr* e) {
  const auto t = logical_terms(e);
  const int64_t A = zorp_expr_constant(e, nullptr);
  std::vector<TermImpl> out;
  for (std::size_t i = 0; i < t.size(); ++i) {
    out.push_back(product(t[i], t[i]));
    if (A != 0) out.push_back(scaled(t[i], wrap_mul(A, 2)));
    for (std::size_t j = i + 1; j < t.size(); ++j) out.push_back(product(t[i], t[j], 2));
  }
  return out;
}

testing::AssertionResult same_positions(const zorp_expr* e, const std::vector<TermImpl>& expected) {
  const auto got = positions(e);
  if (got.size() != expected.size())
    return testing::AssertionFailure() << got.size() << " positions, expected " << expected.size();
  for (std::size_t p = 0; p < got.size(); ++p)
    if (std::memcmp(&got[p], &expected[p], sizeof(TermImpl)) != 0) return testing::AssertionFailure() << "position " << p;
  return testing::AssertionSuccess();
}

// A product result: the expected positions, one exact block, no tag.
void expect_product(const zorp_expr* e, const std::vector<TermImpl>& expected) {
  EXPECT_TRUE(same_positions(e, expected));
  EXPECT_EQ(impl(e)->rest_capacity, impl(e)->rest_size);
  EXPECT_EQ(zorp_expr_attr(e), kNoTag);
}

// Random operand: `n` terms of degree 0..max_degree, some literals negated, wrapping 32-bit
// coefficients. The bulk entry leaves first_term empty and puts every term in rest;
// one-by-one addition fills first_term first.
Poly random_expr(std::mt19937& random, std::size_t n, unsigned max_degree, int64_t constant, bool empty_first) {
  Poly e(constant);
  std::vector<zorp_coeff> coeffs;
  std::vector<uint32_t> degrees, literals;
  for (std::size_t i = 0; i < n; ++i) {
    coeffs.push_back(static_cast<zorp_coeff>(random()));
    degrees.push_back(random() % (max_degree + 1));
    for (uint32_t k = 0; k < degrees.back(); ++k) literals.push_back((random() % 5000) | (random() % 4 ? 0 : kNegatedBit));
  }
  if (empty_first) {
    zorp_expr_iadd_terms_bulk(e.get(), 0, n, coeffs.data(), degrees.data(), literals.data());
  } else {
    for (std::size_t i = 0, at = 0; i < n; at += degrees[i++])
      zorp_expr_iadd_raw_term(e.get(), coeffs[i], literals.data() + at, degrees[i]);
  }
  return e;
}

// Terms in logical order as "coefficient*name*name".
std::vector<std::string> term_texts(const Poly& e) {
  std::vector<std::string> texts;
  for (uint64_t i = 0; i < e.size(); ++i) {
    const zorp_term* t = zorp_expr_term_at(e.get(), i);
    std::string s = std::to_string(zorp_term_coeff(t, nullptr));
    for (uint32_t k = 0; k < zorp_term_degree(t); ++k) s.append("*").append(zorp_var_str(zorp_term_var_at(t, k)));
    texts.push_back(s);
  }
  return texts;
}

// ---- values ----

TEST(Products, ValuesMultiplyAtEveryBinaryAssignment) {
  std::mt19937 random(7);
  const uint64_t four = 4;
  const zorp_var first = zorp_new_var_array("p", &four, 1);
  for (int round = 0; round < 200; ++round) {
    auto small = [&](unsigned max_degree) {
      Poly e(static_cast<int64_t>(random() % 7) - 3);
      for (int i = random() % 4; i > 0; --i) {
        std::vector<uint32_t> vars;
        for (unsigned d = random() % (max_degree + 1); d > 0; --d)
          vars.push_back((first + random() % 4) | (random() % 3 ? 0 : kNegatedBit));
        zorp_expr_iadd_raw_term(e.get(), static_cast<int64_t>(random() % 9) - 4, vars.data(), vars.size());
      }
      return e;
    };
    const Poly a = small(2), b = small(2);
    const zorp_var v = first + random() % 4;
    const int64_t t_coeff = static_cast<int64_t>(random() % 5) - 2;
    Poly by_var(a), by_term(a), by_expr(a), by_self(a);
    zorp_expr_imul_var(by_var.get(), v);
    zorp_expr_imul_term_direct(by_term.get(), t_coeff, uint64_t{v} | (uint64_t{kNoVar} << 32), nullptr);
    zorp_expr_imul_expr(by_expr.get(), b.get());
    zorp_expr_imul_expr(by_self.get(), by_self.get());
    const Poly product = a * b, square(zorp_expr_sqr(a.get()));
    for (uint32_t bits = 0; bits < 16; ++bits) {
      auto value = [&](uint32_t index) { return static_cast<int>((bits >> (index - first)) & 1); };
      const int64_t va = eval_binary(a.get(), value), vb = eval_binary(b.get(), value);
      ASSERT_EQ(eval_binary(product.get(), value), va * vb) << a.str() << " times " << b.str();
      ASSERT_EQ(eval_binary(by_expr.get(), value), va * vb);
      ASSERT_EQ(eval_binary(square.get(), value), va * va) << a.str();
      ASSERT_EQ(eval_binary(by_self.get(), value), va * va);
      ASSERT_EQ(eval_binary(by_var.get(), value), va * value(v));
      ASSERT_EQ(eval_binary(by_term.get(), value), va * t_coeff * value(v));
    }
  }
}

// ---- documented layouts ----

TEST(Products, LayoutOfSectionsAndRows) {
  const Poly x = test::var("x"), y = test::var("y");
  const Poly p = (x + Poly(1)) * (y + Poly(2));
  EXPECT_EQ(term_texts(p), (std::vector<std::string>{"1*y", "2*x", "1*x*y"}));
  EXPECT_EQ(p.constant(), 2);
  EXPECT_EQ(impl(p.get())->first_term.coefficient, 1);
  EXPECT_EQ(impl(p.get())->rest_size, 2u);

  const Poly s(zorp_expr_sqr((x + y + Poly(3)).get()));
  EXPECT_EQ(term_texts(s), (std::vector<std::string>{"1*x*x", "6*x", "2*x*y", "1*y*y", "6*y"}));
  EXPECT_EQ(s.constant(), 9);

  const Poly constant_square(zorp_expr_sqr(Poly(-7).get()));
  EXPECT_EQ(constant_square.size(), 0u);
  EXPECT_EQ(constant_square.constant(), 49);
  for (const Poly& empty : {Poly(zorp_expr_sqr(Poly().get())), x * Poly(), Poly() * (x + y)}) {
    EXPECT_EQ(empty.size(), 0u);
    EXPECT_EQ(empty.constant(), 0);
    EXPECT_EQ(impl(empty.get())->rest, nullptr);
  }

  // No constants: exactly na * nb products; a term scaled to 0 in rest still takes part.
  Poly z = test::var("z");
  zorp_expr_iadd_raw_term(z.get(), 0, nullptr, 0);
  const Poly q = (x + y) * z;
  EXPECT_EQ(term_texts(q), (std::vector<std::string>{"1*x*z", "0*x", "1*y*z", "0*y"}));
  EXPECT_EQ(q.constant(), 0);
}

TEST(Products, ByVariableAndTermMoveTheConstantIntoALinearTerm) {
  const zorp_var x = zorp_new_var("u"), y = zorp_new_var("w");
  Poly e(zorp_expr_create_add_var_int(x, 3));
  zorp_expr_imul_var(e.get(), y);
  EXPECT_EQ(term_texts(e), (std::vector<std::string>{"3*w", "1*u*w"}));
  EXPECT_EQ(e.constant(), 0);

  Poly f(zorp_expr_create_add_var_int(x, -2));
  const uint32_t more[2] = {x, kNoVar};
  zorp_expr_imul_term_direct(f.get(), 5, uint64_t{y} | (uint64_t{y} << 32), more);
  EXPECT_EQ(term_texts(f), (std::vector<std::string>{"-10*w*w*u", "5*u*w*w*u"}));
  EXPECT_EQ(f.constant(), 0);
}

// ---- parallel paths against the position formulas; run at 1 and 2 threads by ctest ----

TEST(Products, LargeProductsMatchThePositionFormulas) {
  std::mt19937 random(11);
  struct Case {
    std::size_t na, nb;
    int64_t A, B;
    bool empty_first_a, empty_first_b;
  };
  // b outer, a outer, no constants (position 0 is a product), and sections above the threshold.
  for (const Case c : {Case{3, 5000, 4, -9, false, false}, Case{300, 70, 0, 2, true, false},
                       Case{120, 121, 0, 0, false, true}, Case{12000, 1, 1, -1, false, false}}) {
    const Poly a = random_expr(random, c.na, 2, c.A, c.empty_first_a);
    const Poly b = random_expr(random, c.nb, 2, c.B, c.empty_first_b);
    expect_product((a * b).get(), reference_mul(a.get(), b.get()));
    Poly in_place(a);
    impl(in_place.get())->ext = 5;  // an encoded-integer tag, which a product drops
    zorp_expr_imul_expr(in_place.get(), b.get());
    expect_product(in_place.get(), reference_mul(a.get(), b.get()));
    EXPECT_EQ(in_place.constant(), static_cast<int64_t>(static_cast<uint64_t>(c.A) * static_cast<uint64_t>(c.B)));
  }
}

TEST(Products, LargeSquaresMatchTheRowLayout) {
  std::mt19937 random(12);
  for (const int64_t A : {0, 1 << 20}) {
    for (const bool empty_first : {false, true}) {
      const Poly e = random_expr(random, 400, 2, A, empty_first);
      const Poly s(zorp_expr_sqr(e.get()));
      expect_product(s.get(), reference_sqr(e.get()));
      EXPECT_EQ(s.constant(), A * A);
      Poly self(e);
      zorp_expr_imul_expr(self.get(), self.get());
      expect_product(self.get(), reference_mul(e.get(), e.get()));
    }
  }
}

TEST(Products, LargeProductsByVariableAndTerm) {
  std::mt19937 random(13);
  const Poly e = random_expr(random, 12000, 3, -6, false);
  const Poly v = Poly::var(77);
  Poly by_var(e);
  zorp_expr_imul_var(by_var.get(), 77);
  expect_product(by_var.get(), reference_mul(e.get(), v.get()));

  const zorp_var negated_nine = 9u | kNegatedBit;
  Poly by_term(e);
  zorp_expr_imul_term_direct(by_term.get(), -3, uint64_t{negated_nine} | (uint64_t{kNoVar} << 32), nullptr);
  const Poly factor(zorp_expr_create_raw_term(-3, &negated_nine, 1, 0));
  expect_product(by_term.get(), reference_mul(e.get(), factor.get()));
}

// ---- degree past MAXDEG: thrown on the calling thread, left operand unchanged ----

TEST(Products, DegreeOverflowThrowsAndLeavesTheLeftOperand) {
  const std::string concat = "VarArray::append: degree exceeds MAXDEG capacity";
  auto expect_throw = [](auto&& f, const std::string& message) {
    try {
      f();
      ADD_FAILURE() << "no exception";
    } catch (const std::runtime_error& e) {
      EXPECT_EQ(e.what(), message);
    }
  };
  std::mt19937 random(14);
  // Deep terms last, in operands large enough for the team paths.
  Poly a = random_expr(random, 200, MAXDEG - 2, 1, false), b = random_expr(random, 100, 1, 1, false);
  const std::vector<uint32_t> deep = {1, 2, 3, 4, 5, 6, 7, 8};
  zorp_expr_iadd_raw_term(a.get(), 1, deep.data(), MAXDEG - 1);
  zorp_expr_iadd_raw_term(b.get(), 1, deep.data(), 2);
  const auto a_before = positions(a.get());
  expect_throw([&] { zorp_expr_imul_expr(a.get(), b.get()); }, concat);
  expect_throw([&] { zorp_expr_mul_expr(a.get(), b.get()); }, concat);
  expect_throw([&] { zorp_expr_sqr(a.get()); }, concat);
  expect_throw([&] { zorp_expr_imul_term_direct(a.get(), 2, 1 | (uint64_t{2} << 32), nullptr); }, concat);
  EXPECT_TRUE(same_positions(a.get(), a_before));

  Poly full(zorp_expr_create_raw_term(1, deep.data(), MAXDEG, 4));
  const auto full_before = positions(full.get());
  expect_throw([&] { zorp_expr_imul_var(full.get(), 5); },
               "VarArray: degree exceeds MAXDEG capacity (" + std::to_string(MAXDEG) + ")");
  EXPECT_TRUE(same_positions(full.get(), full_before));
  EXPECT_EQ(full.constant(), 4);
}

// ---- refusals on declared constraints ----

class ProductsDeathTest : public DeathTestBase {};

TEST_F(ProductsDeathTest, DeclaredOperandsAreRefused) {
  const Poly x = test::var("d");
  const Poly declared(zorp_cons_mark((x + Poly(1)).get()));
  Poly plain = x + Poly(2);
  auto line = [](const std::string& word) {
    return "^zorp: zorp::cons: '" + test::escaped_regex(word) +
           "' is not allowed on an expression with declared constraints\n$";
  };
  const auto aborted = testing::KilledBySignal(SIGABRT);
  EXPECT_EXIT(zorp_expr_imul_var(declared.get(), 1), aborted, line("*= var"));
  EXPECT_EXIT(zorp_expr_imul_term_direct(declared.get(), 1, ~uint64_t{0}, nullptr), aborted, line("*= term"));
  EXPECT_EXIT(zorp_expr_imul_expr(declared.get(), plain.get()), aborted, line("*= expr"));
  EXPECT_EXIT(zorp_expr_imul_expr(plain.get(), declared.get()), aborted, line("* expr"));
  EXPECT_EXIT(zorp_expr_mul_expr(plain.get(), declared.get()), aborted, line("* expr"));
  EXPECT_EXIT(zorp_expr_sqr(declared.get()), aborted, line("sqr"));
}

}  // namespace
