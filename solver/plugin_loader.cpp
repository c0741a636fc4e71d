#include "solver/plugin_loader.h"

#include <dlfcn.h>

#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <unordered_map>

#include "frame/fatal.h"
#include "frame/variant.h"
#include "zorp/var.h"

namespace zorp {

namespace {

// Reads the symbols of one opened plug-in into a table; the family's label
// starts every failure line.
class SymbolReader {
 public:
  SymbolReader(const std::string& path, std::string_view label) : label_(label) {
    handle_ = dlopen(path.c_str(), RTLD_NOW);
    if (handle_ == nullptr) {
      const char* reason = dlerror();
      fatal(label_, ": failed to load ", path, ": ", reason != nullptr ? reason : "");
    }
  }

  template <class Slot>
  void required(Slot& slot, const char* name) {
    optional(slot, name);
    if (slot == nullptr) fatal(label_, ": symbol not found: ", name);
  }

  template <class Slot>
  void optional(Slot& slot, const char* name) {
    slot = reinterpret_cast<Slot>(dlsym(handle_, name));
  }

 private:
  void* handle_ = nullptr;  // never closed: tables and plug-in handles outlive every caller
  std::string_view label_;
};

std::string plugin_file(std::string_view prefix, std::string_view type, bool honour_env) {
  std::string path = plugin_directory(honour_env);
  path.append(prefix).append(type).append(".so");
  return path;
}

// The slots both families name alike, required ones in the order they are checked.
template <class Table>
void read_solver_slots(SymbolReader& reader, Table& t, const std::string& prefix) {
  const auto name = [&prefix](const char* suffix) { return prefix + suffix; };
  reader.required(t.create, name("create").c_str());
  reader.required(t.destroy, name("destroy").c_str());
  reader.required(t.search, name("search").c_str());
  reader.required(t.sol_list_count, name("sol_list_count").c_str());
  reader.required(t.sol_list_get, name("sol_list_get").c_str());
  reader.required(t.sol_list_destroy, name("sol_list_destroy").c_str());
  reader.required(t.register_callback, name("register_callback").c_str());
  reader.optional(t.get_info, name("get_info").c_str());
  reader.optional(t.free_info, name("free_info").c_str());
  reader.optional(t.add_constraint, name("add_constraint").c_str());
  reader.optional(t.add_constraint_nl, name("add_constraint_nl").c_str());
  reader.optional(t.add_constraint_set, name("add_constraint_set").c_str());
  reader.optional(t.set_cons_shape, name("set_cons_shape").c_str());
  reader.optional(t.set_remainder, name("set_remainder").c_str());
}

VellSolverTable read_vell_solver(const std::string& path) {
  SymbolReader reader(path, "VellSolver");
  VellSolverTable t;
  read_solver_slots(reader, t, "zorp_vell_solver_");
  reader.optional(t.create_int, "zorp_vell_solver_create_int");
  reader.optional(t.search_int, "zorp_vell_solver_search_int");
  return t;
}

TallonSolverTable read_tallon_solver(const std::string& path) {
  SymbolReader reader(path, "TallonSolver");
  TallonSolverTable t;
  read_solver_slots(reader, t, "zorp_tallon_");
  return t;
}

MirkSolverTable read_mirk_solver(const std::string& path) {
  SymbolReader reader(path, "MIRKSolver");
  MirkSolverTable t;
  reader.required(t.gpu_device_count, "zorp_mirk_gpu_device_count");
  reader.required(t.cpu_solver_create, "zorp_mirk_cpu_solver_create");
  reader.required(t.cpu_solver_destroy, "zorp_mirk_cpu_solver_destroy");
  reader.required(t.cpu_solver_search, "zorp_mirk_cpu_solver_search");
  reader.required(t.cpu_register_callback, "zorp_mirk_cpu_register_callback");
  reader.required(t.cpu_sol_list_count, "zorp_mirk_cpu_sol_list_count");
  reader.required(t.cpu_sol_list_get, "zorp_mirk_cpu_sol_list_get");
  reader.required(t.cpu_sol_list_destroy, "zorp_mirk_cpu_sol_list_destroy");
  reader.optional(t.cpu_solver_create_int, "zorp_mirk_cpu_solver_create_int");
  reader.optional(t.cpu_solver_search_int, "zorp_mirk_cpu_solver_search_int");
  reader.optional(t.cpu_register_callback_iv, "zorp_mirk_cpu_register_callback_iv");
  reader.optional(t.cpu_hint_iv, "zorp_mirk_cpu_hint_iv");
  reader.optional(t.cpu_add_constraint, "zorp_mirk_cpu_add_constraint");
  reader.optional(t.cpu_add_constraint_nl, "zorp_mirk_cpu_add_constraint_nl");
  reader.optional(t.cpu_add_constraint_set, "zorp_mirk_cpu_add_constraint_set");
  reader.optional(t.cpu_set_cons_shape, "zorp_mirk_cpu_set_cons_shape");
  reader.optional(t.cpu_set_remainder, "zorp_mirk_cpu_set_remainder");
  reader.optional(t.cpu_hint_solution, "zorp_mirk_cpu_hint_solution");
  reader.optional(t.cpu_solver_set_external_stop, "zorp_mirk_cpu_solver_set_external_stop");
  reader.optional(t.add_constraint, "zorp_mirk_add_constraint");
  reader.optional(t.add_constraint_nl, "zorp_mirk_add_constraint_nl");
  reader.optional(t.add_constraint_set, "zorp_mirk_add_constraint_set");
  reader.optional(t.set_cons_shape, "zorp_mirk_set_cons_shape");
  reader.optional(t.set_remainder, "zorp_mirk_set_remainder");
  reader.optional(t.solver_create, "zorp_mirk_solver_create");
  if (t.solver_create != nullptr) {
    reader.optional(t.init, "zorp_mirk_init");
    reader.optional(t.solver_destroy, "zorp_mirk_solver_destroy");
    reader.optional(t.solver_search, "zorp_mirk_solver_search");
    reader.optional(t.register_callback, "zorp_mirk_register_callback");
    reader.optional(t.sol_list_count, "zorp_mirk_sol_list_count");
    reader.optional(t.sol_list_get, "zorp_mirk_sol_list_get");
    reader.optional(t.sol_list_destroy, "zorp_mirk_sol_list_destroy");
    reader.optional(t.hint_solution, "zorp_mirk_hint_solution");
    reader.optional(t.solver_set_external_stop, "zorp_mirk_solver_set_external_stop");
  }
  reader.optional(t.int_create, "zorp_mirk_int_create");
  reader.optional(t.int_add_cons, "zorp_mirk_int_add_cons");
  reader.optional(t.int_round2, "zorp_mirk_int_round2");
  reader.optional(t.int_hint, "zorp_mirk_int_hint");
  reader.optional(t.int_destroy, "zorp_mirk_int_destroy");
  reader.optional(t.int_set_cons_shape, "zorp_mirk_int_set_cons_shape");
  // The integer engine is used whole or not at all.
  if (!t.int_create || !t.int_add_cons || !t.int_round2 || !t.int_hint || !t.int_destroy) t.int_create = nullptr;
  return t;
}

}  // namespace

const std::string& default_solver_type() {
  static const std::string tag = [] {
    char text[32];
    std::snprintf(text, sizeof(text), "c%zue%zu", sizeof(coeff_t) * 8, sizeof(energy_t) * 8);
    return std::string(text);
  }();
  return tag;
}

std::optional<TypeWidths> type_widths(std::string_view tag) {
  static constexpr struct {
    std::string_view tag;
    TypeWidths widths;
  } kKnown[] = {{"c16e32", {2, 4}}, {"c32e32", {4, 4}},   {"c32e64", {4, 8}},
                {"c64e64", {8, 8}}, {"c64e128", {8, 16}}, {"c128e128", {16, 16}}};
  for (const auto& known : kKnown)
    if (known.tag == tag) return known.widths;
  return std::nullopt;
}

std::string plugin_directory(bool honour_env) {
  if (honour_env) {
    const char* dir = std::getenv("ZORP_LIB_DIR");
    if (dir != nullptr && dir[0] != '\0') {
      std::string path(dir);
      if (path.back() != '/') path.push_back('/');
      return path;
    }
  }
  Dl_info info{};
  if (dladdr(reinterpret_cast<void*>(&zorp_var_reset), &info) != 0 && info.dli_fname != nullptr &&
      info.dli_fname[0] != '\0') {
    const std::string file(info.dli_fname);
    const std::size_t slash = file.rfind('/');
    return slash == std::string::npos ? std::string("./") : file.substr(0, slash + 1);
  }
  return "lib/";
}

std::string vell_solver_path(std::string_view type) { return plugin_file("vellsolver_", type, true); }
// The prefixes keep the tag's leading "c", so the file names are the tag's as
// well.
std::string tallon_solver_path() {
  return plugin_file("tallon_c", std::string_view(default_solver_type()).substr(1), false);
}
std::string mirk_solver_path() {
  return plugin_file("mirk_c", std::string_view(default_solver_type()).substr(1), true);
}

const VellSolverTable& load_vell_solver(const char* type) {
  static std::mutex lock;
  static std::unordered_map<std::string, VellSolverTable> tables;
  const std::string tag = (type == nullptr || type[0] == '\0') ? default_solver_type() : std::string(type);
  std::lock_guard<std::mutex> guard(lock);
  auto found = tables.find(tag);
  if (found != tables.end()) return found->second;
  return tables.emplace(tag, read_vell_solver(vell_solver_path(tag))).first->second;
}

const TallonSolverTable& load_tallon_solver() {
  static const TallonSolverTable table = read_tallon_solver(tallon_solver_path());
  return table;
}

const MirkSolverTable& load_mirk_solver() {
  static const MirkSolverTable table = read_mirk_solver(mirk_solver_path());
  return table;
}

OwnedMirkSol::OwnedMirkSol(std::uint32_t var_count) {
  sol.word_count = (var_count + 63u) / 64u;
  sol.bits = static_cast<std::uint64_t*>(std::calloc(sol.word_count == 0 ? 1 : sol.word_count, sizeof(std::uint64_t)));
  if (sol.bits == nullptr) throw std::bad_alloc();
}

OwnedMirkSol::~OwnedMirkSol() {
  std::free(sol.bits);
  if (sol.info == nullptr) return;
  for (zorp_solver_pair* pair = sol.info; pair->key != nullptr; ++pair) {
    std::free(const_cast<char*>(pair->key));
    std::free(const_cast<char*>(pair->value));
  }
  std::free(sol.info);
}

}  // namespace zorp
