// The masked pair kernel: pairs of columns with pairwise deletion, a vector
// lane per pair. Written once over a level's Isa, with internal linkage only
// (see common.h).
//
// For a first variable a and a block of kLanes second variables, two passes
// go down the rows in chunks. A lane takes a row when neither of its cells is
// the missing code, and skips it by mask otherwise.
//   Pass 1: the row count, the weight totals, and per column the running
//           state of StableMean over the kept cells: whether a cell was seen,
//           the first kept cell, whether the leading run of that value goes
//           on, the run's weight, and the sum of the rest.
//   Then the means, lane by lane, as StableMean ends.
//   Pass 2: the corrected sums of the centred kept cells.
// The second variables are read through a panel (one row of the chunk after
// the other) so that a vector load gives a lane its own column's cell; the
// first variable's cell is broadcast.
#pragma once

#include <cstddef>

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

struct PairsLayout {
  int nA = 0;                               // first variables
  int nB = 0;                               // second variables: the lanes
  Index blocks = 0;                         // blocks of lanes per first variable
  Index ld = 0;                             // row stride of the panel
  Index chunk = 0;                          // rows per chunk
  Index state1 = 0, state2 = 0, total = 0;  // offsets and size in the scratch
};

template <class Isa>
PairsLayout MakePairsLayout(const MaskedPairsJob& job) {
  constexpr Index kLanes = Isa::kLanes;
  PairsLayout lay;
  lay.nA = job.first.count;
  lay.nB = job.triangle ? job.first.count : job.second.count;
  lay.blocks = (lay.nB + kLanes - 1) / kLanes;
  lay.ld = AlignUp(lay.nB, 8);
  if (lay.ld % 64 == 0) lay.ld += 8;
  const Index rowBytes = lay.ld * static_cast<Index>(sizeof(double));
  Index chunk = kL2PanelBytes / 2 / rowBytes;
  if (chunk < kMinChunkRows) chunk = kMinChunkRows;
  if (chunk > kMaxChunkRows) chunk = kMaxChunkRows;
  lay.chunk = Smaller(chunk / 4 * 4, AlignUp(job.nRows, 4));
  if (lay.chunk < 4) lay.chunk = 4;
  const Index states = static_cast<Index>(lay.nA) * lay.blocks * kLanes;
  lay.state1 = lay.chunk * lay.ld;
  lay.state2 = lay.state1 + states * kPass1Fields;
  lay.total = lay.state2 + states * kPass2Fields;
  return lay;
}

