/* VellSolver: the heuristic solver front end. A binary model is handed to the plug-in
   vellsolver_<tag>.so, found in ZORP_LIB_DIR, else beside the zorp library. */
#ifndef ZORP_VELL_SOLVER_H
#define ZORP_VELL_SOLVER_H

#include "zorp/common.h"
#include "zorp/model.h"
#include "zorp/search_result.h"

ZORP_EXTERN_C_BEGIN

/* A solver over one model; it holds its own share of the model. */
typedef struct zorp_vell_solver zorp_vell_solver;

/* The type tag that names solver plug-ins, "c32e64" in this build. The text belongs to the
   calling thread and lives as long as it. */
ZORP_API const char* zorp_expr_solver_type(void);

/* New solver over `m`; caller destroys. On a binary model this opens the plug-in, creates its
   solver and ships the declared constraints and free-form penalty; aborts with a
   "VellSolver: ..." line when the plug-in is missing, lacks a required symbol, or cannot take
   a constraint form the model uses. A model with integer variables opens no plug-in. */
ZORP_API zorp_vell_solver* zorp_vell_solver_wrapper_create(const zorp_model* m);
/* Destroys the plug-in's solver and drops the model share; null is ignored. */
ZORP_API void zorp_vell_solver_wrapper_destroy(zorp_vell_solver* s);
/* Runs one search; caller destroys the result. `params` is a (key, value) list closed by a
   NULL key, or NULL: "time_limit" (seconds, 10.0 when absent), "target_energy", "seed",
   "threads", "topk_sols", "best_energy_sols". `hint`, when not NULL, holds the start state's
   bit words. Searches on one solver must not overlap. */
ZORP_API zorp_search_result* zorp_vell_solver_wrapper_search(zorp_vell_solver* s, const zorp_solver_pair* params,
                                                             const void* hint);
/* The search of a model with integer variables, with an optional start state of bit words
   and `hint_count` integer values; aborts on a binary model. */
ZORP_API zorp_search_result* zorp_vell_solver_wrapper_search_int(zorp_vell_solver* s,
                                                                 const zorp_solver_pair* params,
                                                                 const uint64_t* hint_bits,
                                                                 const int64_t* hint_ints, uint64_t hint_count);

ZORP_EXTERN_C_END

#endif
