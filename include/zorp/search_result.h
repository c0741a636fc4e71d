/* Search results: the record every solver returns, with the best assignment, a pool of
   further solutions (best first) and text facts about the run. */
#ifndef ZORP_SEARCH_RESULT_H
#define ZORP_SEARCH_RESULT_H

#include "zorp/common.h"
#include "zorp/model.h"
#include "zorp/sol.h"

ZORP_EXTERN_C_BEGIN

/* One search's outcome. The caller releases it with zorp_vell_solver_result_destroy.
   Indices are not range-checked. Pointers returned here live as long as the result. */
typedef struct zorp_search_result zorp_search_result;

/* Writes the best energy (constant and constraint penalties included) to `out`. */
ZORP_API void zorp_vell_solver_result_energy(const zorp_search_result* r, int64_t* out);
/* Seconds from the start of the search until the best was found. */
ZORP_API double zorp_vell_solver_result_tts(const zorp_search_result* r);
/* The best assignment's bit words: bit i of word i / 64 is the model's dense variable i. */
ZORP_API const uint64_t* zorp_vell_solver_result_bits(const zorp_search_result* r);

/* Number of pooled solutions (topk_sols or best_energy_sols); 0 without a pool. */
ZORP_API uint64_t zorp_vell_solver_result_topk_count(const zorp_search_result* r);
ZORP_API void zorp_vell_solver_result_topk_energy(const zorp_search_result* r, uint64_t index, int64_t* out);
ZORP_API double zorp_vell_solver_result_topk_tts(const zorp_search_result* r, uint64_t index);
ZORP_API const uint64_t* zorp_vell_solver_result_topk_bits(const zorp_search_result* r, uint64_t index);

/* Facts about the run: "run_time" first, then the solver's own, then "os", "cpu", "gpu",
   "ram". The texts live as long as the result. */
ZORP_API uint64_t zorp_vell_solver_result_info_count(const zorp_search_result* r);
ZORP_API const char* zorp_vell_solver_result_info_key(const zorp_search_result* r, uint64_t index);
ZORP_API const char* zorp_vell_solver_result_info_value(const zorp_search_result* r, uint64_t index);

/* Exchanges the best's bit words with `list`: the caller gets the words and the result takes
   what `list` held, freed with it. Stealing twice gives the first list back. */
ZORP_API void zorp_vell_solver_result_steal_bits(zorp_search_result* r, zorp_sol_words* list);
ZORP_API void zorp_vell_solver_result_steal_topk_bits(zorp_search_result* r, uint64_t index, zorp_sol_words* list);

/* New solution of `m` holding a copy of the best (or of pool entry `index`), its energy taken
   as it stands; caller destroys. Integers without values start at their lower bounds. */
ZORP_API zorp_sol* zorp_vell_solver_result_to_sol(const zorp_search_result* r, const zorp_model* m);
ZORP_API zorp_sol* zorp_vell_solver_result_topk_to_sol(const zorp_search_result* r, uint64_t index,
                                                       const zorp_model* m);

/* Releases the result; null is ignored. */
ZORP_API void zorp_vell_solver_result_destroy(zorp_search_result* r);

ZORP_EXTERN_C_END

#endif
