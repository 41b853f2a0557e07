// The update formula: two parts of a data set, each reduced to its combined
// weight (a, b), its means and its corrected sums, joined into one without
// going back to the rows.
//
//   M     = m + MeanShift(m, a, m', b)            merged mean
//   C_ij  = C_ij + C'_ij                          merged corrected sum
//           + a (M_i - m_i)(M_j - m_j)
//           + b (M_i - m'_i)(M_j - m'_j)
//
// Every record and every matrix of the library joins its parts through these
// functions, for a batch into a matrix and for one thread's matrix into
// another alike. The digits of a result depend on the order in which the
// terms are formed and added; the records fix two orders, and each has its
// own function here, named for what it multiplies first. Keep each
// expression as it stands: one term a line, the order deliberate.
//
// Pure functions on doubles. Internal to the library.
#pragma once

#include "kernels/columnkernels.h"

namespace vorel::internal {

// The mean of two joined parts, with the shift from the first part's mean:
// a shift of 0.0 (b of 0, equal means, or a + b of 0) keeps mean exactly.
struct JoinedMean {
  double shift;
  double mean;
};

inline JoinedMean JoinMeans(double mean, double a, double otherMean, double b) {
  const double shift = MeanShift(mean, a, otherMean, b);
  return {shift, mean + shift};
}

// The joined corrected sum of one variable or one pair of variables, each
// product formed from the weight on:
//   ((a d d' + other) + b e e') + sum,
// with d, d' the shifts of the two means and e, e' the other part's means
// less the joined ones. For one variable d' = d and e' = e.
inline double JoinSumsWeightFirst(double a, double d, double d2, double otherSum, double b,
                                  double e, double e2, double sum) {
  // clang-format off
  return ((a * d * d2
           + otherSum)
          + b * e * e2)
         + sum;
  // clang-format on
}

// The joined corrected sum of squares of one block column, the square formed
// before the weight: sum + (((s s) a + other) + (e e) b), with s the shift and
// e the joined mean less the other part's.
inline double JoinSumsSquareFirst(double sum, double s, double a, double otherSum, double e,
                                  double b) {
  // clang-format off
  return sum
         + (((s * s) * a
             + otherSum)
            + (e * e) * b);
  // clang-format on
}

// The factors that one row i of a cross-product table carries into each of
// its cells: p = a (M_i - m_i) and q = b (M_i - m'_i).
struct RowFactors {
  double p;
  double q;
};

// p from the shift of the row's mean, as the whole-table and triangular
// blocks take it: p = s a.
inline RowFactors RowFactorsFromShift(const JoinedMean& row, double a, double otherMean, double b) {
  return {row.shift * a, (row.mean - otherMean) * b};
}

// p from the two means, as the rectangular block takes it: p = (M - m) a.
// (M - m) need not equal the shift to the last bit, so this is its own form.
inline RowFactors RowFactorsFromMeans(double joinedMean, double mean, double otherMean, double a,
                                      double b) {
  return {(joinedMean - mean) * a, (joinedMean - otherMean) * b};
}

// One joined cell of a cross-product table, column j's joined mean M, its two
// part means m and m', and its row's factors:
//   cell + (((M - m) p + other) + (M - m') q).
// The old cell comes in last; the sum is the same whichever side it stands on.
inline double JoinCell(double joinedMean, double mean, double otherMean, RowFactors row,
                       double otherCell, double cell) {
  // clang-format off
  return (((joinedMean - mean) * row.p
           + otherCell)
          + (joinedMean - otherMean) * row.q)
         + cell;
  // clang-format on
}

// Ties and NaN hand the extreme over to the other part; only a strictly
// better one stays. (The variable records of the pairwise classes.)
inline double JoinMinimumTakingTies(double min, double otherMin) {
  return otherMin > min ? min : otherMin;
}
inline double JoinMaximumTakingTies(double max, double otherMax) {
  return otherMax < max ? max : otherMax;
}

// Only a strictly better extreme from the other part replaces this one; a
// NaN on either side changes nothing. (The listwise blocks.)
inline double JoinMinimumKeepingTies(double min, double otherMin) {
  return otherMin < min ? otherMin : min;
}
inline double JoinMaximumKeepingTies(double max, double otherMax) {
  return otherMax > max ? otherMax : max;
}

// The totals of two joined records: counts and both weight sums add.
template <class Record>
void JoinTotals(Record& t, const Record& o) {
  t.weightSum += o.weightSum;
  t.regWeightSum += o.regWeightSum;
  t.nRows += o.nRows;
}

}  // namespace vorel::internal
