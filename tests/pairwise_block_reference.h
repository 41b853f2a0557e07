// Reference for the pairwise block matrices: which records a block holds,
// which column is a pair's first variable, table totals over every row, and
// the merge rules, driven over the plain-loop records of pairwise_reference.h
// so that a block compares with the library bit for bit.
#pragma once

#include <vorel/databatch.h>
#include <vorel/statrecords.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <random>
#include <utility>
#include <vector>

#include "pairwise_reference.h"
#include "test_support.h"

namespace vorel::testing::pairwiseblocks {

// Rows of cells with a weight and a regression weight per row; batches carry
// either only when its flag says so.
struct Table {
  std::vector<std::vector<double>> rows;
  std::vector<double> w, rw;
  bool hasW = false, hasRW = false;
  unsigned NCols() const { return static_cast<unsigned>(rows.front().size()); }
};

// Random cells, about one in five of them the missing code; weights in [0.25, 4).
inline Table RandomTable(unsigned nCols, int nRows, unsigned seed, bool hasW, bool hasRW,
                         double code) {
  std::mt19937 gen(seed);
  std::uniform_real_distribution<double> cell(-3.0, 5.0), weight(0.25, 4.0), coin(0.0, 1.0);
  Table t{{}, {}, {}, hasW, hasRW};
  for (int r = 0; r < nRows; ++r) {
    std::vector<double> row(nCols);
    for (double& x : row) x = coin(gen) < 0.2 ? code : cell(gen);
    t.rows.push_back(row);
    t.w.push_back(weight(gen));
    t.rw.push_back(weight(gen));
  }
  return t;
}

inline constexpr double kEdgeCode = -99.0;

// 7 columns with missing codes, a row missing everywhere, column 3 missing
// in all of rows 0-8 (whole batches of it, for small batches), a NaN cell in
// column 5 and a zero and a negative weight.
inline Table EdgeTable(bool hasW, bool hasRW, int nRows = 41) {
  Table t = RandomTable(7, nRows, 20240611u, hasW, hasRW, kEdgeCode);
  for (double& x : t.rows[2]) x = kEdgeCode;
  for (int r = 0; r < 9; ++r) t.rows[r][3] = kEdgeCode;
  t.rows[17][5] = std::numeric_limits<double>::quiet_NaN();
  t.w[6] = 0.0;
  t.w[11] = -1.5;
  return t;
}

// Appends rows [begin, end) of t; w and rw are the cells the batch reads its weights from.
inline void AppendRows(DataBatch& batch, const Table& t, std::size_t begin, std::size_t end,
                       double& w, double& rw) {
  for (std::size_t r = begin; r < end; ++r) {
    w = t.w[r];
    rw = t.rw[r];
    batch.AddRow(t.rows[r].data());
  }
}

// The table cut into batches of batchRows rows (the last may be shorter).
struct Batches {
  double w = 0, rw = 0;  // read by the batches while they are filled
  std::vector<DataBatch> list;
  Batches(const Table& t, std::size_t batchRows) {
    for (std::size_t b = 0; b < t.rows.size(); b += batchRows) {
      list.emplace_back(t.NCols(), static_cast<unsigned>(batchRows), t.hasW ? &w : nullptr,
                        t.hasRW ? &rw : nullptr, nullptr);
      AppendRows(list.back(), t, b, std::min(b + batchRows, t.rows.size()), w, rw);
    }
  }
  Batches(const Batches&) = delete;
};

// A block: its columns, its pairs as (first variable, second variable), the
// totals over every row, and one record per column and per pair.
struct RefBlock {
  double code = 0;
  std::vector<int> cols;
  std::vector<std::pair<int, int>> pairs;
  double weightSum = 0, regWeightSum = 0;
  int nRows = 0;
  bool filled = false;
  std::vector<RefVar> vars;
  std::vector<RefPair> prs;

