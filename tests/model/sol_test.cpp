#include "model/sol.h"

#include <algorithm>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "support/builders.h"
#include "support/model_handle.h"
#include "support/death.h"
#include "zorp.h"

// Variables are process-wide and shared with other tests, so nothing here assumes absolute
// indices except inside child processes that reset the registry first.

namespace {

using zorp::test::ModelPtr;
using zorp::test::SolPtr;

using zorp::test::DeathTestBase;
using zorp::test::Poly;
using zorp::test::var;


Poly canonical(const Poly& e) { return Poly(zorp_expr_simplify_as_binary(e.get())); }

// Declared expressions are built from canonical bodies and objectives, so the build itself
// never depends on how simplification carries constraint tags.
ModelPtr build(const Poly& e) {
  if (zorp_expr_is_declared(e.get())) return ModelPtr(zorp_model_create(e.get()));
  return ModelPtr(zorp_model_create(canonical(e).get()));
}

SolPtr sol_of(const Poly& e) { return SolPtr(zorp_sol_create_from_expr(e.get())); }

int64_t energy(zorp_sol* s) { return zorp_sol_compute_energy(s, nullptr); }

Poly raw(int64_t coeff, std::vector<zorp_var> literals) {
  Poly p;
  zorp_expr_iadd_raw_term(p.get(), coeff, literals.data(), literals.size());
  return p;
}

Poly times(int64_t factor, const Poly& p) { return Poly(zorp_expr_clone_mul_int(p.get(), factor)); }

// ---- an evaluator that knows nothing of models: terms of the expression, values by identity

struct Point {
  std::map<zorp_var, int> bits;
  std::map<zorp_var, int64_t> ints;
};

int64_t value_at(const zorp_expr* e, const Point& p) {
  uint64_t total = static_cast<uint64_t>(zorp_expr_constant(e, nullptr));
  for (uint64_t i = 0; i < zorp_expr_term_count(e); ++i) {
    const zorp_term* t = zorp_expr_term_at(e, i);
    uint64_t product = static_cast<uint64_t>(zorp_term_coeff(t, nullptr));
    for (uint32_t k = 0; k < zorp_term_degree(t); ++k) {
      const zorp_var literal = zorp_term_var_at(t, k);
      if (literal & ZORP_INT_ATOM_BIT) {
        product *= static_cast<uint64_t>(p.ints.at(literal));
      } else {
        const int bit = p.bits.at(literal & ~ZORP_NEGATED_BIT);
        product *= static_cast<uint64_t>((literal & ZORP_NEGATED_BIT) ? 1 - bit : bit);
      }
    }
    total += product;
  }
  return static_cast<int64_t>(total);
}

// One declared part of a random model, described independently of the records it makes.
struct Part {
  enum Kind { kBetween, kEqual, kAbs, kRelu, kFreeForm } kind = kBetween;
  Poly body;
  int64_t lower = 0, upper = 0;
  std::vector<std::pair<int64_t, int64_t>> allowed;
  int k = 2;
  int64_t weight = 1;
};

int64_t distance(int64_t v, int64_t lo, int64_t hi) { return v < lo ? lo - v : v > hi ? v - hi : 0; }

int64_t penalty(const Part& part, const Point& p) {
  const int64_t b = value_at(part.body.get(), p);
  int64_t d = 0;
  switch (part.kind) {
    case Part::kFreeForm:
      return part.weight * b;
    case Part::kAbs:
      d = b < 0 ? -b : b;
      return part.weight * (part.k == 1 ? d : d * d);
    case Part::kRelu:
      d = std::max<int64_t>(0, b);
      return part.weight * (part.k == 1 ? d : d * d);
    case Part::kEqual:
      d = INT64_MAX;
      for (const auto& [lo, hi] : part.allowed) d = std::min(d, distance(b, lo, hi));
      return part.weight * d * d;
    case Part::kBetween:
      d = distance(b, part.lower, part.upper);
      return part.weight * d * d;
  }
  return 0;
}

// A random small problem: an objective over four binary variables and one integer, plus a few
// declared parts of every kind, with weights from scaling.
class RandomProblem {
 public:
  explicit RandomProblem(unsigned seed) : rng_(seed) {
    for (int i = 0; i < 4; ++i) x_.push_back(zorp_new_var(nullptr));
    int_lo_ = pick(-2, 0);
    int_hi_ = int_lo_ + 3;
    n_ = zorp_new_int_var(nullptr, int_lo_, int_hi_);
    objective_ = Poly(pick(-4, 4));
    for (int t = pick(2, 6); t > 0; --t) objective_ += random_term();
    expr_ = canonical(objective_);
    for (int c = pick(1, 4); c > 0; --c) add_part();
  }

