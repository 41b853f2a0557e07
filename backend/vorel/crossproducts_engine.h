// The blocked kernels, written once over a vector type. Each level's source
// includes this file, built with its own instruction set, and instantiates it
// with its own Isa type (see crossproducts_plain.cpp for the interface an Isa
// gives). Everything here has internal linkage: an unnamed namespace, and
// templates over an Isa of internal linkage, so no level's code can stand in
// for another's at link time. For the same reason nothing here calls an
// inline function of external linkage (standard library helpers included).
//
// Layout of one call. The rows go in chunks. Each chunk is copied into a
// panel P, one row of the chunk after the other (P[r * ld + lane]), with the
// weighted values w[i] * x[i] in a second panel Q of the same shape (Q is P
// without weights). A tile of R row-columns c against V vectors of
// column-lanes k is then summed down the chunk: per row, V loads of x_k, one
// broadcast of w * x_c per c, and R * V separate multiplications and
// additions into R * V accumulators, each lane its own cell. The
// accumulators go back to the scratch between chunks, unchanged in value.
#pragma once

#include "crossproducts_levels.h"

#include <vorel/initialextremes.h>

#include <cstddef>

#if defined(__AVX__)
#include <immintrin.h>
#endif

namespace vorel::kernels {
namespace {

using Index = std::ptrdiff_t;

constexpr Index AlignUp(Index v, Index a) { return (v + a - 1) / a * a; }
constexpr Index Smaller(Index a, Index b) { return a < b ? a : b; }

// Widest tile in lanes any level uses; the triangle's accumulator rows leave
// this much room past the diagonal.
constexpr Index kMaxTileLanes = 16;
// Bytes of panel per chunk: with the tiles' accumulators this stays in L2.
constexpr Index kPanelBytes = 384 * 1024;
constexpr Index kMaxChunkRows = 2048;

// ---------------------------------------------------------------- layout

// Where one call keeps its figures in the scratch buffer (all in doubles).
struct Layout {
  int all = 0;       // columns, the column of ones included
  int split = 0;     // rows of the rectangle; 0 without one
  Index gap = 0;     // empty lanes that start the rectangle's columns on a line
  Index ld = 0;      // row stride of the panels
  Index chunk = 0;   // rows per chunk
  bool weighted = false;
  Index rectLd = 0;  // row stride of the rectangle's accumulators
  Index p = 0, q = 0, tri = 0, rect = 0, diag = 0, total = 0;  // offsets and size
};

// Accumulator row c of the triangle: lanes 0 .. c + 15, so that a tile of up
// to 16 lanes that holds the diagonal cell fits in it.
constexpr Index TriangleRow(Index c) { return c * (c + 1) / 2 + (kMaxTileLanes - 1) * c; }

// The panel lane of column j.
inline Index LaneOf(const Layout& lay, Index j) { return j < lay.split ? j : j + lay.gap; }

Layout MakeLayout(const CrossProductJob& job) {
  Layout lay;
  lay.all = job.cols.count + (job.withOnes ? 1 : 0);
  lay.split = job.rectangle != nullptr ? job.split : 0;
  lay.gap = AlignUp(lay.split, 8) - lay.split;
  lay.ld = AlignUp(lay.all + lay.gap, kMaxTileLanes);
  if (lay.ld % 64 == 0) lay.ld += kMaxTileLanes;  // rows a power of two apart share cache sets
  lay.weighted = job.weights != nullptr;
  const Index rowBytes = lay.ld * static_cast<Index>(sizeof(double)) * (lay.weighted ? 2 : 1);
  Index chunk = kPanelBytes / rowBytes / 4 * 4;
  if (chunk < 8) chunk = 8;
  if (chunk > kMaxChunkRows) chunk = kMaxChunkRows;
  lay.chunk = Smaller(chunk, AlignUp(job.nRows, 4));
  lay.rectLd = AlignUp(lay.all - lay.split, kMaxTileLanes);

  Index at = 0;
  lay.p = at;
  at += lay.chunk * lay.ld;
  lay.q = at;
  if (lay.weighted) at += lay.chunk * lay.ld;
  lay.tri = at;
  if (job.triangle != nullptr) at += TriangleRow(lay.all);
  lay.rect = at;
  if (job.rectangle != nullptr) at += lay.split * lay.rectLd;
  lay.diag = at;
  if (job.diagonal != nullptr) at += lay.ld;
  lay.total = at;
  return lay;
}

// ---------------------------------------------------------------- packing

// One column of a chunk into its lane of the panels. With Centre the column is
// centred in place first (the cell is written back); the weighted value is
// formed from the value that enters the panel.
template <bool Centre, bool Weighted>
void PackColumn(double* x, double centre, const double* w, Index rows, double* p, double* q,
                Index ld) {
  for (Index r = 0; r < rows; ++r) {
    double v = x[r];
    if constexpr (Centre) {
      v = v - centre;
      x[r] = v;
    }
    p[r * ld] = v;
    if constexpr (Weighted) q[r * ld] = w[r] * v;
  }
}

void PackOnes(const double* w, Index rows, double* p, double* q, Index ld) {
  for (Index r = 0; r < rows; ++r) {
    p[r * ld] = 1.0;
    if (w != nullptr) q[r * ld] = w[r] * 1.0;
  }
}

template <class Isa>
void PackChunk(const CrossProductJob& job, const Layout& lay, Index i0, Index rows, double* p,
               double* q) {
  const int count = job.cols.count;
  const double* w = job.weights != nullptr ? job.weights + i0 : nullptr;
  const double* centre = job.centre;
  int j = 0;
  if constexpr (Isa::kPacksFour) {
    // Four columns at a time, four rows at a time, transposed in registers;
    // never across the rectangle's gap, where the lanes are not adjacent.
    while (j + 4 <= count) {
      if (j < lay.split && j + 4 > lay.split) break;
      double* x = job.cols.base + job.cols.stride * j + i0;
      const Index lane = LaneOf(lay, j);
      const Index done = Isa::PackFour(x, job.cols.stride, centre != nullptr ? centre + j : nullptr,
                                       w, rows, p + lane, q + lane, lay.ld);
      for (int t = 0; t < 4; ++t) {
        double* xt = x + job.cols.stride * t + done;
        double* pt = p + lane + t + done * lay.ld;
        double* qt = q + lane + t + done * lay.ld;
        const double* wt = w != nullptr ? w + done : nullptr;
        const Index left = rows - done;
        if (centre != nullptr) {
          if (w != nullptr) PackColumn<true, true>(xt, centre[j + t], wt, left, pt, qt, lay.ld);
          else PackColumn<true, false>(xt, centre[j + t], wt, left, pt, qt, lay.ld);
        } else {
          if (w != nullptr) PackColumn<false, true>(xt, 0.0, wt, left, pt, qt, lay.ld);
          else PackColumn<false, false>(xt, 0.0, wt, left, pt, qt, lay.ld);
        }
      }
      j += 4;
    }
  }
  for (; j < count; ++j) {
    double* x = job.cols.base + job.cols.stride * j + i0;
    const Index lane = LaneOf(lay, j);
    if (centre != nullptr) {
      if (w != nullptr) PackColumn<true, true>(x, centre[j], w, rows, p + lane, q + lane, lay.ld);
      else PackColumn<true, false>(x, centre[j], w, rows, p + lane, q + lane, lay.ld);
    } else {
      if (w != nullptr) PackColumn<false, true>(x, 0.0, w, rows, p + lane, q + lane, lay.ld);
      else PackColumn<false, false>(x, 0.0, w, rows, p + lane, q + lane, lay.ld);
    }
  }
  if (job.withOnes) {
    const Index lane = LaneOf(lay, count);
    PackOnes(w, rows, p + lane, q + lane, lay.ld);
  }
}

#if defined(__AVX__)
// Four whole columns, four rows at a time: centred in registers and written
// back, transposed, and stored as four panel rows. Returns the rows done (a
// multiple of four); the caller packs the rest one by one.
template <bool Centre, bool Weighted>
Index PackFourAvx(double* x, Index stride, const double* centre, const double* w, Index rows,
                  double* p, double* q, Index ld) {
  double* x0 = x;
  double* x1 = x + stride;
  double* x2 = x + 2 * stride;
  double* x3 = x + 3 * stride;
  __m256d m0 = _mm256_setzero_pd(), m1 = m0, m2 = m0, m3 = m0;
  if constexpr (Centre) {
    m0 = _mm256_set1_pd(centre[0]);
    m1 = _mm256_set1_pd(centre[1]);
    m2 = _mm256_set1_pd(centre[2]);
    m3 = _mm256_set1_pd(centre[3]);
  }
  Index r = 0;
  for (; r + 4 <= rows; r += 4) {
    __m256d a0 = _mm256_loadu_pd(x0 + r);
    __m256d a1 = _mm256_loadu_pd(x1 + r);
    __m256d a2 = _mm256_loadu_pd(x2 + r);
    __m256d a3 = _mm256_loadu_pd(x3 + r);
    if constexpr (Centre) {
      a0 = _mm256_sub_pd(a0, m0);
      a1 = _mm256_sub_pd(a1, m1);
      a2 = _mm256_sub_pd(a2, m2);
      a3 = _mm256_sub_pd(a3, m3);
      _mm256_storeu_pd(x0 + r, a0);
      _mm256_storeu_pd(x1 + r, a1);
      _mm256_storeu_pd(x2 + r, a2);
      _mm256_storeu_pd(x3 + r, a3);
    }
    const __m256d t0 = _mm256_unpacklo_pd(a0, a1);
    const __m256d t1 = _mm256_unpackhi_pd(a0, a1);
    const __m256d t2 = _mm256_unpacklo_pd(a2, a3);
    const __m256d t3 = _mm256_unpackhi_pd(a2, a3);
    const __m256d row0 = _mm256_permute2f128_pd(t0, t2, 0x20);
    const __m256d row1 = _mm256_permute2f128_pd(t1, t3, 0x20);
    const __m256d row2 = _mm256_permute2f128_pd(t0, t2, 0x31);
    const __m256d row3 = _mm256_permute2f128_pd(t1, t3, 0x31);
    double* pr = p + r * ld;
    _mm256_storeu_pd(pr, row0);
    _mm256_storeu_pd(pr + ld, row1);
    _mm256_storeu_pd(pr + 2 * ld, row2);
    _mm256_storeu_pd(pr + 3 * ld, row3);
    if constexpr (Weighted) {
      double* qr = q + r * ld;
      _mm256_storeu_pd(qr, _mm256_mul_pd(_mm256_set1_pd(w[r]), row0));
      _mm256_storeu_pd(qr + ld, _mm256_mul_pd(_mm256_set1_pd(w[r + 1]), row1));
      _mm256_storeu_pd(qr + 2 * ld, _mm256_mul_pd(_mm256_set1_pd(w[r + 2]), row2));
      _mm256_storeu_pd(qr + 3 * ld, _mm256_mul_pd(_mm256_set1_pd(w[r + 3]), row3));
    }
  }
  return r;
}

Index PackFourAvx(double* x, Index stride, const double* centre, const double* w, Index rows,
                  double* p, double* q, Index ld) {
  if (centre != nullptr) {
    if (w != nullptr) return PackFourAvx<true, true>(x, stride, centre, w, rows, p, q, ld);
    return PackFourAvx<true, false>(x, stride, centre, w, rows, p, q, ld);
  }
  if (w != nullptr) return PackFourAvx<false, true>(x, stride, centre, w, rows, p, q, ld);
  return PackFourAvx<false, false>(x, stride, centre, w, rows, p, q, ld);
}
#endif

// ---------------------------------------------------------------- tiles

using TileFn = void (*)(const double* q, const double* p, Index ld, Index rows,
                        double* const* acc);

// R row-columns (lanes q[0..R) of Q) against V vectors of column-lanes (lanes
// p[0..V*L) of P), over rows rows; acc[j] holds the V*L accumulators of row j.
template <class Isa, int R, int V>
void Tile(const double* q, const double* p, Index ld, Index rows, double* const* acc) {
  using Vec = typename Isa::Vec;
  constexpr int L = Isa::kLanes;
  Vec a[R][V];
#pragma GCC unroll 16
  for (int j = 0; j < R; ++j)
#pragma GCC unroll 4
    for (int v = 0; v < V; ++v)
      a[j][v] = Isa::Load(acc[j] + v * L);
  for (Index r = 0; r < rows; ++r) {
    Vec b[V];
#pragma GCC unroll 4
    for (int v = 0; v < V; ++v)
      b[v] = Isa::Load(p + v * L);
#pragma GCC unroll 16
    for (int j = 0; j < R; ++j) {
      const Vec s = Isa::Broadcast(q + j);
#pragma GCC unroll 4
      for (int v = 0; v < V; ++v)
        a[j][v] = Isa::Add(a[j][v], Isa::Mul(s, b[v]));
    }
    q += ld;
    p += ld;
  }
#pragma GCC unroll 16
  for (int j = 0; j < R; ++j)
#pragma GCC unroll 4
    for (int v = 0; v < V; ++v)
      Isa::Store(acc[j] + v * L, a[j][v]);
}

template <class Isa>
struct TileTable {
  TileFn fns[Isa::kRows][Isa::kVecs] = {};

