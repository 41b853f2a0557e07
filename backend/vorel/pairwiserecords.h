// The arithmetic of the records of one variable and of one pair, with
// pairwise deletion, shared by the two families that hold such records:
// VarStat / PairStat (int row counts, extremes) and the whole-table
// VarStatsData / PairStatsData (64-bit row counts, no extremes).
//
// Init reduces one batch in two passes over a compressed copy of the kept
// cells in work; it writes the record only after the compression, the one
// step that allocates. Update folds o into t by the update formula on means
// and corrected sums; o may be t itself. Internal to the library.
#pragma once

#include <vorel/statrecords.h>

#include "kernels/columnkernels.h"

namespace vorel::pairwise {

using namespace vorel::internal;

template <typename Record>
concept HasExtremes = requires(Record r) {
  r.min;
  r.max;
};

// One side's corrected sum after a merge: ((tw dt dt2 + other) + ow eo eo2) + this.
inline double MergedSum(double tw, double dt, double dt2, double otherSum, double ow, double eo,
                        double eo2, double thisSum) {
  // Deliberate order: the four terms are added left to right, each product from the left.
  // clang-format off
  return ((tw * dt * dt2
           + otherSum)
          + ow * eo * eo2)
         + thisSum;
  // clang-format on
}

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
  const double om = o.mean;
  const double d = MeanShift(t.mean, tw, om, ow);
  const double newMean = t.mean + d;
  const double e = om - newMean;
  t.css = MergedSum(tw, d, d, o.css, ow, e, e, t.css);
  t.mean = newMean;
  t.weightSum += o.weightSum;
  t.regWeightSum = tw + ow;
  t.nRows += o.nRows;
  if constexpr (HasExtremes<Record>) {
    // Ties and NaN hand the extreme to o; only a strictly better one stays.
    if (!(o.min > t.min)) t.min = o.min;
    if (!(o.max < t.max)) t.max = o.max;
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
  const double om0 = o.mean0;
  const double om1 = o.mean1;
  const double d0 = MeanShift(t.mean0, tw, om0, ow);
  t.mean0 += d0;
  const double e0 = om0 - t.mean0;
  const double d1 = MeanShift(t.mean1, tw, om1, ow);
  t.mean1 += d1;
  const double e1 = om1 - t.mean1;
  t.css0 = MergedSum(tw, d0, d0, o.css0, ow, e0, e0, t.css0);
  t.css1 = MergedSum(tw, d1, d1, o.css1, ow, e1, e1, t.css1);
  t.cscp = MergedSum(tw, d0, d1, o.cscp, ow, e0, e1, t.cscp);
  t.weightSum += o.weightSum;
  t.regWeightSum = tw + ow;
  t.nRows += o.nRows;
}

}  // namespace vorel::pairwise
