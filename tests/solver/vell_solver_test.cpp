#include "solver/vell_solver.h"

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "solver/plugin_support.h"
#include "support/builders.h"
#include "support/model_handle.h"
#include "support/death.h"
#include "zorp.h"

namespace {

using zorp::test::Params;

using zorp::test::ModelPtr;
using zorp::test::SolPtr;

using zorp::test::DeathTestBase;
using zorp::test::differs;
using zorp::test::escaped_regex;
using zorp::test::Poly;
using zorp::test::test_plugin_dir;
using zorp::test::var;

struct SolverDeleter {
  void operator()(zorp_vell_solver* s) const { zorp_vell_solver_wrapper_destroy(s); }
};
struct ResultDeleter {
  void operator()(zorp_search_result* r) const { zorp_vell_solver_result_destroy(r); }
};
using SolverPtr = std::unique_ptr<zorp_vell_solver, SolverDeleter>;
using ResultPtr = std::unique_ptr<zorp_search_result, ResultDeleter>;

Poly canonical(const Poly& e) { return Poly(zorp_expr_simplify_as_binary(e.get())); }
Poly times(int64_t factor, const Poly& p) { return Poly(zorp_expr_clone_mul_int(p.get(), factor)); }

ModelPtr model_of(const Poly& e) {
  return ModelPtr(zorp_model_create(zorp_expr_is_declared(e.get()) ? e.get() : canonical(e).get()));
}

std::vector<std::string> info_keys(const zorp_search_result* r) {
  std::vector<std::string> keys;
  for (uint64_t i = 0; i < zorp_vell_solver_result_info_count(r); ++i)
    keys.emplace_back(zorp_vell_solver_result_info_key(r, i));
  return keys;
}

std::string info_value(const zorp_search_result* r, const std::string& key) {
  for (uint64_t i = 0; i < zorp_vell_solver_result_info_count(r); ++i)
    if (key == zorp_vell_solver_result_info_key(r, i)) return zorp_vell_solver_result_info_value(r, i);
  return "(absent)";
}

// ---- the hand-over, observed through the recording plug-in (each in a child
// process)

std::string fake_log() {
  void* self = dlopen((test_plugin_dir("recording") + "vellsolver_c32e64.so").c_str(), RTLD_NOW | RTLD_NOLOAD);
  if (self == nullptr) return "(plug-in not loaded)";
  auto text = reinterpret_cast<const char* (*)()>(dlsym(self, "fake_log_text"));
  return text();
}

class VellSolverHandOverDeathTest : public DeathTestBase {};

TEST_F(VellSolverHandOverDeathTest, ModelArraysAndEveryConstraintFormReachThePlugin) {
  EXPECT_WITH_PLUGINS(test_plugin_dir("recording"), [] {
    const Poly x = var("x"), y = var("y"), z = var("z");
    const int64_t allowed_lo[] = {0, 3}, allowed_hi[] = {1, 3};
    const Poly e = canonical(Poly(3) * x + Poly(-2) * x * y + Poly(-4) + x * y * z) +
                   Poly(zorp_cons_between(canonical(y + Poly(2) * z).get(), 1, 2)) +
                   times(-3, Poly(zorp_abs_term(canonical(x - z).get(), 1))) +
                   Poly(zorp_cons_equal(canonical(x + z).get(), allowed_lo, allowed_hi, 2)) +
                   Poly(zorp_cons_between(canonical(x * y + z).get(), 0, 1)) +
                   Poly(zorp_relu_term(canonical(y - Poly(1)).get(), 2)) +
                   Poly(zorp_cons_mark(canonical(Poly(5) * y * z).get()));
    const ModelPtr model = model_of(e);
    const SolverPtr solver(zorp_vell_solver_wrapper_create(model.get()));
    const SolverPtr second(zorp_vell_solver_wrapper_create(model.get()));
    // Dense indices: x 0, y 1, z 2. The free-form penalty joins the objective terms and is
    // also handed over alone; linear bodies precede the nonlinear one; shapes follow their
    // constraint. The callback is registered once for the tag, not once per solver.
    const std::string one_solver =
        "create context=null vars=3 degree=3 constant=-4 d1=[3:0] d2=[-2:0:1 5:1:2] d3=[1:0:1:2]\n"
        "constraint w=1 [1,2] c=0 body=1:1 2:2\n"
        "constraint w=-3 [0,0] c=0 body=1:0 -1:2\n"
        "shape exponent=1 shape=1\n"
        "constraint_set w=1 [0,3] c=0 body=1:0 1:2 allowed=[0,1][3,3]\n"
        "constraint w=1 [-1,0] c=-1 body=1:1\n"
        "shape exponent=2 shape=1\n"
        "constraint_nl w=1 [0,1] c=0 body=1:2 nl=1:0:1\n"
        "remainder c=0 terms=5:1:2\n";
    return differs("log", "register_callback returns=-1\n" + one_solver + one_solver,
                   fake_log());
  });
}

TEST_F(VellSolverHandOverDeathTest, SearchPassesParametersAndCollectsEverything) {
  EXPECT_WITH_PLUGINS(test_plugin_dir("recording"), [] {
    std::vector<Poly> v;
    for (int i = 0; i < 70; ++i) v.push_back(var(nullptr));
    Poly objective(11);
    for (const Poly& x : v) objective += x;
    const ModelPtr model = model_of(objective);
    const SolverPtr solver(zorp_vell_solver_wrapper_create(model.get()));
    reinterpret_cast<void (*)()>(
        dlsym(dlopen((test_plugin_dir("recording") + "vellsolver_c32e64.so").c_str(), RTLD_NOW | RTLD_NOLOAD),
              "fake_log_clear"))();

    const ResultPtr plain(zorp_vell_solver_wrapper_search(solver.get(), Params{{"seed", "5"}}.get(), nullptr));
    const uint64_t hint[2] = {0x5, 0x1};
    const ResultPtr pooled(
        zorp_vell_solver_wrapper_search(solver.get(), Params{{"time_limit", "0.5"}, {"topk_sols", "2"}}.get(), hint));
    std::string complaint = differs("log",
                                    "search seed=5 time_limit=10.0 hint=null words=2\n"
                                    "free_info\n"
                                    "search time_limit=0.5 topk_sols=2 hint=set words=2\n"
                                    "list_destroy\n"
                                    "free_info\n",
                                    fake_log());

    int64_t energy = 0;
    zorp_vell_solver_result_energy(plain.get(), &energy);
    if (energy != 18) complaint += "\nenergy " + std::to_string(energy);
    if (zorp_vell_solver_result_tts(plain.get()) != 0.25) complaint += "\ntts";
    const uint64_t* bits = zorp_vell_solver_result_bits(plain.get());
    if (bits[0] != ~uint64_t{0} || bits[1] != 0x3F) complaint += "\nbits of the best";
    if (zorp_vell_solver_result_topk_count(plain.get()) != 0) complaint += "\nunasked pool";
    if (zorp_vell_solver_result_bits(pooled.get())[0] != 0x5) complaint += "\nhint not passed";

    if (zorp_vell_solver_result_topk_count(pooled.get()) != 2) return complaint + "\npool size";
    zorp_vell_solver_result_topk_energy(pooled.get(), 1, &energy);
    if (energy != 101 || zorp_vell_solver_result_topk_tts(pooled.get(), 1) != 0.5 ||
        zorp_vell_solver_result_topk_bits(pooled.get(), 1)[1] != 2)
      complaint += "\npool entry 1";
    const std::vector<std::string> expected_keys = {"run_time", "algorithm", "threads", "os", "cpu", "gpu", "ram"};
    if (info_keys(plain.get()) != expected_keys) complaint += "\ninfo keys";
    if (info_value(plain.get(), "algorithm") != "recording") complaint += "\nplug-in info value";
    return complaint;
  });
}

TEST_F(VellSolverHandOverDeathTest, IntegerModelOpensNoPluginUntilTheUnifiedPathIsAsked) {
  EXPECT_WITH_PLUGINS("/nonexistent/folder", [] {
    const Poly x = var("x");
    const Poly n = Poly::var(zorp_new_int_var("n", -2, 5));
    const ModelPtr model = model_of(x + Poly(3) * n);
    const SolverPtr solver(zorp_vell_solver_wrapper_create(model.get()));
    return std::string();
  });
  EXPECT_WITH_PLUGINS(test_plugin_dir("recording"), [] {
    setenv("ZORP_INT_UNIFIED", "1", 1);
    const Poly x = var("x");
    const zorp_var atom = zorp_new_int_var("n", -2, 5);
    const Poly objective = canonical(x + Poly(3) * Poly::var(atom));
    const Poly e = objective + Poly(zorp_cons_between(objective.get(), 0, 4));
    const ModelPtr model = model_of(e);
    const SolverPtr solver(zorp_vell_solver_wrapper_create(model.get()));
    const ResultPtr r(zorp_vell_solver_wrapper_search(solver.get(), Params{{"threads", "2"}}.get(), nullptr));
    // The integer is numbered after the single binary variable.
    std::string complaint = differs("log",
                                    "register_callback returns=-1\n"
                                    "create_int context=null vars=1 ints=1 degree=1 bounds=[-2,5]\n"
                                    "constraint w=1 [0,4] c=0 body=1:0 3:1\n"
                                    "search_int thread_count=2 time_limit=10.0\n"
                                    "free_info\n"
                                    "destroy\n",
                                    fake_log());
    SolPtr sol(zorp_vell_solver_result_to_sol(r.get(), model.get()));
    if (zorp_sol_int_count(sol.get()) != 1 || zorp_sol_int_vals(sol.get())[0] != 42) complaint += "\ninteger values";
    if (info_value(r.get(), "engine") != "integer-unified") complaint += "\nengine";
    return complaint;
  });
}

TEST_F(VellSolverHandOverDeathTest, PluginsThatCannotTakeTheModelAreRefused) {
  const auto create_with = [](const Poly& e) {
    const ModelPtr model = model_of(e);
    zorp_vell_solver_wrapper_create(model.get());
  };
  const auto in = [](const char* variant) { setenv("ZORP_LIB_DIR", test_plugin_dir(variant).c_str(), 1); };
  const auto no_native = [&] {
    in("required_only");
    const Poly x = var("x");
    create_with(Poly(zorp_cons_between(x.get(), 0, 0)));
  };
  EXPECT_DEATH(no_native(),
               "^zorp: VellSolver: vellsolver_c32e64\\.so does not support "
               "native constraints \\(rebuild it\\)\n");
  const auto no_shape = [&] {
    in("no_shape");
    const Poly x = var("x");
    create_with(Poly(zorp_abs_term(x.get(), 1)));
  };
  EXPECT_DEATH(no_shape(), "^" +
                               escaped_regex("zorp: VellSolver: this solver .so predates zorp::abs/relu "
                                             "(missing "
                                             "zorp_vell_solver_set_cons_shape) — update the solver .so.") +
                               "\n");
  const auto no_nonlinear = [&] {
    in("linear_only");
    const Poly x = var("x"), y = var("y");
    create_with(Poly(zorp_cons_between(canonical(x * y + y).get(), 0, 1)));
  };
  EXPECT_DEATH(no_nonlinear(), "^" +
                                   escaped_regex("zorp: VellSolver: this solver .so does not support "
                                                 "nonlinear native constraint "
                                                 "bodies (rebuild it, or use a linear constraint body)") +
                                   "\n");
  const auto no_allowed_set = [&] {
    in("linear_only");
    const Poly x = var("x");
    const int64_t lo[] = {0}, hi[] = {0};
    create_with(Poly(zorp_cons_equal(x.get(), lo, hi, 1)));
  };
  EXPECT_DEATH(no_allowed_set(), "^" +
                                     escaped_regex("zorp: VellSolver: this solver .so does not "
                                                   "support allowed-value set constraints "
                                                   "(equal{...}); rebuild it") +
                                     "\n");
  const auto no_remainder = [&] {
    in("linear_only");
    const Poly x = var("x"), y = var("y");
    create_with(Poly(zorp_cons_mark(canonical(x * y).get())));
  };
  EXPECT_DEATH(no_remainder(), "^" +
                                   escaped_regex("zorp: VellSolver: this solver .so does not "
                                                 "support free-form penalty constraints "
                                                 "(rebuild it)") +
                                   "\n");
  const auto no_unified = [&] {
    in("required_only");
    setenv("ZORP_INT_UNIFIED", "1", 1);
    const ModelPtr model = model_of(Poly::var(zorp_new_int_var("n", 0, 3)));
    const SolverPtr solver(zorp_vell_solver_wrapper_create(model.get()));
    zorp_vell_solver_wrapper_search(solver.get(), nullptr, nullptr);
  };
  EXPECT_DEATH(no_unified(), "^" +
                                 escaped_regex("zorp: VellSolver: ZORP_INT_UNIFIED=1 but "
                                               "vellsolver_.so lacks the unified integer "
                                               "engine (rebuild the solver .so)") +
                                 "\n");
}

TEST_F(VellSolverHandOverDeathTest, SearchesOnTheWrongKindOfModel) {
  const auto search_int_on_binary = [&] {
    setenv("ZORP_LIB_DIR", test_plugin_dir("recording").c_str(), 1);
    const ModelPtr model = model_of(var("x"));
    const SolverPtr solver(zorp_vell_solver_wrapper_create(model.get()));
    zorp_vell_solver_wrapper_search_int(solver.get(), nullptr, nullptr, nullptr, 0);
  };
  EXPECT_DEATH(search_int_on_binary(), "^zorp: VellSolver: search_int called on a binary model\\.\n");
  const auto integer_solver = [] {
    const ModelPtr model = model_of(Poly::var(zorp_new_int_var("n", 0, 3)));
    return SolverPtr(zorp_vell_solver_wrapper_create(model.get()));
  };
  const auto hint_on_integer = [&] {
    const uint64_t hint = 0;
    zorp_vell_solver_wrapper_search(integer_solver().get(), nullptr, &hint);
  };
  EXPECT_DEATH(hint_on_integer(), "^" +
                                      escaped_regex("zorp: VellSolver: hint on a native integer "
                                                    "model requires the int-aware search path "
                                                    "(update the zorp header).") +
                                      "\n");
  const auto count_mismatch = [&] {
    const int64_t ints[] = {1, 2};
    zorp_vell_solver_wrapper_search_int(integer_solver().get(), nullptr, nullptr, ints, 2);
  };
  EXPECT_DEATH(count_mismatch(), "^zorp: VellSolver: hint integer-variable count mismatch\\.\n");
  const auto outside_bounds = [&] {
    const int64_t ints[] = {4};
    zorp_vell_solver_wrapper_search_int(integer_solver().get(), nullptr, nullptr, ints, 1);
  };
  EXPECT_DEATH(outside_bounds(),
               "^zorp: VellSolver: hint value outside the "
               "integer variable's bounds\\.\n");
}

TEST_F(VellSolverHandOverDeathTest, UnifiedPathOnlyWhenAskedAndEligible) {
  // Every case below must reach the in-library engine, not the recording plug-in's unified
  // entry points, which would return normally.
  const std::string engine_line = escaped_regex(
      "zorp: VellSolver: native integer search is not available in this build; set ZORP_INT_UNIFIED=1 to use the "
      "solver .so's unified integer engine.");
  const auto search = [](const char* flag, const zorp_solver_pair* params, bool with_hint) {
    setenv("ZORP_LIB_DIR", test_plugin_dir("recording").c_str(), 1);
    setenv("ZORP_INT_UNIFIED", flag, 1);
    const ModelPtr model = model_of(Poly::var(zorp_new_int_var("n", 0, 3)));
    const SolverPtr solver(zorp_vell_solver_wrapper_create(model.get()));
    const int64_t ints[] = {1};
    zorp_vell_solver_wrapper_search_int(solver.get(), params, nullptr, with_hint ? ints : nullptr, with_hint ? 1 : 0);
  };
  EXPECT_DEATH(search("0", nullptr, false), "^" + engine_line);
  EXPECT_DEATH(search("1", Params{{"topk_sols", "2"}}.get(), false), "^" + engine_line);
  EXPECT_DEATH(search("1", Params{{"best_energy_sols", "x"}}.get(), false), "^" + engine_line);
  EXPECT_DEATH(search("1", nullptr, true), "^" + engine_line);
}

// ---- results

TEST(SearchResult, StealingExchangesAndTwiceGivesTheFirstListBack) {
  auto result = std::make_unique<zorp::SearchResult>();
  result->bits = zorp::WordBlock(3);
  result->bits.data()[2] = 9;
  auto* handle = reinterpret_cast<zorp_search_result*>(result.release());
  zorp_sol_words mine{static_cast<uint64_t*>(std::malloc(sizeof(uint64_t))), 1};
  uint64_t* my_words = mine.words;
  zorp_vell_solver_result_steal_bits(handle, &mine);
  EXPECT_EQ(mine.count, 3u);
  EXPECT_EQ(mine.words[2], 9u);
  EXPECT_EQ(zorp_vell_solver_result_bits(handle), my_words) << "an exchange, not a copy";
  zorp_vell_solver_result_steal_bits(handle, &mine);
  EXPECT_EQ(mine.words, my_words);
  EXPECT_EQ(mine.count, 1u);
  zorp_sol_words_release(&mine);
  zorp_vell_solver_result_destroy(handle);
  zorp_vell_solver_result_destroy(nullptr);
}

TEST(SearchResult, ToSolCopiesTheBestAndStartsIntegersAtTheirLowerBounds) {
  const Poly x = var("x"), y = var("y");
  const Poly n = Poly::var(zorp_new_int_var("n", 2, 6));
  const ModelPtr model = model_of(x + y + n);
  zorp::SearchResult result;
  result.energy = -17;  // taken as it stands, not recomputed
  result.tts = 1.5;
  result.bits = zorp::WordBlock(1);
  result.bits.data()[0] = 0b10;
  auto& entry = result.topk.emplace_back();
  entry.bits = zorp::WordBlock(1);
  entry.bits.data()[0] = 0b01;
  entry.int_vals = {5};
  const auto* handle = reinterpret_cast<const zorp_search_result*>(&result);

  const SolPtr best(zorp_vell_solver_result_to_sol(handle, model.get()));
  EXPECT_EQ(zorp_sol_energy(best.get(), nullptr), -17);
  EXPECT_EQ(zorp_sol_get(best.get(), zorp::test::index_of(y)), 1);
  EXPECT_EQ(zorp_sol_get(best.get(), zorp::test::index_of(x)), 0);
  EXPECT_EQ(zorp_sol_int_vals(best.get())[0], 2);
  const SolPtr pooled(zorp_vell_solver_result_topk_to_sol(handle, 0, model.get()));
  EXPECT_EQ(zorp_sol_get(pooled.get(), zorp::test::index_of(x)), 1);
  EXPECT_EQ(zorp_sol_int_vals(pooled.get())[0], 5);
}

TEST(SearchResult, ValuesToWidthSignExtendsOrTruncates) {
  const int32_t values[] = {-2, 300};
  const std::vector<unsigned char> wide = zorp::values_to_width(values, 2, 8);
  int64_t read[2];
  std::memcpy(read, wide.data(), sizeof(read));
  EXPECT_EQ(read[0], -2);
  EXPECT_EQ(read[1], 300);
  const std::vector<unsigned char> narrow = zorp::values_to_width(values, 2, 2);
  int16_t small[2];
  std::memcpy(small, narrow.data(), sizeof(small));
  EXPECT_EQ(small[0], -2);
  EXPECT_EQ(small[1], 300);
}

// ---- end to end with the real plug-in

class VellSolverSearch : public ::testing::Test {
 protected:
  void SetUp() override { setenv("ZORP_LIB_DIR", ZORP_PLUGIN_DIR, 1); }
};

// A random problem over a few binary variables: an objective of degree up to 4 with negated
// literals, and declared parts of every form with positive and negative weights.
Poly random_problem(std::mt19937& rng, std::vector<zorp_var>& vars) {
  const auto pick = [&rng](int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng); };
  const auto nonzero = [&](int range) { return pick(0, 1) ? pick(1, range) : -pick(1, range); };
  vars.clear();
  for (int i = 0; i < 7; ++i) vars.push_back(zorp_new_var(nullptr));
  const auto literal = [&] { return vars[pick(0, 6)] | (pick(0, 3) == 0 ? ZORP_NEGATED_BIT : 0); };
  Poly objective(pick(-5, 5));
  for (int t = pick(4, 12); t > 0; --t) {
    std::vector<zorp_var> literals;
    for (int d = pick(1, 4); d > 0; --d) literals.push_back(literal());
    Poly term;
    zorp_expr_iadd_raw_term(term.get(), nonzero(6), literals.data(), literals.size());
    objective += term;
  }
  Poly e = canonical(objective);
  for (int c = pick(0, 3); c > 0; --c) {
    std::vector<zorp_var> order = vars;
    std::shuffle(order.begin(), order.end(), rng);
    Poly body(pick(-2, 2));
    for (int i = pick(1, 4); i > 0; --i) body += Poly(nonzero(3)) * Poly::var(order[i]);
    const Poly linear = canonical(body);
    Poly declared;
    switch (pick(0, 4)) {
      case 0: {
        const int lo = pick(-3, 3);
        declared = Poly(zorp_cons_between(linear.get(), lo, lo + pick(0, 2)));
        break;
      }
      case 1: {
        const int64_t los[] = {pick(-4, 0), pick(1, 4)};
        const int64_t his[] = {los[0], los[1] + pick(0, 1)};
        declared = Poly(zorp_cons_equal(linear.get(), los, his, 2));
        break;
      }
      case 2:
        declared = Poly(zorp_abs_term(linear.get(), pick(1, 2)));
        break;
      case 3:
        declared = Poly(zorp_cons_between(canonical(body + Poly::var(order[0]) * Poly::var(order[5])).get(), 0, 1));
        break;
      default:
        declared = Poly(zorp_cons_mark(canonical(Poly::var(order[0]) * Poly::var(order[6])).get()));
        break;
    }
    const int weight = pick(0, 4) == 0 ? -1 : pick(1, 3);
    e += weight == 1 ? declared : times(weight, declared);
  }
  return e;
}

