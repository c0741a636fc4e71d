// Exported functions of the variable family.
#include "constraint/int_var_registry.h"
#include "frame/fatal.h"
#include "frame/literal.h"
#include "frame/var_registry.h"
#include "zorp/var.h"

using namespace zorp;

namespace {

constexpr const char* kIndexSpaceExhausted = "Binary variable index space exhausted (2^30 - 1 variables).";

std::string name_or_automatic(const char* name) {
  if (name == nullptr || name[0] == '\0') return next_auto_var_name();
  return name;
}

}  // namespace

extern "C" {

zorp_var zorp_new_var(const char* name) {
  VarRegistry& registry = VarRegistry::instance();
  if (registry.count() >= 0x3FFFFFFFu) fatal(kIndexSpaceExhausted);
  return registry.add_var(name_or_automatic(name));
}

zorp_var zorp_new_var_array(const char* name, const uint64_t* dims, size_t ndims) {
  VarRegistry& registry = VarRegistry::instance();
  // The product is checked in 128 bits so that huge extents cannot wrap past the limit.
  unsigned __int128 total = 1;
  for (size_t i = 0; i < ndims; ++i) {
    if (dims[i] == 0) {
      total = 0;
      break;
    }
    if (total < 0x40000000u) total *= dims[i];
  }
  if (total + registry.count() >= 0x40000000u) fatal(kIndexSpaceExhausted);
  return registry.add_block(name_or_automatic(name), dims, ndims);
}

uint32_t zorp_var_count(void) { return VarRegistry::instance().count(); }

uint64_t zorp_used_var_count(void) {
  return VarRegistry::instance().count() + static_cast<uint64_t>(IntVarRegistry::instance().bit_total());
}

const char* zorp_var_str(zorp_var v) { return literal_name(v); }

const char* zorp_auto_var_name(void) {
  thread_local std::string text;
  text = next_auto_var_name();
  return text.c_str();
}

void zorp_var_reset(void) {
  VarRegistry::instance().clear();
  IntVarRegistry::instance().clear();
}

}  // extern "C"
