// Simulated annealing over one-flip moves, the engine for models too large for the tabu
// step's full best-move scan. A sweep visits every variable in index order and applies the
// Metropolis rule to the gain the state already keeps: a rejected move costs a read and a
// compare (against a per-temperature table of acceptance thresholds), an accepted one the
// state's incremental gain updates. The temperature falls geometrically from where a typical
// uphill move is taken half of the time to where the smallest uphill move is rare. Anneals
// repeat from a full reheat, each twice as long as the one before, so that short time
// limits still finish an anneal and long ones get long anneals; only the last one is sized
// by the clock, to end with the time limit instead of being cut off while still hot.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <vector>

#include "common.h"
#include "compiled.h"
#include "results.h"
#include "walk_best.h"

namespace vell {

struct AnnealTuning {
  std::uint32_t first_sweeps = 64;  // sweeps of the first anneal; each later one doubles
  std::uint32_t min_sweeps = 16;    // the clock-sized last anneal is never shorter
  double start_accept = 0.5;        // acceptance of a typical uphill move at the start
  double end_accept = 1e-3;         // acceptance of the smallest uphill move at the end
  std::uint32_t sample = 4096;      // gains sampled for the typical uphill move
  std::uint32_t polish_sweeps = 64;  // greedy sweeps at most after each anneal
};

struct AnnealStats {
  std::uint64_t flips = 0;
  std::uint64_t evaluated = 0;
  std::uint64_t sweeps = 0;
  std::uint64_t anneals = 0;
  double t_start = 0.0;
  double t_end = 0.0;
};

template <class State>
class Annealer {
 public:
  Annealer(const Compiled& c, Shared& shared, const AnnealTuning& tune, std::uint64_t seed)
      : c_(c), sh_(shared), tune_(tune), rng_(seed), st_(c, rng_), n_(c.n) {
    best_.resize(n_);
    collect_ = sh_.collects();
  }

  // `from_hint`: the start is a given state worth refining, so the first anneal starts cooler.
  void run(const std::uint8_t* start, bool from_hint) {
    st_.load(start);
    const std::int64_t e = sgn(st_.energy());
    sh_.offer(e, st_.x(), st_.constraints_met());
    if (n_ == 0 || sh_.stopped()) return;
    pick_temperatures();
    std::uint64_t sweeps = tune_.first_sweeps;
    bool hot = !from_hint;
    while (!should_stop()) {
      const double began = sh_.elapsed();
      const std::uint64_t done_before = stats_.sweeps;
      anneal(sweeps, hot ? t_start_ : std::sqrt(t_start_ * t_end_));
      polish();
      publish();
      ++stats_.anneals;
      hot = true;
      if (sh_.stopped()) break;
      // The next anneal doubles, unless the clock would cut it off before it cools.
      const double per_sweep = (sh_.elapsed() - began) / static_cast<double>(std::max<std::uint64_t>(1, stats_.sweeps - done_before));
      sweeps *= 2;
      const double left = std::max(0.0, sh_.remaining());
      if (per_sweep > 0 && static_cast<double>(sweeps) * per_sweep > left)
        sweeps = std::max<std::uint64_t>(tune_.min_sweeps, static_cast<std::uint64_t>(0.95 * left / per_sweep));
    }
  }

  const AnnealStats& stats() const { return stats_; }

 private:
  static constexpr std::uint32_t kTable = 2048;
  // exp(-23) is below 2^-32: moves further uphill than this many temperatures never pass.
  static constexpr double kCutoff = 23.0;

  bool should_stop() {
    if (sh_.stopped()) return true;
    if (sh_.time_up()) {
      sh_.stop();
      return true;
    }
    return false;
  }

  // Temperatures from the gains of the start state: the median uphill gain of a sample
  // gives the start, the least non-zero gain magnitude of all variables the end.
  void pick_temperatures() {
    std::vector<double> up;
    const std::uint32_t count = std::min(n_, tune_.sample);
    up.reserve(count);
    for (std::uint32_t k = 0; k < count; ++k) {
      const std::int64_t g = st_.delta(count == n_ ? k : rng_.below(n_));
      if (g != 0) up.push_back(std::fabs(static_cast<double>(g)));
    }
    double least = 0;
    for (std::uint32_t i = 0; i < n_; ++i) {
      const std::int64_t g = st_.delta(i);
      if (g == 0) continue;
      const double a = std::fabs(static_cast<double>(g));
      if (least == 0 || a < least) least = a;
    }
    if (least == 0) least = 1;  // no gain anywhere: every temperature is alike
    double typical = least;
    if (!up.empty()) {
      std::nth_element(up.begin(), up.begin() + up.size() / 2, up.end());
      typical = std::max(least, up[up.size() / 2]);
    }
    t_start_ = typical / -std::log(tune_.start_accept);
    t_end_ = least / -std::log(tune_.end_accept);
    if (t_start_ <= t_end_) t_start_ = 10 * t_end_;
    stats_.t_start = t_start_;
    stats_.t_end = t_end_;
  }

