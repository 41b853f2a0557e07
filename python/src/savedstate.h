// The saved form of what the module gathers: an accumulator's settings and
// tally (what pickling stores), and the block forest of a part of a table
// (what the parts of a pass on several processes send to be combined).
//
// The library's matrices are stored as their own portable states; around
// them go the figures only the module keeps: row counts, extremes and which
// columns stay constant, and, by group, each group's row count, weight,
// origin and relative means and the pooled cross-products. A container holds
// them, little-endian, no padding:
//
//   magic "\x89VPY\r\n\x1a\n", u16 version (1), u16 kind (1 accumulator,
//   2 forest), u32 reserved (0), u64 length L of the whole container, the
//   fields, u32 CRC-32C of bytes 0 to L - 5.
//
// Fields: the settings (u32 columns, u8 flags: 1 pairwise, 2 grouped,
// 4 regression weights, 8 missing is NaN; f64 missing code); then, kind 1,
// u8 whether a tally follows and the tally; kind 2, u64 nodes and each as
// u32 level, u64 index, tally. A tally: u64 rows, zero-weight, incomplete and
// without-group counts; f64[k] minima, f64[k] maxima, u8[k] NaN seen; when
// pairwise k x k pairs of u8 state and f64 value; u64 length and the state of
// the matrix; u64 groups and for each i64 code, u64 rows, f64 weight,
// f64[k] origin, f64[k] relative means; when grouped f64[k(k+1)/2] pooled
// cross-products.
//
// Loading trusts nothing: bytes that are not such a container, or hold
// figures that could not come from a pass, raise std::invalid_argument
// ("vorel pickle: <problem> at byte <offset>").
#pragma once

#include <vorel/blocktree.h>

#include <cstddef>
#include <optional>
#include <span>
#include <vector>

#include "table.h"
#include "tally.h"

namespace vorelpy {

// The cell value the pairwise matrix drops under missing: the code, or for
// NaN cells the lowest double, which stands in for them.
double PairwiseCodeOf(const MissingRule& missing);

using Forest = vorel::BlockForest<Tally>;

std::vector<std::byte> SaveAccumulator(const Settings& settings, const MissingRule& missing,
                                       const std::optional<Tally>& tally);
void LoadAccumulator(std::span<const std::byte> bytes, Settings& settings, MissingRule& missing,
                     std::optional<Tally>& tally);

std::vector<std::byte> SaveForest(const Settings& settings, const MissingRule& missing,
                                  const Forest& forest);
Forest LoadForest(std::span<const std::byte> bytes, Settings& settings, MissingRule& missing);

}  // namespace vorelpy