  const Poly& expr() const { return expr_; }
  zorp_var bit(int i) const { return x_[i]; }
  zorp_var atom() const { return n_; }
  int64_t int_lo() const { return int_lo_; }
  int64_t int_hi() const { return int_hi_; }

  int64_t expected(const Point& p) const {
    int64_t total = value_at(objective_.get(), p);
    for (const Part& part : parts_) total += penalty(part, p);
    return total;
  }

 private:
  int pick(int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng_); }
  int nonzero(int range) {
    const int c = pick(1, range);
    return pick(0, 1) ? c : -c;
  }
  zorp_var literal() {
    const zorp_var v = x_[pick(0, 3)];
    return pick(0, 3) == 0 ? v | ZORP_NEGATED_BIT : v;
  }

  // Degrees 1 to 4, negated literals anywhere, the integer alone, squared or beside a bit.
  Poly random_term() {
    switch (pick(0, 5)) {
      case 0:
        return raw(nonzero(5), {n_});
      case 1:
        return raw(nonzero(3), {literal(), n_});
      case 2:
        return raw(nonzero(2), {n_, n_});
      default: {
        std::vector<zorp_var> literals;
        for (int d = pick(1, 4); d > 0; --d) literals.push_back(literal());
        return raw(nonzero(5), literals);
      }
    }
  }

  // Distinct variables, so that the body keeps a variable after simplification.
  Poly random_body(bool nonlinear, bool with_atom) {
    std::vector<zorp_var> order = x_;
    std::shuffle(order.begin(), order.end(), rng_);
    Poly body(pick(-2, 2));
    const int size = pick(1, 3);
    for (int i = 0; i < size; ++i) {
      const zorp_var v = pick(0, 3) == 0 ? order[i] | ZORP_NEGATED_BIT : order[i];
      body += raw(nonzero(3), {v});
    }
    if (nonlinear) body += raw(nonzero(3), {order[0], order[3]});
    if (with_atom) body += raw(nonzero(2), {n_});
    return body;
  }

  void add_part() {
    Part part;
    part.kind = static_cast<Part::Kind>(pick(0, 4));
    Poly declared;
    switch (part.kind) {
      case Part::kBetween: {
        part.body = random_body(pick(0, 2) == 0, pick(0, 1) == 1);
        part.lower = pick(-3, 3);
        part.upper = part.lower + pick(0, 3);
        declared = Poly(zorp_cons_between(canonical(part.body).get(), part.lower, part.upper));
        break;
      }
      case Part::kEqual: {
        part.body = random_body(false, pick(0, 1) == 1);
        std::vector<int64_t> los, his;
        for (int i = pick(1, 3); i > 0; --i) {
          los.push_back(pick(-4, 4));
          his.push_back(los.back() + pick(0, 1));
          part.allowed.emplace_back(los.back(), his.back());
        }
        declared = Poly(zorp_cons_equal(canonical(part.body).get(), los.data(), his.data(), los.size()));
        break;
      }
      case Part::kAbs:
      case Part::kRelu: {
        part.body = random_body(false, pick(0, 1) == 1);
        part.k = pick(1, 2);
        const Poly body = canonical(part.body);
        declared = Poly(part.kind == Part::kAbs ? zorp_abs_term(body.get(), part.k)
                                                : zorp_relu_term(body.get(), part.k));
        break;
      }
      case Part::kFreeForm: {
        part.body = Poly(pick(-2, 2)) + raw(nonzero(3), {literal()}) + raw(nonzero(3), {literal(), literal()});
        declared = Poly(zorp_cons_mark(part.body.get()));
        break;
      }
    }
    static const int64_t kWeights[] = {1, 1, 2, 3, -1, -2};
    part.weight = kWeights[pick(0, 5)];
    if (part.weight != 1) declared = times(part.weight, declared);
    expr_ += declared;
    parts_.push_back(std::move(part));
  }

