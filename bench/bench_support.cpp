#include "bench_support.h"

#include <cstring>
#include <memory>

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

}  // namespace vorel::bench
