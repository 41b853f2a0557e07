#include "bench_support.h"

#include <chrono>
#include <cstring>
#include <memory>

#if defined(__x86_64__) && defined(__GNUC__)
#include <immintrin.h>
#endif

namespace vorel::bench {

using namespace vorel::internal;

std::uint64_t Next(std::uint64_t& s) {
  std::uint64_t z = (s += 0x9e3779b97f4a7c15ULL);
  z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ULL;
  z = (z ^ (z >> 27)) * 0x94d049bb133111ebULL;
  return z ^ (z >> 31);
}

double Unit(std::uint64_t& s) { return static_cast<double>(Next(s) >> 11) * 0x1.0p-53; }

Table MakeTable(int p, int n, std::uint64_t seed) {
  Table t;
  t.p = p;
  t.n = n;
  t.cells.resize(static_cast<std::size_t>(p) * static_cast<std::size_t>(n));
  t.weights.resize(static_cast<std::size_t>(n));
  std::uint64_t s = seed;
  for (int j = 0; j < p; ++j) {
    const double scale = 1.0 + (j % 7);
    const double offset = 10.0 * (j % 5) - 20.0;
    double* x = t.Column(j);
    for (int i = 0; i < n; ++i)
      x[i] = offset + scale * (2.0 * Unit(s) - 1.0);
  }
  for (double& w : t.weights)
    w = 0.5 + 1.5 * Unit(s);
  return t;
}

Table& SharedTable(int p, int n) {
  static std::unique_ptr<Table> shared;
  if (!shared || shared->p != p || shared->n != n) {
    shared.reset();  // free the old shape before making the new one
    shared = std::make_unique<Table>(MakeTable(p, n, 0x5eed0000u + static_cast<unsigned>(p)));
  }
  return *shared;
}

double PlainCell(const double* a, const double* b, const double* w, int n) {
  double sum = 0.0;
  for (int i = 0; i < n; ++i)
    sum = sum + (w != nullptr ? (w[i] * a[i]) * b[i] : a[i] * b[i]);
  return sum;
}

bool SameBits(double a, double b) {
  if (a != a && b != b) return true;
  return std::memcmp(&a, &b, sizeof a) == 0;
}

bool Check(benchmark::State& state, bool ok, const std::string& what) {
  if (!ok) state.SkipWithError(("wrong answer: " + what).c_str());
  return ok;
}

LevelScope::LevelScope(benchmark::State& state, int level)
    : _ok(SetKernelLevel(static_cast<KernelLevel>(level))) {
  if (!_ok)
    state.SkipWithError((std::string("this CPU has no ")
                         + KernelLevelName(static_cast<KernelLevel>(level)) + " kernels")
                            .c_str());
}

LevelScope::~LevelScope() { SetKernelLevel(BestKernelLevel()); }

void SetRates(benchmark::State& state, double itemsPerIteration, double bytesPerIteration) {
  const double iterations = static_cast<double>(state.iterations());
  state.counters["items_per_second"] =
      benchmark::Counter(itemsPerIteration * iterations, benchmark::Counter::kIsRate);
  state.counters["bytes_per_second"] = benchmark::Counter(
      bytesPerIteration * iterations, benchmark::Counter::kIsRate, benchmark::Counter::kIs1024);
}

#if defined(__x86_64__) && defined(__GNUC__)
// Independent chains of multiplications and of additions, as many as keep
// every multiplier and adder busy; nothing is fused. Returns a value that
// depends on all chains so none is dropped. Each turn is kChains * lanes
// multiplications and as many additions.
__attribute__((target("avx512f"))) double PeakAvx512(std::int64_t turns, double m, double a) {
  constexpr int kChains = 12;
  const __m512d mv = _mm512_set1_pd(m), av = _mm512_set1_pd(a);
  __m512d x[kChains], y[kChains];
  for (int c = 0; c < kChains; ++c)
    x[c] = y[c] = _mm512_set1_pd(1.0 + c);
  for (std::int64_t t = 0; t < turns; ++t) {
#pragma GCC unroll 12
    for (int c = 0; c < kChains; ++c) {
      x[c] = _mm512_mul_pd(x[c], mv);
      y[c] = _mm512_add_pd(y[c], av);
    }
  }
  __m512d s = _mm512_setzero_pd();
  for (int c = 0; c < kChains; ++c)
    s = _mm512_add_pd(s, _mm512_add_pd(x[c], y[c]));
  double lanes[8];
  _mm512_storeu_pd(lanes, s);
  return lanes[0] + lanes[7];
}

__attribute__((target("avx2"))) double PeakAvx2(std::int64_t turns, double m, double a) {
  constexpr int kChains = 7;
  const __m256d mv = _mm256_set1_pd(m), av = _mm256_set1_pd(a);
  __m256d x[kChains], y[kChains];
  for (int c = 0; c < kChains; ++c)
    x[c] = y[c] = _mm256_set1_pd(1.0 + c);
  for (std::int64_t t = 0; t < turns; ++t) {
#pragma GCC unroll 7
    for (int c = 0; c < kChains; ++c) {
      x[c] = _mm256_mul_pd(x[c], mv);
      y[c] = _mm256_add_pd(y[c], av);
    }
  }
  __m256d s = _mm256_setzero_pd();
  for (int c = 0; c < kChains; ++c)
    s = _mm256_add_pd(s, _mm256_add_pd(x[c], y[c]));
  double lanes[4];
  _mm256_storeu_pd(lanes, s);
  return lanes[0] + lanes[3];
}

double PeakAdditionsPerSecond() {
  static const double rate = [] {
    const KernelLevel level = ActiveKernelLevel();
    if (level == KernelLevel::Plain) return 0.0;
    // Unknown to the compiler, so that nothing folds: x * 1.0 and y + 0.0.
    volatile double one = 1.0, zero = 0.0;
    constexpr std::int64_t kTurns = 1 << 22;
    const bool wide = level == KernelLevel::Avx512;
    double best = 0.0;
    for (int round = 0; round < 3; ++round) {
      const auto start = std::chrono::steady_clock::now();
      const double sink = wide ? PeakAvx512(kTurns, one, zero) : PeakAvx2(kTurns, one, zero);
      const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
      benchmark::DoNotOptimize(sink);
      const double additions =
          (wide ? kPeakAvx512Lanes : kPeakAvx2Lanes) * static_cast<double>(kTurns);
      if (additions / took.count() > best) best = additions / took.count();
    }
    return best;
  }();
  return rate;
}
#else
double PeakAdditionsPerSecond() { return 0.0; }
#endif

}  // namespace vorel::bench
