// The listwise classes: what MatrixListwise, SMatrixListwise and
// NSMatrixListwise share is tested once for all three, through a small
// description of each; their own shapes, bounds and preconditions after.
#include <vorel/databatch.h>
#include <vorel/databatchbygroup.h>
#include <vorel/initialextremes.h>
#include <vorel/matrixlistwise.h>
#include <vorel/nsmatrixlistwise.h>
#include <vorel/smatrixlistwise.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <type_traits>
#include <vector>

#include "listwise_block_reference.h"
#include "table_support.h"
#include "test_support.h"

namespace vorel {
namespace {

using testing::SameBits;
using testing::listwise::ExpectSameBits;
using testing::listwise::Merge;
using testing::listwise::RefBlock;
using testing::tables::MakeBatch;
using testing::tables::Table;
constexpr double kEps = std::numeric_limits<double>::epsilon();

// Weightings: bit 0 frequency weights, bit 1 regression weights.
constexpr int kNone = 0, kRegWeights = 2, kBoth = 3;

// nRows rows of nColumns values far from 0 (so that centring matters), column
// 1 constant, with the weights of the weighting; `dyadic`: see
// tables::RandomTable.
Table RandomTable(unsigned seed, std::size_t nRows, unsigned nColumns, int weighting,
                  bool dyadic = false) {
  Table t = testing::tables::RandomTable(seed, nColumns, nRows, weighting & 1, weighting & 2, 0.0,
                                         1e3, dyadic);
  for (std::vector<double>& row : t.rows)
    row[1] = 0.1;
  return t;
}

// The row count, whichever width the class gives it.
template <class Matrix>
std::uint64_t Rows(const Matrix& m) {
  return static_cast<std::uint64_t>(m.NRows());
}

// Rows [first, last) of t added to m in one batch.
template <class Matrix>
void AddRows(Matrix& m, const Table& t, std::size_t first, std::size_t last) {
  DataBatch batch = MakeBatch(t, first, last);
  m += batch;
}

// The blocks cover batch columns 1 to 5 of a 7-column table, so columns 0
// and 6 lie outside; the whole table covers all 7. The tables make column 1
// constant.
struct WholeKind {
  using Matrix = MatrixListwise;
  static constexpr const char* kSource = "backend/vorel/matrixlistwise";
  static Matrix Make() { return Matrix(); }
  static constexpr int kCol0 = 0, kCol2 = 7;
  static constexpr std::size_t kFirst = 0;
};

struct SKind {
  using Matrix = SMatrixListwise;
  static constexpr const char* kSource = "backend/vorel/smatrixlistwise";
  static Matrix Make() { return Matrix(1, 6); }
  static Matrix Wider() { return Matrix(1, 7); }
  static Matrix Shifted() { return Matrix(0, 5); }  // same size, other bounds
  static constexpr int kCol0 = 1, kCol2 = 6;
  static constexpr std::size_t kFirst = 0;
};

struct NSKind {
  using Matrix = NSMatrixListwise;
  static constexpr const char* kSource = "backend/vorel/nsmatrixlistwise";
  static Matrix Make() { return Matrix(1, 3, 6); }  // sets {1, 2} and {3, 4, 5}
  static Matrix Wider() { return Matrix(1, 3, 7); }
  static Matrix Shifted() { return Matrix(1, 2, 6); }
  static constexpr int kCol0 = 1, kCol2 = 6;
  static constexpr std::size_t kFirst = 2;
};

template <class Kind>
class ListwiseBlock : public ::testing::Test {
 protected:
  using Matrix = typename Kind::Matrix;
  static constexpr int kCol0 = Kind::kCol0, kCol2 = Kind::kCol2;
  static constexpr bool kIsBlock = !std::is_same_v<Matrix, MatrixListwise>;

