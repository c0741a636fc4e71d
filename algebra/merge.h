// Canonical form: one sort of a term vector folded into an expression, and the three
// simplifiers that prepare the vector under no rule, the 0/1 rules or the ±1 rules.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>
#include <type_traits>
#include <utility>
#include <vector>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "algebra/expr.h"
#include "algebra/term.h"
#include "frame/memory.h"
#include "frame/variant.h"

namespace zorp {

// Term order on the records themselves, with no key array. Degree decides first: with the
// slots packed, the mask of sentinel slots orders terms by degree just as well (more
// sentinels, lower degree). At equal degree the sentinels stand in the same slots, so the
// rotated slots compare as two 64-bit words, slot 0 most significant.
struct TermOrder {
  bool operator()(const TermImpl& a, const TermImpl& b) const noexcept {
    if constexpr (MAXDEG == 4) {
      const unsigned sa = sentinel_mask(a.vars), sb = sentinel_mask(b.vars);
      if (sa != sb) return sa > sb;
      const std::uint64_t ha = key_word(a.vars, 0), hb = key_word(b.vars, 0);
      if (ha != hb) return ha < hb;
      return key_word(a.vars, 2) < key_word(b.vars, 2);
    } else {
      return term_less(a, b);
    }
  }

 private:
  // One bit per slot, set for a sentinel; slots are packed, so only degree decides it.
  static unsigned sentinel_mask(const VarArray& v) noexcept {
#if defined(__SSE2__)
    const __m128i slots = _mm_loadu_si128(reinterpret_cast<const __m128i*>(v.slot));
    return static_cast<unsigned>(_mm_movemask_ps(_mm_castsi128_ps(_mm_cmpeq_epi32(slots, _mm_set1_epi32(-1)))));
#else
    unsigned mask = 0;
    for (unsigned i = 0; i < MAXDEG; ++i) mask |= (v.slot[i] == kNoVar ? 1u : 0u) << i;
    return mask;
#endif
  }
  // Only MAXDEG 4 calls this; the modulo keeps other variants in bounds.
  static std::uint64_t key_word(const VarArray& v, unsigned first) noexcept {
    return std::uint64_t{literal_sort_key(v.slot[first % MAXDEG])} << 32 | literal_sort_key(v.slot[(first + 1) % MAXDEG]);
  }
};

// A linear term given off when expr_simplify_as_binary expands a negated literal; kept out
// of the term vector so that the rewrite stays in place.
struct ExtraTerm1 {
  coeff_t coefficient;
  std::uint32_t var;
};

// Sorts terms in term order with `threads` threads (serial below the sort's own sizes).
void sort_terms(TermImpl* first, TermImpl* last, unsigned threads);

namespace detail {
[[noreturn]] void throw_block_too_large();
}  // namespace detail

// A malloc'd block of plain records, uninitialised until written. Growth goes through
// realloc, which remaps a large block's pages instead of copying and faulting them in again.
// Merging folds a block of terms in place and hands it to its result as rest, so that a
// merge allocates no second block of the input's size.
template <class Record>
class RecordBlock {
  static_assert(std::is_trivially_copyable_v<Record>, "records are moved bytewise");

 public:
  RecordBlock() = default;
  // Room for `size + spare` records, of which the first `size` are in use. A block this
  // large is meant to be filled at once and asks for huge pages.
  explicit RecordBlock(std::uint64_t size, std::uint64_t spare = 0) {
    reserve(size + spare);
    size_ = size;
    advise_huge_pages(data_, capacity_ * sizeof(Record));
  }
  RecordBlock(RecordBlock&& other) noexcept
      : data_(std::exchange(other.data_, nullptr)),
        size_(std::exchange(other.size_, 0)),
        capacity_(std::exchange(other.capacity_, 0)) {}
  RecordBlock& operator=(RecordBlock&& other) noexcept {
    if (this != &other) {
      std::free(data_);
      data_ = std::exchange(other.data_, nullptr);
      size_ = std::exchange(other.size_, 0);
      capacity_ = std::exchange(other.capacity_, 0);
    }
    return *this;
  }
  RecordBlock(const RecordBlock&) = delete;
  RecordBlock& operator=(const RecordBlock&) = delete;
  ~RecordBlock() { std::free(data_); }

  Record* data() { return data_; }
  const Record* data() const { return data_; }
  std::uint64_t size() const { return size_; }
  Record& operator[](std::uint64_t i) { return data_[i]; }

  // Exactly `capacity` records of room when that is more than there is.
  void reserve(std::uint64_t capacity) {
    if (capacity <= capacity_) return;
    if (capacity > PTRDIFF_MAX / sizeof(Record)) detail::throw_block_too_large();
    void* grown = std::realloc(data_, capacity * sizeof(Record));
    if (grown == nullptr) throw std::bad_alloc();
    data_ = static_cast<Record*>(grown);
    capacity_ = capacity;
  }
  void push_back(const Record& r) {
    if (size_ == capacity_) reserve(capacity_ < 32 ? 64 : 2 * capacity_);
    data_[size_++] = r;
  }
  void append(const Record* from, std::uint64_t count) {
    reserve(size_ + count);
    if (count > 0) std::memcpy(static_cast<void*>(data_ + size_), from, count * sizeof(Record));
    size_ += count;
  }

  // Hands the block over: the caller frees it.
  Record* release() {
    size_ = capacity_ = 0;
    return std::exchange(data_, nullptr);
  }

 private:
  Record* data_ = nullptr;
  std::uint64_t size_ = 0;
  std::uint64_t capacity_ = 0;
};

using TermBlock = RecordBlock<TermImpl>;

// Sorts `terms` and folds it with `constant` into a canonical expression (ext none).
// `terms` is working space: its contents afterwards are unspecified. Overloads taking
// `threads` use it in place of the thread number, so that thread counts can be compared in
// one process. Results agree between thread counts, except that the parallel path sums the
// degree-0 terms of each chunk in coefficient width, which differs only on overflow.
ExprImpl merge_terms(std::vector<TermImpl>& terms, energy_t constant);
ExprImpl merge_terms(std::vector<TermImpl>& terms, energy_t constant, unsigned threads);
// The same fold done inside the block, which becomes the result's rest (exact capacity).
ExprImpl merge_terms(TermBlock&& terms, energy_t constant, unsigned threads);

// Canonical copies of `e` with ext none; `e` is unchanged. expr_simplify applies no variable
// rule (x*x stays, negated literals stay); the binary form applies x*x = x and ~x = 1 - x
// (the latter in terms of degree 1 and 2 only); the spin form applies x*x = 1 and ~x = -x and
// is fatal on integer atoms.
ExprImpl expr_simplify(const ExprImpl& e);
ExprImpl expr_simplify(const ExprImpl& e, unsigned threads);
ExprImpl expr_simplify_as_binary(const ExprImpl& e);
ExprImpl expr_simplify_as_binary(const ExprImpl& e, unsigned threads);
ExprImpl expr_simplify_as_spin(const ExprImpl& e);
ExprImpl expr_simplify_as_spin(const ExprImpl& e, unsigned threads);

}  // namespace zorp
