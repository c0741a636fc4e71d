/* A MIRK plug-in for loader tests: the CPU entry points always, and integer GPU entry points
   by variant. None of them is called. */
#define EXPORT __attribute__((visibility("default")))

EXPORT int zorp_mirk_gpu_device_count(void) { return 0; }
EXPORT void zorp_mirk_cpu_solver_create(void) {}
EXPORT void zorp_mirk_cpu_solver_destroy(void) {}
#if !defined(FAKE_MISSING_SEARCH)
EXPORT void zorp_mirk_cpu_solver_search(void) {}
#endif
EXPORT void zorp_mirk_cpu_register_callback(void) {}
EXPORT void zorp_mirk_cpu_sol_list_count(void) {}
EXPORT void zorp_mirk_cpu_sol_list_get(void) {}
EXPORT void zorp_mirk_cpu_sol_list_destroy(void) {}

#if defined(FAKE_INT_ENGINE) || defined(FAKE_INT_WITHOUT_HINT)
EXPORT void zorp_mirk_int_create(void) {}
EXPORT void zorp_mirk_int_add_cons(void) {}
EXPORT void zorp_mirk_int_round2(void) {}
EXPORT void zorp_mirk_int_destroy(void) {}
#endif
#if defined(FAKE_INT_ENGINE)
EXPORT void zorp_mirk_int_hint(void) {}
EXPORT void zorp_mirk_solver_create(void) {}
EXPORT void zorp_mirk_solver_search(void) {}
#endif
