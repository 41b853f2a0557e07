// The columns of a pairwise block that have no missing cell in a batch,
// reduced together by the blocked kernels instead of one compressed copy per
// column and per pair. Internal.
//
// For such a column, and for a pair of two such columns, the figures come out
// bit for bit as the per-column and per-pair reduction gives them
// (compression, then the column kernels on the kept cells):
//  - every row is kept, so the row count and the two weight totals are the
//    batch's; with both kinds of weight the combined total is the same sum of
//    the same products rw[i] * w[i] whether it is taken as SumOrDot of the two
//    columns (a column's record) or as SumValues of the combined weights (a
//    pair's record);
//  - a pair's two means and corrected sums of squares are those of its two
//    columns: the same StableMean and WeightedDotProduct over the same values;
//  - its corrected cross-product is one cell of the blocked kernels,
//    (v * x0) * x1 of the centred columns, which is the pair's own
//    WeightedDotProduct with x0 * v written the other way round.
// The batch is only read: the kernels centre their own copies of the cells.
//
// A pair with a missing cell in either column is not for this class: its rows
// are a subset, and its figures are the per-pair reduction's alone.
#pragma once

#include <vorel/databatch.h>

#include <cstddef>
#include <vector>

#include "kernels/crossproducts.h"

namespace vorel::internal {

// A batch's totals over all its rows: the weights, and the weights times the
// regression weights (the weights alone without regression weights). A
// pairwise matrix needs them for its own totals and for the records of its
// complete columns; one sum each, taken once.
struct BatchTotals {
  double weightSum = 0.0;
  double regWeightSum = 0.0;
  bool regWeights = false;
};
BatchTotals TotalsOf(const DataBatch& data, int n);

class CompleteColumns {
 public:
  // Which pairs the matrix keeps: every pair within the block, or each
  // column before split (block position) with each column from split on.
  enum class Pairs { Triangle, Rectangle };

  CompleteColumns() = default;
  // Scratch: a copy starts empty, and an assignment leaves the target's own.
  CompleteColumns(const CompleteColumns&) {}
  CompleteColumns& operator=(const CompleteColumns&) { return *this; }

  // Finds the complete columns among block positions 0 .. count-1 (batch
  // columns first ..) and reduces them: means (and extremes when asked),
  // corrected sums of squares, and the cross-products of the pairs kept.
  // Nothing is reduced when fewer than minimum columns are complete.
  // totals are the batch's, as TotalsOf gives them.
  void Reduce(const DataBatch& data, const BatchTotals& totals, int first, int count,
              double missingCode, Pairs pairs, int split, bool extremes, int minimum);

  bool Complete(int j) const { return _slot[static_cast<std::size_t>(j)] >= 0; }
  // The pairs kept whose two columns are both complete.
  long long CompletePairs() const;
  int NRows() const { return _nRows; }
  double WeightSum() const { return _weightSum; }
  double RegWeightSum() const { return _regWeightSum; }
  double Mean(int j) const { return _means[Slot(j)]; }
  double Min(int j) const { return _mins[Slot(j)]; }
  double Max(int j) const { return _maxs[Slot(j)]; }
  double CSS(int j) const { return _css[Slot(j)]; }
  // The corrected cross-product of a kept pair of complete columns, a being
  // the pair's first variable: the later column of a triangle, the column
  // before split of a rectangle.
  double CSCP(int a, int b) const;

 private:
  std::size_t Slot(int j) const {
    return static_cast<std::size_t>(_slot[static_cast<std::size_t>(j)]);
  }

