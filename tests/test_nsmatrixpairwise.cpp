#include <vorel/databatch.h>
#include <vorel/nsmatrixpairwise.h>

#include <utility>
#include <vector>

#include "pairwise_block_reference.h"
#include "test_support.h"

namespace vorel {
namespace {

constexpr const char* kSource = "backend/vorel/nsmatrixpairwise";

// Six columns; cell (r, c) is 10 c + r, and column 4 is missing in row 0.
DataBatch SixColumns() {
  DataBatch batch(6, 3, nullptr, nullptr, nullptr);
  for (int r = 0; r < 3; ++r) {
    std::vector<double> row;
    for (int c = 0; c < 6; ++c) row.push_back(c == 4 && r == 0 ? -1.0 : 10.0 * c + r);
    batch.AddRow(row.data());
  }
  return batch;
}

TEST(NSMatrixPairwise, RectangleShapeAndPairAddressing) {
  NSMatrixPairwise m(-1.0, 1, 3, 6);
  EXPECT_EQ(m.NColumns(), 0);
  EXPECT_VOREL_ASSERT(m.Var(1), "0. < WeightSum()", kSource);
  DataBatch batch = SixColumns();
  m += batch;
  EXPECT_EQ(m.Col0(), 1);
  EXPECT_EQ(m.Col1(), 3);
  EXPECT_EQ(m.Col2(), 6);
  EXPECT_EQ(m.NColumns(), 5);
  EXPECT_EQ(m.Var(5).Mean(), 51.0);
  EXPECT_EQ(m.Var(4).NRows(), 2);
  // The column of the first set is the pair's first variable, whichever
  // order the columns are asked in; the pair drops row 0, missing in column 4.
  PairStat& pair = m.Pair(4, 2);
  EXPECT_EQ(&pair, &m.Pair(2, 4));
  EXPECT_EQ(pair.NRows(), 2);
  EXPECT_EQ(pair.Mean0(), 21.5);
  EXPECT_EQ(pair.Mean1(), 41.5);
  EXPECT_EQ(m.Pair(1, 5).Mean1(), 51.0);
  EXPECT_EQ(m.Pair(2, 3).Mean0(), 21.0);
  // Six distinct records for the 2 x 3 rectangle.
  std::vector<const PairStat*> seen;
  for (int a = 1; a < 3; ++a)
    for (int b = 3; b < 6; ++b) {
      for (const PairStat* s : seen) EXPECT_NE(s, &m.Pair(a, b));
      seen.push_back(&m.Pair(a, b));
    }

  EXPECT_VOREL_ASSERT(m.Var(0), "col < Col2() && col >= Col0()", kSource);
  EXPECT_VOREL_ASSERT(m.Pair(2, 2), "row != col", kSource);
  EXPECT_VOREL_ASSERT(m.Pair(6, 2), "row < _my->_col2 && row >= _my->_col0", kSource);
  EXPECT_VOREL_ASSERT(m.Pair(2, 0), "col < _my->_col2 && col >= _my->_col0", kSource);
  // Two columns of one set have no record.
  EXPECT_VOREL_ASSERT(m.Pair(3, 4), "lo < _my->_col1 && hi >= _my->_col1", kSource);
  EXPECT_VOREL_ASSERT(m.Pair(2, 1), "lo < _my->_col1 && hi >= _my->_col1", kSource);
}

TEST(NSMatrixPairwise, MergeRulesAndPreconditions) {
  DataBatch batch = SixColumns();
  NSMatrixPairwise m(-1.0, 1, 3, 6), other(-1.0, 1, 3, 6);
  m += batch;
  other += batch;

  // Weights totalling 0: ignored by a filled matrix, rows and all, copied by an empty one.
  double w = 0.0;
  DataBatch zero(6, 1, &w, nullptr, nullptr);
  zero.AddRow(std::vector<double>(6, 2.0).data());
  NSMatrixPairwise zeroSum(-1.0, 1, 3, 6), empty(5.0, 0, 1, 2);
  zeroSum += zero;
  m += zeroSum;
  EXPECT_EQ(m.NRows(), 3);
  empty += zeroSum;
  EXPECT_EQ(empty.NRows(), 1);
  EXPECT_EQ(empty.Col1(), 3);
  EXPECT_EQ(empty.NColumns(), 5);
  EXPECT_EQ(empty.MissingCode(), -1.0);

  // A merge reaches the columns of the second set as well as the first.
  m += other;
  EXPECT_EQ(m.NRows(), 6);
  EXPECT_EQ(m.Var(5).NRows(), 6);
  EXPECT_EQ(m.Var(5).Mean(), 51.0);
  EXPECT_EQ(m.Pair(2, 4).NRows(), 4);

  NSMatrixPairwise narrower(-1.0, 1, 3, 5);
  narrower += batch;
  EXPECT_VOREL_ASSERT(m += narrower, "_varStats.size() == d._varStats.size()", kSource);
  double rw = 1.0;
  DataBatch weighted(6, 1, nullptr, &rw, nullptr);
  weighted.AddRow(std::vector<double>(6, 2.0).data());
  EXPECT_VOREL_ASSERT(m += weighted, "_hasRegWeights == data.HasRegWeights()", kSource);
  NSMatrixPairwise withRW(-1.0, 1, 3, 6);
  withRW += weighted;
  EXPECT_VOREL_ASSERT(m += withRW, "_hasRegWeights == d._hasRegWeights", kSource);
}

// Copies share no record with their source; moves hand the records over.
TEST(NSMatrixPairwise, CopiesAreDeepAndMovesHandOver) {
  DataBatch batch = SixColumns();
  NSMatrixPairwise source(-1.0, 0, 2, 6);
  source += batch;
  NSMatrixPairwise copy(source), assigned(-1.0, 0, 1, 2);
  assigned = source;
  for (const NSMatrixPairwise* m : {&copy, &assigned}) {
    EXPECT_NE(&m->Pair(1, 4), &source.Pair(1, 4));
    EXPECT_EQ(m->Pair(1, 4).CSCP(), source.Pair(1, 4).CSCP());
    EXPECT_EQ(m->Col1(), 2);
  }
  copy += batch;
  EXPECT_EQ(source.Var(0).NRows(), 3);
  EXPECT_EQ(copy.Var(0).NRows(), 6);

  PairStat* record = &source.Pair(0, 5);
  NSMatrixPairwise moved(std::move(source));
  assigned = std::move(moved);
  EXPECT_EQ(&assigned.Pair(0, 5), record);
}

}  // namespace
}  // namespace vorel
