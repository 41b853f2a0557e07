#include <vorel/databatch.h>
#include <vorel/smatrixpairwise.h>
#include <vorelhost/assertion.h>

#include <cstddef>
#include <utility>

#include "pairwisefold.h"

namespace vorel {

// All state of an SMatrixPairwise.
//
// _xp is the lower triangle without diagonal, row after row: block position i
// has a row of i pairs, one with each earlier position, and the pair of
// positions i > j stands at MatrixRowCount(i) + j. The diagonal is _varStats.
struct SMatrixPairwiseData {
  double _weightSum = 0.0;                          // frequency weight of every row given
  double _regWeightSum = 0.0;                       // combined weight of every row given
  int _nRows = 0;                                   // every row given, missing cells or not
  std::vector<std::unique_ptr<VarStat>> _varStats;  // one per column, in column order
  std::vector<std::unique_ptr<PairStat>> _xp;       // one per pair, triangular order
  WorkArea _workArea;                               // scratch of Init; holds the missing code
  bool _hasRegWeights = false;
  int _col0 = 0;
  int _col1 = 0;  // always _col0
  int _col2 = 0;  // exclusive; 0 until the first batch when built without bounds
  // Scratch: the columns of a batch without missing cells, and its pairs.
  CompleteColumns _complete;
  ScatteredPairs _scattered;

  SMatrixPairwiseData(double missingCode, int col0, int col2)
      : _col0(col0), _col1(col0), _col2(col2) {
    _workArea.missingCode = missingCode;
  }
  SMatrixPairwiseData(const SMatrixPairwiseData& other);
  // A deep copy; on failure this record stays as it was.
  SMatrixPairwiseData& operator=(const SMatrixPairwiseData& other);

  void CreateStats(const DataBatch& data);
  void Accumulate(const DataBatch& data);
  void Merge(const SMatrixPairwiseData& d);

