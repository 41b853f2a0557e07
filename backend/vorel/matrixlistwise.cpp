#include <vorel/databatch.h>
#include <vorel/matrixlistwise.h>
#include <vorelhost/assertion.h>

#include <cstdint>
#include <limits>
#include <utility>
#include <vector>

#include "common/handle.h"
#include "common/storelimits.h"
#include "common/triangle.h"
#include "kernels/columnkernels.h"
#include "kernels/crossproducts.h"
#include "records/meansscratch.h"
#include "records/updateformula.h"

namespace vorel {

using internal::BatchColumns;
using internal::ColumnPass;
using internal::CrossProductJob;
using internal::CrossProducts;
using internal::MultiplyInPlace;
using internal::SumValues;
using internal::SumWeights;

namespace {

// Start of row n of the lower triangle with its diagonal, and the cell count
// of n rows. 32-bit by design; the batch's column count is checked before use.
unsigned MatrixRow(unsigned n) { return internal::TriangleStart(n + 1); }

// The widest table whose (n + 1) n still fits 32 bits.
void CheckColumnCount(unsigned nCols) {
  internal::CheckStoreSize((std::uint64_t{nCols} + 1) * nCols,
                           std::numeric_limits<std::uint32_t>::max());
}

// The last row of the triangle ends with the store. The expression is
// reported as written.
void CheckLastRow(const double* _xp, const double* xprow, unsigned nCols, unsigned nCells) {
  // clang-format off
  VOREL_ASSERT(xprow+nCols == _xp+nCells);
  // clang-format on
}

}  // namespace

struct MatrixListwiseData {
  bool Empty() const { return !_xp; }
  MatrixListwiseData EmptyOfSameShape() const { return {}; }
  // Reduces a batch into this empty record, centring the batch in place.
  void Accumulate(DataBatch& data);
  // Folds d (which may be this record) into this filled record.
  void Merge(const MatrixListwiseData& d);

  unsigned NColumns() const { return static_cast<unsigned>(_means.size()); }

  double _weightSum = 0.0;     // frequency weight of all rows counted
  double _regWeightSum = 0.0;  // combined weight of all rows counted
  std::uint64_t _nRows = 0;
  std::vector<double> _means;        // one per column; empty while the record is empty
  internal::OwnedArray<double> _xp;  // MatrixRow(nCols) cells; none while empty
  bool _hasRegWeights = false;

