// Column kernels: the numeric loops every statistic of the library comes from.
//
// Internal to the library. Each sum starts at 0.0, keeps one running double
// and adds in strict row order (i = 0, 1, ..., n-1); the results of a pass are
// defined by that order. Loops that take four rows a turn do so only to cut
// loop overhead: the additions stay one after another into one accumulator.
// No kernel asserts, allocates or raises; NaN, infinities and zero divisors
// follow IEEE arithmetic.
#pragma once

#include <vorel/initialextremes.h>

#include <cstddef>
#include <vector>

namespace vorel::internal {

// ---- plain arrays; n is the number of rows -------------------------------

// Sum of x[i]. 0.0 for n = 0, when x may be null.
double SumValues(const double* x, int n);
// w null: n as a double. Otherwise the sum of w[i].
double SumWeights(const double* w, int n);
// Sum of a[i] * b[i].
double DotProduct(const double* a, const double* b, int n);
// Sum of (a[i] * b[i]) * c[i].
double TripleProduct(const double* a, const double* b, const double* c, int n);
// w null: DotProduct(a, b). Otherwise sum of (w[i] * a[i]) * b[i].
double WeightedDotProduct(const double* a, const double* b, const double* w, int n);
// The combined weight column: a[i] *= b[i] and returns a when both exist;
// otherwise returns whichever is not null (null if neither) and changes nothing.
double* MultiplyInPlace(double* a, double* b, int n);
// a[i] -= c.
void SubtractInPlace(double* a, double c, int n);
// Weighted mean of x under w (null: unit weights), divided by *total, which is
// the caller's weight total. A column of one repeated value yields exactly
// that value and *total is not read; n = 0 yields 0.0.
//   first = x[0]; runWeight = weights of the leading run equal to first;
//   rest  = sum over the remaining rows of w[i] * x[i];
//   mean  = (rest + first * runWeight) / *total.
double StableMean(const double* x, const double* w, const double* total, int n);
// How far a mean m1 of weight w1 moves when a mean m2 of weight w2 joins it:
// (w2 * (m2 - m1)) / (w1 + w2), or 0.0 when w1 + w2 == 0.0.
double MeanShift(double m1, double w1, double m2, double w2);
// Largest value; of equal values the earliest stays, a later NaN never wins,
// a NaN in row 0 is the result. MaxInitial for n = 0.
double MaxValue(const double* x, int n);
// Smallest value, with the same rules. MinInitial for n = 0.
double MinValue(const double* x, int n);

// ---- sums scattered by group; they add to what the tables already hold ----

// sum[g[i]] += x[i]; sumSq[g[i]] += x[i] * x[i].
void ScatterSums(const double* x, const unsigned* g, double* sum, double* sumSq, int n);
// w null: ScatterSums. Otherwise t = x[i] * w[i]; sum[g] += t; sumSq[g] += t * x[i].
void ScatterWeightedSums(const double* x, const unsigned* g, const double* w, double* sum,
                         double* sumSq, int n);
// ScatterWeightedSums for the columns x[0 .. count), column c into the tables
// at sum + c * stride and sumSq + c * stride, the same bits, faster: the
// columns go kScatterColumns at a time, side by side.
constexpr int kScatterColumns = 4;
void ScatterWeightedSumsOfColumns(const double* const* x, int count, const unsigned* g,
                                  const double* w, double* sum, double* sumSq, std::size_t stride,
                                  int n);
// sumW[g[i]] += 1.0; *total += 1.0.
void ScatterUnitWeights(const unsigned* g, std::vector<double>& sumW, double* total, int n);
// w null: ScatterUnitWeights. Otherwise sumW[g[i]] += w[i]; *total += w[i].
void ScatterWeights(const unsigned* g, const double* w, std::vector<double>& sumW, double* total,
                    int n);

// ---- vector forms, for scratch vectors; an empty vector means "none" ------

double SumValues(const std::vector<double>& x);
// Over the length of a.
double DotProduct(const std::vector<double>& a, const std::vector<double>& b);
// b not empty: DotProduct(a, b); b empty: SumValues(a).
double SumOrDot(const std::vector<double>& a, const std::vector<double>& b);
// w not empty: sum of (a[i] * w[i]) * b[i] over the length of w; else DotProduct(a, b).
double WeightedDotProduct(const std::vector<double>& a, const std::vector<double>& b,
                          const std::vector<double>& w);
// b empty: nothing. a empty: a and b swap contents. Else a[i] = b[i] * a[i].
void MultiplyInPlace(std::vector<double>& a, std::vector<double>& b);
void SubtractInPlace(std::vector<double>& a, double c);
double StableMean(const std::vector<double>& x, const std::vector<double>& w, double total);
double MaxValue(const std::vector<double>& x);
double MinValue(const std::vector<double>& x);

}  // namespace vorel::internal
