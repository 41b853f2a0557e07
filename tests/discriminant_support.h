// Rows with groups and weights, and the discriminant tables written out as
// plain loops, for the tests of both discriminant matrices.
#pragma once

#include <vorel/DiscriminantMatrix.h>
#include <vorel/DscIndividualMatrix.h>
#include <vorel/databatch.h>
#include <vorel/databatchbygroup.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <memory>
#include <random>
#include <vector>

namespace vorel::testing {

// Rows of nVar cells, each with a group and a weight.
struct GroupedRows {
  explicit GroupedRows(int nVariables) : nVar(nVariables) {}

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
// integers and power-of-two weights, so that no sum of them rounds in any
// order; other rows hold values of both signs and fractional weights, some 0.
inline GroupedRows RandomRows(unsigned seed, int nVar, std::size_t nRows,
                              const std::vector<unsigned>& usedGroups, bool dyadic) {
  std::mt19937 engine(seed);
  std::uniform_int_distribution<std::size_t> pickGroup(0, usedGroups.size() - 1);
  std::uniform_int_distribution<int> smallInt(-8, 8), power(-1, 2);
  std::uniform_real_distribution<double> value(-50.0, 50.0), weight(0.0, 3.0);
  GroupedRows rows(nVar);
  for (std::size_t r = 0; r < nRows; ++r) {
    std::vector<double> row(nVar);
    for (double& cell : row)
      cell = dyadic ? smallInt(engine) : value(engine);
    const double w = dyadic ? std::ldexp(1.0, power(engine)) : r % 7 == 3 ? 0.0 : weight(engine);
    rows.Add(usedGroups[pickGroup(engine)], w, std::move(row));
  }
  return rows;
}

// What each table holds, by plain loops over the rows in row order.
struct Sums {
  int nGroup = 0;
  int nVar = 0;
  // Per group, the symmetric (nVar+1) x (nVar+1) matrix of sums of
  // (w * x_i) * x_j, whose last row and column stand for a column of ones.
  std::vector<double> cells;
  std::vector<double> cross;      // over all rows, [i * nVar + j] for i > j
  double weightSum = 0.0;         // in row order
  double weightSumByGroup = 0.0;  // group after group
  int nRows = 0;
  bool filled = false;

  double At(int g, int row, int col) const {
    return cells[(static_cast<std::size_t>(g) * (nVar + 1) + row) * (nVar + 1) + col];
  }
  double& At(int g, int row, int col) {
    return cells[(static_cast<std::size_t>(g) * (nVar + 1) + row) * (nVar + 1) + col];
  }
};

inline Sums PlainSums(const GroupedRows& rows, std::size_t begin, std::size_t end, int nGroup,
                      bool weighted) {
  const int n = rows.nVar;
  Sums t;
  t.nGroup = nGroup;
  t.nVar = n;
  t.cells.assign(nGroup * (n + 1) * (n + 1), 0.0);
  t.cross.assign(n * n, 0.0);
  for (std::size_t r = begin; r < end; ++r) {
    const double w = weighted ? rows.weights[r] : 1.0;
    const int g = static_cast<int>(rows.groups[r]);
    for (int i = 0; i < n; ++i) {
      const double x = rows.Cell(r, i);
      for (int j = 0; j <= i; ++j)
        t.At(g, i, j) += (w * x) * rows.Cell(r, j);
      for (int j = 0; j < i; ++j)
        t.cross[i * n + j] += (w * x) * rows.Cell(r, j);
      t.At(g, n, i) += x * w;
    }
    t.At(g, n, n) += w;
    t.weightSum += w;
  }
  for (int g = 0; g < nGroup; ++g) {
    for (int i = 0; i <= n; ++i)
      for (int j = 0; j < i; ++j)
        t.At(g, j, i) = t.At(g, i, j);
    for (std::size_t r = begin; r < end; ++r)
      if (rows.groups[r] == static_cast<unsigned>(g))
        t.weightSumByGroup += weighted ? rows.weights[r] : 1.0;
  }
  t.nRows = static_cast<int>(end - begin);
  t.filled = end > begin;
  return t;
}

// Joins partial sums as both tables promise: the first is taken over, later
// ones are added cell by cell unless their weights total zero.
inline void MergeSums(Sums& into, const Sums& part) {
  if (!part.filled) return;
  if (!into.filled) {
    into = part;
    return;
  }
  if (part.weightSum == 0.0) return;
  for (std::size_t k = 0; k < into.cells.size(); ++k)
    into.cells[k] += part.cells[k];
  for (std::size_t k = 0; k < into.cross.size(); ++k)
    into.cross[k] += part.cross[k];
  into.weightSum += part.weightSum;
  into.weightSumByGroup += part.weightSumByGroup;
  into.nRows += part.nRows;
}

// Rows [begin, end) totalled batch by batch, as batches of `capacity` rows.
inline Sums BatchedSums(const GroupedRows& rows, std::size_t begin, std::size_t end, int nGroup,
                        unsigned capacity, bool weighted) {
  Sums all;
  for (std::size_t start = begin; start < end; start += capacity)
    MergeSums(all, PlainSums(rows, start, std::min<std::size_t>(end, start + capacity), nGroup,
                             weighted));
  return all;
}

// The batch each table takes: plain batches with groups for the totals table,
// sorted grouped batches for the table by group.
inline std::unique_ptr<DataBatch> MakeBatch(const DiscriminantMatrix&, int nVar, unsigned capacity,
                                            const double* weight, const unsigned* group, int) {
  static const double regWeight = 3.0;  // regression weights play no part
  return std::make_unique<DataBatch>(nVar, capacity, weight, &regWeight, group);
}
inline std::unique_ptr<DataBatchByGroup> MakeBatch(const DiscIndividualMatrix&, int nVar,
                                                   unsigned capacity, const double* weight,
                                                   const unsigned* group, int nGroup) {
  static const double regWeight = 3.0;
  return std::make_unique<DataBatchByGroup>(nVar, capacity, weight, &regWeight, group, nGroup);
}
inline void AddRowTo(DataBatch& batch, const GroupedRows& rows, std::size_t r) {
  batch.AddRow(rows.Row(r));
}
inline void AddRowTo(DataBatchByGroup& batch, const GroupedRows& rows, std::size_t r) {
  std::copy(rows.Row(r), rows.Row(r) + rows.nVar, batch.Row(batch.NRows()));
  batch.AddRow();
}
inline void PrepareBatch(DataBatch&) {}
inline void PrepareBatch(DataBatchByGroup& batch) { batch.SortByGroup(); }

// Adds rows [begin, end) to m in batches of `capacity` rows, each batch
// knowing `batchGroups` groups (by default the matrix's).
template <class Matrix>
void AddInBatches(Matrix& m, const GroupedRows& rows, std::size_t begin, std::size_t end,
                  unsigned capacity, bool weighted = true, int batchGroups = -1) {
  double weight = 0.0;
  unsigned group = 0;
  auto batch = MakeBatch(m, rows.nVar, capacity, weighted ? &weight : nullptr, &group,
                         batchGroups < 0 ? m.NGroup() : batchGroups);
  for (std::size_t r = begin; r < end; ++r) {
    weight = rows.weights[r];
    group = rows.groups[r];
    AddRowTo(*batch, rows, r);
    if (batch->NRows() == capacity || r + 1 == end) {
      PrepareBatch(*batch);
      m += *batch;
      batch->Clear();
    }
  }
}

}  // namespace vorel::testing
