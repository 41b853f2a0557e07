#include <vorel/databatch.h>
#include <vorel/initialextremes.h>
#include <vorel/smatrixlistwise.h>
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

// The state of one SMatrixListwise. Empty while _xp is null; filled from the
// first batch or merge on, with every store at its final size.
//
// _xp is the lower triangle with its diagonal, row after row: the cell of
// block positions i >= j is at MatrixRowCount(i+1) + j, and a block of nCols
// columns has MatrixRowCount(nCols+1) cells. A cell holds
// sum w * (x_i - mean_i) * (x_j - mean_j) over all rows so far.
class SMatrixListwiseData {
 public:
  SMatrixListwiseData(int col0, int col2) : _col0(col0), _col1(col0), _col2(col2) {}
  ~SMatrixListwiseData() { delete[] _xp; }
  SMatrixListwiseData(const SMatrixListwiseData& d);
  // A deep copy; the two records share nothing afterwards.
  SMatrixListwiseData& operator=(const SMatrixListwiseData& d);

  // Reduces the first batch into this empty record; centres the batch.
  void Accumulate(DataBatch& data);
  // Folds d into this record; d is only read and may be this record.
  void Merge(const SMatrixListwiseData& d);

  int NCells() const { return MatrixRowCount(static_cast<int>(_means.size()) + 1); }

  double _weightSum = 0.0;
  double _regWeightSum = 0.0;
  int _nRows = 0;
  std::vector<double> _means;
  std::vector<double> _mins;
  std::vector<double> _maxs;
  int _col0;
  int _col1;
  int _col2;
  double* _xp = nullptr;  // owned; null while empty
  bool _hasRegWeights = false;

 private:
  void SettleBounds(int nCols);
  void ReduceColumns(const ColumnBlock& block, const double* w, int rows);
  void FillTriangle(const ColumnBlock& block, const double* w, int rows);
  void MergeTriangleRow(const SMatrixListwiseData& d, const double* newMeans, double p,
                        double q, int i, int& xpindex);
  void Swap(SMatrixListwiseData& other) noexcept;
};

SMatrixListwiseData::SMatrixListwiseData(const SMatrixListwiseData& d)
    : _weightSum(d._weightSum),
      _regWeightSum(d._regWeightSum),
      _nRows(d._nRows),
      _means(d._means),
      _mins(d._mins),
      _maxs(d._maxs),
      _col0(d._col0),
      _col1(d._col1),
      _col2(d._col2),
      _hasRegWeights(d._hasRegWeights) {
  if (d._xp != nullptr) {
    const int nCells = d.NCells();
    _xp = new double[static_cast<std::size_t>(nCells)];
    std::copy(d._xp, d._xp + nCells, _xp);
  }
}

SMatrixListwiseData& SMatrixListwiseData::operator=(const SMatrixListwiseData& d) {
  if (this != &d) {
    SMatrixListwiseData copy(d);  // all allocation before this record changes
    Swap(copy);
  }
  return *this;
}

void SMatrixListwiseData::Swap(SMatrixListwiseData& other) noexcept {
  using std::swap;
  swap(_weightSum, other._weightSum);
  swap(_regWeightSum, other._regWeightSum);
  swap(_nRows, other._nRows);
  swap(_means, other._means);
  swap(_mins, other._mins);
  swap(_maxs, other._maxs);
  swap(_col0, other._col0);
  swap(_col1, other._col1);
  swap(_col2, other._col2);
  swap(_xp, other._xp);
  swap(_hasRegWeights, other._hasRegWeights);
}

// nCols is the batch's column count. A block built without bounds takes all of it.
void SMatrixListwiseData::SettleBounds(int nCols) {
  if (_col2 == 0) {
    VOREL_ASSERT(_col0 == 0 && _col1 == 0);
    _col2 = nCols;
  } else {
    VOREL_ASSERT(_col0==_col1 && _col0>=0);
    VOREL_ASSERT(_col2 <= nCols && _col2>_col0);
  }
}

