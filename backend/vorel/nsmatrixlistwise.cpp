#include <vorel/databatch.h>
#include <vorel/initialextremes.h>
#include <vorel/nsmatrixlistwise.h>
#include <vorelhost/assertion.h>

#include <cstddef>

#include "common/handle.h"
#include "common/storelimits.h"
#include "records/listwiseblock.h"

namespace vorel {

// The state of one NSMatrixListwise: the shared listwise block, with the sums
// of squares in a store of their own. The four vectors run over the whole
// block, first set before second. _xp is the rectangle of nFirst rows of
// nSecond cells: the cell of first-set position r with second-set position c
// is at r * nSecond + c and holds sum w * (x_r - mean_r) * (x_c - mean_c) over
// all rows so far.
class NSMatrixListwiseData : public internal::ListwiseBlockData<NSMatrixListwiseData> {
 public:
  using ListwiseBlockData::ListwiseBlockData;
  NSMatrixListwiseData(int col0, int col1, int col2)
      : ListwiseBlockData(internal::BlockBounds{col0, col1, col2}) {}

  int NFirst() const { return _col1 - _col0; }
  int NSecond() const { return _col2 - _col1; }

  std::vector<double> _css;  // corrected sum of squares of each block column

 private:
  friend class ListwiseBlockData;

