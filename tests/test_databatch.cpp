// DataBatch and DataBatchByGroup: what the two share is tested once for both;
// then the rows, groups and sorting of each.
#include <vorel/databatch.h>
#include <vorel/databatchbygroup.h>

#include <algorithm>
#include <random>
#include <tuple>
#include <vector>

#include "test_support.h"

namespace vorel {
namespace {

using testing::SameBits;

// The caller's side of a batch: current weight, regression weight and group.
struct Current {
  double weight = 0.0;
  double regWeight = 0.0;
  unsigned group = 0;
};

// One row as the caller meant it, kept for a reference sort.
struct Added {
  unsigned group;
  double weight;
  std::vector<double> cells;
};

// The caller's values for the row; the regression weight is never reordered
// and is checked in the order of adding.
void Select(Current& current, const Added& row) {
  current.weight = row.weight;
  current.regWeight = -row.weight;
  current.group = row.group;
}

// The rows as a plain stable sort by group puts them.
std::vector<Added> StableByGroup(std::vector<Added> rows) {
  std::stable_sort(rows.begin(), rows.end(),
                   [](const Added& a, const Added& b) { return a.group < b.group; });
  return rows;
}

// Every column and the weights of a sorted batch against the reference order,
// and each group's slice found through groupCount alone.
void ExpectSortedAs(const DataBatchByGroup& batch, const std::vector<Added>& expected) {
  ASSERT_EQ(batch.NRows(), expected.size());
  for (unsigned p = 0; p < expected.size(); ++p) {
    EXPECT_TRUE(SameBits(batch.Weights()[p], expected[p].weight)) << "position " << p;
    for (unsigned c = 0; c < batch.NColumns(); ++c)
      EXPECT_TRUE(SameBits(batch.Column(c)[p], expected[p].cells[c]))
          << "column " << c << " position " << p;
  }
  unsigned sliceStart = 0;
  for (unsigned g = 0; g < batch.NGroups(); ++g) {
    for (unsigned p = sliceStart; p < sliceStart + batch.groupCount(g); ++p)
      EXPECT_EQ(expected[p].group, g) << "position " << p;
    sliceStart += batch.groupCount(g);
  }
  EXPECT_EQ(sliceStart, batch.NRows());
}

// Each batch class, made and filled the same way; groups up to 7.
struct PlainKind {
  using Batch = DataBatch;
  static constexpr const char* kSource = "backend/vorel/databatch.cpp";
  static Batch Make(unsigned cols, unsigned rows, Current& c) {
    return Batch(cols, rows, &c.weight, &c.regWeight, &c.group);
  }
  static void Add(Batch& b, Current& c, const Added& row) {
    Select(c, row);
    b.AddRow(row.cells.data());
  }
  static void AddRow(Batch& b, const double* cells) { b.AddRow(cells); }
  static void Sort(Batch&) {}
};
struct GroupedKind {
  using Batch = DataBatchByGroup;
  static constexpr const char* kSource = "backend/vorel/databatchbygroup.cpp";
  static Batch Make(unsigned cols, unsigned rows, Current& c) {
    return Batch(cols, rows, &c.weight, &c.regWeight, &c.group, 8);
  }
  static void Add(Batch& b, Current& c, const Added& row) {
    std::copy(row.cells.begin(), row.cells.end(), b.Row(b.NRows()));
    Select(c, row);
    b.AddRow();
  }
  static void AddRow(Batch& b, const double*) { b.AddRow(); }
  static void Sort(Batch& b) { b.SortByGroup(); }  // the columns hold the rows from here on
};

template <class Kind>
class Batches : public ::testing::Test {};
using BatchKinds = ::testing::Types<PlainKind, GroupedKind>;
TYPED_TEST_SUITE(Batches, BatchKinds);

TYPED_TEST(Batches, Preconditions) {
  using Batch = typename TypeParam::Batch;
  Current current;
  EXPECT_VOREL_ASSERT(TypeParam::Make(0, 4, current), "0 < nColumns", TypeParam::kSource);
  EXPECT_VOREL_ASSERT(TypeParam::Make(4, 0, current), "0 < nRows", TypeParam::kSource);
  Batch batch = TypeParam::Make(2, 2, current);
  TypeParam::Add(batch, current, {1, 1.0, {1, 2}});
  TypeParam::Add(batch, current, {1, 1.0, {1, 2}});  // fills the last place
  EXPECT_EQ(batch.NRows(), 2u);
  const double row[2] = {1, 2};
  EXPECT_VOREL_ASSERT(TypeParam::AddRow(batch, row), "_nRows < _maxRows", TypeParam::kSource);
  TypeParam::Sort(batch);
  const Batch& constBatch = batch;
  EXPECT_VOREL_ASSERT(batch.Column(2), "colNum < _nColumns", "backend/tables/vorel/databatch");
  EXPECT_VOREL_ASSERT(constBatch.Column(2), "colNum < _nColumns", "backend/tables/vorel/databatch");
  EXPECT_EQ(batch.Column(1)[1], 2.0);
}

// Copies take every cell, weight and group; the source's later rows reach none
// of them; a moved-from batch takes an assignment.
TYPED_TEST(Batches, CopiesAreDeepAndMovesHandOver) {
  using Batch = typename TypeParam::Batch;
  Current current;
  Batch source = TypeParam::Make(2, 4, current), assigned = TypeParam::Make(5, 1, current);
  TypeParam::Add(source, current, {1, 1.0, {1, 2}});
  TypeParam::Add(source, current, {1, 2.0, {3, 4}});
  TypeParam::Sort(source);
  Batch copy(source);
  assigned = source;
  TypeParam::Add(source, current, {1, 3.0, {5, 6}});
  TypeParam::Sort(source);
  source.Column(1)[0] = 99;
  source.Weights()[0] = 99;
  assigned = static_cast<const Batch&>(assigned);  // self-assignment
  for (const Batch* target : {&copy, &assigned}) {
    ASSERT_EQ(target->NRows(), 2u);
    EXPECT_EQ(target->NColumns(), 2u);
    EXPECT_EQ(target->Column(1) - target->Column(0), 4);
    EXPECT_EQ(target->Column(1)[0], 2.0);
    EXPECT_EQ(target->Weights()[1], 2.0);
    EXPECT_EQ(target->RegWeights()[1], -2.0);
    EXPECT_EQ(target->Groups()[0], 1u);
  }
  Batch moved(std::move(copy));
  EXPECT_EQ(moved.Column(1)[1], 4.0);
  copy = source;  // NOLINT(bugprone-use-after-move): a moved-from batch can be assigned to
  moved = std::move(copy);
  EXPECT_EQ(moved.NRows(), 3u);
  EXPECT_EQ(moved.Weights()[2], 3.0);
}

// NGroups() is the largest group seen, group 0 counting none; Clear forgets
// the rows but keeps the largest group and the cells behind NRows(). (Where a
// row's cells, weights and groups land, every matrix suite reads back.)
TEST(DataBatch, ClearKeepsTheLargestGroup) {
  double weight = 0, regWeight = 0;
  unsigned group = 0;
  DataBatch batch(2, 4, &weight, &regWeight, &group);
  EXPECT_EQ(batch.NRows() + batch.NGroups(), 0u);
  for (unsigned r = 0; r < 4; ++r) {
    const double row[2] = {100.0 * r, 1.0};
    group = 3 * r;
    batch.AddRow(row);
    EXPECT_EQ(batch.NGroups(), 3 * r);
  }
  batch.Clear();
  group = 5;
  const double row[2] = {7.0, 1.0};
  batch.AddRow(row);
  EXPECT_EQ(batch.NRows(), 1u);
  EXPECT_EQ(batch.NGroups(), 9u);
  EXPECT_EQ(batch.Column(0)[0], 7.0);
  EXPECT_EQ(batch.Column(0)[1], 100.0);
}

// Shapes: columns (below, at and beyond one four-cell turn), groups, rows.
class DataBatchByGroupSort
    : public ::testing::TestWithParam<std::tuple<unsigned, unsigned, unsigned>> {};

TEST_P(DataBatchByGroupSort, MatchesAPlainStableSortAcrossRefillsAndResorts) {
  const auto nColumns = std::get<0>(GetParam());
  const auto nGroups = std::get<1>(GetParam());
  const auto nRows = std::get<2>(GetParam());
  std::mt19937 random(20240611u + nColumns * 7u + nGroups * 131u + nRows);
  SCOPED_TRACE(::testing::Message()
               << "columns " << nColumns << " groups " << nGroups << " rows " << nRows);
  // With several groups only the even ones get rows, so empty groups lie
  // between filled ones and their slices have to come out empty.
  const unsigned step = nGroups > 2 ? 2 : 1;
  std::uniform_int_distribution<unsigned> groupOf(0, (nGroups - 1) / step);
  std::uniform_real_distribution<double> value(-1e3, 1e3);
  auto makeRows = [&](unsigned n) {
    std::vector<Added> rows(n);
    for (Added& row : rows) {
      row.group = groupOf(random) * step;
      row.weight = value(random);
      row.cells.resize(nColumns);
      for (double& cell : row.cells)
        cell = value(random);
    }
    return rows;
  };

  Current current;
  DataBatchByGroup batch(nColumns, nRows, &current.weight, &current.regWeight, &current.group,
                         nGroups);
  // First fill part of the batch and sort; then add the rest and sort again:
  // the second sort rebuilds the whole order from the counts.
  std::vector<Added> added = makeRows(nRows / 2);
  for (const Added& row : added)
    GroupedKind::Add(batch, current, row);
  batch.SortByGroup();
  ExpectSortedAs(batch, StableByGroup(added));

  const std::vector<Added> more = makeRows(nRows - nRows / 2);
  for (const Added& row : more)
    GroupedKind::Add(batch, current, row);
  added.insert(added.end(), more.begin(), more.end());
  batch.SortByGroup();
  ExpectSortedAs(batch, StableByGroup(added));
  batch.SortByGroup();  // nothing in between: the same order again
  ExpectSortedAs(batch, StableByGroup(added));

  for (unsigned r = 0; r < nRows; ++r) {
    EXPECT_EQ(batch.Group(r), added[r].group);
    EXPECT_EQ(batch.RegWeights()[r], -added[r].weight);
    for (unsigned c = 0; c < nColumns; ++c)
      EXPECT_EQ(batch.Row(r)[c], added[r].cells[c]);
  }

  // After Clear the counts restart; sorting no rows moves nothing, and a
  // refill of fewer rows sorts alone.
  const double kept = batch.Column(nColumns - 1)[0];
  batch.Clear();
  batch.SortByGroup();
  EXPECT_TRUE(SameBits(batch.Column(nColumns - 1)[0], kept));
  const std::vector<Added> refill = makeRows(nRows / 3);
  for (const Added& row : refill)
    GroupedKind::Add(batch, current, row);
  batch.SortByGroup();
  ExpectSortedAs(batch, StableByGroup(refill));
}

INSTANTIATE_TEST_SUITE_P(Shapes, DataBatchByGroupSort,
                         ::testing::Combine(::testing::Values(1u, 3u, 4u, 9u),
                                            ::testing::Values(1u, 2u, 7u),
                                            ::testing::Values(1u, 6u, 97u)));

// Groups without weights: the sort moves cells only. No group pointer: rows
// are taken and counted nowhere. A group at the limit is refused before it is
// stored or counted.
TEST(DataBatchByGroup, GroupsWeightsAndTheirPreconditions) {
  constexpr const char* kSource = GroupedKind::kSource;
  constexpr const char* kHeader = "backend/tables/vorel/databatchbygroup.h";
  Current current;
  DataBatchByGroup grouped(1, 3, nullptr, nullptr, &current.group, 2);
  EXPECT_FALSE(grouped.HasWeights());
  EXPECT_EQ(grouped.Weights(), nullptr);
  GroupedKind::Add(grouped, current, {1, 0.0, {5.0}});
  GroupedKind::Add(grouped, current, {0, 0.0, {6.0}});
  grouped.SortByGroup();
  EXPECT_EQ(grouped.Column(0)[0], 6.0);
  EXPECT_EQ(grouped.Column(0)[1], 5.0);
  EXPECT_VOREL_ASSERT(grouped.Row(3), "rowNum <= _nRows", kHeader);
  EXPECT_VOREL_ASSERT(static_cast<const DataBatchByGroup&>(grouped).Row(3), "rowNum <= _nRows",
                      kHeader);
  EXPECT_VOREL_ASSERT(grouped.groupCount(2), "group < _groupCounts.size()", kHeader);
  current.group = 2;
  EXPECT_VOREL_ASSERT(grouped.AddRow(), "tmpGroupVal<_maxGroup", kSource);
  EXPECT_EQ(grouped.NRows(), 2u);
  EXPECT_EQ(grouped.groupCount(1), 1u);

  DataBatchByGroup plain(1, 3, &current.weight, nullptr, nullptr, 5);
  EXPECT_EQ(plain.Groups(), nullptr);
  current.group = 99;  // not read
  GroupedKind::Add(plain, current, {99, 1.0, {1.0}});
  EXPECT_EQ(plain.NRows(), 1u);
  EXPECT_EQ(plain.NGroups(), 5u);
  EXPECT_VOREL_ASSERT(plain.SortByGroup(), "_pGroup!=0", kSource);
  EXPECT_VOREL_ASSERT(plain.groupCount(0), "group < _groupCounts.size()", kHeader);

  DataBatchByGroup noGroups(1, 2, nullptr, nullptr, &current.group, 0);
  current.group = 0;
  EXPECT_VOREL_ASSERT(noGroups.AddRow(), "tmpGroupVal<_maxGroup", kSource);
}

}  // namespace
}  // namespace vorel
