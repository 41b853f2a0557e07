// The portable state: its size, and the time to save it and to load it back,
// for the whole-table matrices of p = 20, 200 and 2,000 columns. Each
// benchmark checks once that a loaded object saves the same bytes.

#include <benchmark/benchmark.h>
#include <vorel/vorel.h>

#include <cstddef>
#include <cstdint>
#include <vector>

#include "bench_support.h"

namespace vorel::bench {
namespace {

constexpr unsigned kRows = 64;

// A matrix of p columns that took kRows weighted rows of the shared table,
// every eleventh cell of the pairwise one missing.
template <class Matrix>
Matrix Filled(int p) {
  Table t = MakeTable(p, static_cast<int>(kRows), 7);
  double weight = 1.0;
  Matrix m = [] {
    if constexpr (std::is_same_v<Matrix, MatrixPairwise>)
      return MatrixPairwise(-1.0);
    else
      return Matrix();
  }();
  DataBatch batch(static_cast<unsigned>(p), kRows, &weight, nullptr, nullptr);
  std::vector<double> row(static_cast<std::size_t>(p));
  for (unsigned r = 0; r < kRows; ++r) {
    for (int c = 0; c < p; ++c)
      row[static_cast<std::size_t>(c)] = (r + c) % 11 == 0 ? -1.0 : t.Column(c)[r];
    weight = t.weights[r];
    batch.AddRow(row.data());
  }
  m += batch;
  return m;
}

void SetStateCounters(benchmark::State& state, std::size_t bytes) {
  state.counters["state_bytes"] = static_cast<double>(bytes);
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations())
                          * static_cast<std::int64_t>(bytes));
}

template <class Matrix>
void BM_StateSave(benchmark::State& state) {
  const Matrix m = Filled<Matrix>(static_cast<int>(state.range(0)));
  std::size_t bytes = 0;
  for (auto _ : state) {
    std::vector<std::byte> saved = m.SaveState();
    bytes = saved.size();
    benchmark::DoNotOptimize(saved.data());
  }
  Check(state, Matrix::LoadState(m.SaveState()).SaveState() == m.SaveState(), "round trip");
  SetStateCounters(state, bytes);
}

template <class Matrix>
void BM_StateLoad(benchmark::State& state) {
  const std::vector<std::byte> saved = Filled<Matrix>(static_cast<int>(state.range(0))).SaveState();
  for (auto _ : state) {
    Matrix loaded = Matrix::LoadState(saved);
    benchmark::DoNotOptimize(&loaded);
  }
  Check(state, Matrix::LoadState(saved).SaveState() == saved, "round trip");
  SetStateCounters(state, saved.size());
}

void StateShapes(benchmark::internal::Benchmark* b) {
  b->Arg(20)->Arg(200)->Arg(2000)->Unit(benchmark::kMillisecond);
}

BENCHMARK(BM_StateSave<MatrixListwise>)->Apply(StateShapes);
BENCHMARK(BM_StateLoad<MatrixListwise>)->Apply(StateShapes);
BENCHMARK(BM_StateSave<MatrixPairwise>)->Apply(StateShapes);
BENCHMARK(BM_StateLoad<MatrixPairwise>)->Apply(StateShapes);

}  // namespace
}  // namespace vorel::bench
