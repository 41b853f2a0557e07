// The result classes seen through one shape, for the tests of the block tree
// and of the saved state: a fresh result, rows that feel the order of the
// merges, one block of them reduced into it, and the state it saves, to be
// compared byte for byte. Plus the fixed tree written out as a recursion, and
// Driver passes with and without a BlockTree.
#pragma once

#include <gtest/gtest.h>
#include <vorel/vorel.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <optional>
#include <random>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include "discriminant_support.h"
#include "pairwise_reference.h"
#include "table_support.h"

namespace vorel::testing::blocktree {

using tables::kCode;
using tables::Table;

inline constexpr unsigned kColumns = 5;
inline constexpr unsigned kGroups = 3;

// Rows on which the order of the merges shows in the last bits: cells of very
// different sizes with large offsets, a share of them missing, weights and
// regression weights, three groups and every seventh weight 0.
inline Table OrderSensitiveTable(unsigned seed, std::size_t nRows) {
  Table t = discriminant::RandomRows(seed, kColumns, nRows, {0, 1, 2}, false);
  const double scale[kColumns] = {1.0, 1e-3, 1e4, 1.0, 1e2};
  const double shift[kColumns] = {1e6, 0.0, -3e7, 12345.678, 0.0};
  const double magnitude[3] = {1.0, 1e3, 1e-2};
  std::mt19937 engine(seed + 1);
  for (std::vector<double>& row : t.rows) {
    const double m = magnitude[engine() % 3];
    for (unsigned c = 0; c < kColumns; ++c)
      row[c] = engine() % 8 == 0 ? kCode : (row[c] * m) * scale[c] + shift[c];
  }
  return t;
}

// A caller's own result made of several: the listwise blocks of columns
// [0, 2) and [2, 5) and the rectangle between them.
struct ListwiseBlocks {
  SMatrixListwise first{0, 2}, second{2, 5};
  NSMatrixListwise across{0, 2, 5};

  ListwiseBlocks& operator+=(DataBatch& batch) {
    first += batch;
    second += batch;
    across += batch;
    return *this;
  }
  ListwiseBlocks& operator+=(ListwiseBlocks& other) {
    first += other.first;
    second += other.second;
    across += other.across;
    return *this;
  }
};

using State = std::vector<std::byte>;

// Everything a result holds, as its saved state: equal states, equal results
// to the last bit of every figure.
template <class R>
State StateOf(const R& r) {
  return r.SaveState();
}
inline State StateOf(const ListwiseBlocks& b) {
  State s = b.first.SaveState();
  for (const State& more : {b.second.SaveState(), b.across.SaveState()})
    s.insert(s.end(), more.begin(), more.end());
  return s;
}

// For EXPECT_TRUE: on failure, the first byte that differs.
inline ::testing::AssertionResult SameState(const State& a, const State& b) {
  if (a == b) return ::testing::AssertionSuccess();
  const auto at = std::mismatch(a.begin(), a.end(), b.begin(), b.end()).first - a.begin();
  return ::testing::AssertionFailure()
         << "states of " << a.size() << " and " << b.size() << " bytes differ at byte " << at;
}

// A fresh result of each class, in the shape the tests give it.
template <class R>
R Fresh() {
  if constexpr (std::is_same_v<R, MatrixPairwise>)
    return R(kCode);
  else if constexpr (std::is_same_v<R, SMatrixListwise>)
    return R(1, 5);
  else if constexpr (std::is_same_v<R, NSMatrixListwise>)
    return R(0, 2, 5);
  else if constexpr (std::is_same_v<R, SMatrixPairwise>)
    return R(kCode, 0, 5);
  else if constexpr (std::is_same_v<R, NSMatrixPairwise>)
    return R(kCode, 0, 3, 5);
  else if constexpr (std::is_same_v<R,
                                    DiscriminantMatrix> || std::is_same_v<R, DiscIndividualMatrix>)
    return R(kGroups, kColumns);
  else
    return R();
}

// Rows [begin, end) of t as the batch that R takes. Not thread-safe (the
// batch helpers share their row cells): call it under a lock.
template <class R>
auto BlockBatch(const Table& t, std::size_t begin, std::size_t end) {
  if constexpr (std::is_same_v<R, DiscIndividualMatrix>)
    return discriminant::BatchFor(DiscIndividualMatrix(), t, begin, end, kGroups);
  else
    return tables::MakeBatch(t, begin, end);
}

// The grid of blocks of blockRows rows over t.
struct Grid {
  const Table& t;
  std::size_t blockRows;

