#include <vorel/databatch.h>
#include <vorel/nsmatrixpairwise.h>
#include <vorelhost/assertion.h>

#include <cstddef>
#include <utility>

#include "pairwisefold.h"

namespace vorel {

// All state of an NSMatrixPairwise.
//
// _varStats holds the whole block, the first set before the second. _xp is a
// rectangle of nFirst rows of nSecond pairs, row after row: column r of the
// first set (counted from _col0) with column c of the second set (counted
// from _col1) stands at r * nSecond + c.
struct NSMatrixPairwiseData {
  double _weightSum = 0.0;                          // frequency weight of every row given
  double _regWeightSum = 0.0;                       // combined weight of every row given
  int _nRows = 0;                                   // every row given, missing cells or not
  std::vector<std::unique_ptr<VarStat>> _varStats;  // one per column of the block
  std::vector<std::unique_ptr<PairStat>> _xp;       // one per pair of the rectangle
  WorkArea _workArea;                               // scratch of Init; holds the missing code
  bool _hasRegWeights = false;
  int _col0 = 0;  // first column of the first set
  int _col1 = 0;  // first column of the second set
  int _col2 = 0;  // end of the second set, exclusive
  // Scratch: the columns of a batch without missing cells, and its pairs.
  CompleteColumns _complete;
  ScatteredPairs _scattered;
  bool _useScattered = false;

  NSMatrixPairwiseData(double missingCode, int col0, int col1, int col2)
      : _col0(col0), _col1(col1), _col2(col2) {
    _workArea.missingCode = missingCode;
  }
  NSMatrixPairwiseData(const NSMatrixPairwiseData& other);
  // A deep copy; on failure this record stays as it was.
  NSMatrixPairwiseData& operator=(const NSMatrixPairwiseData& other);

  void CreateStats(const DataBatch& data);
  void Accumulate(const DataBatch& data);
  void Merge(const NSMatrixPairwiseData& d);

