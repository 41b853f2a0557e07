// The arithmetic of the records of one variable and of one pair, with
// pairwise deletion, shared by the two families that hold such records:
// VarStat / PairStat (int row counts, extremes) and the whole-table
// VarStatsData / PairStatsData (64-bit row counts, no extremes).
//
// Init reduces one batch in two passes over a compressed copy of the kept
// cells in work; it writes the record only after the compression, the one
// step that allocates. Update folds o into t by the update formula on means
// and corrected sums (updateformula.h); o may be t itself, since every figure
// of o is read before t changes. Internal to the library.
#pragma once

#include <vorel/statrecords.h>

#include "kernels/columnkernels.h"
#include "updateformula.h"

namespace vorel::internal {

template <typename Record>
concept HasExtremes = requires(Record r) {
  r.min;
  r.max;
};

template <typename Record>
void InitVar(Record& r, const double* x, const double* weights, const double* regWeights,
             WorkArea& work, int n) {
  CompressColumn(x, weights, regWeights, work.missingCode, n, work.x0, work.weights,
                 work.regWeights);
  r.nRows = static_cast<decltype(r.nRows)>(work.x0.size());
  r.weightSum = weights != nullptr ? SumValues(work.weights) : static_cast<double>(r.nRows);
  r.regWeightSum = regWeights != nullptr ? SumOrDot(work.regWeights, work.weights) : r.weightSum;
  // From here on work.weights holds the combined weights, or nothing.
  MultiplyInPlace(work.weights, work.regWeights);
  r.mean = StableMean(work.x0, work.weights, r.regWeightSum);
  if constexpr (HasExtremes<Record>) {
    r.min = MinValue(work.x0);
    r.max = MaxValue(work.x0);
  }
  SubtractInPlace(work.x0, r.mean);
  r.css = WeightedDotProduct(work.x0, work.x0, work.weights);
}

template <typename Record>
void UpdateVar(Record& t, const Record& o) {
  if (o.nRows == 0) return;
  const double tw = t.regWeightSum;
  const double ow = o.regWeightSum;
  const JoinedMean m = JoinMeans(t.mean, tw, o.mean, ow);
  const double e = o.mean - m.mean;
  t.css = JoinSumsWeightFirst(tw, m.shift, m.shift, o.css, ow, e, e, t.css);
  t.mean = m.mean;
  JoinTotals(t, o);
  if constexpr (HasExtremes<Record>) {
    t.min = JoinMinimumTakingTies(t.min, o.min);
    t.max = JoinMaximumTakingTies(t.max, o.max);
  }
}

template <typename Record>
void InitPair(Record& r, const double* x0, const double* x1, const double* weights,
              const double* regWeights, WorkArea& work, int n) {
  CompressColumnPair(x0, x1, weights, regWeights, work.missingCode, n, work.x0, work.x1,
                     work.weights, work.regWeights);
  r.nRows = static_cast<decltype(r.nRows)>(work.x0.size());
  r.weightSum = weights != nullptr ? SumValues(work.weights) : static_cast<double>(r.nRows);
  MultiplyInPlace(work.weights, work.regWeights);
  r.regWeightSum = regWeights != nullptr ? SumValues(work.weights) : r.weightSum;
  r.mean0 = StableMean(work.x0, work.weights, r.regWeightSum);
  r.mean1 = StableMean(work.x1, work.weights, r.regWeightSum);
  SubtractInPlace(work.x0, r.mean0);
  SubtractInPlace(work.x1, r.mean1);
  r.css0 = WeightedDotProduct(work.x0, work.x0, work.weights);
  r.css1 = WeightedDotProduct(work.x1, work.x1, work.weights);
  r.cscp = WeightedDotProduct(work.x0, work.x1, work.weights);
}

template <typename Record>
void UpdatePair(Record& t, const Record& o) {
  if (o.nRows == 0) return;
  const double tw = t.regWeightSum;
  const double ow = o.regWeightSum;
  const JoinedMean m0 = JoinMeans(t.mean0, tw, o.mean0, ow);
  const JoinedMean m1 = JoinMeans(t.mean1, tw, o.mean1, ow);
  const double e0 = o.mean0 - m0.mean;
  const double e1 = o.mean1 - m1.mean;
  t.css0 = JoinSumsWeightFirst(tw, m0.shift, m0.shift, o.css0, ow, e0, e0, t.css0);
  t.css1 = JoinSumsWeightFirst(tw, m1.shift, m1.shift, o.css1, ow, e1, e1, t.css1);
  t.cscp = JoinSumsWeightFirst(tw, m0.shift, m1.shift, o.cscp, ow, e0, e1, t.cscp);
  t.mean0 = m0.mean;
  t.mean1 = m1.mean;
  JoinTotals(t, o);
}

}  // namespace vorel::internal
