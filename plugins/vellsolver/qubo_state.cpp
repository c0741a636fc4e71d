#include "qubo_state.h"

#include <immintrin.h>

#include <algorithm>
#include <limits>

namespace vell {

namespace {

template <class Key>
KeyMinima<Key> min_keys_plain(const Key* keys, std::size_t n, Key offset) {
  constexpr Key kNone = std::numeric_limits<Key>::max();
  const Key half = offset / 2;
  Key free = kNone, tabu = kNone;
  for (std::size_t i = 0; i < n; ++i) {
    const Key k = keys[i];
    free = k < free ? k : free;
    const Key t = k >= half ? static_cast<Key>(k - offset) : kNone;
    tabu = t < tabu ? t : tabu;
  }
  return {free, tabu};
}

template <class Key>
std::size_t find_key_plain(const Key* keys, std::size_t from, std::size_t to, Key lo, Key hi) {
  for (std::size_t i = from; i < to; ++i)
    if (keys[i] >= lo && keys[i] < hi) return i;
  return to;
}

template <class Key, std::size_t Lanes>
KeyMinima<Key> finish(const Key* f, const Key* t, KeyMinima<Key> rest) {
  for (std::size_t l = 0; l < Lanes; ++l) {
    rest.free = std::min(rest.free, f[l]);
    rest.tabu = std::min(rest.tabu, t[l]);
  }
  return rest;
}

// ---- 64-bit keys ----

__attribute__((target("avx2"))) KeyMinima<std::int64_t> min_keys_avx2(const std::int64_t* keys, std::size_t n,
                                                                      std::int64_t offset) {
  const __m256i none = _mm256_set1_epi64x(std::numeric_limits<std::int64_t>::max());
  const __m256i below_half = _mm256_set1_epi64x(offset / 2 - 1);
  const __m256i off = _mm256_set1_epi64x(offset);
  __m256i free = none, tabu = none;
  std::size_t i = 0;
  for (; i + 4 <= n; i += 4) {
    const __m256i k = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(keys + i));
    free = _mm256_blendv_epi8(free, k, _mm256_cmpgt_epi64(free, k));
    const __m256i t = _mm256_blendv_epi8(none, _mm256_sub_epi64(k, off), _mm256_cmpgt_epi64(k, below_half));
    tabu = _mm256_blendv_epi8(tabu, t, _mm256_cmpgt_epi64(tabu, t));
  }
  alignas(32) std::int64_t f[4], t[4];
  _mm256_store_si256(reinterpret_cast<__m256i*>(f), free);
  _mm256_store_si256(reinterpret_cast<__m256i*>(t), tabu);
  return finish<std::int64_t, 4>(f, t, min_keys_plain(keys + i, n - i, offset));
}

// GCC 12 warns on the unmasked 512-bit min; the all-lanes mask form is the same instruction.
__attribute__((target("avx512f"))) KeyMinima<std::int64_t> min_keys_avx512(const std::int64_t* keys, std::size_t n,
                                                                           std::int64_t offset) {
  const __m512i half = _mm512_set1_epi64(offset / 2);
  const __m512i off = _mm512_set1_epi64(offset);
  __m512i f0 = _mm512_set1_epi64(std::numeric_limits<std::int64_t>::max()), f1 = f0, t0 = f0, t1 = f0;
  std::size_t i = 0;
  for (; i + 16 <= n; i += 16) {
    const __m512i k0 = _mm512_loadu_si512(keys + i);
    const __m512i k1 = _mm512_loadu_si512(keys + i + 8);
    f0 = _mm512_mask_min_epi64(f0, 0xFF, f0, k0);
    f1 = _mm512_mask_min_epi64(f1, 0xFF, f1, k1);
    t0 = _mm512_mask_min_epi64(t0, _mm512_cmpge_epi64_mask(k0, half), t0, _mm512_sub_epi64(k0, off));
    t1 = _mm512_mask_min_epi64(t1, _mm512_cmpge_epi64_mask(k1, half), t1, _mm512_sub_epi64(k1, off));
  }
  alignas(64) std::int64_t f[8], t[8];
  _mm512_store_si512(f, _mm512_mask_min_epi64(f0, 0xFF, f0, f1));
  _mm512_store_si512(t, _mm512_mask_min_epi64(t0, 0xFF, t0, t1));
  return finish<std::int64_t, 8>(f, t, min_keys_plain(keys + i, n - i, offset));
}

__attribute__((target("avx2"))) std::size_t find_key_avx2(const std::int64_t* keys, std::size_t from, std::size_t to,
                                                          std::int64_t lo, std::int64_t hi) {
  const __m256i below = _mm256_set1_epi64x(lo - 1);
  const __m256i top = _mm256_set1_epi64x(hi);
  std::size_t i = from;
  for (; i + 4 <= to; i += 4) {
    const __m256i k = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(keys + i));
    const __m256i in = _mm256_and_si256(_mm256_cmpgt_epi64(k, below), _mm256_cmpgt_epi64(top, k));
    const int mask = _mm256_movemask_pd(_mm256_castsi256_pd(in));
    if (mask) return i + static_cast<std::size_t>(__builtin_ctz(static_cast<unsigned>(mask)));
  }
  return find_key_plain(keys, i, to, lo, hi);
}