  // Thresholds on a 32-bit random draw for gains in buckets of 2^shift_, each at its middle.
  void set_temperature(double t) {
    shift_ = 0;
    while (shift_ < 52 && static_cast<double>(std::uint64_t{kTable} << shift_) < kCutoff * t) ++shift_;
    const double half = (static_cast<double>(std::uint64_t{1} << shift_) - 1) / 2;
    for (std::uint32_t q = 0; q < kTable; ++q) {
      const double g = static_cast<double>(std::uint64_t{q} << shift_) + half;
      const double p = std::exp(-g / t) * 4294967296.0;
      table_[q] = p >= 4294967295.0 ? 0xFFFFFFFFu : static_cast<std::uint32_t>(p);
    }
  }

  void start_run() {
    best_.restart(st_.x(), sgn(st_.energy()));
  }

  void anneal(std::uint64_t sweeps, double t_from) {
    start_run();
    const double ratio = sweeps > 1 ? std::pow(t_end_ / t_from, 1.0 / static_cast<double>(sweeps - 1)) : 1.0;
    double t = t_from;
    for (std::uint64_t s = 0; s < sweeps; ++s, t *= ratio) {
      set_temperature(t);
      if (!sweep(false)) return;
      publish();
      if (should_stop()) return;
    }
  }

  // Greedy sweeps down to a one-flip local minimum.
  void polish() {
    for (std::uint32_t s = 0; s < tune_.polish_sweeps && !sh_.stopped(); ++s) {
      const std::uint64_t before = stats_.flips;
      if (!sweep(true)) return;
      publish();
      if (stats_.flips == before) return;
    }
  }

  // One pass over the variables; false when the search must stop.
  bool sweep(bool greedy) {
    ++stats_.sweeps;
    stats_.evaluated += n_;
    for (std::uint32_t i = 0; i < n_; ++i) {
      const std::int64_t g = st_.free_delta(i);
      if (greedy) {
        if (g >= 0) continue;
      } else if (g > 0) {
        const std::uint64_t q = static_cast<std::uint64_t>(g) >> shift_;
        if (q >= kTable || static_cast<std::uint32_t>(rng_.next() >> 32) >= table_[q]) continue;
      }
      if (!accept(i)) return false;
    }
    // Lists of several solutions take the state each sweep ends in besides the sweep's best:
    // offering every visited state would copy the whole state at each flip.
    const std::int64_t e = sgn(st_.energy());
    if (collect_ && sh_.wants(e)) sh_.offer(e, st_.x(), st_.constraints_met());
    return true;
  }

  bool accept(std::uint32_t i) {
    st_.flip(i);
    ++stats_.flips;
    const std::int64_t e = sgn(st_.energy());
    if (best_.after_flip(i, st_.x(), e) && !dirty_ && sh_.wants(e)) {
      dirty_ = true;
      found_at_ = sh_.elapsed();
    }
    if (sh_.reaches_target(e)) sh_.offer(e, st_.x(), st_.constraints_met());
    work_ += st_.flip_cost(i) + 1;
    if (work_ >= next_check_) {
      next_check_ = work_ + (1u << 16);
      if (should_stop()) return false;
    }
    return !sh_.stopped();
  }

  // Offers the anneal's best, once per sweep at most: each offer copies the whole state.
  void publish() {
    if (!dirty_) return;
    dirty_ = false;
    if (sh_.wants(best_.energy())) sh_.offer(best_.energy(), best_.x(), false, found_at_);
  }

  const Compiled& c_;
  Shared& sh_;
  const AnnealTuning& tune_;
  Rng rng_;
  State st_;
  std::uint32_t n_;
  bool collect_ = false;

  double t_start_ = 1.0;
  double t_end_ = 1.0;
  unsigned shift_ = 0;
  std::uint32_t table_[kTable] = {};

  WalkBest best_;
  bool dirty_ = false;
  double found_at_ = 0.0;

  std::uint64_t work_ = 0;
  std::uint64_t next_check_ = 1u << 16;
  AnnealStats stats_;
};

}  // namespace vell
