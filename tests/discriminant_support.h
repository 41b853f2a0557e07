// Grouped rows and the discriminant tables written out as plain loops, for
// the tests of both discriminant matrices.
#pragma once

#include <vorel/DiscriminantMatrix.h>
#include <vorel/DscIndividualMatrix.h>
#include <vorel/databatch.h>
#include <vorel/databatchbygroup.h>

#include <algorithm>
#include <cstddef>
#include <random>
#include <vector>

#include "table_support.h"

namespace vorel::testing::discriminant {

using tables::Table;

// Random rows (see tables::RandomTable) with weights, regression weights,
// which play no part, and groups drawn from usedGroups; every seventh row of
// a table that is not dyadic weighs 0.
inline Table RandomRows(unsigned seed, int nVar, std::size_t nRows,
                        const std::vector<unsigned>& usedGroups, bool dyadic) {
  Table t =
      tables::RandomTable(seed, static_cast<unsigned>(nVar), nRows, true, true, 0.0, 0.0, dyadic);
  std::mt19937 engine(seed);
  for (std::size_t r = 0; r < nRows; ++r) {
    t.groups.push_back(usedGroups[engine() % usedGroups.size()]);
    if (!dyadic && r % 7 == 3) t.w[r] = 0.0;
  }
  return t;
}

// What each table holds, by plain loops over the rows in row order.
struct Sums {
  int nGroup = 0, nVar = 0, nRows = 0;
  // Per group, the lower triangle of the sums of (w * x_i) * x_j, variable
  // nVar standing for a column of ones; At takes the two in either order.
  std::vector<double> cells = {};
  std::vector<double> cross = {};  // over all rows, [i * nVar + j] for i > j
  double weightSum = 0.0;          // in row order
  double weightSumByGroup = 0.0;   // group after group

  double& At(int g, int row, int col) {
    const int hi = std::max(row, col), lo = std::min(row, col);
    return cells[static_cast<std::size_t>((g * (nVar + 1) + hi) * (nVar + 1) + lo)];
  }
  double At(int g, int row, int col) const { return const_cast<Sums*>(this)->At(g, row, col); }
};

inline Sums PlainSums(const Table& t, std::size_t begin, std::size_t end, int nGroup) {
  const int n = static_cast<int>(t.NColumns());
  Sums s{nGroup, n, static_cast<int>(end - begin)};
  s.cells.assign(static_cast<std::size_t>(nGroup * (n + 1) * (n + 1)), 0.0);
  s.cross.assign(static_cast<std::size_t>(n * n), 0.0);
  for (std::size_t r = begin; r < end; ++r) {
    const double w = t.w.empty() ? 1.0 : t.w[r];
    std::vector<double> x = t.rows[r];
    x.push_back(1.0);
    for (int i = 0; i <= n; ++i)
      for (int j = 0; j <= i; ++j)
        s.At(static_cast<int>(t.groups[r]), i, j) += (w * x[i]) * x[j];
    for (int i = 0; i < n; ++i)
      for (int j = 0; j < i; ++j)
        s.cross[i * n + j] += (w * x[i]) * x[j];
    s.weightSum += w;
  }
  for (unsigned g = 0; g < static_cast<unsigned>(nGroup); ++g)
    for (std::size_t r = begin; r < end; ++r)
      if (t.groups[r] == g) s.weightSumByGroup += t.w.empty() ? 1.0 : t.w[r];
  return s;
}

// Joins partial sums as both tables promise: the first is taken over, later
// ones are added cell by cell unless their weights total zero.
inline void MergeSums(Sums& into, const Sums& part) {
  if (part.nRows == 0 || (into.nRows != 0 && part.weightSum == 0.0)) return;
  if (into.nRows == 0) {
    into = part;
    return;
  }
  for (std::size_t k = 0; k < into.cells.size(); ++k)
    into.cells[k] += part.cells[k];
  for (std::size_t k = 0; k < into.cross.size(); ++k)
    into.cross[k] += part.cross[k];
  into.weightSum += part.weightSum;
  into.weightSumByGroup += part.weightSumByGroup;
  into.nRows += part.nRows;
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
// knowing `batchGroups` groups (by default the matrix's), and returns the
// plain sums of the same batches.
template <class Matrix>
Sums AddInBatches(Matrix& m, const Table& t, std::size_t begin, std::size_t end,
                  std::size_t capacity, int batchGroups = -1) {
  const auto nGroups = static_cast<unsigned>(batchGroups < 0 ? m.NGroup() : batchGroups);
  Sums sums;
  for (std::size_t start = begin; start == begin || start < end; start += capacity) {
    auto batch = BatchFor(m, t, start, std::min(end, start + capacity), nGroups);
    m += batch;
    MergeSums(sums, PlainSums(t, start, std::min(end, start + capacity), m.NGroup()));
  }
  return sums;
}

// Every figure of the totals table against the plain sums, bit for bit: the
// diagonal of TSSP totals the squares of every group in group order.
inline void ExpectSums(const DiscriminantMatrix& m, const Sums& s) {
  ASSERT_EQ(m.NGroup(), s.nGroup);
  ASSERT_EQ(m.NVar(), s.nVar);
  EXPECT_EQ(m.NRows(), s.nRows);
  const int n = s.nVar;
  std::vector<double> lib{m.WeightSum()}, ref{s.weightSum};
  for (int i = 0; i < n; ++i) {
    double diagonal = 0.0;
    for (int g = 0; g < s.nGroup; ++g) {
      lib.insert(lib.end(), {m.sumW(g), m.sumX1(g, i), m.sumX2(g, i)});
      ref.insert(ref.end(), {s.At(g, n, n), s.At(g, n, i), s.At(g, i, i)});
      diagonal += s.At(g, i, i);
    }
    for (int j = 0; j <= i; ++j) {
      lib.insert(lib.end(), {m.TSSP(i, j), m.TSSP(j, i)});
      ref.insert(ref.end(), 2, i == j ? diagonal : s.cross[i * n + j]);
    }
  }
  EXPECT_TRUE(SameFields(lib, ref));
}

// Every entry of the table by group, by variable numbers in both orders and
// by index (the triangle with diagonal, row after row), bit for bit.
inline void ExpectSums(const DiscIndividualMatrix& m, const Sums& s) {
  ASSERT_EQ(m.NGroup(), s.nGroup);
  ASSERT_EQ(m.NVar(), s.nVar);
  EXPECT_EQ(m.NRows(), s.nRows);
  std::vector<double> lib{m.WeightSum()}, ref{s.weightSumByGroup};
  for (int g = 0; g < s.nGroup; ++g)
    for (int row = 0, k = 0; row <= s.nVar; ++row)
      for (int col = 0; col <= row; ++col) {
        lib.insert(lib.end(), {m.TSSP(row, col, g), m.TSSP(col, row, g), m.TSSP(k++, g)});
        ref.insert(ref.end(), 3, s.At(g, row, col));
      }
  EXPECT_TRUE(SameFields(lib, ref));
}

}  // namespace vorel::testing::discriminant
