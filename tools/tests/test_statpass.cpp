// The pass and the report: against long double oracles written out here,
// over thread counts, batch sizes and read sizes; the same bytes whatever the
// threads, the read size, the way of reading and the timing; and where bad
// data is reported. (Saved states, their parts and their merges: the
// end-to-end state suite, in fresh processes.)
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <functional>
#include <optional>
#include <random>
#include <string>
#include <thread>
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

// The reference the figures are checked against: weighted means and
// corrected cross-products of a set of rows, two-pass in long double.
using Real = long double;
constexpr unsigned kVars = 3;

// A row of three cells, any of them missing, with its weights and group.
struct Row {
  std::optional<double> x[kVars];
  std::optional<double> weight;
  double regWeight = 1.0;
  std::optional<int> group;
};

// Weighted sums of one set of rows.
struct Moments {
  Real w = 0, v = 0;  // frequency weight, combined weight
  Real sum[kVars] = {};
  Real css[kVars][kVars] = {};
  Real mean(unsigned i) const { return sum[i] / v; }
};

// The sums of `rows`, weighted by frequency, times the regression weight when
// asked; a pair's cross-product over the rows where both cells are present.
Moments Gather(const std::vector<Row>& rows, bool regWeight) {
  Moments m;
  for (const Row& row : rows) {
    const Real v = static_cast<Real>(*row.weight * (regWeight ? row.regWeight : 1.0));
    m.w += static_cast<Real>(*row.weight);
    m.v += v;
    for (unsigned i = 0; i < kVars; ++i)
      m.sum[i] += v * static_cast<Real>(row.x[i].value_or(0.0));
  }
  for (const Row& row : rows) {
    const Real v = static_cast<Real>(*row.weight * (regWeight ? row.regWeight : 1.0));
    for (unsigned i = 0; i < kVars; ++i) {
      for (unsigned j = 0; j < kVars; ++j) {
        if (!row.x[i] || !row.x[j]) continue;
        const Real xi = static_cast<Real>(*row.x[i]);
        const Real xj = static_cast<Real>(*row.x[j]);
        m.css[i][j] += v * (xi - m.mean(i)) * (xj - m.mean(j));
      }
    }
  }
  return m;
}

constexpr std::uint64_t kBlock = 4096;

// The columns a pass reads and the rules for their cells.
struct Columns {
  CellRules rules;
  RowLayout layout;
};

// How a pass reads its input.
struct Way {
  int threads = 1;
  std::size_t readSize = kBlock;
  bool pipe = false;
};

PassResult Pass(const std::string& text, const Columns& s, PassOptions options,
                const Way& way = {}) {
  const TempFile input(text, way.pipe);
  ChunkReader reader(input.Path(), way.readSize);
  options.threads = way.threads;
  return RunPass(reader, s.layout, s.rules, options);
}

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

