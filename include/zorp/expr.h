/* Expressions: a constant plus a list of terms. `+` and `-` append and never merge;
   products never simplify; only the zorp_expr_simplify family merges like terms. */
#ifndef ZORP_EXPR_H
#define ZORP_EXPR_H

#include "zorp/common.h"

ZORP_EXTERN_C_BEGIN

/* Ownership: every expression returned by a _create, _clone, _mul, _sqr or _simplify
   function is the caller's; release it with zorp_expr_destroy. Term arguments stay the
   caller's unless the name says _move, _ml or _mm. Integer arguments are 64 bits;
   coefficients are narrowed silently and all arithmetic wraps. A product or raw term
   past MAXDEG literals throws std::runtime_error to a C++ caller, with nothing leaked and
   the left operand unchanged. Refusals on declared constraints abort before any change. */

/* ---- construction ---- */

/* New expression 0. */
ZORP_API zorp_expr* zorp_expr_create(void);
/* New expression `c`. */
ZORP_API zorp_expr* zorp_expr_create_int(int64_t c);
/* New expression `v`. */
ZORP_API zorp_expr* zorp_expr_create_var(zorp_var v);
/* New expression holding a copy of `t`; a non-zero `consume` also destroys `t`. */
ZORP_API zorp_expr* zorp_expr_create_term(zorp_term* t, int consume);
/* New expression `term + constant`, the term in split form; frees `more` (null allowed). */
ZORP_API zorp_expr* zorp_expr_create_move_term(int64_t coeff, uint64_t word, uint32_t* more, int64_t constant);
/* New expression `coeff * vars[0..n) + constant`; `vars` stays the caller's. */
ZORP_API zorp_expr* zorp_expr_create_raw_term(int64_t coeff, const uint32_t* vars, size_t n, int64_t constant);
/* New expression of two raw terms. */
ZORP_API zorp_expr* zorp_expr_create_add_raw_terms(int64_t coeff1, const uint32_t* vars1, size_t n1,
                                                   int64_t coeff2, const uint32_t* vars2, size_t n2);
/* New expression `a + b`; both terms stay the caller's. */
ZORP_API zorp_expr* zorp_expr_create_add_term_term(const zorp_term* a, const zorp_term* b);
/* New expression `a + b`; destroys `a`, `b` stays the caller's. */
ZORP_API zorp_expr* zorp_expr_create_add_term_term_ml(zorp_term* a, const zorp_term* b);
/* New expression `a + b`; destroys both terms. */
ZORP_API zorp_expr* zorp_expr_create_add_term_term_mm(zorp_term* a, zorp_term* b);
/* New expression `a - b`. */
ZORP_API zorp_expr* zorp_expr_create_sub_term_term(const zorp_term* a, const zorp_term* b);
/* New expression `t + c`. */
ZORP_API zorp_expr* zorp_expr_create_add_term_int(const zorp_term* t, int64_t c);
/* New expression `c - t`. */
ZORP_API zorp_expr* zorp_expr_create_sub_int_term(int64_t c, const zorp_term* t);
/* New expression `a + b`. */
ZORP_API zorp_expr* zorp_expr_create_add_var_var(zorp_var a, zorp_var b);
/* New expression `v + c`. */
ZORP_API zorp_expr* zorp_expr_create_add_var_int(zorp_var v, int64_t c);
/* New expression `c - v`. */
ZORP_API zorp_expr* zorp_expr_create_sub_int_var(int64_t c, zorp_var v);
/* New expression `t + v`. */
ZORP_API zorp_expr* zorp_expr_create_add_term_var(const zorp_term* t, zorp_var v);
/* New expression from `count` terms in flat arrays (see zorp_expr_iadd_terms_bulk). */
ZORP_API zorp_expr* zorp_expr_create_from_bulk(int64_t constant, size_t count, const zorp_coeff* coeffs,
                                               const uint32_t* degrees, const uint32_t* vars);
/* New deep copy of `e`, tag included. */
ZORP_API zorp_expr* zorp_expr_clone(const zorp_expr* e);
/* Releases `e`; null is ignored. */
ZORP_API void zorp_expr_destroy(zorp_expr* e);

/* ---- in-place arithmetic on `e` ---- */

ZORP_API void zorp_expr_iadd_int(zorp_expr* e, int64_t c);
ZORP_API void zorp_expr_isub_int(zorp_expr* e, int64_t c);
ZORP_API void zorp_expr_iadd_var(zorp_expr* e, zorp_var v);
ZORP_API void zorp_expr_isub_var(zorp_expr* e, zorp_var v);
/* Adds a copy of `t`; `t` stays the caller's. */
ZORP_API void zorp_expr_iadd_term(zorp_expr* e, const zorp_term* t);
/* Adds `t` and destroys it. */
ZORP_API void zorp_expr_iadd_term_move(zorp_expr* e, zorp_term* t);
ZORP_API void zorp_expr_isub_term(zorp_expr* e, const zorp_term* t);
/* Adds the term in split form and frees `more` (null allowed). */
ZORP_API void zorp_expr_iadd_move_term(zorp_expr* e, int64_t coeff, uint64_t word, uint32_t* more);
/* Subtracts the term in split form and frees `more` (null allowed). */
ZORP_API void zorp_expr_isub_move_term(zorp_expr* e, int64_t coeff, uint64_t word, uint32_t* more);
/* Adds `coeff * vars[0..n)`; throws past MAXDEG before `e` changes. */
ZORP_API void zorp_expr_iadd_raw_term(zorp_expr* e, int64_t coeff, const uint32_t* vars, size_t n);
ZORP_API void zorp_expr_isub_raw_term(zorp_expr* e, int64_t coeff, const uint32_t* vars, size_t n);
/* Appends the terms of `other` (which may be `e` itself). */
ZORP_API void zorp_expr_iadd_expr(zorp_expr* e, const zorp_expr* other);
ZORP_API void zorp_expr_isub_expr(zorp_expr* e, const zorp_expr* other);
/* Adds `constant` and `count` terms: term i is coeffs[i] times the next degrees[i]
   literals of `vars` (sum of degrees entries). Input order is kept. */
