// The column pass: means (StableMean), minima and maxima of a block of
// columns in one sweep, eight columns side by side. Written once over a
// level's Isa, like the tiles.
#pragma once

#include <vorel/initialextremes.h>

#include <cstddef>

#include "kernels/common.h"
#include "kernels/crossproducts.h"

namespace vorel::internal::engine {
namespace {

constexpr int kGroup = 8;  // columns summed side by side
// Rows of a group taken at a time: small enough that the second sweep over a
// block (the sums after the extremes) finds it in L1.
constexpr Index kPassRows = 64;

// Running extremes of one column: a vector of lane-wise extremes plus a
// scalar for the rows that do not fill a vector. Lane by lane the update is
// "x > best ? x : best" (and < for the minimum), the scalar rule, so a NaN
// gets in only through row 0, which starts every lane.
template <class Isa>
struct Extremes {
  typename Isa::Vec lo, hi;
  double slo, shi;
};

template <class Isa>
void ScanExtremes(const double* x, Index from, Index to, Extremes<Isa>& e) {
  constexpr int L = Isa::kLanes;
  Index i = from;
  for (; i + 2 * L <= to; i += 2 * L) {
    const typename Isa::Vec a = Isa::Load(x + i), b = Isa::Load(x + i + L);
    e.hi = Isa::KeepGreater(a, e.hi);
    e.lo = Isa::KeepLess(a, e.lo);
    e.hi = Isa::KeepGreater(b, e.hi);
    e.lo = Isa::KeepLess(b, e.lo);
  }
  for (; i < to; ++i) {
    if (x[i] > e.shi) e.shi = x[i];
    if (x[i] < e.slo) e.slo = x[i];
  }
}

// Of values that compare equal only +0.0 and -0.0 differ in their bits, and
// then the scalar rule keeps the first of them in row order.
double FirstZero(const double* x, Index n) {
  for (Index i = 0; i < n; ++i)
    if (x[i] == 0.0) return x[i];
  return 0.0;
}

template <class Isa>
void FinishExtremes(const double* x, Index n, const Extremes<Isa>& e, double* min, double* max) {
  double lanes[Isa::kLanes];
  double best = e.shi;
  Isa::Store(lanes, e.hi);
  for (int l = 0; l < Isa::kLanes; ++l)
    if (lanes[l] > best) best = lanes[l];
  if (best == 0.0) best = FirstZero(x, n);
  if (max != nullptr) *max = best;
  best = e.slo;
  Isa::Store(lanes, e.lo);
  for (int l = 0; l < Isa::kLanes; ++l)
    if (lanes[l] < best) best = lanes[l];
  if (best == 0.0) best = FirstZero(x, n);
  if (min != nullptr) *min = best;
}

// Sums of kGroup columns side by side, each its own running double in row
// order: s[j] += x_j[i] (times w[i] with weights).
template <bool Weighted>
void SumSideBySide(const double* const* x, const double* w, Index from, Index to, double* s) {
  double t[kGroup];
  for (int j = 0; j < kGroup; ++j)
    t[j] = s[j];
  for (Index i = from; i < to; ++i) {
    if constexpr (Weighted) {
      const double wi = w[i];
#pragma GCC unroll 8
      for (int j = 0; j < kGroup; ++j)
        t[j] += x[j][i] * wi;
    } else {
#pragma GCC unroll 8
      for (int j = 0; j < kGroup; ++j)
        t[j] += x[j][i];
    }
  }
  for (int j = 0; j < kGroup; ++j)
    s[j] = t[j];
}

template <class Isa>
void ColumnGroup(const ColumnBlock& cols, int g0, int count, const double* w, double total, Index n,
                 double* means, double* mins, double* maxs) {
  const bool extremes = mins != nullptr || maxs != nullptr;
  const double* x[kGroup];
  double first[kGroup], runWeight[kGroup], rest[kGroup];
  Index runEnd[kGroup];
  // Sum slots: the columns that are not one repeated value. Spare slots
  // repeat a real column and their sums are dropped.
  const double* slot[kGroup];
  int slotColumn[kGroup];
  int used = 0;
  Index restFrom = 0;
  for (int j = 0; j < count; ++j) {
    x[j] = ColumnOf(cols, g0 + j);
    first[j] = x[j][0];
    Index e = 0;
    while (e < n && x[j][e] == first[j])
      ++e;
    runEnd[j] = e;
    if (e == n) continue;
    double run = 0.0;
    if (w != nullptr) {
      for (Index i = 0; i < e; ++i)
        run += w[i];
    } else {
      run = static_cast<double>(e);  // e additions of 1.0 are exact
    }
    runWeight[j] = run;
    slot[used] = x[j];
    slotColumn[used++] = j;
    if (e > restFrom) restFrom = e;
  }
  for (int s = used; s < kGroup; ++s)
    slot[s] = used > 0 ? slot[0] : x[0];

  // Rows between a column's run and the common start come first, one by one.
  for (int s = 0; s < kGroup; ++s) {
    double sum = 0.0;
    if (s < used) {
      const double* xs = slot[s];
      for (Index i = runEnd[slotColumn[s]]; i < restFrom; ++i)
        sum += w != nullptr ? xs[i] * w[i] : xs[i];
    }
    rest[s] = sum;
  }

  Extremes<Isa> ext[kGroup];
  if (extremes) {
    for (int j = 0; j < count; ++j) {
      ext[j].lo = ext[j].hi = Isa::Broadcast(x[j]);
      ext[j].slo = ext[j].shi = first[j];
    }
  }
  for (Index i0 = 0; i0 < n; i0 += kPassRows) {
    const Index i1 = Smaller(n, i0 + kPassRows);
    if (extremes) {
      for (int j = 0; j < count; ++j)
        ScanExtremes<Isa>(x[j], i0, i1, ext[j]);
    }
    const Index from = i0 > restFrom ? i0 : restFrom;
    if (used > 0 && from < i1) {
      if (w != nullptr)
        SumSideBySide<true>(slot, w, from, i1, rest);
      else
        SumSideBySide<false>(slot, w, from, i1, rest);
    }
  }

  for (int j = 0; j < count; ++j)
    means[g0 + j] = first[j];  // a column of one repeated value is its own mean
  for (int s = 0; s < used; ++s) {
    const int j = slotColumn[s];
    means[g0 + j] = (rest[s] + first[j] * runWeight[j]) / total;
  }
  if (extremes) {
    for (int j = 0; j < count; ++j)
      FinishExtremes<Isa>(x[j], n, ext[j], mins != nullptr ? mins + g0 + j : nullptr,
                          maxs != nullptr ? maxs + g0 + j : nullptr);
  }
}

template <class Isa>
void RunColumnPass(const ColumnBlock& cols, const double* w, double total, int n, double* means,
                   double* mins, double* maxs) {
  if (n <= 0) {
    for (int j = 0; j < cols.count; ++j) {
      means[j] = 0.0;
      if (mins != nullptr) mins[j] = MinInitial;
      if (maxs != nullptr) maxs[j] = MaxInitial;
    }
    return;
  }
  for (int g0 = 0; g0 < cols.count; g0 += kGroup) {
    const int count = cols.count - g0 < kGroup ? cols.count - g0 : kGroup;
    ColumnGroup<Isa>(cols, g0, count, w, total, n, means, mins, maxs);
  }
}

}  // namespace
}  // namespace vorel::internal::engine
