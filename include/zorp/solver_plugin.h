/* The solver plug-in boundary: the records and entry points that a solver shared object
   (vellsolver_<tag>.so) exports and the library opens at run time with dlopen. The library
   finds the file, fills a table from these symbols and passes the model's flat arrays in
   place. A plug-in includes this header and defines ZORP_PLUGIN_EXPORTS to export them.

   Widths follow the plug-in's tag: in "c32e64" a coefficient is an int32_t and an energy an
   int64_t; other tags get their arrays converted by the library, so the void pointers below
   point at coefficients of the tag's width. Literals are dense u32 indices, bit 31 negated. */
#ifndef ZORP_SOLVER_PLUGIN_H
#define ZORP_SOLVER_PLUGIN_H

#include <stdint.h>

#include "zorp/common.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Parameter and info lists are zorp_solver_pair lists (zorp/common.h). Parameter lists are
   the caller's and live for the call; info lists belong to the plug-in. */

/* A solution record owned by the library and filled by the plug-in. Five separate blocks:
   *word_count is (*var_count + 63) / 64; bits starts zeroed, bit i of word w is variable
   64w + i; energy and tts start 0. The energy includes the model constant and every
   constraint penalty. */
typedef struct zorp_plugin_sol {
  uint32_t* var_count;
  uint32_t* word_count;
  int64_t* energy;
  uint64_t* bits;
  double* tts; /* seconds from search start until this solution was found */
} zorp_plugin_sol;

/* Registered once per process and tag; the library's function ignores its arguments and
   returns -1.0. */
typedef double (*zorp_vell_solver_callback)(void* context, const void* solution, int event);

/* ---- required entry points ---- */

/* New solver over a model. `context` is NULL. term_counts[d-1] points at the number of terms
   of degree d; term_vars[d-1] holds d literals per term, ascending by variable;
   term_coeffs[d-1] one coefficient per term; `constant` one energy. The plug-in may keep
   every pointer for the life of the handle: the library keeps the model alive. */
typedef void* (*zorp_vell_solver_create_fn)(void* context, uint32_t var_count, uint32_t max_degree,
                                            const void* constant, const uint64_t* const* term_counts,
                                            const uint32_t* const* term_vars, const void* const* term_coeffs);
typedef void (*zorp_vell_solver_destroy_fn)(void* handle);
/* Searches and writes the best solution into `best`. `params` is a pair list ("time_limit",
   "target_energy", "seed", "threads", "topk_sols", "best_energy_sols"); `hint`, when not NULL,
   is a start state packed as zorp_plugin_sol bits. Returns a list of further solutions (best
   first) or NULL; the library releases it with sol_list_destroy. */
typedef void* (*zorp_vell_solver_search_fn)(void* handle, zorp_plugin_sol* best, const zorp_solver_pair* params,
                                            const void* hint);
typedef uint64_t (*zorp_vell_solver_sol_list_count_fn)(void* list);
/* Writes entry `index` of the list into `out`, whose blocks the library allocated. */
typedef void (*zorp_vell_solver_sol_list_get_fn)(void* list, uint64_t index, zorp_plugin_sol* out);
typedef void (*zorp_vell_solver_sol_list_destroy_fn)(void* list);
typedef void (*zorp_vell_solver_register_callback_fn)(zorp_vell_solver_callback callback);

/* ---- optional entry points ---- */

/* The unified integer path: `int_count` integer variables with bounds, whose literals in
   constraint bodies are var_count + dense integer index. */
typedef void* (*zorp_vell_solver_create_int_fn)(void* context, uint32_t var_count, uint32_t int_count,
                                                const int64_t* int_lower, const int64_t* int_upper,
                                                uint32_t max_degree, const void* constant,
                                                const uint64_t* const* term_counts, const uint32_t* const* term_vars,
                                                const void* const* term_coeffs);
/* Searches a handle from create_int; writes the integer values of the best state to `ints`. */
typedef void* (*zorp_vell_solver_search_int_fn)(void* handle, zorp_plugin_sol* best, const zorp_solver_pair* params,
                                                int64_t* ints);

/* Facts about the last search, a pair list owned by the plug-in, or NULL. */
typedef zorp_solver_pair* (*zorp_vell_solver_get_info_fn)(void* handle);
typedef void (*zorp_vell_solver_free_info_fn)(zorp_solver_pair* info);
/* A declared constraint: penalty weight * d^2 (or weight * d, see set_cons_shape) where d is
   the distance of constant + sum coeffs[j] * x[vars[j]] from [lower, upper]. The pointers
   stay valid for the life of the handle. */
typedef void (*zorp_vell_solver_add_constraint_fn)(void* handle, const int64_t* weight, const int64_t* lower,
                                                   const int64_t* upper, const int64_t* constant, uint64_t count,
                                                   const uint32_t* vars, const void* coeffs);
