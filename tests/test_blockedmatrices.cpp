// The matrices that run on the blocked kernels, at every kernel level, against
// their formulas written out as plain loops: wide blocks (past the narrow
// kernel's eight columns and the tile edges), narrow ones, weights and
// regression weights, several chunks of rows. One batch each, so every figure
// is defined to the bit.
#include <vorel/DiscriminantMatrix.h>
#include <vorel/DscIndividualMatrix.h>
#include <vorel/databatch.h>
#include <vorel/databatchbygroup.h>
#include <vorel/matrixlistwise.h>
#include <vorel/matrixpairwise.h>
#include <vorel/nsmatrixlistwise.h>
#include <vorel/nsmatrixpairwise.h>
#include <vorel/smatrixlistwise.h>
#include <vorel/smatrixpairwise.h>
#include <vorel/statrecords.h>

#include <cmath>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "crossproducts.h"
#include "test_support.h"

namespace vorel {
namespace {

using testing::SameBits;

constexpr unsigned kGroups = 3;

// Rows of p cells with weights, regression weights and groups. Cells of many
// magnitudes with signed zeros, subnormals, and columns whose first rows
// repeat (the leading run of the stable mean).
struct Rows {
  int p = 0, n = 0;
  std::vector<std::vector<double>> x;  // x[c][i]
  std::vector<double> w, rw;
  std::vector<unsigned> g;

  Rows(int columns, int rows, unsigned seed) : p(columns), n(rows) {
    std::mt19937_64 rng(seed);
    std::normal_distribution<double> normal(0.0, 1.0);
    std::uniform_int_distribution<int> kind(0, 99), scale(-12, 12);
    std::uniform_real_distribution<double> weight(0.25, 3.0);
    x.assign(columns, std::vector<double>(rows));
    for (int c = 0; c < p; ++c)
      for (int i = 0; i < n; ++i) {
        double v = std::ldexp(normal(rng), scale(rng)) + 0.5 * c;
        switch (kind(rng)) {
          case 0:
            v = -0.0;
            break;
          case 1:
            v = 3e-312;
            break;
          default:
            break;
        }
        x[c][i] = i < c % 4 ? 1.75 : v;
      }
    for (int i = 0; i < n; ++i) {
      w.push_back(i % 37 == 5 ? 0.0 : weight(rng));
      rw.push_back(weight(rng));
      g.push_back(static_cast<unsigned>(rng() % kGroups));
    }
  }

  DataBatch Batch(bool withRegWeights) const {
    double wt = 0, rwt = 0;
    unsigned gt = 0;
    DataBatch batch(static_cast<unsigned>(p), static_cast<unsigned>(n), &wt,
                    withRegWeights ? &rwt : nullptr, &gt);
    std::vector<double> row(p);
    for (int i = 0; i < n; ++i) {
      for (int c = 0; c < p; ++c)
        row[c] = x[c][i];
      wt = w[i];
      rwt = rw[i];
      gt = g[i];
      batch.AddRow(row.data());
    }
    return batch;
  }
};

double PlainCell(const std::vector<double>& a, const std::vector<double>& b,
                 const std::vector<double>& w) {
  double sum = 0.0;
  for (std::size_t i = 0; i < a.size(); ++i)
    sum = sum + (w[i] * a[i]) * b[i];
  return sum;
}

// What a listwise class gives for columns [c0, c2) of one batch, by the
// plain loops: combined weights, stable means, extremes, centred columns.
struct Listwise {
  std::vector<double> means, mins, maxs;
  std::vector<std::vector<double>> centred;
  std::vector<double> v;  // combined weights
  double regWeightSum = 0.0;

