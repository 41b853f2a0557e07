// The masked pair kernel: pairs of columns with pairwise deletion, a vector
// lane per pair. Written once over a level's Isa, with internal linkage only
// (see common.h).
//
// For a first variable a and a block of kLanes second variables (a unit),
// two passes go down the rows in chunks. A lane takes a row when neither a's
// cell nor its own is the missing code, by a mask: the lanes' bits of the row
// worked out once per chunk, cleared when a's bit of the row is clear;
// otherwise the lane skips the row. A few units go side by side, those of one
// first variable sharing its cells, and the rows go in order with no branch.
//   Pass 1: the weight totals, and per column the running state of
//           StableMean over the kept cells: whether a cell was seen, the
//           first kept cell, whether the leading run of that value goes on,
//           the run's weight, and the sum of the rest. Only the rows up to
//           the last lane's first kept row, and those while a run goes on,
//           need all of that; the others only add.
//   Then the row counts, from the masks' bits (whole numbers, so the order
//   of counting does not matter), and the means, lane by lane, as
//   StableMean ends.
//   Pass 2: the corrected sums of the centred kept cells.
// The second variables are read through panels (one row of the chunk after
// the other) so that a vector load gives a lane its own column's cell: the
// cells, their products with the combined weight, and the masks; the first
// variable's cell is broadcast. A column's own figures come from a first
// variable that is never missing, whose half of the figures is dropped.
#pragma once

#include <cstddef>
#include <cstdint>

#include "kernels/common.h"
#include "kernels/crossproducts.h"
#include "kernels/scratch.h"

