/* A VellSolver plug-in for front-end tests. It searches nothing: it logs every call with its
   arguments, so that a test can read what the library handed over, and answers searches with
   values derived from the model it was given. Variants leave out symbols. */
#include <inttypes.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "zorp/solver_plugin.h"

#define EXPORT __attribute__((visibility("default")))

static char log_text[1 << 16];

static void record(const char* format, ...) __attribute__((format(printf, 1, 2)));
static void record(const char* format, ...) {
  size_t used = strlen(log_text);
  va_list args;
  va_start(args, format);
  vsnprintf(log_text + used, sizeof(log_text) - used, format, args);
  va_end(args);
}

EXPORT const char* fake_log_text(void) { return log_text; }
EXPORT void fake_log_clear(void) { log_text[0] = '\0'; }

typedef struct {
  uint32_t var_count;
  int64_t constant;
} fake_solver;

typedef struct {
  uint64_t count;
  uint32_t var_count;
} fake_list;

EXPORT void* zorp_vell_solver_create(void* context, uint32_t var_count, uint32_t max_degree, const void* constant,
                                     const uint64_t* const* term_counts, const uint32_t* const* term_vars,
                                     const void* const* term_coeffs) {
  fake_solver* s = malloc(sizeof(fake_solver));
  s->var_count = var_count;
  s->constant = *(const int64_t*)constant;
  record("create context=%s vars=%u degree=%u constant=%" PRId64, context ? "set" : "null", var_count, max_degree,
         s->constant);
  for (uint32_t d = 1; d <= max_degree; ++d) {
    record(" d%u=[", d);
    const int32_t* coeffs = term_coeffs[d - 1];
    for (uint64_t t = 0; t < *term_counts[d - 1]; ++t) {
      record("%s%" PRId32, t ? " " : "", coeffs[t]);
      for (uint32_t i = 0; i < d; ++i) record(":%u", term_vars[d - 1][t * d + i]);
    }
    record("]");
  }
  record("\n");
  return s;
}

EXPORT void zorp_vell_solver_destroy(void* handle) {
  record("destroy\n");
  free(handle);
}

static void fill(zorp_plugin_sol* sol, int64_t energy, double tts, uint64_t pattern) {
  *sol->energy = energy;
  *sol->tts = tts;
  for (uint32_t w = 0; w < *sol->word_count; ++w) sol->bits[w] = pattern;
  if (*sol->var_count % 64 != 0) sol->bits[*sol->word_count - 1] &= (UINT64_C(1) << (*sol->var_count % 64)) - 1;
}

static const char* find(const zorp_solver_pair* params, const char* key) {
  for (; params && params->key; ++params)
    if (strcmp(params->key, key) == 0) return params->value;
  return NULL;
}

EXPORT void* zorp_vell_solver_search(void* handle, zorp_plugin_sol* best, const zorp_solver_pair* params,
                                     const void* hint) {
  fake_solver* s = handle;
  record("search");
  for (const zorp_solver_pair* p = params; p->key; ++p) record(" %s=%s", p->key, p->value);
  record(" hint=%s words=%u\n", hint ? "set" : "null", *best->word_count);
  uint64_t start = hint ? ((const uint64_t*)hint)[0] : ~UINT64_C(0);
  fill(best, s->constant + 7, 0.25, start);
  const char* k = find(params, "topk_sols");
  if (!k) return NULL;
  fake_list* list = malloc(sizeof(fake_list));
  list->count = strtoull(k, NULL, 10);
  list->var_count = s->var_count;
  return list;
}

EXPORT uint64_t zorp_vell_solver_sol_list_count(void* list) { return ((fake_list*)list)->count; }

EXPORT void zorp_vell_solver_sol_list_get(void* list, uint64_t index, zorp_plugin_sol* out) {
  (void)list;
  fill(out, 100 + (int64_t)index, 0.5 * (double)index, index + 1);
}

#if !defined(FAKE_NO_LIST_DESTROY)
EXPORT void zorp_vell_solver_sol_list_destroy(void* list) {
  record("list_destroy\n");
  free(list);
}
#endif

EXPORT void zorp_vell_solver_register_callback(zorp_vell_solver_callback callback) {
  record("register_callback returns=%g\n", callback(NULL, NULL, 0));
}

#if !defined(FAKE_REQUIRED_ONLY)
static zorp_solver_pair info_pairs[] = {{"algorithm", "recording"}, {"threads", "1"}, {NULL, NULL}};

EXPORT zorp_solver_pair* zorp_vell_solver_get_info(void* handle) {
  (void)handle;
  return info_pairs;
}

EXPORT void zorp_vell_solver_free_info(zorp_solver_pair* info) {
  (void)info;
  record("free_info\n");
}

