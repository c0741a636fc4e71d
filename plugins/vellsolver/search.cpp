#include "search.h"

#include <cstdio>
#include <system_error>
#include <thread>

#include "engine.h"
#include "general_state.h"
#include "qubo_state.h"

namespace vell {

namespace {

// Worker w searches with its own stream seeds[w]; the first one starts from the hint when
// there is one, the others from random states.
template <class State>
std::vector<WorkerStats> run_workers(const Compiled& c, Shared& shared, ElitePool& pool, const Tuning& tune,
                                     const std::vector<std::uint64_t>& seeds, const std::uint64_t* hint) {
  const std::size_t count = seeds.size();
  std::vector<WorkerStats> stats(count);
  auto body = [&](std::size_t w) {
    std::vector<std::uint8_t> start(c.n);
    if (w == 0 && hint) {
      unpack_bits(hint, c.n, start.data());
    } else {
      Rng start_rng(seeds[w] ^ 0x5DEECE66Dull);
      for (std::uint8_t& b : start) b = static_cast<std::uint8_t>(start_rng.next() >> 63);
    }
    Worker<State> worker(c, shared, pool, tune, seeds[w]);
    worker.run(start.data());
    stats[w] = worker.stats();
  };
  std::vector<std::thread> threads;
  threads.reserve(count - 1);
  try {
    for (std::size_t w = 1; w < count; ++w) threads.emplace_back(body, w);
  } catch (const std::system_error&) {
    // The system refused a thread: the ones running share the search.
  }
  body(0);
  for (std::thread& t : threads) t.join();
  return stats;
}

}  // namespace

SearchOutcome run_search(const Problem& problem, const Compiled& compiled, const SearchOptions& options,
                         const std::uint64_t* hint) {
  const std::uint32_t n = compiled.n;
  const Tuning tune;
  Shared shared(problem, options);
  ElitePool pool(n, compiled.complement_symmetric, tune.pool);

  const std::uint32_t count = std::max<std::uint32_t>(1, options.threads);
  std::vector<std::uint64_t> seeds(count);
  std::uint64_t chain = options.seed;
  for (std::uint64_t& s : seeds) s = splitmix64(chain);

  std::vector<WorkerStats> stats;
  const char* path = "general";
  const char* gain_bits = "64";
  if (QuboState<std::int32_t>::fits(compiled)) {
    stats = run_workers<QuboState<std::int32_t>>(compiled, shared, pool, tune, seeds, hint);
    path = "quadratic";
    gain_bits = "32";
  } else if (QuboState<std::int64_t>::fits(compiled)) {
    stats = run_workers<QuboState<std::int64_t>>(compiled, shared, pool, tune, seeds, hint);
    path = "quadratic";
  } else {
    stats = run_workers<GeneralState>(compiled, shared, pool, tune, seeds, hint);
  }
  const double seconds = shared.elapsed();

  SearchOutcome out;
  out.best = shared.best();
  std::vector<std::uint8_t> x(n);
  unpack_bits(out.best.bits.data(), n, x.data());
  out.best.energy = sgn(problem.energy(x.data()));
  out.list = shared.collected();

  WorkerStats total;
  for (const WorkerStats& s : stats) {
    total.flips += s.flips;
    total.evaluated += s.evaluated;
    total.restarts += s.restarts;
    total.crossovers += s.crossovers;
    total.walks += s.walks;
    total.epochs += s.epochs;
  }
  auto num = [](double v) {
    char buf[64];
    std::snprintf(buf, sizeof buf, "%.6g", v);
    return std::string(buf);
  };
  const double rate = seconds > 0 ? static_cast<double>(total.evaluated) / seconds : 0.0;
  out.info = {
      {"algorithm", "tabu search with elite crossover and restarts"},
      {"path", path},
      {"threads", std::to_string(count)},
      {"flips", std::to_string(total.flips)},
      {"restarts", std::to_string(total.restarts)},
      {"crossovers", std::to_string(total.crossovers)},
      {"walks", std::to_string(total.walks)},
      {"epochs", std::to_string(total.epochs)},
      {"evaluated_moves", std::to_string(total.evaluated)},
      {"moves_per_second", num(rate)},
      {"moves_per_second_per_thread", num(rate / count)},
      {"seconds", num(seconds)},
      {"best_energy", std::to_string(out.best.energy)},
      {"time_to_best", num(out.best.tts)},
      {"target_reached", shared.target_reached() ? "1" : "0"},
      {"list_limited", shared.limited() ? "1" : "0"},
      {"gain_bits", gain_bits},
  };
  return out;
}

}  // namespace vell
