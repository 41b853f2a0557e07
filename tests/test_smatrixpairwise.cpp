#include <vorel/databatch.h>
#include <vorel/initialextremes.h>
#include <vorel/smatrixpairwise.h>

#include <typeinfo>
#include <utility>
#include <vector>

#include "pairwise_block_reference.h"
#include "test_support.h"

namespace vorel {
namespace {

using testing::pairwiseblocks::ExpectSamePair;
using testing::pairwiseblocks::ExpectSameVar;
using testing::RefPair;
using testing::RefVar;

constexpr const char* kSource = "backend/vorel/smatrixpairwise";

// Rows given column by column; no weights.
DataBatch Columns(const std::vector<std::vector<double>>& cols) {
  DataBatch batch(static_cast<unsigned>(cols.size()), static_cast<unsigned>(cols[0].size()),
                  nullptr, nullptr, nullptr);
  std::vector<double> row(cols.size());
  for (std::size_t r = 0; r < cols[0].size(); ++r) {
    for (std::size_t c = 0; c < cols.size(); ++c) row[c] = cols[c][r];
    batch.AddRow(row.data());
  }
  return batch;
}

RefVar Snapshot(const VarStat& v) {
  return {static_cast<std::uint64_t>(v.NRows()), v.WeightSum(), v.RegWeightSum(), v.Mean(),
          v.CSS(), v.Min(), v.Max()};
}
RefPair Snapshot(const PairStat& p) {
  return {static_cast<std::uint64_t>(p.NRows()), p.WeightSum(), p.RegWeightSum(), p.Mean0(),
          p.Mean1(), p.CSS0(), p.CSS1(), p.CSCP()};
}

TEST(SMatrixPairwise, WorkedTableWithBoundsFromFirstBatch) {
  SMatrixPairwise m(-99.0);
  DataBatch empty(2, 3, nullptr, nullptr, nullptr);
  m += empty;
  EXPECT_EQ(m.Col2(), 0);
  EXPECT_EQ(m.NColumns(), 0);
  EXPECT_EQ(m.NRows(), 0);
  DataBatch batch = Columns({{1, 2, -99}, {4, -99, 8}});
  m += batch;
  EXPECT_EQ(m.Col0(), 0);
  EXPECT_EQ(m.Col1(), 0);
  EXPECT_EQ(m.Col2(), 2);
  EXPECT_EQ(m.NColumns(), 2);
  EXPECT_EQ(m.NRows(), 3);
  EXPECT_EQ(m.WeightSum(), 3.0);
  EXPECT_EQ(m.RegWeightSum(), 3.0);
  EXPECT_FALSE(m.HasRegWeights());
  EXPECT_EQ(m.MissingCode(), -99.0);
  ExpectSameVar(m.Var(0), {2, 2, 2, 1.5, 0.5, 1, 2});
  ExpectSameVar(m.Var(1), {2, 2, 2, 6, 8, 4, 8});
  // One row has both cells; the later column is the pair's first variable.
  ExpectSamePair(m.Pair(0, 1), {1, 1, 1, 4, 1, 0, 0, 0});
  EXPECT_EQ(&m.Pair(0, 1), &m.Pair(1, 0));
}

TEST(SMatrixPairwise, Preconditions) {
  SMatrixPairwise m(-1.0, 1, 4);
  EXPECT_VOREL_ASSERT(m.Var(1), "0. < WeightSum()", kSource);
  EXPECT_VOREL_ASSERT(m.Var(4), "col < Col2() && col >= Col0()", kSource);
  DataBatch batch = Columns({{0, 1}, {1, 2}, {2, 3}, {3, 4}, {4, 5}});
  m += batch;
  EXPECT_VOREL_ASSERT(m.Var(0), "col < Col2() && col >= Col0()", kSource);
  EXPECT_VOREL_ASSERT(m.Pair(0, 2), "row < _my->_col2 && row >= _my->_col0", kSource);
  EXPECT_VOREL_ASSERT(m.Pair(2, 4), "col < _my->_col2 && col >= _my->_col0", kSource);
  EXPECT_VOREL_ASSERT(m.Pair(3, 3), "row != col", kSource);
  double rw = 2.0;
  DataBatch weighted(5, 1, nullptr, &rw, nullptr);
  weighted.AddRow(std::vector<double>(5, 1.0).data());
  EXPECT_VOREL_ASSERT(m += weighted, "_hasRegWeights == data.HasRegWeights()", kSource);
  SMatrixPairwise other(-1.0, 1, 4);
  other += weighted;
  EXPECT_VOREL_ASSERT(m += other, "_hasRegWeights == d._hasRegWeights", kSource);
  SMatrixPairwise wider(-1.0, 0, 4);
  wider += batch;
  EXPECT_VOREL_ASSERT(m += wider, "_varStats.size() == d._varStats.size()", kSource);
  double w = 0.0;
  DataBatch zeroWeights(1, 2, &w, nullptr, nullptr);
  const double one = 1.0;
  zeroWeights.AddRow(&one);
  zeroWeights.AddRow(&one);
  SMatrixPairwise zeroSum(-1.0);
  zeroSum += zeroWeights;
  EXPECT_EQ(zeroSum.NRows(), 2);
  EXPECT_VOREL_ASSERT(zeroSum.Var(0), "0. < WeightSum()", kSource);
  // Merging is only between matrices of one class.
  struct Other : MatrixBase {
    int NRows() const override { return 1; }
    using MatrixBase::operator+=;
    MatrixBase& operator+=(MatrixBase&) override { return *this; }
    MatrixBase& operator+=(DataBatch&) override { return *this; }
  } stranger;
  EXPECT_THROW(m += stranger, std::bad_cast);
}

// A column missing in every row of a batch keeps its records as they were;
// one missing throughout reads the empty record; a row missing everywhere
// counts only in the table's totals.
TEST(SMatrixPairwise, MissingColumnsAndRows) {
  SMatrixPairwise m(-9.0);
  DataBatch first = Columns({{1, 5, 2}, {3, -9, 7}, {-9, -9, -9}});
  DataBatch second = Columns({{4, -9}, {-9, -9}, {-9, -9}});
  m += first;
  const RefVar before = Snapshot(m.Var(1));
  const RefPair pairBefore = Snapshot(m.Pair(1, 0));
  m += second;
  ExpectSameVar(m.Var(1), before);
  ExpectSamePair(m.Pair(1, 0), pairBefore);
  EXPECT_EQ(m.NRows(), 5);
  EXPECT_EQ(m.WeightSum(), 5.0);
  EXPECT_EQ(m.Var(0).NRows(), 4);
  EXPECT_EQ(m.Var(0).Max(), 5.0);
  ExpectSameVar(m.Var(2), {0, 0, 0, 0, 0, MinInitial, MaxInitial});
  ExpectSamePair(m.Pair(2, 0), {});
  ExpectSamePair(m.Pair(1, 2), {});
}

// A matrix whose weights total 0 is ignored by a filled matrix, rows and
// all, but copied whole by an empty one.
TEST(SMatrixPairwise, ZeroWeightMatrixMergesOnlyIntoAnEmptyOne) {
  double w = 0.0, rw = 2.0;
  DataBatch zero(2, 2, &w, &rw, nullptr);
  const double row0[] = {1, 3}, row1[] = {2, 3};
  zero.AddRow(row0);
  zero.AddRow(row1);
  SMatrixPairwise zeroSum(0.5);
  zeroSum += zero;
  EXPECT_EQ(zeroSum.NRows(), 2);
  EXPECT_EQ(zeroSum.WeightSum(), 0.0);

  SMatrixPairwise filled(0.5);
  w = 1.0;
  DataBatch some(2, 2, &w, &rw, nullptr);
  some.AddRow(row1);
  filled += some;
  const SMatrixPairwise before(filled);
  filled += zeroSum;
  EXPECT_EQ(filled.NRows(), 1);
  ExpectSameVar(filled.Var(0), Snapshot(before.Var(0)));
  ExpectSamePair(filled.Pair(0, 1), Snapshot(before.Pair(0, 1)));

  SMatrixPairwise empty(7.0, 3, 9);
  empty += zeroSum;
  EXPECT_EQ(empty.NRows(), 2);
  EXPECT_EQ(empty.NColumns(), 2);
  EXPECT_EQ(empty.Col0(), 0);
  EXPECT_EQ(empty.Col2(), 2);
  EXPECT_EQ(empty.MissingCode(), 0.5);
  EXPECT_TRUE(empty.HasRegWeights());
}

// Two batches of 3 rows with regression weight 2 and no weights; a block of
// one column has no pairs and still takes batches and merges.
TEST(SMatrixPairwise, OneColumnBlockAndRegressionWeightTotals) {
  double rw = 2.0;
  DataBatch batch(3, 3, nullptr, &rw, nullptr);
  for (double x : {1.0, 2.0, 6.0}) batch.AddRow(std::vector<double>(3, x).data());
  SMatrixPairwise m(-1.0, 1, 2), other(-1.0, 1, 2);
  m += batch;
  other += batch;
  m += batch;
  EXPECT_EQ(m.WeightSum(), 6.0);
  EXPECT_EQ(m.RegWeightSum(), 12.0);
  m += other;
  EXPECT_EQ(m.NRows(), 9);
  EXPECT_EQ(m.RegWeightSum(), 18.0);
  EXPECT_EQ(m.NColumns(), 1);
  EXPECT_EQ(m.Var(1).Mean(), 3.0);
  EXPECT_EQ(m.Var(1).RegWeightSum(), 18.0);
  EXPECT_VOREL_ASSERT(m.Pair(1, 2), "col < _my->_col2 && col >= _my->_col0", kSource);
}

// Copies share no record with their source; moves hand the records over.
TEST(SMatrixPairwise, CopiesAreDeepAndMovesHandOver) {
  DataBatch batch = Columns({{1, 2, 4}, {8, 3, 3}, {5, 5, 0}});
  SMatrixPairwise source(-1.0);
  source += batch;
  SMatrixPairwise copy(source), assigned(-1.0, 0, 1), adopted(-1.0);
  assigned = source;
  adopted += source;
  const SMatrixPairwise& alias = assigned;
  assigned = alias;
  for (const SMatrixPairwise* m : {&copy, &assigned, &adopted}) {
    EXPECT_NE(&m->Var(0), &source.Var(0));
    EXPECT_NE(&m->Pair(2, 1), &source.Pair(2, 1));
    ExpectSameVar(m->Var(2), Snapshot(source.Var(2)));
    ExpectSamePair(m->Pair(2, 1), Snapshot(source.Pair(2, 1)));
  }
  const RefVar original = Snapshot(source.Var(0));
  copy += batch;
  assigned += batch;
  adopted += batch;
  EXPECT_EQ(source.NRows(), 3);
  ExpectSameVar(source.Var(0), original);
  EXPECT_EQ(adopted.Var(0).NRows(), 6);

  VarStat* record = &source.Var(1);
  SMatrixPairwise moved(std::move(source));
  EXPECT_EQ(&moved.Var(1), record);
  SMatrixPairwise target(-1.0);
  target = std::move(moved);
  EXPECT_EQ(&target.Var(1), record);
  EXPECT_EQ(target.NRows(), 3);
}

}  // namespace
}  // namespace vorel
