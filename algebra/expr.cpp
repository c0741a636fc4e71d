#include "algebra/expr.h"

#include <atomic>
#include <cstring>
#include <new>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "frame/fatal.h"
#include "frame/memory.h"
#include "frame/parallel.h"

namespace zorp {

void copy_terms(TermImpl* to, const TermImpl* from, std::uint64_t n) {
  parallel_for_ranges(0, n, [&](std::uint64_t begin, std::uint64_t end) {
    std::memcpy(static_cast<void*>(to + begin), from + begin, (end - begin) * sizeof(TermImpl));
  });
}

void ExprImpl::grow_rest(std::uint64_t capacity) {
  prefer_mapped_large_blocks(capacity * sizeof(TermImpl));
  void* block = std::realloc(rest, capacity * sizeof(TermImpl));
  if (block == nullptr) throw std::bad_alloc();
  rest = static_cast<TermImpl*>(block);
  advise_huge_pages(rest, capacity * sizeof(TermImpl));
  rest_capacity = capacity;
}

void ExprImpl::copy_from(const ExprImpl& other, bool with_tag) {
  constant = other.constant;
  first_term = other.first_term;
  ext = with_tag ? other.ext : kNoTag;
  if (other.rest_size > 0) {
    prefer_mapped_large_blocks(other.rest_size * sizeof(TermImpl));
    rest = static_cast<TermImpl*>(std::malloc(other.rest_size * sizeof(TermImpl)));
    if (rest == nullptr) throw std::bad_alloc();
    advise_huge_pages(rest, other.rest_size * sizeof(TermImpl));
    rest_capacity = rest_size = other.rest_size;
    copy_terms(rest, other.rest, rest_size);
  }
  freeze_on_copy(ext);
}

ExprImpl::ExprImpl(const ExprImpl& other) {
  // A constructor that throws runs no destructor, so the block copy_from took is freed here.
  try {
    copy_from(other, true);
  } catch (...) {
    std::free(rest);
    throw;
  }
}

ExprImpl::ExprImpl(ExprImpl&& other) noexcept
    : constant(other.constant),
      first_term(other.first_term),
      rest_capacity(std::exchange(other.rest_capacity, 0)),
      rest_size(std::exchange(other.rest_size, 0)),
      rest(std::exchange(other.rest, nullptr)),
      ext(std::exchange(other.ext, kNoTag)) {}

ExprImpl& ExprImpl::operator=(const ExprImpl& other) {
  if (this != &other) {
    ExprImpl copy(other);
    *this = std::move(copy);
  }
  return *this;
}

ExprImpl& ExprImpl::operator=(ExprImpl&& other) noexcept {
  if (this != &other) {
    std::free(rest);
    constant = other.constant;
    first_term = other.first_term;
    rest_capacity = std::exchange(other.rest_capacity, 0);
    rest_size = std::exchange(other.rest_size, 0);
    rest = std::exchange(other.rest, nullptr);
    ext = std::exchange(other.ext, kNoTag);
  }
  return *this;
}

ExprImpl ExprImpl::polynomial_copy() const {
  // A temporary must not freeze a shared constraint record, so the tag stays behind.
  ExprImpl copy;
  copy.copy_from(*this, false);
  return copy;
}

ExprImpl ExprImpl::with_positions(std::uint64_t n) {
  ExprImpl e;
  if (n > 1) {
    prefer_mapped_large_blocks((n - 1) * sizeof(TermImpl));
    e.rest = static_cast<TermImpl*>(std::malloc((n - 1) * sizeof(TermImpl)));
    if (e.rest == nullptr) throw std::bad_alloc();
    advise_huge_pages(e.rest, (n - 1) * sizeof(TermImpl));
    e.rest_capacity = e.rest_size = n - 1;
  }
  return e;
}

ExprImpl& ExprImpl::operator+=(const ExprImpl& other) {
  if (&other == this) {
    const ExprImpl copy = polynomial_copy();
    return *this += copy;
  }
  constant = wrapping_add(constant, other.constant);
  if (other.has_first()) add_term(other.first_term);
  reserve_rest(rest_size + other.rest_size);
  copy_terms(rest + rest_size, other.rest, other.rest_size);
  rest_size += other.rest_size;
  return *this;
}

ExprImpl& ExprImpl::operator-=(const ExprImpl& other) {
  if (&other == this) {
    const ExprImpl copy = polynomial_copy();
    return *this -= copy;
  }
  constant = wrapping_sub(constant, other.constant);
  if (other.has_first()) sub_term(other.first_term);
  reserve_rest(rest_size + other.rest_size);
  TermImpl* to = rest + rest_size;
  const TermImpl* from = other.rest;
  parallel_for(0, other.rest_size, [&](std::uint64_t i) {
    to[i] = TermImpl{wrapping_neg(from[i].coefficient), from[i].vars};
  });
  rest_size += other.rest_size;
  return *this;
}

void ExprImpl::imul_int(std::int64_t factor) {
  constant = wrapping_mul(constant, static_cast<energy_t>(factor));
  const coeff_t c = narrow_coeff(factor);
  if (has_first()) first_term.coefficient = wrapping_mul(first_term.coefficient, c);
  TermImpl* terms = rest;
  parallel_for(0, rest_size, [&](std::uint64_t i) { terms[i].coefficient = wrapping_mul(terms[i].coefficient, c); });
}

void ExprImpl::negate() {
  constant = wrapping_neg(constant);
  if (has_first()) first_term.coefficient = wrapping_neg(first_term.coefficient);
  TermImpl* terms = rest;
  parallel_for(0, rest_size, [&](std::uint64_t i) { terms[i].coefficient = wrapping_neg(terms[i].coefficient); });
}

void ExprImpl::idiv_int(std::int64_t divisor) {
  if (divisor == 0) fatal("Division by zero");
  // Dividing by -1 is a negation, which wraps on the minimum value instead of trapping.
  if (divisor == -1) {
    negate();
    return;
  }
  const auto wide_divisor = static_cast<energy_t>(divisor);
  if (constant % wide_divisor != 0) fatal("Indivisible division in Expr constant");
  constant /= wide_divisor;
  std::atomic<bool> indivisible{false};
  auto divide = [&](TermImpl& t) {
    const auto value = static_cast<std::int64_t>(t.coefficient);
    if (value % divisor != 0) {
      indivisible.store(true, std::memory_order_relaxed);
      return;
    }
    t.coefficient = narrow_coeff(value / divisor);
  };
  if (has_first()) divide(first_term);
  TermImpl* terms = rest;
  parallel_for(0, rest_size, [&](std::uint64_t i) { divide(terms[i]); });
  if (indivisible.load()) fatal("Indivisible division in Expr term");
}

namespace {

// Marks a chunk whose terms are not all of one degree.
constexpr unsigned kMixedDegrees = MAXDEG + 1;

// Writes terms [begin, end) from the flat arrays, the literal lists starting at `literal`.
// With the degree D known at compile time the literal loop unrolls and each term is built in
// registers and stored whole; kMixedDegrees reads each term's degree.
template <unsigned D>
void fill_bulk_terms(TermImpl* to, const coeff_t* coeffs, const std::uint32_t* degrees, const std::uint32_t* literal,
                     std::uint64_t begin, std::uint64_t end) {
  for (std::uint64_t i = begin; i < end; ++i) {
    TermImpl t = make_term(coeffs[i]);
    const unsigned d = D == kMixedDegrees ? degrees[i] : D;
    for (unsigned k = 0; k < d; ++k) t.vars.slot[k] = literal[k];
    literal += d;
    to[i] = t;
  }
}

template <unsigned D = 0>
void fill_bulk_chunk(unsigned degree, TermImpl* to, const coeff_t* coeffs, const std::uint32_t* degrees,
                     const std::uint32_t* literal, std::uint64_t begin, std::uint64_t end) {
  if constexpr (D < kMixedDegrees) {
    if (degree != D) return fill_bulk_chunk<D + 1>(degree, to, coeffs, degrees, literal, begin, end);
  }
  fill_bulk_terms<D>(to, coeffs, degrees, literal, begin, end);
}

}  // namespace

void ExprImpl::add_terms_bulk(std::uint64_t count, const coeff_t* coeffs, const std::uint32_t* degrees,
                              const std::uint32_t* vars) {
  if (count == 0) return;
  // Offsets of the literal lists come from one pass over the degrees per chunk instead of a
  // stored prefix array: the same offsets, a third less memory traffic. The degrees are
  // checked in that pass so that a term past MAXDEG throws here, before anything changes,
  // and a chunk of one degree throughout (the common case of a front-end sum) is noted for
  // the faster fill.
  const unsigned threads = count > kSerialThreshold ? size_scaled_thread_count(count) : 1;
  const ChunkPlan plan = plan_chunks(count, threads);
  std::vector<std::uint64_t> chunk_offset(plan.chunks + 1, 0);
  std::vector<unsigned> chunk_degree(plan.chunks, kMixedDegrees);
  std::atomic<bool> too_deep{false};
  auto run = [&](auto&& body) {
    detail::run_chunks_on_pool(plan, threads, [&](std::uint64_t begin, std::uint64_t end) {
      for (std::uint64_t chunk = begin / plan.chunk_size; chunk * plan.chunk_size < end; ++chunk)
        body(chunk, plan.begin(chunk), plan.end(chunk));
    });
  };
  run([&](std::uint64_t chunk, std::uint64_t begin, std::uint64_t end) {
    std::uint64_t sum = 0;
    std::uint32_t deepest = 0, shallowest = degrees[begin];
    for (std::uint64_t i = begin; i < end; ++i) {
      sum += degrees[i];
      deepest = degrees[i] > deepest ? degrees[i] : deepest;
      shallowest = degrees[i] < shallowest ? degrees[i] : shallowest;
    }
    chunk_offset[chunk + 1] = sum;
    if (deepest > MAXDEG) too_deep.store(true, std::memory_order_relaxed);
    if (deepest == shallowest) chunk_degree[chunk] = deepest;
  });
  if (too_deep.load()) throw_push_past_maxdeg();
  for (std::uint64_t k = 0; k < plan.chunks; ++k) chunk_offset[k + 1] += chunk_offset[k];

  reserve_rest(rest_size + count);
  TermImpl* to = rest + rest_size;
  run([&](std::uint64_t chunk, std::uint64_t begin, std::uint64_t end) {
    fill_bulk_chunk(chunk_degree[chunk], to, coeffs, degrees, vars + chunk_offset[chunk], begin, end);
  });
  rest_size += count;
}

}  // namespace zorp
