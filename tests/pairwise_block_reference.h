// Reference for the pairwise block matrices: which records a block holds,
// which column is a pair's first variable, table totals over every row and
// the merge rules, driven over the plain-loop records of pairwise_reference.h
// so that a block compares with the library bit for bit.
#pragma once

#include <vorel/databatch.h>
#include <vorel/statrecords.h>

#include <algorithm>
#include <cstddef>
#include <limits>
#include <random>
#include <utility>
#include <vector>

#include "pairwise_reference.h"
#include "test_support.h"

namespace vorel::testing::pairwiseblocks {

inline constexpr double kCode = -99.0;

// Rows of cells with a weight and a regression weight per row; batches carry
// either only when its flag says so.
struct Table {
  std::vector<std::vector<double>> rows;
  std::vector<double> w, rw;
  bool hasW = false, hasRW = false;
};

// Random cells, about one in five of them kCode, weights in [0.25, 4). With
// edges: a row missing everywhere, column 3 missing in rows 0-8 (whole batches
// of it, for small batches), a NaN in column 5, a zero and a negative weight.
inline Table RandomTable(unsigned nCols, int nRows, bool hasW, bool hasRW, bool edges) {
  std::mt19937 gen(20240611u);
  std::uniform_real_distribution<double> cell(-3.0, 5.0), weight(0.25, 4.0), coin(0.0, 1.0);
  Table t{{}, {}, {}, hasW, hasRW};
  for (int r = 0; r < nRows; ++r) {
    t.rows.emplace_back(nCols);
    for (double& x : t.rows.back())
      x = coin(gen) < 0.2 ? kCode : cell(gen);
    t.w.push_back(weight(gen));
    t.rw.push_back(weight(gen));
  }
  if (edges) {
    std::fill(t.rows[2].begin(), t.rows[2].end(), kCode);
    for (int r = 0; r < 9; ++r)
      t.rows[r][3] = kCode;
    t.rows[17][5] = std::numeric_limits<double>::quiet_NaN();
    t.w[6] = 0.0;
    t.w[11] = -1.5;
  }
  return t;
}

// The table cut into batches of batchRows rows (the last may be shorter).
struct Batches {
  double w = 0, rw = 0;  // the cells the batches read weights from while filled
  std::vector<DataBatch> list;
  Batches(const Table& t, std::size_t batchRows) {
    const auto nCols = static_cast<unsigned>(t.rows[0].size());
    for (std::size_t r = 0; r < t.rows.size(); ++r) {
      if (r % batchRows == 0)
        list.emplace_back(nCols, static_cast<unsigned>(batchRows), t.hasW ? &w : nullptr,
                          t.hasRW ? &rw : nullptr, nullptr);
      w = t.w[r];
      rw = t.rw[r];
      list.back().AddRow(t.rows[r].data());
    }
  }
};

// A block: its columns, its pairs as (first variable, second variable), the
// totals over every row and one record per column and per pair.
struct RefBlock {
  double code = kCode;
  std::vector<int> cols;
  std::vector<std::pair<int, int>> pairs;
  double weightSum = 0, regWeightSum = 0;
  int nRows = 0;
  bool filled = false;
  std::vector<RefVar> vars;
  std::vector<RefPair> prs;