namespace vorel::internal::engine {
namespace {

// Fields of a pass-1 state, a vector each.
enum Pass1 {
  kCount,
  kWeightSum,
  kCombinedSum,
  kSeen,  // a mask kept as 1.0 / 0.0
  kFirst0,
  kInRun0,  // a mask
  kRun0,
  kRest0,
  kFirst1,
  kInRun1,  // a mask
  kRun1,
  kRest1,
  kPass1Fields
};
// Fields of a pass-2 state.
enum Pass2 { kMean0, kMean1, kCss0, kCss1, kCscp, kPass2Fields };

// One block of lanes of one row: bit l set, lane l's cell is there. As wide
// as a mask register loads from memory.
using LaneBits = std::uint16_t;
using RowBits = std::uint64_t;  // 64 rows of one column, likewise
constexpr Index kRowBits = 64;

// A unit of work: one first variable against one block of lanes, with the
// states of that pair of them. The first variable that stands for no column
// (for the columns' own figures) is a column of NaN, present in every row.
struct PairsUnit {
  const double* xa;     // the first variable's cells of the chunk
  const RowBits* bits;  // and their presence
  Index block;
  double* state;
};

struct PairsLayout {
  int nA = 0;        // first variables
  int nB = 0;        // second variables: the lanes
  Index blocks = 0;  // blocks of lanes
  Index ld = 0;      // row stride of the panels
  Index chunk = 0;   // rows per chunk
  Index words = 0;   // words of a column's bits in a chunk
  // Offsets in the scratch, in doubles. States: one per block of each first
  // variable, then one per block of the first variable that is never missing.
  // Units: at most one per state, those of whole runs from the start and the
  // others from the middle.
  Index p = 0, q = 0, masks = 0, bitsA = 0, bitsB = 0, ones = 0, units = 0, nans = 0;
  Index flags = 0;
  Index state1 = 0, state2 = 0, total = 0;
};

constexpr Index DoublesFor(Index bytes) {
  return (bytes + static_cast<Index>(sizeof(double)) - 1) / static_cast<Index>(sizeof(double));
}

template <class Isa>
PairsLayout MakePairsLayout(const MaskedPairsJob& job, bool combined) {
  constexpr Index kLanes = Isa::kLanes;
  PairsLayout lay;
  lay.nA = job.first.count;
  lay.nB = job.triangle ? job.first.count : job.second.count;
  lay.blocks = (lay.nB + kLanes - 1) / kLanes;
  lay.ld = AlignUp(lay.blocks * kLanes, 8);
  if (lay.ld % 64 == 0) lay.ld += 8;
  // The panels of a chunk stay in L2 while every first variable reads them.
  const Index rowBytes = lay.ld * static_cast<Index>(sizeof(double)) * (combined ? 2 : 1)
                         + lay.blocks * static_cast<Index>(sizeof(LaneBits));
  Index chunk = kL2PanelBytes / rowBytes;
  if (chunk < kMinChunkRows) chunk = kMinChunkRows;
  if (chunk > kMaxChunkRows) chunk = kMaxChunkRows;
  chunk = chunk / kRowBits * kRowBits;
  lay.chunk = Smaller(chunk, AlignUp(job.nRows > 0 ? job.nRows : 1, kRowBits));
  lay.words = lay.chunk / kRowBits;
  const Index states = (static_cast<Index>(lay.nA) + 1) * lay.blocks * kLanes;
  const Index nBits = job.triangle ? 0 : lay.nB;
  Index at = 0;
  lay.p = at;
  at += lay.chunk * lay.ld;
  lay.q = at;
  if (combined) at += lay.chunk * lay.ld;
  lay.masks = at;
  at += DoublesFor(lay.chunk * lay.blocks * static_cast<Index>(sizeof(LaneBits)));
  lay.bitsA = at;
  at += lay.nA * lay.words;
  lay.bitsB = job.triangle ? lay.bitsA : at;
  at += nBits * lay.words;
  lay.ones = at;
  at += lay.words;
  lay.units = at;
  at += DoublesFor(2 * states / kLanes * static_cast<Index>(sizeof(PairsUnit)));
  lay.nans = at;
  at += lay.chunk;
  lay.flags = at;  // per column of first, then of second: has a missing cell
  at += DoublesFor(static_cast<Index>(lay.nA) + nBits);
  lay.state1 = at;
  at += states * kPass1Fields;
  lay.state2 = at;
  at += states * kPass2Fields;
  lay.total = at;
  return lay;
}

// Whether any of the n cells compares equal to code.
template <class Isa>
bool HasMissing(const double* x, Index n, double code) {
  constexpr int L = Isa::kLanes;
  const typename Isa::Vec c = Isa::Set1(code);
  Index i = 0;
  for (; i + 2 * L <= n; i += 2 * L) {
    const unsigned present = Isa::Bits(Isa::NotEqual(Isa::Load(x + i), c))
                             & Isa::Bits(Isa::NotEqual(Isa::Load(x + i + L), c));
    if (present != (1u << L) - 1) return true;
  }
  for (; i < n; ++i)
    if (x[i] == code) return true;
  return false;
}

// rows cells of one column as bits, 64 rows a word; bits past rows are clear.
template <class Isa>
void PresenceBits(const double* x, Index rows, double code, RowBits* bits) {
  constexpr int L = Isa::kLanes;
  const typename Isa::Vec c = Isa::Set1(code);
  for (Index w = 0; w * kRowBits < rows; ++w) {
    const Index from = w * kRowBits, to = Smaller(rows, from + kRowBits);
    RowBits word = 0;
    Index i = from;
    for (; i + L <= to; i += L)
      word |= static_cast<RowBits>(Isa::Bits(Isa::NotEqual(Isa::Load(x + i), c))) << (i - from);
    for (; i < to; ++i)
      word |= static_cast<RowBits>(!(x[i] == code)) << (i - from);
    bits[w] = word;
  }
}

// The second variables of a chunk into the panel P, their products with the
// combined weight into Q (x * v, as DotProduct forms them), and per row and
// block of lanes the bits of the cells that are there.
template <class Isa, bool Combined>
void PackSeconds(const ColumnBlock& cols, Index i0, Index rows, const double* v, double code,
                 const PairsLayout& lay, double* p, double* q, LaneBits* masks) {
  constexpr int L = Isa::kLanes;
  int j = 0;
  while (j < cols.count) {
    int take = Isa::kPacksColumns ? (cols.count - j >= 4 ? 4 : cols.count - j >= 2 ? 2 : 1) : 1;
    double* x[4];
    for (int t = 0; t < take; ++t)
      x[t] = ColumnOf(cols, j + t) + i0;
    Index done = 0;
    if constexpr (Isa::kPacksColumns)
      done =
          Isa::PackColumns(take, Centring::None, x, nullptr, nullptr, rows, p + j, p + j, lay.ld);
    for (int t = 0; t < take; ++t)
      PackColumn<Centring::None, false>(x[t] + done, 0.0, nullptr, rows - done,
                                        p + j + t + done * lay.ld, p + j + t + done * lay.ld,
                                        lay.ld);
    j += take;
  }
  const typename Isa::Vec c = Isa::Set1(code);
  // Lanes past the last column take no row, so that they never hold up the
  // short form of pass 1.
  const unsigned last = (1u << (cols.count - (lay.blocks - 1) * L)) - 1u;
  for (Index r = 0; r < rows; ++r) {
    const double* pr = p + r * lay.ld;
    double* qr = q + r * lay.ld;
    for (Index b = 0; b < lay.blocks; ++b) {
      const typename Isa::Vec x = Isa::Load(pr + b * L);
      const unsigned lanes = b + 1 < lay.blocks ? (1u << L) - 1u : last;
      masks[r * lay.blocks + b] = static_cast<LaneBits>(Isa::Bits(Isa::NotEqual(x, c)) & lanes);
      if constexpr (Combined) Isa::Store(qr + b * L, Isa::Mul(x, Isa::Broadcast(v + r)));
    }
  }
}

// One column's step of StableMean in each lane that keeps the row: the first
// kept cell starts the run; the run goes on while the cells equal it (a NaN
// equals nothing); every later cell adds to the rest.
template <class Isa, bool Weighted>
void MeanStep(typename Isa::Mask kept, typename Isa::Mask firstRow, typename Isa::Vec x,
              typename Isa::Vec weight, typename Isa::Vec& first, typename Isa::Mask& inRun,
              typename Isa::Vec& run, typename Isa::Vec& rest) {
  first = Isa::Select(firstRow, x, first);
  inRun = Isa::Or(inRun, firstRow);
  const typename Isa::Mask stays = Isa::And(inRun, Isa::Equal(x, first));
  run = Isa::AddIf(Isa::And(kept, stays), run, weight);
  const typename Isa::Mask restRow = Isa::AndNot(kept, stays);
  // The rest is DotProduct(x, w): x times the weight, in that order.
  rest = Isa::AddIf(restRow, rest, Weighted ? Isa::Mul(x, weight) : x);
  inRun = Isa::AndNot(inRun, restRow);
}

// B units side by side (more sums that do not wait for each other) over the
// rows of a chunk: the panels and masks, the weights, and the units.
struct PairsRun {
  const double* p;
  const double* q;
  const LaneBits* masks;
  Index ld, masksLd;
  Index rows;
  // Pass 1: the last row that is the first kept row of a lane not yet seen
  // (-1 if none); up to it, and while a run goes on, rows take the full step.
  Index lastFirst;
  const double* w;
  const double* v;
  const PairsUnit* units;
};

// All bits set when the cell of row r is there, none when it is missing.
inline unsigned PresentAt(const RowBits* bits, Index r) {
  return 0u - static_cast<unsigned>((bits[r / kRowBits] >> (r % kRowBits)) & 1u);
}

// The rows from `from` on to `rows`, in order, through step(r) until it
// returns false; returns the row it stopped at, or rows. Shared: units of one
// first variable, which take only the rows where its cell is there (bits),
// the others none; otherwise every row.
template <bool Shared, class Step>
__attribute__((always_inline)) inline Index WalkRows(const RowBits* bits, Index from, Index rows,
                                                     Step&& step) {
  if constexpr (Shared) {
    for (Index k = from / kRowBits; k * kRowBits < rows; ++k) {
      RowBits word = bits[k];
      if (k == from / kRowBits) word &= ~RowBits{0} << (from % kRowBits);
      if (rows - k * kRowBits < kRowBits) word &= ~(~RowBits{0} << (rows - k * kRowBits));
      while (word != 0) {
        const Index r = k * kRowBits + __builtin_ctzll(word);
        word &= word - 1;
        if (!step(r)) return r;
      }
    }
  } else {
    for (Index r = from; r < rows; ++r)
      if (!step(r)) return r;
  }
  return rows;
}

// Where the lanes of B units read a chunk: the first variables' cells and
// bits, and per unit its block of the panels and of the masks. Shared units
// have blocks one after the other, at fixed offsets from the first.
template <int B, bool Shared>
struct UnitPointers {
  const double* xa[B];
  const RowBits* bits[B];
  Index block[B];

