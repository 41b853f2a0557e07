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

using testing::MessageOf;
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
                        {{"x", "y", "z"}, "w", regWeight ? "rw" : "", "g"});
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

// blockBytes 0: the pass that merges in finish order, in batches of 7 rows.
class StatPassThreaded
    : public ::testing::TestWithParam<std::tuple<int, std::uint64_t, std::size_t, bool, bool>> {};

TEST_P(StatPassThreaded, AgreesWithTheOracle) {
  const auto [threads, blockBytes, readSize, pairwise, regWeight] = GetParam();
  const DataSet data = MakeData(4242, 300);
  TempFile file(data.text);
  const PassSetup s = MakeSetup(regWeight);
  ChunkReader reader(file.Path(), readSize);
  PassOptions options;
  options.pairwise = pairwise;
  options.threads = threads;
  options.finishOrder = blockBytes == 0;
  options.batchRows = 7;
  if (blockBytes != 0) options.blockBytes = blockBytes;
  options.groupCovariance = true;
  const PassResult pass = RunPass(reader, s.layout, s.rules, options);
  const Report report(file.Path(), s.layout, pass, {}, true);

  std::vector<const Row*> weighted, complete, grouped[3];
  for (const Row& row : data.rows) {
    if (!row.weight) continue;
    weighted.push_back(&row);
    const bool full = row.x[0] && row.x[1] && row.x[2];
    if (full) complete.push_back(&row);
    if (full && row.group) grouped[*row.group - 1].push_back(&row);
  }
  EXPECT_EQ(pass.blockBytes, options.finishOrder ? 0 : options.blockBytes);
  EXPECT_EQ(pass.rows.read, data.rows.size());
  EXPECT_EQ(pass.rows.withoutWeight, data.rows.size() - weighted.size());
  EXPECT_EQ(pass.rows.used, pairwise ? weighted.size() : complete.size());

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
    EXPECT_EQ(report.columns[i].moments.n, present.size());
    EXPECT_EQ(report.columns[i].min, lo);
    EXPECT_EQ(report.columns[i].max, hi);
    EXPECT_EQ(report.columns[i].moments.weight, static_cast<double>(m.w));
    ExpectClose(report.columns[i].mean, m.mean(i), 1e-13, "mean");
    ExpectClose(report.columns[i].sd, std::sqrt(m.css[i][i] / (m.w - 1)), 1e-11, "sd");
    for (unsigned j = 0; j < kVars; ++j) {
      std::vector<const Row*> both;
      for (const Row* row : present) {
        if (row->x[j]) both.push_back(row);
      }
      const Moments p = Gather(both, regWeight);
      const std::string pair = "pair " + std::to_string(i) + "," + std::to_string(j);
      ExpectClose(report.Covariance(i, j), p.css[i][j] / (p.w - 1), 1e-10, "covariance " + pair);
      ExpectClose(report.Correlation(i, j), p.css[i][j] / std::sqrt(p.css[i][i] * p.css[j][j]),
                  1e-12, "correlation " + pair);
      if (pairwise) {
        EXPECT_EQ(report.PairRows(i, j), both.size()) << pair;
        EXPECT_EQ(report.PairWeight(i, j), static_cast<double>(p.w)) << pair;
      }
    }
  }

  // By group: frequency weights only, centred on each group's own means.
  ASSERT_EQ(report.NGroups(), 3u);
  Real within[kVars][kVars] = {};
  Real total = 0;
  for (std::size_t g = 0; g < 3; ++g) {
    const Moments m = Gather(grouped[g], false);
    EXPECT_EQ(report.GroupCode(g), static_cast<long long>(g + 1));
    EXPECT_EQ(report.Group(g).Rows(), grouped[g].size());
    EXPECT_EQ(report.Group(g).Weight(), static_cast<double>(m.w));
    total += m.w;
    for (unsigned i = 0; i < kVars; ++i) {
      ExpectClose(report.Group(g).Mean(i), m.mean(i), 1e-13, "group mean");
      for (unsigned j = 0; j < kVars; ++j) {
        within[i][j] += m.css[i][j];
        ExpectClose(report.GroupCovariance(g, i, j), m.css[i][j] / (m.w - 1), 1e-12,
                    "group covariance");
      }
    }
  }
  EXPECT_EQ(report.PooledDivisor(), static_cast<double>(total - 3));
  for (unsigned i = 0; i < kVars; ++i) {
    for (unsigned j = 0; j < kVars; ++j) {
      ExpectClose(report.PooledCovariance(i, j), within[i][j] / (total - 3), 1e-12, "pooled");
    }
  }
}

