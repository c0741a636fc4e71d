#include "algebra/merge.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <map>
#include <stdexcept>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "algebra/handles.h"
#include "support/builders.h"
#include "support/death.h"
#include "zorp/expr.h"

namespace {

using namespace zorp;
using zorp::test::DeathTestBase;
using zorp::test::Poly;

constexpr std::uint32_t neg(std::uint32_t v) { return v | kNegatedBit; }
constexpr std::uint32_t int_atom(std::uint32_t k) { return k | kIntAtomBit; }

TermImpl term(coeff_t coefficient, std::initializer_list<std::uint32_t> literals) {
  TermImpl t = make_term(coefficient);
  unsigned k = 0;
  for (std::uint32_t literal : literals) t.vars.slot[k++] = literal;
  return t;
}

ExprImpl expr(energy_t constant, std::initializer_list<TermImpl> terms) {
  ExprImpl e(constant);
  for (const TermImpl& t : terms) e.add_term(t);
  return e;
}

const zorp_expr* view(const ExprImpl& e) { return reinterpret_cast<const zorp_expr*>(&e); }

std::string describe(const TermImpl& t) {
  std::string text = std::to_string(t.coefficient);
  for (unsigned k = 0; k < t.vars.degree(); ++k) {
    text += k == 0 ? "*[" : ",";
    text += std::to_string(t.vars.slot[k]);
  }
  text += ']';
  return text;
}

// Same constant and the same logical terms bit for bit.
testing::AssertionResult identical(const ExprImpl& actual, const ExprImpl& expected) {
  if (actual.constant != expected.constant)
    return testing::AssertionFailure() << "constant " << static_cast<long long>(actual.constant) << " vs "
                                       << static_cast<long long>(expected.constant);
  if (actual.term_count() != expected.term_count())
    return testing::AssertionFailure() << "term count " << actual.term_count() << " vs " << expected.term_count();
  for (std::uint64_t i = 0; i < actual.term_count(); ++i) {
    const TermImpl &a = actual.term(i), &b = expected.term(i);
    if (a.coefficient != b.coefficient || !(a.vars == b.vars))
      return testing::AssertionFailure() << "term " << i << ": " << describe(a) << " vs " << describe(b);
  }
  return testing::AssertionSuccess();
}

std::vector<TermImpl> terms_of(const ExprImpl& e) {
  std::vector<TermImpl> terms;
  e.for_each_term([&](const TermImpl& t) { terms.push_back(t); });
  return terms;
}

// Merging done the slow, obvious way: a map keyed by degree and rotated literals.
ExprImpl reference_merge(const std::vector<TermImpl>& terms, energy_t constant) {
  using Key = std::pair<unsigned, std::array<std::uint32_t, MAXDEG>>;
  std::map<Key, std::pair<VarArray, std::uint32_t>> sums;
  for (const TermImpl& t : terms) {
    if (t.coefficient == 0) continue;
    const unsigned degree = t.vars.degree();
    if (degree == 0) {
      constant += t.coefficient;
      continue;
    }
    Key key{degree, {}};
    for (unsigned k = 0; k < MAXDEG; ++k) key.second[k] = (t.vars.slot[k] << 1) | (t.vars.slot[k] >> 31);
    auto& entry = sums.try_emplace(key, t.vars, 0u).first->second;
    entry.second += static_cast<std::uint32_t>(t.coefficient);
  }
  ExprImpl e(constant);
  for (const auto& [key, entry] : sums)
    if (entry.second != 0) e.add_term(TermImpl{static_cast<coeff_t>(entry.second), entry.first});
  return e;
}

// Random polynomials over variables 0 .. vars-1, degree 0 to 4, with holes, negated
// literals, repeated literals and many repeated products.
struct PolyShape {
  std::uint64_t terms = 40;
  std::uint32_t vars = 5;
};

ExprImpl random_poly(std::mt19937& rng, const PolyShape& shape) {
  std::uniform_int_distribution<int> coefficient(-3, 3), degree(0, static_cast<int>(MAXDEG)), coin(0, 2);
  std::uniform_int_distribution<std::uint32_t> variable(0, shape.vars - 1);
  std::vector<TermImpl> made;
  ExprImpl e(std::uniform_int_distribution<int>(-5, 5)(rng));
  for (std::uint64_t i = 0; i < shape.terms; ++i) {
    TermImpl t = make_term(static_cast<coeff_t>(coefficient(rng)));
    if (!made.empty() && coin(rng) == 0) {
      t.vars = made[std::uniform_int_distribution<std::size_t>(0, made.size() - 1)(rng)].vars;
    } else {
      const int d = degree(rng);
      for (int k = 0; k < d; ++k) {
        const std::uint32_t v = variable(rng);
        t.vars.slot[k] = coin(rng) == 0 ? neg(v) : v;
      }
    }
    made.push_back(t);
    // A hole in first_term is overwritten by the next term: adding keeps the shape of
    // what users build.
    e.add_term(t);
  }
  return e;
}

using Evaluator = std::int64_t (*)(const zorp_expr*, const std::function<int(std::uint32_t)>&);

// Equal values at every assignment of the variables 0 .. vars-1.
testing::AssertionResult same_function(const ExprImpl& a, const ExprImpl& b, std::uint32_t vars, Evaluator evaluate,
                                       bool spins) {
  for (std::uint32_t mask = 0; mask < (1u << vars); ++mask) {
    const auto value = [&](std::uint32_t v) {
      const int bit = static_cast<int>((mask >> v) & 1u);
      return spins ? 2 * bit - 1 : bit;
    };
    const std::int64_t before = evaluate(view(a), value), after = evaluate(view(b), value);
    if (before != after)
      return testing::AssertionFailure() << "assignment " << mask << ": " << before << " vs " << after;
  }
  return testing::AssertionSuccess();
}

// ---- term order and merging ----

class TermSortComparator : public ::testing::Test {};

TEST_F(TermSortComparator, AgreesWithTheReferenceOrderOnRandomPairs) {
  // A small alphabet makes equal prefixes, a literal beside its negation, and integer atoms
  // against high binary indices frequent.
  const std::uint32_t alphabet[] = {0, 1, 2, neg(0), neg(1), int_atom(0), int_atom(1), neg(int_atom(0)), kIndexMask};
  std::mt19937 rng(7);
  std::uniform_int_distribution<int> degree(0, static_cast<int>(MAXDEG)), pick(0, std::size(alphabet) - 1);
  const auto random_term = [&] {
    TermImpl t = make_term(1);
    const int d = degree(rng);
    for (int k = 0; k < d; ++k) t.vars.slot[k] = alphabet[pick(rng)];
    return t;
  };
  const TermOrder order;
  for (int i = 0; i < 200000; ++i) {
    const TermImpl a = random_term(), b = random_term();
    ASSERT_EQ(order(a, b), term_less(a, b)) << describe(a) << " vs " << describe(b);
  }
}

TEST_F(TermSortComparator, LiteralSitsBesideItsNegationAndIntegerAtomsComeLast) {
  std::vector<TermImpl> terms = {term(1, {int_atom(0)}), term(1, {kIndexMask}), term(1, {neg(3)}), term(1, {4}),
                                 term(1, {3}), term(1, {0, 1}), term(1, {})};
  sort_terms(terms.data(), terms.data() + terms.size(), 1);
  const std::vector<std::uint32_t> firsts = {kNoVar, 3, neg(3), 4, kIndexMask, int_atom(0), 0};
  for (std::size_t i = 0; i < terms.size(); ++i) EXPECT_EQ(terms[i].vars.slot[0], firsts[i]) << i;
}

TermBlock block_of(const std::vector<TermImpl>& terms) {
  TermBlock block(terms.size());
  std::copy(terms.begin(), terms.end(), block.data());
  return block;
}

class MergeTermsTest : public ::testing::Test {
 protected:
  // Both forms of merge_terms, at each thread count, must give exactly the reference result.
  static void expect_reference_at_all_thread_counts(const std::vector<TermImpl>& terms, energy_t constant) {
    const ExprImpl expected = reference_merge(terms, constant);
    for (unsigned threads : {1u, 2u, 3u, 8u}) {
      std::vector<TermImpl> copy = terms;
      EXPECT_TRUE(identical(merge_terms(copy, constant, threads), expected)) << threads << " threads";
      const ExprImpl in_place = merge_terms(block_of(terms), constant, threads);
      EXPECT_TRUE(identical(in_place, expected)) << threads << " threads, in place";
      EXPECT_EQ(in_place.rest_capacity, in_place.rest_size);
    }
  }
};

TEST_F(MergeTermsTest, EmptyInputGivesOnlyTheConstant) {
  std::vector<TermImpl> none;
  for (const ExprImpl& e : {merge_terms(none, -4), merge_terms(TermBlock(), -4, 2)}) {
    EXPECT_EQ(e.constant, -4);
    EXPECT_EQ(e.term_count(), 0u);
    EXPECT_EQ(e.rest, nullptr);
    EXPECT_EQ(e.ext, kNoTag);
  }
}

TEST_F(MergeTermsTest, FoldsNumbersIntoTheConstantAndDropsHolesAndCancellations) {
  std::vector<TermImpl> terms = {term(0, {1}), term(5, {}),  term(3, {0}), term(-2, {}),
                                 term(2, {2}), term(-3, {0}), term(0, {})};
  const ExprImpl expected = expr(13, {term(2, {2})});
  EXPECT_TRUE(identical(merge_terms(block_of(terms), 10, 1), expected));
  const ExprImpl e = merge_terms(terms, 10);
  EXPECT_TRUE(identical(e, expected));
  EXPECT_EQ(e.first_term.coefficient, 2);
  EXPECT_EQ(e.rest_size, 0u);
}

TEST_F(MergeTermsTest, IdentityIsBitwiseSoUnsortedProductsStayApart) {
  std::vector<TermImpl> terms = {term(1, {0, 1}), term(1, {1, 0}), term(1, {0, 1})};
  EXPECT_TRUE(identical(merge_terms(terms, 0), expr(0, {term(2, {0, 1}), term(1, {1, 0})})));
}

TEST_F(MergeTermsTest, RandomVectorsMatchTheReferenceOnBothPaths) {
  std::mt19937 rng(11);
  for (std::uint64_t n : {1ull, 7ull, 9999ull, 10000ull, 60000ull}) {
    const ExprImpl source = random_poly(rng, {n, 6});
    expect_reference_at_all_thread_counts(terms_of(source), source.constant);
  }
}

TEST_F(MergeTermsTest, LongRunSpanningManyChunksMergesIntoOneTerm) {
  std::vector<TermImpl> terms(30000, term(1, {0, 1}));
  terms.push_back(term(4, {0}));
  terms.push_back(term(-1, {0, 2}));
  const ExprImpl expected = expr(0, {term(4, {0}), term(30000, {0, 1}), term(-1, {0, 2})});
  for (unsigned threads : {1u, 3u, 8u}) {
    std::vector<TermImpl> copy = terms;
    EXPECT_TRUE(identical(merge_terms(copy, 0, threads), expected)) << threads << " threads";
    EXPECT_TRUE(identical(merge_terms(block_of(terms), 0, threads), expected)) << threads << " threads, in place";
  }
}

TEST_F(MergeTermsTest, RunCancellingAcrossASeamVanishes) {
  // 20000 terms on 2 threads cut at 10000: the two x*y terms land on either side.
  std::vector<TermImpl> terms(9999, term(1, {0}));
  terms.push_back(term(5, {0, 1}));
  terms.push_back(term(-5, {0, 1}));
  terms.insert(terms.end(), 9999, term(1, {0, 2}));
  std::vector<TermImpl> copy = terms;
  EXPECT_TRUE(identical(merge_terms(copy, 0, 2), expr(0, {term(9999, {0}), term(9999, {0, 2})})));
  expect_reference_at_all_thread_counts(terms, 0);
}

TEST_F(MergeTermsTest, RunThroughAChunkThatFoldsToNothingIsCarriedToItsEnd) {
  // Three chunks of 8192 terms. The middle one holds only x*y with coefficient 2^19, which
  // sums to 0 in 32 bits, so the run's head must travel through an empty chunk.
  constexpr coeff_t kStep = 1 << 19;
  std::vector<TermImpl> terms(4096, term(1, {0}));
  terms.insert(terms.end(), 4096 + 8192 + 4095, term(kStep, {0, 1}));
  terms.insert(terms.end(), 4097, term(1, {0, 2}));
  ASSERT_EQ(terms.size(), 3u * 8192);
  const coeff_t run_sum = static_cast<coeff_t>(static_cast<std::uint32_t>(kStep) * (4096 + 8192 + 4095));
  std::vector<TermImpl> copy = terms;
  EXPECT_TRUE(identical(merge_terms(copy, 0, 3), expr(0, {term(4096, {0}), term(run_sum, {0, 1}), term(4097, {0, 2})})));
  expect_reference_at_all_thread_counts(terms, 0);
}

TEST_F(MergeTermsTest, BlockGrowsPastItsSpareRoom) {
  TermBlock block(1, 1);
  block[0] = term(1, {0});
  for (coeff_t c = 1; c <= 100; ++c) block.push_back(term(c, {c % 2 == 0 ? 1u : 2u}));
  ASSERT_EQ(block.size(), 101u);
  EXPECT_TRUE(identical(merge_terms(std::move(block), 0, 1), expr(0, {term(1, {0}), term(2550, {1}), term(2500, {2})})));
  EXPECT_THROW(TermBlock(std::uint64_t{1} << 62), std::length_error);
}

// ---- the three simplifiers ----

class SimplifyTest : public ::testing::Test {
 protected:
  Poly x = zorp::test::var("x"), y = zorp::test::var("y"), z = zorp::test::var("z");
  static Poly simplify(const Poly& p) { return Poly(zorp_expr_simplify(p.get())); }
};

TEST_F(SimplifyTest, LikeTermsMeetAndOppositesVanish) {
  EXPECT_EQ(simplify(x + x).str(), "2*x");
  const Poly gone = simplify(x - x);
  EXPECT_EQ(gone.size(), 0u);
  EXPECT_EQ(gone.constant(), 0);
  EXPECT_EQ(impl(gone.get())->first_term.coefficient, 0);
}

TEST_F(SimplifyTest, SortsLiteralsButAppliesNoVariableRule) {
  EXPECT_EQ(simplify(y * x + x * y).str(), "2*x*y");
  const Poly square = simplify(x * x);
  ASSERT_EQ(square.size(), 1u);
  EXPECT_EQ(zorp_term_degree(zorp_expr_term_at(square.get(), 0)), 2u);
  const Poly kept = simplify(y * zorp::test::negated(x));
  const TermImpl& t = impl(kept.get())->first_term;
  EXPECT_EQ(t.vars.slot[0], neg(zorp::test::index_of(x)));
  EXPECT_EQ(t.vars.slot[1], zorp::test::index_of(y));
}

TEST_F(SimplifyTest, ExpressionWithoutTermsGivesItsConstant) {
  const ExprImpl constant = expr(-8, {});
  EXPECT_TRUE(identical(expr_simplify(constant), constant));
  EXPECT_TRUE(identical(expr_simplify_as_binary(constant), constant));
  EXPECT_TRUE(identical(expr_simplify_as_spin(constant), constant));
}

TEST_F(SimplifyTest, ExportedFormsKeepAnEncodedIntegerTagAndLeaveTheArgument) {
  Poly p = x * y + y * x + 3;
  for (std::uint32_t tag : {0u, 0x7FFFFFFFu, kNoTag}) {
    impl(p.get())->ext = tag;
    const std::string before = p.str();
    for (auto* simplifier : {&zorp_expr_simplify, &zorp_expr_simplify_as_binary, &zorp_expr_simplify_as_spin}) {
      const Poly result(simplifier(p.get()));
      EXPECT_EQ(zorp_expr_attr(result.get()), tag);
      EXPECT_EQ(p.str(), before);
      EXPECT_EQ(impl(p.get())->ext, tag);
    }
  }
}

TEST_F(SimplifyTest, RandomPolynomialsKeepTheirValueAndBecomeCanonical) {
  std::mt19937 rng(21);
  for (int round = 0; round < 200; ++round) {
    const ExprImpl e = random_poly(rng, {});
    const ExprImpl s = expr_simplify(e);
    ASSERT_TRUE(zorp::test::is_canonical(view(s)));
    ASSERT_TRUE(same_function(e, s, 5, zorp::test::eval_binary, false));
    ASSERT_TRUE(same_function(e, s, 5, zorp::test::eval_spin, true));
  }
}

class SimplifyAsBinary : public SimplifyTest {
 protected:
  static Poly binary(const Poly& p) { return Poly(zorp_expr_simplify_as_binary(p.get())); }
  Poly nx = zorp::test::negated(x), ny = zorp::test::negated(y);
};

TEST_F(SimplifyAsBinary, NegatedLiteralBecomesComplement) {
  EXPECT_EQ(binary(Poly(2) * nx).str(), "2 -2*x");
  EXPECT_EQ(binary(Poly(3) * nx * ny).str(), "3 -3*x -3*y +3*x*y");
  EXPECT_EQ(binary(nx * y).str(), "y -x*y");
  EXPECT_EQ(binary(x * ny).str(), "x -x*y");
  EXPECT_EQ(binary(Poly(5) * nx * nx).str(), "5 -5*x");
}

TEST_F(SimplifyAsBinary, VariableTimesItsNegationVanishes) {
  for (const Poly& p : {x * nx, nx * x, x * y * nx, y * nx * y * x}) {
    const Poly s = binary(p);
    EXPECT_EQ(s.size(), 0u) << p.str();
    EXPECT_EQ(s.constant(), 0) << p.str();
  }
}

TEST_F(SimplifyAsBinary, DegreeThreeKeepsItsNegatedLiteralWithLiteralsSorted) {
  const Poly s = binary(z * y * nx);
  ASSERT_EQ(s.size(), 1u);
  const TermImpl& t = impl(s.get())->first_term;
  EXPECT_EQ(t.coefficient, 1);
  EXPECT_EQ(t.vars.slot[0], neg(zorp::test::index_of(x)));
  EXPECT_EQ(t.vars.slot[1], zorp::test::index_of(y));
  EXPECT_EQ(t.vars.slot[2], zorp::test::index_of(z));
  EXPECT_EQ(s.constant(), 0);
}

TEST_F(SimplifyAsBinary, RepeatedLiteralsCollapseBeforeNegatedLiteralsExpand) {
  // ~x*~x*y is ~x*y once repeats go, and then y - x*y.
  EXPECT_EQ(binary(nx * nx * y).str(), "y -x*y");
  EXPECT_EQ(binary(x * x).str(), "x");
  EXPECT_EQ(binary(x * x * x * x).str(), "x");
}

TEST_F(SimplifyAsBinary, IntegerAtomKeepsItsPower) {
  const std::uint32_t i = int_atom(3), v = zorp::test::index_of(x);
  EXPECT_TRUE(identical(expr_simplify_as_binary(expr(0, {term(2, {i, i})})), expr(0, {term(2, {i, i})})));
  EXPECT_TRUE(identical(expr_simplify_as_binary(expr(0, {term(1, {i, v, i, v})})), expr(0, {term(1, {v, i, i})})));
  // An integer atom against a negated binary literal expands like any other pair.
  EXPECT_TRUE(identical(expr_simplify_as_binary(expr(0, {term(4, {i, neg(v)})})),
                        expr(0, {term(4, {i}), term(-4, {v, i})})));
}

TEST_F(SimplifyAsBinary, RandomPolynomialsKeepTheirValueAndBecomeCanonical) {
  std::mt19937 rng(5);
  for (int round = 0; round < 300; ++round) {
    const ExprImpl e = random_poly(rng, {});
    const ExprImpl s = expr_simplify_as_binary(e);
    ASSERT_TRUE(zorp::test::is_canonical(view(s)));
    ASSERT_TRUE(same_function(e, s, 5, zorp::test::eval_binary, false));
    s.for_each_term([&](const TermImpl& t) {
      const unsigned d = t.vars.degree();
      for (unsigned k = 0; k < d; ++k) {
        // Below degree 3 no negated literal survives, and no variable repeats.
        if (d < 3) {
          ASSERT_FALSE(is_negated(t.vars.slot[k])) << describe(t);
        }
        if (k > 0) {
          ASSERT_NE(positive_literal(t.vars.slot[k]), positive_literal(t.vars.slot[k - 1])) << describe(t);
        }
      }
    });
  }
}

TEST_F(SimplifyAsBinary, LargeInputGivesTheSameResultAtEveryThreadCount) {
  std::mt19937 rng(9);
  const ExprImpl e = random_poly(rng, {60000, 6});
  const ExprImpl serial = expr_simplify_as_binary(e, 1);
  EXPECT_TRUE(same_function(e, serial, 6, zorp::test::eval_binary, false));
  EXPECT_TRUE(zorp::test::is_canonical(view(serial)));
  for (unsigned threads : {2u, 3u, 8u}) EXPECT_TRUE(identical(expr_simplify_as_binary(e, threads), serial)) << threads;
}

class SimplifyAsSpin : public SimplifyTest {
 protected:
  static Poly spin(const Poly& p) { return Poly(zorp_expr_simplify_as_spin(p.get())); }
  Poly nx = zorp::test::negated(x), ny = zorp::test::negated(y);
};

TEST_F(SimplifyAsSpin, SquareIsOne) {
  EXPECT_EQ(spin(x * x).str(), "1");
  EXPECT_EQ(spin(Poly(3) * x * y * x).str(), "3*y");
}

TEST_F(SimplifyAsSpin, NegatedLiteralFlipsTheSign) {
  EXPECT_EQ(spin(nx * ny).str(), "x*y");
  EXPECT_EQ(spin(nx * y).str(), "-x*y");
  EXPECT_EQ(spin(x * nx).str(), "-1");
}

TEST_F(SimplifyAsSpin, RandomPolynomialsKeepTheirValueAndBecomeCanonical) {
  std::mt19937 rng(13);
  for (int round = 0; round < 300; ++round) {
    const ExprImpl e = random_poly(rng, {});
    const ExprImpl s = expr_simplify_as_spin(e);
    ASSERT_TRUE(zorp::test::is_canonical(view(s)));
    ASSERT_TRUE(same_function(e, s, 5, zorp::test::eval_spin, true));
    s.for_each_term([&](const TermImpl& t) {
      for (unsigned k = 0; k < t.vars.degree(); ++k) {
        ASSERT_FALSE(is_negated(t.vars.slot[k])) << describe(t);
        if (k > 0) {
          ASSERT_NE(t.vars.slot[k], t.vars.slot[k - 1]) << describe(t);
        }
      }
    });
  }
}

TEST_F(SimplifyAsSpin, LargeInputGivesTheSameResultAtEveryThreadCount) {
  std::mt19937 rng(17);
  const ExprImpl e = random_poly(rng, {60000, 6});
  const ExprImpl serial = expr_simplify_as_spin(e, 1);
  EXPECT_TRUE(same_function(e, serial, 6, zorp::test::eval_spin, true));
  for (unsigned threads : {2u, 3u, 8u}) EXPECT_TRUE(identical(expr_simplify_as_spin(e, threads), serial)) << threads;
  const ExprImpl plain = expr_simplify(e, 1);
  for (unsigned threads : {2u, 8u}) EXPECT_TRUE(identical(expr_simplify(e, threads), plain)) << threads;
}

class SimplifyAsSpinDeathTest : public DeathTestBase {};

TEST_F(SimplifyAsSpinDeathTest, IntegerAtomIsFatal) {
  const ExprImpl e = expr(0, {term(1, {0}), term(1, {int_atom(2), int_atom(2)})});
  EXPECT_DEATH(zorp_expr_simplify_as_spin(view(e)),
               "^zorp: simplify_as_spin\\(\\): native integer variables \\(int_var\\) are not supported \\(spin "
               "rules do not apply to integer atoms\\)\\.\n$");
  // Found on the parallel path too, and reported once.
  std::vector<TermImpl> many(20000, term(1, {0, 1}));
  many[15000] = term(1, {neg(int_atom(0))});
  ExprImpl large;
  for (const TermImpl& t : many) large.add_term(t);
  EXPECT_DEATH(expr_simplify_as_spin(large, 4),
               "^zorp: simplify_as_spin\\(\\): native integer variables \\(int_var\\) are not supported \\(spin "
               "rules do not apply to integer atoms\\)\\.\n$");
}

}  // namespace