  std::mt19937 rng_;
  std::vector<zorp_var> x_;
  zorp_var n_ = 0;
  int64_t int_lo_ = 0, int_hi_ = 0;
  Poly objective_;
  Poly expr_;
  std::vector<Part> parts_;
};

// ---- energy against brute force

TEST(SolEnergy, MatchesBruteForceOnRandomConstrainedModels) {
  for (unsigned seed = 1; seed <= 60; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    const RandomProblem problem(seed);
    const ModelPtr model = build(problem.expr());
    const SolPtr sol(zorp_sol_create(model.get()));
    const bool has_atom = zorp_sol_int_count(sol.get()) == 1;

    Point point;
    for (int i = 0; i < 4; ++i) point.bits[problem.bit(i)] = 0;
    point.ints[problem.atom()] = problem.int_lo();
    ASSERT_EQ(zorp_sol_energy_valid(sol.get()), 1);
    EXPECT_EQ(zorp_sol_energy(sol.get(), nullptr), problem.expected(point)) << "fresh solution";

    for (int mask = 0; mask < 16; ++mask) {
      for (int64_t n = problem.int_lo(); n <= problem.int_hi(); ++n) {
        for (int i = 0; i < 4; ++i) {
          point.bits[problem.bit(i)] = (mask >> i) & 1;
          if (zorp_sol_has(sol.get(), problem.bit(i))) zorp_sol_set(sol.get(), problem.bit(i), (mask >> i) & 1);
        }
        point.ints[problem.atom()] = n;
        if (has_atom) zorp_sol_set_int(sol.get(), problem.atom(), n);
        const int64_t want = problem.expected(point);
        ASSERT_EQ(energy(sol.get()), want) << "mask " << mask << " n " << n;
        ASSERT_EQ(zorp_sol_eval_expr(sol.get(), problem.expr().get(), nullptr), want) << "mask " << mask << " n " << n;
        if (!has_atom) break;
      }
    }
  }
}

TEST(SolEnergy, FromExprIgnoresConstraints) {
  const Poly x = var("x"), y = var("y");
  const Poly e = x + Poly(zorp_cons_between(y.get(), 1, 1));
  const SolPtr sol = sol_of(e);
  EXPECT_EQ(zorp_sol_energy(sol.get(), nullptr), 0);
  EXPECT_EQ(zorp_sol_has(sol.get(), zorp::test::index_of(y)), 0);
  // The declared expression itself still charges the unmet constraint.
  EXPECT_EQ(zorp_sol_eval_expr(sol.get(), e.get(), nullptr), 1);
}

TEST(SolEnergy, CrossedBoundsChargeBothDistances) {
  // A classic record may be given lower > upper; the energy pass adds both one-sided
  // distances, while a report measures from one side only.
  const Poly x = var("x");
  const Poly body = times(2, x);
  Poly classic(zorp_exprexprelem_create(Poly().get(), body.get()));
  zorp_exprexpr_set_bounds(classic.get(), 3, 1);
  const Poly e = Poly(zorp_cons_mark(classic.get()));
  const ModelPtr model = build(e);
  const SolPtr sol(zorp_sol_create(model.get()));
  zorp_sol_set(sol.get(), zorp::test::index_of(x), 1);
  EXPECT_EQ(energy(sol.get()), 4);
  EXPECT_EQ(zorp_sol_eval_expr(sol.get(), e.get(), nullptr), 1);
}

TEST(SolEnergy, AllowedSetChargesTheNearestInterval) {
  const Poly x = var("x");
  const int64_t los[] = {1, 5}, his[] = {2, 5};
  const Poly e = times(3, Poly(zorp_cons_equal(times(4, x).get(), los, his, 2)));
  const ModelPtr model = build(e);
  const SolPtr sol(zorp_sol_create(model.get()));
  EXPECT_EQ(energy(sol.get()), 3);  // body 0: one below [1,2]
  zorp_sol_set(sol.get(), zorp::test::index_of(x), 1);
  EXPECT_EQ(energy(sol.get()), 3);  // body 4: one from either interval
  int64_t violation = -1;
  zorp_cons_item_eval(e.get(), 0, sol.get(), nullptr, nullptr, nullptr, &violation, nullptr);
  EXPECT_EQ(violation, 1);
}

