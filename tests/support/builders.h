// Builders that make polynomials in tests read like algebra, and an independent evaluator.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "zorp.h"

namespace zorp::test {

// An owned expression handle with value semantics over the C interface.
class Poly {
 public:
  Poly() : e_(zorp_expr_create()) {}
  Poly(int64_t c) : e_(zorp_expr_create_int(c)) {}  // NOLINT: numbers read as polynomials
  explicit Poly(zorp_expr* adopted) : e_(adopted) {}
  Poly(const Poly& other) : e_(zorp_expr_clone(other.e_)) {}
  Poly(Poly&& other) noexcept : e_(other.e_) { other.e_ = nullptr; }
  Poly& operator=(Poly other) {
    std::swap(e_, other.e_);
    return *this;
  }
  ~Poly() { zorp_expr_destroy(e_); }

  static Poly var(zorp_var v) { return Poly(zorp_expr_create_var(v)); }

  zorp_expr* get() const { return e_; }
  std::string str() const { return zorp_expr_str(e_); }
  uint64_t size() const { return zorp_expr_term_count(e_); }
  int64_t constant() const { return zorp_expr_constant(e_, nullptr); }

  Poly& operator+=(const Poly& other) {
    zorp_expr_iadd_expr(e_, other.e_);
    return *this;
  }
  Poly& operator-=(const Poly& other) {
    zorp_expr_isub_expr(e_, other.e_);
    return *this;
  }

 private:
  zorp_expr* e_;
};

Poly operator+(const Poly& a, const Poly& b);
Poly operator-(const Poly& a, const Poly& b);
Poly operator-(const Poly& a);
// Product through zorp_expr_mul_expr (closed-form placement, not simplified).
Poly operator*(const Poly& a, const Poly& b);

// Fresh named variables as polynomials.
Poly var(const char* name);
// The negated literal of a one-variable polynomial's variable.
Poly negated(const Poly& v);
// The variable index held by a one-term polynomial.
zorp_var index_of(const Poly& v);

// Value of `e` under an assignment of binary variables (index -> 0/1); a negated literal
// is 1 - x. Integer atoms are not supported.
int64_t eval_binary(const zorp_expr* e, const std::function<int(uint32_t)>& value);
// Value under spins (index -> -1/+1); a negated literal is -x.
int64_t eval_spin(const zorp_expr* e, const std::function<int(uint32_t)>& value);

// True when terms are sorted in term order, merged, non-zero, of degree >= 1, and the
// literals inside each term are sorted.
bool is_canonical(const zorp_expr* e);

}  // namespace zorp::test
