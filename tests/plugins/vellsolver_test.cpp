// The VellSolver plug-in, opened by the library's loader and driven through its C entry points only.
// Every returned energy is checked against the evaluator below, which is written apart from
// the plug-in's own; small models are also solved by enumeration.

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <limits>
#include <map>
#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "support/death.h"
#include "solver/plugin_loader.h"
#include "zorp/solver_plugin.h"

namespace {

constexpr std::uint32_t kNeg = 0x80000000u;

// The plug-in's entry points, read by the library's own loader from the build's plug-in
// folder.
const zorp::VellSolverTable& api() {
  setenv("ZORP_LIB_DIR", ZORP_PLUGIN_DIR, 1);
  return zorp::load_vell_solver(nullptr);
}

// ---- models and the reference evaluator ----

struct Cons {
  enum Kind { kLinear, kNonlinear, kSet } kind = kLinear;
  std::int64_t weight = 1, lower = 0, upper = 0, constant = 0;
  std::vector<std::uint32_t> vars;
  std::vector<std::int32_t> coeffs;
  std::vector<std::uint64_t> nl_head{0};
  std::vector<std::uint32_t> nl_vars;
  std::vector<std::int32_t> nl_coeffs;
  std::vector<std::int64_t> lowers, uppers;
  std::uint32_t exponent = 2, shape = 0;
  bool set_shape = false;
};

struct Poly {
  std::int64_t constant = 0;
  std::vector<std::uint64_t> head{0};
  std::vector<std::uint32_t> lits;
  std::vector<std::int32_t> coeffs;
  void add(std::vector<std::uint32_t> term, std::int32_t c) {
    lits.insert(lits.end(), term.begin(), term.end());
    head.push_back(lits.size());
    coeffs.push_back(c);
  }
};

struct Model {
  std::uint32_t n = 0;
  std::uint32_t max_degree = 0;
  std::int64_t constant = 0;
  std::vector<std::uint64_t> counts;
  std::vector<std::vector<std::uint32_t>> vars;  // per degree
  std::vector<std::vector<std::int32_t>> coeffs;
  std::vector<Cons> cons;
  bool has_remainder = false;
  Poly remainder;

