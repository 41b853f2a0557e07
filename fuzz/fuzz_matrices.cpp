// libFuzzer target: vorel's whole-table matrices and column records through
// their public headers. The same rows go in once as one batch, and again cut
// into batches of random sizes spread over several matrices that are then
// merged in random order. Row counts, weight sums, minima and maxima must
// agree exactly (the weights are small whole numbers and halves, whose sums
// are exact); means and corrected sums within a bound of rounding.
//
// Input: byte 0 the columns (1 to 4) and whether rows carry weights and
// regression weights; then rows of one byte per cell (a quarter of the signed
// byte, or missing for -128), a weight byte and a regression weight byte.
#include <vorel/databatch.h>
#include <vorel/matrixlistwise.h>
#include <vorel/matrixpairwise.h>
#include <vorel/statrecords.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <random>
#include <vector>

namespace {

constexpr double kCode = -99.0;
constexpr double kEps = 2.220446049250313e-16;

void Check(bool ok, const char* what) {
  if (ok) return;
  std::fprintf(stderr, "fuzz_matrices: %s\n", what);
  std::abort();
}

void Near(double got, double want, double bound, const char* what) {
  if (!(std::fabs(got - want) <= bound)) {
    std::fprintf(stderr, "%s: got %.17g, want %.17g, bound %.3g\n", what, got, want, bound);
    std::abort();
  }
}

struct Rows {
  unsigned nCols = 1;
  bool weighted = false, regWeighted = false;
  std::vector<std::vector<double>> cells;
  std::vector<double> weights, regWeights;
  double maxAbs = 0.0;
};

Rows Decode(const std::uint8_t* data, std::size_t size) {
  Rows rows;
  rows.nCols = 1u + data[0] % 4u;
  rows.weighted = (data[0] & 4) != 0;
  rows.regWeighted = (data[0] & 8) != 0;
  const std::size_t width = rows.nCols + 2;
  for (std::size_t at = 1; at + width <= size; at += width) {
    std::vector<double> row;
    for (unsigned c = 0; c < rows.nCols; ++c) {
      const auto byte = static_cast<std::int8_t>(data[at + c]);
      row.push_back(byte == -128 ? kCode : byte / 4.0);
      if (byte != -128) rows.maxAbs = std::max(rows.maxAbs, std::fabs(byte / 4.0));
    }
    rows.cells.push_back(row);
    rows.weights.push_back(1.0 + data[at + rows.nCols] % 4);
    rows.regWeights.push_back(0.5 * (1 + data[at + rows.nCols + 1] % 4));
  }
  return rows;
}

bool Complete(const std::vector<double>& row) {
  return std::none_of(row.begin(), row.end(), [](double x) { return x == kCode; });
}

// Fills one batch with rows [first, last), complete ones only when `listwise`.
class Feeder {
 public:
  Feeder(const Rows& rows, unsigned capacity)
      : _rows(rows),
        _batch(rows.nCols, capacity, rows.weighted ? &_w : nullptr,
               rows.regWeighted ? &_rw : nullptr, nullptr) {}

  vorel::DataBatch& Fill(std::size_t first, std::size_t last, bool listwise) {
    _batch.Clear();
    for (std::size_t r = first; r < last; ++r) {
      if (listwise && !Complete(_rows.cells[r])) continue;
      _w = _rows.weights[r];
      _rw = _rows.regWeights[r];
      _batch.AddRow(_rows.cells[r].data());
    }
    return _batch;
  }

