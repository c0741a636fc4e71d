#include "algebra/text.h"

#include <climits>
#include <cstdint>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "algebra/handles.h"
#include "support/builders.h"
#include "zorp/expr.h"
#include "zorp/term.h"
#include "zorp/var.h"

namespace {

using namespace zorp;
using zorp::test::Poly;

class TextTest : public ::testing::Test {
 protected:
  zorp_var x = zorp_new_var("x"), y = zorp_new_var("y"), z = zorp_new_var("z");

  static std::string term_text(zorp_term* t) {
    std::string text = zorp_term_str(t);
    zorp_term_destroy(t);
    return text;
  }
};

TEST_F(TextTest, TermForms) {
  EXPECT_EQ(term_text(zorp_term_create(7)), "7");
  EXPECT_EQ(term_text(zorp_term_create(-1)), "-1");
  EXPECT_EQ(term_text(zorp_term_create(0)), "0");
  EXPECT_EQ(term_text(zorp_term_create_var(1, x)), "x");
  EXPECT_EQ(term_text(zorp_term_create_var(-1, x)), "-x");
  EXPECT_EQ(term_text(zorp_term_create_var_var(-1, x, y)), "-x*y");
  EXPECT_EQ(term_text(zorp_term_create_var_var(3, x, y)), "3*x*y");
  EXPECT_EQ(term_text(zorp_term_create_var_var(-2, x, y | ZORP_NEGATED_BIT)), "-2*x*~y");
  EXPECT_EQ(term_text(zorp_term_create_var(0, x)), "0*x");
  EXPECT_EQ(term_text(zorp_term_create_var(INT32_MIN, x)), "-2147483648*x");
}

TEST_F(TextTest, UnknownVariablePrintsAsQuestionMark) {
  EXPECT_EQ(term_text(zorp_term_create_var(2, 0x3FFFFFF0u)), "2*?");
  EXPECT_EQ(term_text(zorp_term_create_var_var(1, x, 0x3FFFFFF0u | ZORP_NEGATED_BIT)), "x*?");
}

TEST_F(TextTest, ArrayElementsInsideTerms) {
  const uint64_t dims[] = {2, 3};
  const zorp_var a = zorp_new_var_array("a", dims, 2);
  EXPECT_EQ(term_text(zorp_term_create_var_var(-1, a + 4, (a + 5) | ZORP_NEGATED_BIT)), "-a[1][1]*~a[1][2]");
}

TEST_F(TextTest, NoSeparatorAfterANameEndingInMinus) {
  const zorp_var dash = zorp_new_var("d-");
  EXPECT_EQ(term_text(zorp_term_create_var_var(3, dash, y)), "3*d-y");
  EXPECT_EQ(term_text(zorp_term_create_var_var(-1, x, dash)), "-x*d-");
}

TEST_F(TextTest, ExpressionForms) {
  EXPECT_EQ(Poly().str(), "0");
  EXPECT_EQ(Poly(-7).str(), "-7");
  EXPECT_EQ(Poly(INT64_MIN).str(), "-9223372036854775808");

  Poly cancel(zorp_expr_create_var(x));
  zorp_expr_isub_var(cancel.get(), x);
  EXPECT_EQ(cancel.str(), "x -x");

  Poly mixed(zorp_expr_create_int(3));
  zorp_expr_iadd_raw_term(mixed.get(), 2, &x, 1);
  zorp_expr_isub_var(mixed.get(), y);
  EXPECT_EQ(mixed.str(), "3 +2*x -y");

  const uint32_t pair[] = {x, y};
  Poly product(zorp_expr_create_raw_term(-1, pair, 2, 0));
  zorp_expr_iadd_var(product.get(), z);
  EXPECT_EQ(product.str(), "-x*y +z");
}

TEST_F(TextTest, TermsPrintAsTheyStandInLogicalOrder) {
  Poly e(zorp_expr_create_var(y));
  zorp_expr_iadd_raw_term(e.get(), 0, &x, 1);
  zorp_expr_iadd_raw_term(e.get(), -5, nullptr, 0);
  zorp_expr_iadd_raw_term(e.get(), 4, nullptr, 0);
  EXPECT_EQ(e.str(), "y +0*x -5 +4");
  zorp_expr_iadd_int(e.get(), -1);
  EXPECT_EQ(e.str(), "-1 +y +0*x -5 +4");
}

TEST_F(TextTest, ResultsAreKeptPerThread) {
  Poly mine(zorp_expr_create_add_var_var(x, y));
  Poly theirs(zorp_expr_create_sub_int_var(9, z));
  const char* my_text = zorp_expr_str(mine.get());
  const char* my_term = zorp_term_str(zorp_expr_term_at(mine.get(), 1));
  std::string their_text, their_term;
  std::thread other([&] {
    for (int i = 0; i < 100; ++i) {
      their_text = zorp_expr_str(theirs.get());
      their_term = zorp_term_str(zorp_expr_term_at(theirs.get(), 0));
    }
  });
  other.join();
  EXPECT_EQ(their_text, "9 -z");
  EXPECT_EQ(their_term, "-z");
  EXPECT_STREQ(my_text, "x +y");
  EXPECT_STREQ(my_term, "y");
}

}  // namespace
