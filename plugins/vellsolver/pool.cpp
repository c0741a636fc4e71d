#include "pool.h"

#include <algorithm>
#include <cstring>
#include <limits>

namespace vell {

ElitePool::ElitePool(std::uint32_t n, bool complement_symmetric, const PoolConfig& config)
    : n_(n), complement_symmetric_(complement_symmetric), config_(config),
      min_distance_(static_cast<std::uint32_t>(config.min_distance * n)) {}

std::uint32_t ElitePool::raw_distance(const std::uint8_t* a, const std::uint8_t* b) const {
  std::uint32_t d = 0;
  for (std::uint32_t i = 0; i < n_; ++i) d += a[i] != b[i];
  return d;
}

std::uint32_t ElitePool::distance(const std::uint8_t* a, const std::uint8_t* b) const {
  const std::uint32_t d = raw_distance(a, b);
  return complement_symmetric_ ? std::min(d, n_ - d) : d;
}

void ElitePool::offer(std::int64_t e, const std::uint8_t* x) {
  std::lock_guard<std::mutex> lock(mu_);
  ++runs_;
  if (!has_best_ || e < best_e_) {
    has_best_ = true;
    best_e_ = e;
    best_run_ = runs_;
  } else if (runs_ - best_run_ > std::max<std::uint64_t>(config_.epoch_min_runs,
                                                         static_cast<std::uint64_t>(config_.epoch_factor * best_run_))) {
    elite_.clear();
    runs_ = 0;
    best_run_ = 0;
    has_best_ = false;
    epoch_.fetch_add(1, std::memory_order_relaxed);
    return;
  }

  Elite* nearest = nullptr;
  std::uint32_t nearest_d = std::numeric_limits<std::uint32_t>::max();
  for (Elite& el : elite_) {
    const std::uint32_t d = distance(el.x.data(), x);
    if (d < nearest_d) {
      nearest_d = d;
      nearest = &el;
    }
  }
  if (nearest && nearest_d == 0) return;
  if (nearest && nearest_d < min_distance_) {
    if (e < nearest->energy) {
      nearest->energy = e;
      nearest->x.assign(x, x + n_);
    }
    return;
  }
  if (elite_.size() < config_.capacity) {
    elite_.push_back({e, std::vector<std::uint8_t>(x, x + n_)});
    return;
  }
  auto worst = std::max_element(elite_.begin(), elite_.end(),
                                [](const Elite& l, const Elite& r) { return l.energy < r.energy; });
  if (e <= worst->energy) {
    worst->energy = e;
    worst->x.assign(x, x + n_);
  }
}

bool ElitePool::pick(Rng& rng, std::uint8_t* x, std::int64_t& e) {
  std::lock_guard<std::mutex> lock(mu_);
  if (elite_.empty()) return false;
  const Elite& el = elite_[rng.below(static_cast<std::uint32_t>(elite_.size()))];
  std::memcpy(x, el.x.data(), n_);
  e = el.energy;
  return true;
}

bool ElitePool::pick_pair(Rng& rng, std::uint8_t* a, std::uint8_t* b) {
  std::lock_guard<std::mutex> lock(mu_);
  if (elite_.size() < 2) return false;
  const auto size = static_cast<std::uint32_t>(elite_.size());
  const std::uint32_t i = rng.below(size);
  std::uint32_t j = rng.below(size - 1);
  if (j >= i) ++j;
  std::memcpy(a, elite_[i].x.data(), n_);
  std::memcpy(b, elite_[j].x.data(), n_);
  return true;
}

std::size_t ElitePool::size() {
  std::lock_guard<std::mutex> lock(mu_);
  return elite_.size();
}

}  // namespace vell
