// VellSolverWrapper: the heuristic front end. A binary model goes to the
// vellsolver plug-in, whose handle reads the model's arrays in place for the
// wrapper's whole life.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "model/model_impl.h"
#include "solver/plugin_loader.h"
#include "solver/search_result.h"

namespace zorp {

struct VellSolverWrapper {
  Model model;
  std::string type;  // empty on a native-integer model
  std::vector<const std::uint64_t*> term_counts;
  std::vector<const std::uint32_t*> term_vars;
  std::vector<std::vector<unsigned char>> converted_coeffs;  // only for a tag of other widths
  std::vector<const void*> coeff_ptrs;
  std::vector<unsigned char> constant_bytes;
  bool native_int = false;
  void* handle = nullptr;
  const VellSolverTable* table = nullptr;

  VellSolverWrapper() = default;
  VellSolverWrapper(const VellSolverWrapper&) = delete;
  VellSolverWrapper& operator=(const VellSolverWrapper&) = delete;
  ~VellSolverWrapper();
};

// Opens the plug-in and hands it the model and its declared constraints; aborts
// with the "VellSolver: ..." line of whatever the plug-in cannot take.
std::unique_ptr<VellSolverWrapper> create_vell_solver(Model model);

// One search on a binary model, or the integer routing on a native-integer one.
std::unique_ptr<SearchResult> vell_solver_search(VellSolverWrapper& solver, const zorp_solver_pair* params,
                                                 const void* hint);
std::unique_ptr<SearchResult> vell_solver_search_int(VellSolverWrapper& solver, const zorp_solver_pair* params,
                                                     const std::uint64_t* hint_bits, const std::int64_t* hint_ints,
                                                     std::uint64_t hint_count);

// Values narrowed or widened to `width` bytes each: the low bytes of the
// sign-extended value, in memory order. Used where a plug-in's tag has other
// widths than this build.
template <class Value>
std::vector<unsigned char> values_to_width(const Value* values, std::uint64_t count, std::size_t width);

}  // namespace zorp
