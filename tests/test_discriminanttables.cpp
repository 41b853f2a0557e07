#include <vorel/DiscriminantMatrix.h>
#include <vorel/DscIndividualMatrix.h>
#include <vorel/databatch.h>
#include <vorel/databatchbygroup.h>
#include <vorel/driver.h>

#include <climits>
#include <memory>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <typeinfo>
#include <utility>

#include "discriminant_support.h"
#include "test_support.h"

namespace vorel {
namespace {

using testing::AddInBatches;
using testing::AddRowTo;
using testing::BatchedSums;
using testing::GroupedRows;
using testing::MakeBatch;
using testing::MergeSums;
using testing::PlainSums;
using testing::PrepareBatch;
using testing::RandomRows;
using testing::SameBits;
using testing::Sums;

constexpr const char* kTotals = "backend/vorel/DiscriminantMatrix";
constexpr const char* kByGroup = "backend/vorel/DscIndividualMatrix";

const char* SourceOf(const DiscriminantMatrix&) { return kTotals; }
const char* SourceOf(const DiscIndividualMatrix&) { return kByGroup; }
// One accessor guarded by "0. < WeightSum()".
double ReadOne(const DiscriminantMatrix& m) { return m.sumW(0); }
double ReadOne(const DiscIndividualMatrix& m) { return m.TSSP(0, 0); }

// Every figure of the totals table against the plain sums, bit for bit.
void ExpectSums(const DiscriminantMatrix& m, const Sums& t) {
  ASSERT_EQ(m.NGroup(), t.nGroup);
  ASSERT_EQ(m.NVar(), t.nVar);
  EXPECT_EQ(m.NRows(), t.nRows);
  EXPECT_PRED2(SameBits, m.WeightSum(), t.weightSum);
  const int n = t.nVar;
  for (int g = 0; g < t.nGroup; ++g) {
    EXPECT_PRED2(SameBits, m.sumW(g), t.At(g, n, n)) << g;
    for (int i = 0; i < n; ++i) {
      EXPECT_PRED2(SameBits, m.sumX1(g, i), t.At(g, n, i)) << g << ", " << i;
      EXPECT_PRED2(SameBits, m.sumX2(g, i), t.At(g, i, i)) << g << ", " << i;
    }
  }
  for (int i = 0; i < n; ++i) {
    double diagonal = 0.0;  // the squares of every group, totalled in group order
    for (int g = 0; g < t.nGroup; ++g)
      diagonal += t.At(g, i, i);
    EXPECT_PRED2(SameBits, m.TSSP(i, i), diagonal) << i;
    for (int j = 0; j < i; ++j) {
      EXPECT_PRED2(SameBits, m.TSSP(i, j), t.cross[i * n + j]) << i << ", " << j;
      EXPECT_PRED2(SameBits, m.TSSP(j, i), t.cross[i * n + j]) << j << ", " << i;
    }
  }
}

// Every entry of the table by group, by variable numbers in both orders and
// by index, against the plain sums, bit for bit.
void ExpectSums(const DiscIndividualMatrix& m, const Sums& t) {
  ASSERT_EQ(m.NGroup(), t.nGroup);
  ASSERT_EQ(m.NVar(), t.nVar);
  EXPECT_EQ(m.NRows(), t.nRows);
  EXPECT_PRED2(SameBits, m.WeightSum(), t.weightSumByGroup);
  for (int g = 0; g < t.nGroup; ++g) {
    int tsspIndex = 0;  // the triangle with diagonal, row after row
    for (int row = 0; row <= t.nVar; ++row) {
      for (int col = 0; col <= t.nVar; ++col) {
        EXPECT_PRED2(SameBits, m.TSSP(row, col, g), t.At(g, row, col))
            << g << ": " << row << ", " << col;
        if (col <= row) {
          EXPECT_PRED2(SameBits, m.TSSP(tsspIndex++, g), t.At(g, row, col));
        }
      }
    }
  }
}

// The same pass through Driver: each worker reads up to `capacity` rows a
// batch under the read lock, adds them to its own copy of `prototype`, and
// merges that into `result` at the end.
template <class Matrix>
class RowsProblem : public ProblemBase {
 public:
  RowsProblem(const GroupedRows& rows, unsigned capacity, const Matrix& prototype, Matrix& result)
      : _rows(rows), _capacity(capacity), _prototype(prototype), _result(result) {}
  WorkerBase* CreateWorker() override { return new Worker(*this); }

