#include <vorel/DiscriminantMatrix.h>
#include <vorel/DscIndividualMatrix.h>
#include <vorel/databatch.h>
#include <vorel/databatchbygroup.h>
#include <vorel/driver.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <limits>
#include <memory>
#include <stdexcept>
#include <string>
#include <tuple>
#include <typeinfo>
#include <vector>

#include "discriminant_support.h"
#include "test_support.h"

namespace vorel {
namespace {

using testing::GroupedRows;
using testing::RandomRows;
using testing::RowsProblem;
using testing::SameBits;
using testing::WithoutZeroWeights;

constexpr const char* kSource = "backend/vorel/DscIndividualMatrix";
constexpr const char* kHeader = "backend/tables/vorel/DscIndividualMatrix";

// Feeds rows [begin, end) to m in sorted grouped batches of `capacity` rows
// and `batchGroups` groups. Every batch also carries regression weights of 3,
// which must make no difference.
void AddInBatches(MatrixBase& m, const GroupedRows& rows, std::size_t begin, std::size_t end,
                  unsigned capacity, unsigned batchGroups, bool weighted) {
  double weight = 0.0;
  const double regWeight = 3.0;
  unsigned group = 0;
  const auto nVar = static_cast<unsigned>(rows.nVar);
  DataBatchByGroup batch(nVar, capacity, weighted ? &weight : nullptr, &regWeight, &group,
                         batchGroups);
  auto addBatch = [&] {
    batch.SortByGroup();
    m += batch;
    batch.Clear();
  };
  for (std::size_t r = begin; r < end; ++r) {
    if (batch.NRows() == capacity) addBatch();
    std::copy(rows.Row(r), rows.Row(r) + nVar, batch.Row(batch.NRows()));
    weight = rows.weights[r];
    group = rows.groups[r];
    batch.AddRow();
  }
  if (batch.NRows() > 0) addBatch();
}

// The per-group tables written out as plain loops, as a full symmetric
// (nVar+1) x (nVar+1) matrix per group whose last row and column stand for
// the column of ones.
struct GroupTables {
  int nGroup = 0;
  int nVar = 0;
  std::vector<double> cells;  // [(g * (nVar+1) + row) * (nVar+1) + col]
  double weightSum = 0.0;
  int nRows = 0;
  bool filled = false;

