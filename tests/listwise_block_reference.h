// A plain restatement of the listwise block statistics, for the tests of the
// S and NS block matrices: one batch reduced with written-out loops in row
// order, and the two update formulas term by term in their fixed order. It
// shares no code with the library, so a test comparing bits against it checks
// the library's order of arithmetic, not only its algebra.
#pragma once

#include <vorel/databatch.h>

#include <cmath>
#include <cstddef>
#include <random>
#include <vector>

namespace vorel::testing {

// Rows of a table held by column, with optional weights and regression weights.
struct Table {
  std::vector<std::vector<double>> columns;
  std::vector<double> weights;     // empty: none
  std::vector<double> regWeights;  // empty: none
  std::size_t Rows() const { return columns.empty() ? 0 : columns[0].size(); }
};

// A batch holding rows [first, last) of the table (the batch's capacity is
// `capacity`, at least last - first). weight and regWeight are the caller's
// current values behind the batch's pointers.
struct BatchOf {
  double weight = 0.0;
  double regWeight = 0.0;
  DataBatch batch;
  BatchOf(const Table& table, std::size_t first, std::size_t last, std::size_t capacity)
      : batch(static_cast<unsigned>(table.columns.size()), static_cast<unsigned>(capacity),
              table.weights.empty() ? nullptr : &weight,
              table.regWeights.empty() ? nullptr : &regWeight, nullptr) {
    Fill(table, first, last);
  }
  void Fill(const Table& table, std::size_t first, std::size_t last) {
    batch.Clear();
    std::vector<double> row(table.columns.size());
    for (std::size_t r = first; r < last; ++r) {
      for (std::size_t c = 0; c < row.size(); ++c) row[c] = table.columns[c][r];
      if (!table.weights.empty()) weight = table.weights[r];
      if (!table.regWeights.empty()) regWeight = table.regWeights[r];
      batch.AddRow(row.data());
    }
  }
};

// The statistics of a block as the reference keeps them: every column of the
// block, and for every ordered pair (a, b) of block positions the sum
// cross[a][b] = sum (v * x_a) * x_b of the centred columns. The S and NS
// stores each use the cells of the order they compute.
struct RefBlock {
  double weightSum = 0.0;
  double regWeightSum = 0.0;
  int nRows = 0;
  std::vector<double> means, mins, maxs;
  std::vector<std::vector<double>> cross;
};

// One batch of the table's rows [first, last), block columns [col0, col2).
inline RefBlock ReduceRows(const Table& t, std::size_t first, std::size_t last, int col0,
                           int col2) {
  RefBlock b;
  const std::size_t n = last - first;
  const bool hasW = !t.weights.empty(), hasRw = !t.regWeights.empty();
  b.nRows = static_cast<int>(n);
  std::vector<double> v(n, 1.0);
  for (std::size_t i = 0; i < n; ++i) {
    b.weightSum += hasW ? t.weights[first + i] : 1.0;
    if (hasW && hasRw) v[i] = t.weights[first + i] * t.regWeights[first + i];
    else if (hasW) v[i] = t.weights[first + i];
    else if (hasRw) v[i] = t.regWeights[first + i];
  }
  if (hasRw) {
    for (std::size_t i = 0; i < n; ++i) b.regWeightSum += v[i];
  } else {
    b.regWeightSum = b.weightSum;
  }
  const bool weighted = hasW || hasRw;
  std::vector<std::vector<double>> centred;
  for (int c = col0; c < col2; ++c) {
    const std::vector<double> x(t.columns[c].begin() + static_cast<std::ptrdiff_t>(first),
                                t.columns[c].begin() + static_cast<std::ptrdiff_t>(last));
    // The mean: the leading run of values equal to the first is totalled apart.
    std::size_t p = 0;
    double runWeight = 0.0;
    while (p < n && x[p] == x[0]) runWeight += v[p++];
    double mean = x[0];
    if (p < n) {
      double rest = 0.0;
      for (std::size_t i = p; i < n; ++i) rest += weighted ? x[i] * v[i] : x[i];
      mean = (rest + x[0] * runWeight) / b.regWeightSum;
    }
    double lo = x[0], hi = x[0];
    for (std::size_t i = 1; i < n; ++i) {
      if (x[i] < lo) lo = x[i];
      if (x[i] > hi) hi = x[i];
    }
    b.means.push_back(mean);
    b.mins.push_back(lo);
    b.maxs.push_back(hi);
    centred.push_back(x);
    for (double& cell : centred.back()) cell = cell - mean;
  }
  const std::size_t k = centred.size();
  b.cross.assign(k, std::vector<double>(k, 0.0));
  for (std::size_t a = 0; a < k; ++a)
    for (std::size_t c = 0; c < k; ++c)
      for (std::size_t i = 0; i < n; ++i)
        b.cross[a][c] += weighted ? (v[i] * centred[a][i]) * centred[c][i]
                                  : centred[a][i] * centred[c][i];
  return b;
}

inline double RefMeanShift(double m1, double w1, double m2, double w2) {
  const double s = w1 + w2;
  if (s == 0.0) return 0.0;
  return (w2 * (m2 - m1)) / s;
}

inline void MergeExtremes(RefBlock& t, const RefBlock& d) {
  for (std::size_t k = 0; k < t.means.size(); ++k) {
    if (d.maxs[k] > t.maxs[k]) t.maxs[k] = d.maxs[k];
    if (d.mins[k] < t.mins[k]) t.mins[k] = d.mins[k];
  }
}

inline void MergeCounts(RefBlock& t, const RefBlock& d, const std::vector<double>& newMeans,
                        double a, double b) {
  t.means = newMeans;
  t.weightSum += d.weightSum;
  t.regWeightSum = a + b;
  t.nRows += d.nRows;
}

// The symmetric update: lower triangle cells (i >= j), diagonal included.
inline void MergeSymmetric(RefBlock& t, const RefBlock& d) {
  if (d.weightSum == 0.0) return;
  MergeExtremes(t, d);
  const double a = t.regWeightSum, b = d.regWeightSum;
  const std::size_t n = t.means.size();
  std::vector<double> m(n);
  for (std::size_t i = 0; i < n; ++i) {
    const double s = RefMeanShift(t.means[i], a, d.means[i], b);
    m[i] = t.means[i] + s;
    const double p = s * a;
    const double q = (m[i] - d.means[i]) * b;
    for (std::size_t j = 0; j <= i; ++j) {
      const double u = (m[j] - t.means[j]) * p + d.cross[i][j];
      const double v = (m[j] - d.means[j]) * q;
      t.cross[i][j] = t.cross[i][j] + (u + v);
    }
  }
  MergeCounts(t, d, m, a, b);
}

// The non-symmetric update: sums of squares on the diagonal, and the cells of
// first-set position r with second-set position nFirst + c.
inline void MergeRectangle(RefBlock& t, const RefBlock& d, std::size_t nFirst) {
  if (d.weightSum == 0.0) return;
  MergeExtremes(t, d);
  const double a = t.regWeightSum, b = d.regWeightSum;
  const std::size_t n = t.means.size();
  std::vector<double> m(n);
  for (std::size_t k = 0; k < n; ++k) {
    const double s = RefMeanShift(t.means[k], a, d.means[k], b);
    m[k] = t.means[k] + s;
    const double e = m[k] - d.means[k];
    t.cross[k][k] = t.cross[k][k] + (((s * s) * a + d.cross[k][k]) + (e * e) * b);
  }
  for (std::size_t r = 0; r < nFirst; ++r) {
    const double p = (m[r] - t.means[r]) * a;
    const double q = (m[r] - d.means[r]) * b;
    for (std::size_t c = nFirst; c < n; ++c) {
      const double u = (m[c] - t.means[c]) * p + d.cross[r][c];
      const double v = (m[c] - d.means[c]) * q;
      t.cross[r][c] = t.cross[r][c] + (u + v);
    }
  }
  MergeCounts(t, d, m, a, b);
}

// Weight layouts a test runs over.
enum class Weighting { kNone, kWeights, kRegWeights, kBoth };

// nRows rows of nColumns columns of values far from 0 (so that centring
// matters), with the weights the layout asks for. Column 1 is constant when
// there are at least two columns. With `dyadic` every value is a small
// integer and every weight a power of two, so that no sum rounds.
inline Table RandomTable(unsigned seed, std::size_t nRows, std::size_t nColumns,
                         Weighting weighting, bool dyadic) {
  std::mt19937 random(seed);
  std::uniform_real_distribution<double> spread(-50.0, 50.0);
  std::uniform_int_distribution<int> small(-8, 8), power(-2, 2);
  Table t;
  t.columns.assign(nColumns, std::vector<double>(nRows));
  for (std::size_t c = 0; c < nColumns; ++c)
    for (double& x : t.columns[c])
      x = c == 1 ? 0.1 : dyadic ? 16.0 + small(random) : 1e3 * static_cast<double>(c + 1) + spread(random);
  auto weight = [&] {
    return dyadic ? std::ldexp(1.0, power(random)) : 0.25 + (spread(random) + 50.0) / 40.0;
  };
  if (weighting == Weighting::kWeights || weighting == Weighting::kBoth)
    for (std::size_t r = 0; r < nRows; ++r) t.weights.push_back(weight());
  if (weighting == Weighting::kRegWeights || weighting == Weighting::kBoth)
    for (std::size_t r = 0; r < nRows; ++r) t.regWeights.push_back(weight());
  return t;
}

}  // namespace vorel::testing
