// BlockTree: a reduction whose bits do not depend on the threads, the chunks
// or the processes that made it.
//
// Driver merges the workers' results in the order in which they finish, so
// with more than one thread the last bits of a result vary from run to run.
// A BlockTree fixes the order of every merge instead:
//
//  - The rows are cut into blocks by their position in the input: block k
//    holds rows [k B, (k + 1) B) for a block size B that the caller states
//    (the last block may be shorter). The grid depends on the input and B
//    alone, never on the thread count or the timing.
//  - Each block is reduced into a fresh result of its own, in a way that
//    depends on the block's rows alone (one batch per block, say).
//  - Results are merged along a fixed binary tree on the block index. Node
//    (level, index) holds the result of blocks [index 2^level,
//    (index + 1) 2^level); nodes (l, 2j) and (l, 2j + 1) are siblings and
//    become node (l + 1, j) as left += right as soon as both exist, like the
//    carries of a binary counter.
//  - At the end the nodes left over (one per set bit of the block count) are
//    added to a fresh result in block order.
//
// So every merge has the same two operands whoever does it and whenever, and
// the result is the same to the last bit for the same input, block size and
// build, on any number of threads. With Driver the threads still take blocks
// as they come: each ReadBatch takes the next index with NextBlock together
// with the block's rows, ProcessBatch reduces the block into NewResult() and
// hands it to AddBlock, and MergeResult has nothing left to do. Pending
// results stay few: about 2 (threads + 1) log2(blocks) nodes plus two per
// thread, since only the blocks in hand break the done ones into runs.
//
// Across processes. The nodes of a BlockTree whose first block is not 0 (a
// part of the input cut on the same grid) form a BlockForest that can be
// combined with the forests of the other parts, in any order and anywhere:
// the union, with siblings merged, is exactly the forest of one pass over the
// whole input, and so is its final sum. A forest's nodes are listed in block
// order with their level and index, so that saving a forest is a loop over
// Nodes() and loading one a loop of Insert.
//
// A different block size cuts a different grid and gives a different rounding.
//
// Result is any class that can be moved (constructed and assigned) and has an
// operator+= that takes another result as a non-const lvalue and only reads
// it: every matrix of the library, or a caller's composite of several.
//
// Failures. A breached precondition is an assertion (see each operation). An
// exception out of a merge or out of the caller's reduction loses the blocks
// involved; the forest then has a gap, and finishing it fails its assertion.
#pragma once

#include <vorelhost/assertion.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <utility>
#include <vector>

namespace vorel {

// The result of blocks [FirstBlock(), EndBlock()).
template <class Result>
struct BlockNode {
  std::uint32_t level;
  std::uint64_t index;
  Result result;

  std::uint64_t FirstBlock() const { return index << level; }
  std::uint64_t EndBlock() const { return (index + 1) << level; }
};

// Nodes over disjoint runs of blocks, in block order, no two of them siblings:
// each node is the largest aligned run of blocks that the forest holds whole.
// No locks: one thread at a time per forest.
template <class Result>
class BlockForest {
 public:
  using Node = BlockNode<Result>;

  // In block order. Their results may be read (to save them) but not changed.
  const std::vector<Node>& Nodes() const { return _nodes; }

  // Adds a node and merges it with its sibling, the parent with its sibling
  // and so on. Requires a node within the 64-bit block range
  // ("node.level < 64 && node.index < (~std::uint64_t{0} >> node.level)") and
  // no block in common with the forest ("NoOverlap(at, node)").
  void Insert(Node node) {
    while (std::optional<Node> sibling = TakeSiblingOrInsert(node))
      node = MergeSiblings(std::move(*sibling), std::move(node));
  }

  // Adds every node of other, which must share no block with this forest. The
  // outcome is the same whichever of the two is the receiver.
  void Combine(BlockForest&& other) {
    for (Node& node : other._nodes)
      Insert(std::move(node));
    other._nodes.clear();
  }

  // The number of blocks held, and the end of the last one (0 when empty).
  std::uint64_t BlockCount() const {
    std::uint64_t count = 0;
    for (const Node& node : _nodes)
      count += node.EndBlock() - node.FirstBlock();
    return count;
  }
  std::uint64_t EndBlock() const { return _nodes.empty() ? 0 : _nodes.back().EndBlock(); }
  // Every block from 0 to EndBlock() is held: the whole input of a pass.
  bool Complete() const { return BlockCount() == EndBlock(); }

  // Adds the nodes to total in block order, which for a complete forest
  // depends on the block count alone. total should be fresh for the bits of
  // one pass. Requires "Complete()"; the nodes are only read.
  void AddTo(Result& total) {
    VOREL_ASSERT(Complete());
    for (Node& node : _nodes)
      total += node.result;
  }

 private:
  template <class>
  friend class BlockTree;