  void Add(const DataBatch& b) {
    const int n = static_cast<int>(b.NRows());
    if (n == 0) return;
    filled = true;
    vars.resize(cols.size());
    prs.resize(pairs.size());
    nRows += n;
    const double *w = b.Weights(), *rw = b.RegWeights();
    // Each batch is totalled on its own, then added.
    double batchW = 0.0, batchRW = 0.0;
    for (int i = 0; i < n; ++i) batchW += w ? w[i] : 1.0;
    for (int i = 0; i < n && rw; ++i) batchRW += w ? rw[i] * w[i] : rw[i];
    weightSum += batchW;
    regWeightSum = rw ? regWeightSum + batchRW : weightSum;
    for (std::size_t i = 0; i < cols.size(); ++i)
      RefVarUpdate(vars[i], RefVarInit(b.Column(cols[i]), w, rw, code, n));
    for (std::size_t i = 0; i < pairs.size(); ++i) {
      const auto [first, second] = pairs[i];
      RefPairUpdate(prs[i], RefPairInit(b.Column(first), b.Column(second), w, rw, code, n));
    }
  }
  // An empty block takes d whole; a filled one ignores a d whose weights total 0.
  void Merge(const RefBlock& d) {
    if (d.nRows == 0) return;
    if (!filled) {
      *this = d;
      return;
    }
    if (d.weightSum == 0.0) return;
    for (std::size_t i = 0; i < vars.size(); ++i) RefVarUpdate(vars[i], d.vars[i]);
    for (std::size_t i = 0; i < prs.size(); ++i) RefPairUpdate(prs[i], d.prs[i]);
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
    for (int r = col0; r < c; ++r) b.pairs.emplace_back(c, r);
  }
  return b;
}

// The rectangle [col0, col1) x [col1, col2), the first set's column first.
inline RefBlock NSBlock(double code, int col0, int col1, int col2) {
  RefBlock b;
  b.code = code;
  for (int c = col0; c < col2; ++c) b.cols.push_back(c);
  for (int r = col0; r < col1; ++r)
    for (int c = col1; c < col2; ++c) b.pairs.emplace_back(r, c);
  return b;
}

inline void ExpectSameVar(const VarStat& v, const RefVar& r) {
  EXPECT_EQ(static_cast<std::uint64_t>(v.NRows()), r.nRows);
  EXPECT_PRED2(SameBits, v.WeightSum(), r.weightSum);
  EXPECT_PRED2(SameBits, v.RegWeightSum(), r.regWeightSum);
  EXPECT_PRED2(SameBits, v.Mean(), r.mean);
  EXPECT_PRED2(SameBits, v.CSS(), r.css);
  EXPECT_PRED2(SameBits, v.Min(), r.min);
  EXPECT_PRED2(SameBits, v.Max(), r.max);
}

inline void ExpectSamePair(const PairStat& p, const RefPair& r) {
  EXPECT_EQ(static_cast<std::uint64_t>(p.NRows()), r.nRows);
  EXPECT_PRED2(SameBits, p.WeightSum(), r.weightSum);
  EXPECT_PRED2(SameBits, p.RegWeightSum(), r.regWeightSum);
  EXPECT_PRED2(SameBits, p.Mean0(), r.mean0);
  EXPECT_PRED2(SameBits, p.Mean1(), r.mean1);
  EXPECT_PRED2(SameBits, p.CSS0(), r.css0);
  EXPECT_PRED2(SameBits, p.CSS1(), r.css1);
  EXPECT_PRED2(SameBits, p.CSCP(), r.cscp);
}

// Every total and record of an SMatrixPairwise or NSMatrixPairwise against
// the reference, bit for bit; Pair(first, second) and Pair(second, first) must
// both give the one record whose first variable is `first`.
template <class Matrix>
void ExpectSameBlock(const Matrix& m, const RefBlock& ref) {
  EXPECT_EQ(m.NRows(), ref.nRows);
  EXPECT_PRED2(SameBits, m.WeightSum(), ref.weightSum);
  EXPECT_PRED2(SameBits, m.RegWeightSum(), ref.regWeightSum);
  ASSERT_EQ(m.NColumns(), ref.filled ? static_cast<int>(ref.cols.size()) : 0);
  if (!(0. < ref.weightSum)) return;
  for (std::size_t i = 0; i < ref.cols.size(); ++i) {
    SCOPED_TRACE(::testing::Message() << "column " << ref.cols[i]);
    ExpectSameVar(m.Var(ref.cols[i]), ref.vars[i]);
  }
  for (std::size_t i = 0; i < ref.pairs.size(); ++i) {
    const auto [first, second] = ref.pairs[i];
    SCOPED_TRACE(::testing::Message() << "pair " << first << ", " << second);
    ExpectSamePair(m.Pair(first, second), ref.prs[i]);
    EXPECT_EQ(&m.Pair(first, second), &m.Pair(second, first));
  }
}

}  // namespace vorel::testing::pairwiseblocks
