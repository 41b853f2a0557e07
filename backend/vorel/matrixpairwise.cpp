#include <vorel/databatch.h>
#include <vorel/matrixpairwise.h>
#include <vorelhost/assertion.h>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <utility>
#include <vector>

#include "common/handle.h"
#include "common/storelimits.h"
#include "common/triangle.h"
#include "kernels/columnkernels.h"
#include "records/completecolumns.h"
#include "records/pairwisefold.h"
#include "records/pairwiserecords.h"

namespace vorel {

using internal::BatchTotals;
using internal::CompleteColumns;
using internal::ScatteredPairs;

namespace {

// Start of row n of the lower triangle without its diagonal, and the record
// count of n columns. 32-bit by design; the column count is checked before use.
unsigned MatrixRow(unsigned n) { return internal::TriangleStart(n); }

// The widest table whose (n - 1) n still fits 32 bits: 65,536 columns.
void CheckColumnCount(unsigned nCols) {
  internal::CheckStoreSize((std::uint64_t{nCols} - 1) * nCols,
                           std::numeric_limits<std::uint32_t>::max());
}

int Rows(unsigned n) { return static_cast<int>(n); }

}  // namespace

// ---------------------------------------------------------------- records

void VarStatsData::Init(const double* x, const double* weights, const double* regWeights,
                        WorkArea& work, unsigned n) {
  internal::InitVar(*this, x, weights, regWeights, work, Rows(n));
}

void VarStatsData::Update(const VarStatsData& o) { internal::UpdateVar(*this, o); }

void PairStatsData::Init(const double* x0, const double* x1, const double* weights,
                         const double* regWeights, WorkArea& work, unsigned n) {
  internal::InitPair(*this, x0, x1, weights, regWeights, work, Rows(n));
}

void PairStatsData::Update(const PairStatsData& o) { internal::UpdatePair(*this, o); }

// ---------------------------------------------------------------- table record

struct MatrixPairwiseData {
  explicit MatrixPairwiseData(double missingCode) { _workArea.missingCode = missingCode; }

  bool Empty() const { return _varStats.empty(); }
  void CreateStats(const DataBatch& data);
  void Accumulate(const DataBatch& data);
  void Merge(const MatrixPairwiseData& d);

  double _weightSum = 0.0;              // frequency weight of every row added
  double _regWeightSum = 0.0;           // combined weight of every row added
  std::uint64_t _nRows = 0;             // every row added, missing cells or not
  std::vector<VarStatsData> _varStats;  // one per column
  std::vector<PairStatsData> _xp;       // one per pair, row h holding (h, 0) .. (h, h - 1)
  WorkArea _workArea;                   // scratch, and the one place of the missing code
  bool _hasRegWeights = false;
  // Scratch: the columns of a batch without missing cells, and its pairs.
  // A copy of the record starts with scratch of its own.
  internal::Scratch<CompleteColumns> _complete;
  internal::Scratch<ScatteredPairs> _scattered;

