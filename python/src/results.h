// The figures users read, from a tally, as the command-line tool defines them
// (tools/figures.h): sd, covariance and correlation from the corrected sums
// and the weight W behind each figure, divisor W - ddof; a column constant on
// the rows behind a figure has its value as mean, 0 as sd and covariances, and
// no correlation; group means and the pooled within-group covariance from
// centred per-group results. A figure that is not defined is NaN. A column
// with a NaN value is never constant: its figures are NaN.
#pragma once

#include <cstdint>
#include <vector>

#include "tally.h"

namespace vorelpy {

struct Figures {
  std::size_t nColumns = 0;
  RowCounts counts;
  std::uint64_t rowsUsed = 0;
  double weightSum = 0.0;  // frequency weight of the rows used
  std::vector<std::uint64_t> n;
  std::vector<double> weight, mean, sd, min, max;
  std::vector<double> cov, corr;  // row-major, nColumns x nColumns
  // Pairwise: rows and weight behind each pair, the column's own on the diagonal.
  std::vector<std::uint64_t> pairN;
  std::vector<double> pairWeight;
  // Grouped: the groups with rows, in the order asked for.
  std::vector<std::int64_t> groupCodes;
  std::vector<std::uint64_t> groupN;
  std::vector<double> groupWeight;
  std::vector<double> groupMeans;  // row-major, one row per group
  std::vector<double> pooledCov;
  double pooledDivisor = 0.0;
};

// groupOrder lists group codes in the order the groups are to be reported;
// codes without rows are passed over.
Figures MakeFigures(const Settings& settings, const Tally& tally,
                    const std::vector<std::int64_t>& groupOrder, double ddof);

}  // namespace vorelpy