  void CheckFirstBatch(const DataBatch& data) const;
  std::size_t CellCount() const;
  void SizeOwnStores() { _css.assign(_means.size(), 0.0); }
  void FillCells(const internal::ColumnBlock& block, const double* w, int rows);
  void CheckMerge(const NSMatrixListwiseData& d) const;
  void JoinCells(const NSMatrixListwiseData& d, double* newMeans, double a, double b);
};

namespace {

// The sweep ended behind the last cell of the i x j rectangle. The expression
// is reported as written.
void CheckSweepEnd(const double* _xp, const double* xprow, int i, int j) {
  // clang-format off
  VOREL_ASSERT(xprow == _xp+i*j);
  // clang-format on
}

}  // namespace

void NSMatrixListwiseData::CheckFirstBatch(const DataBatch& data) const {
  VOREL_ASSERT(!_xp);
  // clang-format off
  VOREL_ASSERT(_col0<_col1 && _col1<_col2);
  // clang-format on
  // The expression is reported as written, cast included.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wold-style-cast"
  VOREL_ASSERT(_col2 <= (int)data.NColumns());
#pragma GCC diagnostic pop
}

std::size_t NSMatrixListwiseData::CellCount() const {
  return internal::CheckedTableCells(static_cast<long long>(NFirst()) * NSecond());
}

// Centres the block's columns in place, then takes in one sweep the sum of
// squares of every column and every first-set column against every
// second-set column, row after row. The blocked kernel gives every cell the
// bits of its own dot product over the rows in order.
void NSMatrixListwiseData::FillCells(const internal::ColumnBlock& block, const double* w,
                                     int rows) {
  internal::CrossProductJob job = JobOver(block, w, rows);
  job.rectangle = _xp.get();
  job.split = NFirst();
  job.diagonal = _css.data();
  internal::CrossProducts(job);
  const double* xprow = _xp.get() + static_cast<std::ptrdiff_t>(NFirst()) * NSecond();
  CheckSweepEnd(_xp.get(), xprow, NFirst(), NSecond());
}

void NSMatrixListwiseData::CheckMerge(const NSMatrixListwiseData& d) const {
  VOREL_ASSERT(_means.size() == d._means.size());
  VOREL_ASSERT(_hasRegWeights == d._hasRegWeights);
  VOREL_ASSERT(_col0 == d._col0 && _col1 == d._col1 && _col2 == d._col2);
}

// Every column first: extremes, joined mean and sum of squares,
//   css = css + ((s^2 * a + d.css) + e^2 * b),
// with s the shift of the mean and e = M - d.mean. Then the rectangle row
// after row, m being the block position of the second-set column:
//   C = C + (((M_m - m_m) * p + d.C) + (M_m - d.m_m) * q),
// with p = (M_row - m_row) * a and q = (M_row - d.m_row) * b.
void NSMatrixListwiseData::JoinCells(const NSMatrixListwiseData& d, double* newMeans, double a,
                                     double b) {
  for (std::size_t k = 0; k < _means.size(); ++k) {
    const internal::JoinedMean m = JoinColumn(d, k, newMeans, a, b);
    const double e = m.mean - d._means[k];
    _css[k] = internal::JoinSumsSquareFirst(_css[k], m.shift, a, d._css[k], e, b);
  }
  const auto nFirst = static_cast<std::size_t>(NFirst());
  const auto nSecond = static_cast<std::size_t>(NSecond());
  int xpindex = 0;
  for (int row = 0; row < NFirst(); ++row) {
    const auto r = static_cast<std::size_t>(row);
    const internal::RowFactors factors =
        internal::RowFactorsFromMeans(newMeans[r], _means[r], d._means[r], a, b);
    JoinRow(d, newMeans, nFirst, factors, nSecond, xpindex);
    // clang-format off
    VOREL_ASSERT(xpindex == (row+1)*(_col2-_col1));
    // clang-format on
  }
  // clang-format off
  VOREL_ASSERT(xpindex == (_col1-_col0)*(_col2-_col1));
  // clang-format on
}

// ---------------------------------------------------------------- handle

template class internal::RecordHandle<NSMatrixListwiseData>;

NSMatrixListwise::NSMatrixListwise(int col0, int col1, int col2)
    : _my(std::in_place, col0, col1, col2) {}

MatrixBase& NSMatrixListwise::operator+=(DataBatch& data) {
  internal::AccumulateOrMerge(*_my, data);
  return *this;
}

MatrixBase& NSMatrixListwise::operator+=(MatrixBase& other) {
  return internal::AddSameClass(*this, other, &NSMatrixListwise::_my);
}

int NSMatrixListwise::NRows() const { return _my->_nRows; }
double NSMatrixListwise::WeightSum() const { return _my->_weightSum; }
double NSMatrixListwise::RegWeightSum() const { return _my->_regWeightSum; }
bool NSMatrixListwise::HasRegWeights() const { return _my->_hasRegWeights; }
int NSMatrixListwise::Col0() const { return _my->_col0; }
int NSMatrixListwise::Col1() const { return _my->_col1; }
int NSMatrixListwise::Col2() const { return _my->_col2; }
int NSMatrixListwise::NColumns() const { return _my->NColumns(); }

double NSMatrixListwise::Mean(int c) const {
  VOREL_ASSERT(c < _my->_col2 && c >= _my->_col0);
  VOREL_ASSERT(0. < WeightSum());
  return _my->_means[_my->Position(c)];
}

double NSMatrixListwise::Min(int c) const {
  VOREL_ASSERT(c < _my->_col2 && c >= _my->_col0);
  VOREL_ASSERT(0. < WeightSum());
  return _my->_mins[_my->Position(c)];
}

double NSMatrixListwise::Max(int c) const {
  VOREL_ASSERT(c < _my->_col2 && c >= _my->_col0);
  if (_my->_maxs.empty()) return MaxInitial;  // no row seen yet
  return _my->_maxs[_my->Position(c)];
}

double NSMatrixListwise::CCP(int row, int col) const {
  VOREL_ASSERT(row < _my->_col2 && row >= _my->_col0);
  VOREL_ASSERT(col < _my->_col2 && col >= _my->_col0);
  VOREL_ASSERT(0. < WeightSum());
  if (row == col) return _my->_css[_my->Position(row)];
  const int lo = std::min(row, col);
  const int hi = std::max(row, col);
  // Two columns of one set have no cell.
  VOREL_ASSERT(lo < _my->_col1 && hi >= _my->_col1);
  return _my->_xp[static_cast<std::size_t>((lo - _my->_col0) * _my->NSecond() + (hi - _my->_col1))];
}

}  // namespace vorel
