// Model build from a large canonical quadratic expression, per phase and in total, against
// a memcpy of the expression's term bytes; and the build's peak memory against those bytes.
//
// ZORP_BENCH_TERMS (default 100000000) quadratic terms over ZORP_BENCH_VARS (default 100000)
// variables, ZORP_BENCH_REPS (default 3) builds; ZORP_BENCH_REUSE, see below. Goals: build total <= 4x the memcpy; peak memory
// <= 1.5x the expression's bytes.
#include <benchmark/benchmark.h>
#include <malloc.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <limits>
#include <map>
#include <sstream>
#include <string>

#include "bench_support.h"
#include "algebra/expr.h"
#include "frame/parallel.h"
#include "frame/var_registry.h"
#include "model/model_impl.h"

namespace {

using Clock = std::chrono::steady_clock;

using zorp::bench::env_count;

double seconds_since(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

// The canonical form the build expects: pairs (i, j) with i < j, row-major, distinct, so
// already in term order. Rows of k pairs each, k chosen so that the last row still fits.
zorp::ExprImpl canonical_quadratic(std::uint64_t terms, std::uint32_t nvars) {
  const std::uint64_t shape = nvars;
  const std::uint32_t base = zorp::VarRegistry::instance().add_block("q", &shape, 1);
  std::uint64_t k = 1;
  while ((terms + k - 1) / k + k > nvars) {
    if (++k >= nvars) {
      std::fprintf(stderr, "model_build_bench: %llu terms do not fit over %u variables\n",
                   static_cast<unsigned long long>(terms), nvars);
      std::exit(2);
    }
  }
  zorp::ExprImpl e = zorp::ExprImpl::with_positions(terms);
  e.constant = 12345;
  zorp::parallel_for_ranges(0, terms, [&](std::uint64_t begin, std::uint64_t end) {
    for (std::uint64_t p = begin; p < end; ++p) {
      const std::uint32_t i = static_cast<std::uint32_t>(p / k);
      const std::uint32_t j = static_cast<std::uint32_t>(i + 1 + p % k);
      // A hash for coefficients that look unrelated to the position, never 0.
      const auto c = static_cast<zorp::coeff_t>((p * 0x9E3779B97F4A7C15ull) >> 56) - 128;
      zorp::TermImpl t = zorp::make_term(c == 0 ? 1 : c);
      t.vars.slot[0] = base + i;
      t.vars.slot[1] = base + j;
      e.at_position(p) = t;
    }
  });
  return e;
}

// Peak resident set since the last reset, and the current one, in bytes.
std::uint64_t proc_status_bytes(const char* key) {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind(key, 0) == 0) return std::strtoull(line.c_str() + std::strlen(key), nullptr, 10) * 1024;
  }
  return 0;
}

bool reset_peak_rss() {
  std::ofstream clear("/proc/self/clear_refs");
  clear << "5";
  return static_cast<bool>(clear);
}

// Seconds per phase label from the ZORP_MODEL_PROFILE lines.
std::map<std::string, double> parse_profile(const std::string& text) {
  std::map<std::string, double> phases;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    const auto open = line.find("[Model] ");
    const auto colon = line.rfind(": ");
    if (open == std::string::npos || colon == std::string::npos) continue;
    phases[line.substr(open + 8, colon - open - 8)] = std::strtod(line.c_str() + colon + 2, nullptr);
  }
  return phases;
}

const char* short_name(const std::string& label) {
  static const std::map<std::string, const char*> names = {
      {"Phase 1a (parallel count + validate + var_flags)", "p1a_s"},
      {"Phase 1b (merge counts + allocate flat arrays)", "p1b_s"},
      {"Phase 1c (parallel fill flat arrays)", "p1c_s"},
      {"Phase 2 (parallel prefix-sum var_flags scan + dense index_map)", "p2_s"},
      {"Phase 3 (parallel remap)", "p3_s"}};
  const auto it = names.find(label);
  return it == names.end() ? nullptr : it->second;
}

