#include "constraint/binarize.h"

#include <cstdint>
#include <limits>
#include <map>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "algebra/handles.h"
#include "constraint/int_var_registry.h"
#include "support/builders.h"
#include "support/death.h"
#include "zorp.h"

namespace {

using zorp::test::DeathTestBase;
using zorp::test::Poly;

struct Term {
  int64_t coefficient;
  std::vector<uint32_t> vars;
};

std::vector<Term> terms_of(const zorp_expr* e) {
  std::vector<Term> out;
  for (uint64_t i = 0; i < zorp_expr_term_count(e); ++i) {
    const zorp_term* t = zorp_expr_term_at(e, i);
    Term term{zorp_term_coeff(t, nullptr), {}};
    for (uint32_t k = 0; k < zorp_term_degree(t); ++k) term.vars.push_back(zorp_term_var_at(t, k));
    out.push_back(term);
  }
  return out;
}

Poly atom(zorp_var a) { return Poly::var(a); }

Poly raw(int64_t coefficient, std::vector<uint32_t> vars) {
  return Poly(zorp_expr_create_raw_term(coefficient, vars.data(), vars.size(), 0));
}

// An atom's encoding as seen from outside: binarizing the atom alone gives lo + sum c_k * bit_k.
struct Encoding {
  int64_t lo = 0;
  std::vector<std::pair<int64_t, uint32_t>> bits;
};

Encoding encoding_of(zorp_var a) {
  const Poly bits(zorp_expr_binarize(atom(a).get()));
  Encoding enc;
  enc.lo = bits.constant();
  for (const Term& t : terms_of(bits.get())) {
    EXPECT_EQ(t.vars.size(), 1u);
    enc.bits.emplace_back(t.coefficient, t.vars[0]);
  }
  return enc;
}

std::vector<int64_t> coefficients(const Encoding& enc) {
  std::vector<int64_t> c;
  for (const auto& bit : enc.bits) c.push_back(bit.first);
  return c;
}

TEST(BinarizeEncoding, RangeOneIsOneBit) {
  const zorp_var x = zorp_new_int_var("enc_r1", 4, 5);
  const Encoding enc = encoding_of(x);
  EXPECT_EQ(enc.lo, 4);
  ASSERT_EQ(enc.bits.size(), 1u);
  EXPECT_EQ(enc.bits[0].first, 1);
  EXPECT_STREQ(zorp_var_str(enc.bits[0].second), "enc_r1#0");
}

TEST(BinarizeEncoding, RangeFiveClosesWithARemainder) {
  const zorp_var x = zorp_new_int_var("enc_r5", 10, 15);
  const Encoding enc = encoding_of(x);
  EXPECT_EQ(enc.lo, 10);
  EXPECT_EQ(coefficients(enc), (std::vector<int64_t>{1, 2, 2}));
  for (std::size_t k = 0; k < enc.bits.size(); ++k)
    EXPECT_EQ(std::string(zorp_var_str(enc.bits[k].second)), "enc_r5#" + std::to_string(k));
}

TEST(BinarizeEncoding, NegativeLowerBoundIsTheConstant) {
  const zorp_var x = zorp_new_int_var("enc_neg", -3, 4);
  const Encoding enc = encoding_of(x);
  EXPECT_EQ(enc.lo, -3);
  EXPECT_EQ(coefficients(enc), (std::vector<int64_t>{1, 2, 4}));
}

TEST(BinarizeEncoding, ArrayElementBitsCarryTheElementName) {
  const uint64_t shape[] = {4};
  const zorp_var y = zorp_new_int_var_array("enc_arr", shape, 1, 0, 3);
  const Encoding enc = encoding_of(y + 2);
  ASSERT_EQ(enc.bits.size(), 2u);
  EXPECT_STREQ(zorp_var_str(enc.bits[0].second), "enc_arr[2]#0");
  EXPECT_STREQ(zorp_var_str(enc.bits[1].second), "enc_arr[2]#1");
}

TEST(BinarizeEncoding, BitsAreMadeOnceOnFirstUse) {
  const zorp_var x = zorp_new_int_var("enc_once", 0, 9);  // four bits: 1, 2, 4, 2
  const uint32_t before = zorp_var_count();
  const Encoding first = encoding_of(x);
  EXPECT_EQ(zorp_var_count(), before + 4);
  // A second binarization, also one inside a product, creates nothing and reuses the bits.
  const Encoding second = encoding_of(x);
  const zorp_var z = zorp_new_var("enc_once_z");
  const uint32_t settled = zorp_var_count();
  const Poly product(zorp_expr_binarize((atom(x) * Poly::var(z)).get()));
  EXPECT_EQ(zorp_var_count(), settled);
  ASSERT_EQ(first.bits.size(), second.bits.size());
  for (std::size_t k = 0; k < first.bits.size(); ++k) {
    EXPECT_EQ(first.bits[k], second.bits[k]);
    EXPECT_TRUE(zorp_expr_has(product.get(), first.bits[k].second));
  }
}

TEST(Binarize, TwoAtomsGiveAProductOfBitSums) {
  const zorp_var a = zorp_new_int_var("prod_a", 0, 5);
  const zorp_var b = zorp_new_int_var("prod_b", 0, 1);
  const Poly bits(zorp_expr_binarize(raw(7, {a, b}).get()));
  EXPECT_EQ(zorp_expr_has_int_atom(bits.get()), 0);
  EXPECT_EQ(zorp_expr_max_degree(bits.get()), 2u);
  EXPECT_EQ(zorp_expr_term_count_degree(bits.get(), 2), 3u);
  // With a binary literal the degree adds up.
  const zorp_var z = zorp_new_var("prod_z");
  const Poly three(zorp_expr_binarize(raw(1, {a, z, b}).get()));
  EXPECT_EQ(zorp_expr_max_degree(three.get()), 3u);
  EXPECT_EQ(zorp_expr_term_count_degree(three.get(), 3), 3u);
}

TEST(Binarize, ExpressionWithoutAtomsIsCopiedWithTagCleared) {
  const Poly x = zorp::test::var("nb_x"), y = zorp::test::var("nb_y");
  Poly e = Poly(3) + x * y - x;
  zorp::impl(e.get())->ext = 5;  // an encoded-integer tag passes binarization
  const Poly copy(zorp_expr_binarize(e.get()));
  EXPECT_EQ(zorp_expr_attr(copy.get()), 0xFFFFFFFFu);
  EXPECT_EQ(zorp_expr_attr(e.get()), 5u);
  EXPECT_EQ(copy.constant(), 3);
  const std::vector<Term> got = terms_of(copy.get()), want = terms_of(e.get());
  ASSERT_EQ(got.size(), want.size());
  for (std::size_t i = 0; i < got.size(); ++i) {
    EXPECT_EQ(got[i].coefficient, want[i].coefficient);
    EXPECT_EQ(got[i].vars, want[i].vars);
  }
  // And with atoms the encoded-integer tag is dropped as well.
  const zorp_var a = zorp_new_int_var("nb_a", 0, 2);
  Poly with_atom = atom(a) + x;
  zorp::impl(with_atom.get())->ext = 5;
  EXPECT_EQ(zorp_expr_attr(Poly(zorp_expr_binarize(with_atom.get())).get()), 0xFFFFFFFFu);
}

TEST(Binarize, BinaryLiteralsPassThroughUntouched) {
  const zorp_var a = zorp_new_int_var("pass_a", 2, 3);
  const zorp_var x = zorp_new_var("pass_x");
  Poly e = raw(5, {x ^ ZORP_NEGATED_BIT, x});
  e += atom(a);
  const Poly bits(zorp_expr_binarize(e.get()));
  const std::vector<Term> t = terms_of(bits.get());
  ASSERT_FALSE(t.empty());
  EXPECT_EQ(t[0].coefficient, 5);
  EXPECT_EQ(t[0].vars, (std::vector<uint32_t>{x ^ ZORP_NEGATED_BIT, x}));
  EXPECT_EQ(bits.constant(), 2);
}

TEST(Binarize, HasIntAtomIgnoresAnEmptyInlineSlotButNotAZeroRestTerm) {
  const zorp_var a = zorp_new_int_var("has_a", 0, 3);
  const zorp_var x = zorp_new_var("has_x");
  Poly e = atom(a);
  EXPECT_EQ(zorp_expr_has_int_atom(e.get()), 1);
  zorp_expr_imul_int(e.get(), 0);  // the atom stays in first_term, now an empty slot
  EXPECT_EQ(zorp_expr_has_int_atom(e.get()), 0);
  EXPECT_EQ(zorp_expr_term_count(Poly(zorp_expr_binarize(e.get())).get()), 0u);

  Poly f = Poly::var(x);
  const zorp_coeff zero = 0;
  const uint32_t degree = 1;
  zorp_expr_iadd_terms_bulk(f.get(), 0, 1, &zero, &degree, &a);
  EXPECT_EQ(zorp_expr_has_int_atom(f.get()), 1);
  // The zero term contributes nothing: only x is left.
  const Poly bits(zorp_expr_binarize(f.get()));
  const std::vector<Term> t = terms_of(bits.get());
  ASSERT_EQ(t.size(), 1u);
  EXPECT_EQ(t[0].vars, (std::vector<uint32_t>{x}));

  // The negation bit does not hide an atom.
  EXPECT_EQ(zorp_expr_has_int_atom(raw(1, {a | ZORP_NEGATED_BIT}).get()), 1);
  EXPECT_EQ(zorp_expr_has_int_atom(raw(1, {x, x ^ ZORP_NEGATED_BIT}).get()), 0);
}

// Value of an expression in which atoms stand for whole integers; written apart from the
// library so that it can judge the binarizer.
int64_t eval_with_atoms(const zorp_expr* e, const std::map<uint32_t, int64_t>& value) {
  int64_t total = zorp_expr_constant(e, nullptr);
  for (const Term& t : terms_of(e)) {
    int64_t product = t.coefficient;
    for (uint32_t literal : t.vars) {
      if (literal & ZORP_INT_ATOM_BIT) {
        product *= value.at(literal);
      } else {
        const int64_t bit = value.at(literal & ~ZORP_NEGATED_BIT);
        product *= (literal & ZORP_NEGATED_BIT) ? 1 - bit : bit;
      }
    }
    total += product;
  }
  return total;
}

TEST(BinarizeProperty, SimplifiedBinarizationAgreesAtEveryAtomValue) {
  const uint64_t shape[] = {3};
  const zorp_var a = zorp_new_int_var("prop_a", -2, 3);
  const zorp_var b = zorp_new_int_var("prop_b", 1, 2);
  const zorp_var c = zorp_new_int_var_array("prop_c", shape, 1, 0, 6) + 2;
  const zorp_var x = zorp_new_var("prop_x"), y = zorp_new_var("prop_y");
  const std::vector<zorp_var> atoms{a, b, c};
  const std::vector<uint32_t> pool{a, b, c, x, y, x ^ ZORP_NEGATED_BIT};

  std::map<zorp_var, Encoding> enc;
  std::vector<uint32_t> bits{x, y};
  for (zorp_var v : atoms) {
    enc[v] = encoding_of(v);
    for (const auto& bit : enc[v].bits) bits.push_back(bit.second);
  }
  ASSERT_EQ(bits.size(), 9u);

  std::mt19937 rng(20240611);
  for (int round = 0; round < 40; ++round) {
    Poly e(static_cast<int64_t>(rng() % 11) - 5);
    const int nterms = 1 + static_cast<int>(rng() % 5);
    for (int i = 0; i < nterms; ++i) {
      std::vector<uint32_t> vars;
      const int degree = 1 + static_cast<int>(rng() % 4);
      for (int k = 0; k < degree; ++k) vars.push_back(pool[rng() % pool.size()]);
      zorp_expr_iadd_raw_term(e.get(), static_cast<int64_t>(rng() % 13) - 6, vars.data(), vars.size());
    }
    const Poly binarized(zorp_expr_binarize(e.get()));
    const Poly simplified(zorp_expr_simplify_as_binary(binarized.get()));
    ASSERT_EQ(zorp_expr_has_int_atom(binarized.get()), 0);
    ASSERT_TRUE(zorp::test::is_canonical(simplified.get()));

    for (uint32_t pattern = 0; pattern < (1u << bits.size()); ++pattern) {
      std::map<uint32_t, int64_t> value;
      for (std::size_t i = 0; i < bits.size(); ++i) value[bits[i]] = (pattern >> i) & 1;
      for (zorp_var v : atoms) {
        int64_t n = enc[v].lo;
        for (const auto& [coefficient, bit] : enc[v].bits) n += coefficient * value[bit];
        value[v] = n;
      }
      const int64_t want = eval_with_atoms(e.get(), value);
      const auto bit_value = [&](uint32_t index) { return static_cast<int>(value.at(index)); };
      ASSERT_EQ(zorp::test::eval_binary(binarized.get(), bit_value), want) << e.str() << " pattern " << pattern;
      ASSERT_EQ(zorp::test::eval_binary(simplified.get(), bit_value), want) << e.str() << " pattern " << pattern;
    }
  }
}

TEST(BinarizeProperty, EveryAtomValueIsReachableAndNoOther) {
  for (const auto& [lo, hi] : std::vector<std::pair<int64_t, int64_t>>{{0, 1}, {-3, 4}, {5, 10}, {-9, -1}, {0, 37}}) {
    const Encoding enc = encoding_of(zorp_new_int_var("reach", lo, hi));
    std::vector<int> hits(static_cast<std::size_t>(hi - lo + 1), 0);
    for (uint32_t pattern = 0; pattern < (1u << enc.bits.size()); ++pattern) {
      int64_t n = enc.lo;
      for (std::size_t k = 0; k < enc.bits.size(); ++k) n += ((pattern >> k) & 1) * enc.bits[k].first;
      ASSERT_GE(n, lo);
      ASSERT_LE(n, hi);
      ++hits[static_cast<std::size_t>(n - lo)];
    }
    for (std::size_t i = 0; i < hits.size(); ++i) EXPECT_GT(hits[i], 0) << lo << ".." << hi << " misses " << lo + int64_t(i);
  }
}

// Threads meeting the same fresh atoms at once must agree on one encoding, made once.
TEST(BinarizeThreads, ConcurrentFirstBinarizationsShareTheBits) {
  constexpr int kThreads = 4, kAtoms = 50;
  const uint64_t shape[] = {kAtoms};
  const zorp_var first = zorp_new_int_var_array("thr", shape, 1, -3, 9);  // four bits each
  Poly e;
  for (uint32_t i = 0; i < kAtoms; ++i) e += Poly(static_cast<int64_t>(i) + 1) * atom(first + i);
  const uint32_t before = zorp_var_count();
  std::vector<std::vector<Term>> seen(kThreads);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([&, t] { seen[t] = terms_of(Poly(zorp_expr_binarize(e.get())).get()); });
  for (std::thread& th : threads) th.join();
  EXPECT_EQ(zorp_var_count(), before + 4 * kAtoms);
  for (int t = 1; t < kThreads; ++t) {
    ASSERT_EQ(seen[t].size(), seen[0].size());
    for (std::size_t i = 0; i < seen[0].size(); ++i) {
      EXPECT_EQ(seen[t][i].coefficient, seen[0][i].coefficient);
      EXPECT_EQ(seen[t][i].vars, seen[0][i].vars);
    }
  }
}

using BinarizeDeathTest = DeathTestBase;

TEST_F(BinarizeDeathTest, ConstraintTagsMustBeExpandedFirst) {
  const zorp_var a = zorp_new_int_var("dt_a", 0, 3);
  const Poly body = atom(a);
  const Poly declared(zorp_cons_between(body.get(), 0, 2));
  const char* line =
      "^zorp: binarize: constraint expressions are not supported \xE2\x80\x94 call expand_cons\\(\\) first, then "
      "binarize the plain penalty form.\n";
  EXPECT_DEATH(zorp_expr_binarize(declared.get()), line);
  const Poly classic(zorp_exprexprelem_create(body.get(), body.get()));
  EXPECT_DEATH(zorp_expr_binarize(classic.get()), line);
}

TEST_F(BinarizeDeathTest, UnknownAtomIsFatal) {
  const Poly e = raw(2, {ZORP_INT_ATOM_BIT | 0x3FFFFFFEu});
  EXPECT_DEATH(zorp_expr_binarize(e.get()), "^zorp: binarize: unknown integer variable\n");
  EXPECT_DEATH(zorp::IntVarRegistry::instance().encoding(ZORP_INT_ATOM_BIT | 0x3FFFFFFEu),
               "^zorp: binarize: not an integer variable index\n");
  const zorp_var binary = zorp_new_var("dt_binary");
  EXPECT_DEATH(zorp::IntVarRegistry::instance().encoding(binary), "^zorp: binarize: not an integer variable index\n");
}

TEST_F(BinarizeDeathTest, CoefficientPastTheCoefficientTypeIsFatal) {
  // The range whose largest power of two is the first value past coeff_t.
  const uint64_t first_bad = static_cast<uint64_t>(std::numeric_limits<zorp::coeff_t>::max()) + 1;
  const uint64_t range = 2 * first_bad - 1;
  const int64_t lo = range > static_cast<uint64_t>(std::numeric_limits<int64_t>::max())
                         ? std::numeric_limits<int64_t>::min()
                         : 0;
  const zorp_var a = zorp_new_int_var("dt_wide", lo, static_cast<int64_t>(static_cast<uint64_t>(lo) + range));
  const std::string line = "^zorp: binarize: encoding coefficient " + std::to_string(first_bad) +
                           " overflows coeff_t \xE2\x80\x94 use a wider coefficient variant.\n";
  EXPECT_DEATH(zorp_expr_binarize(atom(a).get()), line);
}

}  // namespace
