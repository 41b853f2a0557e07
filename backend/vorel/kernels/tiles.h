// The blocked cross-product kernel: triangles, rectangles and diagonals of
// a block of columns, each lane of a vector register the accumulator of one
// cell. Written once over a level's Isa (see level_plain.cpp for what an Isa
// gives); the AVX levels add their own packer and narrow kernel (avx.h).
//
// Layout of one call. The rows go in chunks. Each chunk is copied into a
// panel P, one row of the chunk after the other (P[r * ld + lane]), with the
// weighted values w[i] * x[i] in a second panel Q of the same shape (Q is P
// without weights). A tile of R row-columns c against V vectors of
// column-lanes k is then summed down the chunk: per row, V loads of x_k, a
// broadcast of w * x_c per c (AVX-512 folds one into each multiplication),
// and R * V separate multiplications and additions into R * V accumulators,
// each lane its own cell. The accumulators go back to the scratch between
// chunks, unchanged in value. On the AVX levels blocks of at most eight
// columns take a kernel of their own instead, which keeps every cell in a
// register (NarrowTriangleAvx in avx.h).
#pragma once

#include <cstddef>

#include "kernels/common.h"
#include "kernels/crossproducts.h"
#include "kernels/scratch.h"

namespace vorel::internal::engine {
namespace {

// Widest tile in lanes any level uses; the triangle's accumulator rows leave
// this much room past the diagonal.
constexpr Index kMaxTileLanes = 32;
// Panel bytes per chunk of a narrow block (see MakeLayout).
constexpr Index kL1PanelBytes = 24 * 1024;
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
}  // namespace
}  // namespace vorel::internal::engine
