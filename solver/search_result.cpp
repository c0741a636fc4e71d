#include "solver/search_result.h"

#include <cstdio>
#include <new>

#include "sysinfo/host_info.h"

namespace zorp {

WordBlock::WordBlock(std::size_t count) {
  // calloc(0) may return null, which is a valid empty block here.
  block_.words = static_cast<std::uint64_t*>(std::calloc(count, sizeof(std::uint64_t)));
  if (block_.words == nullptr && count != 0) throw std::bad_alloc();
  block_.count = count;
}

void add_run_time(SearchResult& result, double seconds) {
  char text[64];
  std::snprintf(text, sizeof(text), "%f", seconds);
  result.add_info("run_time", text);
}

void add_host_info(SearchResult& result) {
  for (auto& fact : host_facts()) result.add_info(std::move(fact.first), std::move(fact.second));
}

std::unique_ptr<Sol> result_to_sol(const SearchResult& result, Model model) {
  return adopt_sol(std::move(model), result.energy, result.bits.to_vector(), result.tts,
                   std::vector<std::int64_t>(result.int_vals));
}

std::unique_ptr<Sol> result_entry_to_sol(const SearchResultEntry& entry, Model model) {
  return adopt_sol(std::move(model), entry.energy, entry.bits.to_vector(), entry.tts,
                   std::vector<std::int64_t>(entry.int_vals));
}

}  // namespace zorp
