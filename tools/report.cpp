#include "report.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <limits>

namespace vorelstat {
namespace {

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

Matrix Square(std::size_t k) { return Matrix(k, std::vector<double>(k, kNaN)); }

// CSCP / (W - 1), or NaN when W - 1 is not positive.
double Covariance(double cscp, double weight) {
  return weight > 1.0 ? cscp / (weight - 1.0) : kNaN;
}

double Correlation(double cscp, double css0, double css1) {
  if (!(css0 > 0.0) || !(css1 > 0.0)) return kNaN;
  return cscp / (std::sqrt(css0) * std::sqrt(css1));
}

double Extreme(double value) { return std::isinf(value) ? kNaN : value; }

void FillListwise(const vorel::MatrixListwise& m, Report& report) {
  const std::size_t k = report.columns.size();
  report.weightSum = m.WeightSum();
  if (!(0. < m.WeightSum()) || m.NColumns() != k) return;
  const double w = m.WeightSum();
  for (unsigned i = 0; i < k; ++i) {
    ColumnSummary& column = report.columns[i];
    column.weight = w;
    column.mean = m.Mean(i);
    column.sd = std::sqrt(Covariance(m.CCP(i, i), w));
    for (unsigned j = 0; j < k; ++j) {
      report.covariance[i][j] = Covariance(m.CCP(i, j), w);
      report.correlation[i][j] = i == j ? (m.CCP(i, i) > 0.0 ? 1.0 : kNaN)
                                        : Correlation(m.CCP(i, j), m.CCP(i, i), m.CCP(j, j));
    }
  }
}

void FillPairwise(const vorel::MatrixPairwise& m, Report& report) {
  const std::size_t k = report.columns.size();
  report.weightSum = m.WeightSum();
  report.pairRows.assign(k, std::vector<std::uint64_t>(k, 0));
  report.pairWeights = Matrix(k, std::vector<double>(k, 0.0));
  if (!(0. < m.WeightSum()) || m.NColumns() != k) return;
  for (unsigned i = 0; i < k; ++i) {
    const vorel::VarStats var = m.Var(i);
    ColumnSummary& column = report.columns[i];
    column.weight = var.WeightSum();
    column.mean = var.NRows() != 0 ? var.Mean() : kNaN;
    column.sd = std::sqrt(Covariance(var.CSS(), var.WeightSum()));
    report.covariance[i][i] = Covariance(var.CSS(), var.WeightSum());
    report.correlation[i][i] = var.CSS() > 0.0 ? 1.0 : kNaN;
    report.pairRows[i][i] = var.NRows();
    report.pairWeights[i][i] = var.WeightSum();
    for (unsigned j = 0; j < k; ++j) {
      if (i == j) continue;
      const vorel::PairStats pair = m.Pair(i, j);
      report.covariance[i][j] = Covariance(pair.CSCP(), pair.WeightSum());
      report.correlation[i][j] = Correlation(pair.CSCP(), pair.CSS0(), pair.CSS1());
      report.pairRows[i][j] = pair.NRows();
      report.pairWeights[i][j] = pair.WeightSum();
    }
  }
}

// The sums are of values less a shift per column: the shift comes back into
// the means, and the within-group products do not depend on it.
void FillGroups(const vorel::DiscriminantMatrix& d, const std::vector<std::uint64_t>& groupRows,
                const std::vector<double>& shift, long long groupLo, Report& report) {
  const std::size_t k = report.columns.size();
  report.pooledCovariance = Square(k);
  if (d.NRows() == 0 || !(0. < d.WeightSum())) return;
  const int nVar = d.NVar();
  std::vector<int> weighted;  // groups with positive weight, which the pooled matrix uses
  for (int g = 0; g < d.NGroup(); ++g) {
    if (groupRows[static_cast<std::size_t>(g)] == 0) continue;
    GroupSummary group;
    group.code = groupLo + g;
    group.n = groupRows[static_cast<std::size_t>(g)];
    group.weight = d.sumW(g);
    group.means.assign(k, kNaN);
    if (d.sumW(g) > 0.0) {
      weighted.push_back(g);
      for (int v = 0; v < nVar; ++v) {
        const auto i = static_cast<std::size_t>(v);
        group.means[i] = d.sumX1(g, v) / d.sumW(g) + shift[i];
      }
    }
    report.groups.push_back(std::move(group));
  }
  report.pooledDf = d.WeightSum() - static_cast<double>(weighted.size());
  for (int i = 0; i < nVar; ++i) {
    for (int j = 0; j <= i; ++j) {
      double within = d.TSSP(i, j);
      for (int g : weighted)
        within -= d.sumX1(g, i) * d.sumX1(g, j) / d.sumW(g);
      const double value = report.pooledDf > 0.0 ? within / report.pooledDf : kNaN;
      report.pooledCovariance[static_cast<std::size_t>(i)][static_cast<std::size_t>(j)] = value;
      report.pooledCovariance[static_cast<std::size_t>(j)][static_cast<std::size_t>(i)] = value;
    }
  }
}

}  // namespace

Report MakeReport(const std::string& file, const RowLayout& layout, const CellRules& rules,
                  const PassResult& pass) {
  Report report;
  report.file = file;
  report.pairwise = pass.pairwise != nullptr;
  if (layout.weightField) report.weightColumn = layout.names[*layout.weightField];
  if (layout.regWeightField) report.regWeightColumn = layout.names[*layout.regWeightField];
  if (layout.groupField) report.groupColumn = layout.names[*layout.groupField];
  report.threads = pass.threads;
  report.rowsRead = pass.rowsRead;
  report.rowsUsed = pass.rowsUsed;
  report.rowsIncomplete = pass.rowsIncomplete;
  report.rowsWithoutWeight = pass.rowsWithoutWeight;
  report.rowsWithoutGroup = pass.rowsWithoutGroup;
  report.cellsCoerced = pass.cellsCoerced;

  const std::size_t k = layout.NValues();
  for (std::size_t i = 0; i < k; ++i) {
    ColumnSummary column;
    column.name = layout.names[layout.valueFields[i]];
    column.n = pass.cellCounts[i];
    column.mean = column.sd = kNaN;
    column.min = Extreme(pass.minima[i]);
    column.max = Extreme(pass.maxima[i]);
    report.columns.push_back(std::move(column));
  }
  report.covariance = Square(k);
  report.correlation = Square(k);
  if (pass.listwise) FillListwise(*pass.listwise, report);
  if (pass.pairwise) FillPairwise(*pass.pairwise, report);
  if (pass.groups) {
    report.grouped = true;
    FillGroups(*pass.groups, pass.groupRows, pass.groupShift, rules.groupLo, report);
  }
  return report;
}

std::string RoundTrip(double value) {
  if (std::isnan(value)) return "";
  char text[32];
  const auto [end, ec] = std::to_chars(text, text + sizeof text, value);
  return ec == std::errc() ? std::string(text, end) : std::string();
}

}  // namespace vorelstat
