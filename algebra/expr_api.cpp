// Exported functions of the expression family: construction, arithmetic and queries.
// Each converts handles, applies the tag rule of its operation, and calls ExprImpl.
#include <cstdlib>
#include <memory>
#include <numeric>

#include "algebra/handles.h"
#include "constraint/binarize.h"
#include "frame/fatal.h"
#include "frame/parallel.h"
#include "zorp/expr.h"
#include "zorp/term.h"

using namespace zorp;

namespace {

zorp_expr* new_expr(ExprImpl&& e) { return handle(new ExprImpl(std::move(e))); }

TermImpl var_term(coeff_t coefficient, std::uint32_t v) {
  TermImpl t = make_term(coefficient);
  t.vars.slot[0] = v;
  return t;
}

std::uint32_t kept_if_declared(std::uint32_t ext) { return is_declared_tag(ext) ? ext : kNoTag; }

// Adding a term to a constraint value that is not declared keeps it a tracked sum: the
// term joins as free-form part.
std::uint32_t tag_after_adding_term(std::uint32_t ext, const TermImpl& t, bool in_place) {
  if (is_declared_tag(ext) && in_place) return ext;
  if (!is_constraint_tag(ext)) return kNoTag;
  ExprImpl added;
  added.add_term(t);
  return merge_tags(ext, nullptr, kNoTag, &added, in_place);
}

// Tag of `left += right` where right's tag is `b`; computed before left changes.
std::uint32_t tag_after_adding_expr(const ExprImpl& left, std::uint32_t b, const ExprImpl& right) {
  const std::uint32_t a = left.ext;
  const bool left_constraint = is_constraint_tag(a), right_constraint = is_constraint_tag(b);
  if (!left_constraint && !right_constraint) return kNoTag;
  if (!left_constraint && right_constraint) {
    if (a == kNoTag && left.constant == 0 && left.term_count() == 0) {
      // An empty value takes the right's tag and now shares its record.
      freeze_on_copy(b);
      return b;
    }
    return merge_tags(a, &left, b, nullptr, false);
  }
  if (left_constraint && right_constraint) return merge_tags(a, nullptr, b, nullptr, true);
  return merge_tags(a, nullptr, b, &right, true);
}

void iadd_expr(ExprImpl& left, const ExprImpl& right) {
  const std::uint32_t tag = tag_after_adding_expr(left, right.ext, right);
  left += right;
  left.ext = tag;
}

void isub_expr(ExprImpl& left, const ExprImpl& right) {
  std::uint32_t tag;
  if (is_declared_tag(right.ext)) {
    tag = tag_after_adding_expr(left, scale_tag(right.ext, -1), right);
  } else {
    tag = kept_if_declared(left.ext);
  }
  left -= right;
  left.ext = tag;
}

void add_term_keeping_declared(ExprImpl& e, const TermImpl& t) {
  e.ext = kept_if_declared(e.ext);
  e.add_term(t);
}

void sub_term_keeping_declared(ExprImpl& e, const TermImpl& t) {
  e.ext = kept_if_declared(e.ext);
  e.sub_term(t);
}

void iadd_term(ExprImpl& e, const TermImpl& t) {
  e.ext = tag_after_adding_term(e.ext, t, true);
  e.add_term(t);
}

void imul_int(ExprImpl& e, std::int64_t factor) {
  e.ext = scale_tag(e.ext, factor);
  e.imul_int(factor);
}

void add_int(ExprImpl& e, std::int64_t c) {
  e.ext = kept_if_declared(e.ext);
  e.constant = wrapping_add(e.constant, static_cast<energy_t>(c));
}

TermImpl term_from_split(std::int64_t coeff, std::uint64_t word, const std::uint32_t* more) {
  return TermImpl{narrow_coeff(coeff), vararray_from_split(word, more)};
}

// The split form's block is freed even when the literals overflow the term.
TermImpl term_from_split_freeing(std::int64_t coeff, std::uint64_t word, std::uint32_t* more) {
  std::unique_ptr<std::uint32_t, decltype(&std::free)> owned(more, &std::free);
  return term_from_split(coeff, word, more);
}

template <class Operation>
zorp_expr* clone_and(const zorp_expr* e, Operation&& operation) {
  auto copy = std::make_unique<ExprImpl>(*impl(e));
  operation(*copy);
  return handle(copy.release());
}

}  // namespace