  void add_term(std::vector<std::uint32_t> lits, std::int32_t c) {
    std::sort(lits.begin(), lits.end(), [](std::uint32_t a, std::uint32_t b) { return (a & ~kNeg) < (b & ~kNeg); });
    const std::size_t d = lits.size();
    if (d > max_degree) {
      max_degree = static_cast<std::uint32_t>(d);
      counts.resize(d, 0);
      vars.resize(d);
      coeffs.resize(d);
    }
    vars[d - 1].insert(vars[d - 1].end(), lits.begin(), lits.end());
    coeffs[d - 1].push_back(c);
    ++counts[d - 1];
  }
};

using Bits = std::vector<std::uint8_t>;

std::uint64_t u(std::int64_t v) { return static_cast<std::uint64_t>(v); }
std::int64_t s(std::uint64_t v) { return static_cast<std::int64_t>(v); }

bool lit_value(const Bits& x, std::uint32_t lit) {
  const bool v = x[lit & 0x3FFFFFFFu] != 0;
  return (lit & kNeg) ? !v : v;
}

bool product(const Bits& x, const std::uint32_t* lits, std::size_t count) {
  for (std::size_t k = 0; k < count; ++k)
    if (!lit_value(x, lits[k])) return false;
  return true;
}

std::uint64_t poly_value(const Poly& p, const Bits& x) {
  std::uint64_t total = u(p.constant);
  for (std::size_t t = 0; t < p.coeffs.size(); ++t)
    if (product(x, p.lits.data() + p.head[t], p.head[t + 1] - p.head[t])) total += u(p.coeffs[t]);
  return total;
}

std::uint64_t body_value(const Cons& c, const Bits& x) {
  std::uint64_t b = u(c.constant);
  for (std::size_t j = 0; j < c.vars.size(); ++j)
    if (lit_value(x, c.vars[j])) b += u(c.coeffs[j]);
  for (std::size_t t = 0; t < c.nl_coeffs.size(); ++t)
    if (product(x, c.nl_vars.data() + c.nl_head[t], c.nl_head[t + 1] - c.nl_head[t])) b += u(c.nl_coeffs[t]);
  return b;
}

std::uint64_t distance_to(std::uint64_t b, std::int64_t lo, std::int64_t hi) {
  if (s(b) < lo) return u(lo) - b;
  if (s(b) > hi) return b - u(hi);
  return 0;
}

std::uint64_t violation(const Cons& c, const Bits& x) {
  const std::uint64_t b = body_value(c, x);
  if (c.kind == Cons::kSet) {
    std::int64_t best = s(distance_to(b, c.lowers[0], c.uppers[0]));
    for (std::size_t i = 1; i < c.lowers.size(); ++i) best = std::min(best, s(distance_to(b, c.lowers[i], c.uppers[i])));
    return u(best);
  }
  std::uint64_t v = 0;
  if (s(b) < c.lower) v += u(c.lower) - b;
  if (s(b) > c.upper) v += b - u(c.upper);
  return v;
}

std::int64_t energy(const Model& m, const Bits& x) {
  std::uint64_t e = u(m.constant);
  for (std::uint32_t d = 1; d <= m.max_degree; ++d)
    for (std::uint64_t t = 0; t < m.counts[d - 1]; ++t)
      if (product(x, m.vars[d - 1].data() + t * d, d)) e += u(m.coeffs[d - 1][t]);
  for (const Cons& c : m.cons) {
    const std::uint64_t v = violation(c, x);
    e += c.exponent == 2 ? u(c.weight) * v * v : u(c.weight) * v;
  }
  return s(e);
}

bool feasible(const Model& m, const Bits& x) {
  for (const Cons& c : m.cons)
    if (c.shape == 0 && violation(c, x) != 0) return false;
  return !m.has_remainder || poly_value(m.remainder, x) == 0;
}

Bits bits_of(std::uint64_t code, std::uint32_t n) {
  Bits x(n);
  for (std::uint32_t i = 0; i < n; ++i) x[i] = (code >> i) & 1;
  return x;
}

struct Enumerated {
  std::vector<std::int64_t> energies;  // by state code
  std::int64_t best = std::numeric_limits<std::int64_t>::max();
};

Enumerated enumerate(const Model& m) {
  Enumerated out;
  for (std::uint64_t code = 0; code < (std::uint64_t{1} << m.n); ++code) {
    out.energies.push_back(energy(m, bits_of(code, m.n)));
    out.best = std::min(out.best, out.energies.back());
  }
  return out;
}

// ---- driving the plug-in ----

class Handle {
 public:
  explicit Handle(Model& m) : m_(m) {
    std::vector<const std::uint64_t*> counts;
    std::vector<const std::uint32_t*> vars;
    std::vector<const void*> coeffs;
    for (std::uint32_t d = 0; d < m.max_degree; ++d) {
      counts.push_back(&m.counts[d]);
      vars.push_back(m.vars[d].data());
      coeffs.push_back(m.coeffs[d].data());
    }
    h_ = api().create(nullptr, m.n, m.max_degree, &m.constant, counts.data(), vars.data(), coeffs.data());
    for (Cons& c : m.cons) {
      const std::uint64_t count = c.vars.size();
      switch (c.kind) {
        case Cons::kLinear:
          api().add_constraint(h_, &c.weight, &c.lower, &c.upper, &c.constant, count, c.vars.data(), c.coeffs.data());
          break;
        case Cons::kNonlinear:
          api().add_constraint_nl(h_, &c.weight, &c.lower, &c.upper, &c.constant, count, c.vars.data(),
                                  c.coeffs.data(), c.nl_coeffs.size(), c.nl_head.data(), c.nl_vars.data(),
                                  c.nl_coeffs.data());
          break;
        case Cons::kSet: {
          // The interval arrays are only lent for the call.
          std::vector<std::int64_t> lo = c.lowers, hi = c.uppers;
          api().add_constraint_set(h_, &c.weight, &c.lower, &c.upper, &c.constant, count, c.vars.data(),
                                   c.coeffs.data(), lo.size(), lo.data(), hi.data());
          std::fill(lo.begin(), lo.end(), 0);
          std::fill(hi.begin(), hi.end(), 0);
          break;
        }
      }
      if (c.set_shape) api().set_cons_shape(h_, c.exponent, c.shape);
    }
    if (m.has_remainder)
      api().set_remainder(h_, &m.remainder.constant, m.remainder.coeffs.size(), m.remainder.head.data(),
                          m.remainder.lits.data(), m.remainder.coeffs.data());
  }
  ~Handle() { api().destroy(h_); }
  Handle(const Handle&) = delete;
  Handle& operator=(const Handle&) = delete;
  void* get() const { return h_; }

  std::map<std::string, std::string> info() const {
    std::map<std::string, std::string> out;
    zorp_solver_pair* list = api().get_info(h_);
    for (zorp_solver_pair* p = list; p && p->key; ++p) out[p->key] = p->value;
    api().free_info(list);
    return out;
  }

 private:
  Model& m_;
  void* h_ = nullptr;
};

struct Sol {
  std::int64_t energy = 0;
  double tts = -1;
  Bits x;
};

struct SolRecord {
  explicit SolRecord(std::uint32_t n) : var_count(n), word_count((n + 63) / 64), bits(word_count + 1, 0) {}
  zorp_plugin_sol view() { return {&var_count, &word_count, &energy, bits.data(), &tts}; }
  Sol read(std::uint32_t n) const {
    Sol out{energy, tts, Bits(n)};
    for (std::uint32_t i = 0; i < n; ++i) out.x[i] = (bits[i / 64] >> (i % 64)) & 1;
    return out;
  }
  std::uint32_t var_count;
  std::uint32_t word_count;
  std::int64_t energy = 0;
  std::vector<std::uint64_t> bits;  // one spare word must stay untouched
  double tts = -1;
};

struct Result {
  Sol best;
  std::vector<Sol> list;
  bool has_list = false;
};

using Params = std::vector<std::pair<std::string, std::string>>;

Result search(const Handle& h, std::uint32_t n, const Params& params, const std::vector<std::uint64_t>* hint = nullptr) {
  std::vector<zorp_solver_pair> pairs;
  for (const auto& [k, v] : params) pairs.push_back({k.c_str(), v.c_str()});
  pairs.push_back({nullptr, nullptr});
  SolRecord best(n);
  zorp_plugin_sol view = best.view();
  void* list = api().search(h.get(), &view, pairs.data(), hint ? hint->data() : nullptr);
  Result r;
  r.best = best.read(n);
  EXPECT_EQ(best.bits.back(), 0u) << "wrote past the solution words";
  if (list) {
    r.has_list = true;
    const std::uint64_t count = api().sol_list_count(list);
    for (std::uint64_t i = 0; i < count; ++i) {
      SolRecord rec(n);
      zorp_plugin_sol v = rec.view();
      api().sol_list_get(list, i, &v);
      r.list.push_back(rec.read(n));
    }
    api().sol_list_destroy(list);
  }
  return r;
}

// Sets of states are keyed by packed words.
using Words = std::vector<std::uint64_t>;

Words pack(const Bits& x) {
  std::vector<std::uint64_t> words((x.size() + 63) / 64, 0);
  for (std::size_t i = 0; i < x.size(); ++i)
    if (x[i]) words[i / 64] |= std::uint64_t{1} << (i % 64);
  return words;
}

// ---- random models ----

std::vector<std::uint32_t> distinct_vars(std::mt19937_64& rng, std::uint32_t n, std::uint32_t k) {
  std::vector<std::uint32_t> all(n);
  for (std::uint32_t i = 0; i < n; ++i) all[i] = i;
  std::shuffle(all.begin(), all.end(), rng);
  all.resize(k);
  std::sort(all.begin(), all.end());
  return all;
}

int uniform(std::mt19937_64& rng, int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng); }
bool chance(std::mt19937_64& rng, double p) { return std::uniform_real_distribution<double>(0, 1)(rng) < p; }

