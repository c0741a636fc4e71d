// The exported entry points of the plug-in: handles, parameter parsing and the solution
// records the library reads back.
#include <sched.h>

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>

#include "compiled.h"
#include "problem.h"
#include "search.h"
#include "zorp/solver_plugin.h"

namespace {

using vell::Problem;

struct Handle {
  // One search at a time per handle: the search form and the info are the handle's.
  std::mutex mu;
  Problem problem;
  std::unique_ptr<vell::Compiled> compiled;
  std::uint64_t compiled_revision = 0;
  std::vector<std::pair<std::string, std::string>> info;

  explicit Handle(Problem&& p) : problem(std::move(p)) {}
};

struct SolList {
  std::uint32_t n = 0;
  std::vector<vell::Record> records;
};

zorp_vell_solver_callback g_callback = nullptr;

[[noreturn]] void fatal(const std::string& message) {
  std::fprintf(stderr, "zorp: VellSolver: %s\n", message.c_str());
  std::fflush(stderr);
  std::abort();
}

std::uint32_t default_threads() {
  cpu_set_t set;
  CPU_ZERO(&set);
  if (sched_getaffinity(0, sizeof set, &set) == 0) {
    const int count = CPU_COUNT(&set);
    if (count > 0) return static_cast<std::uint32_t>(count);
  }
  const unsigned hw = std::thread::hardware_concurrency();
  return hw > 0 ? hw : 1;
}

vell::SearchOptions parse_options(const zorp_solver_pair* params) {
  vell::SearchOptions o;
  bool seeded = false;
  bool threads_given = false;
  for (const zorp_solver_pair* p = params; p && p->key; ++p) {
    const std::string key = p->key;
    const char* value = p->value ? p->value : "";
    if (key == "time_limit") {
      o.time_limit = std::strtod(value, nullptr);
      if (!(o.time_limit > 0)) o.time_limit = 0;
    } else if (key == "target_energy") {
      o.has_target = true;
      o.target = std::strtoll(value, nullptr, 10);
    } else if (key == "seed") {
      o.seed = std::strtoull(value, nullptr, 10);
      seeded = true;
    } else if (key == "threads") {
      const unsigned long long t = std::strtoull(value, nullptr, 10);
      if (t == 0) fatal("threads must be >= 1.");
      o.threads = static_cast<std::uint32_t>(std::min<unsigned long long>(t, 4096));
      threads_given = true;
    } else if (key == "topk_sols") {
      o.topk = std::strtoull(value, nullptr, 10);
      if (o.topk == 0) fatal("topk_sols must be >= 1.");
    } else if (key == "best_energy_sols") {
      o.best_set = true;
      o.best_cap = std::isdigit(static_cast<unsigned char>(value[0])) ? std::strtoull(value, nullptr, 10) : 0;
    } else {
      fatal("parameter '" + key + "' is not supported.");
    }
  }
  if (!threads_given) o.threads = default_threads();
  if (!seeded) o.seed = (static_cast<std::uint64_t>(std::random_device{}()) << 32) ^ std::random_device{}();
  return o;
}

void write_sol(zorp_plugin_sol* out, std::uint32_t n, const vell::Record& r) {
  if (!out) return;
  const std::size_t words = (static_cast<std::size_t>(n) + 63) / 64;
  if (out->var_count) *out->var_count = n;
  if (out->word_count) *out->word_count = static_cast<std::uint32_t>(words);
  if (out->energy) *out->energy = r.energy;
  if (out->tts) *out->tts = r.tts;
  if (out->bits)
    for (std::size_t w = 0; w < words; ++w) out->bits[w] = w < r.bits.size() ? r.bits[w] : 0;
}

vell::ConstraintDef make_constraint(const std::int64_t* weight, const std::int64_t* lower, const std::int64_t* upper,
                                    const std::int64_t* constant, std::uint64_t count, const std::uint32_t* vars,
                                    const void* coeffs) {
  vell::ConstraintDef c;
  c.weight = weight ? *weight : 0;
  c.lower = lower ? *lower : 0;
  c.upper = upper ? *upper : 0;
  c.constant = constant ? *constant : 0;
  const auto* k = static_cast<const std::int32_t*>(coeffs);
  c.vars.assign(vars, vars + count);
  c.coeffs.assign(k, k + count);
  return c;
}

}  // namespace