  // Rows [first, last) in batches of batchRows, and the reference of the same steps.
  static RefBlock AddInBatches(Matrix& m, const Table& t, std::size_t first, std::size_t last,
                               std::size_t batchRows) {
    RefBlock ref;
    for (std::size_t start = first; start < last; start += batchRows) {
      const std::size_t end = std::min(last, start + batchRows);
      AddRows(m, t, start, end);
      Merge(ref, testing::listwise::ReduceRows(t, start, end, kCol0, kCol2, Kind::kFirst));
    }
    return ref;
  }
  // Merges through MatrixBase& where the class has it.
  static void MergeInto(Matrix& into, Matrix& other) {
    if constexpr (kIsBlock) {
      MatrixBase& base = into;
      base += other;
    } else {
      into += other;
    }
  }
  static bool Defined(int x, int y) {
    return Kind::kFirst == 0 || x == y
           || (x < kCol0 + static_cast<int>(Kind::kFirst))
                  != (y < kCol0 + static_cast<int>(Kind::kFirst));
  }

  // Every cell of a matrix.
  static std::vector<double> Cells(const Matrix& m) {
    std::vector<double> cells;
    for (int x = kCol0; x < kCol2; ++x)
      for (int y = kCol0; y < kCol2; ++y)
        if (Defined(x, y)) cells.push_back(m.CCP(x, y));
    return cells;
  }
};

using Kinds = ::testing::Types<WholeKind, SKind, NSKind>;
TYPED_TEST_SUITE(ListwiseBlock, Kinds);

// Any batch size, any weights, and a merge of two matrices give exactly the
// digits of the written-out reduction and update formula in the same order.
// The merge agrees with one batch of all rows up to rounding (a hundred units
// in the last place of the figures' natural scale: the means for a mean, and
// for a cross-product each mean times the other column's root sum of squares
// and weight, as the cells are centred on means held to their last place),
// and exactly in the constant column.
TYPED_TEST(ListwiseBlock, BitForBitWithTheWrittenOutFormulas) {
  for (int weighting = kNone; weighting <= kBoth; ++weighting) {
    for (std::size_t batchRows : {1u, 4u, 13u, 40u}) {
      const unsigned seed =
          7001u + 31u * static_cast<unsigned>(weighting) + static_cast<unsigned>(batchRows);
      SCOPED_TRACE(::testing::Message() << "seed " << seed << " batch " << batchRows);
      const Table t = RandomTable(seed, 40, 7, weighting);
      auto whole = TypeParam::Make();
      ExpectSameBits(whole, this->AddInBatches(whole, t, 0, 40, batchRows));

      auto first = TypeParam::Make(), second = TypeParam::Make();
      RefBlock ref = this->AddInBatches(first, t, 0, 17, batchRows);
      const RefBlock other = this->AddInBatches(second, t, 17, 40, batchRows);
      this->MergeInto(first, second);
      Merge(ref, other);
      ExpectSameBits(first, ref);

      auto one = TypeParam::Make();
      AddRows(one, t, 0, 40);
      const double w = std::fabs(one.RegWeightSum());
      for (int x = this->kCol0; x < this->kCol2; ++x) {
        EXPECT_NEAR(first.Mean(x), one.Mean(x), 100 * kEps * std::fabs(one.Mean(x))) << x;
        for (int y = this->kCol0; y < this->kCol2; ++y)
          if (this->Defined(x, y)) {
            const double scale = std::fabs(one.Mean(x)) * std::sqrt(w * one.CCP(y, y))
                                 + std::fabs(one.Mean(y)) * std::sqrt(w * one.CCP(x, x));
            EXPECT_NEAR(first.CCP(x, y), one.CCP(x, y), 100 * kEps * scale) << x << "," << y;
          }
      }
      EXPECT_EQ(first.Mean(1), 0.1);
      EXPECT_EQ(first.CCP(1, 1), 0.0);
      EXPECT_EQ(first.CCP(1, 4), 0.0);
    }
  }
}

// A batch is spent: its block columns centred on the batch's means, its
// weights combined, its regression weights and other columns as they were.
TYPED_TEST(ListwiseBlock, TheBatchIsSpentOnTheBlockOnly) {
  const Table t = RandomTable(21, 5, 7, kBoth);
  DataBatch batch = MakeBatch(t, 0, 5);
  auto m = TypeParam::Make();
  m += batch;
  for (unsigned r = 0; r < 5; ++r) {
    for (int c = 0; c < 7; ++c) {
      const bool inside = c >= this->kCol0 && c < this->kCol2;
      EXPECT_EQ(batch.Column(c)[r], t.rows[r][c] - (inside ? m.Mean(c) : 0.0));
    }
    EXPECT_EQ(batch.Weights()[r], t.w[r] * t.rw[r]);
    EXPECT_EQ(batch.RegWeights()[r], t.rw[r]);
  }
  // An empty batch, an empty matrix and a grouped batch change nothing.
  DataBatch empty = MakeBatch(t, 0, 0);
  auto none = TypeParam::Make();
  const std::vector<double> before = this->Cells(m);
  EXPECT_EQ(&(m += empty), &m);
  this->MergeInto(m, none);
  if constexpr (TestFixture::kIsBlock) {
    DataBatchByGroup grouped(7, 1, nullptr, nullptr, nullptr, 1);
    EXPECT_EQ(&(m += grouped), &m);
  }
  EXPECT_EQ(Rows(m), 5u);
  EXPECT_EQ(this->Cells(m), before);
}

TYPED_TEST(ListwiseBlock, ZeroWeightSums) {
  // Rows 1 and 2 have frequency weights totalling 0 but combined weights
  // totalling -1: the frequency weights decide. Row 3's combined weight
  // cancels row 0's.
  Table t = RandomTable(5, 4, 7, kBoth);
  t.w = {2.0, 1.0, -1.0, 1.0};
  t.rw = {1.0, 1.0, 2.0, -2.0};
  const double column3[] = {5.0, 9.0, 4.0, 7.0};
  for (std::size_t r = 0; r < 4; ++r)
    t.rows[r][3] = column3[r];

  // A later batch whose weights total exactly 0 changes nothing at all.
  auto filled = TypeParam::Make();
  AddRows(filled, t, 0, 1);
  AddRows(filled, t, 1, 3);
  EXPECT_EQ(Rows(filled), 1u);
  EXPECT_EQ(filled.Mean(3), 5.0);
  if constexpr (TestFixture::kIsBlock) {
    EXPECT_EQ(filled.Max(3), 5.0);
    EXPECT_EQ(filled.Min(3), 5.0);
  }
  // Combined weights cancelling across the two sides: the means stay this side's.
  AddRows(filled, t, 3, 4);
  EXPECT_EQ(filled.RegWeightSum(), 0.0);
  EXPECT_EQ(filled.Mean(3), 5.0);

  // As a first batch it is stored; Mean and CCP are barred.
  auto zero = TypeParam::Make();
  AddRows(zero, t, 1, 3);
  EXPECT_EQ(Rows(zero), 2u);
  EXPECT_EQ(zero.WeightSum(), 0.0);
  EXPECT_VOREL_ASSERT(zero.Mean(3), "0. < WeightSum()", TypeParam::kSource);
  EXPECT_VOREL_ASSERT(zero.CCP(3, 3), "0. < WeightSum()", TypeParam::kSource);
  if constexpr (TestFixture::kIsBlock) {
    // Max is readable, Min barred; before any row there is no largest value.
    EXPECT_EQ(zero.Max(3), 9.0);
    EXPECT_VOREL_ASSERT(zero.Min(3), "0. < WeightSum()", TypeParam::kSource);
    EXPECT_EQ(TypeParam::Make().Max(3), MaxInitial);
  }
}

// Something into nothing is a deep copy the source is not reached by; the
// same rows twice, or a matrix merged into itself, double every sum exactly
// and keep the means; a NaN extreme of another part is no extreme.
TYPED_TEST(ListwiseBlock, MergesIntoEmptyAndIntoItself) {
  const Table t = RandomTable(99, 8, 7, kRegWeights, true);
  auto filled = TypeParam::Make();
  AddRows(filled, t, 0, 8);
  const std::vector<double> once = this->Cells(filled);

  auto target = TypeParam::Make();
  if constexpr (TestFixture::kIsBlock) {
    // Nothing into nothing: the empty object keeps its own bounds; something
    // into nothing brings the other's bounds.
    target = TypeParam::Shifted();
    auto none = TypeParam::Make();
    this->MergeInto(target, none);
    EXPECT_EQ(target.NColumns(), 0);
    EXPECT_EQ(target.Col1(), TypeParam::Shifted().Col1());
  }
  this->MergeInto(target, filled);
  if constexpr (TestFixture::kIsBlock) {
    EXPECT_EQ(target.Col0(), 1);
    EXPECT_EQ(target.Col1(), filled.Col1());
    EXPECT_EQ(target.Col2(), 6);
  }
  // The same rows again double the copy's sums, and no more: a copy shares
  // nothing with its source, which then doubles itself alone.
  AddRows(target, t, 0, 8);
  EXPECT_EQ(Rows(target), 16u);

  this->MergeInto(filled, filled);
  std::vector<double> twice = once;
  for (double& cell : twice)
    cell *= 2.0;
  EXPECT_EQ(this->Cells(target), twice);
  EXPECT_EQ(this->Cells(filled), twice);
  EXPECT_EQ(filled.RegWeightSum(), target.RegWeightSum());
  EXPECT_EQ(filled.Mean(4), target.Mean(4));

  if constexpr (TestFixture::kIsBlock) {
    // A part whose extremes are NaN (a NaN in its first row) leaves them be.
    Table nan = t;
    nan.rows[0][4] = std::numeric_limits<double>::quiet_NaN();
    auto withNaN = TypeParam::Make();
    AddRows(withNaN, nan, 0, 8);
    const double min = target.Min(4), max = target.Max(4);
    this->MergeInto(target, withNaN);
    EXPECT_EQ(target.Min(4), min);
    EXPECT_EQ(target.Max(4), max);
    EXPECT_TRUE(std::isnan(target.Mean(4)));
  }
}

// ---- the shapes, bounds and preconditions of each class -------------------

TEST(MatrixListwise, WorkedExamplesAndPreconditions) {
  constexpr const char* kSource = WholeKind::kSource;
  const Table t{{{1}, {2}, {3}, {5}, {7}}};
  MatrixListwise m;
  EXPECT_VOREL_ASSERT(m.Mean(0), "col < NColumns()", kSource);
  EXPECT_VOREL_ASSERT(m.CCP(0, 0), "row < NColumns()", kSource);
  AddRows(m, t, 0, 3);
  AddRows(m, t, 3, 5);
  // The decimal figures are rounded: 23.2 comes out one unit in the last place above.
  EXPECT_NEAR(m.CCP(0, 0), 23.2, 4 * kEps * 23.2);
  EXPECT_NEAR(m.Mean(0), 3.6, 4 * kEps * 3.6);
  EXPECT_VOREL_ASSERT(m.CCP(0, 1), "col < NColumns()", kSource);
  // A NaN cell makes its column's mean and every cross-product of it NaN.
  MatrixListwise n;
  AddRows(n, Table{{{1, std::numeric_limits<double>::quiet_NaN()}, {2, 3}}}, 0, 2);
  EXPECT_TRUE(std::isnan(n.Mean(1)) && std::isnan(n.CCP(1, 0)) && std::isnan(n.CCP(1, 1)));
  EXPECT_EQ(n.CCP(0, 0), 0.5);
  DataBatch wide = MakeBatch(Table{{{1, 2, 3}}}, 0, 1);
  DataBatch regWeighted = MakeBatch(Table{{{1, 2}}, {}, {1}}, 0, 1);
  EXPECT_VOREL_ASSERT(n += wide, "_means.size() == d._means.size()", kSource);
  EXPECT_VOREL_ASSERT(n += regWeighted, "_hasRegWeights == d._hasRegWeights", kSource);
  // (n + 1) n / 2 cells are indexed in 32 bits: 65,536 columns do not fit.
  MatrixListwise fresh;
  DataBatch tooWide = MakeBatch(Table{{std::vector<double>(65536, 1.0)}}, 0, 1);
  testing::tables::ExpectVectorTooLong([&] { fresh += tooWide; });
  EXPECT_EQ(fresh.NColumns(), 0u);
  // Row counts go on beyond 32 bits.
  for (int i = 0; i < 32; ++i)
    m += m;
  EXPECT_EQ(m.NRows(), std::uint64_t{5} << 32);
}

// The preconditions the two blocks share, each reported by its own source.
template <class Kind>
class ListwiseBlockOnly : public ::testing::Test {};
using BlockKinds = ::testing::Types<SKind, NSKind>;
TYPED_TEST_SUITE(ListwiseBlockOnly, BlockKinds);

TYPED_TEST(ListwiseBlockOnly, AccessorAndMergePreconditions) {
  const Table t = RandomTable(3, 4, 7, kNone);
  const Table tw = RandomTable(3, 4, 7, kBoth);
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

constexpr const char* kSSource = SKind::kSource;
constexpr const char* kNSSource = NSKind::kSource;

TEST(SMatrixListwise, ShapeAndBounds) {
  Table t = RandomTable(5, 6, 7, kNone);
  t.rows[3][2] = -1e9;
  SMatrixListwise m(2, 5);
  AddRows(m, t, 0, 6);
  EXPECT_EQ(m.Min(2), -1e9);

  // Without bounds: Col2() is 0 until the first batch with rows, then all columns.
  SMatrixListwise all;
  DataBatch empty(7, 2, nullptr, nullptr, nullptr);
  all += empty;
  EXPECT_EQ(all.Col2(), 0);
  AddRows(all, t, 0, 6);
  EXPECT_EQ(all.Col2(), 7);
  EXPECT_EQ(all.CCP(2, 2), m.CCP(2, 2));

  auto firstBatch = [&](SMatrixListwise block) { AddRows(block, t, 0, 3); };
  EXPECT_VOREL_ASSERT(firstBatch(SMatrixListwise(1, 0)), "_col0 == 0 && _col1 == 0", kSSource);
  EXPECT_VOREL_ASSERT(firstBatch(SMatrixListwise(-1, 3)), "_col0==_col1 && _col0>=0", kSSource);
  for (const SMatrixListwise& beyond : {SMatrixListwise(2, 8), SMatrixListwise(3, 3)})
    EXPECT_VOREL_ASSERT(firstBatch(beyond), "_col2 <= nCols && _col2>_col0", kSSource);
  firstBatch(SMatrixListwise(6, 7));  // the last column alone is a block

  // A later batch that lacks the block's columns is refused too.
  const Table narrow = RandomTable(6, 3, 4, kNone);
  EXPECT_VOREL_ASSERT(AddRows(m, narrow, 0, 3), "_col2 <= nCols && _col2>_col0", kSSource);
  EXPECT_EQ(m.NRows(), 6);
}

TEST(NSMatrixListwise, ShapeAndBounds) {
  Table t = RandomTable(12, 7, 6, kNone);
  t.rows[4][5] = 1e7;
  NSMatrixListwise m(1, 3, 6);
  AddRows(m, t, 0, 7);
  EXPECT_EQ(m.Max(5), 1e7);
  EXPECT_NE(m.CCP(4, 4), m.CCP(2, 4));  // a sum of squares, not a rectangle cell
  EXPECT_VOREL_ASSERT(m.CCP(3, 4), "lo < _my->_col1 && hi >= _my->_col1", kNSSource);
  EXPECT_VOREL_ASSERT(m.CCP(2, 1), "lo < _my->_col1 && hi >= _my->_col1", kNSSource);

  auto firstBatch = [&](NSMatrixListwise block) { AddRows(block, t, 0, 3); };
  for (const NSMatrixListwise& disordered : {NSMatrixListwise(0, 0, 3), NSMatrixListwise(1, 3, 3)})
    EXPECT_VOREL_ASSERT(firstBatch(disordered), "_col0<_col1 && _col1<_col2", kNSSource);
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
