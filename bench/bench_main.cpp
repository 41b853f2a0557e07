// The benchmark program: Google Benchmark's own main, with the kernel level
// and the OpenBLAS threading noted in the context of every report.
#include <benchmark/benchmark.h>

#include "kernels/crossproducts.h"

int main(int argc, char** argv) {
  benchmark::AddCustomContext("vorel kernel level",
                              vorel::internal::KernelLevelName(vorel::internal::BestKernelLevel()));
#if defined(VOREL_BENCH_OPENBLAS)
  benchmark::AddCustomContext("openblas", "cblas_dsyrk, one thread");
#endif
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
