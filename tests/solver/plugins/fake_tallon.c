/* A TallonSolver plug-in for loader tests that lacks zorp_tallon_search. */
#define EXPORT __attribute__((visibility("default")))

EXPORT void zorp_tallon_create(void) {}
EXPORT void zorp_tallon_destroy(void) {}
