// One pass over a delimited file on vorel's Driver.
//
// The serial stage (ReadBatch) only takes the next chunk of whole lines from
// the ChunkReader. The parallel stage (ProcessBatch) reads the chunk's bytes,
// splits them into lines, parses the cells, and feeds the rows into the
// worker's batches, adding each full batch to the worker's own matrices. At
// the end each worker adds its last, partly filled batches and merges its
// results into the shared ones (MergeResult). Memory per thread is one chunk,
// one or two batches and the figures, whatever the size of the file.
//
// Rows: a row whose weight is missing is left out everywhere; so is a row of
// weight 0 (frequency weight, or its product with the regression weight), as
// a frequency weight of 0 means the row is not there. With listwise deletion a
// row with any missing value cell is left out; with pairwise deletion it is
// kept, its missing cells holding the missing code, which the pairwise matrix
// drops cell by cell. The by-group results take only rows that are complete in
// every value cell and have a group, under either deletion.
//
// By group: a worker gathers the grouped rows of a batch, reduces each group's
// rows on their own to centred results with a MatrixListwise, and joins them
// into that group's running results by the update formula (figures.h). State
// is made for the groups that occur, and only for them. Groups are keyed by
// their label (grouplabel.h) and joined in sorted label order; each label
// keeps the place in the file where it was first seen, the earliest over all
// threads, so that first-appearance order does not depend on the threads.
//
// Errors in the data: a thread that meets a bad line stops parsing its chunk
// and the serial stage hands out no further chunk; the other threads finish
// the chunk in hand. The error reported is the first in file order, with its
// line number worked out from the line counts of the chunks before it.
#pragma once

#include <vorel/matrixlistwise.h>
#include <vorel/matrixpairwise.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "chunkreader.h"
#include "figures.h"
#include "rowparser.h"

namespace vorelstat {

struct PassOptions {
  bool pairwise = false;
  int threads = 0;  // below 1: the host's default
  unsigned batchRows = 4096;
  // Each group keeps its own corrected cross-products, for its own covariance.
  bool groupCovariance = false;
  // Keep the sums of squared weights that analytic weights divide by; needs
  // a weight column.
  bool weightSquares = false;
  // Groups listed in order of first appearance in the file, else sorted
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

// What became of the rows of a pass.
struct RowCounts {
  std::uint64_t read = 0;           // data lines parsed (blank lines are skipped)
  std::uint64_t used = 0;           // rows that reached the whole-table matrix
  std::uint64_t incomplete = 0;     // rows with a missing value cell
  std::uint64_t withoutWeight = 0;  // rows left out for a missing weight
  std::uint64_t zeroWeight = 0;     // rows left out for a weight of 0
  std::uint64_t withoutGroup = 0;   // rows left out of the group results for a missing group
  std::uint64_t cellsCoerced = 0;   // cells that were not numbers, taken as missing

  void Add(const RowCounts& other);
};

struct PassResult {
  int threads = 0;
  RowCounts rows;

  // Per value column, over the cells that reached the whole-table matrix.
  std::vector<std::uint64_t> cellCounts;
  std::vector<figures::Range> ranges;
  // Pairwise only: k x k, entry (i, j) whether column i holds one value on
  // the rows where columns i and j are both present.
  std::vector<figures::Constancy> pairConstancy;
  // With PassOptions::weightSquares: the sum of the squared weights of the
  // rows used, one entry under listwise deletion, and under pairwise deletion
  // a triangle (figures::TriangleIndex) over the rows where both are present.
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
};

// Runs the pass. Throws DataError naming file, line and column for bad data.
PassResult RunPass(ChunkReader& reader, const RowLayout& layout, const CellRules& rules,
                   const PassOptions& options);

}  // namespace vorelstat
