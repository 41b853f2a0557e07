// SMatrixPairwise and NSMatrixPairwise against the plain-loop reference, bit
// for bit, through Driver, and tiling a wide table against MatrixPairwise.
#include <vorel/databatch.h>
#include <vorel/driver.h>
#include <vorel/matrixpairwise.h>
#include <vorel/nsmatrixpairwise.h>
#include <vorel/smatrixpairwise.h>

#include <cmath>
#include <initializer_list>
#include <limits>
#include <tuple>
#include <vector>

#include "pairwise_block_reference.h"
#include "test_support.h"

namespace vorel {
namespace {

using namespace testing::pairwiseblocks;
using testing::SameBits;

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

// Each worker takes prepared batches by index and feeds each batch to an S
// and an NS matrix of its own. The workers' S matrices are built without
// bounds and take [0, 7) from their first batch, while the shared one has
// [1, 6): the first merge copies a worker's matrix whole, bounds included.
struct Pass : ProblemBase {
  struct Worker : WorkerBase {
    Worker(Pass& p) : pass(p), s(p.code), ns(p.code, 0, 2, 7) {}
    bool ReadBatch() override {
      if (pass.next == pass.batches.list.size()) return false;
      taken.push_back(pass.next++);
      return true;
    }
    void ProcessBatch() override {
      s += pass.batches.list[taken.back()];
      ns += pass.batches.list[taken.back()];
    }
    void MergeResult() override {
      pass.s += s;
      pass.ns += ns;
      pass.merged.push_back(taken);
    }
    Pass& pass;
    SMatrixPairwise s;
    NSMatrixPairwise ns;
    std::vector<std::size_t> taken;
  };
  Pass(Batches& b, double c) : batches(b), code(c), s(c, 1, 6), ns(c, 0, 2, 7) {}
  WorkerBase* CreateWorker() override { return new Worker(*this); }