 private:
  void FillTriangle(DataBatch& data, const double* combined, int n);
  void MergeRow(unsigned row, const double* newMeans, const MatrixListwiseData& d,
                internal::RowFactors factors, unsigned xpindex);
};

void MatrixListwiseData::Accumulate(DataBatch& data) {
  VOREL_ASSERT(!_xp);
  const unsigned nCols = data.NColumns();
  const int n = static_cast<int>(data.NRows());
  CheckColumnCount(nCols);
  // Both stores are taken before any field changes, so a failed allocation
  // leaves the record empty. The cells are not cleared: each is written once.
  std::vector<double> means(nCols, 0.0);
  internal::OwnedArray<double> xp(MatrixRow(nCols));

  _hasRegWeights = data.HasRegWeights();
  _nRows = static_cast<std::uint64_t>(n);
  // The frequency total comes first: forming the combined weights overwrites them.
  _weightSum = SumWeights(data.Weights(), n);
  // The kernel writes only into its first operand, never into the regression weights.
  const double* combined =
      MultiplyInPlace(data.Weights(), const_cast<double*>(data.RegWeights()), n);
  _regWeightSum = _hasRegWeights ? SumValues(combined, n) : _weightSum;

  // The means of the columns under the combined weights, in one sweep.
  ColumnPass(BatchColumns(data, 0, static_cast<int>(nCols)), combined, _regWeightSum, n,
             means.data(), nullptr, nullptr);
  _means.swap(means);
  _xp = std::move(xp);
  FillTriangle(data, combined, n);
}

// Centres the columns in place on their means and fills the triangle of the
// corrected cross-products. The blocked kernel gives every cell the bits of
// its own dot product over the centred columns, taken in row order; which
// cells it works on together changes no value.
void MatrixListwiseData::FillTriangle(DataBatch& data, const double* combined, int n) {
  const unsigned nCols = NColumns();
  CrossProductJob job;
  job.cols = BatchColumns(data, 0, static_cast<int>(nCols));
  job.weights = combined;
  job.nRows = n;
  job.centre = _means.data();
  job.triangle = _xp.get();
  CrossProducts(job);
  const double* xprow = nCols > 0 ? _xp.get() + MatrixRow(nCols - 1) : _xp.get();
  CheckLastRow(_xp.get(), xprow, nCols, MatrixRow(nCols));
}

// C_ij = C_t,ij + C_d,ij + R_t (M_i - m_t,i)(M_j - m_t,j) + R_d (M_i - m_d,i)(M_j - m_d,j),
// with M the new means; the factors of row i are taken from its shift.
void MatrixListwiseData::Merge(const MatrixListwiseData& d) {
  VOREL_ASSERT(_means.size() == d._means.size());
  VOREL_ASSERT(_hasRegWeights == d._hasRegWeights);
  // Equality on purpose: a negative or NaN frequency total goes on.
  if (d._weightSum == 0.0) return;

  const unsigned nCols = NColumns();
  // The old means must stay readable until the last row is merged.
  internal::MeansScratch scratch(nCols);
  double* newMeans = scratch.data();

  const double rt = _regWeightSum;
  const double rd = d._regWeightSum;
  unsigned xpindex = 0;
  for (unsigned i = 0; i < nCols; ++i) {
    const internal::JoinedMean m = internal::JoinMeans(_means[i], rt, d._means[i], rd);
    newMeans[i] = m.mean;
    MergeRow(i, newMeans, d, internal::RowFactorsFromShift(m, rt, d._means[i], rd), xpindex);
    xpindex += i + 1;
  }
  VOREL_ASSERT(xpindex == MatrixRow(nCols));

  std::copy(newMeans, newMeans + nCols, _means.begin());
  _weightSum += d._weightSum;
  _regWeightSum = rt + rd;
  _nRows += d._nRows;
}

// Row i of the merge, cells j = 0..i in order, four a turn while four remain.
void MatrixListwiseData::MergeRow(unsigned row, const double* newMeans, const MatrixListwiseData& d,
                                  internal::RowFactors f, unsigned xpindex) {
  double* t = _xp.get() + xpindex;
  const double* o = d._xp.get() + xpindex;
  const double* mt = _means.data();
  const double* md = d._means.data();
  const unsigned count = row + 1;
  unsigned j = 0;
  for (; j + 4 <= count; j += 4) {
    t[j] = internal::JoinCell(newMeans[j], mt[j], md[j], f, o[j], t[j]);
    t[j + 1] = internal::JoinCell(newMeans[j + 1], mt[j + 1], md[j + 1], f, o[j + 1], t[j + 1]);
    t[j + 2] = internal::JoinCell(newMeans[j + 2], mt[j + 2], md[j + 2], f, o[j + 2], t[j + 2]);
    t[j + 3] = internal::JoinCell(newMeans[j + 3], mt[j + 3], md[j + 3], f, o[j + 3], t[j + 3]);
  }
  for (; j < count; ++j)
    t[j] = internal::JoinCell(newMeans[j], mt[j], md[j], f, o[j], t[j]);
}

// ---------------------------------------------------------------- handle

template class internal::RecordHandle<MatrixListwiseData>;

MatrixListwise::MatrixListwise() : _my(std::in_place) {}

MatrixListwise& MatrixListwise::operator+=(DataBatch& data) {
  internal::AccumulateOrMerge(*_my, data);
  return *this;
}

MatrixListwise& MatrixListwise::operator+=(const MatrixListwise& d) {
  if (d._my->_nRows == 0) return *this;
  internal::CopyOrMerge(*_my, *d._my);
  return *this;
}

unsigned MatrixListwise::NColumns() const { return _my->NColumns(); }
std::uint64_t MatrixListwise::NRows() const { return _my->_nRows; }
double MatrixListwise::WeightSum() const { return _my->_weightSum; }
bool MatrixListwise::HasRegWeights() const { return _my->_hasRegWeights; }
double MatrixListwise::RegWeightSum() const { return _my->_regWeightSum; }

double MatrixListwise::Mean(unsigned col) const {
  VOREL_ASSERT(col < NColumns());
  VOREL_ASSERT(0. < WeightSum());
  return _my->_means[col];
}

double MatrixListwise::CCP(unsigned row, unsigned col) const {
  VOREL_ASSERT(row < NColumns());
  VOREL_ASSERT(col < NColumns());
  VOREL_ASSERT(0. < WeightSum());
  if (row < col) std::swap(row, col);
  return _my->_xp[MatrixRow(row) + col];
}

}  // namespace vorel
