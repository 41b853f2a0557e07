#include <vorel/DiscriminantMatrix.h>
#include <vorel/databatch.h>
#include <vorel/databatchbygroup.h>
#include <vorel/driver.h>

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

constexpr const char* kSource = "backend/vorel/DiscriminantMatrix";

// Feeds rows [begin, end) to m in batches of `capacity` rows. Every batch also
// carries regression weights of 3, which must make no difference.
void AddInBatches(MatrixBase& m, const GroupedRows& rows, std::size_t begin, std::size_t end,
                  unsigned capacity, bool weighted) {
  double weight = 0.0;
  const double regWeight = 3.0;
  unsigned group = 0;
  DataBatch batch(static_cast<unsigned>(rows.nVar), capacity, weighted ? &weight : nullptr,
                  &regWeight, &group);
  for (std::size_t r = begin; r < end; ++r) {
    if (batch.NRows() == capacity) {
      m += batch;
      batch.Clear();
    }
    weight = rows.weights[r];
    group = rows.groups[r];
    batch.AddRow(rows.Row(r));
  }
  if (batch.NRows() > 0) m += batch;
}

void AddAll(MatrixBase& m, const GroupedRows& rows, unsigned capacity, bool weighted = true) {
  AddInBatches(m, rows, 0, rows.size(), capacity, weighted);
}

// The tables written out as plain loops over the rows, in row order.
struct Totals {
  int nGroup = 0;
  int nVar = 0;
  std::vector<double> sumW;
  std::vector<double> sumX1;  // [g * nVar + i]
  std::vector<double> sumX2;
  std::vector<double> cross;  // [i * nVar + j], i > j
  double weightSum = 0.0;
  int nRows = 0;
  bool filled = false;
};

Totals PlainTotals(const GroupedRows& rows, std::size_t begin, std::size_t end, int nGroup,
                   bool weighted) {
  const int nVar = rows.nVar;
  Totals t{nGroup,
           nVar,
           std::vector<double>(nGroup),
           std::vector<double>(nGroup * nVar),
           std::vector<double>(nGroup * nVar),
           std::vector<double>(nVar * nVar)};
  for (std::size_t r = begin; r < end; ++r) {
    const double w = weighted ? rows.weights[r] : 1.0;
    const unsigned g = rows.groups[r];
    t.sumW[g] += w;
    t.weightSum += w;
    for (int i = 0; i < nVar; ++i) {
      const double wx = rows.Cell(r, i) * w;
      t.sumX1[g * nVar + i] += wx;
      t.sumX2[g * nVar + i] += wx * rows.Cell(r, i);
      for (int j = 0; j < i; ++j)
        t.cross[i * nVar + j] += (w * rows.Cell(r, i)) * rows.Cell(r, j);
    }
  }
  t.nRows = static_cast<int>(end - begin);
  t.filled = end > begin;
  return t;
}

// Joins partial tables as the matrix promises: the first one is taken over,
// later ones are added cell by cell unless their weights total zero.
void MergeTotals(Totals& into, const Totals& part) {
  if (!part.filled) return;
  if (!into.filled) {
    into = part;
    return;
  }
  if (part.weightSum == 0.0) return;
  for (std::size_t k = 0; k < into.sumW.size(); ++k)
    into.sumW[k] += part.sumW[k];
  for (std::size_t k = 0; k < into.sumX1.size(); ++k)
    into.sumX1[k] += part.sumX1[k];
  for (std::size_t k = 0; k < into.sumX2.size(); ++k)
    into.sumX2[k] += part.sumX2[k];
  for (std::size_t k = 0; k < into.cross.size(); ++k)
    into.cross[k] += part.cross[k];
  into.weightSum += part.weightSum;
  into.nRows += part.nRows;
}

Totals BatchedTotals(const GroupedRows& rows, std::size_t begin, std::size_t end, int nGroup,
                     unsigned capacity, bool weighted) {
  Totals all;
  for (std::size_t start = begin; start < end; start += capacity)
    MergeTotals(all, PlainTotals(rows, start, std::min<std::size_t>(end, start + capacity), nGroup,
                                 weighted));
  return all;
}