  std::uint64_t Blocks() const { return (t.rows.size() + blockRows - 1) / blockRows; }
  std::size_t Begin(std::uint64_t block) const { return block * blockRows; }
  std::size_t End(std::uint64_t block) const {
    return std::min(t.rows.size(), Begin(block) + blockRows);
  }
};

// A fresh result holding one block.
template <class R>
R ReduceBlock(const Grid& grid, std::uint64_t block) {
  R r = Fresh<R>();
  auto batch = BlockBatch<R>(grid.t, grid.Begin(block), grid.End(block));
  r += batch;
  return r;
}

// The tree as the documentation states it, written out on its own: the
// aligned run of 2^level blocks from `first` is its left half += its right
// half; a pass over n blocks adds, to a fresh result, the runs of the binary
// digits of n from the largest, in block order.
template <class R>
R Subtree(const Grid& grid, unsigned level, std::uint64_t first) {
  if (level == 0) return ReduceBlock<R>(grid, first);
  R left = Subtree<R>(grid, level - 1, first);
  R right = Subtree<R>(grid, level - 1, first + (std::uint64_t{1} << (level - 1)));
  left += right;
  return left;
}
template <class R>
State TreeReference(const Grid& grid) {
  R total = Fresh<R>();
  std::uint64_t first = 0;
  for (int level = 63; level >= 0; --level) {
    const std::uint64_t size = std::uint64_t{1} << level;
    if ((grid.Blocks() & size) == 0) continue;
    R run = Subtree<R>(grid, static_cast<unsigned>(level), first);
    total += run;
    first += size;
  }
  return StateOf(total);
}

// Random pauses in a worker, so that the threads finish their blocks in ever
// different orders.
class Delays {
 public:
  Delays() : _engine(std::random_device{}()) {}
  void Pause() {
    if (_engine() % 2 == 0) std::this_thread::sleep_for(std::chrono::microseconds(_engine() % 300));
  }

 private:
  std::mt19937 _engine;
};

// A gate for one forced schedule: the worker that holds block 0 waits in its
// ProcessBatch until the other worker has merged, so that block 0 is the last
// to arrive. Bounded, so that a broken run fails instead of hanging.
class LastBlockGate {
 public:
  void Open() {
    std::lock_guard<std::mutex> lock(_mutex);
    _open = true;
    _opened.notify_all();
  }
  void WaitUntilOpen() {
    std::unique_lock<std::mutex> lock(_mutex);
    if (!_opened.wait_for(lock, std::chrono::seconds(30), [&] { return _open; }))
      ADD_FAILURE() << "the other worker never merged";
  }

 private:
  std::mutex _mutex;
  std::condition_variable _opened;
  bool _open = false;
};

struct PassOptions {
  int threads = 1;
  bool reproducible = true;       // through a BlockTree; otherwise Driver's arrival order
  bool delays = false;            // random pauses in every worker
  LastBlockGate* gate = nullptr;  // with two threads: block 0 arrives last
};

// One Driver pass over the grid. ReadBatch takes the next block's rows under
// the read lock (and with a tree its index); ProcessBatch reduces them with no
// lock, into a fresh result handed to the tree or into the worker's own
// result, which MergeResult adds to the shared one.
template <class R>
struct DriverPassProblem : ProblemBase {
  DriverPassProblem(const Grid& g, const PassOptions& o, const typename BlockTree<R>::Factory& f)
      : grid(g), options(o), tree(f) {
    if (!options.reproducible) shared.emplace(Fresh<R>());
  }
  WorkerBase* CreateWorker() override;
  const Grid& grid;
  const PassOptions& options;
  BlockTree<R> tree;
  std::optional<R> shared;      // the arrival-order path only
  std::uint64_t nextBlock = 0;  // read lock
};

template <class R>
struct DriverPassWorker : WorkerBase {
  using Batch = decltype(BlockBatch<R>(std::declval<const Grid&>().t, 0, 1));
  explicit DriverPassWorker(DriverPassProblem<R>& pass) : p(pass) {
    if (!p.options.reproducible) own.emplace(Fresh<R>());
  }
  bool ReadBatch() override {
    if (p.nextBlock == p.grid.Blocks()) return false;
    block = p.options.reproducible ? p.tree.NextBlock() : p.nextBlock;
    ++p.nextBlock;
    holdsFirst = holdsFirst || block == 0;
    batch.emplace(BlockBatch<R>(p.grid.t, p.grid.Begin(block), p.grid.End(block)));
    return true;
  }
  void ProcessBatch() override {
    if (p.options.delays) delays.Pause();
    if (p.options.gate && block == 0) p.options.gate->WaitUntilOpen();
    if (!p.options.reproducible) {
      *own += *batch;
      return;
    }
    R result = p.tree.NewResult();
    result += *batch;
    if (p.options.delays) delays.Pause();
    p.tree.AddBlock(block, std::move(result));
  }
  void MergeResult() override {
    if (!p.options.reproducible) *p.shared += *own;
    if (p.options.gate && !holdsFirst) p.options.gate->Open();
  }
  DriverPassProblem<R>& p;
  std::optional<R> own;  // the arrival-order path only
  std::optional<Batch> batch;
  std::uint64_t block = 0;
  bool holdsFirst = false;
  Delays delays;
};

template <class R>
WorkerBase* DriverPassProblem<R>::CreateWorker() {
  return new DriverPassWorker<R>(*this);
}

template <class R>
R DriverPass(const Grid& grid, const PassOptions& options,
             const typename BlockTree<R>::Factory& fresh = Fresh<R>) {
  DriverPassProblem<R> pass(grid, options, fresh);
  Driver(&pass, options.threads);
  return options.reproducible ? pass.tree.Finish() : std::move(*pass.shared);
}

}  // namespace vorel::testing::blocktree
