// The kernels against the plain loops, bit for bit: the column kernels, and
// the blocked kernels at every instruction-set level the CPU has.
#include <algorithm>
#include <cmath>
#include <limits>
#include <random>
#include <vector>

#include "kernel_levels.h"
#include "kernels/columnkernels.h"
#include "kernels/crossproducts.h"
#include "pairwise_reference.h"
#include "test_support.h"

namespace vorel::internal {
namespace {

using namespace testing::pairwise;
using testing::SameBits;
using testing::SameFields;

constexpr double kInf = std::numeric_limits<double>::infinity();
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr double kSentinel = -12345.5;  // cells beyond the rows, never to be touched
constexpr double kCode = -99.0;         // the missing code of the masked pair tests

// Columns of a block as a batch holds them: stride above n, sentinels between.
struct Block {
  int p = 0, n = 0;
  std::ptrdiff_t stride = 0;
  std::vector<double> cells;

  Block(int columns, int rows) : p(columns), n(rows), stride(rows + 3) {
    cells.assign(static_cast<std::size_t>(stride) * (columns > 0 ? columns : 1), kSentinel);
  }
  double* Column(int j) { return cells.data() + stride * j; }
  ColumnBlock View() { return {cells.data(), stride, p}; }
};

// Values of many magnitudes (so that any change in the order of the additions
// shows in the last bits), with zeros of both signs and subnormals; with
// specials also NaN and infinite cells in every third column.
Block RandomBlock(std::mt19937_64& rng, int p, int n, bool specials) {
  const double kOdd[] = {-0.0, 0.0, 4.9e-320, -1e-310, kNaN, kInf, -kInf};
  Block b(p, n);
  std::normal_distribution<double> normal(0.0, 1.0);
  std::uniform_int_distribution<int> kind(0, 199), scale(-20, 20);
  for (int j = 0; j < p; ++j)
    for (int i = 0; i < n; ++i) {
      const int k = kind(rng);
      const bool special = specials && j % 3 == 1 && k < 7;
      b.Column(j)[i] = k < 4 || special ? kOdd[k] : std::ldexp(normal(rng), scale(rng)) + 3.0;
    }
  return b;
}

// Weights with zeros of both signs, a negative weight, subnormals and
// power-of-two scales.
std::vector<double> RandomWeights(std::mt19937_64& rng, int n) {
  const double kOdd[] = {0.0, -0.0, -1.5, 1e-310};
  std::uniform_real_distribution<double> u(0.0, 4.0);
  std::uniform_int_distribution<int> kind(0, 49);
  std::vector<double> w(static_cast<std::size_t>(n));
  for (double& v : w) {
    const int k = kind(rng);
    v = k < 4 ? kOdd[k] : u(rng);
  }
  return w;
}

// The plain loop every cell is defined by.
double PlainCell(const double* a, const double* b, const double* w, int n) {
  double sum = 0.0;
  for (int i = 0; i < n; ++i)
    sum = sum + (w != nullptr ? (w[i] * a[i]) * b[i] : a[i] * b[i]);
  return sum;
}

// The cells of a block's keys (a triangle: SBlock, a rectangle: NSBlock), in
// their order, with or without the diagonal, by the plain loop over column(j).
template <class Column>
std::vector<double> PlainCells(Column column, const RefBlock& block, bool diagonal, const double* w,
                               int n) {
  std::vector<double> cells;
  for (const auto& [c, k] : block.keys)
    if (c != k || diagonal) cells.push_back(PlainCell(column(c), column(k), w, n));
  return cells;
}

// The job run with a rectangle of the columns before split against those from
// it, and the diagonal beside it, against the plain loop over column(j).
template <class Column>
void ExpectRectangle(CrossProductJob job, Column column, int split, int p, const double* w, int n) {
  const std::vector<double> want = PlainCells(column, NSBlock(0, 0, split, p), false, w, n);
  std::vector<double> rect(want.size(), kSentinel), diag(p, kSentinel), wantDiag;
  for (int j = 0; j < p; ++j)
    wantDiag.push_back(PlainCell(column(j), column(j), w, n));
  job.rectangle = rect.data();
  job.split = split;
  job.diagonal = diag.data();
  CrossProducts(job);
  EXPECT_TRUE(SameFields(rect, want)) << "split " << split;
  EXPECT_TRUE(SameFields(diag, wantDiag)) << "split " << split;
}

class AtEveryLevel : public testing::AtEveryKernelLevel {};

// Shapes around the tile edges (4, 6, 8, 12, 16 columns), the four-column
// packing, the chunk (a few thousand rows at small widths, and 40 columns,
// several blocks of lanes at every level, over several chunks), and tiny cases.
struct Shape {
  int p, n;
};
const Shape kShapes[] = {{0, 9},    {1, 0},    {1, 1},     {3, 5},     {4, 4},    {5, 17},
                         {6, 7},    {7, 33},   {8, 64},    {9, 101},   {12, 3},   {13, 200},
                         {16, 31},  {17, 9},   {23, 77},   {25, 130},  {33, 41},  {40, 260},
                         {2, 4099}, {5, 2051}, {11, 4103}, {61, 1201}, {40, 3000}};

// Calls body(shape, variant, rng) for every shape and every variant from 0 to
// variants - 1, with rng seeded by seedOf(shape) + variant.
template <class Body>
void ForEachShape(unsigned (*seedOf)(Shape), int variants, Body body) {
  for (const Shape s : kShapes) {
    for (int variant = 0; variant < variants; ++variant) {
      const unsigned seed = seedOf(s) + static_cast<unsigned>(variant);
      SCOPED_TRACE(::testing::Message()
                   << "seed " << seed << ", p " << s.p << ", n " << s.n << ", variant " << variant);
      std::mt19937_64 rng(seed);
      body(s, variant, rng);
    }
  }
}

// The triangle through its shorthand, strictly below the diagonal into every
// third cell, with a column of ones behind, and rectangles with diagonals at
// several splits: every output of a job that only reads its columns.
// Variants: weighted (bit 0), with specials (bit 1).
TEST_P(AtEveryLevel, ProductsMatchThePlainLoop) {
  const auto seedOf = [](Shape s) { return static_cast<unsigned>(s.p * 7919 + s.n * 31); };
  ForEachShape(seedOf, 4, [](const Shape s, int variant, std::mt19937_64& rng) {
    Block b = RandomBlock(rng, s.p, s.n, variant & 2);
    const std::vector<double> w = RandomWeights(rng, s.n), ones(s.n, 1.0);
    const double* wp = variant & 1 ? w.data() : nullptr;
    const auto column = [&](int j) { return j == s.p ? ones.data() : b.Column(j); };
    const Block before = b;

    const std::vector<double> want = PlainCells(column, SBlock(0, 0, s.p), true, wp, s.n);
    std::vector<double> got(want.size(), kSentinel);
    CrossProductTriangle(b.View(), wp, s.n, got.data());
    EXPECT_TRUE(SameFields(got, want));

    const std::vector<double> below = PlainCells(column, SBlock(0, 0, s.p), false, wp, s.n);
    std::vector<double> strided(below.size() * 3, kSentinel), picked;
    CrossProducts({.cols = b.View(),
                   .weights = wp,
                   .nRows = s.n,
                   .triangle = strided.data(),
                   .triangleStride = 3,
                   .triangleDiagonal = false});
    for (std::size_t i = 0; i < below.size(); ++i) {
      picked.push_back(strided[3 * i]);
      EXPECT_EQ(strided[3 * i + 1], kSentinel);
    }
    EXPECT_TRUE(SameFields(picked, below));

    const std::vector<double> withOnes = PlainCells(column, SBlock(0, 0, s.p + 1), true, wp, s.n);
    got.assign(withOnes.size(), kSentinel);
    CrossProducts(
        {.cols = b.View(), .withOnes = true, .weights = wp, .nRows = s.n, .triangle = got.data()});
    EXPECT_TRUE(SameFields(got, withOnes));

    for (int split : {1, s.p / 2, (s.p * 2) / 3, s.p - 1})
      if (split >= 1 && split < s.p)
        ExpectRectangle({.cols = b.View(), .weights = wp, .nRows = s.n}, column, split, s.p, wp,
                        s.n);
    EXPECT_TRUE(SameFields(b.cells, before.cells));  // only read
  });
}

// Columns named one by one, in any order, centred in the kernel's copies only
// (the columns stay), and a block centred in place (the batch then holds the
// centred cells, and nothing past the rows changed): the products are those
// of the centred columns either way.
TEST_P(AtEveryLevel, CentredProductsInCopiesOrInPlace) {
  const auto seedOf = [](Shape s) { return static_cast<unsigned>(s.p * 577 + s.n); };
  ForEachShape(seedOf, 2, [](const Shape s, int weighted, std::mt19937_64& rng) {
    Block b = RandomBlock(rng, s.p, s.n, true);
    const std::vector<double> w = RandomWeights(rng, s.n);
    const double* wp = weighted ? w.data() : nullptr;
    // Every other column of the block, last first.
    std::vector<double*> list;
    std::vector<double> means;
    for (int j = s.p - 1; j >= 0; j -= 2) {
      list.push_back(b.Column(j));
      means.push_back(0.25 * j - 2.0);
    }
    const int m = static_cast<int>(list.size());
    std::vector<std::vector<double>> centred(m);
    for (int j = 0; j < m; ++j)
      for (int i = 0; i < s.n; ++i)
        centred[j].push_back(list[j][i] - means[j]);
    const auto column = [&](int j) { return centred[j].data(); };

    const Block before = b;
    std::vector<double> want = PlainCells(column, SBlock(0, 0, m), true, wp, s.n);
    std::vector<double> got(want.size(), kSentinel);
    CrossProductJob job{.cols = {nullptr, 0, m, list.data()},
                        .weights = wp,
                        .nRows = s.n,
                        .centre = means.data(),
                        .keepColumns = true,
                        .triangle = got.data()};
    CrossProducts(job);
    EXPECT_TRUE(SameFields(got, want));
    if (m >= 2) {
      job.triangle = nullptr;
      ExpectRectangle(job, column, m / 2, m, wp, s.n);
    }
    EXPECT_TRUE(SameFields(b.cells, before.cells));
    // The whole block centred in place.
    means.resize(static_cast<std::size_t>(s.p));
    Block shifted = b;
    for (int j = 0; j < s.p; ++j) {
      means[j] = 0.37 * j - 1.1;
      for (int i = 0; i < s.n; ++i)
        shifted.Column(j)[i] = b.Column(j)[i] - means[j];
    }
    want = PlainCells([&](int j) { return shifted.Column(j); }, SBlock(0, 0, s.p), true, wp, s.n);
    got.assign(want.size(), kSentinel);
    CrossProducts({.cols = b.View(),
                   .weights = wp,
                   .nRows = s.n,
                   .centre = means.data(),
                   .triangle = got.data()});
    EXPECT_TRUE(SameFields(got, want));
    EXPECT_TRUE(SameFields(b.cells, shifted.cells));
  });
}

std::vector<double> ColumnFields(const ColumnFigures& f) {
  return {f.nRows, f.weightSum, f.regWeightSum, f.mean, f.css};
}

const PairFigures kUntouchedPair{kSentinel, kSentinel, kSentinel, kSentinel,
                                 kSentinel, kSentinel, kSentinel, kSentinel};
const ColumnFigures kUntouchedColumn{kSentinel, kSentinel, kSentinel, kSentinel, kSentinel};

// Runs the masked job into records that hold sentinels, and checks the record
// of each pair of `block` (whose keys are in the job's order of records)
// against want(c, d) and, unless firstColumn is -1, the own records of the
// block's columns from firstColumn on against want(c, c).
template <class Want>
void ExpectMaskedRecords(MaskedPairsJob job, const RefBlock& block, int firstColumn, Want want) {
  std::vector<PairFigures> pairs(block.keys.size(), kUntouchedPair);
  std::vector<ColumnFigures> columns(block.keys.size(), kUntouchedColumn);
  job.out = pairs.data();
  job.columns = firstColumn >= 0 ? columns.data() : nullptr;
  MaskedPairs(job);
  std::size_t pair = 0;
  for (const auto& [c, d] : block.keys) {
    if (c != d) {
      EXPECT_PRED2(SameFields, PairFields(pairs[pair++]), want(c, d)) << c << "," << d;
    } else if (firstColumn >= 0 && c >= firstColumn) {
      EXPECT_PRED2(SameFields, ColumnFields(columns[c - firstColumn]), want(c, c)) << c;
    }
  }
}

// Pairs side by side in masked lanes, and columns alone, against the per-pair
// reduction: every weighting, runs at the start of the kept cells, a column
// missing throughout, NaN cells, and a NaN missing code. Cells missing
// everywhere, or only in every fifth column (the others complete); and with
// the pairs of two complete columns (and such columns) left to the caller,
// who then finds them untouched. Over several chunks a lane's state has to
// carry from one to the next: first kept rows late in the batch or in its
// last three rows, and leading runs of one value that outlast a chunk or
// never end. The rectangle leaves the columns' own figures out when the
// complete pairs are the caller's.
// Variants: weights (bit 0), regression weights (bit 1), cells missing in
// every fifth column only (bit 2).
TEST_P(AtEveryLevel, MaskedPairsMatchThePerPairReduction) {
  const auto seedOf = [](Shape s) { return static_cast<unsigned>(s.p * 31 + s.n * 7); };
  ForEachShape(seedOf, 8, [](const Shape s, int variant, std::mt19937_64& rng) {
    if (s.p < 2) return;
    const bool everywhere = !(variant & 4);
    Block b = RandomBlock(rng, s.p, s.n, true);
    const std::vector<double> w = RandomWeights(rng, s.n), rw = RandomWeights(rng, s.n);
    std::vector<double> combined(s.n);
    for (int i = 0; i < s.n; ++i)
      combined[i] = variant & 1 ? (variant & 2 ? w[i] * rw[i] : w[i]) : rw[i];
    std::vector<bool> missing(static_cast<std::size_t>(s.p), false);
    for (int j = 0; j < s.p; ++j) {
      double* x = b.Column(j);
      const bool may = everywhere || j % 5 == 1;
      for (int i = 0; i < s.n; ++i) {
        if (j % 8 == 7 && (j % 16 == 15 || i < s.n / 2)) x[i] = 2.5;  // a long leading run
        if (may && rng() % (everywhere ? 20 : 2) == 0) x[i] = kCode;
        if (j % 4 == 2 && i < 5) x[i] = i == 1 && may ? kCode : 6.5;  // a run across a gap
        if (j == 3 % s.p && s.p > 3 && may) x[i] = kCode;             // missing throughout
        if (may && (j % 8 == 0 ? i < s.n * 3 / 8 : j % 8 == 5 && i < s.n - 3))
          x[i] = kCode;  // the first kept rows late
        missing[j] = missing[j] || x[i] == kCode;
      }
    }
    const double* wp = variant & 1 ? w.data() : nullptr;
    const double* rwp = variant & 2 ? rw.data() : nullptr;
    for (const double code : {kCode, kNaN}) {
      // The shape of several chunks is there for the state carried over.
      if (s.n == 3000 && (std::isnan(code) || !everywhere)) continue;
      for (const bool completePairs : {true, false}) {
        // What the job gives for a pair (or a column, c == d), or leaves
        // to the caller untouched: with a NaN code no cell is missing.
        const auto want = [&](int c, int d) {
          if (!completePairs && (std::isnan(code) || (!missing[c] && !missing[d])))
            return c == d ? ColumnFields(kUntouchedColumn) : PairFields(kUntouchedPair);
          const auto ref = RefInit(b.Column(c), b.Column(d), wp, rwp, code, s.n);
          return c == d ? VarFields(ref) : PairFields(ref);
        };
        MaskedPairsJob job{.first = b.View(),
                           .second = {},
                           .weights = wp,
                           .combined = wp || rwp ? combined.data() : nullptr,
                           .hasRegWeights = rwp != nullptr,
                           .missingCode = code,
                           .nRows = s.n,
                           .completePairs = completePairs};
        ExpectMaskedRecords(job, SBlock(code, 0, s.p), 0, want);

        // A rectangle: the first columns against the others.
        const int split = s.p / 2;
        std::vector<double*> firsts, seconds;
        for (int j = 0; j < s.p; ++j)
          (j < split ? firsts : seconds).push_back(b.Column(j));
        job.triangle = false;
        job.first = ColumnBlock{nullptr, 0, split, firsts.data()};
        job.second = ColumnBlock{nullptr, 0, s.p - split, seconds.data()};
        ExpectMaskedRecords(job, NSBlock(code, 0, split, s.p), completePairs ? split : -1, want);
      }
    }
  });
}

// The column pass against StableMean, MinValue and MaxValue, which the column
// kernel tests hold to the plain loops.
TEST_P(AtEveryLevel, ColumnPassMatchesTheColumnKernels) {
  const auto seedOf = [](Shape s) { return static_cast<unsigned>(s.p * 3 + s.n * 11); };
  ForEachShape(seedOf, 2, [](const Shape s, int weighted, std::mt19937_64& rng) {
    Block b = RandomBlock(rng, s.p, s.n, true);
    const std::vector<double> w = RandomWeights(rng, s.n);
    const double* wp = weighted ? w.data() : nullptr;
    // Columns that start with runs of every length, a constant one, one that
    // starts with NaN, one of zeros of both signs, one with its maximum at
    // zero after negative values.
    for (int j = 0; j < s.p; ++j)
      for (int i = 0; i < s.n; ++i) {
        double& x = b.Column(j)[i];
        const double zero = i * 7919 % 5 == 1 ? 0.0 : -0.0;
        if (j % 6 == 0 && i <= j) x = 2.5;
        if (j % 6 == 2) x = -7.25;
        if (j % 6 == 3 && i == 0) x = kNaN;
        if (j % 6 == 4) x = zero;
        if (j % 6 == 5) x = i % 3 == 2 ? zero : -std::abs(x) - 1.0;
      }
    const double total = wp != nullptr ? SumValues(wp, s.n) : s.n;
    std::vector<double> means(s.p, kSentinel), mins(s.p, kSentinel), maxs(s.p, kSentinel);
    const Block before = b;
    ColumnPass(b.View(), wp, total, s.n, means.data(), mins.data(), maxs.data());
    for (int j = 0; j < s.p; ++j) {
      const double* x = b.Column(j);
      EXPECT_TRUE(SameBits(means[j], StableMean(x, wp, &total, s.n))) << j;
      EXPECT_TRUE(SameBits(mins[j], MinValue(x, s.n))) << j;
      EXPECT_TRUE(SameBits(maxs[j], MaxValue(x, s.n))) << j;
    }
    EXPECT_TRUE(SameFields(b.cells, before.cells));  // only read
    std::vector<double> only(s.p, kSentinel);        // means alone, without the extremes
    ColumnPass(b.View(), wp, total, s.n, only.data(), nullptr, nullptr);
    EXPECT_TRUE(SameFields(only, means));
    std::vector<double*> list;  // the columns named one by one
    for (int j = 0; j < s.p; ++j)
      list.push_back(b.Column(j));
    only.assign(s.p, kSentinel);
    ColumnPass(ColumnBlock{nullptr, 0, s.p, list.data()}, wp, total, s.n, only.data(), nullptr,
               nullptr);
    EXPECT_TRUE(SameFields(only, means));
  });
}

VOREL_AT_EVERY_KERNEL_LEVEL(AtEveryLevel);

// Lengths around the four-row turns, and leading runs of every length up to
// past one.
TEST(ColumnKernels, MatchThePlainLoops) {
  for (int n : {0, 1, 3, 4, 5, 8, 9, 1000, 1003}) {
    std::mt19937_64 rng(0x5eed + n);
    SCOPED_TRACE(::testing::Message() << "seed " << 0x5eed + n << ", n " << n);
    Block b = RandomBlock(rng, 2, n, false);
    const std::vector<double> w = RandomWeights(rng, n), ones(n, 1.0);
    const double *x = b.Column(0), *y = b.Column(1);
    const double sum = PlainCell(x, ones.data(), nullptr, n), dot = PlainCell(x, y, nullptr, n);
    const double triple = PlainCell(x, y, w.data(), n);
    EXPECT_PRED2(SameBits, SumValues(x, n), sum);
    EXPECT_PRED2(SameBits, DotProduct(x, y, n), dot);
    EXPECT_PRED2(SameBits, TripleProduct(w.data(), x, y, n), triple);
    EXPECT_PRED2(SameBits, WeightedDotProduct(x, y, w.data(), n), triple);
    EXPECT_PRED2(SameBits, WeightedDotProduct(x, y, nullptr, n), dot);
    EXPECT_PRED2(SameBits, SumOrDot({x, x + n}, {y, y + n}), dot);
    EXPECT_PRED2(SameBits, SumOrDot({x, x + n}, {}), sum);
    for (int run = 0; run <= std::min(n, 9); ++run) {
      std::fill(b.Column(0), b.Column(0) + run, 3.3);
      const std::vector<double> r(x, x + n);
      const double total = 17.0;
      EXPECT_PRED2(SameBits, StableMean(x, w.data(), &total, n), RefStableMean(r, w, total))
          << "run " << run;
      EXPECT_PRED2(SameBits, StableMean(x, nullptr, &total, n), RefStableMean(r, ones, total))
          << "run " << run;
    }
  }
}

// Empty columns, constant ones, NaN, ties of signed zeros, and parts whose
// weights cancel.
TEST(ColumnKernels, EdgeCases) {
  EXPECT_EQ(StableMean(nullptr, nullptr, nullptr, 0), 0.0);  // reads neither x nor total
  EXPECT_EQ(MaxValue(nullptr, 0), MaxInitial);
  EXPECT_EQ(MinValue(nullptr, 0), MinInitial);
  // A constant column gives its value whatever the weights and the total.
  const double x[3] = {3.3, 3.3, 3.3}, w[3] = {0.1, 0.7, 0.2};
  for (double total : {3.0, 0.0, kNaN})
    EXPECT_EQ(StableMean(x, w, &total, 3), 3.3);
  // Long enough for the four-row turns, and -0.0 joins a run of +0.0.
  std::vector<double> zeros(11, 0.0);
  zeros[6] = -0.0;
  EXPECT_PRED2(SameBits, StableMean(zeros, {}, 0.0), 0.0);
  // A NaN in row 0 poisons the mean and the extremes; a later one never
  // replaces the running extreme. Of equal values the earliest stays.
  const double nanFirst[4] = {kNaN, 1, 2, 3}, nanLater[4] = {2, kNaN, -1, 5}, z[2] = {0.0, -0.0};
  const double four = 4;
  EXPECT_TRUE(std::isnan(StableMean(nanFirst, nullptr, &four, 4)));
  EXPECT_TRUE(std::isnan(MaxValue(nanFirst, 4)) && std::isnan(MinValue(nanFirst, 4)));
  EXPECT_EQ(MaxValue(nanLater, 4), 5.0);
  EXPECT_EQ(MinValue(nanLater, 4), -1.0);
  EXPECT_FALSE(std::signbit(MinValue(z, 2)) || std::signbit(MaxValue(z, 2)));
  // Weights that cancel move no mean.
  EXPECT_PRED2(SameBits, MeanShift(1.0, 2.0, 5.0, -2.0), 0.0);
}

// Sums by group add to what the tables hold, in row order, as the plain loop
// over each column adds them; several columns side by side give each column's
// own bits, across the groups of columns taken together; no rows leave the
// tables as they were.
TEST(ColumnKernels, ScatterKernelsAddInRowOrder) {
  constexpr int kGroups = 5, kMost = 2 * kScatterColumns - 1;
  const int n = 1003;
  std::mt19937_64 rng(77);
  Block b = RandomBlock(rng, kMost, n, false);
  const std::vector<double> w = RandomWeights(rng, n);
  std::vector<unsigned> g(n);
  for (auto& v : g)
    v = static_cast<unsigned>(rng() % kGroups);
  std::vector<double*> xs;
  for (int c = 0; c < kMost; ++c)
    xs.push_back(b.Column(c));
  for (const double* wp : {w.data(), static_cast<const double*>(nullptr)}) {
    // Column c's tables at [kGroups * c, kGroups * (c + 1)).
    std::vector<double> refSum(kGroups * kMost, 1.5), refSq(kGroups * kMost, -2.0);
    std::vector<double> sumW(kGroups, 0.5), refW = sumW;
    double total = 0.5, refTotal = 0.5;
    for (int i = 0; i < n; ++i) {
      for (int c = 0; c < kMost; ++c) {
        const double t = wp ? xs[c][i] * wp[i] : xs[c][i];
        refSum[kGroups * c + g[i]] += t;
        refSq[kGroups * c + g[i]] += t * xs[c][i];
      }
      refW[g[i]] += wp ? wp[i] : 1.0;
      refTotal += wp ? wp[i] : 1.0;
    }
    ScatterWeights(g.data(), wp, sumW, &total, n);
    EXPECT_TRUE(SameFields(sumW, refW));
    EXPECT_PRED2(SameBits, total, refTotal);
    std::vector<double> sum(kGroups, 1.5), sumSq(kGroups, -2.0);
    ScatterWeightedSums(xs[0], g.data(), wp, sum.data(), sumSq.data(), n);
    EXPECT_TRUE(SameFields(sum, refSum));
    EXPECT_TRUE(SameFields(sumSq, refSq));
    for (int count = 1; count <= kMost; ++count) {
      std::vector<double> many(kGroups * count, 1.5), manySq(kGroups * count, -2.0);
      ScatterWeightedSumsOfColumns(xs.data(), count, g.data(), wp, many.data(), manySq.data(),
                                   kGroups, n);
      EXPECT_TRUE(SameFields(many, refSum)) << count << " columns";
      EXPECT_TRUE(SameFields(manySq, refSq)) << count << " columns";
    }
    ScatterWeights(g.data(), wp, sumW, &total, 0);
    ScatterSums(xs[0], g.data(), sum.data(), sumSq.data(), 0);
    EXPECT_PRED2(SameBits, total, refTotal);
    EXPECT_TRUE(SameFields(sum, refSum));
  }
}

// The suites above trust that a forced level is the one in use.
TEST(KernelDispatch, LevelsCanBeForcedOnlyWhenSupported) {
  EXPECT_TRUE(KernelLevelSupported(KernelLevel::Plain));
  for (KernelLevel level : KernelLevels()) {
    EXPECT_EQ(SetKernelLevel(level), KernelLevelSupported(level));
    if (KernelLevelSupported(level)) {
      EXPECT_EQ(ActiveKernelLevel(), level);
    }
  }
  SetKernelLevel(BestKernelLevel());
}

#if defined(__x86_64__) && defined(__GNUC__)
// A compiler can drop an instruction set without a word when the flags of a
// level's source contradict each other; the level is then missing from the
// library although the CPU runs it.
TEST(KernelDispatch, EveryLevelTheCpuRunsIsBuilt) {
  __builtin_cpu_init();
  EXPECT_EQ(KernelLevelSupported(KernelLevel::Avx2), __builtin_cpu_supports("avx2") != 0);
  EXPECT_EQ(KernelLevelSupported(KernelLevel::Avx512), __builtin_cpu_supports("avx512f") != 0);
}
#endif

}  // namespace
}  // namespace vorel::internal
