// One batch of each matrix class, at n = 10^4, 10^5, 10^6 rows and p = 5,
// 20, 50, 100, 200 columns: the listwise classes weighted and not, the
// pairwise ones with no cell missing and with 5 % missing, spread evenly or
// concentrated in a tenth of the columns; and a Driver pass with one and two
// threads. Items are cell-rows (one product of a cross-product cell, or of a
// pair record, over one row); bytes are the batch's cells and weights.
#include <vorel/DiscriminantMatrix.h>
#include <vorel/DscIndividualMatrix.h>
#include <vorel/databatch.h>
#include <vorel/databatchbygroup.h>
#include <vorel/driver.h>
#include <vorel/matrixlistwise.h>
#include <vorel/matrixpairwise.h>
#include <vorel/nsmatrixlistwise.h>
#include <vorel/nsmatrixpairwise.h>
#include <vorel/smatrixlistwise.h>
#include <vorel/smatrixpairwise.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

#include "bench_support.h"
#include "kernels/columnkernels.h"

namespace vorel::bench {

using namespace vorel::internal;
namespace {

constexpr double kCode = -99.0;
constexpr unsigned kGroups = 4;

enum Missing { kNone = 0, kEven = 1, kConcentrated = 2 };

double Cells(int p) { return 0.5 * p * (p + 1.0); }

// One batch of a shape, made once and kept while benchmarks of that shape
// run. Listwise classes centre it in place (and mark it spent, so that the
// next benchmark gets a new one): their later iterations do the same work on
// centred values, and only the first iteration's answer is checked, against
// copies of two columns taken before.
struct Shared {
  int p = 0, n = 0, missing = -1;
  bool weighted = false;
  bool spent = false;   // centred in place by a listwise matrix
  double weight = 1.0;  // the batch reads the current weight and group from here
  unsigned group = 0;
  std::unique_ptr<DataBatch> batch;
  std::unique_ptr<DataBatchByGroup> grouped;
  std::vector<double> first, last, weights;  // columns 0 and p-1, and the weights, as made
};

Shared& SharedBatch(int p, int n, bool weighted, int missing, bool grouped = false) {
  static Shared s;
  if (s.batch && !s.spent && s.p == p && s.n == n && s.weighted == weighted && s.missing == missing
      && (!grouped || s.grouped))
    return s;
  s.spent = false;
  s.batch.reset();
  s.grouped.reset();
  s.p = p;
  s.n = n;
  s.weighted = weighted;
  s.missing = missing;
  const unsigned cols = static_cast<unsigned>(p), rows = static_cast<unsigned>(n);
  s.batch =
      std::make_unique<DataBatch>(cols, rows, weighted ? &s.weight : nullptr, nullptr, &s.group);
  if (grouped)
    s.grouped = std::make_unique<DataBatchByGroup>(cols, rows, weighted ? &s.weight : nullptr,
                                                   nullptr, &s.group, kGroups);
  // Concentrated: the missing cells of 5 % of the table lie in a tenth of
  // the columns, half of each of those.
  const int few = p / 10 > 0 ? p / 10 : 1;
  const double rate = missing == kEven ? 0.05 : missing == kConcentrated ? 0.05 * p / few : 0.0;
  std::uint64_t seed = 0x5eed1234u + static_cast<unsigned>(p);
  std::vector<double> row(cols);
  s.first.clear();
  s.last.clear();
  s.weights.clear();
  for (int i = 0; i < n; ++i) {
    for (int j = 0; j < p; ++j) {
      row[j] = 10.0 * (j % 5) - 20.0 + (1.0 + j % 7) * (2.0 * Unit(seed) - 1.0);
      const bool may = missing == kEven || (missing == kConcentrated && j < few);
      if (may && Unit(seed) < rate) row[j] = kCode;
    }
    s.weight = 0.5 + 1.5 * Unit(seed);
    s.group = static_cast<unsigned>(Next(seed) % kGroups);
    s.batch->AddRow(row.data());
    if (s.grouped) {
      std::copy(row.begin(), row.end(), s.grouped->Row(s.grouped->NRows()));
      s.grouped->AddRow();
    }
    s.first.push_back(row[0]);
    s.last.push_back(row[cols - 1]);
    s.weights.push_back(weighted ? s.weight : 1.0);
  }
  if (s.grouped) s.grouped->SortByGroup();
  return s;
}

double Bytes(int p, int n, bool weighted) { return 8.0 * n * (p + (weighted ? 1 : 0)); }

// The corrected cross-product of columns p-1 and 0 by the plain loops, the
// weight multiplying column p-1 first (a triangle's row), or column 0 (a
// rectangle's row) when lastWeighted is false.
double PlainCorrected(const Shared& s, bool lastWeighted = true) {
  const double* w = s.weighted ? s.weights.data() : nullptr;
  const double total = SumWeights(w, s.n);
  std::vector<double> a(s.last), b(s.first);
  SubtractInPlace(a.data(), StableMean(a.data(), w, &total, s.n), s.n);
  SubtractInPlace(b.data(), StableMean(b.data(), w, &total, s.n), s.n);
  return lastWeighted ? PlainCell(a.data(), b.data(), w, s.n)
                      : PlainCell(b.data(), a.data(), w, s.n);
}

// ---------------------------------------------------------------- listwise

// One batch into a new listwise matrix made by make(p); the cell read(m, p)
// of the first iteration is checked against the plain loops (lastWeighted as
// in PlainCorrected). Args: p, n, weighted.
template <class Make, class Read>
void ListwiseBatch(benchmark::State& state, Make make, Read read, bool lastWeighted, double items,
                   const char* what) {
  const int p = static_cast<int>(state.range(0)), n = static_cast<int>(state.range(1));
  Shared& s = SharedBatch(p, n, state.range(2) != 0, kNone);
  const double want = PlainCorrected(s, lastWeighted);
  double got = 0.0;
  bool first = true;
  for (auto _ : state) {
    auto m = make(p);
    m += *s.batch;
    if (first) got = read(m, p);
    first = false;
  }
  s.spent = true;
  Check(state, SameBits(got, want), what);
  SetRates(state, items * n, Bytes(p, n, s.weighted));
}

void BM_MatrixListwise(benchmark::State& state) {
  const int p = static_cast<int>(state.range(0));
  ListwiseBatch(
      state, [](int) { return MatrixListwise(); },
      [](const MatrixListwise& m, int q) { return m.CCP(static_cast<unsigned>(q - 1), 0); }, true,
      Cells(p), "listwise cell");
}

void BM_SMatrixListwise(benchmark::State& state) {
  const int p = static_cast<int>(state.range(0));
  ListwiseBatch(
      state, [](int) { return SMatrixListwise(); },
      [](const SMatrixListwise& m, int q) { return m.CCP(q - 1, 0); }, true, Cells(p),
      "block cell");
}

// The first half of the columns against the second, with all sums of squares.
void BM_NSMatrixListwise(benchmark::State& state) {
  const int p = static_cast<int>(state.range(0));
  const double half = p / 2;
  ListwiseBatch(
      state, [](int q) { return NSMatrixListwise(0, q / 2, q); },
      [](const NSMatrixListwise& m, int q) { return m.CCP(0, q - 1); }, false,
      half * (p - half) + p, "rectangle cell");
}

// ---------------------------------------------------------------- discriminant

void BM_DiscriminantMatrix(benchmark::State& state) {
  const int p = static_cast<int>(state.range(0)), n = static_cast<int>(state.range(1));
  Shared& s = SharedBatch(p, n, state.range(2) != 0, kNone);
  const double* w = s.weighted ? s.weights.data() : nullptr;
  const double want = PlainCell(s.last.data(), s.first.data(), w, n);
  double got = 0.0;
  for (auto _ : state) {
    DiscriminantMatrix m(static_cast<int>(kGroups), p);
    m += *s.batch;
    got = p > 1 ? m.TSSP(p - 1, 0) : want;
  }
  Check(state, SameBits(got, want), "discriminant cell");
  SetRates(state, Cells(p) * n, Bytes(p, n, s.weighted));
}

void BM_DiscIndividualMatrix(benchmark::State& state) {
  const int p = static_cast<int>(state.range(0)), n = static_cast<int>(state.range(1));
  Shared& s = SharedBatch(p, n, state.range(2) != 0, kNone, true);
  double total = 0.0;
  for (auto _ : state) {
    DiscIndividualMatrix m(static_cast<int>(kGroups), p);
    m += *s.grouped;
    total = 0.0;
    for (int g = 0; g < static_cast<int>(kGroups); ++g)
      total += m.TSSP(p, p, g);
  }
  // The groups' weight totals add up to the batch's (to rounding).
  const double want = SumWeights(s.weighted ? s.weights.data() : nullptr, n);
  Check(state, total > 0.999999 * want && total < 1.000001 * want, "group weights");
  SetRates(state, (Cells(p + 1)) * n, Bytes(p, n, s.weighted));
}

// ---------------------------------------------------------------- pairwise

// Args: p, n, missing (0 none, 1 even, 2 concentrated). Weighted.
template <class Matrix, class Make>
void PairwiseBatch(benchmark::State& state, Make make, double items) {
  const int p = static_cast<int>(state.range(0)), n = static_cast<int>(state.range(1));
  const int missing = static_cast<int>(state.range(2));
  Shared& s = SharedBatch(p, n, true, missing);
  double css = -1.0;
  for (auto _ : state) {
    Matrix m = make(p);
    m += *s.batch;
    css = m.Var(p - 1).CSS();
  }
  // Column p-1 is complete unless the cells are missing everywhere.
  if (missing != kEven) {
    const double total = SumWeights(s.weights.data(), n);
    std::vector<double> x(s.last);
    SubtractInPlace(x.data(), StableMean(x.data(), s.weights.data(), &total, n), n);
    Check(state, SameBits(css, PlainCell(x.data(), x.data(), s.weights.data(), n)),
          "pairwise sum of squares");
  } else {
    Check(state, css >= 0.0, "pairwise sum of squares");
  }
  SetRates(state, items * n, Bytes(p, n, true));
}

void BM_MatrixPairwise(benchmark::State& state) {
  const int p = static_cast<int>(state.range(0));
  PairwiseBatch<MatrixPairwise>(
      state, [](int) { return MatrixPairwise(kCode); }, Cells(p));
}

void BM_SMatrixPairwise(benchmark::State& state) {
  const int p = static_cast<int>(state.range(0));
  PairwiseBatch<SMatrixPairwise>(
      state, [](int) { return SMatrixPairwise(kCode); }, Cells(p));
}

void BM_NSMatrixPairwise(benchmark::State& state) {
  const int p = static_cast<int>(state.range(0));
  const double half = p / 2;
  PairwiseBatch<NSMatrixPairwise>(
      state, [](int cols) { return NSMatrixPairwise(kCode, 0, cols / 2, cols); },
      half * (p - half) + p);
}

// ---------------------------------------------------------------- Driver

// The rows of a Driver pass, row by row as a caller would hold them; made
// once per shape and kept, since making them takes longer than a pass.
const std::vector<double>& PassRows(int p, int nRows) {
  static std::vector<double> rows;
  static int madeP = 0, madeRows = 0;
  if (madeP != p || madeRows != nRows) {
    std::uint64_t seed = 42;
    rows.assign(static_cast<std::size_t>(p) * nRows, 0.0);
    for (double& x : rows)
      x = 3.0 + 2.0 * Unit(seed);
    madeP = p;
    madeRows = nRows;
  }
  return rows;
}

// A pass of nBatches batches of batchRows rows of p columns from a table in
// memory, into one MatrixListwise per worker, merged at the end. ReadBatch
// only claims the next batch under the read lock; the worker copies its rows
// in ProcessBatch, as a caller with a source that threads may read side by
// side would, so that the pass is bound by the arithmetic.
class ListwisePass : public ProblemBase {
 public:
  ListwisePass(int p, int batchRows, int nBatches)
      : _p(p),
        _batchRows(batchRows),
        _nBatches(nBatches),
        _rows(PassRows(p, batchRows * nBatches)) {}
  WorkerBase* CreateWorker() override { return new Worker(*this); }
  MatrixListwise& Result() { return _result; }

