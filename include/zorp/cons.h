/* Constraints on expressions, in two forms. Classic: the polynomial already is the penalty
   and a record beside it remembers body and bounds for reports. Declared: the polynomial is
   the objective only, and the constraints, enforced by the search, live in the tag.
   Records live until process exit; expressions returned here are the caller's
   (zorp_expr_destroy), and every refusal on declared constraints aborts before any change. */
#ifndef ZORP_CONS_H
#define ZORP_CONS_H

#include "zorp/common.h"

ZORP_EXTERN_C_BEGIN

/* ---- classic form ---- */

/* New copy of `penalty` tagged with a new record holding a copy of `body` (no bounds yet).
   Aborts when either argument carries declared constraints. */
ZORP_API zorp_expr* zorp_exprexprelem_create(const zorp_expr* penalty, const zorp_expr* body);
/* Records inclusive bounds on the body of `e`. Aborts unless `e` holds one classic constraint. */
ZORP_API void zorp_exprexpr_set_bounds(zorp_expr* e, int64_t lower, int64_t upper);
/* Writes the bounds and returns 1; returns 0 without a classic constraint or bounds. */
ZORP_API int zorp_exprexpr_get_bounds(const zorp_expr* e, int64_t* lower, int64_t* upper);
/* Records `n` allowed intervals [los[i], his[i]] as given; bounds become their hull. Aborts
   unless `e` holds one classic constraint, or when n is 0. */
ZORP_API void zorp_exprexpr_set_allowed(zorp_expr* e, const int64_t* los, const int64_t* his, size_t n);
/* The body of the single constraint of `e`, borrowed: valid until process exit. Aborts when
   `e` does not hold exactly one constraint. */
ZORP_API const zorp_expr* zorp_exprexprelem_get_body(const zorp_expr* e);
/* The same as zorp_expr_clone and zorp_expr_destroy. */
ZORP_API zorp_expr* zorp_exprexprelem_clone(const zorp_expr* e);
ZORP_API void zorp_exprexprelem_destroy(zorp_expr* e);

/* ---- declared form: each returns the zero expression carrying the constraint ---- */

/* lower <= body <= upper. */
ZORP_API zorp_expr* zorp_cons_between(const zorp_expr* body, int64_t lower, int64_t upper);
/* body takes a value in one of `n` intervals [los[i], his[i]]. Aborts when n is 0. */
ZORP_API zorp_expr* zorp_cons_equal(const zorp_expr* body, const int64_t* los, const int64_t* his, size_t n);
/* The objective term weight * |body|^k, k 1 or 2. */
ZORP_API zorp_expr* zorp_abs_term(const zorp_expr* body, int64_t k);
/* The objective term weight * max(0, body)^k, k 1 or 2. */
ZORP_API zorp_expr* zorp_relu_term(const zorp_expr* body, int64_t k);
/* Declares what `e` holds: classic constraints become declared ones, a plain polynomial a
   free-form penalty held at 0. */
ZORP_API zorp_expr* zorp_cons_mark(const zorp_expr* e);

/* ---- queries ---- */

/* 1 when `e` carries declared constraints. */
ZORP_API int zorp_expr_is_declared(const zorp_expr* e);
/* 1 when `e` holds exactly one constraint with no free-form part. */
ZORP_API int zorp_expr_has_body(const zorp_expr* e);
/* 1 when `e` is declared and holds only abs/relu objective terms. */
ZORP_API int zorp_expr_all_objective_only(const zorp_expr* e);
/* Lower and upper bound of `e` over 0/1 literals and atom bounds: the intervals of the terms
   of `e` simplified as binary, summed. Exact for one term; a sum's true range lies within.
   Aborts on an unknown integer atom. */
ZORP_API int64_t zorp_expr_neg_sum(const zorp_expr* e);
ZORP_API int64_t zorp_expr_pos_sum(const zorp_expr* e);

ZORP_EXTERN_C_END

#endif
