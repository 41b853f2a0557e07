// A plain re-statement of the pairwise-deletion arithmetic, written out as
// loops in the documented order of evaluation, for bit-exact comparison with
// the library's records.
#pragma once

#include <vorel/initialextremes.h>

#include <cstdint>
#include <vector>

namespace vorel::testing {

struct RefVar {
  std::uint64_t nRows = 0;
  double weightSum = 0, regWeightSum = 0, mean = 0, css = 0;
  double min = MinInitial, max = MaxInitial;
};

struct RefPair {
  std::uint64_t nRows = 0;
  double weightSum = 0, regWeightSum = 0, mean0 = 0, mean1 = 0, css0 = 0, css1 = 0, cscp = 0;
};

// Mean whose leading run of values equal to the first is weighed apart, so a
// constant column gives its value untouched. A null-weight column has v[i] = 1.
inline double RefStableMean(const std::vector<double>& x, const std::vector<double>& v,
                            double total) {
  if (x.empty()) return 0.0;
  std::size_t i = 0;
  double run = 0.0;
  for (; i < x.size() && x[i] == x[0]; ++i)
    run += v[i];
  if (i == x.size()) return x[0];
  double rest = 0.0;
  for (; i < x.size(); ++i)
    rest += x[i] * v[i];
  return (rest + x[0] * run) / total;
}

inline double RefShift(double m1, double w1, double m2, double w2) {
  const double s = w1 + w2;
  return s == 0.0 ? 0.0 : (w2 * (m2 - m1)) / s;
}

// The kept rows of one or two columns, with unit factors where a column is absent.
struct RefKept {
  std::vector<double> x0, x1, w, combined;
};

inline RefKept RefCompress(const double* x0, const double* x1, const double* w, const double* rw,
                           double code, int n) {
  RefKept k;
  for (int i = 0; i < n; ++i) {
    if (x0[i] == code || (x1 != nullptr && x1[i] == code)) continue;
    k.x0.push_back(x0[i]);
    if (x1 != nullptr) k.x1.push_back(x1[i]);
    const double wi = w != nullptr ? w[i] : 1.0;
    k.w.push_back(wi);
    k.combined.push_back(rw != nullptr ? rw[i] * wi : wi);
  }
  return k;
}

inline RefVar RefVarInit(const double* x, const double* w, const double* rw, double code, int n) {
  RefKept k = RefCompress(x, nullptr, w, rw, code, n);
  RefVar r;
  r.nRows = k.x0.size();
  for (std::size_t i = 0; i < k.x0.size(); ++i)
    r.weightSum += k.w[i];
  for (std::size_t i = 0; i < k.x0.size(); ++i)
    r.regWeightSum += k.combined[i];
  r.mean = RefStableMean(k.x0, k.combined, r.regWeightSum);
  if (!k.x0.empty()) {
    // The earliest of equal values stays; a NaN only wins from row 0.
    r.min = r.max = k.x0[0];
    for (double value : k.x0) {
      if (value < r.min) r.min = value;
      if (value > r.max) r.max = value;
    }
  }
  for (std::size_t i = 0; i < k.x0.size(); ++i) {
    const double c = k.x0[i] - r.mean;
    r.css += (k.combined[i] * c) * c;
  }
  return r;
}

inline RefPair RefPairInit(const double* x0, const double* x1, const double* w, const double* rw,
                           double code, int n) {
  RefKept k = RefCompress(x0, x1, w, rw, code, n);
  RefPair r;
  r.nRows = k.x0.size();
  for (std::size_t i = 0; i < k.x0.size(); ++i)
    r.weightSum += k.w[i];
  for (std::size_t i = 0; i < k.x0.size(); ++i)
    r.regWeightSum += k.combined[i];
  r.mean0 = RefStableMean(k.x0, k.combined, r.regWeightSum);
  r.mean1 = RefStableMean(k.x1, k.combined, r.regWeightSum);
  for (std::size_t i = 0; i < k.x0.size(); ++i) {
    const double c0 = k.x0[i] - r.mean0, c1 = k.x1[i] - r.mean1, v = k.combined[i];
    r.css0 += (v * c0) * c0;
    r.css1 += (v * c1) * c1;
    r.cscp += (v * c0) * c1;
  }
  return r;
}

// t gathers o: means move by the weighted shift, corrected sums gain the two
// between-means terms, added in the fixed order ((a + b) + c) + d.
inline void RefVarUpdate(RefVar& t, const RefVar& o) {
  if (o.nRows == 0) return;
  const double tw = t.regWeightSum, ow = o.regWeightSum;
  const double d = RefShift(t.mean, tw, o.mean, ow);
  const double m = t.mean + d;
  const double e = o.mean - m;
  t.css = ((tw * d * d + o.css) + ow * e * e) + t.css;
  t.mean = m;
  t.weightSum += o.weightSum;
  t.regWeightSum = tw + ow;
  t.nRows += o.nRows;
  if (!(o.min > t.min)) t.min = o.min;
  if (!(o.max < t.max)) t.max = o.max;
}

inline void RefPairUpdate(RefPair& t, const RefPair& o) {
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
}

}  // namespace vorel::testing
