// Code of the AVX levels (AVX2 and AVX-512 share it): a packer that
// transposes four columns at a time with 256-bit shuffles, and the fused
// kernel of narrow triangles. Included only by the sources of those levels,
// which are built with the instruction sets it needs.
#pragma once

#if !defined(__AVX__)
#error "kernels/avx.h belongs to the sources built with AVX"
#endif

#include <immintrin.h>

#include <cstddef>

#include "kernels/common.h"
#include "kernels/crossproducts.h"
#include "kernels/tiles.h"

namespace vorel::internal::engine {
namespace {

// Rows r .. r+3 of Cols (4, 2 or 1) whole columns: centred in registers and
// written back as C says, transposed, and stored into the panel rows.
template <int Cols, Centring C, bool Weighted>
inline void PackBlockAvx(double* const (&x)[Cols], const __m256d (&centre)[Cols], const double* w,
                         Index r, double* p, double* q, Index ld) {
  {
    __m256d a[Cols];
#pragma GCC unroll 4
    for (int t = 0; t < Cols; ++t) {
      a[t] = _mm256_loadu_pd(x[t] + r);
      if constexpr (C != Centring::None) a[t] = _mm256_sub_pd(a[t], centre[t]);
      if constexpr (C == Centring::InPlace) _mm256_storeu_pd(x[t] + r, a[t]);
    }
    double* pr = p + r * ld;
    double* qr = q + r * ld;
    if constexpr (Cols == 4) {
      const __m256d t0 = _mm256_unpacklo_pd(a[0], a[1]);
      const __m256d t1 = _mm256_unpackhi_pd(a[0], a[1]);
      const __m256d t2 = _mm256_unpacklo_pd(a[2], a[3]);
      const __m256d t3 = _mm256_unpackhi_pd(a[2], a[3]);
      const __m256d row[4] = {
          _mm256_permute2f128_pd(t0, t2, 0x20), _mm256_permute2f128_pd(t1, t3, 0x20),
          _mm256_permute2f128_pd(t0, t2, 0x31), _mm256_permute2f128_pd(t1, t3, 0x31)};
#pragma GCC unroll 4
      for (int t = 0; t < 4; ++t) {
        _mm256_storeu_pd(pr + t * ld, row[t]);
        if constexpr (Weighted)
          _mm256_storeu_pd(qr + t * ld, _mm256_mul_pd(_mm256_set1_pd(w[r + t]), row[t]));
      }
    } else if constexpr (Cols == 2) {
      // Rows r and r+2 in t0, rows r+1 and r+3 in t1, a pair of cells each.
      const __m256d t0 = _mm256_unpacklo_pd(a[0], a[1]);
      const __m256d t1 = _mm256_unpackhi_pd(a[0], a[1]);
      _mm_storeu_pd(pr, _mm256_castpd256_pd128(t0));
      _mm_storeu_pd(pr + ld, _mm256_castpd256_pd128(t1));
      _mm_storeu_pd(pr + 2 * ld, _mm256_extractf128_pd(t0, 1));
      _mm_storeu_pd(pr + 3 * ld, _mm256_extractf128_pd(t1, 1));
      if constexpr (Weighted) {
        const __m256d wv = _mm256_loadu_pd(w + r);
        const __m256d u0 = _mm256_mul_pd(_mm256_unpacklo_pd(wv, wv), t0);
        const __m256d u1 = _mm256_mul_pd(_mm256_unpackhi_pd(wv, wv), t1);
        _mm_storeu_pd(qr, _mm256_castpd256_pd128(u0));
        _mm_storeu_pd(qr + ld, _mm256_castpd256_pd128(u1));
        _mm_storeu_pd(qr + 2 * ld, _mm256_extractf128_pd(u0, 1));
        _mm_storeu_pd(qr + 3 * ld, _mm256_extractf128_pd(u1, 1));
      }
    } else {
      const __m128d lo = _mm256_castpd256_pd128(a[0]);
      const __m128d hi = _mm256_extractf128_pd(a[0], 1);
      _mm_storel_pd(pr, lo);
      _mm_storeh_pd(pr + ld, lo);
      _mm_storel_pd(pr + 2 * ld, hi);
      _mm_storeh_pd(pr + 3 * ld, hi);
      if constexpr (Weighted) {
        const __m256d u = _mm256_mul_pd(_mm256_loadu_pd(w + r), a[0]);
        const __m128d ulo = _mm256_castpd256_pd128(u);
        const __m128d uhi = _mm256_extractf128_pd(u, 1);
        _mm_storel_pd(qr, ulo);
        _mm_storeh_pd(qr + ld, ulo);
        _mm_storel_pd(qr + 2 * ld, uhi);
        _mm_storeh_pd(qr + 3 * ld, uhi);
      }
    }
  }
}

// Whole groups of four rows of Cols columns, as PackBlockAvx. Returns the rows
// done (a multiple of four); the caller packs the rest one by one.
template <int Cols, Centring C, bool Weighted>
Index PackAvx(double* const* x, const double* centre, const double* w, Index rows, double* p,
              double* q, Index ld) {
  // Local copies, so that the loop keeps them in registers.
  double* xs[Cols];
  __m256d m[Cols];
  for (int t = 0; t < Cols; ++t) {
    xs[t] = x[t];
    m[t] = C != Centring::None ? _mm256_set1_pd(centre[t]) : _mm256_setzero_pd();
  }
  Index r = 0;
  for (; r + 4 <= rows; r += 4)
    PackBlockAvx<Cols, C, Weighted>(xs, m, w, r, p, q, ld);
  return r;
}

template <int Cols, Centring C>
Index PackAvx(double* const* x, const double* centre, const double* w, Index rows, double* p,
              double* q, Index ld) {
  if (w != nullptr) return PackAvx<Cols, C, true>(x, centre, w, rows, p, q, ld);
  return PackAvx<Cols, C, false>(x, centre, w, rows, p, q, ld);
}

template <int Cols>
Index PackAvx(Centring c, double* const* x, const double* centre, const double* w, Index rows,
              double* p, double* q, Index ld) {
  switch (c) {
    case Centring::None:
      return PackAvx<Cols, Centring::None>(x, centre, w, rows, p, q, ld);
    case Centring::InPlace:
      return PackAvx<Cols, Centring::InPlace>(x, centre, w, rows, p, q, ld);
    case Centring::PanelOnly:
      return PackAvx<Cols, Centring::PanelOnly>(x, centre, w, rows, p, q, ld);
  }
  return 0;
}

// The packer of the AVX levels: cols (4, 2 or 1) columns x[0..cols).
Index PackColumnsAvx(int cols, Centring c, double* const* x, const double* centre, const double* w,
                     Index rows, double* p, double* q, Index ld) {
  if (cols == 4) return PackAvx<4>(c, x, centre, w, rows, p, q, ld);
  if (cols == 2) return PackAvx<2>(c, x, centre, w, rows, p, q, ld);
  return PackAvx<1>(c, x, centre, w, rows, p, q, ld);
}
// Narrow triangles, up to eight columns with the column of ones: every cell
// stays in a register for the whole call, and each group of four rows is
// loaded, centred, transposed and summed in one go, so the reading of the
// data and the arithmetic overlap. Lanes 0-3 of a row vector are the columns
// 0-3 (lo), lanes 4-7 the columns 4-7 (hi); row c needs hi only when c >= 4.
// Count data columns, then the column of ones when Ones; P in all.
template <int Count, bool Ones, bool Weighted, Centring C>
void NarrowTriangleAvx(const CrossProductJob& job, double* tri) {
  constexpr int P = Count + (Ones ? 1 : 0);
  constexpr int H = P > 4 ? P - 4 : 0;  // rows with a hi vector
  const Index n = job.nRows;
  const double* w = job.weights;
  double* x[Count > 0 ? Count : 1];
  __m256d m[Count > 0 ? Count : 1];
#pragma GCC unroll 8
  for (int j = 0; j < Count; ++j) {
    x[j] = ColumnOf(job.cols, j);
    m[j] = C != Centring::None ? _mm256_set1_pd(job.centre[j]) : _mm256_setzero_pd();
  }
  __m256d accLo[P], accHi[H > 0 ? H : 1];
#pragma GCC unroll 8
  for (int c = 0; c < P; ++c)
    accLo[c] = _mm256_setzero_pd();
#pragma GCC unroll 4
  for (int c = 0; c < H; ++c)
    accHi[c] = _mm256_setzero_pd();

  // Per group of four rows: w[i] * x_c[i] of each column (four cells a
  // column), then the four row vectors, eight lanes each. The sums load
  // them back one row at a time, which keeps few vectors alive at once.
  alignas(32) double buffer[4 * P + 32];
  Index r = 0;
  for (; r + 4 <= n; r += 4) {
    // An opaque copy of the buffer's address: the cells are then addressed
    // from one register, where GCC would otherwise hoist the address of each
    // of them out of the loop and run out of registers.
    double* qb = buffer;
    __asm__("" : "+r"(qb));
    double* rows = qb + 4 * P;
    __m256d a[8];
#pragma GCC unroll 8
    for (int j = 0; j < 8; ++j) {
      if (j < Count) {
        a[j] = _mm256_loadu_pd(x[j] + r);
        if constexpr (C != Centring::None) a[j] = _mm256_sub_pd(a[j], m[j]);
        if constexpr (C == Centring::InPlace) _mm256_storeu_pd(x[j] + r, a[j]);
      } else {
        a[j] = j < P ? _mm256_set1_pd(1.0) : _mm256_setzero_pd();
      }
    }
    if constexpr (Weighted) {
      const __m256d wv = _mm256_loadu_pd(w + r);
#pragma GCC unroll 8
      for (int c = 0; c < P; ++c)
        _mm256_store_pd(qb + 4 * c, _mm256_mul_pd(wv, a[c]));
    } else {
#pragma GCC unroll 8
      for (int c = 0; c < P; ++c)
        _mm256_store_pd(qb + 4 * c, a[c]);
    }
    {
      const __m256d t0 = _mm256_unpacklo_pd(a[0], a[1]);
      const __m256d t1 = _mm256_unpackhi_pd(a[0], a[1]);
      const __m256d t2 = _mm256_unpacklo_pd(a[2], a[3]);
      const __m256d t3 = _mm256_unpackhi_pd(a[2], a[3]);
      _mm256_store_pd(rows, _mm256_permute2f128_pd(t0, t2, 0x20));
      _mm256_store_pd(rows + 8, _mm256_permute2f128_pd(t1, t3, 0x20));
      _mm256_store_pd(rows + 16, _mm256_permute2f128_pd(t0, t2, 0x31));
      _mm256_store_pd(rows + 24, _mm256_permute2f128_pd(t1, t3, 0x31));
    }
    if constexpr (H == 1) {
      // One column past the first four: a broadcast of its cell serves as
      // the hi vector (only lane 0 of row 4's hi vector is kept). Its four
      // cells go where the hi vector of row 0 would be.
      _mm256_store_pd(rows + 4, a[4]);
    } else if constexpr (H > 1) {
      const __m256d t0 = _mm256_unpacklo_pd(a[4], a[5]);
      const __m256d t1 = _mm256_unpackhi_pd(a[4], a[5]);
      const __m256d t2 = _mm256_unpacklo_pd(a[6], a[7]);
      const __m256d t3 = _mm256_unpackhi_pd(a[6], a[7]);
      _mm256_store_pd(rows + 4, _mm256_permute2f128_pd(t0, t2, 0x20));
      _mm256_store_pd(rows + 12, _mm256_permute2f128_pd(t1, t3, 0x20));
      _mm256_store_pd(rows + 20, _mm256_permute2f128_pd(t0, t2, 0x31));
      _mm256_store_pd(rows + 28, _mm256_permute2f128_pd(t1, t3, 0x31));
    }
    // Not unrolled: one row per turn keeps the broadcasts next to their use
    // (unrolled, GCC loads them all first and runs out of registers).
#pragma GCC unroll 1
    for (int t = 0; t < 4; ++t) {
      const __m256d lo = _mm256_load_pd(rows + 8 * t);
      __m256d hi = _mm256_setzero_pd();
      if constexpr (H == 1) hi = _mm256_broadcast_sd(rows + 4 + t);
      if constexpr (H > 1) hi = _mm256_load_pd(rows + 8 * t + 4);
#pragma GCC unroll 8
      for (int c = 0; c < P; ++c) {
        const __m256d s = _mm256_broadcast_sd(qb + 4 * c + t);
        accLo[c] = _mm256_add_pd(accLo[c], _mm256_mul_pd(s, lo));
        if constexpr (H > 0) {
          if (c >= 4) accHi[c - 4] = _mm256_add_pd(accHi[c - 4], _mm256_mul_pd(s, hi));
        }
      }
    }
  }
  // The last rows one at a time, in order.
  for (; r < n; ++r) {
    alignas(32) double v[8], q[8];
#pragma GCC unroll 8
    for (int j = 0; j < 8; ++j) {
      if (j < Count) {
        v[j] = x[j][r];
        if constexpr (C != Centring::None) v[j] = v[j] - job.centre[j];
        if constexpr (C == Centring::InPlace) x[j][r] = v[j];
      } else {
        v[j] = j < P ? 1.0 : 0.0;
      }
      q[j] = Weighted ? w[r] * v[j] : v[j];
    }
    const __m256d rlo = _mm256_load_pd(v);
    const __m256d rhi = _mm256_load_pd(v + 4);
#pragma GCC unroll 8
    for (int c = 0; c < P; ++c) {
      const __m256d s = _mm256_broadcast_sd(q + c);
      accLo[c] = _mm256_add_pd(accLo[c], _mm256_mul_pd(s, rlo));
      if constexpr (H > 0) {
        if (c >= 4) accHi[c - 4] = _mm256_add_pd(accHi[c - 4], _mm256_mul_pd(s, rhi));
      }
    }
  }
  // Every loop over the accumulators is unrolled, so that they stay in registers.
#pragma GCC unroll 8
  for (int c = 0; c < P; ++c)
    _mm256_storeu_pd(tri + TriangleRow(c), accLo[c]);
#pragma GCC unroll 4
  for (int c = 0; c < H; ++c)
    _mm256_storeu_pd(tri + TriangleRow(c + 4) + 4, accHi[c]);
}

template <int Count, bool Ones, bool Weighted>
void NarrowTriangleAvx(const CrossProductJob& job, double* tri) {
  switch (CentringOf(job)) {
    case Centring::None:
      NarrowTriangleAvx<Count, Ones, Weighted, Centring::None>(job, tri);
      break;
    case Centring::InPlace:
      NarrowTriangleAvx<Count, Ones, Weighted, Centring::InPlace>(job, tri);
      break;
    case Centring::PanelOnly:
      NarrowTriangleAvx<Count, Ones, Weighted, Centring::PanelOnly>(job, tri);
      break;
  }
}

template <int Count, bool Ones>
void NarrowTriangleAvx(const CrossProductJob& job, double* tri) {
  if (job.weights != nullptr)
    NarrowTriangleAvx<Count, Ones, true>(job, tri);
  else
    NarrowTriangleAvx<Count, Ones, false>(job, tri);
}

template <bool Ones>
bool NarrowTriangleAvx(const CrossProductJob& job, double* tri) {
  switch (job.cols.count) {
    case 0:
      if constexpr (Ones) {
        NarrowTriangleAvx<0, Ones>(job, tri);
        return true;
      }
      return false;
    case 1:
      NarrowTriangleAvx<1, Ones>(job, tri);
      return true;
    case 2:
      NarrowTriangleAvx<2, Ones>(job, tri);
      return true;
    case 3:
      NarrowTriangleAvx<3, Ones>(job, tri);
      return true;
    case 4:
      NarrowTriangleAvx<4, Ones>(job, tri);
      return true;
    case 5:
      NarrowTriangleAvx<5, Ones>(job, tri);
      return true;
    case 6:
      NarrowTriangleAvx<6, Ones>(job, tri);
      return true;
    case 7:
      NarrowTriangleAvx<7, Ones>(job, tri);
      return true;
    case 8:
      if constexpr (!Ones) {
        NarrowTriangleAvx<8, Ones>(job, tri);
        return true;
      }
      return false;
    default:
      return false;
  }
}

// The triangle of a job of at most eight columns (ones included) into the
// accumulator rows tri; false when the job is wider.
bool NarrowTriangleAvx(const CrossProductJob& job, double* tri) {
  return job.withOnes ? NarrowTriangleAvx<true>(job, tri) : NarrowTriangleAvx<false>(job, tri);
}
}  // namespace
}  // namespace vorel::internal::engine
