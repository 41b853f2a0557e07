// The pass and the report against long double oracles written out here, over
// thread counts, batch sizes and read sizes; and where bad data is reported.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <optional>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "chunkreader.h"
#include "errors.h"
#include "report.h"
#include "rowparser.h"
#include "statpass.h"
#include "tempfile.h"

namespace vorelstat {
namespace {

using testing::TempFile;

constexpr unsigned kVars = 3;

struct Row {
  std::optional<double> x[kVars];
  std::optional<double> weight;
  double regWeight;
  std::optional<int> group;
};

std::string Cell(const std::optional<double>& value) {
  if (!value) return "NA";
  char text[32];
  std::snprintf(text, sizeof text, "%.4f", *value);
  return text;
}

// Values read back exactly as printed, so that the oracle sees what the tool sees.
double Printed(double value) { return std::stod(Cell(value)); }

struct DataSet {
  std::vector<Row> rows;
  std::string text;
};

DataSet MakeData(unsigned seed, int nRows) {
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  std::normal_distribution<double> normal;
  std::uniform_real_distribution<double> uniform;
  DataSet data;
  data.text = "id,x,w,g,y,rw,z\n";
  for (int i = 0; i < nRows; ++i) {
    Row row;
    const double f = normal(random);
    row.x[0] = Printed(1000.0 + 10.0 * f + normal(random));
    row.x[1] = Printed(-5.0 + 2.0 * f + 3.0 * normal(random));
    row.x[2] = Printed(0.001 * normal(random) - 0.0005 * f);
    for (auto& cell : row.x) {
      if (uniform(random) < 0.1) cell.reset();
    }
    const double weights[] = {1.0, 2.0, 4.0};
    if (uniform(random) > 0.03) row.weight = weights[random() % 3];
    const double regWeights[] = {0.5, 1.0, 2.0};
    row.regWeight = regWeights[random() % 3];
    if (uniform(random) > 0.05) row.group = 1 + static_cast<int>(random() % 3);
    data.text += "r" + std::to_string(i) + "," + Cell(row.x[0]) + "," + Cell(row.weight) + ","
                 + (row.group ? std::to_string(*row.group) : "") + "," + Cell(row.x[1]) + ","
                 + Cell(row.regWeight) + "," + Cell(row.x[2]) + "\n";
    if (i % 50 == 7) data.text += "\n";  // blank lines are skipped
    data.rows.push_back(row);
  }
  return data;
}

struct PassSetup {
  CellRules rules;
  RowLayout layout;
};

PassSetup MakeSetup(bool regWeight) {
  PassSetup s;
  s.rules.missingTexts = {"", "NA"};
  s.rules.missingCode = -1e300;
  s.rules.groupLo = 1;
  s.rules.groupHi = 3;
  s.layout = MakeLayout({"id", "x", "w", "g", "y", "rw", "z"}, ',',
                        {{"x", "y", "z"}, "w", regWeight ? "rw" : "", "g"}, std::nullopt, s.rules);
  return s;
}

using Real = long double;

// Weighted sums of one set of rows, in long double.
struct Moments {
  Real w = 0, v = 0;  // frequency weight, combined weight
  Real sum[kVars] = {};
  Real css[kVars][kVars] = {};
  Real mean(unsigned i) const { return sum[i] / v; }
};

Moments Gather(const std::vector<const Row*>& rows, bool regWeight) {
  Moments m;
  for (const Row* row : rows) {
    const Real v = static_cast<Real>(*row->weight * (regWeight ? row->regWeight : 1.0));
    m.w += static_cast<Real>(*row->weight);
    m.v += v;
    for (unsigned i = 0; i < kVars; ++i)
      m.sum[i] += v * static_cast<Real>(row->x[i].value_or(0.0));
  }
  for (const Row* row : rows) {
    const Real v = static_cast<Real>(*row->weight * (regWeight ? row->regWeight : 1.0));
    for (unsigned i = 0; i < kVars; ++i) {
      for (unsigned j = 0; j < kVars; ++j) {
        if (!row->x[i] || !row->x[j]) continue;
        const Real xi = static_cast<Real>(row->x[i].value());
        const Real xj = static_cast<Real>(row->x[j].value());
        m.css[i][j] += v * (xi - m.mean(i)) * (xj - m.mean(j));
      }
    }
  }
  return m;
}

void ExpectClose(double actual, Real expected, double relative, const std::string& what) {
  const double tolerance =
      relative * std::max<double>(1.0, std::fabs(static_cast<double>(expected)));
  EXPECT_NEAR(actual, static_cast<double>(expected), tolerance) << what;
}

class StatPassThreaded
    : public ::testing::TestWithParam<std::tuple<int, unsigned, std::size_t, bool, bool>> {};

TEST_P(StatPassThreaded, AgreesWithTheOracle) {
  const auto [threads, batchRows, readSize, pairwise, regWeight] = GetParam();
  const DataSet data = MakeData(4242, 300);
  TempFile file(data.text);
  const PassSetup s = MakeSetup(regWeight);
  ChunkReader reader(file.Path(), readSize);
  PassOptions options;
  options.pairwise = pairwise;
  options.threads = threads;
  options.batchRows = batchRows;
  options.groupShift = {1000.0, -5.0, 0.0};
  const PassResult pass = RunPass(reader, s.layout, s.rules, options);
  const Report report = MakeReport(file.Path(), s.layout, s.rules, pass);

  std::vector<const Row*> weighted, complete, grouped[3];
  for (const Row& row : data.rows) {
    if (!row.weight) continue;
    weighted.push_back(&row);
    const bool full = row.x[0] && row.x[1] && row.x[2];
    if (full) complete.push_back(&row);
    if (full && row.group) grouped[*row.group - 1].push_back(&row);
  }
  EXPECT_EQ(report.threads, threads);
  EXPECT_EQ(report.rowsRead, data.rows.size());
  EXPECT_EQ(report.rowsWithoutWeight, data.rows.size() - weighted.size());
  EXPECT_EQ(report.rowsUsed, pairwise ? weighted.size() : complete.size());

  for (unsigned i = 0; i < kVars; ++i) {
    SCOPED_TRACE("column " + std::to_string(i));
    std::vector<const Row*> present;
    for (const Row* row : pairwise ? weighted : complete) {
      if (row->x[i]) present.push_back(row);
    }
    const Moments m = Gather(present, regWeight);
    double lo = std::numeric_limits<double>::infinity(), hi = -lo;
    for (const Row* row : present) {
      lo = std::min(lo, *row->x[i]);
      hi = std::max(hi, *row->x[i]);
    }
    EXPECT_EQ(report.columns[i].n, present.size());
    EXPECT_EQ(report.columns[i].min, lo);
    EXPECT_EQ(report.columns[i].max, hi);
    EXPECT_EQ(report.columns[i].weight, static_cast<double>(m.w));
    ExpectClose(report.columns[i].mean, m.mean(i), 1e-13, "mean");
    ExpectClose(report.columns[i].sd, std::sqrt(m.css[i][i] / (m.w - 1)), 1e-11, "sd");
    for (unsigned j = 0; j < kVars; ++j) {
      std::vector<const Row*> both;
      for (const Row* row : present) {
        if (row->x[j]) both.push_back(row);
      }
      const Moments p = Gather(both, regWeight);
      const std::string pair = "pair " + std::to_string(i) + "," + std::to_string(j);
      ExpectClose(report.covariance[i][j], p.css[i][j] / (p.w - 1), 1e-10, "covariance " + pair);
      ExpectClose(report.correlation[i][j], p.css[i][j] / std::sqrt(p.css[i][i] * p.css[j][j]),
                  1e-12, "correlation " + pair);
      if (pairwise) {
        EXPECT_EQ(report.pairRows[i][j], both.size()) << pair;
        EXPECT_EQ(report.pairWeights[i][j], static_cast<double>(p.w)) << pair;
      }
    }
  }

  // By group: frequency weights only, centred on each group's own means.
  ASSERT_EQ(report.groups.size(), 3u);
  Real within[kVars][kVars] = {};
  Real total = 0;
  for (int g = 0; g < 3; ++g) {
    const Moments m = Gather(grouped[g], false);
    EXPECT_EQ(report.groups[g].code, g + 1);
    EXPECT_EQ(report.groups[g].n, grouped[g].size());
    EXPECT_EQ(report.groups[g].weight, static_cast<double>(m.w));
    total += m.w;
    for (unsigned i = 0; i < kVars; ++i) {
      ExpectClose(report.groups[g].means[i], m.mean(i), 1e-12, "group mean");
      for (unsigned j = 0; j < kVars; ++j)
        within[i][j] += m.css[i][j];
    }
  }
  EXPECT_EQ(report.pooledDf, static_cast<double>(total - 3));
  for (unsigned i = 0; i < kVars; ++i) {
    for (unsigned j = 0; j < kVars; ++j) {
      ExpectClose(report.pooledCovariance[i][j], within[i][j] / (total - 3), 1e-9, "pooled");
    }
  }
}

INSTANTIATE_TEST_SUITE_P(ThreadsBatchesReads, StatPassThreaded,
                         ::testing::Combine(::testing::Values(1, 2, 8),
                                            ::testing::Values(1u, 7u, 10000u),
                                            ::testing::Values(64, 1 << 20), ::testing::Bool(),
                                            ::testing::Bool()));

// The first bad line in the file is the one reported, with its line number,
// however the lines were shared out; bad lines after it do not matter.
class StatPassErrorThreaded
    : public ::testing::TestWithParam<std::tuple<int, unsigned, std::size_t>> {};

TEST_P(StatPassErrorThreaded, ReportsTheFirstBadLine) {
  const auto [threads, batchRows, readSize] = GetParam();
  std::string text = "a;b\n";
  for (int line = 2; line <= 400; ++line) {
    if (line % 9 == 0) {
      text += "\r\n";
    } else if (line == 123) {
      text += "1;x1\n";
    } else if (line == 250 || line == 390) {
      text += "1;2;3\n";
    } else {
      text += std::to_string(line) + ";" + std::to_string(line % 7) + "\r\n";
    }
  }
  TempFile file(text);
  CellRules rules;
  rules.missingTexts = {""};
  const RowLayout layout = MakeLayout({"a", "b"}, ';', {}, std::nullopt, rules);
  ChunkReader reader(file.Path(), readSize);
  PassOptions options;
  options.threads = threads;
  options.batchRows = batchRows;
  try {
    RunPass(reader, layout, rules, options);
    ADD_FAILURE() << "no error reported";
  } catch (const DataError& e) {
    EXPECT_EQ(std::string(e.what()),
              file.Path() + ", line 123, column 2 (\"b\"): cell \"x1\" is not a number");
  }
}

INSTANTIATE_TEST_SUITE_P(ThreadsBatchesReads, StatPassErrorThreaded,
                         ::testing::Combine(::testing::Values(1, 2, 8), ::testing::Values(1u, 7u),
                                            ::testing::Values(5, 64, 1 << 20)));

TEST(StatPassError, LastLineWithoutLineEnd) {
  TempFile file("a,b\n1,2\n3,4\n5");
  CellRules rules;
  const RowLayout layout = MakeLayout({"a", "b"}, ',', {}, std::nullopt, rules);
  ChunkReader reader(file.Path(), 3);
  PassOptions options;
  options.threads = 2;
  EXPECT_THROW(
      {
        try {
          RunPass(reader, layout, rules, options);
        } catch (const DataError& e) {
          EXPECT_EQ(std::string(e.what()),
                    file.Path() + ", line 4: the line has 1 fields, the header has 2");
          throw;
        }
      },
      DataError);
}

Report ReportOf(const std::string& text, bool pairwise = false) {
  TempFile file(text);
  CellRules rules;
  rules.missingTexts = {"", "NA"};
  rules.missingCode = -1e300;
  rules.groupLo = 0;
  rules.groupHi = 9;
  const std::vector<std::string> header = SplitLine(text.substr(0, text.find('\n')), ',');
  ColumnChoice choice;
  if (header.back() == "g") choice.group = "g";
  const RowLayout layout = MakeLayout(header, ',', choice, std::nullopt, rules);
  ChunkReader reader(file.Path(), 1 << 20);
  PassOptions options;
  options.pairwise = pairwise;
  options.threads = 2;
  return MakeReport(file.Path(), layout, rules, RunPass(reader, layout, rules, options));
}

TEST(StatReport, FiguresThatAreNotDefinedAreNaN) {
  // A constant column has sd 0 and no correlation.
  const Report constant = ReportOf("a,b\n5,1\n5,2\n5,4\n");
  EXPECT_EQ(constant.columns[0].mean, 5.0);
  EXPECT_EQ(constant.columns[0].sd, 0.0);
  EXPECT_TRUE(std::isnan(constant.correlation[0][1]));
  EXPECT_TRUE(std::isnan(constant.correlation[0][0]));
  EXPECT_EQ(constant.correlation[1][1], 1.0);
  // One row: a mean, but no spread.
  const Report single = ReportOf("a,b\n5,1\n");
  EXPECT_EQ(single.columns[1].mean, 1.0);
  EXPECT_TRUE(std::isnan(single.columns[1].sd));
  EXPECT_TRUE(std::isnan(single.covariance[0][1]));
  // No rows: counts 0, nothing else.
  for (bool pairwise : {false, true}) {
    const Report none = ReportOf("a,b,g\nNA,1,0\n", pairwise);
    EXPECT_EQ(none.rowsRead, 1u);
    EXPECT_EQ(none.columns[0].n, 0u);
    EXPECT_TRUE(std::isnan(none.columns[0].mean));
    EXPECT_TRUE(std::isnan(none.columns[0].min));
    EXPECT_TRUE(none.groups.empty());
  }
  const Report empty = ReportOf("a,b\n");
  EXPECT_EQ(empty.rowsRead, 0u);
  EXPECT_TRUE(std::isnan(empty.covariance[0][0]));
}

TEST(StatReport, PooledCovarianceOfTwoGroups) {
  // Two groups with means (3, 4) and (8, 4); within-group sums 16, 12, 28 on 7 - 2 = 5.
  const Report report = ReportOf("x0,x1,g\n1,2,0\n3,6,0\n5,4,0\n6,1,1\n8,3,1\n10,5,1\n8,7,1\n");
  ASSERT_EQ(report.groups.size(), 2u);
  EXPECT_EQ(report.groups[0].means, (std::vector<double>{3.0, 4.0}));
  EXPECT_EQ(report.groups[1].means, (std::vector<double>{8.0, 4.0}));
  EXPECT_EQ(report.groups[1].n, 4u);
  EXPECT_EQ(report.pooledDf, 5.0);
  EXPECT_DOUBLE_EQ(report.pooledCovariance[0][0], 3.2);
  EXPECT_DOUBLE_EQ(report.pooledCovariance[0][1], 2.4);
  EXPECT_DOUBLE_EQ(report.pooledCovariance[1][0], 2.4);
  EXPECT_DOUBLE_EQ(report.pooledCovariance[1][1], 5.6);
}

}  // namespace
}  // namespace vorelstat
