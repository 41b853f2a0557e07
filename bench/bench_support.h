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

// Items are cell-rows (one multiplication and one addition each) or cells.
void SetRates(benchmark::State& state, double itemsPerIteration, double bytesPerIteration);

}  // namespace vorel::bench
