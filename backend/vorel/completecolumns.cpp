#include "completecolumns.h"

#include "columnkernels.h"
#include "crossproducts.h"

namespace vorel {
namespace {

// Whether any of the n cells compares equal to code (a NaN code never does).
// The test runs a block of rows at a time without stopping, so that it
// compiles to vector compares; it stops at the first block with a hit.
bool HasCell(const double* x, int n, double code) {
  constexpr int kBlock = 64;
  int i = 0;
  for (; i + kBlock <= n; i += kBlock) {
    bool hit = false;
    for (int k = 0; k < kBlock; ++k)
      hit |= x[i + k] == code;
    if (hit) return true;
  }
  for (; i < n; ++i)
    if (x[i] == code) return true;
  return false;
}

}  // namespace

void CompleteColumns::Reduce(const DataBatch& data, int first, int count, double missingCode,
                             Pairs pairs, int split, bool extremes, int minimum) {
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
    return;
  }

  // The batch's totals, as a column's record takes them over its kept rows.
  const double* w = data.Weights();
  const double* rw = data.RegWeights();
  _nRows = n;
  _weightSum = SumWeights(w, n);
  _regWeightSum = rw == nullptr  ? _weightSum
                  : w == nullptr ? SumValues(rw, n)
                                 : DotProduct(rw, w, n);
  const double* v = rw == nullptr ? w : rw;  // the combined weights
  if (w != nullptr && rw != nullptr) {
    _combined.resize(static_cast<std::size_t>(n));
    for (int i = 0; i < n; ++i)
      _combined[static_cast<std::size_t>(i)] = w[i] * rw[i];
    v = _combined.data();
  }

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

double CompleteColumns::CSCP(int a, int b) const {
  const std::size_t ia = Slot(a), ib = Slot(b);
  if (_pairs == Pairs::Triangle) return _cross[ia * (ia + 1) / 2 + ib];
  const auto split = static_cast<std::size_t>(_split);
  return _cross[ia * (_columns.size() - split) + (ib - split)];
}

}  // namespace vorel
