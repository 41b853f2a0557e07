// The figures vorelstat reports, defined from the weights, means and corrected
// sums that a pass produces. Nothing here reads files or knows the command
// line, so that other front ends report exactly the same figures.
//
// W is the weight of the rows behind a figure. A corrected sum is divided by
// its divisor D, which depends on what the weights mean and on the degrees of
// freedom ddof (1 unless a front end asks otherwise), as NumPy's cov defines
// them for its fweights and aweights:
//   frequency weights (a row of weight w stands for w rows)   D = W - ddof
//   analytic weights (w a reliability, e.g. 1 / variance)     D = W - ddof * V / W
// V the sum of the squared weights of the same rows. So
//   variance      CSS / D
//   sd            sqrt(variance)
//   covariance    CSCP / D
//   correlation   CSCP / (sqrt(CSS_i) * sqrt(CSS_j)); 1 on the diagonal
// The correlation has no divisor: neither convention changes it.
// A figure that is not defined is NaN (kUndefined):
//   - no cell: no mean, no spread;
//   - D <= 0: no variance, sd or covariance;
//   - a constant column (its smallest value equals its largest, both finite)
//     has that value as its mean, 0 as its variance and sd, 0 as its
//     covariance with any column, and no correlation; the rule holds whatever
//     rounding the sums went through;
//   - a correlation needs both corrected sums of squares positive.
//
// By group, each group's rows are reduced to centred results (weight, means,
// corrected cross-products) a part at a time, and the parts are joined by the
// update formula on means. A group's own covariance is its corrected
// cross-products over its own divisor D_g. The pooled within-group covariance
// is the sum over the groups of their corrected cross-products over the sum of
// their divisors: W - ddof G for frequency weights, G the number of groups. No raw sum of products
// is ever formed, so data far from zero and groups far apart lose no digits.
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <vector>

namespace vorelstat::figures {

inline constexpr double kUndefined = std::numeric_limits<double>::quiet_NaN();

enum class WeightKind : std::uint8_t { kFrequency, kAnalytic };

// The divisor D of the corrected sums of rows of weight `weight` whose
// squared weights sum to `weightSquares` (read for analytic weights only).
// Not positive where the figures are not defined.
double Divisor(double weight, double weightSquares, double ddof, WeightKind kind);

// Cell of row i and column j (j <= i) of a lower triangle stored with its
// diagonal, row after row; TriangleSize(k) cells hold k rows.
inline std::size_t TriangleIndex(std::size_t i, std::size_t j) {
  return i >= j ? i * (i + 1) / 2 + j : j * (j + 1) / 2 + i;
}
inline std::size_t TriangleSize(std::size_t k) { return k * (k + 1) / 2; }

// The smallest and largest value of a set of cells. -0 orders below +0, so
// that the extremes do not depend on the order the cells came in.
struct Range {
  double min = std::numeric_limits<double>::infinity();
  double max = -std::numeric_limits<double>::infinity();

  void Include(double x);
  void Include(const Range& other);
  // Includes the cells x[0, n) that are not `missing`, in the order above,
  // and returns how many there were. For the pass's every cell: no branch
  // per cell.
  std::uint64_t IncludeAllBut(const double* x, std::size_t n, double missing);
  bool Empty() const { return min > max; }
  // Smallest equals largest, and finite.
  bool Constant() const;
  // The value of a constant set: its largest, so that -0 and +0 give +0.
  double ConstantValue() const { return max; }
};

// Whether a set of cells holds one value only, without keeping the extremes:
// cheap enough to follow for every column on the rows of every pair.
struct Constancy {
  enum class State : std::uint8_t { kNoCells, kOneValue, kVaries };
  State state = State::kNoCells;
  double value = 0.0;