Columns OracleColumns(bool regWeight) {
  Columns s;
  s.rules.missingTexts = {"", "NA"};
  s.rules.missingCode = -1e300;
  s.rules.groupLo = 1;
  s.rules.groupHi = 3;
  s.layout = MakeLayout({"id", "x", "w", "g", "y", "rw", "z"}, ',',
                        {{"x", "y", "z"}, "w", regWeight ? "rw" : "", "g"});
  return s;
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
  const Columns s = OracleColumns(regWeight);
  PassOptions options;
  options.pairwise = pairwise;
  options.finishOrder = blockBytes == 0;
  options.batchRows = 7;
  if (blockBytes != 0) options.blockBytes = blockBytes;
  options.groupCovariance = true;
  const PassResult pass = Pass(data.text, s, options, {threads, readSize});
  const Report report("data.csv", s.layout, pass, {}, true);

  std::vector<Row> weighted, complete, grouped[3];
  for (const Row& row : data.rows) {
    if (!row.weight) continue;
    weighted.push_back(row);
    const bool full = row.x[0] && row.x[1] && row.x[2];
    if (full) complete.push_back(row);
    if (full && row.group) grouped[*row.group - 1].push_back(row);
  }
  EXPECT_EQ(pass.blockBytes, options.finishOrder ? 0 : options.blockBytes);
  EXPECT_EQ(pass.rows.read, data.rows.size());
  EXPECT_EQ(pass.rows.withoutWeight, data.rows.size() - weighted.size());
  EXPECT_EQ(pass.rows.used, pairwise ? weighted.size() : complete.size());

  for (unsigned i = 0; i < kVars; ++i) {
    for (unsigned j = 0; j < kVars; ++j) {
      SCOPED_TRACE("pair " + std::to_string(i) + "," + std::to_string(j));
      // The rows where both cells are present; for j = i, the column's own.
      std::vector<Row> both;
      for (const Row& row : pairwise ? weighted : complete) {
        if (row.x[i] && row.x[j]) both.push_back(row);
      }
      const Moments p = Gather(both, regWeight);
      ExpectClose(report.Covariance(i, j), p.css[i][j] / (p.w - 1), 1e-10, "covariance");
      ExpectClose(report.Correlation(i, j), p.css[i][j] / std::sqrt(p.css[i][i] * p.css[j][j]),
                  1e-12, "correlation");
      if (pairwise) {
        EXPECT_EQ(report.PairRows(i, j), both.size());
        EXPECT_EQ(report.PairWeight(i, j), static_cast<double>(p.w));
      }
      if (j != i) continue;
      const auto [lo, hi] = std::minmax_element(
          both.begin(), both.end(), [i](const Row& a, const Row& b) { return *a.x[i] < *b.x[i]; });
      EXPECT_EQ(report.columns[i].moments.n, both.size());
      EXPECT_EQ(report.columns[i].min, *lo->x[i]);
      EXPECT_EQ(report.columns[i].max, *hi->x[i]);
      EXPECT_EQ(report.columns[i].moments.weight, static_cast<double>(p.w));
      ExpectClose(report.columns[i].mean, p.mean(i), 1e-13, "mean");
      ExpectClose(report.columns[i].sd, std::sqrt(p.css[i][i] / (p.w - 1)), 1e-11, "sd");
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
  const Way way{threads, readSize};
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
  Columns s{{}, MakeLayout({"a", "b"}, ';', {{"a", "b"}, "", "", ""})};
  s.rules.missingTexts = {""};
  PassOptions options;
  options.blockBytes = blockBytes;
  const std::string what = MessageOf<DataError>([&] { Pass(text, s, options, way); });
  EXPECT_TRUE(what.ends_with(", line 123, column 2 (\"b\"): cell \"x1\" is not a number")) << what;
}

INSTANTIATE_TEST_SUITE_P(ThreadsBatchesReads, StatPassErrorThreaded,
                         ::testing::Combine(::testing::Values(1, 2, 8), ::testing::Values(1u, 70u),
                                            ::testing::Values(5, 64, 1 << 20)));

// A group label of every kind: whole numbers (1, 1.0 and +1 being one group),
// another number and texts; "late" first shows past the first third of the
// rows and "z" in the last quarter, so that the order of first appearance
// differs from the sorted order and is decided in later blocks.
std::string GroupCell(std::mt19937_64& random, int row, int rows) {
  static const char* const kEarly[] = {"north", "1", "2.5", "1.0", "-3", "+1", "south"};
  const int pick = static_cast<int>(random() % 100);
  if (row > rows / 3 && pick < 6) return "late";
  if (row > 3 * rows / 4 && pick < 9) return "z";
  return kEarly[pick % 7];
}

// Values where the order of the sums shows in the last bits: a column far
// from zero with a small spread, one of mixed magnitudes, one tiny; weights
// of mixed size (their squares count with analytic weights), group labels of
// every kind and missing cells.
std::string MakeText(unsigned seed, int rows) {
  std::mt19937_64 random(seed);
  std::normal_distribution<double> normal;
  std::uniform_int_distribution<int> pick(0, 99);
  std::string text = "big,mixed,tiny,w,g\n";
  char line[160];
  for (int i = 0; i < rows; ++i) {
    const double big = 3.0e9 + 1e-3 * normal(random);
    const double mixed = normal(random) * (pick(random) < 10 ? 1e8 : 1e-2);
    const double tiny = 1e-9 * normal(random) + 1e-7;
    const double weight = 0.1 * (1 + pick(random) % 37);
    std::snprintf(line, sizeof line, "%.17g,%.17g,%s,%.17g,%s\n", big, mixed,
                  pick(random) < 8 ? "" : std::to_string(tiny).c_str(), weight,
                  GroupCell(random, i, rows).c_str());
    text += line;
  }
  return text;
}

// The columns of MakeText, all analysed, with or without the weight and group.
Columns BigMixedTiny(bool weighted = true, bool grouped = true) {
  Columns s;
  s.rules.missingTexts = {""};
  s.rules.missingCode = -1e300;
  s.rules.checkGroupRange = false;
  s.layout = MakeLayout({"big", "mixed", "tiny", "w", "g"}, ',',
                        {{"big", "mixed", "tiny"}, weighted ? "w" : "", "", grouped ? "g" : ""});
  return s;
}

// How the report defines its figures for a pass run with `options`.
ReportOptions FiguresOf(const PassOptions& options) {
  ReportOptions figures;
  figures.groupCovariance = options.groupCovariance;
  figures.weightKind =
      options.weightSquares ? figures::WeightKind::kAnalytic : figures::WeightKind::kFrequency;
  return figures;
}

std::string Json(const PassResult& pass, const Columns& s, const PassOptions& options) {
  return FormatJson(Report("data.csv", s.layout, pass, {}, FiguresOf(options)));
}

// Analytic weights where there are weights; the groups in order of first
// appearance under listwise deletion and sorted under pairwise.
PassOptions Options(bool pairwise, bool weighted = true) {
  PassOptions options;
  options.pairwise = pairwise;
  options.groupCovariance = true;
  options.blockBytes = kBlock;
  options.weightSquares = weighted;
  options.groupsInFileOrder = !pairwise;
  return options;
}

class ReproducibleThreaded : public ::testing::TestWithParam<std::tuple<bool, bool>> {};

TEST_P(ReproducibleThreaded, SameBytesForAnyThreadsReadsBatchesAndInput) {
  const auto [pairwise, weightedAndGrouped] = GetParam();
  const std::string text = MakeText(7, 6000);
  const Columns s = BigMixedTiny(weightedAndGrouped, weightedAndGrouped);
  const PassOptions options = Options(pairwise, weightedAndGrouped);
  const std::string base = Json(Pass(text, s, options, {}), s, options);
  for (int threads : {1, 2, 3, 8}) {
    for (std::size_t readSize : {std::size_t{1}, 3 * kBlock + 5, std::size_t{1} << 20}) {
      for (bool pipe : {false, true}) {
        SCOPED_TRACE(std::to_string(threads) + " threads, read size " + std::to_string(readSize)
                     + (pipe ? ", pipe" : ", file"));
        EXPECT_EQ(Json(Pass(text, s, options, {threads, readSize, pipe}), s, options), base);
      }
    }
  }
  // The data is such that the order of the sums shows: another grid rounds
  // otherwise.
  PassOptions otherGrid = options;
  otherGrid.blockBytes = 3 * kBlock;
  EXPECT_NE(Json(Pass(text, s, otherGrid, {}), s, otherGrid), base);
  // A part cut on the grid, whose first blocks the threads skip as they come.
  // Read from a pipe, it stops reading at its end, as `head` does; the thread
  // that feeds the pipe is then told so by EPIPE, not killed.
  std::signal(SIGPIPE, SIG_IGN);
  PassOptions part = options;
  part.firstBlock = 13;
  part.endBlock = 21;
  const std::string partBase = Json(Pass(text, s, part, {}), s, part);
  EXPECT_NE(partBase, base);
  EXPECT_EQ(Json(Pass(text, s, part, {3, kBlock + 7, true}), s, part), partBase);
}

INSTANTIATE_TEST_SUITE_P(Deletion, ReproducibleThreaded,
                         ::testing::Combine(::testing::Bool(), ::testing::Bool()));

// Workers that pause at random before each chunk finish in a new order every
// time; the bits stay.
TEST(ReproducibleThreaded, RandomDelaysInTheWorkersChangeNoBit) {
  const std::string text = MakeText(11, 3000);
  const Columns s = BigMixedTiny();
  const PassOptions options = Options(false);
  const std::string base = Json(Pass(text, s, options, {1, kBlock}), s, options);
  std::mt19937 seeds(5);
  for (int run = 0; run < 8; ++run) {
    const auto seed = static_cast<std::uint32_t>(seeds());
    SetChunkHookForTests([seed] {
      thread_local std::mt19937 random(
          seed
          ^ static_cast<std::uint32_t>(std::hash<std::thread::id>()(std::this_thread::get_id())));
      std::this_thread::sleep_for(std::chrono::microseconds(random() % 2000));
    });
    EXPECT_EQ(Json(Pass(text, s, options, {4, kBlock}), s, options), base) << "run " << run;
  }
  SetChunkHookForTests({});
}

}  // namespace
}  // namespace vorelstat
