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
// column-lanes k is then summed down the chunk: per row, V loads of x_k, a
// broadcast of w * x_c per c (AVX-512 folds one into each multiplication),
// and R * V separate multiplications and additions into R * V accumulators,
// each lane its own cell. The accumulators go back to the scratch between
// chunks, unchanged in value. Blocks of at most eight columns take a fused
// kernel instead that keeps every cell in a register (NarrowTriangleAvx).
#pragma once

#include <vorel/initialextremes.h>

#include <cstddef>

#include "crossproducts_levels.h"

#if defined(__AVX__)
#include <immintrin.h>
#endif

namespace vorel::kernels {
namespace {

using Index = std::ptrdiff_t;

constexpr Index AlignUp(Index v, Index a) { return (v + a - 1) / a * a; }
constexpr Index Smaller(Index a, Index b) { return a < b ? a : b; }

inline double* ColumnOf(const ColumnBlock& cols, Index j) {
  return cols.columns != nullptr ? cols.columns[j] : cols.base + cols.stride * j;
}

// How the cells of a chunk enter the panels: as they are, centred and written
// back (the batch is centred in place), or centred in the panels alone.
enum class Centring { None, InPlace, PanelOnly };

inline Centring CentringOf(const CrossProductJob& job) {
  if (job.centre == nullptr) return Centring::None;
  return job.keepColumns ? Centring::PanelOnly : Centring::InPlace;
}

// Widest tile in lanes any level uses; the triangle's accumulator rows leave
// this much room past the diagonal.
constexpr Index kMaxTileLanes = 32;
// Panel bytes per chunk (see MakeLayout).
constexpr Index kL1PanelBytes = 24 * 1024;
constexpr Index kL2PanelBytes = 512 * 1024;
constexpr Index kMinChunkRows = 128;
constexpr Index kMaxChunkRows = 2048;
// Cycles of arithmetic that the reading of a chunk should be asked for ahead
// of, so that it comes from memory in time even when other cores share the
// memory: about a hundred microseconds.
constexpr Index kPrefetchLeadCycles = 400000;
// At most this much of the data asked for ahead at once, or two chunks if
// they are larger: asked for too far ahead, lines leave L2 before they are
// packed.
constexpr Index kPrefetchBytes = 128 * 1024;

// ---------------------------------------------------------------- layout

// Where one call keeps its figures in the scratch buffer (all in doubles).
struct Layout {
  int all = 0;      // columns, the column of ones included
  int split = 0;    // rows of the rectangle; 0 without one
  Index gap = 0;    // empty lanes that start the rectangle's columns on a line
  Index ld = 0;     // row stride of the panels
  Index chunk = 0;  // rows per chunk
  bool weighted = false;
  Index rectLd = 0;  // row stride of the rectangle's accumulators
  Index p = 0, q = 0, tri = 0, rect = 0, diag = 0, total = 0;  // offsets and size
};

// Accumulator row c of the triangle: lanes 0 .. c + kMaxTileLanes - 1, so that
// any tile that holds the diagonal cell fits in it.
constexpr Index TriangleRow(Index c) { return c * (c + 1) / 2 + (kMaxTileLanes - 1) * c; }

// The panel lane of column j.
inline Index LaneOf(const Layout& lay, Index j) { return j < lay.split ? j : j + lay.gap; }

Layout MakeLayout(const CrossProductJob& job) {
  Layout lay;
  lay.all = job.cols.count + (job.withOnes ? 1 : 0);
  lay.split = job.rectangle != nullptr ? job.split : 0;
  lay.gap = AlignUp(lay.split, 8) - lay.split;
  // A tile reads lanes up to the next multiple of its vector width past the
  // last column, at most eight, so rows of whole cache lines suffice.
  lay.ld = AlignUp(lay.all + lay.gap, 8);
  if (lay.ld % 64 == 0) lay.ld += 8;  // rows a power of two apart would share cache sets
  lay.weighted = job.weights != nullptr;
  const Index rowBytes = lay.ld * static_cast<Index>(sizeof(double)) * (lay.weighted ? 2 : 1);
  // Narrow blocks: panels that stay in L1 between packing and the tiles.
  // Wide ones: at least kMinChunkRows rows, so that loading and storing the
  // accumulators of a tile costs little beside its sums, within an L2 budget.
  Index chunk = kL1PanelBytes / rowBytes;
  if (chunk < kMinChunkRows) chunk = kMinChunkRows;
  if (chunk * rowBytes > kL2PanelBytes) chunk = kL2PanelBytes / rowBytes;
  if (chunk > kMaxChunkRows) chunk = kMaxChunkRows;
  chunk = chunk / 4 * 4;
  if (chunk < 8) chunk = 8;
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

// One column of a chunk into its lane of the panels, centred as C says; the
// weighted value is formed from the value that enters the panel.
template <Centring C, bool Weighted>
void PackColumn(double* x, double centre, const double* w, Index rows, double* p, double* q,
                Index ld) {
  for (Index r = 0; r < rows; ++r) {
    double v = x[r];
    if constexpr (C != Centring::None) v = v - centre;
    if constexpr (C == Centring::InPlace) x[r] = v;
    p[r * ld] = v;
    if constexpr (Weighted) q[r * ld] = w[r] * v;
  }
}

template <Centring C>
void PackColumn(double* x, double centre, const double* w, Index rows, double* p, double* q,
                Index ld) {
  if (w != nullptr)
    PackColumn<C, true>(x, centre, w, rows, p, q, ld);
  else
    PackColumn<C, false>(x, centre, w, rows, p, q, ld);
}

void PackColumn(Centring c, double* x, double centre, const double* w, Index rows, double* p,
                double* q, Index ld) {
  switch (c) {
    case Centring::None:
      PackColumn<Centring::None>(x, centre, w, rows, p, q, ld);
      break;
    case Centring::InPlace:
      PackColumn<Centring::InPlace>(x, centre, w, rows, p, q, ld);
      break;
    case Centring::PanelOnly:
      PackColumn<Centring::PanelOnly>(x, centre, w, rows, p, q, ld);
      break;
  }
}

void PackOnes(const double* w, Index rows, double* p, double* q, Index ld) {
  for (Index r = 0; r < rows; ++r) {
    p[r * ld] = 1.0;
    if (w != nullptr) q[r * ld] = w[r] * 1.0;
  }
}

#if defined(__AVX__)
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
#endif

template <class Isa>
void PackChunk(const CrossProductJob& job, const Layout& lay, Index i0, Index rows, double* p,
               double* q) {
  const int count = job.cols.count;
  const double* w = job.weights != nullptr ? job.weights + i0 : nullptr;
  const Centring centring = CentringOf(job);
  int j = 0;
  while (j < count) {
    // Four columns at a time where the level can transpose them, then two,
    // then one; never across the rectangle's gap, where lanes are not adjacent.
    int take = Isa::kPacksColumns ? (count - j >= 4 ? 4 : count - j >= 2 ? 2 : 1) : 1;
    if (j < lay.split && j + take > lay.split) take = lay.split - j >= 2 ? 2 : 1;
    double* x[4];
    for (int t = 0; t < take; ++t)
      x[t] = ColumnOf(job.cols, j + t) + i0;
    const double* centre = job.centre != nullptr ? job.centre + j : nullptr;
    const Index lane = LaneOf(lay, j);
    Index done = 0;
    if constexpr (Isa::kPacksColumns)
      done = Isa::PackColumns(take, centring, x, centre, w, rows, p + lane, q + lane, lay.ld);
    for (int t = 0; t < take; ++t)
      PackColumn(centring, x[t] + done, centre != nullptr ? centre[t] : 0.0,
                 w != nullptr ? w + done : nullptr, rows - done, p + lane + t + done * lay.ld,
                 q + lane + t + done * lay.ld, lay.ld);
    j += take;
  }
  if (job.withOnes) {
    const Index lane = LaneOf(lay, count);
    PackOnes(w, rows, p + lane, q + lane, lay.ld);
  }
}

// Asks for rows [i0, i0 + rows) of every column, to be in L2 when they are
// packed: the hardware follows a few streams, not one per column. The tiles
// ask for one line every few rows of their own (Tick), paced so that the
// lines of a chunk are spread over the work on the chunk before: a burst of
// requests fills the miss buffers and stalls the arithmetic behind them.
class Prefetcher {
 public:
  Prefetcher(const CrossProductJob& job, Index i0, Index rows)
      : _job(job), _i0(i0), _rows(rows > 0 ? rows : 0) {
    if (_rows == 0)
      _column = _job.cols.count;  // past the last row: nothing to ask for
    else if (_job.cols.count > 0)
      _at = ColumnOf(_job.cols, 0) + _i0;
  }
  // One line every `rows` rows of tile work (at least one).
  void Pace(Index rows) { _every = _countdown = rows > 0 ? rows : 1; }
  // Called once per row of tile work.
  void Tick() {
    if (--_countdown > 0) return;
    _countdown = _every;
    Step();
  }
  void Finish() {
    while (_column < _job.cols.count)
      Step();
  }
  Index Lines() const { return static_cast<Index>(_job.cols.count) * ((_rows + 7) / 8); }

 private:
  void Step() {
    if (_column >= _job.cols.count) return;
    __builtin_prefetch(_at + _row, 0, 2);
    _row += 8;
    if (_row < _rows) return;
    _row = 0;
    if (++_column < _job.cols.count) _at = ColumnOf(_job.cols, _column) + _i0;
  }

  const CrossProductJob& _job;
  Index _i0, _rows;
  const double* _at = nullptr;
  int _column = 0;
  Index _row = 0;
  Index _every = 1, _countdown = 1;
};

void PrefetchChunk(const CrossProductJob& job, Index i0, Index rows) {
  Prefetcher(job, i0, rows).Finish();
}

#if defined(__AVX__)
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
#endif

// ---------------------------------------------------------------- tiles

using TileFn = void (*)(const double* q, const double* p, Index ld, Index rows, double* const* acc,
                       Prefetcher& next);

// R row-columns (lanes q[0..R) of Q) against V vectors of column-lanes (lanes
// p[0..V*L) of P), over rows rows; acc[j] holds the V*L accumulators of row j.
// Each row also ticks the prefetcher of the chunk to come.
template <class Isa, int R, int V>
void Tile(const double* q, const double* p, Index ld, Index rows, double* const* acc,
          Prefetcher& next) {
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
    // One broadcast per multiplication, from a copy of q the compiler cannot
    // see through, where the level can fold a broadcast into a
    // multiplication; otherwise the copies are q and the broadcasts merge.
    const double* qv[V];
#pragma GCC unroll 4
    for (int v = 0; v < V; ++v)
      qv[v] = Isa::Opaque(q);
#pragma GCC unroll 16
    for (int j = 0; j < R; ++j) {
#pragma GCC unroll 4
      for (int v = 0; v < V; ++v)
        a[j][v] = Isa::Add(a[j][v], Isa::Mul(Isa::Broadcast(qv[v] + j), b[v]));
    }
    q += ld;
    p += ld;
    next.Tick();
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

  template <int R, int V>
  constexpr void Fill() {
    if constexpr (R > 0) {
      fns[R - 1][V - 1] = &Tile<Isa, R, V>;
      if constexpr (V > 1)
        Fill<R, V - 1>();
      else
        Fill<R - 1, Isa::kVecs>();
    }
  }
  constexpr TileTable() { Fill<Isa::kRows, Isa::kVecs>(); }
};

template <class Isa>
constexpr TileTable<Isa> kTiles{};

// How many vectors a block of width lanes needs, at most kVecs.
template <class Isa>
int VectorsFor(Index width) {
  const Index v = (width + Isa::kLanes - 1) / Isa::kLanes;
  return v < Isa::kVecs ? static_cast<int>(v) : Isa::kVecs;
}

// The triangle's tiles over one block of rows: Run(r, v, c0, k0) for a tile
// of r row-columns from c0 against v vectors of column-lanes from k0.
template <class Isa, class Run>
void ForEachTriangleTile(const Layout& lay, Run run) {
  constexpr Index kLanes = Isa::kLanes;
  constexpr Index kWidth = kLanes * Isa::kVecs;
  for (Index k0 = 0; k0 < lay.all; k0 += kWidth) {
    // Rows c below k0 have no cells in this block of columns, and a row c
    // has its cells in the first (c - k0) / kLanes + 1 vectors: the rows go
    // in bands of kLanes, each with as many vectors as it needs.
    const int most = VectorsFor<Isa>(lay.all - k0);
    for (int band = 0; band < most; ++band) {
      const Index from = k0 + band * kLanes;
      const Index to = band + 1 == most ? lay.all : Smaller(lay.all, from + kLanes);
      for (Index c0 = from; c0 < to;) {
        const int r = static_cast<int>(Smaller(Isa::kRows, to - c0));
        run(r, band + 1, c0, k0);
        c0 += r;
      }
    }
  }
}

// The rectangle's tiles, as ForEachTriangleTile; k0 counts from the
// rectangle's first column-lane.
template <class Isa, class Run>
void ForEachRectangleTile(const Layout& lay, Run run) {
  constexpr Index kWidth = Isa::kLanes * Isa::kVecs;
  const Index width = lay.all - lay.split;
  for (Index k0 = 0; k0 < width; k0 += kWidth) {
    const int v = VectorsFor<Isa>(width - k0);
    for (Index c0 = 0; c0 < lay.split; c0 += Isa::kRows)
      run(static_cast<int>(Smaller(Isa::kRows, lay.split - c0)), v, c0, k0);
  }
}

// Tiles a chunk runs, for pacing the prefetcher.
template <class Isa>
Index TilesPerChunk(const CrossProductJob& job, const Layout& lay) {
  Index tiles = 0;
  const auto count = [&tiles](int, int, Index, Index) { ++tiles; };
  if (job.triangle != nullptr) ForEachTriangleTile<Isa>(lay, count);
  if (job.rectangle != nullptr) ForEachRectangleTile<Isa>(lay, count);
  return tiles;
}

template <class Isa>
void TriangleChunk(const Layout& lay, const double* p, const double* q, Index rows, double* tri,
                   Prefetcher& next) {
  double* acc[Isa::kRows];
  ForEachTriangleTile<Isa>(lay, [&](int r, int v, Index c0, Index k0) {
    for (int j = 0; j < r; ++j)
      acc[j] = tri + TriangleRow(c0 + j) + k0;
    kTiles<Isa>.fns[r - 1][v - 1](q + c0, p + k0, lay.ld, rows, acc, next);
  });
}

template <class Isa>
void RectangleChunk(const Layout& lay, const double* p, const double* q, Index rows, double* rect,
                    Prefetcher& next) {
  const Index first = lay.split + lay.gap;
  double* acc[Isa::kRows];
  ForEachRectangleTile<Isa>(lay, [&](int r, int v, Index c0, Index k0) {
    for (int j = 0; j < r; ++j)
      acc[j] = rect + (c0 + j) * lay.rectLd + k0;
    kTiles<Isa>.fns[r - 1][v - 1](q + c0, p + first + k0, lay.ld, rows, acc, next);
  });
}

// The diagonal: lane by lane, Q times P down the chunk.
template <class Isa>
void DiagonalChunk(const Layout& lay, const double* p, const double* q, Index rows, double* diag) {
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

void WriteResults(const CrossProductJob& job, const Layout& lay, const double* tri,
                  const double* rect, const double* diag) {
  if (job.triangle != nullptr) {
    Index cell = 0;
    for (Index c = 0; c < lay.all; ++c) {
      const Index last = job.triangleDiagonal ? c : c - 1;
      for (Index k = 0; k <= last; ++k)
        job.triangle[(cell++) * job.triangleStride] = tri[TriangleRow(c) + k];
    }
  }
  if (job.rectangle != nullptr) {
    const Index width = lay.all - lay.split;
    for (Index r = 0; r < lay.split; ++r)
      for (Index c = 0; c < width; ++c)
        job.rectangle[r * width + c] = rect[r * lay.rectLd + c];
  }
  if (job.diagonal != nullptr) {
    for (Index j = 0; j < lay.all; ++j)
      job.diagonal[j] = diag[LaneOf(lay, j)];
  }
}

template <class Isa>
void RunCrossProducts(const CrossProductJob& job) {
  const Layout lay = MakeLayout(job);
  if constexpr (Isa::kPacksColumns) {
    if (job.triangle != nullptr && job.diagonal == nullptr && lay.all <= 8) {
      double* tri = ScratchBuffer(static_cast<std::size_t>(TriangleRow(lay.all)));
      if (Isa::NarrowTriangle(job, tri)) {
        WriteResults(job, lay, tri, nullptr, nullptr);
        return;
      }
    }
  }
  double* scratch = ScratchBuffer(static_cast<std::size_t>(lay.total));
  double* p = scratch + lay.p;
  double* q = lay.weighted ? scratch + lay.q : p;
  Clear(scratch + lay.tri, lay.total - lay.tri);
  ClearPanelPadding(lay, p);
  if (lay.weighted) ClearPanelPadding(lay, q);

  // How many chunks ahead to ask for: one when a chunk's arithmetic covers
  // the lead, more for narrow blocks.
  const Index cells = lay.all * (lay.all + 1) / 2 + lay.split * (lay.all - lay.split);
  const Index chunkCycles = lay.chunk * (cells / 8 + 1);
  // A job without rows has chunks of no rows and nothing to fetch ahead.
  Index ahead = chunkCycles == 0 ? 1 : (kPrefetchLeadCycles + chunkCycles - 1) / chunkCycles;
  const Index chunkBytes = lay.chunk * job.cols.count * static_cast<Index>(sizeof(double));
  Index most = chunkBytes > 0 ? kPrefetchBytes / chunkBytes : 1;
  if (most < 2) most = 2;
  if (ahead > most) ahead = most;
  const Index tiles = TilesPerChunk<Isa>(job, lay);
  for (Index i0 = 0; i0 < job.nRows; i0 += lay.chunk) {
    const Index rows = Smaller(lay.chunk, job.nRows - i0);
    if (ahead > 1 && i0 == 0)  // the first chunks, which nothing asked for yet
      PrefetchChunk(job, lay.chunk, Smaller((ahead - 1) * lay.chunk, job.nRows - lay.chunk));
    PackChunk<Isa>(job, lay, i0, rows, p, q);
    const Index at = i0 + ahead * lay.chunk;
    Prefetcher next(job, at, Smaller(lay.chunk, job.nRows - at));
    next.Pace(tiles * rows / (next.Lines() + 1));
    if (job.diagonal != nullptr) DiagonalChunk<Isa>(lay, p, q, rows, scratch + lay.diag);
    if (job.triangle != nullptr) TriangleChunk<Isa>(lay, p, q, rows, scratch + lay.tri, next);
    if (job.rectangle != nullptr) RectangleChunk<Isa>(lay, p, q, rows, scratch + lay.rect, next);
    next.Finish();
  }
  WriteResults(job, lay, scratch + lay.tri, scratch + lay.rect, scratch + lay.diag);
}

// ---------------------------------------------------------------- column pass

constexpr int kGroup = 8;         // columns summed side by side
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
}  // namespace vorel::kernels

#include "crossproducts_pairs.h"

namespace vorel::kernels {
namespace {

template <class Isa>
constexpr KernelTable kTable{&RunCrossProducts<Isa>, &RunColumnPass<Isa>, &RunMaskedPairs<Isa>};

}  // namespace
}  // namespace vorel::kernels
