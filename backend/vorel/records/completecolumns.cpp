#include "completecolumns.h"

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "kernels/columnkernels.h"
#include "kernels/crossproducts.h"

namespace vorel::internal {
namespace {

// Whether any of the n cells compares equal to code (a NaN code never does).
// Every column of every batch goes through here, so it takes eight cells a
// step with vector compares (ordered equality, as ==) and stops at the first
// step with a hit.
bool HasCell(const double* x, int n, double code) {
  int i = 0;
#if defined(__SSE2__)
  const __m128d c = _mm_set1_pd(code);
  for (; i + 8 <= n; i += 8) {
    const __m128d a =
        _mm_or_pd(_mm_cmpeq_pd(_mm_loadu_pd(x + i), c), _mm_cmpeq_pd(_mm_loadu_pd(x + i + 2), c));
    const __m128d b = _mm_or_pd(_mm_cmpeq_pd(_mm_loadu_pd(x + i + 4), c),
                                _mm_cmpeq_pd(_mm_loadu_pd(x + i + 6), c));
    if (_mm_movemask_pd(_mm_or_pd(a, b)) != 0) return true;
  }
#endif
  for (; i < n; ++i)
    if (x[i] == code) return true;
  return false;
}

// The combined weight of each row: the weights, the regression weights, or
// with both their products, made in store; null without either.
const double* CombinedWeights(const double* w, const double* rw, int n,
                              std::vector<double>& store) {
  if (w == nullptr || rw == nullptr) return rw == nullptr ? w : rw;
  store.resize(static_cast<std::size_t>(n));
  for (int i = 0; i < n; ++i)
    store[static_cast<std::size_t>(i)] = w[i] * rw[i];
  return store.data();
}

}  // namespace

BatchTotals TotalsOf(const DataBatch& data, int n) {
  const double* w = data.Weights();
  const double* rw = data.RegWeights();
  BatchTotals t;
  t.weightSum = SumWeights(w, n);
  t.regWeights = rw != nullptr;
  t.regWeightSum = rw == nullptr  ? t.weightSum
                   : w == nullptr ? SumValues(rw, n)
                                  : DotProduct(rw, w, n);
  return t;
}

void CompleteColumns::Reduce(const DataBatch& data, const BatchTotals& totals, int first, int count,
                             double missingCode, Pairs pairs, int split, bool extremes,
                             int minimum) {
  const int n = static_cast<int>(data.NRows());
  _slot.assign(static_cast<std::size_t>(count), -1);
  _columns.clear();
  _pairs = pairs;
  _split = 0;
  for (int j = 0; j < count; ++j) {
    const double* x = data.Column(static_cast<unsigned>(first + j));
    if (HasCell(x, n, missingCode)) continue;
    if (pairs == Pairs::Rectangle && j < split) ++_split;
    _slot[static_cast<std::size_t>(j)] = static_cast<int>(_columns.size());
    // Only read: the kernels centre their own copies (keepColumns below).
    _columns.push_back(const_cast<double*>(x));
  }
  const int m = static_cast<int>(_columns.size());
  if (m == 0 || m < minimum) {
    _slot.assign(static_cast<std::size_t>(count), -1);
    _columns.clear();
    _split = 0;
    return;
  }

  // The batch's totals, as a column's record takes them over its kept rows.
  const double* w = data.Weights();
  const double* rw = data.RegWeights();
  _nRows = n;
  _weightSum = totals.weightSum;
  _regWeightSum = totals.regWeightSum;
  const double* v = CombinedWeights(w, rw, n, _combined);

  const auto size = static_cast<std::size_t>(m);
  _means.resize(size);
  _css.resize(size);
  if (extremes) {
    _mins.resize(size);
    _maxs.resize(size);
  }
  ColumnBlock block;
  block.columns = _columns.data();
  block.count = m;
  ColumnPass(block, v, _regWeightSum, n, _means.data(), extremes ? _mins.data() : nullptr,
             extremes ? _maxs.data() : nullptr);

  CrossProductJob job;
  job.cols = block;
  job.weights = v;
  job.nRows = n;
  job.centre = _means.data();
  job.keepColumns = true;
  if (pairs == Pairs::Triangle) {
    _cross.resize(size * (size + 1) / 2);
    job.triangle = _cross.data();
    CrossProducts(job);
    for (std::size_t j = 0; j < size; ++j)
      _css[j] = _cross[j * (j + 1) / 2 + j];
  } else {
    _cross.resize(static_cast<std::size_t>(_split) * static_cast<std::size_t>(m - _split));
    job.rectangle = _cross.data();
    job.split = _split;
    job.diagonal = _css.data();
    CrossProducts(job);
  }
}

long long CompleteColumns::CompletePairs() const {
  const auto m = static_cast<long long>(_columns.size());
  if (_pairs == Pairs::Triangle) return m * (m - 1) / 2;
  return _split * (m - _split);
}

double CompleteColumns::CSCP(int a, int b) const {
  const std::size_t ia = Slot(a), ib = Slot(b);
  if (_pairs == Pairs::Triangle) return _cross[ia * (ia + 1) / 2 + ib];
  const auto split = static_cast<std::size_t>(_split);
  return _cross[ia * (_columns.size() - split) + (ib - split)];
}

bool ScatteredPairs::WorthIt(long long pairs, long long complete) {
  // A pair costs a compression and five sweeps of its own, some ten steps a
  // row, against under two for a masked lane of two passes here; but the
  // passes pack every column of the block, some four steps a row each. So
  // from about half as many pairs with a missing cell as columns on (the
  // columns being about the square root of twice the pairs), they go here.
  const long long scattered = pairs - complete;
  return scattered > 0 && 2 * scattered * scattered >= pairs;
}

void ScatteredPairs::Reduce(const DataBatch& data, int first, int count, double missingCode,
                            CompleteColumns::Pairs pairs, int split) {
  const int n = static_cast<int>(data.NRows());
  _pairs = pairs;
  _split = split;
  _count = count;
  _columns.clear();
  for (int j = 0; j < count; ++j)  // only read
    _columns.push_back(const_cast<double*>(data.Column(static_cast<unsigned>(first + j))));
  const double* w = data.Weights();
  const double* rw = data.RegWeights();
  const double* v = CombinedWeights(w, rw, n, _combined);

  MaskedPairsJob job;
  job.weights = w;
  job.combined = v;
  job.hasRegWeights = rw != nullptr;
  job.missingCode = missingCode;
  job.nRows = n;
  job.completePairs = false;
  if (pairs == CompleteColumns::Pairs::Triangle) {
    job.first = ColumnBlock{nullptr, 0, count, _columns.data()};
    _figures.resize(static_cast<std::size_t>(count) * static_cast<std::size_t>(count - 1) / 2);
    _columnFigures.resize(static_cast<std::size_t>(count));
    job.columns = _columnFigures.data();
  } else {
    job.triangle = false;
    job.first = ColumnBlock{nullptr, 0, split, _columns.data()};
    job.second = ColumnBlock{nullptr, 0, count - split, _columns.data() + split};
    _figures.resize(static_cast<std::size_t>(split) * static_cast<std::size_t>(count - split));
  }
  job.out = _figures.data();
  MaskedPairs(job);
}

const PairFigures& ScatteredPairs::Pair(int a, int b) const {
  const auto ia = static_cast<std::size_t>(a), ib = static_cast<std::size_t>(b);
  if (_pairs == CompleteColumns::Pairs::Triangle) return _figures[ia * (ia - 1) / 2 + ib];
  const auto split = static_cast<std::size_t>(_split);
  return _figures[ia * (static_cast<std::size_t>(_count) - split) + (ib - split)];
}

}  // namespace vorel::internal