 private:
  const Rows& _rows;
  double _w = 1.0, _rw = 1.0;
  vorel::DataBatch _batch;
};

// Random cuts of [0, n) into batches, each given to one of `nMatrices`.
struct Plan {
  std::vector<std::size_t> cuts;  // batch b is [cuts[b], cuts[b + 1])
  std::vector<unsigned> owner;
  std::vector<unsigned> mergeOrder;
};

Plan MakePlan(std::size_t n, std::mt19937& random) {
  Plan plan;
  const unsigned nMatrices = 1 + random() % 4;
  plan.cuts.push_back(0);
  while (plan.cuts.back() < n) {
    plan.cuts.push_back(std::min(n, plan.cuts.back() + 1 + random() % 9));
    plan.owner.push_back(static_cast<unsigned>(random() % nMatrices));
  }
  for (unsigned m = 0; m < nMatrices; ++m)
    plan.mergeOrder.push_back(m);
  std::shuffle(plan.mergeOrder.begin(), plan.mergeOrder.end(), random);
  return plan;
}

template <class Matrix, class Make>
Matrix Split(const Rows& rows, const Plan& plan, bool listwise, const Make& make) {
  std::vector<Matrix> parts;
  for (std::size_t m = 0; m < plan.mergeOrder.size(); ++m)
    parts.push_back(make());
  Feeder feeder(rows, 16);
  for (std::size_t b = 0; b + 1 < plan.cuts.size(); ++b) {
    vorel::DataBatch& batch = feeder.Fill(plan.cuts[b], plan.cuts[b + 1], listwise);
    if (batch.NRows() != 0) parts[plan.owner[b]] += batch;
  }
  Matrix joined = make();
  for (unsigned m : plan.mergeOrder)
    joined += parts[m];
  return joined;
}

void CheckListwise(const Rows& rows, const Plan& plan) {
  const std::size_t n = rows.cells.size();
  Feeder whole(rows, static_cast<unsigned>(n));
  vorel::MatrixListwise one;
  one += whole.Fill(0, n, true);
  const vorel::MatrixListwise split =
      Split<vorel::MatrixListwise>(rows, plan, true, [] { return vorel::MatrixListwise(); });
  Check(split.NRows() == one.NRows(), "listwise rows");
  Check(split.WeightSum() == one.WeightSum(), "listwise weight");
  Check(split.RegWeightSum() == one.RegWeightSum(), "listwise combined weight");
  if (!(0. < one.WeightSum())) return;
  const double v = one.RegWeightSum();
  for (unsigned i = 0; i < rows.nCols; ++i) {
    Near(split.Mean(i), one.Mean(i), 64 * n * kEps * rows.maxAbs, "listwise mean");
    for (unsigned j = 0; j <= i; ++j) {
      Near(split.CCP(i, j), one.CCP(i, j), 256 * n * kEps * v * rows.maxAbs * rows.maxAbs,
           "listwise cross-product");
    }
  }
}

void CheckPairwise(const Rows& rows, const Plan& plan) {
  const std::size_t n = rows.cells.size();
  Feeder whole(rows, static_cast<unsigned>(n));
  vorel::MatrixPairwise one(kCode);
  one += whole.Fill(0, n, false);
  const vorel::MatrixPairwise split =
      Split<vorel::MatrixPairwise>(rows, plan, false, [] { return vorel::MatrixPairwise(kCode); });
  Check(split.NRows() == one.NRows(), "pairwise rows");
  Check(split.WeightSum() == one.WeightSum(), "pairwise weight");
  if (!(0. < one.WeightSum())) return;
  const double bound = 256 * n * kEps * one.RegWeightSum() * rows.maxAbs * rows.maxAbs;
  for (unsigned i = 0; i < rows.nCols; ++i) {
    const vorel::VarStats a = split.Var(i), b = one.Var(i);
    Check(a.NRows() == b.NRows() && a.WeightSum() == b.WeightSum(), "column rows and weight");
    if (b.NRows() == 0) continue;
    Near(a.Mean(), b.Mean(), 64 * n * kEps * rows.maxAbs, "column mean");
    Near(a.CSS(), b.CSS(), bound, "column sum of squares");
    for (unsigned j = 0; j < i; ++j) {
      const vorel::PairStats p = split.Pair(i, j), q = one.Pair(i, j);
      Check(p.NRows() == q.NRows() && p.WeightSum() == q.WeightSum(), "pair rows and weight");
      if (q.NRows() == 0) continue;
      Near(p.CSCP(), q.CSCP(), bound, "pair cross-product");
    }
  }
}

// Column records: counts and extremes exact however the batches fall.
void CheckRecords(const Rows& rows, const Plan& plan) {
  vorel::WorkArea work;
  work.missingCode = kCode;
  Feeder feeder(rows, 16);
  for (unsigned c = 0; c < rows.nCols; ++c) {
    vorel::VarStat joined;
    bool first = true;
    for (std::size_t b = 0; b + 1 < plan.cuts.size(); ++b) {
      const vorel::DataBatch& batch = feeder.Fill(plan.cuts[b], plan.cuts[b + 1], false);
      vorel::VarStat part;
      part.Init(batch.Column(c), batch.Weights(), batch.RegWeights(), work,
                static_cast<int>(batch.NRows()));
      if (first) {
        joined = part;
        first = false;
      } else {
        joined.Update(part);
      }
    }
    int count = 0;
    double lo = INFINITY, hi = -INFINITY;
    for (const std::vector<double>& row : rows.cells) {
      if (row[c] == kCode) continue;
      ++count;
      lo = std::min(lo, row[c]);
      hi = std::max(hi, row[c]);
    }
    Check(joined.NRows() == count, "record rows");
    if (count == 0) continue;
    Check(joined.Min() == lo && joined.Max() == hi, "record extremes");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 2) return 0;
  const Rows rows = Decode(data, size);
  if (rows.cells.empty()) return 0;
  std::seed_seq seed(data, data + std::min<std::size_t>(size, 64));
  std::mt19937 random(seed);
  const Plan plan = MakePlan(rows.cells.size(), random);
  CheckListwise(rows, plan);
  CheckPairwise(rows, plan);
  CheckRecords(rows, plan);
  return 0;
}
