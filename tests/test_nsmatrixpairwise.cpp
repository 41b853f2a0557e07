#include <vorel/databatch.h>
#include <vorel/nsmatrixpairwise.h>

#include <utility>
#include <vector>

#include "test_support.h"

namespace vorel {
namespace {

constexpr const char* kSource = "backend/vorel/nsmatrixpairwise";

// Six columns; cell (r, c) is 10 c + r, and column 4 is missing in row 0.
DataBatch SixColumns() {
  DataBatch batch(6, 3, nullptr, nullptr, nullptr);
  for (int r = 0; r < 3; ++r) {
    std::vector<double> row;
    for (int c = 0; c < 6; ++c)
      row.push_back(c == 4 && r == 0 ? -1.0 : 10.0 * c + r);
    batch.AddRow(row.data());
  }
  return batch;
}

TEST(NSMatrixPairwise, RectangleShapeAndPairAddressing) {
  NSMatrixPairwise m(-1.0, 1, 3, 6);
  EXPECT_VOREL_ASSERT(m.Var(1), "0. < WeightSum()", kSource);
  DataBatch batch = SixColumns();
  m += batch;
  EXPECT_EQ(m.NColumns(), 5);
  EXPECT_EQ(m.Var(5).Mean(), 51.0);
  // The column of the first set is the pair's first variable, whichever
  // order the columns are asked in; the pair drops row 0, missing in column 4.
  PairStat& pair = m.Pair(4, 2);
  EXPECT_EQ(&pair, &m.Pair(2, 4));
  EXPECT_EQ(pair.NRows(), 2);
  EXPECT_EQ(pair.Mean0(), 21.5);
  EXPECT_EQ(pair.Mean1(), 41.5);
  EXPECT_EQ(m.Pair(1, 5).Mean1(), 51.0);

  EXPECT_VOREL_ASSERT(m.Var(0), "col < Col2() && col >= Col0()", kSource);
  EXPECT_VOREL_ASSERT(m.Pair(2, 2), "row != col", kSource);
  EXPECT_VOREL_ASSERT(m.Pair(6, 2), "row < _my->_col2 && row >= _my->_col0", kSource);
  EXPECT_VOREL_ASSERT(m.Pair(2, 0), "col < _my->_col2 && col >= _my->_col0", kSource);
  // Two columns of one set have no record.
  EXPECT_VOREL_ASSERT(m.Pair(3, 4), "lo < _my->_col1 && hi >= _my->_col1", kSource);
  EXPECT_VOREL_ASSERT(m.Pair(2, 1), "lo < _my->_col1 && hi >= _my->_col1", kSource);
}

// A matrix whose weights total 0 is ignored by a filled matrix, rows and all,
// but copied whole by an empty one; copies share no record with their source.
TEST(NSMatrixPairwise, MergesAndCopies) {
  DataBatch batch = SixColumns();
  double w = 0.0, rw = 1.0;
  DataBatch zero(6, 1, &w, nullptr, nullptr), weighted(6, 1, nullptr, &rw, nullptr);
  zero.AddRow(std::vector<double>(6, 2.0).data());
  weighted.AddRow(std::vector<double>(6, 2.0).data());
  NSMatrixPairwise m(-1.0, 1, 3, 6), zeroSum(-1.0, 1, 3, 6), empty(5.0, 0, 1, 2);
  m += batch;
  zeroSum += zero;
  m += zeroSum;
  EXPECT_EQ(m.NRows(), 3);
  empty += zeroSum;
  EXPECT_EQ(empty.NRows(), 1);
  EXPECT_EQ(empty.Col1(), 3);
  EXPECT_EQ(empty.MissingCode(), -1.0);

  NSMatrixPairwise narrower(-1.0, 1, 3, 5), withRW(-1.0, 1, 3, 6);
  narrower += batch;
  withRW += weighted;
  EXPECT_VOREL_ASSERT(m += narrower, "_varStats.size() == d._varStats.size()", kSource);
  EXPECT_VOREL_ASSERT(m += weighted, "_hasRegWeights == data.HasRegWeights()", kSource);
  EXPECT_VOREL_ASSERT(m += withRW, "_hasRegWeights == d._hasRegWeights", kSource);

  NSMatrixPairwise copy(m), assigned(-1.0, 0, 1, 2);
  assigned = m;
  for (NSMatrixPairwise* c : {&copy, &assigned}) {
    EXPECT_NE(&c->Pair(1, 4), &m.Pair(1, 4));
    *c += batch;
    EXPECT_EQ(c->Pair(1, 4).NRows(), 4);
  }
  EXPECT_EQ(m.Pair(1, 4).NRows(), 2);
  PairStat* record = &m.Pair(2, 5);
  NSMatrixPairwise moved(std::move(m));
  assigned = std::move(moved);
  EXPECT_EQ(&assigned.Pair(2, 5), record);
}

}  // namespace
}  // namespace vorel
