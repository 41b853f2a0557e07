// The definitions of the reported figures: the rules for what is not defined,
// extremes that do not depend on order, and groups joined part by part against
// a long double two-pass oracle.
#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>
#include <random>
#include <vector>

#include "figures.h"
#include "oracle.h"

namespace vorelstat::figures {
namespace {

constexpr double kInf = std::numeric_limits<double>::infinity();

TEST(Range, SignedZerosAndInfinitiesInAnyOrder) {
  const std::vector<double> cells = {0.0, -0.0, 3.0, -kInf, 0.0};
  for (int rotation = 0; rotation < 5; ++rotation) {
    Range range;
    for (int k = 0; k < 5; ++k)
      range.Include(cells[(rotation + k) % 5]);
    EXPECT_EQ(range.min, -kInf);
    EXPECT_EQ(range.max, 3.0);
    Range zeros;
    zeros.Include(cells[(rotation + 1) % 2]);
    zeros.Include(cells[rotation % 2]);
    EXPECT_TRUE(std::signbit(zeros.min));
    EXPECT_FALSE(std::signbit(zeros.max));
    EXPECT_TRUE(zeros.Constant());
    EXPECT_FALSE(std::signbit(zeros.ConstantValue()));
  }
  Range empty, infinite;
  EXPECT_TRUE(empty.Empty());
  EXPECT_FALSE(empty.Constant());
  infinite.Include(kInf);
  EXPECT_FALSE(infinite.Constant()) << "an infinite column has no spread to speak of";
  empty.Include(infinite);
  EXPECT_EQ(empty.max, kInf);
}

// The pass's branch-free loop over a column gives the bits that including
// its present cells one by one gives, on cells drawn from a small set so that
// ties, signed zeros, infinities, NaN and the missing code all recur.
TEST(Range, AColumnAtOnceAsCellByCell) {
  const double missing = -9.0;
  const std::vector<double> values = {0.0,     -0.0,         1.5,    -1.5,    kInf, -kInf,
                                      missing, std::nan(""), 1e-310, -1e-310, 7.0};
  std::mt19937_64 random(7);
  for (int trial = 0; trial < 200; ++trial) {
    std::vector<double> column(random() % 12);
    for (double& cell : column)
      cell = values[random() % values.size()];
    Range one, all;
    if (trial % 3 == 0) one.Include(all.max = all.min = values[random() % 6]);
    std::uint64_t present = 0;
    for (double cell : column) {
      if (cell == missing) continue;
      ++present;
      one.Include(cell);
    }
    EXPECT_EQ(all.IncludeAllBut(column.data(), column.size(), missing), present);
    EXPECT_EQ(std::bit_cast<std::uint64_t>(all.min), std::bit_cast<std::uint64_t>(one.min));
    EXPECT_EQ(std::bit_cast<std::uint64_t>(all.max), std::bit_cast<std::uint64_t>(one.max));
  }
}

// Which figure is defined, and what a constant column gives, case by case.
TEST(Definitions, WhatIsNotDefinedAndWhatIsExact) {
  ColumnMoments column{5, 5.0, 0.10000000000000002, 1.7e-33, {}};
  column.range.Include(0.1);
  EXPECT_EQ(Mean(column), 0.1) << "a constant column's mean is its value";
  EXPECT_EQ(Variance(column), 0.0);
  EXPECT_TRUE(std::isnan(SelfCorrelation(column)));
  column.weight = 1.0;
  EXPECT_TRUE(std::isnan(Variance(column))) << "W - 1 = 0";
  ColumnMoments none;
  EXPECT_TRUE(std::isnan(Mean(none)));
  ColumnMoments spread{4, 4.0, 2.5, 5.0, {}};
  spread.range.Include(1.0);
  spread.range.Include(4.0);
  EXPECT_EQ(Mean(spread), 2.5);
  EXPECT_DOUBLE_EQ(StandardDeviation(spread), std::sqrt(5.0 / 3.0));
  EXPECT_EQ(SelfCorrelation(spread), 1.0);

  const PairMoments pair{4.0, 3.0, 4.0, 9.0, false, false};
  EXPECT_EQ(Covariance(pair), 1.0);
  EXPECT_EQ(Correlation(pair), 0.5);
  PairMoments constant = pair;
  constant.constant1 = true;
  EXPECT_EQ(Covariance(constant), 0.0);
  EXPECT_TRUE(std::isnan(Correlation(constant)));
  PairMoments light = pair;
  light.weight = 0.5;
  EXPECT_TRUE(std::isnan(Covariance(light)));
  PairMoments flat = pair;
  flat.css0 = 0.0;
  EXPECT_TRUE(std::isnan(Correlation(flat)));
  EXPECT_EQ(PooledCovariance(6.0, 5.0, 2), 2.0);
  EXPECT_TRUE(std::isnan(PooledCovariance(6.0, 2.0, 2)));
}

using testing::Row;
constexpr std::size_t kCols = testing::kVars;

// The means of `rows` relative to `origin` and their cross-product triangle,
// from the reference rounded once.
void Reduce(const std::vector<Row>& rows, const std::vector<double>& origin,
            std::vector<double>& means, std::vector<double>& cscp, double& weight) {
  const testing::Moments m = testing::Gather(rows, false);
  weight = static_cast<double>(m.w);
  means.resize(kCols);
  cscp.resize(TriangleSize(kCols));
  for (std::size_t i = 0; i < kCols; ++i) {
    means[i] = static_cast<double>(m.mean(static_cast<unsigned>(i))
                                   - static_cast<testing::Real>(origin[i]));
    for (std::size_t j = 0; j <= i; ++j)
      cscp[TriangleIndex(i, j)] = static_cast<double>(m.css[i][j]);
  }
}

// Four rows of analytic weight 0.5: W = 2, V = 1, so D = W - ddof V / W is
// 0.5 (4 - ddof), the frequency divisor of four rows scaled by the weight.
TEST(Definitions, AnalyticWeightsDivideByWMinusDdofVOverW) {
  ColumnMoments c{4, 2.0, 1.0, 3.0, Range{0.0, 2.0}, 1.0};
  EXPECT_EQ(Divisor(c.weight, c.weightSquares, 1.0, WeightKind::kAnalytic), 1.5);
  EXPECT_EQ(Variance(c, 1.0, WeightKind::kAnalytic), 2.0);
  EXPECT_EQ(Variance(c, 0.0, WeightKind::kAnalytic), 1.5);
  EXPECT_EQ(Variance(c, 1.0), 3.0) << "frequency: W - 1";
  EXPECT_TRUE(std::isnan(Variance(c, 4.0, WeightKind::kAnalytic))) << "divisor 0";
  const PairMoments p{2.0, 0.75, 3.0, 1.0, false, false, 1.0};
  EXPECT_EQ(Covariance(p, 1.0, WeightKind::kAnalytic), 0.5);
  EXPECT_EQ(Correlation(p), 0.75 / std::sqrt(3.0)) << "no divisor";
  EXPECT_EQ(PooledCovariance(3.0, 1.5), 2.0);
  EXPECT_TRUE(std::isnan(PooledCovariance(3.0, 0.0)));
}

class GroupJoin : public ::testing::TestWithParam<unsigned> {};

// One group far from zero, cut into random parts with origins of their own,
// joined in two tables and then the tables joined: means and cross-products as
// the whole group's two-pass figures, within a few roundings of the spread;
// the constant column exactly.
TEST_P(GroupJoin, PartsJoinAsTheWholeGroup) {
  std::mt19937 random(GetParam());
  std::normal_distribution<double> normal;
  std::uniform_int_distribution<int> partSize(1, 9);
  std::vector<std::vector<Row>> parts(40);
  std::vector<Row> whole;
  for (std::vector<Row>& part : parts) {
    for (int n = partSize(random); n > 0; --n) {
      const double f = normal(random);
      part.push_back({{1.7e9 + 1000.0 * f, f + normal(random), 0.3},
                      static_cast<double>(1 + random() % 4),
                      1.0,
                      {}});
      whole.push_back(part.back());
    }
  }
  std::vector<double> pooledA(TriangleSize(kCols), 0.0), pooledB(pooledA);
  GroupMoments a(kCols, true), b(kCols, true);
  double allSquares = 0.0;  // small whole numbers: exact in any order
  for (std::size_t p = 0; p < parts.size(); ++p) {
    std::vector<double> means, cscp;
    double weight = 0.0, squares = 0.0;
    for (const Row& row : parts[p])
      squares += *row.weight * *row.weight;
    allSquares += squares;
    const Row& front = parts[p].front();
    const std::vector<double> origin =
        OriginOf(std::vector<double>{*front.x[0], *front.x[1], *front.x[2]}.data(), kCols);
    Reduce(parts[p], origin, means, cscp, weight);
    (p % 3 == 0 ? a : b)
        .Join(parts[p].size(), weight, origin.data(), means.data(), cscp.data(),
              p % 3 == 0 ? pooledA : pooledB, squares);
  }
  GroupMoments joined(kCols, true);
  std::vector<double> pooled = pooledA;
  joined.Join(a, pooled);
  for (std::size_t c = 0; c < pooled.size(); ++c)
    pooled[c] += pooledB[c];
  joined.Join(b, pooled);

  std::vector<double> means, cscp;
  double weight = 0.0;
  const std::vector<double> zero(kCols, 0.0);
  Reduce(whole, zero, means, cscp, weight);
  EXPECT_EQ(joined.Rows(), whole.size());
  EXPECT_EQ(joined.Weight(), weight);
  EXPECT_EQ(joined.WeightSquares(), allSquares);
  EXPECT_EQ(joined.Divisor(), weight - 1.0);
  EXPECT_EQ(joined.Divisor(2.0, WeightKind::kAnalytic), weight - 2.0 * allSquares / weight);
  EXPECT_DOUBLE_EQ(joined.Covariance(0, 1, 0.0, WeightKind::kAnalytic),
                   joined.Covariance(0, 1, 1.0) * (weight - 1.0) / weight);
  EXPECT_EQ(joined.Mean(2), 0.3) << "constant";
  EXPECT_EQ(joined.Covariance(2, 2), 0.0);
  EXPECT_EQ(joined.Covariance(2, 0), 0.0);
  for (std::size_t i = 0; i < 2; ++i) {
    const double spread = std::sqrt(cscp[TriangleIndex(i, i)] / weight);
    EXPECT_NEAR(joined.Mean(i), means[i], 1e-13 * spread + std::fabs(means[i]) * 1e-16);
    for (std::size_t j = 0; j <= i; ++j) {
      const double scale = std::sqrt(cscp[TriangleIndex(i, i)] * cscp[TriangleIndex(j, j)]);
      EXPECT_NEAR(pooled[TriangleIndex(i, j)], cscp[TriangleIndex(i, j)], 1e-13 * scale);
      EXPECT_NEAR(joined.Covariance(i, j) * (weight - 1.0), cscp[TriangleIndex(i, j)],
                  1e-13 * scale);
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Seeds, GroupJoin, ::testing::Range(1u, 9u));

}  // namespace
}  // namespace vorelstat::figures
