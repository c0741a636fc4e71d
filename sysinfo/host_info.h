// Host description: the machine facts reported with every search result and the answers of
// the constant-string query. Parsers are pure and take their input as streams or values; the
// probes around them read the live system, fail soft to fixed texts and cache nothing.
#pragma once

#include <array>
#include <cstdint>
#include <istream>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace zorp {

// ---- parsers ----

// `text` without leading and trailing white space.
std::string_view trim_view(std::string_view text);

// CPU name from /proc/cpuinfo text: the first "model name", "Hardware" or "Processor" line
// (value cut before " @ "), else the table name of the last "CPU implementer" and "CPU part"
// numbers; nullopt when neither gives a name.
std::optional<std::string> cpu_name_from_cpuinfo(std::istream& in);
// Name of an ARM-style core from its implementer and part numbers, nullopt when unknown.
std::optional<std::string> cpu_name_from_ids(unsigned long implementer, unsigned long part);
// Trimmed text after the first ':' of one output line of a command; nullopt when there is no
// ':' or nothing follows it.
std::optional<std::string> value_after_colon(std::string_view line);
// The device-tree model: the first line without one trailing NUL; nullopt when empty.
std::optional<std::string> model_from_devicetree(std::istream& in);
// Largest "cpu MHz" value of /proc/cpuinfo text; nullopt when there is none above 0.
std::optional<double> max_mhz_from_cpuinfo(std::istream& in);
// Distinct ("physical id", "core id") pairs of /proc/cpuinfo text, each processor block
// counting when it has both.
std::size_t cores_from_cpuinfo(std::istream& in);

// The "cpu" fact: name, then "  (max X.XX GHz, N cores, T threads)", with "(unknown)" for a
// missing frequency or a core count of 0, and the threads left out when `threads` < 1.
std::string cpu_text(std::string_view name, std::optional<double> max_ghz, std::size_t cores, long threads);
// The "os" fact from /etc/os-release text: PRETTY_NAME, else NAME (default "Linux") and
// VERSION.
std::string os_name_from_os_release(std::istream& in);
// GPU names grouped and sorted, "NAME xCOUNT" joined by ", "; "(none)" when there are none.
std::string gpu_list_text(std::vector<std::string> names);
// Bytes as GiB with 3 decimals, "(unknown)" for 0.
std::string ram_text(std::uint64_t bytes);

// "YYYY.MM.DD" of a date in the form of __DATE__ ("Mmm dd yyyy", day padded with a space).
constexpr std::array<char, 11> version_from_build_date(std::string_view date) {
  constexpr std::string_view months = "JanFebMarAprMayJunJulAugSepOctNovDec";
  int month = 0;
  for (int m = 0; m < 12; ++m)
    if (months.substr(static_cast<std::size_t>(m) * 3, 3) == date.substr(0, 3)) month = m + 1;
  const char day_tens = date[4] == ' ' ? '0' : date[4];
  return {date[7], date[8], date[9], date[10], '.', static_cast<char>('0' + month / 10),
          static_cast<char>('0' + month % 10), '.', day_tens, date[5], '\0'};
}

// ---- build facts ----

// __DATE__ of the library build.
const char* build_date();
// The build date as "YYYY.MM.DD".
const char* build_version();
// The author text fixed at build time.
const char* build_author();

// ---- probes of the live system ----

// CPU name from /proc/cpuinfo, lscpu, the device tree, else "(unknown CPU)".
std::string cpu_name();
// Processors online (sysconf), -1 when unknown.
long cpu_threads();
// Highest clock in GHz: cpufreq, lscpu, then /proc/cpuinfo.
std::optional<double> cpu_max_ghz();
// Physical cores: sysfs topology, then /proc/cpuinfo; 0 when unknown.
std::size_t cpu_cores();
// The "os" fact of this machine; "Linux" when /etc/os-release is unreadable.
std::string os_name();
// NVIDIA GPUs through the management library loaded at run time, "(none)" without it.
std::string gpu_list();
// Installed memory as ram_text, "(unknown)" when it cannot be read.
std::string total_ram();
// Host name, "(unknown)" when it cannot be read.
std::string host_name();

// The host facts appended to every search result, in this order: "os", "cpu", "gpu", "ram".
std::vector<std::pair<std::string, std::string>> host_facts();

// Answer of the constant-string query for `key`; "Invalid string parameter" for null or an
// unknown key.
std::string const_str_value(const char* key);

}  // namespace zorp
