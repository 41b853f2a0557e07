// The reference the figures are checked against: weighted means and
// corrected cross-products of a set of rows, two-pass in long double.
#pragma once

#include <optional>
#include <vector>

namespace vorelstat::testing {

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
inline Moments Gather(const std::vector<Row>& rows, bool regWeight) {
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

}  // namespace vorelstat::testing
