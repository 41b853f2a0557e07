// VarStat and PairStat on hand-worked cases; their arithmetic on random data
// is compared bit for bit through the pairwise matrices (test_pairwiseblocks).
#include <vorel/statrecords.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <memory>
#include <vector>

#include "pairwise_reference.h"
#include "test_support.h"

namespace vorel {
namespace {

using testing::pairwise::VarFields;
using Values = std::vector<double>;
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

TEST(VarStat, WorkedExamples) {
  EXPECT_EQ(VarFields(VarStat()), (Values{0, 0, 0, 0, 0, 1.79e308, -1.79e308}));
  WorkArea work;
  const double x[] = {2, 4}, w[] = {1, 3};
  VarStat s, t;
  s.Init(x, w, nullptr, work, 2);
  EXPECT_EQ(VarFields(s), (Values{2, 4, 4, 3.5, 3, 2, 4}));
  s.Init(x, nullptr, w, work, 2);  // the same figures as regression weights
  EXPECT_EQ(VarFields(s), (Values{2, 2, 4, 3.5, 3, 2, 4}));

  // Halves 1, 3 and 5, 7: ((2*2*2 + 2) + 2*2*2) + 2 = 20, no rounding anywhere;
  // by itself the sums double and the mean stays.
  const double a[] = {1, 3}, b[] = {5, 7};
  s.Init(a, nullptr, nullptr, work, 2);
  t.Init(b, nullptr, nullptr, work, 2);
  s.Update(t);
  EXPECT_EQ(VarFields(s), (Values{4, 4, 4, 4, 20, 1, 7}));
  s.Update(s);
  EXPECT_EQ(VarFields(s), (Values{8, 8, 8, 4, 40, 1, 7}));

  // A row where only the second cell is missing leaves the pair for both.
  work.missingCode = -9;
  const double p0[] = {1, 2, 3}, p1[] = {5, -9, 7};
  PairStat p;
  p.Init(p0, p1, nullptr, nullptr, work, 3);
  EXPECT_EQ(testing::pairwise::PairFields(p), (Values{2, 2, 2, 2, 6, 2, 2, 2}));
}

TEST(VarStat, MissingZeroWeightAndNaNRules) {
  WorkArea work;
  work.missingCode = -99;
  const double x[] = {1, 2, 6}, allMissing[] = {-99, -99};
  VarStat s, z;
  s.Init(x, nullptr, nullptr, work, 3);
  const VarStatData before = s.Data();
  z.Init(allMissing, nullptr, nullptr, work, 2);
  EXPECT_EQ(VarFields(z), VarFields(VarStat()));
  s.Update(z);
  EXPECT_EQ(std::memcmp(&before, &s.Data(), sizeof before), 0);

  // Rows of zero total weight (constant, so their own mean is no 0/0): mean
  // and sums stay, the rows count, the extremes join.
  const double low[] = {-5}, high[] = {50, 50}, zeros[] = {0, 0};
  z.Init(low, zeros, nullptr, work, 1);
  s.Update(z);
  z.Init(high, zeros, nullptr, work, 2);
  s.Update(z);
  EXPECT_EQ(VarFields(s), (Values{6, 3, 3, before.mean, before.css, -5, 50}));

  // A constant column is its own mean with any weights, even totalling zero.
  const double same[] = {0.1, 0.1, 0.1}, cancel[] = {1, -2, 1};
  z.Init(same, cancel, nullptr, work, 3);
  EXPECT_EQ(z.Mean(), 0.1);
  EXPECT_EQ(z.CSS(), 0.0);

  // NaN is a value, not missing; a NaN code drops nothing, not even -99;
  // -0.0 equals a code of 0.0.
  const double withNaN[] = {1, kNaN, -99}, zeroes[] = {-0.0, 0.0, 1};
  z.Init(withNaN, nullptr, nullptr, work, 3);
  EXPECT_EQ(z.NRows(), 2);
  EXPECT_TRUE(std::isnan(z.Mean()) && std::isnan(z.CSS()));
  work.missingCode = kNaN;
  z.Init(withNaN, nullptr, nullptr, work, 3);
  EXPECT_EQ(z.NRows(), 3);
  work.missingCode = 0.0;
  z.Init(zeroes, nullptr, nullptr, work, 3);
  EXPECT_EQ(z.NRows(), 1);
}

TEST(StatRecords, HandlesOwnTheirRecords) {
  WorkArea work;
  const double x[] = {1, 2, 4};
  VarStat a;
  a.Init(x, nullptr, nullptr, work, 3);
  VarStat b(a), d;
  std::unique_ptr<VarStat> c(a.Copy());
  d = a;
  d = d;
  a.Init(x, nullptr, nullptr, work, 1);
  for (const VarStat* copy : {&b, c.get(), &d})
    EXPECT_EQ(copy->Max(), 4.0);
  VarStat moved(std::move(b));
  EXPECT_EQ(moved.NRows(), 3);
  b = a;  // a moved-from handle takes a new record when assigned to
  EXPECT_EQ(b.NRows(), 1);

  PairStat p(new PairStatData{2, 2, 2, 1, 1, 0, 0, 0}), q;
  q = p;
  std::unique_ptr<PairStat> r(p.Copy());
  p.Data().nRows = 7;
  EXPECT_EQ(q.NRows() + r->NRows(), 4);
}

}  // namespace
}  // namespace vorel