extern "C" {

// ---- construction ----

zorp_expr* zorp_expr_create(void) { return new_expr(ExprImpl()); }

zorp_expr* zorp_expr_create_int(int64_t c) { return new_expr(ExprImpl(static_cast<energy_t>(c))); }

zorp_expr* zorp_expr_create_var(zorp_var v) {
  ExprImpl e;
  e.add_term(var_term(1, v));
  return new_expr(std::move(e));
}

zorp_expr* zorp_expr_create_term(zorp_term* t, int consume) {
  ExprImpl e;
  e.add_term(*impl(t));
  if (consume != 0) zorp_term_destroy(t);
  return new_expr(std::move(e));
}

zorp_expr* zorp_expr_create_move_term(int64_t coeff, uint64_t word, uint32_t* more, int64_t constant) {
  ExprImpl e(static_cast<energy_t>(constant));
  e.add_term(term_from_split_freeing(coeff, word, more));
  return new_expr(std::move(e));
}

zorp_expr* zorp_expr_create_raw_term(int64_t coeff, const uint32_t* vars, size_t n, int64_t constant) {
  ExprImpl e;
  e.add_term(make_raw_term(narrow_coeff(coeff), vars, n));
  e.constant = static_cast<energy_t>(constant);
  return new_expr(std::move(e));
}

zorp_expr* zorp_expr_create_add_raw_terms(int64_t coeff1, const uint32_t* vars1, size_t n1, int64_t coeff2,
                                          const uint32_t* vars2, size_t n2) {
  const TermImpl first = make_raw_term(narrow_coeff(coeff1), vars1, n1);
  const TermImpl second = make_raw_term(narrow_coeff(coeff2), vars2, n2);
  ExprImpl e;
  e.add_term(first);
  e.add_term(second);
  return new_expr(std::move(e));
}

zorp_expr* zorp_expr_create_add_term_term(const zorp_term* a, const zorp_term* b) {
  ExprImpl e;
  e.add_term(*impl(a));
  e.add_term(*impl(b));
  return new_expr(std::move(e));
}

zorp_expr* zorp_expr_create_add_term_term_ml(zorp_term* a, const zorp_term* b) {
  zorp_expr* e = zorp_expr_create_add_term_term(a, b);
  zorp_term_destroy(a);
  return e;
}

zorp_expr* zorp_expr_create_add_term_term_mm(zorp_term* a, zorp_term* b) {
  zorp_expr* e = zorp_expr_create_add_term_term(a, b);
  zorp_term_destroy(a);
  zorp_term_destroy(b);
  return e;
}

zorp_expr* zorp_expr_create_sub_term_term(const zorp_term* a, const zorp_term* b) {
  ExprImpl e;
  e.add_term(*impl(a));
  e.sub_term(*impl(b));
  return new_expr(std::move(e));
}

zorp_expr* zorp_expr_create_add_term_int(const zorp_term* t, int64_t c) {
  ExprImpl e(static_cast<energy_t>(c));
  e.add_term(*impl(t));
  return new_expr(std::move(e));
}

zorp_expr* zorp_expr_create_sub_int_term(int64_t c, const zorp_term* t) {
  ExprImpl e(static_cast<energy_t>(c));
  e.sub_term(*impl(t));
  return new_expr(std::move(e));
}

zorp_expr* zorp_expr_create_add_var_var(zorp_var a, zorp_var b) {
  ExprImpl e;
  e.add_term(var_term(1, a));
  e.add_term(var_term(1, b));
  return new_expr(std::move(e));
}

zorp_expr* zorp_expr_create_add_var_int(zorp_var v, int64_t c) {
  ExprImpl e(static_cast<energy_t>(c));
  e.add_term(var_term(1, v));
  return new_expr(std::move(e));
}

zorp_expr* zorp_expr_create_sub_int_var(int64_t c, zorp_var v) {
  ExprImpl e(static_cast<energy_t>(c));
  e.add_term(var_term(-1, v));
  return new_expr(std::move(e));
}

zorp_expr* zorp_expr_create_add_term_var(const zorp_term* t, zorp_var v) {
  ExprImpl e;
  e.add_term(*impl(t));
  e.add_term(var_term(1, v));
  return new_expr(std::move(e));
}

zorp_expr* zorp_expr_create_from_bulk(int64_t constant, size_t count, const zorp_coeff* coeffs,
                                      const uint32_t* degrees, const uint32_t* vars) {
  auto e = std::make_unique<ExprImpl>();
  zorp_expr_iadd_terms_bulk(handle(e.get()), constant, count, coeffs, degrees, vars);
  return handle(e.release());
}

zorp_expr* zorp_expr_clone(const zorp_expr* e) { return new_expr(ExprImpl(*impl(e))); }

void zorp_expr_destroy(zorp_expr* e) { delete impl(e); }

// ---- in place ----

void zorp_expr_iadd_int(zorp_expr* e, int64_t c) { add_int(*impl(e), c); }

void zorp_expr_isub_int(zorp_expr* e, int64_t c) { add_int(*impl(e), wrapping_neg(c)); }

void zorp_expr_iadd_var(zorp_expr* e, zorp_var v) { iadd_term(*impl(e), var_term(1, v)); }

void zorp_expr_isub_var(zorp_expr* e, zorp_var v) { add_term_keeping_declared(*impl(e), var_term(-1, v)); }

void zorp_expr_iadd_term(zorp_expr* e, const zorp_term* t) { iadd_term(*impl(e), *impl(t)); }

void zorp_expr_iadd_term_move(zorp_expr* e, zorp_term* t) {
  const TermImpl value = *impl(t);
  zorp_term_destroy(t);
  iadd_term(*impl(e), value);
}

void zorp_expr_isub_term(zorp_expr* e, const zorp_term* t) { sub_term_keeping_declared(*impl(e), *impl(t)); }

void zorp_expr_iadd_move_term(zorp_expr* e, int64_t coeff, uint64_t word, uint32_t* more) {
  add_term_keeping_declared(*impl(e), term_from_split_freeing(coeff, word, more));
}

void zorp_expr_isub_move_term(zorp_expr* e, int64_t coeff, uint64_t word, uint32_t* more) {
  sub_term_keeping_declared(*impl(e), term_from_split_freeing(coeff, word, more));
}

void zorp_expr_iadd_raw_term(zorp_expr* e, int64_t coeff, const uint32_t* vars, size_t n) {
  iadd_term(*impl(e), make_raw_term(narrow_coeff(coeff), vars, n));
}

void zorp_expr_isub_raw_term(zorp_expr* e, int64_t coeff, const uint32_t* vars, size_t n) {
  sub_term_keeping_declared(*impl(e), make_raw_term(narrow_coeff(coeff), vars, n));
}

void zorp_expr_iadd_expr(zorp_expr* e, const zorp_expr* other) { iadd_expr(*impl(e), *impl(other)); }

void zorp_expr_isub_expr(zorp_expr* e, const zorp_expr* other) { isub_expr(*impl(e), *impl(other)); }

void zorp_expr_iadd_terms_bulk(zorp_expr* e, int64_t constant, size_t count, const zorp_coeff* coeffs,
                               const uint32_t* degrees, const uint32_t* vars) {
  add_int(*impl(e), constant);
  impl(e)->add_terms_bulk(count, coeffs, degrees, vars);
}

void zorp_expr_imul_int(zorp_expr* e, int64_t c) { imul_int(*impl(e), c); }

void zorp_expr_idiv_int(zorp_expr* e, int64_t c) {
  ExprImpl& x = *impl(e);
  if (is_declared_tag(x.ext)) fatal_declared_refusal("/=");
  x.ext = kNoTag;
  x.idiv_int(c);
}

void zorp_expr_negate(zorp_expr* e) {
  ExprImpl& x = *impl(e);
  x.ext = is_declared_tag(x.ext) ? scale_tag(x.ext, -1) : kNoTag;
  x.negate();
}

// ---- copying ----

zorp_expr* zorp_expr_clone_add_int(const zorp_expr* e, int64_t c) {
  return clone_and(e, [c](ExprImpl& x) {
    const std::uint32_t tag = x.ext;
    // Adding 0 keeps any constraint tag here, unlike the in-place form: callers rely on it.
    const bool keep = is_declared_tag(tag) || (c == 0 && is_constraint_tag(tag));
    x.constant = wrapping_add(x.constant, static_cast<energy_t>(c));
    x.ext = keep ? tag : kNoTag;
  });
}

zorp_expr* zorp_expr_clone_sub_int(const zorp_expr* e, int64_t c) {
  return clone_and(e, [c](ExprImpl& x) { add_int(x, wrapping_neg(c)); });
}

zorp_expr* zorp_expr_clone_add_var(const zorp_expr* e, zorp_var v) {
  return clone_and(e, [v](ExprImpl& x) { add_term_keeping_declared(x, var_term(1, v)); });
}

zorp_expr* zorp_expr_clone_sub_var(const zorp_expr* e, zorp_var v) {
  return clone_and(e, [v](ExprImpl& x) { add_term_keeping_declared(x, var_term(-1, v)); });
}

zorp_expr* zorp_expr_clone_add_term(const zorp_expr* e, const zorp_term* t) {
  return clone_and(e, [t](ExprImpl& x) {
    x.ext = tag_after_adding_term(x.ext, *impl(t), false);
    x.add_term(*impl(t));
  });
}

zorp_expr* zorp_expr_clone_sub_term(const zorp_expr* e, const zorp_term* t) {
  return clone_and(e, [t](ExprImpl& x) { sub_term_keeping_declared(x, *impl(t)); });
}

zorp_expr* zorp_expr_clone_add_expr(const zorp_expr* e, const zorp_expr* other) {
  return clone_and(e, [other](ExprImpl& x) { iadd_expr(x, *impl(other)); });
}

zorp_expr* zorp_expr_clone_sub_expr(const zorp_expr* e, const zorp_expr* other) {
  return clone_and(e, [other](ExprImpl& x) { isub_expr(x, *impl(other)); });
}

zorp_expr* zorp_expr_clone_mul_int(const zorp_expr* e, int64_t c) {
  return clone_and(e, [c](ExprImpl& x) { imul_int(x, c); });
}

// ---- queries ----

uint32_t zorp_expr_attr(const zorp_expr* e) { return impl(e)->ext; }

int64_t zorp_expr_constant(const zorp_expr* e, int64_t* out) {
  const auto value = static_cast<int64_t>(impl(e)->constant);
  if (out != nullptr) *out = value;
  return value;
}

uint64_t zorp_expr_term_count(const zorp_expr* e) { return impl(e)->term_count(); }

const zorp_term* zorp_expr_term_at(const zorp_expr* e, uint64_t i) { return handle(&impl(e)->term(i)); }

const uint32_t* zorp_expr_term_at_data(const zorp_expr* e, uint64_t i, int64_t* coeff, uint64_t* word,
                                       const uint32_t** more) {
  const TermImpl& t = impl(e)->term(i);
  *coeff = static_cast<int64_t>(t.coefficient);
  *word = static_cast<uint64_t>(t.vars.slot[0]) | (static_cast<uint64_t>(t.vars.slot[1]) << 32);
  const uint32_t* tail = t.vars.degree() >= 3 ? &t.vars.slot[2] : nullptr;
  if (more != nullptr) *more = tail;
  return tail;
}

uint64_t zorp_expr_term_count_degree(const zorp_expr* e, uint32_t degree) {
  uint64_t count = 0;
  impl(e)->for_each_term([&](const TermImpl& t) { count += t.vars.degree() == degree; });
  return count;
}

uint32_t zorp_expr_max_degree(const zorp_expr* e) {
  unsigned deepest = 0;
  impl(e)->for_each_term([&](const TermImpl& t) { deepest = std::max(deepest, t.vars.degree()); });
  return deepest;
}

int zorp_expr_has(const zorp_expr* e, zorp_var v) {
  const std::uint32_t wanted = positive_literal(v);
  bool found = false;
  impl(e)->for_each_term([&](const TermImpl& t) {
    for (unsigned k = 0; k < MAXDEG && t.vars.slot[k] != kNoVar; ++k) found |= positive_literal(t.vars.slot[k]) == wanted;
  });
  return found ? 1 : 0;
}

int zorp_expr_has_int_atom(const zorp_expr* e) { return expr_has_int_atom(*impl(e)) ? 1 : 0; }

int64_t zorp_expr_gcd(const zorp_expr* e, int64_t* out) {
  const ExprImpl& x = *impl(e);
  auto magnitude = [](auto v) -> std::uint64_t {
    const auto wide = static_cast<std::int64_t>(v);
    return wide < 0 ? std::uint64_t(0) - static_cast<std::uint64_t>(wide) : static_cast<std::uint64_t>(wide);
  };
  std::uint64_t g = magnitude(x.constant);
  if (x.has_first()) g = std::gcd(g, magnitude(x.first_term.coefficient));
  for (std::uint64_t i = 0; i < x.rest_size; ++i)
    if (x.rest[i].coefficient != 0) g = std::gcd(g, magnitude(x.rest[i].coefficient));
  const auto result = static_cast<int64_t>(g);
  if (out != nullptr) *out = result;
  return result;
}

}  // extern "C"
