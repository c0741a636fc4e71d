// Simplification against its own lower bound: zorp_expr_simplify_as_binary of random
// quadratic terms next to a bare sort of the same terms in the same run. The goal is at
// most 1.5 times the sort. Positive literals are the goal's case; with a quarter of the
// literals negated, the linear terms given off add a second sort.
//
// ZORP_BENCH_TERMS (default 50000000) and ZORP_BENCH_VARS (default 10000) set the size;
// ZORP_BENCH_REPEATS (default 3) the timed repetitions of each case.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "algebra/handles.h"
#include "algebra/merge.h"
#include "bench_support.h"
#include "frame/parallel.h"
#include "zorp/expr.h"

// The sort's temporary buffer comes from std::get_temporary_buffer, deprecated since C++17.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
#include <boost/sort/block_indirect_sort/block_indirect_sort.hpp>
#pragma GCC diagnostic pop

namespace {

using namespace zorp;
using zorp::bench::env_count;

const std::uint64_t kTerms = env_count("ZORP_BENCH_TERMS", 50'000'000);
const std::uint32_t kVars = static_cast<std::uint32_t>(env_count("ZORP_BENCH_VARS", 10'000));
const std::uint64_t kRepeats = env_count("ZORP_BENCH_REPEATS", 3);

// Random degree-2 terms with non-zero coefficients in [-5, 5], `negated_percent` percent of
// the literals negated. Built once per shape.
const ExprImpl& source(unsigned negated_percent) {
  static std::map<unsigned, ExprImpl> made;
  auto found = made.find(negated_percent);
  if (found != made.end()) return found->second;
  ExprImpl e = ExprImpl::with_positions(kTerms);
  std::mt19937_64 rng(42 + negated_percent);
  std::uniform_int_distribution<std::uint32_t> variable(0, kVars - 1), percent(0, 99);
  std::uniform_int_distribution<int> coefficient(-5, 5);
  for (std::uint64_t p = 0; p < kTerms; ++p) {
    TermImpl t = make_term(0);
    while (t.coefficient == 0) t.coefficient = static_cast<coeff_t>(coefficient(rng));
    for (unsigned k = 0; k < 2; ++k) {
      const std::uint32_t v = variable(rng);
      t.vars.slot[k] = percent(rng) < negated_percent ? negate_literal(v) : v;
    }
    e.at_position(p) = t;
  }
  return made.emplace(negated_percent, std::move(e)).first->second;
}

std::vector<TermImpl> terms_of(const ExprImpl& e) {
  std::vector<TermImpl> terms;
  terms.reserve(e.term_count());
  e.for_each_term([&](const TermImpl& t) { terms.push_back(t); });
  return terms;
}

double seconds_to_sort(const ExprImpl& e) {
  std::vector<TermImpl> terms = terms_of(e);
  const double start = bench::now_seconds();
  sort_terms(terms.data(), terms.data() + terms.size(), thread_number());
  const double s = bench::now_seconds() - start;
  benchmark::DoNotOptimize(terms.data());
  return s;
}

double seconds_to_sort_scanning(const ExprImpl& e) {
  std::vector<TermImpl> terms = terms_of(e);
  const double start = bench::now_seconds();
  const auto less = [](const TermImpl& a, const TermImpl& b) { return term_less(a, b); };
  boost::sort::blk_detail::block_indirect_sort<1024, 64, TermImpl*, decltype(less)>(
      terms.data(), terms.data() + terms.size(), less, thread_number());
  const double s = bench::now_seconds() - start;
  benchmark::DoNotOptimize(terms.data());
  return s;
}

double seconds_to_simplify(const ExprImpl& e) {
  const double start = bench::now_seconds();
  zorp_expr* result = zorp_expr_simplify_as_binary(reinterpret_cast<const zorp_expr*>(&e));
  const double s = bench::now_seconds() - start;
  benchmark::DoNotOptimize(result);
  zorp_expr_destroy(result);
  return s;
}

struct Pair {
  double subject = 0;
  double baseline = 0;
  double ratio = 0;
};
// Medians per case, printed at the end.
std::map<std::string, Pair>& results() {
  static std::map<std::string, Pair> r;
  return r;
}

// Each iteration times the baseline and then the subject, back to back: on a shared machine
// the load changes over minutes, and a pair sees the same load. Medians absorb the stalls.
template <class Subject, class Baseline>
void run_pairs(benchmark::State& state, const std::string& name, Subject&& subject, Baseline&& baseline) {
  std::vector<double> subjects, baselines, ratios;
  for (auto _ : state) {
    baselines.push_back(baseline());
    subjects.push_back(subject());
    ratios.push_back(subjects.back() / baselines.back());
    state.SetIterationTime(subjects.back());
  }
  const Pair medians{bench::median(subjects), bench::median(baselines), bench::median(ratios)};
  results()[name] = medians;
  state.counters["terms_per_s"] = static_cast<double>(kTerms) / medians.subject;
  state.counters["baseline_terms_per_s"] = static_cast<double>(kTerms) / medians.baseline;
  state.counters["ratio"] = medians.ratio;
}

// Simplification against the sort it cannot avoid, the latter on a copy made untimed.
void BM_SimplifyAsBinaryVsSort(benchmark::State& state) {
  const ExprImpl& e = source(static_cast<unsigned>(state.range(0)));
  run_pairs(
      state, "simplify_as_binary vs bare sort, negated " + std::to_string(state.range(0)) + "%",
      [&] { return seconds_to_simplify(e); }, [&] { return seconds_to_sort(e); });
}

// The term sort with the slot-scanning comparator against the branch-light one.
void BM_ScanningComparatorVsSort(benchmark::State& state) {
  const ExprImpl& e = source(static_cast<unsigned>(state.range(0)));
  run_pairs(
      state, "sort with scanning comparator vs bare sort", [&] { return seconds_to_sort_scanning(e); },
      [&] { return seconds_to_sort(e); });
}

void timed(benchmark::internal::Benchmark* b) {
  b->ArgName("negated_percent")->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(
      static_cast<benchmark::IterationCount>(kRepeats));
}

BENCHMARK(BM_SimplifyAsBinaryVsSort)->Apply(timed)->Arg(0)->Arg(25);
BENCHMARK(BM_ScanningComparatorVsSort)->Apply(timed)->Arg(0);

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  std::printf("%llu terms over %u variables, %u threads\n", static_cast<unsigned long long>(kTerms), kVars,
              thread_number());
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  for (const auto& [name, r] : results()) {
    std::printf("%s (medians): %.0f vs %.0f terms/s, ratio %.2fx\n", name.c_str(), static_cast<double>(kTerms) / r.subject,
                static_cast<double>(kTerms) / r.baseline, r.ratio);
  }
  std::printf("goal: simplify_as_binary within 1.5x the bare sort\n");
  return 0;
}
