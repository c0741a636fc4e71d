#include "algebra/merge.h"

#include "frame/memory.h"

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <new>
#include <stdexcept>
#include <utility>


#include "frame/fatal.h"
#include "frame/parallel.h"

// The sort's temporary buffer comes from std::get_temporary_buffer, deprecated since C++17.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
#include <boost/sort/block_indirect_sort/block_indirect_sort.hpp>
#pragma GCC diagnostic pop

namespace zorp {

namespace {

// Block and group sizes are fixed rather than left to the sort's own choice by record size:
// 1024 x 64 for 20-byte terms, 4096 x 64 for the 8-byte linear records.
template <std::uint32_t BlockSize, class Record, class Compare>
void block_sort(Record* first, Record* last, Compare compare, unsigned threads) {
  boost::sort::blk_detail::block_indirect_sort<BlockSize, 64, Record*, Compare>(first, last, compare, threads);
}

// body(begin, end) over [0, n): on the calling thread up to the serial threshold, else in
// chunks on the pool with the size-scaled share of `threads`.
template <class Body>
void for_ranges(std::uint64_t n, unsigned threads, Body&& body) {
  const unsigned team = n > kSerialThreshold ? size_scaled_thread_count(n, threads) : 1;
  if (team < 2) {
    if (n > 0) body(std::uint64_t{0}, n);
    return;
  }
  detail::run_chunks_on_pool(plan_chunks(n, team), team, body);
}

// One unit of work per index of [0, count), spread over `threads` threads.
template <class Body>
void for_each_unit(std::uint64_t count, unsigned threads, Body&& body) {
  detail::run_chunks_on_pool(plan_chunks_exact(count, count), threads, [&](std::uint64_t begin, std::uint64_t end) {
    for (std::uint64_t k = begin; k < end; ++k) body(k);
  });
}

bool is_degree_zero(const TermImpl& t) { return t.vars.slot[0] == kNoVar; }

// The scan of the vector path: runs are gathered and each sum stored by the adding rule.
ExprImpl serial_fold(const std::vector<TermImpl>& terms, energy_t constant) {
  ExprImpl result(constant);
  const std::uint64_t n = terms.size();
  for (std::uint64_t i = 0; i < n;) {
    const TermImpl& t = terms[i];
    if (t.coefficient == 0) {
      ++i;
      continue;
    }
    if (is_degree_zero(t)) {
      result.constant = wrapping_add(result.constant, static_cast<energy_t>(t.coefficient));
      ++i;
      continue;
    }
    coeff_t sum = t.coefficient;
    std::uint64_t j = i + 1;
    for (; j < n && same_vars(terms[j], t); ++j) sum = wrapping_add(sum, terms[j].coefficient);
    if (sum != 0) result.add_term(TermImpl{sum, t.vars});
    i = j;
  }
  return result;
}

// Folds the sorted range [begin, end) over itself: folding never lengthens a range, so no
// second vector is needed. Returns the end of the folded terms; numbers go to `constant`.
template <class Sum>
std::uint64_t fold_range(TermImpl* terms, std::uint64_t begin, std::uint64_t end, Sum& constant) {
  std::uint64_t w = begin;
  for (std::uint64_t i = begin; i < end; ++i) {
    const TermImpl t = terms[i];
    if (t.coefficient == 0) continue;
    if (is_degree_zero(t)) {
      constant = wrapping_add(constant, static_cast<Sum>(t.coefficient));
      continue;
    }
    if (w > begin && same_vars(terms[w - 1], t)) {
      TermImpl& back = terms[w - 1];
      back.coefficient = wrapping_add(back.coefficient, t.coefficient);
      if (back.coefficient == 0) --w;
    } else {
      terms[w++] = t;
    }
  }
  return w;
}

// The folded terms of one chunk, [begin, end) inside the chunk's own slice.
struct FoldedChunk {
  std::uint64_t begin = 0;
  std::uint64_t end = 0;
  // Numbers of the chunk, summed in coefficient width where the serial scan uses the
  // energy width; the two differ only on overflow.
  coeff_t constant = 0;
};

// Joins runs cut by chunk borders. A chunk left empty receives its left neighbour's last
// term, which is how a run spanning many chunks travels to its end.
void mend_seams(TermImpl* terms, std::vector<FoldedChunk>& chunks) {
  for (std::size_t k = 0; k + 1 < chunks.size(); ++k) {
    FoldedChunk& left = chunks[k];
    FoldedChunk& right = chunks[k + 1];
    if (left.begin == left.end) continue;
    const TermImpl& last = terms[left.end - 1];
    if (right.begin == right.end) {
      // The right chunk is untouched so far, so its slice still starts at its own base.
      terms[right.begin] = last;
      right.end = right.begin + 1;
      --left.end;
    } else if (same_vars(last, terms[right.begin])) {
      TermImpl& first = terms[right.begin];
      first.coefficient = wrapping_add(first.coefficient, last.coefficient);
      --left.end;
      if (first.coefficient == 0) ++right.begin;
    }
  }
}

// The parallel scan: `team` chunks folded at once, one chunk per unit of work, then the
// seams mended serially. The chunks' numbers are added to `constant`.
std::vector<FoldedChunk> fold_in_chunks(TermImpl* terms, std::uint64_t n, unsigned team, energy_t& constant) {
  const std::uint64_t chunk_size = (n + team - 1) / team;
  const std::uint64_t chunk_count = (n + chunk_size - 1) / chunk_size;
  std::vector<FoldedChunk> chunks(chunk_count);
  for_each_unit(chunk_count, team, [&](std::uint64_t k) {
    const std::uint64_t begin = k * chunk_size;
    coeff_t numbers = 0;
    const std::uint64_t end = fold_range(terms, begin, std::min(n, begin + chunk_size), numbers);
    chunks[k] = FoldedChunk{begin, end, numbers};
  });
  mend_seams(terms, chunks);
  for (const FoldedChunk& chunk : chunks) constant = wrapping_add(constant, static_cast<energy_t>(chunk.constant));
  return chunks;
}

// Copies the folded chunks into a fresh result of exactly their size, chunk by chunk.
ExprImpl copy_out(const TermImpl* terms, const std::vector<FoldedChunk>& chunks, energy_t constant, unsigned threads) {
  std::vector<std::uint64_t> offset(chunks.size() + 1, 0);
  for (std::size_t k = 0; k < chunks.size(); ++k) offset[k + 1] = offset[k] + (chunks[k].end - chunks[k].begin);
  const std::uint64_t total = offset.back();
  ExprImpl result = ExprImpl::with_positions(total);
  result.constant = constant;
  auto copy_chunk = [&](std::uint64_t k) {
    const TermImpl* from = terms + chunks[k].begin;
    std::uint64_t count = chunks[k].end - chunks[k].begin;
    std::uint64_t position = offset[k];
    if (count == 0) return;
    if (position == 0) {
      result.first_term = *from++;
      --count;
      position = 1;
    }
    std::memcpy(static_cast<void*>(result.rest + (position - 1)), from, count * sizeof(TermImpl));
  };
  if (total > kSerialThreshold) {
    for_each_unit(chunks.size(), size_scaled_thread_count(total, threads), copy_chunk);
  } else {
    for (std::size_t k = 0; k < chunks.size(); ++k) copy_chunk(k);
  }
  return result;
}

// Moves the folded chunks down to their final places inside the block and makes the block
// the result's rest. Every chunk moves towards the front and never past the next chunk's
// terms, so ascending order is safe.
ExprImpl adopt_block(TermBlock&& block, const std::vector<FoldedChunk>& chunks, energy_t constant) {
  ExprImpl result(constant);
  TermImpl* terms = block.data();
  std::uint64_t placed = 0;
  for (const FoldedChunk& chunk : chunks) {
    std::uint64_t from = chunk.begin, count = chunk.end - chunk.begin;
    if (count == 0) continue;
    if (placed == 0) {
      result.first_term = terms[from++];
      --count;
      placed = 1;
    }
    if (from != placed - 1 && count > 0)
      std::memmove(static_cast<void*>(terms + (placed - 1)), terms + from, count * sizeof(TermImpl));
    placed += count;
  }
  if (placed <= 1) return result;
  const std::uint64_t rest = placed - 1;
  TermImpl* owned = block.release();
  // Shrinking a large block remaps it in place; should it fail, the larger block serves.
  void* shrunk = std::realloc(owned, rest * sizeof(TermImpl));
  result.rest = shrunk != nullptr ? static_cast<TermImpl*>(shrunk) : owned;
  result.rest_capacity = result.rest_size = rest;
  return result;
}

// The terms of `e` in order (first_term first) copied into a block, each passed through
// `prepare`, which rewrites a term in place.
template <class Prepare>
TermBlock prepared_terms(const ExprImpl& e, unsigned threads, Prepare&& prepare) {
  const std::uint64_t n = e.term_count();
  TermBlock terms(n);
  TermImpl* to = terms.data();
  const std::uint64_t shift = e.has_first() ? 1 : 0;
  if (shift != 0) {
    to[0] = e.first_term;
    prepare(to[0]);
  }
  const TermImpl* from = e.rest;
  for_ranges(e.rest_size, threads, [&](std::uint64_t begin, std::uint64_t end) {
    for (std::uint64_t i = begin; i < end; ++i) {
      TermImpl t = from[i];
      prepare(t);
      to[shift + i] = t;
    }
  });
  return terms;
}

// ---- binary rules ----

struct BinaryRewriteState {
  RecordBlock<ExtraTerm1> extras;
  coeff_t constant = 0;
};

void sort_pair(std::uint32_t* slot) {
  if (literal_sort_key(slot[0]) > literal_sort_key(slot[1])) std::swap(slot[0], slot[1]);
}

// x*x = x for binary literals; an integer atom keeps every copy. x*~x makes the term zero.
// Returns the degree left.
unsigned collapse_repeats(TermImpl& t, unsigned degree) {
  t.vars.sort_by_key();
  std::uint32_t* slot = t.vars.slot;
  unsigned kept = 0;
  for (unsigned i = 0; i < degree;) {
    const std::uint32_t literal = slot[i];
    unsigned j = i + 1;
    while (j < degree && slot[j] == literal) ++j;
    if (is_int_atom(literal)) {
      while (i < j) slot[kept++] = slot[i++];
      continue;
    }
    // The key order puts ~x right behind the run of x.
    if (j < degree && slot[j] == negate_literal(literal)) {
      t.coefficient = 0;
      return 0;
    }
    slot[kept++] = literal;
    i = j;
  }
  for (unsigned i = kept; i < degree; ++i) slot[i] = kNoVar;
  return kept;
}

void rewrite_quadratic(TermImpl& t, BinaryRewriteState& state, coeff_t& constant) {
  std::uint32_t* slot = t.vars.slot;
  const coeff_t c = t.coefficient;
  const std::uint32_t a = slot[0], b = slot[1];
  if (((a | b) & kNegatedBit) == 0) {
    if (a != b) {
      sort_pair(slot);
    } else if (!is_int_atom(a)) {
      slot[1] = kNoVar;
    }
    return;
  }
  const std::uint32_t x = positive_literal(a), y = positive_literal(b);
  if (x == y) {
    if (is_negated(a) && is_negated(b)) {
      // ~x*~x = 1 - x
      constant = wrapping_add(constant, c);
      t.coefficient = wrapping_neg(c);
      slot[0] = x;
      slot[1] = kNoVar;
    } else {
      t.coefficient = 0;
    }
    return;
  }
  slot[0] = x;
  slot[1] = y;
  sort_pair(slot);
  if (is_negated(a) && is_negated(b)) {
    // ~x*~y = 1 - x - y + x*y
    constant = wrapping_add(constant, c);
    state.extras.push_back({wrapping_neg(c), x});
    state.extras.push_back({wrapping_neg(c), y});
  } else {
    // ~x*y = y - x*y
    t.coefficient = wrapping_neg(c);
    state.extras.push_back({c, is_negated(a) ? y : x});
  }
}

void rewrite_binary(TermImpl& t, BinaryRewriteState& state, coeff_t& constant) {
  if (t.coefficient == 0) return;
  unsigned degree = t.vars.degree();
  if (degree >= 3) {
    degree = collapse_repeats(t, degree);
    // Negated literals are expanded in degrees 1 and 2 only: at degree 3 and up the
    // expansion would multiply the term count.
    if (t.coefficient == 0 || degree >= 3) return;
  }
  if (degree == 2) {
    rewrite_quadratic(t, state, constant);
  } else if (degree == 1 && is_negated(t.vars.slot[0])) {
    constant = wrapping_add(constant, t.coefficient);
    t.coefficient = wrapping_neg(t.coefficient);
    t.vars.slot[0] = positive_literal(t.vars.slot[0]);
  }
}

// Logical terms [begin, end) of `e` rewritten into the same places of `to`. Copy and
// rewrite are one pass, so each term is read and written once.
void rewrite_binary_range(const ExprImpl& e, TermImpl* to, std::uint64_t begin, std::uint64_t end,
                          BinaryRewriteState& state) {
  coeff_t constant = 0;
  const std::uint64_t shift = e.has_first() ? 1 : 0;
  if (begin == 0 && shift != 0 && end > 0) {
    TermImpl t = e.first_term;
    rewrite_binary(t, state, constant);
    to[0] = t;
    begin = 1;
  }
  for (std::uint64_t i = begin; i < end; ++i) {
    TermImpl t = e.rest[i - shift];
    rewrite_binary(t, state, constant);
    to[i] = t;
  }
  state.constant = wrapping_add(state.constant, constant);
}

// Sums the linear records per variable and appends the non-zero sums as terms.
void append_linear_terms(std::vector<BinaryRewriteState>& states, TermBlock& terms, unsigned threads) {
  std::uint64_t count = 0;
  for (const auto& s : states) count += s.extras.size();
  if (count == 0) return;
  // The first thread's records grow in place into the concatenation.
  RecordBlock<ExtraTerm1> extras = std::move(states[0].extras);
  extras.reserve(count);
  for (std::size_t t = 1; t < states.size(); ++t) {
    extras.append(states[t].extras.data(), states[t].extras.size());
    states[t].extras = RecordBlock<ExtraTerm1>();
  }
  block_sort<4096>(extras.data(), extras.data() + extras.size(),
                   [](const ExtraTerm1& a, const ExtraTerm1& b) { return a.var < b.var; }, threads);
  for (std::uint64_t i = 0; i < extras.size();) {
    const std::uint32_t var = extras[i].var;
    coeff_t sum = 0;
    for (; i < extras.size() && extras[i].var == var; ++i) sum = wrapping_add(sum, extras[i].coefficient);
    if (sum == 0) continue;
    TermImpl t = make_term(sum);
    t.vars.slot[0] = var;
    terms.push_back(t);
  }
}

// Room kept behind the rewritten terms for the summed linear terms: at most two per term,
// and in practice at most one per variable. Growing a block of huge pages later moves it,
// which costs as much as faulting it in again; untouched room costs nothing.
constexpr std::uint64_t kLinearSpare = std::uint64_t{1} << 20;

// ---- spin rules ----

// Returns false on an integer atom, leaving the term half done.
bool rewrite_spin(TermImpl& t) {
  if (t.coefficient == 0) return true;
  std::uint32_t* slot = t.vars.slot;
  const unsigned degree = t.vars.degree();
  unsigned negated = 0;
  for (unsigned i = 0; i < degree; ++i) {
    if (is_int_atom(slot[i])) return false;
    negated += is_negated(slot[i]) ? 1 : 0;
    slot[i] = positive_literal(slot[i]);
  }
  if (negated % 2 != 0) t.coefficient = wrapping_neg(t.coefficient);
  t.vars.sort_by_key();
  unsigned kept = 0;
  for (unsigned i = 0; i < degree;) {
    if (i + 1 < degree && slot[i] == slot[i + 1]) {
      i += 2;
    } else {
      slot[kept++] = slot[i++];
    }
  }
  for (unsigned i = kept; i < degree; ++i) slot[i] = kNoVar;
  return true;
}

}  // namespace

void sort_terms(TermImpl* first, TermImpl* last, unsigned threads) {
  block_sort<1024>(first, last, TermOrder{}, threads);
}

namespace detail {


void throw_block_too_large() { throw std::length_error("cannot create std::vector larger than max_size()"); }

}  // namespace detail

ExprImpl merge_terms(std::vector<TermImpl>& terms, energy_t constant) {
  return merge_terms(terms, constant, thread_number());
}

ExprImpl merge_terms(std::vector<TermImpl>& terms, energy_t constant, unsigned threads) {
  if (terms.empty()) return ExprImpl(constant);
  // The sort takes the plain thread number; it stays serial on its own for small input.
  sort_terms(terms.data(), terms.data() + terms.size(), threads);
  const std::uint64_t n = terms.size();
  const unsigned team = size_scaled_thread_count(n, threads);
  if (team < 2 || n <= kSerialThreshold) return serial_fold(terms, constant);
  const std::vector<FoldedChunk> chunks = fold_in_chunks(terms.data(), n, team, constant);
  return copy_out(terms.data(), chunks, constant, threads);
}

ExprImpl merge_terms(TermBlock&& terms, energy_t constant, unsigned threads) {
  TermBlock block = std::move(terms);
  const std::uint64_t n = block.size();
  if (n == 0) return ExprImpl(constant);
  sort_terms(block.data(), block.data() + n, threads);
  const unsigned team = size_scaled_thread_count(n, threads);
  if (team < 2 || n <= kSerialThreshold) {
    energy_t numbers = 0;
    const std::uint64_t end = fold_range(block.data(), 0, n, numbers);
    return adopt_block(std::move(block), {FoldedChunk{0, end, 0}}, wrapping_add(constant, numbers));
  }
  const std::vector<FoldedChunk> chunks = fold_in_chunks(block.data(), n, team, constant);
  return adopt_block(std::move(block), chunks, constant);
}

ExprImpl expr_simplify(const ExprImpl& e) { return expr_simplify(e, thread_number()); }

ExprImpl expr_simplify(const ExprImpl& e, unsigned threads) {
  if (e.term_count() == 0) return ExprImpl(e.constant);
  return merge_terms(prepared_terms(e, threads, [](TermImpl& t) { t.vars.sort_by_key(); }), e.constant, threads);
}

ExprImpl expr_simplify_as_spin(const ExprImpl& e) { return expr_simplify_as_spin(e, thread_number()); }

ExprImpl expr_simplify_as_spin(const ExprImpl& e, unsigned threads) {
  // Workers only raise a flag, so the fatal line is written once, from the calling thread.
  std::atomic<bool> int_atom{false};
  TermBlock terms = prepared_terms(e, threads, [&](TermImpl& t) {
    if (!rewrite_spin(t)) int_atom.store(true, std::memory_order_relaxed);
  });
  if (int_atom.load()) {
    fatal("simplify_as_spin(): native integer variables (int_var) are not supported (spin rules do not apply to "
          "integer atoms).");
  }
  return merge_terms(std::move(terms), e.constant, threads);
}

ExprImpl expr_simplify_as_binary(const ExprImpl& e) { return expr_simplify_as_binary(e, thread_number()); }

ExprImpl expr_simplify_as_binary(const ExprImpl& e, unsigned threads) {
  const std::uint64_t n = e.term_count();
  TermBlock terms(n, std::min(2 * n, kLinearSpare));
  TermImpl* to = terms.data();
  std::vector<BinaryRewriteState> states;
  if (threads > 1 && n > kSerialThreshold) {
    // A team of fresh threads rather than the pool: each keeps its own linear records.
    states.resize(threads);
    team_for_ranges(threads, n, [&](unsigned thread_index, std::uint64_t begin, std::uint64_t end) {
      rewrite_binary_range(e, to, begin, end, states[thread_index]);
    });
  } else {
    states.resize(1);
    rewrite_binary_range(e, to, 0, n, states[0]);
  }
  energy_t constant = e.constant;
  for (const auto& s : states) constant = wrapping_add(constant, static_cast<energy_t>(s.constant));
  append_linear_terms(states, terms, threads);
  return merge_terms(std::move(terms), constant, threads);
}

}  // namespace zorp
