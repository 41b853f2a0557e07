// The kernels: blocked cross-products at each instruction-set level against
// the per-cell loop, the column pass against one sweep per statistic, a whole
// listwise batch by the kernels against the OpenBLAS route (centre, scale by
// sqrt(w), dsyrk), and the machine's own limits: peak separate multiply and
// add, and memory read bandwidth.
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdint>
#include <memory>
#include <vector>

#if defined(__x86_64__)
#include <immintrin.h>
#endif
#if defined(VOREL_BENCH_OPENBLAS)
#include <cblas.h>
#endif

#include "bench_support.h"
#include "kernels/columnkernels.h"
#include "kernels/crossproducts.h"

namespace vorel::bench {

using namespace vorel::internal;
namespace {

constexpr std::int64_t kColumns[] = {5, 20, 50, 100, 200};

double Cells(int p) { return 0.5 * p * (p + 1.0); }
double Bytes(int p, int n, bool weighted) { return 8.0 * n * (p + (weighted ? 1 : 0)); }

// A few cells of a triangle against the plain loop: the corners, the middle.
bool CheckTriangle(benchmark::State& state, Table& t, const double* w,
                   const std::vector<double>& out) {
  const int p = t.p;
  const int picks[][2] = {{0, 0}, {p - 1, 0}, {p - 1, p - 1}, {p / 2, p / 3}};
  for (const auto& pick : picks) {
    const int c = pick[0], k = pick[1];
    const double want = PlainCell(t.Column(c), t.Column(k), w, t.n);
    const double got = out[static_cast<std::size_t>(c) * (c + 1) / 2 + k];
    if (!Check(state, SameBits(got, want), "triangle cell")) return false;
  }
  return true;
}

// ---------------------------------------------------------------- cross-products

// Args: level, p, n, weighted.
void BM_TriangleLevel(benchmark::State& state) {
  const int p = static_cast<int>(state.range(1)), n = static_cast<int>(state.range(2));
  const bool weighted = state.range(3) != 0;
  LevelScope level(state, static_cast<int>(state.range(0)));
  if (!level.ok()) return;
  Table& t = SharedTable(p, n);
  const double* w = weighted ? t.weights.data() : nullptr;
  std::vector<double> out(static_cast<std::size_t>(Cells(p)));
  for (auto _ : state) {
    CrossProductTriangle(t.Block(), w, n, out.data());
    benchmark::ClobberMemory();
  }
  CheckTriangle(state, t, w, out);
  SetRates(state, Cells(p) * n, Bytes(p, n, weighted));
}

// Args: p, n, weighted. The best level.
void BM_Triangle(benchmark::State& state) {
  const int p = static_cast<int>(state.range(0)), n = static_cast<int>(state.range(1));
  const bool weighted = state.range(2) != 0;
  Table& t = SharedTable(p, n);
  const double* w = weighted ? t.weights.data() : nullptr;
  std::vector<double> out(static_cast<std::size_t>(Cells(p)));
  for (auto _ : state) {
    CrossProductTriangle(t.Block(), w, n, out.data());
    benchmark::ClobberMemory();
  }
  CheckTriangle(state, t, w, out);
  SetRates(state, Cells(p) * n, Bytes(p, n, weighted));
}

// The same triangle one cell at a time with the column kernel, as the
// matrices compute it without the blocked kernels. Args: p, n, weighted.
void BM_TrianglePerCell(benchmark::State& state) {
  const int p = static_cast<int>(state.range(0)), n = static_cast<int>(state.range(1));
  const bool weighted = state.range(2) != 0;
  Table& t = SharedTable(p, n);
  const double* w = weighted ? t.weights.data() : nullptr;
  std::vector<double> out(static_cast<std::size_t>(Cells(p)));
  for (auto _ : state) {
    std::size_t cell = 0;
    for (int c = 0; c < p; ++c)
      for (int k = 0; k <= c; ++k)
        out[cell++] = WeightedDotProduct(t.Column(c), t.Column(k), w, n);
    benchmark::ClobberMemory();
  }
  CheckTriangle(state, t, w, out);
  SetRates(state, Cells(p) * n, Bytes(p, n, weighted));
}

// The rectangle of the first half of the columns against the second.
// Args: p, n, weighted.
void BM_Rectangle(benchmark::State& state) {
  const int p = static_cast<int>(state.range(0)), n = static_cast<int>(state.range(1));
  const bool weighted = state.range(2) != 0;
  const int split = p / 2;
  Table& t = SharedTable(p, n);
  const double* w = weighted ? t.weights.data() : nullptr;
  std::vector<double> out(static_cast<std::size_t>(split) * (p - split));
  for (auto _ : state) {
    CrossProductRectangle(t.Block(), split, w, n, out.data());
    benchmark::ClobberMemory();
  }
  const double want = PlainCell(t.Column(split - 1), t.Column(p - 1), w, n);
  Check(state, SameBits(out.back(), want), "rectangle cell");
  SetRates(state, static_cast<double>(split) * (p - split) * n, Bytes(p, n, weighted));
}

// ---------------------------------------------------------------- column pass

// Means, minima and maxima in one sweep. Args: p, n, weighted.
void BM_ColumnPass(benchmark::State& state) {
  const int p = static_cast<int>(state.range(0)), n = static_cast<int>(state.range(1));
  const bool weighted = state.range(2) != 0;
  Table& t = SharedTable(p, n);
  const double* w = weighted ? t.weights.data() : nullptr;
  const double total = SumWeights(w, n);
  std::vector<double> means(p), mins(p), maxs(p);
  for (auto _ : state) {
    ColumnPass(t.Block(), w, total, n, means.data(), mins.data(), maxs.data());
    benchmark::ClobberMemory();
  }
  const double* last = t.Column(p - 1);
  Check(state,
        SameBits(means[p - 1], StableMean(last, w, &total, n))
            && SameBits(mins[p - 1], MinValue(last, n)) && SameBits(maxs[p - 1], MaxValue(last, n)),
        "column pass");
  SetRates(state, static_cast<double>(p) * n, Bytes(p, n, weighted));
}

// The same figures by the column kernels, one sweep per statistic and column.
void BM_ColumnPassPerColumn(benchmark::State& state) {
  const int p = static_cast<int>(state.range(0)), n = static_cast<int>(state.range(1));
  const bool weighted = state.range(2) != 0;
  Table& t = SharedTable(p, n);
  const double* w = weighted ? t.weights.data() : nullptr;
  const double total = SumWeights(w, n);
  std::vector<double> means(p), mins(p), maxs(p);
  for (auto _ : state) {
    for (int j = 0; j < p; ++j) {
      means[j] = StableMean(t.Column(j), w, &total, n);
      mins[j] = MinValue(t.Column(j), n);
      maxs[j] = MaxValue(t.Column(j), n);
    }
    benchmark::ClobberMemory();
  }
  std::vector<double> m(p), lo(p), hi(p);
  ColumnPass(t.Block(), w, total, n, m.data(), lo.data(), hi.data());
  Check(state, SameBits(m[0], means[0]) && SameBits(lo[0], mins[0]) && SameBits(hi[0], maxs[0]),
        "per-column pass");
  SetRates(state, static_cast<double>(p) * n, Bytes(p, n, weighted));
}

// ---------------------------------------------------------------- a whole batch

// What a listwise batch costs through the kernels: weight total, means,
// centring in place and the triangle. The table is centred by the first
// iteration; later ones do the same work on centred values. Args: p, n, weighted.
void BM_ListwiseByKernels(benchmark::State& state) {
  const int p = static_cast<int>(state.range(0)), n = static_cast<int>(state.range(1));
  const bool weighted = state.range(2) != 0;
  Table& t = SharedTable(p, n);
  const double* w = weighted ? t.weights.data() : nullptr;
  std::vector<double> means(p), out(static_cast<std::size_t>(Cells(p)));
  // The answer of the first iteration, worked out the plain way beforehand.
  const double total0 = SumWeights(w, n);
  const double m0 = StableMean(t.Column(0), w, &total0, n);
  const double mLast = StableMean(t.Column(p - 1), w, &total0, n);
  std::vector<double> c0(t.Column(0), t.Column(0) + n), cLast(t.Column(p - 1), t.Column(p - 1) + n);
  SubtractInPlace(c0.data(), m0, n);
  SubtractInPlace(cLast.data(), mLast, n);
  const double want = PlainCell(cLast.data(), c0.data(), w, n);
  bool first = true;
  double got = 0.0;
  for (auto _ : state) {
    const double total = SumWeights(w, n);
    ColumnPass(t.Block(), w, total, n, means.data(), nullptr, nullptr);
    CrossProductJob job;
    job.cols = t.Block();
    job.weights = w;
    job.nRows = n;
    job.centre = means.data();
    job.triangle = out.data();
    CrossProducts(job);
    if (first) got = out[static_cast<std::size_t>(p - 1) * p / 2];
    first = false;
    benchmark::ClobberMemory();
  }
  Check(state, SameBits(got, want), "listwise cell");
  SetRates(state, Cells(p) * n, Bytes(p, n, weighted));
}

#if defined(VOREL_BENCH_OPENBLAS)
// The route a user would take with a BLAS: weighted means, a centred copy
// scaled by sqrt(w), and dsyrk on one thread. All of it is timed. The BLAS
// fuses and reorders, so its digits differ: it is checked with a tolerance.
void BM_ListwiseByOpenBlas(benchmark::State& state) {
  const int p = static_cast<int>(state.range(0)), n = static_cast<int>(state.range(1));
  const bool weighted = state.range(2) != 0;
  openblas_set_num_threads(1);
  Table& t = SharedTable(p, n);
  const double* w = weighted ? t.weights.data() : nullptr;
  std::vector<double> a(static_cast<std::size_t>(p) * n), root(static_cast<std::size_t>(n));
  std::vector<double> means(p), c(static_cast<std::size_t>(p) * p);
  for (auto _ : state) {
    double total = 0.0;
    for (int i = 0; i < n; ++i)
      total += w != nullptr ? w[i] : 1.0;
    if (w != nullptr)
      for (int i = 0; i < n; ++i)
        root[i] = std::sqrt(w[i]);
    for (int j = 0; j < p; ++j) {
      const double* x = t.Column(j);
      double sum = 0.0;
      for (int i = 0; i < n; ++i)
        sum += w != nullptr ? w[i] * x[i] : x[i];
      means[j] = sum / total;
      double* col = a.data() + static_cast<std::size_t>(j) * n;
      if (w != nullptr) {
        for (int i = 0; i < n; ++i)
          col[i] = (x[i] - means[j]) * root[i];
      } else {
        for (int i = 0; i < n; ++i)
          col[i] = x[i] - means[j];
      }
    }
    cblas_dsyrk(CblasColMajor, CblasLower, CblasTrans, p, n, 1.0, a.data(), n, 0.0, c.data(), p);
    benchmark::ClobberMemory();
  }
  // Cell (p-1, 0) against the plain loop on the centred columns.
  std::vector<double> c0(t.Column(0), t.Column(0) + n), cLast(t.Column(p - 1), t.Column(p - 1) + n);
  SubtractInPlace(c0.data(), means[0], n);
  SubtractInPlace(cLast.data(), means[p - 1], n);
  const double want = PlainCell(cLast.data(), c0.data(), w, n);
  const double scale = std::sqrt(c[0] * c[static_cast<std::size_t>(p) * p - 1]);
  Check(state, std::fabs(c[p - 1] - want) <= 1e-9 * scale, "dsyrk cell");
  SetRates(state, Cells(p) * n, Bytes(p, n, weighted));
}
#endif

// ---------------------------------------------------------------- the machine

#if defined(__x86_64__) && defined(__GNUC__)
// Peak multiply-and-add pairs per second of one core (items: one
// multiplication plus one addition). Arg: level (1 avx2, 2 avx512).
void BM_PeakMulAdd(benchmark::State& state) {
  const int level = static_cast<int>(state.range(0));
  LevelScope scope(state, level);
  if (!scope.ok()) return;
  // Unknown to the compiler, so that nothing folds: x * 1.0 and y + 0.0.
  volatile double one = 1.0, zero = 0.0;
  constexpr std::int64_t kTurns = 1 << 22;
  const double lanesPerTurn = level == 2 ? kPeakAvx512Lanes : kPeakAvx2Lanes;
  double sink = 0.0;
  for (auto _ : state)
    sink += level == 2 ? PeakAvx512(kTurns, one, zero) : PeakAvx2(kTurns, one, zero);
  benchmark::DoNotOptimize(sink);
  Check(state, sink > 0.0, "peak loop");
  SetRates(state, lanesPerTurn * kTurns, 0.0);
}

__attribute__((target("avx2"))) double SumBuffer(const double* x, std::size_t n) {
  __m256d s0 = _mm256_setzero_pd(), s1 = s0, s2 = s0, s3 = s0;
  for (std::size_t i = 0; i + 16 <= n; i += 16) {
    s0 = _mm256_add_pd(s0, _mm256_loadu_pd(x + i));
    s1 = _mm256_add_pd(s1, _mm256_loadu_pd(x + i + 4));
    s2 = _mm256_add_pd(s2, _mm256_loadu_pd(x + i + 8));
    s3 = _mm256_add_pd(s3, _mm256_loadu_pd(x + i + 12));
  }
  double lanes[4];
  _mm256_storeu_pd(lanes, _mm256_add_pd(_mm256_add_pd(s0, s1), _mm256_add_pd(s2, s3)));
  return lanes[0] + lanes[1] + lanes[2] + lanes[3];
}

// Read bandwidth of one core at a working set of range(0) MiB: 1 (L2),
// 16 (L3) and 512 (memory).
void BM_MemoryRead(benchmark::State& state) {
  if (!KernelLevelSupported(KernelLevel::Avx2)) {
    state.SkipWithError("needs AVX2");
    return;
  }
  const std::size_t n = static_cast<std::size_t>(state.range(0)) * (1 << 20) / sizeof(double);
  std::vector<double> x(n, 1.0);
  double sum = 0.0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(x.data());
    sum = SumBuffer(x.data(), n);
    benchmark::DoNotOptimize(sum);
    benchmark::ClobberMemory();
  }
  Check(state, sum == static_cast<double>(n), "buffer sum");
  SetRates(state, static_cast<double>(n), 8.0 * static_cast<double>(n));
}

BENCHMARK(BM_PeakMulAdd)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_MemoryRead)->Arg(1)->Arg(16)->Arg(512)->Unit(benchmark::kMillisecond);
#endif

