// Search parameters as text pairs, and the options record of the native-integer
// engine read from them.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "model/model_impl.h"
#include "zorp/common.h"

namespace zorp {

struct Sol;

using SearchCallback = double (*)(void* context, Sol* sol, int event);
using HintPoll = bool (*)(void* context, int consumer, std::vector<std::uint64_t>& bits,
                          std::vector<std::int64_t>& ints);

struct IntSearchOpts {
  double time_limit = 10.0;
  bool has_target = false;
  std::int64_t target_energy = 0;
  std::uint64_t seed = 0;
  std::uint32_t threads = 1;
  std::uint64_t topk_sols = 0;  // 0: no pool
  bool collect_best = false;
  std::uint64_t best_energy_sols = 0;  // 0: no cap
  bool enable_default_callback = false;
  const std::uint64_t* hint_bits = nullptr;
  const std::int64_t* hint_ints = nullptr;
  std::string solver_name = "VellSolver";
  const volatile std::uint8_t* stop_flag = nullptr;
  SearchCallback callback = nullptr;
  void* callback_context = nullptr;
  Model model;
  HintPoll hint_poll = nullptr;
  void* hint_poll_context = nullptr;
  void* gpu_engine = nullptr;
  void* gpu_round = nullptr;
  void* gpu_hint = nullptr;
};

// Reads a "target_energy" value: blanks, one sign, at least one digit; digits
// accumulate in 64 bits without a check and the first non-digit ends the
// number. Throws std::runtime_error "zorp::_from_string: invalid integer
// '<value>'" otherwise.
std::int64_t parse_search_integer(const char* value);

// One 32-bit draw of std::random_device("default"), zero-extended.
std::uint64_t default_search_seed();
// The size of the calling thread's affinity set, else the hardware concurrency,
// else 1.
std::uint32_t default_search_threads();

// Options for `solver_name` with the defaults set and then the list applied in
// order; aborts on a key the engine does not take and on zero threads or pool
// size.
IntSearchOpts read_int_search_opts(const zorp_solver_pair* params, std::string_view solver_name);

// Aborts unless a hint of `count` integer values fits the model's integer
// variables.
void check_int_hint(const IntSearchOpts& opts, const ModelImpl& model, const std::int64_t* ints, std::uint64_t count);

// True when the list holds `key`.
bool has_param(const zorp_solver_pair* params, std::string_view key);

}  // namespace zorp