INSTANTIATE_TEST_SUITE_P(ThreadsBatchesReads, StatPassThreaded,
                         ::testing::Combine(::testing::Values(1, 2, 8),
                                            ::testing::Values(0u, 1u, 100u, 1u << 20),
                                            ::testing::Values(64, 1 << 20), ::testing::Bool(),
                                            ::testing::Bool()));

// The first bad line in the file is the one reported, with its line number,
// however the lines were shared out; bad lines after it do not matter.
class StatPassErrorThreaded
    : public ::testing::TestWithParam<std::tuple<int, std::uint64_t, std::size_t>> {};

TEST_P(StatPassErrorThreaded, ReportsTheFirstBadLine) {
  const auto [threads, blockBytes, readSize] = GetParam();
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
  const RowLayout layout = MakeLayout({"a", "b"}, ';', {{"a", "b"}, "", "", ""});
  ChunkReader reader(file.Path(), readSize);
  PassOptions options;
  options.threads = threads;
  options.blockBytes = blockBytes;
  EXPECT_EQ(MessageOf<DataError>([&] { RunPass(reader, layout, rules, options); }),
            file.Path() + ", line 123, column 2 (\"b\"): cell \"x1\" is not a number");
}

INSTANTIATE_TEST_SUITE_P(ThreadsBatchesReads, StatPassErrorThreaded,
                         ::testing::Combine(::testing::Values(1, 2, 8), ::testing::Values(1u, 70u),
                                            ::testing::Values(5, 64, 1 << 20)));

TEST(StatPassError, LastLineWithoutLineEnd) {
  TempFile file("a,b\n1,2\n3,4\n5");
  CellRules rules;
  const RowLayout layout = MakeLayout({"a", "b"}, ',', {});
  ChunkReader reader(file.Path(), 3);
  PassOptions options;
  options.threads = 2;
  EXPECT_EQ(MessageOf<DataError>([&] { RunPass(reader, layout, rules, options); }),
            file.Path() + ", line 4: the line has 1 fields, the header has 2");
}

// A pass over `text` and its report, which holds on to the pass.
struct Reported {
  Reported(const std::string& text, bool pairwise) {
    TempFile file(text);
    CellRules rules;
    rules.missingTexts = {"", "NA"};
    rules.missingCode = -1e300;
    rules.groupLo = 0;
    rules.groupHi = 9;
    const std::vector<std::string> header = SplitLine(text.substr(0, text.find('\n')), ',');
    ColumnChoice choice;
    if (header.back() == "g") choice.group = "g";
    layout = MakeLayout(header, ',', choice);
    ChunkReader reader(file.Path(), 1 << 20);
    PassOptions options;
    options.pairwise = pairwise;
    options.threads = 2;
    pass = RunPass(reader, layout, rules, options);
    report.emplace(file.Path(), layout, pass, std::vector<SkippedColumn>{}, false);
  }
  RowLayout layout;
  PassResult pass;
  std::optional<Report> report;
};

class StatReport : public ::testing::TestWithParam<bool> {};

// A pass without rows reports counts of 0 and nothing else. (What each
// figure gives when it is not defined: the definitions' own tests, and
// end to end.)
TEST_P(StatReport, NoRowsReportNoFigures) {
  const bool pairwise = GetParam();
  const Reported none("a,b,g\nNA,1,0\n", pairwise);
  EXPECT_EQ(none.pass.rows.read, 1u);
  EXPECT_EQ(none.report->columns[0].moments.n, 0u);
  EXPECT_TRUE(std::isnan(none.report->columns[0].mean));
  EXPECT_TRUE(std::isnan(none.report->columns[0].min));
  EXPECT_EQ(none.report->NGroups(), 0u);
  const Reported empty("a,b\n", pairwise);
  EXPECT_EQ(empty.pass.rows.read, 0u);
  EXPECT_TRUE(std::isnan(empty.report->Covariance(0, 0)));
}

INSTANTIATE_TEST_SUITE_P(Deletion, StatReport, ::testing::Bool());

}  // namespace
}  // namespace vorelstat
