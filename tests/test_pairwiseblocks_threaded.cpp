// The pairwise block matrices through Driver: whatever batches each thread
// takes and in whatever order the threads merge, the shared matrices equal a
// replay of that schedule in the plain-loop reference, bit for bit.
#include <vorel/databatch.h>
#include <vorel/driver.h>
#include <vorel/nsmatrixpairwise.h>
#include <vorel/smatrixpairwise.h>

#include <tuple>
#include <vector>

#include "pairwise_block_reference.h"
#include "test_support.h"

namespace vorel {
namespace {

using testing::pairwiseblocks::Batches;
using testing::pairwiseblocks::EdgeTable;
using testing::pairwiseblocks::ExpectSameBlock;
using testing::pairwiseblocks::NSBlock;
using testing::pairwiseblocks::RefBlock;
using testing::pairwiseblocks::SBlock;
using testing::pairwiseblocks::Table;

constexpr double kCode = testing::pairwiseblocks::kEdgeCode;

struct Pass;

// Reads whole prepared batches by index and feeds each to an S and an NS
// matrix of its own; remembers which batches it took.
struct BlockWorker : WorkerBase {
  explicit BlockWorker(Pass& pass);
  bool ReadBatch() override;
  void ProcessBatch() override;
  void MergeResult() override;

  Pass& pass;
  SMatrixPairwise s;
  NSMatrixPairwise ns;
  DataBatch* batch = nullptr;
  std::vector<std::size_t> taken;
};

// The shared matrices, and the batches each worker merged, in merge order.
struct Pass : ProblemBase {
  explicit Pass(std::vector<DataBatch>& list) : batches(list) {}
  WorkerBase* CreateWorker() override { return new BlockWorker(*this); }

  std::vector<DataBatch>& batches;
  std::size_t next = 0;  // guarded by the driver's read lock
  SMatrixPairwise s{kCode, 1, 6};
  NSMatrixPairwise ns{kCode, 0, 2, 7};
  std::vector<std::vector<std::size_t>> merged;  // guarded by the driver's result lock
};

BlockWorker::BlockWorker(Pass& p) : pass(p), s(kCode), ns(kCode, 0, 2, 7) {}

bool BlockWorker::ReadBatch() {
  if (pass.next == pass.batches.size()) return false;
  taken.push_back(pass.next);
  batch = &pass.batches[pass.next++];
  return true;
}

void BlockWorker::ProcessBatch() {
  s += *batch;
  ns += *batch;
}

void BlockWorker::MergeResult() {
  pass.s += s;
  pass.ns += ns;
  pass.merged.push_back(taken);
}

class PairwiseBlocksThreaded : public ::testing::TestWithParam<std::tuple<int, unsigned>> {};

// Whatever batches each thread takes and in whatever order the threads merge,
// the shared matrices equal a replay of exactly that in the reference. The
// workers' S matrices are built without bounds and take columns [0, 7) from
// their first batch, while the shared one has [1, 6): the first merge copies
// a worker's matrix whole, bounds included.
TEST_P(PairwiseBlocksThreaded, DriverEqualsReplayOfItsSchedule) {
  const auto [nThreads, batchRows] = GetParam();
  const Table table = EdgeTable(true, true, 400);
  Batches batches(table, batchRows);
  Pass pass(batches.list);
  Driver(&pass, nThreads);

  std::size_t seen = 0;
  RefBlock rs = SBlock(kCode, 1, 6), rns = NSBlock(kCode, 0, 2, 7);
  for (const auto& taken : pass.merged) {
    RefBlock ws = SBlock(kCode, 0, 7), wns = NSBlock(kCode, 0, 2, 7);
    for (std::size_t i : taken) {
      ws.Add(batches.list[i]);
      wns.Add(batches.list[i]);
    }
    rs.Merge(ws);
    rns.Merge(wns);
    seen += taken.size();
  }
  EXPECT_EQ(seen, batches.list.size());
  EXPECT_EQ(pass.s.Col2(), 7);
  ExpectSameBlock(pass.s, rs);
  ExpectSameBlock(pass.ns, rns);
}

INSTANTIATE_TEST_SUITE_P(Schedules, PairwiseBlocksThreaded,
                         ::testing::Combine(::testing::Values(1, 2, 4, 8),
                                            ::testing::Values(1u, 5u, 64u)));

}  // namespace
}  // namespace vorel
