// Products and squares by closed-form placement: the result size is known before the first
// term is written, the block is allocated once, and every position is written by one thread.
#include <algorithm>

#include "algebra/expr.h"
#include "frame/parallel.h"

namespace zorp {

namespace {

// Products are bandwidth-bound: more than 8 threads only contend for memory.
constexpr unsigned kProductTeamCap = 8;

unsigned product_team_size() { return std::min(thread_number(), kProductTeamCap); }

TermImpl times(const TermImpl& a, const TermImpl& b) {
  TermImpl product = a;
  product.coefficient = wrapping_mul(a.coefficient, b.coefficient);
  product.vars.append(b.vars);
  return product;
}

// The logical terms as one array, so that term i is an index away. A first_term in use
// costs one copy of the whole list only when rest is non-empty.
class LogicalTerms {
 public:
  explicit LogicalTerms(const ExprImpl& e) {
    if (!e.has_first()) {
      data_ = e.rest;
      size_ = e.rest_size;
    } else if (e.rest_size == 0) {
      data_ = &e.first_term;
      size_ = 1;
    } else {
      first_ = &e.first_term;
      rest_ = e.rest;
      size_ = e.rest_size + 1;
    }
  }
  std::uint64_t size() const { return size_; }
  const TermImpl& operator[](std::uint64_t i) const {
    if (data_ != nullptr) return data_[i];
    return i == 0 ? *first_ : rest_[i - 1];
  }

