// Blocked cross-product kernels and the one-sweep column pass.
//
// Internal to the library. Every figure here is bit for bit the figure of the
// plain per-cell loop of the column kernels: cell (c, k) is
//
//   sum = 0.0; for i = 0 .. n-1 in row order:  sum += (w[i] * x_c[i]) * x_k[i]
//
// (sum += x_c[i] * x_k[i] without weights), a column's mean is StableMean,
// its extremes MinValue and MaxValue. What changes is only how the work is
// laid out: the rows go in chunks that stay in cache, each chunk is copied row
// by row into a small panel, and a tile of cells is summed at once, each lane
// of a vector register the accumulator of one cell. The weighted value
// w[i] * x_c[i] is formed once per column and row; it is the same rounded
// product the plain loop forms for every k. Multiplications and additions are
// separate instructions: no fused multiply-add, no reassociation.
//
// The library is built for baseline x86-64. The kernels come in three levels
// (plain C++, AVX2, AVX-512) and the best one the CPU offers is picked at the
// first call; every level gives the same bits (a NaN may differ in sign).
//
// Scratch: each thread keeps one scratch buffer for the panels and tiles and
// reuses it; it grows to the largest batch shape the thread has seen and is
// freed when the thread ends. No kernel asserts; NaN, infinities and
// subnormals follow IEEE arithmetic, and an exhausted heap raises bad_alloc.
#pragma once

#include <cstddef>
#include <vector>

namespace vorel::internal {

enum class KernelLevel { Plain = 0, Avx2 = 1, Avx512 = 2 };

// Every level this build knows, from the slowest to the fastest, whether the
// CPU runs it or not.
std::vector<KernelLevel> KernelLevels();
// Whether this build and this CPU can run a level. Plain always can.
bool KernelLevelSupported(KernelLevel level);
// The fastest supported level; the level in use unless SetKernelLevel changed it.
KernelLevel BestKernelLevel();
KernelLevel ActiveKernelLevel();
// Makes every later kernel call use level (for tests and benchmarks). Returns
// false and changes nothing when the level is not supported. Not meant to be
// called while another thread runs a kernel.
bool SetKernelLevel(KernelLevel level);
const char* KernelLevelName(KernelLevel level);

// count columns of n rows each: column j starts at base + j * stride, or at
// columns[j] when a list of columns is given.
struct ColumnBlock {
  double* base = nullptr;
  std::ptrdiff_t stride = 0;
  int count = 0;
  double* const* columns = nullptr;

  double* Column(int j) const {
    return columns != nullptr ? columns[j] : base + static_cast<std::ptrdiff_t>(j) * stride;
  }
};

// Columns first .. first+count-1 of a batch (DataBatch, DataBatchByGroup),
// from row row on. Callers that only read a batch get a block they must not
// centre (CrossProductJob::centre stays null): only centring writes.
template <class Batch>
ColumnBlock BatchColumns(const Batch& data, unsigned first, int count, unsigned row = 0) {
  if (count <= 0) return {};
  const double* base = data.Column(first);
  const std::ptrdiff_t stride = count > 1 ? data.Column(first + 1) - base : 0;
  return {const_cast<double*>(base) + row, stride, count};
}

// The column pass: for every column j of cols, in one sweep over its cells,
//   means[j] = StableMean(x_j, w, &total, n),
//   mins[j]  = MinValue(x_j, n) and maxs[j] = MaxValue(x_j, n) (each may be null).
// w null means unit weights. The columns are only read.
void ColumnPass(const ColumnBlock& cols, const double* w, double total, int n, double* means,
                double* mins, double* maxs);

// One sweep of cross-products over n rows of a block of columns. Column
// nColumns is a column of 1.0 when withOnes is set: its products give the plain
// and weighted column sums and the weight total (w * 1.0 is w exactly).
//
// Each output is optional (null: not wanted):
//   triangle:  cell (c, k) for c >= k (c > k when !triangleDiagonal), row after
//              row; cell index c(c+1)/2 + k, or c(c-1)/2 + k without the
//              diagonal, is multiplied by triangleStride;
//   rectangle: cell (r, c) of rows r < split and columns c >= split, at index
//              r * (all - split) + (c - split), all being nColumns (+1 with ones);
//   diagonal:  cell (j, j) of every column j at diagonal[j].
// A rectangle product weighs the row column: (w * x_r) * x_c. One job asks
// for a triangle or a rectangle, not both.
//
// centre: null, or one value per column (ones excluded). Column j is then
// centred in place first, x_j[i] = x_j[i] - centre[j] as SubtractInPlace does,
// and the products are those of the centred columns. With keepColumns the
// centred values go only into the kernel's own copies and the columns stay as
// they are. Without centre the columns are only read.
struct CrossProductJob {
  ColumnBlock cols;
  bool withOnes = false;
  const double* weights = nullptr;
  int nRows = 0;
  const double* centre = nullptr;
  bool keepColumns = false;

