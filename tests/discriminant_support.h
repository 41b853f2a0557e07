// Grouped rows and the discriminant tables written out as plain loops, for
// the tests of both discriminant matrices.
#pragma once

#include <vorel/DiscriminantMatrix.h>
#include <vorel/DscIndividualMatrix.h>
#include <vorel/databatch.h>
#include <vorel/databatchbygroup.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <random>
#include <vector>

#include "table_support.h"

namespace vorel::testing::discriminant {

using tables::Table;

// nRows rows whose groups are drawn from usedGroups, with regression weights
// (which play no part). Dyadic rows hold small integers and power-of-two
// weights, so that no sum of them rounds in any order; other rows hold values
// of both signs and fractional weights, some 0.
inline Table RandomRows(unsigned seed, int nVar, std::size_t nRows,
                        const std::vector<unsigned>& usedGroups, bool dyadic) {
  std::mt19937 engine(seed);
  std::uniform_int_distribution<std::size_t> pickGroup(0, usedGroups.size() - 1);
  std::uniform_int_distribution<int> smallInt(-8, 8), power(-1, 2);
  std::uniform_real_distribution<double> value(-50.0, 50.0), weight(0.0, 3.0);
  Table t;
  for (std::size_t r = 0; r < nRows; ++r) {
    t.rows.emplace_back(static_cast<std::size_t>(nVar));
    for (double& cell : t.rows.back())
      cell = dyadic ? smallInt(engine) : value(engine);
    t.w.push_back(dyadic ? std::ldexp(1.0, power(engine)) : r % 7 == 3 ? 0.0 : weight(engine));
    t.rw.push_back(3.0);
    t.groups.push_back(usedGroups[pickGroup(engine)]);
  }
  return t;
}

// What each table holds, by plain loops over the rows in row order.
struct Sums {
  int nGroup = 0, nVar = 0, nRows = 0;
  // Per group, the symmetric (nVar+1) x (nVar+1) matrix of sums of
  // (w * x_i) * x_j, whose last row and column stand for a column of ones.
  std::vector<double> cells;
  std::vector<double> cross;      // over all rows, [i * nVar + j] for i > j
  double weightSum = 0.0;         // in row order
  double weightSumByGroup = 0.0;  // group after group

  double& At(int g, int row, int col) {
    return cells[(static_cast<std::size_t>(g) * (nVar + 1) + row) * (nVar + 1) + col];
  }
  double At(int g, int row, int col) const { return const_cast<Sums*>(this)->At(g, row, col); }
};

inline Sums PlainSums(const Table& t, std::size_t begin, std::size_t end, int nGroup) {
  const int n = static_cast<int>(t.NColumns());
  Sums s;
  s.nGroup = nGroup;
  s.nVar = n;
  s.nRows = static_cast<int>(end - begin);
  s.cells.assign(static_cast<std::size_t>(nGroup * (n + 1) * (n + 1)), 0.0);
  s.cross.assign(static_cast<std::size_t>(n * n), 0.0);
  for (std::size_t r = begin; r < end; ++r) {
    const double w = t.w.empty() ? 1.0 : t.w[r];
    const int g = static_cast<int>(t.groups[r]);
    const std::vector<double>& x = t.rows[r];
    for (int i = 0; i < n; ++i) {
      for (int j = 0; j <= i; ++j)
        s.At(g, i, j) += (w * x[i]) * x[j];
      for (int j = 0; j < i; ++j)
        s.cross[i * n + j] += (w * x[i]) * x[j];
      s.At(g, n, i) += x[i] * w;
    }
    s.At(g, n, n) += w;
    s.weightSum += w;
  }
  for (int g = 0; g < nGroup; ++g) {
    for (int i = 0; i <= n; ++i)
      for (int j = 0; j < i; ++j)
        s.At(g, j, i) = s.At(g, i, j);
    for (std::size_t r = begin; r < end; ++r)
      if (t.groups[r] == static_cast<unsigned>(g)) s.weightSumByGroup += t.w.empty() ? 1.0 : t.w[r];
  }
  return s;
}

// Joins partial sums as both tables promise: the first is taken over, later
// ones are added cell by cell unless their weights total zero.
inline void MergeSums(Sums& into, const Sums& part) {
  if (part.nRows == 0) return;
  if (into.nRows == 0) {
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

// Rows [begin, end) totalled as batches of `capacity` rows.
inline Sums BatchedSums(const Table& t, std::size_t begin, std::size_t end, int nGroup,
                        std::size_t capacity) {
  Sums all;
  for (std::size_t start = begin; start < end; start += capacity)
    MergeSums(all, PlainSums(t, start, std::min(end, start + capacity), nGroup));
  return all;
}

// The batch each table takes: plain batches with groups for the totals table,
// sorted grouped batches (of `nGroups` groups) for the table by group.
inline DataBatch BatchFor(const DiscriminantMatrix&, const Table& t, std::size_t begin,
                          std::size_t end, unsigned) {
  return tables::MakeBatch(t, begin, end);
}
inline DataBatchByGroup BatchFor(const DiscIndividualMatrix&, const Table& t, std::size_t begin,
                                 std::size_t end, unsigned nGroups) {
  static double w, rw;
  static unsigned g;
  DataBatchByGroup batch(t.NColumns(), static_cast<unsigned>(std::max<std::size_t>(1, end - begin)),
                         t.w.empty() ? nullptr : &w, t.rw.empty() ? nullptr : &rw, &g, nGroups);
  for (std::size_t r = begin; r < end; ++r) {
    tables::SelectRow(t, r, w, rw, g);
    std::copy(t.rows[r].begin(), t.rows[r].end(), batch.Row(batch.NRows()));
    batch.AddRow();
  }
  batch.SortByGroup();
  return batch;
}

// Adds rows [begin, end) to m in batches of `capacity` rows, each batch
// knowing `batchGroups` groups (by default the matrix's).
template <class Matrix>
void AddInBatches(Matrix& m, const Table& t, std::size_t begin, std::size_t end,
                  std::size_t capacity, int batchGroups = -1) {
  const auto nGroups = static_cast<unsigned>(batchGroups < 0 ? m.NGroup() : batchGroups);
  for (std::size_t start = begin; start == begin || start < end; start += capacity) {
    auto batch = BatchFor(m, t, start, std::min(end, start + capacity), nGroups);
    m += batch;
  }
}

}  // namespace vorel::testing::discriminant
