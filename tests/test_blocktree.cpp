// The reproducible reduction: every result class gives the bits of the fixed
// tree for any arrival order and split of the blocks into parts, where the
// order of plain merging shows in the last bits; and so does a pass on threads.
#include <vorel/blocktree.h>

#include <algorithm>
#include <atomic>
#include <bit>
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <random>
#include <thread>
#include <utility>
#include <vector>

#include "blocktree_support.h"

namespace vorel::testing::blocktree {
namespace {

// Every cut of [0, n) in two, and random cuts into up to seven parts of
// uneven sizes, some maybe empty: the parts [cut[i], cut[i + 1]).
std::vector<std::vector<std::uint64_t>> Splits(std::uint64_t n) {
  std::vector<std::vector<std::uint64_t>> splits;
  for (std::uint64_t cut = 0; cut <= n; ++cut)
    splits.push_back({0, cut, n});
  std::mt19937 engine(7);
  for (unsigned trial = 0; trial < 12; ++trial) {
    std::vector<std::uint64_t> cuts{0, n};
    for (unsigned k = 0; k < 2 + trial % 5; ++k)
      cuts.push_back(engine() % (n + 1));
    std::sort(cuts.begin(), cuts.end());
    splits.push_back(cuts);
  }
  return splits;
}

// One part reduced on its own, as another process would: its tree starts at
// the part's first block and takes its blocks in a shuffled order. The forest
// comes back node by node from the saved states of its results.
template <class R>
BlockForest<R> PartForest(const Grid& grid, std::uint64_t first, std::uint64_t end, unsigned seed) {
  BlockTree<R> tree(Fresh<R>, first);
  std::vector<std::uint64_t> blocks;
  for (std::uint64_t b = first; b < end; ++b)
    blocks.push_back(tree.NextBlock());
  std::shuffle(blocks.begin(), blocks.end(), std::mt19937(seed));
  for (const std::uint64_t block : blocks)
    tree.AddBlock(block, ReduceBlock<R>(grid, block));
  const BlockForest<R> forest = tree.TakeForest();
  BlockForest<R> reloaded;
  for (const auto& node : forest.Nodes())
    reloaded.Insert({node.level, node.index, R::LoadState(node.result.SaveState())});
  return reloaded;
}

template <class R>
class BlockForestSplit : public ::testing::Test {};
TYPED_TEST_SUITE(BlockForestSplit, ResultClasses);

// Parts cut on the block grid, reduced apart with their blocks in any order
// and combined in any order, make the bits of one pass (one part of every
// block is a whole pass in a shuffled order). The blocks merged one after
// another give other bits: the rows show a wrong order.
TYPED_TEST(BlockForestSplit, PartsCombineIntoTheWholePass) {
  using R = TypeParam;
  // 45 blocks (binary 101101, so the final sum adds four runs), the last one
  // short.
  const Table t = OrderSensitiveTable(2026, 44 * 23 + 13);
  const Grid grid{t, 23};
  const State reference = TreeReference<R>(grid);
  R inBlockOrder = Fresh<R>();
  for (std::uint64_t block = 0; block < grid.Blocks(); ++block) {
    R reduced = ReduceBlock<R>(grid, block);
    inBlockOrder += reduced;
  }
  ASSERT_NE(inBlockOrder.SaveState(), reference) << "the rows do not feel the order of merges";
  unsigned seed = 0;
  for (const std::vector<std::uint64_t>& cuts : Splits(grid.Blocks())) {
    SCOPED_TRACE(::testing::PrintToString(cuts));
    std::vector<BlockForest<R>> forests;
    for (std::size_t i = 0; i + 1 < cuts.size(); ++i)
      forests.push_back(PartForest<R>(grid, cuts[i], cuts[i + 1], ++seed));
    std::shuffle(forests.begin(), forests.end(), std::mt19937(seed));
    BlockForest<R> whole;
    for (BlockForest<R>& forest : forests)
      whole.Combine(std::move(forest));
    R total = Fresh<R>();
    whole.AddTo(total);
    EXPECT_TRUE(SameState(total.SaveState(), reference));
  }
}

// One Driver pass over the grid through a BlockTree: ReadBatch takes the next
// block's index and rows under the read lock; ProcessBatch reduces them with
// no lock into a fresh result for the tree, with random pauses before and
// after, so that the threads finish their blocks in ever different orders.
template <class R>
struct TreePass : ProblemBase {
  struct Worker : WorkerBase {
    using Batch = decltype(BlockBatch<R>(std::declval<const Table&>(), 0, 1));
    explicit Worker(TreePass& pass) : p(pass) {}
    bool ReadBatch() override {
      if (p.blocksRead == p.grid.Blocks()) return false;
      ++p.blocksRead;
      block = p.tree.NextBlock();
      batch.emplace(BlockBatch<R>(p.grid.t, p.grid.Begin(block), p.grid.End(block)));
      return true;
    }
    void ProcessBatch() override {
      Pause();
      R result = p.tree.NewResult();
      result += *batch;
      Pause();
      p.tree.AddBlock(block, std::move(result));
    }
    void MergeResult() override {}
    void Pause() {
      if (engine() % 2 == 0) std::this_thread::sleep_for(std::chrono::microseconds(engine() % 300));
    }
    TreePass& p;
    std::optional<Batch> batch;
    std::uint64_t block = 0;
    std::mt19937 engine{std::random_device{}()};
  };