  double& At(int g, int row, int col) {
    const int side = nVar + 1;
    return cells[(static_cast<std::size_t>(g) * side + row) * side + col];
  }
  double At(int g, int row, int col) const {
    return const_cast<GroupTables&>(*this).At(g, row, col);
  }
};

GroupTables PlainTables(const GroupedRows& rows, std::size_t begin, std::size_t end, int nGroup,
                        bool weighted) {
  const int n = rows.nVar;
  GroupTables t{nGroup, n, std::vector<double>(nGroup * (n + 1) * (n + 1))};
  for (std::size_t r = begin; r < end; ++r) {
    const double w = weighted ? rows.weights[r] : 1.0;
    const int g = static_cast<int>(rows.groups[r]);
    for (int i = 0; i < n; ++i) {
      for (int j = 0; j <= i; ++j)
        t.At(g, i, j) += (w * rows.Cell(r, i)) * rows.Cell(r, j);
      t.At(g, n, i) += rows.Cell(r, i) * w;
    }
    t.At(g, n, n) += w;
  }
  for (int g = 0; g < nGroup; ++g)
    for (int i = 0; i <= n; ++i)
      for (int j = 0; j < i; ++j)
        t.At(g, j, i) = t.At(g, i, j);
  // The total weight runs over the batch in group order.
  for (int g = 0; g < nGroup; ++g)
    for (std::size_t r = begin; r < end; ++r)
      if (static_cast<int>(rows.groups[r]) == g) t.weightSum += weighted ? rows.weights[r] : 1.0;
  t.nRows = static_cast<int>(end - begin);
  t.filled = end > begin;
  return t;
}

void MergeTables(GroupTables& into, const GroupTables& part) {
  if (!part.filled) return;
  if (!into.filled) {
    into = part;
    return;
  }
  if (part.weightSum == 0.0) return;
  for (std::size_t k = 0; k < into.cells.size(); ++k)
    into.cells[k] += part.cells[k];
  into.weightSum += part.weightSum;
  into.nRows += part.nRows;
}

GroupTables BatchedTables(const GroupedRows& rows, std::size_t begin, std::size_t end, int nGroup,
                          unsigned capacity, bool weighted) {
  GroupTables all;
  for (std::size_t start = begin; start < end; start += capacity)
    MergeTables(all, PlainTables(rows, start, std::min<std::size_t>(end, start + capacity), nGroup,
                                 weighted));
  return all;
}

// Every entry, by variable numbers in both orders and by index in the
// documented layout.
void ExpectTables(const DiscIndividualMatrix& m, const GroupTables& t) {
  ASSERT_EQ(m.NGroup(), t.nGroup);
  ASSERT_EQ(m.NVar(), t.nVar);
  EXPECT_EQ(m.NRows(), t.nRows);
  EXPECT_PRED2(SameBits, m.WeightSum(), t.weightSum);
  const int n = t.nVar;
  for (int g = 0; g < t.nGroup; ++g) {
    for (int row = 0; row <= n; ++row) {
      for (int col = 0; col <= n; ++col) {
        EXPECT_PRED2(SameBits, m.TSSP(row, col, g), t.At(g, row, col))
            << "group " << g << " (" << row << ", " << col << ")";
      }
    }
    const int nCellsCrossProduct = n * (n + 1) / 2;
    for (int i = 0; i < n; ++i) {
      for (int j = 0; j <= i; ++j)
        EXPECT_PRED2(SameBits, m.TSSP(i * (i + 1) / 2 + j, g), t.At(g, i, j));
      EXPECT_PRED2(SameBits, m.TSSP(nCellsCrossProduct + i, g), t.At(g, n, i));
    }
    EXPECT_PRED2(SameBits, m.TSSP(nCellsCrossProduct + n, g), t.At(g, n, n));
  }
}

GroupedRows WorkedRows() {
  GroupedRows rows;
  rows.nVar = 2;
  rows.Add(0, 1, {1, 2});
  rows.Add(0, 1, {5, 6});
  rows.Add(1, 2, {3, 4});
  return rows;
}

TEST(DiscIndividualMatrix, WorkedTableInOneBatchOrSeveral) {
  const double expected[2][6] = {{26, 32, 40, 6, 8, 2}, {18, 24, 32, 6, 8, 2}};
  for (unsigned capacity : {3u, 2u, 1u}) {
    SCOPED_TRACE(capacity);
    DiscIndividualMatrix m(2, 2);
    AddInBatches(m, WorkedRows(), 0, 3, capacity, 2, true);
    EXPECT_EQ(m.NRows(), 3);
    EXPECT_EQ(m.WeightSum(), 4.0);
    for (int g = 0; g < 2; ++g)
      for (int k = 0; k < 6; ++k)
        EXPECT_EQ(m.TSSP(k, g), expected[g][k]) << g << ", " << k;
    EXPECT_EQ(m.TSSP(5, 0), 2.0);
    EXPECT_EQ(m.TSSP(1, 1), 24.0);
    // By variable numbers, 2 being the column of ones.
    EXPECT_EQ(m.TSSP(0, 0, 0), 26.0);
    EXPECT_EQ(m.TSSP(1, 1, 0), 40.0);
    EXPECT_EQ(m.TSSP(0, 1, 1), 24.0);
    EXPECT_EQ(m.TSSP(1, 0, 1), 24.0);
    EXPECT_EQ(m.TSSP(2, 0, 0), 6.0);
    EXPECT_EQ(m.TSSP(1, 2, 0), 8.0);
    EXPECT_EQ(m.TSSP(2, 2, 1), 2.0);
  }
}

TEST(DiscIndividualMatrix, WithoutWeightsTheLastEntryCountsRows) {
  DiscIndividualMatrix m(2, 2);
  AddInBatches(m, WorkedRows(), 0, 3, 2, 2, /*weighted=*/false);
  EXPECT_EQ(m.WeightSum(), 3.0);
  EXPECT_EQ(m.NRows(), 3);
  EXPECT_EQ(m.TSSP(5, 0), 2.0);
  EXPECT_EQ(m.TSSP(5, 1), 1.0);
  EXPECT_EQ(m.TSSP(1, 1), 12.0);
}

// (batch capacity, variables, weighted)
class DiscIndividualMatrixSplit : public ::testing::TestWithParam<std::tuple<unsigned, int, bool>> {
};

TEST_P(DiscIndividualMatrixSplit, MatchesPlainSumsBatchByBatch) {
  const auto [capacity, nVar, weighted] = GetParam();
  // Five groups: 2 and 3 get no rows, 4 is the largest the matrix takes.
  const unsigned seed = 4321u + capacity + 10u * nVar;
  SCOPED_TRACE("seed " + std::to_string(seed));
  const GroupedRows rows = RandomRows(seed, nVar, 37, {4, 0, 1}, /*dyadic=*/false);
  DiscIndividualMatrix m(5, nVar);
  AddInBatches(m, rows, 0, rows.size(), capacity, 5, weighted);
  ExpectTables(m, BatchedTables(rows, 0, rows.size(), 5, capacity, weighted));
  for (int k = 0; k < (nVar + 1) * (nVar + 2) / 2; ++k)
    EXPECT_EQ(m.TSSP(k, 2), 0.0);
}

TEST_P(DiscIndividualMatrixSplit, DyadicRowsGiveTheSameBitsHoweverSplit) {
  const auto [capacity, nVar, weighted] = GetParam();
  const unsigned seed = 77u + capacity + 10u * nVar;
  SCOPED_TRACE("seed " + std::to_string(seed));
  const GroupedRows rows = RandomRows(seed, nVar, 37, {0, 1, 2}, /*dyadic=*/true);
  DiscIndividualMatrix m(3, nVar);
  AddInBatches(m, rows, 0, rows.size(), capacity, 3, weighted);
  ExpectTables(m, PlainTables(rows, 0, rows.size(), 3, weighted));
}

// The per-group sums that both tables keep come out of the same additions in
// the same order, so they agree bit for bit on any data; the totals over the
// groups agree where nothing rounds.
TEST_P(DiscIndividualMatrixSplit, AgreesWithTheTotalsTable) {
  const auto [capacity, nVar, weighted] = GetParam();
  for (bool dyadic : {false, true}) {
    const unsigned seed = 555u + capacity + 10u * nVar;
    SCOPED_TRACE("seed " + std::to_string(seed) + (dyadic ? " dyadic" : ""));
    const GroupedRows rows = RandomRows(seed, nVar, 41, {0, 1, 3}, dyadic);
    DiscIndividualMatrix byGroup(4, nVar);
    DiscriminantMatrix totals(4, nVar);
    AddInBatches(byGroup, rows, 0, rows.size(), capacity, 4, weighted);
    {
      double weight = 0.0;
      unsigned group = 0;
      DataBatch batch(static_cast<unsigned>(nVar), capacity, weighted ? &weight : nullptr, nullptr,
                      &group);
      for (std::size_t r = 0; r < rows.size(); ++r) {
        weight = rows.weights[r];
        group = rows.groups[r];
        batch.AddRow(rows.Row(r));
        if (batch.NRows() == capacity || r + 1 == rows.size()) {
          totals += batch;
          batch.Clear();
        }
      }
    }
    ASSERT_EQ(byGroup.NRows(), totals.NRows());
    for (int g = 0; g < 4; ++g) {
      EXPECT_PRED2(SameBits, byGroup.TSSP(nVar, nVar, g), totals.sumW(g));
      for (int i = 0; i < nVar; ++i) {
        EXPECT_PRED2(SameBits, byGroup.TSSP(nVar, i, g), totals.sumX1(g, i));
        EXPECT_PRED2(SameBits, byGroup.TSSP(i, i, g), totals.sumX2(g, i));
      }
    }
    // The total weight runs in group order here and in row order there.
    if (!dyadic) continue;
    EXPECT_EQ(byGroup.WeightSum(), totals.WeightSum());
    for (int i = 0; i < nVar; ++i) {
      for (int j = 0; j <= i; ++j) {
        double overGroups = 0.0;
        for (int g = 0; g < 4; ++g)
          overGroups += byGroup.TSSP(i, j, g);
        EXPECT_EQ(overGroups, totals.TSSP(i, j)) << i << ", " << j;
      }
    }
  }
}

INSTANTIATE_TEST_SUITE_P(BatchesAndShapes, DiscIndividualMatrixSplit,
                         ::testing::Combine(::testing::Values(1u, 4u, 5u, 64u),
                                            ::testing::Values(1, 2, 6), ::testing::Bool()));

// The same rows through Driver, over threads: (threads, batch capacity).
class DiscIndividualMatrixThreaded : public ::testing::TestWithParam<std::tuple<int, unsigned>> {
 protected:
  // Runs the rows and returns the shared matrix, built without a shape so
  // that it takes the shape of the first worker's matrix merged into it.
  static DiscIndividualMatrix Run(const GroupedRows& rows, int nGroup) {
    const auto [threads, capacity] = GetParam();
    DiscIndividualMatrix result;
    const DiscIndividualMatrix prototype(nGroup, rows.nVar);
    RowsProblem<DiscIndividualMatrix, DataBatchByGroup> problem(
        rows, capacity, prototype, result, [&](const double* weight, const unsigned* group) {
          return std::make_unique<DataBatchByGroup>(static_cast<unsigned>(rows.nVar), capacity,
                                                    weight, nullptr, group,
                                                    static_cast<unsigned>(nGroup));
        });
    Driver(&problem, threads);
    return result;
  }
};

TEST_P(DiscIndividualMatrixThreaded, DyadicRowsGiveExactlyThePlainSums) {
  const GroupedRows rows = RandomRows(2025, 3, 300, {0, 1, 3}, /*dyadic=*/true);
  const DiscIndividualMatrix m = Run(rows, 4);
  ExpectTables(m, PlainTables(rows, 0, rows.size(), 4, true));
}

// Partial sums join in an order the threads choose; each result may then
// differ from the plain sum by at most n roundings of a partial sum, and the
// sum of magnitudes bounds every partial sum.
TEST_P(DiscIndividualMatrixThreaded, OtherRowsStayWithinRoundingOfThePlainSums) {
  const unsigned seed = 815;
  SCOPED_TRACE("seed " + std::to_string(seed));
  const GroupedRows rows = WithoutZeroWeights(RandomRows(seed, 3, 300, {0, 1, 3}, false));
  GroupedRows magnitudes = rows;
  for (double& cell : magnitudes.cells)
    cell = std::fabs(cell);
  const GroupTables t = PlainTables(rows, 0, rows.size(), 4, true);
  const GroupTables bound = PlainTables(magnitudes, 0, rows.size(), 4, true);
  const double ulps =
      2.0 * static_cast<double>(rows.size()) * std::numeric_limits<double>::epsilon();

  const DiscIndividualMatrix m = Run(rows, 4);
  EXPECT_EQ(m.NRows(), t.nRows);
  EXPECT_NEAR(m.WeightSum(), t.weightSum, ulps * bound.weightSum);
  for (int g = 0; g < 4; ++g)
    for (int row = 0; row <= 3; ++row)
      for (int col = 0; col <= row; ++col)
        EXPECT_NEAR(m.TSSP(row, col, g), t.At(g, row, col), ulps * bound.At(g, row, col))
            << "group " << g << " (" << row << ", " << col << ")";
}

INSTANTIATE_TEST_SUITE_P(ThreadsAndBatches, DiscIndividualMatrixThreaded,
                         ::testing::Combine(::testing::Values(1, 2, 4),
                                            ::testing::Values(1u, 7u, 64u)));

TEST(DiscIndividualMatrix, BatchesWithFewerGroupsLeaveTheHigherOnesAlone) {
  const GroupedRows low = RandomRows(3, 2, 10, {0, 1}, true);
  const GroupedRows high = RandomRows(4, 2, 10, {2, 3}, true);
  DiscIndividualMatrix m(4, 2);
  AddInBatches(m, low, 0, 10, 16, 2, true);  // batches that know only groups 0 and 1
  AddInBatches(m, high, 0, 10, 16, 4, true);
  GroupTables expected = PlainTables(low, 0, 10, 4, true);
  MergeTables(expected, PlainTables(high, 0, 10, 4, true));
  ExpectTables(m, expected);
}

TEST(DiscIndividualMatrix, MergeIntoDefaultConstructedTakesShapeAndCopiesDeeply) {
  const GroupedRows rows = RandomRows(8, 3, 20, {0, 1, 2}, false);
  DiscIndividualMatrix first(3, 3), second(3, 3);
  AddInBatches(first, rows, 0, 9, 4, 3, true);
  AddInBatches(second, rows, 9, 20, 4, 3, true);

  DiscIndividualMatrix total;
  EXPECT_EQ(total.NGroup(), 0);
  EXPECT_EQ(total.NVar(), 0);
  total += first;
  total += second;
  GroupTables expected = BatchedTables(rows, 0, 9, 3, 4, true);
  MergeTables(expected, BatchedTables(rows, 9, 20, 3, 4, true));
  ExpectTables(total, expected);

  ExpectTables(first, BatchedTables(rows, 0, 9, 3, 4, true));
  AddInBatches(first, rows, 0, 20, 4, 3, true);  // doesn't reach total
  ExpectTables(total, expected);
}

TEST(DiscIndividualMatrix, EmptyBatchesAndEmptySourcesChangeNothing) {
  DiscIndividualMatrix m(2, 2);
  DataBatchByGroup wrongShape(5, 4, nullptr, nullptr, nullptr, 0);  // never checked: no rows
  m += wrongShape;
  EXPECT_EQ(m.NRows(), 0);
  DiscIndividualMatrix noRows(7, 9);
  m += noRows;
  EXPECT_EQ(m.NGroup(), 2);
  EXPECT_EQ(m.NVar(), 2);
  EXPECT_VOREL_ASSERT(m.TSSP(0, 0), "0. < WeightSum()", kSource);

  AddInBatches(m, WorkedRows(), 0, 3, 3, 2, true);
  m += noRows;
  m += wrongShape;
  ExpectTables(m, PlainTables(WorkedRows(), 0, 3, 2, true));
}

TEST(DiscIndividualMatrix, RowsWhoseWeightsTotalZero) {
  GroupedRows cancelling;
  cancelling.nVar = 2;
  cancelling.Add(1, -2.0, {3, 4});
  cancelling.Add(0, 2.0, {1, 2});

  DiscIndividualMatrix m(2, 2);
  AddInBatches(m, cancelling, 0, 2, 2, 2, true);
  EXPECT_EQ(m.NRows(), 2);
  EXPECT_EQ(m.WeightSum(), 0.0);
  EXPECT_VOREL_ASSERT(m.TSSP(0, 0), "0. < WeightSum()", kSource);
  EXPECT_VOREL_ASSERT(m.TSSP(0, 0, 0), "0. < WeightSum()", kSource);

  AddInBatches(m, WorkedRows(), 0, 3, 3, 2, true);
  AddInBatches(m, cancelling, 0, 2, 2, 2, true);  // adds nothing, rows included
  GroupTables expected = PlainTables(cancelling, 0, 2, 2, true);
  MergeTables(expected, PlainTables(WorkedRows(), 0, 3, 2, true));
  EXPECT_EQ(m.NRows(), 5);
  ExpectTables(m, expected);

  DiscIndividualMatrix zero(2, 2);
  AddInBatches(zero, cancelling, 0, 2, 2, 2, true);
  m += zero;
  EXPECT_EQ(m.NRows(), 5);
  DiscIndividualMatrix copy;
  copy += zero;
  EXPECT_EQ(copy.NRows(), 2);
}

TEST(DiscIndividualMatrix, Preconditions) {
  DiscIndividualMatrix m(2, 2);
  AddInBatches(m, WorkedRows(), 0, 3, 3, 2, true);
  EXPECT_VOREL_ASSERT(m.TSSP(6, 0), "0 <= tsspIndex && tsspIndex < countMatrix", kSource);
  EXPECT_VOREL_ASSERT(m.TSSP(-1, 0), "0 <= tsspIndex && tsspIndex < countMatrix", kSource);
  EXPECT_VOREL_ASSERT(m.TSSP(0, 2), "groupVal < NGroup() && groupVal >= 0", kSource);
  EXPECT_VOREL_ASSERT(m.TSSP(0, -1), "groupVal < NGroup() && groupVal >= 0", kSource);
  EXPECT_VOREL_ASSERT(m.TSSP(3, 0, 0), "row <= NVar() && row >= 0", kSource);
  EXPECT_VOREL_ASSERT(m.TSSP(-1, 0, 0), "row <= NVar() && row >= 0", kSource);
  EXPECT_VOREL_ASSERT(m.TSSP(0, 3, 0), "col <= NVar() && col >= 0", kSource);
  EXPECT_VOREL_ASSERT(m.TSSP(0, -1, 0), "col <= NVar() && col >= 0", kSource);
  EXPECT_VOREL_ASSERT(m.TSSP(0, 0, 2), "groupVal < NGroup() && groupVal >= 0", kSource);

  // Ungrouped batches are refused, through the base class too.
  DataBatch plain(2, 1, nullptr, nullptr, nullptr);
  const double row[2] = {1, 2};
  plain.AddRow(row);
  MatrixBase& base = m;
  EXPECT_VOREL_ASSERT(m += plain, "false", kHeader);
  EXPECT_VOREL_ASSERT(base += plain, "false", kHeader);

  // A batch of the wrong width, first or later.
  unsigned group = 0;
  DataBatchByGroup wide(3, 1, nullptr, nullptr, &group, 2);
  std::fill_n(wide.Row(0), 3, 1.0);
  wide.AddRow();
  wide.SortByGroup();
  DiscIndividualMatrix fresh(2, 2);
  EXPECT_VOREL_ASSERT(fresh += wide, "nCols == _nVar", kSource);
  EXPECT_VOREL_ASSERT(m += wide, "nCols == _nVar", kSource);

  // Rows but no group: the batch reaches no table, and the object stays empty.
  DataBatchByGroup ungrouped(2, 1, nullptr, nullptr, nullptr, 0);
  std::fill_n(ungrouped.Row(0), 2, 1.0);
  ungrouped.AddRow();
  EXPECT_VOREL_ASSERT(fresh += ungrouped, "tsspIndex == nCellsCrossProduct", kSource);
  EXPECT_EQ(fresh.NRows(), 0);

  DiscIndividualMatrix threeGroups(3, 2);
  AddInBatches(threeGroups, WorkedRows(), 0, 3, 3, 3, true);
  EXPECT_VOREL_ASSERT(m += threeGroups, "_nVar == d._nVar && _nGroup == d._nGroup", kSource);
  ExpectTables(m, PlainTables(WorkedRows(), 0, 3, 2, true));
}

TEST(DiscIndividualMatrix, MergingAnotherClassIsRefused) {
  DiscIndividualMatrix m(2, 2);
  DiscriminantMatrix other(2, 2);
  const unsigned group = 0;
  DataBatch batch(2, 1, nullptr, nullptr, &group);
  const double row[2] = {1, 2};
  batch.AddRow(row);
  other += batch;
  EXPECT_THROW(m += other, std::bad_cast);
  EXPECT_EQ(m.NRows(), 0);
}

TEST(DiscIndividualMatrix, ShapesTooLargeOrNegativeAreRefusedAndLeaveTheObjectEmpty) {
  unsigned group = 0;
  DataBatchByGroup one(1, 1, nullptr, nullptr, &group, 1);
  one.Row(0)[0] = 1.0;
  one.AddRow();
  one.SortByGroup();
  DiscIndividualMatrix huge(1 << 30, 1);  // 3 entries a group: 3 * 2^30 cells
  try {
    huge += one;
    ADD_FAILURE() << "expected std::length_error";
  } catch (const std::length_error& e) {
    EXPECT_EQ(std::string(e.what()), "vector<T> too long");
  }
  EXPECT_EQ(huge.NRows(), 0);
  DiscIndividualMatrix negative(-1, 1);
  EXPECT_THROW(negative += one, std::length_error);
  EXPECT_EQ(negative.NRows(), 0);
}

TEST(DiscIndividualMatrix, CopiesAreDeepAndMovesHandOver) {
  DiscIndividualMatrix original(2, 2);
  AddInBatches(original, WorkedRows(), 0, 3, 3, 2, true);
  const GroupTables worked = PlainTables(WorkedRows(), 0, 3, 2, true);

  DiscIndividualMatrix copy(original);
  DiscIndividualMatrix assigned(5, 5);
  assigned = original;
  AddInBatches(original, WorkedRows(), 0, 3, 3, 2, true);
  ExpectTables(copy, worked);
  ExpectTables(assigned, worked);
  EXPECT_EQ(original.NRows(), 6);

  DiscIndividualMatrix& alias = copy;
  copy = alias;
  ExpectTables(copy, worked);

  DiscIndividualMatrix moved(std::move(copy));
  ExpectTables(moved, worked);
  DiscIndividualMatrix moveAssigned;
  moveAssigned = std::move(moved);
  ExpectTables(moveAssigned, worked);
  moved = original;
  EXPECT_EQ(moved.NRows(), 6);

  const DiscIndividualMatrix shaped(3, 4);
  DiscIndividualMatrix emptyCopy(shaped);
  EXPECT_EQ(emptyCopy.NGroup(), 3);
  EXPECT_EQ(emptyCopy.NVar(), 4);
  EXPECT_EQ(emptyCopy.NRows(), 0);
}

}  // namespace
}  // namespace vorel
