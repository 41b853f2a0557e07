// Picks the level of the blocked kernels at run time and owns the per-thread
// scratch. Built for baseline x86-64 like the rest of the library; only the
// level sources carry wider instructions, and they run only when the CPU
// reports them (the checks include the operating system's support for the
// wider registers).
#include "crossproducts.h"

#include <atomic>
#include <cstdint>
#include <stdexcept>
#include <vector>

#include "crossproducts_levels.h"

namespace vorel {
namespace {

bool CpuRuns(KernelLevel level) {
  switch (level) {
    case KernelLevel::Plain:
      return true;
#if (defined(__x86_64__) || defined(__i386__)) && defined(__GNUC__)
    case KernelLevel::Avx2:
      __builtin_cpu_init();
      return __builtin_cpu_supports("avx2");
    case KernelLevel::Avx512:
      __builtin_cpu_init();
      return __builtin_cpu_supports("avx512f");
#endif
    default:
      return false;
  }
}

const kernels::KernelTable* BuiltTable(KernelLevel level) {
  switch (level) {
    case KernelLevel::Plain:
      return kernels::PlainKernels();
    case KernelLevel::Avx2:
      return kernels::Avx2Kernels();
    case KernelLevel::Avx512:
      return kernels::Avx512Kernels();
  }
  return nullptr;
}

struct Active {
  const kernels::KernelTable* table;
  KernelLevel level;
};

// Set once at the first call (a race there only stores the same value twice),
// or by SetKernelLevel.
std::atomic<const kernels::KernelTable*> activeTable{nullptr};
std::atomic<int> activeLevel{0};

Active CurrentKernels() {
  const kernels::KernelTable* table = activeTable.load(std::memory_order_acquire);
  if (table == nullptr) {
    const KernelLevel best = BestKernelLevel();
    activeLevel.store(static_cast<int>(best), std::memory_order_relaxed);
    table = BuiltTable(best);
    activeTable.store(table, std::memory_order_release);
  }
  return {table, static_cast<KernelLevel>(activeLevel.load(std::memory_order_relaxed))};
}

}  // namespace

bool KernelLevelSupported(KernelLevel level) {
  return BuiltTable(level) != nullptr && CpuRuns(level);
}

KernelLevel BestKernelLevel() {
  for (KernelLevel level : {KernelLevel::Avx512, KernelLevel::Avx2})
    if (KernelLevelSupported(level)) return level;
  return KernelLevel::Plain;
}

KernelLevel ActiveKernelLevel() { return CurrentKernels().level; }

bool SetKernelLevel(KernelLevel level) {
  if (!KernelLevelSupported(level)) return false;
  activeLevel.store(static_cast<int>(level), std::memory_order_relaxed);
  activeTable.store(BuiltTable(level), std::memory_order_release);
  return true;
}

const char* KernelLevelName(KernelLevel level) {
  switch (level) {
    case KernelLevel::Plain:
      return "plain";
    case KernelLevel::Avx2:
      return "avx2";
    case KernelLevel::Avx512:
      return "avx512";
  }
  return "unknown";
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

namespace kernels {

double* ScratchBuffer(std::size_t count) {
  constexpr std::size_t kAlign = 64 / sizeof(double);
  thread_local std::vector<double> buffer;
  if (count > buffer.max_size() - kAlign) throw std::length_error("vector<T> too long");
  if (buffer.size() < count + kAlign) {
    // The old contents are not needed: drop them before growing.
    std::vector<double>().swap(buffer);
    buffer.resize(count + kAlign);
  }
  const auto address = reinterpret_cast<std::uintptr_t>(buffer.data());
  const std::size_t skip = (64 - address % 64) % 64 / sizeof(double);
  return buffer.data() + skip;
}

}  // namespace kernels
}  // namespace vorel
