/* Builds a small polynomial through the C interface and prints it. */
#include <stdio.h>

#include "zorp.h"

int main(void) {
  zorp_var x = zorp_new_var("x");
  zorp_var y = zorp_new_var("y");
  uint64_t dims[2] = {2, 3};
  zorp_var a = zorp_new_var_array("a", dims, 2);

  /* 3*x*y - ~x + 2*a[i][j] summed over the array, plus 5 */
  zorp_expr* e = zorp_expr_create_int(5);
  zorp_term* xy = zorp_term_create_var_var(3, x, y);
  zorp_expr_iadd_term_move(e, xy);
  zorp_expr_isub_var(e, x ^ ZORP_NEGATED_BIT);
  for (uint32_t k = 0; k < 6; ++k) {
    uint32_t literal = a + k;
    zorp_expr_iadd_raw_term(e, 2, &literal, 1);
  }
  printf("variables: %u\n", zorp_var_count());
  printf("e      = %s\n", zorp_expr_str(e));

  zorp_expr* scaled = zorp_expr_clone_mul_int(e, -2);
  printf("-2 * e = %s\n", zorp_expr_str(scaled));

  zorp_expr_destroy(scaled);
  zorp_expr_destroy(e);
  return 0;
}