static void record_constraint(const char* kind, const int64_t* weight, const int64_t* lower, const int64_t* upper,
                              const int64_t* constant, uint64_t count, const uint32_t* vars, const void* coeffs) {
  record("%s w=%" PRId64 " [%" PRId64 ",%" PRId64 "] c=%" PRId64 " body=", kind, *weight, *lower, *upper, *constant);
  for (uint64_t j = 0; j < count; ++j) record("%s%" PRId32 ":%u", j ? " " : "", ((const int32_t*)coeffs)[j], vars[j]);
}

EXPORT void zorp_vell_solver_add_constraint(void* handle, const int64_t* weight, const int64_t* lower,
                                            const int64_t* upper, const int64_t* constant, uint64_t count,
                                            const uint32_t* vars, const void* coeffs) {
  (void)handle;
  record_constraint("constraint", weight, lower, upper, constant, count, vars, coeffs);
  record("\n");
}

#if !defined(FAKE_NO_SHAPE)
EXPORT void zorp_vell_solver_set_cons_shape(void* handle, uint32_t exponent, uint32_t shape) {
  (void)handle;
  record("shape exponent=%u shape=%u\n", exponent, shape);
}
#endif

#if !defined(FAKE_LINEAR_ONLY)
EXPORT void zorp_vell_solver_add_constraint_nl(void* handle, const int64_t* weight, const int64_t* lower,
                                               const int64_t* upper, const int64_t* constant, uint64_t count,
                                               const uint32_t* vars, const void* coeffs, uint64_t nl_count,
                                               const uint64_t* nl_head, const uint32_t* nl_vars,
                                               const void* nl_coeffs) {
  (void)handle;
  record_constraint("constraint_nl", weight, lower, upper, constant, count, vars, coeffs);
  record(" nl=");
  for (uint64_t t = 0; t < nl_count; ++t) {
    record("%s%" PRId32, t ? " " : "", ((const int32_t*)nl_coeffs)[t]);
    for (uint64_t k = nl_head[t]; k < nl_head[t + 1]; ++k) record(":%u", nl_vars[k]);
  }
  record("\n");
}

EXPORT void zorp_vell_solver_add_constraint_set(void* handle, const int64_t* weight, const int64_t* lower,
                                                const int64_t* upper, const int64_t* constant, uint64_t count,
                                                const uint32_t* vars, const void* coeffs, uint64_t interval_count,
                                                const int64_t* lowers, const int64_t* uppers) {
  (void)handle;
  record_constraint("constraint_set", weight, lower, upper, constant, count, vars, coeffs);
  record(" allowed=");
  for (uint64_t i = 0; i < interval_count; ++i) record("[%" PRId64 ",%" PRId64 "]", lowers[i], uppers[i]);
  record("\n");
}

EXPORT void zorp_vell_solver_set_remainder(void* handle, const int64_t* constant, uint64_t term_count,
                                           const uint64_t* head, const uint32_t* vars, const void* coeffs) {
  (void)handle;
  record("remainder c=%" PRId64 " terms=", *constant);
  for (uint64_t t = 0; t < term_count; ++t) {
    record("%s%" PRId32, t ? " " : "", ((const int32_t*)coeffs)[t]);
    for (uint64_t k = head[t]; k < head[t + 1]; ++k) record(":%u", vars[k]);
  }
  record("\n");
}

EXPORT void* zorp_vell_solver_create_int(void* context, uint32_t var_count, uint32_t int_count,
                                         const int64_t* int_lower, const int64_t* int_upper, uint32_t max_degree,
                                         const void* constant, const uint64_t* const* term_counts,
                                         const uint32_t* const* term_vars, const void* const* term_coeffs) {
  (void)term_counts;
  (void)term_vars;
  (void)term_coeffs;
  record("create_int context=%s vars=%u ints=%u degree=%u bounds=", context ? "set" : "null", var_count, int_count,
         max_degree);
  for (uint32_t i = 0; i < int_count; ++i) record("[%" PRId64 ",%" PRId64 "]", int_lower[i], int_upper[i]);
  record("\n");
  fake_solver* s = malloc(sizeof(fake_solver));
  s->var_count = var_count;
  s->constant = *(const int64_t*)constant;
  return s;
}

EXPORT void* zorp_vell_solver_search_int(void* handle, zorp_plugin_sol* best, const zorp_solver_pair* params,
                                         int64_t* ints) {
  fake_solver* s = handle;
  record("search_int");
  for (const zorp_solver_pair* p = params; p->key; ++p) record(" %s=%s", p->key, p->value);
  record("\n");
  fill(best, s->constant + 3, 0.5, 0);
  ints[0] = 42;
  return NULL;
}
#endif
#endif