  // The step under a lock in a concurrent reduction: if the sibling of node
  // is held, takes it out and returns it (the two are merged by the caller);
  // otherwise takes node in and returns nothing.
  std::optional<Node> TakeSiblingOrInsert(Node& node) {
    VOREL_ASSERT(node.level < 64 && node.index < (~std::uint64_t{0} >> node.level));
    const auto at = std::lower_bound(
        _nodes.begin(), _nodes.end(), node.FirstBlock(),
        [](const Node& held, std::uint64_t first) { return held.FirstBlock() < first; });
    VOREL_ASSERT(NoOverlap(at, node));
    // A left child's sibling can only start where it ends, a right child's
    // only end where it starts.
    auto sibling = _nodes.end();
    if (node.index % 2 == 0)
      sibling = at;
    else if (at != _nodes.begin())
      sibling = at - 1;
    if (sibling != _nodes.end() && sibling->level == node.level
        && sibling->index == (node.index ^ 1)) {
      std::optional<Node> taken(std::move(*sibling));
      _nodes.erase(sibling);
      return taken;
    }
    _nodes.insert(at, std::move(node));
    return std::nullopt;
  }

  // The parent of two siblings, given in either order: the left one (even
  // index) takes the right one in. The one merge of the tree.
  static Node MergeSiblings(Node a, Node b) {
    Node& left = a.index % 2 == 0 ? a : b;
    Node& right = a.index % 2 == 0 ? b : a;
    left.result += right.result;
    return Node{left.level + 1, left.index / 2, std::move(left.result)};
  }

  // node fits between the held node at `at` (the first one starting at or
  // after it) and the one before.
  bool NoOverlap(typename std::vector<Node>::const_iterator at, const Node& node) const {
    const bool clearOfNext = at == _nodes.end() || node.EndBlock() <= at->FirstBlock();
    const bool clearOfPrevious = at == _nodes.begin() || (at - 1)->EndBlock() <= node.FirstBlock();
    return clearOfNext && clearOfPrevious;
  }

  std::vector<Node> _nodes;
};

// The shared part of a reproducible pass: hands out block indices, takes the
// reduced blocks from any thread and merges siblings as they complete.
template <class Result>
class BlockTree {
 public:
  using Factory = std::function<Result()>;

  // fresh makes an empty result; it is called from any thread and must be
  // safe beside itself. firstBlock is the grid index of the first block that
  // this tree will see: 0 for a whole input, k for a part that starts at row
  // k B.
  explicit BlockTree(Factory fresh, std::uint64_t firstBlock = 0)
      : _fresh(std::move(fresh)), _firstBlock(firstBlock), _nextBlock(firstBlock) {}

  // The index of the next block of rows. Call it once per block, in the same
  // ReadBatch (under Driver's read lock) that reads the block's rows, so that
  // the indices follow the input.
  std::uint64_t NextBlock() { return _nextBlock.fetch_add(1, std::memory_order_relaxed); }

  // An empty result to reduce one block into. Any thread.
  Result NewResult() const { return _fresh(); }

  // Takes the reduced result of a block from NextBlock, once per block. Any
  // thread, with no lock of Driver held; siblings are merged outside the
  // tree's lock, so threads wait for one another only to take a node in or out.
  // Requires "_firstBlock <= block && block < _nextBlock.load()".
  void AddBlock(std::uint64_t block, Result result) {
    VOREL_ASSERT(_firstBlock <= block && block < _nextBlock.load());
    BlockNode<Result> node{0, block, std::move(result)};
    while (std::optional<BlockNode<Result>> sibling = TakeSiblingOrInsert(node))
      node = BlockForest<Result>::MergeSiblings(std::move(*sibling), std::move(node));
  }

  // After the pass (when every AddBlock has returned): the nodes, to finish
  // here, to combine with the forests of other parts or to save. The tree is
  // left empty and may not be used again.
  BlockForest<Result> TakeForest() {
    std::lock_guard<std::mutex> lock(_mutex);
    return std::move(_forest);
  }

  // After the pass over a whole input: the sum of every block, the same bits
  // for any thread count. Requires that each block handed out came back
  // ("forest.Complete() && forest.EndBlock() == _nextBlock.load()", which
  // fails for a tree over a part of the input).
  Result Finish() {
    BlockForest<Result> forest = TakeForest();
    VOREL_ASSERT(forest.Complete() && forest.EndBlock() == _nextBlock.load());
    Result total = _fresh();
    forest.AddTo(total);
    return total;
  }

 private:
  std::optional<BlockNode<Result>> TakeSiblingOrInsert(BlockNode<Result>& node) {
    std::lock_guard<std::mutex> lock(_mutex);
    return _forest.TakeSiblingOrInsert(node);
  }

  const Factory _fresh;
  const std::uint64_t _firstBlock;
  std::atomic<std::uint64_t> _nextBlock;
  std::mutex _mutex;  // guards _forest
  BlockForest<Result> _forest;
};

}  // namespace vorel
