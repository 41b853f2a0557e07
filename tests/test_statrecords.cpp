#include <vorel/statrecords.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <random>
#include <vector>

#include "pairwise_reference.h"
#include "test_support.h"

namespace vorel {
namespace {

using testing::SameBits;
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

void ExpectSame(const VarStat& s, const testing::RefVar& r) {
  EXPECT_EQ(static_cast<std::uint64_t>(s.NRows()), r.nRows);
  EXPECT_TRUE(SameBits(s.WeightSum(), r.weightSum)) << s.WeightSum() << " " << r.weightSum;
  EXPECT_TRUE(SameBits(s.RegWeightSum(), r.regWeightSum));
  EXPECT_TRUE(SameBits(s.Mean(), r.mean)) << s.Mean() << " " << r.mean;
  EXPECT_TRUE(SameBits(s.CSS(), r.css)) << s.CSS() << " " << r.css;
  EXPECT_TRUE(SameBits(s.Min(), r.min));
  EXPECT_TRUE(SameBits(s.Max(), r.max));
}

void ExpectSame(const PairStat& s, const testing::RefPair& r) {
  EXPECT_EQ(static_cast<std::uint64_t>(s.NRows()), r.nRows);
  EXPECT_TRUE(SameBits(s.WeightSum(), r.weightSum));
  EXPECT_TRUE(SameBits(s.RegWeightSum(), r.regWeightSum));
  EXPECT_TRUE(SameBits(s.Mean0(), r.mean0)) << s.Mean0() << " " << r.mean0;
  EXPECT_TRUE(SameBits(s.Mean1(), r.mean1));
  EXPECT_TRUE(SameBits(s.CSS0(), r.css0));
  EXPECT_TRUE(SameBits(s.CSS1(), r.css1));
  EXPECT_TRUE(SameBits(s.CSCP(), r.cscp)) << s.CSCP() << " " << r.cscp;
}

TEST(VarStat, EmptyStateAndWorkedExamples) {
  const VarStat empty;
  EXPECT_EQ(empty.NRows(), 0);
  EXPECT_EQ(empty.WeightSum(), 0.0);
  EXPECT_EQ(empty.Mean(), 0.0);
  EXPECT_EQ(empty.Min(), 1.79e308);
  EXPECT_EQ(empty.Max(), -1.79e308);

  WorkArea work;
  const double x[] = {2, 4}, w[] = {1, 3};
  VarStat s;
  s.Init(x, w, nullptr, work, 2);
  EXPECT_EQ(s.NRows(), 2);
  EXPECT_EQ(s.WeightSum(), 4.0);
  EXPECT_EQ(s.RegWeightSum(), 4.0);
  EXPECT_EQ(s.Mean(), 3.5);
  EXPECT_EQ(s.CSS(), 3.0);
  EXPECT_EQ(s.Min(), 2.0);
  EXPECT_EQ(s.Max(), 4.0);
  // The same figures as regression weights leave the frequency weight at the count.
  s.Init(x, nullptr, w, work, 2);
  EXPECT_EQ(s.WeightSum(), 2.0);
  EXPECT_EQ(s.RegWeightSum(), 4.0);
  EXPECT_EQ(s.Mean(), 3.5);
  EXPECT_EQ(s.CSS(), 3.0);
}

TEST(VarStat, UpdateJoinsHalvesByTheUpdateFormula) {
  WorkArea work;
  const double a[] = {1, 3}, b[] = {5, 7};
  VarStat s, t;
  s.Init(a, nullptr, nullptr, work, 2);
  t.Init(b, nullptr, nullptr, work, 2);
  s.Update(t);
  EXPECT_EQ(s.Mean(), 4.0);
  EXPECT_EQ(s.CSS(), 20.0);  // ((2*2*2 + 2) + 2*2*2) + 2, no rounding anywhere
  EXPECT_EQ(s.NRows(), 4);
  EXPECT_EQ(s.Min(), 1.0);
  EXPECT_EQ(s.Max(), 7.0);
  EXPECT_EQ(t.CSS(), 2.0);  // other is unchanged

  // Updating a record by itself doubles the sums and keeps the mean.
  s.Update(s);
  EXPECT_EQ(s.Mean(), 4.0);
  EXPECT_EQ(s.CSS(), 40.0);
  EXPECT_EQ(s.NRows(), 8);
  EXPECT_EQ(s.RegWeightSum(), 8.0);
}

TEST(VarStat, MissingZeroWeightAndNaNRules) {
  WorkArea work;
  work.missingCode = -99;
  const double allMissing[] = {-99, -99};
  VarStat s, gone;
  const double x[] = {1, 2, 6};
  s.Init(x, nullptr, nullptr, work, 3);
  const VarStatData before = s.Data();
  gone.Init(allMissing, nullptr, nullptr, work, 2);
  EXPECT_EQ(gone.NRows(), 0);
  EXPECT_EQ(gone.CSS(), 0.0);
  EXPECT_EQ(gone.Min(), MinInitial);
  EXPECT_EQ(gone.Max(), MaxInitial);
  s.Update(gone);
  EXPECT_EQ(std::memcmp(&before, &s.Data(), sizeof before), 0);

  // Rows with zero total weight (constant, so their own mean is no 0/0): the
  // mean and sums stay, the rows count, the extremes join.
  const double low[] = {-5}, high[] = {50, 50}, zeros[] = {0, 0};
  VarStat z;
  z.Init(low, zeros, nullptr, work, 1);
  s.Update(z);
  z.Init(high, zeros, nullptr, work, 2);
  EXPECT_EQ(z.NRows(), 2);
  s.Update(z);
  EXPECT_EQ(s.Mean(), before.mean);
  EXPECT_EQ(s.CSS(), before.css);
  EXPECT_EQ(s.NRows(), 6);
  EXPECT_EQ(s.Min(), -5.0);
  EXPECT_EQ(s.Max(), 50.0);

  // A constant column is its own mean with any weights, even totalling zero.
  const double same[] = {0.1, 0.1, 0.1}, cancel[] = {1, -2, 1};
  z.Init(same, cancel, nullptr, work, 3);
  EXPECT_EQ(z.Mean(), 0.1);
  EXPECT_EQ(z.CSS(), 0.0);

  // NaN is a value, not missing; a NaN code drops nothing, not even -99.
  const double withNaN[] = {1, kNaN, -99};
  z.Init(withNaN, nullptr, nullptr, work, 3);
  EXPECT_EQ(z.NRows(), 2);
  EXPECT_TRUE(std::isnan(z.Mean()));
  EXPECT_TRUE(std::isnan(z.CSS()));
  work.missingCode = kNaN;
  z.Init(withNaN, nullptr, nullptr, work, 3);
  EXPECT_EQ(z.NRows(), 3);
}

TEST(PairStat, RowMissingInEitherCellIsDroppedForBoth) {
  WorkArea work;
  work.missingCode = -99;
  const double x0[] = {1, 2, 3, -99}, x1[] = {10, -99, 30, 40}, w[] = {1, 1, 3, 1};
  PairStat p;
  p.Init(x0, x1, w, nullptr, work, 4);
  EXPECT_EQ(p.NRows(), 2);
  EXPECT_EQ(p.WeightSum(), 4.0);
  EXPECT_EQ(p.Mean0(), 2.5);   // (1 + 3*3) / 4: row 1 is gone for x0 too
  EXPECT_EQ(p.Mean1(), 25.0);
  EXPECT_EQ(p.CSS0(), 3.0);
  EXPECT_EQ(p.CSS1(), 300.0);
  EXPECT_EQ(p.CSCP(), 30.0);
}

TEST(CompressColumn, KeepsOrderAndOnlyTheColumnsThatExist) {
  std::vector<double> x{9}, w{9}, rw{9};
  const double cells[] = {-0.0, 1, 0.0, kNaN, 2}, weights[] = {1, 2, 3, 4, 5};
  // -0.0 compares equal to a code of 0.0, NaN compares equal to nothing.
  CompressColumn(cells, weights, nullptr, 0.0, 5, x, w, rw);
  ASSERT_EQ(x.size(), 3u);
  EXPECT_EQ(x[0], 1.0);
  EXPECT_TRUE(std::isnan(x[1]));
  EXPECT_EQ(x[2], 2.0);
  EXPECT_EQ(w, (std::vector<double>{2, 4, 5}));
  EXPECT_TRUE(rw.empty());
}

// Random columns with weights, regression weights, NaN cells and missing codes:
// every Init and every Update gives the bits of the written-out arithmetic.
TEST(StatRecords, BitsEqualWrittenOutArithmetic) {
  const unsigned seed = 20240611;
  SCOPED_TRACE(seed);
  std::mt19937_64 rng(seed);
  std::uniform_real_distribution<double> value(-3, 3), weight(0, 4);
  const double code = -99;
  WorkArea work;
  work.missingCode = code;
  for (int pattern = 0; pattern < 4; ++pattern) {
    const bool hasW = pattern & 1, hasRw = pattern & 2;
    VarStat var;
    PairStat pair;
    testing::RefVar refVar;
    testing::RefPair refPair;
    for (int batch = 0; batch < 6; ++batch) {
      const int n = batch * 7 + 1;
      std::vector<double> x0(n), x1(n), w(n), rw(n);
      for (int i = 0; i < n; ++i) {
        x0[i] = 1e3 + value(rng);
        x1[i] = value(rng);
        if (rng() % 5 == 0) x0[i] = code;
        if (rng() % 6 == 0) x1[i] = code;
        if (batch == 5 && i == 3) x1[i] = kNaN;
        w[i] = rng() % 7 == 0 ? 0.0 : weight(rng);
        rw[i] = weight(rng);
      }
      const double* pw = hasW ? w.data() : nullptr;
      const double* prw = hasRw ? rw.data() : nullptr;
      VarStat v;
      PairStat p;
      v.Init(x0.data(), pw, prw, work, n);
      p.Init(x0.data(), x1.data(), pw, prw, work, n);
      const testing::RefVar rv = testing::RefVarInit(x0.data(), pw, prw, code, n);
      const testing::RefPair rp = testing::RefPairInit(x0.data(), x1.data(), pw, prw, code, n);
      ExpectSame(v, rv);
      ExpectSame(p, rp);
      var.Update(v);
      pair.Update(p);
      testing::RefVarUpdate(refVar, rv);
      testing::RefPairUpdate(refPair, rp);
      ExpectSame(var, refVar);
      ExpectSame(pair, refPair);
    }
  }
}

TEST(StatRecords, HalvesAgreeWithWholeUpToRounding) {
  const unsigned seed = 77;
  SCOPED_TRACE(seed);
  std::mt19937_64 rng(seed);
  std::uniform_real_distribution<double> value(-1, 1), weight(0.5, 2);
  const int n = 101;
  std::vector<double> x(n), w(n);
  for (int i = 0; i < n; ++i) {
    x[i] = 1e6 + value(rng);
    w[i] = weight(rng);
  }
  WorkArea work;
  VarStat whole, first, second;
  whole.Init(x.data(), w.data(), nullptr, work, n);
  first.Init(x.data(), w.data(), nullptr, work, 40);
  second.Init(x.data() + 40, w.data() + 40, nullptr, work, n - 40);
  first.Update(second);
  EXPECT_NEAR(first.Mean(), whole.Mean(), 1e-15 * 1e6 * 4);
  // Merging moves means near 1e6 by small amounts: each carries an error of a
  // few units in the last place of 1e6, which the between-means terms scale by
  // about sqrt(CSS x weight).
  const double eps = std::numeric_limits<double>::epsilon();
  const double tolerance = 4 * std::sqrt(whole.CSS() * whole.RegWeightSum()) * eps * 1e6;
  EXPECT_NEAR(first.CSS(), whole.CSS(), tolerance);
  EXPECT_EQ(first.Min(), whole.Min());
  EXPECT_EQ(first.Max(), whole.Max());
  EXPECT_EQ(first.NRows(), whole.NRows());
}

TEST(StatRecords, ScratchKeepsItsStorageOnceWarm) {
  WorkArea work;
  std::vector<double> x(64, 1.5), w(64, 2), rw(64, 3);
  VarStat v;
  PairStat p;
  // Two calls warm the scratch: exchanging weights with regression weights in
  // the combined-weight step hands each vector the other's storage.
  for (int warm = 0; warm < 2; ++warm) {
    v.Init(x.data(), nullptr, rw.data(), work, 64);
    p.Init(x.data(), x.data(), w.data(), rw.data(), work, 64);
  }
  const double* x0 = work.x0.data();
  const double* x1 = work.x1.data();
  // Which of the two holds which store alternates; together they keep the same two.
  const auto weightStores = [&work] {
    return std::minmax(work.weights.data(), work.regWeights.data());
  };
  const auto stores = weightStores();
  for (int n : {64, 10, 63, 0, 64}) {
    v.Init(x.data(), nullptr, rw.data(), work, n);
    p.Init(x.data(), x.data(), w.data(), rw.data(), work, n);
    EXPECT_EQ(work.x0.data(), x0);
    EXPECT_EQ(work.x1.data(), x1);
    EXPECT_EQ(weightStores(), stores);
  }
}

TEST(StatRecords, HandlesOwnTheirRecords) {
  WorkArea work;
  const double x[] = {1, 2, 4};
  VarStat a;
  a.Init(x, nullptr, nullptr, work, 3);
  VarStat b(a);
  std::unique_ptr<VarStat> c(a.Copy());
  VarStat d;
  d = a;
  d = d;  // self-assignment keeps the record
  a.Init(x, nullptr, nullptr, work, 1);
  for (const VarStat* copy : {&b, c.get(), &d}) {
    EXPECT_EQ(copy->NRows(), 3);
    EXPECT_EQ(copy->Max(), 4.0);
  }
  EXPECT_EQ(a.NRows(), 1);

  VarStat moved(std::move(b));
  EXPECT_EQ(moved.NRows(), 3);
  b = a;  // a moved-from handle takes a new record when assigned to
  EXPECT_EQ(b.NRows(), 1);
  d = std::move(a);
  EXPECT_EQ(d.NRows(), 1);

  PairStat p(new PairStatData{2, 2, 2, 1, 1, 0, 0, 0});
  PairStat q;
  q = p;
  std::unique_ptr<PairStat> r(p.Copy());
  p.Data().nRows = 7;
  EXPECT_EQ(q.NRows(), 2);
  EXPECT_EQ(r->NRows(), 2);
}

}  // namespace
}  // namespace vorel
