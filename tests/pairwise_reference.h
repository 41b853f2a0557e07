// The pairwise-deletion arithmetic written out as plain loops in the
// documented order of evaluation, and blocks of such records (a whole-table
// matrix is the block of all its columns), for bit-exact comparison with the
// library.
#pragma once

#include <vorel/databatch.h>
#include <vorel/initialextremes.h>

#include <algorithm>
#include <cstdint>
#include <type_traits>
#include <utility>
#include <vector>

#include "test_support.h"

// A namespace of its own: other test headers define a RefBlock too.
namespace vorel::testing::pairwise {

// The record of a pair of columns; that of one column is the pair of the
// column with itself (its figures are the pair's first ones, and the extremes).
struct RefRecord {
  std::uint64_t nRows = 0;
  double weightSum = 0, regWeightSum = 0, mean0 = 0, mean1 = 0, css0 = 0, css1 = 0, cscp = 0;
  double min = MinInitial, max = MaxInitial;
};

// The leading run of values equal to the first is weighed apart, so that a
// constant column gives its value untouched.
inline double RefStableMean(const std::vector<double>& x, const std::vector<double>& v,
                            double total) {
  std::size_t i = 0;
  double run = 0.0, rest = 0.0;
  for (; i < x.size() && x[i] == x[0]; ++i)
    run += v[i];
  if (i == x.size()) return x.empty() ? 0.0 : x[0];
  for (; i < x.size(); ++i)
    rest += x[i] * v[i];
  return (rest + x[0] * run) / total;
}

inline double RefShift(double m1, double w1, double m2, double w2) {
  const double s = w1 + w2;
  return s == 0.0 ? 0.0 : (w2 * (m2 - m1)) / s;
}

inline RefRecord RefInit(const double* x0, const double* x1, const double* w, const double* rw,
                         double code, int n) {
  std::vector<double> k0, k1, kw, v;  // the kept rows; v: the combined weights
  for (int i = 0; i < n; ++i) {
    if (x0[i] == code || x1[i] == code) continue;
    k0.push_back(x0[i]);
    k1.push_back(x1[i]);
    kw.push_back(w != nullptr ? w[i] : 1.0);
    v.push_back(rw != nullptr ? rw[i] * kw.back() : kw.back());
  }
  RefRecord r;
  r.nRows = k0.size();
  for (double wi : kw)
    r.weightSum += wi;
  for (double vi : v)
    r.regWeightSum += vi;
  r.mean0 = RefStableMean(k0, v, r.regWeightSum);
  r.mean1 = RefStableMean(k1, v, r.regWeightSum);
  for (std::size_t i = 0; i < k0.size(); ++i) {
    // The earliest of equal values stays; a NaN wins only from the first row.
    if (i == 0 || k0[i] < r.min) r.min = k0[i];
    if (i == 0 || k0[i] > r.max) r.max = k0[i];
    const double c0 = k0[i] - r.mean0, c1 = k1[i] - r.mean1;
    r.css0 += (v[i] * c0) * c0;
    r.css1 += (v[i] * c1) * c1;
    r.cscp += (v[i] * c0) * c1;
  }
  return r;
}

// t gathers o: the means move by the weighted shift, and the corrected sums
// gain the two between-means terms, added in the fixed order ((a + b) + c) + d.
inline void RefUpdate(RefRecord& t, const RefRecord& o) {
  if (o.nRows == 0) return;
  const double tw = t.regWeightSum, ow = o.regWeightSum;
  const double d0 = RefShift(t.mean0, tw, o.mean0, ow), m0 = t.mean0 + d0, e0 = o.mean0 - m0;
  const double d1 = RefShift(t.mean1, tw, o.mean1, ow), m1 = t.mean1 + d1, e1 = o.mean1 - m1;
  t.css0 = ((tw * d0 * d0 + o.css0) + ow * e0 * e0) + t.css0;
  t.css1 = ((tw * d1 * d1 + o.css1) + ow * e1 * e1) + t.css1;
  t.cscp = ((tw * d0 * d1 + o.cscp) + ow * e0 * e1) + t.cscp;
  t.mean0 = m0;
  t.mean1 = m1;
  t.weightSum += o.weightSum;
  t.regWeightSum = tw + ow;
  t.nRows += o.nRows;
  if (!(o.min > t.min)) t.min = o.min;  // ties and NaN go to o
  if (!(o.max < t.max)) t.max = o.max;
}

// A block: its columns as (c, c) and its pairs as (first variable, second
// variable), the totals over every row, and one record for each.
struct RefBlock {
  double code = 0;
  std::vector<std::pair<int, int>> keys = {};
  double weightSum = 0, regWeightSum = 0;
  std::uint64_t nRows = 0;
  std::vector<RefRecord> records = {};

