// What a pass gathers from rows: counts of the rows left out, extremes of each
// column, the whole-table matrix (listwise or pairwise) and, with groups, one
// listwise matrix per group. Tallies of any pieces of the rows merge into the
// tally of all of them; merged in a fixed order they give the same bits.
#pragma once

#include <vorel/databatch.h>
#include <vorel/matrixlistwise.h>
#include <vorel/matrixpairwise.h>

#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>
#include <vector>

#include "figures.h"

namespace vorelpy {

// The shape of what is gathered, fixed for the life of an accumulator.
struct Settings {
  unsigned nColumns = 0;
  bool pairwise = false;
  // The cell value the pairwise matrix drops: the caller's missing code, or a
  // stand-in for NaN cells, which never compare equal to a code.
  double pairwiseCode = 0.0;
  bool grouped = false;
  bool regWeights = false;
};

struct RowCounts {
  std::uint64_t rows = 0;          // rows seen
  std::uint64_t zeroWeight = 0;    // left out everywhere: weight or regression weight 0
  std::uint64_t incomplete = 0;    // with a missing cell (left out under listwise deletion)
  std::uint64_t withoutGroup = 0;  // weighted rows left out of the group tables: no group

  void Add(const RowCounts& other);
};

// How a column is swept: for the extremes of all its cells; of those not
// equal to a code; likewise, flagging the rows where a cell equals the code;
// or with NaN cells missing, flagged, and given the code in their place.
enum class Sweep { kAll, kSkipCode, kFlagCode, kMarkNaN };

// What a sweep found: the extremes of the cells that count (by comparisons a
// NaN cell loses, so never NaN), whether a cell equals the code (kFlagCode,
// kMarkNaN) and whether one is NaN (but with kMarkNaN).
struct ColumnSweep {
  double low = std::numeric_limits<double>::infinity();
  double high = -std::numeric_limits<double>::infinity();
  bool sawCode = false;
  bool sawNaN = false;
};

// Flags of rows, a bit each: row r is bit r % kRowsPerWord of word
// r / kRowsPerWord.
constexpr std::size_t kRowsPerWord = 64;
inline std::size_t WordsForRows(std::size_t rows) {
  return (rows + kRowsPerWord - 1) / kRowsPerWord;
}
inline bool RowFlagged(const std::vector<std::uint64_t>& words, std::size_t r) {
  return ((words[r / kRowsPerWord] >> (r % kRowsPerWord)) & 1u) != 0;
}

// One sweep of the n cells of column x, two cells at a time in vector
// registers where the machine has them: only comparisons and copies, so the
// same as cell by cell. With kFlagCode and kMarkNaN, row r of missingRows
// is flagged where cell r is missing; with kMarkNaN the column is written to
// marked, which may be x itself.
template <Sweep kHow>
ColumnSweep SweepColumn(const double* x, std::size_t n, double code,
                        std::uint64_t* missingRows = nullptr, double* marked = nullptr);

// Smallest and largest value of each column over the cells that count; NaN
// cells are passed over (they make the column's mean NaN instead), and noted,
// since a column with one is not constant whatever its extremes.
struct Extremes {
  std::vector<double> minima, maxima;
  std::vector<char> nan;
  // Pairwise deletion: at k i + j, whether column i holds one value on the
  // rows where columns i and j are both present, for i != j: a column may be
  // constant on a pair's rows and not elsewhere. A pair is no longer looked at
  // once it varies.
  std::vector<vorelstat::figures::Constancy> pairs;

  Extremes(unsigned nColumns, bool pairwise);
  // Folds in n cells of column c, skipping those equal to skip when given.
  void Add(unsigned c, const double* x, unsigned n, const std::optional<double>& skip);
  // Folds in the extremes low and high of those cells, found by comparisons
  // that NaN cells lose (so not among them), settling which zero is which.
  void Include(unsigned c, double low, double high, const double* x, unsigned n,
               const std::optional<double>& skip);
  // Folds in the pairs of a batch whose missing cells equal code.
  void AddPairs(const vorel::DataBatch& batch, double code);
  // Folds in other, whose pairs, if it has none, are left as they are.
  void Add(const Extremes& other);
};

// A group's complete rows, weighed by the frequency weight alone: centred
// results joined part by part (means relative to the group's first row).
struct GroupTally {
  std::int64_t code = 0;
  vorelstat::figures::GroupMoments moments;
};

struct Tally {
  explicit Tally(const Settings& settings);

  // Adds other's rows after this tally's own; other may be this tally.
  void Merge(const Tally& other);
  Tally& operator+=(const Tally& other) {
    Merge(other);
    return *this;
  }
  // The rows that reached the whole-table matrix.
  std::uint64_t RowsUsed() const;

  RowCounts counts;
  Extremes extremes;
  std::optional<vorel::MatrixListwise> listwise;  // exactly one of the two
  std::optional<vorel::MatrixPairwise> pairwise;
  std::vector<GroupTally> groups;  // groups with rows, by code
  // Grouped: the groups' corrected cross-products summed, a triangle (see
  // vorelstat::figures::TriangleIndex), for the pooled covariance.
  std::vector<double> within;

 private:
  void MergeGroups(const Tally& other);
};

}  // namespace vorelpy
