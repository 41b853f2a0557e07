#include <vorel/databatch.h>
#include <vorel/databatchbygroup.h>
#include <vorel/initialextremes.h>
#include <vorel/nsmatrixlistwise.h>
#include <vorel/smatrixlistwise.h>

#include <algorithm>
#include <cmath>
#include <tuple>
#include <vector>

#include "listwise_block_reference.h"
#include "test_support.h"

namespace vorel {
namespace {

using testing::BatchOf;
using testing::RandomTable;
using testing::RefBlock;
using testing::SameBits;
using testing::Table;
using testing::Weighting;

constexpr const char* kSource = "backend/vorel/nsmatrixlistwise";

void ExpectSameBits(const NSMatrixListwise& m, const RefBlock& ref) {
  const int col0 = m.Col0(), col1 = m.Col1();
  ASSERT_EQ(m.NColumns(), static_cast<int>(ref.means.size()));
  EXPECT_EQ(m.NRows(), ref.nRows);
  EXPECT_TRUE(SameBits(m.WeightSum(), ref.weightSum));
  EXPECT_TRUE(SameBits(m.RegWeightSum(), ref.regWeightSum));
  for (int k = 0; k < m.NColumns(); ++k) {
    const int c = col0 + k;
    EXPECT_TRUE(SameBits(m.Mean(c), ref.means[k])) << "mean " << c;
    EXPECT_TRUE(SameBits(m.Min(c), ref.mins[k])) << "min " << c;
    EXPECT_TRUE(SameBits(m.Max(c), ref.maxs[k])) << "max " << c;
    EXPECT_TRUE(SameBits(m.CCP(c, c), ref.cross[k][k])) << "css " << c;
  }
  const int nFirst = col1 - col0;
  for (int r = 0; r < nFirst; ++r)
    for (int k = nFirst; k < m.NColumns(); ++k) {
      EXPECT_TRUE(SameBits(m.CCP(col0 + r, col0 + k), ref.cross[r][k])) << r << "," << k;
      EXPECT_TRUE(SameBits(m.CCP(col0 + k, col0 + r), ref.cross[r][k]));
    }
}

RefBlock AddInBatches(NSMatrixListwise& m, const Table& t, std::size_t first, std::size_t last,
                      std::size_t batchRows) {
  RefBlock ref;
  BatchOf batch(t, 0, 0, batchRows);
  const auto nFirst = static_cast<std::size_t>(m.Col1() - m.Col0());
  for (std::size_t start = first; start < last; start += batchRows) {
    const std::size_t end = std::min(last, start + batchRows);
    batch.Fill(t, start, end);
    m += batch.batch;
    const RefBlock part = testing::ReduceRows(t, start, end, m.Col0(), m.Col2());
    if (start == first) {
      ref = part;
    } else {
      testing::MergeRectangle(ref, part, nFirst);
    }
  }
  return ref;
}

class NSMatrixListwiseBits
    : public ::testing::TestWithParam<std::tuple<Weighting, std::size_t>> {};

// Any batch size and any split between two matrices gives exactly the
// digits of the written-out reduction and update formula in the same order.
TEST_P(NSMatrixListwiseBits, BatchesAndMergesFollowTheReferenceBitForBit) {
  const auto [weighting, batchRows] = GetParam();
  const unsigned seed = 9103u + static_cast<unsigned>(weighting) * 37u
                        + static_cast<unsigned>(batchRows);
  SCOPED_TRACE(::testing::Message() << "seed " << seed);
  const Table t = RandomTable(seed, 53, 9, weighting, false);

  // Sets of 2 and 5 columns; batch columns 0 and 8 lie outside the block.
  NSMatrixListwise whole(1, 3, 8);
  ExpectSameBits(whole, AddInBatches(whole, t, 0, 53, batchRows));

  NSMatrixListwise first(1, 3, 8), second(1, 3, 8);
  RefBlock ref = AddInBatches(first, t, 0, 30, batchRows);
  const RefBlock other = AddInBatches(second, t, 30, 53, batchRows);
  MatrixBase& shared = first;
  shared += second;
  testing::MergeRectangle(ref, other, 2);
  ExpectSameBits(first, ref);
  EXPECT_EQ(second.NRows(), 23);
}

INSTANTIATE_TEST_SUITE_P(Layouts, NSMatrixListwiseBits,
                         ::testing::Combine(::testing::Values(Weighting::kNone,
                                                              Weighting::kWeights,
                                                              Weighting::kRegWeights,
                                                              Weighting::kBoth),
                                            ::testing::Values(1u, 5u, 53u)));

TEST(NSMatrixListwise, ShapeAndCellsOfTheRectangle) {
  // NSMatrixListwise(1, 3, 6) over 6 columns: sets {1, 2} and {3, 4, 5}.
  Table t = RandomTable(12, 7, 6, Weighting::kNone, false);
  t.columns[5][4] = 1e7;
  NSMatrixListwise m(1, 3, 6);
  EXPECT_EQ(m.NColumns(), 0);
  EXPECT_EQ(m.Max(5), MaxInitial);
  BatchOf batch(t, 0, 7, 7);
  m += batch.batch;
  EXPECT_EQ(m.NColumns(), 5);
  EXPECT_EQ(m.Col0(), 1);
  EXPECT_EQ(m.Col1(), 3);
  EXPECT_EQ(m.Col2(), 6);
  EXPECT_EQ(m.Max(5), 1e7);
  EXPECT_EQ(m.CCP(2, 4), m.CCP(4, 2));
  EXPECT_NE(m.CCP(2, 4), m.CCP(1, 4));
  // Column 1 of the table is constant: exact mean, zero sums.
  EXPECT_EQ(m.Mean(1), 0.1);
  EXPECT_EQ(m.CCP(1, 1), 0.0);
  EXPECT_EQ(m.CCP(1, 5), 0.0);
  EXPECT_VOREL_ASSERT(m.CCP(3, 4), "lo < _my->_col1 && hi >= _my->_col1", kSource);
  EXPECT_VOREL_ASSERT(m.CCP(2, 1), "lo < _my->_col1 && hi >= _my->_col1", kSource);
  EXPECT_VOREL_ASSERT(m.Mean(0), "c < _my->_col2 && c >= _my->_col0", kSource);
  EXPECT_VOREL_ASSERT(m.Min(6), "c < _my->_col2 && c >= _my->_col0", kSource);
  EXPECT_VOREL_ASSERT(m.Max(6), "c < _my->_col2 && c >= _my->_col0", kSource);
  EXPECT_VOREL_ASSERT(m.CCP(0, 3), "row < _my->_col2 && row >= _my->_col0", kSource);
  EXPECT_VOREL_ASSERT(m.CCP(3, 6), "col < _my->_col2 && col >= _my->_col0", kSource);

  // The smallest block: one cell and two sums of squares, against a direct sum.
  Table two;
  two.columns = {{1, 2, 4}, {3, 1, 2}};
  NSMatrixListwise pair(0, 1, 2);
  BatchOf small(two, 0, 3, 3);
  pair += small.batch;
  const double ma = 7.0 / 3.0, mb = 2.0;
  EXPECT_DOUBLE_EQ(pair.CCP(0, 0), (1 - ma) * (1 - ma) + (2 - ma) * (2 - ma) + (4 - ma) * (4 - ma));
  EXPECT_EQ(pair.CCP(1, 1), 2.0);
  EXPECT_DOUBLE_EQ(pair.CCP(1, 0), (1 - ma) * (3 - mb) + (2 - ma) * (1 - mb) + 0.0);
}

TEST(NSMatrixListwise, BoundsAreCheckedAtTheFirstBatch) {
  const Table t = RandomTable(6, 3, 6, Weighting::kNone, false);
  auto firstBatch = [&](NSMatrixListwise m) {
    BatchOf batch(t, 0, 3, 3);
    m += batch.batch;
  };
  EXPECT_VOREL_ASSERT(firstBatch(NSMatrixListwise(0, 0, 3)), "_col0<_col1 && _col1<_col2",
                      kSource);
  EXPECT_VOREL_ASSERT(firstBatch(NSMatrixListwise(1, 3, 3)), "_col0<_col1 && _col1<_col2",
                      kSource);
  EXPECT_VOREL_ASSERT(firstBatch(NSMatrixListwise(1, 3, 7)), "_col2 <= (int)data.NColumns()",
                      kSource);
  firstBatch(NSMatrixListwise(4, 5, 6));

  // An empty batch checks nothing: the bounds wait for rows.
  NSMatrixListwise unchecked(2, 1, 0);
  DataBatch empty(6, 1, nullptr, nullptr, nullptr);
  unchecked += empty;
  EXPECT_EQ(unchecked.NRows(), 0);
}

TEST(NSMatrixListwise, TheBatchIsSpentOnTheBlockOnly) {
  const Table t = RandomTable(21, 5, 5, Weighting::kBoth, false);
  BatchOf batch(t, 0, 5, 5);
  NSMatrixListwise m(1, 2, 4);
  m += batch.batch;
  for (unsigned r = 0; r < 5; ++r) {
    EXPECT_EQ(batch.batch.Column(0)[r], t.columns[0][r]);
    EXPECT_EQ(batch.batch.Column(4)[r], t.columns[4][r]);
    for (unsigned c = 1; c < 4; ++c)
      EXPECT_EQ(batch.batch.Column(c)[r], t.columns[c][r] - m.Mean(static_cast<int>(c)));
    EXPECT_EQ(batch.batch.Weights()[r], t.weights[r] * t.regWeights[r]);
    EXPECT_EQ(batch.batch.RegWeights()[r], t.regWeights[r]);
  }
  DataBatchByGroup grouped(5, 1, nullptr, nullptr, nullptr, 1);
  EXPECT_EQ(&(m += grouped), &m);
  EXPECT_EQ(m.NRows(), 5);
}

TEST(NSMatrixListwise, OneRowAndZeroWeightSums) {
  Table t;
  t.columns = {{0.3, 5, 6}, {0.7, 8, 9}};
  t.weights = {0.1, 1, -1};
  NSMatrixListwise m(0, 1, 2);
  BatchOf batch(t, 0, 1, 2);
  m += batch.batch;
  EXPECT_EQ(m.Mean(0), 0.3);
  EXPECT_EQ(m.Mean(1), 0.7);
  EXPECT_EQ(m.CCP(0, 0), 0.0);
  EXPECT_EQ(m.CCP(1, 1), 0.0);
  EXPECT_EQ(m.CCP(0, 1), 0.0);

  // A later batch of weight 0 changes nothing at all.
  batch.Fill(t, 1, 3);
  m += batch.batch;
  EXPECT_EQ(m.NRows(), 1);
  EXPECT_EQ(m.Max(1), 0.7);
  EXPECT_EQ(m.Min(0), 0.3);
  EXPECT_EQ(m.Mean(1), 0.7);

  // As the first batch it is stored: Max is readable, the rest barred.
  NSMatrixListwise zero(0, 1, 2);
  batch.Fill(t, 1, 3);
  zero += batch.batch;
  EXPECT_EQ(zero.NRows(), 2);
  EXPECT_EQ(zero.Max(1), 9.0);
  EXPECT_VOREL_ASSERT(zero.Min(1), "0. < WeightSum()", kSource);
  EXPECT_VOREL_ASSERT(zero.Mean(1), "0. < WeightSum()", kSource);
  EXPECT_VOREL_ASSERT(zero.CCP(0, 1), "0. < WeightSum()", kSource);
}

TEST(NSMatrixListwise, MergeThroughTheBaseInterface) {
  const Table t = RandomTable(77, 8, 5, Weighting::kRegWeights, true);
  NSMatrixListwise filled(0, 2, 5);
  BatchOf batch(t, 0, 8, 8);
  filled += batch.batch;

  NSMatrixListwise empty(1, 2, 3), none(0, 1, 2);
  MatrixBase& base = empty;
  base += none;
  EXPECT_EQ(empty.Col0(), 1);
  EXPECT_EQ(empty.NColumns(), 0);

  base += filled;  // a deep copy with the other's bounds
  EXPECT_EQ(empty.Col0(), 0);
  EXPECT_EQ(empty.Col1(), 2);
  EXPECT_EQ(empty.Col2(), 5);
  EXPECT_TRUE(empty.HasRegWeights());
  const double cell = filled.CCP(0, 4), css = filled.CCP(3, 3);
  ASSERT_NE(cell, 0.0);
  batch.Fill(t, 0, 8);
  base += batch.batch;
  EXPECT_EQ(filled.NRows(), 8);
  EXPECT_EQ(filled.CCP(4, 0), cell);
  // The same dyadic rows twice: sums double exactly, means stay.
  EXPECT_EQ(empty.CCP(4, 0), 2.0 * cell);
  EXPECT_EQ(empty.CCP(3, 3), 2.0 * css);
  EXPECT_EQ(empty.Mean(2), filled.Mean(2));

  MatrixBase& self = filled;
  self += filled;
  EXPECT_EQ(filled.RegWeightSum(), empty.RegWeightSum());
  EXPECT_EQ(filled.CCP(0, 4), 2.0 * cell);
  EXPECT_EQ(filled.CCP(3, 3), 2.0 * css);

  // Merging across classes is refused.
  SMatrixListwise symmetric(0, 5);
  batch.Fill(t, 0, 8);
  symmetric += batch.batch;
  EXPECT_VOREL_ASSERT(base += symmetric, "d != nullptr", kSource);
}

TEST(NSMatrixListwise, MergePreconditions) {
  const Table t = RandomTable(3, 4, 6, Weighting::kNone, false);
  const Table tw = RandomTable(3, 4, 6, Weighting::kBoth, false);
  auto filledWith = [](const Table& table, int col0, int col1, int col2) {
    NSMatrixListwise m(col0, col1, col2);
    BatchOf batch(table, 0, 4, 4);
    m += batch.batch;
    return m;
  };
  NSMatrixListwise target = filledWith(t, 0, 2, 4);
  NSMatrixListwise wider = filledWith(t, 0, 2, 5);
  NSMatrixListwise split = filledWith(t, 0, 1, 4);
  NSMatrixListwise weighted = filledWith(tw, 0, 2, 4);
  EXPECT_VOREL_ASSERT(target += wider, "_means.size() == d._means.size()", kSource);
  EXPECT_VOREL_ASSERT(target += split,
                      "_col0 == d._col0 && _col1 == d._col1 && _col2 == d._col2", kSource);
  EXPECT_VOREL_ASSERT(target += weighted, "_hasRegWeights == d._hasRegWeights", kSource);
  EXPECT_EQ(target.NRows(), 4);
}

TEST(NSMatrixListwise, CopiesAreDeepAndMovesTakeTheRecord) {
  const Table t = RandomTable(18, 6, 3, Weighting::kWeights, true);
  NSMatrixListwise source(0, 1, 3);
  BatchOf batch(t, 0, 6, 6);
  source += batch.batch;
  const double cell = source.CCP(2, 0);

  NSMatrixListwise copy(source);
  NSMatrixListwise assigned(5, 6, 7);
  assigned = source;
  assigned = static_cast<const NSMatrixListwise&>(assigned);
  batch.Fill(t, 0, 6);
  source += batch.batch;
  EXPECT_EQ(source.CCP(2, 0), 2.0 * cell);
  for (const NSMatrixListwise* m : {&copy, &assigned}) {
    EXPECT_EQ(m->Col0(), 0);
    EXPECT_EQ(m->NRows(), 6);
    EXPECT_EQ(m->CCP(0, 2), cell);
  }
  NSMatrixListwise moved(std::move(copy));
  EXPECT_EQ(moved.CCP(2, 0), cell);
  copy = source;
  EXPECT_EQ(copy.NRows(), 12);
}

}  // namespace
}  // namespace vorel
