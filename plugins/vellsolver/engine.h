// One search worker. A run is a tabu search over one-flip moves: each step takes the best
// free move (a tabu move only when it beats the run's best), and the run ends when its best
// has not improved for a stall limit. Between runs the worker mostly recombines two elites of
// the shared pool (uniform crossover), otherwise it perturbs its home state with random flips,
// more of them the longer it fails to improve. The state type supplies gains and flips.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <limits>
#include <vector>

#include "common.h"
#include "compiled.h"
#include "pool.h"
#include "results.h"
#include "walk_best.h"

namespace vell {

struct Tuning {
  // Each run draws its tenure (as a share of the variables) from [tenure_frac,
  // tenure_frac_max], plus up to tenure_rand per move: short tenures intensify, long ones
  // keep the walk from circling, and no single value suits every landscape.
  double tenure_frac = 0.015;
  double tenure_frac_max = 0.06;
  std::uint32_t tenure_rand = 10;
  std::uint64_t depth_min = 5000;  // stall limit: the larger of this and depth_per_var * n
  double depth_per_var = 10.0;
  double perturb_min_frac = 0.02;  // random flips of a perturbation, as a share of n
  double perturb_max_frac = 0.15;
  double crossover = 0.9;           // share of restarts that recombine two elites
  std::uint32_t accept_after = 20;  // failed restarts before a worker leaves its home state
  PoolConfig pool;
};

struct WorkerStats {
  std::uint64_t flips = 0;
  std::uint64_t evaluated = 0;
  std::uint64_t restarts = 0;
  std::uint64_t crossovers = 0;
  std::uint64_t walks = 0;
  std::uint64_t epochs = 0;
};

template <class State>
class Worker {
 public:
  Worker(const Compiled& c, Shared& shared, ElitePool& pool, const Tuning& tune, std::uint64_t seed)
      : c_(c), sh_(shared), pool_(pool), tune_(tune), rng_(seed), st_(c, rng_), n_(c.n) {
    tabu_until_.assign(n_, 0);
    run_best_.resize(n_);
    home_x_.assign(n_, 0);
    base_x_.assign(n_, 0);
    other_x_.assign(n_, 0);
    collect_ = sh_.collects();
    if (collect_) neighbour_.assign(n_, 0);
    choose_tenure(std::max(tune_.tenure_frac, tune_.tenure_frac_max));
    std::uint64_t wheel = 2;
    while (wheel < std::uint64_t{tenure_base_} + tenure_rand_ + 2) wheel *= 2;
    wheel_.resize(wheel);
    wheel_mask_ = wheel - 1;
    depth_ = std::max<std::uint64_t>(tune_.depth_min, static_cast<std::uint64_t>(tune_.depth_per_var * n_));
    check_every_ = 1u << 16;
  }

  void choose_tenure(double frac) {
    tenure_base_ = static_cast<std::uint32_t>(static_cast<double>(n_) * frac);
    tenure_rand_ = tune_.tenure_rand;
    // Far fewer tabu variables than variables, so that a free move always exists.
    const std::uint32_t cap = n_ > 2 ? n_ / 2 : 0;
    if (tenure_base_ + tenure_rand_ > cap) {
      tenure_base_ = std::min(tenure_base_, cap);
      tenure_rand_ = cap - tenure_base_;
    }
    tenure_base_ = std::max<std::uint32_t>(1, tenure_base_);
  }

  void run(const std::uint8_t* start) {
    st_.load(start);
    const std::int64_t e = sgn(st_.energy());
    sh_.offer(e, st_.x(), st_.constraints_met());
    if (n_ == 0) return;
    std::memcpy(home_x_.data(), st_.x(), n_);
    home_e_ = e;
    strength_ = min_strength();
    while (!should_stop()) {
      tabu_run();
      publish_run_best();
      if (sh_.stopped()) break;
      restart();
    }
  }

  const WorkerStats& stats() const { return stats_; }

