#include <vorel/DiscriminantMatrix.h>
#include <vorel/DscIndividualMatrix.h>
#include <vorel/databatch.h>
#include <vorel/databatchbygroup.h>

#include <algorithm>
#include <climits>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "discriminant_support.h"
#include "table_support.h"
#include "test_support.h"

namespace vorel {
namespace {

using namespace testing::discriminant;
using Values = std::vector<double>;

constexpr const char* kTotals = "backend/vorel/DiscriminantMatrix";
constexpr const char* kByGroup = "backend/vorel/DscIndividualMatrix";

const char* SourceOf(const DiscriminantMatrix&) { return kTotals; }
const char* SourceOf(const DiscIndividualMatrix&) { return kByGroup; }
// One accessor guarded by "0. < WeightSum()".
double ReadOne(const DiscriminantMatrix& m) { return m.sumW(0); }
double ReadOne(const DiscIndividualMatrix& m) { return m.TSSP(0, 0); }

// (group, w, x0, x1) = (0, 1, 1, 2), (1, 2, 3, 4), (0, 1, 5, 6)
const Table kWorked{{{1, 2}, {3, 4}, {5, 6}}, {1, 2, 1}, {}, {0, 1, 0}};

Table Unweighted(Table t) {
  t.w.clear();
  return t;
}

template <class Matrix>
class DiscriminantTables : public ::testing::Test {};
using Tables = ::testing::Types<DiscriminantMatrix, DiscIndividualMatrix>;
TYPED_TEST_SUITE(DiscriminantTables, Tables);

// Batch by batch, and a second matrix over the later rows merged in.
TYPED_TEST(DiscriminantTables, MatchPlainSumsBatchByBatchAndMerged) {
  for (unsigned capacity : {1u, 4u, 5u, 64u}) {
    for (int nVar : {1, 2, 13}) {  // 13: past the narrow kernel
      // Five groups: 2 and 3 get no rows, 4 is the largest the matrix takes.
      const Table rows = RandomRows(1000u + capacity + 10u * nVar, nVar, 37, {4, 0, 1}, false);
      for (const Table& t : {rows, Unweighted(rows)}) {
        SCOPED_TRACE(std::to_string(capacity) + " rows a batch, " + std::to_string(nVar)
                     + " variables" + (t.w.empty() ? ", unweighted" : ""));
        TypeParam m(5, nVar), later(5, nVar);
        Sums sums = AddInBatches(m, t, 0, 20, capacity);
        ExpectSums(m, sums);
        MergeSums(sums, AddInBatches(later, t, 20, t.rows.size(), capacity));
        m += later;
        ExpectSums(m, sums);
      }
    }
  }
}

// Rows whose weights total 0 fill an empty table, rows counted, but add
// nothing later, rows included, as a batch or as a merged object. No rows
// change nothing, whatever the width.
TYPED_TEST(DiscriminantTables, EmptyAndZeroWeightInputsAndMerges) {
  const Table cancelling{{{3, 4}, {1, 2}}, {-2, 2}, {}, {1, 0}};
  TypeParam m(2, 2), zero(2, 2), noRows(7, 9), copied;
  AddInBatches(m, RandomRows(5, 4, 3, {0}, true), 0, 0, 4);
  m += noRows;
  EXPECT_EQ(m.NRows(), 0);
  EXPECT_EQ(m.NGroup(), 2);
  Sums expected = AddInBatches(m, cancelling, 0, 2, 2);
  EXPECT_EQ(m.NRows(), 2);
  EXPECT_VOREL_ASSERT(ReadOne(m), "0. < WeightSum()", SourceOf(m));
  MergeSums(expected, AddInBatches(m, kWorked, 0, 3, 3));
  AddInBatches(m, cancelling, 0, 2, 2);
  AddInBatches(zero, cancelling, 0, 2, 2);
  m += zero;
  m += noRows;
  ExpectSums(m, expected);
  copied += zero;
  EXPECT_EQ(copied.NRows(), 2);
}

TYPED_TEST(DiscriminantTables, RefusesWhatDoesNotFit) {
  const Table wide = RandomRows(5, 3, 1, {0}, true);
  const char* source = SourceOf(TypeParam());
  TypeParam fresh(2, 2), filled(2, 2), threeGroups(3, 2);
  EXPECT_VOREL_ASSERT(AddInBatches(fresh, wide, 0, 1, 1), "nCols == _nVar", source);
  const Sums expected = AddInBatches(filled, kWorked, 0, 3, 3);
  EXPECT_VOREL_ASSERT(AddInBatches(filled, wide, 0, 1, 1), "nCols == _nVar", source);
  AddInBatches(threeGroups, kWorked, 0, 3, 3);
  EXPECT_VOREL_ASSERT(filled += threeGroups, "_nVar == d._nVar && _nGroup == d._nGroup", source);
  ExpectSums(filled, expected);
  for (int nGroup : {INT_MAX, -1}) {
    TypeParam m(nGroup, 2);
    testing::tables::ExpectVectorTooLong([&] { AddInBatches(m, kWorked, 0, 1, 1, 2); });
    EXPECT_EQ(m.NRows(), 0);
  }
  EXPECT_EQ(fresh.NRows(), 0);
}

TEST(DiscriminantMatrix, WorkedTableAndPreconditions) {
  DiscriminantMatrix m(2, 2), unweighted(2, 2);
  AddInBatches(m, kWorked, 0, 3, 2);
  EXPECT_EQ(m.NRows(), 3);
  EXPECT_EQ(m.WeightSum(), 4.0);
  // sumW, sumX1 and sumX2 of group 0 then 1; TSSP: both orders, and the
  // diagonal, squares over all groups.
  EXPECT_EQ((Values{m.sumW(0), m.sumX1(0, 0), m.sumX1(0, 1), m.sumX2(0, 0), m.sumX2(0, 1),
                    m.sumW(1), m.sumX1(1, 0), m.sumX1(1, 1), m.sumX2(1, 0), m.sumX2(1, 1),
                    m.TSSP(1, 0), m.TSSP(0, 1), m.TSSP(0, 0), m.TSSP(1, 1)}),
            (Values{2, 6, 8, 26, 40, 2, 6, 8, 18, 32, 56, 56, 26 + 18, 40 + 32}));
  const Sums expected = AddInBatches(unweighted, Unweighted(kWorked), 0, 3, 2);
  EXPECT_VOREL_ASSERT(m.sumW(2), "c < NGroup() && c >= 0", kTotals);
  EXPECT_VOREL_ASSERT(m.sumW(-1), "c < NGroup() && c >= 0", kTotals);
  EXPECT_VOREL_ASSERT(m.sumX1(2, 0), "group < NGroup() && group >= 0", kTotals);
  EXPECT_VOREL_ASSERT(m.sumX2(-1, 0), "group < NGroup() && group >= 0", kTotals);
  EXPECT_VOREL_ASSERT(m.sumX1(0, 2), "var < NVar() && var >= 0", kTotals);
  EXPECT_VOREL_ASSERT(m.sumX2(0, -1), "var < NVar() && var >= 0", kTotals);
  EXPECT_VOREL_ASSERT(m.TSSP(2, 0), "row < NVar() && row >= 0", kTotals);
  EXPECT_VOREL_ASSERT(m.TSSP(0, -1), "col < NVar() && col >= 0", kTotals);
  // A grouped batch is ignored, also through the base class.
  DataBatchByGroup grouped = BatchFor(DiscIndividualMatrix(), kWorked, 0, 3, 2);
  MatrixBase& base = unweighted;
  EXPECT_EQ(&(base += grouped), &base);
  ExpectSums(unweighted, expected);
}

TEST(DiscIndividualMatrix, WorkedTableAndPreconditions) {
  DiscIndividualMatrix worked(2, 2), m(2, 2);
  AddInBatches(worked, kWorked, 0, 3, 2);
  EXPECT_EQ(worked.NRows(), 3);
  EXPECT_EQ(worked.WeightSum(), 4.0);
  Values entries;
  for (int g = 0; g < 2; ++g)
    for (int k = 0; k < 6; ++k)
      entries.push_back(worked.TSSP(k, g));
  EXPECT_EQ(entries, (Values{26, 32, 40, 6, 8, 2, 18, 24, 32, 6, 8, 2}));
  const Sums expected = AddInBatches(m, Unweighted(kWorked), 0, 3, 2);
  EXPECT_VOREL_ASSERT(m.TSSP(6, 0), "0 <= tsspIndex && tsspIndex < countMatrix", kByGroup);
  EXPECT_VOREL_ASSERT(m.TSSP(-1, 0), "0 <= tsspIndex && tsspIndex < countMatrix", kByGroup);
  EXPECT_VOREL_ASSERT(m.TSSP(0, 2), "groupVal < NGroup() && groupVal >= 0", kByGroup);
  EXPECT_VOREL_ASSERT(m.TSSP(3, 0, 0), "row <= NVar() && row >= 0", kByGroup);
  EXPECT_VOREL_ASSERT(m.TSSP(0, -1, 0), "col <= NVar() && col >= 0", kByGroup);
  EXPECT_VOREL_ASSERT(m.TSSP(0, 0, -1), "groupVal < NGroup() && groupVal >= 0", kByGroup);
  // Ungrouped batches are refused, through the base class too.
  DataBatch plain = testing::tables::MakeBatch(Table{{{1, 2}}}, 0, 1);
  MatrixBase& base = m;
  EXPECT_VOREL_ASSERT(m += plain, "false", "backend/tables/vorel/DscIndividualMatrix");
  EXPECT_VOREL_ASSERT(base += plain, "false", "backend/tables/vorel/DscIndividualMatrix");
  // Rows without a group reach no table, and the object stays empty.
  DataBatchByGroup ungrouped(2, 1, nullptr, nullptr, nullptr, 0);
  ungrouped.AddRow();
  DiscIndividualMatrix fresh(2, 2);
  EXPECT_VOREL_ASSERT(fresh += ungrouped, "tsspIndex == nCellsCrossProduct", kByGroup);
  EXPECT_EQ(fresh.NRows(), 0);
  ExpectSums(m, expected);
  // Batches with fewer groups than the matrix leave the higher ones alone.
  const Table low = RandomRows(3, 2, 10, {0, 1}, true), high = RandomRows(4, 2, 10, {2, 3}, true);
  DiscIndividualMatrix four(4, 2);
  Sums sums = AddInBatches(four, low, 0, 10, 16, /*batchGroups=*/2);
  MergeSums(sums, AddInBatches(four, high, 0, 10, 16));
  ExpectSums(four, sums);
}

}  // namespace
}  // namespace vorel