extern "C" {

void* zorp_vell_solver_create(void* context, uint32_t var_count, uint32_t max_degree, const void* constant,
                              const uint64_t* const* term_counts, const uint32_t* const* term_vars,
                              const void* const* term_coeffs) {
  (void)context;
  const std::int64_t c = constant ? *static_cast<const std::int64_t*>(constant) : 0;
  return new Handle(Problem(var_count, max_degree, c, term_counts, term_vars,
                            reinterpret_cast<const std::int32_t* const*>(term_coeffs)));
}

void zorp_vell_solver_destroy(void* handle) { delete static_cast<Handle*>(handle); }

void* zorp_vell_solver_search(void* handle, zorp_plugin_sol* best, const zorp_solver_pair* params, const void* hint) {
  auto* h = static_cast<Handle*>(handle);
  const vell::SearchOptions options = parse_options(params);
  std::lock_guard<std::mutex> lock(h->mu);
  if (!h->compiled || h->compiled_revision != h->problem.revision()) {
    h->compiled = std::make_unique<vell::Compiled>(vell::compile(h->problem));
    h->compiled_revision = h->problem.revision();
  }
  vell::SearchOutcome outcome =
      vell::run_search(h->problem, *h->compiled, options, static_cast<const std::uint64_t*>(hint));
  const std::uint32_t n = h->problem.var_count();
  write_sol(best, n, outcome.best);
  h->info = std::move(outcome.info);
  if (options.topk == 0 && !options.best_set) return nullptr;
  auto* list = new SolList{n, std::move(outcome.list)};
  return list;
}

uint64_t zorp_vell_solver_sol_list_count(void* list) {
  return list ? static_cast<SolList*>(list)->records.size() : 0;
}

void zorp_vell_solver_sol_list_get(void* list, uint64_t index, zorp_plugin_sol* out) {
  auto* l = static_cast<SolList*>(list);
  if (!l || index >= l->records.size()) return;
  write_sol(out, l->n, l->records[index]);
}

void zorp_vell_solver_sol_list_destroy(void* list) { delete static_cast<SolList*>(list); }

void zorp_vell_solver_register_callback(zorp_vell_solver_callback callback) { g_callback = callback; }

zorp_solver_pair* zorp_vell_solver_get_info(void* handle) {
  auto* h = static_cast<Handle*>(handle);
  if (!h) return nullptr;
  std::lock_guard<std::mutex> lock(h->mu);
  auto* out = static_cast<zorp_solver_pair*>(std::malloc((h->info.size() + 1) * sizeof(zorp_solver_pair)));
  if (!out) return nullptr;
  for (std::size_t i = 0; i < h->info.size(); ++i) {
    out[i].key = strdup(h->info[i].first.c_str());
    out[i].value = strdup(h->info[i].second.c_str());
  }
  out[h->info.size()] = {nullptr, nullptr};
  return out;
}

void zorp_vell_solver_free_info(zorp_solver_pair* info) {
  if (!info) return;
  for (zorp_solver_pair* p = info; p->key; ++p) {
    std::free(const_cast<char*>(p->key));
    std::free(const_cast<char*>(p->value));
  }
  std::free(info);
}

void zorp_vell_solver_add_constraint(void* handle, const int64_t* weight, const int64_t* lower, const int64_t* upper,
                                     const int64_t* constant, uint64_t count, const uint32_t* vars,
                                     const void* coeffs) {
  static_cast<Handle*>(handle)->problem.add_constraint(
      make_constraint(weight, lower, upper, constant, count, vars, coeffs));
}

void zorp_vell_solver_add_constraint_nl(void* handle, const int64_t* weight, const int64_t* lower,
                                        const int64_t* upper, const int64_t* constant, uint64_t count,
                                        const uint32_t* vars, const void* coeffs, uint64_t nl_count,
                                        const uint64_t* nl_head, const uint32_t* nl_vars, const void* nl_coeffs) {
  vell::ConstraintDef c = make_constraint(weight, lower, upper, constant, count, vars, coeffs);
  if (nl_count > 0) {
    const auto* k = static_cast<const std::int32_t*>(nl_coeffs);
    c.nl_head.assign(nl_head, nl_head + nl_count + 1);
    c.nl_vars.assign(nl_vars + nl_head[0], nl_vars + nl_head[nl_count]);
    for (auto& off : c.nl_head) off -= nl_head[0];
    c.nl_coeffs.assign(k, k + nl_count);
  }
  static_cast<Handle*>(handle)->problem.add_constraint(std::move(c));
}

void zorp_vell_solver_add_constraint_set(void* handle, const int64_t* weight, const int64_t* lower,
                                         const int64_t* upper, const int64_t* constant, uint64_t count,
                                         const uint32_t* vars, const void* coeffs, uint64_t interval_count,
                                         const int64_t* lowers, const int64_t* uppers) {
  vell::ConstraintDef c = make_constraint(weight, lower, upper, constant, count, vars, coeffs);
  for (std::uint64_t i = 0; i < interval_count; ++i) c.allowed.emplace_back(lowers[i], uppers[i]);
  static_cast<Handle*>(handle)->problem.add_constraint(std::move(c));
}

void zorp_vell_solver_set_cons_shape(void* handle, uint32_t exponent, uint32_t shape) {
  static_cast<Handle*>(handle)->problem.set_last_shape(exponent, shape);
}

void zorp_vell_solver_set_remainder(void* handle, const int64_t* constant, uint64_t term_count, const uint64_t* head,
                                    const uint32_t* vars, const void* coeffs) {
  static_cast<Handle*>(handle)->problem.set_remainder(constant ? *constant : 0, term_count, head, vars,
                                                      static_cast<const std::int32_t*>(coeffs));
}

}  // extern "C"