// Energies of every assignment of the model's variables, by bit pattern.
std::vector<int64_t> all_energies(const zorp_model* model) {
  const uint32_t n = zorp_model_var_count(model);
  std::vector<int64_t> energies;
  const SolPtr sol(zorp_sol_create(model));
  for (uint64_t pattern = 0; pattern < (uint64_t{1} << n); ++pattern) {
    for (uint32_t i = 0; i < n; ++i) zorp_sol_set(sol.get(), zorp_model_var(model, i), (pattern >> i) & 1);
    energies.push_back(zorp_sol_compute_energy(sol.get(), nullptr));
  }
  return energies;
}

int64_t energy_of_bits(const zorp_model* model, const uint64_t* words) {
  const SolPtr sol(zorp_sol_create(model));
  for (uint32_t i = 0; i < zorp_model_var_count(model); ++i)
    zorp_sol_set(sol.get(), zorp_model_var(model, i), (words[i / 64] >> (i % 64)) & 1);
  return zorp_sol_compute_energy(sol.get(), nullptr);
}

TEST_F(VellSolverSearch, FindsTheBruteForceOptimumWithExactEnergies) {
  std::mt19937 rng(2026);
  std::vector<zorp_var> vars;
  for (int round = 0; round < 25; ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    const Poly e = random_problem(rng, vars);
    const ModelPtr model = model_of(e);
    const std::vector<int64_t> energies = all_energies(model.get());
    const int64_t optimum = *std::min_element(energies.begin(), energies.end());
    const SolverPtr solver(zorp_vell_solver_wrapper_create(model.get()));
    const ResultPtr r(zorp_vell_solver_wrapper_search(
        solver.get(), Params{{"time_limit", "0.1"}, {"threads", "2"}, {"topk_sols", "3"}}.get(), nullptr));
    int64_t best = 0;
    zorp_vell_solver_result_energy(r.get(), &best);
    EXPECT_EQ(best, optimum);
    EXPECT_EQ(best, energy_of_bits(model.get(), zorp_vell_solver_result_bits(r.get())));
    ASSERT_GE(zorp_vell_solver_result_topk_count(r.get()), 1u);
    for (uint64_t i = 0; i < zorp_vell_solver_result_topk_count(r.get()); ++i) {
      int64_t pooled = 0;
      zorp_vell_solver_result_topk_energy(r.get(), i, &pooled);
      EXPECT_EQ(pooled, energy_of_bits(model.get(), zorp_vell_solver_result_topk_bits(r.get(), i)));
    }
    const SolPtr sol(zorp_vell_solver_result_to_sol(r.get(), model.get()));
    EXPECT_EQ(zorp_sol_energy(sol.get(), nullptr), zorp_sol_compute_energy(sol.get(), nullptr));
  }
}

