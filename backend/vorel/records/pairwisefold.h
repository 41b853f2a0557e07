// The steps that the two pairwise block matrices share: the table-level sums
// of a batch, the folding of one column or one pair of a batch into its
// long-lived record, and the making and copying of the record stores.
//
// Internal to the library.
#pragma once

#include <vorel/databatch.h>
#include <vorel/statrecords.h>

#include <memory>
#include <vector>

#include "common/storelimits.h"
#include "completecolumns.h"
#include "kernels/columnkernels.h"

namespace vorel::internal {

// Adds a batch's totals to a matrix's, whatever the batch's cells hold.
// Without regression weights the combined total is the plain total, so it is
// set rather than added to and the two can never drift apart.
inline void AddBatchWeights(const BatchTotals& batch, double& weightSum, double& regWeightSum) {
  weightSum += batch.weightSum;
  regWeightSum = batch.regWeights ? regWeightSum + batch.regWeightSum : weightSum;
}

// Reduces column col of the batch into scratch and folds it into target.
// scratch is any record: Init replaces all of it.
inline void FoldColumn(const DataBatch& data, int col, int n, WorkArea& work, VarStat& scratch,
                       VarStat& target) {
  scratch.Init(data.Column(static_cast<unsigned>(col)), data.Weights(), data.RegWeights(), work, n);
  target.Update(scratch);
}

// Reduces the pair of columns (first, second) of the batch into scratch and
// folds it into target; first becomes the pair's first variable.
inline void FoldPair(const DataBatch& data, int first, int second, int n, WorkArea& work,
                     PairStat& scratch, PairStat& target) {
  scratch.Init(data.Column(static_cast<unsigned>(first)),
               data.Column(static_cast<unsigned>(second)), data.Weights(), data.RegWeights(), work,
               n);
  target.Update(scratch);
}

// Folds block column col (position j of complete) into target: from the
// blocked pass when the column has no missing cell in the batch (the same
// bits, see completecolumns.h), otherwise by its own reduction into scratch.
inline void FoldColumn(const DataBatch& data, int col, int j, const CompleteColumns& complete,
                       int n, WorkArea& work, VarStat& scratch, VarStat& target) {
  if (!complete.Complete(j)) {
    FoldColumn(data, col, n, work, scratch, target);
    return;
  }
  TakeColumnFigures(scratch.Data(), complete, j);
  target.Update(scratch);
}

// Folds the pair of block columns (first, second), at positions a and b,
// into target, likewise: from the blocked pass when neither column has a
// missing cell; otherwise from the masked pass over all pairs when there was
// one (scattered not null), or by the pair's own reduction.
inline void FoldPair(const DataBatch& data, int first, int second, int a, int b,
                     const CompleteColumns& complete, const ScatteredPairs* scattered, int n,
                     WorkArea& work, PairStat& scratch, PairStat& target) {
  PairStatData& figures = scratch.Data();
  if (!complete.Complete(a) || !complete.Complete(b)) {
    if (scattered == nullptr) {
      FoldPair(data, first, second, n, work, scratch, target);
      return;
    }
    TakePairFigures(figures, scattered->Pair(a, b));
    target.Update(scratch);
    return;
  }
  TakePairFigures(figures, complete, a, b);
  target.Update(scratch);
}

// count new records in their empty state, each a heap object of its own. A
// negative count (from bounds the caller got wrong) or one beyond what an int
// index reaches is refused as too long.
template <class Stat>
std::vector<std::unique_ptr<Stat>> NewStats(long long count) {
  const std::size_t size = CheckedTableCells(count);
  std::vector<std::unique_ptr<Stat>> stats;
  stats.reserve(size);
  for (std::size_t i = 0; i < size; ++i)
    stats.push_back(std::make_unique<Stat>());
  return stats;
}

// A store of records, each a heap object of its own that the store owns. A
// copy holds copies that share no record with the source.
template <class Stat>
class OwnedStats : public std::vector<std::unique_ptr<Stat>> {
  using Records = std::vector<std::unique_ptr<Stat>>;

 public:
  OwnedStats() = default;
  OwnedStats(Records records) : Records(std::move(records)) {}  // NOLINT: takes the records over
  OwnedStats(const OwnedStats& other) : Records(CopiesOf(other)) {}
  OwnedStats& operator=(const OwnedStats& other) {
    if (this != &other) Records::operator=(CopiesOf(other));
    return *this;
  }
  OwnedStats(OwnedStats&&) noexcept = default;
  OwnedStats& operator=(OwnedStats&&) noexcept = default;
  ~OwnedStats() = default;

 private:
  static Records CopiesOf(const Records& from) {
    Records copies;
    copies.reserve(from.size());
    for (const auto& stat : from)
      copies.push_back(std::make_unique<Stat>(*stat));
    return copies;
  }
};

// Scratch that an object keeps between calls: a copy of the object starts
// with fresh scratch of its own, and assigning the object leaves its scratch
// alone.
template <class T>
class Scratch : public T {
 public:
  Scratch() = default;
  Scratch(const Scratch&) : T() {}
  Scratch& operator=(const Scratch&) { return *this; }
  Scratch(Scratch&&) noexcept = default;
  Scratch& operator=(Scratch&&) noexcept = default;
  ~Scratch() = default;
};

}  // namespace vorel::internal