/* As add_constraint, with `nl_count` product terms added to the body: term t multiplies
   nl_coeffs[t] by the literals nl_vars[nl_head[t] .. nl_head[t+1]). */
typedef void (*zorp_vell_solver_add_constraint_nl_fn)(void* handle, const int64_t* weight, const int64_t* lower,
                                                      const int64_t* upper, const int64_t* constant, uint64_t count,
                                                      const uint32_t* vars, const void* coeffs, uint64_t nl_count,
                                                      const uint64_t* nl_head, const uint32_t* nl_vars,
                                                      const void* nl_coeffs);
/* As add_constraint, with d the distance to the nearest of `interval_count` allowed
   intervals [lowers[i], uppers[i]]. These two arrays are temporary: copy them. */
typedef void (*zorp_vell_solver_add_constraint_set_fn)(void* handle, const int64_t* weight, const int64_t* lower,
                                                       const int64_t* upper, const int64_t* constant, uint64_t count,
                                                       const uint32_t* vars, const void* coeffs,
                                                       uint64_t interval_count, const int64_t* lowers,
                                                       const int64_t* uppers);
/* Applies to the constraint just added: exponent 2 squares the distance, any other value
   takes it as it is; shape 1 marks an objective shape (abs/relu) that is not a constraint
   and so need not be met for a target to count as reached. */
typedef void (*zorp_vell_solver_set_cons_shape_fn)(void* handle, uint32_t exponent, uint32_t shape);
/* The free-form penalty: already part of the objective terms, given apart so that a
   solution counts as feasible only when it evaluates to 0. */
typedef void (*zorp_vell_solver_set_remainder_fn)(void* handle, const int64_t* constant, uint64_t term_count,
                                                  const uint64_t* head, const uint32_t* vars, const void* coeffs);

#if defined(ZORP_PLUGIN_EXPORTS)
#define ZORP_PLUGIN_API __attribute__((visibility("default")))
ZORP_PLUGIN_API void* zorp_vell_solver_create(void* context, uint32_t var_count, uint32_t max_degree,
                                              const void* constant, const uint64_t* const* term_counts,
                                              const uint32_t* const* term_vars, const void* const* term_coeffs);
ZORP_PLUGIN_API void zorp_vell_solver_destroy(void* handle);
ZORP_PLUGIN_API void* zorp_vell_solver_search(void* handle, zorp_plugin_sol* best, const zorp_solver_pair* params,
                                              const void* hint);
ZORP_PLUGIN_API uint64_t zorp_vell_solver_sol_list_count(void* list);
ZORP_PLUGIN_API void zorp_vell_solver_sol_list_get(void* list, uint64_t index, zorp_plugin_sol* out);
ZORP_PLUGIN_API void zorp_vell_solver_sol_list_destroy(void* list);
ZORP_PLUGIN_API void zorp_vell_solver_register_callback(zorp_vell_solver_callback callback);
ZORP_PLUGIN_API zorp_solver_pair* zorp_vell_solver_get_info(void* handle);
ZORP_PLUGIN_API void zorp_vell_solver_free_info(zorp_solver_pair* info);
ZORP_PLUGIN_API void zorp_vell_solver_add_constraint(void* handle, const int64_t* weight, const int64_t* lower,
                                                     const int64_t* upper, const int64_t* constant, uint64_t count,
                                                     const uint32_t* vars, const void* coeffs);
ZORP_PLUGIN_API void zorp_vell_solver_add_constraint_nl(void* handle, const int64_t* weight, const int64_t* lower,
                                                        const int64_t* upper, const int64_t* constant, uint64_t count,
                                                        const uint32_t* vars, const void* coeffs, uint64_t nl_count,
                                                        const uint64_t* nl_head, const uint32_t* nl_vars,
                                                        const void* nl_coeffs);
ZORP_PLUGIN_API void zorp_vell_solver_add_constraint_set(void* handle, const int64_t* weight, const int64_t* lower,
                                                         const int64_t* upper, const int64_t* constant, uint64_t count,
                                                         const uint32_t* vars, const void* coeffs,
                                                         uint64_t interval_count, const int64_t* lowers,
                                                         const int64_t* uppers);
ZORP_PLUGIN_API void zorp_vell_solver_set_cons_shape(void* handle, uint32_t exponent, uint32_t shape);
ZORP_PLUGIN_API void zorp_vell_solver_set_remainder(void* handle, const int64_t* constant, uint64_t term_count,
                                                    const uint64_t* head, const uint32_t* vars, const void* coeffs);
#endif

#ifdef __cplusplus
}
#endif

#endif
