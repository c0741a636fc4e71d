#include "solver/vell_solver.h"

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>
#include <set>
#include <string_view>

#include "frame/fatal.h"
#include "frame/literal.h"
#include "solver/search_params.h"

namespace zorp {

namespace {

// The library's solution record for one plug-in call: five separate malloc
// blocks, as the plug-in expects, released unless the bits were handed on.
class PluginSolBlocks {
 public:
  explicit PluginSolBlocks(std::uint32_t var_count) {
    const std::uint32_t words = (var_count + 63u) / 64u;
    view_.var_count = allocate<std::uint32_t>(1);
    view_.word_count = allocate<std::uint32_t>(1);
    view_.energy = allocate<std::int64_t>(1);
    view_.tts = allocate<double>(1);
    view_.bits = allocate<std::uint64_t>(words == 0 ? 1 : words);
    *view_.var_count = var_count;
    *view_.word_count = words;
  }
  ~PluginSolBlocks() {
    std::free(view_.var_count);
    std::free(view_.word_count);
    std::free(view_.energy);
    std::free(view_.tts);
    std::free(view_.bits);
  }
  PluginSolBlocks(const PluginSolBlocks&) = delete;
  PluginSolBlocks& operator=(const PluginSolBlocks&) = delete;

  zorp_plugin_sol* view() { return &view_; }
  std::int64_t energy() const { return *view_.energy; }
  double tts() const { return *view_.tts; }
  WordBlock take_bits() {
    WordBlock bits(view_.bits, *view_.word_count);
    view_.bits = nullptr;
    return bits;
  }

