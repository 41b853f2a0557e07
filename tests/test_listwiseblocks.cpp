// SMatrixListwise and NSMatrixListwise: what the two share is tested once for
// both, through a small description of each; their own shapes and bounds after.
#include <vorel/databatch.h>
#include <vorel/databatchbygroup.h>
#include <vorel/initialextremes.h>
#include <vorel/nsmatrixlistwise.h>
#include <vorel/smatrixlistwise.h>

#include <algorithm>
#include <vector>

#include "listwise_block_reference.h"
#include "table_support.h"
#include "test_support.h"

namespace vorel {
namespace {

using testing::SameBits;
using testing::listwise::RefBlock;
using testing::tables::Table;

enum class Weighting { kNone, kWeights, kRegWeights, kBoth };

// nRows rows of nColumns values far from 0 (so that centring matters), column
// 1 constant, with the weights the layout asks for; `dyadic`: see
// tables::RandomTable.
Table RandomTable(unsigned seed, std::size_t nRows, unsigned nColumns, Weighting weighting,
                  bool dyadic) {
  const bool w = weighting == Weighting::kWeights || weighting == Weighting::kBoth;
  const bool rw = weighting == Weighting::kRegWeights || weighting == Weighting::kBoth;
  Table t = testing::tables::RandomTable(seed, nColumns, nRows, w, rw, 0.0, 1e3, dyadic);
  for (std::vector<double>& row : t.rows)
    row[1] = 0.1;
  return t;
}

// Rows [first, last) of t added to m in one batch.
template <class Matrix>
void AddRows(Matrix& m, const Table& t, std::size_t first, std::size_t last) {
  DataBatch batch = testing::tables::MakeBatch(t, first, last);
  m += batch;
}

// Both blocks cover batch columns 1 to 5 of a 7-column table, so columns 0
// and 6 lie outside; the tables make column 1 constant.
struct SKind {
  using Matrix = SMatrixListwise;
  static constexpr const char* kSource = "backend/vorel/smatrixlistwise";
  static Matrix Make() { return Matrix(1, 6); }
  static Matrix Wider() { return Matrix(1, 7); }
  static Matrix Shifted() { return Matrix(0, 5); }  // same size, other bounds
  static constexpr std::size_t kFirst = 0;
};

struct NSKind {
  using Matrix = NSMatrixListwise;
  static constexpr const char* kSource = "backend/vorel/nsmatrixlistwise";
  static Matrix Make() { return Matrix(1, 3, 6); }  // sets {1, 2} and {3, 4, 5}
  static Matrix Wider() { return Matrix(1, 3, 7); }
  static Matrix Shifted() { return Matrix(1, 2, 6); }
  static constexpr std::size_t kFirst = 2;
};

template <class Kind>
class ListwiseBlock : public ::testing::Test {
 protected:
  using Matrix = typename Kind::Matrix;
  static constexpr int kCol0 = 1, kCol2 = 6;

  // Rows [first, last) in batches of batchRows, and the reference of the same steps.
  static RefBlock AddInBatches(Matrix& m, const Table& t, std::size_t first, std::size_t last,
                               std::size_t batchRows) {
    RefBlock ref;
    for (std::size_t start = first; start < last; start += batchRows) {
      const std::size_t end = std::min(last, start + batchRows);
      AddRows(m, t, start, end);
      Merge(ref, testing::listwise::ReduceRows(t, start, end, kCol0, kCol2));
    }
    return ref;
  }
  static void Merge(RefBlock& t, const RefBlock& d) {
    testing::listwise::Merge(t, d, Kind::kFirst);
  }
  static void ExpectSameBits(const Matrix& m, const RefBlock& ref) {
    testing::listwise::ExpectSameBits(m, ref, kCol0, Kind::kFirst);
  }

