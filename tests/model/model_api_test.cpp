#include <csignal>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "support/builders.h"
#include "support/death.h"
#include "support/model_handle.h"
#include "zorp.h"

namespace {

using zorp::test::DeathTestBase;
using zorp::test::ModelHandle;
using zorp::test::eval_binary;
using zorp::test::index_of;
using zorp::test::negated;
using zorp::test::Poly;
using zorp::test::var;

Poly simplified(const Poly& p) { return Poly(zorp_expr_simplify_as_binary(p.get())); }


// Packs a registry assignment into the model's dense bit words.
std::vector<uint64_t> dense_bits(const zorp_model* m, const std::vector<int>& value_of_registry) {
  std::vector<uint64_t> bits((zorp_model_var_count(m) + 63) / 64 + 1, 0);
  for (uint32_t i = 0; i < zorp_model_var_count(m); ++i)
    if (value_of_registry[zorp_model_var(m, i)] != 0) bits[i / 64] |= uint64_t{1} << (i % 64);
  return bits;
}

TEST(ModelEval, AgreesWithTheExpressionOnRandomAssignments) {
  std::vector<Poly> x;
  for (int i = 0; i < 70; ++i) x.push_back(var(nullptr));
  std::mt19937 rng(3);
  // Negated literals everywhere: simplification expands them below degree 3 and keeps the rest.
  auto literal = [&](int i) { return rng() % 3 == 0 ? negated(x[i]) : x[i]; };
  Poly e(-11);
  for (int t = 0; t < 400; ++t) {
    Poly term(static_cast<int64_t>(rng() % 41) - 20);
    const int degree = 1 + static_cast<int>(rng() % 4);
    for (int k = 0; k < degree; ++k) term = term * literal(static_cast<int>(rng() % x.size()));
    e += term;
  }
  const ModelHandle m(simplified(e));
  ASSERT_GT(zorp_model_var_count(m.get()), 64u);
  EXPECT_EQ(zorp_model_has_negated_literals(m.get()), 1);
  std::vector<int> value(zorp_var_count(), 0);
  for (int trial = 0; trial < 200; ++trial) {
    for (const Poly& v : x) value[index_of(v)] = static_cast<int>(rng() % 2);
    const std::vector<uint64_t> bits = dense_bits(m.get(), value);
    const int64_t expected = eval_binary(e.get(), [&](uint32_t v) { return value[v]; });
    int64_t out = 0;
    ASSERT_EQ(zorp_model_eval(m.get(), bits.data(), &out), expected);
    EXPECT_EQ(out, expected);
    // The unsimplified expression read through the model gives the same value.
    EXPECT_EQ(zorp_expr_eval_with_model(e.get(), m.get(), bits.data(), nullptr), expected);
  }
}

TEST(ModelEval, ExpressionTermsOutsideTheModelDrop) {
  const Poly x = var("ex"), y = var("ey"), w = var("ew");
  const ModelHandle m(simplified(x * y));
  const Poly e = Poly(7) + x * Poly(3) + w * Poly(5) + negated(w) * x * y * Poly(100) + negated(y) * Poly(2);
  const Poly late = var("elate");
  const Poly with_late = e + late;
  const uint64_t x_only = uint64_t{1} << zorp_model_var_index(m.get(), index_of(x));
  EXPECT_EQ(zorp_expr_eval_with_model(e.get(), m.get(), &x_only, nullptr), 7 + 3 + 2);
  EXPECT_EQ(zorp_expr_eval_with_model(with_late.get(), m.get(), &x_only, nullptr), 12);
}

TEST(ModelQueries, IndexLookupsAndDegreeArrays) {
  const Poly x = var("qx"), y = var("qy"), unused = var("qu");
  const ModelHandle m(simplified(x * y * Poly(4) + y * Poly(-2) + Poly(9)));
  const Poly late = var("qlate");
  EXPECT_EQ(zorp_model_var(m.get(), 1), index_of(y));
  EXPECT_EQ(zorp_model_has(m.get(), index_of(x) | ZORP_NEGATED_BIT), 1);
  EXPECT_EQ(zorp_model_var_index(m.get(), index_of(y) | ZORP_NEGATED_BIT), 1u);
  EXPECT_EQ(zorp_model_has(m.get(), index_of(unused)), 0);
  EXPECT_EQ(zorp_model_var_index(m.get(), index_of(late)), 0xFFFFFFFFu);
  EXPECT_EQ(zorp_model_has(m.get(), index_of(x) | ZORP_INT_ATOM_BIT), 0);
  int64_t constant = 0;
  EXPECT_EQ(zorp_model_constant(m.get(), &constant), 9);
  EXPECT_EQ(constant, 9);
  EXPECT_EQ(zorp_model_term_count(m.get(), 0), 0u);
  EXPECT_EQ(zorp_model_term_vars(m.get(), 0), nullptr);
  EXPECT_EQ(zorp_model_coeff_array(m.get(), 0), nullptr);
  EXPECT_EQ(zorp_model_term_count(m.get(), 3), 0u);
  EXPECT_EQ(zorp_model_term_count(m.get(), 2), 1u);
  EXPECT_EQ(zorp_model_term_vars(m.get(), 2)[1], 1u);
  EXPECT_EQ(zorp_model_coeff_at(m.get(), 1, 0, nullptr), -2);
  EXPECT_EQ(zorp_model_has_negated_literals(m.get()), 0);

  // A clone shares the arrays, and outlives the original handle.
  zorp_model* clone = zorp_model_clone(m.get());
  EXPECT_EQ(zorp_model_term_vars(clone, 2), zorp_model_term_vars(m.get(), 2));
  zorp_model_destroy(clone);
  zorp_model_destroy(nullptr);
}

TEST(ModelQueries, IntegerAtomsAndNativeConstraints) {
  const Poly x = var("ix"), y = var("iy");
  const zorp_var atom = zorp_new_int_var("ia", -3, 8);
  const Poly a = Poly::var(atom);
  const Poly linear_body = simplified(x * Poly(2) + a * Poly(-1) + Poly(5));
  const Poly nonlinear_body = simplified(x * y + y);
  const Poly e = simplified(x * a) + Poly(zorp_cons_between(linear_body.get(), -1, 4)) +
                 Poly(zorp_cons_between(nonlinear_body.get(), 0, 0)) + Poly(zorp_relu_term(x.get(), 1));
  const ModelHandle m(e);
  ASSERT_EQ(zorp_model_int_var_count(m.get()), 1u);
  EXPECT_EQ(zorp_model_int_var_orig(m.get(), 0), atom);
  int64_t lower = 0, upper = 0;
  zorp_model_int_var_bounds(m.get(), 0, &lower, &upper);
  EXPECT_EQ(lower, -3);
  EXPECT_EQ(upper, 8);

  ASSERT_EQ(zorp_model_native_cons_count(m.get()), 3u);
  EXPECT_EQ(zorp_model_native_cons_nterms(m.get(), 0), 2u);
  EXPECT_EQ(zorp_model_native_cons_vars(m.get(), 0)[1], ZORP_INT_ATOM_BIT | 0u);
  EXPECT_EQ(zorp_model_native_cons_coeffs(m.get(), 0)[1], -1);
  int64_t constant = 0, weight = 0;
  zorp_model_native_cons_bounds(m.get(), 0, &lower, &upper, &constant, &weight);
  EXPECT_EQ(std::vector<int64_t>({lower, upper, constant, weight}), std::vector<int64_t>({-1, 4, 5, 1}));
  int k = 0, shape = 0;
  zorp_model_native_cons_shape(m.get(), 1, &k, &shape);
  EXPECT_EQ(k, 1);
  EXPECT_EQ(shape, 1);
  EXPECT_EQ(zorp_model_has_penalty_shapes(m.get()), 1);
  // The nonlinear record, last, still hands out its degree-1 part.
  EXPECT_EQ(zorp_model_native_cons_vars(m.get(), 2)[0], zorp_model_var_index(m.get(), index_of(y)));
}

class ModelQueriesDeathTest : public DeathTestBase {};

TEST_F(ModelQueriesDeathTest, RefusesWhatAnIlpConsumerOrABitVectorCannotTake) {
  const Poly x = var("dx"), y = var("dy");
  const Poly atom = Poly::var(zorp_new_int_var("da", 0, 1));
  const int64_t los[] = {1}, his[] = {1};
  const Poly nonlinear_body = simplified(x * y);
  const ModelHandle nonlinear(Poly(zorp_cons_between(nonlinear_body.get(), 0, 1)));
  const ModelHandle allowed(Poly(zorp_cons_equal(x.get(), los, his, 1)));
  const ModelHandle integer(simplified(x * atom));
  const uint64_t bits = 0;
  EXPECT_EXIT(zorp_model_native_cons_nterms(nonlinear.get(), 0), testing::KilledBySignal(SIGABRT),
              "^zorp: MIP/ILP solvers do not support nonlinear \\(degree>=2\\) constraint bodies inside cons\\(\\)\\. "
              "Call expand_cons\\(\\) on the expression to get the classic penalty form, or use a bundled heuristic "
              "solver \\(VellSolver/TallonSolver/MIRKSolver\\)\\.\n$");
  EXPECT_EXIT(zorp_model_native_cons_nterms(allowed.get(), 0), testing::KilledBySignal(SIGABRT),
              "^zorp: MIP/ILP solvers do not support allowed-value set constraints \\(equal\\{\\.\\.\\.\\}\\) inside "
              "cons\\(\\)\\. Use a bundled heuristic solver \\(VellSolver/TallonSolver/MIRKSolver\\)\\.\n$");
  EXPECT_EXIT(zorp_model_eval(integer.get(), &bits, nullptr), testing::KilledBySignal(SIGABRT),
              "^zorp: Model eval: native integer variables \\(int_var\\) are not supported yet\\.\n$");
  EXPECT_EXIT(zorp_expr_eval_with_model(atom.get(), integer.get(), &bits, nullptr), testing::KilledBySignal(SIGABRT),
              "^zorp: eval_with_model: native integer variables \\(int_var\\) are not supported yet \\(bit assignments "
              "cannot value integer atoms\\)\\.\n$");
  const Poly declared(zorp_cons_between(x.get(), 0, 1));
  EXPECT_EXIT(zorp_expr_eval_with_model(declared.get(), integer.get(), &bits, nullptr), testing::KilledBySignal(SIGABRT),
              "^zorp: zorp::cons: 'eval_with_model \\(evaluate against a Sol instead\\)' is not allowed on an "
              "expression with declared constraints\n$");
  int64_t lower = 0, upper = 0;
  EXPECT_EXIT(zorp_model_int_var_bounds(integer.get(), 1, &lower, &upper), testing::KilledBySignal(SIGABRT),
              "^zorp: zorp_model_int_var_bounds: index out of range\n$");
  EXPECT_EXIT(zorp_model_int_var_orig(integer.get(), 1), testing::KilledBySignal(SIGABRT),
              "^zorp: zorp_model_int_var_orig: index out of range\n$");
}

}  // namespace
