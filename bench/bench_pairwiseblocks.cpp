// The pairwise block matrix batch by batch: one SMatrixPairwise over all p
// columns of a weighted batch of n rows, with no cell missing or about one
// cell in five missing. Every column and every pair compresses and sweeps the
// batch on its own, so items are record-rows: (p + p(p-1)/2) x n a batch.
#include <benchmark/benchmark.h>
#include <vorel/databatch.h>
#include <vorel/matrixpairwise.h>
#include <vorel/smatrixpairwise.h>

#include <cstdint>
#include <random>
#include <vector>

#include "bench_support.h"

namespace vorel::bench {
namespace {

constexpr double kCode = -99.0;

// p columns of n rows with weights in [0.5, 2); missingPercent of the cells
// are the missing code. weight is the cell the batch reads weights from.
DataBatch MakeBatch(int p, int n, int missingPercent, double& weight) {
  std::mt19937_64 gen(20240611u);
  std::uniform_real_distribution<double> cell(-3.0, 5.0), w(0.5, 2.0), percent(0.0, 100.0);
  DataBatch batch(static_cast<unsigned>(p), static_cast<unsigned>(n), &weight, nullptr, nullptr);
  std::vector<double> row(static_cast<std::size_t>(p));
  for (int r = 0; r < n; ++r) {
    for (double& x : row)
      x = percent(gen) < missingPercent ? kCode : cell(gen);
    weight = w(gen);
    batch.AddRow(row.data());
  }
  return batch;
}

// Args: p, n, percent of cells missing.
void BM_SMatrixPairwiseBatch(benchmark::State& state) {
  const int p = static_cast<int>(state.range(0)), n = static_cast<int>(state.range(1));
  double weight = 1.0;
  DataBatch batch = MakeBatch(p, n, static_cast<int>(state.range(2)), weight);
  {
    // The answer, once: a block over every column equals the whole table bit for bit.
    SMatrixPairwise block(kCode);
    MatrixPairwise whole(kCode);
    block += batch;
    whole += batch;
    const bool same = SameBits(block.Pair(p - 1, 0).CSCP(), whole.Pair(p - 1, 0).CSCP())
                      && SameBits(block.Var(p / 2).CSS(), whole.Var(p / 2).CSS());
    if (!Check(state, same, "pairwise block record")) return;
  }
  SMatrixPairwise m(kCode);
  for (auto _ : state)
    m += batch;
  SetRates(state, 0.5 * p * (p + 1.0) * n, 8.0 * n * (p + 1.0));
}

BENCHMARK(BM_SMatrixPairwiseBatch)
    ->ArgsProduct({{5, 20}, {1000, 10000, 100000}, {0, 20}})
    ->Args({50, 10000, 0})
    ->Args({50, 10000, 20})
    ->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace vorel::bench