TEST(SolEnergy, NonlinearBodyKeepsOnlyItsHull) {
  // The model drops the allowed set of a nonlinear body; a report still reads it.
  const Poly x = var("x"), y = var("y");
  const int64_t los[] = {0, 2}, his[] = {0, 2};
  const Poly e = Poly(zorp_cons_equal(canonical(x * y + x).get(), los, his, 2));
  const ModelPtr model = build(e);
  const SolPtr sol(zorp_sol_create(model.get()));
  zorp_sol_set(sol.get(), zorp::test::index_of(x), 1);
  EXPECT_EQ(energy(sol.get()), 0);
  EXPECT_EQ(zorp_sol_eval_expr(sol.get(), e.get(), nullptr), 1);
}

// ---- reading and writing single variables

TEST(SolAccess, NegatedLiteralsReadAndWriteTheirVariable) {
  const Poly x = var("x"), y = var("y");
  const zorp_var vx = zorp::test::index_of(x), nx = vx | ZORP_NEGATED_BIT;
  const SolPtr sol = sol_of(x + y);
  EXPECT_EQ(zorp_sol_get(sol.get(), vx), 0);
  EXPECT_EQ(zorp_sol_get(sol.get(), nx), 1);
  zorp_sol_set(sol.get(), nx, 0);
  EXPECT_EQ(zorp_sol_get(sol.get(), vx), 1);
  zorp_sol_set(sol.get(), nx, 1);
  EXPECT_EQ(zorp_sol_get(sol.get(), vx), 0);
  // Any non-zero value sets, after the complement: 1 - 2 is -1.
  zorp_sol_set(sol.get(), nx, 2);
  EXPECT_EQ(zorp_sol_get(sol.get(), vx), 1);
  zorp_sol_set(sol.get(), vx, -7);
  EXPECT_EQ(zorp_sol_get(sol.get(), vx), 1);
  zorp_sol_flip(sol.get(), nx);
  EXPECT_EQ(zorp_sol_get(sol.get(), vx), 0);
  EXPECT_EQ(zorp_sol_get(sol.get(), zorp::test::index_of(y)), 0);
  EXPECT_EQ(zorp_sol_has(sol.get(), nx), 1);
}

TEST(SolAccess, BitsArePackedByDensePosition) {
  const uint64_t dims[] = {65};
  const zorp_var w = zorp_new_var_array("w", dims, 1);
  Poly sum;
  for (zorp_var i = 0; i < 65; ++i) sum += Poly::var(w + i);
  const SolPtr sol = sol_of(sum);
  ASSERT_EQ(zorp_sol_var_count(sol.get()), 65u);
  EXPECT_EQ(zorp_sol_model_var(sol.get(), 64), w + 64);
  zorp_sol_set(sol.get(), w + 64, 1);
  zorp_sol_set(sol.get(), w + 1, 1);
  EXPECT_EQ(energy(sol.get()), 2);

  zorp_sol_words words{nullptr, 0};
  zorp_sol_steal_bits(sol.get(), &words);
  ASSERT_EQ(words.count, 2u);
  EXPECT_EQ(words.words[0], uint64_t{2});
  EXPECT_EQ(words.words[1], uint64_t{1});
  // A second steal releases what the list held and leaves it empty.
  zorp_sol_steal_bits(sol.get(), &words);
  EXPECT_EQ(words.count, 0u);
  EXPECT_EQ(words.words, nullptr);

  Poly sixty_four;
  for (zorp_var i = 0; i < 64; ++i) sixty_four += Poly::var(w + i);
  zorp_sol_steal_bits(sol_of(sixty_four).get(), &words);
  EXPECT_EQ(words.count, 1u);
  const SolPtr empty = sol_of(Poly(7));
  EXPECT_EQ(zorp_sol_energy(empty.get(), nullptr), 7);
  zorp_sol_steal_bits(empty.get(), &words);
  EXPECT_EQ(words.count, 0u);
  zorp_sol_words_release(&words);
  zorp_sol_words_release(nullptr);
}

