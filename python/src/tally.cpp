#include "tally.h"

#include <cmath>
#include <limits>

namespace vorelpy {
namespace {

constexpr double kInf = std::numeric_limits<double>::infinity();

// -0 below +0, so that the extremes do not depend on the order of the cells;
// a NaN is below nothing and nothing is below it.
bool Below(double a, double b) { return a < b || (a == b && std::signbit(a) && !std::signbit(b)); }

}  // namespace

void RowCounts::Add(const RowCounts& other) {
  rows += other.rows;
  zeroWeight += other.zeroWeight;
  incomplete += other.incomplete;
  withoutGroup += other.withoutGroup;
}

Extremes::Extremes(unsigned nColumns, bool pairwise)
    : minima(nColumns, kInf),
      maxima(nColumns, -kInf),
      nan(nColumns, 0),
      pairs(pairwise ? std::size_t{nColumns} * nColumns : 0) {}

constexpr unsigned kLanes = 8;

// Running extremes of x in kLanes lanes that the compiler keeps in vector
// registers: plain comparisons, which a NaN cell loses (it is noted instead);
// with kSkip a cell equal to code is replaced by a value that cannot win.
template <bool kSkip>
void LaneExtremes(const double* x, unsigned n, double code, double (&lanesLo)[kLanes],
                  double (&lanesHi)[kLanes], double (&lanesNaN)[kLanes]) {
  double lo[kLanes], hi[kLanes], nans[kLanes];
  for (unsigned l = 0; l < kLanes; ++l) {
    lo[l] = lanesLo[l];
    hi[l] = lanesHi[l];
    nans[l] = lanesNaN[l];
  }
  unsigned r = 0;
  for (; r + kLanes <= n; r += kLanes) {
    for (unsigned l = 0; l < kLanes; ++l) {
      const double v = x[r + l];
      // Compared exactly, on purpose: equality with the code makes a cell missing.
      const double forMin = kSkip && v == code ? kInf : v;
      const double forMax = kSkip && v == code ? -kInf : v;
      lo[l] = forMin < lo[l] ? forMin : lo[l];
      hi[l] = forMax > hi[l] ? forMax : hi[l];
      nans[l] = v != v ? 1.0 : nans[l];
    }
  }
  for (; r < n; ++r) {
    const double v = x[r];
    if (kSkip && v == code) continue;
    lo[0] = v < lo[0] ? v : lo[0];
    hi[0] = v > hi[0] ? v : hi[0];
    nans[0] = v != v ? 1.0 : nans[0];
  }
  for (unsigned l = 0; l < kLanes; ++l) {
    lanesLo[l] = lo[l];
    lanesHi[l] = hi[l];
    lanesNaN[l] = nans[l];
  }
}

void Extremes::Add(unsigned c, const double* x, unsigned n, const std::optional<double>& skip) {
  const double code = skip ? *skip : kInf;
  double lo[kLanes], hi[kLanes], nans[kLanes];
  for (unsigned l = 0; l < kLanes; ++l) {
    lo[l] = minima[c];
    hi[l] = maxima[c];
    nans[l] = 0.0;
  }
  if (skip) {
    LaneExtremes<true>(x, n, code, lo, hi, nans);
  } else {
    LaneExtremes<false>(x, n, code, lo, hi, nans);
  }
  double low = lo[0], high = hi[0];
  for (unsigned l = 0; l < kLanes; ++l) {
    low = lo[l] < low ? lo[l] : low;
    high = hi[l] > high ? hi[l] : high;
    nan[c] |= nans[l] != 0.0;
  }
  Include(c, low, high, x, n, skip);
}

void Extremes::Include(unsigned c, double low, double high, const double* x, unsigned n,
                       const std::optional<double>& skip) {
  // Zeros compare equal: -0 is the minimum if any cell is -0, +0 the maximum
  // if any is +0, whatever the order of the cells.
  if (low == 0.0 || high == 0.0) {
    for (unsigned k = 0; k < n; ++k) {
      if (x[k] != 0.0 || (skip && x[k] == *skip)) continue;
      if (low == 0.0 && std::signbit(x[k])) low = -0.0;
      if (high == 0.0 && !std::signbit(x[k])) high = 0.0;
    }
  }
  minima[c] = Below(low, minima[c]) ? low : minima[c];
  maxima[c] = Below(maxima[c], high) ? high : maxima[c];
}

void Extremes::AddPairs(const vorel::DataBatch& batch, double code) {
  const unsigned k = batch.NColumns(), n = batch.NRows();
  for (unsigned i = 0; i < k; ++i) {
    const double* xi = batch.Column(i);
    for (unsigned j = 0; j < k; ++j) {
      vorelstat::figures::Constancy& pair = pairs[std::size_t{i} * k + j];
      if (i == j || pair.Varies()) continue;
      const double* xj = batch.Column(j);
      for (unsigned r = 0; r < n; ++r) {
        // Compared exactly, on purpose: equality with the code is what makes a cell missing.
        if (xi[r] == code || xj[r] == code) continue;
        if (!pair.Include(xi[r])) break;
      }
    }
  }
}

void Extremes::Add(const Extremes& other) {
  for (std::size_t c = 0; c < minima.size(); ++c) {
    if (Below(other.minima[c], minima[c])) minima[c] = other.minima[c];
    if (Below(maxima[c], other.maxima[c])) maxima[c] = other.maxima[c];
    nan[c] |= other.nan[c];
  }
  for (std::size_t at = 0; at < other.pairs.size(); ++at)
    pairs[at].Include(other.pairs[at]);
}

Tally::Tally(const Settings& settings)
    : extremes(settings.nColumns, settings.pairwise),
      within(settings.grouped ? vorelstat::figures::TriangleSize(settings.nColumns) : 0, 0.0) {
  if (settings.pairwise) {
    pairwise.emplace(settings.pairwiseCode);
  } else {
    listwise.emplace();
  }
}

void Tally::Merge(const Tally& other) {
  counts.Add(other.counts);
  extremes.Add(other.extremes);
  if (listwise) *listwise += *other.listwise;
  if (pairwise) *pairwise += *other.pairwise;
  if (!other.groups.empty()) MergeGroups(other);
}

// Groups of both tallies by code; a group's rows here come before those in other.
void Tally::MergeGroups(const Tally& other) {
  for (std::size_t c = 0; c < within.size(); ++c)
    within[c] += other.within[c];
  std::vector<GroupTally> merged;
  merged.reserve(groups.size() + other.groups.size());
  auto ia = groups.cbegin();
  auto ib = other.groups.cbegin();
  while (ia != groups.cend() || ib != other.groups.cend()) {
    if (ib == other.groups.cend() || (ia != groups.cend() && ia->code < ib->code)) {
      merged.push_back(*ia++);
    } else if (ia == groups.cend() || ib->code < ia->code) {
      merged.push_back(*ib++);
    } else {
      merged.push_back(*ia++);
      merged.back().moments.Join(ib++->moments, within);
    }
  }
  groups = std::move(merged);
}

std::uint64_t Tally::RowsUsed() const { return listwise ? listwise->NRows() : pairwise->NRows(); }

}  // namespace vorelpy
