// The seam between the dispatcher (dispatch.cpp, built for baseline x86-64)
// and the kernel levels, each in a source of its own (level_<name>.cpp) built
// with its instruction set. Internal.
//
// A new instruction set is one source that defines its Isa and its table
// getter (declared here), one enumerator of KernelLevel, one row of the table
// in dispatch.cpp, and its compile flags beside the other levels' in the
// build.
#pragma once

#include "kernels/crossproducts.h"

namespace vorel::internal {

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

}  // namespace vorel::internal