  explicit TreePass(const Grid& g) : grid(g), tree(Fresh<R>) {}
  WorkerBase* CreateWorker() override { return new Worker(*this); }

  const Grid& grid;
  BlockTree<R> tree;
  std::uint64_t blocksRead = 0;  // read lock
};

template <class R>
R DriverPass(const Grid& grid, int threads) {
  TreePass<R> pass(grid);
  Driver(&pass, threads);
  return pass.tree.Finish();
}

// A listwise matrix on the heap that counts the live results: those made by
// the factory and not yet destroyed. A move hands the same matrix over, and
// the moved-from shell no longer counts.
struct Counted {
  static inline std::atomic<long> live{0}, peak{0};
  struct Release {
    void operator()(MatrixListwise* m) const {
      --live;
      delete m;
    }
  };
  static MatrixListwise* Made() {
    const long now = ++live;
    for (long seen = peak.load(); now > seen && !peak.compare_exchange_weak(seen, now);) {
    }
    return new MatrixListwise();
  }

  Counted& operator+=(DataBatch& batch) {
    *matrix += batch;
    return *this;
  }
  Counted& operator+=(Counted& other) {
    *matrix += *other.matrix;
    return *this;
  }
  State SaveState() const { return matrix->SaveState(); }

  std::unique_ptr<MatrixListwise, Release> matrix{Made()};
};

// 1,500 blocks on 8 threads: the results alive at any one time stay within
// 2 (threads + 1) (log2 blocks + 1) nodes plus two in the hands of each
// thread, far below one per block.
TEST(BlockTreeMemoryThreaded, LiveResultsStayLogarithmic) {
  constexpr int kThreads = 8;
  const Table t = OrderSensitiveTable(11, 3000);
  const Grid grid{t, 2};
  const State reference = TreeReference<Counted>(grid);
  ASSERT_EQ(Counted::live.load(), 0);
  Counted::peak = 0;
  EXPECT_TRUE(SameState(DriverPass<Counted>(grid, kThreads).SaveState(), reference));
  EXPECT_EQ(Counted::live.load(), 0);
  const long logBlocks = std::bit_width(grid.Blocks());  // ceil(log2(blocks + 1))
  const long bound = 2 * (kThreads + 1) * (logBlocks + 1) + 2 * kThreads;
  RecordProperty("peak_live_results", static_cast<int>(Counted::peak.load()));
  EXPECT_LE(Counted::peak.load(), bound);
  EXPECT_GT(Counted::peak.load(), 1) << "no two results ever alive at once";
}

// Misuse is refused by the tree's assertions.
TEST(BlockTreeChecks, MisuseIsRefused) {
  const auto fresh = [] { return MatrixListwise(); };
  constexpr const char* kHeader = "backend/tables/vorel/blocktree.h";

  EXPECT_EQ(BlockTree<MatrixListwise>(fresh).Finish().NRows(), 0u) << "no blocks, empty result";

  BlockTree<MatrixListwise> tree(fresh);
  EXPECT_VOREL_ASSERT(tree.AddBlock(0, fresh()),
                      "_firstBlock <= block && block < _nextBlock.load()", kHeader);
  for (int b = 0; b < 3; ++b)
    tree.NextBlock();
  tree.AddBlock(0, fresh());
  EXPECT_VOREL_ASSERT(tree.AddBlock(0, fresh()), "NoOverlap(at, node)", kHeader);
  tree.AddBlock(2, fresh());
  EXPECT_VOREL_ASSERT(tree.Finish(), "forest.Complete() && forest.EndBlock() == _nextBlock.load()",
                      kHeader);

  BlockTree<MatrixListwise> part(fresh, 2);
  EXPECT_VOREL_ASSERT(part.AddBlock(1, fresh()),
                      "_firstBlock <= block && block < _nextBlock.load()", kHeader);
  part.AddBlock(part.NextBlock(), fresh());
  BlockForest<MatrixListwise> forest = part.TakeForest();
  MatrixListwise total;
  EXPECT_VOREL_ASSERT(forest.AddTo(total), "Complete()", kHeader);
  EXPECT_VOREL_ASSERT(forest.Insert({1, 1, fresh()}), "NoOverlap(at, node)", kHeader);
  EXPECT_VOREL_ASSERT(forest.Insert({64, 0, fresh()}),
                      "node.level < 64 && node.index < (~std::uint64_t{0} >> node.level)", kHeader);
}

}  // namespace
}  // namespace vorel::testing::blocktree
