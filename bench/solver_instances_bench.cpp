// Public max-cut and QUBO instances solved end to end: each file is read, its QUBO built and
// brought to canonical form through the library, turned into a model and solved by VellSolver
// with the best-known value as target. Prints found value, best-known value, gap, time to the
// best, run time and one-flip moves evaluated per second and thread, per seed, with their ratio
// to a bare scan over as many gains measured in the same run.
//
// Usage: solver_instances_bench [set] with set one of gset, bqp250, bqp1000, all (default).
// Environment: ZORP_BENCH_DATA (folder of the instances), BENCH_SEEDS (default 3),
// BENCH_THREADS (default 2), BENCH_TIME_SCALE (multiplies every time limit, default 1),
// BENCH_NO_TARGET (set: no target, every run uses its whole time limit).
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "bench_support.h"
#include "zorp.h"

namespace {

using namespace zorp::bench;

struct Instance {
  const char* file;   // below the data folder
  bool max_cut;       // rudy graph, else OR-Library BQP
  std::int64_t best;  // best-known cut or objective, as listed with the data
  double time_limit;  // seconds allowed to reach it
};

// The best-known values published with the instances (see the data folder's README).
const Instance kInstances[] = {
    {"gset/G1", true, 11624, 10},          {"gset/G2", true, 11620, 10},         {"gset/G3", true, 11622, 10},
    {"gset/G22", true, 13359, 10},         {"gset/G43", true, 6660, 10},         {"bqp/bqp250.1", false, 45607, 1},
    {"bqp/bqp250.2", false, 44810, 1},     {"bqp/bqp250.3", false, 49037, 1},    {"bqp/bqp250.4", false, 41274, 1},
    {"bqp/bqp250.5", false, 47961, 1},     {"bqp/bqp250.6", false, 41014, 1},    {"bqp/bqp250.7", false, 46757, 1},
    {"bqp/bqp250.8", false, 35726, 1},     {"bqp/bqp250.9", false, 48916, 1},    {"bqp/bqp250.10", false, 40442, 1},
    {"bqp/bqp1000.1", false, 371438, 10},  {"bqp/bqp1000.2", false, 354932, 10}, {"bqp/bqp1000.3", false, 371236, 10},
    {"bqp/bqp1000.4", false, 370675, 10},  {"bqp/bqp1000.5", false, 352760, 10}, {"bqp/bqp1000.6", false, 359629, 10},
    {"bqp/bqp1000.7", false, 371193, 10},  {"bqp/bqp1000.8", false, 351994, 10}, {"bqp/bqp1000.9", false, 349337, 10},
    {"bqp/bqp1000.10", false, 351415, 10},
};

bool in_set(const Instance& instance, const std::string& set) {
  const std::string file = instance.file;
  if (set == "all") return true;
  if (set == "gset") return instance.max_cut;
  return file.find(set + ".") != std::string::npos;
}

// Terms of the minimisation in bulk form. Max-cut: w * (2 x_i x_j - x_i - x_j) per edge, whose
// minimum is minus the cut. BQP: -(q_ii x_i) and -(2 q_ij x_i x_j).
struct BulkTerms {
  std::vector<zorp_coeff> coeffs;
  std::vector<std::uint32_t> degrees, vars;
  void add(zorp_coeff c, std::uint32_t a) { coeffs.push_back(c), degrees.push_back(1), vars.push_back(a); }
  void add(zorp_coeff c, std::uint32_t a, std::uint32_t b) {
    coeffs.push_back(c), degrees.push_back(2), vars.push_back(a), vars.push_back(b);
  }
};

bool read_terms(const std::string& path, bool max_cut, zorp_var first, std::uint32_t& n, BulkTerms& terms) {
  std::ifstream in(path);
  std::uint64_t count = 0;
  if (!(in >> n >> count)) return false;
  for (std::uint64_t k = 0; k < count; ++k) {
    std::uint32_t i = 0, j = 0;
    long long w = 0;
    if (!(in >> i >> j >> w)) return false;
    const std::uint32_t a = first + i - 1, b = first + j - 1;
    if (max_cut) {
      terms.add(static_cast<zorp_coeff>(2 * w), a, b);
      terms.add(static_cast<zorp_coeff>(-w), a);
      terms.add(static_cast<zorp_coeff>(-w), b);
    } else if (i == j) {
      terms.add(static_cast<zorp_coeff>(-w), a);
    } else {
      terms.add(static_cast<zorp_coeff>(-2 * w), a, b);
    }
  }
  return true;
}

// The baseline for moves per second: a bare scalar scan for the least of n 64-bit gains, the
// least work a best-move step over n candidates can do, timed for about 0.2 s.
double bare_scan_moves_per_second(std::uint32_t n) {
  std::vector<std::int64_t> gains(n == 0 ? 1 : n);
  std::uint64_t state = 88172645463325252ull;
  for (std::int64_t& g : gains) {
    state ^= state << 13, state ^= state >> 7, state ^= state << 17;
    g = static_cast<std::int64_t>(state % 2001) - 1000;
  }
  std::uint64_t scans = 0;
  std::size_t sink = 0;
  const double start = now_seconds();
  double elapsed = 0;
  do {
    std::size_t best = 0;
    for (std::size_t i = 1; i < gains.size(); ++i)
      if (gains[i] < gains[best]) best = i;
    gains[best] += 1;  // keeps the compiler from hoisting the scan out of the loop
    sink += best;
    ++scans;
    elapsed = now_seconds() - start;
  } while (elapsed < 0.2);
  benchmark::DoNotOptimize(sink);
  return static_cast<double>(scans) * static_cast<double>(gains.size()) / elapsed;
}

std::string info(const zorp_search_result* r, const char* key) {
  for (std::uint64_t i = 0; i < zorp_vell_solver_result_info_count(r); ++i)
    if (std::string(key) == zorp_vell_solver_result_info_key(r, i)) return zorp_vell_solver_result_info_value(r, i);
  return "";
}

}  // namespace

