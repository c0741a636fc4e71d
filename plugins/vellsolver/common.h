// Small shared pieces of the VellSolver plug-in: wrapping energy arithmetic, the random
// generator and the clock. Nothing here comes from the core library.
#pragma once

#include <chrono>
#include <cstdint>

namespace vell {

// Energies and deltas wrap modulo 2^64 like the library's own evaluation, so every sum is
// taken on unsigned values; comparisons read them back as signed.
using wrap_t = std::uint64_t;

inline wrap_t wrap(std::int64_t v) { return static_cast<wrap_t>(v); }
inline std::int64_t sgn(wrap_t v) { return static_cast<std::int64_t>(v); }
// The energy after a move, wrapped as the energy itself is.
inline std::int64_t plus(std::int64_t energy, std::int64_t gain) { return sgn(wrap(energy) + wrap(gain)); }

constexpr std::uint32_t kNegBit = 0x80000000u;
constexpr std::uint32_t kIndexMask = 0x3FFFFFFFu;

inline std::uint32_t lit_var(std::uint32_t lit) { return lit & kIndexMask; }
inline bool lit_neg(std::uint32_t lit) { return (lit & kNegBit) != 0; }

inline std::uint64_t splitmix64(std::uint64_t& state) {
  std::uint64_t z = (state += 0x9E3779B97F4A7C15ull);
  z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
  z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
  return z ^ (z >> 31);
}

// xoshiro256**: fast, and each worker gets its own stream from one seed.
class Rng {
 public:
  explicit Rng(std::uint64_t seed = 1) { reseed(seed); }
  void reseed(std::uint64_t seed) {
    std::uint64_t sm = seed;
    for (auto& w : s_) w = splitmix64(sm);
  }
  std::uint64_t next() {
    const std::uint64_t result = rotl(s_[1] * 5, 7) * 9;
    const std::uint64_t t = s_[1] << 17;
    s_[2] ^= s_[0];
    s_[3] ^= s_[1];
    s_[1] ^= s_[2];
    s_[0] ^= s_[3];
    s_[2] ^= t;
    s_[3] = rotl(s_[3], 45);
    return result;
  }
  // Uniform in [0, bound) by the multiply-shift method; the tiny bias is irrelevant here.
  std::uint32_t below(std::uint32_t bound) {
    return static_cast<std::uint32_t>(((next() >> 32) * static_cast<std::uint64_t>(bound)) >> 32);
  }
  double unit() { return static_cast<double>(next() >> 11) * 0x1.0p-53; }

 private:
  static std::uint64_t rotl(std::uint64_t x, int k) { return (x << k) | (x >> (64 - k)); }
  std::uint64_t s_[4];
};

using Clock = std::chrono::steady_clock;

inline double seconds_since(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

}  // namespace vell