  template <int R>
  constexpr void Fill() {
    if constexpr (R > 0) {
      fns[R - 1][0] = &Tile<Isa, R, 1>;
      if constexpr (Isa::kVecs > 1) fns[R - 1][1] = &Tile<Isa, R, 2>;
      Fill<R - 1>();
    }
  }
  constexpr TileTable() { Fill<Isa::kRows>(); }
};

template <class Isa>
constexpr TileTable<Isa> kTiles{};

// How many vectors a block of width lanes needs, at most kVecs.
template <class Isa>
int VectorsFor(Index width) {
  const Index v = (width + Isa::kLanes - 1) / Isa::kLanes;
  return v < Isa::kVecs ? static_cast<int>(v) : Isa::kVecs;
}

template <class Isa>
void TriangleChunk(const Layout& lay, const double* p, const double* q, Index rows,
                   double* tri) {
  constexpr Index kWidth = Isa::kLanes * Isa::kVecs;
  double* acc[Isa::kRows];
  for (Index k0 = 0; k0 < lay.all; k0 += kWidth) {
    const int v = VectorsFor<Isa>(lay.all - k0);
    // Only rows c >= k0 have cells in this block of columns.
    for (Index c0 = k0; c0 < lay.all; c0 += Isa::kRows) {
      const int r = static_cast<int>(Smaller(Isa::kRows, lay.all - c0));
      for (int j = 0; j < r; ++j)
        acc[j] = tri + TriangleRow(c0 + j) + k0;
      kTiles<Isa>.fns[r - 1][v - 1](q + c0, p + k0, lay.ld, rows, acc);
    }
  }
}

template <class Isa>
void RectangleChunk(const Layout& lay, const double* p, const double* q, Index rows,
                    double* rect) {
  constexpr Index kWidth = Isa::kLanes * Isa::kVecs;
  const Index first = lay.split + lay.gap;
  const Index width = lay.all - lay.split;
  double* acc[Isa::kRows];
  for (Index k0 = 0; k0 < width; k0 += kWidth) {
    const int v = VectorsFor<Isa>(width - k0);
    for (Index c0 = 0; c0 < lay.split; c0 += Isa::kRows) {
      const int r = static_cast<int>(Smaller(Isa::kRows, lay.split - c0));
      for (int j = 0; j < r; ++j)
        acc[j] = rect + (c0 + j) * lay.rectLd + k0;
      kTiles<Isa>.fns[r - 1][v - 1](q + c0, p + first + k0, lay.ld, rows, acc);
    }
  }
}

// The diagonal: lane by lane, Q times P down the chunk.
template <class Isa>
void DiagonalChunk(const Layout& lay, const double* p, const double* q, Index rows,
                   double* diag) {
  using Vec = typename Isa::Vec;
  constexpr int L = Isa::kLanes;
  constexpr int kBlock = 4;
  const Index lanes = AlignUp(lay.all + lay.gap, L);
  Index l0 = 0;
  for (; l0 + kBlock * L <= lanes; l0 += kBlock * L) {
    Vec d[kBlock];
#pragma GCC unroll 4
    for (int v = 0; v < kBlock; ++v)
      d[v] = Isa::Load(diag + l0 + v * L);
    for (Index r = 0; r < rows; ++r) {
#pragma GCC unroll 4
      for (int v = 0; v < kBlock; ++v) {
        const Index at = r * lay.ld + l0 + v * L;
        d[v] = Isa::Add(d[v], Isa::Mul(Isa::Load(q + at), Isa::Load(p + at)));
      }
    }
#pragma GCC unroll 4
    for (int v = 0; v < kBlock; ++v)
      Isa::Store(diag + l0 + v * L, d[v]);
  }
  for (; l0 < lanes; l0 += L) {
    Vec d = Isa::Load(diag + l0);
    for (Index r = 0; r < rows; ++r) {
      const Index at = r * lay.ld + l0;
      d = Isa::Add(d, Isa::Mul(Isa::Load(q + at), Isa::Load(p + at)));
    }
    Isa::Store(diag + l0, d);
  }
}

void Clear(double* a, Index count) {
  for (Index i = 0; i < count; ++i)
    a[i] = 0.0;
}

// Lanes that no column fills (the rectangle's gap and the tail of each row)
// hold zeros, so that the tiles that read them compute harmless products.
void ClearPanelPadding(const Layout& lay, double* panel) {
  for (Index r = 0; r < lay.chunk; ++r) {
    double* row = panel + r * lay.ld;
    Clear(row + lay.split, lay.gap);
    Clear(row + lay.all + lay.gap, lay.ld - lay.all - lay.gap);
  }
}

void WriteResults(const CrossProductJob& job, const Layout& lay, const double* scratch) {
  if (job.triangle != nullptr) {
    const double* tri = scratch + lay.tri;
    Index cell = 0;
    for (Index c = 0; c < lay.all; ++c) {
      const Index last = job.triangleDiagonal ? c : c - 1;
      for (Index k = 0; k <= last; ++k)
        job.triangle[(cell++) * job.triangleStride] = tri[TriangleRow(c) + k];
    }
  }
  if (job.rectangle != nullptr) {
    const double* rect = scratch + lay.rect;
    const Index width = lay.all - lay.split;
    for (Index r = 0; r < lay.split; ++r)
      for (Index c = 0; c < width; ++c)
        job.rectangle[r * width + c] = rect[r * lay.rectLd + c];
  }
  if (job.diagonal != nullptr) {
    const double* diag = scratch + lay.diag;
    for (Index j = 0; j < lay.all; ++j)
      job.diagonal[j] = diag[LaneOf(lay, j)];
  }
}

template <class Isa>
void RunCrossProducts(const CrossProductJob& job) {
  const Layout lay = MakeLayout(job);
  double* scratch = ScratchBuffer(static_cast<std::size_t>(lay.total));
  double* p = scratch + lay.p;
  double* q = lay.weighted ? scratch + lay.q : p;
  Clear(scratch + lay.tri, lay.total - lay.tri);
  ClearPanelPadding(lay, p);
  if (lay.weighted) ClearPanelPadding(lay, q);

  for (Index i0 = 0; i0 < job.nRows; i0 += lay.chunk) {
    const Index rows = Smaller(lay.chunk, job.nRows - i0);
    PackChunk<Isa>(job, lay, i0, rows, p, q);
    if (job.diagonal != nullptr) DiagonalChunk<Isa>(lay, p, q, rows, scratch + lay.diag);
    if (job.triangle != nullptr) TriangleChunk<Isa>(lay, p, q, rows, scratch + lay.tri);
    if (job.rectangle != nullptr) RectangleChunk<Isa>(lay, p, q, rows, scratch + lay.rect);
  }
  WriteResults(job, lay, scratch);
}

// ---------------------------------------------------------------- column pass

constexpr int kGroup = 8;          // columns summed side by side
constexpr Index kPassRows = 512;   // rows of a group taken at a time

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
void ColumnGroup(const ColumnBlock& cols, int g0, int count, const double* w, double total,
                 Index n, double* means, double* mins, double* maxs) {
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
    x[j] = cols.base + cols.stride * (g0 + j);
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
      if (w != nullptr) SumSideBySide<true>(slot, w, from, i1, rest);
      else SumSideBySide<false>(slot, w, from, i1, rest);
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

template <class Isa>
constexpr KernelTable kTable{&RunCrossProducts<Isa>, &RunColumnPass<Isa>};

}  // namespace
}  // namespace vorel::kernels
