#include <vorel/databatch.h>
#include <vorel/initialextremes.h>
#include <vorel/smatrixlistwise.h>
#include <vorelhost/assertion.h>

#include <cstddef>

#include "common/handle.h"
#include "common/triangle.h"
#include "records/listwiseblock.h"

namespace vorel {

// The state of one SMatrixListwise: the shared listwise block whose _xp is
// the lower triangle with its diagonal, row after row. The cell of block
// positions i >= j is at MatrixRowCount(i+1) + j, and a block of nCols
// columns has MatrixRowCount(nCols+1) cells. A cell holds
// sum w * (x_i - mean_i) * (x_j - mean_j) over all rows so far.
class SMatrixListwiseData : public internal::ListwiseBlockData<SMatrixListwiseData> {
 public:
  using ListwiseBlockData::ListwiseBlockData;
  SMatrixListwiseData(int col0, int col2)
      : ListwiseBlockData(internal::BlockBounds{col0, col0, col2}) {}

 private:
  friend class ListwiseBlockData;

  void CheckFirstBatch(const DataBatch& data);
  std::size_t CellCount() const;
  void SizeOwnStores() {}
  void FillCells(const internal::ColumnBlock& block, const double* w, int rows);
  void CheckMerge(const SMatrixListwiseData& d) const;
  void JoinCells(const SMatrixListwiseData& d, double* newMeans, double a, double b);
};

namespace {

// The last row of the triangle ends with the store. The expression is
// reported as written.
void CheckLastRow(const double* _xp, const double* xprow, int nCols, int nCells) {
  // clang-format off
  VOREL_ASSERT(xprow+nCols == _xp+nCells);
  // clang-format on
}

}  // namespace

// A block built without bounds takes all columns of its first batch.
void SMatrixListwiseData::CheckFirstBatch(const DataBatch& data) {
  VOREL_ASSERT(!_xp);
  const int nCols = static_cast<int>(data.NColumns());
  if (_col2 == 0) {
    VOREL_ASSERT(_col0 == 0 && _col1 == 0);
    _col2 = nCols;
  } else {
    // clang-format off
    VOREL_ASSERT(_col0==_col1 && _col0>=0);
    VOREL_ASSERT(_col2 <= nCols && _col2>_col0);
    // clang-format on
  }
}

// The triangle is indexed by int, the product in MatrixRowCount included.
std::size_t SMatrixListwiseData::CellCount() const {
  const int nCols = _col2 - _col0;
  internal::CheckedTableCells((static_cast<long long>(nCols) + 1) * nCols);
  return static_cast<std::size_t>(MatrixRowCount(nCols + 1));
}

// Centres the block's columns in place and fills the triangle of the centred
// columns. The blocked kernel gives every cell the bits of its own dot
// product over the rows in order; which cells it works on together changes no
// value.
void SMatrixListwiseData::FillCells(const internal::ColumnBlock& block, const double* w, int rows) {
  internal::CrossProductJob job = JobOver(block, w, rows);
  job.triangle = _xp.get();
  internal::CrossProducts(job);
  const int nCols = _col2 - _col0;
  const double* xprow = _xp.get() + MatrixRowCount(nCols);  // the start of the last row
  CheckLastRow(_xp.get(), xprow, nCols, MatrixRowCount(nCols + 1));
}

void SMatrixListwiseData::CheckMerge(const SMatrixListwiseData& d) const {
  VOREL_ASSERT(_means.size() == d._means.size());
  VOREL_ASSERT(_hasRegWeights == d._hasRegWeights);
  VOREL_ASSERT(_col0 == d._col0 && _col1 == d._col1 && _col2 == d._col2);
}

// Row i of the joined triangle, with M the joined means:
//   C_ij = C_ij + ((M_j - m_j) * p + d.C_ij) + (M_j - d.m_j) * q,
// p = a * (M_i - m_i) taken as the shift times a, and q = b * (M_i - d.m_i).
// Row i reads the joined means of the columns up to i only.
void SMatrixListwiseData::JoinCells(const SMatrixListwiseData& d, double* newMeans, double a,
                                    double b) {
  const int nCols = NColumns();
  int xpindex = 0;
  for (int i = 0; i < nCols; ++i) {
    const auto k = static_cast<std::size_t>(i);
    const internal::JoinedMean m = JoinColumn(d, k, newMeans, a, b);
    const internal::RowFactors row = internal::RowFactorsFromShift(m, a, d._means[k], b);
    JoinRow(d, newMeans, 0, row, k + 1, xpindex);
  }
  // clang-format off
  VOREL_ASSERT(xpindex == MatrixRowCount(nCols+1));
  // clang-format on
}

// ---------------------------------------------------------------- handle

template class internal::RecordHandle<SMatrixListwiseData>;

SMatrixListwise::SMatrixListwise() : SMatrixListwise(0, 0) {}

SMatrixListwise::SMatrixListwise(int col0, int col2) : _my(std::in_place, col0, col2) {}

MatrixBase& SMatrixListwise::operator+=(DataBatch& data) {
  internal::AccumulateOrMerge(*_my, data);
  return *this;
}

MatrixBase& SMatrixListwise::operator+=(MatrixBase& other) {
  return internal::AddSameClass(*this, other, &SMatrixListwise::_my);
}

int SMatrixListwise::NRows() const { return _my->_nRows; }
double SMatrixListwise::WeightSum() const { return _my->_weightSum; }
double SMatrixListwise::RegWeightSum() const { return _my->_regWeightSum; }
bool SMatrixListwise::HasRegWeights() const { return _my->_hasRegWeights; }
int SMatrixListwise::Col0() const { return _my->_col0; }
int SMatrixListwise::Col1() const { return _my->_col1; }
int SMatrixListwise::Col2() const { return _my->_col2; }
int SMatrixListwise::NColumns() const { return _my->NColumns(); }

double SMatrixListwise::Mean(int c) const {
  VOREL_ASSERT(c < _my->_col2 && c >= _my->_col0);
  VOREL_ASSERT(0. < WeightSum());
  return _my->_means[_my->Position(c)];
}

double SMatrixListwise::Min(int c) const {
  VOREL_ASSERT(c < _my->_col2 && c >= _my->_col0);
  VOREL_ASSERT(0. < WeightSum());
  return _my->_mins[_my->Position(c)];
}

double SMatrixListwise::Max(int c) const {
  VOREL_ASSERT(c < _my->_col2 && c >= _my->_col0);
  if (_my->_maxs.empty()) return MaxInitial;  // no row seen yet
  return _my->_maxs[_my->Position(c)];
}

double SMatrixListwise::CCP(int row, int col) const {
  VOREL_ASSERT(row < _my->_col2 && row >= _my->_col0);
  VOREL_ASSERT(col < _my->_col2 && col >= _my->_col0);
  VOREL_ASSERT(0. < WeightSum());
  const int i = row - _my->_col0;
  const int j = col - _my->_col0;
  return _my->_xp[static_cast<std::size_t>(internal::SymmetricCell(i, j, true))];
}

}  // namespace vorel
