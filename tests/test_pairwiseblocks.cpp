// SMatrixPairwise and NSMatrixPairwise against the plain-loop reference, bit
// for bit, over batch splits, weightings, merges and threads.
#include <vorel/databatch.h>
#include <vorel/matrixpairwise.h>
#include <vorel/nsmatrixpairwise.h>
#include <vorel/smatrixpairwise.h>

#include <cmath>
#include <cstdint>
#include <initializer_list>
#include <limits>
#include <tuple>
#include <utility>
#include <vector>

#include "pairwise_block_reference.h"
#include "test_support.h"

namespace vorel {
namespace {

using testing::SameBits;
using testing::pairwiseblocks::Batches;
using testing::pairwiseblocks::ExpectSameBlock;
using testing::pairwiseblocks::NSBlock;
using testing::pairwiseblocks::EdgeTable;
using testing::pairwiseblocks::RefBlock;
using testing::pairwiseblocks::SBlock;
using testing::pairwiseblocks::RandomTable;
using testing::pairwiseblocks::Table;

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr double kCode = testing::pairwiseblocks::kEdgeCode;

// weights, regression weights, rows per batch, the matrices' missing code
using Split = std::tuple<bool, bool, unsigned, double>;
class PairwiseBlocks : public ::testing::TestWithParam<Split> {};

TEST_P(PairwiseBlocks, BatchesAndMergesEqualWrittenOutArithmetic) {
  const auto [hasW, hasRW, batchRows, code] = GetParam();
  const Table table = EdgeTable(hasW, hasRW);
  Batches batches(table, batchRows);
  // S over [1, 6) and NS over [0, 2) x [2, 7), each fed the first half of the
  // batches in one matrix and the second half in another, then merged.
  SMatrixPairwise s0(code, 1, 6), s1(code, 1, 6);
  NSMatrixPairwise ns0(code, 0, 2, 7), ns1(code, 0, 2, 7);
  RefBlock rs0 = SBlock(code, 1, 6), rs1 = rs0, rns0 = NSBlock(code, 0, 2, 7), rns1 = rns0;
  const std::size_t half = batches.list.size() / 2;
  for (std::size_t i = 0; i < batches.list.size(); ++i) {
    DataBatch& batch = batches.list[i];
    (i < half ? s0 : s1) += batch;
    (i < half ? ns0 : ns1) += batch;
    (i < half ? rs0 : rs1).Add(batch);
    (i < half ? rns0 : rns1).Add(batch);
  }
  {
    SCOPED_TRACE("first half");
    ExpectSameBlock(s0, rs0);
    ExpectSameBlock(ns0, rns0);
  }
  s0 += s1;
  ns0 += ns1;
  rs0.Merge(rs1);
  rns0.Merge(rns1);
  {
    SCOPED_TRACE("merged");
    ExpectSameBlock(s0, rs0);
    ExpectSameBlock(ns0, rns0);
  }
  // Adding a matrix to itself doubles every sum and count and keeps the means.
  s0 += s0;
  ns0 += ns0;
  const RefBlock rsTwice = rs0, rnsTwice = rns0;
  rs0.Merge(rsTwice);
  rns0.Merge(rnsTwice);
  {
    SCOPED_TRACE("added to itself");
    ExpectSameBlock(s0, rs0);
    ExpectSameBlock(ns0, rns0);
  }
  // With a NaN code nothing is missing: every column counts every row.
  if (std::isnan(code)) {
    EXPECT_EQ(s0.Var(3).NRows(), 2 * static_cast<int>(table.rows.size()));
  }
  // The batches were only read.
  for (std::size_t r = 0; r < table.rows.size(); ++r) {
    const DataBatch& batch = batches.list[r / batchRows];
    for (unsigned c = 0; c < table.NCols(); ++c)
      EXPECT_PRED2(testing::SameBits, batch.Column(c)[r % batchRows], table.rows[r][c]);
    if (hasW) {
      EXPECT_EQ(batch.Weights()[r % batchRows], table.w[r]);
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Splits, PairwiseBlocks,
                         ::testing::Combine(::testing::Bool(), ::testing::Bool(),
                                            ::testing::Values(1u, 4u, 9u, 64u),
                                            ::testing::Values(kCode, kNaN)));

// A wide table read by the whole-table matrix and by blocks that tile it: S
// over [0, 4) and [4, 9) on the diagonal, NS (0, 4, 9) off it. Column
// records agree bit for bit everywhere. Both the whole table and an S block
// make the higher column a pair's first variable, so S pairs agree bit for
// bit too. An NS pair has the lower column first: its Mean0 and CSS0 are the
// whole table's Mean1 and CSS1, bit for bit, but its CSCP forms the products
// (w x_lo) x_hi where the whole table forms (w x_hi) x_lo, and the merge
// terms likewise, so CSCP agrees only up to rounding, bounded here by
// Cauchy-Schwarz (|terms| sum to at most sqrt(CSS0 CSS1)).
TEST(PairwiseBlocks, TileOfBlocksAgreesWithWholeTable) {
  const Table table = RandomTable(9, 150, 77u, true, true, kCode);
  Batches batches(table, 16);
  MatrixPairwise whole(kCode);
  SMatrixPairwise all(kCode), low(kCode, 0, 4), high(kCode, 4, 9);
  NSMatrixPairwise cross(kCode, 0, 4, 9);
  for (DataBatch& batch : batches.list) {
    whole += batch;
    for (MatrixBase* block : std::initializer_list<MatrixBase*>{&all, &low, &high, &cross})
      *block += batch;
  }
  ASSERT_EQ(static_cast<int>(whole.NRows()), all.NRows());
  ASSERT_TRUE(SameBits(whole.WeightSum(), cross.WeightSum()));
  ASSERT_TRUE(SameBits(whole.RegWeightSum(), cross.RegWeightSum()));
  const double tolerance = 4.0 * 150 * std::numeric_limits<double>::epsilon();
  for (int h = 0; h < 9; ++h) {
    const VarStats w = whole.Var(h);
    for (const VarStat* v : {&all.Var(h), &cross.Var(h), h < 4 ? &low.Var(h) : &high.Var(h)}) {
      EXPECT_EQ(w.NRows(), static_cast<std::uint64_t>(v->NRows()));
      EXPECT_PRED2(SameBits, w.Mean(), v->Mean());
      EXPECT_PRED2(SameBits, w.CSS(), v->CSS());
      EXPECT_PRED2(SameBits, w.RegWeightSum(), v->RegWeightSum());
    }
    for (int l = 0; l < h; ++l) {
      SCOPED_TRACE(::testing::Message() << "pair " << h << ", " << l);
      const PairStats w2 = whole.Pair(h, l);
      const PairStat& block = l >= 4 ? high.Pair(h, l) : h < 4 ? low.Pair(h, l) : cross.Pair(l, h);
      const bool lowerFirst = l < 4 && h >= 4;
      for (const PairStat* p : {&std::as_const(all.Pair(l, h)), &block}) {
        const bool swapped = p == &block && lowerFirst;
        EXPECT_EQ(w2.NRows(), static_cast<std::uint64_t>(p->NRows()));
        EXPECT_PRED2(SameBits, w2.WeightSum(), p->WeightSum());
        EXPECT_PRED2(SameBits, w2.RegWeightSum(), p->RegWeightSum());
        EXPECT_PRED2(SameBits, w2.Mean0(), swapped ? p->Mean1() : p->Mean0());
        EXPECT_PRED2(SameBits, w2.Mean1(), swapped ? p->Mean0() : p->Mean1());
        EXPECT_PRED2(SameBits, w2.CSS0(), swapped ? p->CSS1() : p->CSS0());
        EXPECT_PRED2(SameBits, w2.CSS1(), swapped ? p->CSS0() : p->CSS1());
        if (swapped) {
          EXPECT_NEAR(w2.CSCP(), p->CSCP(), tolerance * std::sqrt(w2.CSS0() * w2.CSS1()));
        } else {
          EXPECT_PRED2(SameBits, w2.CSCP(), p->CSCP());
        }
      }
    }
  }
}

}  // namespace
}  // namespace vorel