TEST(SolAccess, EveryChangeMakesTheEnergyStale) {
  const Poly x = var("x"), y = var("y");
  const zorp_var n = zorp_new_int_var("m", -1, 3);
  const ModelPtr model = build(times(2, x) + y + raw(1, {n}) + Poly(1));
  const SolPtr sol(zorp_sol_create(model.get()));
  const SolPtr other(zorp_sol_create(model.get()));
  const zorp_var vx = zorp::test::index_of(x);
  ASSERT_EQ(zorp_sol_int_count(sol.get()), 1u);
  EXPECT_EQ(zorp_sol_int_vals(sol.get())[0], -1);
  EXPECT_EQ(zorp_sol_energy(sol.get(), nullptr), 0);

  zorp_sol_flip(sol.get(), vx);
  EXPECT_EQ(zorp_sol_energy_valid(sol.get()), 0);
  EXPECT_EQ(energy(sol.get()), 2);
  EXPECT_EQ(zorp_sol_energy_valid(sol.get()), 1);
  EXPECT_EQ(zorp_sol_energy(sol.get(), nullptr), 2);

  zorp_sol_set(sol.get(), vx, 1);  // no change of value still invalidates
  EXPECT_EQ(zorp_sol_energy_valid(sol.get()), 0);
  zorp_sol_set_energy(sol.get(), 99);  // trusted as given
  EXPECT_EQ(zorp_sol_energy(sol.get(), nullptr), 99);
  int64_t out = 0;
  EXPECT_EQ(zorp_sol_energy_int(sol.get(), &out), 99);
  EXPECT_EQ(out, 99);
  EXPECT_EQ(zorp_sol_compute_energy(sol.get(), &out), 99);  // a valid cache is not recomputed

  zorp_sol_set_int(sol.get(), n, 3);
  EXPECT_EQ(zorp_sol_get_int(sol.get(), n, &out), 3);
  EXPECT_EQ(out, 3);
  EXPECT_EQ(zorp_sol_energy_valid(sol.get()), 0);
  EXPECT_EQ(energy(sol.get()), 6);

  zorp_sol_set_from_sol(other.get(), sol.get());
  EXPECT_EQ(zorp_sol_energy_valid(other.get()), 0);
  EXPECT_EQ(energy(other.get()), 6);
}

// ---- whole solutions

TEST(SolCopy, CloneIsDeepAndSharesTheModel) {
  const Poly x = var("x"), y = var("y");
  SolPtr sol = sol_of(x + times(3, y));
  zorp_sol_set_tts(sol.get(), 1.5);
  zorp_sol_set(sol.get(), zorp::test::index_of(y), 1);
  const SolPtr copy(zorp_sol_clone(sol.get()));
  EXPECT_EQ(zorp_sol_energy_valid(copy.get()), 0);
  EXPECT_EQ(zorp_sol_tts(copy.get()), 1.5);
  EXPECT_EQ(zorp_sol_scale(copy.get()), 1.0);
  zorp_sol_flip(copy.get(), zorp::test::index_of(x));
  EXPECT_EQ(zorp_sol_get(sol.get(), zorp::test::index_of(x)), 0);
  sol.reset();  // the copy keeps the model alive
  EXPECT_EQ(energy(copy.get()), 4);
  const zorp_model* view = zorp_sol_model(copy.get());
  EXPECT_EQ(static_cast<const void*>(view), static_cast<const void*>(copy.get()));
  EXPECT_EQ(zorp_model_var_count(view), 2u);
  EXPECT_EQ(zorp_model_var(view, 1), zorp::test::index_of(y));
}

