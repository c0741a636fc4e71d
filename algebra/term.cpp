#include "algebra/term.h"

#include <stdexcept>
#include <string>

namespace zorp {

void VarArray::push(std::uint32_t literal) {
  for (unsigned i = 0; i < MAXDEG; ++i) {
    if (slot[i] == kNoVar) {
      slot[i] = literal;
      return;
    }
  }
  throw_push_past_maxdeg();
}

void throw_push_past_maxdeg() {
  throw std::runtime_error("VarArray: degree exceeds MAXDEG capacity (" + std::to_string(MAXDEG) + ")");
}

void throw_concat_past_maxdeg() { throw std::runtime_error("VarArray::append: degree exceeds MAXDEG capacity"); }

void VarArray::append(const VarArray& right) {
  const unsigned left_degree = degree(), right_degree = right.degree();
  check_concat_fits(left_degree, right_degree);
  for (unsigned i = 0; i < right_degree; ++i) slot[left_degree + i] = right.slot[i];
}

void VarArray::sort_by_key() {
  const unsigned d = degree();
  if (d < 2) return;
  if (d == 2) {
    if (literal_sort_key(slot[0]) > literal_sort_key(slot[1])) std::swap(slot[0], slot[1]);
    return;
  }
  for (unsigned i = 1; i < d; ++i) {
    const std::uint32_t literal = slot[i];
    const std::uint32_t key = literal_sort_key(literal);
    unsigned j = i;
    while (j > 0 && literal_sort_key(slot[j - 1]) > key) {
      slot[j] = slot[j - 1];
      --j;
    }
    slot[j] = literal;
  }
}

VarArray vararray_from_split(std::uint64_t word, const std::uint32_t* more) {
  VarArray v = VarArray::empty();
  const auto first = static_cast<std::uint32_t>(word);
  const auto second = static_cast<std::uint32_t>(word >> 32);
  if (first != kNoVar) {
    v.push(first);
    if (second != kNoVar) v.push(second);
  }
  if (more != nullptr && more[0] != kNoVar) {
    v.push(more[0]);
    if (more[1] != kNoVar) v.push(more[1]);
  }
  return v;
}

TermImpl make_raw_term(coeff_t coefficient, const std::uint32_t* vars, std::size_t n) {
  TermImpl term = make_term(coefficient);
  for (std::size_t i = 0; i < n; ++i) term.vars.push(vars[i]);
  return term;
}

}  // namespace zorp
