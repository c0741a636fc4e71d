#include "frame/fatal.h"

#include <csignal>
#include <cstdint>

#include <gtest/gtest.h>

#include "support/death.h"

namespace {

using zorp::test::DeathTestBase;

class FatalDeathTest : public DeathTestBase {};

TEST_F(FatalDeathTest, WritesOnePrefixedLineAndAborts) {
  EXPECT_EXIT(zorp::fatal("Division by zero"), testing::KilledBySignal(SIGABRT), "^zorp: Division by zero\n$");
}

TEST_F(FatalDeathTest, FormatsNumbersWithoutPadding) {
  EXPECT_EXIT(zorp::fatal("index ", std::int64_t{-42}, " of ", 7u, "."), testing::KilledBySignal(SIGABRT),
              "^zorp: index -42 of 7\\.\n$");
}

TEST_F(FatalDeathTest, WholeLineMessagesAreNotPrefixedTwice) {
  EXPECT_EXIT(zorp::fatal_whole_line("zorp: ExprExpr body access."), testing::KilledBySignal(SIGABRT),
              "^zorp: ExprExpr body access\\.\n$");
}

TEST_F(FatalDeathTest, DeclaredRefusalNamesTheOperation) {
  EXPECT_EXIT(zorp::fatal_declared_refusal("/="), testing::KilledBySignal(SIGABRT),
              "^zorp: zorp::cons: '/=' is not allowed on an expression with declared constraints\n$");
}

}  // namespace
