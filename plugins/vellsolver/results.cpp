#include "results.h"

#include <algorithm>
#include <cstring>
#include <functional>
#include <string_view>

namespace vell {

void pack_bits(const std::uint8_t* x, std::uint32_t n, std::vector<std::uint64_t>& out) {
  out.assign((static_cast<std::size_t>(n) + 63) / 64, 0);
  for (std::uint32_t i = 0; i < n; ++i)
    if (x[i]) out[i >> 6] |= std::uint64_t{1} << (i & 63);
}

void unpack_bits(const std::uint64_t* bits, std::uint32_t n, std::uint8_t* x) {
  for (std::uint32_t i = 0; i < n; ++i) x[i] = static_cast<std::uint8_t>((bits[i >> 6] >> (i & 63)) & 1);
}

Shared::Shared(const Problem& problem, const SearchOptions& options)
    : problem_(problem), options_(options), n_(problem.var_count()), start_(Clock::now()) {
  // Lists without a cap (or with a huge one) could take every state of a flat landscape;
  // they stop growing at about a gigabyte, and the info says so.
  constexpr std::uint64_t kListBytes = std::uint64_t{1} << 30;
  const std::uint64_t per_entry = (static_cast<std::uint64_t>(n_) + 63) / 64 * 8 + 96;
  const std::uint64_t limit = std::max<std::uint64_t>(1, kListBytes / per_entry);
  topk_cap_ = std::min<std::uint64_t>(options_.topk, limit);
  best_cap_ = options_.best_cap == 0 ? limit : std::min<std::uint64_t>(options_.best_cap, limit);
}

void Shared::refresh_threshold() {
  constexpr std::int64_t kAll = std::numeric_limits<std::int64_t>::max();
  std::int64_t below = has_best_ ? best_.energy : kAll;
  if (topk_cap_ > 0) {
    const std::int64_t t = topk_.size() < topk_cap_ ? kAll : topk_.rbegin()->first.first;
    below = std::max(below, t);
  }
  if (options_.best_set && has_best_ && best_set_.size() < best_cap_)
    below = std::max(below, best_.energy == kAll ? kAll : best_.energy + 1);
  accept_below_.store(below, std::memory_order_relaxed);
}

void Shared::offer(std::int64_t e, const std::uint8_t* x, bool constraints_met, double found_at) {
  const double now = found_at >= 0 ? found_at : elapsed();
  std::lock_guard<std::mutex> lock(mu_);
  pack_bits(x, n_, scratch_);
  if (!has_best_ || e < best_.energy) {
    has_best_ = true;
    best_.energy = e;
    best_.tts = now;
    best_.bits = scratch_;
    best_energy_.store(e, std::memory_order_relaxed);
    if (options_.best_set) best_set_.clear();
  }
  if (options_.best_set && e == best_.energy) {
    if (best_set_.size() < best_cap_) {
      best_set_.emplace(scratch_, now);
    } else if (best_cap_ < options_.best_cap || options_.best_cap == 0) {
      limited_ = limited_ || !best_set_.count(scratch_);
    }
  }
  if (topk_cap_ > 0) {
    const bool full = topk_.size() >= topk_cap_;
    if (!full || e < topk_.rbegin()->first.first) {
      if (topk_.emplace(std::make_pair(e, scratch_), now).second && full) {
        topk_.erase(std::prev(topk_.end()));
        limited_ = limited_ || topk_cap_ < options_.topk;
      }
    }
  }
  refresh_threshold();
  if (!target_reached_ && reaches_target(e) && constraints_met &&
      (!problem_.has_remainder() || problem_.remainder_value(x) == 0)) {
    target_reached_ = true;
    stop();
  }
}

std::vector<Record> Shared::collected() const {
  std::vector<Record> out;
  for (const auto& [key, tts] : topk_) out.push_back({key.first, tts, key.second});
  for (const auto& [bits, tts] : best_set_) out.push_back({best_.energy, tts, bits});
  std::sort(out.begin(), out.end(), [](const Record& l, const Record& r) {
    return l.energy != r.energy ? l.energy < r.energy : l.bits < r.bits;
  });
  out.erase(std::unique(out.begin(), out.end(), [](const Record& l, const Record& r) { return l.bits == r.bits; }),
            out.end());
  return out;
}

}  // namespace vell
