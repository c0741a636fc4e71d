/* Models: the flat, immutable form of a problem, built once from an expression simplified as
   binary. Terms are grouped by degree into flat arrays of dense literals (bit 31 negated,
   bit 30 integer atom, low bits the dense index), which solver plug-ins read in place. */
#ifndef ZORP_MODEL_H
#define ZORP_MODEL_H

#include "zorp/common.h"

ZORP_EXTERN_C_BEGIN

/* A share of one immutable model. A zorp_sol can be passed wherever a const zorp_model* is
   read. Handles from _create and _clone are the caller's; release each with
   zorp_model_destroy. Pointers returned by the accessors stay valid while any handle, or any
   solution of the model, lives. Indices are unchecked unless an abort is named. */
typedef struct zorp_model zorp_model;

/* ---- building and sharing ---- */

/* New model of `e`, which must be simplified as binary: aborts on unsorted or repeated
   variables, on a negated literal in a term of degree 1 or 2, and on unknown integer atoms.
   Declared constraints of `e` become native constraints (aborting on a constraint without
   bounds or a body that is not simplified); a classic constraint tag is ignored. */
ZORP_API zorp_model* zorp_model_create(const zorp_expr* e);
/* The same as zorp_model_create: `scale` is ignored and the model's scale is 1.0. */
ZORP_API zorp_model* zorp_model_create_scaled(const zorp_expr* e, double scale);
/* New handle sharing the model of `m`. */
ZORP_API zorp_model* zorp_model_clone(const zorp_model* m);
/* Releases the handle; the model goes with its last share. Null is ignored. */
ZORP_API void zorp_model_destroy(zorp_model* m);

/* ---- variables ---- */

/* Number of binary variables in the model (dense indices 0 .. count-1). */
ZORP_API uint32_t zorp_model_var_count(const zorp_model* m);
/* Registry variable of dense index `i`; dense order is ascending registry order. */
ZORP_API zorp_var zorp_model_var(const zorp_model* m, uint32_t i);
/* 1 when the variable of `literal` (bit 31 ignored) is in the model, else 0. */
ZORP_API int zorp_model_has(const zorp_model* m, zorp_var literal);
/* Dense index of the variable of `literal` (bit 31 ignored), or 0xFFFFFFFF when it is not in
   the model, including variables created after the build. */
ZORP_API uint32_t zorp_model_var_index(const zorp_model* m, zorp_var literal);

/* ---- objective ---- */

/* The constant, also written to `out` when not null. */
ZORP_API int64_t zorp_model_constant(const zorp_model* m, int64_t* out);
/* Always 1.0. */
ZORP_API double zorp_model_scale(const zorp_model* m);
/* Highest term degree; 0 when the model has no term. */
ZORP_API uint32_t zorp_model_max_degree(const zorp_model* m);
/* Number of terms of degree `d`; 0 for d = 0 or above the maximum degree. */
ZORP_API uint64_t zorp_model_term_count(const zorp_model* m, uint32_t d);
/* Literals of the degree-`d` terms, `d` per term, term after term (term_count * d entries),
   ascending within a term with bit 31 cleared; null for d = 0 or above the maximum degree. */
ZORP_API const uint32_t* zorp_model_term_vars(const zorp_model* m, uint32_t d);
/* Coefficients of the degree-`d` terms (term_count entries); null as zorp_model_term_vars. */
ZORP_API const zorp_coeff* zorp_model_coeff_array(const zorp_model* m, uint32_t d);
/* Coefficient of term `i` of degree `d` (1 <= d <= max degree, unchecked), also written to
   `out` when not null. */
ZORP_API int64_t zorp_model_coeff_at(const zorp_model* m, uint32_t d, uint64_t i, int64_t* out);
/* 1 when some term literal is negated (possible in terms of degree 3 and above only). */
ZORP_API int zorp_model_has_negated_literals(const zorp_model* m);

/* ---- native integer variables ---- */

/* Number of integer atoms in the model (dense integer indices 0 .. count-1). */
ZORP_API uint32_t zorp_model_int_var_count(const zorp_model* m);
/* Bounds of dense integer `i` as registered at build time. Aborts when `i` is out of range. */
ZORP_API void zorp_model_int_var_bounds(const zorp_model* m, uint32_t i, int64_t* lower, int64_t* upper);
/* The atom literal (bit 30 set) of dense integer `i`. Aborts when `i` is out of range. */
ZORP_API zorp_var zorp_model_int_var_orig(const zorp_model* m, uint32_t i);

/* ---- declared constraints: linear bodies first, then nonlinear ones ---- */

ZORP_API uint64_t zorp_model_native_cons_count(const zorp_model* m);
/* Number of linear body terms of constraint `i`, for a MIP/ILP consumer. Aborts when the
   body has terms of degree 2 or more, or when the constraint holds an allowed-value set. */
ZORP_API uint64_t zorp_model_native_cons_nterms(const zorp_model* m, uint64_t i);
/* Dense literals and coefficients of the degree-1 body terms of constraint `i`. */
ZORP_API const uint32_t* zorp_model_native_cons_vars(const zorp_model* m, uint64_t i);
ZORP_API const zorp_coeff* zorp_model_native_cons_coeffs(const zorp_model* m, uint64_t i);
/* Bounds, body constant and weight of constraint `i`. */
ZORP_API void zorp_model_native_cons_bounds(const zorp_model* m, uint64_t i, int64_t* lower, int64_t* upper,
                                            int64_t* constant, int64_t* weight);
/* Penalty exponent k (1 or 2) and shape (0 ordinary, 1 abs/relu term) of constraint `i`. */
ZORP_API void zorp_model_native_cons_shape(const zorp_model* m, uint64_t i, int* k, int* shape);
/* 1 when some constraint has an exponent other than 2 or a shape other than 0. */
ZORP_API int zorp_model_has_penalty_shapes(const zorp_model* m);

/* ---- free-form penalty, held at 0 by the search; its terms are also in the objective ---- */

ZORP_API int zorp_model_has_remainder(const zorp_model* m);
/* Constant and number of terms of the penalty. */
ZORP_API void zorp_model_remainder_info(const zorp_model* m, int64_t* constant, uint64_t* nterms);
/* Term t has the literals remainder_vars[head[t] .. head[t+1]) (bit 31 kept) and coefficient
   remainder_coeffs[t]; head has nterms + 1 entries. */
ZORP_API const uint64_t* zorp_model_remainder_head(const zorp_model* m);
ZORP_API const uint32_t* zorp_model_remainder_vars(const zorp_model* m);
ZORP_API const zorp_coeff* zorp_model_remainder_coeffs(const zorp_model* m);

/* ---- evaluation from raw bits: bit i of word i/64 is dense variable i ---- */

/* The objective polynomial (constraints not included) at `bits`, also written to `out` when
   not null. Aborts when the model has integer atoms. */
ZORP_API int64_t zorp_model_eval(const zorp_model* m, const uint64_t* bits, int64_t* out);
/* Value of `e` with its variables read through the model from `bits`; a term holding a
   variable outside the model counts as 0. Also written to `out` when not null. Aborts when
   `e` carries declared constraints or holds integer atoms. */
ZORP_API int64_t zorp_expr_eval_with_model(const zorp_expr* e, const zorp_model* m, const uint64_t* bits,
                                           int64_t* out);

ZORP_EXTERN_C_END

#endif
