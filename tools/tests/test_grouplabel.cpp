#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "grouplabel.h"

namespace vorelstat {
namespace {

GroupLabel Read(std::string_view cell) {
  GroupLabel label;
  label.Read(cell);
  return label;
}

struct SameGroup {
  const char* a;
  const char* b;
  bool same;
};

class GroupLabelIdentity : public ::testing::TestWithParam<SameGroup> {};

TEST_P(GroupLabelIdentity, CellsMeaningOneNumberAreOneGroup) {
  const SameGroup& c = GetParam();
  const GroupLabel a = Read(c.a), b = Read(c.b);
  EXPECT_EQ(a == b, c.same);
  if (c.same) {
    EXPECT_EQ(GroupLabel::Hash()(a), GroupLabel::Hash()(b));
  }
  EXPECT_FALSE(GroupLabel::SortsBefore(a, a));
}

INSTANTIATE_TEST_SUITE_P(
    Cells, GroupLabelIdentity,
    ::testing::Values(SameGroup{"1", "1.0", true}, SameGroup{"1", "+1", true},
                      SameGroup{"1", "1e0", true}, SameGroup{"0", "-0.0", true},
                      SameGroup{"2.5", "2.50", true}, SameGroup{"2.5", "2.5000001", false},
                      // Past 2^53 a whole number written as one stays exact.
                      SameGroup{"9007199254740993", "9007199254740992", false},
                      SameGroup{"setosa", "Setosa", false}, SameGroup{"1", "01", true},
                      SameGroup{"1", "1 ", false}, SameGroup{"inf", "inf", true},
                      SameGroup{"nan", "NaN", false}));

TEST(GroupLabel, DisplayKindsAndSortedOrder) {
  EXPECT_EQ(Read("1.0").Display(), "1");
  EXPECT_EQ(Read("-7").Whole(), -7);
  EXPECT_EQ(Read("0.1").Display(), "0.1");
  EXPECT_EQ(Read("1e300").GetKind(), GroupLabel::Kind::kReal);
  EXPECT_EQ(Read("1e400").GetKind(), GroupLabel::Kind::kText) << "beyond a double";
  EXPECT_EQ(Read("inf").GetKind(), GroupLabel::Kind::kText);
  EXPECT_EQ(Read("\"a,b\"").Display(), "\"a,b\"");

  std::vector<std::string> cells{"b", "10", "a", "-2.5", "9223372036854775807", "2", "B", "1e300"};
  std::vector<GroupLabel> labels;
  for (const std::string& cell : cells)
    labels.push_back(Read(cell));
  std::sort(labels.begin(), labels.end(), GroupLabel::SortsBefore);
  std::vector<std::string> shown;
  for (const GroupLabel& label : labels)
    shown.push_back(label.Display());
  EXPECT_EQ(shown, (std::vector<std::string>{"-2.5", "2", "10", "9223372036854775807", "1e+300",
                                             "B", "a", "b"}));
}

}  // namespace
}  // namespace vorelstat
