#include "tally.h"

#include <cmath>
#include <limits>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace vorelpy {
namespace {

constexpr double kInf = std::numeric_limits<double>::infinity();

// -0 below +0, so that the extremes do not depend on the order of the cells;
// a NaN is below nothing and nothing is below it.
bool Below(double a, double b) { return a < b || (a == b && std::signbit(a) && !std::signbit(b)); }

#if defined(__SSE2__)
// a in the lanes of mask, b in the others.
__m128d Blend(__m128d mask, __m128d a, __m128d b) {
  return _mm_or_pd(_mm_and_pd(mask, a), _mm_andnot_pd(mask, b));
}
#endif

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

template <Sweep kHow>
ColumnSweep SweepColumn(const double* x, std::size_t n, double code, std::uint64_t* missingRows,
                        double* marked) {
  constexpr bool kNaN = kHow == Sweep::kMarkNaN;
  constexpr bool kSkips = kHow == Sweep::kSkipCode || kHow == Sweep::kFlagCode;
  constexpr bool kFlags = kHow == Sweep::kFlagCode || kNaN;
  constexpr std::size_t kWord = kRowsPerWord;
  ColumnSweep found;
  std::size_t r = 0;
#if defined(__SSE2__)
  const __m128d c = _mm_set1_pd(code);
  const __m128d up = _mm_set1_pd(kInf), down = _mm_set1_pd(-kInf);
  __m128d lo = up, hi = down, seenCode = _mm_setzero_pd(), seenNaN = _mm_setzero_pd();
  std::uint64_t word = 0;  // the flags of the rows from the last whole word on
  for (; r + 2 <= n; r += 2) {
    const __m128d v = _mm_loadu_pd(x + r);
    const __m128d equal = _mm_cmpeq_pd(v, c);
    const __m128d nan = _mm_cmpunord_pd(v, v);
    // minpd and maxpd give their second operand when the first is NaN.
    lo = _mm_min_pd(kSkips ? Blend(equal, up, v) : v, lo);
    hi = _mm_max_pd(kSkips ? Blend(equal, down, v) : v, hi);
    if constexpr (kFlags) seenCode = _mm_or_pd(seenCode, equal);
    if constexpr (kNaN) {
      _mm_storeu_pd(marked + r, Blend(nan, c, v));
    } else {
      seenNaN = _mm_or_pd(seenNaN, nan);
    }
    if constexpr (kFlags) {
      word |= static_cast<std::uint64_t>(_mm_movemask_pd(kNaN ? nan : equal)) << (r % kWord);
      if ((r + 2) % kWord == 0) {
        missingRows[r / kWord] |= word;
        word = 0;
      }
    }
  }
  if constexpr (kFlags) {
    if (r % kWord != 0) missingRows[r / kWord] |= word;
  }
  double lanes[2];
  _mm_storeu_pd(lanes, lo);
  found.low = lanes[1] < lanes[0] ? lanes[1] : lanes[0];
  _mm_storeu_pd(lanes, hi);
  found.high = lanes[1] > lanes[0] ? lanes[1] : lanes[0];
  found.sawCode = _mm_movemask_pd(seenCode) != 0;
  found.sawNaN = _mm_movemask_pd(seenNaN) != 0;
#endif
  for (; r < n; ++r) {
    const double v = x[r];
    // Compared exactly, on purpose: equality with the code makes a cell missing.
    const bool missing = kNaN ? v != v : kSkips && v == code;
    if constexpr (kFlags) {
      missingRows[r / kWord] |= std::uint64_t{missing} << (r % kWord);
      found.sawCode |= v == code;
    }
    if constexpr (kNaN) {
      marked[r] = missing ? code : v;
    } else {
      found.sawNaN |= v != v;
    }
    if (missing) continue;
    found.low = v < found.low ? v : found.low;
    found.high = v > found.high ? v : found.high;
  }
  return found;
}

template ColumnSweep SweepColumn<Sweep::kAll>(const double*, std::size_t, double, std::uint64_t*,
                                              double*);
template ColumnSweep SweepColumn<Sweep::kSkipCode>(const double*, std::size_t, double,
                                                   std::uint64_t*, double*);
template ColumnSweep SweepColumn<Sweep::kFlagCode>(const double*, std::size_t, double,
                                                   std::uint64_t*, double*);
template ColumnSweep SweepColumn<Sweep::kMarkNaN>(const double*, std::size_t, double,
                                                  std::uint64_t*, double*);

void Extremes::Add(unsigned c, const double* x, unsigned n, const std::optional<double>& skip) {
  const ColumnSweep found =
      skip ? SweepColumn<Sweep::kSkipCode>(x, n, *skip) : SweepColumn<Sweep::kAll>(x, n, 0.0);
  nan[c] |= static_cast<char>(found.sawNaN);
  Include(c, found.low, found.high, x, n, skip);
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
