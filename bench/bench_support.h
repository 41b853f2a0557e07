// Shared pieces of the benchmarks: deterministic data, the plain per-cell
// loop the blocked kernels must equal, and the one-time answer checks.
#pragma once

#include <benchmark/benchmark.h>

#include <cstdint>
#include <string>
#include <vector>

#include "kernels/crossproducts.h"

namespace vorel::bench {

// splitmix64: fast, and the same numbers on every machine.
std::uint64_t Next(std::uint64_t& s);
// Uniform in [0, 1).
double Unit(std::uint64_t& s);

// p columns of n rows, column-major with stride n, and a positive weight per
// row. Values differ in scale and offset from column to column, so that the
// centring has work to do and no column is constant.
struct Table {
  int p = 0;
  int n = 0;
  std::vector<double> cells;
  std::vector<double> weights;

  double* Column(int j) { return cells.data() + static_cast<std::size_t>(j) * n; }
  internal::ColumnBlock Block() { return {cells.data(), n, p}; }
};

// The table of this shape, made once and shared by the benchmarks that use it
// (one shape is kept at a time). Benchmarks that centre it in place leave it
// centred; that changes the values, not the work.
Table& SharedTable(int p, int n);
// A fresh table of this shape.
Table MakeTable(int p, int n, std::uint64_t seed);

// sum += (w[i] * a[i]) * b[i] (or a[i] * b[i]), in row order from 0.0.
double PlainCell(const double* a, const double* b, const double* w, int n);

bool SameBits(double a, double b);
// Reports a wrong answer through the benchmark state (the run goes on, the
// benchmark is marked as failed) and returns false.
bool Check(benchmark::State& state, bool ok, const std::string& what);

// Forces a kernel level for one benchmark; false (and the benchmark skipped
// with a message) when the CPU lacks it. The destructor restores the best.
class LevelScope {
 public:
  LevelScope(benchmark::State& state, int level);
  ~LevelScope();
  bool ok() const { return _ok; }

 private:
  bool _ok;
};

// Doubles that one core adds in a second at its peak: independent chains of
// vector additions beside as many multiplications (nothing fused), at the
// kernel level in use; the best of three short runs, taken once. 0 at the
// plain level.
double PeakAdditionsPerSecond();
#if defined(__x86_64__) && defined(__GNUC__)
// The peak loops themselves; a turn is kPeak*Lanes multiplications and as
// many additions.
constexpr double kPeakAvx512Lanes = 12.0 * 8, kPeakAvx2Lanes = 7.0 * 4;
double PeakAvx512(std::int64_t turns, double m, double a);
double PeakAvx2(std::int64_t turns, double m, double a);
#endif

// Items are cell-rows (one multiplication and one addition each) or cells.
void SetRates(benchmark::State& state, double itemsPerIteration, double bytesPerIteration);

}  // namespace vorel::bench
