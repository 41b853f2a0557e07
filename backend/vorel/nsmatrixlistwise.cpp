#include <vorel/databatch.h>
#include <vorel/initialextremes.h>
#include <vorel/nsmatrixlistwise.h>
#include <vorelhost/assertion.h>

#include <algorithm>
#include <utility>
#include <vector>

#include "kernels/columnkernels.h"
#include "kernels/crossproducts.h"
#include "matrixrowcount.h"
#include "meansscratch.h"

namespace vorel {

// The kernels.
using namespace internal;

// The state of one NSMatrixListwise. Empty while _xp is null; filled from the
// first batch or merge on, with every store at its final size.
//
// The four vectors run over the whole block, first set before second. _xp is
// the rectangle of nFirst rows of nSecond cells: the cell of first-set
// position r with second-set position c is at r * nSecond + c and holds
// sum w * (x_r - mean_r) * (x_c - mean_c) over all rows so far.
class NSMatrixListwiseData {
 public:
  NSMatrixListwiseData(int col0, int col1, int col2) : _col0(col0), _col1(col1), _col2(col2) {}
  ~NSMatrixListwiseData() { delete[] _xp; }
  NSMatrixListwiseData(const NSMatrixListwiseData& d);
  // A deep copy; the two records share nothing afterwards.
  NSMatrixListwiseData& operator=(const NSMatrixListwiseData& d);

  // Reduces the first batch into this empty record; centres the batch.
  void Accumulate(DataBatch& data);
  // Folds d into this record; d is only read and may be this record.
  void Merge(const NSMatrixListwiseData& d);

  int NFirst() const { return _col1 - _col0; }
  int NSecond() const { return _col2 - _col1; }

  double _weightSum = 0.0;
  double _regWeightSum = 0.0;
  int _nRows = 0;
  std::vector<double> _css;
  std::vector<double> _means;
  std::vector<double> _mins;
  std::vector<double> _maxs;
  int _col0;
  int _col1;
  int _col2;
  double* _xp = nullptr;  // owned; null while empty
  bool _hasRegWeights = false;

