#include <vorel/databatch.h>
#include <vorel/databatchbygroup.h>
#include <vorel/initialextremes.h>
#include <vorel/nsmatrixlistwise.h>
#include <vorel/smatrixlistwise.h>

#include <algorithm>
#include <cmath>
#include <limits>
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

constexpr const char* kSource = "backend/vorel/smatrixlistwise";

void ExpectSameBits(const SMatrixListwise& m, const RefBlock& ref, int col0) {
  ASSERT_EQ(m.NColumns(), static_cast<int>(ref.means.size()));
  EXPECT_EQ(m.NRows(), ref.nRows);
  EXPECT_TRUE(SameBits(m.WeightSum(), ref.weightSum));
  EXPECT_TRUE(SameBits(m.RegWeightSum(), ref.regWeightSum));
  for (int i = 0; i < m.NColumns(); ++i) {
    const int c = col0 + i;
    EXPECT_TRUE(SameBits(m.Mean(c), ref.means[i])) << "mean " << c;
    EXPECT_TRUE(SameBits(m.Min(c), ref.mins[i])) << "min " << c;
    EXPECT_TRUE(SameBits(m.Max(c), ref.maxs[i])) << "max " << c;
    for (int j = 0; j <= i; ++j) {
      EXPECT_TRUE(SameBits(m.CCP(c, col0 + j), ref.cross[i][j])) << "cell " << c << "," << j;
      EXPECT_TRUE(SameBits(m.CCP(col0 + j, c), ref.cross[i][j]));
    }
  }
}

// Adds the table's rows [first, last) to m in batches of `batchRows`, and
// returns the reference for the same batches merged in the same order.
RefBlock AddInBatches(SMatrixListwise& m, const Table& t, std::size_t first, std::size_t last,
                      std::size_t batchRows, int col0, int col2) {
  RefBlock ref;
  BatchOf batch(t, 0, 0, batchRows);
  for (std::size_t start = first; start < last; start += batchRows) {
    const std::size_t end = std::min(last, start + batchRows);
    batch.Fill(t, start, end);
    m += batch.batch;
    const RefBlock part = testing::ReduceRows(t, start, end, col0, col2);
    if (start == first) {
      ref = part;
    } else {
      testing::MergeSymmetric(ref, part);
    }
  }
  return ref;
}

class SMatrixListwiseBits
    : public ::testing::TestWithParam<std::tuple<Weighting, std::size_t>> {};

// Any batch size and any split between two matrices gives exactly the
// digits of the written-out reduction and update formula in the same order.
TEST_P(SMatrixListwiseBits, BatchesAndMergesFollowTheReferenceBitForBit) {
  const auto [weighting, batchRows] = GetParam();
  const unsigned seed = 7001u + static_cast<unsigned>(weighting) * 31u
                        + static_cast<unsigned>(batchRows);
  SCOPED_TRACE(::testing::Message() << "seed " << seed);
  const Table t = RandomTable(seed, 61, 8, weighting, false);
  const int col0 = 1, col2 = 7;  // the batch columns 0 and 7 lie outside the block

  SMatrixListwise whole(col0, col2);
  ExpectSameBits(whole, AddInBatches(whole, t, 0, 61, batchRows, col0, col2), col0);

  // Two workers on rows [0, 24) and [24, 61), the second merged into the first.
  SMatrixListwise first(col0, col2), second(col0, col2);
  RefBlock ref = AddInBatches(first, t, 0, 24, batchRows, col0, col2);
  const RefBlock other = AddInBatches(second, t, 24, 61, batchRows, col0, col2);
  MatrixBase& shared = first;
  shared += second;
  testing::MergeSymmetric(ref, other);
  ExpectSameBits(first, ref, col0);
  EXPECT_EQ(second.NRows(), 37);  // only read
}

