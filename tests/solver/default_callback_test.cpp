#include "solver/default_callback.h"

#include <memory>
#include <sstream>

#include <gtest/gtest.h>

#include "support/builders.h"
#include "zorp.h"

namespace {

using zorp::test::Poly;
using zorp::test::var;

std::string line_for(const Poly& e, const std::vector<Poly>& ones, double tts) {
  zorp_model* model = zorp_model_create(e.get());
  zorp_sol* sol = zorp_sol_create(model);
  for (const Poly& v : ones) zorp_sol_set(sol, zorp::test::index_of(v), 1);
  zorp_sol_compute_energy(sol, nullptr);
  std::ostringstream out;
  zorp::write_default_callback_line(out, *reinterpret_cast<const zorp::Sol*>(sol), tts);
  zorp_sol_destroy(sol);
  zorp_model_destroy(model);
  return out.str();
}

TEST(DefaultCallbackLine, PlainModelShowsTimeAndEnergy) {
  const Poly x = var("x"), y = var("y");
  const Poly e(zorp_expr_simplify_as_binary((Poly(2) * x + y + Poly(-7)).get()));
  EXPECT_EQ(line_for(e, {x}, 0.25), "TTS = 0.250s Energy = -5\n");
}

TEST(DefaultCallbackLine, DeclaredModelSplitsPenaltiesAndCountsOrdinaryViolations) {
  const Poly x = var("x"), y = var("y");
  const Poly objective(zorp_expr_simplify_as_binary((Poly(2) * x + y).get()));
  const Poly sum(zorp_expr_simplify_as_binary((x + y).get()));
  const Poly difference(zorp_expr_simplify_as_binary((x - y).get()));
  Poly one(zorp_cons_between(sum.get(), 1, 1));
  zorp_expr_imul_int(one.get(), 3);
  // The abs term is an objective shape: it adds to the penalties but is never a violation.
  const Poly e = objective + one + Poly(zorp_abs_term(difference.get(), 1));
  EXPECT_EQ(line_for(e, {x, y}, 1.5), "TTS = 1.500s Energy = 6 Obj = 3 Viol = 1/1\n");
  EXPECT_EQ(line_for(e, {x}, 2), "TTS = 2.000s Energy = 3 Obj = 2 Viol = 0/1\n");
}

}  // namespace
