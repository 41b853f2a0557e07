#include <vorelhost/assertion.h>

#include "test_support.h"

namespace {

int CheckedHalf(int value) {
  VOREL_ASSERT(value % 2 == 0);
  return value / 2;
}

TEST(Assertion, ReportsExpressionFileAndLine) {
  try {
    CheckedHalf(3);
    FAIL() << "no assertion";
  } catch (const vorel::testing::AssertionFailure& failure) {
    EXPECT_EQ(failure.expression, "value % 2 == 0");
    EXPECT_EQ(failure.file, "tests/test_assertion.cpp");
    EXPECT_EQ(failure.line, 8);
  }
}

// The one real death test: without a host handler a failed check prints one
// line and aborts, in every build type.
TEST(AssertionDeathTest, DefaultHandlerPrintsAndAborts) {
  EXPECT_DEATH(
      {
        vorelhost::SetAssertHandler(nullptr);
        CheckedHalf(5);
      },
      "tests/test_assertion.cpp:8: assertion failed: value % 2 == 0");
}

}  // namespace