void ExpectTotals(const DiscriminantMatrix& m, const Totals& t) {
  ASSERT_EQ(m.NGroup(), t.nGroup);
  ASSERT_EQ(m.NVar(), t.nVar);
  EXPECT_EQ(m.NRows(), t.nRows);
  EXPECT_PRED2(SameBits, m.WeightSum(), t.weightSum);
  for (int g = 0; g < t.nGroup; ++g) {
    EXPECT_PRED2(SameBits, m.sumW(g), t.sumW[g]) << "group " << g;
    for (int i = 0; i < t.nVar; ++i) {
      EXPECT_PRED2(SameBits, m.sumX1(g, i), t.sumX1[g * t.nVar + i]) << g << ", " << i;
      EXPECT_PRED2(SameBits, m.sumX2(g, i), t.sumX2[g * t.nVar + i]) << g << ", " << i;
    }
  }
  for (int i = 0; i < t.nVar; ++i) {
    for (int j = 0; j < i; ++j) {
      EXPECT_PRED2(SameBits, m.TSSP(i, j), t.cross[i * t.nVar + j]) << i << ", " << j;
      EXPECT_PRED2(SameBits, m.TSSP(j, i), t.cross[i * t.nVar + j]) << j << ", " << i;
    }
  }
}

GroupedRows WorkedRows() {
  GroupedRows rows;
  rows.nVar = 2;
  rows.Add(0, 1, {1, 2});
  rows.Add(1, 2, {3, 4});
  rows.Add(0, 1, {5, 6});
  return rows;
}

TEST(DiscriminantMatrix, WorkedTableInOneBatchOrTwo) {
  for (unsigned capacity : {3u, 2u, 1u}) {
    SCOPED_TRACE(capacity);
    DiscriminantMatrix m(2, 2);
    AddAll(m, WorkedRows(), capacity);
    EXPECT_EQ(m.NRows(), 3);
    EXPECT_EQ(m.WeightSum(), 4.0);
    EXPECT_EQ(m.sumW(0), 2.0);
    EXPECT_EQ(m.sumW(1), 2.0);
    EXPECT_EQ(m.sumX1(0, 0), 6.0);
    EXPECT_EQ(m.sumX1(1, 0), 6.0);
    EXPECT_EQ(m.sumX1(0, 1), 8.0);
    EXPECT_EQ(m.sumX1(1, 1), 8.0);
    EXPECT_EQ(m.sumX2(0, 0), 26.0);
    EXPECT_EQ(m.sumX2(1, 0), 18.0);
    EXPECT_EQ(m.sumX2(0, 1), 40.0);
    EXPECT_EQ(m.sumX2(1, 1), 32.0);
    EXPECT_EQ(m.TSSP(1, 0), 56.0);
    EXPECT_EQ(m.TSSP(0, 1), 56.0);
    // The diagonal is the total sum of squares over all groups.
    EXPECT_EQ(m.TSSP(0, 0), 44.0);
    EXPECT_EQ(m.TSSP(1, 1), 72.0);
  }
}

TEST(DiscriminantMatrix, WithoutWeightsEveryRowWeighsOne) {
  DiscriminantMatrix m(2, 2);
  AddAll(m, WorkedRows(), 2, /*weighted=*/false);
  EXPECT_EQ(m.WeightSum(), 3.0);
  EXPECT_EQ(m.NRows(), 3);
  EXPECT_EQ(m.sumW(0), 2.0);
  EXPECT_EQ(m.sumW(1), 1.0);
  EXPECT_EQ(m.sumX2(1, 1), 16.0);
  EXPECT_EQ(m.TSSP(0, 1), 2.0 + 12.0 + 30.0);
}

// (batch capacity, variables, weighted)
class DiscriminantMatrixSplit : public ::testing::TestWithParam<std::tuple<unsigned, int, bool>> {};

