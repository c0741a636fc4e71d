// The elite pool the workers of one search restart from. It holds a few distinct good states,
// keeps them apart (a newcomer close to a member can only replace that member), and ends an
// epoch when the pool has stopped improving for long compared with how long its last gain
// took: the pool is then emptied and the workers start again from fresh states, which beats
// recombining a population that has converged on one region.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <vector>

#include "common.h"

namespace vell {

struct PoolConfig {
  std::size_t capacity = 10;
  double min_distance = 0.02;  // as a share of the variables
  std::uint64_t epoch_min_runs = 100;
  double epoch_factor = 2.0;
};

class ElitePool {
 public:
  ElitePool(std::uint32_t n, bool complement_symmetric, const PoolConfig& config);

  // Hamming distance, up to complement when the model cannot tell a state from its complement.
  std::uint32_t distance(const std::uint8_t* a, const std::uint8_t* b) const;
  std::uint32_t raw_distance(const std::uint8_t* a, const std::uint8_t* b) const;
  bool complement_symmetric() const { return complement_symmetric_; }

  // Offers the best state of a finished run.
  void offer(std::int64_t e, const std::uint8_t* x);
  bool pick(Rng& rng, std::uint8_t* x, std::int64_t& e);
  bool pick_pair(Rng& rng, std::uint8_t* a, std::uint8_t* b);
  std::size_t size();
  std::uint64_t epoch() const { return epoch_.load(std::memory_order_relaxed); }

 private:
  struct Elite {
    std::int64_t energy;
    std::vector<std::uint8_t> x;
  };

  std::uint32_t n_;
  bool complement_symmetric_;
  PoolConfig config_;
  std::uint32_t min_distance_;
  std::mutex mu_;
  std::vector<Elite> elite_;
  std::atomic<std::uint64_t> epoch_{0};
  std::uint64_t runs_ = 0;
  std::uint64_t best_run_ = 0;
  std::int64_t best_e_ = 0;
  bool has_best_ = false;
};

}  // namespace vell
