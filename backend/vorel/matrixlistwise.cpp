#include <vorel/databatch.h>
#include <vorel/matrixlistwise.h>
#include <vorelhost/assertion.h>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <memory>
#include <utility>
#include <vector>

#include "kernels/columnkernels.h"
#include "kernels/crossproducts.h"
#include "storelimits.h"

namespace vorel {

// The kernels.
using namespace internal;
namespace {

// Start of row n of the lower triangle with its diagonal, and the cell count
// of n rows. 32-bit by design; the batch's column count is checked before use.
unsigned MatrixRow(unsigned n) { return (n + 1) * n / 2; }

// The widest table whose (n + 1) n still fits 32 bits.
void CheckColumnCount(unsigned nCols) {
  CheckStoreSize((std::uint64_t{nCols} + 1) * nCols, std::numeric_limits<std::uint32_t>::max());
}

// One cell of a merged triangle: the other side's cell, the between-means terms
// of both sides, and this side's old cell.
double MergedCell(double newMean, double meanT, double meanD, double a, double b, double cellD,
                  double cellT) {
  // Deliberate order: the four terms are added left to right as written.
  // clang-format off
  return (((newMean - meanT) * a
           + cellD)
          + (newMean - meanD) * b)
         + cellT;
  // clang-format on
}

}  // namespace

struct MatrixListwiseData {
  MatrixListwiseData() = default;
  MatrixListwiseData(const MatrixListwiseData&) = delete;
  MatrixListwiseData& operator=(const MatrixListwiseData&) = delete;
  ~MatrixListwiseData() { delete[] _xp; }

  // Reduces a batch into this empty record, centring the batch in place.
  void Accumulate(DataBatch& data);
  // Folds d (which may be this record) into this filled record.
  void Merge(const MatrixListwiseData& d);
  // Makes this record an independent copy of source; unchanged if it throws.
  void CopyFrom(const MatrixListwiseData& source);

  unsigned NColumns() const { return static_cast<unsigned>(_means.size()); }

  double _weightSum = 0.0;     // frequency weight of all rows counted
  double _regWeightSum = 0.0;  // combined weight of all rows counted
  std::uint64_t _nRows = 0;
  std::vector<double> _means;  // one per column; empty while the record is empty
  double* _xp = nullptr;       // owned, MatrixRow(nCols) cells; null while empty
  bool _hasRegWeights = false;

