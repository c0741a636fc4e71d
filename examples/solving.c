/* The main job's second half: real problems built with the library and solved end to end by
   VellSolver. A weighted max-cut and a graph colouring with declared one-hot constraints. */
#include <stdio.h>
#include <stdlib.h>

#include "zorp.h"

/* A fixed pseudo-random stream, so that every run solves the same instances. */
static uint64_t stream = 0x9E3779B97F4A7C15u;
static uint32_t next_random(uint32_t bound) {
  stream ^= stream << 13;
  stream ^= stream >> 7;
  stream ^= stream << 17;
  return (uint32_t)(stream % bound);
}

/* Prints the facts about the run, then releases what one solve made. */
static void finish_run(zorp_search_result* r, zorp_sol* best, zorp_vell_solver* solver, zorp_model* model) {
  printf("  run facts:\n");
  for (uint64_t i = 0; i < zorp_vell_solver_result_info_count(r); ++i)
    printf("    %-10s %s\n", zorp_vell_solver_result_info_key(r, i), zorp_vell_solver_result_info_value(r, i));
  zorp_sol_destroy(best);
  zorp_vell_solver_result_destroy(r);
  zorp_vell_solver_wrapper_destroy(solver);
  zorp_model_destroy(model);
}

static int bit_of(const uint64_t* words, uint32_t i) { return (int)((words[i / 64] >> (i % 64)) & 1u); }

/* Max-cut: minimise sum over edges of w * (2 x_u x_v - x_u - x_v), which is minus the cut. */
static void max_cut(void) {
  enum { kNodes = 400, kEdges = 2400 };
  static uint32_t from[kEdges], to[kEdges];
  static int32_t weight[kEdges];
  uint64_t dims[1] = {kNodes};
  zorp_var x = zorp_new_var_array("side", dims, 1);

  /* Bulk input: per edge one quadratic and two linear terms. */
  static zorp_coeff coeffs[3 * kEdges];
  static uint32_t degrees[3 * kEdges], vars[4 * kEdges];
  size_t t = 0, v = 0;
  for (int e = 0; e < kEdges; ++e) {
    from[e] = next_random(kNodes);
    do to[e] = next_random(kNodes);
    while (to[e] == from[e]);
    weight[e] = next_random(2) ? 1 : -1;
    coeffs[t] = 2 * weight[e], degrees[t++] = 2, vars[v++] = x + from[e], vars[v++] = x + to[e];
    coeffs[t] = -weight[e], degrees[t++] = 1, vars[v++] = x + from[e];
    coeffs[t] = -weight[e], degrees[t++] = 1, vars[v++] = x + to[e];
  }
  zorp_expr* raw = zorp_expr_create_from_bulk(0, t, coeffs, degrees, vars);
  zorp_expr* qubo = zorp_expr_simplify_as_binary(raw);
  zorp_model* model = zorp_model_create(qubo);
  printf("max-cut: %d nodes, %d edges of weight +-1, %llu QUBO terms\n", kNodes, kEdges,
         (unsigned long long)zorp_expr_term_count(qubo));

  zorp_vell_solver* solver = zorp_vell_solver_wrapper_create(model);
  zorp_solver_pair params[] = {{"time_limit", "2.0"}, {"seed", "1"}, {"topk_sols", "3"}, {NULL, NULL}};
  zorp_search_result* r = zorp_vell_solver_wrapper_search(solver, params, NULL);
  int64_t energy = 0;
  zorp_vell_solver_result_energy(r, &energy);

  /* The cut, recounted from the returned sides rather than trusted from the energy. */
  zorp_sol* best = zorp_vell_solver_result_to_sol(r, model);
  long long cut = 0;
  for (int e = 0; e < kEdges; ++e)
    if (zorp_sol_get(best, x + from[e]) != zorp_sol_get(best, x + to[e])) cut += weight[e];
  printf("  best energy %lld, cut %lld (energy recomputed: %lld), found after %.3f s\n", (long long)energy, cut,
         (long long)zorp_sol_compute_energy(best, NULL), zorp_vell_solver_result_tts(r));
  printf("  sides of the first 32 nodes: ");
  for (uint32_t i = 0; i < 32; ++i) printf("%d", zorp_sol_get(best, x + i));
  printf("\n  pool:");
  for (uint64_t k = 0; k < zorp_vell_solver_result_topk_count(r); ++k) {
    int64_t pooled = 0;
    zorp_vell_solver_result_topk_energy(r, k, &pooled);
    printf(" %lld", (long long)pooled);
  }
  printf("\n");
  finish_run(r, best, solver, model);
  zorp_expr_destroy(qubo);
  zorp_expr_destroy(raw);
}

