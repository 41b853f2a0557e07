#include <vorel/databatch.h>
#include <vorel/initialextremes.h>
#include <vorel/smatrixpairwise.h>

#include <stdexcept>
#include <typeinfo>
#include <utility>
#include <vector>

#include "pairwise_block_reference.h"
#include "test_support.h"

namespace vorel {
namespace {

using testing::pairwiseblocks::Fields;
using Values = std::vector<double>;

constexpr const char* kSource = "backend/vorel/smatrixpairwise";

// Rows given column by column, with one weight for every row (none if null).
DataBatch Columns(const std::vector<Values>& cols, const double* weight = nullptr) {
  DataBatch batch(static_cast<unsigned>(cols.size()), static_cast<unsigned>(cols[0].size()), weight,
                  nullptr, nullptr);
  for (std::size_t r = 0; r < cols[0].size(); ++r) {
    Values row;
    for (const Values& col : cols)
      row.push_back(col[r]);
    batch.AddRow(row.data());
  }
  return batch;
}

TEST(SMatrixPairwise, WorkedTableWithBoundsFromFirstBatch) {
  SMatrixPairwise m(-99.0);
  DataBatch empty(2, 3, nullptr, nullptr, nullptr);
  m += empty;
  EXPECT_EQ(m.Col2(), 0);
  EXPECT_EQ(m.NColumns(), 0);
  DataBatch batch = Columns({{1, 2, -99}, {4, -99, 8}});
  m += batch;
  EXPECT_EQ(m.Col1(), 0);
  EXPECT_EQ(m.Col2(), 2);
  EXPECT_EQ(m.NColumns(), 2);
  EXPECT_EQ(m.NRows(), 3);
  EXPECT_EQ(m.RegWeightSum(), 3.0);
  EXPECT_EQ(m.MissingCode(), -99.0);
  EXPECT_EQ(Fields(m.Var(0)), (Values{2, 2, 2, 1.5, 0.5, 1, 2}));
  EXPECT_EQ(Fields(m.Var(1)), (Values{2, 2, 2, 6, 8, 4, 8}));
  // One row has both cells; the later column is the pair's first variable.
  EXPECT_EQ(Fields(m.Pair(0, 1)), (Values{1, 1, 1, 4, 1, 0, 0, 0}));
  EXPECT_EQ(&m.Pair(0, 1), &m.Pair(1, 0));
}

TEST(SMatrixPairwise, Preconditions) {
  SMatrixPairwise m(-1.0, 1, 4);
  EXPECT_VOREL_ASSERT(m.Var(1), "0. < WeightSum()", kSource);
  DataBatch batch = Columns({{0, 1}, {1, 2}, {2, 3}, {3, 4}, {4, 5}});
  m += batch;
  EXPECT_VOREL_ASSERT(m.Var(4), "col < Col2() && col >= Col0()", kSource);
  EXPECT_VOREL_ASSERT(m.Var(0), "col < Col2() && col >= Col0()", kSource);
  EXPECT_VOREL_ASSERT(m.Pair(0, 2), "row < _my->_col2 && row >= _my->_col0", kSource);
  EXPECT_VOREL_ASSERT(m.Pair(2, 4), "col < _my->_col2 && col >= _my->_col0", kSource);
  EXPECT_VOREL_ASSERT(m.Pair(3, 3), "row != col", kSource);
  double rw = 2.0;
  DataBatch weighted(5, 1, nullptr, &rw, nullptr);
  weighted.AddRow(Values(5, 1.0).data());
  EXPECT_VOREL_ASSERT(m += weighted, "_hasRegWeights == data.HasRegWeights()", kSource);
  SMatrixPairwise other(-1.0, 1, 4), wider(-1.0, 0, 4);
  other += weighted;
  wider += batch;
  EXPECT_VOREL_ASSERT(m += other, "_hasRegWeights == d._hasRegWeights", kSource);
  EXPECT_VOREL_ASSERT(m += wider, "_varStats.size() == d._varStats.size()", kSource);
  SMatrixPairwise backwards(-1.0, 3, 1);
  try {
    backwards += batch;
    ADD_FAILURE() << "a block of negative size was accepted";
  } catch (const std::length_error& error) {
    EXPECT_STREQ(error.what(), "vector<T> too long");
  }
  EXPECT_EQ(backwards.NColumns(), 0);
  struct Stranger : MatrixBase {
    int NRows() const override { return 1; }
    using MatrixBase::operator+=;
    MatrixBase& operator+=(MatrixBase&) override { return *this; }
    MatrixBase& operator+=(DataBatch&) override { return *this; }
  } stranger;
  EXPECT_THROW(m += stranger, std::bad_cast);
}

// A column missing in every row of a batch keeps its records as they were,
// one missing throughout reads the empty record, a row missing everywhere
// counts only in the totals. A matrix whose weights total 0 is ignored by a
// filled matrix, rows and all, but copied whole by an empty one.
TEST(SMatrixPairwise, MissingColumnsAndZeroWeightMerges) {
  SMatrixPairwise m(-9.0);
  DataBatch first = Columns({{1, 5, 2}, {3, -9, 7}, {-9, -9, -9}});
  DataBatch second = Columns({{4, -9}, {-9, -9}, {-9, -9}});
  m += first;
  const Values var1 = Fields(m.Var(1)), pair10 = Fields(m.Pair(1, 0));
  m += second;
  EXPECT_EQ(Fields(m.Var(1)), var1);
  EXPECT_EQ(Fields(m.Pair(1, 0)), pair10);
  EXPECT_EQ(m.NRows(), 5);
  EXPECT_EQ(m.Var(0).NRows(), 4);
  EXPECT_EQ(Fields(m.Var(2)), (Values{0, 0, 0, 0, 0, MinInitial, MaxInitial}));
  EXPECT_EQ(Fields(m.Pair(0, 2)), Values(8, 0.0));

  const double zero = 0.0;
  DataBatch zeroWeights = Columns({{1, 2}, {3, 3}, {5, 6}}, &zero);
  SMatrixPairwise zeroSum(-9.0), empty(7.0, 1, 2);
  zeroSum += zeroWeights;
  EXPECT_EQ(zeroSum.NRows(), 2);
  EXPECT_VOREL_ASSERT(zeroSum.Var(0), "0. < WeightSum()", kSource);
  m += zeroSum;
  EXPECT_EQ(m.NRows(), 5);
  EXPECT_EQ(Fields(m.Var(1)), var1);
  empty += zeroSum;
  EXPECT_EQ(empty.NRows(), 2);
  EXPECT_EQ(empty.Col0(), 0);
  EXPECT_EQ(empty.Col2(), 3);
  EXPECT_EQ(empty.MissingCode(), -9.0);
}

// Two batches of 3 rows with regression weight 2 and no weights; a block of
// one column has no pairs and still takes batches and merges.
TEST(SMatrixPairwise, OneColumnBlockAndRegressionWeightTotals) {
  double rw = 2.0;
  DataBatch batch(3, 3, nullptr, &rw, nullptr);
  for (double x : {1.0, 2.0, 6.0})
    batch.AddRow(Values(3, x).data());
  SMatrixPairwise m(-1.0, 1, 2), other(-1.0, 1, 2);
  m += batch;
  m += batch;
  other += batch;
  EXPECT_EQ(m.WeightSum(), 6.0);
  EXPECT_EQ(m.RegWeightSum(), 12.0);
  m += other;
  EXPECT_EQ(m.NColumns(), 1);
  EXPECT_EQ(Fields(m.Var(1)), (Values{9, 9, 18, 3, 84, 1, 6}));
  EXPECT_VOREL_ASSERT(m.Pair(1, 2), "col < _my->_col2 && col >= _my->_col0", kSource);
}

// Copies, assignments and a first merge share no record with their source;
// moves hand the records over.
TEST(SMatrixPairwise, CopiesAreDeepAndMovesHandOver) {
  DataBatch batch = Columns({{1, 2, 4}, {8, 3, 3}, {5, 5, 0}});
  SMatrixPairwise source(-1.0), assigned(-1.0, 0, 1), adopted(-1.0);
  source += batch;
  SMatrixPairwise copy(source);
  assigned = source;
  adopted += source;
  const SMatrixPairwise& alias = assigned;
  assigned = alias;
  const Values var0 = Fields(source.Var(0));
  for (SMatrixPairwise* m : {&copy, &assigned, &adopted}) {
    EXPECT_NE(&m->Pair(2, 1), &source.Pair(2, 1));
    EXPECT_EQ(Fields(m->Pair(2, 1)), Fields(source.Pair(2, 1)));
    *m += batch;
    EXPECT_EQ(m->Var(0).NRows(), 6);
  }
  EXPECT_EQ(Fields(source.Var(0)), var0);

  VarStat* record = &source.Var(1);
  SMatrixPairwise moved(std::move(source));
  assigned = std::move(moved);
  EXPECT_EQ(&assigned.Var(1), record);
  EXPECT_EQ(assigned.NRows(), 3);
}

}  // namespace
}  // namespace vorel