 private:
  void FoldColumnsAndPairs(const DataBatch& data, const BatchTotals& totals, int n);
  void Swap(SMatrixPairwiseData& other) noexcept;
};

SMatrixPairwiseData::SMatrixPairwiseData(const SMatrixPairwiseData& other)
    : _weightSum(other._weightSum),
      _regWeightSum(other._regWeightSum),
      _nRows(other._nRows),
      _varStats(CopyStats(other._varStats)),
      _xp(CopyStats(other._xp)),
      _workArea(other._workArea),
      _hasRegWeights(other._hasRegWeights),
      _col0(other._col0),
      _col1(other._col1),
      _col2(other._col2) {}

SMatrixPairwiseData& SMatrixPairwiseData::operator=(const SMatrixPairwiseData& other) {
  if (this != &other) {
    SMatrixPairwiseData copy(other);
    Swap(copy);
  }
  return *this;
}

void SMatrixPairwiseData::Swap(SMatrixPairwiseData& other) noexcept {
  std::swap(_weightSum, other._weightSum);
  std::swap(_regWeightSum, other._regWeightSum);
  std::swap(_nRows, other._nRows);
  _varStats.swap(other._varStats);
  _xp.swap(other._xp);
  std::swap(_workArea, other._workArea);
  std::swap(_hasRegWeights, other._hasRegWeights);
  std::swap(_col0, other._col0);
  std::swap(_col1, other._col1);
  std::swap(_col2, other._col2);
}

void SMatrixPairwiseData::CreateStats(const DataBatch& data) {
  VOREL_ASSERT(!_xp.size());
  _hasRegWeights = data.RegWeights() != nullptr;
  if (_col2 == 0) _col2 = static_cast<int>(data.NColumns());
  const int nCols = _col2 - _col0;
  // Both stores are made before either is kept, so a failure leaves the matrix empty.
  auto varStats = NewStats<VarStat>(nCols);
  auto xp = NewStats<PairStat>(static_cast<long long>(nCols) * (nCols - 1) / 2);
  _varStats = std::move(varStats);
  _xp = std::move(xp);
  Accumulate(data);
}

void SMatrixPairwiseData::Accumulate(const DataBatch& data) {
  VOREL_ASSERT(_hasRegWeights == data.HasRegWeights());
  const int n = static_cast<int>(data.NRows());
  _nRows += n;
  if (n == 0) return;
  const std::size_t nCols = static_cast<std::size_t>(_col2 - _col0);
  VOREL_ASSERT(_varStats.size() == nCols);
  const BatchTotals totals = TotalsOf(data, n);
  AddBatchWeights(totals, _weightSum, _regWeightSum);
  FoldColumnsAndPairs(data, totals, n);
}

// Column by column: the column's own record, then at once its pairs with the
// columns before it, the later column as the pair's first variable.
void SMatrixPairwiseData::FoldColumnsAndPairs(const DataBatch& data, const BatchTotals& totals,
                                              int n) {
  // One scratch record of each kind serves the whole batch: Init replaces all
  // of a record, so this is the same as a fresh temporary per column and pair.
  VarStat columnScratch;
  PairStat pairScratch;
  const int nCols = _col2 - _col0;
  _complete.Reduce(data, totals, _col0, nCols, _workArea.missingCode,
                   CompleteColumns::Pairs::Triangle, 0, true, 1);
  const ScatteredPairs* scattered = nullptr;
  if (ScatteredPairs::WorthIt(static_cast<long long>(nCols) * (nCols - 1) / 2,
                              _complete.CompletePairs())) {
    _scattered.Reduce(data, _col0, nCols, _workArea.missingCode, CompleteColumns::Pairs::Triangle,
                      0);
    scattered = &_scattered;
  }
  std::size_t k = 0;
  for (int c = _col0; c < _col2; ++c) {
    FoldColumn(data, c, c - _col0, _complete, n, _workArea, columnScratch, *_varStats[c - _col0]);
    for (int r = _col0; r < c; ++r) {
      FoldPair(data, c, r, c - _col0, r - _col0, _complete, scattered, n, _workArea, pairScratch,
               *_xp[k]);
      ++k;
    }
  }
}

void SMatrixPairwiseData::Merge(const SMatrixPairwiseData& d) {
  VOREL_ASSERT(_varStats.size() == d._varStats.size());
  VOREL_ASSERT(_hasRegWeights == d._hasRegWeights);
  if (d._weightSum == 0.0) return;
  const int nCols = static_cast<int>(_varStats.size());
  int xpindex = 0;
  for (int i = 0; i < nCols; ++i) {
    _varStats[i]->Update(*d._varStats[i]);
    for (int j = 0; j < i; ++j) {
      _xp[xpindex]->Update(*d._xp[xpindex]);
      ++xpindex;
    }
  }
  VOREL_ASSERT(xpindex == MatrixRowCount(nCols));
  _weightSum += d._weightSum;
  _regWeightSum += d._regWeightSum;
  _nRows += d._nRows;
}

// ---------------------------------------------------------------- handle

SMatrixPairwise::SMatrixPairwise(double missingCode)
    : _my(std::make_unique<SMatrixPairwiseData>(missingCode, 0, 0)) {}

SMatrixPairwise::SMatrixPairwise(double missingCode, int col0, int col2)
    : _my(std::make_unique<SMatrixPairwiseData>(missingCode, col0, col2)) {}

SMatrixPairwise::~SMatrixPairwise() = default;

SMatrixPairwise::SMatrixPairwise(const SMatrixPairwise& other)
    : MatrixBase(other), _my(std::make_unique<SMatrixPairwiseData>(*other._my)) {}

SMatrixPairwise& SMatrixPairwise::operator=(const SMatrixPairwise& other) {
  if (this != &other) {
    auto copy = std::make_unique<SMatrixPairwiseData>(*other._my);
    _my = std::move(copy);
  }
  return *this;
}

SMatrixPairwise::SMatrixPairwise(SMatrixPairwise&& other) noexcept = default;
SMatrixPairwise& SMatrixPairwise::operator=(SMatrixPairwise&& other) noexcept = default;

int SMatrixPairwise::NRows() const { return _my->_nRows; }

MatrixBase& SMatrixPairwise::operator+=(MatrixBase& other) {
  if (other.NRows() == 0) return *this;
  // Only an object of this very class can be merged.
  const auto* d = dynamic_cast<const SMatrixPairwise*>(&other);
  VOREL_ASSERT(d != nullptr);
  const SMatrixPairwise& same = *d;
  if (_my->_varStats.empty()) {
    *_my = *same._my;
  } else {
    _my->Merge(*same._my);
  }
  return *this;
}

MatrixBase& SMatrixPairwise::operator+=(DataBatch& data) {
  if (data.NRows() == 0) return *this;
  if (_my->_varStats.empty()) {
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
  return *_my->_varStats[col - _my->_col0];
}

PairStat& SMatrixPairwise::Pair(int row, int col) const {
  VOREL_ASSERT(row < _my->_col2 && row >= _my->_col0);
  VOREL_ASSERT(col < _my->_col2 && col >= _my->_col0);
  VOREL_ASSERT(row != col);
  VOREL_ASSERT(0. < WeightSum());
  const int hi = row > col ? row : col;
  const int lo = row > col ? col : row;
  return *_my->_xp[MatrixRowCount(hi - _my->_col0) + (lo - _my->_col0)];
}

}  // namespace vorel