  std::vector<int> _slot;  // per block position: index among the complete columns, or -1
  std::vector<double*> _columns;
  std::vector<double> _combined;  // weight times regression weight, when there are both
  std::vector<double> _means, _mins, _maxs, _css, _cross;
  Pairs _pairs = Pairs::Triangle;
  int _split = 0;  // complete columns before split (a rectangle's rows)
  int _nRows = 0;
  double _weightSum = 0.0;
  double _regWeightSum = 0.0;
};

// The pairs of a block with a missing cell in either column, with pairwise
// deletion, side by side in the masked lanes of the blocked kernels
// (MaskedPairs in crossproducts.h): the same bits as each pair's own
// reduction, without its compressed copy. The pairs of two complete columns
// are cheaper still by CompleteColumns, and left to it (its Reduce with a
// minimum of 1 takes every one of them). Internal.
class ScatteredPairs {
 public:
  ScatteredPairs() = default;
  // Scratch: a copy starts empty, and an assignment leaves the target's own.
  ScatteredPairs(const ScatteredPairs&) {}
  ScatteredPairs& operator=(const ScatteredPairs&) { return *this; }

  // Whether a batch with this many pairs in all, of which complete are the
  // pairs of two complete columns, is better served here than pair by pair.
  static bool WorthIt(long long pairs, long long complete);

  // Reduces every pair kept (as CompleteColumns::Reduce says) of block
  // positions 0 .. count-1 (batch columns first ..) with a missing cell, and
  // in a triangle each column with a missing cell alone.
  void Reduce(const DataBatch& data, int first, int count, double missingCode,
              CompleteColumns::Pairs pairs, int split);
  // The figures of pair (a, b), a being the pair's first variable.
  const internal::PairFigures& Pair(int a, int b) const;
  // The figures of column j alone (a triangle's, with a missing cell).
  const internal::ColumnFigures& Column(int j) const {
    return _columnFigures[static_cast<std::size_t>(j)];
  }

 private:
  std::vector<double*> _columns;
  std::vector<double> _combined;
  std::vector<internal::PairFigures> _figures;
  std::vector<internal::ColumnFigures> _columnFigures;
  CompleteColumns::Pairs _pairs = CompleteColumns::Pairs::Triangle;
  int _split = 0;
  int _count = 0;
};

// The figures of a record, of the whole table's kind or a block's, taken
// over from the blocked pass (column j, or the pair of columns a and b, all
// complete) or from the masked pass; the same bits as the record's own
// reduction. A column record that keeps extremes gets them too.
template <class Record>
void TakeColumnFigures(Record& r, const CompleteColumns& full, int j) {
  r.nRows = static_cast<decltype(r.nRows)>(full.NRows());
  r.weightSum = full.WeightSum();
  r.regWeightSum = full.RegWeightSum();
  r.mean = full.Mean(j);
  r.css = full.CSS(j);
  if constexpr (requires { r.min; }) {
    r.min = full.Min(j);
    r.max = full.Max(j);
  }
}

template <class Record>
void TakeColumnFigures(Record& r, const internal::ColumnFigures& f) {
  r.nRows = static_cast<decltype(r.nRows)>(f.nRows);
  r.weightSum = f.weightSum;
  r.regWeightSum = f.regWeightSum;
  r.mean = f.mean;
  r.css = f.css;
}

template <class Record>
void TakePairFigures(Record& r, const CompleteColumns& full, int a, int b) {
  r.nRows = static_cast<decltype(r.nRows)>(full.NRows());
  r.weightSum = full.WeightSum();
  r.regWeightSum = full.RegWeightSum();
  r.mean0 = full.Mean(a);
  r.mean1 = full.Mean(b);
  r.css0 = full.CSS(a);
  r.css1 = full.CSS(b);
  r.cscp = full.CSCP(a, b);
}

template <class Record>
void TakePairFigures(Record& r, const internal::PairFigures& f) {
  r.nRows = static_cast<decltype(r.nRows)>(f.nRows);
  r.weightSum = f.weightSum;
  r.regWeightSum = f.regWeightSum;
  r.mean0 = f.mean0;
  r.mean1 = f.mean1;
  r.css0 = f.css0;
  r.css1 = f.css1;
  r.cscp = f.cscp;
}

}  // namespace vorel::internal