  explicit UnitPointers(const PairsUnit* units) {
#pragma GCC unroll 4
    for (int b = 0; b < B; ++b) {
      xa[b] = units[b].xa;
      bits[b] = units[b].bits;
      block[b] = units[b].block;
    }
  }
  Index Block(int b) const { return Shared ? block[0] + b : block[b]; }
};

// The lanes of unit b that keep row r: on a walk of shared rows, those
// whose cells are there; otherwise only if the first variable's is too.
template <class Isa, int B, bool Shared>
__attribute__((always_inline)) inline typename Isa::Mask KeptLanes(const PairsRun& run,
                                                                   const UnitPointers<B, Shared>& u,
                                                                   int b, Index r) {
  const LaneBits* m = run.masks + r * run.masksLd + u.Block(b);
  if constexpr (Shared) return Isa::LoadMask(m);
  return Isa::MaskFromBits(*m & PresentAt(u.bits[b], r));
}

template <class Isa, int B, bool Shared, bool HasWeights, bool Combined, bool HasRegWeights>
void PairsPass1(const PairsRun& run) {
  using Vec = typename Isa::Vec;
  using Mask = typename Isa::Mask;
  constexpr int L = Isa::kLanes;
  constexpr int X = Shared ? 1 : B;  // first variables
  const double* const w = run.w;
  const double* const v = run.v;
  const Index ld = run.ld;
  const Vec one = Isa::Set1(1.0);
  const UnitPointers<B, Shared> u(run.units);
  Vec weightSum[B], combinedSum[B], first0[B], run0[B], rest0[B], first1[B], run1[B], rest1[B];
  Mask seen[B], inRun0[B], inRun1[B];
#pragma GCC unroll 4
  for (int b = 0; b < B; ++b) {
    const double* s = run.units[b].state;
    weightSum[b] = Isa::Load(s + kWeightSum * L);
    combinedSum[b] = Isa::Load(s + kCombinedSum * L);
    seen[b] = Isa::ToMask(Isa::Load(s + kSeen * L));
    first0[b] = Isa::Load(s + kFirst0 * L);
    inRun0[b] = Isa::ToMask(Isa::Load(s + kInRun0 * L));
    run0[b] = Isa::Load(s + kRun0 * L);
    rest0[b] = Isa::Load(s + kRest0 * L);
    first1[b] = Isa::Load(s + kFirst1 * L);
    inRun1[b] = Isa::ToMask(Isa::Load(s + kInRun1 * L));
    run1[b] = Isa::Load(s + kRun1 * L);
    rest1[b] = Isa::Load(s + kRest1 * L);
  }
  // The full step: a lane's first kept row starts its leading run, which
  // goes on while its cells equal the first.
  const Index settled = WalkRows<Shared>(
      u.bits[0], 0, run.rows, [&](Index r) __attribute__((always_inline)) {
        if (r > run.lastFirst) {
          bool running = false;
#pragma GCC unroll 4
          for (int b = 0; b < B; ++b)
            running = running || Isa::Any(Isa::Or(inRun0[b], inRun1[b]));
          if (!running) return false;
        }
        Vec weight = one;
        if constexpr (Combined) weight = Isa::Broadcast(v + r);
#pragma GCC unroll 4
        for (int b = 0; b < B; ++b) {
          const Vec x0 = Isa::Broadcast(u.xa[b] + r);
          const Vec x1 = Isa::Load(run.p + r * ld + u.Block(b) * L);
          const Mask kept = KeptLanes<Isa, B, Shared>(run, u, b, r);
          if constexpr (HasWeights)
            weightSum[b] = Isa::AddIf(kept, weightSum[b], Isa::Broadcast(w + r));
          if constexpr (HasRegWeights) combinedSum[b] = Isa::AddIf(kept, combinedSum[b], weight);
          const Mask firstRow = Isa::AndNot(kept, seen[b]);
          MeanStep<Isa, Combined>(kept, firstRow, x0, weight, first0[b], inRun0[b], run0[b],
                                  rest0[b]);
          MeanStep<Isa, Combined>(kept, firstRow, x1, weight, first1[b], inRun1[b], run1[b],
                                  rest1[b]);
          seen[b] = Isa::Or(seen[b], kept);
        }
        return true;
      });
  // Every lane that keeps a row from here on has seen its first and left
  // its run: a kept row only adds to the sums.
  WalkRows<Shared>(
      u.bits[0], settled, run.rows, [&](Index r) __attribute__((always_inline)) {
        const double* qr = run.q + r * ld;
        Vec weight = one;
        if constexpr (Combined) weight = Isa::Broadcast(v + r);
        Vec add0[X];
#pragma GCC unroll 4
        for (int x = 0; x < X; ++x) {
          const Vec x0 = Isa::Broadcast(u.xa[x] + r);
          add0[x] = Combined ? Isa::Mul(x0, weight) : x0;
        }
#pragma GCC unroll 4
        for (int b = 0; b < B; ++b) {
          const Mask kept = KeptLanes<Isa, B, Shared>(run, u, b, r);
          if constexpr (HasWeights)
            weightSum[b] = Isa::AddIf(kept, weightSum[b], Isa::Broadcast(w + r));
          if constexpr (HasRegWeights) combinedSum[b] = Isa::AddIf(kept, combinedSum[b], weight);
          rest0[b] = Isa::AddIf(kept, rest0[b], add0[Shared ? 0 : b]);
          rest1[b] = Isa::AddIf(kept, rest1[b], Isa::Load(qr + u.Block(b) * L));
        }
        return true;
      });
#pragma GCC unroll 4
  for (int b = 0; b < B; ++b) {
    double* s = run.units[b].state;
    Isa::Store(s + kWeightSum * L, weightSum[b]);
    Isa::Store(s + kCombinedSum * L, combinedSum[b]);
    Isa::Store(s + kSeen * L, Isa::FromMask(seen[b]));
    Isa::Store(s + kFirst0 * L, first0[b]);
    Isa::Store(s + kInRun0 * L, Isa::FromMask(inRun0[b]));
    Isa::Store(s + kRun0 * L, run0[b]);
    Isa::Store(s + kRest0 * L, rest0[b]);
    Isa::Store(s + kFirst1 * L, first1[b]);
    Isa::Store(s + kInRun1 * L, Isa::FromMask(inRun1[b]));
    Isa::Store(s + kRun1 * L, run1[b]);
    Isa::Store(s + kRest1 * L, rest1[b]);
  }
}

// Pass 2 for B units side by side, as pass 1.
template <class Isa, int B, bool Shared, bool Combined>
void PairsPass2(const PairsRun& run) {
  using Vec = typename Isa::Vec;
  using Mask = typename Isa::Mask;
  constexpr int L = Isa::kLanes;
  constexpr int X = Shared ? 1 : B;  // first variables
  const double* const v = run.v;
  const Index ld = run.ld;
  const UnitPointers<B, Shared> u(run.units);
  Vec mean0[B], mean1[B], css0[B], css1[B], cscp[B];
#pragma GCC unroll 4
  for (int b = 0; b < B; ++b) {
    const double* s = run.units[b].state;
    mean0[b] = Isa::Load(s + kMean0 * L);
    mean1[b] = Isa::Load(s + kMean1 * L);
    css0[b] = Isa::Load(s + kCss0 * L);
    css1[b] = Isa::Load(s + kCss1 * L);
    cscp[b] = Isa::Load(s + kCscp * L);
  }
  WalkRows<Shared>(
      u.bits[0], 0, run.rows, [&](Index r) __attribute__((always_inline)) {
        const double* pr = run.p + r * ld;
        Vec weight = Isa::Set1(1.0);
        if constexpr (Combined) weight = Isa::Broadcast(v + r);
        Vec xs[X];
#pragma GCC unroll 4
        for (int x = 0; x < X; ++x)
          xs[x] = Isa::Broadcast(u.xa[x] + r);
#pragma GCC unroll 4
        for (int b = 0; b < B; ++b) {
          const Mask kept = KeptLanes<Isa, B, Shared>(run, u, b, r);
          const Vec c0 = Isa::Sub(xs[Shared ? 0 : b], mean0[b]);
          const Vec c1 = Isa::Sub(Isa::Load(pr + u.Block(b) * L), mean1[b]);
          if constexpr (Combined) {
            // WeightedDotProduct: (a * w) * b, in that order.
            const Vec t0 = Isa::Mul(c0, weight);
            css0[b] = Isa::AddIf(kept, css0[b], Isa::Mul(t0, c0));
            css1[b] = Isa::AddIf(kept, css1[b], Isa::Mul(Isa::Mul(c1, weight), c1));
            cscp[b] = Isa::AddIf(kept, cscp[b], Isa::Mul(t0, c1));
          } else {
            css0[b] = Isa::AddIf(kept, css0[b], Isa::Mul(c0, c0));
            css1[b] = Isa::AddIf(kept, css1[b], Isa::Mul(c1, c1));
            cscp[b] = Isa::AddIf(kept, cscp[b], Isa::Mul(c0, c1));
          }
        }
        return true;
      });
#pragma GCC unroll 4
  for (int b = 0; b < B; ++b) {
    double* s = run.units[b].state;
    Isa::Store(s + kCss0 * L, css0[b]);
    Isa::Store(s + kCss1 * L, css1[b]);
    Isa::Store(s + kCscp * L, cscp[b]);
  }
}

// The means of pass 1's states, lane by lane, as StableMean ends: no cell
// gives 0.0, a run to the end gives its value, and otherwise
// (rest + first * runWeight) / total, total being the combined total (the
// weight total, or the count, when there is no more).
template <class Isa, bool HasWeights, bool HasRegWeights>
void PairsMeans(const double* s1, double* s2) {
  using Vec = typename Isa::Vec;
  constexpr int L = Isa::kLanes;
  const Vec count = Isa::Load(s1 + kCount * L);
  Vec total = HasWeights ? Isa::Load(s1 + kWeightSum * L) : count;
  if constexpr (HasRegWeights) total = Isa::Load(s1 + kCombinedSum * L);
  const typename Isa::Mask seen = Isa::ToMask(Isa::Load(s1 + kSeen * L));
  const Vec zero = Isa::Set1(0.0);
  const int fields[2][5] = {{kFirst0, kInRun0, kRun0, kRest0, kMean0},
                            {kFirst1, kInRun1, kRun1, kRest1, kMean1}};
  for (const auto& f : fields) {
    const Vec first = Isa::Load(s1 + f[0] * L);
    const typename Isa::Mask inRun = Isa::ToMask(Isa::Load(s1 + f[1] * L));
    // Deliberate order: rest, plus first times the run's weight, over the total.
    const Vec mean = Isa::Div(
        Isa::Add(Isa::Load(s1 + f[3] * L), Isa::Mul(first, Isa::Load(s1 + f[2] * L))), total);
    Isa::Store(s2 + f[4] * L, Isa::Select(seen, Isa::Select(inRun, first, mean), zero));
  }
  Isa::Store(s2 + kCss0 * L, zero);
  Isa::Store(s2 + kCss1 * L, zero);
  Isa::Store(s2 + kCscp * L, zero);
}

// The passes over B units, for B from 1 to the level's kPairBlocks.
template <class Isa, int B, bool HasWeights, bool Combined, bool HasRegWeights>
void RunPass(int pass, int units, bool shared, const PairsRun& run) {
  if constexpr (B > 1) {
    if (units < B) {
      RunPass<Isa, B - 1, HasWeights, Combined, HasRegWeights>(pass, units, shared, run);
      return;
    }
  }
  if (pass == 1) {
    if (shared)
      PairsPass1<Isa, B, true, HasWeights, Combined, HasRegWeights>(run);
    else
      PairsPass1<Isa, B, false, HasWeights, Combined, HasRegWeights>(run);
  } else {
    if (shared)
      PairsPass2<Isa, B, true, Combined>(run);
    else
      PairsPass2<Isa, B, false, Combined>(run);
  }
}

// The row counts of a unit's lanes, added to its state: whole numbers, exact
// in any order.
template <class Isa>
void CountRows(const PairsUnit& unit, const RowBits* bitsB, Index stride, Index words,
               Index lanes) {
  constexpr int L = Isa::kLanes;
  for (Index l = 0; l < lanes; ++l) {
    const RowBits* x1 = bitsB + l * stride;
    Index kept = 0;
    for (Index k = 0; k < words; ++k)
      kept += __builtin_popcountll(unit.bits[k] & x1[k]);
    unit.state[kCount * L + l] += static_cast<double>(kept);
  }
}

// The last row of the chunk that is the first kept row of a lane of the
// units not seen in the chunks before; -1 when there is none.
template <class Isa>
Index LastFirstRow(const PairsUnit* units, Index count, const RowBits* bitsB, Index stride,
                   Index words, Index nB) {
  constexpr int L = Isa::kLanes;
  Index last = -1;
  for (Index u = 0; u < count; ++u) {
    const PairsUnit& unit = units[u];
    for (Index l = 0; l < Smaller(L, nB - unit.block * L); ++l) {
      if (unit.state[kSeen * L + l] != 0.0) continue;
      const RowBits* x1 = bitsB + (unit.block * L + l) * stride;
      for (Index k = 0; k < words; ++k)
        if (const RowBits both = unit.bits[k] & x1[k]; both != 0) {
          const Index first = k * kRowBits + __builtin_ctzll(both);
          if (first > last) last = first;
          break;
        }
    }
  }
  return last;
}

template <class Isa, bool HasWeights, bool Combined, bool HasRegWeights>
void RunMaskedPairs(const MaskedPairsJob& job, const PairsLayout& lay, double* scratch) {
  constexpr int L = Isa::kLanes;
  const ColumnBlock& seconds = job.triangle ? job.first : job.second;
  double* panel = scratch + lay.p;
  double* products = Combined ? scratch + lay.q : panel;
  auto* masks = reinterpret_cast<LaneBits*>(scratch + lay.masks);
  auto* bitsA = reinterpret_cast<RowBits*>(scratch + lay.bitsA);
  auto* bitsB = reinterpret_cast<RowBits*>(scratch + lay.bitsB);
  auto* units = reinterpret_cast<PairsUnit*>(scratch + lay.units);
  auto* missing = reinterpret_cast<bool*>(scratch + lay.flags);
  bool* missingB = job.triangle ? missing : missing + lay.nA;
  double* nans = scratch + lay.nans;
  auto* ones = reinterpret_cast<RowBits*>(scratch + lay.ones);
  double* states1 = scratch + lay.state1;
  double* states2 = scratch + lay.state2;
  const Index stateCount = (static_cast<Index>(lay.nA) + 1) * lay.blocks;
  Clear(states1, stateCount * L * kPass1Fields);
  Clear(panel, lay.chunk * lay.ld);  // lanes past the last column stay zero
  if constexpr (Combined) Clear(products, lay.chunk * lay.ld);
  for (Index r = 0; r < lay.chunk; ++r)
    nans[r] = __builtin_nan("");
  for (Index k = 0; k < lay.words; ++k)
    ones[k] = ~RowBits{0};

  for (Index a = 0; a < lay.nA; ++a)
    missing[a] = HasMissing<Isa>(ColumnOf(job.first, a), job.nRows, job.missingCode);
  if (!job.triangle)
    for (Index b = 0; b < lay.nB; ++b)
      missingB[b] = HasMissing<Isa>(ColumnOf(seconds, b), job.nRows, job.missingCode);
  // Whether a block of lanes has a column with a missing cell.
  auto blockMissing = [&](Index block) {
    for (Index b = block * L; b < Smaller((block + 1) * L, lay.nB); ++b)
      if (missingB[b]) return true;
    return false;
  };
  // The first variables in turn (a triangle's pair with the columns before
  // it), then, for the columns' own figures, one that is never missing. A
  // block is left out when neither side has a missing cell and the caller
  // takes such pairs elsewhere.
  const Index variables = lay.nA + (job.columns != nullptr ? 1 : 0);
  auto blocksOf = [&](Index a) {
    return job.triangle && a < lay.nA ? (a + L - 1) / L : lay.blocks;
  };
  auto firstMissing = [&](Index a) { return a < lay.nA && missing[a]; };
  // Where a first variable's presence bits are: a triangle's first
  // variables are its seconds.
  auto bitsOf = [&](Index a) {
    if (!firstMissing(a)) return static_cast<const RowBits*>(ones);
    return static_cast<const RowBits*>((job.triangle ? bitsB : bitsA) + a * lay.words);
  };
  auto wanted = [&](Index a, Index block) {
    return job.completePairs || firstMissing(a) || blockMissing(block);
  };

  for (int pass = 1; pass <= 2; ++pass) {
    double* states = pass == 1 ? states1 : states2;
    const Index fields = pass == 1 ? Index{kPass1Fields} : Index{kPass2Fields};
    for (Index i0 = 0; i0 < job.nRows; i0 += lay.chunk) {
      const Index rows = Smaller(lay.chunk, job.nRows - i0);
      const Index words = (rows + kRowBits - 1) / kRowBits;
      const double* v = Combined ? job.combined + i0 : nullptr;
      // Pass 2 reads no products.
      if (pass == 1)
        PackSeconds<Isa, Combined>(seconds, i0, rows, v, job.missingCode, lay, panel, products,
                                   masks);
      else
        PackSeconds<Isa, false>(seconds, i0, rows, v, job.missingCode, lay, panel, products, masks);
      // The seconds' bits count rows in pass 1; the first variables' bits
      // keep rows in both.
      if (pass == 1 || job.triangle)
        for (Index b = 0; b < lay.nB; ++b)
          PresenceBits<Isa>(ColumnOf(seconds, b) + i0, rows, job.missingCode,
                            bitsB + b * lay.words);
      if (!job.triangle)
        for (Index a = 0; a < lay.nA; ++a)
          if (missing[a])
            PresenceBits<Isa>(ColumnOf(job.first, a) + i0, rows, job.missingCode,
                              bitsA + a * lay.words);
      // The units of one first variable with blocks one after the other go
      // in groups of up to K, as even as can be; a first variable's only
      // unit joins those of others.
      constexpr Index K = Isa::kPairBlocks;
      Index shared = 0, mixed = stateCount;
      for (Index a = 0; a < variables; ++a) {
        const double* xa = a < lay.nA ? ColumnOf(job.first, a) + i0 : nans;
        const Index from = shared;
        for (Index b = 0; b < blocksOf(a); ++b) {
          if (!wanted(a, b)) continue;
          double* state = states + (a * lay.blocks + b) * L * fields;
          units[shared] = PairsUnit{xa, bitsOf(a), b, state};
          if (pass == 1)
            CountRows<Isa>(units[shared], bitsB + b * L * lay.words, lay.words, words,
                           Smaller(L, lay.nB - b * L));
          ++shared;
        }
        if (shared - from == 1) units[mixed++] = units[--shared];
      }
      PairsRun run{panel,      products, masks, lay.ld,
                   lay.blocks, rows,     -1,    HasWeights ? job.weights + i0 : nullptr,
                   v,          nullptr};
      auto runUnits = [&](Index u, Index count, bool sharing) {
        run.units = units + u;
        if (pass == 1)
          run.lastFirst = LastFirstRow<Isa>(run.units, count, bitsB, lay.words, words, lay.nB);
        RunPass<Isa, K, HasWeights, Combined, HasRegWeights>(pass, static_cast<int>(count), sharing,
                                                             run);
      };
      for (Index u = 0; u < shared;) {
        Index along = 1;
        while (u + along < shared && units[u + along].xa == units[u].xa
               && units[u + along].block == units[u].block + along)
          ++along;
        const Index groups = (along + K - 1) / K;
        for (Index g = 0; g < groups; ++g) {
          const Index count = along / groups + (g < along % groups ? 1 : 0);
          runUnits(u, count, true);
          u += count;
        }
      }
      for (Index u = stateCount; u < mixed; u += K)
        runUnits(u, Smaller(K, mixed - u), false);
    }
    if (pass == 1)
      for (Index at = 0; at < stateCount; ++at)
        PairsMeans<Isa, HasWeights, HasRegWeights>(states1 + at * L * kPass1Fields,
                                                   states2 + at * L * kPass2Fields);
  }

  // The figures of every pair and column asked for.
  auto figures = [&](Index a, Index b, auto& out) {
    const Index at = a * lay.blocks + b / L, l = b % L;
    const double* s1 = states1 + at * L * kPass1Fields + l;
    const double* s2 = states2 + at * L * kPass2Fields + l;
    out.nRows = s1[kCount * L];
    out.weightSum = HasWeights ? s1[kWeightSum * L] : out.nRows;
    out.regWeightSum = HasRegWeights ? s1[kCombinedSum * L] : out.weightSum;
    if constexpr (requires { out.cscp; }) {
      out.mean0 = s2[kMean0 * L];
      out.mean1 = s2[kMean1 * L];
      out.css0 = s2[kCss0 * L];
      out.css1 = s2[kCss1 * L];
      out.cscp = s2[kCscp * L];
    } else {
      out.mean = s2[kMean1 * L];
      out.css = s2[kCss1 * L];
    }
  };
  for (Index a = 0; a < lay.nA; ++a) {
    const Index lanes = job.triangle ? a : lay.nB;
    for (Index b = 0; b < lanes; ++b)
      if (job.completePairs || missing[a] || missingB[b])
        figures(a, b, job.out[job.triangle ? a * (a - 1) / 2 + b : a * lay.nB + b]);
  }
  if (job.columns != nullptr)
    for (Index b = 0; b < lay.nB; ++b)
      if (job.completePairs || missingB[b]) figures(lay.nA, b, job.columns[b]);
}

template <class Isa>
void RunMaskedPairs(const MaskedPairsJob& job) {
  const bool w = job.weights != nullptr, v = job.combined != nullptr, rw = job.hasRegWeights;
  const PairsLayout lay = MakePairsLayout<Isa>(job, v);
  if (lay.nA == 0 || lay.nB == 0) return;
  double* scratch = ScratchBuffer(static_cast<std::size_t>(lay.total));
  // Regression weights always make combined weights; weights alone are them.
  if (w && v && rw)
    RunMaskedPairs<Isa, true, true, true>(job, lay, scratch);
  else if (w && v)
    RunMaskedPairs<Isa, true, true, false>(job, lay, scratch);
  else if (v && rw)
    RunMaskedPairs<Isa, false, true, true>(job, lay, scratch);
  else
    RunMaskedPairs<Isa, false, false, false>(job, lay, scratch);
}

}  // namespace
}  // namespace vorel::internal::engine
