// Exported functions of the solution family.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string>

#include "algebra/handles.h"
#include "algebra/merge.h"
#include "frame/fatal.h"
#include "frame/var_registry.h"
#include "model/sol.h"
#include "zorp/sol.h"

using namespace zorp;

namespace {

Sol* impl(zorp_sol* s) { return reinterpret_cast<Sol*>(s); }
const Sol* impl(const zorp_sol* s) { return reinterpret_cast<const Sol*>(s); }
zorp_sol* handle(Sol* s) { return reinterpret_cast<zorp_sol*>(s); }

int64_t report(energy_t value, int64_t* out) {
  const auto v = static_cast<int64_t>(value);
  if (out != nullptr) *out = v;
  return v;
}

}  // namespace

extern "C" {

zorp_sol* zorp_sol_create(const zorp_model* m) { return handle(make_sol(model_ref(m)).release()); }

zorp_sol* zorp_sol_create_from_expr(const zorp_expr* e) {
  const ExprImpl simplified = expr_simplify_as_binary(*::zorp::impl(e));
  Model model = std::make_shared<const ModelImpl>(simplified, 0.0, nullptr);
  return handle(make_sol(std::move(model)).release());
}

zorp_sol* zorp_sol_clone(const zorp_sol* sol) { return handle(new Sol(*impl(sol))); }

void zorp_sol_destroy(zorp_sol* sol) { delete impl(sol); }

int64_t zorp_sol_energy(const zorp_sol* sol, int64_t* out) {
  const Sol& s = *impl(sol);
  if (s.energy_valid == 0)
    fatal("Sol::energy(): energy is invalid (variable changed after last computation). Call comp_energy() first.");
  return report(s.energy, out);
}

int64_t zorp_sol_energy_int(const zorp_sol* sol, int64_t* out) {
  const Sol& s = *impl(sol);
  if (s.energy_valid == 0) fatal("Sol::energy_int(): energy is invalid. Call comp_energy() first.");
  return report(s.energy, out);
}

int zorp_sol_energy_valid(const zorp_sol* sol) { return impl(sol)->energy_valid; }

int64_t zorp_sol_compute_energy(zorp_sol* sol, int64_t* out) {
  Sol& s = *impl(sol);
  if (s.energy_valid == 0) {
    s.energy = sol_energy(s);
    s.energy_valid = 1;
  }
  return report(s.energy, out);
}

double zorp_sol_tts(const zorp_sol* sol) { return impl(sol)->tts; }

double zorp_sol_scale(const zorp_sol* sol) { return impl(sol)->scale; }

uint32_t zorp_sol_var_count(const zorp_sol* sol) { return static_cast<uint32_t>(impl(sol)->model->vars.size()); }

zorp_var zorp_sol_model_var(const zorp_sol* sol, uint32_t i) { return impl(sol)->model->vars[i]; }

int zorp_sol_has(const zorp_sol* sol, zorp_var v) { return sol_dense_index(*impl(sol), v) != kNoVar; }

// The Sol's leading Model is what a model handle points at.
const zorp_model* zorp_sol_model(const zorp_sol* sol) { return reinterpret_cast<const zorp_model*>(sol); }

int zorp_sol_get(const zorp_sol* sol, zorp_var literal) { return sol_get(*impl(sol), literal); }

int64_t zorp_sol_get_int(const zorp_sol* sol, zorp_var literal, int64_t* out) {
  const int64_t value = sol_get_int(*impl(sol), literal);
  if (out != nullptr) *out = value;
  return value;
}

const int64_t* zorp_sol_int_vals(const zorp_sol* sol) { return impl(sol)->int_vals.data(); }

uint64_t zorp_sol_int_count(const zorp_sol* sol) { return impl(sol)->int_vals.size(); }

const uint64_t* zorp_sol_bits(const zorp_sol* sol) { return impl(sol)->bits.data(); }

const char* zorp_sol_str(const zorp_sol* sol) {
  thread_local std::string text;
  const Sol& s = *impl(sol);
  if (s.energy_valid == 0)
    fatal("Sol::str(): energy is invalid (variable changed after last computation). Call comp_energy() first.");
  text.clear();
  text += std::to_string(static_cast<long>(s.energy));
  text += ":{";
  const std::vector<std::uint32_t>& vars = s.model->vars;
  for (std::uint32_t i = 0; i < vars.size(); ++i) {
    if (i > 0) text += ',';
    text += '{';
    text += literal_name(vars[i]);
    text += ',';
    // The position is read as if it were a registry index, which is right while the model's
    // variables are the first ones registered; kept, as callers parse this text.
    text += std::to_string(static_cast<int>(sol_get(s, i)));
    text += '}';
  }
  text += '}';
  return text.c_str();
}

int64_t zorp_sol_eval_expr(const zorp_sol* sol, const zorp_expr* e, int64_t* out) {
  return report(sol_eval_expr(*impl(sol), *::zorp::impl(e)), out);
}

void zorp_sol_set(zorp_sol* sol, zorp_var literal, int32_t value) { sol_set(*impl(sol), literal, value); }

void zorp_sol_flip(zorp_sol* sol, zorp_var literal) { sol_flip(*impl(sol), literal); }

void zorp_sol_set_int(zorp_sol* sol, zorp_var literal, int64_t value) { sol_set_int(*impl(sol), literal, value); }

void zorp_sol_set_energy(zorp_sol* sol, int64_t energy) {
  impl(sol)->energy = energy;
  impl(sol)->energy_valid = 1;
}

void zorp_sol_set_tts(zorp_sol* sol, double tts) { impl(sol)->tts = tts; }

void zorp_sol_set_from_sol(zorp_sol* dst, const zorp_sol* src) { sol_set_from_sol(*impl(dst), *impl(src)); }

void zorp_sol_steal_bits(zorp_sol* sol, zorp_sol_words* list) {
  Sol& s = *impl(sol);
  // The caller frees with the C allocator, so the words leave the vector by copy; allocating
  // before taking them leaves the Sol intact when memory runs out.
  const std::size_t count = s.bits.size();
  uint64_t* words = nullptr;
  if (count != 0) {
    words = static_cast<uint64_t*>(std::malloc(count * sizeof(uint64_t)));
    if (words == nullptr) throw std::bad_alloc();
    std::memcpy(words, s.bits.data(), count * sizeof(uint64_t));
  }
  sol_steal_bits(s);
  std::free(list->words);
  list->words = words;
  list->count = count;
}

void zorp_sol_words_release(zorp_sol_words* list) {
  if (list == nullptr) return;
  std::free(list->words);
  list->words = nullptr;
  list->count = 0;
}

}  // extern "C"
