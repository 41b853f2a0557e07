// The masked pair kernel over several chunks of rows, where a lane's state
// has to carry from one chunk to the next: first kept rows late in the batch,
// leading runs of one value that outlast a chunk or never end, a column
// missing throughout, NaN cells; every level, every weighting, against the
// per-pair reduction bit for bit.
#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <tuple>
#include <vector>

#include "kernels/crossproducts.h"
#include "pairwise_reference.h"
#include "test_support.h"

namespace vorel::internal {
namespace {

using testing::pairwise::PairFields;
using testing::pairwise::RefInit;
using testing::pairwise::SameFields;
using testing::pairwise::VarFields;

constexpr double kCode = -99.0;
constexpr int kColumns = 40;  // several blocks of lanes at every level
constexpr int kRows = 3000;   // several chunks at this width

// Column j by its kind (j % 8): what makes its lanes hard to carry across
// chunks. Every kind but the missing one also loses 5 % of its cells at
// random, so that the first variables skip rows too.
std::vector<std::vector<double>> Columns(std::mt19937_64& rng) {
  std::uniform_real_distribution<double> value(-50.0, 50.0);
  std::vector<std::vector<double>> cols(kColumns, std::vector<double>(kRows));
  for (int j = 0; j < kColumns; ++j)
    for (int i = 0; i < kRows; ++i) {
      double& x = cols[j][i];
      x = value(rng);
      switch (j % 8) {
        case 0:  // nothing before row 1100
          if (i < 1100) x = kCode;
          break;
        case 1:  // a leading run of one value past the first chunks
          if (i < 1500) x = 2.5;
          break;
        case 2:  // one value throughout: the run never ends
          x = 4.0;
          break;
        case 3:  // only the last three rows
          if (i < kRows - 3) x = kCode;
          break;
        case 4:  // missing throughout, or a NaN cell
          if (j == 4) x = kCode;
          if (i == 2000) x = std::nan("");
          break;
        default:
          break;
      }
      if (rng() % 20 == 0) x = kCode;
    }
  return cols;
}

std::vector<double> Fields(const PairFigures& f) {
  return {f.nRows, f.weightSum, f.regWeightSum, f.mean0, f.mean1, f.css0, f.css1, f.cscp};
}

std::vector<double> Fields(const ColumnFigures& f) {
  return {f.nRows, f.weightSum, f.regWeightSum, f.mean, f.css};
}

class MaskedPairsAcrossChunks
    : public ::testing::TestWithParam<std::tuple<KernelLevel, int /* weighting */>> {
 protected:
  void SetUp() override {
    if (!SetKernelLevel(std::get<0>(GetParam())))
      GTEST_SKIP() << "no " << KernelLevelName(std::get<0>(GetParam())) << " kernels here";
  }
  void TearDown() override { SetKernelLevel(BestKernelLevel()); }
};

TEST_P(MaskedPairsAcrossChunks, MatchThePerPairReduction) {
  const int weighting = std::get<1>(GetParam());
  std::mt19937_64 rng(0x5eed + weighting);
  std::vector<std::vector<double>> cols = Columns(rng);
  std::uniform_real_distribution<double> weight(0.1, 3.0);
  std::vector<double> w(kRows), rw(kRows), combined(kRows);
  for (int i = 0; i < kRows; ++i) {
    w[i] = weight(rng);
    rw[i] = weight(rng);
  }
  const double* wp = weighting & 1 ? w.data() : nullptr;
  const double* rwp = weighting & 2 ? rw.data() : nullptr;
  for (int i = 0; i < kRows; ++i)
    combined[i] = wp && rwp ? w[i] * rw[i] : wp ? w[i] : rwp ? rw[i] : 0.0;
  std::vector<double*> all;
  for (auto& c : cols)
    all.push_back(c.data());

  MaskedPairsJob job;
  job.weights = wp;
  job.combined = wp || rwp ? combined.data() : nullptr;
  job.hasRegWeights = rwp != nullptr;
  job.missingCode = kCode;
  job.nRows = kRows;
  const auto want = [&](int c, int d) { return RefInit(all[c], all[d], wp, rwp, kCode, kRows); };

  // The triangle with the columns' own figures.
  job.first = ColumnBlock{nullptr, 0, kColumns, all.data()};
  std::vector<PairFigures> got(kColumns * (kColumns - 1) / 2);
  std::vector<ColumnFigures> own(kColumns);
  job.out = got.data();
  job.columns = own.data();
  MaskedPairs(job);
  for (int c = 0, k = 0; c < kColumns; ++c) {
    EXPECT_PRED2(SameFields, Fields(own[c]), VarFields(want(c, c))) << c;
    for (int d = 0; d < c; ++d, ++k)
      EXPECT_PRED2(SameFields, Fields(got[k]), PairFields(want(c, d))) << c << "," << d;
  }

  // A rectangle whose first variables are the odd columns, the seconds the
  // even ones.
  std::vector<double*> odd, even;
  for (int j = 0; j < kColumns; ++j)
    (j % 2 ? odd : even).push_back(all[j]);
  job.triangle = false;
  job.first = ColumnBlock{nullptr, 0, static_cast<int>(odd.size()), odd.data()};
  job.second = ColumnBlock{nullptr, 0, static_cast<int>(even.size()), even.data()};
  job.columns = nullptr;
  got.assign(odd.size() * even.size(), PairFigures{});
  job.out = got.data();
  MaskedPairs(job);
  for (int r = 0, k = 0; r < static_cast<int>(odd.size()); ++r)
    for (int c = 0; c < static_cast<int>(even.size()); ++c, ++k)
      EXPECT_PRED2(SameFields, Fields(got[k]), PairFields(want(2 * r + 1, 2 * c)))
          << 2 * r + 1 << "," << 2 * c;
}

INSTANTIATE_TEST_SUITE_P(Levels, MaskedPairsAcrossChunks,
                         ::testing::Combine(::testing::Values(KernelLevel::Plain, KernelLevel::Avx2,
                                                              KernelLevel::Avx512),
                                            ::testing::Range(0, 4)));

}  // namespace
}  // namespace vorel::internal
