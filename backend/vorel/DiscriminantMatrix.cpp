#include <vorel/DiscriminantMatrix.h>
#include <vorel/databatch.h>
#include <vorelhost/assertion.h>

#include <algorithm>
#include <cstddef>
#include <utility>
#include <vector>

#include "common/handle.h"
#include "common/storelimits.h"
#include "common/triangle.h"
#include "kernels/columnkernels.h"
#include "kernels/crossproducts.h"

namespace vorel {

using internal::BatchColumns;
using internal::CrossProductJob;
using internal::CrossProducts;
using internal::ScatterWeightedSumsOfColumns;
using internal::ScatterWeights;

// The record behind a DiscriminantMatrix. Empty while _TSSP is null; then
// _sumX1 and _sumX2 are null and _sumW is empty too.
struct DiscriminantMatrixData {
  std::vector<double> _sumW;            // total weight of each group
  internal::OwnedArray<double> _sumX1;  // sum w*x, cell of (var, g) at _nGroup*var + g
  internal::OwnedArray<double> _sumX2;  // sum (w*x)*x, laid out as _sumX1
  internal::OwnedArray<double> _TSSP;   // sum (w*x_i)*x_j, i > j, at MatrixRowCount(i) + j
  int _nGroup = 0;
  int _nVar = 0;
  double _weightSum = 0.0;
  int _nRows = 0;

  DiscriminantMatrixData() = default;
  DiscriminantMatrixData(int nGroup, int nVar) : _nGroup(nGroup), _nVar(nVar) {}

  // Fills this empty record with the totals of one batch with rows.
  void Accumulate(const DataBatch& data);
  // Adds the totals of the filled record d to this filled record.
  void Merge(const DiscriminantMatrixData& d);

