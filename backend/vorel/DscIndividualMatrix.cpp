#include <vorel/DscIndividualMatrix.h>
#include <vorel/databatchbygroup.h>
#include <vorelhost/assertion.h>

#include <algorithm>
#include <cstddef>
#include <utility>

#include "common/handle.h"
#include "common/storelimits.h"
#include "common/triangle.h"
#include "kernels/columnkernels.h"
#include "kernels/crossproducts.h"

namespace vorel {

using internal::BatchColumns;
using internal::CrossProductJob;
using internal::CrossProducts;
using internal::SumWeights;

// The record behind a DiscIndividualMatrix. Empty while _TSSP is null.
struct DiscIndividualMatrixData {
  internal::OwnedArray<double> _TSSP;  // entry k of group g at k * _nGroup + g
  int _nGroup = 0;
  int _nVar = 0;
  double _weightSum = 0.0;
  int _nRows = 0;

  DiscIndividualMatrixData() = default;
  DiscIndividualMatrixData(int nGroup, int nVar) : _nGroup(nGroup), _nVar(nVar) {}

  // Fills this empty record with the totals of one sorted batch with rows.
  void Accumulate(const DataBatchByGroup& data);
  // Adds the totals of the filled record d to this filled record.
  void Merge(const DiscIndividualMatrixData& d);

  bool Empty() const { return !_TSSP; }
  DiscIndividualMatrixData EmptyOfSameShape() const { return {_nGroup, _nVar}; }
  // Entries of the triangle with diagonal over the variables: n(n+1)/2.
  // Only for a shape that TableCells() has accepted.
  int CellsCrossProduct() const { return MatrixRowCount(_nVar + 1); }
  // Entries per group, the triangle over the variables and the column of
  // ones: (n+1)(n+2)/2, in 64 bits, as the shape of an empty record may be
  // anything.
  long long CountMatrix() const {
    const long long n = _nVar;
    return (n + 1) * (n + 2) / 2;
  }
  std::size_t TableCells() const {
    const long long countMatrix = internal::CheckedMatrixRowCount(_nVar + 1LL) + _nVar + 1LL;
    return internal::CheckedTableCells(countMatrix * _nGroup);
  }
};

namespace {

// The table of one group of a sorted batch: `count` rows from row `start` of
// every column. Entry k goes to table[k * nGroup]; the caller points table at
// the group's first entry. The entries are the lower triangle, diagonal
// included, of the variables with a column of ones behind them, each the sum
// over the rows of (w * x_i) * x_j: with x_j = 1.0 that is the sum of w * x_i
// (or of x_i without weights), and with both the sum of the weights (or the
// row count), exactly, since a product with 1.0 is exact. The blocked kernel
// gives every entry the bits of its sum taken in row order. Returns the
// number of entries of the triangle over the variables.
int AccumulateGroupTable(const DataBatchByGroup& data, unsigned start, unsigned count, int nGroup,
                         double* table) {
  const int nVar = static_cast<int>(data.NColumns());
  CrossProductJob job;
  job.cols = BatchColumns(data, 0, nVar, start);  // only read: no centring
  job.withOnes = true;
  job.weights = data.Weights() ? data.Weights() + start : nullptr;
  job.nRows = static_cast<int>(count);
  job.triangle = table;
  job.triangleStride = nGroup;
  CrossProducts(job);
  return MatrixRowCount(nVar + 1);
}

}  // namespace

void DiscIndividualMatrixData::Accumulate(const DataBatchByGroup& data) {
  VOREL_ASSERT(!_TSSP);
  const int nCols = static_cast<int>(data.NColumns());
  VOREL_ASSERT(nCols == _nVar);
  const int nRows = static_cast<int>(data.NRows());
  // Allocated and filled aside, so that a failure leaves the record empty.
  internal::OwnedArray<double> table(TableCells());
  std::fill(table.get(), table.get() + table.size(), 0.0);

  const int nCellsCrossProduct = CellsCrossProduct();
  int tsspIndex = 0;
  unsigned start = 0;
  for (unsigned g = 0; g < data.NGroups(); ++g) {
    const unsigned count = data.groupCount(g);
    tsspIndex = AccumulateGroupTable(data, start, count, _nGroup, table.get() + g);
    start += count;
  }
  const double weightSum = SumWeights(data.Weights(), nRows);
  VOREL_ASSERT(tsspIndex == nCellsCrossProduct);

  _TSSP = std::move(table);
  _weightSum = weightSum;
  _nRows = nRows;
}

void DiscIndividualMatrixData::Merge(const DiscIndividualMatrixData& d) {
  VOREL_ASSERT(_nVar == d._nVar && _nGroup == d._nGroup);
  // Rows whose weights total zero add nothing, not even to the row count.
  if (d._weightSum == 0.0) return;
  const std::size_t cells = TableCells();
  for (std::size_t k = 0; k < cells; ++k)
    _TSSP[k] += d._TSSP[k];
  _weightSum += d._weightSum;
  _nRows += d._nRows;
}

template class internal::RecordHandle<DiscIndividualMatrixData>;

DiscIndividualMatrix::DiscIndividualMatrix() : _my(std::in_place) {}

DiscIndividualMatrix::DiscIndividualMatrix(int nGroup, int nVar)
    : _my(std::in_place, nGroup, nVar) {}

int DiscIndividualMatrix::NRows() const { return _my->_nRows; }

MatrixBase& DiscIndividualMatrix::operator+=(MatrixBase& other) {
  return internal::AddSameClass(*this, other, &DiscIndividualMatrix::_my);
}

MatrixBase& DiscIndividualMatrix::operator+=(DataBatchByGroup& data) {
  internal::AccumulateOrMerge(*_my, data);
  return *this;
}

double DiscIndividualMatrix::WeightSum() const { return _my->_weightSum; }
int DiscIndividualMatrix::NVar() const { return _my->_nVar; }
int DiscIndividualMatrix::NGroup() const { return _my->_nGroup; }

double DiscIndividualMatrix::TSSP(int tsspIndex, int groupVal) const {
  const long long countMatrix = _my->CountMatrix();
  VOREL_ASSERT(0 <= tsspIndex && tsspIndex < countMatrix);
  VOREL_ASSERT(groupVal < NGroup() && groupVal >= 0);
  VOREL_ASSERT(0. < WeightSum());
  return _my->_TSSP[static_cast<std::size_t>(tsspIndex) * NGroup() + groupVal];
}

double DiscIndividualMatrix::TSSP(int row, int col, int groupVal) const {
  VOREL_ASSERT(row <= NVar() && row >= 0);
  VOREL_ASSERT(col <= NVar() && col >= 0);
  VOREL_ASSERT(groupVal < NGroup() && groupVal >= 0);
  VOREL_ASSERT(0. < WeightSum());
  // Row hi of the triangle with diagonal starts at hi(hi+1)/2.
  const int hi = std::max(row, col);
  const int lo = std::min(row, col);
  return TSSP(MatrixRowCount(hi + 1) + lo, groupVal);
}

}  // namespace vorel
