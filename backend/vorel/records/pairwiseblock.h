// The body that the two pairwise column blocks share: the record's fields,
// the table totals of a batch, the blocked and masked passes that serve the
// columns and pairs of a batch, and the merge. The order in which a batch's
// columns and pairs are folded, and the index of a pair, are the shape's
// (the triangle of SMatrixPairwise, the rectangle of NSMatrixPairwise) and
// are written by each block in its own source file, with its checks, so that
// a breached check reports that file.
//
// Block is the derived record (SMatrixPairwiseData, NSMatrixPairwiseData). It
// provides
//   static constexpr CompleteColumns::Pairs kPairs    its shape;
//   int Split() const                                 first-set columns, or 0;
//   long long PairCount() const                       records of _xp;
//   void SettleBounds(const DataBatch&)               at the first batch;
//   void FoldRecords(const DataBatch&, const ScatteredPairs*, int n)
//                                                     every column and pair;
//   void CheckCreate() const                          "!_xp.size()";
//   void CheckBatch(const DataBatch&) const           a batch for a filled block;
//   void CheckMerge(const Block& d) const             the preconditions of Merge;
//   void CheckMergeEnd(int xpindex) const             after the pairs of a merge.
//
// Internal to the library.
#pragma once

#include <vorel/databatch.h>
#include <vorel/statrecords.h>

#include <cstddef>
#include <memory>
#include <utility>
#include <vector>

#include "completecolumns.h"
#include "pairwisefold.h"

namespace vorel::internal {

template <class Block>
class PairwiseBlockData {
 public:
  PairwiseBlockData(double missingCode, int col0, int col1, int col2)
      : _col0(col0), _col1(col1), _col2(col2) {
    _workArea.missingCode = missingCode;
  }

  // Empty until the first batch or merge with rows makes the records.
  bool Empty() const { return _varStats.empty(); }
  int NColumns() const { return static_cast<int>(_varStats.size()); }

  // Makes the records at the first batch, and takes the batch in.
  void CreateStats(const DataBatch& data) {
    AsBlock().CheckCreate();
    _hasRegWeights = data.RegWeights() != nullptr;
    AsBlock().SettleBounds(data);
    // Both stores are made before either is kept, so a failure leaves the matrix empty.
    auto varStats = NewStats<VarStat>(_col2 - _col0);
    auto xp = NewStats<PairStat>(AsBlock().PairCount());
    _varStats = std::move(varStats);
    _xp = std::move(xp);
    Accumulate(data);
  }

  // Folds a batch into the records; the batch is only read.
  void Accumulate(const DataBatch& data) {
    AsBlock().CheckBatch(data);
    const int n = static_cast<int>(data.NRows());
    _nRows += n;
    if (n == 0) return;
    const BatchTotals totals = TotalsOf(data, n);
    AddBatchWeights(totals, _weightSum, _regWeightSum);
    // The columns without a missing cell in the batch, and the pairs of two
    // of them, take their figures from one blocked pass; when many pairs have
    // missing cells, all pairs go through one masked pass. Either gives the
    // bits of the pair's own reduction (see completecolumns.h).
    const int count = _col2 - _col0;
    _complete.Reduce(data, totals, _col0, count, _workArea.missingCode, Block::kPairs,
                     AsBlock().Split(), true, 1);
    const ScatteredPairs* scattered = nullptr;
    if (ScatteredPairs::WorthIt(AsBlock().PairCount(), _complete.CompletePairs())) {
      _scattered.Reduce(data, _col0, count, _workArea.missingCode, Block::kPairs,
                        AsBlock().Split());
      scattered = &_scattered;
    }
    AsBlock().FoldRecords(data, scattered, n);
  }

  // Folds d into this filled record, record by record; d is only read.
  void Merge(const Block& d) {
    AsBlock().CheckMerge(d);
    // Exactly zero frequency weight: nothing of d counts, not even its rows.
    if (d._weightSum == 0.0) return;
    for (std::size_t i = 0; i < _varStats.size(); ++i)
      _varStats[i]->Update(*d._varStats[i]);
    int xpindex = 0;
    for (; xpindex < static_cast<int>(_xp.size()); ++xpindex) {
      const auto k = static_cast<std::size_t>(xpindex);
      _xp[k]->Update(*d._xp[k]);
    }
    AsBlock().CheckMergeEnd(xpindex);
    _weightSum += d._weightSum;
    _regWeightSum += d._regWeightSum;
    _nRows += d._nRows;
  }

  double _weightSum = 0.0;        // frequency weight of every row given
  double _regWeightSum = 0.0;     // combined weight of every row given
  int _nRows = 0;                 // every row given, missing cells or not
  OwnedStats<VarStat> _varStats;  // one per column of the block, in column order
  OwnedStats<PairStat> _xp;       // one per pair, in the order of the shape
  WorkArea _workArea;             // scratch of Init; holds the missing code
  bool _hasRegWeights = false;
  int _col0;
  int _col1;
  int _col2;
  // Scratch: the columns of a batch without missing cells, and its pairs.
  // A copy of the record starts with scratch of its own.
  Scratch<CompleteColumns> _complete;
  Scratch<ScatteredPairs> _scattered;

 private:
  Block& AsBlock() { return static_cast<Block&>(*this); }
  const Block& AsBlock() const { return static_cast<const Block&>(*this); }
};

}  // namespace vorel::internal
