// Primitives shared by the kernels of every level: indexing, the columns of
// a block, how cells are centred on their way into a panel, the panel budget
// of a chunk of rows, and the scalar packer that every level falls back on.
//
// Each level's source includes the kernel headers, built with its own
// instruction set, and instantiates them over its own Isa type. Everything in
// these headers therefore has internal linkage (an unnamed namespace, and
// templates over an Isa of internal linkage): no level's code can stand in
// for another's at link time. For the same reason nothing here calls an
// inline function of external linkage, standard library helpers included.
#pragma once

#include <cstddef>

#include "kernels/crossproducts.h"

namespace vorel::internal::engine {
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

// Panel bytes of a chunk of rows that should stay in L2 between packing and
// the arithmetic, and the bounds on a chunk's rows.
constexpr Index kL2PanelBytes = 512 * 1024;
constexpr Index kMinChunkRows = 128;
constexpr Index kMaxChunkRows = 2048;

void Clear(double* a, Index count) {
  for (Index i = 0; i < count; ++i)
    a[i] = 0.0;
}

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
}  // namespace
}  // namespace vorel::internal::engine