__attribute__((target("avx512f"))) std::size_t find_key_avx512(const std::int64_t* keys, std::size_t from,
                                                               std::size_t to, std::int64_t lo, std::int64_t hi) {
  const __m512i low = _mm512_set1_epi64(lo);
  const __m512i top = _mm512_set1_epi64(hi);
  std::size_t i = from;
  for (; i + 8 <= to; i += 8) {
    const __m512i k = _mm512_loadu_si512(keys + i);
    const __mmask8 in = _mm512_mask_cmplt_epi64_mask(_mm512_cmpge_epi64_mask(k, low), k, top);
    if (in) return i + static_cast<std::size_t>(__builtin_ctz(in));
  }
  return find_key_plain(keys, i, to, lo, hi);
}

// ---- 32-bit keys ----

__attribute__((target("avx2"))) KeyMinima<std::int32_t> min_keys_avx2(const std::int32_t* keys, std::size_t n,
                                                                      std::int32_t offset) {
  const __m256i half = _mm256_set1_epi32(offset / 2);
  const __m256i off = _mm256_set1_epi32(offset);
  const __m256i none = _mm256_set1_epi32(std::numeric_limits<std::int32_t>::max());
  __m256i free = none, tabu = none;
  std::size_t i = 0;
  for (; i + 8 <= n; i += 8) {
    const __m256i k = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(keys + i));
    free = _mm256_min_epi32(free, k);
    const __m256i is_tabu = _mm256_cmpeq_epi32(_mm256_max_epi32(k, half), k);
    tabu = _mm256_min_epi32(tabu, _mm256_blendv_epi8(none, _mm256_sub_epi32(k, off), is_tabu));
  }
  alignas(32) std::int32_t f[8], t[8];
  _mm256_store_si256(reinterpret_cast<__m256i*>(f), free);
  _mm256_store_si256(reinterpret_cast<__m256i*>(t), tabu);
  return finish<std::int32_t, 8>(f, t, min_keys_plain(keys + i, n - i, offset));
}

__attribute__((target("avx512f"))) KeyMinima<std::int32_t> min_keys_avx512(const std::int32_t* keys, std::size_t n,
                                                                           std::int32_t offset) {
  const __m512i half = _mm512_set1_epi32(offset / 2);
  const __m512i off = _mm512_set1_epi32(offset);
  __m512i f0 = _mm512_set1_epi32(std::numeric_limits<std::int32_t>::max()), f1 = f0, t0 = f0, t1 = f0;
  std::size_t i = 0;
  for (; i + 32 <= n; i += 32) {
    const __m512i k0 = _mm512_loadu_si512(keys + i);
    const __m512i k1 = _mm512_loadu_si512(keys + i + 16);
    f0 = _mm512_mask_min_epi32(f0, 0xFFFF, f0, k0);
    f1 = _mm512_mask_min_epi32(f1, 0xFFFF, f1, k1);
    t0 = _mm512_mask_min_epi32(t0, _mm512_cmpge_epi32_mask(k0, half), t0, _mm512_sub_epi32(k0, off));
    t1 = _mm512_mask_min_epi32(t1, _mm512_cmpge_epi32_mask(k1, half), t1, _mm512_sub_epi32(k1, off));
  }
  alignas(64) std::int32_t f[16], t[16];
  _mm512_store_si512(f, _mm512_mask_min_epi32(f0, 0xFFFF, f0, f1));
  _mm512_store_si512(t, _mm512_mask_min_epi32(t0, 0xFFFF, t0, t1));
  return finish<std::int32_t, 16>(f, t, min_keys_plain(keys + i, n - i, offset));
}

__attribute__((target("avx2"))) std::size_t find_key_avx2(const std::int32_t* keys, std::size_t from, std::size_t to,
                                                          std::int32_t lo, std::int32_t hi) {
  const __m256i below = _mm256_set1_epi32(lo - 1);
  const __m256i top = _mm256_set1_epi32(hi);
  std::size_t i = from;
  for (; i + 8 <= to; i += 8) {
    const __m256i k = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(keys + i));
    const __m256i in = _mm256_and_si256(_mm256_cmpgt_epi32(k, below), _mm256_cmpgt_epi32(top, k));
    const int mask = _mm256_movemask_ps(_mm256_castsi256_ps(in));
    if (mask) return i + static_cast<std::size_t>(__builtin_ctz(static_cast<unsigned>(mask)));
  }
  return find_key_plain(keys, i, to, lo, hi);
}