  Batches& batches;
  double code;
  std::size_t next = 0;  // under the driver's read lock
  SMatrixPairwise s;
  NSMatrixPairwise ns;
  std::vector<std::vector<std::size_t>> merged;  // under the driver's result lock
};

// threads, (weights, regression weights), rows per batch, missing code
using Schedule = std::tuple<int, std::tuple<bool, bool>, unsigned, double>;
class PairwiseBlocksThreaded : public ::testing::TestWithParam<Schedule> {};

// Whatever batches each thread takes and in whatever order the threads merge,
// the shared matrices equal a replay of exactly that in the reference.
TEST_P(PairwiseBlocksThreaded, DriverEqualsReplayOfItsSchedule) {
  const auto [nThreads, weighting, batchRows, code] = GetParam();
  const Table table = RandomTable(7, 160, std::get<0>(weighting), std::get<1>(weighting), true);
  Batches batches(table, batchRows);
  Pass pass(batches, code);
  Driver(&pass, nThreads);

  RefBlock rs = SBlock(code, 1, 6), rns = NSBlock(code, 0, 2, 7);
  for (const auto& taken : pass.merged) {
    RefBlock ws = SBlock(code, 0, 7), wns = NSBlock(code, 0, 2, 7);
    for (std::size_t i : taken) {
      ws.Add(batches.list[i]);
      wns.Add(batches.list[i]);
    }
    rs.Merge(ws);
    rns.Merge(wns);
  }
  EXPECT_EQ(pass.s.Col2(), 7);
  ExpectSameBlock(pass.s, rs);
  ExpectSameBlock(pass.ns, rns);
  // Added to itself, a matrix doubles every sum and count and keeps its means.
  pass.s += pass.s;
  pass.ns += pass.ns;
  rs.Merge(RefBlock(rs));
  rns.Merge(RefBlock(rns));
  ExpectSameBlock(pass.s, rs);
  ExpectSameBlock(pass.ns, rns);
  // With a NaN code no cell is missing.
  EXPECT_EQ(pass.ns.Var(3).NRows(), std::isnan(code) ? 320 : rns.vars[3].nRows);
  // The batches were only read.
  for (std::size_t r = 0; r < table.rows.size(); ++r)
    for (unsigned c = 0; c < 7; ++c)
      EXPECT_PRED2(SameBits, batches.list[r / batchRows].Column(c)[r % batchRows],
                   table.rows[r][c]);
}

INSTANTIATE_TEST_SUITE_P(
    Schedules, PairwiseBlocksThreaded,
    ::testing::Combine(::testing::Values(1, 2, 4, 8),
                       ::testing::Values(std::tuple(false, false), std::tuple(true, false),
                                         std::tuple(false, true), std::tuple(true, true)),
                       ::testing::Values(1u, 7u, 64u), ::testing::Values(kCode, kNaN)));

// A wide table read by the whole-table matrix and by blocks that tile it: S
// over [0, 4) and [4, 9) on the diagonal, NS (0, 4, 9) off it, and one S over
// all columns. Column records agree bit for bit everywhere. The whole table
// and an S block both make the higher column a pair's first variable, so S
// pairs agree bit for bit too. An NS pair has the lower column first: its
// Mean0 and CSS0 are the whole table's Mean1 and CSS1, bit for bit, but its
// CSCP forms the products (w x_lo) x_hi where the whole table forms
// (w x_hi) x_lo, and the merge terms likewise, so CSCP agrees up to rounding,
// bounded by Cauchy-Schwarz: the terms' magnitudes total at most sqrt(CSS0 CSS1).
TEST(PairwiseBlocks, TileOfBlocksAgreesWithWholeTable) {
  const Table table = RandomTable(9, 150, true, true, false);
  Batches batches(table, 16);
  MatrixPairwise whole(kCode);
  SMatrixPairwise all(kCode), low(kCode, 0, 4), high(kCode, 4, 9);
  NSMatrixPairwise cross(kCode, 0, 4, 9);
  for (DataBatch& batch : batches.list) {
    whole += batch;
    for (MatrixBase* block : std::initializer_list<MatrixBase*>{&all, &low, &high, &cross})
      *block += batch;
  }
  ASSERT_EQ(static_cast<int>(whole.NRows()), cross.NRows());
  ASSERT_PRED2(SameBits, whole.RegWeightSum(), all.RegWeightSum());
  const double tolerance = 4.0 * 150 * std::numeric_limits<double>::epsilon();
  for (int h = 0; h < 9; ++h) {
    const std::vector<double> var = {static_cast<double>(whole.Var(h).NRows()),
                                     whole.Var(h).WeightSum(), whole.Var(h).RegWeightSum(),
                                     whole.Var(h).Mean(), whole.Var(h).CSS()};
    for (const VarStat* v : {&all.Var(h), &cross.Var(h), &(h < 4 ? low : high).Var(h)}) {
      std::vector<double> fields = Fields(*v);
      fields.resize(5);  // the whole table keeps no extremes
      EXPECT_PRED2(SameFields, var, fields) << h;
    }
    for (int l = 0; l < h; ++l) {
      const PairStats w = whole.Pair(h, l);
      const std::vector<double> pair = {static_cast<double>(w.NRows()),
                                        w.WeightSum(),
                                        w.RegWeightSum(),
                                        w.Mean0(),
                                        w.Mean1(),
                                        w.CSS0(),
                                        w.CSS1(),
                                        w.CSCP()};
      EXPECT_PRED2(SameFields, pair, Fields(all.Pair(l, h))) << h << ", " << l;
      if (h < 4 || l >= 4) {
        EXPECT_PRED2(SameFields, pair, Fields((h < 4 ? low : high).Pair(l, h))) << h << ", " << l;
        continue;
      }
      const std::vector<double> p = Fields(cross.Pair(h, l));
      EXPECT_PRED2(SameFields, pair,
                   (std::vector<double>{p[0], p[1], p[2], p[4], p[3], p[6], p[5], pair[7]}));
      EXPECT_NEAR(w.CSCP(), p[7], tolerance * std::sqrt(w.CSS0() * w.CSS1())) << h << ", " << l;
    }
  }
}

}  // namespace
}  // namespace vorel
