/* Native integer variables: atoms that stand for a whole integer in [lo, hi], and their
   binary encoding on request. */
#ifndef ZORP_INT_VAR_H
#define ZORP_INT_VAR_H

#include "zorp/common.h"

ZORP_EXTERN_C_BEGIN

/* New integer atom in [lo, hi] named `name` (null or "" takes an automatic name); returns its
   literal (index | ZORP_INT_ATOM_BIT). Aborts unless lo < hi, or when the index space is full. */
ZORP_API zorp_var zorp_new_int_var(const char* name, int64_t lo, int64_t hi);

/* New block of prod(shape) atoms sharing name and bounds; element i is the returned literal
   plus i. Aborts as zorp_new_int_var. */
ZORP_API zorp_var zorp_new_int_var_array(const char* name, const uint64_t* shape, size_t ndim, int64_t lo, int64_t hi);

/* Number of integer atoms created. */
ZORP_API uint32_t zorp_int_var_count(void);

/* Writes the bounds of `atom` to `lo` and `hi`. Aborts when `atom` is no integer atom. */
ZORP_API void zorp_int_var_bounds(zorp_var atom, int64_t* lo, int64_t* hi);

/* New expression with every atom replaced by lo + sum of c_k * bit_k over binary variables
   made once per atom ("x#0", "x#1", ...) and reused after. Not simplified; caller destroys it.
   Aborts on a constraint tag, an unknown atom, or an encoding coefficient past the
   coefficient type. */
ZORP_API zorp_expr* zorp_expr_binarize(const zorp_expr* e);

ZORP_EXTERN_C_END

#endif