TEST_P(DiscriminantMatrixSplit, MatchesPlainSumsBatchByBatch) {
  const auto [capacity, nVar, weighted] = GetParam();
  // Five groups: 2 and 3 get no rows, 4 is the largest the matrix takes.
  const int nGroup = 5;
  const unsigned seed = 1234u + capacity + 10u * nVar;
  SCOPED_TRACE("seed " + std::to_string(seed));
  const GroupedRows rows = RandomRows(seed, nVar, 37, {0, 1, 4}, /*dyadic=*/false);
  DiscriminantMatrix m(nGroup, nVar);
  AddAll(m, rows, capacity, weighted);
  ExpectTotals(m, BatchedTotals(rows, 0, rows.size(), nGroup, capacity, weighted));
  for (int i = 0; i < nVar; ++i) {
    EXPECT_EQ(m.sumX1(2, i), 0.0);
    EXPECT_EQ(m.sumX2(3, i), 0.0);
  }
  EXPECT_EQ(m.sumW(2), 0.0);
}

TEST_P(DiscriminantMatrixSplit, DyadicRowsGiveTheSameBitsHoweverSplit) {
  const auto [capacity, nVar, weighted] = GetParam();
  const unsigned seed = 99u + capacity + 10u * nVar;
  SCOPED_TRACE("seed " + std::to_string(seed));
  const GroupedRows rows = RandomRows(seed, nVar, 37, {0, 1, 2}, /*dyadic=*/true);
  DiscriminantMatrix m(3, nVar);
  AddAll(m, rows, capacity, weighted);
  ExpectTotals(m, PlainTotals(rows, 0, rows.size(), 3, weighted));
}

INSTANTIATE_TEST_SUITE_P(BatchesAndShapes, DiscriminantMatrixSplit,
                         ::testing::Combine(::testing::Values(1u, 4u, 5u, 64u),
                                            ::testing::Values(1, 2, 6), ::testing::Bool()));

TEST(DiscriminantMatrix, MergeIntoDefaultConstructedTakesShapeAndCopiesDeeply) {
  const GroupedRows rows = RandomRows(7, 3, 20, {0, 1, 2, 3}, false);
  DiscriminantMatrix first(4, 3), second(4, 3);
  AddInBatches(first, rows, 0, 12, 5, true);
  AddInBatches(second, rows, 12, 20, 5, true);

  DiscriminantMatrix total;
  EXPECT_EQ(total.NGroup(), 0);
  EXPECT_EQ(total.NVar(), 0);
  total += first;
  total += second;
  Totals expected = BatchedTotals(rows, 0, 12, 4, 5, true);
  MergeTotals(expected, BatchedTotals(rows, 12, 20, 4, 5, true));
  ExpectTotals(total, expected);

  // The sources are unchanged, and later changes to them don't reach total.
  ExpectTotals(first, BatchedTotals(rows, 0, 12, 4, 5, true));
  AddInBatches(first, rows, 0, 20, 5, true);
  ExpectTotals(total, expected);
}

TEST(DiscriminantMatrix, EmptyBatchesAndEmptySourcesChangeNothing) {
  DiscriminantMatrix m(2, 2);
  DataBatch wrongShape(5, 4, nullptr, nullptr, nullptr);  // no rows: its shape is never checked
  m += wrongShape;
  EXPECT_EQ(m.NRows(), 0);
  EXPECT_EQ(m.WeightSum(), 0.0);
  DiscriminantMatrix noRows(7, 9);
  m += noRows;
  EXPECT_EQ(m.NGroup(), 2);
  EXPECT_EQ(m.NVar(), 2);
  EXPECT_VOREL_ASSERT(m.sumW(0), "0. < WeightSum()", kSource);

  AddAll(m, WorkedRows(), 3);
  m += noRows;  // a filled target and an empty source of another shape
  m += wrongShape;
  EXPECT_EQ(m.NRows(), 3);
  EXPECT_EQ(m.TSSP(1, 0), 56.0);
}

