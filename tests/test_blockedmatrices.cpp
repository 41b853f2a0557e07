// The pairwise classes, which run on the blocked kernels and on the masked
// pair kernel, at every kernel level, against the plain-loop reference: wide
// blocks (past the narrow kernel's eight columns and the tile edges), narrow
// ones, weights and regression weights, several chunks of rows. One batch
// each, so every figure is defined to the bit. (The kernels themselves are
// held to the plain loops at every level in test_crossproducts; the listwise
// and discriminant classes to their formulas in their own suites.)
#include <vorel/databatch.h>
#include <vorel/matrixpairwise.h>
#include <vorel/nsmatrixpairwise.h>
#include <vorel/smatrixpairwise.h>

#include <cmath>
#include <random>
#include <vector>

#include "kernel_levels.h"
#include "pairwise_reference.h"
#include "table_support.h"
#include "test_support.h"

namespace vorel {
namespace {

using namespace internal;

using testing::tables::MakeBatch;
using testing::tables::Table;
constexpr double kMissing = -99.0;

// Rows of p cells of many magnitudes with signed zeros, subnormals and
// leading runs (column c starts with c % 4 equal cells), with weights (one
// row in 37 weighs 0) and regression weights.
Table WideRows(int p, std::size_t n, unsigned seed) {
  Table t = testing::tables::RandomTable(seed, static_cast<unsigned>(p), n, true, true);
  std::mt19937_64 rng(seed);
  std::uniform_int_distribution<int> kind(0, 99), scale(-12, 12);
  for (std::size_t i = 0; i < n; ++i) {
    for (int c = 0; c < p; ++c) {
      const int k = kind(rng);
      double& x = t.rows[i][c];
      x = i < static_cast<std::size_t>(c % 4) ? 1.75
          : k < 2                             ? (k == 0 ? -0.0 : 3e-312)
                                              : std::ldexp(x, scale(rng)) + 0.5 * c;
    }
    if (i % 37 == 5) t.w[i] = 0.0;
  }
  return t;
}

class BlockedMatrices : public testing::AtEveryKernelLevel {};

// The pairwise classes take complete columns and pairs from the blocked pass
// and the others from the masked pass over all pairs or, when only a few pairs
// have missing cells (one column, in the larger set of a lopsided block),
// from their own reduction; every way the records are those of the
// per-column and per-pair reduction, bit for bit.
// Column c has missing cells when c % 3 == 1 (at row 0, at the last row, at
// one row inside or a run in the middle), or with `few` only one column has
// some: the last, the first variable of each of its pairs, or the first, the
// second variable of each of its pairs.
TEST_P(BlockedMatrices, PairwiseClassesMatchThePerPairPath) {
  using namespace testing::pairwise;
  for (int p : {5, 14, 27}) {
    for (int variant = 0; variant < 4; ++variant) {
      const bool regWeights = variant % 2 == 1, few = variant >= 2;
      const int n = 517;
      SCOPED_TRACE(::testing::Message() << "seed " << p + 200 << ", p " << p
                                        << (regWeights ? ", regression weights" : "")
                                        << (few ? ", one column with missing cells" : ""));
      Table t = WideRows(p, n, static_cast<unsigned>(p + 200));
      if (!regWeights) t.rw.clear();
      const int fewColumn = regWeights ? 0 : p - 1;
      for (int c = few ? fewColumn : 1; c < p; c += few ? p : 3)
        for (int i = 0; i < n; ++i)
          if (c % 4 == 0   ? i == 0
              : c % 4 == 1 ? i == n - 1
              : c % 4 == 2 ? i == 200 + c % 8
                           : i >= n / 3 && i < n / 3 + 9)
            t.rows[i][c] = kMissing;
      DataBatch batch = MakeBatch(t, 0, t.rows.size());
      MatrixPairwise m(kMissing);
      SMatrixPairwise s(kMissing, 1, p);
      NSMatrixPairwise ns(kMissing, 0, p / 2, p);
      // Lopsided sets, the column with missing cells in the larger: so few
      // pairs have missing cells that they take the per-pair path.
      const int split = fewColumn == 0 ? p - 2 : 2;
      NSMatrixPairwise lopsided(kMissing, 0, split, p);
      m += batch;
      s += batch;
      ns += batch;
      lopsided += batch;
      RefBlock refM = SBlock(kMissing, 0, p), refS = SBlock(kMissing, 1, p),
               refNS = NSBlock(kMissing, 0, p / 2, p), refLopsided = NSBlock(kMissing, 0, split, p);
      for (RefBlock* ref : {&refM, &refS, &refNS, &refLopsided})
        ref->Add(batch);
      ExpectSameBlock(m, refM);
      ExpectSameBlock(s, refS);
      ExpectSameBlock(ns, refNS);
      ExpectSameBlock(lopsided, refLopsided);
    }
  }
}

VOREL_AT_EVERY_KERNEL_LEVEL(BlockedMatrices);

}  // namespace
}  // namespace vorel
