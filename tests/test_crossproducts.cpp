// The blocked kernels against the plain per-cell loops, bit for bit, at every
// instruction-set level the CPU has.
#include <cmath>
#include <ios>
#include <limits>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "kernel_levels.h"
#include "kernels/columnkernels.h"
#include "kernels/crossproducts.h"
#include "pairwise_reference.h"
#include "test_support.h"

namespace vorel::internal {
namespace {

using testing::SameBits;
using testing::pairwise::PairFields;
using testing::pairwise::RefInit;
using testing::pairwise::SameFields;
using testing::pairwise::VarFields;

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

::testing::AssertionResult SameCells(const std::vector<double>& got,
                                     const std::vector<double>& want) {
  if (got.size() != want.size())
    return ::testing::AssertionFailure() << got.size() << " cells, want " << want.size();
  for (std::size_t i = 0; i < got.size(); ++i)
    if (!SameBits(got[i], want[i]))
      return ::testing::AssertionFailure()
             << "cell " << i << ": " << std::hexfloat << got[i] << ", want " << want[i];
  return ::testing::AssertionSuccess();
}

// The triangle (with or without the diagonal) and the rectangle of columns
// given by column(j), by the plain loop.
template <class Column>
std::vector<double> PlainTriangle(Column column, int p, const double* w, int n, bool diagonal) {
  std::vector<double> cells;
  for (int c = 0; c < p; ++c)
    for (int k = 0; k < c + diagonal; ++k)
      cells.push_back(PlainCell(column(c), column(k), w, n));
  return cells;
}
template <class Column>
std::vector<double> PlainRectangle(Column column, int split, int p, const double* w, int n) {
  std::vector<double> cells;
  for (int r = 0; r < split; ++r)
    for (int c = split; c < p; ++c)
      cells.push_back(PlainCell(column(r), column(c), w, n));
  return cells;
}

// A job over n rows of cols, without outputs yet.
CrossProductJob Job(const ColumnBlock& cols, const double* w, int n,
                    const double* centre = nullptr) {
  CrossProductJob job;
  job.cols = cols;
  job.weights = w;
  job.nRows = n;
  job.centre = centre;
  return job;
}

// The job run with a rectangle of the columns before split against those from
// it, and the diagonal beside it, against the plain loop over column(j).
template <class Column>
void ExpectRectangle(CrossProductJob job, Column column, int split, int p, const double* w, int n) {
  const std::vector<double> want = PlainRectangle(column, split, p, w, n);
  std::vector<double> rect(want.size(), kSentinel), diag(p, kSentinel), wantDiag;
  for (int j = 0; j < p; ++j)
    wantDiag.push_back(PlainCell(column(j), column(j), w, n));
  job.rectangle = rect.data();
  job.split = split;
  job.diagonal = diag.data();
  CrossProducts(job);
  EXPECT_TRUE(SameCells(rect, want)) << "split " << split;
  EXPECT_TRUE(SameCells(diag, wantDiag)) << "split " << split;
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

// The triangle through its shorthand, strictly below the diagonal into every
// third cell, with a column of ones behind, and rectangles with diagonals at
// several splits: every output of a job that only reads its columns.
TEST_P(AtEveryLevel, ProductsMatchThePlainLoop) {
  for (const Shape s : kShapes) {
    for (bool specials : {false, true}) {
      for (bool weighted : {false, true}) {
        const unsigned seed =
            static_cast<unsigned>(s.p * 7919 + s.n * 31 + weighted + 2 * specials);
        SCOPED_TRACE(::testing::Message()
                     << "seed " << seed << ", p " << s.p << ", n " << s.n
                     << (weighted ? ", weighted" : "") << (specials ? ", specials" : ""));
        std::mt19937_64 rng(seed);
        Block b = RandomBlock(rng, s.p, s.n, specials);
        const std::vector<double> w = RandomWeights(rng, s.n), ones(s.n, 1.0);
        const double* wp = weighted ? w.data() : nullptr;
        const auto column = [&](int j) { return j == s.p ? ones.data() : b.Column(j); };
        const Block before = b;

        const std::vector<double> want = PlainTriangle(column, s.p, wp, s.n, true);
        std::vector<double> got(want.size(), kSentinel);
        CrossProductTriangle(b.View(), wp, s.n, got.data());
        EXPECT_TRUE(SameCells(got, want));

        const std::vector<double> below = PlainTriangle(column, s.p, wp, s.n, false);
        std::vector<double> strided(below.size() * 3, kSentinel), picked;
        CrossProductJob job = Job(b.View(), wp, s.n);
        job.triangle = strided.data();
        job.triangleStride = 3;
        job.triangleDiagonal = false;
        CrossProducts(job);
        for (std::size_t i = 0; i < below.size(); ++i) {
          picked.push_back(strided[3 * i]);
          EXPECT_EQ(strided[3 * i + 1], kSentinel);
        }
        EXPECT_TRUE(SameCells(picked, below));

        const std::vector<double> withOnes = PlainTriangle(column, s.p + 1, wp, s.n, true);
        got.assign(withOnes.size(), kSentinel);
        job = Job(b.View(), wp, s.n);
        job.withOnes = true;
        job.triangle = got.data();
        CrossProducts(job);
        EXPECT_TRUE(SameCells(got, withOnes));

        for (int split : {1, s.p / 2, (s.p * 2) / 3, s.p - 1})
          if (split >= 1 && split < s.p)
            ExpectRectangle(Job(b.View(), wp, s.n), column, split, s.p, wp, s.n);
        EXPECT_TRUE(SameCells(b.cells, before.cells));  // only read
      }
    }
  }
}

// Calls body(shape, block, weights or null) for every shape, unweighted and
// weighted, on a random block with specials and random weights drawn with
// the seed seedOf(shape) + weighted.
template <class Body>
void ForEachShapeAndWeighting(unsigned (*seedOf)(Shape), Body body) {
  for (const Shape s : kShapes) {
    for (bool weighted : {false, true}) {
      const unsigned seed = seedOf(s) + weighted;
      SCOPED_TRACE(::testing::Message() << "seed " << seed << ", p " << s.p << ", n " << s.n
                                        << (weighted ? ", weighted" : ""));
      std::mt19937_64 rng(seed);
      Block b = RandomBlock(rng, s.p, s.n, true);
      const std::vector<double> w = RandomWeights(rng, s.n);
      body(s, b, weighted ? w.data() : nullptr);
    }
  }
}

// Columns named one by one, in any order, centred in the kernel's copies only
// (the columns stay), and a block centred in place (the batch then holds the
// centred cells, and nothing past the rows changed): the products are those
// of the centred columns either way.
TEST_P(AtEveryLevel, CentredProductsInCopiesOrInPlace) {
  const auto seedOf = [](Shape s) { return static_cast<unsigned>(s.p * 577 + s.n); };
  ForEachShapeAndWeighting(seedOf, [](const Shape s, Block& b, const double* wp) {
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
    CrossProductJob job = Job(ColumnBlock{nullptr, 0, m, list.data()}, wp, s.n, means.data());
    job.keepColumns = true;
    std::vector<double> want = PlainTriangle(column, m, wp, s.n, true);
    std::vector<double> got(want.size(), kSentinel);
    job.triangle = got.data();
    CrossProducts(job);
    EXPECT_TRUE(SameCells(got, want));
    if (m >= 2) {
      job.triangle = nullptr;
      ExpectRectangle(job, column, m / 2, m, wp, s.n);
    }
    EXPECT_TRUE(SameCells(b.cells, before.cells));
    // The whole block centred in place.
    means.resize(static_cast<std::size_t>(s.p));
    Block shifted = b;
    for (int j = 0; j < s.p; ++j) {
      means[j] = 0.37 * j - 1.1;
      for (int i = 0; i < s.n; ++i)
        shifted.Column(j)[i] = b.Column(j)[i] - means[j];
    }
    want = PlainTriangle([&](int j) { return shifted.Column(j); }, s.p, wp, s.n, true);
    got.assign(want.size(), kSentinel);
    job = Job(b.View(), wp, s.n, means.data());
    job.triangle = got.data();
    CrossProducts(job);
    EXPECT_TRUE(SameCells(got, want));
    EXPECT_TRUE(SameCells(b.cells, shifted.cells));
  });
}

std::vector<double> Fields(const PairFigures& f) {
  return {f.nRows, f.weightSum, f.regWeightSum, f.mean0, f.mean1, f.css0, f.css1, f.cscp};
}

std::vector<double> Fields(const ColumnFigures& f) {
  return {f.nRows, f.weightSum, f.regWeightSum, f.mean, f.css};
}

// A masked job over n rows with weights w and regression weights rw (either
// may be null), their products kept in `combined`; no columns or outputs yet.
MaskedPairsJob MaskedJob(const double* w, const double* rw, std::vector<double>& combined,
                         double code, int n) {
  combined.clear();
  for (int i = 0; i < n; ++i)
    combined.push_back(w && rw ? w[i] * rw[i] : w ? w[i] : rw ? rw[i] : 0.0);
  MaskedPairsJob job;
  job.weights = w;
  job.combined = w || rw ? combined.data() : nullptr;
  job.hasRegWeights = rw != nullptr;
  job.missingCode = code;
  job.nRows = n;
  return job;
}

const PairFigures kUntouchedPair{kSentinel, kSentinel, kSentinel, kSentinel,
                                 kSentinel, kSentinel, kSentinel, kSentinel};
const ColumnFigures kUntouchedColumn{kSentinel, kSentinel, kSentinel, kSentinel, kSentinel};

using Pairs = std::vector<std::pair<int, int>>;

// The pairs of a job's records in their order: the triangle of p columns (the
// later one first), or `rows` against `cols`.
Pairs TrianglePairs(int p) {
  Pairs pairs;
  for (int c = 0; c < p; ++c)
    for (int d = 0; d < c; ++d)
      pairs.emplace_back(c, d);
  return pairs;
}
Pairs RectanglePairs(const std::vector<int>& rows, const std::vector<int>& cols) {
  Pairs pairs;
  for (int r : rows)
    for (int c : cols)
      pairs.emplace_back(r, c);
  return pairs;
}

// Runs the masked job into records that hold sentinels, and checks the record
// of each of `pairs` against want(c, d) and, where `columns` is not empty, the
// columns' own records against want(c, c).
template <class Want>
void ExpectMaskedRecords(MaskedPairsJob job, const Pairs& pairs, const std::vector<int>& columns,
                         Want want) {
  std::vector<PairFigures> got(pairs.size(), kUntouchedPair);
  std::vector<ColumnFigures> own(columns.size(), kUntouchedColumn);
  job.out = got.data();
  job.columns = columns.empty() ? nullptr : own.data();
  MaskedPairs(job);
  for (std::size_t k = 0; k < pairs.size(); ++k) {
    const auto [c, d] = pairs[k];
    EXPECT_PRED2(SameFields, Fields(got[k]), want(c, d)) << c << "," << d;
  }
  for (std::size_t k = 0; k < columns.size(); ++k)
    EXPECT_PRED2(SameFields, Fields(own[k]), want(columns[k], columns[k])) << columns[k];
}

std::vector<int> Indices(int from, int to) {
  std::vector<int> indices;
  for (int j = from; j < to; ++j)
    indices.push_back(j);
  return indices;
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
TEST_P(AtEveryLevel, MaskedPairsMatchThePerPairReduction) {
  for (const Shape s : kShapes) {
    if (s.p < 2) continue;
    for (int weighting = 0; weighting < 4; ++weighting) {
      for (const bool everywhere : {true, false}) {
        const unsigned seed =
            static_cast<unsigned>(s.p * 31 + s.n * 7 + weighting * 3 + everywhere);
        SCOPED_TRACE(::testing::Message()
                     << "seed " << seed << ", p " << s.p << ", n " << s.n << ", weighting "
                     << weighting << ", missing " << (everywhere ? "everywhere" : "in a fifth"));
        std::mt19937_64 rng(seed);
        Block b = RandomBlock(rng, s.p, s.n, true);
        const std::vector<double> w = RandomWeights(rng, s.n), rw = RandomWeights(rng, s.n);
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
        const double* wp = weighting & 1 ? w.data() : nullptr;
        const double* rwp = weighting & 2 ? rw.data() : nullptr;
        std::vector<double> combined;
        for (const double code : {kCode, kNaN}) {
          // The shape of several chunks is there for the state carried over.
          if (s.n == 3000 && (std::isnan(code) || !everywhere)) continue;
          for (const bool completePairs : {true, false}) {
            // What the job gives for a pair (or a column, c == d), or leaves
            // to the caller untouched: with a NaN code no cell is missing.
            const auto want = [&](int c, int d) {
              if (!completePairs && (std::isnan(code) || (!missing[c] && !missing[d])))
                return c == d ? Fields(kUntouchedColumn) : Fields(kUntouchedPair);
              const auto ref = RefInit(b.Column(c), b.Column(d), wp, rwp, code, s.n);
              return c == d ? VarFields(ref) : PairFields(ref);
            };
            MaskedPairsJob job = MaskedJob(wp, rwp, combined, code, s.n);
            job.first = b.View();
            job.completePairs = completePairs;
            ExpectMaskedRecords(job, TrianglePairs(s.p), Indices(0, s.p), want);

            // A rectangle: the first columns against the others.
            const int split = s.p / 2;
            std::vector<double*> firsts, seconds;
            for (int j = 0; j < s.p; ++j)
              (j < split ? firsts : seconds).push_back(b.Column(j));
            job.triangle = false;
            job.first = ColumnBlock{nullptr, 0, split, firsts.data()};
            job.second = ColumnBlock{nullptr, 0, s.p - split, seconds.data()};
            ExpectMaskedRecords(job, RectanglePairs(Indices(0, split), Indices(split, s.p)),
                                completePairs ? Indices(split, s.p) : std::vector<int>{}, want);
          }
        }
      }
    }
  }
}

// The column pass against StableMean, MinValue and MaxValue, which the column
// kernel tests hold to the plain loops.
TEST_P(AtEveryLevel, ColumnPassMatchesTheColumnKernels) {
  const auto seedOf = [](Shape s) { return static_cast<unsigned>(s.p * 3 + s.n * 11); };
  ForEachShapeAndWeighting(seedOf, [](const Shape s, Block& b, const double* wp) {
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
    EXPECT_TRUE(SameCells(b.cells, before.cells));  // only read
    std::vector<double> only(s.p, kSentinel);       // means alone, without the extremes
    ColumnPass(b.View(), wp, total, s.n, only.data(), nullptr, nullptr);
    EXPECT_TRUE(SameCells(only, means));
    std::vector<double*> list;  // the columns named one by one
    for (int j = 0; j < s.p; ++j)
      list.push_back(b.Column(j));
    only.assign(s.p, kSentinel);
    ColumnPass(ColumnBlock{nullptr, 0, s.p, list.data()}, wp, total, s.n, only.data(), nullptr,
               nullptr);
    EXPECT_TRUE(SameCells(only, means));
  });
}

VOREL_AT_EVERY_KERNEL_LEVEL(AtEveryLevel);

TEST(KernelDispatch, LevelsCanBeForcedOnlyWhenSupported) {
  EXPECT_TRUE(KernelLevelSupported(KernelLevel::Plain));
  const KernelLevel best = BestKernelLevel();
  EXPECT_TRUE(KernelLevelSupported(best));
  EXPECT_EQ(ActiveKernelLevel(), best);
  for (KernelLevel level : KernelLevels()) {
    EXPECT_EQ(SetKernelLevel(level), KernelLevelSupported(level));
    if (!KernelLevelSupported(level)) continue;
    EXPECT_EQ(ActiveKernelLevel(), level);
    // The best level is at least as wide as every supported one.
    EXPECT_GE(static_cast<int>(best), static_cast<int>(level));
  }
  SetKernelLevel(best);
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
