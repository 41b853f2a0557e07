#include "results.h"

#include <algorithm>
#include <cmath>

#include "figures.h"

namespace vorelpy {
namespace {

namespace figures = vorelstat::figures;

// Cells of one column as the tool's definitions take them; a column with a
// NaN value gets an empty range, which is never constant.
figures::Range RangeOf(double min, double max, bool nan) {
  return nan ? figures::Range{} : figures::Range{min, max};
}

figures::ColumnMoments ColumnOf(const Extremes& e, std::size_t c, std::uint64_t n, double weight,
                                double mean, double css) {
  return figures::ColumnMoments{n, weight, mean, css, RangeOf(e.minima[c], e.maxima[c], e.nan[c])};
}

void SetColumn(Figures& f, std::size_t c, const figures::ColumnMoments& m, double ddof) {
  f.n[c] = m.n;
  f.weight[c] = m.weight;
  f.mean[c] = figures::Mean(m);
  f.sd[c] = figures::StandardDeviation(m, ddof);
  f.cov[c * f.nColumns + c] = figures::Variance(m, ddof);
  f.corr[c * f.nColumns + c] = figures::SelfCorrelation(m);
}

void SetPair(Figures& f, std::size_t i, std::size_t j, const figures::PairMoments& p, double ddof) {
  f.cov[i * f.nColumns + j] = figures::Covariance(p, ddof);
  f.corr[i * f.nColumns + j] = figures::Correlation(p);
}

void FromListwise(const vorel::MatrixListwise& m, const Extremes& e, double ddof, Figures& f) {
  const std::size_t k = f.nColumns;
  f.weightSum = m.WeightSum();
  if (!(0. < m.WeightSum())) return;
  std::vector<figures::ColumnMoments> columns;
  for (unsigned i = 0; i < k; ++i) {
    columns.push_back(ColumnOf(e, i, m.NRows(), m.WeightSum(), m.Mean(i), m.CCP(i, i)));
    SetColumn(f, i, columns.back(), ddof);
  }
  for (unsigned i = 0; i < k; ++i) {
    for (unsigned j = 0; j < k; ++j) {
      if (i == j) continue;
      SetPair(f, i, j,
              figures::PairMoments{m.WeightSum(), m.CCP(i, j), m.CCP(i, i), m.CCP(j, j),
                                   columns[i].range.Constant(), columns[j].range.Constant()},
              ddof);
    }
  }
}

// Column i on the rows of the pair (i, j).
bool ConstantOnPair(const Extremes& e, std::size_t i, std::size_t j) {
  return e.pairs[i * e.minima.size() + j].Constant();
}

void FromPairwise(const vorel::MatrixPairwise& m, const Extremes& e, double ddof, Figures& f) {
  const std::size_t k = f.nColumns;
  f.weightSum = m.WeightSum();
  f.pairN.assign(k * k, 0);
  f.pairWeight.assign(k * k, 0.0);
  if (!(0. < m.WeightSum())) return;
  for (unsigned i = 0; i < k; ++i) {
    const vorel::VarStats var = m.Var(i);
    SetColumn(f, i, ColumnOf(e, i, var.NRows(), var.WeightSum(), var.Mean(), var.CSS()), ddof);
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
      SetPair(f, i, j,
              figures::PairMoments{pair.WeightSum(), pair.CSCP(), i > j ? pair.CSS0() : pair.CSS1(),
                                   i > j ? pair.CSS1() : pair.CSS0(), ConstantOnPair(e, i, j),
                                   ConstantOnPair(e, j, i)},
              ddof);
    }
  }
}

void FromGroups(const Tally& tally, const std::vector<std::int64_t>& order, double ddof,
                Figures& f) {
  const std::size_t k = f.nColumns;
  double weight = 0.0;
  for (const std::int64_t code : order) {
    const auto found =
        std::lower_bound(tally.groups.begin(), tally.groups.end(), code,
                         [](const GroupTally& g, std::int64_t c) { return g.code < c; });
    if (found == tally.groups.end() || found->code != code) continue;
    const figures::GroupMoments& g = found->moments;
    f.groupCodes.push_back(code);
    f.groupN.push_back(g.Rows());
    f.groupWeight.push_back(g.Weight());
    weight += g.Weight();
    for (std::size_t i = 0; i < k; ++i)
      f.groupMeans.push_back(g.Mean(i));
  }
  const std::size_t nGroups = f.groupCodes.size();
  f.pooledDivisor = weight - ddof * static_cast<double>(nGroups);
  f.pooledCov.resize(k * k);
  for (std::size_t i = 0; i < k; ++i) {
    for (std::size_t j = 0; j < k; ++j) {
      f.pooledCov[i * k + j] = figures::PooledCovariance(tally.within[figures::TriangleIndex(i, j)],
                                                         weight, nGroups, ddof);
    }
  }
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
  f.mean.assign(k, figures::kUndefined);
  f.sd.assign(k, figures::kUndefined);
  f.cov.assign(k * k, figures::kUndefined);
  f.corr.assign(k * k, figures::kUndefined);
  f.min = tally.extremes.minima;
  f.max = tally.extremes.maxima;
  for (std::size_t c = 0; c < k; ++c) {
    // A column without cells has no extremes.
    if (figures::Range{f.min[c], f.max[c]}.Empty()) f.min[c] = f.max[c] = figures::kUndefined;
  }
  if (tally.listwise) FromListwise(*tally.listwise, tally.extremes, ddof, f);
  if (tally.pairwise) FromPairwise(*tally.pairwise, tally.extremes, ddof, f);
  if (settings.grouped) FromGroups(tally, groupOrder, ddof, f);
  return f;
}

}  // namespace vorelpy
