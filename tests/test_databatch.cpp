#include <vorel/databatch.h>
#include <vorelhost/assertion.h>

#include <cmath>
#include <limits>
#include <vector>

#include "test_support.h"

namespace vorel {
namespace {

constexpr const char* kSource = "backend/vorel/databatch";
constexpr const char* kHeader = "backend/tables/vorel/databatch";

TEST(DataBatch, RowsLandColumnMajorWithWeightsAndGroups) {
  DataBatch plain(3, 5, nullptr, nullptr, nullptr);
  EXPECT_EQ(plain.NColumns(), 3u);
  EXPECT_FALSE(plain.HasWeights() || plain.HasRegWeights());
  EXPECT_TRUE(plain.Weights() == nullptr && plain.RegWeights() == nullptr
              && plain.Groups() == nullptr);
  // Columns lie one capacity apart whatever the number of rows held.
  EXPECT_EQ(plain.Column(2) - plain.Column(0), 10);

  double weight = 0, regWeight = 0;
  unsigned group = 0;
  // Nine columns: two four-cell turns and a remainder of one.
  DataBatch batch(9, 4, &weight, &regWeight, &group);
  EXPECT_EQ(batch.NRows() + batch.NGroups(), 0u);
  std::vector<double> row(9);
  for (unsigned r = 0; r < 4; ++r) {
    for (unsigned c = 0; c < 9; ++c)
      row[c] = 100.0 * r + c;
    weight = r - 1.5;  // negative and zero-crossing weights pass unchanged
    regWeight = 2.0 * r;
    group = 3 * r;
    batch.AddRow(row.data());
    EXPECT_EQ(batch.NGroups(), 3 * r);  // group 0 counts no group
  }
  ASSERT_EQ(batch.NRows(), 4u);
  for (unsigned r = 0; r < 4; ++r) {
    for (unsigned c = 0; c < 9; ++c)
      EXPECT_EQ(batch.Column(c)[r], 100.0 * r + c);
    EXPECT_EQ(batch.Weights()[r], r - 1.5);
    EXPECT_EQ(batch.RegWeights()[r], 2.0 * r);
    EXPECT_EQ(batch.Groups()[r], 3 * r);
  }
  EXPECT_EQ(batch.NGroups(), 9u);
}

TEST(DataBatch, Preconditions) {
  EXPECT_VOREL_ASSERT(DataBatch(0, 4, nullptr, nullptr, nullptr), "0 < nColumns", kSource);
  EXPECT_VOREL_ASSERT(DataBatch(4, 0, nullptr, nullptr, nullptr), "0 < nRows", kSource);
  DataBatch batch(2, 2, nullptr, nullptr, nullptr);
  const double row[2] = {1, 2};
  batch.AddRow(row);
  batch.AddRow(row);  // fills the last place
  EXPECT_EQ(batch.NRows(), 2u);
  EXPECT_VOREL_ASSERT(batch.AddRow(row), "_nRows < _maxRows", kSource);
  EXPECT_VOREL_ASSERT(batch.Column(2), "colNum < _nColumns", kHeader);
  const DataBatch& constBatch = batch;
  EXPECT_VOREL_ASSERT(constBatch.Column(2), "colNum < _nColumns", kHeader);
  EXPECT_EQ(batch.Column(1)[1], 2.0);
}

TEST(DataBatch, ClearKeepsCellsAndLargestGroup) {
  unsigned group = 3;
  DataBatch batch(1, 4, nullptr, nullptr, &group);
  const double a = 1.0, b = std::numeric_limits<double>::quiet_NaN();
  batch.AddRow(&a);
  group = 7;
  batch.AddRow(&b);
  batch.Clear();
  EXPECT_EQ(batch.NRows(), 0u);
  EXPECT_EQ(batch.NGroups(), 7u);
  EXPECT_EQ(batch.Column(0)[0], 1.0);  // old cells stay behind NRows()
  EXPECT_TRUE(std::isnan(batch.Column(0)[1]));
  group = 5;
  batch.AddRow(&b);
  EXPECT_EQ(batch.NGroups(), 7u);
  EXPECT_TRUE(std::isnan(batch.Column(0)[0]));
}

TEST(DataBatch, CopiesAreDeepAndIndependent) {
  double weight = 2;
  DataBatch source(2, 3, &weight, nullptr, nullptr);
  const double row[2] = {1, 2};
  source.AddRow(row);

  DataBatch assigned(5, 1, nullptr, nullptr, nullptr);
  assigned = source;
  DataBatch constructed(source);
  source.Column(1)[0] = 99;
  source.Weights()[0] = 99;
  for (DataBatch* copy : {&assigned, &constructed}) {
    EXPECT_EQ(copy->NRows(), 1u);
    EXPECT_EQ(copy->NColumns(), 2u);
    EXPECT_EQ(copy->Column(1) - copy->Column(0), 3);
    EXPECT_EQ(copy->Column(1)[0], 2.0);
    EXPECT_EQ(copy->Weights()[0], 2.0);
  }
  // The copy keeps reading the caller's weight and takes further rows.
  weight = 6;
  assigned.AddRow(row);
  const DataBatch& self = assigned;
  assigned = self;  // self-assignment keeps the contents
  EXPECT_EQ(assigned.Column(0)[1], 1.0);
  DataBatch moved(std::move(assigned));
  EXPECT_EQ(moved.NRows(), 2u);
  EXPECT_EQ(moved.Weights()[1], 6.0);
}

}  // namespace
}  // namespace vorel
