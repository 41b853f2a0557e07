// One pass over a table on vorel's Driver, reduced through a vorel::BlockTree.
//
// The rows are cut into blocks of a fixed size, whatever the thread count. A
// worker takes the next block number (the only serial step), turns the block's
// rows into a batch and reduces it to a tally of its own, which the tree
// merges with its neighbours along a fixed binary tree over the block numbers
// as they complete, so the result has the same bits on any number of threads
// and few tallies are pending at a time.
//
// Rows: a row whose weight or regression weight is 0 is left out everywhere
// and counted. Listwise, a row with a missing cell is left out of the matrix;
// pairwise, it is kept and its missing cells drop out cell by cell. The group
// tables take the complete rows that have a group.
#pragma once

#include <vorel/blocktree.h>

#include <cstddef>
#include <cstdint>

#include "table.h"
#include "tally.h"

namespace vorelpy {

// Rows of one block, and the row capacity of every batch: 4096, or fewer for
// wide tables so that a batch stays near 4 MB. It depends on the column count
// alone, so the grid, and with it every bit of the result, is the same on any
// number of threads.
std::size_t BlockRows(unsigned nColumns);

// The tally of all rows of table. threads below 1 takes the host's count;
// more threads than blocks are not started.
// Throws ValueTaken when a pairwise pass with NaN as the missing mark meets a
// cell equal to the stand-in code.
Tally RunPass(const Table& table, const Settings& settings, int threads);

// The blocks of a part of a larger table, cut on that table's grid: the part
// starts at block firstBlock and holds whole blocks, but for the table's last
// block. Their forest combines with the forests of the other parts into the
// forest of one pass over the whole table.
vorel::BlockForest<Tally> RunPartPass(const Table& table, const Settings& settings, int threads,
                                      std::uint64_t firstBlock);

// Whether blocks whose rows all count may be written into a batch column by
// column (the default) rather than row by row. Both give the same bits; the
// switch is there for the test that proves it.
void UseWholeBlocks(bool use);

// A cell held the value that stands in for NaN cells in a pairwise pass.
struct ValueTaken {
  double value;
};

}  // namespace vorelpy
