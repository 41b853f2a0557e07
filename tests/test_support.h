// Shared helpers of the test suite.
//
// The suite installs a throwing assertion handler for every test, so that a
// breached precondition becomes an AssertionFailure carrying the expression
// text, which tests compare verbatim.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <ios>
#include <stdexcept>
#include <string>
#include <vector>

namespace vorel::testing {

struct AssertionFailure : std::logic_error {
  AssertionFailure(std::string expr, std::string sourceFile, int sourceLine)
      : std::logic_error(expr),
        expression(std::move(expr)),
        file(std::move(sourceFile)),
        line(sourceLine) {}
  std::string expression;
  std::string file;
  int line;
};

// Bitwise equality of doubles, except that any NaN equals any NaN.
inline bool SameBits(double a, double b) {
  if (a != a && b != b) return true;
  return std::memcmp(&a, &b, sizeof a) == 0;
}

// Bit for bit, over the fields (or cells) the library gives: want may go on
// with fields the library's record does not keep.
inline ::testing::AssertionResult SameFields(const std::vector<double>& got,
                                             const std::vector<double>& want) {
  if (got.size() > want.size())
    return ::testing::AssertionFailure() << got.size() << " fields, want " << want.size();
  for (std::size_t i = 0; i < got.size(); ++i)
    if (!SameBits(got[i], want[i]))
      return ::testing::AssertionFailure()
             << "field " << i << ": " << std::hexfloat << got[i] << ", want " << want[i];
  return ::testing::AssertionSuccess();
}

// Merging an object of another class through MatrixBase& is refused in
// the one place that all matrix classes share.
inline constexpr const char* kMergeSource = "backend/vorel/common/handle.h";

}  // namespace vorel::testing

// Runs `statement` and expects it to fail the assertion whose text is `text`;
// `file` is a prefix of the reported source file, e.g. "backend/vorel/databatch".
#define EXPECT_VOREL_ASSERT(statement, text, sourcePrefix)                                    \
  do {                                                                                        \
    try {                                                                                     \
      statement;                                                                              \
      ADD_FAILURE() << "expected assertion \"" << (text) << "\"";                             \
    } catch (const ::vorel::testing::AssertionFailure& failure) {                             \
      EXPECT_EQ(failure.expression, std::string(text));                                       \
      EXPECT_EQ(failure.file.rfind(sourcePrefix, 0), 0u) << "reported file " << failure.file; \
    }                                                                                         \
  } while (0)