  double* triangle = nullptr;
  std::ptrdiff_t triangleStride = 1;
  bool triangleDiagonal = true;
  double* rectangle = nullptr;
  int split = 0;
  double* diagonal = nullptr;
};

void CrossProducts(const CrossProductJob& job);

// Pairs of columns with pairwise deletion, many pairs side by side, each lane
// of a vector one pair: a row counts for a pair when neither of its two cells
// compares equal to missingCode, and a lane skips the rows that do not count
// by a mask (it never adds a zero, which would turn -0.0 into +0.0). Every
// figure is bit for bit that of the per-pair reduction: compression of the
// pair's rows, then the column kernels on them, in row order:
//   nRows        the rows kept;
//   weightSum    SumValues of their weights, or nRows without weights;
//   regWeightSum SumValues of their combined weights with regression
//                weights, otherwise weightSum;
//   mean0, mean1 StableMean of each column's kept cells under the combined
//                weights, with regWeightSum as total;
//   css0, css1, cscp  WeightedDotProduct of the centred kept cells,
//                (x0 * v) * x0, (x1 * v) * x1 and (x0 * v) * x1.
// The columns are only read.
struct PairFigures {
  double nRows = 0.0;
  double weightSum = 0.0;
  double regWeightSum = 0.0;
  double mean0 = 0.0;
  double mean1 = 0.0;
  double css0 = 0.0;
  double css1 = 0.0;
  double cscp = 0.0;
};

// The figures of one column alone over the rows where its cell is not
// missing, as the per-column reduction gives them: those of a pair of the
// column with itself.
struct ColumnFigures {
  double nRows = 0.0;
  double weightSum = 0.0;
  double regWeightSum = 0.0;
  double mean = 0.0;
  double css = 0.0;
};

struct MaskedPairsJob {
  // triangle: every pair (a, b) of first with a after b, a the pair's first
  // variable, at out[a(a-1)/2 + b]. Otherwise every pair of a column of first
  // (the first variable) with a column of second, at out[a * second.count + b].
  ColumnBlock first;
  ColumnBlock second;
  bool triangle = true;
  const double* weights = nullptr;  // frequency weights, or null
  const double* combined =
      nullptr;  // weight times regression weight (or the one there is), or null
  bool hasRegWeights = false;
  double missingCode = 0.0;
  int nRows = 0;
  PairFigures* out = nullptr;
  // When not null: each column b of second (of first in a triangle) alone,
  // at columns[b].
  ColumnFigures* columns = nullptr;
  // false: a pair of two columns that have no missing cell in these rows, and
  // such a column's own figures, are left as they are (the blocked kernels
  // give them for less).
  bool completePairs = true;
};

void MaskedPairs(const MaskedPairsJob& job);

// Shorthands for the common shapes.

// The lower triangle with diagonal of the block, into out (p(p+1)/2 cells).
void CrossProductTriangle(const ColumnBlock& cols, const double* w, int n, double* out);
// The rectangle of rows [0, split) against columns [split, count).
void CrossProductRectangle(const ColumnBlock& cols, int split, const double* w, int n, double* out);

}  // namespace vorel::internal
