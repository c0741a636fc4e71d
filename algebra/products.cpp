// Products and squares by closed-form placement: the result size is known before the first
// term is written, the block is allocated once, and every position is written by one thread.

#include <algorithm>
#include <array>
#include <cstdint>
#include <utility>

#include "algebra/expr.h"
#include "frame/parallel.h"

namespace zorp {

namespace {

// Products are bandwidth-bound: more than 8 threads only contend for memory.
constexpr unsigned kProductTeamCap = 8;
// Squares stay serial below this many (n - 1) * n.
constexpr std::uint64_t kSquareSerialBelow = 20000;

unsigned product_team_size() { return std::min(thread_number(), kProductTeamCap); }

ExprImpl product_block(std::uint64_t n) {
  return ExprImpl::with_positions(n);
}

// Counting occupied slots is exact because they form a prefix, and has no early exit.
inline unsigned degree_of(const VarArray& v) {
  unsigned d = 0;
  for (unsigned k = 0; k < MAXDEG; ++k) d += v.slot[k] != kNoVar ? 1 : 0;
  return d;
}

// The terms of an operand in logical order: an in-use first_term, then rest. Every index
// from 1 on lies in one contiguous run, so a range needs at most one split, at index 0.
struct Operand {
  const TermImpl* head = nullptr;  // first_term when in use
  const TermImpl* tail = nullptr;  // rest
  std::uint64_t size = 0;

