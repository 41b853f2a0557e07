// Pairwise deletion against listwise on the same weighted batch of 10^5 rows:
// each iteration adds the batch to a new MatrixListwise and to a new pairwise
// matrix, in turn, and the counter `ratio` is the best pairwise time over the
// best listwise time of the run (CPU time of the thread, so that other jobs on
// the machine weigh less). Cells missing at random (5 % of all cells) or
// concentrated (5 % of the table in a tenth of the columns, half of each).
// The time reported is the pairwise batch's. Public headers only.
#include <benchmark/benchmark.h>
#include <time.h>
#include <vorel/databatch.h>
#include <vorel/matrixlistwise.h>
#include <vorel/matrixpairwise.h>
#include <vorel/smatrixpairwise.h>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <memory>
#include <type_traits>
#include <vector>

#include "bench_support.h"

namespace vorel::bench {
namespace {

constexpr double kCode = -99.0;
constexpr int kRows = 100000;

enum Scatter { kRandom = 1, kConcentrated = 2 };

double ThreadSeconds() {
  timespec t{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
  return static_cast<double>(t.tv_sec) + 1e-9 * static_cast<double>(t.tv_nsec);
}

// Two batches of the same rows: the listwise matrix centres its batch in
// place (the values change, the work does not), the pairwise one only reads
// its own, whose missing cells must stay the missing code.
struct Batches {
  int p = 0, scatter = 0;
  double weight = 1.0;
  std::unique_ptr<DataBatch> pairwise, listwise;
};

Batches& SharedBatches(int p, int scatter) {
  static Batches b;
  if (b.pairwise && b.p == p && b.scatter == scatter) return b;
  b.pairwise.reset();
  b.listwise.reset();
  b.p = p;
  b.scatter = scatter;
  const auto cols = static_cast<unsigned>(p);
  b.pairwise = std::make_unique<DataBatch>(cols, kRows, &b.weight, nullptr, nullptr);
  b.listwise = std::make_unique<DataBatch>(cols, kRows, &b.weight, nullptr, nullptr);
  const int few = std::max(p / 10, 1);
  const double rate = scatter == kRandom ? 0.05 : 0.05 * p / few;
  std::uint64_t seed = 0x9a1e5u + static_cast<unsigned>(p * 4 + scatter);
  std::vector<double> row(cols);
  for (int i = 0; i < kRows; ++i) {
    for (int j = 0; j < p; ++j) {
      row[j] = 10.0 * (j % 5) - 20.0 + (1.0 + j % 7) * (2.0 * Unit(seed) - 1.0);
      const bool may = scatter == kRandom || j < few;
      if (may && Unit(seed) < rate) row[j] = kCode;
    }
    b.weight = 0.5 + 1.5 * Unit(seed);
    b.pairwise->AddRow(row.data());
    b.listwise->AddRow(row.data());
  }
  return b;
}

// The additions the arithmetic of a weighted batch prescribes, counted per
// kept row. Listwise, per row: the weight total, per column the rest of its
// mean and its centring, and a sum per cell of the triangle with its
// diagonal. Pairwise, per kept row of a pair: the weight total and the rest
// of each of the two means, then two centrings and three sums (the two
// corrected sums and the cross-product); of a column: the weight total, the
// rest of the mean, the centring and the corrected sum.
double ListwiseAdditions(int p) {
  return static_cast<double>(kRows) * (1.0 + 2.0 * p + p * (p + 1) / 2.0);
}

double PairwiseAdditions(const MatrixPairwise& m, int p) {
  double additions = 0.0;
  for (int c = 0; c < p; ++c) {
    additions += 4.0 * static_cast<double>(m.Var(static_cast<unsigned>(c)).NRows());
    for (int l = 0; l < c; ++l)
      additions +=
          8.0
          * static_cast<double>(m.Pair(static_cast<unsigned>(c), static_cast<unsigned>(l)).NRows());
  }
  return additions;
}

// Args: p, scatter.
template <class Pairwise>
void PairwiseOverListwise(benchmark::State& state) {
  const int p = static_cast<int>(state.range(0));
  Batches& b = SharedBatches(p, static_cast<int>(state.range(1)));
  double bestListwise = std::numeric_limits<double>::infinity(), bestPairwise = bestListwise;
  std::uint64_t rows = 0;
  double pairwiseAdditions = 0.0;
  for (auto _ : state) {
    const double t0 = ThreadSeconds();
    {
      MatrixListwise m;
      m += *b.listwise;
      benchmark::DoNotOptimize(m.WeightSum());
    }
    const double t1 = ThreadSeconds();
    {
      Pairwise m(kCode);
      m += *b.pairwise;
      rows = static_cast<std::uint64_t>(m.Pair(1, 0).NRows());
      if constexpr (std::is_same_v<Pairwise, MatrixPairwise>)
        pairwiseAdditions = PairwiseAdditions(m, p);
    }
    const double t2 = ThreadSeconds();
    bestListwise = std::min(bestListwise, t1 - t0);
    bestPairwise = std::min(bestPairwise, t2 - t1);
    state.SetIterationTime(t2 - t1);
  }
  // Pair (1, 0) keeps the rows where neither cell is missing: some are
  // missing in column 0 in both scatters.
  Check(state, rows > 0 && rows < static_cast<std::uint64_t>(kRows), "pair row count");
  state.counters["ratio"] = bestPairwise / bestListwise;
  state.counters["listwise_ms"] = 1e3 * bestListwise;
  state.counters["pairwise_ms"] = 1e3 * bestPairwise;
  // Where every column has missing cells, every pair and column takes the
  // masked pass, and the ratio splits into the arithmetic's additions and
  // the share of the machine's peak rate of additions each matrix reaches:
  // ratio = additions / (pairwise share / listwise share).
  const double peak = PeakAdditionsPerSecond();
  if (state.range(1) == kRandom && pairwiseAdditions > 0.0 && peak > 0.0) {
    const double listwiseAdditions = ListwiseAdditions(p);
    state.counters["additions"] = pairwiseAdditions / listwiseAdditions;
    state.counters["pair_peak"] = pairwiseAdditions / peak / bestPairwise;
    state.counters["list_peak"] = listwiseAdditions / peak / bestListwise;
  }
}

void BM_PairwiseOverListwise(benchmark::State& state) {
  PairwiseOverListwise<MatrixPairwise>(state);
}

void BM_SPairwiseOverListwise(benchmark::State& state) {
  PairwiseOverListwise<SMatrixPairwise>(state);
}

void RatioShapes(benchmark::internal::Benchmark* b) {
  b->ArgsProduct({{5, 20, 50, 100, 200}, {kRandom, kConcentrated}});
  b->UseManualTime()->Unit(benchmark::kMillisecond);
}

BENCHMARK(BM_PairwiseOverListwise)->Apply(RatioShapes);
BENCHMARK(BM_SPairwiseOverListwise)->Apply(RatioShapes);

}  // namespace
}  // namespace vorel::bench