 private:
  const TermImpl* data_ = nullptr;
  const TermImpl* first_ = nullptr;
  const TermImpl* rest_ = nullptr;
  std::uint64_t size_ = 0;
};

}  // namespace

ExprImpl ExprImpl::mul_var(std::uint32_t v) const {
  const LogicalTerms terms(*this);
  const std::uint64_t n = terms.size();
  const std::uint64_t shift = constant != 0 ? 1 : 0;
  ExprImpl result = with_positions(n + shift);
  if (shift != 0) {
    TermImpl t = make_term(static_cast<coeff_t>(constant));
    t.vars.slot[0] = v;
    result.at_position(0) = t;
  }
  // A term already at MAXDEG is found before any thread writes, so the throw stays on the
  // calling thread.
  for (std::uint64_t i = 0; i < n; ++i)
    if (terms[i].vars.degree() == MAXDEG) throw_push_past_maxdeg();
  parallel_for(0, n, [&](std::uint64_t i) {
    TermImpl t = terms[i];
    t.vars.slot[t.vars.degree()] = v;
    result.at_position(i + shift) = t;
  });
  return result;
}

ExprImpl ExprImpl::mul_term(const TermImpl& factor) const {
  const LogicalTerms terms(*this);
  const std::uint64_t n = terms.size();
  const std::uint64_t shift = constant != 0 ? 1 : 0;
  const unsigned factor_degree = factor.vars.degree();
  for (std::uint64_t i = 0; i < n; ++i) check_concat_fits(terms[i].vars.degree(), factor_degree);
  ExprImpl result = with_positions(n + shift);
  if (shift != 0) {
    TermImpl t = factor;
    t.coefficient = wrapping_mul(factor.coefficient, static_cast<coeff_t>(constant));
    result.at_position(0) = t;
  }
  parallel_for(0, n, [&](std::uint64_t i) { result.at_position(i + shift) = times(terms[i], factor); });
  return result;
}

ExprImpl ExprImpl::mul(const ExprImpl& other) const {
  const LogicalTerms a(*this), b(other);
  const std::uint64_t na = a.size(), nb = b.size();
  const energy_t A = constant, B = other.constant;
  const std::uint64_t section_one = A != 0 ? nb : 0;
  const std::uint64_t section_two = B != 0 ? na : 0;
  const std::uint64_t total = section_one + section_two + na * nb;
  if (total == 0) return ExprImpl(wrapping_mul(A, B));
  // Degree overflow is detected up front from the deepest terms, on the calling thread.
  if (na > 0 && nb > 0) {
    unsigned deepest_a = 0, deepest_b = 0;
    for (std::uint64_t i = 0; i < na; ++i) deepest_a = std::max(deepest_a, a[i].vars.degree());
    for (std::uint64_t j = 0; j < nb; ++j) deepest_b = std::max(deepest_b, b[j].vars.degree());
    check_concat_fits(deepest_a, deepest_b);
  }
  ExprImpl result = with_positions(total);
  result.constant = wrapping_mul(A, B);
  const coeff_t a_constant = static_cast<coeff_t>(A), b_constant = static_cast<coeff_t>(B);
  if (section_one != 0) {
    parallel_for(0, nb, [&](std::uint64_t j) {
      TermImpl t = b[j];
      t.coefficient = wrapping_mul(a_constant, t.coefficient);
      result.at_position(j) = t;
    });
  }
  if (section_two != 0) {
    parallel_for(0, na, [&](std::uint64_t i) {
      TermImpl t = a[i];
      t.coefficient = wrapping_mul(b_constant, t.coefficient);
      result.at_position(section_one + i) = t;
    });
  }
  const std::uint64_t base = section_one + section_two;
  const unsigned team = product_team_size();
  if (team < 2 || na * nb <= kSerialThreshold) {
    for (std::uint64_t i = 0; i < na; ++i)
      for (std::uint64_t j = 0; j < nb; ++j) result.at_position(base + i * nb + j) = times(a[i], b[j]);
  } else if (nb > na) {
    team_for_ranges(team, nb, [&](unsigned, std::uint64_t begin, std::uint64_t end) {
      for (std::uint64_t j = begin; j < end; ++j)
        for (std::uint64_t i = 0; i < na; ++i) result.at_position(base + i * nb + j) = times(a[i], b[j]);
    });
  } else {
    team_for_ranges(team, na, [&](unsigned, std::uint64_t begin, std::uint64_t end) {
      for (std::uint64_t i = begin; i < end; ++i)
        for (std::uint64_t j = 0; j < nb; ++j) result.at_position(base + i * nb + j) = times(a[i], b[j]);
    });
  }
  return result;
}

ExprImpl ExprImpl::sqr() const {
  const LogicalTerms terms(*this);
  const std::uint64_t n = terms.size();
  const energy_t A = constant;
  const std::uint64_t with_constant = A != 0 ? 1 : 0;
  const std::uint64_t total = n + n * (n - (n > 0 ? 1 : 0)) / 2 + with_constant * n;
  if (total == 0) return ExprImpl(wrapping_mul(A, A));
  unsigned deepest = 0;
  for (std::uint64_t i = 0; i < n; ++i) deepest = std::max(deepest, terms[i].vars.degree());
  check_concat_fits(deepest, deepest);
  ExprImpl result = with_positions(total);
  result.constant = wrapping_mul(A, A);
  const coeff_t twice_constant = wrapping_mul(static_cast<coeff_t>(A), coeff_t(2));
  auto write_row = [&](std::uint64_t i) {
    std::uint64_t p = i * n - i * (i - (i > 0 ? 1 : 0)) / 2 + with_constant * i;
    const TermImpl& ti = terms[i];
    result.at_position(p++) = times(ti, ti);
    if (with_constant != 0) {
      TermImpl linear = ti;
      linear.coefficient = wrapping_mul(ti.coefficient, twice_constant);
      result.at_position(p++) = linear;
    }
    for (std::uint64_t j = i + 1; j < n; ++j) {
      TermImpl cross = times(ti, terms[j]);
      cross.coefficient = wrapping_mul(cross.coefficient, coeff_t(2));
      result.at_position(p++) = cross;
    }
  };
  const unsigned team = product_team_size();
  if (team < 2 || (n - 1) * n < 20000) {
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