 private:
  std::uint32_t min_strength() const {
    return std::max<std::uint32_t>(2, static_cast<std::uint32_t>(tune_.perturb_min_frac * n_));
  }
  std::uint32_t max_strength() const {
    return std::max<std::uint32_t>(min_strength(), static_cast<std::uint32_t>(tune_.perturb_max_frac * n_));
  }

  bool should_stop() {
    if (sh_.stopped()) return true;
    if (work_ >= next_check_) {
      next_check_ = work_ + check_every_;
      if (sh_.time_up()) {
        sh_.stop();
        return true;
      }
    }
    return false;
  }

  void clear_tabu() {
    for (std::vector<std::uint32_t>& bucket : wheel_) {
      for (std::uint32_t v : bucket)
        if (st_.tabu(v)) st_.clear_tabu(v);
      bucket.clear();
    }
  }

  void move_to(const std::uint8_t* x) {
    clear_tabu();
    std::uint32_t differ = 0;
    for (std::uint32_t i = 0; i < n_; ++i) differ += x[i] != st_.x()[i];
    if (differ * 4 < n_) {
      for (std::uint32_t i = 0; i < n_; ++i)
        if (x[i] != st_.x()[i]) flip(i);
    } else {
      st_.load(x);
      work_ += c_.row.back() + n_;
    }
  }

  void flip(std::uint32_t i) {
    st_.flip(i);
    ++stats_.flips;
    work_ += st_.flip_cost(i) + 1;
  }

  void note_state() {
    const std::int64_t e = sgn(st_.energy());
    if (sh_.wants(e) || sh_.reaches_target(e)) sh_.offer(e, st_.x(), st_.constraints_met());
  }

  void tabu_run() {
    if (tune_.tenure_frac_max > tune_.tenure_frac)
      choose_tenure(tune_.tenure_frac + (tune_.tenure_frac_max - tune_.tenure_frac) * rng_.unit());
    std::int64_t energy = sgn(st_.energy());
    run_best_.restart(st_.x(), energy);
    std::uint64_t stall = 0;
    while (stall < depth_) {
      if (should_stop()) return;
      ++iter_;
      std::vector<std::uint32_t>& expiring = wheel_[iter_ & wheel_mask_];
      for (std::uint32_t v : expiring)
        if (tabu_until_[v] == iter_ && st_.tabu(v)) st_.clear_tabu(v);
      expiring.clear();

      std::uint32_t move = n_, tabu_move = n_;
      std::int64_t gain = 0, tabu_gain = 0;
      // Every step scans all moves: models too large for that are annealed instead.
      const std::uint32_t count = n_;
      st_.best_moves(0, count, move, gain, tabu_move, tabu_gain);
      if (collect_) harvest(energy, move < n_ ? gain : tabu_gain, tabu_move < n_ ? tabu_gain : gain);
      // Aspiration: a tabu move is taken when it leads past the run's best.
      if (tabu_move < n_ && (move >= n_ || (tabu_gain < gain && plus(energy, tabu_gain) < run_best_.energy())))
        move = tabu_move;
      stats_.evaluated += count;
      work_ += count;
      flip(move);
      energy = sgn(st_.energy());
      if (!st_.tabu(move)) st_.set_tabu(move);
      const std::uint64_t until = iter_ + tenure_base_ + (tenure_rand_ ? rng_.below(tenure_rand_ + 1) : 0);
      tabu_until_[move] = until;
      wheel_[until & wheel_mask_].push_back(move);

      if (run_best_.after_flip(move, st_.x(), energy)) {
        if (!collect_ && sh_.wants(energy)) {
          // Published when the run ends: copying every step of a descent costs O(n) each.
          unpublished_ = true;
          found_at_ = sh_.elapsed();
        }
        stall = 0;
      } else {
        ++stall;
      }
      if ((collect_ && sh_.wants(energy)) || sh_.reaches_target(energy))
        sh_.offer(energy, st_.x(), st_.constraints_met());
    }
  }

  void publish_run_best() {
    if (!unpublished_) return;
    unpublished_ = false;
    if (sh_.wants(run_best_.energy())) sh_.offer(run_best_.energy(), run_best_.x(), false, found_at_);
  }