INSTANTIATE_TEST_SUITE_P(Layouts, SMatrixListwiseBits,
                         ::testing::Combine(::testing::Values(Weighting::kNone,
                                                              Weighting::kWeights,
                                                              Weighting::kRegWeights,
                                                              Weighting::kBoth),
                                            ::testing::Values(1u, 4u, 13u, 61u)));

TEST(SMatrixListwise, MergedBatchesAgreeWithOneBatchUpToRounding) {
  // Against a one-batch reduction of all rows, the update formula must agree
  // to a few units of rounding of the largest term it adds up.
  const Table t = RandomTable(4242, 200, 4, Weighting::kBoth, false);
  SMatrixListwise split(0, 4), whole(0, 4);
  AddInBatches(split, t, 0, 200, 9, 0, 4);
  AddInBatches(whole, t, 0, 200, 200, 0, 4);
  EXPECT_NEAR(split.RegWeightSum(), whole.RegWeightSum(), 1e-12 * whole.RegWeightSum());
  for (int i = 0; i < 4; ++i) {
    EXPECT_NEAR(split.Mean(i), whole.Mean(i), 1e-12 * std::fabs(whole.Mean(i)) + 1e-300);
    for (int j = 0; j <= i; ++j) {
      const double scale = std::sqrt(whole.CCP(i, i) * whole.CCP(j, j));
      EXPECT_NEAR(split.CCP(i, j), whole.CCP(i, j), 1e-10 * scale) << i << "," << j;
    }
  }
  EXPECT_EQ(split.Mean(1), 0.1);  // the constant column stays exact
  EXPECT_EQ(split.CCP(1, 1), 0.0);
  EXPECT_EQ(split.CCP(3, 1), 0.0);
}

TEST(SMatrixListwise, BlockShapeAndAccessors) {
  // SMatrixListwise(2, 5) over a batch of 7 columns: positions 0 to 2.
  Table t = RandomTable(5, 6, 7, Weighting::kNone, false);
  t.columns[2][3] = -1e9;
  SMatrixListwise m(2, 5);
  EXPECT_EQ(m.NColumns(), 0);
  BatchOf batch(t, 0, 6, 6);
  m += batch.batch;
  EXPECT_EQ(m.NColumns(), 3);
  EXPECT_EQ(m.Col0(), 2);
  EXPECT_EQ(m.Col1(), 2);
  EXPECT_EQ(m.Col2(), 5);
  EXPECT_EQ(m.Min(2), -1e9);
  EXPECT_EQ(m.CCP(4, 2), m.CCP(2, 4));
  EXPECT_VOREL_ASSERT(m.Mean(5), "c < _my->_col2 && c >= _my->_col0", kSource);
  EXPECT_VOREL_ASSERT(m.Min(1), "c < _my->_col2 && c >= _my->_col0", kSource);
  EXPECT_VOREL_ASSERT(m.Max(5), "c < _my->_col2 && c >= _my->_col0", kSource);
  EXPECT_VOREL_ASSERT(m.CCP(1, 2), "row < _my->_col2 && row >= _my->_col0", kSource);
  EXPECT_VOREL_ASSERT(m.CCP(2, 5), "col < _my->_col2 && col >= _my->_col0", kSource);

  // Without bounds: Col2() is 0 until the first batch with rows, then all columns.
  SMatrixListwise all;
  DataBatch empty(7, 2, nullptr, nullptr, nullptr);
  all += empty;
  EXPECT_EQ(all.Col2(), 0);
  EXPECT_EQ(all.NColumns(), 0);
  BatchOf again(t, 0, 6, 6);
  all += again.batch;
  EXPECT_EQ(all.Col0(), 0);
  EXPECT_EQ(all.Col2(), 7);
  EXPECT_EQ(all.NColumns(), 7);
  EXPECT_EQ(all.CCP(2, 2), m.CCP(2, 2));
}

