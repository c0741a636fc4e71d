// What the workers of one search share: the stop signal and clock, the best solution and
// the optional k-best and best-energy collections. Workers test one atomic threshold per
// step and take the lock only for states that can change something.
#pragma once

#include <atomic>
#include <cstdint>
#include <limits>
#include <mutex>
#include <map>
#include <unordered_map>
#include <vector>

#include "common.h"
#include "problem.h"

namespace vell {

struct SearchOptions {
  double time_limit = 10.0;
  bool has_target = false;
  std::int64_t target = 0;
  std::uint64_t seed = 0;
  std::uint32_t threads = 1;
  std::uint64_t topk = 0;  // 0: not asked
  bool best_set = false;
  std::uint64_t best_cap = 0;  // 0: no cap
};

struct Record {
  std::int64_t energy = 0;
  double tts = 0.0;
  std::vector<std::uint64_t> bits;
};

struct BitsHash {
  std::size_t operator()(const std::vector<std::uint64_t>& bits) const {
    std::uint64_t h = 0x243F6A8885A308D3ull ^ bits.size();
    for (std::uint64_t w : bits) {
      h ^= w + 0x9E3779B97F4A7C15ull + (h << 6) + (h >> 2);
      h *= 0xFF51AFD7ED558CCDull;
    }
    return static_cast<std::size_t>(h ^ (h >> 33));
  }
};

void pack_bits(const std::uint8_t* x, std::uint32_t n, std::vector<std::uint64_t>& out);
void unpack_bits(const std::uint64_t* bits, std::uint32_t n, std::uint8_t* x);

class Shared {
 public:
  Shared(const Problem& problem, const SearchOptions& options);

  // Clock and stop signal.
  double elapsed() const { return seconds_since(start_); }
  bool stopped() const { return stop_.load(std::memory_order_relaxed); }
  void stop() { stop_.store(true, std::memory_order_relaxed); }
  bool time_up() const { return elapsed() >= options_.time_limit; }
  double remaining() const { return options_.time_limit - elapsed(); }

  // True when a state of energy e could change the best solution or a collection.
  bool wants(std::int64_t e) const { return e < accept_below_.load(std::memory_order_relaxed); }
  // True when the search keeps more than its best state.
  bool collects() const { return options_.topk > 0 || options_.best_set; }
  bool reaches_target(std::int64_t e) const { return options_.has_target && e <= options_.target; }
  std::int64_t best_energy() const { return best_energy_.load(std::memory_order_relaxed); }

  // Records a visited state; `constraints_met` is the state's own view of its constraints,
  // the remainder is checked here when the state reaches the target. `found_at` is when the
  // state was reached, if earlier than now.
  void offer(std::int64_t e, const std::uint8_t* x, bool constraints_met, double found_at = -1.0);

  const Record& best() const { return best_; }
  bool has_best() const { return has_best_; }
  bool target_reached() const { return target_reached_; }
  // Whether a list stopped growing at the memory ceiling rather than at the asked size.
  bool limited() const { return limited_; }
  // The solutions for the returned list, best first.
  std::vector<Record> collected() const;

 private:
  void refresh_threshold();

  const Problem& problem_;
  SearchOptions options_;
  std::uint32_t n_;
  Clock::time_point start_;
  std::atomic<bool> stop_{false};
  std::atomic<std::int64_t> accept_below_{std::numeric_limits<std::int64_t>::max()};
  std::atomic<std::int64_t> best_energy_{std::numeric_limits<std::int64_t>::max()};

  std::mutex mu_;
  std::vector<std::uint64_t> scratch_;
  bool has_best_ = false;
  bool target_reached_ = false;
  bool limited_ = false;
  Record best_;
  std::uint64_t topk_cap_ = 0;
  std::uint64_t best_cap_ = 0;

  // A state's energy is a function of its bits, so (energy, bits) identifies it.
  std::map<std::pair<std::int64_t, std::vector<std::uint64_t>>, double> topk_;
  std::unordered_map<std::vector<std::uint64_t>, double, BitsHash> best_set_;

};

}  // namespace vell
