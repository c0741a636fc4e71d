/* Types and the export macro shared by every family of the zorp C interface. */
#ifndef ZORP_COMMON_H
#define ZORP_COMMON_H

#include <stddef.h>
#include <stdint.h>

#if defined(ZORP_BUILDING_LIBRARY)
#define ZORP_API __attribute__((visibility("default")))
#else
#define ZORP_API
#endif

#ifdef __cplusplus
#define ZORP_EXTERN_C_BEGIN extern "C" {
#define ZORP_EXTERN_C_END }
#else
#define ZORP_EXTERN_C_BEGIN
#define ZORP_EXTERN_C_END
#endif

/* A variable is a 32-bit literal: bit 31 negated, bit 30 integer atom,
   bits 29..0 the index; all bits set means "no variable". */
typedef uint32_t zorp_var;
#define ZORP_NO_VAR 0xFFFFFFFFu
#define ZORP_NEGATED_BIT 0x80000000u
#define ZORP_INT_ATOM_BIT 0x40000000u

/* Coefficient of a term in bulk arrays, as wide as the build's coefficient type. */
#if !defined(ZORP_COEFF_BITS) || ZORP_COEFF_BITS == 32
typedef int32_t zorp_coeff;
#elif ZORP_COEFF_BITS == 16
typedef int16_t zorp_coeff;
#elif ZORP_COEFF_BITS == 64
typedef int64_t zorp_coeff;
#else
#error "unsupported ZORP_COEFF_BITS"
#endif

/* One (key, value) text pair of a parameter or info list; a list is closed by a pair whose
   key is NULL. */
typedef struct zorp_solver_pair {
  const char* key;
  const char* value;
} zorp_solver_pair;

typedef struct zorp_term zorp_term; /* a coefficient times up to MAXDEG literals */
typedef struct zorp_expr zorp_expr; /* a constant plus a list of terms */

#endif