TEST_F(VellSolverSearch, TopListHoldsTheBestDistinctStatesInOrder) {
  std::mt19937 rng(7);
  std::vector<zorp_var> vars;
  const Poly e = random_problem(rng, vars);
  const ModelPtr model = model_of(e);
  std::vector<int64_t> energies = all_energies(model.get());
  std::sort(energies.begin(), energies.end());
  const SolverPtr solver(zorp_vell_solver_wrapper_create(model.get()));
  const ResultPtr r(zorp_vell_solver_wrapper_search(
      solver.get(), Params{{"time_limit", "0.2"}, {"threads", "1"}, {"topk_sols", "6"}}.get(), nullptr));
  ASSERT_EQ(zorp_vell_solver_result_topk_count(r.get()), 6u);
  std::set<uint64_t> states;
  for (uint64_t i = 0; i < 6; ++i) {
    int64_t pooled = 0;
    zorp_vell_solver_result_topk_energy(r.get(), i, &pooled);
    EXPECT_EQ(pooled, energies[i]) << "entry " << i;
    states.insert(zorp_vell_solver_result_topk_bits(r.get(), i)[0]);
  }
  EXPECT_EQ(states.size(), 6u) << "pooled states are distinct";
}

TEST_F(VellSolverSearch, ReportsTheRunAndStopsAtATarget) {
  std::vector<Poly> x;
  for (int i = 0; i < 40; ++i) x.push_back(var(nullptr));
  // A ring of anti-ferromagnetic couplings: the best cut takes every edge, energy -40.
  Poly e;
  for (int i = 0; i < 40; ++i) {
    const Poly& a = x[i];
    const Poly& b = x[(i + 1) % 40];
    e += Poly(2) * a * b - a - b;
  }
  const ModelPtr model = model_of(e);
  const SolverPtr solver(zorp_vell_solver_wrapper_create(model.get()));
  const ResultPtr r(zorp_vell_solver_wrapper_search(
      solver.get(), Params{{"time_limit", "5"}, {"target_energy", "-40"}, {"seed", "3"}}.get(), nullptr));
  int64_t best = 0;
  zorp_vell_solver_result_energy(r.get(), &best);
  EXPECT_EQ(best, -40);
  EXPECT_LT(std::stod(info_value(r.get(), "run_time")), 4.0) << "the target ends the search";
  const std::vector<std::string> keys = info_keys(r.get());
  ASSERT_GE(keys.size(), 5u);
  EXPECT_EQ(keys.front(), "run_time");
  EXPECT_EQ(std::vector<std::string>(keys.end() - 4, keys.end()),
            (std::vector<std::string>{"os", "cpu", "gpu", "ram"}));
  for (const char* key : {"algorithm", "threads", "flips", "restarts"})
    EXPECT_NE(info_value(r.get(), key), "(absent)") << key;
}

}  // namespace
