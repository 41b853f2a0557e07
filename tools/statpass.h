// One pass over a delimited file on vorel's Driver, with the same bits for
// any number of threads, read size or way of reading.
//
// The grid. Rows are cut into blocks by their place in the input: block k
// holds the lines that start in bytes [k B, (k + 1) B) after the header, B
// being the block size (kDefaultBlockBytes, 1 MiB, unless the user states
// another). Bytes rather than rows, so that a chunk's blocks are known from
// its offset without counting the lines before it, and a part of a file (a
// process of its own) finds its first block by seeking. The reader cuts
// chunks only at block boundaries (chunkreader.h).
//
// The serial stage (ReadBatch) takes the next chunk of whole blocks from the
// ChunkReader and the block indices with it. The parallel stage
// (ProcessBatch) reads the chunk's bytes, splits them into lines and parses
// the cells; each block's rows go into a fresh BlockResult, in sub-batches of
// kBlockBatchRows rows counted from the block's start, and each finished block
// goes to the block tree (vorel/blocktree.h), which merges siblings as they
// complete. Counts and extremes, exact in any order, stay with the worker and
// are added up at the end. So the figures depend on the input and B alone.
// Memory per thread is one chunk, one sub-batch and the block in hand, and
// the tree holds about 2 (threads + 1) log2(blocks) results.
//
// With finishOrder the pass is the plain one instead: each worker folds its
// rows into its own result in batches of batchRows rows that run on across
// chunks, and the workers' results are merged in the order they finish. That
// saves a fresh result and a merge per block, but its last bits vary with the
// threads and the timing.
//
// Rows: a row whose weight is missing is left out everywhere; so is a row of
// weight 0 (frequency weight, or its product with the regression weight), as
// a frequency weight of 0 means the row is not there. With listwise deletion a
// row with any missing value cell is left out; with pairwise deletion it is
// kept, its missing cells holding the missing code, which the pairwise matrix
// drops cell by cell. The by-group results take only rows that are complete in
// every value cell and have a group, under either deletion.
//
// By group: the grouped rows of a sub-batch are gathered, each group's rows
// are reduced on their own to centred results with a MatrixListwise, and
// joined into that group's running results by the update formula (figures.h).
// State is made for the groups that occur, and only for them. Groups are keyed
// by their label (grouplabel.h). A block's groups take slots in the order of
// their first row and blocks are merged in block order, so the slots of the
// whole pass are the order of first appearance in the input, whatever the
// threads; in finish order each label keeps the offset of its first row, the
// earliest over all threads, and the slots are put in that order at the end.
// More distinct labels than mostGroups in one block stop the pass at the line
// of the first label too many; more over the whole input are an error at the
// end.
//
// Errors in the data: a thread that meets a bad line stops parsing its chunk
// and the serial stage hands out no further chunk; the other threads finish
// the chunk in hand. The error reported is the first in file order, with its
// line number worked out from the line counts of the chunks before it.
#pragma once

#include <vorel/blocktree.h>
#include <vorel/matrixlistwise.h>
#include <vorel/matrixpairwise.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "blockresult.h"
#include "chunkreader.h"
#include "figures.h"
#include "rowparser.h"

namespace vorelstat {

inline constexpr std::uint64_t kDefaultBlockBytes = std::uint64_t{1} << 20;
// Rows of a sub-batch within a block: part of what defines the bits.
inline constexpr unsigned kBlockBatchRows = 4096;

using Forest = vorel::BlockForest<BlockResult>;

struct PassOptions {
  bool pairwise = false;
  int threads = 0;  // below 1: the host's default
  std::uint64_t blockBytes = kDefaultBlockBytes;
  // The blocks of the grid to read: a part of the input, or all of it.
  std::uint64_t firstBlock = 0;
  std::uint64_t endBlock = ChunkReader::kNoEnd;
  // Lines are numbered from the start of the file, also in a part; without
  // it from the part's first line, for a caller that adds the lines before.
  bool linesFromFileStart = true;
  // The plain pass: merges in the order the threads finish.
  bool finishOrder = false;
  unsigned batchRows = kBlockBatchRows;  // with finishOrder only
  // Keep the block tree's nodes in PassResult::forest (not with finishOrder).
  bool keepForest = false;
  // Each group keeps its own corrected cross-products, for its own covariance.
  bool groupCovariance = false;
  // Keep the sums of squared weights that analytic weights divide by; needs
  // a weight column.
  bool weightSquares = false;
  // Groups listed in order of first appearance in the input, else sorted
  // (numbers by value, then texts).
  bool groupsInFileOrder = false;
  // The most distinct group labels; past it the pass stops with an error.
  std::size_t mostGroups = 100000;
  // Called in the serial stage after each chunk with the bytes read so far.
  std::function<void(std::uint64_t)> onProgress;
};

// A value column that turned out to hold text (typedByContent only).
struct TextColumn {
  unsigned slot = 0;
  std::uint64_t line = 0;  // its first text cell
  std::string text;
};

struct PassResult {
  std::uint64_t blockBytes = 0;  // 0 for the pass in finish order
  // The blocks read: [firstBlock, endBlock) of the grid.
  std::uint64_t firstBlock = 0;
  std::uint64_t endBlock = 0;
  std::uint64_t lines = 0;  // lines of those blocks, blank ones included
  RowCounts rows;

  // Per value column, over the cells that reached the whole-table matrix.
  std::vector<std::uint64_t> cellCounts;
  std::vector<figures::Range> ranges;
  // Pairwise only: k x k, entry (i, j) whether column i holds one value on
  // the rows where columns i and j are both present.
  std::vector<figures::Constancy> pairConstancy;
  // With PassOptions::weightSquares: see BlockResult::weightSquares.
  std::vector<double> weightSquares;

  // Exactly one of the two is set.
  std::unique_ptr<vorel::MatrixListwise> listwise;
  std::unique_ptr<vorel::MatrixPairwise> pairwise;

  // With a group column: the groups that occurred, in the order asked for,
  // and the sum of their corrected cross-products (a triangle,
  // figures::TriangleIndex).
  bool grouped = false;
  std::vector<GroupLabel> groupLabels;
  std::vector<figures::GroupMoments> groups;
  std::vector<double> withinCscp;

  // Columns chosen by the tool that held text; their figures are void.
  std::vector<TextColumn> textColumns;

  // On request, the nodes of the block tree behind the figures.
  std::optional<Forest> forest;
};

// A shape for the fresh results of a pass.
BlockShape ShapeOf(const RowLayout& layout, const CellRules& rules, const PassOptions& options);

// The sum of a forest's nodes in block order into a fresh result: for a
// complete forest, the bits of one pass over the whole input.
BlockResult SumOf(const Forest& forest, const BlockShape& shape);

// Fills the figures of `result` from the exact totals and the sums, the
// groups in slot order (first appearance) or sorted. Throws DataError naming
// `what` when the sums hold more than `mostGroups` groups.
void TakeFigures(PassResult& result, ExactTotals&& totals, BlockResult&& sums,
                 bool groupsInSlotOrder, std::size_t mostGroups, const std::string& what);

// For tests: `hook` runs on each worker before it reduces a chunk (to shake
// the timing); an empty function removes it. Set it between passes only.
void SetChunkHookForTests(std::function<void()> hook);

// Runs the pass. Throws DataError naming file, line and column for bad data.
PassResult RunPass(ChunkReader& reader, const RowLayout& layout, const CellRules& rules,
                   const PassOptions& options);

}  // namespace vorelstat
