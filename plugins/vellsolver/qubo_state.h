// Search state of the unconstrained quadratic path. Each variable's gain (the energy change
// of flipping it) lives in a key, shifted left over the variable's index: one branch-free
// minimum over the keys gives the best gain, and a tabu variable simply carries a large
// offset. Among equal gains the first one after a random position wins; the choice must not
// depend on the search history, or the walk keeps flipping the same few variables. Keys are
// 32-bit when every gain fits, which halves the memory the scan streams through.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "common.h"
#include "compiled.h"

namespace vell {

template <class Key>
struct KeyMinima {
  Key free;  // least key without the tabu offset
  Key tabu;  // least key among the tabu ones, offset removed
};
KeyMinima<std::int32_t> min_keys(const std::int32_t* keys, std::size_t n, std::int32_t offset);
KeyMinima<std::int64_t> min_keys(const std::int64_t* keys, std::size_t n, std::int64_t offset);
// First index in [from, to) whose key lies in [lo, hi), or `to`.
std::size_t find_key(const std::int32_t* keys, std::size_t from, std::size_t to, std::int32_t lo, std::int32_t hi);
std::size_t find_key(const std::int64_t* keys, std::size_t from, std::size_t to, std::int64_t lo, std::int64_t hi);

template <class Key>
class QuboState {
 public:
  static constexpr Key kTabuOffset = Key{1} << (sizeof(Key) * 8 - 2);

  // Whether every gain of the model, shifted over the index bits, stays clear of the offset.
  static bool fits(const Compiled& c) {
    return c.quadratic_only && c.gain_bound < (static_cast<unsigned __int128>(1) << (sizeof(Key) * 8 - 3 - c.label_bits));
  }

  QuboState(const Compiled& c, Rng& rng);

  std::uint32_t size() const { return n_; }
  wrap_t energy() const { return energy_; }
  const std::uint8_t* x() const { return x_.data(); }
  bool constraints_met() const { return true; }
  std::int64_t delta(std::uint32_t i) const { return (key_[i] - (tabu_[i] ? kTabuOffset : 0)) >> bits_; }
  // The gain of a variable that is not tabu, without the tabu lookup.
  std::int64_t free_delta(std::uint32_t i) const { return key_[i] >> bits_; }
  bool tabu(std::uint32_t i) const { return tabu_[i] != 0; }
  void set_tabu(std::uint32_t i) {
    tabu_[i] = 1;
    key_[i] += kTabuOffset;
  }
  void clear_tabu(std::uint32_t i) {
    tabu_[i] = 0;
    key_[i] -= kTabuOffset;
  }
  // Work of one flip of i, in evaluated-move units, for pacing clock reads.
  std::uint64_t flip_cost(std::uint32_t i) const { return row_[i + 1] - row_[i]; }

  void load(const std::uint8_t* x);
  void flip(std::uint32_t i);

  // The free and the tabu variable of least gain among [from, from + count); size() stands
  // for none.
  void best_moves(std::uint32_t from, std::uint32_t count, std::uint32_t& free_var, std::int64_t& free_gain,
                  std::uint32_t& tabu_var, std::int64_t& tabu_gain) const {
    const Key* keys = key_.data() + from;
    const KeyMinima<Key> m = min_keys(keys, count, kTabuOffset);
    free_var = tabu_var = n_;
    if (m.free < kTabuOffset / 2) {
      free_gain = m.free >> bits_;
      const Key lo = m.free & ~mask_;
      const Key hi = lo + mask_ + 1;
      const std::uint32_t start = rng_.below(count);
      std::size_t i = find_key(keys, start, count, lo, hi);
      if (i == count) i = find_key(keys, 0, start, lo, hi);
      free_var = from + static_cast<std::uint32_t>(i);
    }
    if (m.tabu < kTabuOffset / 2) {
      tabu_gain = m.tabu >> bits_;
      tabu_var = static_cast<std::uint32_t>(m.tabu & mask_);
    }
  }

 private:
  struct Edge {
    std::uint32_t col;
    Key w;
  };
  static Key shifted(std::int64_t v, unsigned bits) {
    return static_cast<Key>(static_cast<std::uint64_t>(v) << bits);
  }

  const Compiled& c_;
  Rng& rng_;
  std::uint32_t n_;
  unsigned bits_;
  Key mask_;
  wrap_t energy_ = 0;
  std::vector<Key> key_;
  std::vector<std::uint8_t> x_;
  std::vector<std::uint8_t> tabu_;
  std::vector<std::uint64_t> row_;
  std::vector<Edge> edges_;
};

extern template class QuboState<std::int32_t>;
extern template class QuboState<std::int64_t>;

}  // namespace vell
