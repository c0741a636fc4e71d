#include <csignal>
#include <cstdlib>
#include <initializer_list>
#include <string>
#include <optional>
#include <random>
#include <sstream>
#include <vector>

#include <gtest/gtest.h>

#include "algebra/handles.h"
#include "constraint/constraint_sets.h"
#include "model/model_impl.h"
#include "support/builders.h"
#include "support/death.h"
#include "support/model_handle.h"
#include "zorp.h"

namespace {

using zorp::ConstraintListImpl;
using zorp::ModelImpl;
using zorp::test::DeathTestBase;
using zorp::test::ModelHandle;
using zorp::test::index_of;
using zorp::test::negated;
using zorp::test::Poly;
using zorp::test::var;

constexpr uint32_t kNone = 0xFFFFFFFFu;

Poly simplified(const Poly& p) { return Poly(zorp_expr_simplify_as_binary(p.get())); }

Poly raw(int64_t coeff, std::initializer_list<uint32_t> literals) {
  return Poly(zorp_expr_create_raw_term(coeff, literals.begin(), literals.size(), 0));
}

// The constraint list that zorp_model_create takes from a declared expression.
std::optional<ConstraintListImpl> declared_list(const Poly& p) {
  const zorp::ExprImpl& e = *zorp::impl(p.get());
  if (!zorp::is_declared_tag(e.ext)) return std::nullopt;
  const zorp::ConstraintSumRecord& record = zorp::constraint_sum_at(e.ext);
  ConstraintListImpl list;
  list.items = record.items;
  if (record.remainder) {
    list.remainder = *record.remainder;
    list.has_remainder = 1;
  }
  return list;
}

ModelImpl build(const Poly& p, unsigned threads) {
  const std::optional<ConstraintListImpl> list = declared_list(p);
  return ModelImpl(*zorp::impl(p.get()), 0.0, list ? &*list : nullptr, threads);
}


void expect_same_model(const ModelImpl& a, const ModelImpl& b) {
  EXPECT_EQ(a.vars, b.vars);
  EXPECT_EQ(a.index_map, b.index_map);
  EXPECT_EQ(a.constant, b.constant);
  EXPECT_EQ(a.max_degree, b.max_degree);
  EXPECT_EQ(a.term_counts, b.term_counts);
  EXPECT_TRUE(a.term_vars == b.term_vars);
  EXPECT_TRUE(a.term_coeffs == b.term_coeffs);
  ASSERT_EQ(a.native_cons.size(), b.native_cons.size());
  for (size_t i = 0; i < a.native_cons.size(); ++i) {
    const zorp::NativeConstraint &x = a.native_cons[i], &y = b.native_cons[i];
    EXPECT_EQ(x.weight, y.weight);
    EXPECT_EQ(x.lower, y.lower);
    EXPECT_EQ(x.upper, y.upper);
    EXPECT_EQ(x.body_constant, y.body_constant);
    EXPECT_EQ(x.vars, y.vars);
    EXPECT_EQ(x.coeffs, y.coeffs);
    EXPECT_EQ(x.nl_head, y.nl_head);
    EXPECT_EQ(x.nl_vars, y.nl_vars);
    EXPECT_EQ(x.nl_coeffs, y.nl_coeffs);
    EXPECT_EQ(x.allowed, y.allowed);
  }
  EXPECT_EQ(a.has_remainder, b.has_remainder);
  EXPECT_EQ(a.remainder_constant, b.remainder_constant);
  EXPECT_EQ(a.remainder_head, b.remainder_head);
  EXPECT_EQ(a.remainder_vars, b.remainder_vars);
  EXPECT_EQ(a.remainder_coeffs, b.remainder_coeffs);
  EXPECT_EQ(a.int_atoms, b.int_atoms);
  EXPECT_EQ(a.int_index_map, b.int_index_map);
  EXPECT_EQ(a.int_lower, b.int_lower);
  EXPECT_EQ(a.int_upper, b.int_upper);
}

// Maps the model's terms back to registry literals and checks them, in order within each
// degree, against the terms of `e`.
void expect_holds_terms_of(const ModelImpl& m, const Poly& e) {
  std::vector<std::vector<std::pair<int64_t, std::vector<uint32_t>>>> by_degree(m.max_degree);
  for (uint64_t i = 0; i < e.size(); ++i) {
    const zorp_term* t = zorp_expr_term_at(e.get(), i);
    std::vector<uint32_t> literals;
    for (uint32_t k = 0; k < zorp_term_degree(t); ++k) literals.push_back(zorp_term_var_at(t, k));
    ASSERT_LE(literals.size(), m.max_degree);
    if (!literals.empty()) by_degree[literals.size() - 1].emplace_back(zorp_term_coeff(t, nullptr), literals);
  }
  for (uint32_t d = 1; d <= m.max_degree; ++d) {
    const auto& expected = by_degree[d - 1];
    ASSERT_EQ(m.term_counts[d - 1], expected.size());
    for (size_t t = 0; t < expected.size(); ++t) {
      EXPECT_EQ(m.term_coeffs[d - 1][t], expected[t].first);
      for (uint32_t k = 0; k < d; ++k) {
        const uint32_t dense = m.term_vars[d - 1][t * d + k];
        const uint32_t back = (dense & ZORP_INT_ATOM_BIT)
                                  ? (m.int_atoms[dense & 0x3FFFFFFFu] | ZORP_INT_ATOM_BIT)
                                  : (m.vars[dense & ~ZORP_NEGATED_BIT] | (dense & ZORP_NEGATED_BIT));
        ASSERT_EQ(back, expected[t].second[k]) << "degree " << d << " term " << t << " slot " << k;
      }
    }
  }
}

// A large random polynomial of degrees 1 to 4 with integer powers and negated literals in
// terms of degree 3 and 4, simplified so that it survives simplification as is.
Poly large_polynomial(uint64_t terms, uint32_t nvars, uint32_t seed) {
  const uint64_t shape = nvars;
  const zorp_var base = zorp_new_var_array("big", &shape, 1);
  const zorp_var atom = zorp_new_int_var("big_int", -2, 5);
  std::mt19937 rng(seed);
  std::vector<zorp_coeff> coeffs;
  std::vector<uint32_t> degrees, literals;
  for (uint64_t i = 0; i < terms; ++i) {
    const uint32_t d = 1 + rng() % 4;
    coeffs.push_back(static_cast<zorp_coeff>(rng() % 19) - 9);
    degrees.push_back(d);
    for (uint32_t k = 0; k < d; ++k) {
      uint32_t literal = base + rng() % nvars;
      if (d >= 3 && rng() % 4 == 0) literal |= ZORP_NEGATED_BIT;
      if (rng() % 50 == 0) literal = atom;
      literals.push_back(literal);
    }
  }
  return simplified(Poly(zorp_expr_create_from_bulk(17, terms, coeffs.data(), degrees.data(), literals.data())));
}

TEST(ModelBuild, LargeExpressionGivesTheSameModelAtEveryThreadCount) {
  const Poly objective = large_polynomial(40000, 3000, 7);
  ASSERT_GT(objective.size(), 9999u);
  const Poly x = var("lx"), y = var("ly"), z = var("lz");
  const Poly penalty = large_polynomial(12000, 500, 11);
  // A free-form penalty may not hold integer atoms: keep only its binary part.
  Poly binary_penalty;
  for (uint64_t i = 0; i < penalty.size(); ++i) {
    const zorp_term* t = zorp_expr_term_at(penalty.get(), i);
    bool atom = false;
    for (uint32_t k = 0; k < zorp_term_degree(t); ++k) atom = atom || (zorp_term_var_at(t, k) & ZORP_INT_ATOM_BIT);
    if (!atom) zorp_expr_iadd_term(binary_penalty.get(), t);
  }
  const Poly linear_body = simplified(x + z * Poly(2));
  const Poly nonlinear_body = simplified(x * y + z);
  const Poly declared = objective + Poly(zorp_cons_between(linear_body.get(), 0, 2)) +
                        Poly(zorp_cons_between(nonlinear_body.get(), 1, 1)) + Poly(zorp_cons_mark(binary_penalty.get()));

  const ModelImpl serial = build(declared, 1);
  EXPECT_EQ(serial.native_cons.size(), 2u);
  EXPECT_EQ(serial.has_remainder, 1);
  EXPECT_EQ(serial.int_atoms.size(), 1u);
  expect_holds_terms_of(serial, simplified(objective + binary_penalty));
  for (unsigned threads : {2u, 3u, 8u}) {
    SCOPED_TRACE(threads);
    expect_same_model(serial, build(declared, threads));
  }
}

TEST(ModelBuild, DenseIndicesFollowRegistryOrder) {
  const Poly a = var("da"), b = var("db"), c = var("dc"), d = var("dd");
  const ModelHandle small(simplified(d * c + a));
  const ModelImpl& m = small.impl();
  EXPECT_EQ(m.vars, (std::vector<uint32_t>{index_of(a), index_of(c), index_of(d)}));
  EXPECT_EQ(m.index_map[index_of(a)], 0u);
  EXPECT_EQ(m.index_map[index_of(b)], kNone);
  EXPECT_EQ(m.index_map[index_of(d)], 2u);

  // Enough registered variables for the flag scan to run in blocks on the pool.
  const uint64_t shape = 30000;
  const zorp_var base = zorp_new_var_array("dense", &shape, 1);
  Poly sparse;
  for (uint32_t i = 0; i < shape; i += 3) zorp_expr_iadd_var(sparse.get(), base + shape - 1 - i);
  const Poly canonical = simplified(sparse);
  for (unsigned threads : {1u, 2u}) {
    const ModelImpl big = build(canonical, threads);
    ASSERT_EQ(big.vars.size(), shape / 3);
    for (uint32_t k = 0; k < big.vars.size(); ++k) {
      if (k > 0) {
        ASSERT_LT(big.vars[k - 1], big.vars[k]);
      }
      ASSERT_EQ(big.index_map[big.vars[k]], k);
    }
    EXPECT_EQ(big.index_map[base + shape - 2], kNone);
  }
}

TEST(ModelBuild, ConstantOnlyStopsAfterAllocation) {
  const ModelHandle m(Poly(42));
  EXPECT_EQ(zorp_model_max_degree(m.get()), 0u);
  EXPECT_EQ(zorp_model_var_count(m.get()), 0u);
  EXPECT_EQ(zorp_model_constant(m.get(), nullptr), 42);
  EXPECT_TRUE(m.impl().index_map.empty());
  EXPECT_TRUE(m.impl().term_counts.empty());
}

TEST(ModelBuild, FirstTermAloneMatchesTheSameTermInRest) {
  const Poly x = var("fx"), y = var("fy");
  const Poly in_slot = raw(3, {index_of(x), index_of(y)});
  ASSERT_EQ(zorp::impl(in_slot.get())->rest_size, 0u);
  Poly in_rest;
  const zorp_coeff coeff = 3;
  const uint32_t degree = 2;
  const uint32_t literals[] = {index_of(x), index_of(y)};
  zorp_expr_iadd_terms_bulk(in_rest.get(), 0, 1, &coeff, &degree, literals);
  const ModelHandle a(in_slot), b(in_rest);
  expect_same_model(a.impl(), b.impl());
  EXPECT_EQ(a.impl().term_vars[1], (zorp::FlatArray<uint32_t>{0, 1}));
}

TEST(ModelBuild, AcceptsNegatedLiteralsOfDegreeThreeAndIntegerPowers) {
  const Poly x = var("nx"), y = var("ny"), z = var("nz");
  const zorp_var atom = zorp_new_int_var("na", -1, 4);
  Poly e = raw(5, {index_of(x), index_of(y), index_of(z) | ZORP_NEGATED_BIT});
  e += raw(2, {index_of(x), atom, atom});
  const ModelHandle m(e);
  const ModelImpl& model = m.impl();
  ASSERT_EQ(model.max_degree, 3u);
  EXPECT_EQ(model.term_vars[2], (zorp::FlatArray<uint32_t>{0, 1, 2 | ZORP_NEGATED_BIT, 0, ZORP_INT_ATOM_BIT,
                                                             ZORP_INT_ATOM_BIT}));
  EXPECT_EQ(model.int_atoms, (std::vector<uint32_t>{atom & 0x3FFFFFFFu}));
  EXPECT_EQ(model.int_lower, (std::vector<int64_t>{-1}));
  EXPECT_EQ(model.int_upper, (std::vector<int64_t>{4}));
  EXPECT_EQ(zorp_model_has_negated_literals(m.get()), 1);
}

TEST(ModelBuild, ScaleArgumentIsIgnored) {
  const Poly x = var("sx");
  const ModelHandle m(zorp_model_create_scaled(x.get(), 2.5));
  EXPECT_EQ(zorp_model_scale(m.get()), 1.0);
}

TEST(ModelBuild, DeclaredConstraintsBecomeNativeLinearFirst) {
  const Poly x = var("cx"), y = var("cy"), z = var("cz"), only = var("c_only");
  const Poly nonlinear_body = simplified(x * y + z);
  const Poly linear_body = simplified(x + only * Poly(3) + Poly(4));
  const int64_t los[] = {0, 2}, his[] = {0, 2};
  const Poly e = x + Poly(zorp_cons_equal(nonlinear_body.get(), los, his, 2)) +
                 Poly(zorp_expr_clone_mul_int(Poly(zorp_cons_equal(linear_body.get(), los, his, 2)).get(), -3));
  const ModelHandle m(e);
  const ModelImpl& model = m.impl();
  // A variable of a constraint body alone still gets a dense index.
  EXPECT_EQ(model.vars, (std::vector<uint32_t>{index_of(x), index_of(y), index_of(z), index_of(only)}));
  ASSERT_EQ(model.native_cons.size(), 2u);
  const zorp::NativeConstraint& linear = model.native_cons[0];
  EXPECT_EQ(linear.weight, -3);
  EXPECT_EQ(linear.body_constant, 4);
  EXPECT_EQ(linear.vars, (std::vector<uint32_t>{0, 3}));
  EXPECT_EQ(linear.coeffs, (std::vector<zorp_coeff>{1, 3}));
  EXPECT_EQ(linear.allowed.size(), 2u);
  EXPECT_TRUE(linear.nl_head.empty());
  // The nonlinear body keeps only the hull of its allowed set.
  const zorp::NativeConstraint& nonlinear = model.native_cons[1];
  EXPECT_EQ(nonlinear.lower, 0);
  EXPECT_EQ(nonlinear.upper, 2);
  EXPECT_TRUE(nonlinear.allowed.empty());
  EXPECT_EQ(nonlinear.vars, (std::vector<uint32_t>{2}));
  EXPECT_EQ(nonlinear.nl_head, (std::vector<uint64_t>{0, 2}));
  EXPECT_EQ(nonlinear.nl_vars, (std::vector<uint32_t>{0, 1}));
  EXPECT_EQ(nonlinear.nl_coeffs, (std::vector<zorp_coeff>{1}));
}

TEST(ModelBuild, FreeFormPenaltyJoinsTheObjectiveAndStaysApart) {
  const Poly x = var("px"), y = var("py"), w = var("pw");
  const Poly objective = simplified(x * y * Poly(2) + x);
  const Poly penalty = x * y * Poly(3) + w - Poly(1);
  const ModelHandle m(objective + Poly(zorp_cons_mark(penalty.get())));
  const ModelImpl& model = m.impl();
  EXPECT_EQ(model.constant, -1);
  EXPECT_EQ(model.term_vars[0], (zorp::FlatArray<uint32_t>{0, 2}));
  EXPECT_EQ(model.term_coeffs[0], (zorp::FlatArray<zorp_coeff>{1, 1}));
  EXPECT_EQ(model.term_vars[1], (zorp::FlatArray<uint32_t>{0, 1}));
  EXPECT_EQ(model.term_coeffs[1], (zorp::FlatArray<zorp_coeff>{5}));
  ASSERT_EQ(model.has_remainder, 1);
  EXPECT_EQ(model.remainder_constant, -1);
  EXPECT_EQ(model.remainder_head, (std::vector<uint64_t>{0, 1, 3}));
  EXPECT_EQ(model.remainder_vars, (std::vector<uint32_t>{2, 0, 1}));
  EXPECT_EQ(model.remainder_coeffs, (std::vector<zorp_coeff>{1, 3}));
  int64_t constant = 0;
  uint64_t nterms = 0;
  zorp_model_remainder_info(m.get(), &constant, &nterms);
  EXPECT_EQ(nterms, 2u);
  EXPECT_EQ(zorp_model_remainder_head(m.get())[2], 3u);
}

TEST(ModelBuild, ProfileLinesNameThePhasesThatRan) {
  const Poly x = var("qx"), y = var("qy");
  const Poly atom = Poly::var(zorp_new_int_var("qa", 0, 3));
  const Poly body = x + y;
  const Poly full = simplified(x * atom) + Poly(zorp_cons_between(body.get(), 0, 1)) + Poly(zorp_cons_mark(y.get()));
  const Poly constant_only(5);
  auto labels_of = [](const Poly& e) {
    setenv("ZORP_MODEL_PROFILE", "1", 1);
    testing::internal::CaptureStderr();
    { const ModelHandle m(e); }
    const std::string text = testing::internal::GetCapturedStderr();
    unsetenv("ZORP_MODEL_PROFILE");
    // Each line: "  [Model] " label ": " seconds "s".
    std::vector<std::string> labels;
    std::istringstream lines(text);
    const std::string prefix = "  [Model] ";
    for (std::string line; std::getline(lines, line);) {
      const auto colon = line.rfind(": ");
      char* number_end = nullptr;
      if (line.rfind(prefix, 0) == 0 && colon != std::string::npos) {
        std::strtod(line.c_str() + colon + 2, &number_end);
      }
      if (number_end != nullptr && number_end != line.c_str() + colon + 2 && std::string(number_end) == "s") {
        labels.push_back(line.substr(prefix.size(), colon - prefix.size()));
      } else {
        ADD_FAILURE() << "unexpected line: " << line;
      }
    }
    return labels;
  };
  EXPECT_EQ(labels_of(full), (std::vector<std::string>{"Phase 1a (parallel count + validate + var_flags)",
                                                       "Phase 1b (merge counts + allocate flat arrays)",
                                                       "Phase 1c (parallel fill flat arrays)",
                                                       "Phase 2 (parallel prefix-sum var_flags scan + dense index_map)",
                                                       "Phase 2i (integer-atom mapping)",
                                                       "Native constraints (remap)",
                                                       "Remainder (remap)",
                                                       "Phase 3 (parallel remap)"}));
  EXPECT_EQ(labels_of(constant_only), (std::vector<std::string>{"Phase 1a (parallel count + validate + var_flags)",
                                                                "Phase 1b (merge counts + allocate flat arrays)"}));
}

class ModelBuildDeathTest : public DeathTestBase {};

void create(const Poly& p) { zorp_model_destroy(zorp_model_create(p.get())); }

#define EXPECT_MODEL_FATAL(statement, line) \
  EXPECT_EXIT(statement, testing::KilledBySignal(SIGABRT), "^zorp: " line "\n$")

#define NOT_BINARY(what) "Model: expression not simplified as binary \\(" what "\\)\\. Call simplify_as_binary\\(\\) first\\."
#define BODY_NOT_BINARY(what)                                                                           \
  "Model: constraint body not simplified as binary \\(" what "\\)\\. Call simplify_as_binary\\(\\) on " \
  "the model expression first\\."

TEST_F(ModelBuildDeathTest, RefusesExpressionsThatAreNotSimplified) {
  const Poly x = var("rx"), y = var("ry");
  const uint32_t a = index_of(x), b = index_of(y);
  EXPECT_MODEL_FATAL(create(raw(1, {b, a})), NOT_BINARY("unsorted/duplicate vars"));
  EXPECT_MODEL_FATAL(create(raw(1, {a, a})), NOT_BINARY("unsorted/duplicate vars"));
  EXPECT_MODEL_FATAL(create(raw(1, {a, b | ZORP_NEGATED_BIT})), NOT_BINARY("negated literal in degree 1-2 term"));
  // Negation is checked before order within a literal.
  EXPECT_MODEL_FATAL(create(raw(1, {b, a | ZORP_NEGATED_BIT})), NOT_BINARY("negated literal in degree 1-2 term"));
  EXPECT_MODEL_FATAL(create(raw(1, {a, ZORP_INT_ATOM_BIT | (zorp_int_var_count() + 5)})),
                     "Model: unknown integer variable index\\.");
}

TEST_F(ModelBuildDeathTest, ReportsOneFailureFromAPooledScan) {
  const uint64_t shape = 20000;
  const zorp_var base = zorp_new_var_array("bad", &shape, 1);
  Poly e;
  for (uint32_t i = 0; i + 1 < shape; ++i) zorp_expr_iadd_raw_term(e.get(), 1, std::vector<uint32_t>{base + i, base + i + 1}.data(), 2);
  const uint32_t reversed[] = {base + 9, base + 8};
  const uint32_t negated_low[] = {base + 3, (base + 15000) | ZORP_NEGATED_BIT};
  zorp::impl(e.get())->rest[5000] = zorp::make_raw_term(1, reversed, 2);
  zorp::impl(e.get())->rest[15000] = zorp::make_raw_term(1, negated_low, 2);
  EXPECT_EXIT(static_cast<void>(ModelImpl(*zorp::impl(e.get()), 0.0, nullptr, 2)), testing::KilledBySignal(SIGABRT),
              "^zorp: Model: expression not simplified as binary \\((unsorted/duplicate vars|negated literal in "
              "degree 1-2 term)\\)\\. Call simplify_as_binary\\(\\) first\\.\n$");
}

TEST_F(ModelBuildDeathTest, RefusesConstraintsItCannotFlatten) {
  const Poly x = var("kx"), y = var("ky"), z = var("kz");
  const uint32_t a = index_of(x), b = index_of(y), c = index_of(z);
  auto declared = [](const Poly& body) { return Poly(zorp_cons_between(body.get(), 0, 1)); };

  Poly unbounded(zorp_exprexprelem_create(x.get(), y.get()));
  EXPECT_MODEL_FATAL(create(Poly(zorp_cons_mark(unbounded.get()))), "Model: constraint carries no bounds");
  EXPECT_MODEL_FATAL(create(declared(raw(1, {b, a}))), BODY_NOT_BINARY("unsorted/duplicate vars"));
  EXPECT_MODEL_FATAL(create(declared(negated(x))), BODY_NOT_BINARY("negated literal in degree 1-2 term"));
  EXPECT_MODEL_FATAL(create(declared(x + y + x)), BODY_NOT_BINARY("duplicate variable across terms"));
  EXPECT_MODEL_FATAL(create(declared(raw(1, {a, b, c | ZORP_NEGATED_BIT}))),
                     "Model: unexpected negated literal in constraint body");
  EXPECT_MODEL_FATAL(create(declared(x + raw(2, {}))),
                     "Model: native constraints require a linear body \\(degree >= 2 term found\\)");
  EXPECT_MODEL_FATAL(create(Poly(zorp_abs_term(raw(1, {a, b}).get(), 1))),
                     "zorp::abs/relu: nonlinear bodies are not supported yet \\(the body must be linear\\)");
  const Poly atom = Poly::var(zorp_new_int_var("ka", 0, 2));
  EXPECT_MODEL_FATAL(create(Poly(zorp_cons_mark((atom + y).get()))),
                     "Model: native integer variables \\(int_var\\) in a free-form penalty remainder are not "
                     "supported yet\\.");

  ConstraintListImpl stale;
  stale.items.push_back({0x3FFFFFF0u, 1});
  EXPECT_MODEL_FATAL(static_cast<void>(ModelImpl(*zorp::impl(x.get()), 0.0, &stale, 1)), "ExprExprSet: get_bounds bad index");
}

}  // namespace
