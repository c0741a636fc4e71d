// Exported readers of a search result.
#include "model/model_impl.h"
#include "solver/search_result.h"
#include "zorp/search_result.h"

using zorp::SearchResult;

namespace {

const SearchResult& result_of(const zorp_search_result* r) { return *reinterpret_cast<const SearchResult*>(r); }
SearchResult& result_of(zorp_search_result* r) { return *reinterpret_cast<SearchResult*>(r); }
zorp_sol* sol_handle(std::unique_ptr<zorp::Sol> sol) { return reinterpret_cast<zorp_sol*>(sol.release()); }

}  // namespace

extern "C" {

void zorp_vell_solver_result_energy(const zorp_search_result* r, int64_t* out) { *out = result_of(r).energy; }
double zorp_vell_solver_result_tts(const zorp_search_result* r) { return result_of(r).tts; }
const uint64_t* zorp_vell_solver_result_bits(const zorp_search_result* r) { return result_of(r).bits.data(); }

uint64_t zorp_vell_solver_result_topk_count(const zorp_search_result* r) { return result_of(r).topk.size(); }
void zorp_vell_solver_result_topk_energy(const zorp_search_result* r, uint64_t index, int64_t* out) {
  *out = result_of(r).topk[index].energy;
}
double zorp_vell_solver_result_topk_tts(const zorp_search_result* r, uint64_t index) {
  return result_of(r).topk[index].tts;
}
const uint64_t* zorp_vell_solver_result_topk_bits(const zorp_search_result* r, uint64_t index) {
  return result_of(r).topk[index].bits.data();
}

uint64_t zorp_vell_solver_result_info_count(const zorp_search_result* r) { return result_of(r).info.size(); }
const char* zorp_vell_solver_result_info_key(const zorp_search_result* r, uint64_t index) {
  return result_of(r).info[index].first.c_str();
}
const char* zorp_vell_solver_result_info_value(const zorp_search_result* r, uint64_t index) {
  return result_of(r).info[index].second.c_str();
}

void zorp_vell_solver_result_steal_bits(zorp_search_result* r, zorp_sol_words* list) {
  result_of(r).bits.exchange(*list);
}
void zorp_vell_solver_result_steal_topk_bits(zorp_search_result* r, uint64_t index, zorp_sol_words* list) {
  result_of(r).topk[index].bits.exchange(*list);
}

zorp_sol* zorp_vell_solver_result_to_sol(const zorp_search_result* r, const zorp_model* m) {
  return sol_handle(zorp::result_to_sol(result_of(r), zorp::model_ref(m)));
}
zorp_sol* zorp_vell_solver_result_topk_to_sol(const zorp_search_result* r, uint64_t index, const zorp_model* m) {
  return sol_handle(zorp::result_entry_to_sol(result_of(r).topk[index], zorp::model_ref(m)));
}

void zorp_vell_solver_result_destroy(zorp_search_result* r) { delete reinterpret_cast<SearchResult*>(r); }

}  // extern "C"
