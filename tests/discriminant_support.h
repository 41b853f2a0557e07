// Rows with groups and weights for the tests of the discriminant tables.
#pragma once

#include <cstddef>
#include <random>
#include <vector>

namespace vorel::testing {

// Rows of nVar cells, each with a group and a weight, kept row by row.
struct GroupedRows {
  int nVar = 0;
  std::vector<unsigned> groups;
  std::vector<double> weights;
  std::vector<double> cells;  // row r starts at r * nVar

  std::size_t size() const { return groups.size(); }
  const double* Row(std::size_t r) const { return cells.data() + r * nVar; }
  double Cell(std::size_t r, int var) const { return cells[r * nVar + var]; }
  void Add(unsigned group, double weight, std::vector<double> row) {
    groups.push_back(group);
    weights.push_back(weight);
    cells.insert(cells.end(), row.begin(), row.end());
  }
};

// nRows rows whose groups are drawn from usedGroups. Dyadic rows hold small
// integers and power-of-two weights, so that no sum of them rounds, in any
// order; other rows hold values of both signs with fractional weights, some 0.
inline GroupedRows RandomRows(unsigned seed, int nVar, std::size_t nRows,
                              const std::vector<unsigned>& usedGroups, bool dyadic) {
  std::mt19937 engine(seed);
  std::uniform_int_distribution<std::size_t> pickGroup(0, usedGroups.size() - 1);
  std::uniform_int_distribution<int> smallInt(-8, 8);
  std::uniform_int_distribution<int> powerOfTwo(-1, 2);
  std::uniform_real_distribution<double> value(-50.0, 50.0);
  std::uniform_real_distribution<double> weight(0.0, 3.0);
  GroupedRows rows;
  rows.nVar = nVar;
  for (std::size_t r = 0; r < nRows; ++r) {
    std::vector<double> row(nVar);
    for (double& cell : row) cell = dyadic ? smallInt(engine) : value(engine);
    double w = 0.0;
    if (dyadic) {
      const int power = powerOfTwo(engine);
      w = power < 0 ? 0.5 : static_cast<double>(1 << power);
    } else {
      w = r % 7 == 3 ? 0.0 : weight(engine);
    }
    rows.Add(usedGroups[pickGroup(engine)], w, std::move(row));
  }
  return rows;
}

}  // namespace vorel::testing
