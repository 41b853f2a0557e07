// MatrixPairwise on hand-worked cases; what it shares with the block matrices
// (worked table, merges, copies, bits through Driver) is in test_pairwiseblocks.
#include <vorel/databatch.h>
#include <vorel/matrixpairwise.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <vector>

#include "pairwise_reference.h"
#include "table_support.h"
#include "test_support.h"

namespace vorel {
namespace {

using testing::pairwise::PairFields;
using testing::pairwise::VarFields;
using testing::tables::MakeBatch;
using testing::tables::Table;
using Values = std::vector<double>;
constexpr const char* kSource = "backend/vorel/matrixpairwise";
constexpr double kEps = std::numeric_limits<double>::epsilon();
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

MatrixPairwise Accumulated(const Table& t, std::size_t begin, std::size_t end, double code = -99) {
  MatrixPairwise m(code);
  DataBatch batch = MakeBatch(t, begin, end);
  m += batch;
  return m;
}

TEST(MatrixPairwise, NewMatrixAndPreconditions) {
  MatrixPairwise m(-99);
  EXPECT_EQ(m.NRows(), 0u);
  EXPECT_EQ(m.WeightSum(), 0.0);
  EXPECT_EQ(m.RegWeightSum(), 0.0);
  EXPECT_FALSE(m.HasRegWeights());
  EXPECT_EQ(m.MissingCode(), -99.0);
  EXPECT_VOREL_ASSERT(m.Var(0), "col < NColumns()", kSource);
  const Table wide{{{1, 2, 3}}};
  DataBatch batch = MakeBatch(Table{{{1, 2}}}, 0, 1), wideBatch = MakeBatch(wide, 0, 1);
  m += batch;
  EXPECT_VOREL_ASSERT(m.Pair(2, 0), "row < NColumns()", kSource);
  EXPECT_VOREL_ASSERT(m.Pair(0, 2), "col < NColumns()", kSource);
  EXPECT_VOREL_ASSERT(m.Pair(1, 1), "row != col", kSource);
  EXPECT_VOREL_ASSERT(m += wideBatch, "_varStats.size() == nCols", kSource);
  EXPECT_VOREL_ASSERT(m += Accumulated(wide, 0, 1), "_varStats.size() == d._varStats.size()",
                      kSource);
  // (n - 1) n must fit 32 bits: 65,537 columns do not.
  MatrixPairwise fresh(-99);
  DataBatch tooWide = MakeBatch(Table{{Values(65537, 1.0)}}, 0, 1);
  testing::tables::ExpectVectorTooLong([&] { fresh += tooWide; });
  EXPECT_EQ(fresh.NColumns(), 0u);
}

TEST(MatrixPairwise, WorkedExamplesAndDeletionRules) {
  // Column 0 of a pair is the higher column, whichever order it is asked in.
  const Table t{{{1, 4}, {2, -99}, {-99, 8}}};
  EXPECT_EQ(PairFields(Accumulated(t, 0, 3).Pair(1, 0)), (Values{1, 1, 1, 4, 1, 0, 0, 0}));
  // A NaN code compares equal to nothing: every cell counts.
  EXPECT_EQ(Accumulated(t, 0, 3, kNaN).Pair(1, 0).NRows(), 3u);
  const MatrixPairwise w = Accumulated(Table{{{2}, {4}}, {1, 3}, {2, 1}}, 0, 2);
  const Values fields = VarFields(w.Var(0));
  EXPECT_EQ(Values(fields.begin(), fields.begin() + 3), (Values{2, 4, 5}));
  EXPECT_NEAR(w.Var(0).Mean(), 3.2, 2 * kEps * 3.2);
  EXPECT_NEAR(w.Var(0).CSS(), 4.8, 4 * kEps * 4.8);

  // Column 1 missing throughout; row 2 missing everywhere; a NaN cell in
  // column 2, whose pair with column 0 loses only that column's figures.
  const Table d{{{1, -99, 5}, {3, -99, kNaN}, {-99, -99, -99}, {5, -99, 7}, {-99, 2, 2}},
                {1, 1, 4, 2, 1}};
  MatrixPairwise m = Accumulated(d, 0, 4);
  EXPECT_EQ(m.NRows(), 4u);
  EXPECT_EQ(m.WeightSum(), 8.0);
  EXPECT_EQ(VarFields(m.Var(0)), (Values{3, 4, 4, 3.5, 11}));
  const VarStats gone = m.Var(1);
  EXPECT_EQ(VarFields(gone), Values(5, 0.0));
  EXPECT_TRUE(std::isnan(m.Var(2).Mean()));
  EXPECT_PRED2(testing::pairwise::SameFields, PairFields(m.Pair(0, 2)),
               (Values{3, 4, 4, kNaN, 3.5, kNaN, 11, kNaN}));
  DataBatch batch = MakeBatch(d, 4, 5);
  m += batch;
  EXPECT_EQ(gone.NRows(), 1u);  // a view shows what later batches add
  for (int i = 0; i < 32; ++i)
    m += m;  // counts go on beyond 32 bits, everywhere
  EXPECT_EQ(m.NRows(), std::uint64_t{5} << 32);
  EXPECT_EQ(m.Var(0).NRows(), std::uint64_t{3} << 32);
  EXPECT_EQ(m.Pair(1, 2).NRows(), std::uint64_t{1} << 32);
  // One column has no pairs.
  EXPECT_VOREL_ASSERT(Accumulated(Table{{{2}}}, 0, 1).Pair(0, 0), "row != col", kSource);
}

TEST(MatrixPairwise, ZeroWeightRules) {
  // All weights 0: rows counted, Var barred; a non-constant column's css is
  // NaN until weight arrives, a constant one keeps css 0.
  const Table z{{{1, 3}, {2, 3}, {1, 3}}, {0, 0, 1}};
  MatrixPairwise zero = Accumulated(z, 0, 2);
  EXPECT_EQ(zero.NRows(), 2u);
  EXPECT_VOREL_ASSERT(zero.Pair(1, 0), "0. < WeightSum()", kSource);
  DataBatch last = MakeBatch(z, 2, 3);
  zero += last;
  EXPECT_EQ(zero.Var(0).Mean(), 1.0);
  EXPECT_TRUE(std::isnan(zero.Var(0).CSS()));
  EXPECT_EQ(VarFields(zero.Var(1)), (Values{3, 1, 1, 3, 0}));
  // A merged matrix is tested on its frequency weights, whatever its combined
  // weights total.
  const Table rw{{{5}, {1}, {2}}, {1, 1, -1}, {1, 1, 2}};
  MatrixPairwise withRw = Accumulated(rw, 0, 1);
  withRw += Accumulated(rw, 1, 3);
  EXPECT_EQ(withRw.NRows(), 1u);
}

}  // namespace
}  // namespace vorel
