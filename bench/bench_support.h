// Helpers shared by the benchmark programs: wall time, resident memory, memcpy baselines.
#pragma once

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

namespace zorp::bench {

// A positive count from the environment, else `fallback`: benchmarks shrink for quick runs.
inline std::uint64_t env_count(const char* name, std::uint64_t fallback) {
  const char* text = std::getenv(name);
  if (text == nullptr) return fallback;
  const long long value = std::strtoll(text, nullptr, 10);
  return value > 0 ? static_cast<std::uint64_t>(value) : fallback;
}

inline double now_seconds() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

// A field of /proc/self/status in bytes ("VmHWM", "VmRSS"); 0 when it cannot be read.
inline std::uint64_t proc_status_bytes(const char* field) {
  std::ifstream status("/proc/self/status");
  std::string line;
  const std::string key = std::string(field) + ":";
  while (std::getline(status, line)) {
    if (line.compare(0, key.size(), key) == 0) return std::strtoull(line.c_str() + key.size(), nullptr, 10) * 1024;
  }
  return 0;
}

// Peak resident memory of the process so far.
inline std::uint64_t peak_rss_bytes() { return proc_status_bytes("VmHWM"); }
inline std::uint64_t current_rss_bytes() { return proc_status_bytes("VmRSS"); }

// Lowers the peak back to the current resident size, so that a later peak_rss_bytes() is the
// peak of what ran in between. False where the kernel does not allow it.
inline bool reset_peak_rss() {
  std::FILE* f = std::fopen("/proc/self/clear_refs", "w");
  if (f == nullptr) return false;
  const bool ok = std::fputs("5", f) >= 0;
  return std::fclose(f) == 0 && ok;
}

// The memcpy baseline: one plain memcpy of `bytes` into a destination that was written once
// beforehand, so that it measures copying alone and not the first touch of fresh pages.
class MemcpyBaseline {
 public:
  // The vector's zero fill is that first write.
  explicit MemcpyBaseline(std::size_t bytes) : destination_(bytes) {}
  // Seconds for one copy of `bytes` from `source`.
  double time(const void* source, std::size_t bytes) {
    benchmark::ClobberMemory();
    const double start = now_seconds();
    std::memcpy(destination_.data(), source, bytes);
    benchmark::ClobberMemory();
    const double seconds = now_seconds() - start;
    benchmark::DoNotOptimize(destination_.data());
    return seconds;
  }

 private:
  std::vector<unsigned char> destination_;
};

// Median of timing samples: on a shared machine single runs stall on page faults and other
// processes, and the median shows the typical run.
inline double median(std::vector<double> samples) {
  if (samples.empty()) return 0;
  std::sort(samples.begin(), samples.end());
  const std::size_t mid = samples.size() / 2;
  return samples.size() % 2 != 0 ? samples[mid] : (samples[mid - 1] + samples[mid]) / 2;
}

inline double mib(std::uint64_t bytes) { return static_cast<double>(bytes) / (1024.0 * 1024.0); }

}  // namespace zorp::bench