__attribute__((target("avx512f"))) std::size_t find_key_avx512(const std::int32_t* keys, std::size_t from,
                                                               std::size_t to, std::int32_t lo, std::int32_t hi) {
  const __m512i low = _mm512_set1_epi32(lo);
  const __m512i top = _mm512_set1_epi32(hi);
  std::size_t i = from;
  for (; i + 16 <= to; i += 16) {
    const __m512i k = _mm512_loadu_si512(keys + i);
    const __mmask16 in = _mm512_mask_cmplt_epi32_mask(_mm512_cmpge_epi32_mask(k, low), k, top);
    if (in) return i + static_cast<std::size_t>(__builtin_ctz(in));
  }
  return find_key_plain(keys, i, to, lo, hi);
}

enum class Isa { kPlain, kAvx2, kAvx512 };

Isa isa() {
  static const Isa level = [] {
    __builtin_cpu_init();
    if (__builtin_cpu_supports("avx512f")) return Isa::kAvx512;
    if (__builtin_cpu_supports("avx2")) return Isa::kAvx2;
    return Isa::kPlain;
  }();
  return level;
}

}  // namespace

// The scans are the inner loop of every quadratic iteration; wider vectors pay off directly.
KeyMinima<std::int32_t> min_keys(const std::int32_t* keys, std::size_t n, std::int32_t offset) {
  switch (isa()) {
    case Isa::kAvx512: return min_keys_avx512(keys, n, offset);
    case Isa::kAvx2: return min_keys_avx2(keys, n, offset);
    default: return min_keys_plain(keys, n, offset);
  }
}

KeyMinima<std::int64_t> min_keys(const std::int64_t* keys, std::size_t n, std::int64_t offset) {
  switch (isa()) {
    case Isa::kAvx512: return min_keys_avx512(keys, n, offset);
    case Isa::kAvx2: return min_keys_avx2(keys, n, offset);
    default: return min_keys_plain(keys, n, offset);
  }
}

std::size_t find_key(const std::int32_t* keys, std::size_t from, std::size_t to, std::int32_t lo, std::int32_t hi) {
  switch (isa()) {
    case Isa::kAvx512: return find_key_avx512(keys, from, to, lo, hi);
    case Isa::kAvx2: return find_key_avx2(keys, from, to, lo, hi);
    default: return find_key_plain(keys, from, to, lo, hi);
  }
}

std::size_t find_key(const std::int64_t* keys, std::size_t from, std::size_t to, std::int64_t lo, std::int64_t hi) {
  switch (isa()) {
    case Isa::kAvx512: return find_key_avx512(keys, from, to, lo, hi);
    case Isa::kAvx2: return find_key_avx2(keys, from, to, lo, hi);
    default: return find_key_plain(keys, from, to, lo, hi);
  }
}

template <class Key>
QuboState<Key>::QuboState(const Compiled& c, Rng& rng)
    : c_(c), rng_(rng), n_(c.n), bits_(c.label_bits), mask_(static_cast<Key>((Key{1} << c.label_bits) - 1)) {
  key_.assign(n_, 0);
  x_.assign(n_, 0);
  tabu_.assign(n_, 0);
  row_ = c.row;
  edges_.resize(c.col.size());
  for (std::size_t k = 0; k < c.col.size(); ++k) edges_[k] = {c.col[k], static_cast<Key>(sgn(c.w[k]))};
}

template <class Key>
void QuboState<Key>::load(const std::uint8_t* x) {
  energy_ = c_.constant;
  for (std::uint32_t i = 0; i < n_; ++i) x_[i] = x[i] ? 1 : 0;
  for (std::uint32_t i = 0; i < n_; ++i) {
    const auto [field, upper] = quadratic_field(c_, x_.data(), i);
    if (x_[i]) energy_ += c_.h[i] + upper;
    const std::int64_t gain = x_[i] ? -sgn(field) : sgn(field);
    key_[i] = static_cast<Key>(shifted(gain, bits_) + static_cast<Key>(i) + (tabu_[i] ? kTabuOffset : 0));
  }
}

template <class Key>
void QuboState<Key>::flip(std::uint32_t i) {
  const std::int64_t gain = delta(i);
  energy_ += wrap(gain);
  key_[i] = static_cast<Key>(key_[i] - shifted(gain, bits_ + 1));
  const std::uint8_t xi = x_[i];
  const Edge* e = edges_.data() + row_[i];
  const Edge* end = edges_.data() + row_[i + 1];
  Key* key = key_.data();
  const std::uint8_t* x = x_.data();
  const unsigned bits = bits_;
  for (; e < end; ++e) {
    const std::uint32_t j = e->col;
    const Key differ = static_cast<Key>(-static_cast<Key>(xi ^ x[j]));
    key[j] = static_cast<Key>(key[j] + shifted(static_cast<Key>((e->w ^ differ) - differ), bits));
  }
  x_[i] = xi ^ 1;
}

template class QuboState<std::int32_t>;
template class QuboState<std::int64_t>;

}  // namespace vell