  Listwise(const Rows& r, int c0, int c2) {
    for (int i = 0; i < r.n; ++i)
      v.push_back(r.w[i] * r.rw[i]);
    for (double vi : v)
      regWeightSum = regWeightSum + vi;
    for (int c = c0; c < c2; ++c) {
      const std::vector<double>& x = r.x[c];
      double run = 0.0, rest = 0.0;
      int e = 0;
      while (e < r.n && x[e] == x[0])
        run = run + v[e++];
      for (int i = e; i < r.n; ++i)
        rest = rest + x[i] * v[i];
      const double mean = e == r.n ? x[0] : (rest + x[0] * run) / regWeightSum;
      double lo = x[0], hi = x[0];
      std::vector<double> cx(x);
      for (int i = 0; i < r.n; ++i) {
        if (x[i] < lo) lo = x[i];
        if (x[i] > hi) hi = x[i];
        cx[i] = x[i] - mean;
      }
      means.push_back(mean);
      mins.push_back(lo);
      maxs.push_back(hi);
      centred.push_back(cx);
    }
  }
  double Cell(int a, int b) const { return PlainCell(centred[a], centred[b], v); }
};

std::string LevelName(const ::testing::TestParamInfo<KernelLevel>& level) {
  return KernelLevelName(level.param);
}

class BlockedMatrices : public ::testing::TestWithParam<KernelLevel> {
 protected:
  void SetUp() override {
    if (!SetKernelLevel(GetParam()))
      GTEST_SKIP() << "this CPU (or build) has no " << KernelLevelName(GetParam()) << " kernels";
  }
  void TearDown() override { SetKernelLevel(BestKernelLevel()); }
};

TEST_P(BlockedMatrices, ListwiseClassesMatchTheirFormulas) {
  for (int p : {6, 13, 29}) {
    const int n = 701;
    SCOPED_TRACE(::testing::Message() << "seed " << p << ", p " << p);
    const Rows rows(p, n, static_cast<unsigned>(p));

    {  // the whole table, with its batch centred in place
      const Listwise want(rows, 0, p);
      DataBatch batch = rows.Batch(true);
      MatrixListwise m;
      m += batch;
      for (int c = 0; c < p; ++c) {
        EXPECT_TRUE(SameBits(m.Mean(c), want.means[c])) << "mean " << c;
        for (int k = 0; k <= c; ++k)
          EXPECT_TRUE(SameBits(m.CCP(c, k), want.Cell(c, k))) << c << "," << k;
        for (int i = 0; i < n; ++i)
          ASSERT_TRUE(SameBits(batch.Column(c)[i], want.centred[c][i])) << c << "," << i;
      }
    }
    {  // a symmetric block that leaves a column on either side
      const Listwise want(rows, 1, p - 1);
      DataBatch batch = rows.Batch(true);
      SMatrixListwise m(1, p - 1);
      m += batch;
      for (int c = 1; c < p - 1; ++c) {
        EXPECT_TRUE(SameBits(m.Mean(c), want.means[c - 1])) << "mean " << c;
        EXPECT_TRUE(SameBits(m.Min(c), want.mins[c - 1])) << "min " << c;
        EXPECT_TRUE(SameBits(m.Max(c), want.maxs[c - 1])) << "max " << c;
        for (int k = 1; k <= c; ++k)
          EXPECT_TRUE(SameBits(m.CCP(c, k), want.Cell(c - 1, k - 1))) << c << "," << k;
      }
      EXPECT_TRUE(SameBits(batch.Column(0)[n - 1], rows.x[0][n - 1]));  // outside: untouched
    }
    {  // a rectangle split off the vector boundaries
      const int col0 = 1, col1 = p / 2 + 1, col2 = p;
      const Listwise want(rows, col0, col2);
      DataBatch batch = rows.Batch(true);
      NSMatrixListwise m(col0, col1, col2);
      m += batch;
      for (int c = col0; c < col2; ++c) {
        EXPECT_TRUE(SameBits(m.Mean(c), want.means[c - col0])) << "mean " << c;
        EXPECT_TRUE(SameBits(m.CCP(c, c), want.Cell(c - col0, c - col0))) << "css " << c;
      }
      for (int r = col0; r < col1; ++r)
        for (int c = col1; c < col2; ++c)
          EXPECT_TRUE(SameBits(m.CCP(r, c), want.Cell(r - col0, c - col0))) << r << "," << c;
    }
  }
}

TEST_P(BlockedMatrices, DiscriminantTablesMatchTheirFormulas) {
  for (int p : {5, 7, 8, 13, 29}) {
    const int n = 611;
    SCOPED_TRACE(::testing::Message() << "seed " << p + 100 << ", p " << p);
    const Rows rows(p, n, static_cast<unsigned>(p + 100));

    DataBatch batch = rows.Batch(false);
    DiscriminantMatrix d(static_cast<int>(kGroups), p);
    d += batch;
    for (int i = 0; i < p; ++i)
      for (int j = 0; j < i; ++j)
        EXPECT_TRUE(SameBits(d.TSSP(i, j), PlainCell(rows.x[i], rows.x[j], rows.w)))
            << i << "," << j;

    // By group: each group's rows in the order they were added.
    double wt = 0;
    unsigned gt = 0;
    DataBatchByGroup grouped(static_cast<unsigned>(p), static_cast<unsigned>(n), &wt, nullptr, &gt,
                             kGroups);
    for (int i = 0; i < n; ++i) {
      for (int c = 0; c < p; ++c)
        grouped.Row(grouped.NRows())[c] = rows.x[c][i];
      wt = rows.w[i];
      gt = rows.g[i];
      grouped.AddRow();
    }
    grouped.SortByGroup();
    DiscIndividualMatrix di(static_cast<int>(kGroups), p);
    di += grouped;
    for (unsigned g = 0; g < kGroups; ++g) {
      std::vector<std::vector<double>> xs(p);
      std::vector<double> ws;
      for (int i = 0; i < n; ++i) {
        if (rows.g[i] != g) continue;
        for (int c = 0; c < p; ++c)
          xs[c].push_back(rows.x[c][i]);
        ws.push_back(rows.w[i]);
      }
      // The triangle, then the sums of w * x_j and the total weight.
      std::vector<double> want;
      for (int i = 0; i < p; ++i)
        for (int j = 0; j <= i; ++j)
          want.push_back(PlainCell(xs[i], xs[j], ws));
      double total = 0.0;
      for (int j = 0; j < p; ++j) {
        double sum = 0.0;
        for (std::size_t r = 0; r < ws.size(); ++r)
          sum = sum + xs[j][r] * ws[r];
        want.push_back(sum);
      }
      for (double wr : ws)
        total = total + wr;
      want.push_back(total);
      for (std::size_t k = 0; k < want.size(); ++k)
        EXPECT_TRUE(SameBits(di.TSSP(static_cast<int>(k), static_cast<int>(g)), want[k]))
            << "group " << g << ", entry " << k;
    }
  }
}

constexpr double kMissing = -99.0;

// Rows whose columns are partly complete: column c has missing cells when
// c % 3 == 1 (one at row 0 for some, one at the last row for others, a run in
// the middle for the rest), or with few only the last column has some.
Rows WithMissingCells(int p, int n, unsigned seed, bool few) {
  Rows rows(p, n, seed);
  for (int c = few ? p - 1 : 1; c < p; c += 3) {
    std::vector<double>& x = rows.x[c];
    switch (c % 4) {
      case 0:
        x[0] = kMissing;
        break;
      case 1:
        x[n - 1] = kMissing;
        break;
      default:
        for (int i = n / 3; i < n / 3 + 9; ++i)
          x[i] = kMissing;
    }
  }
  return rows;
}

bool SameRecord(const VarStatData& a, const VarStatData& b) {
  return a.nRows == b.nRows && SameBits(a.weightSum, b.weightSum)
         && SameBits(a.regWeightSum, b.regWeightSum) && SameBits(a.mean, b.mean)
         && SameBits(a.css, b.css) && SameBits(a.min, b.min) && SameBits(a.max, b.max);
}

bool SameRecord(const PairStatData& a, const PairStatData& b) {
  return a.nRows == b.nRows && SameBits(a.weightSum, b.weightSum)
         && SameBits(a.regWeightSum, b.regWeightSum) && SameBits(a.mean0, b.mean0)
         && SameBits(a.mean1, b.mean1) && SameBits(a.css0, b.css0) && SameBits(a.css1, b.css1)
         && SameBits(a.cscp, b.cscp);
}

// A new record updated by the per-column (per-pair) reduction of the batch:
// what a pairwise matrix holds after its first batch, by the compressing path.
VarStatData ByCompression(const DataBatch& b, int c) {
  WorkArea work;
  work.missingCode = kMissing;
  VarStat batch, record;
  batch.Init(b.Column(static_cast<unsigned>(c)), b.Weights(), b.RegWeights(), work,
             static_cast<int>(b.NRows()));
  record.Update(batch);
  return record.Data();
}

PairStatData ByCompression(const DataBatch& b, int first, int second) {
  WorkArea work;
  work.missingCode = kMissing;
  PairStat batch, record;
  batch.Init(b.Column(static_cast<unsigned>(first)), b.Column(static_cast<unsigned>(second)),
             b.Weights(), b.RegWeights(), work, static_cast<int>(b.NRows()));
  record.Update(batch);
  return record.Data();
}

// The pairwise classes take complete columns and pairs from the blocked pass
// and the others from the masked pass over all pairs or, when only a few pairs
// have missing cells (one column of 27), from their own reduction; every way
// the records are those of the per-column and per-pair path, bit for bit.
TEST_P(BlockedMatrices, PairwiseClassesMatchThePerPairPath) {
  for (int p : {5, 14, 27}) {
    for (int variant = 0; variant < 4; ++variant) {
      const bool regWeights = variant % 2 == 1, few = variant >= 2;
      const int n = 517;
      SCOPED_TRACE(::testing::Message() << "seed " << p + 200 << ", p " << p
                                        << (regWeights ? ", regression weights" : "")
                                        << (few ? ", one column with missing cells" : ""));
      const Rows rows = WithMissingCells(p, n, static_cast<unsigned>(p + 200), few);
      const DataBatch batch = rows.Batch(regWeights);

      DataBatch whole = batch;
      MatrixPairwise m(kMissing);
      m += whole;
      for (int c = 0; c < p; ++c) {
        const VarStatData want = ByCompression(batch, c);
        const VarStats got = m.Var(static_cast<unsigned>(c));
        EXPECT_TRUE(got.NRows() == static_cast<std::uint64_t>(want.nRows)
                    && SameBits(got.WeightSum(), want.weightSum)
                    && SameBits(got.RegWeightSum(), want.regWeightSum)
                    && SameBits(got.Mean(), want.mean) && SameBits(got.CSS(), want.css))
            << "column " << c;
        for (int k = 0; k < c; ++k) {
          const PairStatData pw = ByCompression(batch, c, k);
          const PairStats pg = m.Pair(static_cast<unsigned>(c), static_cast<unsigned>(k));
          EXPECT_TRUE(pg.NRows() == static_cast<std::uint64_t>(pw.nRows)
                      && SameBits(pg.WeightSum(), pw.weightSum)
                      && SameBits(pg.RegWeightSum(), pw.regWeightSum)
                      && SameBits(pg.Mean0(), pw.mean0) && SameBits(pg.Mean1(), pw.mean1)
                      && SameBits(pg.CSS0(), pw.css0) && SameBits(pg.CSS1(), pw.css1)
                      && SameBits(pg.CSCP(), pw.cscp))
              << "pair " << c << "," << k;
        }
      }

      DataBatch forS = batch;
      SMatrixPairwise s(kMissing, 1, p);
      s += forS;
      for (int c = 1; c < p; ++c) {
        EXPECT_TRUE(SameRecord(s.Var(c).Data(), ByCompression(batch, c))) << "column " << c;
        for (int k = 1; k < c; ++k)
          EXPECT_TRUE(SameRecord(s.Pair(c, k).Data(), ByCompression(batch, c, k)))
              << "pair " << c << "," << k;
      }

      const int col1 = p / 2;
      DataBatch forNS = batch;
      NSMatrixPairwise ns(kMissing, 0, col1, p);
      ns += forNS;
      for (int c = 0; c < p; ++c)
        EXPECT_TRUE(SameRecord(ns.Var(c).Data(), ByCompression(batch, c))) << "column " << c;
      for (int r = 0; r < col1; ++r)
        for (int c = col1; c < p; ++c)
          EXPECT_TRUE(SameRecord(ns.Pair(r, c).Data(), ByCompression(batch, r, c)))
              << "pair " << r << "," << c;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Levels, BlockedMatrices,
                         ::testing::Values(KernelLevel::Plain, KernelLevel::Avx2,
                                           KernelLevel::Avx512),
                         LevelName);

}  // namespace
}  // namespace vorel
