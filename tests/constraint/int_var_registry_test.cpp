#include "constraint/int_var_registry.h"

#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/death.h"
#include "zorp.h"

// The registries are process-wide and shared by every test: counts are read as differences
// and atoms by the indices they were returned under.

namespace {

using zorp::test::DeathTestBase;

std::string name_of(zorp_var v) { return zorp_var_str(v); }

std::pair<int64_t, int64_t> bounds_of(zorp_var atom) {
  int64_t lo = 0, hi = 0;
  zorp_int_var_bounds(atom, &lo, &hi);
  return {lo, hi};
}

TEST(IntVarRegistry, SingleAtomHasBitThirtyNameAndBounds) {
  const uint32_t before = zorp_int_var_count();
  const zorp_var x = zorp_new_int_var("count", -7, 12);
  EXPECT_EQ(x & ZORP_INT_ATOM_BIT, ZORP_INT_ATOM_BIT);
  EXPECT_EQ(x & ZORP_NEGATED_BIT, 0u);
  EXPECT_EQ(x & 0x3FFFFFFFu, before);
  EXPECT_EQ(zorp_int_var_count(), before + 1);
  EXPECT_EQ(name_of(x), "count");
  EXPECT_EQ(bounds_of(x), std::make_pair(int64_t{-7}, int64_t{12}));
}

TEST(IntVarRegistry, AtomsDoNotTakeBinaryIndices) {
  const uint32_t binaries = zorp_var_count();
  const zorp_var a = zorp_new_int_var("a", 0, 3);
  const zorp_var b = zorp_new_int_var("b", 0, 3);
  EXPECT_EQ(zorp_var_count(), binaries);
  EXPECT_EQ(b, a + 1);
}

TEST(IntVarRegistry, ArrayIsOneBlockNamedRowMajor) {
  const uint32_t before = zorp_int_var_count();
  const uint64_t shape[] = {2, 3};
  const zorp_var first = zorp_new_int_var_array("grid", shape, 2, 1, 9);
  EXPECT_EQ(zorp_int_var_count(), before + 6);
  const char* expected[] = {"grid[0][0]", "grid[0][1]", "grid[0][2]", "grid[1][0]", "grid[1][1]", "grid[1][2]"};
  for (uint32_t i = 0; i < 6; ++i) {
    EXPECT_EQ(name_of(first + i), expected[i]);
    EXPECT_EQ(bounds_of(first + i), std::make_pair(int64_t{1}, int64_t{9}));
  }
  // The block is a single internal record covering all six atoms.
  const zorp::IntVarBlock* block = zorp::IntVarRegistry::instance().find(first);
  ASSERT_NE(block, nullptr);
  EXPECT_EQ(block->count, 6u);
  EXPECT_EQ(block->extents, (std::vector<uint64_t>{2, 3}));
  EXPECT_EQ(zorp::IntVarRegistry::instance().find(first + 5), block);
}

TEST(IntVarRegistry, ArrayWithoutAxesIsOneNamedAtom) {
  const uint32_t before = zorp_int_var_count();
  const zorp_var v = zorp_new_int_var_array("solo", nullptr, 0, 0, 1);
  EXPECT_EQ(zorp_int_var_count(), before + 1);
  EXPECT_EQ(name_of(v), "solo");
}

TEST(IntVarRegistry, EmptyArrayDoesNotHideTheNextAtom) {
  // Both blocks start at the same index; lookup must find the one that holds atoms.
  const uint64_t shape[] = {4, 0};
  const zorp_var empty = zorp_new_int_var_array("nothing", shape, 2, 0, 1);
  const zorp_var next = zorp_new_int_var("after_empty", -1, 1);
  EXPECT_EQ(next, empty);
  EXPECT_EQ(name_of(next), "after_empty");
  EXPECT_EQ(bounds_of(next), std::make_pair(int64_t{-1}, int64_t{1}));
}

TEST(IntVarRegistry, LookupAcrossManyBlocksFindsEachOwnBounds) {
  std::vector<std::pair<zorp_var, int64_t>> made;
  for (int64_t i = 0; i < 40; ++i) {
    const uint64_t shape[] = {static_cast<uint64_t>(i % 3 + 1)};
    const zorp_var first = zorp_new_int_var_array("many", shape, 1, -i, i + 1);
    for (uint64_t k = 0; k < shape[0]; ++k) made.emplace_back(first + static_cast<uint32_t>(k), i);
  }
  for (const auto& [atom, i] : made) EXPECT_EQ(bounds_of(atom), std::make_pair(-i, i + 1)) << name_of(atom);
}

// The number inside an automatic name "{n}".
unsigned long long auto_number(const std::string& text) {
  EXPECT_GE(text.size(), 3u);
  EXPECT_EQ(text.front(), '{');
  EXPECT_EQ(text.back(), '}');
  EXPECT_EQ(text.find_first_not_of("0123456789", 1), text.size() - 1) << text;
  return std::stoull(text.substr(1, text.size() - 2));
}

TEST(IntVarRegistry, MissingNameTakesAnAutomaticNameFromTheSharedCounter) {
  const unsigned long long from_null = auto_number(name_of(zorp_new_int_var(nullptr, 0, 1)));
  const unsigned long long from_empty = auto_number(name_of(zorp_new_int_var("", 0, 1)));
  const unsigned long long binary = auto_number(name_of(zorp_new_var(nullptr)));
  EXPECT_EQ(from_empty, from_null + 1);
  EXPECT_EQ(binary, from_empty + 1);
}

TEST(IntVarRegistry, UnknownAtomPrintsQuestionMark) {
  EXPECT_EQ(name_of(ZORP_INT_ATOM_BIT | 0x3FFFFFFEu), "?");
}

TEST(IntVarRegistry, UsedVarCountGrowsByBitWidths) {
  const uint64_t before = zorp_used_var_count();
  zorp_new_int_var("w1", 10, 11);   // range 1: one bit
  zorp_new_int_var("w3", -2, 3);    // range 5: three bits
  zorp_new_int_var("w4", 0, 8);     // range 8: four bits
  EXPECT_EQ(zorp_used_var_count(), before + 1 + 3 + 4);
  const uint64_t shape[] = {2, 3};
  zorp_new_int_var_array("w6", shape, 2, 0, 6);  // six atoms of three bits
  EXPECT_EQ(zorp_used_var_count(), before + 8 + 18);
}

TEST(IntVarRegistry, ExtremeBoundsAreKeptAndCountSixtyFourBits) {
  const uint64_t before = zorp_used_var_count();
  const int64_t lo = std::numeric_limits<int64_t>::min(), hi = std::numeric_limits<int64_t>::max();
  const zorp_var v = zorp_new_int_var("huge", lo, hi);
  EXPECT_EQ(bounds_of(v), std::make_pair(lo, hi));
  EXPECT_EQ(zorp_used_var_count(), before + 64);
}

TEST(IntVarEncoding, BitWidthCountsSignificantBitsOfTheRange) {
  EXPECT_EQ(zorp::int_var_bit_width(0, 1), 1u);
  EXPECT_EQ(zorp::int_var_bit_width(5, 5), 1u);  // at least one, even for an empty range
  EXPECT_EQ(zorp::int_var_bit_width(-3, 4), 3u);
  EXPECT_EQ(zorp::int_var_bit_width(0, 8), 4u);
  EXPECT_EQ(zorp::int_var_bit_width(std::numeric_limits<int64_t>::min(), std::numeric_limits<int64_t>::max()), 64u);
}

// Every value 0..range must be a subset sum of the coefficients, and nothing above it.
TEST(IntVarEncoding, CoefficientsReachExactlyZeroToRange) {
  for (uint64_t range = 1; range <= 300; ++range) {
    const std::vector<uint64_t> c = zorp::encoding_coefficients(range);
    uint64_t sum = 0;
    for (uint64_t v : c) sum += v;
    EXPECT_EQ(sum, range);
    std::vector<bool> reachable(range + 1, false);
    reachable[0] = true;
    for (uint64_t v : c)
      for (uint64_t s = range + 1; s-- > v;)
        if (reachable[s - v]) reachable[s] = true;
    for (uint64_t s = 0; s <= range; ++s) EXPECT_TRUE(reachable[s]) << "range " << range << " value " << s;
    // No more bits than the width of the range.
    EXPECT_EQ(c.size(), zorp::int_var_bit_width(0, static_cast<int64_t>(range))) << range;
    for (std::size_t k = 0; k + 1 < c.size(); ++k) EXPECT_EQ(c[k], uint64_t{1} << k);
  }
}

TEST(IntVarEncoding, CoefficientsOfKnownRanges) {
  using V = std::vector<uint64_t>;
  EXPECT_EQ(zorp::encoding_coefficients(1), V({1}));
  EXPECT_EQ(zorp::encoding_coefficients(5), V({1, 2, 2}));
  EXPECT_EQ(zorp::encoding_coefficients(7), V({1, 2, 4}));
  EXPECT_EQ(zorp::encoding_coefficients(8), V({1, 2, 4, 1}));
}

TEST(IntVarEncoding, HugeRangesDoNotOverflow) {
  for (uint64_t range : {std::numeric_limits<uint64_t>::max(), uint64_t{1} << 63, (uint64_t{1} << 63) - 1,
                         (uint64_t{1} << 63) + 12345}) {
    const std::vector<uint64_t> c = zorp::encoding_coefficients(range);
    unsigned __int128 sum = 0;
    for (uint64_t v : c) sum += v;
    EXPECT_EQ(sum, static_cast<unsigned __int128>(range));
    EXPECT_LE(c.size(), 64u);
  }
}

using IntVarRegistryDeathTest = DeathTestBase;

TEST_F(IntVarRegistryDeathTest, BoundsMustBeIncreasing) {
  EXPECT_DEATH(zorp_new_int_var("x", 3, 3), "^zorp: int_var: bounds must satisfy lo < hi \\(got lo = 3, hi = 3\\)\n");
  EXPECT_DEATH(zorp_new_int_var("x", -2, -7),
               "^zorp: int_var: bounds must satisfy lo < hi \\(got lo = -2, hi = -7\\)\n");
  const uint64_t shape[] = {2};
  EXPECT_DEATH(zorp_new_int_var_array("x", shape, 1, 9, 1),
               "^zorp: int_var: bounds must satisfy lo < hi \\(got lo = 9, hi = 1\\)\n");
}

TEST_F(IntVarRegistryDeathTest, IndexSpaceIsLimited) {
  const uint64_t too_many[] = {0x40000000u};
  EXPECT_DEATH(zorp_new_int_var_array("x", too_many, 1, 0, 1), "^zorp: int_var: integer variable index space exhausted\n");
  // A product that wraps in 64 bits must still be refused.
  const uint64_t wrapping[] = {uint64_t{1} << 32, uint64_t{1} << 32, 2};
  EXPECT_DEATH(zorp_new_int_var_array("x", wrapping, 3, 0, 1), "^zorp: int_var: integer variable index space exhausted\n");
}

TEST_F(IntVarRegistryDeathTest, BoundsOfSomethingElseAreFatal) {
  int64_t lo = 0, hi = 0;
  const zorp_var binary = zorp_new_var("plain_binary");
  EXPECT_DEATH(zorp_int_var_bounds(binary, &lo, &hi), "^zorp: zorp_int_var_bounds: not an integer variable index\n");
  EXPECT_DEATH(zorp_int_var_bounds(ZORP_INT_ATOM_BIT | 0x3FFFFFFEu, &lo, &hi),
               "^zorp: zorp_int_var_bounds: not an integer variable index\n");
}

TEST_F(IntVarRegistryDeathTest, ResetForgetsAtomsAndTheirBits) {
  EXPECT_EXIT(
      {
        const zorp_var x = zorp_new_int_var("gone", 0, 5);
        zorp_var_reset();
        const bool forgotten = zorp_int_var_count() == 0 && zorp_used_var_count() == 0 && name_of(x) == "?";
        const zorp_var again = zorp_new_int_var("fresh", 0, 1);
        std::exit(forgotten && (again & 0x3FFFFFFFu) == 0 && zorp_used_var_count() == 1 ? 0 : 1);
      },
      testing::ExitedWithCode(0), "");
}

}  // namespace