  // Every cell of a block.
  static std::vector<double> Cells(const Matrix& m) {
    std::vector<double> cells;
    for (int x = kCol0; x < kCol2; ++x)
      for (int y = kCol0; y < kCol2; ++y)
        if (Kind::kFirst == 0 || x == y || (x < kCol0 + 2) != (y < kCol0 + 2))
          cells.push_back(m.CCP(x, y));
    return cells;
  }
};

using Kinds = ::testing::Types<SKind, NSKind>;
TYPED_TEST_SUITE(ListwiseBlock, Kinds);

// Any batch size, any weights, and a merge of two matrices give exactly the
// digits of the written-out reduction and update formula in the same order.
TYPED_TEST(ListwiseBlock, BitForBitWithTheWrittenOutFormulas) {
  for (Weighting weighting :
       {Weighting::kNone, Weighting::kWeights, Weighting::kRegWeights, Weighting::kBoth}) {
    for (std::size_t batchRows : {1u, 4u, 13u, 40u}) {
      const unsigned seed =
          7001u + 31u * static_cast<unsigned>(weighting) + static_cast<unsigned>(batchRows);
      SCOPED_TRACE(::testing::Message() << "seed " << seed << " batch " << batchRows);
      const Table t = RandomTable(seed, 40, 7, weighting, false);
      auto whole = TypeParam::Make();
      this->ExpectSameBits(whole, this->AddInBatches(whole, t, 0, 40, batchRows));
      EXPECT_EQ(whole.Mean(1), 0.1);  // the constant column

      auto first = TypeParam::Make(), second = TypeParam::Make();
      RefBlock ref = this->AddInBatches(first, t, 0, 17, batchRows);
      const RefBlock other = this->AddInBatches(second, t, 17, 40, batchRows);
      MatrixBase& shared = first;
      shared += second;
      this->Merge(ref, other);
      this->ExpectSameBits(first, ref);
      EXPECT_EQ(second.NRows(), 23);
    }
  }
}

TYPED_TEST(ListwiseBlock, TheBatchIsSpentOnTheBlockOnly) {
  const Table t = RandomTable(21, 5, 7, Weighting::kBoth, false);
  DataBatch batch = testing::tables::MakeBatch(t, 0, 5);
  auto m = TypeParam::Make();
  m += batch;
  for (unsigned r = 0; r < 5; ++r) {
    EXPECT_EQ(batch.Column(0)[r], t.rows[r][0]);
    EXPECT_EQ(batch.Column(6)[r], t.rows[r][6]);
    for (unsigned c = 1; c < 6; ++c)
      EXPECT_EQ(batch.Column(c)[r], t.rows[r][c] - m.Mean(static_cast<int>(c)));
    EXPECT_EQ(batch.Weights()[r], t.w[r] * t.rw[r]);
    EXPECT_EQ(batch.RegWeights()[r], t.rw[r]);
  }
  // An empty batch and a grouped batch change nothing.
  DataBatch empty = testing::tables::MakeBatch(t, 0, 0);
  DataBatchByGroup grouped(7, 1, nullptr, nullptr, nullptr, 1);
  const std::vector<double> before = this->Cells(m);
  EXPECT_EQ(&(m += empty), &m);
  EXPECT_EQ(&(m += grouped), &m);
  EXPECT_EQ(m.NRows(), 5);
  EXPECT_EQ(this->Cells(m), before);
}

TYPED_TEST(ListwiseBlock, ZeroWeightSums) {
  // Rows 1 and 2 have frequency weights totalling 0 but combined weights
  // totalling -1: the frequency weights decide.
  Table t = RandomTable(5, 3, 7, Weighting::kBoth, false);
  t.w = {2.0, 1.0, -1.0};
  t.rw = {1.0, 1.0, 2.0};
  t.rows[0][3] = 5.0;
  t.rows[1][3] = 9.0;
  t.rows[2][3] = 4.0;

  // A later batch whose weights total exactly 0 changes nothing at all.
  auto filled = TypeParam::Make();
  AddRows(filled, t, 0, 1);
  AddRows(filled, t, 1, 3);
  EXPECT_EQ(filled.NRows(), 1);
  EXPECT_EQ(filled.Max(3), 5.0);
  EXPECT_EQ(filled.Min(3), 5.0);
  EXPECT_EQ(filled.Mean(3), 5.0);

  // As a first batch it is stored: Max is readable, Min, Mean and CCP barred.
  auto zero = TypeParam::Make();
  AddRows(zero, t, 1, 3);
  EXPECT_EQ(zero.NRows(), 2);
  EXPECT_EQ(zero.WeightSum(), 0.0);
  EXPECT_EQ(zero.Max(3), 9.0);
  EXPECT_VOREL_ASSERT(zero.Min(3), "0. < WeightSum()", TypeParam::kSource);
  EXPECT_VOREL_ASSERT(zero.Mean(3), "0. < WeightSum()", TypeParam::kSource);
  EXPECT_VOREL_ASSERT(zero.CCP(3, 3), "0. < WeightSum()", TypeParam::kSource);

  // Before any row there is no largest value.
  EXPECT_EQ(TypeParam::Make().Max(3), MaxInitial);
}

TYPED_TEST(ListwiseBlock, MergeThroughTheBase) {
  const Table t = RandomTable(99, 8, 7, Weighting::kRegWeights, true);
  auto filled = TypeParam::Make();
  AddRows(filled, t, 0, 8);
  const std::vector<double> once = this->Cells(filled);

  // Nothing into nothing: the empty object keeps its own bounds.
  auto target = TypeParam::Shifted();
  MatrixBase& base = target;
  auto none = TypeParam::Make();
  base += none;
  EXPECT_EQ(target.NColumns(), 0);
  EXPECT_EQ(target.Col1(), TypeParam::Shifted().Col1());

  // Something into nothing: a deep copy with the other's bounds, which the
  // next batch then uses; the source is not reached by it.
  base += filled;
  EXPECT_EQ(target.Col0(), 1);
  EXPECT_EQ(target.Col1(), filled.Col1());
  EXPECT_EQ(target.Col2(), 6);
  EXPECT_TRUE(target.HasRegWeights());
  EXPECT_EQ(this->Cells(target), once);
  AddRows(base, t, 0, 8);
  EXPECT_EQ(target.NRows(), 16);
  EXPECT_EQ(this->Cells(filled), once);

  // The same rows twice, or a matrix merged into itself: every sum doubles
  // exactly and the means stay.
  MatrixBase& self = filled;
  self += filled;
  std::vector<double> twice = once;
  for (double& cell : twice)
    cell *= 2.0;
  EXPECT_EQ(this->Cells(target), twice);
  EXPECT_EQ(this->Cells(filled), twice);
  EXPECT_EQ(filled.RegWeightSum(), target.RegWeightSum());
  EXPECT_EQ(filled.Mean(4), target.Mean(4));
}

TYPED_TEST(ListwiseBlock, AccessorAndMergePreconditions) {
  const Table t = RandomTable(3, 4, 7, Weighting::kNone, false);
  const Table tw = RandomTable(3, 4, 7, Weighting::kBoth, false);
  auto filled = [](typename TypeParam::Matrix m, const Table& table) {
    AddRows(m, table, 0, 4);
    return m;
  };
  auto target = filled(TypeParam::Make(), t);
  auto wider = filled(TypeParam::Wider(), t);
  auto shifted = filled(TypeParam::Shifted(), t);
  auto weighted = filled(TypeParam::Make(), tw);
  const char* const source = TypeParam::kSource;
  EXPECT_VOREL_ASSERT(target.Mean(0), "c < _my->_col2 && c >= _my->_col0", source);
  EXPECT_VOREL_ASSERT(target.Min(6), "c < _my->_col2 && c >= _my->_col0", source);
  EXPECT_VOREL_ASSERT(target.Max(6), "c < _my->_col2 && c >= _my->_col0", source);
  EXPECT_VOREL_ASSERT(target.CCP(0, 3), "row < _my->_col2 && row >= _my->_col0", source);
  EXPECT_VOREL_ASSERT(target.CCP(3, 6), "col < _my->_col2 && col >= _my->_col0", source);
  EXPECT_VOREL_ASSERT(target += wider, "_means.size() == d._means.size()", source);
  EXPECT_VOREL_ASSERT(target += shifted, "_col0 == d._col0 && _col1 == d._col1 && _col2 == d._col2",
                      source);
  EXPECT_VOREL_ASSERT(target += weighted, "_hasRegWeights == d._hasRegWeights", source);
  EXPECT_EQ(target.NRows(), 4);
}

// ---- the shapes and bounds of each class ----------------------------------

constexpr const char* kSSource = SKind::kSource;
constexpr const char* kNSSource = NSKind::kSource;

TEST(SMatrixListwise, ShapeAndBounds) {
  Table t = RandomTable(5, 6, 7, Weighting::kNone, false);
  t.rows[3][2] = -1e9;
  SMatrixListwise m(2, 5);
  AddRows(m, t, 0, 6);
  EXPECT_EQ(m.NColumns(), 3);
  EXPECT_EQ(m.Col0(), 2);
  EXPECT_EQ(m.Col1(), 2);
  EXPECT_EQ(m.Col2(), 5);
  EXPECT_EQ(m.Min(2), -1e9);

  // Without bounds: Col2() is 0 until the first batch with rows, then all columns.
  SMatrixListwise all;
  DataBatch empty(7, 2, nullptr, nullptr, nullptr);
  all += empty;
  EXPECT_EQ(all.Col2(), 0);
  AddRows(all, t, 0, 6);
  EXPECT_EQ(all.Col2(), 7);
  EXPECT_EQ(all.NColumns(), 7);
  EXPECT_EQ(all.CCP(2, 2), m.CCP(2, 2));

  auto firstBatch = [&](SMatrixListwise block) { AddRows(block, t, 0, 3); };
  EXPECT_VOREL_ASSERT(firstBatch(SMatrixListwise(1, 0)), "_col0 == 0 && _col1 == 0", kSSource);
  EXPECT_VOREL_ASSERT(firstBatch(SMatrixListwise(-1, 3)), "_col0==_col1 && _col0>=0", kSSource);
  EXPECT_VOREL_ASSERT(firstBatch(SMatrixListwise(2, 8)), "_col2 <= nCols && _col2>_col0", kSSource);
  EXPECT_VOREL_ASSERT(firstBatch(SMatrixListwise(3, 3)), "_col2 <= nCols && _col2>_col0", kSSource);
  firstBatch(SMatrixListwise(6, 7));  // the last column alone is a block

  // A later batch that lacks the block's columns is refused too.
  const Table narrow = RandomTable(6, 3, 4, Weighting::kNone, false);
  EXPECT_VOREL_ASSERT(AddRows(m, narrow, 0, 3), "_col2 <= nCols && _col2>_col0", kSSource);
  EXPECT_EQ(m.NRows(), 6);
}

TEST(NSMatrixListwise, ShapeAndBounds) {
  Table t = RandomTable(12, 7, 6, Weighting::kNone, false);
  t.rows[4][5] = 1e7;
  NSMatrixListwise m(1, 3, 6);
  AddRows(m, t, 0, 7);
  EXPECT_EQ(m.NColumns(), 5);
  EXPECT_EQ(m.Col0(), 1);
  EXPECT_EQ(m.Col1(), 3);
  EXPECT_EQ(m.Col2(), 6);
  EXPECT_EQ(m.Max(5), 1e7);
  EXPECT_NE(m.CCP(4, 4), m.CCP(2, 4));  // a sum of squares, not a rectangle cell
  EXPECT_VOREL_ASSERT(m.CCP(3, 4), "lo < _my->_col1 && hi >= _my->_col1", kNSSource);
  EXPECT_VOREL_ASSERT(m.CCP(2, 1), "lo < _my->_col1 && hi >= _my->_col1", kNSSource);

  auto firstBatch = [&](NSMatrixListwise block) { AddRows(block, t, 0, 3); };
  EXPECT_VOREL_ASSERT(firstBatch(NSMatrixListwise(0, 0, 3)), "_col0<_col1 && _col1<_col2",
                      kNSSource);
  EXPECT_VOREL_ASSERT(firstBatch(NSMatrixListwise(1, 3, 3)), "_col0<_col1 && _col1<_col2",
                      kNSSource);
  EXPECT_VOREL_ASSERT(firstBatch(NSMatrixListwise(1, 3, 7)), "_col2 <= (int)data.NColumns()",
                      kNSSource);
  firstBatch(NSMatrixListwise(4, 5, 6));  // one cell and two sums of squares

  // An empty batch checks nothing: the bounds wait for rows.
  NSMatrixListwise unchecked(2, 1, 0);
  DataBatch empty(6, 1, nullptr, nullptr, nullptr);
  unchecked += empty;
  EXPECT_EQ(unchecked.NRows(), 0);
}

}  // namespace
}  // namespace vorel
