// SMatrixPairwise and NSMatrixPairwise against the plain-loop reference, bit
// for bit, over batch splits, weightings, merges and threads.
#include <vorel/databatch.h>
#include <vorel/nsmatrixpairwise.h>
#include <vorel/smatrixpairwise.h>

#include <cmath>
#include <limits>
#include <tuple>
#include <vector>

#include "pairwise_block_reference.h"
#include "test_support.h"

namespace vorel {
namespace {

using testing::pairwiseblocks::Batches;
using testing::pairwiseblocks::ExpectSameBlock;
using testing::pairwiseblocks::NSBlock;
using testing::pairwiseblocks::EdgeTable;
using testing::pairwiseblocks::RefBlock;
using testing::pairwiseblocks::SBlock;
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

}  // namespace
}  // namespace vorel
