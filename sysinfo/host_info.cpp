#include "sysinfo/host_info.h"

#include <dlfcn.h>
#include <sys/sysinfo.h>
#include <unistd.h>

#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <set>
#include <string>
#include <vector>

#ifndef ZORP_AUTHOR
#define ZORP_AUTHOR "zorp developers"
#endif

namespace zorp {

namespace {

constexpr const char* kBuildDate = __DATE__;
// Taken from the same expansion of __DATE__, so the version and the date always agree.
constexpr std::array<char, 11> kBuildVersion = version_from_build_date(kBuildDate);

constexpr const char* kInvalidKey = "Invalid string parameter";

bool starts_with(std::string_view text, std::string_view prefix) { return text.substr(0, prefix.size()) == prefix; }

std::string fixed(double value, int decimals) {
  char buf[64];
  // to_chars ignores the locale, so a host program that set one cannot turn the point into a comma.
  const auto res = std::to_chars(buf, buf + sizeof buf, value, std::chars_format::fixed, decimals);
  if (res.ec != std::errc()) return "(unknown)";
  return std::string(buf, res.ptr);
}

// Number after the ':' of a cpuinfo line, hexadecimal with its 0x prefix or decimal.
std::optional<unsigned long> number_after_colon(std::string_view line) {
  const auto colon = line.find(':');
  if (colon == std::string_view::npos) return std::nullopt;
  const std::string value(trim_view(line.substr(colon + 1)));
  char* end = nullptr;
  const unsigned long number = std::strtoul(value.c_str(), &end, 0);
  if (end == value.c_str()) return std::nullopt;
  return number;
}

std::optional<double> positive_double(const std::string& text) {
  const char* begin = text.c_str();
  char* end = nullptr;
  const double value = std::strtod(begin, &end);
  if (end == begin || !(value > 0.0) || value > 1e12) return std::nullopt;
  return value;
}

// First line of a shell command's output, at most 256 bytes; nullopt when it prints nothing.
std::optional<std::string> first_output_line(const char* command) {
  FILE* pipe = popen(command, "r");
  if (pipe == nullptr) return std::nullopt;
  char buf[256];
  const bool got = std::fgets(buf, sizeof buf, pipe) != nullptr;
  pclose(pipe);
  if (!got) return std::nullopt;
  return std::string(buf);
}

std::optional<long> read_long_file(const std::string& path) {
  std::ifstream in(path);
  long value = 0;
  if (!(in >> value)) return std::nullopt;
  return value;
}

struct CpuId {
  unsigned long implementer;
  unsigned long part;
  const char* name;
};

constexpr CpuId kCpuIds[] = {
    {0x41, 0xd03, "ARM Cortex-A53"},      {0x41, 0xd04, "ARM Cortex-A35"},
    {0x41, 0xd05, "ARM Cortex-A55"},      {0x41, 0xd07, "ARM Cortex-A57"},
    {0x41, 0xd08, "ARM Cortex-A72"},      {0x41, 0xd09, "ARM Cortex-A73"},
    {0x41, 0xd0a, "ARM Cortex-A75"},      {0x41, 0xd0b, "ARM Cortex-A76"},
    {0x41, 0xd0c, "ARM Neoverse-N1"},     {0x41, 0xd0d, "ARM Cortex-A77"},
    {0x41, 0xd40, "ARM Neoverse-V1"},     {0x41, 0xd41, "ARM Cortex-A78"},
    {0x41, 0xd42, "ARM Cortex-A78AE"},    {0x41, 0xd44, "ARM Cortex-X1"},
    {0x41, 0xd46, "ARM Cortex-A510"},     {0x41, 0xd47, "ARM Cortex-A710"},
    {0x41, 0xd48, "ARM Cortex-X2"},       {0x41, 0xd49, "ARM Neoverse-N2"},
    {0x41, 0xd4a, "ARM Neoverse-E1"},     {0x41, 0xd4b, "ARM Cortex-A78C"},
    {0x41, 0xd4c, "ARM Cortex-X1C"},      {0x41, 0xd4d, "ARM Cortex-A715"},
    {0x41, 0xd4e, "ARM Cortex-X3"},       {0x41, 0xd4f, "ARM Neoverse-V2"},
    {0x41, 0xd80, "ARM Cortex-A520"},     {0x41, 0xd81, "ARM Cortex-A720"},
    {0x41, 0xd82, "ARM Cortex-X4"},       {0x41, 0xd84, "ARM Neoverse-V3"},
    {0x41, 0xd85, "ARM Cortex-X925"},     {0x41, 0xd87, "ARM Cortex-A725"},
    {0x51, 0x800, "Qualcomm Kryo 260"},   {0x51, 0x801, "Qualcomm Kryo 280"},
    {0x51, 0x802, "Qualcomm Kryo 385"},   {0x51, 0x803, "Qualcomm Kryo 485"},
    {0x51, 0x804, "Qualcomm Kryo 585"},   {0x51, 0x805, "Qualcomm Kryo 680"},
    {0x61, 0x22, "Apple Icestorm-M1"},    {0x61, 0x23, "Apple Firestorm-M1"},
    {0x61, 0x28, "Apple Blizzard-M2"},    {0x61, 0x29, "Apple Avalanche-M2"},
    {0x61, 0x30, "Apple Sawtooth-M3"},    {0x61, 0x31, "Apple Everest-M3"},
    {0xc0, 0xac3, "Ampere Altra"},        {0xc0, 0xac4, "Ampere Altra Max"},
};

// The management library's entry points, declared here as no header of it is installed.
using NvmlDevice = void*;
using NvmlInit = int (*)();
using NvmlShutdown = int (*)();
using NvmlDeviceGetCount = int (*)(unsigned int*);
using NvmlDeviceGetHandleByIndex = int (*)(unsigned int, NvmlDevice*);
using NvmlDeviceGetName = int (*)(NvmlDevice, char*, unsigned int);

template <typename F>
F symbol(void* lib, const char* name) {
  return reinterpret_cast<F>(dlsym(lib, name));
}

}  // namespace

// ---- parsers ----

std::string_view trim_view(std::string_view text) {
  constexpr std::string_view space = " \t\r\n\f\v";
  const auto first = text.find_first_not_of(space);
  if (first == std::string_view::npos) return {};
  const auto last = text.find_last_not_of(space);
  return text.substr(first, last - first + 1);
}

std::optional<std::string> cpu_name_from_ids(unsigned long implementer, unsigned long part) {
  for (const CpuId& id : kCpuIds)
    if (id.implementer == implementer && id.part == part) return std::string(id.name);
  return std::nullopt;
}

std::optional<std::string> cpu_name_from_cpuinfo(std::istream& in) {
  std::optional<unsigned long> implementer;
  std::optional<unsigned long> part;
  std::string raw;
  while (std::getline(in, raw)) {
    const std::string_view line = trim_view(raw);
    const auto colon = line.find(':');
    if (colon == std::string_view::npos) continue;
    if (starts_with(line, "model name") || starts_with(line, "Hardware") || starts_with(line, "Processor")) {
      std::string_view value = trim_view(line.substr(colon + 1));
      const auto at = value.find(" @ ");
      if (at != std::string_view::npos) value = value.substr(0, at);
      return std::string(value);
    }
    if (starts_with(line, "CPU implementer")) {
      if (auto number = number_after_colon(line)) implementer = number;
    } else if (starts_with(line, "CPU part")) {
      if (auto number = number_after_colon(line)) part = number;
    }
  }
  if (implementer && part) return cpu_name_from_ids(*implementer, *part);
  return std::nullopt;
}

std::optional<std::string> value_after_colon(std::string_view line) {
  const auto colon = line.find(':');
  if (colon == std::string_view::npos) return std::nullopt;
  const std::string_view value = trim_view(line.substr(colon + 1));
  if (value.empty()) return std::nullopt;
  return std::string(value);
}

std::optional<std::string> model_from_devicetree(std::istream& in) {
  std::string line;
  if (!std::getline(in, line)) return std::nullopt;
  if (!line.empty() && line.back() == '\0') line.pop_back();
  if (line.empty()) return std::nullopt;
  return line;
}

std::optional<double> max_mhz_from_cpuinfo(std::istream& in) {
  std::optional<double> best;
  std::string raw;
  while (std::getline(in, raw)) {
    const std::string_view line = trim_view(raw);
    if (!starts_with(line, "cpu MHz")) continue;
    const auto value = value_after_colon(line);
    if (!value) continue;
    const auto mhz = positive_double(*value);
    if (mhz && (!best || *mhz > *best)) best = mhz;
  }
  return best;
}

std::size_t cores_from_cpuinfo(std::istream& in) {
  std::set<std::pair<unsigned long, unsigned long>> pairs;
  std::optional<unsigned long> physical;
  std::optional<unsigned long> core;
  const auto close_block = [&] {
    if (physical && core) pairs.emplace(*physical, *core);
    physical.reset();
    core.reset();
  };
  std::string raw;
  while (std::getline(in, raw)) {
    const std::string_view line = trim_view(raw);
    // Processor blocks are separated by blank lines; a new "processor" line also starts one.
    if (line.empty() || starts_with(line, "processor")) {
      close_block();
      continue;
    }
    const auto colon = line.find(':');
    if (colon == std::string_view::npos) continue;
    const std::string_view key = trim_view(line.substr(0, colon));
    if (key == "physical id") {
      physical = number_after_colon(line);
    } else if (key == "core id") {
      core = number_after_colon(line);
    }
  }
  close_block();
  return pairs.size();
}

std::string cpu_text(std::string_view name, std::optional<double> max_ghz, std::size_t cores, long threads) {
  std::string text(name);
  text += "  (max ";
  text += max_ghz ? fixed(*max_ghz, 2) : std::string("(unknown)");
  text += " GHz, ";
  text += cores > 0 ? std::to_string(cores) : std::string("(unknown)");
  text += " cores";
  if (threads > 0) {
    text += ", ";
    text += std::to_string(threads);
    text += " threads";
  }
  text += ')';
  return text;
}

std::string os_name_from_os_release(std::istream& in) {
  std::map<std::string, std::string, std::less<>> fields;
  std::string raw;
  while (std::getline(in, raw)) {
    const std::string_view line = trim_view(raw);
    if (line.empty() || line.front() == '#') continue;
    const auto eq = line.find('=');
    if (eq == std::string_view::npos) continue;
    std::string_view value = trim_view(line.substr(eq + 1));
    if (value.size() >= 2 && (value.front() == '"' || value.front() == '\'') && value.back() == value.front())
      value = value.substr(1, value.size() - 2);
    fields[std::string(trim_view(line.substr(0, eq)))] = std::string(value);
  }
  const auto field = [&](std::string_view key) -> const std::string* {
    const auto it = fields.find(key);
    return it == fields.end() ? nullptr : &it->second;
  };
  if (const std::string* pretty = field("PRETTY_NAME"); pretty != nullptr && !pretty->empty()) return *pretty;
  const std::string* name = field("NAME");
  std::string text = name != nullptr ? *name : std::string("Linux");
  if (const std::string* version = field("VERSION"); version != nullptr && !version->empty()) {
    text += ' ';
    text += *version;
  }
  return text;
}

std::string gpu_list_text(std::vector<std::string> names) {
  std::map<std::string, std::size_t> counts;
  for (std::string& name : names) ++counts[std::move(name)];
  std::string text;
  for (const auto& [name, count] : counts) {
    if (!text.empty()) text += ", ";
    text += name;
    text += " x";
    text += std::to_string(count);
  }
  return text.empty() ? std::string("(none)") : text;
}

std::string ram_text(std::uint64_t bytes) {
  if (bytes == 0) return "(unknown)";
  return fixed(static_cast<double>(bytes) / static_cast<double>(1ull << 30), 3) + " GiB";
}

// ---- build facts ----

const char* build_date() { return kBuildDate; }

const char* build_version() { return kBuildVersion.data(); }

const char* build_author() { return ZORP_AUTHOR; }

// ---- probes ----

std::string cpu_name() {
  {
    std::ifstream in("/proc/cpuinfo");
    if (in) {
      if (auto name = cpu_name_from_cpuinfo(in)) return *name;
    }
  }
  if (auto line = first_output_line("LC_ALL=C LANG=C lscpu 2>/dev/null | grep -i 'Model name'")) {
    if (auto name = value_after_colon(*line)) return *name;
  }
  {
    std::ifstream in("/sys/firmware/devicetree/base/model", std::ios::binary);
    if (in) {
      if (auto model = model_from_devicetree(in)) return *model;
    }
  }
  return "(unknown CPU)";
}

long cpu_threads() { return sysconf(_SC_NPROCESSORS_ONLN); }

std::optional<double> cpu_max_ghz() {
  for (const char* path : {"/sys/devices/system/cpu/cpu0/cpufreq/cpuinfo_max_freq",
                           "/sys/devices/system/cpu/cpu0/cpufreq/scaling_max_freq"}) {
    const auto khz = read_long_file(path);
    if (khz && *khz > 0) return static_cast<double>(*khz) / 1e6;
  }
  if (auto line = first_output_line("LC_ALL=C LANG=C lscpu 2>/dev/null | grep -i 'CPU max MHz'")) {
    if (auto value = value_after_colon(*line)) {
      if (auto mhz = positive_double(*value)) return *mhz / 1000.0;
    }
  }
  std::ifstream in("/proc/cpuinfo");
  if (in) {
    if (auto mhz = max_mhz_from_cpuinfo(in)) return *mhz / 1000.0;
  }
  return std::nullopt;
}

std::size_t cpu_cores() {
  std::set<std::pair<long, long>> pairs;
  const long online = cpu_threads();
  for (long cpu = 0; cpu < online; ++cpu) {
    const std::string dir = "/sys/devices/system/cpu/cpu" + std::to_string(cpu) + "/topology/";
    const auto package = read_long_file(dir + "physical_package_id");
    const auto core = read_long_file(dir + "core_id");
    if (package && core) pairs.emplace(*package, *core);
  }
  if (!pairs.empty()) return pairs.size();
  std::ifstream in("/proc/cpuinfo");
  return in ? cores_from_cpuinfo(in) : 0;
}

std::string os_name() {
  std::ifstream in("/etc/os-release");
  if (!in) return "Linux";
  return os_name_from_os_release(in);
}

std::string gpu_list() {
  void* lib = dlopen("libnvidia-ml.so.1", RTLD_LAZY);
  if (lib == nullptr) lib = dlopen("libnvidia-ml.so", RTLD_LAZY);
  if (lib == nullptr) return "(none)";
  const auto init = symbol<NvmlInit>(lib, "nvmlInit_v2");
  const auto shutdown = symbol<NvmlShutdown>(lib, "nvmlShutdown");
  const auto get_count = symbol<NvmlDeviceGetCount>(lib, "nvmlDeviceGetCount_v2");
  const auto get_handle = symbol<NvmlDeviceGetHandleByIndex>(lib, "nvmlDeviceGetHandleByIndex_v2");
  const auto get_name = symbol<NvmlDeviceGetName>(lib, "nvmlDeviceGetName");
  if (init == nullptr || shutdown == nullptr || get_count == nullptr || get_handle == nullptr ||
      get_name == nullptr || init() != 0) {
    dlclose(lib);
    return "(none)";
  }
  std::vector<std::string> names;
  unsigned int count = 0;
  if (get_count(&count) == 0) {
    for (unsigned int i = 0; i < count; ++i) {
      NvmlDevice device = nullptr;
      if (get_handle(i, &device) != 0) continue;
      char name[256] = {};
      if (get_name(device, name, sizeof name) != 0) continue;
      name[sizeof name - 1] = '\0';
      names.emplace_back(name);
    }
  }
  shutdown();
  dlclose(lib);
  return gpu_list_text(std::move(names));
}

std::string total_ram() {
  struct sysinfo info {};
  if (sysinfo(&info) != 0) return "(unknown)";
  return ram_text(static_cast<std::uint64_t>(info.totalram) * info.mem_unit);
}

std::string host_name() {
  const long max = sysconf(_SC_HOST_NAME_MAX);
  const std::size_t size = max < 1 ? 256 : static_cast<std::size_t>(max) + 1;
  std::vector<char> buf(size, '\0');
  if (gethostname(buf.data(), size) != 0) return "(unknown)";
  buf[size - 1] = '\0';
  return std::string(buf.data());
}

std::vector<std::pair<std::string, std::string>> host_facts() {
  std::vector<std::pair<std::string, std::string>> facts;
  facts.emplace_back("os", os_name());
  facts.emplace_back("cpu", cpu_text(cpu_name(), cpu_max_ghz(), cpu_cores(), cpu_threads()));
  facts.emplace_back("gpu", gpu_list());
  facts.emplace_back("ram", total_ram());
  return facts;
}

std::string const_str_value(const char* key) {
  if (key == nullptr) return kInvalidKey;
  const std::string_view k(key);
  if (k == "compilation_date") return build_date();
  if (k == "author") return build_author();
  if (k == "version") return build_version();
  if (k == "cpu_name") return cpu_name();
  if (k == "cpu_threads") {
    char buf[32];
    std::snprintf(buf, sizeof buf, "%ld", cpu_threads());
    return buf;
  }
  if (k == "total_ram") return total_ram();
  if (k == "hostname") return host_name();
  return kInvalidKey;
}

}  // namespace zorp