 private:
  void CheckBounds(const DataBatch& data) const;
  void ReduceColumns(const ColumnBlock& block, const double* w, int rows);
  double* SweepRectangle(const ColumnBlock& block, const double* w, int rows);
  void MergeColumn(const NSMatrixListwiseData& d, double* newMeans, double a, double b, int k);
  void MergeRectangleRow(const NSMatrixListwiseData& d, const double* newMeans, double a,
                         double b, int row, int& xpindex);
  void Swap(NSMatrixListwiseData& other) noexcept;
};

NSMatrixListwiseData::NSMatrixListwiseData(const NSMatrixListwiseData& d)
    : _weightSum(d._weightSum),
      _regWeightSum(d._regWeightSum),
      _nRows(d._nRows),
      _css(d._css),
      _means(d._means),
      _mins(d._mins),
      _maxs(d._maxs),
      _col0(d._col0),
      _col1(d._col1),
      _col2(d._col2),
      _hasRegWeights(d._hasRegWeights) {
  if (d._xp != nullptr) {
    const std::size_t nCells = static_cast<std::size_t>(d.NFirst()) * d.NSecond();
    _xp = new double[nCells];
    std::copy(d._xp, d._xp + nCells, _xp);
  }
}

NSMatrixListwiseData& NSMatrixListwiseData::operator=(const NSMatrixListwiseData& d) {
  if (this != &d) {
    NSMatrixListwiseData copy(d);  // all allocation before this record changes
    Swap(copy);
  }
  return *this;
}

void NSMatrixListwiseData::Swap(NSMatrixListwiseData& other) noexcept {
  using std::swap;
  swap(_weightSum, other._weightSum);
  swap(_regWeightSum, other._regWeightSum);
  swap(_nRows, other._nRows);
  swap(_css, other._css);
  swap(_means, other._means);
  swap(_mins, other._mins);
  swap(_maxs, other._maxs);
  swap(_col0, other._col0);
  swap(_col1, other._col1);
  swap(_col2, other._col2);
  swap(_xp, other._xp);
  swap(_hasRegWeights, other._hasRegWeights);
}

void NSMatrixListwiseData::CheckBounds(const DataBatch& data) const {
  VOREL_ASSERT(_col0<_col1 && _col1<_col2);
  // The expression is reported as written, cast included.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wold-style-cast"
  VOREL_ASSERT(_col2 <= (int)data.NColumns());
#pragma GCC diagnostic pop
}

void NSMatrixListwiseData::Accumulate(DataBatch& data) {
  VOREL_ASSERT(!_xp);
  CheckBounds(data);
  const int rows = static_cast<int>(data.NRows());
  _hasRegWeights = data.RegWeights() != nullptr;
  _nRows = rows;

  const auto nCols = static_cast<std::size_t>(_col2 - _col0);
  const std::size_t nCells = CheckedTableCells(static_cast<long long>(NFirst()) * NSecond());
  _css.assign(nCols, 0.0);
  _means.assign(nCols, 0.0);
  _mins.assign(nCols, MinInitial);
  _maxs.assign(nCols, MaxInitial);
  _xp = new double[nCells];  // every cell is written below

  // The frequency weights are totalled before they become the combined weights.
  _weightSum = SumWeights(data.Weights(), rows);
  // Only the first operand is written: the regression weights are just read.
  const double* w =
      MultiplyInPlace(data.Weights(), const_cast<double*>(data.RegWeights()), rows);
  _regWeightSum = _hasRegWeights ? SumValues(w, rows) : _weightSum;

  // All columns first, then the whole rectangle of centred columns.
  const ColumnBlock block = BatchColumns(data, static_cast<unsigned>(_col0), _col2 - _col0);
  ReduceColumns(block, w, rows);
  const double* xprow = SweepRectangle(block, w, rows);
  const int i = NFirst();
  const int j = NSecond();
  VOREL_ASSERT(xprow == _xp+i*j);
}

// Extremes (of the cells as added) and means of the block's columns, in one
// sweep over each.
void NSMatrixListwiseData::ReduceColumns(const ColumnBlock& block, const double* w, int rows) {
  ColumnPass(block, w, _regWeightSum, rows, _means.data(), _mins.data(), _maxs.data());
}

// Centres the block's columns in place, then takes in one sweep the sum of
// squares of every column and every first-set column against every
// second-set column, row after row. The blocked kernel gives every cell the
// bits of its own dot product over the rows in order. Returns the place
// behind the last cell written.
double* NSMatrixListwiseData::SweepRectangle(const ColumnBlock& block, const double* w, int rows) {
  CrossProductJob job;
  job.cols = block;
  job.weights = w;
  job.nRows = rows;
  job.centre = _means.data();
  job.rectangle = _xp;
  job.split = NFirst();
  job.diagonal = _css.data();
  CrossProducts(job);
  return _xp + static_cast<std::ptrdiff_t>(NFirst()) * NSecond();
}

void NSMatrixListwiseData::Merge(const NSMatrixListwiseData& d) {
  VOREL_ASSERT(_means.size() == d._means.size());
  VOREL_ASSERT(_hasRegWeights == d._hasRegWeights);
  VOREL_ASSERT(_col0 == d._col0 && _col1 == d._col1 && _col2 == d._col2);
  // Exactly zero frequency weight: nothing of d counts, not even its rows.
  if (d._weightSum == 0.0) return;

  const double a = _regWeightSum;
  const double b = d._regWeightSum;
  MeansScratch scratch(_means.size());
  double* newMeans = scratch.data();
  for (int k = 0; k < _col2 - _col0; ++k) MergeColumn(d, newMeans, a, b, k);

  int xpindex = 0;
  for (int row = 0; row < NFirst(); ++row) {
    MergeRectangleRow(d, newMeans, a, b, row, xpindex);
    VOREL_ASSERT(xpindex == (row+1)*(_col2-_col1));
  }
  VOREL_ASSERT(xpindex == (_col1-_col0)*(_col2-_col1));

  // Only now: the rectangle above read the old means.
  std::copy(newMeans, newMeans + _means.size(), _means.begin());
  _weightSum += d._weightSum;
  _regWeightSum = a + b;
  _nRows += d._nRows;
}

// Extremes, merged mean and sum of squares of block column k:
//   css = css + ((a * s^2 + d.css) + b * e^2),
// with s the shift of the mean and e = M - d.mean.
void NSMatrixListwiseData::MergeColumn(const NSMatrixListwiseData& d, double* newMeans,
                                       double a, double b, int k) {
  const auto p = static_cast<std::size_t>(k);
  if (d._maxs[p] > _maxs[p]) _maxs[p] = d._maxs[p];
  if (d._mins[p] < _mins[p]) _mins[p] = d._mins[p];
  const double s = MeanShift(_means[p], a, d._means[p], b);
  newMeans[k] = _means[p] + s;
  const double e = newMeans[k] - d._means[p];
  // The order of evaluation is deliberate.
  _css[p] = _css[p]
            + (((s * s) * a
                + d._css[p])
               + (e * e) * b);
}

// Row `row` of the merged rectangle, m being the block position of the
// second-set column:
//   C = C + (((M_m - m_m) * p + d.C) + (M_m - d.m_m) * q),
// with p = (M_row - m_row) * a and q = (M_row - d.m_row) * b. A cell is read
// from d before it is written, so d may be this record.
void NSMatrixListwiseData::MergeRectangleRow(const NSMatrixListwiseData& d,
                                             const double* newMeans, double a, double b,
                                             int row, int& xpindex) {
  const auto r = static_cast<std::size_t>(row);
  const double p = (newMeans[row] - _means[r]) * a;
  const double q = (newMeans[row] - d._means[r]) * b;
  const int nFirst = NFirst();
  for (int c = 0; c < NSecond(); ++c, ++xpindex) {
    const int mk = nFirst + c;
    const auto m = static_cast<std::size_t>(mk);
    // The order of evaluation is deliberate.
    const double u = (newMeans[mk] - _means[m]) * p
                     + d._xp[xpindex];
    const double v = (newMeans[mk] - d._means[m]) * q;
    _xp[xpindex] = _xp[xpindex] + (u + v);
  }
}

// ---------------------------------------------------------------- handle

NSMatrixListwise::NSMatrixListwise(int col0, int col1, int col2)
    : _my(std::make_unique<NSMatrixListwiseData>(col0, col1, col2)) {}

NSMatrixListwise::~NSMatrixListwise() = default;

NSMatrixListwise::NSMatrixListwise(const NSMatrixListwise& other)
    : MatrixBase(other),
      _my(other._my ? std::make_unique<NSMatrixListwiseData>(*other._my) : nullptr) {}

NSMatrixListwise& NSMatrixListwise::operator=(const NSMatrixListwise& other) {
  if (this != &other) {
    auto copy = other._my ? std::make_unique<NSMatrixListwiseData>(*other._my) : nullptr;
    _my = std::move(copy);
  }
  return *this;
}

NSMatrixListwise::NSMatrixListwise(NSMatrixListwise&& other) noexcept = default;
NSMatrixListwise& NSMatrixListwise::operator=(NSMatrixListwise&& other) noexcept = default;

MatrixBase& NSMatrixListwise::operator+=(DataBatch& data) {
  if (data.NRows() == 0) return *this;
  if (!_my->_xp) {
    _my->Accumulate(data);
  } else {
    NSMatrixListwiseData batchRecord(_my->_col0, _my->_col1, _my->_col2);
    batchRecord.Accumulate(data);
    _my->Merge(batchRecord);
  }
  return *this;
}

MatrixBase& NSMatrixListwise::operator+=(MatrixBase& other) {
  if (other.NRows() == 0) return *this;
  const auto* d = dynamic_cast<const NSMatrixListwise*>(&other);
  VOREL_ASSERT(d != nullptr);
  if (!_my->_xp) {
    *_my = *d->_my;
  } else {
    _my->Merge(*d->_my);
  }
  return *this;
}

int NSMatrixListwise::NRows() const { return _my->_nRows; }
double NSMatrixListwise::WeightSum() const { return _my->_weightSum; }
double NSMatrixListwise::RegWeightSum() const { return _my->_regWeightSum; }
bool NSMatrixListwise::HasRegWeights() const { return _my->_hasRegWeights; }
int NSMatrixListwise::Col0() const { return _my->_col0; }
int NSMatrixListwise::Col1() const { return _my->_col1; }
int NSMatrixListwise::Col2() const { return _my->_col2; }
int NSMatrixListwise::NColumns() const { return static_cast<int>(_my->_means.size()); }

double NSMatrixListwise::Mean(int c) const {
  VOREL_ASSERT(c < _my->_col2 && c >= _my->_col0);
  VOREL_ASSERT(0. < WeightSum());
  return _my->_means[static_cast<std::size_t>(c - _my->_col0)];
}

double NSMatrixListwise::Min(int c) const {
  VOREL_ASSERT(c < _my->_col2 && c >= _my->_col0);
  VOREL_ASSERT(0. < WeightSum());
  return _my->_mins[static_cast<std::size_t>(c - _my->_col0)];
}

double NSMatrixListwise::Max(int c) const {
  VOREL_ASSERT(c < _my->_col2 && c >= _my->_col0);
  if (_my->_maxs.empty()) return MaxInitial;  // no row seen yet
  return _my->_maxs[static_cast<std::size_t>(c - _my->_col0)];
}

double NSMatrixListwise::CCP(int row, int col) const {
  VOREL_ASSERT(row < _my->_col2 && row >= _my->_col0);
  VOREL_ASSERT(col < _my->_col2 && col >= _my->_col0);
  VOREL_ASSERT(0. < WeightSum());
  if (row == col) return _my->_css[static_cast<std::size_t>(row - _my->_col0)];
  const int lo = std::min(row, col);
  const int hi = std::max(row, col);
  // Two columns of one set have no cell.
  VOREL_ASSERT(lo < _my->_col1 && hi >= _my->_col1);
  return _my->_xp[(lo - _my->_col0) * _my->NSecond() + (hi - _my->_col1)];
}

}  // namespace vorel