int main(int argc, char** argv) {
  const std::string set = argc > 1 ? argv[1] : "all";
  const char* data = std::getenv("ZORP_BENCH_DATA");
  const std::string folder = std::string(data != nullptr ? data : ZORP_BENCH_DATA_DIR) + "/";
  // The benchmark carries the library's code itself, so it names the plug-in folder.
  setenv("ZORP_LIB_DIR", ZORP_PLUGIN_DIR, 0);
  const auto seeds = static_cast<unsigned>(env_count("BENCH_SEEDS", 3));
  const std::string threads = std::to_string(env_count("BENCH_THREADS", 2));
  const char* scale_text = std::getenv("BENCH_TIME_SCALE");
  const double time_scale = scale_text != nullptr ? std::atof(scale_text) : 1.0;
  // Without the target every run takes its whole time limit: for steady throughput figures.
  const bool with_target = std::getenv("BENCH_NO_TARGET") == nullptr;

  std::printf("%-14s %5s %8s %8s %9s %8s %8s %8s %12s %7s %s\n", "instance", "seed", "found", "best", "gap%", "tts_s",
              "run_s", "limit_s", "moves/s/thr", "x_scan", "reached");
  unsigned runs = 0, reached = 0;
  for (const Instance& instance : kInstances) {
    if (!in_set(instance, set)) continue;
    std::uint32_t n = 0;
    BulkTerms terms;
    zorp_var_reset();
    // Read once to learn n, then name the variables and read against them.
    {
      BulkTerms probe;
      if (!read_terms(folder + instance.file, instance.max_cut, 0, n, probe)) {
        std::printf("%-14s cannot read %s%s\n", instance.file, folder.c_str(), instance.file);
        continue;
      }
    }
    const std::uint64_t dims[1] = {n};
    const zorp_var first = zorp_new_var_array("x", dims, 1);
    read_terms(folder + instance.file, instance.max_cut, first, n, terms);
    zorp_expr* raw = zorp_expr_create_from_bulk(0, terms.coeffs.size(), terms.coeffs.data(), terms.degrees.data(),
                                                terms.vars.data());
    zorp_expr* qubo = zorp_expr_simplify_as_binary(raw);
    zorp_model* model = zorp_model_create(qubo);
    zorp_vell_solver* solver = zorp_vell_solver_wrapper_create(model);
    const double baseline = bare_scan_moves_per_second(n);
    for (unsigned seed = 1; seed <= seeds; ++seed) {
      const std::string seed_text = std::to_string(seed);
      const std::string limit = std::to_string(instance.time_limit * time_scale);
      const std::string target = std::to_string(-instance.best);
      zorp_solver_pair params[] = {{"time_limit", limit.c_str()},
                                   {"threads", threads.c_str()},
                                   {"seed", seed_text.c_str()},
                                   {"target_energy", target.c_str()},
                                   {nullptr, nullptr}};
      if (!with_target) params[3] = {nullptr, nullptr};
      zorp_search_result* r = zorp_vell_solver_wrapper_search(solver, params, nullptr);
      std::int64_t energy = 0;
      zorp_vell_solver_result_energy(r, &energy);
      // The value counts only if the library's own evaluation of the returned bits agrees.
      zorp_sol* sol = zorp_vell_solver_result_to_sol(r, model);
      const std::int64_t recomputed = zorp_sol_compute_energy(sol, nullptr);
      zorp_sol_destroy(sol);
      if (recomputed != energy)
        std::printf("%-14s energy %lld disagrees with the bits' energy %lld\n", instance.file,
                    static_cast<long long>(energy), static_cast<long long>(recomputed));
      const std::int64_t found = -energy;
      const double gap = 100.0 * static_cast<double>(instance.best - found) / static_cast<double>(instance.best);
      const std::string moves = info(r, "moves_per_second_per_thread");
      ++runs;
      reached += found >= instance.best && recomputed == energy;
      std::printf("%-14s %5u %8lld %8lld %9.4f %8.3f %8.3f %8.2f %12.3g %7.2f %s\n",
                  instance.file + (instance.max_cut ? 5 : 4), seed, static_cast<long long>(found),
                  static_cast<long long>(instance.best), gap, zorp_vell_solver_result_tts(r),
                  std::atof(info(r, "run_time").c_str()), instance.time_limit * time_scale, std::atof(moves.c_str()),
                  std::atof(moves.c_str()) / baseline, found >= instance.best ? "yes" : "no");
      std::fflush(stdout);
      zorp_vell_solver_result_destroy(r);
    }
    zorp_vell_solver_wrapper_destroy(solver);
    zorp_model_destroy(model);
    zorp_expr_destroy(qubo);
    zorp_expr_destroy(raw);
  }
  std::printf("reached the best-known value in %u of %u runs\n", reached, runs);
  return 0;
}
