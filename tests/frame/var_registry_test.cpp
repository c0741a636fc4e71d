#include "frame/var_registry.h"

#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "frame/literal.h"
#include "support/death.h"
#include "zorp/var.h"

// The registry is process-wide and tests share it, so every test reads names back relative
// to the indices it was given and never assumes absolute numbers.

namespace {

using zorp::test::DeathTestBase;

std::string name_of(zorp_var v) { return zorp_var_str(v); }

// The number inside an automatic name "{n}".
unsigned long long auto_number(const std::string& name) {
  EXPECT_GE(name.size(), 3u);
  EXPECT_EQ(name.front(), '{');
  EXPECT_EQ(name.back(), '}');
  return std::stoull(name.substr(1, name.size() - 2));
}

TEST(VarRegistry, ScalarNamesAndTheirNegations) {
  const uint64_t integer_bits = zorp_used_var_count() - zorp_var_count();
  const zorp_var x = zorp_new_var("x");
  const zorp_var y = zorp_new_var("y");
  EXPECT_EQ(y, x + 1);
  EXPECT_EQ(name_of(x), "x");
  EXPECT_EQ(name_of(x | ZORP_NEGATED_BIT), "~x");
  EXPECT_EQ(name_of(y), "y");
  EXPECT_EQ(zorp_var_count(), y + 1);
  EXPECT_EQ(zorp_used_var_count(), zorp_var_count() + integer_bits);
}

TEST(VarRegistry, ScalarNameTextStaysPutAcrossLaterCreations) {
  // A short name is held inside its string record; the record must not move as the
  // registry grows.
  const zorp_var x = zorp_new_var("stable");
  const char* text = zorp_var_str(x);
  for (int i = 0; i < 5000; ++i) zorp_new_var("filler");
  const uint64_t dims[] = {100'000};
  zorp_new_var_array("grow", dims, 1);
  EXPECT_STREQ(text, "stable");
  EXPECT_EQ(text, zorp_var_str(x));
}

TEST(VarRegistry, DuplicateNamesAreDistinctVariables) {
  const zorp_var a = zorp_new_var("dup");
  const zorp_var b = zorp_new_var("dup");
  EXPECT_NE(a, b);
  EXPECT_EQ(name_of(a), "dup");
  EXPECT_EQ(name_of(b), "dup");
}

TEST(VarRegistry, ArrayElementsAreNamedRowMajor) {
  const uint64_t dims[] = {2, 3};
  const zorp_var base = zorp_new_var_array("a", dims, 2);
  EXPECT_EQ(zorp_var_count(), base + 6);
  EXPECT_EQ(name_of(base), "a[0][0]");
  EXPECT_EQ(name_of(base + 2), "a[0][2]");
  EXPECT_EQ(name_of(base + 3), "a[1][0]");
  EXPECT_EQ(name_of(base + 4), "a[1][1]");
  EXPECT_EQ(name_of((base + 4) | ZORP_NEGATED_BIT), "~a[1][1]");
  EXPECT_EQ(name_of(base + 5), "a[1][2]");
}

TEST(VarRegistry, ThreeDimensionalElementName) {
  const uint64_t dims[] = {2, 3, 4};
  const zorp_var base = zorp_new_var_array("t", dims, 3);
  EXPECT_EQ(name_of(base + 23), "t[1][2][3]");
  EXPECT_EQ(name_of(base + 13), "t[1][0][1]");
}

TEST(VarRegistry, VariablesAroundAnArrayKeepTheirOwnNames) {
  const zorp_var before = zorp_new_var("before");
  const uint64_t dims[] = {4};
  const zorp_var base = zorp_new_var_array("v", dims, 1);
  const zorp_var after = zorp_new_var("after");
  EXPECT_EQ(base, before + 1);
  EXPECT_EQ(after, base + 4);
  EXPECT_EQ(name_of(before), "before");
  EXPECT_EQ(name_of(base + 3), "v[3]");
  EXPECT_EQ(name_of(after), "after");
  EXPECT_EQ(name_of(after | ZORP_NEGATED_BIT), "~after");
}

TEST(VarRegistry, ArrayWithoutExtentsIsOneVariable) {
  const zorp_var base = zorp_new_var_array("s", nullptr, 0);
  EXPECT_EQ(zorp_var_count(), base + 1);
  EXPECT_EQ(name_of(base), "s");
  EXPECT_EQ(name_of(base | ZORP_NEGATED_BIT), "~s");
}

TEST(VarRegistry, ZeroExtentAddsNothing) {
  const zorp_var marker = zorp_new_var("marker");
  const uint64_t dims[] = {3, 0, 5};
  EXPECT_EQ(zorp_new_var_array("empty", dims, 3), marker + 1);
  EXPECT_EQ(zorp_var_count(), marker + 1);
  // A zero extent behind a huge one is still an empty array, not an exhausted index space.
  const uint64_t huge_then_zero[] = {uint64_t{1} << 40, 0};
  EXPECT_EQ(zorp_new_var_array("empty", huge_then_zero, 2), marker + 1);
  EXPECT_EQ(zorp_new_var("next"), marker + 1);
  EXPECT_EQ(name_of(marker + 1), "next");
}

TEST(VarRegistry, AutomaticNamesAreConsecutive) {
  const zorp_var a = zorp_new_var(nullptr);
  const zorp_var b = zorp_new_var("");
  const unsigned long long n = auto_number(name_of(a));
  EXPECT_EQ(auto_number(name_of(b)), n + 1);
  EXPECT_EQ(auto_number(zorp_auto_var_name()), n + 2);
  const uint64_t dims[] = {2};
  const zorp_var array = zorp_new_var_array(nullptr, dims, 1);
  EXPECT_EQ(name_of(array + 1), "{" + std::to_string(n + 3) + "}[1]");
}

TEST(VarRegistry, UnknownIndicesPrintAsQuestionMark) {
  const zorp_var past_end = zorp_var_count() + 1000;
  EXPECT_EQ(name_of(past_end), "?");
  EXPECT_EQ(name_of(past_end | ZORP_NEGATED_BIT), "?");
  EXPECT_EQ(name_of(0x3FFFFFFFu), "?");
  // An atom index far past any integer variable, and a negated atom, which names nothing.
  EXPECT_EQ(name_of(0x3FFFFFF0u | ZORP_INT_ATOM_BIT), "?");
  EXPECT_EQ(name_of(0x3FFFFFF0u | ZORP_INT_ATOM_BIT | ZORP_NEGATED_BIT), "?");
  const zorp_var x = zorp_new_var("x");
  EXPECT_EQ(name_of(x | ZORP_INT_ATOM_BIT | ZORP_NEGATED_BIT), "?");
}

TEST(VarRegistry, ConcurrentCreationHandsOutDistinctIndices) {
  constexpr int kPerThread = 2000;
  std::vector<zorp_var> got[2];
  std::vector<std::thread> threads;
  for (int t = 0; t < 2; ++t) {
    threads.emplace_back([t, &got] {
      const std::string name = t == 0 ? "left" : "right";
      const uint64_t dims[] = {3};
      for (int i = 0; i < kPerThread; ++i) {
        got[t].push_back(zorp_new_var(name.c_str()));
        got[t].push_back(zorp_new_var_array(name.c_str(), dims, 1));
      }
    });
  }
  for (auto& thread : threads) thread.join();
  std::vector<bool> seen(zorp_var_count(), false);
  for (int t = 0; t < 2; ++t) {
    const std::string name = t == 0 ? "left" : "right";
    for (std::size_t i = 0; i < got[t].size(); i += 2) {
      const zorp_var scalar = got[t][i], array = got[t][i + 1];
      ASSERT_LT(array + 2, seen.size());
      EXPECT_FALSE(seen[scalar]);
      seen[scalar] = true;
      for (zorp_var k = array; k < array + 3; ++k) {
        EXPECT_FALSE(seen[k]);
        seen[k] = true;
      }
      EXPECT_EQ(name_of(scalar), name);
      EXPECT_EQ(name_of(array + 2), name + "[2]");
    }
  }
}

class VarRegistryDeathTest : public DeathTestBase {};

// Creates variables, resets, and reports what the registry shows afterwards on stderr.
[[noreturn]] void reset_and_report() {
  const zorp_var old = zorp_new_var("before_reset");
  const uint64_t dims[] = {2, 2};
  const zorp_var old_array = zorp_new_var_array("arr", dims, 2);
  const std::string auto_before = zorp_auto_var_name();
  zorp_var_reset();
  std::fprintf(stderr, "%s %s %s %u ", zorp_var_str(old), zorp_var_str(old | ZORP_NEGATED_BIT),
               zorp_var_str(old_array + 3), zorp_var_count());
  const zorp_var fresh = zorp_new_var("after");
  const std::string auto_after = zorp_auto_var_name();
  std::fprintf(stderr, "%u %s %d\n", fresh, zorp_var_str(fresh),
               auto_number(auto_after) == auto_number(auto_before) + 1);
  std::exit(0);
}

TEST_F(VarRegistryDeathTest, ResetForgetsNamesAndRestartsAtZero) {
  // Reset runs in a child process so that the other tests keep their variables; automatic
  // names keep counting through it.
  EXPECT_EXIT(reset_and_report(), testing::ExitedWithCode(0), "^\\? \\? \\? 0 0 after 1\n$");
}

TEST_F(VarRegistryDeathTest, ExtentsPastTheIndexSpaceAreFatal) {
  const uint64_t dims[] = {uint64_t{1} << 16, uint64_t{1} << 15};
  EXPECT_EXIT(zorp_new_var_array("huge", dims, 2), testing::KilledBySignal(SIGABRT),
              "^zorp: Binary variable index space exhausted \\(2\\^30 - 1 variables\\)\\.\n$");
}

TEST_F(VarRegistryDeathTest, ExtentsWhoseProductWrapsAreStillFatal) {
  // 2^32 * 2^32 is 0 modulo 2^64.
  const uint64_t dims[] = {uint64_t{1} << 32, uint64_t{1} << 32};
  EXPECT_EXIT(zorp_new_var_array("wraps", dims, 2), testing::KilledBySignal(SIGABRT),
              "^zorp: Binary variable index space exhausted \\(2\\^30 - 1 variables\\)\\.\n$");
}

TEST_F(VarRegistryDeathTest, ExactlyTwoToTheThirtyIsOneTooMany) {
  const uint64_t dims[] = {uint64_t{1} << 30};
  EXPECT_EXIT(zorp_new_var_array("edge", dims, 1), testing::KilledBySignal(SIGABRT),
              "^zorp: Binary variable index space exhausted \\(2\\^30 - 1 variables\\)\\.\n$");
}

}  // namespace
