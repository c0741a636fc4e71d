// One search over a model: picks the state type, starts the workers, gathers the results.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "compiled.h"
#include "problem.h"
#include "results.h"

namespace vell {

struct SearchOutcome {
  Record best;
  std::vector<Record> list;
  std::vector<std::pair<std::string, std::string>> info;
};

SearchOutcome run_search(const Problem& problem, const Compiled& compiled, const SearchOptions& options,
                         const std::uint64_t* hint);

}  // namespace vell
