#include <vorel/databatch.h>
#include <vorel/nsmatrixpairwise.h>
#include <vorelhost/assertion.h>

#include <cstddef>

#include "common/handle.h"
#include "records/pairwiseblock.h"

namespace vorel {

// All state of an NSMatrixPairwise: the shared pairwise block. _varStats
// holds the whole block, the first set before the second. _xp is a rectangle
// of nFirst rows of nSecond pairs, row after row: column r of the first set
// (counted from _col0) with column c of the second set (counted from _col1)
// stands at r * nSecond + c.
struct NSMatrixPairwiseData : internal::PairwiseBlockData<NSMatrixPairwiseData> {
  static constexpr auto kPairs = internal::CompleteColumns::Pairs::Rectangle;

  using PairwiseBlockData::PairwiseBlockData;

  int Split() const { return _col1 - _col0; }
  long long PairCount() const { return static_cast<long long>(_col1 - _col0) * (_col2 - _col1); }
  void SettleBounds(const DataBatch&) const {}
  void FoldRecords(const DataBatch& data, const internal::ScatteredPairs* scattered, int n);
  void CheckCreate() const;
  void CheckBatch(const DataBatch& data) const;
  void CheckMerge(const NSMatrixPairwiseData& d) const;
  void CheckMergeEnd(int xpindex) const;
};

// Every column of the block in column order; then the rectangle row after
// row, the column of the first set as the pair's first variable.
void NSMatrixPairwiseData::FoldRecords(const DataBatch& data,
                                       const internal::ScatteredPairs* scattered, int n) {
  // One scratch record of each kind serves the whole batch: Init replaces all of it.
  VarStat columnScratch;
  for (int c = _col0; c < _col2; ++c) {
    internal::FoldColumn(data, c, c - _col0, _complete, n, _workArea, columnScratch,
                         *_varStats[static_cast<std::size_t>(c - _col0)]);
  }
  PairStat pairScratch;
  int xpi = 0;
  for (int r = _col0; r < _col1; ++r) {
    for (int c = _col1; c < _col2; ++c) {
      internal::FoldPair(data, r, c, r - _col0, c - _col0, _complete, scattered, n, _workArea,
                         pairScratch, *_xp[static_cast<std::size_t>(xpi)]);
      xpi = xpi + 1;
    }
  }
  // The text of an assertion is what it reports: keep it as written.
  // clang-format off
  VOREL_ASSERT(xpi == (_col1-_col0)*(_col2-_col1));
  // clang-format on
}

void NSMatrixPairwiseData::CheckCreate() const { VOREL_ASSERT(!_xp.size()); }

void NSMatrixPairwiseData::CheckBatch(const DataBatch& data) const {
  VOREL_ASSERT(_hasRegWeights == data.HasRegWeights());
  const std::size_t nCols = static_cast<std::size_t>(_col2 - _col0);
  VOREL_ASSERT(_varStats.size() == nCols);
}

void NSMatrixPairwiseData::CheckMerge(const NSMatrixPairwiseData& d) const {
  VOREL_ASSERT(_varStats.size() == d._varStats.size());
  VOREL_ASSERT(_hasRegWeights == d._hasRegWeights);
}

void NSMatrixPairwiseData::CheckMergeEnd(int xpindex) const {
  // clang-format off
  VOREL_ASSERT(xpindex == (_col1-_col0)*(_col2-_col1));
  // clang-format on
}

// ---------------------------------------------------------------- handle

template class internal::RecordHandle<NSMatrixPairwiseData>;

NSMatrixPairwise::NSMatrixPairwise(double missingCode, int col0, int col1, int col2)
    : _my(std::in_place, missingCode, col0, col1, col2) {}

int NSMatrixPairwise::NRows() const { return _my->_nRows; }

MatrixBase& NSMatrixPairwise::operator+=(MatrixBase& other) {
  return internal::AddSameClass(*this, other, &NSMatrixPairwise::_my);
}

MatrixBase& NSMatrixPairwise::operator+=(DataBatch& data) {
  if (data.NRows() == 0) return *this;
  if (_my->Empty()) {
    _my->CreateStats(data);
  } else {
    _my->Accumulate(data);
  }
  return *this;
}

double NSMatrixPairwise::WeightSum() const { return _my->_weightSum; }
double NSMatrixPairwise::RegWeightSum() const { return _my->_regWeightSum; }
bool NSMatrixPairwise::HasRegWeights() const { return _my->_hasRegWeights; }
double NSMatrixPairwise::MissingCode() const { return _my->_workArea.missingCode; }
int NSMatrixPairwise::Col0() const { return _my->_col0; }
int NSMatrixPairwise::Col1() const { return _my->_col1; }
int NSMatrixPairwise::Col2() const { return _my->_col2; }
int NSMatrixPairwise::NColumns() const { return static_cast<int>(_my->_varStats.size()); }

VarStat& NSMatrixPairwise::Var(int col) const {
  VOREL_ASSERT(col < Col2() && col >= Col0());
  VOREL_ASSERT(0. < WeightSum());
  return *_my->_varStats[static_cast<std::size_t>(col - _my->_col0)];
}

PairStat& NSMatrixPairwise::Pair(int row, int col) const {
  VOREL_ASSERT(row < _my->_col2 && row >= _my->_col0);
  VOREL_ASSERT(col < _my->_col2 && col >= _my->_col0);
  VOREL_ASSERT(row != col);
  VOREL_ASSERT(0. < WeightSum());
  const int lo = row < col ? row : col;
  const int hi = row < col ? col : row;
  // Two columns of one set have no record; reading past the rectangle would
  // hand out another pair's figures or none at all.
  VOREL_ASSERT(lo < _my->_col1 && hi >= _my->_col1);
  return *_my->_xp[(lo - _my->_col0) * (_my->_col2 - _my->_col1) + (hi - _my->_col1)];
}

}  // namespace vorel
