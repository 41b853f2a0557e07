// Test data shared by the matrix suites: a table of rows, and batches cut
// from it.
#pragma once

#include <vorel/databatch.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <random>
#include <stdexcept>
#include <utility>
#include <vector>

#include "test_support.h"

// A namespace of its own: other test headers define a Table too.
namespace vorel::testing::tables {

inline constexpr double kCode = -99.0;

// Rows of cells; a weight, a regression weight and a group per row where the
// vector is not empty (a batch of the table then carries them).
struct Table {
  std::vector<std::vector<double>> rows = {};
  std::vector<double> w = {}, rw = {};
  std::vector<unsigned> groups = {};

  unsigned NColumns() const { return static_cast<unsigned>(rows.at(0).size()); }
  std::vector<double> Column(unsigned col, std::size_t begin, std::size_t end) const {
    std::vector<double> x;
    for (std::size_t r = begin; r < end; ++r)
      x.push_back(rows[r][col]);
    return x;
  }
};

// nRows rows of cells offset + U(-1, 1), a share `missing` of them kCode;
// weights (hasW) and regression weights (hasRW) in [0.25, 4). With `dyadic`
// the cells are offset + integers from -8 to 8 and the weights powers of two
// from 1/4 to 4, so that no sum of them rounds.
inline Table RandomTable(unsigned seed, unsigned nCols, std::size_t nRows, bool hasW, bool hasRW,
                         double missing = 0.0, double offset = 0.0, bool dyadic = false) {
  std::mt19937_64 rng(seed);
  std::uniform_real_distribution<double> unit(-1.0, 1.0), weight(0.25, 4.0), coin(0.0, 1.0);
  std::uniform_int_distribution<int> power(-2, 2), integer(-8, 8);
  const auto draw = [&] { return dyadic ? std::ldexp(1.0, power(rng)) : weight(rng); };
  Table t;
  for (std::size_t r = 0; r < nRows; ++r) {
    t.rows.emplace_back(nCols);
    for (double& x : t.rows.back())
      x = coin(rng) < missing ? kCode : offset + (dyadic ? integer(rng) : unit(rng));
    if (hasW) t.w.push_back(draw());
    if (hasRW) t.rw.push_back(draw());
  }
  return t;
}

// Sets the row's weight, regression weight and group in the cells that a
// batch made by MakeBatch reads at each AddRow.
inline void SelectRow(const Table& t, std::size_t r, double& w, double& rw, unsigned& g) {
  if (!t.w.empty()) w = t.w[r];
  if (!t.rw.empty()) rw = t.rw[r];
  if (!t.groups.empty()) g = t.groups[r];
}

// Rows [begin, end) of t in a batch with room for them (at least one row).
inline DataBatch MakeBatch(const Table& t, std::size_t begin, std::size_t end) {
  static double w, rw;
  static unsigned g;
  DataBatch batch(t.NColumns(), static_cast<unsigned>(std::max<std::size_t>(1, end - begin)),
                  t.w.empty() ? nullptr : &w, t.rw.empty() ? nullptr : &rw,
                  t.groups.empty() ? nullptr : &g);
  for (std::size_t r = begin; r < end; ++r) {
    SelectRow(t, r, w, rw, g);
    batch.AddRow(t.rows[r].data());
  }
  return batch;
}

// The table cut into batches of batchRows rows, the last one maybe shorter.
inline std::vector<DataBatch> Split(const Table& t, std::size_t batchRows) {
  std::vector<DataBatch> batches;
  for (std::size_t begin = 0; begin < t.rows.size(); begin += batchRows)
    batches.push_back(MakeBatch(t, begin, std::min(t.rows.size(), begin + batchRows)));
  return batches;
}

// Expects f() to throw std::length_error("vector<T> too long").
template <class F>
void ExpectVectorTooLong(F f) {
  try {
    f();
    ADD_FAILURE() << "no std::length_error";
  } catch (const std::length_error& e) {
    EXPECT_STREQ(e.what(), "vector<T> too long");
  }
}

}  // namespace vorel::testing::tables