 private:
  void UpdateRecords(const DataBatch& data, const BatchTotals& totals);
};

void MatrixPairwiseData::CreateStats(const DataBatch& data) {
  VOREL_ASSERT(!_xp.size());
  const unsigned nCols = data.NColumns();
  CheckColumnCount(nCols);
  // Both stores are sized before any field changes, so a failed allocation
  // leaves the record empty.
  std::vector<VarStatsData> varStats(nCols);
  std::vector<PairStatsData> xp(MatrixRow(nCols));
  _hasRegWeights = data.HasRegWeights();
  _varStats.swap(varStats);
  _xp.swap(xp);
  Accumulate(data);
}

void MatrixPairwiseData::Accumulate(const DataBatch& data) {
  const unsigned n = data.NRows();
  const unsigned nCols = data.NColumns();
  VOREL_ASSERT(_hasRegWeights == data.HasRegWeights());
  _nRows += n;
  VOREL_ASSERT(_varStats.size() == nCols);
  // The table's totals cover every row; the missing code plays no part.
  const BatchTotals totals = internal::TotalsOf(data, Rows(n));
  internal::AddBatchWeights(totals, _weightSum, _regWeightSum);
  UpdateRecords(data, totals);
}

// Each column, then each pair of it with a lower column, reduced on its own
// and folded into its long-lived record. The columns without a missing cell
// in the batch, and the pairs of two of them, take their figures from one
// blocked pass over those columns; when enough pairs have missing cells,
// those pairs and the columns with missing cells go through one masked pass.
// Either gives the same bits as the pair's own reduction (see
// completecolumns.h), without a compressed copy per column and pair.
void MatrixPairwiseData::UpdateRecords(const DataBatch& data, const BatchTotals& totals) {
  const unsigned n = data.NRows();
  const unsigned nCols = data.NColumns();
  const double* weights = data.Weights();
  const double* regWeights = data.RegWeights();
  const CompleteColumns& full = _complete;
  _complete.Reduce(data, totals, 0, static_cast<int>(nCols), _workArea.missingCode,
                   CompleteColumns::Pairs::Triangle, 0, false, 1);
  const bool masked = ScatteredPairs::WorthIt(
      static_cast<long long>(nCols) * (static_cast<long long>(nCols) - 1) / 2,
      full.CompletePairs());
  if (masked)
    _scattered.Reduce(data, 0, static_cast<int>(nCols), _workArea.missingCode,
                      CompleteColumns::Pairs::Triangle, 0);
  unsigned xpindex = 0;
  for (unsigned c = 0; c < nCols; ++c) {
    const double* column = data.Column(c);
    const int ic = static_cast<int>(c);
    VarStatsData var;
    if (full.Complete(ic)) {
      internal::TakeColumnFigures(var, full, ic);
    } else if (masked) {
      internal::TakeColumnFigures(var, _scattered.Column(ic));
    } else {
      var.Init(column, weights, regWeights, _workArea, n);
    }
    _varStats[c].Update(var);
    for (unsigned k = 0; k < c; ++k) {
      const int ik = static_cast<int>(k);
      PairStatsData pair;
      if (full.Complete(ic) && full.Complete(ik)) {
        internal::TakePairFigures(pair, full, ic, ik);
      } else if (masked) {
        internal::TakePairFigures(pair, _scattered.Pair(ic, ik));
      } else {
        pair.Init(column, data.Column(k), weights, regWeights, _workArea, n);
      }
      _xp[xpindex].Update(pair);
      ++xpindex;
    }
  }
}

void MatrixPairwiseData::Merge(const MatrixPairwiseData& d) {
  VOREL_ASSERT(_varStats.size() == d._varStats.size());
  VOREL_ASSERT(_hasRegWeights == d._hasRegWeights);
  // Equality on purpose: a negative or NaN frequency total goes on.
  if (d._weightSum == 0.0) return;
  const unsigned nCols = static_cast<unsigned>(_varStats.size());
  unsigned xpindex = 0;
  for (unsigned c = 0; c < nCols; ++c) {
    _varStats[c].Update(d._varStats[c]);
    for (unsigned i = xpindex; i < xpindex + c; ++i)
      _xp[i].Update(d._xp[i]);
    xpindex += c;
  }
  VOREL_ASSERT(xpindex == MatrixRow(nCols));
  _weightSum += d._weightSum;
  _regWeightSum += d._regWeightSum;
  _nRows += d._nRows;
}

// ---------------------------------------------------------------- handle

template class internal::RecordHandle<MatrixPairwiseData>;

MatrixPairwise::MatrixPairwise(const double& missingCode) : _my(std::in_place, missingCode) {}

MatrixPairwise& MatrixPairwise::operator+=(DataBatch& data) {
  if (data.NRows() == 0) return *this;
  if (_my->Empty())
    _my->CreateStats(data);
  else
    _my->Accumulate(data);
  return *this;
}

MatrixPairwise& MatrixPairwise::operator+=(const MatrixPairwise& d) {
  if (d._my->_nRows == 0) return *this;
  internal::CopyOrMerge(*_my, *d._my);
  return *this;
}

unsigned MatrixPairwise::NColumns() const { return static_cast<unsigned>(_my->_varStats.size()); }
std::uint64_t MatrixPairwise::NRows() const { return _my->_nRows; }
double MatrixPairwise::WeightSum() const { return _my->_weightSum; }
bool MatrixPairwise::HasRegWeights() const { return _my->_hasRegWeights; }
double MatrixPairwise::RegWeightSum() const { return _my->_regWeightSum; }
double MatrixPairwise::MissingCode() const { return _my->_workArea.missingCode; }

VarStats MatrixPairwise::Var(unsigned col) const {
  VOREL_ASSERT(col < NColumns());
  VOREL_ASSERT(0. < WeightSum());
  return VarStats(&_my->_varStats[col]);
}

PairStats MatrixPairwise::Pair(unsigned row, unsigned col) const {
  VOREL_ASSERT(row < NColumns());
  VOREL_ASSERT(col < NColumns());
  VOREL_ASSERT(row != col);
  VOREL_ASSERT(0. < WeightSum());
  const unsigned high = std::max(row, col);
  const unsigned low = std::min(row, col);
  return PairStats(&_my->_xp[MatrixRow(high) + low]);
}

}  // namespace vorel