TEST(SMatrixListwise, BoundsAreCheckedAtTheFirstBatch) {
  const Table t = RandomTable(6, 3, 7, Weighting::kNone, false);
  auto firstBatch = [&](SMatrixListwise m) {
    BatchOf batch(t, 0, 3, 3);
    m += batch.batch;
  };
  EXPECT_VOREL_ASSERT(firstBatch(SMatrixListwise(1, 0)), "_col0 == 0 && _col1 == 0", kSource);
  EXPECT_VOREL_ASSERT(firstBatch(SMatrixListwise(-1, 3)), "_col0==_col1 && _col0>=0", kSource);
  EXPECT_VOREL_ASSERT(firstBatch(SMatrixListwise(2, 8)), "_col2 <= nCols && _col2>_col0",
                      kSource);
  EXPECT_VOREL_ASSERT(firstBatch(SMatrixListwise(3, 3)), "_col2 <= nCols && _col2>_col0",
                      kSource);
  firstBatch(SMatrixListwise(6, 7));  // the last column alone is a block

  // A later batch that lacks the block's columns is refused too, and the
  // matrix keeps what it had.
  SMatrixListwise m(0, 7);
  BatchOf wide(t, 0, 3, 3);
  m += wide.batch;
  const Table narrow = RandomTable(6, 3, 5, Weighting::kNone, false);
  BatchOf small(narrow, 0, 3, 3);
  EXPECT_VOREL_ASSERT(m += small.batch, "_col2 <= nCols && _col2>_col0", kSource);
  EXPECT_EQ(m.NRows(), 3);
}

TEST(SMatrixListwise, TheBatchIsSpentOnTheBlockOnly) {
  Table t;
  t.columns = {{1, 2, 3}, {10, 20, 60}, {5, 5, 5}};
  t.weights = {2, 3, 1};
  t.regWeights = {0.5, 2, 4};
  BatchOf batch(t, 0, 3, 4);
  SMatrixListwise m(1, 3);
  m += batch.batch;
  // Combined weights 1, 6, 4 total 11: mean of column 1 is (10 + 120 + 240) / 11.
  EXPECT_EQ(m.WeightSum(), 6.0);
  EXPECT_EQ(m.RegWeightSum(), 11.0);
  EXPECT_TRUE(m.HasRegWeights());
  const double mean = (120.0 + 240.0 + 10.0 * 1.0) / 11.0;
  EXPECT_EQ(m.Mean(1), mean);
  EXPECT_EQ(m.Mean(2), 5.0);
  EXPECT_EQ(batch.batch.Weights()[1], 6.0);
  EXPECT_EQ(batch.batch.RegWeights()[1], 2.0);
  for (unsigned r = 0; r < 3; ++r) {
    EXPECT_EQ(batch.batch.Column(0)[r], t.columns[0][r]);  // outside the block
    EXPECT_EQ(batch.batch.Column(1)[r], t.columns[1][r] - mean);
    EXPECT_EQ(batch.batch.Column(2)[r], 0.0);
  }
  EXPECT_EQ(m.CCP(2, 2), 0.0);
  EXPECT_EQ(m.CCP(2, 1), 0.0);

  // An empty batch, and a grouped batch, change nothing.
  DataBatch empty(3, 1, &batch.weight, &batch.regWeight, nullptr);
  DataBatchByGroup grouped(3, 1, nullptr, nullptr, nullptr, 1);
  EXPECT_EQ(&(m += empty), &m);
  EXPECT_EQ(&(m += grouped), &m);
  EXPECT_EQ(m.NRows(), 3);
  EXPECT_EQ(m.Mean(1), mean);
}

