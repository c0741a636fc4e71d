#include "general_state.h"

#include <immintrin.h>

#include <algorithm>
#include <cstring>
#include <limits>

namespace vell {

namespace {

// What a product of coefficient c with `false_count` false literals gives to the gain of one
// of its literals: a true literal turning false loses c when the product was on, a false
// literal turning true gains c when it was the only one missing.
inline wrap_t product_gain(bool literal_true, std::uint32_t false_count, wrap_t c) {
  if (literal_true) return false_count == 0 ? wrap_t{0} - c : 0;
  return false_count == 1 ? c : 0;
}

inline wrap_t signed_by(std::uint8_t x, wrap_t v) { return x ? wrap_t{0} - v : v; }

// Product terms over an index space: the objective's terms index variables directly, the
// constraint bodies' terms index constraint slots, each standing for one variable (`var_of`).
struct ProductTerms {
  const std::uint32_t* begin;  // term count + 1 offsets into lit
  const std::uint32_t* lit;    // index, with the negation bit
  const wrap_t* coeff;
  std::uint32_t* false_count;
  wrap_t* gain;  // by index
};

// Counts term t's false literals under x and adds its share to the gain of each index;
// returns the term's value.
template <class VarOf>
wrap_t load_product(const ProductTerms& p, std::uint32_t t, const std::uint8_t* x, VarOf var_of) {
  std::uint32_t zeros = 0;
  for (std::uint32_t k = p.begin[t]; k < p.begin[t + 1]; ++k)
    zeros += (x[var_of(p.lit[k] & kIndexMask)] != 0) == lit_neg(p.lit[k]);
  p.false_count[t] = zeros;
  for (std::uint32_t k = p.begin[t]; k < p.begin[t + 1]; ++k) {
    const std::uint32_t index = p.lit[k] & kIndexMask;
    p.gain[index] += product_gain((x[var_of(index)] != 0) != lit_neg(p.lit[k]), zeros, p.coeff[t]);
  }
  return zeros == 0 ? p.coeff[t] : 0;
}

// Term t after the variable behind index `flipped` left value xi: its false count moves by
// one, and the other indices' gains change only when the count passes through 0 or 1.
template <class VarOf>
void flip_product(const ProductTerms& p, std::uint32_t t, std::uint32_t flipped, std::uint8_t xi, const std::uint8_t* x,
                  VarOf var_of) {
  const std::uint32_t b = p.begin[t], e = p.begin[t + 1];
  bool was_true = false;
  for (std::uint32_t k = b; k < e; ++k)
    if ((p.lit[k] & kIndexMask) == flipped) was_true = (xi != 0) != lit_neg(p.lit[k]);
  const std::uint32_t before = p.false_count[t];
  const std::uint32_t after = was_true ? before + 1 : before - 1;
  p.false_count[t] = after;
  if (std::min(before, after) > 1) return;
  const wrap_t coeff = p.coeff[t];
  for (std::uint32_t k = b; k < e; ++k) {
    const std::uint32_t index = p.lit[k] & kIndexMask;
    if (index == flipped) continue;
    const bool literal_true = (x[var_of(index)] != 0) != lit_neg(p.lit[k]);
    p.gain[index] += product_gain(literal_true, after, coeff) - product_gain(literal_true, before, coeff);
  }
}

const auto kVariableItself = [](std::uint32_t v) { return v; };

}  // namespace

GeneralState::GeneralState(const Compiled& c, Rng& rng) : c_(c), rng_(rng), n_(c.n) {
  delta_.assign(n_, 0);
  x_.assign(n_, 0);
  tabu_.assign(n_, 0);
  ht_false_.assign(c.ht_coeff.size(), 0);
  body_.assign(c.cons.size(), 0);
  violated_flag_.assign(c.cons.size(), 0);
  slot_nl_.assign(c.slot_var.size(), 0);
  slot_pen_.assign(c.slot_var.size(), 0);
  nl_false_.assign(c.nl_coeff.size(), 0);
  cost_.assign(n_, 1);
  for (std::uint32_t i = 0; i < n_; ++i) {
    std::uint64_t cost = 1 + (c.row[i + 1] - c.row[i]) + 4 * (c.hocc_head[i + 1] - c.hocc_head[i]);
    for (std::uint64_t k = c.var_slot_head[i]; k < c.var_slot_head[i + 1]; ++k) {
      const CompiledConstraint& con = c.cons[c.slot_cons[c.var_slot[k]]];
      cost += con.slot_end - con.slot_begin;
    }
    cost_[i] = cost;
  }
}

void GeneralState::load(const std::uint8_t* x) {
  for (std::uint32_t i = 0; i < n_; ++i) x_[i] = x[i] ? 1 : 0;
  energy_ = c_.constant;
  for (std::uint32_t i = 0; i < n_; ++i) {
    const auto [field, upper] = quadratic_field(c_, x_.data(), i);
    if (x_[i]) energy_ += c_.h[i] + upper;
    delta_[i] = signed_by(x_[i], field);
  }

  const ProductTerms objective{c_.ht_begin.data(), c_.ht_lit.data(), c_.ht_coeff.data(), ht_false_.data(),
                               delta_.data()};
  for (std::uint32_t t = 0; t < c_.ht_coeff.size(); ++t)
    energy_ += load_product(objective, t, x_.data(), kVariableItself);

  std::fill(slot_nl_.begin(), slot_nl_.end(), 0);
  violated_ = 0;
  const ProductTerms bodies{c_.nl_begin.data(), c_.nl_lit.data(), c_.nl_coeff.data(), nl_false_.data(),
                            slot_nl_.data()};
  const auto slot_var = [this](std::uint32_t s) { return c_.slot_var[s]; };
  for (std::size_t ci = 0; ci < c_.cons.size(); ++ci) {
    const CompiledConstraint& con = c_.cons[ci];
    wrap_t body = con.constant;
    for (std::uint32_t s = con.slot_begin; s < con.slot_end; ++s)
      if (x_[c_.slot_var[s]]) body += c_.slot_lin[s];
    for (std::uint32_t t = con.nl_begin; t < con.nl_end; ++t) body += load_product(bodies, t, x_.data(), slot_var);
    body_[ci] = body;
    const wrap_t pen = compiled_penalty(c_, con, body);
    energy_ += pen;
    violated_flag_[ci] = compiled_violated(c_, con, body) ? 1 : 0;
    if (con.feasibility) violated_ += violated_flag_[ci];
    for (std::uint32_t s = con.slot_begin; s < con.slot_end; ++s) {
      const std::uint32_t v = c_.slot_var[s];
      const wrap_t change = signed_by(x_[v], c_.slot_lin[s]) + slot_nl_[s];
      slot_pen_[s] = compiled_penalty(c_, con, body + change) - pen;
      delta_[v] += slot_pen_[s];
    }
  }
}

void GeneralState::flip(std::uint32_t i) {
  const wrap_t gain = delta_[i];
  energy_ += gain;
  // The whole gain of i changes sign; the loops below only touch the other variables.
  delta_[i] = wrap_t{0} - gain;
  const std::uint8_t xi = x_[i];

  for (std::uint64_t k = c_.row[i]; k < c_.row[i + 1]; ++k) {
    const std::uint32_t j = c_.col[k];
    delta_[j] += (xi ^ x_[j]) ? wrap_t{0} - c_.w[k] : c_.w[k];
  }

  const ProductTerms objective{c_.ht_begin.data(), c_.ht_lit.data(), c_.ht_coeff.data(), ht_false_.data(),
                               delta_.data()};
  for (std::uint64_t o = c_.hocc_head[i]; o < c_.hocc_head[i + 1]; ++o)
    flip_product(objective, c_.hocc[o], i, xi, x_.data(), kVariableItself);

  for (std::uint64_t k = c_.var_slot_head[i]; k < c_.var_slot_head[i + 1]; ++k)
    flip_constraint_slot(c_.var_slot[k], xi);
  x_[i] = xi ^ 1;
}

void GeneralState::flip_constraint_slot(std::uint32_t s, std::uint8_t xi) {
  const std::uint32_t ci = c_.slot_cons[s];
  const CompiledConstraint& con = c_.cons[ci];
  const wrap_t change = signed_by(xi, c_.slot_lin[s]) + slot_nl_[s];

  const ProductTerms bodies{c_.nl_begin.data(), c_.nl_lit.data(), c_.nl_coeff.data(), nl_false_.data(),
                            slot_nl_.data()};
  const auto slot_var = [this](std::uint32_t so) { return c_.slot_var[so]; };
  for (std::uint64_t o = c_.slot_nl_head[s]; o < c_.slot_nl_head[s + 1]; ++o)
    flip_product(bodies, c_.slot_nl[o], s, xi, x_.data(), slot_var);
  slot_nl_[s] = wrap_t{0} - slot_nl_[s];

  const wrap_t body = body_[ci] + change;
  body_[ci] = body;
  const std::uint8_t now = compiled_violated(c_, con, body) ? 1 : 0;
  if (con.feasibility) violated_ = violated_ - violated_flag_[ci] + now;
  violated_flag_[ci] = now;

  const wrap_t pen = compiled_penalty(c_, con, body);
  // Members mostly share a few body changes (equal coefficients), so the last two penalty
  // differences are kept.
  wrap_t seen_change[2] = {0, 0}, seen_pen[2] = {0, 0};
  bool seen[2] = {false, false};
  for (std::uint32_t m = con.slot_begin; m < con.slot_end; ++m) {
    if (m == s) {
      slot_pen_[m] = wrap_t{0} - slot_pen_[m];
      continue;
    }
    const std::uint32_t v = c_.slot_var[m];
    const wrap_t member_change = signed_by(x_[v], c_.slot_lin[m]) + slot_nl_[m];
    wrap_t next;
    if (seen[0] && member_change == seen_change[0]) {
      next = seen_pen[0];
    } else if (seen[1] && member_change == seen_change[1]) {
      next = seen_pen[1];
    } else {
      next = compiled_penalty(c_, con, body + member_change) - pen;
      seen_change[1] = seen_change[0];
      seen_pen[1] = seen_pen[0];
      seen[1] = seen[0];
      seen_change[0] = member_change;
      seen_pen[0] = next;
      seen[0] = true;
    }
    delta_[v] += next - slot_pen_[m];
    slot_pen_[m] = next;
  }
}

namespace {

constexpr std::int64_t kNoGain = std::numeric_limits<std::int64_t>::max();

struct GainMinima {
  std::int64_t free = kNoGain;
  std::int64_t tabu = kNoGain;
};

GainMinima gain_minima_plain(const wrap_t* delta, const std::uint8_t* tabu, std::size_t from, std::size_t n,
                             GainMinima m) {
  for (std::size_t i = from; i < n; ++i) {
    const std::int64_t g = sgn(delta[i]);
    std::int64_t& slot = tabu[i] ? m.tabu : m.free;
    slot = std::min(slot, g);
  }
  return m;
}

std::size_t find_gain_plain(const wrap_t* delta, const std::uint8_t* tabu, std::size_t from, std::size_t to,
                            std::uint8_t want_tabu, std::int64_t gain) {
  for (std::size_t i = from; i < to; ++i)
    if (tabu[i] == want_tabu && sgn(delta[i]) == gain) return i;
  return to;
}

__attribute__((target("avx512f"))) GainMinima gain_minima_avx512(const wrap_t* delta, const std::uint8_t* tabu,
                                                                 std::size_t n) {
  __m512i f = _mm512_set1_epi64(kNoGain), t = f;
  std::size_t i = 0;
  for (; i + 8 <= n; i += 8) {
    const __m512i d = _mm512_loadu_si512(delta + i);
    const __m512i flags = _mm512_maskz_cvtepu8_epi64(0xFF, _mm_loadl_epi64(reinterpret_cast<const __m128i*>(tabu + i)));
    const __mmask8 is_tabu = _mm512_test_epi64_mask(flags, flags);
    f = _mm512_mask_min_epi64(f, static_cast<__mmask8>(~is_tabu), f, d);
    t = _mm512_mask_min_epi64(t, is_tabu, t, d);
  }
  alignas(64) std::int64_t fl[8], tl[8];
  _mm512_store_si512(fl, f);
  _mm512_store_si512(tl, t);
  GainMinima m;
  for (int l = 0; l < 8; ++l) {
    m.free = std::min(m.free, fl[l]);
    m.tabu = std::min(m.tabu, tl[l]);
  }
  return gain_minima_plain(delta, tabu, i, n, m);
}

__attribute__((target("avx512f"))) std::size_t find_gain_avx512(const wrap_t* delta, const std::uint8_t* tabu,
                                                                std::size_t from, std::size_t to,
                                                                std::uint8_t want_tabu, std::int64_t gain) {
  const __m512i g = _mm512_set1_epi64(gain);
  std::size_t i = from;
  for (; i + 8 <= to; i += 8) {
    const __m512i flags = _mm512_maskz_cvtepu8_epi64(0xFF, _mm_loadl_epi64(reinterpret_cast<const __m128i*>(tabu + i)));
    const __mmask8 is_tabu = _mm512_test_epi64_mask(flags, flags);
    const __mmask8 wanted = want_tabu ? is_tabu : static_cast<__mmask8>(~is_tabu);
    const __mmask8 hit = _mm512_mask_cmpeq_epi64_mask(wanted, _mm512_loadu_si512(delta + i), g);
    if (hit) return i + static_cast<std::size_t>(__builtin_ctz(hit));
  }
  return find_gain_plain(delta, tabu, i, to, want_tabu, gain);
}

__attribute__((target("avx2"))) GainMinima gain_minima_avx2(const wrap_t* delta, const std::uint8_t* tabu,
                                                            std::size_t n) {
  const __m256i none = _mm256_set1_epi64x(kNoGain);
  const __m256i zero = _mm256_setzero_si256();
  __m256i f = none, t = none;
  std::size_t i = 0;
  for (; i + 4 <= n; i += 4) {
    const __m256i d = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(delta + i));
    std::int32_t packed;
    std::memcpy(&packed, tabu + i, 4);
    const __m256i is_free = _mm256_cmpeq_epi64(_mm256_cvtepu8_epi64(_mm_cvtsi32_si128(packed)), zero);
    const __m256i as_free = _mm256_blendv_epi8(none, d, is_free);
    const __m256i as_tabu = _mm256_blendv_epi8(d, none, is_free);
    f = _mm256_blendv_epi8(f, as_free, _mm256_cmpgt_epi64(f, as_free));
    t = _mm256_blendv_epi8(t, as_tabu, _mm256_cmpgt_epi64(t, as_tabu));
  }
  alignas(32) std::int64_t fl[4], tl[4];
  _mm256_store_si256(reinterpret_cast<__m256i*>(fl), f);
  _mm256_store_si256(reinterpret_cast<__m256i*>(tl), t);
  GainMinima m;
  for (int l = 0; l < 4; ++l) {
    m.free = std::min(m.free, fl[l]);
    m.tabu = std::min(m.tabu, tl[l]);
  }
  return gain_minima_plain(delta, tabu, i, n, m);
}

bool has_avx512() {
  static const bool yes = [] {
    __builtin_cpu_init();
    return __builtin_cpu_supports("avx512f") != 0;
  }();
  return yes;
}

bool has_avx2() {
  static const bool yes = [] {
    __builtin_cpu_init();
    return __builtin_cpu_supports("avx2") != 0;
  }();
  return yes;
}

}  // namespace

