// The result classes seen through one shape, for the tests of the block tree
// and of the saved state: a fresh result, rows that feel the order of the
// merges, one block of them reduced into it, and the state it saves, to be
// compared byte for byte. Plus the fixed tree written out as a recursion.
#pragma once

#include <gtest/gtest.h>
#include <vorel/vorel.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <random>
#include <type_traits>
#include <vector>

#include "discriminant_support.h"
#include "table_support.h"

namespace vorel::testing::blocktree {

using tables::kCode;
using tables::Table;

using ResultClasses =
    ::testing::Types<MatrixListwise, MatrixPairwise, SMatrixListwise, NSMatrixListwise,
                     SMatrixPairwise, NSMatrixPairwise, DiscriminantMatrix, DiscIndividualMatrix>;

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

// Everything a result holds, as its saved state: equal states, equal results
// to the last bit of every figure.
using State = std::vector<std::byte>;

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
  return total.SaveState();
}

}  // namespace vorel::testing::blocktree
