// The figures a pass produced, in the form people and programs read them,
// and the three ways to print them: an aligned table, CSV and JSON.
//
// Definitions (W is the weighted count of the rows behind a figure; with a
// regression weight the means and sums use weight x regression weight, and W
// stays the frequency count):
//   sd            sqrt(CSS / (W - 1))
//   covariance    CSCP / (W - 1)
//   correlation   CSCP / (sqrt(CSS_i) * sqrt(CSS_j)); 1 on the diagonal
// With pairwise deletion each pair's figures come from the rows where both
// cells are present. By group: the mean of a column in a group is its
// weighted sum over the group's weight, and the pooled within-group
// covariance is (T_ij - sum over groups of S_gi * S_gj / W_g) / (W - G), with
// T the total sums of products, S_g the sums of group g, W_g its weight and G
// the number of groups with positive weight. A figure that is not defined
// (too little weight, a constant column) is NaN here, printed as "n/a" in
// the table, an empty field in CSV and null in JSON.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "rowparser.h"
#include "statpass.h"

namespace vorelstat {

using Matrix = std::vector<std::vector<double>>;

struct ColumnSummary {
  std::string name;
  std::uint64_t n = 0;
  double weight = 0.0;
  double mean = 0.0, sd = 0.0, min = 0.0, max = 0.0;
};

struct GroupSummary {
  long long code = 0;
  std::uint64_t n = 0;
  double weight = 0.0;
  std::vector<double> means;
};

struct Report {
  std::string file;
  bool pairwise = false;
  std::string weightColumn, regWeightColumn, groupColumn;
  int threads = 0;
  std::uint64_t rowsRead = 0, rowsUsed = 0, rowsIncomplete = 0, rowsWithoutWeight = 0,
                rowsWithoutGroup = 0, cellsCoerced = 0;
  double weightSum = 0.0;  // frequency weight of the rows used

  std::vector<ColumnSummary> columns;
  Matrix covariance, correlation;
  // Pairwise deletion only: rows and weight behind each pair (column's own on the diagonal).
  std::vector<std::vector<std::uint64_t>> pairRows;
  Matrix pairWeights;

  bool grouped = false;
  std::vector<GroupSummary> groups;  // groups with rows, in code order
  double pooledDf = 0.0;
  Matrix pooledCovariance;
};

Report MakeReport(const std::string& file, const RowLayout& layout, const CellRules& rules,
                  const PassResult& pass);

std::string FormatTable(const Report& report);
std::string FormatCsv(const Report& report);
std::string FormatJson(const Report& report);

// Shortest text that reads back as the same double; "" for NaN.
std::string RoundTrip(double value);

}  // namespace vorelstat
