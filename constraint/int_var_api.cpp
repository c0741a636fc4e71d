// Exported functions of the native integer family.
#include "algebra/handles.h"
#include "constraint/binarize.h"
#include "constraint/int_var_registry.h"
#include "frame/fatal.h"
#include "zorp/int_var.h"

using namespace zorp;

extern "C" {

zorp_var zorp_new_int_var(const char* name, int64_t lo, int64_t hi) {
  return IntVarRegistry::instance().add_block(name == nullptr ? std::string() : std::string(name), nullptr, 0, lo, hi);
}

zorp_var zorp_new_int_var_array(const char* name, const uint64_t* shape, size_t ndim, int64_t lo, int64_t hi) {
  return IntVarRegistry::instance().add_block(name == nullptr ? std::string() : std::string(name), shape, ndim, lo, hi);
}

uint32_t zorp_int_var_count(void) { return IntVarRegistry::instance().count(); }

void zorp_int_var_bounds(zorp_var atom, int64_t* lo, int64_t* hi) {
  const IntVarBlock* block = is_int_atom(atom) ? IntVarRegistry::instance().find(atom) : nullptr;
  if (block == nullptr) fatal("zorp_int_var_bounds: not an integer variable index");
  *lo = block->lo;
  *hi = block->hi;
}

zorp_expr* zorp_expr_binarize(const zorp_expr* e) { return handle(new ExprImpl(expr_binarize(*impl(e)))); }

}  // extern "C"