  bool Empty() const { return !_TSSP; }
  DiscriminantMatrixData EmptyOfSameShape() const { return {_nGroup, _nVar}; }
  std::size_t GroupCells() const {
    return internal::CheckedTableCells(static_cast<long long>(_nGroup) * _nVar);
  }
  std::size_t TriangleCells() const {
    return internal::CheckedTableCells(internal::CheckedMatrixRowCount(_nVar));
  }
};

namespace {

internal::OwnedArray<double> ZeroTable(std::size_t cells) {
  internal::OwnedArray<double> table(cells);
  std::fill(table.get(), table.get() + cells, 0.0);
  return table;
}

void AddCells(double* target, const double* source, std::size_t cells) {
  for (std::size_t k = 0; k < cells; ++k)
    target[k] += source[k];
}

// The total cross-product triangle of one batch: for i = 1, 2, ..., nVar-1 and
// j = 0, ..., i-1, cell MatrixRowCount(i) + j is the sum over the rows of
// (w * x_i) * x_j. The blocked kernel gives every cell the bits of that sum
// taken in row order. Returns the number of cells written.
int AccumulateCrossProducts(const DataBatch& data, const double* weights, int nRows, double* tssp) {
  const int nCols = static_cast<int>(data.NColumns());
  CrossProductJob job;
  job.cols = BatchColumns(data, 0, nCols);  // only read: no centring
  job.weights = weights;
  job.nRows = nRows;
  job.triangle = tssp;
  job.triangleDiagonal = false;
  CrossProducts(job);
  return nCols * (nCols - 1) / 2;
}

}  // namespace

void DiscriminantMatrixData::Accumulate(const DataBatch& data) {
  // The expression is reported as written.
  // clang-format off
  VOREL_ASSERT((!_sumX1)&&(!_sumX2)&&(!_TSSP));
  // clang-format on
  const int nCols = static_cast<int>(data.NColumns());
  VOREL_ASSERT(nCols == _nVar);
  const int nRows = static_cast<int>(data.NRows());

  // Size every table before any is allocated (nGroup cells are no more than
  // nGroup * nVar), and allocate them all before the record changes, so
  // that a failure leaves it empty.
  const std::size_t groupCells = GroupCells();
  const int nCellsTSSP = static_cast<int>(TriangleCells());
  std::vector<double> sumW(static_cast<std::size_t>(_nGroup), 0.0);
  auto sumX1 = ZeroTable(groupCells);
  auto sumX2 = ZeroTable(groupCells);
  auto tssp = ZeroTable(static_cast<std::size_t>(nCellsTSSP));

  const unsigned* groups = data.Groups();
  const double* weights = data.Weights();
  double weightSum = 0.0;
  ScatterWeights(groups, weights, sumW, &weightSum, nRows);
  std::vector<const double*> columns(static_cast<std::size_t>(nCols));
  for (int i = 0; i < nCols; ++i)
    columns[static_cast<std::size_t>(i)] = data.Column(static_cast<unsigned>(i));
  ScatterWeightedSumsOfColumns(columns.data(), nCols, groups, weights, sumX1.get(), sumX2.get(),
                               static_cast<std::size_t>(_nGroup), nRows);
  const int tsspIndex = AccumulateCrossProducts(data, weights, nRows, tssp.get());
  VOREL_ASSERT(tsspIndex == nCellsTSSP);

  _sumW = std::move(sumW);
  _sumX1 = std::move(sumX1);
  _sumX2 = std::move(sumX2);
  _TSSP = std::move(tssp);
  _weightSum = weightSum;
  _nRows = nRows;
}

void DiscriminantMatrixData::Merge(const DiscriminantMatrixData& d) {
  VOREL_ASSERT(_nVar == d._nVar && _nGroup == d._nGroup);
  // Rows whose weights total zero add nothing, not even to the row count.
  if (d._weightSum == 0.0) return;
  AddCells(_sumW.data(), d._sumW.data(), _sumW.size());
  AddCells(_sumX1.get(), d._sumX1.get(), GroupCells());
  AddCells(_sumX2.get(), d._sumX2.get(), GroupCells());
  AddCells(_TSSP.get(), d._TSSP.get(), TriangleCells());
  _weightSum += d._weightSum;
  _nRows += d._nRows;
}

template class internal::RecordHandle<DiscriminantMatrixData>;

DiscriminantMatrix::DiscriminantMatrix() : _my(std::in_place) {}

DiscriminantMatrix::DiscriminantMatrix(int nGroup, int nVar) : _my(std::in_place, nGroup, nVar) {}

int DiscriminantMatrix::NRows() const { return _my->_nRows; }

MatrixBase& DiscriminantMatrix::operator+=(MatrixBase& other) {
  return internal::AddSameClass(*this, other, &DiscriminantMatrix::_my,
                                [this](const DiscriminantMatrixData& source) {
                                  if (_my->Empty()) {
                                    // The expression is reported as written.
                                    // clang-format off
          VOREL_ASSERT(!(_my->_sumX1)&&!(_my->_sumX2));
                                    // clang-format on
                                    *_my = source;
                                  } else {
                                    VOREL_ASSERT(_my->_sumX1 && _my->_sumX2);
                                    _my->Merge(source);
                                  }
                                });
}

MatrixBase& DiscriminantMatrix::operator+=(DataBatch& data) {
  internal::AccumulateOrMerge(*_my, data);
  return *this;
}

double DiscriminantMatrix::WeightSum() const { return _my->_weightSum; }
int DiscriminantMatrix::NVar() const { return _my->_nVar; }
int DiscriminantMatrix::NGroup() const { return _my->_nGroup; }

double DiscriminantMatrix::sumW(int c) const {
  VOREL_ASSERT(c < NGroup() && c >= 0);
  VOREL_ASSERT(0. < WeightSum());
  return _my->_sumW[c];
}

double DiscriminantMatrix::sumX1(int group, int var) const {
  VOREL_ASSERT(group < NGroup() && group >= 0);
  VOREL_ASSERT(var < NVar() && var >= 0);
  VOREL_ASSERT(0. < WeightSum());
  return _my->_sumX1[static_cast<std::size_t>(NGroup()) * var + group];
}

double DiscriminantMatrix::sumX2(int group, int var) const {
  VOREL_ASSERT(group < NGroup() && group >= 0);
  VOREL_ASSERT(var < NVar() && var >= 0);
  VOREL_ASSERT(0. < WeightSum());
  return _my->_sumX2[static_cast<std::size_t>(NGroup()) * var + group];
}

double DiscriminantMatrix::TSSP(int row, int col) const {
  VOREL_ASSERT(row < NVar() && row >= 0);
  VOREL_ASSERT(col < NVar() && col >= 0);
  VOREL_ASSERT(0. < WeightSum());
  if (row == col) {
    // The store has no diagonal: total the variable's squares over the groups.
    double total = 0.0;
    for (int g = 0; g < NGroup(); ++g)
      total += sumX2(g, row);
    return total;
  }
  const int hi = std::max(row, col);
  const int lo = std::min(row, col);
  return _my->_TSSP[MatrixRowCount(hi) + lo];
}

}  // namespace vorel