  void Add(const DataBatch& b) {
    const int n = static_cast<int>(b.NRows());
    const double *w = b.Weights(), *rw = b.RegWeights();
    if (n == 0) return;
    filled = true;
    vars.resize(cols.size());
    prs.resize(pairs.size());
    nRows += n;
    double batchW = 0.0, batchRW = 0.0;  // each batch is totalled on its own, then added
    for (int i = 0; i < n; ++i)
      batchW += w ? w[i] : 1.0;
    for (int i = 0; i < n && rw; ++i)
      batchRW += w ? rw[i] * w[i] : rw[i];
    weightSum += batchW;
    regWeightSum = rw ? regWeightSum + batchRW : weightSum;
    for (std::size_t i = 0; i < cols.size(); ++i)
      RefVarUpdate(vars[i], RefVarInit(b.Column(cols[i]), w, rw, code, n));
    for (std::size_t i = 0; i < pairs.size(); ++i)
      RefPairUpdate(
          prs[i], RefPairInit(b.Column(pairs[i].first), b.Column(pairs[i].second), w, rw, code, n));
  }
  // An empty block takes d whole; a filled one ignores a d whose weights total 0.
  void Merge(const RefBlock& d) {
    if (d.nRows == 0) return;
    if (!filled) {
      *this = d;
      return;
    }
    if (d.weightSum == 0.0) return;
    for (std::size_t i = 0; i < vars.size(); ++i)
      RefVarUpdate(vars[i], d.vars[i]);
    for (std::size_t i = 0; i < prs.size(); ++i)
      RefPairUpdate(prs[i], d.prs[i]);
    weightSum += d.weightSum;
    regWeightSum += d.regWeightSum;
    nRows += d.nRows;
  }
};

// The triangle of [col0, col2), the later column of a pair first.
inline RefBlock SBlock(double code, int col0, int col2) {
  RefBlock b;
  b.code = code;
  for (int c = col0; c < col2; ++c) {
    b.cols.push_back(c);
    for (int r = col0; r < c; ++r)
      b.pairs.emplace_back(c, r);
  }
  return b;
}

// The rectangle [col0, col1) x [col1, col2), the first set's column first.
inline RefBlock NSBlock(double code, int col0, int col1, int col2) {
  RefBlock b;
  b.code = code;
  for (int c = col0; c < col2; ++c)
    b.cols.push_back(c);
  for (int r = col0; r < col1; ++r)
    for (int c = col1; c < col2; ++c)
      b.pairs.emplace_back(r, c);
  return b;
}

// A record's fields in the order of their accessors, the row count first.
inline std::vector<double> Fields(const VarStat& v) {
  return {1.0 * v.NRows(), v.WeightSum(), v.RegWeightSum(), v.Mean(), v.CSS(), v.Min(), v.Max()};
}
inline std::vector<double> Fields(const RefVar& v) {
  return {static_cast<double>(v.nRows), v.weightSum, v.regWeightSum, v.mean, v.css, v.min, v.max};
}
inline std::vector<double> Fields(const PairStat& p) {
  return {1.0 * p.NRows(), p.WeightSum(), p.RegWeightSum(), p.Mean0(),
          p.Mean1(),       p.CSS0(),      p.CSS1(),         p.CSCP()};
}
inline std::vector<double> Fields(const RefPair& p) {
  return {static_cast<double>(p.nRows),
          p.weightSum,
          p.regWeightSum,
          p.mean0,
          p.mean1,
          p.css0,
          p.css1,
          p.cscp};
}
inline bool SameFields(const std::vector<double>& a, const std::vector<double>& b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(), SameBits);
}

// Every total and record of an SMatrixPairwise or NSMatrixPairwise against the
// reference, bit for bit; Pair(first, second) and Pair(second, first) must both
// give the one record whose first variable is `first`.
template <class Matrix>
void ExpectSameBlock(const Matrix& m, const RefBlock& ref) {
  EXPECT_EQ(m.NRows(), ref.nRows);
  EXPECT_PRED2(SameBits, m.WeightSum(), ref.weightSum);
  EXPECT_PRED2(SameBits, m.RegWeightSum(), ref.regWeightSum);
  ASSERT_EQ(m.NColumns(), ref.filled ? static_cast<int>(ref.cols.size()) : 0);
  if (!(0. < ref.weightSum)) return;
  for (std::size_t i = 0; i < ref.cols.size(); ++i)
    EXPECT_PRED2(SameFields, Fields(m.Var(ref.cols[i])), Fields(ref.vars[i])) << ref.cols[i];
  for (std::size_t i = 0; i < ref.pairs.size(); ++i) {
    const auto [first, second] = ref.pairs[i];
    EXPECT_PRED2(SameFields, Fields(m.Pair(first, second)), Fields(ref.prs[i])) << first;
    EXPECT_EQ(&m.Pair(first, second), &m.Pair(second, first));
  }
}

}  // namespace vorel::testing::pairwiseblocks