std::vector<std::uint32_t> random_literals(std::mt19937_64& rng, std::uint32_t n, std::uint32_t d, double neg) {
  std::vector<std::uint32_t> lits = distinct_vars(rng, n, d);
  for (std::uint32_t& l : lits)
    if (chance(rng, neg)) l |= kNeg;
  return lits;
}

Model random_objective(std::mt19937_64& rng, std::uint32_t n) {
  Model m;
  m.n = n;
  m.constant = uniform(rng, -50, 50);
  const std::uint32_t top = static_cast<std::uint32_t>(uniform(rng, 1, 4));
  for (std::uint32_t d = 1; d <= std::min(top, n); ++d) {
    const int terms = uniform(rng, 0, 2 * static_cast<int>(n));
    for (int t = 0; t < terms; ++t) m.add_term(random_literals(rng, n, d, d >= 3 ? 0.5 : 0.25), uniform(rng, -20, 20));
  }
  return m;
}

Cons random_constraint(std::mt19937_64& rng, std::uint32_t n) {
  Cons c;
  c.kind = static_cast<Cons::Kind>(uniform(rng, 0, 2));
  const std::uint32_t k = static_cast<std::uint32_t>(uniform(rng, 1, static_cast<int>(std::min(n, 5u))));
  c.vars = distinct_vars(rng, n, k);
  for (std::size_t j = 0; j < c.vars.size(); ++j) {
    c.coeffs.push_back(uniform(rng, -5, 5));
    if (chance(rng, 0.1)) c.vars[j] |= kNeg;
  }
  c.constant = uniform(rng, -3, 3);
  c.lower = uniform(rng, -4, 4);
  c.upper = c.lower + uniform(rng, 0, 4);
  if (chance(rng, 0.2)) c.upper = c.lower - uniform(rng, 1, 3);  // crossed: both sides charge
  c.weight = chance(rng, 0.2) ? -uniform(rng, 1, 3) : uniform(rng, 1, 8);
  if (c.kind == Cons::kNonlinear) {
    const int terms = uniform(rng, 1, 3);
    for (int t = 0; t < terms; ++t) {
      const std::uint32_t d = static_cast<std::uint32_t>(uniform(rng, 2, static_cast<int>(std::min(n, 3u))));
      if (d > n) continue;
      std::vector<std::uint32_t> lits = distinct_vars(rng, n, d);
      c.nl_vars.insert(c.nl_vars.end(), lits.begin(), lits.end());
      c.nl_head.push_back(c.nl_vars.size());
      c.nl_coeffs.push_back(uniform(rng, -4, 4));
    }
  }
  if (c.kind == Cons::kSet) {
    const int intervals = uniform(rng, 1, 3);
    for (int i = 0; i < intervals; ++i) {
      const int lo = uniform(rng, -8, 8);
      c.lowers.push_back(lo);
      c.uppers.push_back(lo + uniform(rng, 0, 2));
    }
  }
  if (chance(rng, 0.7)) {
    c.set_shape = true;
    c.exponent = chance(rng, 0.5) ? 1 : 2;
    c.shape = chance(rng, 0.25) ? 1 : 0;
  }
  return c;
}

Model random_model(std::mt19937_64& rng, std::uint32_t n, bool constrained) {
  Model m = random_objective(rng, n);
  if (!constrained) return m;
  const int count = uniform(rng, 1, 3);
  for (int i = 0; i < count; ++i) m.cons.push_back(random_constraint(rng, n));
  if (chance(rng, 0.4)) {
    // The remainder is part of the objective already; it is passed again on its own.
    m.has_remainder = true;
    m.remainder.constant = uniform(rng, -3, 3);
    const int terms = uniform(rng, 1, 3);
    for (int t = 0; t < terms; ++t) {
      const std::uint32_t d = static_cast<std::uint32_t>(uniform(rng, 1, static_cast<int>(std::min(n, 3u))));
      std::vector<std::uint32_t> lits = random_literals(rng, n, d, 0.4);
      const int c = uniform(rng, -5, 5);
      m.remainder.add(lits, c);
      m.add_term(lits, c);
    }
    m.constant += m.remainder.constant;
  }
  return m;
}