// Shapes: every p at n = 10^4 and 10^5; at 10^6 the blocked kernels only, as
// a per-cell pass of 200 columns there takes half a minute.
void AllShapes(benchmark::internal::Benchmark* b, bool million) {
  std::vector<std::int64_t> rows = {10000, 100000};
  if (million) rows.push_back(1000000);
  for (std::int64_t n : rows)
    for (std::int64_t p : kColumns)
      for (std::int64_t weighted : {0, 1})
        b->Args({p, n, weighted});
  b->Unit(benchmark::kMillisecond);
}

BENCHMARK(BM_Triangle)->Apply([](auto* b) { AllShapes(b, true); });
BENCHMARK(BM_TrianglePerCell)->Apply([](auto* b) { AllShapes(b, false); });
BENCHMARK(BM_TriangleLevel)
    ->ArgsProduct({{0, 1, 2}, {5, 20, 50, 200}, {100000}, {1}})
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Rectangle)->ArgsProduct({{20, 100}, {100000}, {0, 1}})->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ColumnPass)->Apply([](auto* b) { AllShapes(b, true); });
BENCHMARK(BM_ColumnPassPerColumn)->Apply([](auto* b) { AllShapes(b, false); });
BENCHMARK(BM_ListwiseByKernels)->Apply([](auto* b) { AllShapes(b, true); });
#if defined(VOREL_BENCH_OPENBLAS)
BENCHMARK(BM_ListwiseByOpenBlas)->Apply([](auto* b) { AllShapes(b, true); });
#endif

}  // namespace
}  // namespace vorel::bench
