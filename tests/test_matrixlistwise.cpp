#include <vorel/databatch.h>
#include <vorel/matrixlistwise.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <random>
#include <stdexcept>
#include <vector>

#include "pairwise_reference.h"
#include "test_support.h"
#include "wholetable_support.h"

namespace vorel {
namespace {

using testing::SameBits;
using testing::wholetable::Table;
constexpr const char* kSource = "backend/vorel/matrixlistwise";
constexpr double kEps = std::numeric_limits<double>::epsilon();

// The arithmetic of one batch and of one merge, written out as loops.
struct RefListwise {
  double weightSum = 0, regWeightSum = 0;
  std::uint64_t nRows = 0;
  std::vector<double> means, xp;  // xp: row r holds columns 0..r
};

RefListwise RefReduce(const Table& t, std::size_t begin, std::size_t end) {
  RefListwise r;
  r.nRows = end - begin;
  std::vector<double> v;
  for (std::size_t i = begin; i < end; ++i) {
    const double w = t.Weights() != nullptr ? t.Weights()[i] : 1.0;
    v.push_back(t.RegWeights() != nullptr ? w * t.RegWeights()[i] : w);
    r.weightSum += w;
  }
  if (t.RegWeights() != nullptr)
    for (double vi : v)
      r.regWeightSum += vi;
  else
    r.regWeightSum = r.weightSum;
  std::vector<std::vector<double>> centred;
  for (unsigned c = 0; c < t.NColumns(); ++c) {
    centred.push_back(t.Column(c, begin, end));
    r.means.push_back(testing::RefStableMean(centred[c], v, r.regWeightSum));
    for (double& x : centred[c])
      x = x - r.means[c];
  }
  for (unsigned c = 0; c < t.NColumns(); ++c)
    for (unsigned k = 0; k <= c; ++k) {
      double sum = 0;
      for (std::size_t i = 0; i < v.size(); ++i)
        sum += (v[i] * centred[c][i]) * centred[k][i];
      r.xp.push_back(sum);
    }
  return r;
}

void RefMerge(RefListwise& t, const RefListwise& d) {
  if (d.weightSum == 0.0) return;
  std::vector<double> m(t.means.size());
  std::size_t k = 0;
  for (std::size_t i = 0; i < m.size(); ++i) {
    const double shift = testing::RefShift(t.means[i], t.regWeightSum, d.means[i], d.regWeightSum);
    m[i] = t.means[i] + shift;
    const double a = shift * t.regWeightSum, b = (m[i] - d.means[i]) * d.regWeightSum;
    for (std::size_t j = 0; j <= i; ++j, ++k)
      t.xp[k] = (((m[j] - t.means[j]) * a + d.xp[k]) + (m[j] - d.means[j]) * b) + t.xp[k];
  }
  t.means = m;
  t.weightSum += d.weightSum;
  t.regWeightSum += d.regWeightSum;
  t.nRows += d.nRows;
}

Table OneColumn(std::initializer_list<double> cells) {
  Table t(1, false, false);
  for (double c : cells)
    t.AddRow({c});
  return t;
}

TEST(MatrixListwise, NewMatrixAndPreconditions) {
  MatrixListwise m;
  EXPECT_EQ(m.NColumns(), 0u);
  EXPECT_EQ(m.NRows(), 0u);
  EXPECT_EQ(m.WeightSum(), 0.0);
  EXPECT_EQ(m.RegWeightSum(), 0.0);
  EXPECT_FALSE(m.HasRegWeights());
  EXPECT_VOREL_ASSERT(m.Mean(0), "col < NColumns()", kSource);
  EXPECT_VOREL_ASSERT(m.CCP(0, 0), "row < NColumns()", kSource);

  Table t(2, true, false);
  t.AddRow({1, 2}, 1);
  t.AddRow({3, 4}, -1);  // weights total 0: the figures exist but are barred
  DataBatch batch = t.Batch(0, 2);
  m += batch;
  EXPECT_EQ(m.NRows(), 2u);
  EXPECT_VOREL_ASSERT(m.Mean(1), "0. < WeightSum()", kSource);
  EXPECT_VOREL_ASSERT(m.CCP(0, 2), "col < NColumns()", kSource);
  EXPECT_VOREL_ASSERT(m.CCP(1, 0), "0. < WeightSum()", kSource);

  Table three(3, false, false), withRw(2, false, true);
  three.AddRow({1, 2, 3});
  withRw.AddRow({1, 2});
  DataBatch wide = three.Batch(0, 1), regWeighted = withRw.Batch(0, 1);
  EXPECT_VOREL_ASSERT(m += wide, "_means.size() == d._means.size()", kSource);
  EXPECT_VOREL_ASSERT(m += regWeighted, "_hasRegWeights == d._hasRegWeights", kSource);
}

TEST(MatrixListwise, WorkedExamples) {
  const Table t = OneColumn({1, 2, 3, 5, 7});
  DataBatch first = t.Batch(0, 3), second = t.Batch(3, 5);
  MatrixListwise m;
  m += first;
  EXPECT_EQ(m.Mean(0), 2.0);
  EXPECT_EQ(m.CCP(0, 0), 2.0);
  m += second;
  // The decimal figures are rounded: 23.2 comes out one unit in the last place above.
  EXPECT_NEAR(m.CCP(0, 0), 23.2, 4 * kEps * 23.2);
  EXPECT_NEAR(m.Mean(0), 3.6, 4 * kEps * 3.6);
  EXPECT_EQ(m.WeightSum(), 5.0);
  EXPECT_EQ(m.RegWeightSum(), 5.0);
  EXPECT_EQ(m.NRows(), 5u);

  // Adding spends the batch: weights combined, regression weights as they
  // were, columns centred on the batch's means.
  Table t2(2, true, true);
  t2.AddRow({1, 10}, 2, 0.5);
  t2.AddRow({3, 10}, 3, 2);
  DataBatch batch = t2.Batch(0, 2);
  MatrixListwise m2;
  m2 += batch;
  EXPECT_EQ(m2.WeightSum(), 5.0);
  EXPECT_EQ(m2.RegWeightSum(), 7.0);
  EXPECT_TRUE(m2.HasRegWeights());
  EXPECT_EQ(batch.Weights()[0], 1.0);
  EXPECT_EQ(batch.Weights()[1], 6.0);
  EXPECT_EQ(batch.RegWeights()[1], 2.0);
  EXPECT_EQ(batch.Column(0)[0], 1.0 - m2.Mean(0));
  EXPECT_EQ(batch.Column(1)[1], 0.0);
  EXPECT_EQ(m2.Mean(1), 10.0);
}

TEST(MatrixListwise, EmptyAndZeroWeightInputs) {
  Table t(1, true, true);
  t.AddRow({5}, 1, 1);
  DataBatch empty = t.Batch(0, 0);
  MatrixListwise m, blank;
  m += empty;
  m += blank;
  EXPECT_EQ(m.NColumns(), 0u);
  EXPECT_FALSE(m.HasRegWeights());

  DataBatch one = t.Batch(0, 1);
  m += one;
  EXPECT_EQ(m.Mean(0), 5.0);
  EXPECT_EQ(m.CCP(0, 0), 0.0);
  m += empty;
  m += blank;
  EXPECT_EQ(m.NRows(), 1u);

  // Frequency weights totalling exactly 0 are ignored by a filled matrix,
  // whatever the combined weights total ...
  Table z(1, true, true);
  z.AddRow({1}, 2, 1);
  z.AddRow({7}, -2, 2);
  DataBatch zero = z.Batch(0, 2);
  m += zero;
  EXPECT_EQ(m.NRows(), 1u);
  EXPECT_EQ(m.Mean(0), 5.0);
  // ... but counted as a first batch.
  MatrixListwise fresh;
  z.Fill(zero, 0, 2);
  fresh += zero;
  EXPECT_EQ(fresh.NRows(), 2u);
  EXPECT_EQ(fresh.WeightSum(), 0.0);

  // Combined weights cancelling across the two sides: the means stay this side's.
  Table neg(1, true, true);
  neg.AddRow({9}, 1, -1);
  DataBatch cancel = neg.Batch(0, 1);
  m += cancel;
  EXPECT_EQ(m.RegWeightSum(), 0.0);
  EXPECT_EQ(m.Mean(0), 5.0);
  EXPECT_EQ(m.NRows(), 2u);
}

TEST(MatrixListwise, CopiesAreIndependentAndSelfAddDoubles) {
  const Table t = OneColumn({1, 2, 3, 5, 7});
  DataBatch first = t.Batch(0, 3), second = t.Batch(3, 5);
  MatrixListwise source, copy;
  source += first;
  copy += source;  // into an empty matrix: a copy
  MatrixListwise constructed(source), assigned;
  assigned = source;
  assigned = assigned;
  source += second;
  for (const MatrixListwise* m : {&copy, &constructed, &assigned}) {
    EXPECT_EQ(m->NRows(), 3u);
    EXPECT_EQ(m->CCP(0, 0), 2.0);
  }
  copy += copy;
  EXPECT_EQ(copy.NRows(), 6u);
  EXPECT_EQ(copy.RegWeightSum(), 6.0);
  EXPECT_EQ(copy.Mean(0), 2.0);
  EXPECT_EQ(copy.CCP(0, 0), 4.0);
  EXPECT_EQ(constructed.CCP(0, 0), 2.0);

  MatrixListwise moved(std::move(copy));
  copy = source;  // a moved-from matrix takes a new record
  EXPECT_EQ(copy.NRows(), 5u);
  // Row counts go on beyond 32 bits.
  for (int i = 0; i < 32; ++i)
    moved += moved;
  EXPECT_EQ(moved.NRows(), std::uint64_t{6} << 32);
  EXPECT_EQ(moved.WeightSum(), 0x6p32);
  EXPECT_EQ(moved.CCP(0, 0), 0x4p32);
}

TEST(MatrixListwise, TooManyColumnsForTheStore) {
  // (n + 1) n / 2 cells are indexed in 32 bits: 65,536 columns do not fit.
  DataBatch wide(65536, 1, nullptr, nullptr, nullptr);
  std::vector<double> row(65536, 1.0);
  wide.AddRow(row.data());
  MatrixListwise m;
  try {
    m += wide;
    ADD_FAILURE() << "no length_error";
  } catch (const std::length_error& e) {
    EXPECT_STREQ(e.what(), "vector<T> too long");
  }
  EXPECT_EQ(m.NColumns(), 0u);
  EXPECT_EQ(m.NRows(), 0u);
}

// Every batch and every merge gives the bits of the written-out arithmetic.
TEST(MatrixListwise, BitsEqualWrittenOutArithmetic) {
  const unsigned seed = 31337;
  SCOPED_TRACE(seed);
  std::mt19937_64 rng(seed);
  for (int pattern = 0; pattern < 4; ++pattern) {
    Table t = testing::wholetable::RandomTable(rng, 7, 60, pattern & 1, pattern & 2, 50.0);
    t.AddRow({1, 2, std::numeric_limits<double>::quiet_NaN(), 4, 5, 6, 7}, 0.0, 1.0);
    MatrixListwise m;
    RefListwise ref;
    std::size_t begin = 0;
    for (std::size_t size : {1, 9, 4, 20, 27}) {
      DataBatch batch = t.Batch(begin, begin + size);
      m += batch;
      const RefListwise part = RefReduce(t, begin, begin + size);
      if (begin == 0)
        ref = part;
      else
        RefMerge(ref, part);
      begin += size;
    }
    ASSERT_EQ(m.NRows(), ref.nRows);
    EXPECT_TRUE(SameBits(m.WeightSum(), ref.weightSum));
    EXPECT_TRUE(SameBits(m.RegWeightSum(), ref.regWeightSum));
    for (unsigned r = 0; r < 7; ++r) {
      EXPECT_TRUE(SameBits(m.Mean(r), ref.means[r])) << r;
      for (unsigned c = 0; c < 7; ++c)
        EXPECT_TRUE(SameBits(m.CCP(r, c),
                             ref.xp[std::max(r, c) * (std::max(r, c) + 1) / 2 + std::min(r, c)]))
            << r << "," << c;
    }
  }
}

// Values near 1e9 with spread near 1: the textbook formula loses every digit,
// the centred sums keep all but a few.
TEST(MatrixListwise, LargeOffsetKeepsAccuracy) {
  static_assert(std::numeric_limits<long double>::digits >= 64, "needs an extended oracle");
  const unsigned seed = 4242;
  SCOPED_TRACE(seed);
  std::mt19937_64 rng(seed);
  const Table t = testing::wholetable::RandomTable(rng, 2, 1000, true, false, 1e9);
  MatrixListwise m;
  for (std::size_t begin = 0; begin < 1000; begin += 100) {
    DataBatch batch = t.Batch(begin, begin + 100);
    m += batch;
  }
  long double total = 0, sum0 = 0, sum1 = 0;
  for (std::size_t i = 0; i < 1000; ++i) {
    total += t.Weights()[i];
    sum0 += t.Weights()[i] * static_cast<long double>(t.Cell(i, 0));
    sum1 += t.Weights()[i] * static_cast<long double>(t.Cell(i, 1));
  }
  const long double mean0 = sum0 / total, mean1 = sum1 / total;
  long double css = 0, cp = 0;
  double rawSum = 0, rawSq = 0;
  for (std::size_t i = 0; i < 1000; ++i) {
    const long double d0 = t.Cell(i, 0) - mean0, d1 = t.Cell(i, 1) - mean1;
    css += t.Weights()[i] * d0 * d0;
    cp += t.Weights()[i] * d0 * d1;
    rawSum += t.Weights()[i] * t.Cell(i, 0);
    rawSq += t.Weights()[i] * t.Cell(i, 0) * t.Cell(i, 0);
  }
  const double textbook = rawSq - rawSum * rawSum / static_cast<double>(total);
  EXPECT_GT(std::fabs(textbook - static_cast<double>(css)), static_cast<double>(css));
  // Each merge moves means near 1e9, exact to a unit in their last place; the
  // between-means terms scale that by about sqrt(CSS x weight).
  const double tolerance = std::sqrt(static_cast<double>(css * total)) * kEps * 1e9;
  EXPECT_LT(tolerance, 1e-6 * static_cast<double>(css));
  EXPECT_NEAR(m.CCP(0, 0), static_cast<double>(css), tolerance);
  EXPECT_NEAR(m.CCP(1, 0), static_cast<double>(cp), tolerance);
  EXPECT_NEAR(m.Mean(0), static_cast<double>(mean0), 4 * kEps * 1e9);
}

}  // namespace
}  // namespace vorel
