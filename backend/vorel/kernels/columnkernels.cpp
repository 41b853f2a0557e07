#include "kernels/columnkernels.h"

#include <utility>

namespace vorel::internal {
namespace {

int Length(const std::vector<double>& v) { return static_cast<int>(v.size()); }

// Null for an empty vector, so that "no weights" reads the same in both forms.
const double* DataOrNull(const std::vector<double>& v) { return v.empty() ? nullptr : v.data(); }

}  // namespace

double SumValues(const double* x, int n) {
  double sum = 0.0;
  int i = 0;
  for (; i + 4 <= n; i += 4) {
    sum += x[i];
    sum += x[i + 1];
    sum += x[i + 2];
    sum += x[i + 3];
  }
  for (; i < n; ++i)
    sum += x[i];
  return sum;
}

double SumWeights(const double* w, int n) {
  if (w == nullptr) return static_cast<double>(n);
  return SumValues(w, n);
}

double DotProduct(const double* a, const double* b, int n) {
  double sum = 0.0;
  for (int i = 0; i < n; ++i)
    sum += a[i] * b[i];
  return sum;
}

double TripleProduct(const double* a, const double* b, const double* c, int n) {
  double sum = 0.0;
  for (int i = 0; i < n; ++i)
    sum += (a[i] * b[i]) * c[i];
  return sum;
}

double WeightedDotProduct(const double* a, const double* b, const double* w, int n) {
  if (w == nullptr) return DotProduct(a, b, n);
  return TripleProduct(w, a, b, n);
}

double* MultiplyInPlace(double* a, double* b, int n) {
  if (a == nullptr) return b;
  if (b == nullptr) return a;
  for (int i = 0; i < n; ++i)
    a[i] = a[i] * b[i];
  return a;
}

void SubtractInPlace(double* a, double c, int n) {
  for (int i = 0; i < n; ++i)
    a[i] = a[i] - c;
}

double StableMean(const double* x, const double* w, const double* total, int n) {
  if (n == 0) return 0.0;
  const double first = x[0];
  double runWeight = 0.0;
  int i = 0;
  // The leading run of values equal to the first, four rows a turn while the
  // whole turn belongs to the run; weights still add one at a time in order.
  if (w == nullptr) {
    for (;
         i + 4 <= n && x[i] == first && x[i + 1] == first && x[i + 2] == first && x[i + 3] == first;
         i += 4) {
      runWeight += 1.0;
      runWeight += 1.0;
      runWeight += 1.0;
      runWeight += 1.0;
    }
    for (; i < n && x[i] == first; ++i)
      runWeight += 1.0;
  } else {
    for (;
         i + 4 <= n && x[i] == first && x[i + 1] == first && x[i + 2] == first && x[i + 3] == first;
         i += 4) {
      runWeight += w[i];
      runWeight += w[i + 1];
      runWeight += w[i + 2];
      runWeight += w[i + 3];
    }
    for (; i < n && x[i] == first; ++i)
      runWeight += w[i];
  }
  // A column of one repeated value is its own mean, untouched by any division.
  if (i == n) return first;
  const double rest = w == nullptr ? SumValues(x + i, n - i) : DotProduct(x + i, w + i, n - i);
  return (rest + first * runWeight) / *total;
}

double MeanShift(double m1, double w1, double m2, double w2) {
  const double s = w1 + w2;
  if (s == 0.0) return 0.0;
  return (w2 * (m2 - m1)) / s;
}

double MaxValue(const double* x, int n) {
  if (n == 0) return MaxInitial;
  double best = x[0];
  for (int i = 1; i < n; ++i)
    if (x[i] > best) best = x[i];
  return best;
}

double MinValue(const double* x, int n) {
  if (n == 0) return MinInitial;
  double best = x[0];
  for (int i = 1; i < n; ++i)
    if (x[i] < best) best = x[i];
  return best;
}

namespace {

// C columns side by side, row by row. Each cell of a table still takes its
// rows in order, so the bits are those of one column at a time; the columns'
// chains of additions are independent, so interleaving them keeps the
// additions to one group from waiting on each other. Unweighted, t is x and
// t * x is x * x.
template <int C, bool Weighted>
void ScatterColumns(const double* const* x, const unsigned* g, const double* w, double* sum,
                    double* sumSq, std::size_t stride, int n) {
  for (int i = 0; i < n; ++i) {
    const std::size_t at = g[i];
    double v[C];
#pragma GCC unroll 8
    for (int c = 0; c < C; ++c)
      v[c] = x[c][i];
#pragma GCC unroll 8
    for (int c = 0; c < C; ++c) {
      const double t = Weighted ? v[c] * w[i] : v[c];
      sum[c * stride + at] += t;
      sumSq[c * stride + at] += t * v[c];
    }
  }
}

}  // namespace

void ScatterSums(const double* x, const unsigned* g, double* sum, double* sumSq, int n) {
  ScatterColumns<1, false>(&x, g, nullptr, sum, sumSq, 0, n);
}

void ScatterWeightedSums(const double* x, const unsigned* g, const double* w, double* sum,
                         double* sumSq, int n) {
  ScatterWeightedSumsOfColumns(&x, 1, g, w, sum, sumSq, 0, n);
}

void ScatterWeightedSumsOfColumns(const double* const* x, int count, const unsigned* g,
                                  const double* w, double* sum, double* sumSq, std::size_t stride,
                                  int n) {
  // kScatterColumns columns at a time side by side, those left over one by one.
  int c = 0;
  for (; c + kScatterColumns <= count; c += kScatterColumns) {
    const std::size_t shift = static_cast<std::size_t>(c) * stride;
    if (w != nullptr)
      ScatterColumns<kScatterColumns, true>(x + c, g, w, sum + shift, sumSq + shift, stride, n);
    else
      ScatterColumns<kScatterColumns, false>(x + c, g, w, sum + shift, sumSq + shift, stride, n);
  }
  for (; c < count; ++c) {
    const std::size_t shift = static_cast<std::size_t>(c) * stride;
    if (w != nullptr)
      ScatterColumns<1, true>(x + c, g, w, sum + shift, sumSq + shift, stride, n);
    else
      ScatterColumns<1, false>(x + c, g, w, sum + shift, sumSq + shift, stride, n);
  }
}

void ScatterUnitWeights(const unsigned* g, std::vector<double>& sumW, double* total, int n) {
  int i = 0;
  for (; i + 4 <= n; i += 4) {
    for (int k = i; k < i + 4; ++k) {
      sumW[g[k]] += 1.0;
      *total += 1.0;
    }
  }
  for (; i < n; ++i) {
    sumW[g[i]] += 1.0;
    *total += 1.0;
  }
}

void ScatterWeights(const unsigned* g, const double* w, std::vector<double>& sumW, double* total,
                    int n) {
  if (w == nullptr) {
    ScatterUnitWeights(g, sumW, total, n);
    return;
  }
  int i = 0;
  for (; i + 4 <= n; i += 4) {
    for (int k = i; k < i + 4; ++k) {
      sumW[g[k]] += w[k];
      *total += w[k];
    }
  }
  for (; i < n; ++i) {
    sumW[g[i]] += w[i];
    *total += w[i];
  }
}

double SumValues(const std::vector<double>& x) { return SumValues(x.data(), Length(x)); }

double DotProduct(const std::vector<double>& a, const std::vector<double>& b) {
  return DotProduct(a.data(), b.data(), Length(a));
}

double SumOrDot(const std::vector<double>& a, const std::vector<double>& b) {
  return b.empty() ? SumValues(a) : DotProduct(a, b);
}

double WeightedDotProduct(const std::vector<double>& a, const std::vector<double>& b,
                          const std::vector<double>& w) {
  if (w.empty()) return DotProduct(a, b);
  double sum = 0.0;
  const int n = Length(w);
  for (int i = 0; i < n; ++i)
    sum += (a[i] * w[i]) * b[i];
  return sum;
}

void MultiplyInPlace(std::vector<double>& a, std::vector<double>& b) {
  if (b.empty()) return;
  if (a.empty()) {
    a.swap(b);
    return;
  }
  const int n = Length(a);
  for (int i = 0; i < n; ++i)
    a[i] = b[i] * a[i];
}

void SubtractInPlace(std::vector<double>& a, double c) { SubtractInPlace(a.data(), c, Length(a)); }

double StableMean(const std::vector<double>& x, const std::vector<double>& w, double total) {
  return StableMean(x.data(), DataOrNull(w), &total, Length(x));
}

double MaxValue(const std::vector<double>& x) { return MaxValue(x.data(), Length(x)); }

double MinValue(const std::vector<double>& x) { return MinValue(x.data(), Length(x)); }

}  // namespace vorel::internal