TEST(SolCopy, SetFromSolCopiesByVariableIdentity) {
  const Poly x = var("x"), y = var("y"), z = var("z");
  const zorp_var n = zorp_new_int_var("k", 0, 4);
  const ModelPtr small = build(x + y + raw(1, {n}));
  const ModelPtr large = build(z + y + x + raw(1, {n}));
  const SolPtr src(zorp_sol_create(small.get()));
  const SolPtr dst(zorp_sol_create(large.get()));
  zorp_sol_set(src.get(), zorp::test::index_of(y), 1);
  zorp_sol_set_int(src.get(), n, 4);
  zorp_sol_set(dst.get(), zorp::test::index_of(x), 1);
  zorp_sol_set(dst.get(), zorp::test::index_of(z), 1);
  zorp_sol_set_tts(src.get(), 3.0);
  zorp_sol_set_from_sol(dst.get(), src.get());
  EXPECT_EQ(zorp_sol_get(dst.get(), zorp::test::index_of(x)), 0);
  EXPECT_EQ(zorp_sol_get(dst.get(), zorp::test::index_of(y)), 1);
  EXPECT_EQ(zorp_sol_get(dst.get(), zorp::test::index_of(z)), 1);  // not in the source: kept
  EXPECT_EQ(zorp_sol_get_int(dst.get(), n, nullptr), 4);
  EXPECT_EQ(zorp_sol_tts(dst.get()), -1.0);
}

TEST(SolCopy, AdoptedSolutionTrustsTheSearch) {
  const Poly x = var("x"), y = var("y");
  const zorp_var n = zorp_new_int_var("q", 1, 5);
  const ModelPtr model = build(x + times(2, y) + raw(1, {n}));
  const zorp::Model& shared = *reinterpret_cast<const zorp::Model*>(model.get());

  // Energy taken as given; no integer list leaves the lower bounds.
  SolPtr plain(reinterpret_cast<zorp_sol*>(zorp::adopt_sol(shared, 42, {0b10}, 0.25, {}).release()));
  EXPECT_EQ(zorp_sol_energy(plain.get(), nullptr), 42);
  EXPECT_EQ(zorp_sol_tts(plain.get()), 0.25);
  EXPECT_EQ(zorp_sol_get(plain.get(), zorp::test::index_of(y)), 1);
  EXPECT_EQ(zorp_sol_get_int(plain.get(), n, nullptr), 1);

  SolPtr with_ints(reinterpret_cast<zorp_sol*>(zorp::adopt_sol(shared, 0, {0b01}, 1.0, {4}).release()));
  EXPECT_EQ(zorp_sol_get_int(with_ints.get(), n, nullptr), 4);
  zorp_sol_flip(with_ints.get(), zorp::test::index_of(x));
  EXPECT_EQ(energy(with_ints.get()), 4);
}

// ---- text and fatal lines

class SolDeathTest : public DeathTestBase {};

TEST_F(SolDeathTest, TextListsEnergyThenNamesAndBits) {
  // The text reads bits by position as registry index, so it needs a model over the first
  // registered variables: the registry is reset in the child.
  EXPECT_EXIT(
      {
        zorp_var_reset();
        const Poly a = var("a");
        const Poly b = var("b");
        const SolPtr sol = sol_of(times(4, a) + times(3, b) + Poly(1));
        zorp_sol_set(sol.get(), zorp::test::index_of(a), 1);
        energy(sol.get());
        std::fprintf(stderr, "%s\n", zorp_sol_str(sol.get()));
        std::fprintf(stderr, "%s\n", zorp_sol_str(sol_of(Poly(7)).get()));
        std::exit(0);
      },
      testing::ExitedWithCode(0), "^5:\\{\\{a,1\\},\\{b,0\\}\\}\n7:\\{\\}\n$");
}

TEST_F(SolDeathTest, TextOfAModelOverLaterVariablesReadsThePosition) {
  zorp_new_var("first");  // keeps registry index 0 out of the model, in a child too
  const Poly a = var("a"), b = var("b");
  const SolPtr sol = sol_of(a + b);
  EXPECT_EXIT(zorp_sol_str(sol.get()), testing::KilledBySignal(SIGABRT),
              "^zorp: Sol::get: variable not in model \\(index=0\\)\n$");
}

