/* Variables: the process-wide registry of binary variables and their names. */
#ifndef ZORP_VAR_H
#define ZORP_VAR_H

#include "zorp/common.h"

ZORP_EXTERN_C_BEGIN

/* New binary variable; null or "" takes an automatic name. Returns its index.
   Aborts when 2^30 - 1 variables exist. */
ZORP_API zorp_var zorp_new_var(const char* name);

/* New array of prod(dims) variables named `name` (null or "" is automatic); `dims` holds
   `ndims` extents, outermost first. Returns the first index. Aborts past 2^30 variables. */
ZORP_API zorp_var zorp_new_var_array(const char* name, const uint64_t* dims, size_t ndims);

/* Number of binary variables. */
ZORP_API uint32_t zorp_var_count(void);

/* Binary variables plus the bit widths of all integer variables. */
ZORP_API uint64_t zorp_used_var_count(void);

/* Name of literal `v` ("x", "~x", "a[1][2]", "?" when unknown). Owned by the library; valid
   until the registry is reset (scalars) or the next zorp_var_str call on this thread (elements). */
ZORP_API const char* zorp_var_str(zorp_var v);

/* Next automatic name "{n}". Owned by the library; valid until the next call on this thread. */
ZORP_API const char* zorp_auto_var_name(void);

/* Forgets every variable; old indices print as "?". Automatic name counters keep counting. */
ZORP_API void zorp_var_reset(void);

ZORP_EXTERN_C_END

#endif