  explicit Operand(const ExprImpl& e) : tail(e.rest), size(e.term_count()) {
    if (e.has_first()) head = &e.first_term;
  }
  const TermImpl& operator[](std::uint64_t i) const {
    if (head == nullptr) return tail[i];
    return i == 0 ? *head : tail[i - 1];
  }
  // Contiguous from index i to the end; i must not be 0 when head is in use, unless the
  // range holds only that one term.
  const TermImpl* from(std::uint64_t i) const { return head == nullptr ? tail + i : (i == 0 ? head : tail + i - 1); }
  unsigned deepest() const {
    unsigned d = 0;
    if (head != nullptr) d = degree_of(head->vars);
    for (std::uint64_t i = 0; i < size - (head != nullptr ? 1 : 0); ++i) d = std::max(d, degree_of(tail[i].vars));
    return d;
  }
};

// Result positions: 0 is first_term, p is rest[p - 1].
struct Positions {
  TermImpl* first;
  TermImpl* rest;
  explicit Positions(ExprImpl& e) : first(&e.first_term), rest(e.rest) {}
  TermImpl& operator[](std::uint64_t p) const { return p == 0 ? *first : rest[p - 1]; }
};

// Calls body(out, in, count) over the pieces of `count` positions from `p` and `count`
// operand terms from `j` in which both sides are contiguous: at most three pieces.
template <class Body>
void for_each_piece(const Positions& out, std::uint64_t p, const Operand& in, std::uint64_t j, std::uint64_t count,
                    Body&& body) {
  while (count > 0) {
    std::uint64_t k = count;
    TermImpl* to;
    if (p == 0) {
      to = out.first;
      k = 1;
    } else {
      to = out.rest + (p - 1);
    }
    const TermImpl* from;
    if (j == 0 && in.head != nullptr) {
      from = in.head;
      k = 1;
    } else {
      from = in.tail + (j - (in.head != nullptr ? 1 : 0));
    }
    body(to, from, k);
    p += k;
    j += k;
    count -= k;
  }
}

// left times each of right[0, count), into out[0, count). D is left's degree; the caller has
// checked that every right term fits behind it, so right's first MAXDEG - D slots hold all of
// its literals and then sentinels, and no degree is computed per product.
template <unsigned D>
void product_run(const TermImpl& left, const TermImpl* right, std::uint64_t count, TermImpl* out) {
  const coeff_t c = left.coefficient;
  std::uint32_t head[D > 0 ? D : 1];
  for (unsigned k = 0; k < D; ++k) head[k] = left.vars.slot[k];
  for (std::uint64_t j = 0; j < count; ++j) {
    const TermImpl& r = right[j];
    TermImpl t;
    t.coefficient = wrapping_mul(c, r.coefficient);
    for (unsigned k = 0; k < D; ++k) t.vars.slot[k] = head[k];
    for (unsigned k = D; k < MAXDEG; ++k) t.vars.slot[k] = r.vars.slot[k - D];
    out[j] = t;
  }
}

using ProductRun = void (*)(const TermImpl&, const TermImpl*, std::uint64_t, TermImpl*);

template <std::size_t... D>
constexpr std::array<ProductRun, MAXDEG + 1> make_product_runs(std::index_sequence<D...>) {
  return {&product_run<static_cast<unsigned>(D)>...};
}
constexpr std::array<ProductRun, MAXDEG + 1> kProductRuns = make_product_runs(std::make_index_sequence<MAXDEG + 1>{});

// The kernel for a left term; only valid once the degree check has passed.
inline ProductRun product_run_for(const TermImpl& left) { return kProductRuns[degree_of(left.vars)]; }

// Each of in[0, count) scaled by c, into out.
void scaled_run(coeff_t c, const TermImpl* in, std::uint64_t count, TermImpl* out) {
  for (std::uint64_t j = 0; j < count; ++j) out[j] = TermImpl{wrapping_mul(c, in[j].coefficient), in[j].vars};
}

// Section of `count` operand terms scaled by c, written from position p on.
void write_scaled_section(const Positions& out, std::uint64_t p, const Operand& in, coeff_t c) {
  parallel_for_ranges(0, in.size, [&](std::uint64_t begin, std::uint64_t end) {
    for_each_piece(out, p + begin, in, begin, end - begin,
                   [&](TermImpl* to, const TermImpl* from, std::uint64_t k) { scaled_run(c, from, k, to); });
  });
}

}  // namespace

ExprImpl ExprImpl::mul_var(std::uint32_t v) const {
  const Operand terms(*this);
  const std::uint64_t n = terms.size;
  // Checked before anything is allocated, so the throw is on the calling thread.
  if (n > 0 && terms.deepest() == MAXDEG) throw_push_past_maxdeg();
  const std::uint64_t shift = constant != 0 ? 1 : 0;
  ExprImpl result = product_block(n + shift);
  const Positions out(result);
  if (shift != 0) {
    TermImpl t = make_term(static_cast<coeff_t>(constant));
    t.vars.slot[0] = v;
    out[0] = t;
  }
  parallel_for_ranges(0, n, [&](std::uint64_t begin, std::uint64_t end) {
    for_each_piece(out, begin + shift, terms, begin, end - begin, [&](TermImpl* to, const TermImpl* from, std::uint64_t k) {
      for (std::uint64_t i = 0; i < k; ++i) {
        TermImpl t = from[i];
        t.vars.slot[degree_of(t.vars)] = v;
        to[i] = t;
      }
    });
  });
  return result;
}

ExprImpl ExprImpl::mul_term(const TermImpl& factor) const {
  const Operand terms(*this);
  const std::uint64_t n = terms.size;
  const unsigned factor_degree = degree_of(factor.vars);
  if (n > 0) check_concat_fits(terms.deepest(), factor_degree);
  const std::uint64_t shift = constant != 0 ? 1 : 0;
  ExprImpl result = product_block(n + shift);
  const Positions out(result);
  if (shift != 0) {
    TermImpl t = factor;
    t.coefficient = wrapping_mul(factor.coefficient, static_cast<coeff_t>(constant));
    out[0] = t;
  }
  // Here the fixed factor stands on the right, so the split point moves with each term.
  parallel_for_ranges(0, n, [&](std::uint64_t begin, std::uint64_t end) {
    for_each_piece(out, begin + shift, terms, begin, end - begin, [&](TermImpl* to, const TermImpl* from, std::uint64_t k) {
      for (std::uint64_t i = 0; i < k; ++i) {
        TermImpl t = from[i];
        t.coefficient = wrapping_mul(t.coefficient, factor.coefficient);
        const unsigned d = degree_of(t.vars);
        for (unsigned s = 0; s < factor_degree; ++s) t.vars.slot[d + s] = factor.vars.slot[s];
        to[i] = t;
      }
    });
  });
  return result;
}

ExprImpl ExprImpl::mul(const ExprImpl& other) const {
  const Operand a(*this), b(other);
  const std::uint64_t na = a.size, nb = b.size;
  const energy_t A = constant, B = other.constant;
  const std::uint64_t section_one = A != 0 ? nb : 0;
  const std::uint64_t section_two = B != 0 ? na : 0;
  const std::uint64_t total = section_one + section_two + na * nb;
  if (total == 0) return ExprImpl(wrapping_mul(A, B));
  // Every pair is formed, so the deepest pair decides; checked on the calling thread before
  // the block is allocated.
  if (na > 0 && nb > 0) check_concat_fits(a.deepest(), b.deepest());
  ExprImpl result = product_block(total);
  result.constant = wrapping_mul(A, B);
  const Positions out(result);
  if (section_one != 0) write_scaled_section(out, 0, b, static_cast<coeff_t>(A));
  if (section_two != 0) write_scaled_section(out, section_one, a, static_cast<coeff_t>(B));

  // Product a_i b_j stands at base + i * nb + j. Positions [row + j_begin, row + j_end) of
  // row i are one contiguous run.
  const std::uint64_t base = section_one + section_two;
  auto write_rows = [&](std::uint64_t i_begin, std::uint64_t i_end, std::uint64_t j_begin, std::uint64_t j_end) {
    for (std::uint64_t i = i_begin; i < i_end; ++i) {
      const TermImpl& left = a[i];
      const ProductRun run = product_run_for(left);
      for_each_piece(out, base + i * nb + j_begin, b, j_begin, j_end - j_begin,
                     [&](TermImpl* to, const TermImpl* from, std::uint64_t k) { run(left, from, k, to); });
    }
  };
  const unsigned team = product_team_size();
  if (team < 2 || na * nb <= kSerialThreshold) {
    write_rows(0, na, 0, nb);
  } else if (nb > na) {
    // b is the outer operand: a chunk of b's indices owns one column block of every row,
    // written row by row so that each store stream stays contiguous.
    team_for_ranges(team, nb, [&](unsigned, std::uint64_t begin, std::uint64_t end) { write_rows(0, na, begin, end); });
  } else {
    team_for_ranges(team, na, [&](unsigned, std::uint64_t begin, std::uint64_t end) { write_rows(begin, end, 0, nb); });
  }
  return result;
}

ExprImpl ExprImpl::sqr() const {
  const Operand terms(*this);
  const std::uint64_t n = terms.size;
  const energy_t A = constant;
  const std::uint64_t with_constant = A != 0 ? 1 : 0;
  const std::uint64_t total = n + (n > 0 ? n * (n - 1) / 2 : 0) + with_constant * n;
  if (total == 0) return ExprImpl(wrapping_mul(A, A));
  check_concat_fits(terms.deepest(), terms.deepest());
  ExprImpl result = product_block(total);
  result.constant = wrapping_mul(A, A);
  const Positions out(result);
  const coeff_t twice_constant = wrapping_mul(static_cast<coeff_t>(A), coeff_t(2));

  // Row i: t_i squared, then 2A t_i when A is not 0, then 2 t_i t_j for each j above i.
  // Doubling c_i before the product gives the same 32-bit value as doubling the product.
  auto write_row = [&](std::uint64_t i) {
    std::uint64_t p = i * n - (i > 0 ? i * (i - 1) / 2 : 0) + with_constant * i;
    const TermImpl& ti = terms[i];
    const ProductRun run = product_run_for(ti);
    TermImpl square;
    run(ti, &ti, 1, &square);
    out[p++] = square;
    if (with_constant != 0) out[p++] = TermImpl{wrapping_mul(ti.coefficient, twice_constant), ti.vars};
    // p is at least 1 and j at least 1 here, so both runs are contiguous.
    if (i + 1 < n) {
      const TermImpl doubled{wrapping_mul(ti.coefficient, coeff_t(2)), ti.vars};
      run(doubled, terms.from(i + 1), n - i - 1, out.rest + (p - 1));
    }
  };
  const unsigned team = product_team_size();
  if (team < 2 || (n - 1) * n < kSquareSerialBelow) {
    for (std::uint64_t i = 0; i < n; ++i) write_row(i);
  } else {
    // Rows shrink from first to last, hence small chunks fetched from the counter.
    team_for_ranges(team, n, [&](unsigned, std::uint64_t begin, std::uint64_t end) {
      for (std::uint64_t i = begin; i < end; ++i) write_row(i);
    });
  }
  return result;
}

}  // namespace zorp
