#include "report.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <iterator>

#include "errors.h"

namespace vorelstat {
namespace {

using figures::kUndefined;

std::string JoinNames(const std::vector<std::string>& names) {
  std::string joined;
  for (const std::string& name : names)
    joined += (joined.empty() ? "" : ", ") + name;
  return joined;
}

// The library's figures are readable once the matrix holds rows of positive weight.
template <class Matrix>
bool Readable(const std::unique_ptr<Matrix>& m, std::size_t k) {
  return m && m->NColumns() == k && 0. < m->WeightSum();
}

}  // namespace

unsigned ParseSections(const std::vector<std::string>& names) {
  static const std::pair<const char*, Section> kNames[] = {{"columns", kColumnsSection},
                                                           {"covariance", kCovarianceSection},
                                                           {"correlation", kCorrelationSection},
                                                           {"pairs", kPairsSection},
                                                           {"groups", kGroupsSection},
                                                           {"pooled", kPooledSection},
                                                           {"all", kAllSections}};
  unsigned sections = 0;
  for (const std::string& name : names) {
    const auto* found = std::find_if(std::begin(kNames), std::end(kNames),
                                     [&name](const auto& entry) { return name == entry.first; });
    if (found == std::end(kNames)) {
      throw UsageError(
          "--sections takes columns, covariance, correlation, pairs, groups, pooled "
          "or all, not \""
          + name + "\"");
    }
    sections |= found->second;
  }
  if (sections == 0) throw UsageError("--sections needs at least one section");
  return sections;
}

Report::Report(std::string fileName, const RowLayout& layout, const PassResult& pass,
               const std::vector<SkippedColumn>& skippedColumns, const ReportOptions& options)
    : file(std::move(fileName)),
      pairwise(pass.pairwise != nullptr),
      groupCovariance(options.groupCovariance),
      ddof(options.ddof),
      weightKind(options.weightKind),
      sections(options.sections),
      _pass(pass) {
  if (layout.weightField) weightColumn = layout.names[*layout.weightField];
  if (layout.regWeightField) regWeightColumn = layout.names[*layout.regWeightField];
  if (layout.groupField) groupColumn = layout.names[*layout.groupField];
  for (const SkippedColumn& column : skippedColumns)
    skipped.push_back({layout.names[column.field], column.reason});

  const std::size_t k = layout.NValues();
  if (pass.listwise) weightSum = pass.listwise->WeightSum();
  if (pass.pairwise) weightSum = pass.pairwise->WeightSum();
  for (std::size_t i = 0; i < k; ++i) {
    ColumnSummary column;
    column.name = layout.names[layout.valueFields[i]];
    figures::ColumnMoments& m = column.moments;
    m.n = pass.cellCounts[i];
    m.range = pass.ranges[i];
    const auto col = static_cast<unsigned>(i);
    if (Readable(pass.listwise, k)) {
      m.weight = pass.listwise->WeightSum();
      m.mean = pass.listwise->Mean(col);
      m.css = pass.listwise->CCP(col, col);
    } else if (Readable(pass.pairwise, k)) {
      const vorel::VarStats var = pass.pairwise->Var(col);
      m.weight = var.WeightSum();
      m.mean = var.Mean();
      m.css = var.CSS();
    } else {
      m.n = 0;
    }
    m.weightSquares = WeightSquares(i, i);
    column.mean = figures::Mean(m);
    column.sd = figures::StandardDeviation(m, ddof, weightKind);
    column.min = m.n != 0 ? m.range.min : kUndefined;
    column.max = m.n != 0 ? m.range.max : kUndefined;
    columns.push_back(std::move(column));
  }
  for (const figures::GroupMoments& group : pass.groups)
    _groupWeight += group.Weight();
  AddNotes();
}

void Report::AddNotes() {
  std::vector<std::string> small, constant, infinite;
  for (const ColumnSummary& column : columns) {
    const figures::ColumnMoments& m = column.moments;
    if (m.n == 0) continue;
    if (!(figures::Divisor(m.weight, m.weightSquares, ddof, weightKind) > 0.0)) {
      small.push_back(column.name);
    }
    if (m.range.Constant()) constant.push_back(column.name);
    if (std::isinf(m.range.min) || std::isinf(m.range.max)) infinite.push_back(column.name);
  }
  if (!small.empty()) {
    notes.push_back("sd and covariance are n/a where their divisor " + DivisorFormula()
                    + " is not positive: " + JoinNames(small));
  }
  if (!constant.empty()) {
    notes.push_back(
        "constant (smallest value = largest): mean exact, sd and covariances 0, "
        "correlations n/a: "
        + JoinNames(constant));
  }
  if (!infinite.empty()) {
    notes.push_back("infinite values: sd, covariances and correlations n/a: "
                    + JoinNames(infinite));
  }
  if (groupCovariance) {
    for (std::size_t g = 0; g < NGroups(); ++g) {
      if (!(Group(g).Divisor(ddof, weightKind) > 0.0)) {
        notes.push_back("groups whose divisor " + DivisorFormula()
                        + " is not positive have no sd or covariance of their own");
        break;
      }
    }
  }
}

figures::PairMoments Report::PairOf(std::size_t i, std::size_t j) const {
  figures::PairMoments p;
  const std::size_t k = K();
  const auto a = static_cast<unsigned>(i);
  const auto b = static_cast<unsigned>(j);
  if (Readable(_pass.listwise, k)) {
    const vorel::MatrixListwise& m = *_pass.listwise;
    p.weight = m.WeightSum();
    p.cscp = m.CCP(a, b);
    p.css0 = m.CCP(a, a);
    p.css1 = m.CCP(b, b);
    p.constant0 = _pass.ranges[i].Constant();
    p.constant1 = _pass.ranges[j].Constant();
  } else if (Readable(_pass.pairwise, k)) {
    const vorel::PairStats pair = _pass.pairwise->Pair(a, b);
    p.weight = pair.WeightSum();
    p.cscp = pair.CSCP();
    p.css0 = pair.CSS0();
    p.css1 = pair.CSS1();
    p.constant0 = _pass.pairConstancy[i * k + j].Constant();
    p.constant1 = _pass.pairConstancy[j * k + i].Constant();
  }
  p.weightSquares = WeightSquares(i, j);
  return p;
}

double Report::WeightSquares(std::size_t i, std::size_t j) const {
  const std::vector<double>& v = _pass.weightSquares;
  if (v.empty()) return 0.0;
  return v.size() == 1 ? v[0] : v[figures::TriangleIndex(i, j)];
}

const char* Report::WeightKindName() const {
  return weightKind == figures::WeightKind::kAnalytic ? "analytic" : "frequency";
}

std::string Report::DivisorFormula() const {
  if (ddof == 0.0) return "W";
  const std::string times = ddof == 1.0 ? "" : RoundTrip(ddof) + " ";
  if (weightKind == figures::WeightKind::kAnalytic) return "W - " + times + "V / W";
  return "W - " + RoundTrip(ddof);
}

double Report::Covariance(std::size_t i, std::size_t j) const {
  if (i == j) return figures::Variance(columns[i].moments, ddof, weightKind);
  return figures::Covariance(PairOf(i, j), ddof, weightKind);
}

double Report::Correlation(std::size_t i, std::size_t j) const {
  if (i == j) return figures::SelfCorrelation(columns[i].moments);
  return figures::Correlation(PairOf(i, j));
}

std::uint64_t Report::PairRows(std::size_t i, std::size_t j) const {
  if (!Readable(_pass.pairwise, K())) return 0;
  const auto a = static_cast<unsigned>(i);
  const auto b = static_cast<unsigned>(j);
  return i == j ? _pass.pairwise->Var(a).NRows() : _pass.pairwise->Pair(a, b).NRows();
}

double Report::PairWeight(std::size_t i, std::size_t j) const {
  if (!Readable(_pass.pairwise, K())) return 0.0;
  const auto a = static_cast<unsigned>(i);
  const auto b = static_cast<unsigned>(j);
  return i == j ? _pass.pairwise->Var(a).WeightSum() : _pass.pairwise->Pair(a, b).WeightSum();
}

double Report::GroupSd(std::size_t g, std::size_t i) const {
  return std::sqrt(GroupCovariance(g, i, i));
}

double Report::GroupCovariance(std::size_t g, std::size_t i, std::size_t j) const {
  return Group(g).Covariance(i, j, ddof, weightKind);
}

// Frequency weights: W - ddof G, as one subtraction; analytic weights: the
// groups' divisors added in group order.
double Report::PooledDivisor() const {
  if (weightKind == figures::WeightKind::kFrequency)
    return _groupWeight - ddof * static_cast<double>(NGroups());
  double sum = 0.0;
  for (const figures::GroupMoments& group : _pass.groups)
    sum += group.Divisor(ddof, weightKind);
  return sum;
}

double Report::PooledCovariance(std::size_t i, std::size_t j) const {
  return figures::PooledCovariance(_pass.withinCscp[figures::TriangleIndex(i, j)], PooledDivisor());
}

std::string RoundTrip(double value) {
  if (std::isnan(value)) return "";
  char text[32];
  const auto [end, ec] = std::to_chars(text, text + sizeof text, value);
  return ec == std::errc() ? std::string(text, end) : std::string();
}

}  // namespace vorelstat
