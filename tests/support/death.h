// Base fixture for death-test suites.
#pragma once

#include <string>

#include <gtest/gtest.h>

namespace zorp::test {

// The re-executing style keeps death tests reliable when worker threads already exist and
// under the thread sanitizer, which does not support fork in a threaded process.
class DeathTestBase : public ::testing::Test {
 protected:
  void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

// `text` with every regex metacharacter escaped, for matching a message word for word.
inline std::string escaped_regex(const std::string& text) {
  std::string out;
  for (char c : text) {
    if (std::string("\\^$.|?*+()[]{}").find(c) != std::string::npos) out += '\\';
    out += c;
  }
  return out;
}

}  // namespace zorp::test