// A ring of n vertices as max-cut: minimise sum (2 x_i x_j - x_i - x_j).
Model ring_cut(std::uint32_t n) {
  Model m;
  m.n = n;
  for (std::uint32_t i = 0; i < n; ++i) {
    const std::uint32_t j = (i + 1) % n;
    m.add_term({i}, -1);
    m.add_term({j}, -1);
    m.add_term({std::min(i, j), std::max(i, j)}, 2);
  }
  return m;
}

Model random_qubo(std::mt19937_64& rng, std::uint32_t n, double density) {
  Model m;
  m.n = n;
  for (std::uint32_t i = 0; i < n; ++i) {
    m.add_term({i}, uniform(rng, -100, 100));
    for (std::uint32_t j = i + 1; j < n; ++j)
      if (chance(rng, density)) m.add_term({i, j}, uniform(rng, -100, 100));
  }
  return m;
}

void expect_consistent(const Model& m, const Result& r) {
  EXPECT_EQ(r.best.energy, energy(m, r.best.x));
  for (const Sol& sol : r.list) EXPECT_EQ(sol.energy, energy(m, sol.x));
}

// ---- tests ----

TEST(VellSolverTest, ExportsEveryEntryPoint) {
  const zorp::VellSolverTable& a = api();
  ASSERT_NE(a.create, nullptr);
  EXPECT_NE(a.destroy, nullptr);
  EXPECT_NE(a.search, nullptr);
  EXPECT_NE(a.sol_list_count, nullptr);
  EXPECT_NE(a.sol_list_get, nullptr);
  EXPECT_NE(a.sol_list_destroy, nullptr);
  EXPECT_NE(a.register_callback, nullptr);
  EXPECT_NE(a.get_info, nullptr);
  EXPECT_NE(a.free_info, nullptr);
  EXPECT_NE(a.add_constraint, nullptr);
  EXPECT_NE(a.add_constraint_nl, nullptr);
  EXPECT_NE(a.add_constraint_set, nullptr);
  EXPECT_NE(a.set_cons_shape, nullptr);
  EXPECT_NE(a.set_remainder, nullptr);
  a.register_callback([](void*, const void*, int) { return -1.0; });
}

// Unconstrained models of every degree, negated literals included, and constrained ones
// with every constraint form; the search must find the enumerated optimum.
TEST(VellSolverTest, RandomModelsReachTheEnumeratedOptimum) {
  ASSERT_NE(api().create, nullptr);
  std::mt19937_64 rng(20240611);
  for (int round = 0; round < 48; ++round) {
    const std::uint32_t n = static_cast<std::uint32_t>(uniform(rng, 1, 12));
    Model m = random_model(rng, n, round % 2 == 1);
    SCOPED_TRACE("round " + std::to_string(round) + ", n " + std::to_string(n));
    const Enumerated all = enumerate(m);
    Handle h(m);
    const Result r = search(h, n, {{"time_limit", "0.2"}, {"threads", "2"}, {"seed", std::to_string(round)},
                                   {"target_energy", std::to_string(all.best)}});
    expect_consistent(m, r);
    EXPECT_EQ(r.best.energy, all.best);
    EXPECT_GE(r.best.tts, 0.0);
    EXPECT_FALSE(r.has_list);
  }
}

TEST(VellSolverTest, QuadraticModelsTakeTheQuadraticPath) {
  std::mt19937_64 rng(7);
  Model plain = random_qubo(rng, 40, 0.2);
  Model negated = plain;
  negated.add_term({3u | kNeg, 7u}, 9);
  negated.add_term({5u | kNeg, 6u | kNeg}, -4);
  negated.add_term({2u | kNeg}, 11);
  Model constrained = plain;
  Cons c;
  c.vars = {0, 1, 2};
  c.coeffs = {1, 1, 1};
  c.lower = c.upper = 1;
  constrained.cons.push_back(c);
  for (Model* m : {&plain, &negated, &constrained}) {
    Handle h(*m);
    const Result r = search(h, m->n, {{"time_limit", "0.05"}, {"threads", "1"}, {"seed", "3"}});
    expect_consistent(*m, r);
    EXPECT_EQ(h.info().at("path"), m == &constrained ? "general" : "quadratic");
  }
}

// Gains too wide for 32-bit keys take 64-bit ones; a model past the full-scan size is
// annealed. Both must stay exact.
TEST(VellSolverTest, WideGainsAndLargeModelsStayExact) {
  std::mt19937_64 rng(17);
  Model wide;
  wide.n = 10;
  for (std::uint32_t i = 0; i < wide.n; ++i) {
    wide.add_term({i}, uniform(rng, -1000000000, 1000000000));
    for (std::uint32_t j = i + 1; j < wide.n; ++j) wide.add_term({i, j}, uniform(rng, -1000000000, 1000000000));
  }
  const Enumerated all = enumerate(wide);
  Handle hw(wide);
  Result r = search(hw, wide.n, {{"time_limit", "0.2"}, {"threads", "2"}, {"seed", "1"},
                                 {"target_energy", std::to_string(all.best)}});
  expect_consistent(wide, r);
  EXPECT_EQ(r.best.energy, all.best);
  EXPECT_EQ(hw.info().at("gain_bits"), "64");

  Model large;
  large.n = 40000;
  for (std::uint32_t i = 0; i + 1 < large.n; ++i) {
    large.add_term({i}, uniform(rng, -5, 5));
    large.add_term({i, i + 1 + static_cast<std::uint32_t>(uniform(rng, 0, 30)) % (large.n - i - 1)},
                   uniform(rng, -5, 5));
  }
  Handle hl(large);
  r = search(hl, large.n, {{"time_limit", "0.2"}, {"threads", "2"}, {"seed", "1"}});
  expect_consistent(large, r);
  EXPECT_LT(r.best.energy, 0);
  EXPECT_EQ(hl.info().at("gain_bits"), "32");
}