// The second variables of a chunk into the panel, as they are.
template <class Isa>
void PackSeconds(const ColumnBlock& cols, Index i0, Index rows, double* p, Index ld) {
  int j = 0;
  while (j < cols.count) {
    int take = Isa::kPacksColumns ? (cols.count - j >= 4 ? 4 : cols.count - j >= 2 ? 2 : 1) : 1;
    double* x[4];
    for (int t = 0; t < take; ++t)
      x[t] = ColumnOf(cols, j + t) + i0;
    Index done = 0;
    if constexpr (Isa::kPacksColumns)
      done = Isa::PackColumns(take, Centring::None, x, nullptr, nullptr, rows, p + j, p + j, ld);
    for (int t = 0; t < take; ++t)
      PackColumn<Centring::None, false>(x[t] + done, 0.0, nullptr, rows - done,
                                        p + j + t + done * ld, p + j + t + done * ld, ld);
    j += take;
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

// Pass 1 over rows rows for B blocks of lanes side by side (the second
// variables at p + b * kLanes, the states at state[b]): more sums that do not
// wait for each other.
template <class Isa, int B, bool HasWeights, bool Combined, bool HasRegWeights>
void PairsPass1(const double* xa, const double* p, Index ld, Index rows, const double* w,
                const double* v, double code, double* const* state) {
  using Vec = typename Isa::Vec;
  using Mask = typename Isa::Mask;
  constexpr int L = Isa::kLanes;
  const Vec one = Isa::Set1(1.0), missing = Isa::Set1(code);
  Vec count[B], weightSum[B], combinedSum[B], first0[B], run0[B], rest0[B], first1[B], run1[B],
      rest1[B];
  Mask seen[B], inRun0[B], inRun1[B];
#pragma GCC unroll 4
  for (int b = 0; b < B; ++b) {
    const double* s = state[b];
    count[b] = Isa::Load(s + kCount * L);
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
  Index r = 0;
  while (r < rows) {
    // Once no lane is in a leading run, a kept row only adds to the rest,
    // unless it is a lane's first: the rows go by this short form, with no
    // chain of masks from one row to the next, until such a row comes.
    bool running = false;
#pragma GCC unroll 4
    for (int b = 0; b < B; ++b)
      running = running || Isa::Any(Isa::Or(inRun0[b], inRun1[b]));
    if (!running) {
      for (; r < rows; ++r) {
        const Vec x0 = Isa::Broadcast(xa + r);
        const Mask keep0 = Isa::NotEqual(x0, missing);
        Mask kept[B];
        bool fresh = false;
#pragma GCC unroll 4
        for (int b = 0; b < B; ++b) {
          kept[b] = Isa::And(keep0, Isa::NotEqual(Isa::Load(p + r * ld + b * L), missing));
          fresh = fresh || Isa::Any(Isa::AndNot(kept[b], seen[b]));
        }
        if (fresh) break;
        Vec weight = one;
        if constexpr (Combined) weight = Isa::Broadcast(v + r);
        const Vec add0 = Combined ? Isa::Mul(x0, weight) : x0;
#pragma GCC unroll 4
        for (int b = 0; b < B; ++b) {
          const Vec x1 = Isa::Load(p + r * ld + b * L);
          count[b] = Isa::AddIf(kept[b], count[b], one);
          if constexpr (HasWeights)
            weightSum[b] = Isa::AddIf(kept[b], weightSum[b], Isa::Broadcast(w + r));
          if constexpr (HasRegWeights) combinedSum[b] = Isa::AddIf(kept[b], combinedSum[b], weight);
          rest0[b] = Isa::AddIf(kept[b], rest0[b], add0);
          rest1[b] = Isa::AddIf(kept[b], rest1[b], Combined ? Isa::Mul(x1, weight) : x1);
        }
      }
      if (r == rows) break;
    }
    const Vec x0 = Isa::Broadcast(xa + r);
    Vec weight = one;
    if constexpr (Combined) weight = Isa::Broadcast(v + r);
#pragma GCC unroll 4
    for (int b = 0; b < B; ++b) {
      const Vec x1 = Isa::Load(p + r * ld + b * L);
      const Mask kept = Isa::And(Isa::NotEqual(x0, missing), Isa::NotEqual(x1, missing));
      count[b] = Isa::AddIf(kept, count[b], one);
      if constexpr (HasWeights)
        weightSum[b] = Isa::AddIf(kept, weightSum[b], Isa::Broadcast(w + r));
      if constexpr (HasRegWeights) combinedSum[b] = Isa::AddIf(kept, combinedSum[b], weight);
      const Mask firstRow = Isa::AndNot(kept, seen[b]);
      MeanStep<Isa, Combined>(kept, firstRow, x0, weight, first0[b], inRun0[b], run0[b], rest0[b]);
      MeanStep<Isa, Combined>(kept, firstRow, x1, weight, first1[b], inRun1[b], run1[b], rest1[b]);
      seen[b] = Isa::Or(seen[b], kept);
    }
    ++r;
  }
#pragma GCC unroll 4
  for (int b = 0; b < B; ++b) {
    double* s = state[b];
    Isa::Store(s + kCount * L, count[b]);
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
void PairsPass2(const double* xa, const double* p, Index ld, Index rows, const double* v,
                double code, double* const* state) {
  using Vec = typename Isa::Vec;
  using Mask = typename Isa::Mask;
  constexpr int L = Isa::kLanes;
  const Vec missing = Isa::Set1(code);
  Vec mean0[B], mean1[B], css0[B], css1[B], cscp[B];
#pragma GCC unroll 4
  for (int b = 0; b < B; ++b) {
    mean0[b] = Isa::Load(state[b] + kMean0 * L);
    mean1[b] = Isa::Load(state[b] + kMean1 * L);
    css0[b] = Isa::Load(state[b] + kCss0 * L);
    css1[b] = Isa::Load(state[b] + kCss1 * L);
    cscp[b] = Isa::Load(state[b] + kCscp * L);
  }
  for (Index r = 0; r < rows; ++r) {
    const Vec x0 = Isa::Broadcast(xa + r);
    const Mask keep0 = Isa::NotEqual(x0, missing);
    Vec weight = Isa::Set1(1.0);
    if constexpr (Combined) weight = Isa::Broadcast(v + r);
#pragma GCC unroll 4
    for (int b = 0; b < B; ++b) {
      const Vec x1 = Isa::Load(p + r * ld + b * L);
      const Mask kept = Isa::And(keep0, Isa::NotEqual(x1, missing));
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
    Isa::Store(state[b] + kCss0 * L, css0[b]);
    Isa::Store(state[b] + kCss1 * L, css1[b]);
    Isa::Store(state[b] + kCscp * L, cscp[b]);
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

template <class Isa, bool HasWeights, bool Combined, bool HasRegWeights>
void RunMaskedPairs(const MaskedPairsJob& job, const PairsLayout& lay, double* scratch) {
  constexpr int L = Isa::kLanes;
  const ColumnBlock& seconds = job.triangle ? job.first : job.second;
  double* panel = scratch;
  double* states1 = scratch + lay.state1;
  double* states2 = scratch + lay.state2;
  const Index stateCount = static_cast<Index>(lay.nA) * lay.blocks;
  Clear(states1, stateCount * L * kPass1Fields);
  Clear(panel, lay.chunk * lay.ld);  // lanes past the last column stay zero
  // Blocks of lanes of first variable a: all of them, or in a triangle those
  // with a lane below a.
  auto blocksOf = [&](Index a) { return job.triangle ? (a + L - 1) / L : lay.blocks; };
  for (int pass = 1; pass <= 2; ++pass) {
    for (Index i0 = 0; i0 < job.nRows; i0 += lay.chunk) {
      const Index rows = Smaller(lay.chunk, job.nRows - i0);
      PackSeconds<Isa>(seconds, i0, rows, panel, lay.ld);
      const double* w = HasWeights ? job.weights + i0 : nullptr;
      const double* v = Combined ? job.combined + i0 : nullptr;
      for (Index a = 0; a < lay.nA; ++a) {
        const double* xa = ColumnOf(job.first, a) + i0;
        const Index blocks = blocksOf(a);
        // Two blocks of lanes at a time, then the odd one.
        for (Index b = 0; b < blocks; b += 2) {
          const Index at = a * lay.blocks + b;
          if (pass == 1) {
            double* states[2] = {states1 + at * L * kPass1Fields,
                                 states1 + (at + 1) * L * kPass1Fields};
            if (b + 1 < blocks)
              PairsPass1<Isa, 2, HasWeights, Combined, HasRegWeights>(
                  xa, panel + b * L, lay.ld, rows, w, v, job.missingCode, states);
            else
              PairsPass1<Isa, 1, HasWeights, Combined, HasRegWeights>(
                  xa, panel + b * L, lay.ld, rows, w, v, job.missingCode, states);
          } else {
            double* states[2] = {states2 + at * L * kPass2Fields,
                                 states2 + (at + 1) * L * kPass2Fields};
            if (b + 1 < blocks)
              PairsPass2<Isa, 2, Combined>(xa, panel + b * L, lay.ld, rows, v, job.missingCode,
                                           states);
            else
              PairsPass2<Isa, 1, Combined>(xa, panel + b * L, lay.ld, rows, v, job.missingCode,
                                           states);
          }
        }
      }
    }
    if (pass == 1)
      for (Index at = 0; at < stateCount; ++at)
        PairsMeans<Isa, HasWeights, HasRegWeights>(states1 + at * L * kPass1Fields,
                                                   states2 + at * L * kPass2Fields);
  }
  // The figures of every pair asked for.
  for (Index a = 0; a < lay.nA; ++a) {
    const Index lanes = job.triangle ? a : lay.nB;
    for (Index b = 0; b < lanes; ++b) {
      const Index at = a * lay.blocks + b / L, lane = b % L;
      const double* s1 = states1 + at * L * kPass1Fields + lane;
      const double* s2 = states2 + at * L * kPass2Fields + lane;
      PairFigures& f = job.out[job.triangle ? a * (a - 1) / 2 + b : a * lay.nB + b];
      f.nRows = s1[kCount * L];
      f.weightSum = HasWeights ? s1[kWeightSum * L] : f.nRows;
      f.regWeightSum = HasRegWeights ? s1[kCombinedSum * L] : f.weightSum;
      f.mean0 = s2[kMean0 * L];
      f.mean1 = s2[kMean1 * L];
      f.css0 = s2[kCss0 * L];
      f.css1 = s2[kCss1 * L];
      f.cscp = s2[kCscp * L];
    }
  }
}

template <class Isa>
void RunMaskedPairs(const MaskedPairsJob& job) {
  const PairsLayout lay = MakePairsLayout<Isa>(job);
  if (lay.nA == 0 || lay.nB == 0) return;
  double* scratch = ScratchBuffer(static_cast<std::size_t>(lay.total));
  const bool w = job.weights != nullptr, v = job.combined != nullptr, rw = job.hasRegWeights;
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
