// The masked pair kernel: pairs of columns with pairwise deletion, a vector
// lane per pair. Written once over a level's Isa, with internal linkage only
// (see common.h).
//
// For a first variable a and a block of kLanes second variables, two passes
// go down the rows in chunks. Each pass takes only the rows where a's cell is
// not missing (a list of them per chunk), and a lane takes such a row when
// its own cell is not missing either, by a mask worked out once per chunk
// (one bit a lane and row); otherwise the lane skips the row.
//   Pass 1: the weight totals, and per column the running state of
//           StableMean over the kept cells: whether a cell was seen, the
//           first kept cell, whether the leading run of that value goes on,
//           the run's weight, and the sum of the rest.
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

using LaneBits = std::uint8_t;  // one block of lanes of one row: bit l set, lane l's cell is there
using RowBits = std::uint64_t;  // 64 rows of one column, likewise
constexpr Index kRowBits = 64;

struct PairsLayout {
  int nA = 0;        // first variables
  int nB = 0;        // second variables: the lanes
  Index blocks = 0;  // blocks of lanes
  Index ld = 0;      // row stride of the panels
  Index chunk = 0;   // rows per chunk
  Index words = 0;   // words of a column's bits in a chunk
  // Offsets in the scratch, in doubles. States: one per block of each first
  // variable, then one per block of the first variable that is never missing.
  Index p = 0, q = 0, masks = 0, bitsA = 0, bitsB = 0, list = 0, all = 0, zeros = 0, flags = 0;
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
  lay.list = at;
  at += DoublesFor(lay.chunk * static_cast<Index>(sizeof(std::int32_t)));
  lay.all = at;
  at += DoublesFor(lay.chunk * static_cast<Index>(sizeof(std::int32_t)));
  lay.zeros = at;
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

// The rows of a chunk whose bits are set, in order; returns how many.
Index ListRows(const RowBits* bits, Index words, std::int32_t* list) {
  Index count = 0;
  for (Index w = 0; w < words; ++w) {
    RowBits word = bits[w];
    while (word != 0) {
      list[count++] = static_cast<std::int32_t>(w * kRowBits + __builtin_ctzll(word));
      word &= word - 1;
    }
  }
  return count;
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
  for (Index r = 0; r < rows; ++r) {
    const double* pr = p + r * lay.ld;
    double* qr = q + r * lay.ld;
    for (Index b = 0; b < lay.blocks; ++b) {
      const typename Isa::Vec x = Isa::Load(pr + b * L);
      masks[r * lay.blocks + b] = static_cast<LaneBits>(Isa::Bits(Isa::NotEqual(x, c)));
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

// Where one first variable's passes read and write, over B blocks of lanes
// side by side (more sums that do not wait for each other): the first
// variable's cells, the panels and masks from the first block on, the rows
// of the chunk to take, and the states of the B blocks.
struct PairsRun {
  const double* xa;
  const double* p;
  const double* q;
  const LaneBits* masks;
  Index ld, masksLd;
  const std::int32_t* rows;
  Index count;
  const double* w;
  const double* v;
  double* const* state;
};

template <class Isa, int B, bool HasWeights, bool Combined, bool HasRegWeights>
void PairsPass1(const PairsRun& run) {
  using Vec = typename Isa::Vec;
  using Mask = typename Isa::Mask;
  constexpr int L = Isa::kLanes;
  const double* const xa = run.xa;
  const double* const p = run.p;
  const double* const q = run.q;
  const double* const w = run.w;
  const double* const v = run.v;
  const Index ld = run.ld, mld = run.masksLd;
  const Vec one = Isa::Set1(1.0);
  Vec weightSum[B], combinedSum[B], first0[B], run0[B], rest0[B], first1[B], run1[B], rest1[B];
  Mask seen[B], inRun0[B], inRun1[B];
#pragma GCC unroll 4
  for (int b = 0; b < B; ++b) {
    const double* s = run.state[b];
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
  Index i = 0;
  while (i < run.count) {
    // Once no lane is in a leading run, a kept row only adds to the rest,
    // unless it is a lane's first: the rows go by this short form, with no
    // chain of masks from one row to the next, until such a row comes.
    bool running = false;
#pragma GCC unroll 4
    for (int b = 0; b < B; ++b)
      running = running || Isa::Any(Isa::Or(inRun0[b], inRun1[b]));
    if (!running) {
      for (; i < run.count; ++i) {
        const Index r = run.rows[i];
        Mask kept[B];
        bool fresh = false;
#pragma GCC unroll 4
        for (int b = 0; b < B; ++b) {
          kept[b] = Isa::MaskFromBits(run.masks[r * mld + b]);
          fresh = fresh || Isa::Any(Isa::AndNot(kept[b], seen[b]));
        }
        if (fresh) break;
        const Vec x0 = Isa::Broadcast(xa + r);
        Vec weight = one;
        if constexpr (Combined) weight = Isa::Broadcast(v + r);
        const Vec add0 = Combined ? Isa::Mul(x0, weight) : x0;
#pragma GCC unroll 4
        for (int b = 0; b < B; ++b) {
          if constexpr (HasWeights)
            weightSum[b] = Isa::AddIf(kept[b], weightSum[b], Isa::Broadcast(w + r));
          if constexpr (HasRegWeights) combinedSum[b] = Isa::AddIf(kept[b], combinedSum[b], weight);
          rest0[b] = Isa::AddIf(kept[b], rest0[b], add0);
          rest1[b] = Isa::AddIf(kept[b], rest1[b], Isa::Load(q + r * ld + b * L));
        }
      }
      if (i == run.count) break;
    }
    const Index r = run.rows[i];
    const Vec x0 = Isa::Broadcast(xa + r);
    Vec weight = one;
    if constexpr (Combined) weight = Isa::Broadcast(v + r);
#pragma GCC unroll 4
    for (int b = 0; b < B; ++b) {
      const Vec x1 = Isa::Load(p + r * ld + b * L);
      const Mask kept = Isa::MaskFromBits(run.masks[r * mld + b]);
      if constexpr (HasWeights)
        weightSum[b] = Isa::AddIf(kept, weightSum[b], Isa::Broadcast(w + r));
      if constexpr (HasRegWeights) combinedSum[b] = Isa::AddIf(kept, combinedSum[b], weight);
      const Mask firstRow = Isa::AndNot(kept, seen[b]);
      MeanStep<Isa, Combined>(kept, firstRow, x0, weight, first0[b], inRun0[b], run0[b], rest0[b]);
      MeanStep<Isa, Combined>(kept, firstRow, x1, weight, first1[b], inRun1[b], run1[b], rest1[b]);
      seen[b] = Isa::Or(seen[b], kept);
    }
    ++i;
  }
#pragma GCC unroll 4
  for (int b = 0; b < B; ++b) {
    double* s = run.state[b];
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

// Pass 2 for B blocks of lanes side by side, as pass 1.
template <class Isa, int B, bool Combined>
void PairsPass2(const PairsRun& run) {
  using Vec = typename Isa::Vec;
  using Mask = typename Isa::Mask;
  constexpr int L = Isa::kLanes;
  const double* const xa = run.xa;
  const double* const p = run.p;
  const double* const v = run.v;
  const Index ld = run.ld, mld = run.masksLd;
  Vec mean0[B], mean1[B], css0[B], css1[B], cscp[B];
#pragma GCC unroll 4
  for (int b = 0; b < B; ++b) {
    mean0[b] = Isa::Load(run.state[b] + kMean0 * L);
    mean1[b] = Isa::Load(run.state[b] + kMean1 * L);
    css0[b] = Isa::Load(run.state[b] + kCss0 * L);
    css1[b] = Isa::Load(run.state[b] + kCss1 * L);
    cscp[b] = Isa::Load(run.state[b] + kCscp * L);
  }
  for (Index i = 0; i < run.count; ++i) {
    const Index r = run.rows[i];
    const Vec x0 = Isa::Broadcast(xa + r);
    Vec weight = Isa::Set1(1.0);
    if constexpr (Combined) weight = Isa::Broadcast(v + r);
#pragma GCC unroll 4
    for (int b = 0; b < B; ++b) {
      const Mask kept = Isa::MaskFromBits(run.masks[r * mld + b]);
      const Vec x1 = Isa::Load(p + r * ld + b * L);
      const Vec c0 = Isa::Sub(x0, mean0[b]);
      const Vec c1 = Isa::Sub(x1, mean1[b]);
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
  }
#pragma GCC unroll 4
  for (int b = 0; b < B; ++b) {
    Isa::Store(run.state[b] + kCss0 * L, css0[b]);
    Isa::Store(run.state[b] + kCss1 * L, css1[b]);
    Isa::Store(run.state[b] + kCscp * L, cscp[b]);
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

// The passes over B blocks, for B from 1 to the level's kPairBlocks.
template <class Isa, int B, bool HasWeights, bool Combined, bool HasRegWeights>
void RunPass(int pass, int blocks, const PairsRun& run) {
  if constexpr (B > 1) {
    if (blocks < B) {
      RunPass<Isa, B - 1, HasWeights, Combined, HasRegWeights>(pass, blocks, run);
      return;
    }
  }
  if (pass == 1)
    PairsPass1<Isa, B, HasWeights, Combined, HasRegWeights>(run);
  else
    PairsPass2<Isa, B, Combined>(run);
}

// Which blocks of lanes one first variable needs, and where its states lie.
struct FirstVariable {
  const double* x;  // its cells; the zeros for the variable that is never missing
  bool missing;     // has a missing cell in the rows
  Index blocks;     // blocks of lanes it pairs with
  Index states;     // index of its first block's states
};

template <class Isa, bool HasWeights, bool Combined, bool HasRegWeights>
void RunMaskedPairs(const MaskedPairsJob& job, const PairsLayout& lay, double* scratch) {
  constexpr int L = Isa::kLanes;
  const ColumnBlock& seconds = job.triangle ? job.first : job.second;
  double* panel = scratch + lay.p;
  double* products = Combined ? scratch + lay.q : panel;
  auto* masks = reinterpret_cast<LaneBits*>(scratch + lay.masks);
  auto* bitsA = reinterpret_cast<RowBits*>(scratch + lay.bitsA);
  auto* bitsB = reinterpret_cast<RowBits*>(scratch + lay.bitsB);
  auto* list = reinterpret_cast<std::int32_t*>(scratch + lay.list);
  auto* all = reinterpret_cast<std::int32_t*>(scratch + lay.all);
  auto* missing = reinterpret_cast<bool*>(scratch + lay.flags);
  bool* missingB = job.triangle ? missing : missing + lay.nA;
  double* states1 = scratch + lay.state1;
  double* states2 = scratch + lay.state2;
  const Index perVariable = lay.blocks;
  const Index stateCount = (static_cast<Index>(lay.nA) + 1) * perVariable;
  Clear(states1, stateCount * L * kPass1Fields);
  Clear(panel, lay.chunk * lay.ld);  // lanes past the last column stay zero
  if constexpr (Combined) Clear(products, lay.chunk * lay.ld);
  Clear(scratch + lay.zeros, lay.chunk);
  for (Index r = 0; r < lay.chunk; ++r)
    all[r] = static_cast<std::int32_t>(r);

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

  // The first variables in turn, then the one that is never missing (for
  // the columns' own figures, lanes being the first variables).
  const Index variables = lay.nA + (job.columns != nullptr ? 1 : 0);
  auto variable = [&](Index a) {
    if (a == lay.nA) return FirstVariable{scratch + lay.zeros, false, lay.blocks, a * perVariable};
    const Index blocks = job.triangle ? (a + L - 1) / L : lay.blocks;
    return FirstVariable{ColumnOf(job.first, a), missing[a], blocks, a * perVariable};
  };
  // A block is skipped when neither side has a missing cell and the caller
  // takes such pairs elsewhere.
  auto wanted = [&](const FirstVariable& f, Index block) {
    return job.completePairs || f.missing || blockMissing(block);
  };

  for (int pass = 1; pass <= 2; ++pass) {
    for (Index i0 = 0; i0 < job.nRows; i0 += lay.chunk) {
      const Index rows = Smaller(lay.chunk, job.nRows - i0);
      const double* v = Combined ? job.combined + i0 : nullptr;
      PackSeconds<Isa, Combined>(seconds, i0, rows, v, job.missingCode, lay, panel, products,
                                 masks);
      for (Index b = 0; b < lay.nB; ++b)
        PresenceBits<Isa>(ColumnOf(seconds, b) + i0, rows, job.missingCode, bitsB + b * lay.words);
      if (!job.triangle)
        for (Index a = 0; a < lay.nA; ++a)
          if (missing[a])
            PresenceBits<Isa>(ColumnOf(job.first, a) + i0, rows, job.missingCode,
                              bitsA + a * lay.words);
      const Index words = (rows + kRowBits - 1) / kRowBits;
      PairsRun run{};
      run.ld = lay.ld;
      run.masksLd = lay.blocks;
      run.w = HasWeights ? job.weights + i0 : nullptr;
      run.v = v;
      for (Index a = 0; a < variables; ++a) {
        const FirstVariable f = variable(a);
        run.xa = a == lay.nA ? f.x : f.x + i0;
        if (f.missing) {
          run.rows = list;
          run.count = ListRows(bitsA + a * lay.words, words, list);
        } else {
          run.rows = all;
          run.count = rows;
        }
        for (Index b = 0; b < f.blocks;) {
          if (!wanted(f, b)) {
            ++b;
            continue;
          }
          Index take = 1;
          while (take < Isa::kPairBlocks && b + take < f.blocks && wanted(f, b + take))
            ++take;
          double* states[Isa::kPairBlocks];
          double* base = pass == 1 ? states1 : states2;
          const Index fields = pass == 1 ? Index{kPass1Fields} : Index{kPass2Fields};
          for (Index t = 0; t < take; ++t)
            states[t] = base + (f.states + b + t) * L * fields;
          run.p = panel + b * L;
          run.q = products + b * L;
          run.masks = masks + b;
          run.state = states;
          RunPass<Isa, Isa::kPairBlocks, HasWeights, Combined, HasRegWeights>(
              pass, static_cast<int>(take), run);
          if (pass == 1) {
            // The row counts of these lanes: whole numbers, exact in any order.
            for (Index t = 0; t < take; ++t)
              for (Index l = 0; l < L && (b + t) * L + l < lay.nB; ++l) {
                const RowBits* x1 = bitsB + ((b + t) * L + l) * lay.words;
                const RowBits* x0 = f.missing ? bitsA + a * lay.words : nullptr;
                Index kept = 0;
                for (Index k = 0; k < words; ++k)
                  kept += __builtin_popcountll(x0 != nullptr ? x0[k] & x1[k] : x1[k]);
                states[t][kCount * L + l] += static_cast<double>(kept);
              }
          }
          b += take;
        }
      }
    }
    if (pass == 1)
      for (Index at = 0; at < stateCount; ++at)
        PairsMeans<Isa, HasWeights, HasRegWeights>(states1 + at * L * kPass1Fields,
                                                   states2 + at * L * kPass2Fields);
  }

  // The figures of every pair and column asked for.
  for (Index a = 0; a < lay.nA; ++a) {
    const FirstVariable f = variable(a);
    const Index lanes = job.triangle ? a : lay.nB;
    for (Index b = 0; b < lanes; ++b) {
      if (!job.completePairs && !f.missing && !missingB[b]) continue;
      const Index at = a * perVariable + b / L, l = b % L;
      const double* s1 = states1 + at * L * kPass1Fields + l;
      const double* s2 = states2 + at * L * kPass2Fields + l;
      PairFigures& out = job.out[job.triangle ? a * (a - 1) / 2 + b : a * lay.nB + b];
      out.nRows = s1[kCount * L];
      out.weightSum = HasWeights ? s1[kWeightSum * L] : out.nRows;
      out.regWeightSum = HasRegWeights ? s1[kCombinedSum * L] : out.weightSum;
      out.mean0 = s2[kMean0 * L];
      out.mean1 = s2[kMean1 * L];
      out.css0 = s2[kCss0 * L];
      out.css1 = s2[kCss1 * L];
      out.cscp = s2[kCscp * L];
    }
  }
  if (job.columns != nullptr) {
    for (Index b = 0; b < lay.nB; ++b) {
      if (!job.completePairs && !missingB[b]) continue;
      const Index at = lay.nA * perVariable + b / L, l = b % L;
      const double* s1 = states1 + at * L * kPass1Fields + l;
      const double* s2 = states2 + at * L * kPass2Fields + l;
      ColumnFigures& out = job.columns[b];
      out.nRows = s1[kCount * L];
      out.weightSum = HasWeights ? s1[kWeightSum * L] : out.nRows;
      out.regWeightSum = HasRegWeights ? s1[kCombinedSum * L] : out.weightSum;
      out.mean = s2[kMean1 * L];
      out.css = s2[kCss1 * L];
    }
  }
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