  // Each batch is totalled on its own, then added.
  void Add(const DataBatch& b) {
    const int n = static_cast<int>(b.NRows());
    const double *w = b.Weights(), *rw = b.RegWeights();
    if (n == 0) return;
    records.resize(keys.size());
    nRows += b.NRows();
    double batchW = 0, batchRW = 0;
    for (int i = 0; i < n; ++i)
      batchW += w ? w[i] : 1.0;
    for (int i = 0; i < n && rw; ++i)
      batchRW += w ? rw[i] * w[i] : rw[i];
    weightSum += batchW;
    regWeightSum = rw ? regWeightSum + batchRW : weightSum;
    for (std::size_t i = 0; i < keys.size(); ++i)
      RefUpdate(records[i],
                RefInit(b.Column(keys[i].first), b.Column(keys[i].second), w, rw, code, n));
  }
  // An empty block takes d whole; a filled one ignores a d whose weights total 0.
  void Merge(const RefBlock& d) {
    if (d.nRows == 0 || (nRows != 0 && d.weightSum == 0.0)) return;
    if (nRows == 0) {
      *this = d;
      return;
    }
    for (std::size_t i = 0; i < records.size(); ++i)
      RefUpdate(records[i], d.records[i]);
    weightSum += d.weightSum;
    regWeightSum += d.regWeightSum;
    nRows += d.nRows;
  }
};

// The triangle of [col0, col2) (a whole table: [0, n)), the later column
// first; the rectangle [col0, col1) x [col1, col2), the first set's column first.
inline RefBlock SBlock(double code, int col0, int col2) {
  RefBlock b{code};
  for (int c = col0; c < col2; ++c)
    for (int r = col0; r <= c; ++r)
      b.keys.emplace_back(c, r);
  return b;
}
inline RefBlock NSBlock(double code, int col0, int col1, int col2) {
  RefBlock b{code};
  for (int c = col0; c < col2; ++c)
    b.keys.emplace_back(c, c);
  for (int r = col0; r < col1; ++r)
    for (int c = col1; c < col2; ++c)
      b.keys.emplace_back(r, c);
  return b;
}

// A record's fields in the order of its accessors, the row count first; the
// extremes where the record keeps them.
template <class V>
std::vector<double> VarFields(const V& v) {
  const auto n = static_cast<double>(v.NRows());
  std::vector<double> f{n, v.WeightSum(), v.RegWeightSum(), v.Mean(), v.CSS()};
  if constexpr (requires { v.Min(); }) f.insert(f.end(), {v.Min(), v.Max()});
  return f;
}
template <class P>
std::vector<double> PairFields(const P& p) {
  const auto n = static_cast<double>(p.NRows());
  return {n, p.WeightSum(), p.RegWeightSum(), p.Mean0(), p.Mean1(), p.CSS0(), p.CSS1(), p.CSCP()};
}
// The same of a plain record of fields (the reference's, or a kernel's).
template <class P>
requires requires(P p) { p.cscp; }
std::vector<double> PairFields(const P& p) {
  const auto n = static_cast<double>(p.nRows);
  return {n, p.weightSum, p.regWeightSum, p.mean0, p.mean1, p.css0, p.css1, p.cscp};
}
inline std::vector<double> VarFields(const RefRecord& r) {
  const auto n = static_cast<double>(r.nRows);
  return {n, r.weightSum, r.regWeightSum, r.mean0, r.css0, r.min, r.max};
}
// Every total and record of a pairwise matrix against the reference; a pair
// asked for in either order gives the record whose first variable is `first`.
template <class Matrix>
void ExpectSameBlock(const Matrix& m, const RefBlock& ref) {
  EXPECT_EQ(static_cast<std::uint64_t>(m.NRows()), ref.nRows);
  EXPECT_PRED2(SameBits, m.WeightSum(), ref.weightSum);
  EXPECT_PRED2(SameBits, m.RegWeightSum(), ref.regWeightSum);
  const auto nCols = std::count_if(ref.keys.begin(), ref.keys.end(),
                                   [](const auto& key) { return key.first == key.second; });
  ASSERT_EQ(static_cast<long>(m.NColumns()), ref.nRows ? nCols : 0);
  if (!(0. < ref.weightSum)) return;
  for (std::size_t i = 0; i < ref.keys.size(); ++i) {
    const auto [first, second] = ref.keys[i];
    if (first == second) {
      EXPECT_PRED2(SameFields, VarFields(m.Var(first)), VarFields(ref.records[i])) << first;
      continue;
    }
    EXPECT_PRED2(SameFields, PairFields(m.Pair(first, second)), PairFields(ref.records[i]))
        << first;
    EXPECT_PRED2(SameFields, PairFields(m.Pair(second, first)), PairFields(ref.records[i]))
        << first;
  }
}

}  // namespace vorel::testing::pairwise
