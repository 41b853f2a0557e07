// One pass over a delimited file on vorel's Driver.
//
// The serial stage (ReadBatch) only takes the next chunk of whole lines from
// the ChunkReader. The parallel stage (ProcessBatch) reads the chunk's bytes,
// splits them into lines, parses the cells, and feeds the rows into the worker's DataBatch
// objects, adding each full batch to the worker's own matrices. At the end
// each worker adds its last, partly filled batch and merges its matrices into
// the shared ones (MergeResult). Memory per thread is one chunk plus one or
// two batches, whatever the size of the file.
//
// Rows: a row whose weight is missing is left out everywhere. With listwise
// deletion a row with any missing value cell is left out; with pairwise
// deletion it is kept, its missing cells holding the missing code, which the
// pairwise matrix drops cell by cell. The by-group tables take only rows that
// are complete in every value cell and have a group, under either deletion.
//
// Errors in the data: a thread that meets a bad line stops parsing its chunk
// and the serial stage hands out no further chunk; the other threads finish
// the chunk in hand. The error reported is the first in file order, with its
// line number worked out from the line counts of the chunks before it.
#pragma once

#include <vorel/DiscriminantMatrix.h>
#include <vorel/matrixlistwise.h>
#include <vorel/matrixpairwise.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "chunkreader.h"
#include "rowparser.h"

namespace vorelstat {

struct PassOptions {
  bool pairwise = false;
  int threads = 0;  // below 1: the host's default
  unsigned batchRows = 4096;
  // Called in the serial stage after each chunk with the bytes read so far.
  std::function<void(std::uint64_t)> onProgress;
  // Subtracted from each value before it enters the group sums, which are
  // raw: data far from zero would lose digits when the within-group products
  // are taken apart. A value near the data, such as the first row's, serves.
  // Empty: no shift.
  std::vector<double> groupShift;
};

struct PassResult {
  int threads = 0;
  std::uint64_t rowsRead = 0;           // data lines parsed (blank lines are skipped)
  std::uint64_t rowsUsed = 0;           // rows that reached the whole-table matrix
  std::uint64_t rowsIncomplete = 0;     // rows with a missing value cell
  std::uint64_t rowsWithoutWeight = 0;  // rows left out for a missing weight
  std::uint64_t rowsWithoutGroup = 0;   // rows left out of the group tables for a missing group
  std::uint64_t cellsCoerced = 0;       // cells that were not numbers, taken as missing

  // Per value column, over the cells that are not missing (NaN cells ignored).
  std::vector<std::uint64_t> cellCounts;
  std::vector<double> minima;  // +inf when the column had no cell
  std::vector<double> maxima;  // -inf likewise

  // Exactly one of the two is set.
  std::unique_ptr<vorel::MatrixListwise> listwise;
  std::unique_ptr<vorel::MatrixPairwise> pairwise;

  // Set with a group column: the discriminant sums of the shifted values,
  // the shift of each column (0 without one), and the rows of each group.
  std::unique_ptr<vorel::DiscriminantMatrix> groups;
  std::vector<double> groupShift;
  std::vector<std::uint64_t> groupRows;
};

// Runs the pass. Throws DataError naming file, line and column for bad data.
PassResult RunPass(ChunkReader& reader, const RowLayout& layout, const CellRules& rules,
                   const PassOptions& options);

}  // namespace vorelstat
