// Picks the level of the blocked kernels at run time. Built for baseline
// x86-64 like the rest of the library; only the level sources carry wider
// instructions, and they run only when the CPU reports them (the checks
// include the operating system's support for the wider registers).
#include "kernels/dispatch.h"

#include <atomic>
#include <iterator>
#include <vector>

#include "kernels/crossproducts.h"

namespace vorel::internal {
namespace {

struct Level {
  KernelLevel level;
  const char* name;
  bool (*cpuRuns)();
  const KernelTable* (*kernels)();
};

// Every level this library knows, from the slowest to the fastest.
constexpr Level kLevels[] = {
    {KernelLevel::Plain, "plain", [] { return true; }, PlainKernels},
#if (defined(__x86_64__) || defined(__i386__)) && defined(__GNUC__)
    {KernelLevel::Avx2, "avx2",
     [] {
       __builtin_cpu_init();
       return __builtin_cpu_supports("avx2") != 0;
     },
     Avx2Kernels},
    {KernelLevel::Avx512, "avx512",
     [] {
       __builtin_cpu_init();
       return __builtin_cpu_supports("avx512f") != 0;
     },
     Avx512Kernels},
#endif
};

const Level* RowOf(KernelLevel level) {
  for (const Level& row : kLevels)
    if (row.level == level) return &row;
  return nullptr;
}

struct Active {
  const KernelTable* table;
  KernelLevel level;
};

// Set once at the first call (a race there only stores the same value twice),
// or by SetKernelLevel.
std::atomic<const KernelTable*> activeTable{nullptr};
std::atomic<int> activeLevel{0};

void Activate(KernelLevel level) {
  activeLevel.store(static_cast<int>(level), std::memory_order_relaxed);
  activeTable.store(RowOf(level)->kernels(), std::memory_order_release);
}

Active CurrentKernels() {
  const KernelTable* table = activeTable.load(std::memory_order_acquire);
  if (table == nullptr) {
    Activate(BestKernelLevel());
    table = activeTable.load(std::memory_order_acquire);
  }
  return {table, static_cast<KernelLevel>(activeLevel.load(std::memory_order_relaxed))};
}

}  // namespace

std::vector<KernelLevel> KernelLevels() {
  std::vector<KernelLevel> levels;
  for (const Level& row : kLevels)
    levels.push_back(row.level);
  return levels;
}

bool KernelLevelSupported(KernelLevel level) {
  const Level* row = RowOf(level);
  return row != nullptr && row->kernels() != nullptr && row->cpuRuns();
}

KernelLevel BestKernelLevel() {
  for (auto row = std::rbegin(kLevels); row != std::rend(kLevels); ++row)
    if (KernelLevelSupported(row->level)) return row->level;
  return KernelLevel::Plain;
}

KernelLevel ActiveKernelLevel() { return CurrentKernels().level; }

bool SetKernelLevel(KernelLevel level) {
  if (!KernelLevelSupported(level)) return false;
  Activate(level);
  return true;
}

const char* KernelLevelName(KernelLevel level) {
  const Level* row = RowOf(level);
  return row != nullptr ? row->name : "unknown";
}

void ColumnPass(const ColumnBlock& cols, const double* w, double total, int n, double* means,
                double* mins, double* maxs) {
  CurrentKernels().table->columnPass(cols, w, total, n, means, mins, maxs);
}

void CrossProducts(const CrossProductJob& job) { CurrentKernels().table->crossProducts(job); }

void MaskedPairs(const MaskedPairsJob& job) { CurrentKernels().table->maskedPairs(job); }

void CrossProductTriangle(const ColumnBlock& cols, const double* w, int n, double* out) {
  CrossProductJob job;
  job.cols = cols;
  job.weights = w;
  job.nRows = n;
  job.triangle = out;
  CrossProducts(job);
}

void CrossProductRectangle(const ColumnBlock& cols, int split, const double* w, int n,
                           double* out) {
  CrossProductJob job;
  job.cols = cols;
  job.weights = w;
  job.nRows = n;
  job.rectangle = out;
  job.split = split;
  CrossProducts(job);
}

}  // namespace vorel::internal