TEST(SMatrixListwise, OneRowAndConstantColumnsStayExact) {
  Table t;
  t.columns = {{0.1, 0.1, 0.1, 0.1, 0.1}, {0.3, 0.7, 1.1, 0.2, 0.9}};
  t.weights = {0.3, 1.7, 2.9, 0.1, 5.0};
  SMatrixListwise one(0, 2);
  BatchOf single(t, 2, 3, 1);
  one += single.batch;
  EXPECT_EQ(one.NRows(), 1);
  EXPECT_EQ(one.Mean(0), 0.1);
  EXPECT_EQ(one.Mean(1), 1.1);
  EXPECT_EQ(one.CCP(0, 0), 0.0);
  EXPECT_EQ(one.CCP(1, 0), 0.0);
  EXPECT_EQ(one.CCP(1, 1), 0.0);

  SMatrixListwise several(0, 2);
  BatchOf batch(t, 0, 0, 2);
  for (std::size_t r = 0; r < 5; r += 2) {
    batch.Fill(t, r, std::min<std::size_t>(5, r + 2));
    several += batch.batch;
  }
  EXPECT_EQ(several.Mean(0), 0.1);
  EXPECT_EQ(several.CCP(0, 0), 0.0);
  EXPECT_EQ(several.CCP(1, 0), 0.0);
  EXPECT_EQ(several.Min(1), 0.2);
  EXPECT_EQ(several.Max(1), 1.1);
}

TEST(SMatrixListwise, ZeroWeightSums) {
  Table t;
  t.columns = {{1, 2, 3, 4}};
  t.weights = {1, -1, 0, 0};
  // A first batch whose weights total 0 is stored; Max is readable, the rest barred.
  SMatrixListwise m(0, 1);
  BatchOf batch(t, 0, 2, 2);
  m += batch.batch;
  EXPECT_EQ(m.NRows(), 2);
  EXPECT_EQ(m.WeightSum(), 0.0);
  EXPECT_EQ(m.Max(0), 2.0);
  EXPECT_VOREL_ASSERT(m.Min(0), "0. < WeightSum()", kSource);
  EXPECT_VOREL_ASSERT(m.Mean(0), "0. < WeightSum()", kSource);
  EXPECT_VOREL_ASSERT(m.CCP(0, 0), "0. < WeightSum()", kSource);

  // A later batch of weight 0 changes nothing at all, not even the extremes.
  SMatrixListwise filled(0, 1);
  batch.Fill(Table{{{5, 7}}, {1, 1}, {}}, 0, 2);
  filled += batch.batch;
  batch.Fill(t, 2, 4);
  filled += batch.batch;
  EXPECT_EQ(filled.NRows(), 2);
  EXPECT_EQ(filled.Max(0), 7.0);
  EXPECT_EQ(filled.Min(0), 5.0);
  EXPECT_EQ(filled.Mean(0), 6.0);
  EXPECT_EQ(filled.CCP(0, 0), 2.0);

  // A matrix that never saw a row: Max has no value yet.
  SMatrixListwise fresh(0, 1);
  EXPECT_EQ(fresh.Max(0), MaxInitial);
  EXPECT_VOREL_ASSERT(fresh.Mean(0), "0. < WeightSum()", kSource);
}

