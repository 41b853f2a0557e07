// The worked example of the discriminant section of the README.
#include <vorel/DiscriminantMatrix.h>
#include <vorel/DscIndividualMatrix.h>
#include <vorel/databatch.h>
#include <vorel/databatchbygroup.h>

#include <vector>

#include "discriminant_support.h"
#include "test_support.h"

namespace vorel {
namespace {

struct Row {
  unsigned group;
  double cells[2];
};

const std::vector<Row> rows = {{0, {1, 2}}, {0, {3, 6}},  {0, {5, 4}}, {1, {6, 1}},
                               {1, {8, 3}}, {1, {10, 5}}, {1, {8, 7}}};

struct Figures {
  std::vector<double> mean;    // [g * n + i]
  std::vector<double> within;  // pooled within-group covariance, [i * n + j]
};

// The README's code, as it stands there.
Figures ReadmeExample() {
  // 2 groups, 2 variables; a batch of up to 64 rows with groups and no
  // weights, so that every row weighs 1.
  vorel::DiscriminantMatrix m(2, 2);
  unsigned group = 0;
  vorel::DataBatch batch(2, 64, nullptr, nullptr, &group);
  for (const Row& row : rows) {  // a Row holds a group and two cells
    group = row.group;
    batch.AddRow(row.cells);
  }
  m += batch;

  const int n = m.NVar(), k = m.NGroup();
  std::vector<double> mean(k * n), within(n * n);
  int groupsWithRows = 0;
  for (int g = 0; g < k; ++g) {
    if (m.sumW(g) > 0.) ++groupsWithRows;
    for (int i = 0; i < n; ++i)
      mean[g * n + i] = m.sumX1(g, i) / m.sumW(g);
  }
  for (int i = 0; i < n; ++i) {
    for (int j = 0; j < n; ++j) {
      double w = m.TSSP(i, j);
      for (int g = 0; g < k; ++g)
        if (m.sumW(g) > 0.) w -= m.sumX1(g, i) * m.sumX1(g, j) / m.sumW(g);
      within[i * n + j] = w / (m.WeightSum() - groupsWithRows);
    }
  }
  return {mean, within};
}

// Every sum here is an integer and every division by a group weight exact, so
// the figures come out as the correctly rounded quotients the README quotes.
TEST(DiscriminantReadme, MeansAndPooledCovarianceFromTheTotalsTable) {
  const Figures f = ReadmeExample();
  EXPECT_EQ(f.mean, (std::vector<double>{3, 4, 8, 4}));
  EXPECT_EQ(f.within, (std::vector<double>{3.2, 2.4, 2.4, 5.6}));
  EXPECT_EQ(f.within[0] * 5, 16.0);
  EXPECT_EQ(f.within[3] * 5, 28.0);
}

TEST(DiscriminantReadme, TheSameFiguresAndEachGroupsCovarianceFromTheGroupTables) {
  testing::tables::Table t;
  for (const Row& row : rows) {
    t.rows.push_back({row.cells[0], row.cells[1]});
    t.groups.push_back(row.group);
  }
  DiscIndividualMatrix d(2, 2);
  DataBatchByGroup batch = testing::discriminant::BatchFor(d, t, 0, rows.size(), 2);
  d += batch;

  const int n = d.NVar();
  std::vector<double> mean, within(n * n, 0.0), groupCovariance;
  for (int g = 0; g < d.NGroup(); ++g) {
    const double wg = d.TSSP(n, n, g);
    for (int i = 0; i < n; ++i)
      mean.push_back(d.TSSP(n, i, g) / wg);
    for (int i = 0; i < n; ++i) {
      for (int j = 0; j < n; ++j) {
        const double sscp = d.TSSP(i, j, g) - d.TSSP(n, i, g) * d.TSSP(n, j, g) / wg;
        within[i * n + j] += sscp;
        if (j >= i) groupCovariance.push_back(sscp / (wg - 1));
      }
    }
  }
  for (double& w : within)
    w /= d.WeightSum() - d.NGroup();

  const Figures f = ReadmeExample();
  EXPECT_EQ(mean, f.mean);
  EXPECT_EQ(within, f.within);
  EXPECT_EQ(groupCovariance, (std::vector<double>{4, 2, 4, 8.0 / 3, 8.0 / 3, 20.0 / 3}));
}

}  // namespace
}  // namespace vorel
