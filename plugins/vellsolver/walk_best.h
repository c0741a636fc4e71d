// The best state met by one walk, kept through a log of the flips made since it was last met:
// an improving step then costs the log's length instead of a copy of the whole state.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <vector>

namespace vell {

class WalkBest {
 public:
  void resize(std::uint32_t n) {
    n_ = n;
    x_.assign(n, 0);
    log_.reserve(std::min<std::uint32_t>(n, 1u << 16));
  }

  // The walk's record starts again at its current state.
  void restart(const std::uint8_t* x, std::int64_t energy) {
    energy_ = energy;
    std::memcpy(x_.data(), x, n_);
    log_.clear();
    overflow_ = false;
  }

  // After the walk flipped `v` and reached `x` with `energy`: true when that is a new best.
  // Past n logged flips a copy is cheaper than replaying the log, so the log is dropped.
  bool after_flip(std::uint32_t v, const std::uint8_t* x, std::int64_t energy) {
    if (energy < energy_) {
      energy_ = energy;
      if (overflow_) {
        std::memcpy(x_.data(), x, n_);
      } else {
        for (std::uint32_t u : log_) x_[u] ^= 1;
        x_[v] ^= 1;
      }
      log_.clear();
      overflow_ = false;
      return true;
    }
    if (!overflow_) {
      if (log_.size() < n_) {
        log_.push_back(v);
      } else {
        overflow_ = true;
        log_.clear();
      }
    }
    return false;
  }

  std::int64_t energy() const { return energy_; }
  const std::uint8_t* x() const { return x_.data(); }

 private:
  std::uint32_t n_ = 0;
  std::vector<std::uint8_t> x_;
  std::int64_t energy_ = 0;
  std::vector<std::uint32_t> log_;
  bool overflow_ = false;
};

}  // namespace vell
