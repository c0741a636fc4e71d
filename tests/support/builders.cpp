#include "support/builders.h"

namespace zorp::test {

Poly operator+(const Poly& a, const Poly& b) { return Poly(zorp_expr_clone_add_expr(a.get(), b.get())); }
Poly operator-(const Poly& a, const Poly& b) { return Poly(zorp_expr_clone_sub_expr(a.get(), b.get())); }
Poly operator-(const Poly& a) { return Poly(zorp_expr_clone_mul_int(a.get(), -1)); }
Poly operator*(const Poly& a, const Poly& b) { return Poly(zorp_expr_mul_expr(a.get(), b.get())); }

Poly var(const char* name) { return Poly::var(zorp_new_var(name)); }

zorp_var index_of(const Poly& v) { return zorp_term_var_at(zorp_expr_term_at(v.get(), 0), 0); }

Poly negated(const Poly& v) { return Poly::var(index_of(v) ^ ZORP_NEGATED_BIT); }

namespace {

int64_t eval_with(const zorp_expr* e, const std::function<int64_t(uint32_t)>& literal_value) {
  uint64_t total = static_cast<uint64_t>(zorp_expr_constant(e, nullptr));
  const uint64_t n = zorp_expr_term_count(e);
  for (uint64_t i = 0; i < n; ++i) {
    const zorp_term* t = zorp_expr_term_at(e, i);
    uint64_t product = static_cast<uint64_t>(zorp_term_coeff(t, nullptr));
    for (uint32_t k = 0; k < zorp_term_degree(t); ++k) product *= static_cast<uint64_t>(literal_value(zorp_term_var_at(t, k)));
    total += product;
  }
  return static_cast<int64_t>(total);
}

uint64_t sort_key(uint32_t literal) { return (literal << 1) | (literal >> 31); }

}  // namespace

int64_t eval_binary(const zorp_expr* e, const std::function<int(uint32_t)>& value) {
  return eval_with(e, [&](uint32_t literal) -> int64_t {
    const int x = value(literal & ~ZORP_NEGATED_BIT);
    return (literal & ZORP_NEGATED_BIT) ? 1 - x : x;
  });
}

int64_t eval_spin(const zorp_expr* e, const std::function<int(uint32_t)>& value) {
  return eval_with(e, [&](uint32_t literal) -> int64_t {
    const int s = value(literal & ~ZORP_NEGATED_BIT);
    return (literal & ZORP_NEGATED_BIT) ? -s : s;
  });
}

bool is_canonical(const zorp_expr* e) {
  const uint64_t n = zorp_expr_term_count(e);
  std::vector<uint64_t> previous;
  for (uint64_t i = 0; i < n; ++i) {
    const zorp_term* t = zorp_expr_term_at(e, i);
    if (zorp_term_coeff(t, nullptr) == 0 || zorp_term_degree(t) == 0) return false;
    std::vector<uint64_t> key{zorp_term_degree(t)};
    for (uint32_t k = 0; k < zorp_term_degree(t); ++k) {
      key.push_back(sort_key(zorp_term_var_at(t, k)));
      if (k > 0 && key[k + 1] < key[k]) return false;
    }
    if (i > 0 && !(previous < key)) return false;
    previous = std::move(key);
  }
  return true;
}

}  // namespace zorp::test