void GeneralState::best_moves(std::uint32_t from, std::uint32_t count, std::uint32_t& free_var, std::int64_t& free_gain,
                              std::uint32_t& tabu_var, std::int64_t& tabu_gain) {
  free_var = tabu_var = n_;
  if (count == 0) return;
  const wrap_t* delta = delta_.data() + from;
  const std::uint8_t* tabu = tabu_.data() + from;
  const GainMinima m = has_avx512() ? gain_minima_avx512(delta, tabu, count)
                       : has_avx2() ? gain_minima_avx2(delta, tabu, count)
                                    : gain_minima_plain(delta, tabu, 0, count, GainMinima{});
  free_gain = m.free;
  tabu_gain = m.tabu;
  // Ties go to the first variable after a random start. A variable of gain INT64_MAX is
  // found like any other, so "none" needs no separate mark.
  const std::uint32_t start = rng_.below(count);
  auto find = [&](std::uint8_t want_tabu, std::int64_t gain) {
    auto one = [&](std::size_t lo, std::size_t hi) {
      return has_avx512() ? find_gain_avx512(delta, tabu, lo, hi, want_tabu, gain)
                          : find_gain_plain(delta, tabu, lo, hi, want_tabu, gain);
    };
    std::size_t i = one(start, count);
    if (i == count) {
      i = one(0, start);
      if (i == start) return n_;
    }
    return from + static_cast<std::uint32_t>(i);
  };
  free_var = find(0, free_gain);
  tabu_var = find(1, tabu_gain);
}

}  // namespace vell