ZORP_API void zorp_expr_iadd_terms_bulk(zorp_expr* e, int64_t constant, size_t count, const zorp_coeff* coeffs,
                                        const uint32_t* degrees, const uint32_t* vars);
/* Scales constant and coefficients by `c`; terms that become 0 stay. */
ZORP_API void zorp_expr_imul_int(zorp_expr* e, int64_t c);
/* Divides exactly by `c`. Aborts on 0 or any remainder. */
ZORP_API void zorp_expr_idiv_int(zorp_expr* e, int64_t c);
ZORP_API void zorp_expr_negate(zorp_expr* e);

/* ---- copying arithmetic: a new expression, `e` untouched ---- */

ZORP_API zorp_expr* zorp_expr_clone_add_int(const zorp_expr* e, int64_t c);
ZORP_API zorp_expr* zorp_expr_clone_sub_int(const zorp_expr* e, int64_t c);
ZORP_API zorp_expr* zorp_expr_clone_add_var(const zorp_expr* e, zorp_var v);
ZORP_API zorp_expr* zorp_expr_clone_sub_var(const zorp_expr* e, zorp_var v);
ZORP_API zorp_expr* zorp_expr_clone_add_term(const zorp_expr* e, const zorp_term* t);
ZORP_API zorp_expr* zorp_expr_clone_sub_term(const zorp_expr* e, const zorp_term* t);
ZORP_API zorp_expr* zorp_expr_clone_add_expr(const zorp_expr* e, const zorp_expr* other);
ZORP_API zorp_expr* zorp_expr_clone_sub_expr(const zorp_expr* e, const zorp_expr* other);
ZORP_API zorp_expr* zorp_expr_clone_mul_int(const zorp_expr* e, int64_t c);

/* ---- products: closed-form placement, never simplified ---- */

/* `e *= v`; a non-zero constant becomes the linear term `constant * v`. */
ZORP_API void zorp_expr_imul_var(zorp_expr* e, zorp_var v);
/* `e *= term` with the term in split form; `more` stays the caller's. */
ZORP_API void zorp_expr_imul_term_direct(zorp_expr* e, int64_t coeff, uint64_t word, const uint32_t* more);
/* `e *= other`; `other` may be `e`. */
ZORP_API void zorp_expr_imul_expr(zorp_expr* e, const zorp_expr* other);
/* New expression `a * b`. */
ZORP_API zorp_expr* zorp_expr_mul_expr(const zorp_expr* a, const zorp_expr* b);
/* New expression `e * e`. */
ZORP_API zorp_expr* zorp_expr_sqr(const zorp_expr* e);

/* ---- canonical form: a new expression, `e` untouched ---- */

/* Like terms merged, literals in each term sorted, no variable rule applied. */
ZORP_API zorp_expr* zorp_expr_simplify(const zorp_expr* e);
/* Canonical under 0/1 rules: x*x = x, negated literal ~x = 1 - x. */
ZORP_API zorp_expr* zorp_expr_simplify_as_binary(const zorp_expr* e);
/* Canonical under ±1 rules: x*x = 1, negated literal ~x = -x. Aborts on integer atoms. */
ZORP_API zorp_expr* zorp_expr_simplify_as_spin(const zorp_expr* e);

/* ---- queries ---- */

/* The extension tag; 0xFFFFFFFF when none. */
ZORP_API uint32_t zorp_expr_attr(const zorp_expr* e);
/* The constant, also written to `out` when not null. */
ZORP_API int64_t zorp_expr_constant(const zorp_expr* e, int64_t* out);
/* Number of stored terms. */
ZORP_API uint64_t zorp_expr_term_count(const zorp_expr* e);
/* Term `i` (unchecked), borrowed from `e`; invalid after the next change of `e`. */
ZORP_API const zorp_term* zorp_expr_term_at(const zorp_expr* e, uint64_t i);
/* Term `i` in split form: coefficient, word of literals 0 and 1, and a pointer into `e` to
   literals 2 and 3 when the degree is at least 3 (else null), which is also returned. */
ZORP_API const uint32_t* zorp_expr_term_at_data(const zorp_expr* e, uint64_t i, int64_t* coeff, uint64_t* word,
                                                const uint32_t** more);
/* Number of terms of degree `degree` (zero-coefficient terms of the list count). */
ZORP_API uint64_t zorp_expr_term_count_degree(const zorp_expr* e, uint32_t degree);
/* Highest term degree; 0 without terms. */
ZORP_API uint32_t zorp_expr_max_degree(const zorp_expr* e);
/* 1 if a term holds `v` or its negated literal, else 0. */
ZORP_API int zorp_expr_has(const zorp_expr* e, zorp_var v);
/* 1 if a term holds an integer atom, else 0. */
ZORP_API int zorp_expr_has_int_atom(const zorp_expr* e);
/* Greatest common divisor of the constant and the coefficients (0 for the empty
   expression), also written to `out` when not null. */
ZORP_API int64_t zorp_expr_gcd(const zorp_expr* e, int64_t* out);
/* Text of `e` ("3 +2*x -y"). Owned by the library; valid until the next zorp_expr_str call on this thread. */
ZORP_API const char* zorp_expr_str(const zorp_expr* e);

ZORP_EXTERN_C_END

#endif
