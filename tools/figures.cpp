#include "figures.h"

#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>

namespace vorelstat::figures {
namespace {

// -0 below +0; otherwise the usual order. NaN is never below anything.
bool Below(double a, double b) { return a < b || (a == b && std::signbit(a) && !std::signbit(b)); }

// A double's bits as a signed integer, the bits below the sign flipped for
// negative values: integers then order as the doubles do, -0 below +0 (NaN
// aside). The map is its own inverse.
std::int64_t OrderKey(double x) {
  const auto bits = std::bit_cast<std::int64_t>(x);
  return bits ^ ((bits >> 63) & std::numeric_limits<std::int64_t>::max());
}

double FromOrderKey(std::int64_t key) {
  return std::bit_cast<double>(OrderKey(std::bit_cast<double>(key)));
}

}  // namespace

// NumPy's order of evaluation, kept on purpose: W - (ddof V) / W.
double Divisor(double weight, double weightSquares, double ddof, WeightKind kind) {
  if (kind == WeightKind::kFrequency) return weight - ddof;
  return weight - ddof * weightSquares / weight;
}

void Range::Include(double x) {
  if (Below(x, min)) min = x;
  if (Below(max, x)) max = x;
}

std::uint64_t Range::IncludeAllBut(const double* x, std::size_t n, double missing) {
  std::uint64_t present = 0;
  std::int64_t low = OrderKey(min), high = OrderKey(max);
  for (std::size_t r = 0; r < n; ++r) {
    const bool there = x[r] != missing;
    const bool ordered = there && x[r] == x[r];  // NaN takes no place in the order
    const std::int64_t key = OrderKey(x[r]);
    present += there;
    low = ordered && key < low ? key : low;
    high = ordered && key > high ? key : high;
  }
  min = FromOrderKey(low);
  max = FromOrderKey(high);
  return present;
}

void Range::Include(const Range& other) {
  if (other.Empty()) return;
  Include(other.min);
  Include(other.max);
}

bool Range::Constant() const { return min == max && std::isfinite(min); }

void Constancy::Include(const Constancy& other) {
  if (other.state == State::kVaries) state = State::kVaries;
  if (other.state == State::kOneValue) Include(other.value);
}

bool Constancy::Constant() const { return state == State::kOneValue && std::isfinite(value); }

double Mean(const ColumnMoments& c) {
  if (c.n == 0) return kUndefined;
  return c.range.Constant() ? c.range.ConstantValue() : c.mean;
}

double Variance(const ColumnMoments& c, double ddof, WeightKind kind) {
  const double divisor = Divisor(c.weight, c.weightSquares, ddof, kind);
  if (c.n == 0 || !(divisor > 0.0)) return kUndefined;
  return c.range.Constant() ? 0.0 : c.css / divisor;
}

double StandardDeviation(const ColumnMoments& c, double ddof, WeightKind kind) {
  return std::sqrt(Variance(c, ddof, kind));
}

double Covariance(const PairMoments& p, double ddof, WeightKind kind) {
  const double divisor = Divisor(p.weight, p.weightSquares, ddof, kind);
  if (!(divisor > 0.0)) return kUndefined;
  return p.constant0 || p.constant1 ? 0.0 : p.cscp / divisor;
}

double Correlation(const PairMoments& p) {
  if (p.constant0 || p.constant1 || !(p.css0 > 0.0) || !(p.css1 > 0.0)) return kUndefined;
  return p.cscp / (std::sqrt(p.css0) * std::sqrt(p.css1));
}

double SelfCorrelation(const ColumnMoments& c) {
  return c.n == 0 || c.range.Constant() || !(c.css > 0.0) ? kUndefined : 1.0;
}

double PooledCovariance(double withinCscp, double totalWeight, std::size_t nGroups, double ddof) {
  return PooledCovariance(withinCscp, totalWeight - ddof * static_cast<double>(nGroups));
}

double PooledCovariance(double withinCscp, double divisorSum) {
  return divisorSum > 0.0 ? withinCscp / divisorSum : kUndefined;
}

std::vector<double> OriginOf(const double* row, std::size_t nColumns) {
  std::vector<double> origin(row, row + nColumns);
  for (double& value : origin) {
    if (!std::isfinite(value)) value = 0.0;
  }
  return origin;
}

GroupMoments::GroupMoments(std::size_t nColumns, bool keepCrossProducts)
    : _keep(keepCrossProducts),
      _origin(nColumns, 0.0),
      _means(nColumns, 0.0),
      _cscp(keepCrossProducts ? TriangleSize(nColumns) : 0, 0.0),
      _moved(nColumns, 0.0),
      _shift(nColumns, 0.0) {}

void GroupMoments::Join(std::uint64_t rows, double weight, const double* origin,
                        const double* means, const double* cscp, std::vector<double>& pooled,
                        double weightSquares) {
  JoinPart(rows, weight, weightSquares, origin, means, cscp, true, pooled);
}

void GroupMoments::Join(const GroupMoments& other, std::vector<double>& pooled) {
  if (other._rows == 0) return;
  JoinPart(other._rows, other._weight, other._weightSquares, other._origin.data(),
           other._means.data(), other._keep ? other._cscp.data() : nullptr, false, pooled);
}

void GroupMoments::JoinPart(std::uint64_t rows, double weight, double weightSquares,
                            const double* origin, const double* means, const double* cscp,
                            bool partToPooled, std::vector<double>& pooled) {
  const std::size_t k = _means.size();
  const std::size_t cells = TriangleSize(k);
  if (_rows == 0) {
    // Nothing to move: the part's figures are taken as they are, so that a
    // constant column keeps its value exactly.
    _origin.assign(origin, origin + k);
    _means.assign(means, means + k);
    if (cscp != nullptr) {
      if (_keep) _cscp.assign(cscp, cscp + cells);
      if (partToPooled) {
        for (std::size_t c = 0; c < cells; ++c)
          pooled[c] += cscp[c];
      }
    }
    _rows = rows;
    _weight = weight;
    _weightSquares = weightSquares;
    return;
  }
  const double total = _weight + weight;
  // The part's means relative to this origin; the origins of one group lie
  // close together, so their difference is exact or nearly.
  for (std::size_t i = 0; i < k; ++i)
    _moved[i] = means[i] + (origin[i] - _origin[i]);
  // _shift[i] = M_i - m_t,i; the part's distance M_i - m_d,i follows from it.
  for (std::size_t i = 0; i < k; ++i)
    _shift[i] = weight * (_moved[i] - _means[i]) / total;
  std::size_t cell = 0;
  for (std::size_t i = 0; i < k; ++i) {
    const double newMean = _means[i] + _shift[i];
    const double a = _weight * _shift[i];
    const double b = weight * (newMean - _moved[i]);
    for (std::size_t j = 0; j <= i; ++j, ++cell) {
      const double newMeanJ = _means[j] + _shift[j];
      const double joined = _shift[j] * a + (newMeanJ - _moved[j]) * b;
      const double part = cscp != nullptr ? cscp[cell] : 0.0;
      if (_keep) _cscp[cell] += part + joined;
      pooled[cell] += (partToPooled ? part : 0.0) + joined;
    }
  }
  for (std::size_t i = 0; i < k; ++i)
    _means[i] += _shift[i];
  _rows += rows;
  _weight = total;
  _weightSquares += weightSquares;
}

double GroupMoments::Divisor(double ddof, WeightKind kind) const {
  return figures::Divisor(_weight, _weightSquares, ddof, kind);
}

double GroupMoments::Covariance(std::size_t i, std::size_t j, double ddof, WeightKind kind) const {
  const double divisor = Divisor(ddof, kind);
  if (!(divisor > 0.0)) return kUndefined;
  return _cscp[TriangleIndex(i, j)] / divisor;
}

}  // namespace vorelstat::figures
