/* The main job: builds polynomials through the C interface, brings them to canonical
   form and prints them. */
#include <stdio.h>

#include "zorp.h"

static void show(const char* label, const zorp_expr* e) {
  printf("%-28s %s\n", label, zorp_expr_str(e));
}

int main(void) {
  zorp_var x = zorp_new_var("x");
  zorp_var y = zorp_new_var("y");
  uint64_t dims[2] = {2, 3};
  zorp_var a = zorp_new_var_array("a", dims, 2);

  /* Built by appending: 5 + 3*x*y - ~x + 2*a[i][j] over the whole array. */
  zorp_expr* e = zorp_expr_create_int(5);
  zorp_expr_iadd_term_move(e, zorp_term_create_var_var(3, x, y));
  zorp_expr_isub_var(e, x ^ ZORP_NEGATED_BIT);
  for (uint32_t k = 0; k < 6; ++k) {
    uint32_t literal = a + k;
    zorp_expr_iadd_raw_term(e, 2, &literal, 1);
  }
  printf("variables: %u\n", zorp_var_count());
  show("appended:", e);

  zorp_expr* scaled = zorp_expr_clone_mul_int(e, -2);
  show("scaled by -2:", scaled);

  /* (x + y - 1)^2 + 2*x, the classic small QUBO. */
  zorp_expr* sum = zorp_expr_create_add_var_var(x, y);
  zorp_expr_iadd_int(sum, -1);
  zorp_expr* objective = zorp_expr_sqr(sum);
  zorp_expr_iadd_raw_term(objective, 2, &x, 1);
  show("(x + y - 1)^2 + 2*x:", objective);
  zorp_expr* qubo = zorp_expr_simplify_as_binary(objective);
  show("  as binary:", qubo);
  zorp_expr* ising = zorp_expr_simplify_as_spin(objective);
  show("  as spin:", ising);

  /* One-hot penalty over the first row of the array: 4 * (a[0][0] + a[0][1] + a[0][2] - 1)^2. */
  zorp_expr* row = zorp_expr_create_int(-1);
  for (uint32_t k = 0; k < 3; ++k) zorp_expr_iadd_var(row, a + k);
  zorp_expr* onehot = zorp_expr_sqr(row);
  zorp_expr_imul_int(onehot, 4);
  zorp_expr* onehot_qubo = zorp_expr_simplify_as_binary(onehot);
  show("one-hot penalty as binary:", onehot_qubo);

  /* Negated literals expand under the binary rules: 3*~x*~y = 3 - 3x - 3y + 3xy. */
  zorp_expr* negated = zorp_expr_create_add_raw_terms(3, (uint32_t[]){x ^ ZORP_NEGATED_BIT, y ^ ZORP_NEGATED_BIT}, 2, 0,
                                                      NULL, 0);
  zorp_expr* negated_qubo = zorp_expr_simplify_as_binary(negated);
  show("3*~x*~y as binary:", negated_qubo);

  /* A native integer in [0, 5] stands as one atom; binarizing encodes it over bits 1, 2, 2. */
  zorp_var n = zorp_new_int_var("n", 0, 5);
  zorp_expr* with_atom = zorp_expr_create_raw_term(3, (uint32_t[]){n, x}, 2, 1);
  show("with an integer atom:", with_atom);
  zorp_expr* binarized = zorp_expr_binarize(with_atom);
  zorp_expr* binarized_qubo = zorp_expr_simplify_as_binary(binarized);
  show("  binarized:", binarized_qubo);

  /* Objective plus declared constraints: a range, an equality with an allowed set, and an
     abs term. The polynomial stays the objective; the constraints live beside it. */
  zorp_expr* model = zorp_expr_clone(qubo);
  zorp_expr* row_sum = zorp_expr_create(); /* a[0][0] + a[0][1] + a[0][2] */
  for (uint32_t k = 0; k < 3; ++k) zorp_expr_iadd_var(row_sum, a + k);
  zorp_expr* range = zorp_cons_between(row_sum, 1, 2);
  int64_t los[2] = {0, 3}, his[2] = {0, 3};
  zorp_expr* col_sum = zorp_expr_create_add_var_var(a + 3, a + 4);
  zorp_expr_iadd_var(col_sum, a + 5);
  zorp_expr* equal = zorp_cons_equal(col_sum, los, his, 2);
  zorp_expr* diff = zorp_expr_create_add_var_var(x, y ^ ZORP_NEGATED_BIT);
  zorp_expr* shape = zorp_abs_term(diff, 1);
  zorp_expr_iadd_expr(model, range);
  zorp_expr_iadd_expr(model, equal);
  zorp_expr_iadd_expr(model, shape);
  show("objective with constraints:", model);
  printf("%-28s %llu (declared: %d)\n", "  constraint items:", (unsigned long long)zorp_cons_item_count(model),
         zorp_expr_is_declared(model));
  printf("%-28s [%lld, %lld]\n", "  reachable objective:", (long long)zorp_expr_neg_sum(model),
         (long long)zorp_expr_pos_sum(model));

  /* The model: the objective with its constraints, simplified as binary (constraint bodies
     included), flattened, then a few assignments set by hand. */
  zorp_expr* canonical = zorp_expr_simplify_as_binary(model);
  zorp_model* flat = zorp_model_create(canonical);
  printf("model: %u variables, %llu linear and %llu quadratic terms, %llu native constraints\n",
         zorp_model_var_count(flat), (unsigned long long)zorp_model_term_count(flat, 1),
         (unsigned long long)zorp_model_term_count(flat, 2), (unsigned long long)zorp_model_native_cons_count(flat));
  zorp_sol* sol = zorp_sol_create(flat);
  const zorp_var settings[3][2] = {{x, 1}, {y, 1}, {a, 1}};
  for (int step = 0; step <= 3; ++step) {
    if (step > 0) zorp_sol_set(sol, settings[step - 1][0], (int32_t)settings[step - 1][1]);
    int64_t energy = 0;
    zorp_sol_compute_energy(sol, &energy);
    printf("assignment %d: energy %lld, violated constraints %llu, solution %s\n", step, (long long)energy,
           (unsigned long long)zorp_cons_violation_count(canonical, sol), zorp_sol_str(sol));
    for (uint64_t i = 0; i < zorp_cons_item_count(canonical); ++i) {
      int64_t value, lower, upper, violation, weight;
      zorp_cons_item_eval(canonical, i, sol, &value, &lower, &upper, &violation, &weight);
      printf("    item %llu: value %lld in [%lld, %lld], violation %lld, weight %lld\n", (unsigned long long)i,
             (long long)value, (long long)lower, (long long)upper, (long long)violation, (long long)weight);
    }
  }
  zorp_sol_destroy(sol);
  zorp_model_destroy(flat);
  zorp_expr_destroy(canonical);

  zorp_expr_destroy(shape);
  zorp_expr_destroy(diff);
  zorp_expr_destroy(equal);
  zorp_expr_destroy(col_sum);
  zorp_expr_destroy(range);
  zorp_expr_destroy(row_sum);
  zorp_expr_destroy(model);
  zorp_expr_destroy(binarized_qubo);
  zorp_expr_destroy(binarized);
  zorp_expr_destroy(with_atom);
  zorp_expr_destroy(negated_qubo);
  zorp_expr_destroy(negated);
  zorp_expr_destroy(onehot_qubo);
  zorp_expr_destroy(onehot);
  zorp_expr_destroy(row);
  zorp_expr_destroy(ising);
  zorp_expr_destroy(qubo);
  zorp_expr_destroy(objective);
  zorp_expr_destroy(sum);
  zorp_expr_destroy(scaled);
  zorp_expr_destroy(e);
  return 0;
}
