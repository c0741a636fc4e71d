// ExprImpl: a constant, one inline term and a malloc'd block of further terms.
#pragma once

#include <cstdint>
#include <cstdlib>

#include "algebra/term.h"
#include "constraint/tags.h"
#include "frame/variant.h"

namespace zorp {

// Fields in this order: constant, first_term, rest_capacity, rest_size, rest, ext. The inline
// slot spares a second allocation for one-term expressions; coefficient 0 there means empty.
// Terms are plain records in a realloc'd block: no constructor or destructor runs on them.
struct ExprImpl {
  energy_t constant = 0;
  TermImpl first_term = make_term(0);
  std::uint64_t rest_capacity = 0;
  std::uint64_t rest_size = 0;
  TermImpl* rest = nullptr;
  std::uint32_t ext = kNoTag;

  ExprImpl() = default;
  explicit ExprImpl(energy_t c) : constant(c) {}
  ExprImpl(const ExprImpl& other);
  ExprImpl(ExprImpl&& other) noexcept;
  ExprImpl& operator=(const ExprImpl& other);
  ExprImpl& operator=(ExprImpl&& other) noexcept;
  ~ExprImpl() { std::free(rest); }

  // An expression whose N terms are all to be written by position: position 0 is
  // first_term, position p is rest[p - 1]; rest is one block of exactly N - 1 terms.
  static ExprImpl with_positions(std::uint64_t n);
  // Constant and terms only, tag none.
  ExprImpl polynomial_copy() const;
  TermImpl& at_position(std::uint64_t p) { return p == 0 ? first_term : rest[p - 1]; }

  bool has_first() const { return first_term.coefficient != 0; }
  std::uint64_t term_count() const { return rest_size + (has_first() ? 1 : 0); }
  // Logical term i: first_term when in use, then rest.
  const TermImpl& term(std::uint64_t i) const {
    if (!has_first()) return rest[i];
    return i == 0 ? first_term : rest[i - 1];
  }
  TermImpl& term(std::uint64_t i) { return const_cast<TermImpl&>(static_cast<const ExprImpl&>(*this).term(i)); }
  // Calls f(term) on every logical term in order.
  template <class F>
  void for_each_term(F&& f) const {
    if (has_first()) f(first_term);
    for (std::uint64_t i = 0; i < rest_size; ++i) f(rest[i]);
  }

  // The rule behind every addition: an empty inline slot takes the term, else it is pushed.
  void add_term(const TermImpl& t) {
    if (!has_first()) {
      first_term = t;
    } else {
      push_rest(t);
    }
  }
  void sub_term(const TermImpl& t) { add_term(TermImpl{wrapping_neg(t.coefficient), t.vars}); }
  // Appends to rest, doubling the block (4 slots first).
  void push_rest(const TermImpl& t) {
    if (rest_size == rest_capacity) grow_rest(rest_capacity == 0 ? 4 : rest_capacity * 2);
    rest[rest_size++] = t;
  }
  // Exactly `capacity` slots (never shrinks).
  void reserve_rest(std::uint64_t capacity) {
    if (capacity > rest_capacity) grow_rest(capacity);
  }

  ExprImpl& operator+=(const ExprImpl& other);
  ExprImpl& operator-=(const ExprImpl& other);
  void imul_int(std::int64_t factor);
  void negate();
  void idiv_int(std::int64_t divisor);
  // Appends `count` terms from flat arrays behind rest, growing it to the exact size.
  void add_terms_bulk(std::uint64_t count, const coeff_t* coeffs, const std::uint32_t* degrees,
                      const std::uint32_t* vars);

  // Products by closed-form placement; results have ext none.
  ExprImpl mul_var(std::uint32_t v) const;
  ExprImpl mul_term(const TermImpl& t) const;
  ExprImpl mul(const ExprImpl& other) const;
  ExprImpl sqr() const;

 private:
  void grow_rest(std::uint64_t capacity);
  void copy_from(const ExprImpl& other, bool with_tag);
};

// Copies `n` terms from `from` to `to`, in parallel above the serial threshold.
void copy_terms(TermImpl* to, const TermImpl* from, std::uint64_t n);

}  // namespace zorp
