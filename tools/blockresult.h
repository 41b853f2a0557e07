// What one block of rows reduces to, and the parts of a pass that do not
// depend on the order in which blocks are merged.
//
// The bits of a sum of doubles depend on the order of the additions, so
// everything a pass adds up in floating point (the whole-table matrix, the
// groups' moments and their pooled cross-products) lives in a BlockResult:
// each block of rows is reduced into a fresh one and the results are merged
// along the block tree (vorel/blocktree.h). Counts, extremes and constancy
// are exact whatever the order; they stay in ExactTotals, one per worker,
// added up at the end.
#pragma once

#include <vorel/matrixlistwise.h>
#include <vorel/matrixpairwise.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <unordered_map>
#include <vector>

#include "figures.h"
#include "grouplabel.h"

namespace vorelstat {

// The results by group of a block, of a worker or of the whole pass: state
// for the groups that occurred, in slots numbered in the order of their first
// row, and the sum of their corrected cross-products (a triangle,
// figures::TriangleIndex). Tables added in the order of their rows (the block
// tree) keep the slots in order of first appearance in the input.
class GroupTable {
 public:
  // The pooled triangle is made with the first group, so that the table of a
  // block without groups costs nothing.
  GroupTable(unsigned nValues, bool keepCrossProducts)
      : _nValues(nValues), _keep(keepCrossProducts) {}

  // The slot of a label's group, made when the label is first seen, at
  // `place` (the offset of its row in the input); an earlier sighting moves
  // the label's place there.
  std::size_t Slot(const GroupLabel& label, std::uint64_t place);
  std::size_t Size() const { return _groups.size(); }
  figures::GroupMoments& At(std::size_t slot) { return _groups[slot]; }
  const std::vector<GroupLabel>& Labels() const { return _labels; }
  const std::vector<figures::GroupMoments>& Groups() const { return _groups; }
  // The pooled cross-products: empty while the table has no group.
  std::vector<double>& Within() { return _within; }
  const std::vector<double>& Within() const { return _within; }
  unsigned NValues() const { return _nValues; }
  bool KeepsCrossProducts() const { return _keep; }

  // Joins other's groups in their slot order, a label new here taking the
  // next slot; the same operands in the same order give the same bits.
  void Add(const GroupTable& other);

  // Renumbers the slots in order of the groups' places: for tables that were
  // not added in the order of their rows (the threads' finish order).
  void OrderSlotsByPlace();

  // Moves the groups out, in sorted label order or in slot order, and the
  // pooled cross-products.
  void TakeInto(std::vector<GroupLabel>& labels, std::vector<figures::GroupMoments>& groups,
                std::vector<double>& within, bool inSlotOrder);

 private:
  void Reorder(const std::vector<std::size_t>& order);

  unsigned _nValues;
  bool _keep;
  std::unordered_map<GroupLabel, std::size_t, GroupLabel::Hash> _index;
  std::vector<GroupLabel> _labels;
  std::vector<std::uint64_t> _places;
  std::vector<figures::GroupMoments> _groups;
  std::vector<double> _within;
};

// How a pass is shaped: what a fresh BlockResult needs.
struct BlockShape {
  unsigned nValues = 0;
  bool pairwise = false;
  double missingCode = 0.0;
  bool grouped = false;
  bool groupCovariance = false;
  bool weightSquares = false;  // keep the sums of squared weights (analytic weights)
};

// The floating-point sums of some rows: one matrix (listwise or pairwise),
// on request the sums of the squared weights, and with a group column the
// group table.
class BlockResult {
 public:
  explicit BlockResult(const BlockShape& shape);
  BlockResult(BlockResult&&) noexcept = default;
  BlockResult& operator=(BlockResult&&) noexcept = default;

  // The merge of the block tree: this result followed by other's rows.
  BlockResult& operator+=(const BlockResult& other);

  std::unique_ptr<vorel::MatrixListwise> listwise;
  std::unique_ptr<vorel::MatrixPairwise> pairwise;
  // The sum of the squared weights of the rows used, added row after row: one
  // entry under listwise deletion, under pairwise deletion a triangle
  // (figures::TriangleIndex) over the rows where both are present; empty
  // unless the shape keeps them.
  std::vector<double> weightSquares;
  std::optional<GroupTable> groups;
};

// Cell counts and extremes of the columns, under pairwise deletion whether
// each column holds one value on the rows of each pair, and what became of
// the rows: exact, whatever the order in which they are added up.
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

struct ExactTotals {
  RowCounts rows;
  std::vector<std::uint64_t> counts;
  std::vector<figures::Range> ranges;
  std::vector<figures::Constancy> pairConstancy;  // k x k under pairwise deletion, else empty

  ExactTotals(unsigned nValues, bool pairwise)
      : counts(nValues, 0),
        ranges(nValues),
        pairConstancy(pairwise ? std::size_t{nValues} * nValues : 0) {}

  void Add(const ExactTotals& other);
};

}  // namespace vorelstat
