// Exported entry points of the VellSolver front end.
#include <string>

#include "solver/plugin_loader.h"
#include "solver/vell_solver.h"
#include "zorp/vell_solver.h"

using zorp::VellSolverWrapper;

namespace {

VellSolverWrapper& solver_of(zorp_vell_solver* s) { return *reinterpret_cast<VellSolverWrapper*>(s); }
zorp_search_result* result_handle(std::unique_ptr<zorp::SearchResult> r) {
  return reinterpret_cast<zorp_search_result*>(r.release());
}

}  // namespace

extern "C" {

const char* zorp_expr_solver_type(void) {
  thread_local const std::string tag = zorp::default_solver_type();
  return tag.c_str();
}

zorp_vell_solver* zorp_vell_solver_wrapper_create(const zorp_model* m) {
  return reinterpret_cast<zorp_vell_solver*>(zorp::create_vell_solver(zorp::model_ref(m)).release());
}

void zorp_vell_solver_wrapper_destroy(zorp_vell_solver* s) { delete reinterpret_cast<VellSolverWrapper*>(s); }

zorp_search_result* zorp_vell_solver_wrapper_search(zorp_vell_solver* s, const zorp_solver_pair* params,
                                                    const void* hint) {
  return result_handle(zorp::vell_solver_search(solver_of(s), params, hint));
}

zorp_search_result* zorp_vell_solver_wrapper_search_int(zorp_vell_solver* s, const zorp_solver_pair* params,
                                                        const uint64_t* hint_bits, const int64_t* hint_ints,
                                                        uint64_t hint_count) {
  return result_handle(zorp::vell_solver_search_int(solver_of(s), params, hint_bits, hint_ints, hint_count));
}

}  // extern "C"
