// The wide-table example of the blocks section of the README, kept here so
// that it can't drift from the library, and checked against MatrixListwise
// over the same rows.
#include <vorel/vorel.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <memory>
#include <random>
#include <tuple>
#include <utility>
#include <vector>

#include "test_support.h"

namespace readme {

// ---- the README's code, as it stands there --------------------------------

// The columns [0, cuts.back()) cut into parts [cuts[p], cuts[p + 1]).
class WideTable {
 public:
  explicit WideTable(std::vector<int> cuts) : _cuts(std::move(cuts)) {
    for (int p = 0; p < Parts(); ++p)      // on the diagonal: each part with itself
      _blocks.push_back(std::make_unique<vorel::SMatrixListwise>(_cuts[p], _cuts[p + 1]));
    for (int p = 0; p + 1 < Parts(); ++p)  // off it: each part with all later columns
      _blocks.push_back(
          std::make_unique<vorel::NSMatrixListwise>(_cuts[p], _cuts[p + 1], _cuts.back()));
  }

  // A listwise block centres its columns in the batch it is given, and blocks
  // overlap, so each block gets a copy of its own.
  void Add(const vorel::DataBatch& batch) {
    for (auto& block : _blocks) {
      vorel::DataBatch copy = batch;
      *block += copy;
    }
  }
  // Block by block, through the common interface.
  void Add(const WideTable& other) {
    for (std::size_t k = 0; k < _blocks.size(); ++k) *_blocks[k] += *other._blocks[k];
  }

  double Mean(int x) const { return Diagonal(Part(x)).Mean(x); }
  double CCP(int x, int y) const {
    if (x > y) std::swap(x, y);
    if (Part(x) == Part(y)) return Diagonal(Part(x)).CCP(x, y);
    return OffDiagonal(Part(x)).CCP(x, y);
  }

 private:
  int Parts() const { return static_cast<int>(_cuts.size()) - 1; }
  int Part(int x) const {
    return static_cast<int>(std::upper_bound(_cuts.begin(), _cuts.end(), x) - _cuts.begin()) - 1;
  }
  const vorel::SMatrixListwise& Diagonal(int p) const {
    return static_cast<const vorel::SMatrixListwise&>(*_blocks[p]);
  }
  const vorel::NSMatrixListwise& OffDiagonal(int p) const {
    return static_cast<const vorel::NSMatrixListwise&>(*_blocks[Parts() + p]);
  }

  std::vector<int> _cuts;
  std::vector<std::unique_ptr<vorel::MatrixBase>> _blocks;
};

// A pass on a pool of threads: each worker keeps a WideTable of its own rows.
class WideProblem : public vorel::ProblemBase {
 public:
  WideProblem(const std::vector<std::vector<double>>& table, const std::vector<int>& parts)
      : rows(table), cuts(parts), result(parts) {}
  vorel::WorkerBase* CreateWorker() override;

  const std::vector<std::vector<double>>& rows;  // the table, row by row
  std::size_t next = 0;                          // the next row to read
  const std::vector<int> cuts;
  WideTable result;
};

class WideWorker : public vorel::WorkerBase {
 public:
  explicit WideWorker(WideProblem& problem)
      : _problem(problem),
        _mine(problem.cuts),
        _batch(static_cast<unsigned>(problem.cuts.back()), kBatchRows, nullptr, nullptr,
               nullptr) {}

  bool ReadBatch() override {  // under the read lock
    _batch.Clear();
    while (_batch.NRows() < kBatchRows && _problem.next < _problem.rows.size())
      _batch.AddRow(_problem.rows[_problem.next++].data());
    return _batch.NRows() > 0;
  }
  void ProcessBatch() override { _mine.Add(_batch); }          // no lock
  void MergeResult() override { _problem.result.Add(_mine); }  // under the result lock

  static constexpr unsigned kBatchRows = 256;

 private:
  WideProblem& _problem;
  WideTable _mine;
  vorel::DataBatch _batch;
};

vorel::WorkerBase* WideProblem::CreateWorker() { return new WideWorker(*this); }

// ---- end of the README's code ---------------------------------------------

}  // namespace readme

