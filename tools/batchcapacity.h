// The row capacity to build a DataBatch with, for batches of up to `rows`
// rows.
//
// A batch strides its columns by its capacity. A stride that is a multiple of
// 4 KiB puts the cells of one row, one per column, in the same set of the
// first-level cache, so that writing a row evicts the lines the last rows
// wrote; at 4,096 rows and 20 columns that cost 6 % of the tool's pass. One
// cache line more breaks the pattern. The capacity decides no figure: the
// rows a batch holds, and so the rounding, stay the caller's.
#pragma once

namespace vorelstat {

inline unsigned BatchCapacity(unsigned rows) {
  constexpr unsigned kRowsPer4KiB = 4096 / sizeof(double), kRowsPerLine = 64 / sizeof(double);
  return rows % kRowsPer4KiB == 0 ? rows + kRowsPerLine : rows;
}

}  // namespace vorelstat
