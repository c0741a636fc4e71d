#include "search.h"

#include <cstdio>
#include <system_error>
#include <thread>

#include "anneal.h"
#include "engine.h"
#include "general_state.h"
#include "qubo_state.h"

namespace vell {

namespace {

// Above this many variables the tabu step can no longer scan every move (it samples a window
// instead and stalls far from good states); annealing's cost per move does not grow with the
// model, so it takes over there.
constexpr std::uint32_t kAnnealAbove = 32768;

// Thread w searches with its own stream seeds[w]; the first one starts from the hint when
// there is one, the others from random states. `work(w, start, from_hint)` runs one thread.
template <class Work>
void run_threads(std::uint32_t n, const std::vector<std::uint64_t>& seeds, const std::uint64_t* hint, Work&& work) {
  const std::size_t count = seeds.size();
  auto body = [&](std::size_t w) {
    std::vector<std::uint8_t> start(n);
    const bool from_hint = w == 0 && hint;
    if (from_hint) {
      unpack_bits(hint, n, start.data());
    } else {
      Rng start_rng(seeds[w] ^ 0x5DEECE66Dull);
      for (std::uint8_t& b : start) b = static_cast<std::uint8_t>(start_rng.next() >> 63);
    }
    work(w, start.data(), from_hint);
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
}

template <class State>
std::vector<WorkerStats> run_tabu(const Compiled& c, Shared& shared, ElitePool& pool, const Tuning& tune,
                                  const std::vector<std::uint64_t>& seeds, const std::uint64_t* hint) {
  std::vector<WorkerStats> stats(seeds.size());
  run_threads(c.n, seeds, hint, [&](std::size_t w, const std::uint8_t* start, bool) {
    Worker<State> worker(c, shared, pool, tune, seeds[w]);
    worker.run(start);
    stats[w] = worker.stats();
  });
  return stats;
}

template <class State>
std::vector<AnnealStats> run_anneal(const Compiled& c, Shared& shared, const AnnealTuning& tune,
                                    const std::vector<std::uint64_t>& seeds, const std::uint64_t* hint) {
  std::vector<AnnealStats> stats(seeds.size());
  run_threads(c.n, seeds, hint, [&](std::size_t w, const std::uint8_t* start, bool from_hint) {
    Annealer<State> chain(c, shared, tune, seeds[w]);
    chain.run(start, from_hint);
    stats[w] = chain.stats();
  });
  return stats;
}

template <class State>
void run_engine(bool anneal, const Compiled& c, Shared& shared, ElitePool& pool, const Tuning& tune,
                const AnnealTuning& anneal_tune, const std::vector<std::uint64_t>& seeds, const std::uint64_t* hint,
                std::vector<WorkerStats>& tabu_stats, std::vector<AnnealStats>& anneal_stats) {
  if (anneal) {
    anneal_stats = run_anneal<State>(c, shared, anneal_tune, seeds, hint);
  } else {
    tabu_stats = run_tabu<State>(c, shared, pool, tune, seeds, hint);
  }
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

  const AnnealTuning anneal_tune;
  const bool anneal = n > kAnnealAbove;
  std::vector<WorkerStats> stats;
  std::vector<AnnealStats> anneal_stats;
  const char* path = "general";
  const char* gain_bits = "64";
  if (QuboState<std::int32_t>::fits(compiled)) {
    run_engine<QuboState<std::int32_t>>(anneal, compiled, shared, pool, tune, anneal_tune, seeds, hint, stats,
                                        anneal_stats);
    path = "quadratic";
    gain_bits = "32";
  } else if (QuboState<std::int64_t>::fits(compiled)) {
    run_engine<QuboState<std::int64_t>>(anneal, compiled, shared, pool, tune, anneal_tune, seeds, hint, stats,
                                        anneal_stats);
    path = "quadratic";
  } else {
    run_engine<GeneralState>(anneal, compiled, shared, pool, tune, anneal_tune, seeds, hint, stats, anneal_stats);
  }
  const double seconds = shared.elapsed();

  SearchOutcome out;
  out.best = shared.best();
  std::vector<std::uint8_t> x(n);
  unpack_bits(out.best.bits.data(), n, x.data());
  out.best.energy = sgn(problem.energy(x.data()));
  out.list = shared.collected();

  auto num = [](double v) {
    char buf[64];
    std::snprintf(buf, sizeof buf, "%.6g", v);
    return std::string(buf);
  };
  WorkerStats total;
  AnnealStats cool;
  for (const AnnealStats& s : anneal_stats) {
    total.flips += s.flips;
    total.evaluated += s.evaluated;
    cool.sweeps += s.sweeps;
    cool.anneals += s.anneals;
  }
  if (!anneal_stats.empty()) {
    cool.t_start = anneal_stats[0].t_start;
    cool.t_end = anneal_stats[0].t_end;
    // A reheat is every anneal after a chain's first.
    total.restarts = cool.anneals - std::min<std::uint64_t>(cool.anneals, anneal_stats.size());
  }
  for (const WorkerStats& s : stats) {
    total.flips += s.flips;
    total.evaluated += s.evaluated;
    total.restarts += s.restarts;
    total.crossovers += s.crossovers;
    total.walks += s.walks;
    total.epochs += s.epochs;
  }
  const double rate = seconds > 0 ? static_cast<double>(total.evaluated) / seconds : 0.0;
  out.info = {
      {"algorithm", anneal ? "simulated annealing, one chain per thread, geometric schedule with reheats"
                           : "tabu search with elite crossover and restarts"},
      {"path", path},
      {"threads", std::to_string(count)},
      {"flips", std::to_string(total.flips)},
      {"restarts", std::to_string(total.restarts)},
  };
  if (anneal) {
    out.info.insert(out.info.end(), {
        {"anneals", std::to_string(cool.anneals)},
        {"sweeps", std::to_string(cool.sweeps)},
        {"temperature_start", num(cool.t_start)},
        {"temperature_end", num(cool.t_end)},
        {"sweeps_per_second_per_thread", num(seconds > 0 ? static_cast<double>(cool.sweeps) / seconds / count : 0.0)},
    });
  } else {
    out.info.insert(out.info.end(), {
        {"crossovers", std::to_string(total.crossovers)},
        {"walks", std::to_string(total.walks)},
        {"epochs", std::to_string(total.epochs)},
    });
  }
  out.info.insert(out.info.end(), {
      {"evaluated_moves", std::to_string(total.evaluated)},
      {"moves_per_second", num(rate)},
      {"moves_per_second_per_thread", num(rate / count)},
      {"seconds", num(seconds)},
      {"best_energy", std::to_string(out.best.energy)},
      {"time_to_best", num(out.best.tts)},
      {"target_reached", shared.target_reached() ? "1" : "0"},
      {"list_limited", shared.limited() ? "1" : "0"},
      {"gain_bits", gain_bits},
  });
  return out;
}

}  // namespace vell