// ---- large models: the annealing engine ----

// Past this many variables the search anneals instead of running tabu steps.
constexpr std::uint32_t kLarge = 40000;

// A sparse model of n variables: a field and about `degree` random couplings per variable,
// with products of three literals when `cubic`, and a cardinality constraint when
// `constrained` (both force the general path).
Model sparse_model(std::mt19937_64& rng, std::uint32_t n, int degree, bool cubic, bool constrained) {
  Model m;
  m.n = n;
  auto var = [&] { return static_cast<std::uint32_t>(uniform(rng, 0, static_cast<int>(n) - 1)); };
  for (std::uint32_t i = 0; i < n; ++i) {
    m.add_term({i}, uniform(rng, -10, 10));
    for (int d = 0; d < degree / 2; ++d) {
      const std::uint32_t j = var();
      if (j != i) m.add_term({std::min(i, j), std::max(i, j)}, uniform(rng, -10, 10));
    }
    if (cubic && i % 4 == 0) {
      std::uint32_t a = var(), b = var();
      while (b == a) b = var();
      std::uint32_t c = var();
      while (c == a || c == b) c = var();
      m.add_term({a, b | kNeg, c}, uniform(rng, -10, 10));
    }
  }
  if (constrained) {
    Cons c;
    c.vars = distinct_vars(rng, n, 64);
    c.coeffs.assign(64, 1);
    c.lower = c.upper = 10;
    c.weight = 3;
    m.cons.push_back(c);
  }
  return m;
}

// A bound no state passes: every term at its most negative.
std::int64_t term_floor(const Model& m) {
  std::int64_t floor = m.constant;
  for (const auto& cs : m.coeffs)
    for (std::int32_t c : cs) floor += std::min(c, 0);
  return floor;
}

// Max-cut of a random bipartite graph as minimise sum (2 x_i x_j - x_i - x_j): cutting every
// edge is optimal, at minus the edge count. The hidden sides are a random colouring.
Model planted_cut(std::mt19937_64& rng, std::uint32_t n, int degree, std::int64_t& optimum) {
  Model m;
  m.n = n;
  std::vector<std::uint8_t> side(n);
  std::vector<std::uint32_t> sides[2];
  for (std::uint32_t i = 0; i < n; ++i) {
    side[i] = static_cast<std::uint8_t>(chance(rng, 0.5));
    sides[side[i]].push_back(i);
  }
  std::set<std::pair<std::uint32_t, std::uint32_t>> edges;
  for (std::uint32_t i = 0; i < n; ++i) {
    const std::vector<std::uint32_t>& other = sides[side[i] ^ 1];
    for (int d = 0; d < degree / 2; ++d) {
      const std::uint32_t j = other[static_cast<std::size_t>(uniform(rng, 0, static_cast<int>(other.size()) - 1))];
      edges.insert({std::min(i, j), std::max(i, j)});
    }
  }
  for (const auto& [i, j] : edges) {
    m.add_term({i}, -1);
    m.add_term({j}, -1);
    m.add_term({i, j}, 2);
  }
  optimum = -static_cast<std::int64_t>(edges.size());
  return m;
}

// On both state types the annealing engine returns the exact energy of what it returns, and
// that is far below where it started: a random state sits near zero, the floor far below.
TEST(VellSolverTest, AnnealingLargeModelsIsExactAndDescendsFar) {
  std::mt19937_64 rng(41);
  struct Case {
    const char* path;
    Model m;
  };
  std::vector<Case> cases;
  cases.push_back({"quadratic", sparse_model(rng, kLarge, 4, false, false)});
  cases.push_back({"general", sparse_model(rng, kLarge, 4, true, true)});
  for (Case& c : cases) {
    SCOPED_TRACE(c.path);
    Bits random(c.m.n);
    for (auto& b : random) b = chance(rng, 0.5);
    const std::int64_t start = energy(c.m, random);
    const std::int64_t floor = term_floor(c.m);
    Handle h(c.m);
    const Result r = search(h, c.m.n, {{"time_limit", "0.3"}, {"threads", "2"}, {"seed", "5"}, {"topk_sols", "2"}});
    expect_consistent(c.m, r);
    ASSERT_EQ(r.list.size(), 2u);
    EXPECT_EQ(r.list[0].energy, r.best.energy);
    // The floor counts every negative term at once and lies far below any state; one-flip
    // local minima of such models still get a good part of the way there, random states none.
    EXPECT_LT(r.best.energy, start + (floor - start) / 10) << "start " << start << ", floor " << floor;
    const auto info = h.info();
    EXPECT_EQ(info.at("path"), c.path);
    EXPECT_NE(info.at("algorithm").find("annealing"), std::string::npos);
    EXPECT_GT(std::stoull(info.at("sweeps")), 0u);
    EXPECT_GT(std::stod(info.at("temperature_start")), std::stod(info.at("temperature_end")));
    EXPECT_GE(std::stoull(info.at("evaluated_moves")), std::stoull(info.at("sweeps")) * c.m.n / 2);
  }
}