  // Returns whether the cells still hold one value.
  bool Include(double x) {
    if (state == State::kNoCells) {
      state = State::kOneValue;
      value = x;
    } else if (state == State::kOneValue && !(x == value)) {
      state = State::kVaries;
    }
    return state != State::kVaries;
  }
  void Include(const Constancy& other);
  bool Varies() const { return state == State::kVaries; }
  // One value, and finite: as Range::Constant.
  bool Constant() const;
};

// One column over the rows behind its figures.
struct ColumnMoments {
  std::uint64_t n = 0;         // cells
  double weight = 0.0;         // W
  double mean = 0.0;           // as the accumulation left it
  double css = 0.0;            // corrected sum of squares
  Range range;                 // exact extremes
  double weightSquares = 0.0;  // V: needed for analytic weights only
};

double Mean(const ColumnMoments& c);
double Variance(const ColumnMoments& c, double ddof = 1.0,
                WeightKind kind = WeightKind::kFrequency);
double StandardDeviation(const ColumnMoments& c, double ddof = 1.0,
                         WeightKind kind = WeightKind::kFrequency);

// Two columns over the rows where both are present.
struct PairMoments {
  double weight = 0.0;  // W of the pair
  double cscp = 0.0, css0 = 0.0, css1 = 0.0;
  bool constant0 = false, constant1 = false;  // a column constant on the pair's rows
  double weightSquares = 0.0;                 // V of the pair: analytic weights only
};

double Covariance(const PairMoments& p, double ddof = 1.0,
                  WeightKind kind = WeightKind::kFrequency);
double Correlation(const PairMoments& p);
// Diagonal of the correlation matrix: 1 for a column with spread.
double SelfCorrelation(const ColumnMoments& c);

// The pooled within-group covariance of one cell: the sum of the groups'
// corrected cross-products over W - ddof G (frequency weights).
double PooledCovariance(double withinCscp, double totalWeight, std::size_t nGroups,
                        double ddof = 1.0);
// The same over any sum of the groups' divisors (see GroupMoments::Divisor).
double PooledCovariance(double withinCscp, double divisorSum);

// A point near a group's data, for each column: the first row's values, or 0
// where a value is not finite. Means are kept relative to it, so that their
// rounding is that of the spread of the data, not of its distance from zero.
std::vector<double> OriginOf(const double* row, std::size_t nColumns);

// Centred results of some rows of one group. Parts of a group are joined by
// the update formula: the joined mean moves by W_d (m_d - m_t) / W, and the
// cross-products gain W_t (M - m_t)(M - m_t)' + W_d (M - m_d)(M - m_d)'. All
// means are relative to the group's origin, the first part's.
class GroupMoments {
 public:
  // keepCrossProducts: whether the group keeps its own corrected
  // cross-products (for its own covariance), or only adds them to a pooled sum.
  GroupMoments(std::size_t nColumns, bool keepCrossProducts);

  // Joins centred results of further rows of the group: their row count,
  // weight, origin, means relative to that origin and corrected cross-products
  // (a triangle, see TriangleIndex). `pooled` (a triangle) receives what the
  // join adds to the group's corrected cross-products, the part's own included.
  // `weightSquares` is the part's V, kept for analytic weights.
  void Join(std::uint64_t rows, double weight, const double* origin, const double* means,
            const double* cscp, std::vector<double>& pooled, double weightSquares = 0.0);
  // Joins another partial result of the same group, whose own corrected
  // cross-products are already in another pooled sum; `pooled` receives only
  // what the join adds.
  void Join(const GroupMoments& other, std::vector<double>& pooled);

  std::uint64_t Rows() const { return _rows; }
  double Weight() const { return _weight; }
  double WeightSquares() const { return _weightSquares; }
  // D_g, the group's own divisor.
  double Divisor(double ddof = 1.0, WeightKind kind = WeightKind::kFrequency) const;
  // The origin of the means, once the group has rows.
  const double* Origin() const { return _origin.data(); }
  double Mean(std::size_t i) const { return _origin[i] + _means[i]; }
  // The means relative to Origin(), as joined: with Origin(), Rows() and Weight(),
  // what a fresh group needs to continue exactly where this one stands.
  const double* RelativeMeans() const { return _means.data(); }
  bool KeepsCrossProducts() const { return _keep; }
  // The own corrected cross-products (a triangle; empty unless kept) as they
  // stand, to save them with RelativeMeans(); a fresh group that joins them
  // with Join gets the same bits back.
  const std::vector<double>& CrossProducts() const { return _cscp; }
  // The group's own covariance; needs keepCrossProducts.
  double Covariance(std::size_t i, std::size_t j, double ddof = 1.0,
                    WeightKind kind = WeightKind::kFrequency) const;

 private:
  // Adds the part's cross-products `cscp` (may be null) to the group's own,
  // and to `pooled` when `partToPooled`, besides what the join adds.
  void JoinPart(std::uint64_t rows, double weight, double weightSquares, const double* origin,
                const double* means, const double* cscp, bool partToPooled,
                std::vector<double>& pooled);

  bool _keep;
  std::uint64_t _rows = 0;
  double _weight = 0.0;
  double _weightSquares = 0.0;
  std::vector<double> _origin;
  std::vector<double> _means;
  std::vector<double> _cscp;   // triangle, kept only on request
  std::vector<double> _moved;  // scratch: the part's means relative to the origin
  std::vector<double> _shift;  // scratch: the new means minus the old
};

}  // namespace vorelstat::figures
