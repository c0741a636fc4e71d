// Square of a long linear sum, then its canonical form under the binary rules: time of each
// against one memcpy of the square's bytes in the same run, and peak resident memory against
// those bytes. Goals: the square within 2x the memcpy, the peak within 3.5x the bytes.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <vector>

#include "algebra/handles.h"
#include "bench_support.h"
#include "zorp.h"

namespace {

using namespace zorp::bench;

// sum of c_i x_i over n fresh variables, coefficients 1..9.
zorp_expr* linear_sum(std::uint64_t n) {
  const zorp_var first = zorp_new_var_array("x", &n, 1);
  std::vector<zorp_coeff> coeffs(n);
  std::vector<std::uint32_t> degrees(n, 1), vars(n);
  for (std::uint64_t i = 0; i < n; ++i) {
    coeffs[i] = static_cast<zorp_coeff>(1 + (i * 7919) % 9);
    vars[i] = first + static_cast<std::uint32_t>(i);
  }
  return zorp_expr_create_from_bulk(0, n, coeffs.data(), degrees.data(), vars.data());
}

// Bytes of the terms held by `e`, the inline slot included.
std::uint64_t term_bytes(const zorp_expr* e) { return zorp_expr_term_count(e) * sizeof(zorp::TermImpl); }

// The one memcpy that copying the result's block would cost.
double memcpy_rest(MemcpyBaseline& baseline, const zorp_expr* e) {
  const zorp::ExprImpl& x = *zorp::impl(e);
  return baseline.time(x.rest, x.rest_size * sizeof(zorp::TermImpl));
}

// Median times of the operation and of the memcpy, their ratio, and the write rate.
void set_ratio_counters(benchmark::State& state, const std::vector<double>& seconds,
                        const std::vector<double>& memcpy_seconds, std::uint64_t bytes) {
  const double typical = median(seconds), typical_memcpy = median(memcpy_seconds);
  state.counters["median_ms"] = 1e3 * typical;
  state.counters["memcpy_ms"] = 1e3 * typical_memcpy;
  state.counters["x_memcpy"] = typical / typical_memcpy;
  state.counters["GB/s"] = static_cast<double>(bytes) / typical / 1e9;
}

void BM_SquareLinearSum(benchmark::State& state) {
  zorp_expr* e = linear_sum(static_cast<std::uint64_t>(state.range(0)));
  // One square before any baseline buffer exists, for the memory figure.
  reset_peak_rss();
  zorp_expr* first = zorp_expr_sqr(e);
  const std::uint64_t peak = peak_rss_bytes();
  const std::uint64_t bytes = term_bytes(first);
  const std::uint64_t terms = zorp_expr_term_count(first);
  zorp_expr_destroy(first);

  MemcpyBaseline baseline(bytes);
  std::vector<double> times, memcpy_times;
  for (auto _ : state) {
    const double start = now_seconds();
    zorp_expr* square = zorp_expr_sqr(e);
    const double seconds = now_seconds() - start;
    state.SetIterationTime(seconds);
    times.push_back(seconds);
    memcpy_times.push_back(memcpy_rest(baseline, square));
    zorp_expr_destroy(square);
  }
  set_ratio_counters(state, times, memcpy_times, bytes);
  state.counters["result_MiB"] = mib(bytes);
  state.counters["peak_MiB"] = mib(peak);
  state.counters["peak_x_result"] = static_cast<double>(peak) / static_cast<double>(bytes);
  state.SetItemsProcessed(static_cast<std::int64_t>(terms) * state.iterations());
  zorp_expr_destroy(e);
}

void BM_SimplifySquareAsBinary(benchmark::State& state) {
  zorp_expr* e = linear_sum(static_cast<std::uint64_t>(state.range(0)));
  zorp_expr* square = zorp_expr_sqr(e);
  const std::uint64_t bytes = term_bytes(square);
  // Peak while the square is held and simplified, before any baseline buffer exists.
  reset_peak_rss();
  zorp_expr* first = zorp_expr_simplify_as_binary(square);
  const std::uint64_t peak = peak_rss_bytes();
  const std::uint64_t simplified_terms = zorp_expr_term_count(first);
  zorp_expr_destroy(first);

  MemcpyBaseline baseline(bytes);
  std::vector<double> times, memcpy_times;
  for (auto _ : state) {
    const double start = now_seconds();
    zorp_expr* simplified = zorp_expr_simplify_as_binary(square);
    const double seconds = now_seconds() - start;
    state.SetIterationTime(seconds);
    times.push_back(seconds);
    memcpy_times.push_back(memcpy_rest(baseline, square));
    zorp_expr_destroy(simplified);
  }
  set_ratio_counters(state, times, memcpy_times, bytes);
  state.counters["square_MiB"] = mib(bytes);
  state.counters["peak_MiB"] = mib(peak);
  state.counters["peak_x_square"] = static_cast<double>(peak) / static_cast<double>(bytes);
  state.counters["simplified_terms"] = static_cast<double>(simplified_terms);
  state.SetItemsProcessed(static_cast<std::int64_t>(zorp_expr_term_count(square)) * state.iterations());
  zorp_expr_destroy(square);
  zorp_expr_destroy(e);
}

// Fixed iteration counts: each setup allocates about a gigabyte.
BENCHMARK(BM_SquareLinearSum)->Arg(10000)->UseManualTime()->Iterations(10)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_SimplifySquareAsBinary)->Arg(10000)->UseManualTime()->Iterations(3)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
