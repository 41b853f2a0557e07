#include <vorel/databatch.h>
#include <vorel/smatrixpairwise.h>
#include <vorelhost/assertion.h>

#include <cstddef>

#include "common/handle.h"
#include "common/triangle.h"
#include "records/pairwiseblock.h"

namespace vorel {

// All state of an SMatrixPairwise: the shared pairwise block whose _xp is the
// lower triangle without diagonal, row after row: block position i has a row
// of i pairs, one with each earlier position, and the pair of positions i > j
// stands at MatrixRowCount(i) + j. The diagonal is _varStats.
struct SMatrixPairwiseData : internal::PairwiseBlockData<SMatrixPairwiseData> {
  static constexpr auto kPairs = internal::CompleteColumns::Pairs::Triangle;

  SMatrixPairwiseData(double missingCode, int col0, int col2)
      : PairwiseBlockData(missingCode, col0, col0, col2) {}

  int Split() const { return 0; }
  long long PairCount() const {
    const long long nCols = _col2 - _col0;
    return nCols * (nCols - 1) / 2;
  }
  // A block built without bounds takes all columns of its first batch.
  void SettleBounds(const DataBatch& data) {
    if (_col2 == 0) _col2 = static_cast<int>(data.NColumns());
  }
  void FoldRecords(const DataBatch& data, const internal::ScatteredPairs* scattered, int n);
  void CheckCreate() const;
  void CheckBatch(const DataBatch& data) const;
  void CheckMerge(const SMatrixPairwiseData& d) const;
  void CheckMergeEnd(int xpindex) const;
};

// Column by column: the column's own record, then at once its pairs with the
// columns before it, the later column as the pair's first variable.
void SMatrixPairwiseData::FoldRecords(const DataBatch& data,
                                      const internal::ScatteredPairs* scattered, int n) {
  // One scratch record of each kind serves the whole batch: Init replaces all
  // of a record, so this is the same as a fresh temporary per column and pair.
  VarStat columnScratch;
  PairStat pairScratch;
  std::size_t k = 0;
  for (int c = _col0; c < _col2; ++c) {
    internal::FoldColumn(data, c, c - _col0, _complete, n, _workArea, columnScratch,
                         *_varStats[static_cast<std::size_t>(c - _col0)]);
    for (int r = _col0; r < c; ++r) {
      internal::FoldPair(data, c, r, c - _col0, r - _col0, _complete, scattered, n, _workArea,
                         pairScratch, *_xp[k]);
      ++k;
    }
  }
}

void SMatrixPairwiseData::CheckCreate() const { VOREL_ASSERT(!_xp.size()); }

void SMatrixPairwiseData::CheckBatch(const DataBatch& data) const {
  VOREL_ASSERT(_hasRegWeights == data.HasRegWeights());
  const std::size_t nCols = static_cast<std::size_t>(_col2 - _col0);
  VOREL_ASSERT(_varStats.size() == nCols);
}

void SMatrixPairwiseData::CheckMerge(const SMatrixPairwiseData& d) const {
  VOREL_ASSERT(_varStats.size() == d._varStats.size());
  VOREL_ASSERT(_hasRegWeights == d._hasRegWeights);
}

void SMatrixPairwiseData::CheckMergeEnd(int xpindex) const {
  const int nCols = NColumns();
  VOREL_ASSERT(xpindex == MatrixRowCount(nCols));
}

// ---------------------------------------------------------------- handle

template class internal::RecordHandle<SMatrixPairwiseData>;

SMatrixPairwise::SMatrixPairwise(double missingCode) : _my(std::in_place, missingCode, 0, 0) {}

SMatrixPairwise::SMatrixPairwise(double missingCode, int col0, int col2)
    : _my(std::in_place, missingCode, col0, col2) {}

int SMatrixPairwise::NRows() const { return _my->_nRows; }

MatrixBase& SMatrixPairwise::operator+=(MatrixBase& other) {
  return internal::AddSameClass(*this, other, &SMatrixPairwise::_my);
}

MatrixBase& SMatrixPairwise::operator+=(DataBatch& data) {
  if (data.NRows() == 0) return *this;
  if (_my->Empty()) {
    _my->CreateStats(data);
  } else {
    _my->Accumulate(data);
  }
  return *this;
}

double SMatrixPairwise::WeightSum() const { return _my->_weightSum; }
double SMatrixPairwise::RegWeightSum() const { return _my->_regWeightSum; }
bool SMatrixPairwise::HasRegWeights() const { return _my->_hasRegWeights; }
double SMatrixPairwise::MissingCode() const { return _my->_workArea.missingCode; }
int SMatrixPairwise::Col0() const { return _my->_col0; }
int SMatrixPairwise::Col1() const { return _my->_col1; }
int SMatrixPairwise::Col2() const { return _my->_col2; }
int SMatrixPairwise::NColumns() const { return static_cast<int>(_my->_varStats.size()); }

VarStat& SMatrixPairwise::Var(int col) const {
  VOREL_ASSERT(col < Col2() && col >= Col0());
  VOREL_ASSERT(0. < WeightSum());
  return *_my->_varStats[static_cast<std::size_t>(col - _my->_col0)];
}

PairStat& SMatrixPairwise::Pair(int row, int col) const {
  VOREL_ASSERT(row < _my->_col2 && row >= _my->_col0);
  VOREL_ASSERT(col < _my->_col2 && col >= _my->_col0);
  VOREL_ASSERT(row != col);
  VOREL_ASSERT(0. < WeightSum());
  const int i = row - _my->_col0;
  const int j = col - _my->_col0;
  return *_my->_xp[static_cast<std::size_t>(internal::SymmetricCell(i, j, false))];
}

}  // namespace vorel
