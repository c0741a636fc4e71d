#include "solver/search_params.h"

#include <sched.h>

#include <cstdlib>
#include <cstring>
#include <random>
#include <stdexcept>
#include <thread>

#include "frame/fatal.h"

namespace zorp {

std::int64_t parse_search_integer(const char* value) {
  const auto invalid = [value]() {
    throw std::runtime_error(std::string("zorp::_from_string: invalid integer '") + (value ? value : "") + "'");
  };
  if (value == nullptr) invalid();
  const char* p = value;
  while (*p == ' ' || *p == '\t') ++p;
  bool negative = false;
  if (*p == '+' || *p == '-') negative = *p++ == '-';
  if (*p < '0' || *p > '9') invalid();
  std::uint64_t magnitude = 0;  // unsigned, so that an overlong number wraps instead of overflowing
  for (; *p >= '0' && *p <= '9'; ++p) magnitude = magnitude * 10u + static_cast<std::uint64_t>(*p - '0');
  return static_cast<std::int64_t>(negative ? 0u - magnitude : magnitude);
}

std::uint64_t default_search_seed() {
  std::random_device device("default");
  return static_cast<std::uint32_t>(device());
}

std::uint32_t default_search_threads() {
  cpu_set_t set;
  CPU_ZERO(&set);
  if (sched_getaffinity(0, sizeof(set), &set) == 0) {
    const int count = CPU_COUNT(&set);
    if (count >= 1) return static_cast<std::uint32_t>(count);
  }
  const unsigned hardware = std::thread::hardware_concurrency();
  return hardware == 0 ? 1u : hardware;
}

IntSearchOpts read_int_search_opts(const zorp_solver_pair* params, std::string_view solver_name) {
  IntSearchOpts opts;
  opts.solver_name = std::string(solver_name);
  opts.seed = default_search_seed();
  opts.threads = default_search_threads();
  for (const zorp_solver_pair* pair = params; pair != nullptr && pair->key != nullptr; ++pair) {
    const std::string_view key(pair->key);
    const char* value = pair->value != nullptr ? pair->value : "";
    if (key == "time_limit") {
      opts.time_limit = std::strtod(value, nullptr);
    } else if (key == "target_energy") {
      opts.target_energy = parse_search_integer(pair->value);
      opts.has_target = true;
    } else if (key == "seed") {
      opts.seed = std::strtoull(value, nullptr, 10);
    } else if (key == "threads") {
      opts.threads = static_cast<std::uint32_t>(std::strtoul(value, nullptr, 10));
      if (opts.threads == 0) fatal(solver_name, ": threads must be >= 1.");
    } else if (key == "topk_sols") {
      opts.topk_sols = std::strtoul(value, nullptr, 10);
      if (opts.topk_sols == 0) fatal(solver_name, ": topk_sols must be >= 1.");
    } else if (key == "best_energy_sols") {
      opts.collect_best = true;
      opts.best_energy_sols =
          (pair->value != nullptr && value[0] >= '0' && value[0] <= '9') ? std::strtoul(value, nullptr, 10) : 0;
    } else if (key == "enable_default_callback") {
      opts.enable_default_callback =
          std::strcmp(value, "1") == 0 || std::strcmp(value, "true") == 0 || std::strcmp(value, "True") == 0;
    } else {
      fatal(solver_name, ": parameter '", key, "' is not supported for native integer models yet.");
    }
  }
  return opts;
}

void check_int_hint(const IntSearchOpts& opts, const ModelImpl& model, const std::int64_t* ints, std::uint64_t count) {
  if (count != model.int_lower.size()) fatal(opts.solver_name, ": hint integer-variable count mismatch.");
  for (std::uint64_t i = 0; i < count; ++i)
    if (ints[i] < model.int_lower[i] || ints[i] > model.int_upper[i])
      fatal(opts.solver_name, ": hint value outside the integer variable's bounds.");
}

bool has_param(const zorp_solver_pair* params, std::string_view key) {
  for (const zorp_solver_pair* pair = params; pair != nullptr && pair->key != nullptr; ++pair)
    if (key == pair->key) return true;
  return false;
}

}  // namespace zorp