 private:
  class Worker : public WorkerBase {
   public:
    explicit Worker(ListwisePass& pass)
        : _pass(pass),
          _batch(static_cast<unsigned>(pass._p), static_cast<unsigned>(pass._batchRows), nullptr,
                 nullptr, nullptr) {}
    bool ReadBatch() override {
      if (_pass._next == _pass._nBatches) return false;
      _claimed = _pass._next++;
      return true;
    }
    void ProcessBatch() override {
      _batch.Clear();
      const std::size_t rowCells = static_cast<std::size_t>(_pass._p);
      const double* row =
          _pass._rows.data() + static_cast<std::size_t>(_claimed) * _pass._batchRows * rowCells;
      for (int i = 0; i < _pass._batchRows; ++i, row += rowCells)
        _batch.AddRow(row);
      _matrix += _batch;
    }
    void MergeResult() override { _pass._result += _matrix; }

   private:
    ListwisePass& _pass;
    DataBatch _batch;
    MatrixListwise _matrix;
    int _claimed = 0;
  };

  int _p, _batchRows, _nBatches;
  int _next = 0;  // under the read lock
  const std::vector<double>& _rows;
  MatrixListwise _result;
};

constexpr int kPassRows = 200000;

// One pass on `threads` threads: its wall time in seconds and its row count.
std::pair<double, std::uint64_t> TimedPass(int threads, int p, int batchRows) {
  ListwisePass pass(p, batchRows, kPassRows / batchRows);
  const auto start = std::chrono::steady_clock::now();
  Driver(&pass, threads);
  const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
  return {took.count(), pass.Result().NRows()};
}

// Args: threads, p, rows a batch; 200,000 rows in all.
void BM_DriverListwise(benchmark::State& state) {
  const int threads = static_cast<int>(state.range(0)), p = static_cast<int>(state.range(1));
  const int batchRows = static_cast<int>(state.range(2));
  PassRows(p, kPassRows);
  std::uint64_t rows = 0;
  for (auto _ : state) {
    const auto [seconds, n] = TimedPass(threads, p, batchRows);
    state.SetIterationTime(seconds);
    rows = n;
  }
  Check(state, rows == kPassRows, "rows of the pass");
  SetRates(state, Cells(p) * kPassRows, 8.0 * p * kPassRows);
}

// Two threads against one, the passes taken in turn so that both see the
// same machine; the counter `speedup` is the best one-thread time over the
// best two-thread time. Reported time: the two-thread pass. Args: p, rows a
// batch.
void BM_DriverSpeedup(benchmark::State& state) {
  const int p = static_cast<int>(state.range(0)), batchRows = static_cast<int>(state.range(1));
  PassRows(p, kPassRows);
  double best1 = 1e300, best2 = 1e300;
  bool counted = true;
  for (auto _ : state) {
    const auto [one, rows1] = TimedPass(1, p, batchRows);
    const auto [two, rows2] = TimedPass(2, p, batchRows);
    counted = counted && rows1 == kPassRows && rows2 == kPassRows;
    best1 = std::min(best1, one);
    best2 = std::min(best2, two);
    state.SetIterationTime(two);
  }
  if (!Check(state, counted, "rows of the passes")) return;
  state.counters["speedup"] = best1 / best2;
  SetRates(state, Cells(p) * kPassRows, 8.0 * p * kPassRows);
}

// ---------------------------------------------------------------- shapes

void ListwiseShapes(benchmark::internal::Benchmark* b) {
  for (std::int64_t n : {10000, 100000, 1000000})
    for (std::int64_t p : {5, 20, 50, 100, 200})
      for (std::int64_t weighted : {0, 1})
        b->Args({p, n, weighted});
  b->Unit(benchmark::kMillisecond);
}

// Every shape without missing cells and with concentrated ones; cells
// missing evenly make every pair compress on its own, so those stop at
// 10^5 rows and 50 columns.
void PairwiseShapes(benchmark::internal::Benchmark* b) {
  for (std::int64_t n : {10000, 100000, 1000000})
    for (std::int64_t p : {5, 20, 50, 100, 200})
      for (std::int64_t missing : {kNone, kEven, kConcentrated})
        if (missing != kEven || (n <= 100000 && p <= 50)) b->Args({p, n, missing});
  b->Unit(benchmark::kMillisecond);
}

BENCHMARK(BM_MatrixListwise)->Apply(ListwiseShapes);
BENCHMARK(BM_SMatrixListwise)->Apply(ListwiseShapes);
BENCHMARK(BM_NSMatrixListwise)->Apply(ListwiseShapes);
BENCHMARK(BM_DiscriminantMatrix)->Apply(ListwiseShapes);
BENCHMARK(BM_DiscIndividualMatrix)->Apply(ListwiseShapes);
BENCHMARK(BM_MatrixPairwise)->Apply(PairwiseShapes);
BENCHMARK(BM_SMatrixPairwise)->Apply(PairwiseShapes);
BENCHMARK(BM_NSMatrixPairwise)->Apply(PairwiseShapes);
BENCHMARK(BM_DriverListwise)
    ->ArgsProduct({{1, 2}, {100, 200}, {500, 5000}})
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_DriverSpeedup)
    ->ArgsProduct({{100, 200}, {500, 5000}})
    ->MinTime(2.0)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace vorel::bench
