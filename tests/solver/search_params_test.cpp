#include "solver/search_params.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "solver/plugin_support.h"
#include "support/death.h"

namespace {

using zorp::test::Params;

using zorp::IntSearchOpts;
using zorp::read_int_search_opts;
using zorp::test::DeathTestBase;

IntSearchOpts read(const Params& params) { return read_int_search_opts(params.get(), "VellSolver"); }

TEST(SearchInteger, ReadsSignedDigitsAndStopsAtTheFirstOther) {
  EXPECT_EQ(zorp::parse_search_integer("12abc"), 12);
  EXPECT_EQ(zorp::parse_search_integer(" \t-5x"), -5);
  EXPECT_EQ(zorp::parse_search_integer("+7"), 7);
  EXPECT_EQ(zorp::parse_search_integer("-9223372036854775808"), INT64_MIN);
  // Accumulation wraps instead of failing.
  EXPECT_EQ(zorp::parse_search_integer("18446744073709551617"), 1);
}

TEST(SearchInteger, RefusesTextWithoutDigitsByThrowing) {
  for (const char* bad : {"", "  ", "+", "-", "x1", "- 1", "++1"}) {
    try {
      zorp::parse_search_integer(bad);
      ADD_FAILURE() << "accepted '" << bad << "'";
    } catch (const std::runtime_error& e) {
      EXPECT_EQ(std::string(e.what()), std::string("zorp::_from_string: invalid integer '") + bad + "'");
    }
  }
}

TEST(IntSearchOpts, DefaultsBeforeAnyParameter) {
  const IntSearchOpts opts = read_int_search_opts(nullptr, "VellSolver");
  EXPECT_EQ(opts.time_limit, 10.0);
  EXPECT_FALSE(opts.has_target);
  EXPECT_GE(opts.threads, 1u);
  EXPECT_EQ(opts.threads, zorp::default_search_threads());
  EXPECT_LE(opts.seed, 0xFFFFFFFFu) << "one 32-bit draw";
  EXPECT_EQ(opts.topk_sols, 0u);
  EXPECT_FALSE(opts.collect_best);
  EXPECT_EQ(opts.solver_name, "VellSolver");
}

TEST(IntSearchOpts, ReadsEveryKeyInOrder) {
  const IntSearchOpts opts = read({{"time_limit", "2.5"},
                                   {"target_energy", " -5x"},
                                   {"seed", "123456789012"},
                                   {"threads", "3"},
                                   {"topk_sols", "4"},
                                   {"enable_default_callback", "True"},
                                   {"seed", "9"}});
  EXPECT_EQ(opts.time_limit, 2.5);
  EXPECT_TRUE(opts.has_target);
  EXPECT_EQ(opts.target_energy, -5);
  EXPECT_EQ(opts.seed, 9u) << "a later pair wins";
  EXPECT_EQ(opts.threads, 3u);
  EXPECT_EQ(opts.topk_sols, 4u);
  EXPECT_TRUE(opts.enable_default_callback);
}

TEST(IntSearchOpts, LenientValues) {
  EXPECT_EQ(read({{"time_limit", "soon"}}).time_limit, 0.0);
  EXPECT_FALSE(read({{"enable_default_callback", "TRUE"}}).enable_default_callback);
  EXPECT_TRUE(read({{"enable_default_callback", "1"}}).enable_default_callback);
  const IntSearchOpts uncapped = read({{"best_energy_sols", "abc"}});
  EXPECT_TRUE(uncapped.collect_best);
  EXPECT_EQ(uncapped.best_energy_sols, 0u);
  EXPECT_EQ(read({{"best_energy_sols", "12"}}).best_energy_sols, 12u);
  EXPECT_THROW(read({{"target_energy", "+"}}), std::runtime_error);
}

TEST(SearchParams, HasParamFindsKeysOnly) {
  const Params params{{"seed", "topk_sols"}};
  EXPECT_TRUE(zorp::has_param(params.get(), "seed"));
  EXPECT_FALSE(zorp::has_param(params.get(), "topk_sols"));
  EXPECT_FALSE(zorp::has_param(nullptr, "seed"));
}

class IntSearchOptsDeathTest : public DeathTestBase {};

TEST_F(IntSearchOptsDeathTest, RefusalsCarryTheFrontEndName) {
  EXPECT_DEATH(read_int_search_opts(Params{{"threads", "0"}}.get(), "MIRKSolver"),
               "^zorp: MIRKSolver: threads must be >= 1\\.\n");
  EXPECT_DEATH(read(Params{{"topk_sols", "0"}}), "^zorp: VellSolver: topk_sols must be >= 1\\.\n");
  EXPECT_DEATH(read(Params{{"flips", "10"}}),
               "^zorp: VellSolver: parameter 'flips' is not supported for "
               "native integer models yet\\.\n");
}

}  // namespace