void BM_ModelBuild(benchmark::State& state) {
  // By default every large block gets its own mapping, so that each repetition allocates
  // fresh pages as a first build in a process does. ZORP_BENCH_REUSE=1 keeps freed memory in
  // the heap instead, so that the model's arrays land on pages the memcpy already touched:
  // the build's own work, without the cost of first touch (the peak is then not measured).
  static const bool reuse = std::getenv("ZORP_BENCH_REUSE") != nullptr;
  if (reuse) {
    mallopt(M_MMAP_MAX, 0);
    mallopt(M_TRIM_THRESHOLD, std::numeric_limits<int>::max());
  } else {
    mallopt(M_MMAP_THRESHOLD, 1 << 20);
  }
  const std::uint64_t terms = env_count("ZORP_BENCH_TERMS", 100'000'000);
  const auto nvars = static_cast<std::uint32_t>(env_count("ZORP_BENCH_VARS", 100'000));
  static const zorp::ExprImpl expr = canonical_quadratic(terms, nvars);
  const std::uint64_t expr_bytes = terms * sizeof(zorp::TermImpl);

  for (auto _ : state) {
    // The memcpy into fresh pages pays the same page faults as the model's new arrays; the
    // second pass into the same pages is the pure bandwidth figure.
    auto* copy = static_cast<zorp::TermImpl*>(std::malloc(expr_bytes));
    auto start = Clock::now();
    std::memcpy(static_cast<void*>(copy), &expr.first_term, sizeof(zorp::TermImpl));
    std::memcpy(static_cast<void*>(copy + 1), expr.rest, expr.rest_size * sizeof(zorp::TermImpl));
    benchmark::DoNotOptimize(copy);
    const double memcpy_cold = seconds_since(start);
    start = Clock::now();
    std::memcpy(static_cast<void*>(copy), &expr.first_term, sizeof(zorp::TermImpl));
    std::memcpy(static_cast<void*>(copy + 1), expr.rest, expr.rest_size * sizeof(zorp::TermImpl));
    benchmark::DoNotOptimize(copy);
    benchmark::ClobberMemory();
    const double memcpy_warm = seconds_since(start);
    std::free(copy);

    const bool peak_known = reset_peak_rss();
    const std::uint64_t rss_before = proc_status_bytes("VmRSS:");
    std::ostringstream profile;
    std::streambuf* saved = std::cerr.rdbuf(profile.rdbuf());
    setenv("ZORP_MODEL_PROFILE", "1", 1);
    start = Clock::now();
    double build = 0;
    {
      const zorp::ModelImpl model(expr, 0.0, nullptr);
      build = seconds_since(start);
      benchmark::DoNotOptimize(model.term_vars.data());
    }
    unsetenv("ZORP_MODEL_PROFILE");
    std::cerr.rdbuf(saved);
    const std::uint64_t peak = proc_status_bytes("VmHWM:");
    state.SetIterationTime(build);

    for (const auto& [label, seconds] : parse_profile(profile.str()))
      if (const char* name = short_name(label)) state.counters[name] = seconds;
    state.counters["build_s"] = build;
    state.counters["memcpy_cold_s"] = memcpy_cold;
    state.counters["memcpy_warm_s"] = memcpy_warm;
    state.counters["x_memcpy_cold"] = build / memcpy_cold;
    state.counters["x_memcpy_warm"] = build / memcpy_warm;
    state.counters["expr_MB"] = static_cast<double>(expr_bytes) / 1e6;
    if (!reuse && peak_known && peak >= rss_before) {
      state.counters["peak_MB"] = static_cast<double>(peak - rss_before) / 1e6;
      state.counters["x_expr_bytes"] = static_cast<double>(peak - rss_before) / static_cast<double>(expr_bytes);
    }
  }
  state.counters["threads"] = zorp::size_scaled_thread_count(terms);
}

// One build per repetition: each takes seconds at full size. ZORP_BENCH_REPS sets how many.
BENCHMARK(BM_ModelBuild)
    ->Iterations(1)
    ->Repetitions(static_cast<int>(env_count("ZORP_BENCH_REPS", 3)))
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
