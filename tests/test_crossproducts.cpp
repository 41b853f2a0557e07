// The blocked kernels against the plain per-cell loops, bit for bit, at every
// instruction-set level the CPU has.
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "columnkernels.h"
#include "crossproducts.h"
#include "test_support.h"

namespace vorel {
namespace {

using testing::SameBits;

constexpr double kInf = std::numeric_limits<double>::infinity();
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr double kSentinel = -12345.5;  // cells beyond the rows, never to be touched

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

enum class Data { Finite, Specials };

// Values of many magnitudes (so that any change in the order of the additions
// shows in the last bits), with zeros of both signs and subnormals; with
// Specials also NaN and infinite cells in a few columns.
Block RandomBlock(std::mt19937_64& rng, int p, int n, Data data) {
  Block b(p, n);
  std::normal_distribution<double> normal(0.0, 1.0);
  std::uniform_int_distribution<int> kind(0, 199);
  std::uniform_int_distribution<int> scale(-20, 20);
  for (int j = 0; j < p; ++j) {
    const bool special = data == Data::Specials && j % 3 == 1;
    for (int i = 0; i < n; ++i) {
      double v = std::ldexp(normal(rng), scale(rng)) + 3.0;
      switch (kind(rng)) {
        case 0:
          v = -0.0;
          break;
        case 1:
          v = 0.0;
          break;
        case 2:
          v = 4.9e-320;
          break;  // subnormal
        case 3:
          v = -1e-310;
          break;  // subnormal
        case 4:
          if (special) v = kNaN;
          break;
        case 5:
          if (special) v = (i % 2 ? kInf : -kInf);
          break;
        default:
          break;
      }
      b.Column(j)[i] = v;
    }
  }
  return b;
}

// Weights with zeros of both signs, a negative weight, subnormals and
// power-of-two scales.
std::vector<double> RandomWeights(std::mt19937_64& rng, int n) {
  std::uniform_real_distribution<double> u(0.0, 4.0);
  std::uniform_int_distribution<int> kind(0, 49);
  std::vector<double> w(static_cast<std::size_t>(n));
  for (double& v : w) {
    switch (kind(rng)) {
      case 0:
        v = 0.0;
        break;
      case 1:
        v = -0.0;
        break;
      case 2:
        v = -1.5;
        break;
      case 3:
        v = 1e-310;
        break;
      default:
        v = u(rng);
    }
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

std::uint64_t Bits(double v) {
  std::uint64_t b;
  std::memcpy(&b, &v, sizeof b);
  return b;
}

::testing::AssertionResult SameCells(const std::vector<double>& got,
                                     const std::vector<double>& want) {
  if (got.size() != want.size())
    return ::testing::AssertionFailure() << got.size() << " cells, want " << want.size();
  for (std::size_t i = 0; i < got.size(); ++i)
    if (!SameBits(got[i], want[i]))
      return ::testing::AssertionFailure()
             << "cell " << i << ": " << got[i] << " (bits " << std::hex << Bits(got[i])
             << "), want " << want[i] << " (bits " << Bits(want[i]) << std::dec << ")";
  return ::testing::AssertionSuccess();
}

// Every level is forced in turn; a level the CPU lacks is skipped, and says so.
class KernelLevels : public ::testing::TestWithParam<KernelLevel> {
 protected:
  void SetUp() override {
    if (!SetKernelLevel(GetParam()))
      GTEST_SKIP() << "this CPU (or build) has no " << KernelLevelName(GetParam()) << " kernels";
  }
  void TearDown() override { SetKernelLevel(BestKernelLevel()); }
};

std::string LevelName(const ::testing::TestParamInfo<KernelLevel>& info) {
  return KernelLevelName(info.param);
}

// Shapes around the tile edges (4, 6, 8, 12, 16 columns), the four-column
// packing, the chunk (a few thousand rows at small widths), and tiny cases.
struct Shape {
  int p, n;
};
const Shape kShapes[] = {{0, 9},    {1, 0},    {1, 1},     {3, 5},    {4, 4},   {5, 17},
                         {6, 7},    {7, 33},   {8, 64},    {9, 101},  {12, 3},  {13, 200},
                         {16, 31},  {17, 9},   {23, 77},   {25, 130}, {33, 41}, {40, 260},
                         {2, 4099}, {5, 2051}, {11, 4103}, {61, 1201}};

TEST_P(KernelLevels, TriangleMatchesThePlainLoop) {
  for (const Shape s : kShapes) {
    for (Data data : {Data::Finite, Data::Specials}) {
      for (bool weighted : {false, true}) {
        const unsigned seed = static_cast<unsigned>(s.p * 7919 + s.n * 31 + weighted);
        SCOPED_TRACE(::testing::Message() << "seed " << seed << ", p " << s.p << ", n " << s.n
                                          << (weighted ? ", weighted" : "")
                                          << (data == Data::Specials ? ", specials" : ""));
        std::mt19937_64 rng(seed);
        Block b = RandomBlock(rng, s.p, s.n, data);
        const std::vector<double> w = RandomWeights(rng, s.n);
        const double* wp = weighted ? w.data() : nullptr;

        std::vector<double> want;
        for (int c = 0; c < s.p; ++c)
          for (int k = 0; k <= c; ++k)
            want.push_back(PlainCell(b.Column(c), b.Column(k), wp, s.n));
        std::vector<double> got(want.size(), kSentinel);
        CrossProductTriangle(b.View(), wp, s.n, got.data());
        EXPECT_TRUE(SameCells(got, want));
      }
    }
  }
}

TEST_P(KernelLevels, CentringWritesBackAndFeedsTheProducts) {
  for (const Shape s : kShapes) {
    const unsigned seed = static_cast<unsigned>(s.p * 131 + s.n);
    SCOPED_TRACE(::testing::Message() << "seed " << seed << ", p " << s.p << ", n " << s.n);
    std::mt19937_64 rng(seed);
    Block b = RandomBlock(rng, s.p, s.n, Data::Finite);
    const std::vector<double> w = RandomWeights(rng, s.n);
    std::vector<double> means(static_cast<std::size_t>(s.p));
    for (int j = 0; j < s.p; ++j)
      means[j] = 0.37 * j - 1.1;

    Block centred = b;
    for (int j = 0; j < s.p; ++j)
      for (int i = 0; i < s.n; ++i)
        centred.Column(j)[i] = centred.Column(j)[i] - means[j];
    std::vector<double> want;
    for (int c = 0; c < s.p; ++c)
      for (int k = 0; k <= c; ++k)
        want.push_back(PlainCell(centred.Column(c), centred.Column(k), w.data(), s.n));

    CrossProductJob job;
    job.cols = b.View();
    job.weights = w.data();
    job.nRows = s.n;
    job.centre = means.data();
    std::vector<double> got(want.size(), kSentinel);
    job.triangle = got.data();
    CrossProducts(job);
    EXPECT_TRUE(SameCells(got, want));
    // The batch holds the centred cells, and nothing past the rows changed.
    EXPECT_TRUE(SameCells(b.cells, centred.cells));
  }
}

// Columns named one by one, in any order, centred in the kernel's copies
// only: the products are those of the centred columns, and the columns stay.
TEST_P(KernelLevels, ColumnListsCentredInThePanelsOnly) {
  for (const Shape s : kShapes) {
    for (bool weighted : {false, true}) {
      const unsigned seed = static_cast<unsigned>(s.p * 577 + s.n + weighted);
      SCOPED_TRACE(::testing::Message() << "seed " << seed << ", p " << s.p << ", n " << s.n
                                        << (weighted ? ", weighted" : ""));
      std::mt19937_64 rng(seed);
      Block b = RandomBlock(rng, s.p, s.n, Data::Specials);
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

      const Block before = b;
      CrossProductJob job;
      job.cols.columns = list.data();
      job.cols.count = m;
      job.weights = wp;
      job.nRows = s.n;
      job.centre = means.data();
      job.keepColumns = true;
      // The triangle, then the rectangle with its diagonal, of the same list.
      std::vector<double> want;
      for (int c = 0; c < m; ++c)
        for (int k = 0; k <= c; ++k)
          want.push_back(PlainCell(centred[c].data(), centred[k].data(), wp, s.n));
      std::vector<double> got(want.size(), kSentinel);
      job.triangle = got.data();
      CrossProducts(job);
      EXPECT_TRUE(SameCells(got, want));
      EXPECT_TRUE(SameCells(b.cells, before.cells));

      if (m < 2) continue;
      const int split = m / 2;
      std::vector<double> wantRect, wantDiag;
      for (int r = 0; r < split; ++r)
        for (int c = split; c < m; ++c)
          wantRect.push_back(PlainCell(centred[r].data(), centred[c].data(), wp, s.n));
      for (int j = 0; j < m; ++j)
        wantDiag.push_back(PlainCell(centred[j].data(), centred[j].data(), wp, s.n));
      std::vector<double> rect(wantRect.size(), kSentinel), diag(m, kSentinel);
      job.triangle = nullptr;
      job.rectangle = rect.data();
      job.split = split;
      job.diagonal = diag.data();
      CrossProducts(job);
      EXPECT_TRUE(SameCells(rect, wantRect));
      EXPECT_TRUE(SameCells(diag, wantDiag));
      EXPECT_TRUE(SameCells(b.cells, before.cells));

      std::vector<double> gotMeans(m, kSentinel);
      ColumnPass(job.cols, wp, 3.0, s.n, gotMeans.data(), nullptr, nullptr);
      for (int j = 0; j < m; ++j) {
        const double total = 3.0;
        EXPECT_TRUE(SameBits(gotMeans[j], StableMean(list[j], wp, &total, s.n))) << j;
      }
    }
  }
}

TEST_P(KernelLevels, StridedTriangleWithoutDiagonalAndWithOnes) {
  for (const Shape s : kShapes) {
    for (bool weighted : {false, true}) {
      const unsigned seed = static_cast<unsigned>(s.p * 17 + s.n * 5 + weighted);
      SCOPED_TRACE(::testing::Message() << "seed " << seed << ", p " << s.p << ", n " << s.n
                                        << (weighted ? ", weighted" : ""));
      std::mt19937_64 rng(seed);
      Block b = RandomBlock(rng, s.p, s.n, Data::Specials);
      const std::vector<double> w = RandomWeights(rng, s.n);
      const double* wp = weighted ? w.data() : nullptr;
      const std::vector<double> ones(static_cast<std::size_t>(s.n), 1.0);

      // Strictly below the diagonal, every third cell of the output.
      std::vector<double> want;
      for (int c = 0; c < s.p; ++c)
        for (int k = 0; k < c; ++k)
          want.push_back(PlainCell(b.Column(c), b.Column(k), wp, s.n));
      std::vector<double> got(want.size() * 3, kSentinel);
      CrossProductJob job;
      job.cols = b.View();
      job.weights = wp;
      job.nRows = s.n;
      job.triangle = got.data();
      job.triangleStride = 3;
      job.triangleDiagonal = false;
      CrossProducts(job);
      std::vector<double> strided;
      for (std::size_t i = 0; i < want.size(); ++i) {
        strided.push_back(got[3 * i]);
        EXPECT_EQ(got[3 * i + 1], kSentinel);
      }
      EXPECT_TRUE(SameCells(strided, want));

      // With a column of ones behind: its row holds the column sums (plain
      // or weighted, as DotProduct and SumValues give them) and the total.
      std::vector<double> withOnes;
      for (int c = 0; c <= s.p; ++c)
        for (int k = 0; k <= c; ++k) {
          const double* a = c == s.p ? ones.data() : b.Column(c);
          const double* bk = k == s.p ? ones.data() : b.Column(k);
          withOnes.push_back(PlainCell(a, bk, wp, s.n));
        }
      for (int k = 0; k < s.p; ++k) {
        const double sum =
            weighted ? DotProduct(b.Column(k), wp, s.n) : SumValues(b.Column(k), s.n);
        EXPECT_TRUE(SameBits(withOnes[withOnes.size() - 1 - s.p + k], sum)) << "column " << k;
      }
      EXPECT_TRUE(SameBits(withOnes.back(), SumWeights(wp, s.n)));
      std::vector<double> gotOnes(withOnes.size(), kSentinel);
      job.withOnes = true;
      job.triangle = gotOnes.data();
      job.triangleStride = 1;
      job.triangleDiagonal = true;
      CrossProducts(job);
      EXPECT_TRUE(SameCells(gotOnes, withOnes));
    }
  }
}

TEST_P(KernelLevels, RectangleAndDiagonalMatchThePlainLoop) {
  for (const Shape s : kShapes) {
    if (s.p < 2) continue;
    for (int split : {1, s.p / 2, (s.p * 2) / 3, s.p - 1}) {
      if (split < 1 || split >= s.p) continue;
      for (bool weighted : {false, true}) {
        const unsigned seed = static_cast<unsigned>(s.p * 1009 + s.n * 3 + split * 2 + weighted);
        SCOPED_TRACE(::testing::Message() << "seed " << seed << ", p " << s.p << ", n " << s.n
                                          << ", split " << split << (weighted ? ", weighted" : ""));
        std::mt19937_64 rng(seed);
        Block b = RandomBlock(rng, s.p, s.n, Data::Specials);
        const std::vector<double> w = RandomWeights(rng, s.n);
        const double* wp = weighted ? w.data() : nullptr;

        std::vector<double> wantRect, wantDiag;
        for (int r = 0; r < split; ++r)
          for (int c = split; c < s.p; ++c)
            wantRect.push_back(PlainCell(b.Column(r), b.Column(c), wp, s.n));
        for (int j = 0; j < s.p; ++j)
          wantDiag.push_back(PlainCell(b.Column(j), b.Column(j), wp, s.n));

        std::vector<double> rect(wantRect.size(), kSentinel), diag(wantDiag.size(), kSentinel);
        CrossProductJob job;
        job.cols = b.View();
        job.weights = wp;
        job.nRows = s.n;
        job.rectangle = rect.data();
        job.split = split;
        job.diagonal = diag.data();
        CrossProducts(job);
        EXPECT_TRUE(SameCells(rect, wantRect));
        EXPECT_TRUE(SameCells(diag, wantDiag));
      }
    }
  }
}

// The per-pair reduction written out: the pair's rows, their weights, the
// stable mean of each column, then the corrected sums in row order.
PairFigures PlainPair(const double* x0, const double* x1, const double* w, const double* rw,
                      double code, int n) {
  std::vector<double> a, b, ws, v;
  for (int i = 0; i < n; ++i) {
    if (x0[i] == code || x1[i] == code) continue;
    a.push_back(x0[i]);
    b.push_back(x1[i]);
    if (w != nullptr) ws.push_back(w[i]);
    if (rw != nullptr)
      v.push_back(w != nullptr ? rw[i] * w[i] : rw[i]);
    else if (w != nullptr)
      v.push_back(w[i]);
  }
  const int k = static_cast<int>(a.size());
  PairFigures f;
  f.nRows = k;
  double sum = 0.0;
  for (double x : ws)
    sum = sum + x;
  f.weightSum = w != nullptr ? sum : f.nRows;
  double combined = 0.0;
  for (double x : v)
    combined = combined + x;
  f.regWeightSum = rw != nullptr ? combined : f.weightSum;
  const double* vp = v.empty() ? nullptr : v.data();
  auto mean = [&](const std::vector<double>& x) {
    if (k == 0) return 0.0;
    double run = 0.0, rest = 0.0;
    int e = 0;
    while (e < k && x[e] == x[0])
      run = run + (vp != nullptr ? vp[e++] : (++e, 1.0));
    if (e == k) return x[0];
    for (int i = e; i < k; ++i)
      rest = rest + (vp != nullptr ? x[i] * vp[i] : x[i]);
    return (rest + x[0] * run) / f.regWeightSum;
  };
  f.mean0 = mean(a);
  f.mean1 = mean(b);
  for (double& x : a)
    x = x - f.mean0;
  for (double& x : b)
    x = x - f.mean1;
  f.css0 = PlainCell(a.data(), a.data(), vp, k);
  f.css1 = PlainCell(b.data(), b.data(), vp, k);
  f.cscp = PlainCell(a.data(), b.data(), vp, k);
  return f;
}

::testing::AssertionResult SamePair(const PairFigures& got, const PairFigures& want) {
  const double g[8] = {got.nRows, got.weightSum, got.regWeightSum, got.mean0,
                       got.mean1, got.css0,      got.css1,         got.cscp};
  const double w[8] = {want.nRows, want.weightSum, want.regWeightSum, want.mean0,
                       want.mean1, want.css0,      want.css1,         want.cscp};
  const char* names[8] = {"nRows", "weightSum", "regWeightSum", "mean0",
                          "mean1", "css0",      "css1",         "cscp"};
  for (int i = 0; i < 8; ++i)
    if (!SameBits(g[i], w[i]))
      return ::testing::AssertionFailure() << names[i] << " " << g[i] << ", want " << w[i];
  return ::testing::AssertionSuccess();
}

// Pairs with scattered missing cells, side by side in masked lanes, against
// the per-pair reduction: every weighting, runs at the start of the kept
// cells, a column missing throughout, NaN cells, and a NaN missing code.
TEST_P(KernelLevels, MaskedPairsMatchThePerPairReduction) {
  constexpr double kCode = -99.0;
  for (const Shape s : kShapes) {
    if (s.p < 2) continue;
    for (int weighting = 0; weighting < 4; ++weighting) {
      const unsigned seed = static_cast<unsigned>(s.p * 31 + s.n * 7 + weighting);
      SCOPED_TRACE(::testing::Message() << "seed " << seed << ", p " << s.p << ", n " << s.n
                                        << ", weighting " << weighting);
      std::mt19937_64 rng(seed);
      Block b = RandomBlock(rng, s.p, s.n, Data::Specials);
      const std::vector<double> w = RandomWeights(rng, s.n), rw = RandomWeights(rng, s.n);
      for (int j = 0; j < s.p; ++j) {
        double* x = b.Column(j);
        for (int i = 0; i < s.n; ++i) {
          if (rng() % 20 == 0) x[i] = kCode;
          if (j % 4 == 2 && i < 5) x[i] = i == 1 ? kCode : 6.5;  // a run across a missing cell
          if (j == 3 % s.p && s.p > 3) x[i] = kCode;             // missing throughout
        }
      }
      const double* wp = weighting & 1 ? w.data() : nullptr;
      const double* rwp = weighting & 2 ? rw.data() : nullptr;
      std::vector<double> combined;
      for (int i = 0; i < s.n; ++i)
        combined.push_back(wp && rwp ? w[i] * rw[i] : wp ? w[i] : rwp ? rw[i] : 0.0);

      for (double code : {kCode, kNaN}) {
        MaskedPairsJob job;
        job.first = b.View();
        job.weights = wp;
        job.combined = (wp || rwp) ? combined.data() : nullptr;
        job.hasRegWeights = rwp != nullptr;
        job.missingCode = code;
        job.nRows = s.n;
        std::vector<PairFigures> got(static_cast<std::size_t>(s.p) * (s.p - 1) / 2);
        job.out = got.data();
        MaskedPairs(job);
        std::size_t k = 0;
        for (int c = 0; c < s.p; ++c)
          for (int d = 0; d < c; ++d, ++k)
            EXPECT_TRUE(SamePair(got[k], PlainPair(b.Column(c), b.Column(d), wp, rwp, code, s.n)))
                << "pair " << c << "," << d << ", code " << code;

        // A rectangle: the first columns against the others.
        const int split = s.p / 2 > 0 ? s.p / 2 : 1;
        std::vector<double*> firsts, seconds;
        for (int j = 0; j < s.p; ++j)
          (j < split ? firsts : seconds).push_back(b.Column(j));
        job.triangle = false;
        job.first = ColumnBlock{nullptr, 0, split, firsts.data()};
        job.second = ColumnBlock{nullptr, 0, s.p - split, seconds.data()};
        std::vector<PairFigures> rect(static_cast<std::size_t>(split) * (s.p - split));
        job.out = rect.data();
        MaskedPairs(job);
        for (int r = 0; r < split; ++r)
          for (int c = split; c < s.p; ++c)
            EXPECT_TRUE(SamePair(rect[static_cast<std::size_t>(r) * (s.p - split) + (c - split)],
                                 PlainPair(b.Column(r), b.Column(c), wp, rwp, code, s.n)))
                << "rectangle pair " << r << "," << c << ", code " << code;
      }
    }
  }
}

// The column pass against StableMean, MinValue and MaxValue, which the column
// kernel tests hold to the plain loops.
TEST_P(KernelLevels, ColumnPassMatchesTheColumnKernels) {
  for (const Shape s : kShapes) {
    for (bool weighted : {false, true}) {
      const unsigned seed = static_cast<unsigned>(s.p * 3 + s.n * 11 + weighted);
      SCOPED_TRACE(::testing::Message() << "seed " << seed << ", p " << s.p << ", n " << s.n
                                        << (weighted ? ", weighted" : ""));
      std::mt19937_64 rng(seed);
      Block b = RandomBlock(rng, s.p, s.n, Data::Specials);
      const std::vector<double> w = RandomWeights(rng, s.n);
      const double* wp = weighted ? w.data() : nullptr;
      // Some columns start with runs of every length, one is constant, one
      // starts with NaN, one holds only zeros of both signs, one has its
      // extreme at zero after negative values.
      for (int j = 0; j < s.p; ++j) {
        double* x = b.Column(j);
        switch (j % 6) {
          case 0:
            for (int i = 0; i < s.n && i < j + 1; ++i)
              x[i] = 2.5;
            break;
          case 2:
            for (int i = 0; i < s.n; ++i)
              x[i] = -7.25;
            break;
          case 3:
            if (s.n > 0) x[0] = kNaN;
            break;
          case 4:
            for (int i = 0; i < s.n; ++i)
              x[i] = (i * 7919 % 5 == 1) ? 0.0 : -0.0;
            break;
          case 5:
            for (int i = 0; i < s.n; ++i)
              x[i] = i % 3 == 2 ? (i % 2 ? 0.0 : -0.0) : -std::abs(x[i]) - 1.0;
            break;
          default:
            break;
        }
      }
      const double total = weighted ? SumValues(wp, s.n) : s.n;
      std::vector<double> means(s.p, kSentinel), mins(s.p, kSentinel), maxs(s.p, kSentinel);
      const Block before = b;
      ColumnPass(b.View(), wp, total, s.n, means.data(), mins.data(), maxs.data());
      for (int j = 0; j < s.p; ++j) {
        SCOPED_TRACE(::testing::Message() << "column " << j);
        const double* x = b.Column(j);
        EXPECT_TRUE(SameBits(means[j], StableMean(x, wp, &total, s.n)));
        EXPECT_TRUE(SameBits(mins[j], MinValue(x, s.n)));
        EXPECT_TRUE(SameBits(maxs[j], MaxValue(x, s.n)));
      }
      EXPECT_TRUE(SameCells(b.cells, before.cells));  // only read
      // Means alone, without the extremes.
      std::vector<double> only(s.p, kSentinel);
      ColumnPass(b.View(), wp, total, s.n, only.data(), nullptr, nullptr);
      EXPECT_TRUE(SameCells(only, means));
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Levels, KernelLevels,
                         ::testing::Values(KernelLevel::Plain, KernelLevel::Avx2,
                                           KernelLevel::Avx512),
                         LevelName);

TEST(KernelDispatch, LevelsCanBeForcedOnlyWhenSupported) {
  EXPECT_TRUE(KernelLevelSupported(KernelLevel::Plain));
  const KernelLevel best = BestKernelLevel();
  EXPECT_TRUE(KernelLevelSupported(best));
  EXPECT_EQ(ActiveKernelLevel(), best);
  for (KernelLevel level : {KernelLevel::Plain, KernelLevel::Avx2, KernelLevel::Avx512}) {
    EXPECT_EQ(SetKernelLevel(level), KernelLevelSupported(level));
    if (!KernelLevelSupported(level)) continue;
    EXPECT_EQ(ActiveKernelLevel(), level);
    // The best level is at least as wide as every supported one.
    EXPECT_GE(static_cast<int>(best), static_cast<int>(level));
  }
  SetKernelLevel(best);
}

}  // namespace
}  // namespace vorel
