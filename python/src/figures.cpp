#include "figures.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace vorelpy {
namespace {

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

double Divided(double sum, double divisor) { return divisor > 0.0 ? sum / divisor : kNaN; }

double Correlation(double cscp, double css0, double css1) {
  if (!(css0 > 0.0) || !(css1 > 0.0)) return kNaN;
  return cscp / (std::sqrt(css0) * std::sqrt(css1));
}

bool Constant(const Figures& f, std::size_t c) {
  return f.n[c] > 0 && f.min[c] == f.max[c] && std::isfinite(f.min[c]) && !f.nan[c];
}

// The column figures from each column's own rows: n, W, mean and CSS.
void SetColumn(Figures& f, std::size_t c, std::uint64_t n, double w, double mean, double css,
               double ddof) {
  f.n[c] = n;
  f.weight[c] = w;
  const std::size_t diagonal = c * f.nColumns + c;
  if (n == 0) return;
  if (Constant(f, c)) {
    f.mean[c] = f.max[c];  // of -0 and +0, +0
    f.sd[c] = w - ddof > 0.0 ? 0.0 : kNaN;
    f.cov[diagonal] = f.sd[c];
    return;
  }
  f.mean[c] = mean;
  f.cov[diagonal] = Divided(css, w - ddof);
  f.sd[c] = std::sqrt(f.cov[diagonal]);
  f.corr[diagonal] = css > 0.0 ? 1.0 : kNaN;
}

// The pair figures of columns i != j from the rows they share; constant: one
// of the two holds one value on those rows.
void SetPair(Figures& f, std::size_t i, std::size_t j, double w, double cscp, double css0,
             double css1, bool constant, double ddof) {
  const std::size_t cell = i * f.nColumns + j;
  if (constant) {
    f.cov[cell] = w - ddof > 0.0 ? 0.0 : kNaN;
    return;
  }
  f.cov[cell] = Divided(cscp, w - ddof);
  f.corr[cell] = Correlation(cscp, css0, css1);
}

void FromListwise(const vorel::MatrixListwise& m, double ddof, Figures& f) {
  f.weightSum = m.WeightSum();
  if (!(0. < m.WeightSum())) {
    std::fill(f.weight.begin(), f.weight.end(), f.weightSum);
    return;
  }
  const double w = m.WeightSum();
  for (unsigned i = 0; i < f.nColumns; ++i)
    SetColumn(f, i, m.NRows(), w, m.Mean(i), m.CCP(i, i), ddof);
  for (unsigned i = 0; i < f.nColumns; ++i) {
    for (unsigned j = 0; j < f.nColumns; ++j) {
      if (i != j)
        SetPair(f, i, j, w, m.CCP(i, j), m.CCP(i, i), m.CCP(j, j), Constant(f, i) || Constant(f, j),
                ddof);
    }
  }
}

// Column i holds one finite value on the rows of the pair (i, j), and no NaN anywhere.
bool ConstantOnPair(const Extremes& e, std::size_t i, std::size_t j) {
  const std::size_t at = i * e.minima.size() + j;
  return e.pairMinima[at] == e.pairMaxima[at] && std::isfinite(e.pairMinima[at]) && !e.nan[i];
}

void FromPairwise(const vorel::MatrixPairwise& m, const Extremes& e, double ddof, Figures& f) {
  const std::size_t k = f.nColumns;
  f.weightSum = m.WeightSum();
  f.pairN.assign(k * k, 0);
  f.pairWeight.assign(k * k, 0.0);
  if (!(0. < m.WeightSum())) return;
  for (unsigned i = 0; i < k; ++i) {
    const vorel::VarStats var = m.Var(i);
    SetColumn(f, i, var.NRows(), var.WeightSum(), var.Mean(), var.CSS(), ddof);
    f.pairN[i * k + i] = var.NRows();
    f.pairWeight[i * k + i] = var.WeightSum();
  }
  for (unsigned i = 0; i < k; ++i) {
    for (unsigned j = 0; j < k; ++j) {
      if (i == j) continue;
      const vorel::PairStats pair = m.Pair(i, j);
      f.pairN[i * k + j] = pair.NRows();
      f.pairWeight[i * k + j] = pair.WeightSum();
      if (pair.NRows() == 0) continue;
      // The pair's column 0 is its higher-numbered column.
      const double cssI = i > j ? pair.CSS0() : pair.CSS1();
      const double cssJ = i > j ? pair.CSS1() : pair.CSS0();
      SetPair(f, i, j, pair.WeightSum(), pair.CSCP(), cssI, cssJ,
              ConstantOnPair(e, i, j) || ConstantOnPair(e, j, i), ddof);
    }
  }
}

// Group means from each group's centred matrix; the pooled matrix adds the
// groups' corrected cross-products, so no raw sums lose digits.
void FromGroups(const std::vector<GroupTally>& groups, const std::vector<std::int64_t>& order,
                double ddof, Figures& f) {
  const std::size_t k = f.nColumns;
  std::vector<double> within(k * k, 0.0);
  double weight = 0.0;
  for (const std::int64_t code : order) {
    const auto found =
        std::lower_bound(groups.begin(), groups.end(), code,
                         [](const GroupTally& g, std::int64_t c) { return g.code < c; });
    if (found == groups.end() || found->code != code) continue;
    const vorel::MatrixListwise& m = found->matrix;
    f.groupCodes.push_back(code);
    f.groupN.push_back(m.NRows());
    f.groupWeight.push_back(m.WeightSum());
    weight += m.WeightSum();
    for (unsigned i = 0; i < k; ++i)
      f.groupMeans.push_back(m.Mean(i));
    for (unsigned i = 0; i < k; ++i) {
      for (unsigned j = 0; j < k; ++j)
        within[i * k + j] += m.CCP(i, j);
    }
  }
  f.pooledDivisor = weight - ddof * static_cast<double>(f.groupCodes.size());
  f.pooledCov.resize(k * k);
  for (std::size_t cell = 0; cell < k * k; ++cell)
    f.pooledCov[cell] = Divided(within[cell], f.pooledDivisor);
}

}  // namespace

Figures MakeFigures(const Settings& settings, const Tally& tally,
                    const std::vector<std::int64_t>& groupOrder, double ddof) {
  Figures f;
  const std::size_t k = settings.nColumns;
  f.nColumns = k;
  f.counts = tally.counts;
  f.rowsUsed = tally.RowsUsed();
  f.n.assign(k, 0);
  f.weight.assign(k, 0.0);
  f.mean.assign(k, kNaN);
  f.sd.assign(k, kNaN);
  f.cov.assign(k * k, kNaN);
  f.corr.assign(k * k, kNaN);
  f.min = tally.extremes.minima;
  f.max = tally.extremes.maxima;
  f.nan = tally.extremes.nan;
  for (std::size_t c = 0; c < k; ++c) {
    // A column without cells has no extremes.
    if (std::isinf(f.min[c]) && f.min[c] > f.max[c]) f.min[c] = f.max[c] = kNaN;
  }
  if (tally.listwise) FromListwise(*tally.listwise, ddof, f);
  if (tally.pairwise) FromPairwise(*tally.pairwise, tally.extremes, ddof, f);
  if (settings.grouped) FromGroups(tally.groups, groupOrder, ddof, f);
  return f;
}

}  // namespace vorelpy
