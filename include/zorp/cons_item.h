/* Constraint items: an expression's constraints read one by one, for reports, and their
   violations under a solution. Items of a constraint sum are its constraints in order, then
   its free-form part (held at 0) when it has one; a single classic constraint is one item;
   an expression with no constraint is one item, itself, held at 0. Output pointers may be
   null. */
#ifndef ZORP_CONS_ITEM_H
#define ZORP_CONS_ITEM_H

#include "zorp/common.h"
#include "zorp/sol.h"

ZORP_EXTERN_C_BEGIN

/* Number of items of `e`. */
ZORP_API uint64_t zorp_cons_item_count(const zorp_expr* e);

/* Item `i` (ignored for a single classic constraint). For a constraint with bounds returns 1
   and writes its body, weight and bounds; otherwise returns 0 and writes the free-form part
   (for that item) or `e` itself as body, weight 1, bounds 0. `*body` is a new tag-free copy;
   the caller releases it with zorp_expr_destroy. Aborts when `i` is past the last item. */
ZORP_API int zorp_cons_item_info(const zorp_expr* e, uint64_t i, zorp_expr** body, int64_t* weight, int64_t* lower,
                                 int64_t* upper);

/* Number of allowed-value intervals of item `i` (0 when it has none or is no constraint);
   copies the first min(that, `capacity`) of them to `los` and `his`. */
ZORP_API uint64_t zorp_cons_item_allowed(const zorp_expr* e, uint64_t i, int64_t* los, int64_t* his,
                                         uint64_t capacity);

/* Writes the penalty exponent and shape (0 ordinary, 1 abs/relu term) of item `i` and returns
   1 for a constraint with bounds; otherwise writes 2 and 0 and returns 0. */
ZORP_API int zorp_cons_item_shape(const zorp_expr* e, uint64_t i, int* k, int* shape);

/* Evaluates item `i` under `sol`: body value, bounds, violation (distance to the bounds or the
   nearest allowed interval) and weight; the free-form or plain item reports its signed value
   as violation, bounds 0 and weight 1. Returns 1. Aborts when `i` is past the last item or
   the constraint has no bounds. */
ZORP_API int zorp_cons_item_eval(const zorp_expr* e, uint64_t i, const zorp_sol* sol, int64_t* value,
                                 int64_t* lower, int64_t* upper, int64_t* violation, int64_t* weight);

/* Number of violated constraints of `e` under `sol`, abs/relu terms never counted, a non-zero
   free-form part counted once. Aborts when `e` carries no constraint. */
ZORP_API uint64_t zorp_cons_violation_count(const zorp_expr* e, const zorp_sol* sol);

ZORP_EXTERN_C_END

#endif
