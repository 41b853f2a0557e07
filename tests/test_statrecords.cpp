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
  EXPECT_TRUE(SameBits(s.WeightSum(), r.weightSum) && SameBits(s.RegWeightSum(), r.regWeightSum));
  EXPECT_TRUE(SameBits(s.Mean(), r.mean)) << s.Mean() << " " << r.mean;
  EXPECT_TRUE(SameBits(s.CSS(), r.css)) << s.CSS() << " " << r.css;
  EXPECT_TRUE(SameBits(s.Min(), r.min) && SameBits(s.Max(), r.max));
}

void ExpectSame(const PairStat& s, const testing::RefPair& r) {
  EXPECT_EQ(static_cast<std::uint64_t>(s.NRows()), r.nRows);
  EXPECT_TRUE(SameBits(s.WeightSum(), r.weightSum) && SameBits(s.RegWeightSum(), r.regWeightSum));
  EXPECT_TRUE(SameBits(s.Mean0(), r.mean0) && SameBits(s.Mean1(), r.mean1));
  EXPECT_TRUE(SameBits(s.CSS0(), r.css0) && SameBits(s.CSS1(), r.css1));
  EXPECT_TRUE(SameBits(s.CSCP(), r.cscp)) << s.CSCP() << " " << r.cscp;
}

TEST(VarStat, WorkedExamples) {
  const VarStat empty;
  EXPECT_EQ(empty.NRows(), 0);
  EXPECT_EQ(empty.Mean(), 0.0);
  EXPECT_EQ(empty.Min(), 1.79e308);
  EXPECT_EQ(empty.Max(), -1.79e308);

  WorkArea work;
  const double x[] = {2, 4}, w[] = {1, 3};
  VarStat s;
  s.Init(x, w, nullptr, work, 2);
  EXPECT_EQ(s.WeightSum(), 4.0);
  EXPECT_EQ(s.RegWeightSum(), 4.0);
  EXPECT_EQ(s.Mean(), 3.5);
  EXPECT_EQ(s.CSS(), 3.0);
  EXPECT_EQ(s.Min(), 2.0);
  EXPECT_EQ(s.Max(), 4.0);
  s.Init(x, nullptr, w, work, 2);  // the same figures as regression weights
  EXPECT_EQ(s.WeightSum(), 2.0);
  EXPECT_EQ(s.RegWeightSum(), 4.0);
  EXPECT_EQ(s.Mean(), 3.5);
  EXPECT_EQ(s.CSS(), 3.0);

  // Two halves 1, 3 and 5, 7: ((2*2*2 + 2) + 2*2*2) + 2 = 20, no rounding anywhere.
  const double a[] = {1, 3}, b[] = {5, 7};
  VarStat t;
  s.Init(a, nullptr, nullptr, work, 2);
  t.Init(b, nullptr, nullptr, work, 2);
  s.Update(t);
  EXPECT_EQ(s.Mean(), 4.0);
  EXPECT_EQ(s.CSS(), 20.0);
  EXPECT_EQ(s.NRows(), 4);
  s.Update(s);  // by itself: the sums double, the mean stays
  EXPECT_EQ(s.Mean(), 4.0);
  EXPECT_EQ(s.CSS(), 40.0);
  EXPECT_EQ(s.RegWeightSum(), 8.0);
}

TEST(VarStat, MissingZeroWeightAndNaNRules) {
  WorkArea work;
  work.missingCode = -99;
  const double x[] = {1, 2, 6}, allMissing[] = {-99, -99};
  VarStat s, z;
  s.Init(x, nullptr, nullptr, work, 3);
  const VarStatData before = s.Data();
  z.Init(allMissing, nullptr, nullptr, work, 2);
  EXPECT_EQ(z.NRows(), 0);
  EXPECT_EQ(z.Max(), MaxInitial);
  s.Update(z);
  EXPECT_EQ(std::memcmp(&before, &s.Data(), sizeof before), 0);

  // Rows of zero total weight (constant, so their own mean is no 0/0): mean
  // and sums stay, the rows count, the extremes join.
  const double low[] = {-5}, high[] = {50, 50}, zeros[] = {0, 0};
  z.Init(low, zeros, nullptr, work, 1);
  s.Update(z);
  z.Init(high, zeros, nullptr, work, 2);
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
  EXPECT_TRUE(std::isnan(z.Mean()) && std::isnan(z.CSS()));
  work.missingCode = kNaN;
  z.Init(withNaN, nullptr, nullptr, work, 3);
  EXPECT_EQ(z.NRows(), 3);
  // -0.0 compares equal to a code of 0.0.
  const double zeroes[] = {-0.0, 0.0, 1};
  work.missingCode = 0.0;
  z.Init(zeroes, nullptr, nullptr, work, 3);
  EXPECT_EQ(z.NRows(), 1);
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
        x0[i] = rng() % 5 == 0 ? code : 1e3 + value(rng);
        x1[i] = rng() % 6 == 0 ? code : value(rng);
        w[i] = rng() % 7 == 0 ? 0.0 : weight(rng);
        rw[i] = weight(rng);
      }
      if (batch == 5) x1[3] = kNaN;
      if (batch == 3) x0[0] = kNaN;  // a NaN minimum and maximum, replaced by the next batch
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

TEST(StatRecords, ScratchKeepsItsStorageOnceWarm) {
  WorkArea work;
  std::vector<double> x(64, 1.5), w(64, 2), rw(64, 3);
  VarStat v;
  PairStat p;
  const auto initBoth = [&](int n) {
    v.Init(x.data(), nullptr, rw.data(), work, n);
    p.Init(x.data(), x.data(), w.data(), rw.data(), work, n);
  };
  // Two calls warm the scratch: forming combined weights from regression
  // weights alone exchanges the two weight vectors, storage and all.
  initBoth(64);
  initBoth(64);
  const double* x0 = work.x0.data();
  const double* x1 = work.x1.data();
  const auto weightStores = [&] {
    return std::minmax({work.weights.data(), work.regWeights.data()});
  };
  const auto stores = weightStores();
  for (int n : {64, 10, 63, 0, 64}) {
    initBoth(n);
    EXPECT_TRUE(work.x0.data() == x0 && work.x1.data() == x1);
    EXPECT_EQ(weightStores(), stores);
  }
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

  PairStat p(new PairStatData{2, 2, 2, 1, 1, 0, 0, 0});
  PairStat q;
  q = p;
  std::unique_ptr<PairStat> r(p.Copy());
  p.Data().nRows = 7;
  EXPECT_EQ(q.NRows() + r->NRows(), 4);
}

}  // namespace
}  // namespace vorel
