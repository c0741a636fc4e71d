// Base fixture for death-test suites.
#pragma once

#include <gtest/gtest.h>

namespace zorp::test {

// The re-executing style keeps death tests reliable when worker threads already exist and
// under the thread sanitizer, which does not support fork in a threaded process.
class DeathTestBase : public ::testing::Test {
 protected:
  void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

}  // namespace zorp::test