TEST(SMatrixListwise, MergeThroughTheBaseInterface) {
  const Table t = RandomTable(99, 8, 5, Weighting::kWeights, true);
  SMatrixListwise filled(1, 4);
  BatchOf batch(t, 0, 8, 8);
  filled += batch.batch;

  // Nothing into nothing: the empty object keeps its own bounds.
  SMatrixListwise empty(0, 2), none(3, 5);
  MatrixBase& base = empty;
  base += none;
  EXPECT_EQ(empty.NColumns(), 0);
  EXPECT_EQ(empty.Col0(), 0);
  EXPECT_EQ(empty.Col2(), 2);

  // Something into nothing: a deep copy with the other's bounds, which later
  // batches then use.
  base += filled;
  EXPECT_EQ(empty.Col0(), 1);
  EXPECT_EQ(empty.Col1(), 1);
  EXPECT_EQ(empty.Col2(), 4);
  EXPECT_EQ(empty.NRows(), 8);
  for (int i = 1; i < 4; ++i)
    for (int j = 1; j <= i; ++j) EXPECT_EQ(empty.CCP(i, j), filled.CCP(i, j));
  const double before = filled.CCP(3, 2);
  batch.Fill(t, 0, 8);
  base += batch.batch;  // reaches the copy only
  EXPECT_EQ(empty.NRows(), 16);
  EXPECT_EQ(filled.NRows(), 8);
  EXPECT_EQ(filled.CCP(3, 2), before);
  // On dyadic data no sum rounds: the same rows twice double the sums and keep the means.
  EXPECT_EQ(empty.CCP(3, 2), 2.0 * before);
  EXPECT_NE(before, 0.0);
  EXPECT_EQ(empty.Mean(3), filled.Mean(3));

  // A matrix merged into itself doubles as well.
  MatrixBase& self = filled;
  self += filled;
  EXPECT_EQ(filled.NRows(), 16);
  EXPECT_EQ(filled.WeightSum(), empty.WeightSum());
  for (int i = 1; i < 4; ++i) {
    EXPECT_EQ(filled.Mean(i), empty.Mean(i));
    for (int j = 1; j <= i; ++j) EXPECT_EQ(filled.CCP(i, j), empty.CCP(i, j));
  }

  // An empty object merged into a filled one changes nothing.
  SMatrixListwise stillEmpty(1, 4);
  self += stillEmpty;
  EXPECT_EQ(filled.NRows(), 16);
}

TEST(SMatrixListwise, MergePreconditions) {
  const Table t = RandomTable(3, 4, 5, Weighting::kNone, false);
  const Table tw = RandomTable(3, 4, 5, Weighting::kRegWeights, false);
  auto filledWith = [](const Table& table, int col0, int col2) {
    SMatrixListwise m(col0, col2);
    BatchOf batch(table, 0, 4, 4);
    m += batch.batch;
    return m;
  };
  SMatrixListwise target = filledWith(t, 0, 3);
  SMatrixListwise wider = filledWith(t, 0, 4);
  SMatrixListwise shifted = filledWith(t, 1, 4);
  SMatrixListwise regWeighted = filledWith(tw, 0, 3);
  EXPECT_VOREL_ASSERT(target += wider, "_means.size() == d._means.size()", kSource);
  EXPECT_VOREL_ASSERT(target += shifted,
                      "_col0 == d._col0 && _col1 == d._col1 && _col2 == d._col2", kSource);
  EXPECT_VOREL_ASSERT(target += regWeighted, "_hasRegWeights == d._hasRegWeights", kSource);
  NSMatrixListwise rectangle(0, 1, 3);
  BatchOf batch(t, 0, 4, 4);
  rectangle += batch.batch;
  EXPECT_VOREL_ASSERT(target += rectangle, "d != nullptr", kSource);
  EXPECT_EQ(target.NRows(), 4);
}

TEST(SMatrixListwise, CopiesAreDeepAndMovesTakeTheRecord) {
  const Table t = RandomTable(17, 6, 3, Weighting::kNone, true);
  SMatrixListwise source;
  BatchOf batch(t, 0, 6, 6);
  source += batch.batch;
  const double cell = source.CCP(2, 0);

  SMatrixListwise copy(source);
  SMatrixListwise assigned(1, 2);
  assigned = source;
  assigned = static_cast<const SMatrixListwise&>(assigned);
  batch.Fill(t, 0, 6);
  source += batch.batch;
  EXPECT_EQ(source.CCP(2, 0), 2.0 * cell);
  for (const SMatrixListwise* m : {&copy, &assigned}) {
    EXPECT_EQ(m->Col2(), 3);
    EXPECT_EQ(m->NRows(), 6);
    EXPECT_EQ(m->CCP(0, 2), cell);
  }

  SMatrixListwise moved(std::move(copy));
  EXPECT_EQ(moved.CCP(2, 0), cell);
  copy = source;  // a moved-from matrix can be assigned to
  EXPECT_EQ(copy.NRows(), 12);
  assigned = std::move(moved);
  EXPECT_EQ(assigned.NRows(), 6);
}

}  // namespace
}  // namespace vorel