TEST(VellSolverTest, AnnealingSolvesAPlantedCutAndStopsAtTheTarget) {
  std::mt19937_64 rng(43);
  std::int64_t optimum = 0;
  Model m = planted_cut(rng, kLarge, 6, optimum);
  Handle h(m);
  // The target ends the search (within a tenth of a second here); the limit only covers
  // slow instrumented builds.
  const Result r = search(h, m.n, {{"time_limit", "5"}, {"threads", "2"}, {"seed", "3"},
                                   {"target_energy", std::to_string(optimum)}});
  expect_consistent(m, r);
  EXPECT_EQ(r.best.energy, optimum);
  EXPECT_EQ(h.info().at("target_reached"), "1");
}

// One chain from one seed, ended by a target rather than by the clock, repeats exactly; a
// hint starts it from the hint's state.
TEST(VellSolverTest, AnnealingRepeatsASeededRunAndKeepsTheHint) {
  std::mt19937_64 rng(47);
  Model m = sparse_model(rng, kLarge, 4, false, false);
  Handle h(m);
  const Result probe = search(h, m.n, {{"time_limit", "0.05"}, {"threads", "1"}, {"seed", "8"}});
  const Params params = {{"time_limit", "10"}, {"threads", "1"}, {"seed", "8"},
                         {"target_energy", std::to_string(probe.best.energy)}};
  const Result a = search(h, m.n, params);
  const std::string flips_a = h.info().at("flips");
  const Result b = search(h, m.n, params);
  EXPECT_EQ(h.info().at("target_reached"), "1");
  EXPECT_EQ(pack(a.best.x), pack(b.best.x));
  EXPECT_EQ(flips_a, h.info().at("flips"));
  EXPECT_LE(a.best.energy, probe.best.energy);

  const std::vector<std::uint64_t> words = pack(a.best.x);
  const Result hinted = search(h, m.n, {{"time_limit", "0"}, {"threads", "1"}, {"seed", "1"}}, &words);
  EXPECT_EQ(pack(hinted.best.x), words);
  EXPECT_EQ(hinted.best.energy, a.best.energy);
}

TEST(VellSolverTest, BothPathsAgreeOnAQuadraticModel) {
  std::mt19937_64 rng(11);
  Model fast = random_qubo(rng, 12, 0.5);
  Model general = fast;
  Cons idle;  // always met, weightless: forces the general path without changing energies
  idle.vars = {0};
  idle.coeffs = {1};
  idle.lower = -10;
  idle.upper = 10;
  idle.weight = 0;
  general.cons.push_back(idle);
  const Enumerated all = enumerate(fast);
  for (Model* m : {&fast, &general}) {
    Handle h(*m);
    const Result r = search(h, m->n, {{"time_limit", "0.2"}, {"threads", "1"}, {"seed", "5"}, {"topk_sols", "6"}});
    expect_consistent(*m, r);
    ASSERT_EQ(r.list.size(), 6u);
    std::vector<std::int64_t> sorted = all.energies;
    std::sort(sorted.begin(), sorted.end());
    for (std::size_t i = 0; i < 6; ++i) EXPECT_EQ(r.list[i].energy, sorted[i]);
  }
}

TEST(VellSolverTest, TopKListsTheKBestDistinctStates) {
  std::mt19937_64 rng(99);
  for (int round = 0; round < 12; ++round) {
    const std::uint32_t n = static_cast<std::uint32_t>(uniform(rng, 2, 9));
    Model m = random_model(rng, n, round % 2 == 0);
    SCOPED_TRACE("round " + std::to_string(round));
    const Enumerated all = enumerate(m);
    const std::size_t k = std::min<std::size_t>(5, all.energies.size());
    Handle h(m);
    const Result r = search(h, n, {{"time_limit", "0.1"}, {"threads", "2"}, {"seed", "1"}, {"topk_sols", "5"}});
    ASSERT_TRUE(r.has_list);
    expect_consistent(m, r);
    ASSERT_EQ(r.list.size(), k);
    std::set<Words> seen;
    for (std::size_t i = 0; i < r.list.size(); ++i) {
      EXPECT_TRUE(seen.insert(pack(r.list[i].x)).second) << "entry " << i << " repeats";
      if (i > 0) {
        EXPECT_LE(r.list[i - 1].energy, r.list[i].energy);
      }
    }
    std::vector<std::int64_t> sorted = all.energies;
    std::sort(sorted.begin(), sorted.end());
    for (std::size_t i = 0; i < k; ++i) EXPECT_EQ(r.list[i].energy, sorted[i]) << "entry " << i;
    EXPECT_EQ(r.best.energy, r.list[0].energy);
  }
}

TEST(VellSolverTest, TopKBeyondTheStateCountListsEveryState) {
  Model m;
  m.n = 2;
  m.add_term({0}, 3);
  m.add_term({1}, 5);
  Handle h(m);
  const Result r = search(h, 2, {{"time_limit", "0.05"}, {"threads", "2"}, {"seed", "2"}, {"topk_sols", "10"}});
  ASSERT_EQ(r.list.size(), 4u);
  EXPECT_EQ(r.list[0].energy, 0);
  EXPECT_EQ(r.list[1].energy, 3);
  EXPECT_EQ(r.list[2].energy, 5);
  EXPECT_EQ(r.list[3].energy, 8);
}

