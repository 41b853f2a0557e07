// The figures users read, from a tally. W is the frequency weight behind a
// figure and ddof the degrees of freedom taken off it:
//   sd            sqrt(CSS / (W - ddof))
//   covariance    CSCP / (W - ddof)
//   correlation   CSCP / (sqrt(CSS_i) sqrt(CSS_j)); 1 on the diagonal
//   pooled        sum over groups of CSCP_g / (W - ddof G), G the groups with rows
// A column whose minimum equals its maximum reports that value as its mean, 0
// as its sd and covariances, and no correlation. A figure that is not defined
// (no rows, W - ddof not positive, a constant column's correlation) is NaN.
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
  std::vector<char> nan;          // the column has a NaN value
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