TEST(DiscriminantMatrix, GroupedBatchesAreIgnored) {
  double weight = 1.0;
  unsigned group = 0;
  DataBatchByGroup grouped(2, 4, &weight, nullptr, &group, 2);
  grouped.Row(0)[0] = 1.0;
  grouped.Row(0)[1] = 2.0;
  grouped.AddRow();
  grouped.SortByGroup();
  DiscriminantMatrix m(2, 2);
  MatrixBase& base = m;
  EXPECT_EQ(&(base += grouped), &base);
  EXPECT_EQ(m.NRows(), 0);
  AddAll(m, WorkedRows(), 3);
  base += grouped;
  ExpectTotals(m, PlainTotals(WorkedRows(), 0, 3, 2, true));
}

TEST(DiscriminantMatrix, RowsWhoseWeightsTotalZero) {
  GroupedRows cancelling;
  cancelling.nVar = 2;
  cancelling.Add(0, 1.0, {1, 2});
  cancelling.Add(1, -1.0, {3, 4});

  // As the first batch they fill the tables and count their rows...
  DiscriminantMatrix m(2, 2);
  AddAll(m, cancelling, 2);
  EXPECT_EQ(m.NRows(), 2);
  EXPECT_EQ(m.WeightSum(), 0.0);
  EXPECT_VOREL_ASSERT(m.sumW(0), "0. < WeightSum()", kSource);
  EXPECT_VOREL_ASSERT(m.sumX1(0, 0), "0. < WeightSum()", kSource);
  EXPECT_VOREL_ASSERT(m.sumX2(0, 0), "0. < WeightSum()", kSource);
  EXPECT_VOREL_ASSERT(m.TSSP(0, 1), "0. < WeightSum()", kSource);

  // ...a later batch of them adds nothing at all, rows included...
  AddAll(m, WorkedRows(), 3);
  AddAll(m, cancelling, 2);
  Totals expected = PlainTotals(cancelling, 0, 2, 2, true);
  MergeTotals(expected, PlainTotals(WorkedRows(), 0, 3, 2, true));
  EXPECT_EQ(m.NRows(), 5);
  ExpectTotals(m, expected);

  // ...and so does a merged object of them; into an empty one it is copied.
  DiscriminantMatrix zero(2, 2);
  AddAll(zero, cancelling, 2);
  m += zero;
  EXPECT_EQ(m.NRows(), 5);
  DiscriminantMatrix copy;
  copy += zero;
  EXPECT_EQ(copy.NRows(), 2);
  EXPECT_EQ(copy.NGroup(), 2);
}

TEST(DiscriminantMatrix, OneVariableHasOnlyItsDiagonal) {
  GroupedRows rows;
  rows.nVar = 1;
  rows.Add(0, 2.0, {3});
  rows.Add(2, 1.0, {-4});
  DiscriminantMatrix a(3, 1), b(3, 1), merged;
  AddAll(a, rows, 1);
  AddAll(b, rows, 2);
  merged += a;
  merged += b;
  EXPECT_EQ(merged.NRows(), 4);
  EXPECT_EQ(merged.sumX1(0, 0), 12.0);
  EXPECT_EQ(merged.sumX2(2, 0), 32.0);
  EXPECT_EQ(merged.TSSP(0, 0), 36.0 + 32.0);
  EXPECT_VOREL_ASSERT(merged.TSSP(0, 1), "col < NVar() && col >= 0", kSource);
}

TEST(DiscriminantMatrix, DiagonalTotalsTheGroupsInOrder) {
  const GroupedRows rows = RandomRows(31, 3, 50, {0, 1, 2, 3, 4, 5}, false);
  DiscriminantMatrix m(6, 3);
  AddAll(m, rows, 8);
  for (int i = 0; i < 3; ++i) {
    double total = 0.0;
    for (int g = 0; g < 6; ++g)
      total += m.sumX2(g, i);
    EXPECT_PRED2(SameBits, m.TSSP(i, i), total);
  }
}