// A ring of six vertices cut in two has exactly two optimal states; a seventh variable
// that appears nowhere doubles them.
TEST(VellSolverTest, BestEnergySolsReturnsEveryOptimum) {
  Model m = ring_cut(6);
  m.n = 7;
  const Enumerated all = enumerate(m);
  std::set<Words> optima;
  for (std::uint64_t code = 0; code < all.energies.size(); ++code)
    if (all.energies[code] == all.best) optima.insert(pack(bits_of(code, m.n)));
  ASSERT_EQ(optima.size(), 4u);

  Handle h(m);
  const Result r = search(h, m.n, {{"time_limit", "0.1"}, {"threads", "2"}, {"seed", "4"}, {"best_energy_sols", "all"}});
  ASSERT_TRUE(r.has_list);
  expect_consistent(m, r);
  std::set<Words> got;
  for (const Sol& sol : r.list) {
    EXPECT_EQ(sol.energy, all.best);
    got.insert(pack(sol.x));
  }
  EXPECT_EQ(got.size(), r.list.size());
  EXPECT_EQ(got, optima);

  const Result capped = search(h, m.n, {{"time_limit", "0.1"}, {"threads", "1"}, {"seed", "4"}, {"best_energy_sols", "2"}});
  ASSERT_EQ(capped.list.size(), 2u);
  for (const Sol& sol : capped.list) EXPECT_TRUE(optima.count(pack(sol.x)));
  EXPECT_NE(pack(capped.list[0].x), pack(capped.list[1].x));
}

TEST(VellSolverTest, HintIsTheAnswerWithoutTime) {
  std::mt19937_64 rng(5);
  for (bool constrained : {false, true}) {
    Model m = random_model(rng, 70, constrained);
    Bits hint(m.n);
    for (auto& b : hint) b = chance(rng, 0.5);
    const std::vector<std::uint64_t> words = pack(hint);
    Handle h(m);
    const Result one = search(h, m.n, {{"time_limit", "0"}, {"threads", "1"}, {"seed", "9"}}, &words);
    EXPECT_EQ(pack(one.best.x), words);
    EXPECT_EQ(one.best.energy, energy(m, hint));
    const Result two = search(h, m.n, {{"time_limit", "0"}, {"threads", "2"}, {"seed", "9"}}, &words);
    expect_consistent(m, two);
    EXPECT_LE(two.best.energy, energy(m, hint));
  }
}

TEST(VellSolverTest, TargetStopsTheSearchEarly) {
  std::mt19937_64 rng(12);
  Model m = random_qubo(rng, 300, 0.05);
  Handle h(m);
  // Half of what a short search reaches is met almost at once.
  const Result probe = search(h, m.n, {{"time_limit", "0.05"}, {"threads", "1"}, {"seed", "1"}});
  const std::int64_t target = probe.best.energy / 2;
  const Result r = search(h, m.n, {{"time_limit", "10"}, {"threads", "2"}, {"seed", "2"},
                                   {"target_energy", std::to_string(target)}});
  expect_consistent(m, r);
  EXPECT_LE(r.best.energy, target);
  EXPECT_EQ(h.info().at("target_reached"), "1");
}

// Three variables of which exactly one must be set; the target is met only by a feasible
// state, and that state is what comes back.
TEST(VellSolverTest, TargetReturnsAFeasibleState) {
  Model m;
  m.n = 3;
  for (std::uint32_t i = 0; i < 3; ++i) m.add_term({i}, -1 - static_cast<std::int32_t>(i));
  Cons c;
  c.vars = {0, 1, 2};
  c.coeffs = {1, 1, 1};
  c.lower = c.upper = 1;
  c.weight = 5;
  m.cons.push_back(c);
  Handle h(m);
  const Result r = search(h, 3, {{"time_limit", "10"}, {"threads", "2"}, {"seed", "6"}, {"target_energy", "-2"}});
  expect_consistent(m, r);
  EXPECT_LE(r.best.energy, -2);
  EXPECT_TRUE(feasible(m, r.best.x));
  EXPECT_EQ(h.info().at("target_reached"), "1");
}

// Leaving x0 + x1 + x2 = 1 is rewarded (negative weight), so the lowest energies are
// infeasible; a target only a feasible state meets still stops the search, and one that
// only infeasible states meet does not.
TEST(VellSolverTest, TargetCountsOnlyFeasibleStates) {
  Model m;
  m.n = 3;
  for (std::uint32_t i = 0; i < 3; ++i) m.add_term({i}, -1);
  Cons c;
  c.vars = {0, 1, 2};
  c.coeffs = {1, 1, 1};
  c.lower = c.upper = 1;
  c.weight = -5;
  m.cons.push_back(c);
  Handle h(m);
  Result r = search(h, 3, {{"time_limit", "10"}, {"threads", "1"}, {"seed", "1"}, {"target_energy", "-1"}});
  expect_consistent(m, r);
  EXPECT_EQ(h.info().at("target_reached"), "1");

  r = search(h, 3, {{"time_limit", "0.1"}, {"threads", "2"}, {"seed", "1"}, {"target_energy", "-10"}});
  expect_consistent(m, r);
  EXPECT_EQ(r.best.energy, -23);  // all three set: -3 - 5 * 2^2
  EXPECT_FALSE(feasible(m, r.best.x));
  EXPECT_EQ(h.info().at("target_reached"), "0");

  // The same holds for the remainder: a state counts only where it evaluates to 0.
  Model rem;
  rem.n = 2;
  rem.has_remainder = true;
  rem.remainder.add({0}, -4);
  rem.add_term({0}, -4);
  rem.add_term({1}, -1);
  Handle hr(rem);
  r = search(hr, 2, {{"time_limit", "0.1"}, {"threads", "1"}, {"seed", "1"}, {"target_energy", "-5"}});
  EXPECT_EQ(r.best.energy, -5);
  EXPECT_EQ(hr.info().at("target_reached"), "0");
  r = search(hr, 2, {{"time_limit", "10"}, {"threads", "1"}, {"seed", "1"}, {"target_energy", "-1"}});
  EXPECT_EQ(hr.info().at("target_reached"), "1");
}

