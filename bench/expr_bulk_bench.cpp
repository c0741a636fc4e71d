// Building and copying large expressions against the memory system's own limit: in one run,
// zorp_expr_iadd_terms_bulk of degree-2 terms into an empty expression, zorp_expr_clone of the
// result, and a memcpy of the same number of bytes into freshly allocated memory, which is what
// a clone has to do. Goals: bulk add at most 3 times the memcpy, clone at most 1.5 times.
//
// Two more cases time the same work into memory that was written before, which separates the
// cost of first-touch page faults from that of the copy itself.
//
// ZORP_BENCH_TERMS (default 100000000) sets the size; ZORP_BENCH_REPEATS (default 3) the timed
// repetitions of each case.
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "algebra/handles.h"
#include "bench_support.h"
#include "frame/memory.h"
#include "frame/parallel.h"
#include "zorp/expr.h"

namespace {

using namespace zorp;
using zorp::bench::env_count;

const std::uint64_t kTerms = env_count("ZORP_BENCH_TERMS", 100'000'000);
const std::uint64_t kRepeats = env_count("ZORP_BENCH_REPEATS", 3);

// The flat arrays a front end hands over for a sum of degree-2 terms, made once.
struct BulkInput {
  std::vector<zorp_coeff> coeffs;
  std::vector<std::uint32_t> degrees;
  std::vector<std::uint32_t> vars;
};

const BulkInput& input() {
  static const BulkInput made = [] {
    BulkInput in;
    in.coeffs.resize(kTerms);
    in.degrees.assign(kTerms, 2);
    in.vars.resize(2 * kTerms);
    // A cheap mix, so that the terms are not all alike; the values do not affect the copy.
    for (std::uint64_t i = 0; i < kTerms; ++i) {
      in.coeffs[i] = static_cast<zorp_coeff>(i % 19) - 9;
      in.vars[2 * i] = static_cast<std::uint32_t>((i * 2654435761u) % 1'000'003);
      in.vars[2 * i + 1] = static_cast<std::uint32_t>((i * 40503u + 7) % 1'000'003);
    }
    return in;
  }();
  return made;
}

zorp_expr* bulk_expression() {
  const BulkInput& in = input();
  zorp_expr* e = zorp_expr_create();
  zorp_expr_iadd_terms_bulk(e, 0, kTerms, in.coeffs.data(), in.degrees.data(), in.vars.data());
  return e;
}

// The expression that the clone case copies, built once.
const zorp_expr* built() {
  static const zorp_expr* e = bulk_expression();
  return e;
}

std::uint64_t block_bytes() { return impl(built())->rest_size * sizeof(TermImpl); }

double elapsed_since(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// Summed seconds of each case, and of the memcpy timed beside it, for the ratios printed at the
// end.
struct Totals {
  double seconds = 0;
  double paired_memcpy_seconds = 0;
  std::uint64_t iterations = 0;
};
std::map<std::string, Totals>& totals() {
  static std::map<std::string, Totals> t;
  return t;
}

void set_rate_counters(benchmark::State& state) {
  state.counters["terms_per_s"] = benchmark::Counter(static_cast<double>(kTerms), benchmark::Counter::kIsIterationInvariantRate);
  state.counters["bytes_per_s"] =
      benchmark::Counter(static_cast<double>(kTerms * sizeof(TermImpl)), benchmark::Counter::kIsIterationInvariantRate);
}

// Each timed call releases what it allocated outside the timing, so that every call starts
// from memory the process has not touched yet.
template <class Timed>
void run_manual(benchmark::State& state, const char* label, Timed&& timed) {
  Totals& t = totals()[label];
  for (auto _ : state) {
    const double s = timed();
    state.SetIterationTime(s);
    t.seconds += s;
    ++t.iterations;
  }
  set_rate_counters(state);
}

// The floor for both: one memcpy of the term block into a fresh malloc block, page faults
// included, as a copy into new memory cannot avoid them.
double time_memcpy_fresh() {
  const void* from = impl(built())->rest;
  const std::uint64_t bytes = block_bytes();
  const auto start = std::chrono::steady_clock::now();
  void* to = std::malloc(bytes);
  if (to == nullptr) std::abort();
  // The same page advice the library gives its own blocks, so that the ratio compares the
  // work and not the page size.
  advise_huge_pages(to, bytes);
  std::memcpy(to, from, bytes);
  benchmark::ClobberMemory();
  const double s = elapsed_since(start);
  benchmark::DoNotOptimize(to);
  std::free(to);
  return s;
}

// First touch of fresh pages dominates all three cases, and its cost drifts with the load of a
// shared machine, so each call is paired with a memcpy timed right beside it (in alternating
// order); the ratio is taken over these pairs.
template <class Timed>
void run_paired(benchmark::State& state, const char* label, Timed&& timed) {
  Totals& t = totals()[label];
  for (auto _ : state) {
    double s, m;
    if (t.iterations % 2 == 0) {
      s = timed();
      m = time_memcpy_fresh();
    } else {
      m = time_memcpy_fresh();
      s = timed();
    }
    state.SetIterationTime(s);
    t.seconds += s;
    t.paired_memcpy_seconds += m;
    ++t.iterations;
  }
  set_rate_counters(state);
  state.counters["x_memcpy"] = t.seconds / t.paired_memcpy_seconds;
}

void BM_BulkAdd(benchmark::State& state) {
  const BulkInput& in = input();
  run_paired(state, "bulk", [&] {
    zorp_expr* e = zorp_expr_create();
    const auto start = std::chrono::steady_clock::now();
    zorp_expr_iadd_terms_bulk(e, 0, kTerms, in.coeffs.data(), in.degrees.data(), in.vars.data());
    const double s = elapsed_since(start);
    benchmark::DoNotOptimize(e);
    zorp_expr_destroy(e);
    return s;
  });
}

void BM_Clone(benchmark::State& state) {
  const zorp_expr* source = built();
  run_paired(state, "clone", [&] {
    const auto start = std::chrono::steady_clock::now();
    zorp_expr* copy = zorp_expr_clone(source);
    const double s = elapsed_since(start);
    benchmark::DoNotOptimize(copy);
    zorp_expr_destroy(copy);
    return s;
  });
}

void BM_MemcpyFresh(benchmark::State& state) { run_manual(state, "memcpy", time_memcpy_fresh); }

// The same two without page faults, to show how much of the above is the first touch of fresh
// memory: the copy into a block written once beforehand, and the bulk fill into an expression
// whose block was reserved and written the same way. Both destinations are reused.
void BM_MemcpyTouched(benchmark::State& state) {
  const void* from = impl(built())->rest;
  const std::uint64_t bytes = block_bytes();
  std::vector<unsigned char> to(bytes, 1);
  run_manual(state, "memcpy touched", [&] {
    const auto start = std::chrono::steady_clock::now();
    std::memcpy(to.data(), from, bytes);
    benchmark::ClobberMemory();
    return elapsed_since(start);
  });
}

void BM_BulkAddTouched(benchmark::State& state) {
  const BulkInput& in = input();
  ExprImpl e;
  e.reserve_rest(kTerms);
  std::memset(static_cast<void*>(e.rest), 1, kTerms * sizeof(TermImpl));
  run_manual(state, "bulk touched", [&] {
    e.rest_size = 0;
    const auto start = std::chrono::steady_clock::now();
    e.add_terms_bulk(kTerms, in.coeffs.data(), in.degrees.data(), in.vars.data());
    benchmark::ClobberMemory();
    return elapsed_since(start);
  });
}

void configure(benchmark::internal::Benchmark* b) {
  b->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(static_cast<benchmark::IterationCount>(kRepeats));
}

BENCHMARK(BM_MemcpyFresh)->Apply(configure);
BENCHMARK(BM_BulkAdd)->Apply(configure);
BENCHMARK(BM_Clone)->Apply(configure);
BENCHMARK(BM_MemcpyTouched)->Apply(configure);
BENCHMARK(BM_BulkAddTouched)->Apply(configure);

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  std::printf("%llu degree-2 terms, %.0f MiB term block, %u threads\n", static_cast<unsigned long long>(kTerms),
              static_cast<double>(kTerms * sizeof(TermImpl)) / (1024.0 * 1024.0), thread_number());
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  const double terms = static_cast<double>(kTerms);
  auto rate = [&](const Totals& t) { return terms * static_cast<double>(t.iterations) / t.seconds; };
  // A filter may leave cases out; each line needs only its own.
  for (const auto& [label, goal] : {std::pair{"bulk", 3.0}, std::pair{"clone", 1.5}}) {
    const auto found = totals().find(label);
    if (found == totals().end() || found->second.iterations == 0) continue;
    const Totals& t = found->second;
    const double memcpy_rate = terms * static_cast<double>(t.iterations) / t.paired_memcpy_seconds;
    std::printf("%s: %.0f terms/s; memcpy into fresh memory beside it: %.0f terms/s; ratio %.2fx (goal <= %.1fx)\n",
                label, rate(t), memcpy_rate, t.seconds / t.paired_memcpy_seconds, goal);
  }
  const auto touched = totals().find("memcpy touched"), bulk_touched = totals().find("bulk touched");
  if (touched != totals().end() && bulk_touched != totals().end())
    std::printf("without page faults: iadd_terms_bulk %.0f terms/s; memcpy %.0f terms/s; ratio %.2fx\n",
                rate(bulk_touched->second), rate(touched->second),
                (bulk_touched->second.seconds / static_cast<double>(bulk_touched->second.iterations)) /
                    (touched->second.seconds / static_cast<double>(touched->second.iterations)));
  return 0;
}