 private:
  template <class T>
  static T* allocate(std::size_t count) {
    void* block = std::calloc(count, sizeof(T));
    if (block == nullptr) throw std::bad_alloc();
    return static_cast<T*>(block);
  }
  zorp_plugin_sol view_{};
};

// One pointer per degree into the model's own arrays: the plug-in reads them in place.
void point_at_terms(const ModelImpl& m, std::vector<const std::uint64_t*>& counts,
                    std::vector<const std::uint32_t*>& vars, std::vector<const void*>& coeffs) {
  for (std::uint32_t d = 1; d <= m.max_degree; ++d) {
    counts.push_back(&m.term_counts[d - 1]);
    vars.push_back(m.term_vars[d - 1].data());
    coeffs.push_back(m.term_coeffs[d - 1].data());
  }
}

double ignore_callback(void*, const void*, int) { return -1.0; }

void register_callback_once(const std::string& tag, const VellSolverTable& table) {
  static std::mutex lock;
  static std::set<std::string> registered;
  std::lock_guard<std::mutex> guard(lock);
  if (registered.insert(tag).second) table.register_callback(&ignore_callback);
}

double seconds_since(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// The caller's list, closed, with "time_limit" "10.0" added when it is missing.
std::vector<zorp_solver_pair> list_with_time_limit(std::vector<zorp_solver_pair> list) {
  bool has_time_limit = false;
  for (const zorp_solver_pair& pair : list) has_time_limit |= std::string_view(pair.key) == "time_limit";
  if (!has_time_limit) list.push_back({"time_limit", "10.0"});
  list.push_back({nullptr, nullptr});
  return list;
}

std::vector<zorp_solver_pair> open_list(const zorp_solver_pair* params) {
  std::vector<zorp_solver_pair> list;
  for (const zorp_solver_pair* pair = params; pair != nullptr && pair->key != nullptr; ++pair) list.push_back(*pair);
  return list;
}

void add_plugin_info(SearchResult& result, const VellSolverTable& table, void* handle) {
  if (table.get_info == nullptr) return;
  zorp_solver_pair* info = table.get_info(handle);
  if (info == nullptr) return;
  for (const zorp_solver_pair* pair = info; pair->key != nullptr; ++pair)
    result.add_info(pair->key, pair->value != nullptr ? pair->value : "");
  if (table.free_info != nullptr) table.free_info(info);
}

bool needs_shape(const NativeConstraint& c) { return c.penalty_exponent != 2 || c.penalty_shape != 0; }

struct ConstraintWords {
  std::string_view predates_shapes;
  std::string_view no_nonlinear;
  std::string_view no_allowed_set;
};

// Ships every declared constraint in model order through the functions that its
// form needs. `literals` rewrites a body's literals when the plug-in numbers
// variables otherwise.
template <class Rewrite>
void ship_constraints(const VellSolverTable& table, void* handle, const ModelImpl& m, const std::string& no_native,
                      const ConstraintWords& words, Rewrite rewrite) {
  if (m.native_cons.empty()) return;
  for (const NativeConstraint& c : m.native_cons)
    if (needs_shape(c) && table.set_cons_shape == nullptr) fatal(words.predates_shapes);
  if (table.add_constraint == nullptr) fatal(no_native);
  std::vector<std::uint32_t> vars, nl_vars;
  std::vector<std::int64_t> lowers, uppers;
  for (const NativeConstraint& c : m.native_cons) {
    const std::uint32_t* body_vars = rewrite(c.vars, vars);
    if (!c.nl_coeffs.empty()) {
      if (table.add_constraint_nl == nullptr) fatal(words.no_nonlinear);
      table.add_constraint_nl(handle, &c.weight, &c.lower, &c.upper, &c.body_constant, c.vars.size(), body_vars,
                              c.coeffs.data(), c.nl_coeffs.size(), c.nl_head.data(), rewrite(c.nl_vars, nl_vars),
                              c.nl_coeffs.data());
    } else if (!c.allowed.empty()) {
      if (table.add_constraint_set == nullptr) fatal(words.no_allowed_set);
      lowers.clear();
      uppers.clear();
      for (const auto& interval : c.allowed) {
        lowers.push_back(interval.first);
        uppers.push_back(interval.second);
      }
      table.add_constraint_set(handle, &c.weight, &c.lower, &c.upper, &c.body_constant, c.vars.size(), body_vars,
                               c.coeffs.data(), lowers.size(), lowers.data(), uppers.data());
    } else {
      table.add_constraint(handle, &c.weight, &c.lower, &c.upper, &c.body_constant, c.vars.size(), body_vars,
                           c.coeffs.data());
    }
    if (needs_shape(c))
      table.set_cons_shape(handle, c.penalty_exponent, c.penalty_exponent == 2 ? 1u : c.penalty_shape);
  }
}

const std::uint32_t* literals_as_stored(const std::vector<std::uint32_t>& literals, std::vector<std::uint32_t>&) {
  return literals.data();
}

std::string no_native_constraints_line(const std::string& type) {
  return "VellSolver: vellsolver_" + type + ".so does not support native constraints (rebuild it)";
}

std::unique_ptr<SearchResult> unified_search(VellSolverWrapper& solver, const zorp_solver_pair* params) {
  const ModelImpl& m = *solver.model;
  const VellSolverTable& table = load_vell_solver(solver.type.c_str());
  if (table.create_int == nullptr || table.search_int == nullptr)
    fatal("VellSolver: ZORP_INT_UNIFIED=1 but vellsolver_", solver.type, ".so",
          " lacks the unified integer engine (rebuild the solver .so)");
  const std::string tag = solver.type.empty() ? default_solver_type() : solver.type;
  register_callback_once(tag, table);

  std::vector<const std::uint64_t*> counts;
  std::vector<const std::uint32_t*> vars;
  std::vector<const void*> coeffs;
  point_at_terms(m, counts, vars, coeffs);
  const auto var_count = static_cast<std::uint32_t>(m.vars.size());
  const auto int_count = static_cast<std::uint32_t>(m.int_lower.size());
  void* handle = table.create_int(nullptr, var_count, int_count, m.int_lower.data(), m.int_upper.data(), m.max_degree,
                                  &m.constant, counts.data(), vars.data(), coeffs.data());

  // The plug-in numbers integers after the binaries.
  const auto integers_after_binaries = [var_count](const std::vector<std::uint32_t>& literals,
                                                   std::vector<std::uint32_t>& out) -> const std::uint32_t* {
    out.clear();
    for (std::uint32_t literal : literals)
      out.push_back(is_int_atom(literal) ? var_count + (literal & kIndexMask) : (literal & 0x7FFFFFFFu));
    return out.data();
  };
  ship_constraints(table, handle, m, no_native_constraints_line(solver.type),
                   {"VellSolver: this solver .so predates zorp::abs/relu "
                    "(missing zorp_vell_solver_set_cons_shape)",
                    "VellSolver: this solver .so does not support nonlinear "
                    "native constraint bodies (rebuild it, or "
                    "use a linear constraint body)",
                    "VellSolver: this solver .so does not support allowed-set "
                    "constraints (rebuild it)"},
                   integers_after_binaries);

  std::vector<zorp_solver_pair> list;
  for (zorp_solver_pair pair : open_list(params)) {
    if (std::string_view(pair.key) == "threads") {
      if (std::strtoul(pair.value != nullptr ? pair.value : "", nullptr, 10) == 0)
        fatal("VellSolver: threads must be >= 1.");
      pair.key = "thread_count";
    }
    list.push_back(pair);
  }
  list = list_with_time_limit(std::move(list));

  PluginSolBlocks sol(var_count);
  std::vector<std::int64_t> ints(int_count, 0);
  const auto start = std::chrono::steady_clock::now();
  void* found = table.search_int(handle, sol.view(), list.data(), ints.data());
  const double run_time = seconds_since(start);

  auto result = std::make_unique<SearchResult>();
  result->energy = sol.energy();
  result->tts = sol.tts();
  result->bits = sol.take_bits();
  result->int_vals = std::move(ints);
  result->scale = 1.0;
  if (found != nullptr) table.sol_list_destroy(found);
  add_run_time(*result, run_time);
  add_plugin_info(*result, table, handle);
  result->add_info("engine", "integer-unified");
  add_host_info(*result);
  table.destroy(handle);
  return result;
}

bool unified_path_wanted(const VellSolverWrapper& solver, const zorp_solver_pair* params, bool has_hint) {
  if (has_hint) return false;
  const char* flag = std::getenv("ZORP_INT_UNIFIED");
  if (flag == nullptr || flag[0] != '1') return false;
  if (has_param(params, "topk_sols") || has_param(params, "best_energy_sols")) return false;
  const ModelImpl& m = *solver.model;
  if (m.has_remainder) return false;
  for (const NativeConstraint& c : m.native_cons)
    if (!c.nl_coeffs.empty()) return false;
  return solver.type.empty() || solver.type == default_solver_type();
}

std::unique_ptr<SearchResult> integer_search(VellSolverWrapper& solver, const zorp_solver_pair* params,
                                             const std::uint64_t* hint_bits, const std::int64_t* hint_ints,
                                             std::uint64_t hint_count) {
  const bool has_hint = hint_bits != nullptr || hint_ints != nullptr;
  if (unified_path_wanted(solver, params, has_hint)) return unified_search(solver, params);
  IntSearchOpts opts = read_int_search_opts(params, "VellSolver");
  if (has_hint) check_int_hint(opts, *solver.model, hint_ints, hint_count);
  // The in-library integer engine is not part of this build yet; refuse rather
  // than guess.
  fatal(
      "VellSolver: native integer search is not available in this build; set "
      "ZORP_INT_UNIFIED=1 to use the "
      "solver .so's unified integer engine.");
}

}  // namespace

template <class Value>
std::vector<unsigned char> values_to_width(const Value* values, std::uint64_t count, std::size_t width) {
  std::vector<unsigned char> bytes(count * width);
  for (std::uint64_t i = 0; i < count; ++i) {
    // Sign extension to 16 bytes covers every known width; the byte order is
    // the machine's.
    const __int128 wide = values[i];
    unsigned char all[sizeof(wide)];
    std::memcpy(all, &wide, sizeof(wide));
    std::memcpy(bytes.data() + i * width, all, width);
  }
  return bytes;
}
template std::vector<unsigned char> values_to_width<coeff_t>(const coeff_t*, std::uint64_t, std::size_t);
template std::vector<unsigned char> values_to_width<energy_t>(const energy_t*, std::uint64_t, std::size_t);

VellSolverWrapper::~VellSolverWrapper() {
  if (handle != nullptr) table->destroy(handle);
}

std::unique_ptr<VellSolverWrapper> create_vell_solver(Model model) {
  auto solver = std::make_unique<VellSolverWrapper>();
  solver->model = std::move(model);
  const ModelImpl& m = *solver->model;
  if (!m.int_atoms.empty()) {
    if (m.has_remainder)
      fatal(
          "VellSolver: internal error — a free-form remainder with integer "
          "variables should have been rejected "
          "at Model.");
    solver->native_int = true;
    return solver;
  }
  solver->type = default_solver_type();
  point_at_terms(m, solver->term_counts, solver->term_vars, solver->coeff_ptrs);
  const void* constant = &m.constant;
  const std::optional<TypeWidths> widths = type_widths(solver->type);
  if (widths && (widths->coeff_bytes != sizeof(coeff_t) || widths->energy_bytes != sizeof(energy_t))) {
    for (std::uint32_t d = 1; d <= m.max_degree; ++d) {
      solver->converted_coeffs.push_back(
          values_to_width(m.term_coeffs[d - 1].data(), m.term_counts[d - 1], widths->coeff_bytes));
      solver->coeff_ptrs[d - 1] = solver->converted_coeffs.back().data();
    }
    solver->constant_bytes = values_to_width(&m.constant, 1, widths->energy_bytes);
    constant = solver->constant_bytes.data();
  }

  const VellSolverTable& table = load_vell_solver(solver->type.c_str());
  solver->table = &table;
  register_callback_once(solver->type, table);
  solver->handle = table.create(nullptr, static_cast<std::uint32_t>(m.vars.size()), m.max_degree, constant,
                                solver->term_counts.data(), solver->term_vars.data(), solver->coeff_ptrs.data());
  ship_constraints(table, solver->handle, m, no_native_constraints_line(solver->type),
                   {"VellSolver: this solver .so predates zorp::abs/relu "
                    "(missing zorp_vell_solver_set_cons_shape) — "
                    "update the solver .so.",
                    "VellSolver: this solver .so does not support nonlinear "
                    "native constraint bodies (rebuild it, or "
                    "use a linear constraint body)",
                    "VellSolver: this solver .so does not support "
                    "allowed-value set constraints (equal{...}); rebuild "
                    "it"},
                   literals_as_stored);
  if (m.has_remainder) {
    if (table.set_remainder == nullptr)
      fatal(
          "VellSolver: this solver .so does not support free-form penalty "
          "constraints (rebuild it)");
    table.set_remainder(solver->handle, &m.remainder_constant, m.remainder_coeffs.size(), m.remainder_head.data(),
                        m.remainder_vars.data(), m.remainder_coeffs.data());
  }
  return solver;
}

std::unique_ptr<SearchResult> vell_solver_search(VellSolverWrapper& solver, const zorp_solver_pair* params,
                                                 const void* hint) {
  if (solver.native_int) {
    if (hint != nullptr)
      fatal(
          "VellSolver: hint on a native integer model requires the int-aware "
          "search path (update the zorp "
          "header).");
    return integer_search(solver, params, nullptr, nullptr, 0);
  }
  const ModelImpl& m = *solver.model;
  const VellSolverTable& table = *solver.table;
  const std::vector<zorp_solver_pair> list = list_with_time_limit(open_list(params));
  const auto var_count = static_cast<std::uint32_t>(m.vars.size());

  PluginSolBlocks best(var_count);
  const auto start = std::chrono::steady_clock::now();
  void* found = table.search(solver.handle, best.view(), list.data(), hint);
  const double run_time = seconds_since(start);

  auto result = std::make_unique<SearchResult>();
  result->energy = best.energy();
  result->tts = best.tts();
  result->bits = best.take_bits();
  result->scale = m.scale;
  if (found != nullptr) {
    const std::uint64_t count = table.sol_list_count(found);
    result->topk.reserve(count);
    for (std::uint64_t i = 0; i < count; ++i) {
      PluginSolBlocks entry(var_count);
      table.sol_list_get(found, i, entry.view());
      SearchResultEntry& pooled = result->topk.emplace_back();
      pooled.energy = entry.energy();
      pooled.tts = entry.tts();
      pooled.bits = entry.take_bits();
    }
    table.sol_list_destroy(found);
  }
  add_run_time(*result, run_time);
  add_plugin_info(*result, table, solver.handle);
  add_host_info(*result);
  return result;
}

std::unique_ptr<SearchResult> vell_solver_search_int(VellSolverWrapper& solver, const zorp_solver_pair* params,
                                                     const std::uint64_t* hint_bits, const std::int64_t* hint_ints,
                                                     std::uint64_t hint_count) {
  if (!solver.native_int) fatal("VellSolver: search_int called on a binary model.");
  return integer_search(solver, params, hint_bits, hint_ints, hint_count);
}

}  // namespace zorp