  // Lists of several solutions take the evaluated neighbours too, not only the visited
  // states: a good state next to the walk is found even if the walk never steps on it.
  void harvest(std::int64_t energy, std::int64_t free_gain, std::int64_t tabu_gain) {
    if (!sh_.wants(plus(energy, std::min(free_gain, tabu_gain)))) return;
    std::memcpy(neighbour_.data(), st_.x(), n_);
    for (std::uint32_t i = 0; i < n_; ++i) {
      const std::int64_t e = plus(energy, st_.delta(i));
      if (!sh_.wants(e)) continue;
      neighbour_[i] ^= 1;
      sh_.offer(e, neighbour_.data(), false);
      neighbour_[i] ^= 1;
    }
  }

  void restart() {
    ++stats_.restarts;
    pool_.offer(run_best_.energy(), run_best_.x());
    if (pool_.epoch() != epoch_) {
      // The pool was reset: start over from a fresh state.
      epoch_ = pool_.epoch();
      ++stats_.epochs;
      for (std::uint32_t i = 0; i < n_; ++i) base_x_[i] = static_cast<std::uint8_t>(rng_.next() >> 63);
      move_to(base_x_.data());
      home_e_ = std::numeric_limits<std::int64_t>::max();
      strength_ = min_strength();
      fails_ = 0;
      note_state();
      return;
    }
    if (run_best_.energy() < home_e_ || fails_ >= tune_.accept_after) {
      if (run_best_.energy() >= home_e_) ++stats_.walks;
      home_e_ = run_best_.energy();
      std::memcpy(home_x_.data(), run_best_.x(), n_);
      strength_ = min_strength();
      fails_ = 0;
    } else {
      ++fails_;
      strength_ = std::min(max_strength(), strength_ + std::max<std::uint32_t>(1, min_strength() / 2));
    }
    if (rng_.unit() < tune_.crossover && pool_.pick_pair(rng_, base_x_.data(), other_x_.data())) {
      ++stats_.crossovers;
      // Uniform crossover: keep what both parents agree on, draw the rest.
      const bool flip_other = pool_.complement_symmetric() && pool_.raw_distance(base_x_.data(), other_x_.data()) * 2 > n_;
      for (std::uint32_t i = 0; i < n_; ++i) {
        const std::uint8_t b = other_x_[i] ^ (flip_other ? 1 : 0);
        if (base_x_[i] != b && (rng_.next() >> 63)) base_x_[i] = b;
      }
      move_to(base_x_.data());
    } else {
      move_to(home_x_.data());
      for (std::uint32_t k = 0; k < strength_; ++k) flip(rng_.below(n_));
    }
    note_state();
  }

  const Compiled& c_;
  Shared& sh_;
  ElitePool& pool_;
  std::uint64_t epoch_ = 0;
  const Tuning& tune_;
  Rng rng_;
  State st_;
  std::uint32_t n_;

  std::vector<std::uint64_t> tabu_until_;
  // Tabu entries by the iteration they expire at, modulo the wheel size.
  std::vector<std::vector<std::uint32_t>> wheel_;
  std::uint64_t wheel_mask_ = 0;
  std::uint32_t tenure_base_ = 0;
  std::uint32_t tenure_rand_ = 0;
  std::uint64_t depth_ = 0;
  std::uint64_t iter_ = 0;

  WalkBest run_best_;
  bool unpublished_ = false;
  double found_at_ = 0.0;

  std::vector<std::uint8_t> home_x_;
  std::int64_t home_e_ = 0;
  std::vector<std::uint8_t> base_x_;
  std::vector<std::uint8_t> other_x_;
  bool collect_ = false;
  std::vector<std::uint8_t> neighbour_;
  std::uint32_t strength_ = 0;
  std::uint32_t fails_ = 0;

  std::uint64_t work_ = 0;
  std::uint64_t next_check_ = 0;
  std::uint64_t check_every_ = 0;
  WorkerStats stats_;
};

}  // namespace vell
