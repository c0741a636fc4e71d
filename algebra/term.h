// VarArray and TermImpl: the fixed-size term record and its literal operations.
#pragma once

#include <cstdint>
#include <cstring>

#include "frame/literal.h"
#include "frame/variant.h"

namespace zorp {

// MAXDEG literal slots packed from slot 0; unused slots hold kNoVar. The degree is never
// stored: it is the index of the first sentinel, so the record stays this small.
struct VarArray {
  std::uint32_t slot[MAXDEG];

  static VarArray empty() {
    VarArray v;
    for (unsigned i = 0; i < MAXDEG; ++i) v.slot[i] = kNoVar;
    return v;
  }

  unsigned degree() const {
    unsigned d = 0;
    while (d < MAXDEG && slot[d] != kNoVar) ++d;
    return d;
  }

  // Throws "VarArray: degree exceeds MAXDEG capacity (MAXDEG)" when full, unchanged.
  void push(std::uint32_t literal);
  // Throws "VarArray::append: degree exceeds MAXDEG capacity" when the sum does not fit;
  // the check comes first, so a failure leaves this list unchanged.
  void append(const VarArray& right);
  // Stable insertion sort by literal sort key.
  void sort_by_key();

  friend bool operator==(const VarArray& a, const VarArray& b) {
    return std::memcmp(a.slot, b.slot, sizeof a.slot) == 0;
  }
};

// The two capacity exceptions, raised before anything changes.
[[noreturn]] void throw_push_past_maxdeg();

// Split transfer form: a word with literals 0 (low half) and 1 (high half), and a block of at
// most two more, read as far as it holds literals.
VarArray vararray_from_split(std::uint64_t word, const std::uint32_t* more);

// A coefficient times a product of literals; copied bytewise, owns nothing. Coefficient 0 is a
// hole that simplification drops.
struct TermImpl {
  coeff_t coefficient;
  VarArray vars;
};

static_assert(std::is_trivially_copyable_v<TermImpl>, "terms are copied bytewise");

inline TermImpl make_term(coeff_t coefficient) { return TermImpl{coefficient, VarArray::empty()}; }

// A term built by appending `n` literals in order; throws past MAXDEG.
TermImpl make_raw_term(coeff_t coefficient, const std::uint32_t* vars, std::size_t n);

[[noreturn]] void throw_concat_past_maxdeg();
inline void check_concat_fits(unsigned left_degree, unsigned right_degree) {
  if (left_degree + right_degree > MAXDEG) throw_concat_past_maxdeg();
}

// Term order: fewer literals first, then lexicographic by literal sort key.
inline bool term_less(const TermImpl& a, const TermImpl& b) {
  for (unsigned i = 0; i < MAXDEG; ++i) {
    const std::uint32_t x = a.vars.slot[i], y = b.vars.slot[i];
    if (x == y) {
      if (x == kNoVar) return false;
      continue;
    }
    // A sentinel ends the shorter term, which goes first.
    if (x == kNoVar) return true;
    if (y == kNoVar) return false;
    const unsigned da = a.vars.degree(), db = b.vars.degree();
    if (da != db) return da < db;
    // Same degree: the first differing slot decides.
    return literal_sort_key(x) < literal_sort_key(y);
  }
  return false;
}

// Term identity: same literals bit for bit.
inline bool same_vars(const TermImpl& a, const TermImpl& b) { return a.vars == b.vars; }

}  // namespace zorp
