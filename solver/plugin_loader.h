// The solver plug-in boundary on the library side: which file is opened for a
// family and a type tag, and the dispatch table filled from its symbols. Tables
// are built once and never released; a null slot is an optional symbol the file
// lacks.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "zorp/solver_plugin.h"

namespace zorp {

// The tag of this build, "c" + coefficient bits + "e" + energy bits, e.g.
// "c32e64".
const std::string& default_solver_type();

// Bytes of one coefficient and of the energy constant for a known tag.
struct TypeWidths {
  std::size_t coeff_bytes;
  std::size_t energy_bytes;
};
std::optional<TypeWidths> type_widths(std::string_view tag);

// Folder the plug-ins are read from, with its trailing "/": ZORP_LIB_DIR when
// `honour_env` and set, else the folder of the file holding the core library,
// else "lib/".
std::string plugin_directory(bool honour_env);

// Entry points that the VellSolver and TallonSolver families share, name for name after
// their prefix and shape for shape.
struct SharedSolverSlots {
  zorp_vell_solver_destroy_fn destroy = nullptr;
  zorp_vell_solver_sol_list_count_fn sol_list_count = nullptr;
  zorp_vell_solver_sol_list_get_fn sol_list_get = nullptr;
  zorp_vell_solver_sol_list_destroy_fn sol_list_destroy = nullptr;
  zorp_vell_solver_get_info_fn get_info = nullptr;
  zorp_vell_solver_free_info_fn free_info = nullptr;
  zorp_vell_solver_add_constraint_fn add_constraint = nullptr;
  zorp_vell_solver_add_constraint_nl_fn add_constraint_nl = nullptr;
  zorp_vell_solver_add_constraint_set_fn add_constraint_set = nullptr;
  zorp_vell_solver_set_cons_shape_fn set_cons_shape = nullptr;
  zorp_vell_solver_set_remainder_fn set_remainder = nullptr;
};

struct VellSolverTable : SharedSolverSlots {
  zorp_vell_solver_create_fn create = nullptr;
  zorp_vell_solver_search_fn search = nullptr;
  zorp_vell_solver_register_callback_fn register_callback = nullptr;
  zorp_vell_solver_create_int_fn create_int = nullptr;
  zorp_vell_solver_search_int_fn search_int = nullptr;
};

// The TallonSolver family's create takes a last u32 (always 0xFFFFFFFF) and its search no
// hint.
using tallon_create_fn = void* (*)(void*, std::uint32_t, std::uint32_t, const void*, const std::uint64_t* const*,
                                   const std::uint32_t* const*, const void* const*, std::uint32_t);
using tallon_search_fn = void* (*)(void*, zorp_plugin_sol*, const zorp_solver_pair*);
using tallon_register_callback_fn = void (*)(void (*)());

struct TallonSolverTable : SharedSolverSlots {
  tallon_create_fn create = nullptr;
  tallon_search_fn search = nullptr;
  tallon_register_callback_fn register_callback = nullptr;
};

// The MIRK solution record, passed by value-holding pointer: the library
// allocates `bits` and frees it, and frees the plug-in's `info` list (each key,
// each value, the array).
struct MirkSol {
  std::int64_t energy = 0;
  std::uint64_t* bits = nullptr;
  double tts = 0.0;
  zorp_solver_pair* info = nullptr;
  std::uint32_t word_count = 0;
};

// Zeroed words for `var_count` variables; the destructor releases bits and
// info.
struct OwnedMirkSol {
  MirkSol sol;
  explicit OwnedMirkSol(std::uint32_t var_count);
  ~OwnedMirkSol();
  OwnedMirkSol(const OwnedMirkSol&) = delete;
  OwnedMirkSol& operator=(const OwnedMirkSol&) = delete;
};

// The MIRK family's entry points are kept as untyped addresses: the front end
// that calls them knows their shapes. Required slots are never null.
using PluginSymbol = void*;
struct MirkSolverTable {
  // Required, looked up in this order.
  PluginSymbol gpu_device_count = nullptr;
  PluginSymbol cpu_solver_create = nullptr;
  PluginSymbol cpu_solver_destroy = nullptr;
  PluginSymbol cpu_solver_search = nullptr;
  PluginSymbol cpu_register_callback = nullptr;
  PluginSymbol cpu_sol_list_count = nullptr;
  PluginSymbol cpu_sol_list_get = nullptr;
  PluginSymbol cpu_sol_list_destroy = nullptr;
  // Optional CPU side.
  PluginSymbol cpu_solver_create_int = nullptr;
  PluginSymbol cpu_solver_search_int = nullptr;
  PluginSymbol cpu_register_callback_iv = nullptr;
  PluginSymbol cpu_hint_iv = nullptr;
  PluginSymbol cpu_add_constraint = nullptr;
  PluginSymbol cpu_add_constraint_nl = nullptr;
  PluginSymbol cpu_add_constraint_set = nullptr;
  PluginSymbol cpu_set_cons_shape = nullptr;
  PluginSymbol cpu_set_remainder = nullptr;
  PluginSymbol cpu_hint_solution = nullptr;
  PluginSymbol cpu_solver_set_external_stop = nullptr;
  // Optional GPU side; the solver entries only when solver_create exists.
  PluginSymbol add_constraint = nullptr;
  PluginSymbol add_constraint_nl = nullptr;
  PluginSymbol add_constraint_set = nullptr;
  PluginSymbol set_cons_shape = nullptr;
  PluginSymbol set_remainder = nullptr;
  PluginSymbol solver_create = nullptr;
  PluginSymbol init = nullptr;  // looked up, never called
  PluginSymbol solver_destroy = nullptr;
  PluginSymbol solver_search = nullptr;
  PluginSymbol register_callback = nullptr;
  PluginSymbol sol_list_count = nullptr;
  PluginSymbol sol_list_get = nullptr;
  PluginSymbol sol_list_destroy = nullptr;
  PluginSymbol hint_solution = nullptr;
  PluginSymbol solver_set_external_stop = nullptr;
  // Integer GPU engine: int_create is cleared unless the first five are all
  // present.
  PluginSymbol int_create = nullptr;
  PluginSymbol int_add_cons = nullptr;
  PluginSymbol int_round2 = nullptr;
  PluginSymbol int_hint = nullptr;
  PluginSymbol int_destroy = nullptr;
  PluginSymbol int_set_cons_shape = nullptr;
};

// Opens the plug-in on first use and returns its table; aborts when the file
// does not open or a required symbol is missing. A null or empty tag means the
// build's own.
const VellSolverTable& load_vell_solver(const char* type);
const TallonSolverTable& load_tallon_solver();
const MirkSolverTable& load_mirk_solver();

// The file path each loader opens (for messages and tests).
std::string vell_solver_path(std::string_view type);
std::string tallon_solver_path();
std::string mirk_solver_path();

}  // namespace zorp