TEST(DiscriminantMatrix, Preconditions) {
  DiscriminantMatrix m(2, 2);
  AddAll(m, WorkedRows(), 3);
  EXPECT_VOREL_ASSERT(m.sumW(2), "c < NGroup() && c >= 0", kSource);
  EXPECT_VOREL_ASSERT(m.sumW(-1), "c < NGroup() && c >= 0", kSource);
  EXPECT_VOREL_ASSERT(m.sumX1(2, 0), "group < NGroup() && group >= 0", kSource);
  EXPECT_VOREL_ASSERT(m.sumX1(-1, 0), "group < NGroup() && group >= 0", kSource);
  EXPECT_VOREL_ASSERT(m.sumX2(0, 2), "var < NVar() && var >= 0", kSource);
  EXPECT_VOREL_ASSERT(m.sumX2(0, -1), "var < NVar() && var >= 0", kSource);
  EXPECT_VOREL_ASSERT(m.TSSP(2, 0), "row < NVar() && row >= 0", kSource);
  EXPECT_VOREL_ASSERT(m.TSSP(-1, 0), "row < NVar() && row >= 0", kSource);
  EXPECT_VOREL_ASSERT(m.TSSP(0, 2), "col < NVar() && col >= 0", kSource);

  // A batch of the wrong width, first or later.
  const unsigned zeroGroup = 0;
  DataBatch threeColumns(3, 1, nullptr, nullptr, &zeroGroup);
  const double row[3] = {1, 2, 3};
  threeColumns.AddRow(row);
  DiscriminantMatrix fresh(2, 2);
  EXPECT_VOREL_ASSERT(fresh += threeColumns, "nCols == _nVar", kSource);
  EXPECT_VOREL_ASSERT(m += threeColumns, "nCols == _nVar", kSource);
  EXPECT_EQ(m.NRows(), 3);

  // Merging filled objects of different shapes.
  DiscriminantMatrix threeGroups(3, 2);
  AddAll(threeGroups, WorkedRows(), 3);
  EXPECT_VOREL_ASSERT(m += threeGroups, "_nVar == d._nVar && _nGroup == d._nGroup", kSource);
}

// The same rows through Driver, over threads: (threads, batch capacity).
class DiscriminantMatrixThreaded : public ::testing::TestWithParam<std::tuple<int, unsigned>> {
 protected:
  // Runs the rows and returns the shared matrix, built without a shape so
  // that it takes the shape of the first worker's matrix merged into it.
  static DiscriminantMatrix Run(const GroupedRows& rows, int nGroup) {
    const auto [threads, capacity] = GetParam();
    DiscriminantMatrix result;
    const DiscriminantMatrix prototype(nGroup, rows.nVar);
    RowsProblem<DiscriminantMatrix, DataBatch> problem(
        rows, capacity, prototype, result, [&](const double* weight, const unsigned* group) {
          return std::make_unique<DataBatch>(static_cast<unsigned>(rows.nVar), capacity, weight,
                                             nullptr, group);
        });
    Driver(&problem, threads);
    return result;
  }
};

TEST_P(DiscriminantMatrixThreaded, DyadicRowsGiveExactlyThePlainSums) {
  const GroupedRows rows = RandomRows(2024, 3, 300, {0, 1, 3}, /*dyadic=*/true);
  const DiscriminantMatrix m = Run(rows, 4);
  ExpectTotals(m, PlainTotals(rows, 0, rows.size(), 4, true));
}

// Partial sums join in an order the threads choose; each result may then
// differ from the row-order sum by at most n roundings of a partial sum, and
// the sum of magnitudes bounds every partial sum.
TEST_P(DiscriminantMatrixThreaded, OtherRowsStayWithinRoundingOfThePlainSums) {
  const unsigned seed = 4711;
  SCOPED_TRACE("seed " + std::to_string(seed));
  const GroupedRows rows = WithoutZeroWeights(RandomRows(seed, 3, 300, {0, 1, 3}, false));
  GroupedRows magnitudes = rows;
  for (double& cell : magnitudes.cells)
    cell = std::fabs(cell);
  const Totals t = PlainTotals(rows, 0, rows.size(), 4, true);
  const Totals bound = PlainTotals(magnitudes, 0, rows.size(), 4, true);
  const double ulps =
      2.0 * static_cast<double>(rows.size()) * std::numeric_limits<double>::epsilon();

  const DiscriminantMatrix m = Run(rows, 4);
  EXPECT_EQ(m.NRows(), t.nRows);
  EXPECT_NEAR(m.WeightSum(), t.weightSum, ulps * bound.weightSum);
  for (int g = 0; g < 4; ++g) {
    EXPECT_NEAR(m.sumW(g), t.sumW[g], ulps * bound.sumW[g]);
    for (int i = 0; i < 3; ++i) {
      EXPECT_NEAR(m.sumX1(g, i), t.sumX1[g * 3 + i], ulps * bound.sumX1[g * 3 + i]);
      EXPECT_NEAR(m.sumX2(g, i), t.sumX2[g * 3 + i], ulps * bound.sumX2[g * 3 + i]);
    }
  }
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < i; ++j)
      EXPECT_NEAR(m.TSSP(j, i), t.cross[i * 3 + j], ulps * bound.cross[i * 3 + j]);
}