/* Colouring: colour[v][c] one-hot per vertex as a declared constraint, and the number of
   edges whose ends share a colour as the objective. */
static void colouring(void) {
  enum { kVertices = 60, kColours = 4 };
  uint64_t dims[2] = {kVertices, kColours};
  zorp_var colour = zorp_new_var_array("colour", dims, 2);
  /* A ring of vertices with chords to vertices close by: dense but 4-colourable. */
  static int adjacent[kVertices][kVertices];
  int edges = 0;
  for (int v = 0; v < kVertices; ++v)
    for (int step = 1; step <= 2; ++step) {
      const int u = (v + step + (int)next_random(2)) % kVertices;
      if (u != v && !adjacent[u][v]) adjacent[u][v] = adjacent[v][u] = 1, ++edges;
    }

  zorp_expr* conflicts = zorp_expr_create();
  for (int v = 0; v < kVertices; ++v)
    for (int u = v + 1; u < kVertices; ++u)
      if (adjacent[v][u])
        for (int c = 0; c < kColours; ++c)
          zorp_expr_iadd_raw_term(conflicts, 1, (uint32_t[]){colour + v * kColours + c, colour + u * kColours + c},
                                  2);
  zorp_expr* problem = zorp_expr_simplify_as_binary(conflicts);
  for (int v = 0; v < kVertices; ++v) {
    zorp_expr* row = zorp_expr_create();
    for (int c = 0; c < kColours; ++c) zorp_expr_iadd_var(row, colour + v * kColours + c);
    zorp_expr* one_hot = zorp_cons_between(row, 1, 1);
    zorp_expr_imul_int(one_hot, 5); /* weight of the constraint */
    zorp_expr_iadd_expr(problem, one_hot);
    zorp_expr_destroy(one_hot);
    zorp_expr_destroy(row);
  }
  zorp_model* model = zorp_model_create(problem);
  printf("colouring: %d vertices, %d edges, %d colours, %llu declared one-hot constraints\n", kVertices, edges,
         kColours, (unsigned long long)zorp_cons_item_count(problem));

  zorp_vell_solver* solver = zorp_vell_solver_wrapper_create(model);
  zorp_solver_pair params[] = {{"time_limit", "2.0"}, {"target_energy", "0"}, {NULL, NULL}};
  zorp_search_result* r = zorp_vell_solver_wrapper_search(solver, params, NULL);
  zorp_sol* best = zorp_vell_solver_result_to_sol(r, model);
  int64_t energy = 0;
  zorp_vell_solver_result_energy(r, &energy);
  printf("  best energy %lld after %.3f s, violated constraints %llu\n", (long long)energy,
         zorp_vell_solver_result_tts(r), (unsigned long long)zorp_cons_violation_count(problem, best));
  const uint64_t* bits = zorp_vell_solver_result_bits(r);
  printf("  colours: ");
  for (int v = 0; v < kVertices; ++v) {
    int chosen = -1;
    for (int c = 0; c < kColours; ++c)
      if (bit_of(bits, zorp_model_var_index(model, colour + v * kColours + c))) chosen = c;
    printf("%c", chosen < 0 ? '?' : 'A' + chosen);
  }
  printf("\n");
  finish_run(r, best, solver, model);
  zorp_expr_destroy(problem);
  zorp_expr_destroy(conflicts);
}

int main(void) {
  printf("solver plug-in type: %s\n", zorp_expr_solver_type());
  max_cut();
  colouring();
  return 0;
}
