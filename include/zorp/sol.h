/* Solutions: one assignment of a model's variables, with a cached energy. A solution holds
   its own share of the model, so the model handle it came from may be destroyed first. */
#ifndef ZORP_SOL_H
#define ZORP_SOL_H

#include "zorp/common.h"
#include "zorp/model.h"

ZORP_EXTERN_C_BEGIN

/* One assignment of a model: a bit per binary variable, a value per integer variable. */
typedef struct zorp_sol zorp_sol;

/* A block of bit words taken out of a solution by zorp_sol_steal_bits: bit i of word i / 64
   is the model's variable at dense position i. Start with {NULL, 0}; release the words with
   zorp_sol_words_release. */
typedef struct zorp_sol_words {
  uint64_t* words;
  size_t count;
} zorp_sol_words;

/* Energies are written to `out` when it is not null and also returned. Every solution
   returned here is the caller's; release it with zorp_sol_destroy. */

/* ---- creation ---- */

/* New solution of `m`: all bits 0, every integer at its lower bound, energy computed. */
ZORP_API zorp_sol* zorp_sol_create(const zorp_model* m);
/* New solution of a new model built from `e` simplified as binary, constraints ignored; the
   solution is the model's only holder. Aborts as zorp_model_create does. */
ZORP_API zorp_sol* zorp_sol_create_from_expr(const zorp_expr* e);
/* New deep copy of `sol` sharing its model; the energy and its validity are copied. */
ZORP_API zorp_sol* zorp_sol_clone(const zorp_sol* sol);
/* Releases `sol` and its share of the model; null is ignored. */
ZORP_API void zorp_sol_destroy(zorp_sol* sol);

/* ---- reading ---- */

/* The cached energy. Aborts when the assignment changed since it was computed or set. */
ZORP_API int64_t zorp_sol_energy(const zorp_sol* sol, int64_t* out);
/* The same, with its own abort message. */
ZORP_API int64_t zorp_sol_energy_int(const zorp_sol* sol, int64_t* out);
/* 1 when the cached energy belongs to the present assignment, else 0. */
ZORP_API int zorp_sol_energy_valid(const zorp_sol* sol);
/* The energy, computed first when the cache is stale; the cache is valid afterwards. */
ZORP_API int64_t zorp_sol_compute_energy(zorp_sol* sol, int64_t* out);
/* Time to solution in seconds; -1.0 until set. */
ZORP_API double zorp_sol_tts(const zorp_sol* sol);
/* The model's scale when the solution was made (always 1.0). */
ZORP_API double zorp_sol_scale(const zorp_sol* sol);
/* Number of binary variables of the model. */
ZORP_API uint32_t zorp_sol_var_count(const zorp_sol* sol);
/* Registry index of the variable at dense position `i` (unchecked). */
ZORP_API zorp_var zorp_sol_model_var(const zorp_sol* sol, uint32_t i);
/* 1 when the model holds the variable of literal `v` (negation ignored), else 0. */
ZORP_API int zorp_sol_has(const zorp_sol* sol, zorp_var v);
/* `sol` itself seen as its model, for the zorp_model_ readers; valid while `sol` lives and
   never to be passed to zorp_model_destroy. */
ZORP_API const zorp_model* zorp_sol_model(const zorp_sol* sol);
/* 0 or 1; a negated literal gives the complement. Aborts when the model lacks the variable. */
ZORP_API int zorp_sol_get(const zorp_sol* sol, zorp_var literal);
/* Value of the integer variable `literal`. Aborts when `literal` is no plain integer atom or
   the model lacks it. */
ZORP_API int64_t zorp_sol_get_int(const zorp_sol* sol, zorp_var literal, int64_t* out);
/* The integer values by dense integer index, zorp_sol_int_count of them; borrowed, valid
   until `sol` is destroyed. */
ZORP_API const int64_t* zorp_sol_int_vals(const zorp_sol* sol);
ZORP_API uint64_t zorp_sol_int_count(const zorp_sol* sol);
/* The bit words, (zorp_sol_var_count + 63) / 64 of them (none after zorp_sol_steal_bits);
   borrowed, valid until `sol` is destroyed or its bits are stolen. */
ZORP_API const uint64_t* zorp_sol_bits(const zorp_sol* sol);
/* Text "energy:{{name,value},...}" over the binary variables. Owned by the library; valid until
   the next zorp_sol_str call on this thread. Aborts when the energy is stale. */
ZORP_API const char* zorp_sol_str(const zorp_sol* sol);
/* Value of `e` under this assignment, a variable the model lacks counting as 0; for a
   declared `e`, plus its weighted violations and free-form part. */
ZORP_API int64_t zorp_sol_eval_expr(const zorp_sol* sol, const zorp_expr* e, int64_t* out);

/* ---- writing: every change of the assignment makes the cached energy stale ---- */

/* Sets the variable so that `literal` reads 1 when `value` is non-zero, else 0. Aborts when
   the model lacks the variable. */
ZORP_API void zorp_sol_set(zorp_sol* sol, zorp_var literal, int32_t value);
/* Toggles the variable of `literal` (negation ignored). Aborts when the model lacks it. */
ZORP_API void zorp_sol_flip(zorp_sol* sol, zorp_var literal);
/* Sets an integer variable. Aborts, leaving `sol` unchanged, when `literal` is no plain integer
   atom of the model or `value` lies outside its bounds. */
ZORP_API void zorp_sol_set_int(zorp_sol* sol, zorp_var literal, int64_t value);
/* Stores `energy` as the valid cached energy, unchecked. */
ZORP_API void zorp_sol_set_energy(zorp_sol* sol, int64_t energy);
ZORP_API void zorp_sol_set_tts(zorp_sol* sol, double tts);
/* Copies every variable of `src`'s model into `dst` by identity, integers through
   zorp_sol_set_int; other variables of `dst` keep their values. Aborts when `dst`'s model
   lacks one of them, after the earlier ones were written. */
ZORP_API void zorp_sol_set_from_sol(zorp_sol* dst, const zorp_sol* src);
/* Moves the bit words of `sol` into `list`, first releasing the words `list` held. `sol` is
   left without bits: no bit of it may be read or written afterwards. */
ZORP_API void zorp_sol_steal_bits(zorp_sol* sol, zorp_sol_words* list);
/* Frees the words of `list` and leaves it {NULL, 0}; null is ignored. */
ZORP_API void zorp_sol_words_release(zorp_sol_words* list);

ZORP_EXTERN_C_END

#endif
