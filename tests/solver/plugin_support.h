// Running a check in a fresh child process with a chosen plug-in folder:
// plug-in tables are cached for the life of a process, so each fake plug-in
// gets a process of its own.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <iostream>
#include <string>
#include <utility>
#include <vector>

#include "support/death.h"
#include "zorp/common.h"

namespace zorp::test {

// A closed (key, value) list for solver calls that owns its texts.
class Params {
 public:
  Params(std::initializer_list<std::pair<std::string, std::string>> pairs) : texts_(pairs) {
    for (const auto& [key, value] : texts_) list_.push_back({key.c_str(), value.c_str()});
    list_.push_back({nullptr, nullptr});
  }
  const zorp_solver_pair* get() const { return list_.data(); }

 private:
  std::vector<std::pair<std::string, std::string>> texts_;
  std::vector<zorp_solver_pair> list_;
};

// Folder of a purpose-built plug-in variant, with its trailing "/".
inline std::string test_plugin_dir(const std::string& variant) {
  return std::string(ZORP_TEST_PLUGIN_DIR) + variant + "/";
}

// Sets ZORP_LIB_DIR, runs `body`, and exits 0 when it returns no complaint;
// otherwise the complaint goes to the standard error stream, where the failing
// test shows it.
[[noreturn]] inline void run_with_plugins(const std::string& folder, const std::function<std::string()>& body) {
  setenv("ZORP_LIB_DIR", folder.c_str(), 1);
  const std::string complaint = body();
  if (!complaint.empty()) {
    std::cerr << complaint << std::endl;
    std::_Exit(1);
  }
  std::_Exit(0);
}

// Compares two texts for run_with_plugins: empty when equal, else both.
inline std::string differs(const std::string& label, const std::string& expected, const std::string& actual) {
  if (expected == actual) return {};
  return label + ":\n--- expected\n" + expected + "\n--- actual\n" + actual;
}

}  // namespace zorp::test

// Runs `body` (returning a complaint text, empty for none) in a child process
// whose plug-ins come from `folder`. Only death-test suites use it, because it
// forks.
#define EXPECT_WITH_PLUGINS(folder, ...) \
  EXPECT_EXIT(::zorp::test::run_with_plugins(folder, __VA_ARGS__), ::testing::ExitedWithCode(0), "")
