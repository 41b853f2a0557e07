#include <vorel/databatchbygroup.h>

#include <algorithm>
#include <numeric>
#include <random>
#include <tuple>
#include <vector>

#include "test_support.h"

namespace vorel {
namespace {

using testing::SameBits;

constexpr const char* kSource = "backend/vorel/databatchbygroup";
constexpr const char* kHeader = "backend/tables/vorel/databatchbygroup";

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

void Append(DataBatchByGroup& batch, Current& current, const Added& row) {
  std::copy(row.cells.begin(), row.cells.end(), batch.Row(batch.NRows()));
  current.weight = row.weight;
  current.regWeight = -row.weight;  // never reordered; checked in the order of adding
  current.group = row.group;
  batch.AddRow();
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

TEST(DataBatchByGroup, NewBatchHasItsShapeAndNoRows) {
  Current current;
  DataBatchByGroup batch(3, 5, &current.weight, nullptr, &current.group, 4);
  EXPECT_EQ(batch.NColumns(), 3u);
  EXPECT_EQ(batch.NRows() + batch.groupCount(3), 0u);
  EXPECT_EQ(batch.NGroups(), 4u);
  EXPECT_TRUE(batch.HasWeights() && !batch.HasRegWeights());
  EXPECT_TRUE(batch.RegWeights() == nullptr && batch.Groups() != nullptr);
  EXPECT_EQ(batch.Column(2) - batch.Column(0), 10);
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
    Append(batch, current, row);
  batch.SortByGroup();
  ExpectSortedAs(batch, StableByGroup(added));

  const std::vector<Added> more = makeRows(nRows - nRows / 2);
  for (const Added& row : more)
    Append(batch, current, row);
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
  EXPECT_EQ(batch.NRows(), 0u);
  EXPECT_EQ(batch.NGroups(), nGroups);
  for (unsigned g = 0; g < nGroups; ++g)
    EXPECT_EQ(batch.groupCount(g), 0u);
  const std::vector<Added> refill = makeRows(nRows / 3);
  for (const Added& row : refill)
    Append(batch, current, row);
  batch.SortByGroup();
  ExpectSortedAs(batch, StableByGroup(refill));
}

INSTANTIATE_TEST_SUITE_P(Shapes, DataBatchByGroupSort,
                         ::testing::Combine(::testing::Values(1u, 3u, 4u, 9u),
                                            ::testing::Values(1u, 2u, 7u),
                                            ::testing::Values(1u, 6u, 97u)));

TEST(DataBatchByGroup, WithoutWeightsOrGroups) {
  Current current;
  // Groups but no weights: the sort moves cells only.
  DataBatchByGroup grouped(1, 3, nullptr, nullptr, &current.group, 2);
  EXPECT_FALSE(grouped.HasWeights());
  EXPECT_EQ(grouped.Weights(), nullptr);
  Append(grouped, current, {1, 0.0, {5.0}});
  Append(grouped, current, {0, 0.0, {6.0}});
  grouped.SortByGroup();
  EXPECT_EQ(grouped.Column(0)[0], 6.0);
  EXPECT_EQ(grouped.Column(0)[1], 5.0);

  // No group pointer: rows are taken and counted nowhere, NGroups stays as given.
  DataBatchByGroup plain(1, 3, &current.weight, nullptr, nullptr, 5);
  EXPECT_EQ(plain.Groups(), nullptr);
  current.group = 99;  // not read
  Append(plain, current, {99, 1.0, {1.0}});
  EXPECT_EQ(plain.NRows(), 1u);
  EXPECT_EQ(plain.NGroups(), 5u);
  EXPECT_VOREL_ASSERT(plain.SortByGroup(), "_pGroup!=0", kSource);
  EXPECT_VOREL_ASSERT(plain.groupCount(0), "group < _groupCounts.size()", kHeader);
}

TEST(DataBatchByGroup, Preconditions) {
  EXPECT_VOREL_ASSERT(DataBatchByGroup(0, 4, nullptr, nullptr, nullptr, 1), "0 < nColumns",
                      kSource);
  EXPECT_VOREL_ASSERT(DataBatchByGroup(4, 0, nullptr, nullptr, nullptr, 1), "0 < nRows", kSource);

  Current current;
  DataBatchByGroup batch(2, 2, nullptr, nullptr, &current.group, 3);
  EXPECT_VOREL_ASSERT(batch.Row(1), "rowNum <= _nRows", kHeader);
  const DataBatchByGroup& constBatch = batch;
  EXPECT_VOREL_ASSERT(constBatch.Row(1), "rowNum <= _nRows", kHeader);
  EXPECT_VOREL_ASSERT(batch.Column(2), "colNum < _nColumns", kHeader);
  EXPECT_VOREL_ASSERT(constBatch.Column(2), "colNum < _nColumns", kHeader);
  EXPECT_VOREL_ASSERT(batch.groupCount(3), "group < _groupCounts.size()", kHeader);

  // The group at the limit is refused before it is stored or counted.
  current.group = 3;
  EXPECT_VOREL_ASSERT(batch.AddRow(), "tmpGroupVal<_maxGroup", kSource);
  EXPECT_EQ(batch.NRows(), 0u);
  current.group = 2;  // the largest group taken
  batch.AddRow();
  batch.AddRow();  // fills the last place
  EXPECT_EQ(batch.groupCount(2), 2u);
  EXPECT_VOREL_ASSERT(batch.AddRow(), "_nRows < _maxRows", kSource);

  DataBatchByGroup noGroups(1, 2, nullptr, nullptr, &current.group, 0);
  current.group = 0;
  EXPECT_VOREL_ASSERT(noGroups.AddRow(), "tmpGroupVal<_maxGroup", kSource);
}

TEST(DataBatchByGroup, CopiesAreDeepAndMovesTakeTheBlocks) {
  Current current;
  DataBatchByGroup source(2, 4, &current.weight, &current.regWeight, &current.group, 2);
  Append(source, current, {1, 1.0, {1, 2}});
  Append(source, current, {0, 2.0, {3, 4}});
  source.SortByGroup();
  DataBatchByGroup copy(source);
  DataBatchByGroup assigned(1, 1, nullptr, nullptr, nullptr, 0);
  assigned = source;
  // Later rows reach the source only.
  Append(source, current, {0, 3.0, {5, 6}});
  source.SortByGroup();
  assigned = static_cast<const DataBatchByGroup&>(assigned);  // self-assignment
  for (const DataBatchByGroup* target : {&copy, &assigned})
    ExpectSortedAs(*target, {{0, 2.0, {3, 4}}, {1, 1.0, {1, 2}}});
  EXPECT_EQ(assigned.RegWeights()[1], -2.0);
  EXPECT_EQ(assigned.Row(1)[1], 4.0);

  DataBatchByGroup moved(std::move(copy));
  ExpectSortedAs(moved, {{0, 2.0, {3, 4}}, {1, 1.0, {1, 2}}});
  copy = source;  // NOLINT(bugprone-use-after-move): a moved-from batch can be assigned to
  moved = std::move(copy);
  ExpectSortedAs(moved, {{0, 2.0, {3, 4}}, {0, 3.0, {5, 6}}, {1, 1.0, {1, 2}}});
}

}  // namespace
}  // namespace vorel
