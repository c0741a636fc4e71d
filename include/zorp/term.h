/* Terms: a coefficient times a product of up to MAXDEG literals, not simplified. */
#ifndef ZORP_TERM_H
#define ZORP_TERM_H

#include "zorp/common.h"

ZORP_EXTERN_C_BEGIN

/* Every term returned by a _create, _clone or _mul function is the caller's: release it
   with zorp_term_destroy. Coefficients arrive as 64 bits and are narrowed silently;
   coefficient arithmetic wraps. Appending past MAXDEG literals throws std::runtime_error
   to a C++ caller and leaves the term unchanged. */

/* New term of degree 0. */
ZORP_API zorp_term* zorp_term_create(int64_t coeff);
/* New term `coeff * v`. */
ZORP_API zorp_term* zorp_term_create_var(int64_t coeff, zorp_var v);
/* New term `coeff * a * b`, in this order, no deduplication. */
ZORP_API zorp_term* zorp_term_create_var_var(int64_t coeff, zorp_var a, zorp_var b);
/* New term from the split form: `word` holds literals 0 (low half) and 1 (high half),
   `more` is null or points to up to two further literals; `more` stays the caller's. */
ZORP_API zorp_term* zorp_term_create_vararray(int64_t coeff, uint64_t word, const uint32_t* more);
/* New copy of `t`. */
ZORP_API zorp_term* zorp_term_clone(const zorp_term* t);
/* Releases `t`; null is ignored. */
ZORP_API void zorp_term_destroy(zorp_term* t);

/* Multiplies the coefficient of `t` by `c` in place. */
ZORP_API void zorp_term_mul_coeff(zorp_term* t, int64_t c);
/* Appends literal `v` to `t` in place; throws when `t` is full. */
ZORP_API void zorp_term_mul_var(zorp_term* t, zorp_var v);
/* New term `a * b`: coefficient product, a's literals then b's. Throws past MAXDEG. */
ZORP_API zorp_term* zorp_term_mul_term(const zorp_term* a, const zorp_term* b);
/* Writes `a * b` into `a` and returns `a`; `b` stays the caller's. Throws past MAXDEG, `a` unchanged. */
ZORP_API zorp_term* zorp_term_mul_term_move(zorp_term* a, const zorp_term* b);
/* Negates the coefficient of `t` in place. */
ZORP_API void zorp_term_negate(zorp_term* t);
/* Divides the coefficient exactly in place. Aborts on 0 or a remainder. */
ZORP_API void zorp_term_div_coeff(zorp_term* t, int64_t divisor);

/* Coefficient of `t`, also written to `out` when not null. */
ZORP_API int64_t zorp_term_coeff(const zorp_term* t, int64_t* out);
/* Number of literals of `t`. */
ZORP_API uint32_t zorp_term_degree(const zorp_term* t);
/* Literal in `slot` (unchecked; ZORP_NO_VAR past the degree). */
ZORP_API zorp_var zorp_term_var_at(const zorp_term* t, uint32_t slot);
/* Text of `t` ("3*x*y"). Owned by the library; valid until the next zorp_term_str call on this thread. */
ZORP_API const char* zorp_term_str(const zorp_term* t);

ZORP_EXTERN_C_END

#endif
