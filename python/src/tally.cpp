#include "tally.h"

#include <cmath>
#include <limits>

namespace vorelpy {
namespace {

constexpr double kInf = std::numeric_limits<double>::infinity();

// -0 below +0, so that the extremes do not depend on the order of the cells;
// a NaN is below nothing and nothing is below it.
bool Below(double a, double b) { return a < b || (a == b && std::signbit(a) && !std::signbit(b)); }

// Groups of both lists by code; a group's rows in a come before those in b.
std::vector<GroupTally> MergeGroups(const std::vector<GroupTally>& a,
                                    const std::vector<GroupTally>& b) {
  std::vector<GroupTally> merged;
  merged.reserve(a.size() + b.size());
  auto ia = a.begin(), ib = b.begin();
  while (ia != a.end() || ib != b.end()) {
    if (ib == b.end() || (ia != a.end() && ia->code < ib->code)) {
      merged.push_back(*ia++);
    } else if (ia == a.end() || ib->code < ia->code) {
      merged.push_back(*ib++);
    } else {
      merged.push_back(*ia++);
      merged.back().matrix += ib++->matrix;
    }
  }
  return merged;
}

}  // namespace

void RowCounts::Add(const RowCounts& other) {
  rows += other.rows;
  zeroWeight += other.zeroWeight;
  incomplete += other.incomplete;
  withoutGroup += other.withoutGroup;
}

Extremes::Extremes(unsigned nColumns)
    : minima(nColumns, kInf), maxima(nColumns, -kInf), nan(nColumns, 0) {}

void Extremes::Add(unsigned c, const double* x, unsigned n, const std::optional<double>& skip) {
  double lo = minima[c], hi = maxima[c];
  bool seenNaN = false;
  for (unsigned r = 0; r < n; ++r) {
    // Compared exactly, on purpose: equality with the code is what makes a cell missing.
    if (skip && x[r] == *skip) continue;
    seenNaN |= std::isnan(x[r]);
    if (Below(x[r], lo)) lo = x[r];
    if (Below(hi, x[r])) hi = x[r];
  }
  minima[c] = lo;
  maxima[c] = hi;
  nan[c] |= seenNaN;
}

void Extremes::Add(const Extremes& other) {
  for (std::size_t c = 0; c < minima.size(); ++c) {
    if (Below(other.minima[c], minima[c])) minima[c] = other.minima[c];
    if (Below(maxima[c], other.maxima[c])) maxima[c] = other.maxima[c];
    nan[c] |= other.nan[c];
  }
}

Tally::Tally(const Settings& settings) : extremes(settings.nColumns) {
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
  if (!other.groups.empty()) groups = MergeGroups(groups, other.groups);
}

std::uint64_t Tally::RowsUsed() const { return listwise ? listwise->NRows() : pairwise->NRows(); }

}  // namespace vorelpy