TEST_F(SolDeathTest, StaleEnergyIsRefused) {
  const Poly x = var("x");
  const SolPtr sol = sol_of(x);
  zorp_sol_flip(sol.get(), zorp::test::index_of(x));
  EXPECT_EXIT(zorp_sol_energy(sol.get(), nullptr), testing::KilledBySignal(SIGABRT),
              "^zorp: Sol::energy\\(\\): energy is invalid \\(variable changed after last computation\\)\\. Call "
              "comp_energy\\(\\) first\\.\n$");
  EXPECT_EXIT(zorp_sol_energy_int(sol.get(), nullptr), testing::KilledBySignal(SIGABRT),
              "^zorp: Sol::energy_int\\(\\): energy is invalid\\. Call comp_energy\\(\\) first\\.\n$");
  EXPECT_EXIT(zorp_sol_str(sol.get()), testing::KilledBySignal(SIGABRT),
              "^zorp: Sol::str\\(\\): energy is invalid \\(variable changed after last computation\\)\\. Call "
              "comp_energy\\(\\) first\\.\n$");
}

TEST_F(SolDeathTest, BinaryAccessOutsideTheModel) {
  const Poly x = var("x");
  const SolPtr sol = sol_of(x);
  const zorp_var far = 1000000;
  EXPECT_EXIT(zorp_sol_get(sol.get(), far | ZORP_NEGATED_BIT), testing::KilledBySignal(SIGABRT),
              "^zorp: Sol::get: variable not in model \\(index=1000000\\)\n$");
  EXPECT_EXIT(zorp_sol_set(sol.get(), far, 1), testing::KilledBySignal(SIGABRT),
              "^zorp: Sol::set: variable not in model \\(index=1000000\\)\n$");
  EXPECT_EXIT(zorp_sol_flip(sol.get(), far), testing::KilledBySignal(SIGABRT),
              "^zorp: Sol::flip: variable not in model \\(index=1000000\\)\n$");
  // An integer literal is no binary variable: bit 30 stays in the printed index.
  EXPECT_EXIT(zorp_sol_get(sol.get(), ZORP_INT_ATOM_BIT | 5), testing::KilledBySignal(SIGABRT),
              "^zorp: Sol::get: variable not in model \\(index=1073741829\\)\n$");
}

TEST_F(SolDeathTest, IntegerAccessChecksKindMembershipAndBounds) {
  const zorp_var n = zorp_new_int_var("n", -1, 2);
  const ModelPtr model = build(raw(1, {n}));
  const SolPtr sol(zorp_sol_create(model.get()));
  zorp_sol_set_int(sol.get(), n, 2);
  zorp_sol_set_int(sol.get(), n, -1);
  EXPECT_EXIT(zorp_sol_set_int(sol.get(), n, 3), testing::KilledBySignal(SIGABRT),
              "^zorp: Sol::set: value 3 outside the integer variable's bounds \\[-1,2\\]\n$");
  EXPECT_EXIT(zorp_sol_set_int(sol.get(), n, -2), testing::KilledBySignal(SIGABRT),
              "^zorp: Sol::set: value -2 outside the integer variable's bounds \\[-1,2\\]\n$");
  EXPECT_EXIT(zorp_sol_get_int(sol.get(), 5, nullptr), testing::KilledBySignal(SIGABRT),
              "^zorp: Sol::get: not an integer variable index\n$");
  EXPECT_EXIT(zorp_sol_set_int(sol.get(), n | ZORP_NEGATED_BIT, 0), testing::KilledBySignal(SIGABRT),
              "^zorp: Sol::set: not an integer variable index\n$");
  EXPECT_EXIT(zorp_sol_get_int(sol.get(), ZORP_INT_ATOM_BIT | 1000000, nullptr), testing::KilledBySignal(SIGABRT),
              "^zorp: Sol::get: integer variable not in model\n$");
  EXPECT_EXIT(zorp_sol_set_int(sol.get(), ZORP_INT_ATOM_BIT | 1000000, 0), testing::KilledBySignal(SIGABRT),
              "^zorp: Sol::set: integer variable not in model\n$");
}

TEST_F(SolDeathTest, SetFromSolNeedsEveryVariableInTheTarget) {
  const Poly x = var("x"), y = var("y");
  const SolPtr both = sol_of(x + y);
  const SolPtr only_x = sol_of(x);
  EXPECT_EXIT(zorp_sol_set_from_sol(only_x.get(), both.get()), testing::KilledBySignal(SIGABRT),
              "^zorp: Sol::set: variable not in model \\(index=[0-9]+\\)\n$");
}

}  // namespace