INSTANTIATE_TEST_SUITE_P(ThreadsAndBatches, DiscriminantMatrixThreaded,
                         ::testing::Combine(::testing::Values(1, 2, 4),
                                            ::testing::Values(1u, 7u, 64u)));

class NotADiscriminantMatrix : public MatrixBase {
 public:
  int NRows() const override { return 1; }
  MatrixBase& operator+=(MatrixBase&) override { return *this; }
  using MatrixBase::operator+=;
  MatrixBase& operator+=(DataBatch&) override { return *this; }
};

TEST(DiscriminantMatrix, MergingAnotherClassIsRefused) {
  DiscriminantMatrix m(2, 2);
  NotADiscriminantMatrix other;
  EXPECT_THROW(m += other, std::bad_cast);
  EXPECT_EQ(m.NRows(), 0);
}

TEST(DiscriminantMatrix, ShapesTooLargeOrNegativeAreRefusedAndLeaveTheObjectEmpty) {
  const unsigned group = 0;
  std::vector<double> row(4096, 1.0);
  DataBatch wide(4096, 1, nullptr, nullptr, &group);
  wide.AddRow(row.data());
  DiscriminantMatrix huge(1 << 20, 4096);  // 2^32 cells per table
  try {
    huge += wide;
    ADD_FAILURE() << "expected std::length_error";
  } catch (const std::length_error& e) {
    EXPECT_EQ(std::string(e.what()), "vector<T> too long");
  }
  EXPECT_EQ(huge.NRows(), 0);

  DataBatch narrow(1, 1, nullptr, nullptr, &group);
  narrow.AddRow(row.data());
  DiscriminantMatrix negative(-1, 1);
  EXPECT_THROW(negative += narrow, std::length_error);
  EXPECT_EQ(negative.NRows(), 0);
}

TEST(DiscriminantMatrix, CopiesAreDeepAndMovesHandOver) {
  DiscriminantMatrix original(2, 2);
  AddAll(original, WorkedRows(), 3);
  const Totals worked = PlainTotals(WorkedRows(), 0, 3, 2, true);

  DiscriminantMatrix copy(original);
  DiscriminantMatrix assigned(5, 5);
  assigned = original;
  AddAll(original, WorkedRows(), 3);  // the copies don't see this
  ExpectTotals(copy, worked);
  ExpectTotals(assigned, worked);
  EXPECT_EQ(original.NRows(), 6);

  DiscriminantMatrix& alias = copy;
  copy = alias;  // self-assignment keeps the record
  ExpectTotals(copy, worked);

  DiscriminantMatrix moved(std::move(copy));
  ExpectTotals(moved, worked);
  DiscriminantMatrix moveAssigned;
  moveAssigned = std::move(moved);
  ExpectTotals(moveAssigned, worked);
  moved = original;  // a moved-from object can be assigned to again
  EXPECT_EQ(moved.NRows(), 6);

  // A copy of an empty object is empty and keeps the shape it was given.
  const DiscriminantMatrix shaped(3, 4);
  DiscriminantMatrix emptyCopy(shaped);
  EXPECT_EQ(emptyCopy.NGroup(), 3);
  EXPECT_EQ(emptyCopy.NVar(), 4);
  EXPECT_EQ(emptyCopy.NRows(), 0);
}

}  // namespace
}  // namespace vorel