namespace vorel {
namespace {

using testing::SameBits;

constexpr int kColumns = 10;
const std::vector<int> kCuts = {0, 3, 4, 8, kColumns};  // parts of 3, 1, 4 and 2 columns

// Values far from 0 with a spread of about 50; column 5 is constant.
std::vector<std::vector<double>> RandomRows(unsigned seed, std::size_t n) {
  std::mt19937 random(seed);
  std::uniform_real_distribution<double> spread(-50.0, 50.0);
  std::vector<std::vector<double>> rows(n, std::vector<double>(kColumns));
  for (auto& row : rows)
    for (int c = 0; c < kColumns; ++c) row[c] = c == 5 ? 0.7 : 1e3 * (c + 1) + spread(random);
  return rows;
}

// The whole table in one matrix, over the same rows in batches of the same size.
MatrixListwise WholeTable(const std::vector<std::vector<double>>& rows, std::size_t batchRows) {
  MatrixListwise whole;
  DataBatch batch(kColumns, static_cast<unsigned>(batchRows), nullptr, nullptr, nullptr);
  for (std::size_t start = 0; start < rows.size(); start += batchRows) {
    batch.Clear();
    for (std::size_t r = start; r < std::min(rows.size(), start + batchRows); ++r)
      batch.AddRow(rows[r].data());
    whole += batch;
  }
  return whole;
}

bool SamePart(int x, int y) {
  return std::upper_bound(kCuts.begin(), kCuts.end(), x)
         == std::upper_bound(kCuts.begin(), kCuts.end(), y);
}

// Up to rounding: a thousand units in the last place of the figures'
// natural scale, the spread of the columns involved (sqrt of the sums of
// squares) for a cross-product, and that spread per unit weight for a mean.
// A wrong term in an update formula is off by far more than that.
void ExpectClose(const readme::WideTable& wide, const MatrixListwise& whole) {
  const double eps = std::numeric_limits<double>::epsilon();
  const double rows = whole.RegWeightSum();
  for (int x = 0; x < kColumns; ++x) {
    const double spreadX = std::sqrt(whole.CCP(x, x));
    EXPECT_NEAR(wide.Mean(x), whole.Mean(x),
                1e3 * eps * (std::fabs(whole.Mean(x)) + spreadX / std::sqrt(rows)))
        << "mean " << x;
    for (int y = 0; y < kColumns; ++y) {
      const double scale = spreadX * std::sqrt(whole.CCP(y, y));
      EXPECT_NEAR(wide.CCP(x, y), whole.CCP(x, y), 1e3 * eps * scale) << x << "," << y;
    }
  }
  // The constant column: its mean exactly, all its sums exactly 0.
  EXPECT_EQ(wide.Mean(5), 0.7);
  for (int y = 0; y < kColumns; ++y) EXPECT_EQ(wide.CCP(5, y), 0.0);
}

// In one batch each cell is the same dot product of the same centred columns
// as in the whole table; without weights the products a * b and b * a are the
// same double, so the order of the factors in the rectangle does not matter
// either. With merges, the means and the cells of the S blocks go through the
// same update formula as the whole table, term for term, and stay
// bit-identical; the rectangle of an NS block weighs the first set's shift
// with the combined weight and its sums of squares use their own form of the
// update, so off the diagonal blocks the figures agree up to rounding.
TEST(BlocksReadme, OneThreadGivesTheWholeTableBitForBitWhereTheFormulasAgree) {
  for (std::size_t nRows : {200u, 1000u}) {
    const auto rows = RandomRows(static_cast<unsigned>(nRows), nRows);
    readme::WideProblem problem(rows, kCuts);
    Driver(&problem, 1);
    const MatrixListwise whole = WholeTable(rows, readme::WideWorker::kBatchRows);
    const bool oneBatch = nRows <= readme::WideWorker::kBatchRows;
    for (int x = 0; x < kColumns; ++x) {
      EXPECT_TRUE(SameBits(problem.result.Mean(x), whole.Mean(x))) << x;
      for (int y = 0; y < kColumns; ++y)
        if (oneBatch || SamePart(x, y)) {
          EXPECT_TRUE(SameBits(problem.result.CCP(x, y), whole.CCP(x, y))) << x << "," << y;
        }
    }
    ExpectClose(problem.result, whole);
  }
}

class BlocksReadmeThreaded : public ::testing::TestWithParam<std::tuple<int, std::size_t>> {};

TEST_P(BlocksReadmeThreaded, AnyNumberOfThreadsGivesTheWholeTable) {
  // The rows split among the workers as the threads happen to read them, so
  // only agreement up to rounding can be asked for. With fewer rows than a
  // batch, all workers but one merge blocks without rows, which change nothing.
  const auto [threads, nRows] = GetParam();
  const auto rows = RandomRows(13, nRows);
  readme::WideProblem problem(rows, kCuts);
  Driver(&problem, threads);
  ExpectClose(problem.result, WholeTable(rows, nRows));
}

// Threads (0 takes the host's count) and rows.
INSTANTIATE_TEST_SUITE_P(ThreadsAndRows, BlocksReadmeThreaded,
                         ::testing::Values(std::make_tuple(0, 3000u), std::make_tuple(2, 3000u),
                                           std::make_tuple(3, 1000u), std::make_tuple(8, 3000u),
                                           std::make_tuple(8, 100u)));

}  // namespace
}  // namespace vorel