TEST(VellSolverTest, ASeedRepeatsASingleThreadedSearch) {
  std::mt19937_64 rng(31);
  Model quadratic = random_qubo(rng, 200, 0.1);
  // Objective shapes only, so that every state may stop the search at the target.
  Model constrained = random_model(rng, 60, true);
  constrained.has_remainder = false;
  for (Cons& c : constrained.cons) {
    c.set_shape = true;
    c.shape = 1;
  }
  for (Model* m : {&quadratic, &constrained}) {
    Handle h(*m);
    const Result probe = search(h, m->n, {{"time_limit", "0.1"}, {"threads", "1"}, {"seed", "77"}});
    // The target, not the clock, ends both runs; the limit is only a safety net.
    const Params params = {{"time_limit", "10"}, {"threads", "1"}, {"seed", "77"},
                           {"target_energy", std::to_string(probe.best.energy)}};
    const Result a = search(h, m->n, params);
    const std::string flips_a = h.info().at("flips");
    const Result b = search(h, m->n, params);
    const std::string flips_b = h.info().at("flips");
    EXPECT_EQ(pack(a.best.x), pack(b.best.x));
    EXPECT_EQ(a.best.energy, b.best.energy);
    EXPECT_EQ(flips_a, flips_b);
    EXPECT_EQ(a.best.energy, probe.best.energy);
  }
}

TEST(VellSolverTest, EmptyAndConstantModels) {
  Model empty;
  empty.constant = 17;
  Handle h(empty);
  Result r = search(h, 0, {{"time_limit", "0.05"}, {"topk_sols", "3"}});
  EXPECT_EQ(r.best.energy, 17);
  ASSERT_EQ(r.list.size(), 1u);
  EXPECT_EQ(r.list[0].energy, 17);

  // Variables without terms, and a degree with no terms at all.
  Model idle;
  idle.n = 5;
  idle.constant = -3;
  idle.max_degree = 2;
  idle.counts = {0, 1};
  idle.vars = {{}, {1, 3u | kNeg}};
  idle.coeffs = {{}, {-2}};
  Handle hi(idle);
  r = search(hi, 5, {{"time_limit", "0.05"}, {"threads", "2"}, {"target_energy", "-5"}});
  EXPECT_EQ(r.best.energy, -5);
  expect_consistent(idle, r);
}

// Sums that leave the 64-bit range wrap, as the library's own evaluation does.
TEST(VellSolverTest, EnergiesWrapAround) {
  Model m;
  m.n = 4;
  m.constant = std::numeric_limits<std::int64_t>::max() - 5;
  m.add_term({0}, 10);
  m.add_term({1, 2}, std::numeric_limits<std::int32_t>::max());
  m.add_term({0, 1u | kNeg, 2, 3}, std::numeric_limits<std::int32_t>::min());
  Cons c;
  c.vars = {0, 3};
  c.coeffs = {std::numeric_limits<std::int32_t>::max(), std::numeric_limits<std::int32_t>::max()};
  c.lower = std::numeric_limits<std::int64_t>::min();
  c.upper = 0;
  c.weight = std::numeric_limits<std::int64_t>::max() / 3;
  m.cons.push_back(c);
  const Enumerated all = enumerate(m);
  Handle h(m);
  const Result r = search(h, 4, {{"time_limit", "0.1"}, {"threads", "2"}, {"seed", "8"}, {"topk_sols", "16"}});
  expect_consistent(m, r);
  ASSERT_EQ(r.list.size(), 16u);
  EXPECT_EQ(r.best.energy, all.best);
}

TEST(VellSolverTest, InfoDescribesTheLastSearch) {
  std::mt19937_64 rng(3);
  Model m = random_qubo(rng, 50, 0.3);
  Handle h(m);
  search(h, m.n, {{"time_limit", "0.05"}, {"threads", "2"}, {"seed", "1"}});
  const auto info = h.info();
  for (const char* key : {"algorithm", "threads", "flips", "restarts", "evaluated_moves", "moves_per_second"})
    EXPECT_TRUE(info.count(key)) << key;
  EXPECT_EQ(info.at("threads"), "2");
  EXPECT_GT(std::stoull(info.at("flips")), 0u);
  EXPECT_GE(std::stoull(info.at("evaluated_moves")), std::stoull(info.at("flips")));
}

class VellSolverDeathTest : public zorp::test::DeathTestBase {};

TEST_F(VellSolverDeathTest, RejectsBadParameters) {
  Model m = ring_cut(4);
  Handle h(m);
  const std::string prefix = "zorp: VellSolver: ";
  EXPECT_DEATH(search(h, m.n, {{"time_limit", "0"}, {"colour", "blue"}}),
               zorp::test::escaped_regex(prefix + "parameter 'colour' is not supported."));
  EXPECT_DEATH(search(h, m.n, {{"threads", "0"}}), zorp::test::escaped_regex(prefix + "threads must be >= 1."));
  EXPECT_DEATH(search(h, m.n, {{"topk_sols", "0"}}), zorp::test::escaped_regex(prefix + "topk_sols must be >= 1."));
}

}  // namespace