 private:
  class Worker : public WorkerBase {
   public:
    explicit Worker(RowsProblem& p)
        : _p(p),
          _matrix(p._prototype),
          _batch(
              MakeBatch(_matrix, p._rows.nVar, p._capacity, &_weight, &_group, _matrix.NGroup())) {}
    bool ReadBatch() override {
      _batch->Clear();
      while (_batch->NRows() < _p._capacity && _p._next < _p._rows.size()) {
        const std::size_t r = _p._next++;
        _weight = _p._rows.weights[r];
        _group = _p._rows.groups[r];
        AddRowTo(*_batch, _p._rows, r);
      }
      return _batch->NRows() > 0;
    }
    void ProcessBatch() override {
      PrepareBatch(*_batch);
      _matrix += *_batch;
    }
    void MergeResult() override { _p._result += _matrix; }

   private:
    RowsProblem& _p;
    double _weight = 0.0;
    unsigned _group = 0;
    Matrix _matrix;
    decltype(MakeBatch(_matrix, 0, 0, nullptr, nullptr, 0)) _batch;
  };

  const GroupedRows& _rows;
  const unsigned _capacity;
  const Matrix& _prototype;
  Matrix& _result;
  std::size_t _next = 0;  // the next row to read; touched only under the read lock
};

GroupedRows WorkedRows() {
  GroupedRows rows(2);
  rows.Add(0, 1, {1, 2});
  rows.Add(1, 2, {3, 4});
  rows.Add(0, 1, {5, 6});
  return rows;
}

template <class Matrix>
class DiscriminantTables : public ::testing::Test {};
template <class Matrix>
class DiscriminantTablesThreaded : public ::testing::Test {};
using Tables = ::testing::Types<DiscriminantMatrix, DiscIndividualMatrix>;
TYPED_TEST_SUITE(DiscriminantTables, Tables);
TYPED_TEST_SUITE(DiscriminantTablesThreaded, Tables);

TYPED_TEST(DiscriminantTables, MatchPlainSumsBatchByBatch) {
  for (unsigned capacity : {1u, 4u, 5u, 64u}) {
    for (int nVar : {1, 2, 6}) {
      for (bool weighted : {true, false}) {
        const unsigned seed = 1000u + capacity + 10u * nVar;
        SCOPED_TRACE("seed " + std::to_string(seed) + (weighted ? " weighted" : ""));
        // Five groups: 2 and 3 get no rows, 4 is the largest the matrix takes.
        const GroupedRows rows = RandomRows(seed, nVar, 37, {4, 0, 1}, false);
        TypeParam m(5, nVar);
        AddInBatches(m, rows, 0, rows.size(), capacity, weighted);
        ExpectSums(m, BatchedSums(rows, 0, rows.size(), 5, capacity, weighted));
      }
    }
  }
}

TYPED_TEST(DiscriminantTablesThreaded, DyadicRowsGiveThePlainSumsExactly) {
  const GroupedRows rows = RandomRows(2024, 3, 300, {0, 1, 3}, /*dyadic=*/true);
  const Sums expected = PlainSums(rows, 0, rows.size(), 4, true);
  for (int threads : {1, 2, 4}) {
    for (unsigned capacity : {1u, 7u, 64u}) {
      SCOPED_TRACE(std::to_string(threads) + " threads, batches of " + std::to_string(capacity));
      TypeParam result;  // no shape: it takes that of the first worker's matrix
      const TypeParam prototype(4, 3);
      RowsProblem<TypeParam> problem(rows, capacity, prototype, result);
      Driver(&problem, threads);
      ExpectSums(result, expected);
    }
  }
}

TYPED_TEST(DiscriminantTables, RowsWhoseWeightsTotalZero) {
  GroupedRows cancelling(2);
  cancelling.Add(1, -2.0, {3, 4});
  cancelling.Add(0, 2.0, {1, 2});
  // As the first batch they fill the table and count their rows...
  TypeParam m(2, 2);
  AddInBatches(m, cancelling, 0, 2, 2);
  EXPECT_EQ(m.NRows(), 2);
  EXPECT_VOREL_ASSERT(ReadOne(m), "0. < WeightSum()", SourceOf(m));
  // ...later they add nothing, rows included, as a batch or as a merged object...
  AddInBatches(m, WorkedRows(), 0, 3, 3);
  AddInBatches(m, cancelling, 0, 2, 2);
  TypeParam zero(2, 2);
  AddInBatches(zero, cancelling, 0, 2, 2);
  m += zero;
  Sums expected = PlainSums(cancelling, 0, 2, 2, true);
  MergeSums(expected, PlainSums(WorkedRows(), 0, 3, 2, true));
  ExpectSums(m, expected);
  // ...but an empty object takes them over.
  TypeParam copy;
  copy += zero;
  EXPECT_EQ(copy.NRows(), 2);
}

TYPED_TEST(DiscriminantTables, EmptyInputsMergesAndCopies) {
  TypeParam m(2, 2), noRows(7, 9);
  const GroupedRows wide = RandomRows(5, 4, 3, {0}, true);
  AddInBatches(m, wide, 0, 0, 4);  // a batch without rows: its width is never checked
  m += noRows;
  EXPECT_EQ(m.NRows(), 0);
  EXPECT_EQ(m.NGroup(), 2);
  EXPECT_VOREL_ASSERT(ReadOne(m), "0. < WeightSum()", SourceOf(m));

  const GroupedRows rows = RandomRows(8, 2, 20, {0, 1}, false);
  TypeParam first(2, 2), second(2, 2);
  AddInBatches(first, rows, 0, 9, 4);
  AddInBatches(second, rows, 9, 20, 4);
  TypeParam total;
  total += first;
  total += second;
  total += noRows;
  Sums expected = BatchedSums(rows, 0, 9, 2, 4, true);
  MergeSums(expected, BatchedSums(rows, 9, 20, 2, 4, true));
  ExpectSums(total, expected);

  TypeParam copy(total), assigned(5, 5);
  assigned = total;
  AddInBatches(total, rows, 0, 20, 4);  // reaches neither copy
  TypeParam& alias = copy;
  copy = alias;
  ExpectSums(copy, expected);
  ExpectSums(assigned, expected);
  TypeParam moved(std::move(copy)), moveAssigned;
  moveAssigned = std::move(moved);
  ExpectSums(moveAssigned, expected);
  moved = total;  // a moved-from object takes an assignment
  EXPECT_EQ(moved.NRows(), 40);
}

TYPED_TEST(DiscriminantTables, RefusesWhatDoesNotFit) {
  const GroupedRows rows = WorkedRows();
  const GroupedRows wide = RandomRows(5, 3, 1, {0}, true);
  const char* source = SourceOf(TypeParam());
  TypeParam fresh(2, 2), filled(2, 2), threeGroups(3, 2);
  EXPECT_VOREL_ASSERT(AddInBatches(fresh, wide, 0, 1, 1), "nCols == _nVar", source);
  AddInBatches(filled, rows, 0, 3, 3);
  EXPECT_VOREL_ASSERT(AddInBatches(filled, wide, 0, 1, 1), "nCols == _nVar", source);
  AddInBatches(threeGroups, rows, 0, 3, 3);
  EXPECT_VOREL_ASSERT(filled += threeGroups, "_nVar == d._nVar && _nGroup == d._nGroup", source);
  ExpectSums(filled, PlainSums(rows, 0, 3, 2, true));

  using Other = std::conditional_t<std::is_same_v<TypeParam, DiscriminantMatrix>,
                                   DiscIndividualMatrix, DiscriminantMatrix>;
  Other other(2, 2);
  AddInBatches(other, rows, 0, 3, 3);
  EXPECT_THROW(fresh += other, std::bad_cast);

  for (int nGroup : {INT_MAX, -1}) {
    TypeParam m(nGroup, 2);
    try {
      AddInBatches(m, rows, 0, 1, 1, true, 2);
      ADD_FAILURE() << "expected std::length_error";
    } catch (const std::length_error& e) {
      EXPECT_EQ(std::string(e.what()), "vector<T> too long");
    }
    EXPECT_EQ(m.NRows(), 0);
  }
  EXPECT_EQ(fresh.NRows(), 0);
}

TEST(DiscriminantMatrix, WorkedTable) {
  for (unsigned capacity : {3u, 2u, 1u}) {
    SCOPED_TRACE(capacity);
    DiscriminantMatrix m(2, 2);
    AddInBatches(m, WorkedRows(), 0, 3, capacity);
    EXPECT_EQ(m.NRows(), 3);
    EXPECT_EQ(m.WeightSum(), 4.0);
    const double sumW[2] = {2, 2}, sumX1[2][2] = {{6, 8}, {6, 8}},
                 sumX2[2][2] = {{26, 40}, {18, 32}};
    for (int g = 0; g < 2; ++g) {
      EXPECT_EQ(m.sumW(g), sumW[g]);
      for (int var = 0; var < 2; ++var) {
        EXPECT_EQ(m.sumX1(g, var), sumX1[g][var]);
        EXPECT_EQ(m.sumX2(g, var), sumX2[g][var]);
      }
    }
    EXPECT_EQ(m.TSSP(1, 0), 56.0);
    EXPECT_EQ(m.TSSP(0, 1), 56.0);
    EXPECT_EQ(m.TSSP(0, 0), 26.0 + 18.0);  // the diagonal: squares over all groups
    EXPECT_EQ(m.TSSP(1, 1), 40.0 + 32.0);
  }
  DiscriminantMatrix unweighted(2, 2);
  AddInBatches(unweighted, WorkedRows(), 0, 3, 2, /*weighted=*/false);
  EXPECT_EQ(unweighted.WeightSum(), 3.0);
  EXPECT_EQ(unweighted.sumW(1), 1.0);
}

TEST(DiscriminantMatrix, AccessorPreconditionsAndGroupedBatches) {
  DiscriminantMatrix m(2, 2);
  AddInBatches(m, WorkedRows(), 0, 3, 3);
  EXPECT_VOREL_ASSERT(m.sumW(2), "c < NGroup() && c >= 0", kTotals);
  EXPECT_VOREL_ASSERT(m.sumW(-1), "c < NGroup() && c >= 0", kTotals);
  EXPECT_VOREL_ASSERT(m.sumX1(2, 0), "group < NGroup() && group >= 0", kTotals);
  EXPECT_VOREL_ASSERT(m.sumX2(-1, 0), "group < NGroup() && group >= 0", kTotals);
  EXPECT_VOREL_ASSERT(m.sumX1(0, 2), "var < NVar() && var >= 0", kTotals);
  EXPECT_VOREL_ASSERT(m.sumX2(0, -1), "var < NVar() && var >= 0", kTotals);
  EXPECT_VOREL_ASSERT(m.TSSP(2, 0), "row < NVar() && row >= 0", kTotals);
  EXPECT_VOREL_ASSERT(m.TSSP(0, -1), "col < NVar() && col >= 0", kTotals);

  DiscIndividualMatrix byGroup(2, 2);  // the grouped batch of that class is ignored here
  AddInBatches(byGroup, WorkedRows(), 0, 3, 3);
  double weight = 1.0;
  unsigned group = 0;
  DataBatchByGroup grouped(2, 1, &weight, nullptr, &group, 2);
  grouped.AddRow();
  grouped.SortByGroup();
  MatrixBase& base = m;
  EXPECT_EQ(&(base += grouped), &base);
  ExpectSums(m, PlainSums(WorkedRows(), 0, 3, 2, true));
}

TEST(DiscIndividualMatrix, WorkedTable) {
  const double entries[2][6] = {{26, 32, 40, 6, 8, 2}, {18, 24, 32, 6, 8, 2}};
  for (unsigned capacity : {3u, 2u, 1u}) {
    SCOPED_TRACE(capacity);
    DiscIndividualMatrix m(2, 2);
    AddInBatches(m, WorkedRows(), 0, 3, capacity);
    EXPECT_EQ(m.NRows(), 3);
    EXPECT_EQ(m.WeightSum(), 4.0);
    for (int g = 0; g < 2; ++g)
      for (int k = 0; k < 6; ++k)
        EXPECT_EQ(m.TSSP(k, g), entries[g][k]) << g << ", " << k;
    // By variable numbers, 2 standing for the column of ones.
    EXPECT_EQ(m.TSSP(1, 1, 0), 40.0);
    EXPECT_EQ(m.TSSP(0, 1, 1), 24.0);
    EXPECT_EQ(m.TSSP(2, 0, 0), 6.0);
    EXPECT_EQ(m.TSSP(1, 2, 1), 8.0);
    EXPECT_EQ(m.TSSP(2, 2, 1), 2.0);
  }
  DiscIndividualMatrix unweighted(2, 2);
  AddInBatches(unweighted, WorkedRows(), 0, 3, 2, /*weighted=*/false);
  EXPECT_EQ(unweighted.WeightSum(), 3.0);
  EXPECT_EQ(unweighted.TSSP(2, 2, 1), 1.0);
}

TEST(DiscIndividualMatrix, BatchesWithFewerGroupsLeaveTheHigherOnesAlone) {
  const GroupedRows low = RandomRows(3, 2, 10, {0, 1}, true);
  const GroupedRows high = RandomRows(4, 2, 10, {2, 3}, true);
  DiscIndividualMatrix m(4, 2);
  AddInBatches(m, low, 0, 10, 16, true, /*batchGroups=*/2);
  AddInBatches(m, high, 0, 10, 16);
  Sums expected = PlainSums(low, 0, 10, 4, true);
  MergeSums(expected, PlainSums(high, 0, 10, 4, true));
  ExpectSums(m, expected);
}

TEST(DiscIndividualMatrix, Preconditions) {
  DiscIndividualMatrix m(2, 2);
  AddInBatches(m, WorkedRows(), 0, 3, 3);
  EXPECT_VOREL_ASSERT(m.TSSP(6, 0), "0 <= tsspIndex && tsspIndex < countMatrix", kByGroup);
  EXPECT_VOREL_ASSERT(m.TSSP(-1, 0), "0 <= tsspIndex && tsspIndex < countMatrix", kByGroup);
  EXPECT_VOREL_ASSERT(m.TSSP(0, 2), "groupVal < NGroup() && groupVal >= 0", kByGroup);
  EXPECT_VOREL_ASSERT(m.TSSP(3, 0, 0), "row <= NVar() && row >= 0", kByGroup);
  EXPECT_VOREL_ASSERT(m.TSSP(0, -1, 0), "col <= NVar() && col >= 0", kByGroup);
  EXPECT_VOREL_ASSERT(m.TSSP(0, 0, -1), "groupVal < NGroup() && groupVal >= 0", kByGroup);

  // Ungrouped batches are refused, through the base class too.
  DataBatch plain(2, 1, nullptr, nullptr, nullptr);
  const double row[2] = {1, 2};
  plain.AddRow(row);
  MatrixBase& base = m;
  EXPECT_VOREL_ASSERT(m += plain, "false", "backend/tables/vorel/DscIndividualMatrix");
  EXPECT_VOREL_ASSERT(base += plain, "false", "backend/tables/vorel/DscIndividualMatrix");

  // Rows without a group reach no table, and the object stays empty.
  DataBatchByGroup ungrouped(2, 1, nullptr, nullptr, nullptr, 0);
  ungrouped.AddRow();
  DiscIndividualMatrix fresh(2, 2);
  EXPECT_VOREL_ASSERT(fresh += ungrouped, "tsspIndex == nCellsCrossProduct", kByGroup);
  EXPECT_EQ(fresh.NRows(), 0);
  ExpectSums(m, PlainSums(WorkedRows(), 0, 3, 2, true));
}

}  // namespace
}  // namespace vorel