 private:
  void FoldColumns(const DataBatch& data, int n);
  void FoldPairs(const DataBatch& data, int n);
  void Swap(NSMatrixPairwiseData& other) noexcept;
};

NSMatrixPairwiseData::NSMatrixPairwiseData(const NSMatrixPairwiseData& other)
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

NSMatrixPairwiseData& NSMatrixPairwiseData::operator=(const NSMatrixPairwiseData& other) {
  if (this != &other) {
    NSMatrixPairwiseData copy(other);
    Swap(copy);
  }
  return *this;
}

void NSMatrixPairwiseData::Swap(NSMatrixPairwiseData& other) noexcept {
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

void NSMatrixPairwiseData::CreateStats(const DataBatch& data) {
  VOREL_ASSERT(!_xp.size());
  _hasRegWeights = data.RegWeights() != nullptr;
  // Both stores are made before either is kept, so a failure leaves the matrix empty.
  auto varStats = NewStats<VarStat>(_col2 - _col0);
  auto xp = NewStats<PairStat>(static_cast<long long>(_col1 - _col0) * (_col2 - _col1));
  _varStats = std::move(varStats);
  _xp = std::move(xp);
  Accumulate(data);
}

void NSMatrixPairwiseData::Accumulate(const DataBatch& data) {
  VOREL_ASSERT(_hasRegWeights == data.HasRegWeights());
  const int n = static_cast<int>(data.NRows());
  _nRows += n;
  if (n == 0) return;
  const std::size_t nCols = static_cast<std::size_t>(_col2 - _col0);
  VOREL_ASSERT(_varStats.size() == nCols);
  const BatchTotals totals = TotalsOf(data, n);
  AddBatchWeights(totals, _weightSum, _regWeightSum);
  _complete.Reduce(data, totals, _col0, _col2 - _col0, _workArea.missingCode,
                   CompleteColumns::Pairs::Rectangle, _col1 - _col0, true, 1);
  _useScattered = ScatteredPairs::WorthIt(static_cast<long long>(_col1 - _col0) * (_col2 - _col1),
                                          _complete.CompletePairs());
  if (_useScattered)
    _scattered.Reduce(data, _col0, _col2 - _col0, _workArea.missingCode,
                      CompleteColumns::Pairs::Rectangle, _col1 - _col0);
  FoldColumns(data, n);
  FoldPairs(data, n);
}

// Every column of the block, in column order.
void NSMatrixPairwiseData::FoldColumns(const DataBatch& data, int n) {
  // One scratch record serves the whole batch: Init replaces all of it.
  VarStat scratch;
  for (int c = _col0; c < _col2; ++c) {
    FoldColumn(data, c, c - _col0, _complete, n, _workArea, scratch, *_varStats[c - _col0]);
  }
}

// The rectangle row after row, the column of the first set as the pair's
// first variable.
void NSMatrixPairwiseData::FoldPairs(const DataBatch& data, int n) {
  PairStat scratch;
  int xpi = 0;
  for (int r = _col0; r < _col1; ++r) {
    for (int c = _col1; c < _col2; ++c) {
      FoldPair(data, r, c, r - _col0, c - _col0, _complete, _useScattered ? &_scattered : nullptr,
               n, _workArea, scratch, *_xp[xpi]);
      xpi = xpi + 1;
    }
  }
  // The text of an assertion is what it reports: keep it as written.
  // clang-format off
  VOREL_ASSERT(xpi == (_col1-_col0)*(_col2-_col1));
  // clang-format on
}

void NSMatrixPairwiseData::Merge(const NSMatrixPairwiseData& d) {
  VOREL_ASSERT(_varStats.size() == d._varStats.size());
  VOREL_ASSERT(_hasRegWeights == d._hasRegWeights);
  if (d._weightSum == 0.0) return;
  for (std::size_t i = 0; i < _varStats.size(); ++i)
    _varStats[i]->Update(*d._varStats[i]);
  const int nFirst = _col1 - _col0;
  const int nSecond = _col2 - _col1;
  int xpindex = 0;
  for (int r = 0; r < nFirst; ++r) {
    for (int c = 0; c < nSecond; ++c) {
      _xp[xpindex]->Update(*d._xp[xpindex]);
      ++xpindex;
    }
  }
  // The text of an assertion is what it reports: keep it as written.
  // clang-format off
  VOREL_ASSERT(xpindex == (_col1-_col0)*(_col2-_col1));
  // clang-format on
  _weightSum += d._weightSum;
  _regWeightSum += d._regWeightSum;
  _nRows += d._nRows;
}

// ---------------------------------------------------------------- handle

NSMatrixPairwise::NSMatrixPairwise(double missingCode, int col0, int col1, int col2)
    : _my(std::make_unique<NSMatrixPairwiseData>(missingCode, col0, col1, col2)) {}

NSMatrixPairwise::~NSMatrixPairwise() = default;

NSMatrixPairwise::NSMatrixPairwise(const NSMatrixPairwise& other)
    : MatrixBase(other), _my(std::make_unique<NSMatrixPairwiseData>(*other._my)) {}

NSMatrixPairwise& NSMatrixPairwise::operator=(const NSMatrixPairwise& other) {
  if (this != &other) {
    auto copy = std::make_unique<NSMatrixPairwiseData>(*other._my);
    _my = std::move(copy);
  }
  return *this;
}

NSMatrixPairwise::NSMatrixPairwise(NSMatrixPairwise&& other) noexcept = default;
NSMatrixPairwise& NSMatrixPairwise::operator=(NSMatrixPairwise&& other) noexcept = default;

int NSMatrixPairwise::NRows() const { return _my->_nRows; }

MatrixBase& NSMatrixPairwise::operator+=(MatrixBase& other) {
  if (other.NRows() == 0) return *this;
  // Only an object of this very class can be merged.
  const auto* d = dynamic_cast<const NSMatrixPairwise*>(&other);
  VOREL_ASSERT(d != nullptr);
  const NSMatrixPairwise& same = *d;
  if (_my->_varStats.empty()) {
    *_my = *same._my;
  } else {
    _my->Merge(*same._my);
  }
  return *this;
}

MatrixBase& NSMatrixPairwise::operator+=(DataBatch& data) {
  if (data.NRows() == 0) return *this;
  if (_my->_varStats.empty()) {
    _my->CreateStats(data);
  } else {
    _my->Accumulate(data);
  }
  return *this;
}

double NSMatrixPairwise::WeightSum() const { return _my->_weightSum; }
double NSMatrixPairwise::RegWeightSum() const { return _my->_regWeightSum; }
bool NSMatrixPairwise::HasRegWeights() const { return _my->_hasRegWeights; }
double NSMatrixPairwise::MissingCode() const { return _my->_workArea.missingCode; }
int NSMatrixPairwise::Col0() const { return _my->_col0; }
int NSMatrixPairwise::Col1() const { return _my->_col1; }
int NSMatrixPairwise::Col2() const { return _my->_col2; }
int NSMatrixPairwise::NColumns() const { return static_cast<int>(_my->_varStats.size()); }

VarStat& NSMatrixPairwise::Var(int col) const {
  VOREL_ASSERT(col < Col2() && col >= Col0());
  VOREL_ASSERT(0. < WeightSum());
  return *_my->_varStats[col - _my->_col0];
}

PairStat& NSMatrixPairwise::Pair(int row, int col) const {
  VOREL_ASSERT(row < _my->_col2 && row >= _my->_col0);
  VOREL_ASSERT(col < _my->_col2 && col >= _my->_col0);
  VOREL_ASSERT(row != col);
  VOREL_ASSERT(0. < WeightSum());
  const int lo = row < col ? row : col;
  const int hi = row < col ? col : row;
  // Two columns of one set have no record; reading past the rectangle would
  // hand out another pair's figures or none at all.
  VOREL_ASSERT(lo < _my->_col1 && hi >= _my->_col1);
  return *_my->_xp[(lo - _my->_col0) * (_my->_col2 - _my->_col1) + (hi - _my->_col1)];
}

}  // namespace vorel