void SMatrixListwiseData::Accumulate(DataBatch& data) {
  VOREL_ASSERT(!_xp);
  SettleBounds(static_cast<int>(data.NColumns()));
  const int rows = static_cast<int>(data.NRows());
  _hasRegWeights = data.RegWeights() != nullptr;
  _nRows = rows;

  const int nCols = _col2 - _col0;
  // The triangle is indexed by int, the product in MatrixRowCount included.
  CheckedTableCells((static_cast<long long>(nCols) + 1) * nCols);
  const int nCells = MatrixRowCount(nCols+1);
  _means.assign(static_cast<std::size_t>(nCols), 0.0);
  _mins.assign(static_cast<std::size_t>(nCols), MinInitial);
  _maxs.assign(static_cast<std::size_t>(nCols), MaxInitial);
  _xp = new double[static_cast<std::size_t>(nCells)];  // every cell is written below

  // The frequency weights are totalled before they become the combined weights.
  _weightSum = SumWeights(data.Weights(), rows);
  // Only the first operand is written: the regression weights are just read.
  const double* w =
      MultiplyInPlace(data.Weights(), const_cast<double*>(data.RegWeights()), rows);
  _regWeightSum = _hasRegWeights ? SumValues(w, rows) : _weightSum;

  const ColumnBlock block = BatchColumns(data, static_cast<unsigned>(_col0), nCols);
  ReduceColumns(block, w, rows);
  FillTriangle(block, w, rows);
  const double* xprow = _xp + MatrixRowCount(nCols);  // the start of the last row
  VOREL_ASSERT(xprow+nCols == _xp+nCells);
}

// Means and extremes (of the cells as added) of the block's columns, in one
// sweep over each.
void SMatrixListwiseData::ReduceColumns(const ColumnBlock& block, const double* w, int rows) {
  ColumnPass(block, w, _regWeightSum, rows, _means.data(), _mins.data(), _maxs.data());
}

// Centres the block's columns in place and fills the triangle of the centred
// columns. The blocked kernel gives every cell the bits of its own dot
// product over the rows in order; which cells it works on together changes no
// value.
void SMatrixListwiseData::FillTriangle(const ColumnBlock& block, const double* w, int rows) {
  CrossProductJob job;
  job.cols = block;
  job.weights = w;
  job.nRows = rows;
  job.centre = _means.data();
  job.triangle = _xp;
  CrossProducts(job);
}

void SMatrixListwiseData::Merge(const SMatrixListwiseData& d) {
  VOREL_ASSERT(_means.size() == d._means.size());
  VOREL_ASSERT(_hasRegWeights == d._hasRegWeights);
  VOREL_ASSERT(_col0 == d._col0 && _col1 == d._col1 && _col2 == d._col2);
  // Exactly zero frequency weight: nothing of d counts, not even its rows.
  if (d._weightSum == 0.0) return;

  const double a = _regWeightSum;
  const double b = d._regWeightSum;
  const int nCols = static_cast<int>(_means.size());
  MeansScratch scratch(_means.size());
  double* newMeans = scratch.data();

  int xpindex = 0;
  for (int i = 0; i < nCols; ++i) {
    const auto k = static_cast<std::size_t>(i);
    if (d._maxs[k] > _maxs[k]) _maxs[k] = d._maxs[k];
    if (d._mins[k] < _mins[k]) _mins[k] = d._mins[k];
    const double s = MeanShift(_means[k], a, d._means[k], b);
    newMeans[i] = _means[k] + s;
    const double p = s * a;
    const double q = (newMeans[i] - d._means[k]) * b;
    MergeTriangleRow(d, newMeans, p, q, i, xpindex);
  }
  VOREL_ASSERT(xpindex == MatrixRowCount(nCols+1));

  // Only now: every row above read the old means of the columns before it.
  std::copy(newMeans, newMeans + nCols, _means.begin());
  _weightSum += d._weightSum;
  _regWeightSum = a + b;
  _nRows += d._nRows;
}

// Row i of the merged triangle:
//   C_ij = C_ij + ((M_j - m_j) * p + d.C_ij) + (M_j - d.m_j) * q,
// with p = a * (M_i - m_i) and q = b * (M_i - d.m_i). A cell is read from d
// before it is written, so d may be this record.
void SMatrixListwiseData::MergeTriangleRow(const SMatrixListwiseData& d,
                                           const double* newMeans, double p, double q, int i,
                                           int& xpindex) {
  for (int j = 0; j <= i; ++j, ++xpindex) {
    const auto k = static_cast<std::size_t>(j);
    // The order of evaluation is deliberate.
    const double u = (newMeans[j] - _means[k]) * p
                     + d._xp[xpindex];
    const double v = (newMeans[j] - d._means[k]) * q;
    _xp[xpindex] = _xp[xpindex] + (u + v);
  }
}

