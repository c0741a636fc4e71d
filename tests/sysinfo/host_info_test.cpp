#include "sysinfo/host_info.h"

#include <unistd.h>

#include <array>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <thread>

#include <gtest/gtest.h>

#include "zorp.h"

namespace {

using zorp::cores_from_cpuinfo;
using zorp::cpu_name_from_cpuinfo;
using zorp::cpu_name_from_ids;
using zorp::cpu_text;
using zorp::gpu_list_text;
using zorp::max_mhz_from_cpuinfo;
using zorp::os_name_from_os_release;
using zorp::ram_text;

std::optional<std::string> cpu_name_of(const std::string& text) {
  std::istringstream in(text);
  return cpu_name_from_cpuinfo(in);
}

std::string os_of(const std::string& text) {
  std::istringstream in(text);
  return os_name_from_os_release(in);
}

std::size_t cores_of(const std::string& text) {
  std::istringstream in(text);
  return cores_from_cpuinfo(in);
}

std::string str(std::array<char, 11> a) { return std::string(a.data()); }

// std::regex trips false uninitialised-use warnings under the sanitizer builds, so the
// shapes of live texts are checked by hand.
bool all_digits(std::string_view text) {
  return !text.empty() && text.find_first_not_of("0123456789") == std::string_view::npos;
}

bool ends_with(std::string_view text, std::string_view tail) {
  return text.size() >= tail.size() && text.substr(text.size() - tail.size()) == tail;
}

// "N.DDD" with `decimals` digits after the point.
bool fixed_number(std::string_view text, std::size_t decimals) {
  const auto dot = text.find('.');
  return dot != std::string_view::npos && all_digits(text.substr(0, dot)) && text.size() - dot - 1 == decimals &&
         all_digits(text.substr(dot + 1));
}

// ---- CPU name from /proc/cpuinfo ----

TEST(HostCpuName, ModelNameIsCutBeforeTheClock) {
  EXPECT_EQ(cpu_name_of("processor\t: 0\nvendor_id\t: GenuineIntel\n"
                        "model name\t: Intel(R) Xeon(R) CPU E5 @ 2.20GHz\n"),
            "Intel(R) Xeon(R) CPU E5");
  EXPECT_EQ(cpu_name_of("model name : AMD EPYC 7B13 64-Core Processor  \n"), "AMD EPYC 7B13 64-Core Processor");
}

TEST(HostCpuName, FirstNamingLineWinsOverLaterOnesAndOverIds) {
  // Lower-case "processor" is the index line, not a name.
  EXPECT_EQ(cpu_name_of("processor : 0\nHardware : BCM2835\nmodel name : later\n"), "BCM2835");
  EXPECT_EQ(cpu_name_of("CPU implementer : 0x41\nCPU part : 0xd08\nProcessor : ARMv7 Processor rev 4 (v7l)\n"),
            "ARMv7 Processor rev 4 (v7l)");
  // A naming line without ':' says nothing.
  EXPECT_EQ(cpu_name_of("model name\nHardware : X\n"), "X");
}

TEST(HostCpuName, ImplementerAndPartAreLookedUp) {
  EXPECT_EQ(cpu_name_of("processor : 0\nBogoMIPS : 50.00\nCPU implementer : 0x41\nCPU architecture: 8\n"
                        "CPU variant : 0x3\nCPU part : 0xd0c\nCPU revision : 1\n"),
            "ARM Neoverse-N1");
  // Decimal numbers are read too (3340 == 0xd0c).
  EXPECT_EQ(cpu_name_of("CPU implementer : 65\nCPU part : 3340\n"), "ARM Neoverse-N1");
  // The last numbers seen decide.
  EXPECT_EQ(cpu_name_of("CPU implementer : 0x41\nCPU part : 0xd05\n\nCPU implementer : 0x41\nCPU part : 0xd0b\n"),
            "ARM Cortex-A76");
}

TEST(HostCpuName, UnknownOrIncompleteIdsFallThrough) {
  EXPECT_EQ(cpu_name_of("CPU implementer : 0x41\nCPU part : 0xfff\n"), std::nullopt);
  EXPECT_EQ(cpu_name_of("CPU implementer : 0x99\nCPU part : 0xd0c\n"), std::nullopt);
  EXPECT_EQ(cpu_name_of("CPU implementer : 0x41\n"), std::nullopt);
  EXPECT_EQ(cpu_name_of("CPU part : 0xd0c\n"), std::nullopt);
  EXPECT_EQ(cpu_name_of("CPU implementer : none\nCPU part : 0xd0c\n"), std::nullopt);
  EXPECT_EQ(cpu_name_of(""), std::nullopt);
}

TEST(HostCpuName, TableCoversEveryVendor) {
  EXPECT_EQ(cpu_name_from_ids(0x41, 0xd03), "ARM Cortex-A53");
  EXPECT_EQ(cpu_name_from_ids(0x41, 0xd87), "ARM Cortex-A725");
  EXPECT_EQ(cpu_name_from_ids(0x51, 0x805), "Qualcomm Kryo 680");
  EXPECT_EQ(cpu_name_from_ids(0x61, 0x23), "Apple Firestorm-M1");
  EXPECT_EQ(cpu_name_from_ids(0x61, 0x31), "Apple Everest-M3");
  EXPECT_EQ(cpu_name_from_ids(0xc0, 0xac4), "Ampere Altra Max");
  // Parts belong to their implementer only.
  EXPECT_EQ(cpu_name_from_ids(0x51, 0xd03), std::nullopt);
  EXPECT_EQ(cpu_name_from_ids(0x41, 0x23), std::nullopt);
}

TEST(HostCpuName, CommandLineAndDeviceTreeValues) {
  EXPECT_EQ(zorp::value_after_colon("Model name:            AMD EPYC 9654 96-Core Processor\n"),
            "AMD EPYC 9654 96-Core Processor");
  EXPECT_EQ(zorp::value_after_colon("Model name:   \n"), std::nullopt);
  EXPECT_EQ(zorp::value_after_colon("no colon here"), std::nullopt);

  std::istringstream tree(std::string("Raspberry Pi 4 Model B Rev 1.1\0", 31));
  EXPECT_EQ(zorp::model_from_devicetree(tree), "Raspberry Pi 4 Model B Rev 1.1");
  std::istringstream only_nul(std::string("\0", 1));
  EXPECT_EQ(zorp::model_from_devicetree(only_nul), std::nullopt);
  std::istringstream empty;
  EXPECT_EQ(zorp::model_from_devicetree(empty), std::nullopt);
}

// ---- the "cpu" fact ----

TEST(HostCpuFacts, CoresAreDistinctPackageCorePairs) {
  // Two packages of two cores with two threads each: 8 blocks, 4 cores.
  std::string text;
  for (int package = 0; package < 2; ++package)
    for (int thread = 0; thread < 2; ++thread)
      for (int core = 0; core < 2; ++core)
        text += "processor : x\nphysical id : " + std::to_string(package) + "\nsiblings : 4\ncore id : " +
                std::to_string(core) + "\ncpu cores : 2\n\n";
  EXPECT_EQ(cores_of(text), 4u);
  // Without a trailing blank line the last block still counts.
  EXPECT_EQ(cores_of("physical id : 0\ncore id : 5"), 1u);
  // A block missing either id counts nothing, and ids do not leak across blocks.
  EXPECT_EQ(cores_of("core id : 0\n\nphysical id : 0\n\ncore id : 1\n"), 0u);
  EXPECT_EQ(cores_of("processor : 0\nphysical id : 0\nprocessor : 1\ncore id : 3\n"), 0u);
}

TEST(HostCpuFacts, LargestClockFromCpuinfo) {
  std::istringstream in("cpu MHz\t\t: 1200.000\ncpu MHz\t\t: 3400.5\ncpu MHz : 800\nmodel name : x\n");
  EXPECT_DOUBLE_EQ(max_mhz_from_cpuinfo(in).value(), 3400.5);
  std::istringstream none("model name : x\ncpu MHz : junk\ncpu MHz : 0\n");
  EXPECT_EQ(max_mhz_from_cpuinfo(none), std::nullopt);
}

TEST(HostCpuFacts, TextShowsUnknownPartsAndOmitsMissingThreads) {
  EXPECT_EQ(cpu_text("AMD EPYC", 3.7049, 8, 16), "AMD EPYC  (max 3.70 GHz, 8 cores, 16 threads)");
  EXPECT_EQ(cpu_text("X", 2.0, 1, 1), "X  (max 2.00 GHz, 1 cores, 1 threads)");
  EXPECT_EQ(cpu_text("X", std::nullopt, 0, 4), "X  (max (unknown) GHz, (unknown) cores, 4 threads)");
  EXPECT_EQ(cpu_text("X", 1.5, 2, 0), "X  (max 1.50 GHz, 2 cores)");
  EXPECT_EQ(cpu_text("X", 1.5, 2, -1), "X  (max 1.50 GHz, 2 cores)");
}

// ---- os, gpu, ram ----

TEST(HostOsRelease, PrettyNameLosesOneQuotePair) {
  EXPECT_EQ(os_of("NAME=\"Debian GNU/Linux\"\nPRETTY_NAME=\"Debian GNU/Linux 12 (bookworm)\"\nVERSION=\"12\"\n"),
            "Debian GNU/Linux 12 (bookworm)");
  EXPECT_EQ(os_of("PRETTY_NAME='Alpine Linux v3.19'\n"), "Alpine Linux v3.19");
  EXPECT_EQ(os_of("PRETTY_NAME=Plain\n"), "Plain");
  EXPECT_EQ(os_of("  PRETTY_NAME =  \"Spaced\"  \n"), "Spaced");
  // Only one pair, only when both ends match.
  EXPECT_EQ(os_of("PRETTY_NAME=\"\"Twice\"\"\n"), "\"Twice\"");
  EXPECT_EQ(os_of("PRETTY_NAME=\"Mixed'\n"), "\"Mixed'");
  // The value keeps everything after the first '='.
  EXPECT_EQ(os_of("PRETTY_NAME=a=b\n"), "a=b");
}

TEST(HostOsRelease, NameAndVersionWhenNoPrettyName) {
  EXPECT_EQ(os_of("NAME=\"Ubuntu\"\nVERSION=\"22.04.3 LTS (Jammy Jellyfish)\"\n"),
            "Ubuntu 22.04.3 LTS (Jammy Jellyfish)");
  EXPECT_EQ(os_of("PRETTY_NAME=\"\"\nNAME=Arch\n"), "Arch");
  EXPECT_EQ(os_of("NAME=Arch\nVERSION=\n"), "Arch");
  EXPECT_EQ(os_of("VERSION=9\n"), "Linux 9");
  EXPECT_EQ(os_of(""), "Linux");
}

TEST(HostOsRelease, CommentsBlankAndMalformedLinesAreSkipped) {
  EXPECT_EQ(os_of("# PRETTY_NAME=\"Commented\"\n\n   \nPRETTY_NAME\njunk line\nNAME=Real\n"), "Real");
}

TEST(HostGpu, IdenticalNamesAreCountedAndNamesSorted) {
  EXPECT_EQ(gpu_list_text({"NVIDIA H100", "NVIDIA H100"}), "NVIDIA H100 x2");
  EXPECT_EQ(gpu_list_text({"Tesla T4", "NVIDIA A100", "Tesla T4", "NVIDIA A100", "NVIDIA A100"}),
            "NVIDIA A100 x3, Tesla T4 x2");
  EXPECT_EQ(gpu_list_text({"B", "A"}), "A x1, B x1");
  EXPECT_EQ(gpu_list_text({}), "(none)");
}

TEST(HostRam, GibibytesWithThreeDecimals) {
  EXPECT_EQ(ram_text(0), "(unknown)");
  EXPECT_EQ(ram_text(8ull << 30), "8.000 GiB");
  EXPECT_EQ(ram_text(3ull << 29), "1.500 GiB");
  EXPECT_EQ(ram_text(1ull << 20), "0.001 GiB");
}

// ---- build facts ----

TEST(HostBuild, VersionFromDateText) {
  static_assert(zorp::version_from_build_date("Nov 22 2026")[5] == '1');
  EXPECT_EQ(str(zorp::version_from_build_date("Nov 22 2026")), "2026.11.22");
  EXPECT_EQ(str(zorp::version_from_build_date("Jan  5 2025")), "2025.01.05");
  EXPECT_EQ(str(zorp::version_from_build_date("Sep 30 2024")), "2024.09.30");
  const char* months[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun", "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  for (int m = 0; m < 12; ++m) {
    const std::string date = std::string(months[m]) + " 10 2030";
    const char expected[] = {'2', '0', '3', '0', '.', static_cast<char>('0' + (m + 1) / 10),
                             static_cast<char>('0' + (m + 1) % 10), '.', '1', '0', '\0'};
    EXPECT_EQ(str(zorp::version_from_build_date(date)), expected) << date;
  }
}

// ---- live probes ----

TEST(HostFacts, FourFactsInOrderNoneEmpty) {
  const auto facts = zorp::host_facts();
  ASSERT_EQ(facts.size(), 4u);
  const char* keys[] = {"os", "cpu", "gpu", "ram"};
  for (std::size_t i = 0; i < 4; ++i) {
    EXPECT_EQ(facts[i].first, keys[i]);
    EXPECT_FALSE(facts[i].second.empty()) << keys[i];
  }
  const std::string& cpu = facts[1].second;
  const auto open = cpu.find("  (max ");
  ASSERT_NE(open, std::string::npos) << cpu;
  const auto ghz = cpu.find(" GHz, ", open);
  ASSERT_NE(ghz, std::string::npos) << cpu;
  const std::string clock = cpu.substr(open + 7, ghz - open - 7);
  EXPECT_TRUE(clock == "(unknown)" || fixed_number(clock, 2)) << cpu;
  EXPECT_NE(cpu.find(" cores", ghz), std::string::npos) << cpu;
  EXPECT_TRUE(ends_with(cpu, ")")) << cpu;

  const std::string& ram = facts[3].second;
  EXPECT_TRUE(ram == "(unknown)" || (ends_with(ram, " GiB") && fixed_number(ram.substr(0, ram.size() - 4), 3)))
      << ram;
  // A machine without the management library reports "(none)"; one with it names devices.
  const std::string& gpu = facts[2].second;
  const auto x = gpu.rfind(" x");
  EXPECT_TRUE(gpu == "(none)" || (x != std::string::npos && all_digits(gpu.substr(x + 2)))) << gpu;
}

// ---- the exported query ----

std::string query(const char* key) { return zorp_const_str(key); }

TEST(ConstStr, EveryKeyAnswers) {
  for (const char* key : {"compilation_date", "author", "version", "cpu_name", "cpu_threads", "total_ram", "hostname"}) {
    const std::string value = query(key);
    EXPECT_FALSE(value.empty()) << key;
    EXPECT_NE(value, "Invalid string parameter") << key;
  }
  EXPECT_EQ(query("author"), "zorp developers");
  EXPECT_EQ(query("cpu_name"), zorp::cpu_name());
  EXPECT_EQ(query("cpu_threads"), std::to_string(sysconf(_SC_NPROCESSORS_ONLN)));
  EXPECT_EQ(query("total_ram"), zorp::total_ram());
  char host[1024] = {};
  ASSERT_EQ(gethostname(host, sizeof host - 1), 0);
  EXPECT_EQ(query("hostname"), host);
}

TEST(ConstStr, NullAndUnknownKeysAreInvalid) {
  EXPECT_STREQ(zorp_const_str(nullptr), "Invalid string parameter");
  for (const char* key : {"", "Version", "version ", "cpu", "ram", "os"})
    EXPECT_STREQ(zorp_const_str(key), "Invalid string parameter") << '"' << key << '"';
}

TEST(ConstStr, VersionAgreesWithCompilationDate) {
  const std::string date = query("compilation_date");
  ASSERT_EQ(date.size(), 11u) << date;
  ASSERT_TRUE(date[3] == ' ' && date[6] == ' ' && all_digits(date.substr(7)) && date[5] >= '0' && date[5] <= '9')
      << date;
  const std::string version = query("version");
  ASSERT_EQ(version.size(), 10u) << version;
  ASSERT_TRUE(version[4] == '.' && version[7] == '.') << version;
  ASSERT_TRUE(all_digits(version.substr(0, 4)) && all_digits(version.substr(5, 2)) && all_digits(version.substr(8)))
      << version;
  const int month = std::stoi(version.substr(5, 2));
  EXPECT_TRUE(month >= 1 && month <= 12) << version;
  EXPECT_EQ(std::string("JanFebMarAprMayJunJulAugSepOctNovDec").substr((month - 1) * 3, 3), date.substr(0, 3));
  EXPECT_EQ(version.substr(0, 4), date.substr(7, 4));
  EXPECT_EQ(std::stoi(version.substr(8, 2)), std::stoi(date.substr(4, 2)));
  EXPECT_EQ(version, str(zorp::version_from_build_date(date)));
}

TEST(ConstStr, TextIsPerThread) {
  const char* mine = zorp_const_str("author");
  const std::string author = mine;
  const char* theirs = nullptr;
  std::string their_text;
  std::thread other([&] {
    theirs = zorp_const_str("version");
    their_text = theirs;
  });
  // A call on another thread leaves this thread's text alone.
  other.join();
  EXPECT_NE(mine, theirs);
  EXPECT_EQ(std::string(mine), author);
  EXPECT_EQ(their_text, query("version"));
}

}  // namespace
