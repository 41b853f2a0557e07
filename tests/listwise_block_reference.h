// The listwise statistics written out as plain loops, for bit-exact tests of
// MatrixListwise, SMatrixListwise and NSMatrixListwise: a batch reduces as the
// pair record of every two of its columns (nothing is missing), and batches
// join by the two update formulas, term by term in their fixed order.
#pragma once

#include <cstdint>
#include <limits>
#include <vector>

#include "pairwise_reference.h"
#include "table_support.h"

namespace vorel::testing::listwise {

using tables::Table;

// Every column of a block from batch column col0 on, and for every ordered
// pair (a, b) of block positions cross[a][b] = sum (v * x_a) * x_b of the
// centred columns. nFirst = 0: a triangle; otherwise the first set's size.
// The S and NS stores each use the cells of the order they compute.
struct RefBlock {
  int col0 = 0;
  std::size_t nFirst = 0;
  double weightSum = 0.0, regWeightSum = 0.0;
  std::uint64_t nRows = 0;
  std::vector<double> means = {}, mins = {}, maxs = {};
  std::vector<std::vector<double>> cross = {};
};

// Rows [begin, end) of t in one batch, block columns [col0, col2).
inline RefBlock ReduceRows(const Table& t, std::size_t begin, std::size_t end, int col0, int col2,
                           std::size_t nFirst) {
  const double* w = t.w.empty() ? nullptr : &t.w[begin];
  const double* rw = t.rw.empty() ? nullptr : &t.rw[begin];
  std::vector<std::vector<double>> x;
  for (int c = col0; c < col2; ++c)
    x.push_back(t.Column(static_cast<unsigned>(c), begin, end));
  RefBlock b{col0, nFirst, 0.0, 0.0, end - begin};
  b.cross.assign(x.size(), std::vector<double>(x.size()));
  for (std::size_t a = 0; a < x.size(); ++a)
    for (std::size_t c = 0; c < x.size(); ++c) {
      const pairwise::RefRecord r = pairwise::RefInit(x[a].data(), x[c].data(), w, rw,
                                                      std::numeric_limits<double>::quiet_NaN(),
                                                      static_cast<int>(end - begin));
      b.cross[a][c] = r.cscp;
      if (a != c) continue;
      b.means.push_back(r.mean0);
      b.mins.push_back(r.min);
      b.maxs.push_back(r.max);
      b.weightSum = r.weightSum;
      b.regWeightSum = r.regWeightSum;
    }
  return b;
}

// t gathers d: an empty t takes d whole, a d whose weights total 0 is left
// out. A triangle takes the symmetric update of the lower triangle (diagonal
// included); otherwise the non-symmetric one: sums of squares on the
// diagonal, and the cells of first-set position r < nFirst with second-set
// position c >= nFirst.
inline void Merge(RefBlock& t, const RefBlock& d) {
  if (t.nRows == 0 || d.nRows == 0 || d.weightSum == 0.0) {
    if (t.nRows == 0) t = d;
    return;
  }
  const std::size_t nFirst = t.nFirst;
  const double a = t.regWeightSum, b = d.regWeightSum;
  const std::size_t n = t.means.size();
  std::vector<double> m(n);
  for (std::size_t i = 0; i < n; ++i) {
    const double s = pairwise::RefShift(t.means[i], a, d.means[i], b);
    m[i] = t.means[i] + s;
    if (nFirst == 0) {
      const double p = s * a;
      const double q = (m[i] - d.means[i]) * b;
      for (std::size_t j = 0; j <= i; ++j) {
        const double u = (m[j] - t.means[j]) * p + d.cross[i][j];
        const double v = (m[j] - d.means[j]) * q;
        t.cross[i][j] = t.cross[i][j] + (u + v);
      }
    } else {
      const double e = m[i] - d.means[i];
      t.cross[i][i] = t.cross[i][i] + (((s * s) * a + d.cross[i][i]) + (e * e) * b);
    }
  }
  for (std::size_t r = 0; r < nFirst; ++r) {
    const double p = (m[r] - t.means[r]) * a;
    const double q = (m[r] - d.means[r]) * b;
    for (std::size_t c = nFirst; c < n; ++c) {
      const double u = (m[c] - t.means[c]) * p + d.cross[r][c];
      const double v = (m[c] - d.means[c]) * q;
      t.cross[r][c] = t.cross[r][c] + (u + v);
    }
  }
  for (std::size_t k = 0; k < n; ++k) {
    if (d.maxs[k] > t.maxs[k]) t.maxs[k] = d.maxs[k];
    if (d.mins[k] < t.mins[k]) t.mins[k] = d.mins[k];
  }
  t.means = m;
  t.weightSum += d.weightSum;
  t.regWeightSum = a + b;
  t.nRows += d.nRows;
}

// Every figure of a listwise matrix against the reference, bit for bit, each
// cell read in both orders: the triangle, or the diagonal and the cells of a
// first-set column with a second-set one. Extremes where the matrix keeps them.
template <class Matrix>
void ExpectSameBits(const Matrix& m, const RefBlock& ref) {
  const int col0 = ref.col0;
  const std::size_t nFirst = ref.nFirst;
  ASSERT_EQ(static_cast<std::size_t>(m.NColumns()), ref.means.size());
  EXPECT_EQ(static_cast<std::uint64_t>(m.NRows()), ref.nRows);
  EXPECT_PRED2(SameBits, m.WeightSum(), ref.weightSum);
  EXPECT_PRED2(SameBits, m.RegWeightSum(), ref.regWeightSum);
  for (std::size_t i = 0; i < ref.means.size(); ++i) {
    const auto x = static_cast<int>(i) + col0;
    EXPECT_PRED2(SameBits, m.Mean(x), ref.means[i]) << "mean " << i;
    if constexpr (requires { m.Min(x); }) {
      EXPECT_PRED2(SameBits, m.Min(x), ref.mins[i]) << "min " << i;
      EXPECT_PRED2(SameBits, m.Max(x), ref.maxs[i]) << "max " << i;
    }
    for (std::size_t j = 0; j <= i; ++j) {
      const auto y = static_cast<int>(j) + col0;
      if (nFirst != 0 && i != j && !(j < nFirst && i >= nFirst)) continue;
      const double want = nFirst == 0 || i == j ? ref.cross[i][j] : ref.cross[j][i];
      EXPECT_PRED2(SameBits, m.CCP(x, y), want) << i << "," << j;
      EXPECT_PRED2(SameBits, m.CCP(y, x), want) << j << "," << i;
    }
  }
}

}  // namespace vorel::testing::listwise
