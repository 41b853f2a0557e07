// The definitions of the reported figures: the rules for what is not defined
// and extremes that do not depend on order. (The divisors of both weight kinds
// and groups joined over blocks: the end-to-end suites, against NumPy.)
#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>
#include <random>
#include <vector>

#include "figures.h"

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

}  // namespace
}  // namespace vorelstat::figures
