#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <random>
#include <vector>

#include "kernels/columnkernels.h"
#include "pairwise_reference.h"
#include "test_support.h"

namespace vorel::internal {
namespace {

using testing::SameBits;

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

// Random column with a mix of magnitudes, repeated values and signed zeros.
std::vector<double> RandomColumn(std::mt19937_64& rng, int n) {
  const double kOdd[] = {-0.0, 1e-310, 7.25};  // 1e-310: subnormal
  std::uniform_real_distribution<double> value(-1e3, 1e3);
  std::uniform_int_distribution<int> kind(0, 9);
  std::vector<double> x(n);
  for (double& v : x) {
    const int k = kind(rng);
    v = k < 3 ? kOdd[k] : value(rng);
  }
  return x;
}

// Reference loops, written the plain way: one accumulator, row order.
double PlainSum(const double* x, int n) {
  double s = 0.0;
  for (int i = 0; i < n; ++i)
    s = s + x[i];
  return s;
}

// StableMean as the pairwise reference writes it out; no weights are ones.
double PlainStableMean(const double* x, const double* w, double total, int n) {
  return testing::pairwise::RefStableMean(
      {x, x + n}, w ? std::vector<double>(w, w + n) : std::vector<double>(n, 1.0), total);
}

class KernelsAgainstPlainLoops : public ::testing::TestWithParam<int> {};

TEST_P(KernelsAgainstPlainLoops, BitIdentical) {
  const int n = GetParam();
  std::mt19937_64 rng(0x5eed + n);
  SCOPED_TRACE(::testing::Message() << "seed " << 0x5eed + n << ", n " << n);
  auto x = RandomColumn(rng, n), y = RandomColumn(rng, n), w = RandomColumn(rng, n);

  EXPECT_TRUE(SameBits(SumValues(x.data(), n), PlainSum(x.data(), n)));
  double dot = 0.0, triple = 0.0;
  for (int i = 0; i < n; ++i) {
    dot = dot + x[i] * y[i];
    triple = triple + (w[i] * x[i]) * y[i];
  }
  EXPECT_TRUE(SameBits(DotProduct(x.data(), y.data(), n), dot));
  EXPECT_TRUE(SameBits(TripleProduct(w.data(), x.data(), y.data(), n), triple));
  EXPECT_TRUE(SameBits(WeightedDotProduct(x.data(), y.data(), w.data(), n), triple));
  EXPECT_TRUE(SameBits(WeightedDotProduct(x.data(), y.data(), nullptr, n), dot));
  EXPECT_TRUE(SameBits(SumOrDot(x, y), dot));
  EXPECT_TRUE(SameBits(SumOrDot(x, {}), PlainSum(x.data(), n)));

  // Leading runs of every length up to past a four-row turn.
  for (int run = 0; run <= std::min(n, 9); ++run) {
    std::vector<double> r = x;
    for (int i = 0; i < run; ++i)
      r[i] = 3.3;
    const double total = 17.0;
    EXPECT_TRUE(SameBits(StableMean(r.data(), w.data(), &total, n),
                         PlainStableMean(r.data(), w.data(), total, n)))
        << "run " << run;
    EXPECT_TRUE(SameBits(StableMean(r.data(), nullptr, &total, n),
                         PlainStableMean(r.data(), nullptr, total, n)))
        << "run " << run;
  }
}

INSTANTIATE_TEST_SUITE_P(Lengths, KernelsAgainstPlainLoops,
                         ::testing::Values(0, 1, 3, 4, 5, 8, 9, 1000, 1003));

// Empty columns, constant ones, NaN, ties of signed zeros, and parts whose
// weights cancel.
TEST(ColumnKernels, EdgeCases) {
  EXPECT_EQ(SumWeights(nullptr, 5), 5.0);
  EXPECT_EQ(StableMean(nullptr, nullptr, nullptr, 0), 0.0);  // reads neither x nor total
  EXPECT_EQ(MaxValue(nullptr, 0), -1.79e308);
  EXPECT_EQ(MinValue(nullptr, 0), 1.79e308);
  // A constant column gives its value whatever the weights and the total.
  const double x[3] = {3.3, 3.3, 3.3}, w[3] = {0.1, 0.7, 0.2};
  for (double total : {3.0, 0.0, kNaN})
    EXPECT_EQ(StableMean(x, w, &total, 3), 3.3);
  // Long enough for the four-row turns, and -0.0 joins a run of +0.0.
  std::vector<double> zeros(11, 0.0);
  zeros[6] = -0.0;
  EXPECT_TRUE(SameBits(StableMean(zeros, {}, 0.0), 0.0));
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
  EXPECT_TRUE(SameBits(MeanShift(1.0, 2.0, 5.0, -2.0), 0.0));
}

TEST(ColumnKernels, ScatterKernelsAddInRowOrder) {
  std::mt19937_64 rng(77);
  const int n = 1003;
  const auto x = RandomColumn(rng, n), w = RandomColumn(rng, n);
  std::vector<unsigned> g(n);
  for (auto& v : g)
    v = static_cast<unsigned>(rng() % 5);
  for (const double* wp : {w.data(), static_cast<const double*>(nullptr)}) {
    // The tables already hold something: the kernels add to it.
    std::vector<double> sum(5, 1.0), sumSq(5, 2.0), sumW(5, 0.5), refSum = sum, refSq = sumSq,
                                                                  refW = sumW;
    double total = 0.5, refTotal = 0.5;
    ScatterWeightedSums(x.data(), g.data(), wp, sum.data(), sumSq.data(), n);
    ScatterWeights(g.data(), wp, sumW, &total, n);
    for (int i = 0; i < n; ++i) {
      const double t = wp ? x[i] * wp[i] : x[i];
      refSum[g[i]] = refSum[g[i]] + t;
      refSq[g[i]] = refSq[g[i]] + t * x[i];
      refW[g[i]] = refW[g[i]] + (wp ? wp[i] : 1.0);
      refTotal = refTotal + (wp ? wp[i] : 1.0);
    }
    for (int k = 0; k < 5; ++k) {
      EXPECT_TRUE(SameBits(sum[k], refSum[k])) << k;
      EXPECT_TRUE(SameBits(sumSq[k], refSq[k])) << k;
      EXPECT_TRUE(SameBits(sumW[k], refW[k])) << k;
    }
    EXPECT_TRUE(SameBits(total, refTotal));
    // Several columns side by side give each column's own bits, across the
    // groups of columns taken together.
    for (int count = 1; count <= 2 * kScatterColumns - 1; ++count) {
      std::vector<std::vector<double>> cols;
      std::vector<const double*> xs;
      for (int c = 0; c < count; ++c)
        cols.push_back(RandomColumn(rng, n));
      for (const auto& c : cols)
        xs.push_back(c.data());
      std::vector<double> many(5 * count, 1.5), manySq(5 * count, -2.0);
      ScatterWeightedSumsOfColumns(xs.data(), count, g.data(), wp, many.data(), manySq.data(), 5,
                                   n);
      for (int c = 0; c < count; ++c) {
        std::vector<double> one(5, 1.5), oneSq(5, -2.0);
        ScatterWeightedSums(xs[c], g.data(), wp, one.data(), oneSq.data(), n);
        for (int k = 0; k < 5; ++k) {
          EXPECT_TRUE(SameBits(many[5 * c + k], one[k])) << count << " columns, " << c;
          EXPECT_TRUE(SameBits(manySq[5 * c + k], oneSq[k])) << count << " columns, " << c;
        }
      }
    }
    // n = 0 leaves everything as it was.
    ScatterWeights(g.data(), wp, sumW, &total, 0);
    ScatterSums(x.data(), g.data(), sum.data(), sumSq.data(), 0);
    EXPECT_TRUE(SameBits(total, refTotal));
    EXPECT_TRUE(SameBits(sum[0], refSum[0]));
  }
}

}  // namespace
}  // namespace vorel::internal
