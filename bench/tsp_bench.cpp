// The QUBO of a travelling-salesman instance, built and brought to canonical form the way a
// modelling user would: n^2 binary variables x[city][position], the tour length as one bulk
// sum, and 2n weighted squared one-hot constraints. Reports build and canonical-form time
// separately, and peak resident memory.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <random>
#include <vector>

#include "bench_support.h"
#include "zorp.h"

namespace {

using namespace zorp::bench;

// Symmetric random integer distances 1..100 with a fixed seed; the diagonal is unused.
std::vector<zorp_coeff> distances(std::uint32_t n) {
  std::mt19937 random(20240601u + n);
  std::vector<zorp_coeff> d(std::size_t{n} * n, 0);
  for (std::uint32_t i = 0; i < n; ++i)
    for (std::uint32_t j = i + 1; j < n; ++j) d[i * n + j] = d[j * n + i] = static_cast<zorp_coeff>(1 + random() % 100);
  return d;
}

struct Timings {
  double build = 0, simplify = 0;
  std::uint64_t raw_terms = 0, terms = 0;
};

// Adds weight * (sum of vars - 1)^2 to `model`.
void add_one_hot(zorp_expr* model, const std::vector<std::uint32_t>& vars, std::int64_t weight) {
  const std::vector<zorp_coeff> ones(vars.size(), 1);
  const std::vector<std::uint32_t> degrees(vars.size(), 1);
  zorp_expr* sum = zorp_expr_create_from_bulk(-1, vars.size(), ones.data(), degrees.data(), vars.data());
  zorp_expr* square = zorp_expr_sqr(sum);
  zorp_expr_imul_int(square, weight);
  zorp_expr_iadd_expr(model, square);
  zorp_expr_destroy(square);
  zorp_expr_destroy(sum);
}

Timings build_and_simplify(std::uint32_t n, const std::vector<zorp_coeff>& d) {
  Timings t;
  zorp_var_reset();
  const double start = now_seconds();
  const std::uint64_t dims[2] = {n, n};
  const zorp_var first = zorp_new_var_array("x", dims, 2);
  auto x = [&](std::uint32_t city, std::uint32_t position) { return first + city * n + position; };

  // Tour length: d_ij x[i][t] x[j][t+1] over every position and ordered pair of cities.
  const std::uint64_t count = std::uint64_t{n} * n * (n - 1);
  std::vector<zorp_coeff> coeffs;
  std::vector<std::uint32_t> degrees(count, 2), vars;
  coeffs.reserve(count);
  vars.reserve(2 * count);
  for (std::uint32_t position = 0; position < n; ++position) {
    const std::uint32_t next = (position + 1) % n;
    for (std::uint32_t i = 0; i < n; ++i) {
      for (std::uint32_t j = 0; j < n; ++j) {
        if (i == j) continue;
        coeffs.push_back(d[i * n + j]);
        vars.push_back(x(i, position));
        vars.push_back(x(j, next));
      }
    }
  }
  zorp_expr* model = zorp_expr_create_from_bulk(0, count, coeffs.data(), degrees.data(), vars.data());

  // Each city once, each position once; the weight outbids any single edge.
  const std::int64_t weight = 2 * *std::max_element(d.begin(), d.end());
  std::vector<std::uint32_t> group(n);
  for (std::uint32_t i = 0; i < n; ++i) {
    for (std::uint32_t k = 0; k < n; ++k) group[k] = x(i, k);
    add_one_hot(model, group, weight);
  }
  for (std::uint32_t position = 0; position < n; ++position) {
    for (std::uint32_t k = 0; k < n; ++k) group[k] = x(k, position);
    add_one_hot(model, group, weight);
  }
  const double built = now_seconds();
  zorp_expr* qubo = zorp_expr_simplify_as_binary(model);
  const double simplified = now_seconds();

  t.build = built - start;
  t.simplify = simplified - built;
  t.raw_terms = zorp_expr_term_count(model);
  t.terms = zorp_expr_term_count(qubo);
  zorp_expr_destroy(qubo);
  zorp_expr_destroy(model);
  return t;
}

void BM_TspQubo(benchmark::State& state) {
  const auto n = static_cast<std::uint32_t>(state.range(0));
  const std::vector<zorp_coeff> d = distances(n);
  Timings last;
  std::vector<double> build, simplify, total;
  std::uint64_t peak = 0;
  for (auto _ : state) {
    reset_peak_rss();
    last = build_and_simplify(n, d);
    peak = std::max(peak, peak_rss_bytes());
    state.SetIterationTime(last.build + last.simplify);
    build.push_back(last.build);
    simplify.push_back(last.simplify);
    total.push_back(last.build + last.simplify);
  }
  state.counters["median_ms"] = 1e3 * median(total);
  state.counters["build_ms"] = 1e3 * median(build);
  state.counters["simplify_ms"] = 1e3 * median(simplify);
  state.counters["raw_terms"] = static_cast<double>(last.raw_terms);
  state.counters["qubo_terms"] = static_cast<double>(last.terms);
  state.counters["peak_MiB"] = mib(peak);
}

BENCHMARK(BM_TspQubo)->Arg(100)->Arg(150)->UseManualTime()->Iterations(5)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