 private:
  static void TakeMeans(DataBatch& data, const double* combined, int n, std::vector<double>& means,
                        double regWeightSum);
  void FillTriangle(DataBatch& data, const double* combined, int n);
  void MergeRow(unsigned row, const double* newMeans, const MatrixListwiseData& d, double a,
                double b, unsigned xpindex);
};

void MatrixListwiseData::Accumulate(DataBatch& data) {
  VOREL_ASSERT(!_xp);
  const unsigned nCols = data.NColumns();
  const int n = static_cast<int>(data.NRows());
  CheckColumnCount(nCols);
  // Both stores are taken before any field changes, so a failed allocation
  // leaves the record empty. The cells are not cleared: each is written once.
  std::vector<double> means(nCols, 0.0);
  std::unique_ptr<double[]> xp(new double[MatrixRow(nCols)]);

  _hasRegWeights = data.HasRegWeights();
  _nRows = static_cast<std::uint64_t>(n);
  // The frequency total comes first: forming the combined weights overwrites them.
  _weightSum = SumWeights(data.Weights(), n);
  // The kernel writes only into its first operand, never into the regression weights.
  const double* combined =
      MultiplyInPlace(data.Weights(), const_cast<double*>(data.RegWeights()), n);
  _regWeightSum = _hasRegWeights ? SumValues(combined, n) : _weightSum;

  TakeMeans(data, combined, n, means, _regWeightSum);
  _means.swap(means);
  _xp = xp.release();
  FillTriangle(data, combined, n);
}

// The means of the columns under the combined weights, in one sweep over them.
void MatrixListwiseData::TakeMeans(DataBatch& data, const double* combined, int n,
                                   std::vector<double>& means, double regWeightSum) {
  ColumnPass(BatchColumns(data, 0, static_cast<int>(means.size())), combined, regWeightSum, n,
             means.data(), nullptr, nullptr);
}

// Centres the columns in place on their means and fills the triangle of the
// corrected cross-products. The blocked kernel gives every cell the bits of
// its own dot product over the centred columns, taken in row order; which
// cells it works on together changes no value.
void MatrixListwiseData::FillTriangle(DataBatch& data, const double* combined, int n) {
  const unsigned nCols = NColumns();
  const unsigned nCells = MatrixRow(nCols);
  CrossProductJob job;
  job.cols = BatchColumns(data, 0, static_cast<int>(nCols));
  job.weights = combined;
  job.nRows = n;
  job.centre = _means.data();
  job.triangle = _xp;
  CrossProducts(job);
  const double* xprow = nCols > 0 ? _xp + MatrixRow(nCols - 1) : _xp;
  // clang-format off
  VOREL_ASSERT(xprow+nCols == _xp+nCells);
  // clang-format on
}

// C_ij = C_t,ij + C_d,ij + R_t (M_i - m_t,i)(M_j - m_t,j) + R_d (M_i - m_d,i)(M_j - m_d,j),
// with M the new means; the factors of row i are folded into a and b.
void MatrixListwiseData::Merge(const MatrixListwiseData& d) {
  VOREL_ASSERT(_means.size() == d._means.size());
  VOREL_ASSERT(_hasRegWeights == d._hasRegWeights);
  // Equality on purpose: a negative or NaN frequency total goes on.
  if (d._weightSum == 0.0) return;

  const unsigned nCols = NColumns();
  // The old means must stay readable until the last row is merged.
  double oneMean = 0.0;
  std::vector<double> manyMeans;
  if (nCols > 1) manyMeans.resize(nCols);
  double* newMeans = nCols > 1 ? manyMeans.data() : &oneMean;

  const double rt = _regWeightSum;
  const double rd = d._regWeightSum;
  unsigned xpindex = 0;
  for (unsigned i = 0; i < nCols; ++i) {
    const double shift = MeanShift(_means[i], rt, d._means[i], rd);
    newMeans[i] = _means[i] + shift;
    const double a = shift * rt;
    const double b = (newMeans[i] - d._means[i]) * rd;
    MergeRow(i, newMeans, d, a, b, xpindex);
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
                                  double a, double b, unsigned xpindex) {
  double* t = _xp + xpindex;
  const double* o = d._xp + xpindex;
  const double* mt = _means.data();
  const double* md = d._means.data();
  const unsigned count = row + 1;
  unsigned j = 0;
  for (; j + 4 <= count; j += 4) {
    t[j] = MergedCell(newMeans[j], mt[j], md[j], a, b, o[j], t[j]);
    t[j + 1] = MergedCell(newMeans[j + 1], mt[j + 1], md[j + 1], a, b, o[j + 1], t[j + 1]);
    t[j + 2] = MergedCell(newMeans[j + 2], mt[j + 2], md[j + 2], a, b, o[j + 2], t[j + 2]);
    t[j + 3] = MergedCell(newMeans[j + 3], mt[j + 3], md[j + 3], a, b, o[j + 3], t[j + 3]);
  }
  for (; j < count; ++j)
    t[j] = MergedCell(newMeans[j], mt[j], md[j], a, b, o[j], t[j]);
}

void MatrixListwiseData::CopyFrom(const MatrixListwiseData& source) {
  if (this == &source) return;
  std::vector<double> means(source._means);
  std::unique_ptr<double[]> xp;
  if (source._xp != nullptr) {
    const unsigned nCells = MatrixRow(source.NColumns());
    xp.reset(new double[nCells]);
    std::copy(source._xp, source._xp + nCells, xp.get());
  }
  delete[] _xp;
  _xp = xp.release();
  _weightSum = source._weightSum;
  _regWeightSum = source._regWeightSum;
  _nRows = source._nRows;
  _means.swap(means);
  _hasRegWeights = source._hasRegWeights;
}

// ---------------------------------------------------------------- handle

MatrixListwise::MatrixListwise() : _my(std::make_unique<MatrixListwiseData>()) {}

MatrixListwise::MatrixListwise(const MatrixListwise& other) : MatrixListwise() {
  _my->CopyFrom(*other._my);
}

MatrixListwise& MatrixListwise::operator=(const MatrixListwise& other) {
  if (this == &other) return *this;
  if (!_my) _my = std::make_unique<MatrixListwiseData>();
  _my->CopyFrom(*other._my);
  return *this;
}

MatrixListwise::MatrixListwise(MatrixListwise&& other) noexcept = default;

MatrixListwise& MatrixListwise::operator=(MatrixListwise&& other) noexcept {
  _my.swap(other._my);
  return *this;
}

MatrixListwise::~MatrixListwise() = default;

MatrixListwise& MatrixListwise::operator+=(DataBatch& data) {
  if (data.NRows() == 0) return *this;
  if (_my->_xp == nullptr) {
    _my->Accumulate(data);
  } else {
    MatrixListwiseData batch;
    batch.Accumulate(data);
    _my->Merge(batch);
  }
  return *this;
}

MatrixListwise& MatrixListwise::operator+=(const MatrixListwise& d) {
  if (d._my->_nRows == 0) return *this;
  if (_my->_xp == nullptr)
    _my->CopyFrom(*d._my);
  else
    _my->Merge(*d._my);
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
