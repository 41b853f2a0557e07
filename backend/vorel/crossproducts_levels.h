// The seam between the dispatcher (crossproducts.cpp, built for baseline
// x86-64) and the kernel levels, each in a source of its own built with its
// instruction set. Internal.
#pragma once

#include <cstddef>

#include "crossproducts.h"

namespace vorel::kernels {

struct KernelTable {
  void (*crossProducts)(const CrossProductJob& job);
  void (*columnPass)(const ColumnBlock& cols, const double* w, double total, int n, double* means,
                     double* mins, double* maxs);
  void (*maskedPairs)(const MaskedPairsJob& job);
};

// Null when this build has no code for the level (another architecture, or a
// compiler without the instruction set). Whether the CPU runs it is the
// dispatcher's question.
const KernelTable* PlainKernels();
const KernelTable* Avx2Kernels();
const KernelTable* Avx512Kernels();

// count doubles of this thread's scratch, aligned to 64 bytes. The contents
// are undefined; the pointer stays valid until the next call on the thread.
double* ScratchBuffer(std::size_t count);

}  // namespace vorel::kernels