// ---------------------------------------------------------------- handle

SMatrixListwise::SMatrixListwise() : SMatrixListwise(0, 0) {}

SMatrixListwise::SMatrixListwise(int col0, int col2)
    : _my(std::make_unique<SMatrixListwiseData>(col0, col2)) {}

SMatrixListwise::~SMatrixListwise() = default;

SMatrixListwise::SMatrixListwise(const SMatrixListwise& other)
    : MatrixBase(other),
      _my(other._my ? std::make_unique<SMatrixListwiseData>(*other._my) : nullptr) {}

SMatrixListwise& SMatrixListwise::operator=(const SMatrixListwise& other) {
  if (this != &other) {
    auto copy = other._my ? std::make_unique<SMatrixListwiseData>(*other._my) : nullptr;
    _my = std::move(copy);
  }
  return *this;
}

SMatrixListwise::SMatrixListwise(SMatrixListwise&& other) noexcept = default;
SMatrixListwise& SMatrixListwise::operator=(SMatrixListwise&& other) noexcept = default;

MatrixBase& SMatrixListwise::operator+=(DataBatch& data) {
  if (data.NRows() == 0) return *this;
  if (!_my->_xp) {
    _my->Accumulate(data);
  } else {
    SMatrixListwiseData batchRecord(_my->_col0, _my->_col2);
    batchRecord.Accumulate(data);
    _my->Merge(batchRecord);
  }
  return *this;
}

MatrixBase& SMatrixListwise::operator+=(MatrixBase& other) {
  if (other.NRows() == 0) return *this;
  const auto* d = dynamic_cast<const SMatrixListwise*>(&other);
  VOREL_ASSERT(d != nullptr);
  if (!_my->_xp) {
    *_my = *d->_my;
  } else {
    _my->Merge(*d->_my);
  }
  return *this;
}

int SMatrixListwise::NRows() const { return _my->_nRows; }
double SMatrixListwise::WeightSum() const { return _my->_weightSum; }
double SMatrixListwise::RegWeightSum() const { return _my->_regWeightSum; }
bool SMatrixListwise::HasRegWeights() const { return _my->_hasRegWeights; }
int SMatrixListwise::Col0() const { return _my->_col0; }
int SMatrixListwise::Col1() const { return _my->_col1; }
int SMatrixListwise::Col2() const { return _my->_col2; }
int SMatrixListwise::NColumns() const { return static_cast<int>(_my->_means.size()); }

double SMatrixListwise::Mean(int c) const {
  VOREL_ASSERT(c < _my->_col2 && c >= _my->_col0);
  VOREL_ASSERT(0. < WeightSum());
  return _my->_means[static_cast<std::size_t>(c - _my->_col0)];
}

double SMatrixListwise::Min(int c) const {
  VOREL_ASSERT(c < _my->_col2 && c >= _my->_col0);
  VOREL_ASSERT(0. < WeightSum());
  return _my->_mins[static_cast<std::size_t>(c - _my->_col0)];
}

double SMatrixListwise::Max(int c) const {
  VOREL_ASSERT(c < _my->_col2 && c >= _my->_col0);
  if (_my->_maxs.empty()) return MaxInitial;  // no row seen yet
  return _my->_maxs[static_cast<std::size_t>(c - _my->_col0)];
}

double SMatrixListwise::CCP(int row, int col) const {
  VOREL_ASSERT(row < _my->_col2 && row >= _my->_col0);
  VOREL_ASSERT(col < _my->_col2 && col >= _my->_col0);
  VOREL_ASSERT(0. < WeightSum());
  const int i = std::max(row, col) - _my->_col0;
  const int j = std::min(row, col) - _my->_col0;
  return _my->_xp[MatrixRowCount(i + 1) + j];
}

}  // namespace vorel
