#include "blockpass.h"

#include <vorel/blocktree.h>
#include <vorel/databatch.h>
#include <vorel/driver.h>

#include <algorithm>
#include <atomic>
#include <bit>
#include <cmath>
#include <numeric>
#include <optional>
#include <utility>

#include "batchcapacity.h"

namespace vorelpy {
namespace {

std::atomic<bool> wholeBlocks{true};

// Turns the rows of one block into batches and reduces them to a tally. One
// per worker; its batches and buffers are reused from block to block.
class BlockReducer {
 public:
  BlockReducer(const Table& table, const Settings& settings)
      : _table(table),
        _settings(settings),
        _blockRows(BlockRows(settings.nColumns)),
        _capacity(vorelstat::BatchCapacity(static_cast<unsigned>(_blockRows))),
        _reader(table),
        _batch(settings.nColumns, _capacity, table.weights ? &_weight : nullptr,
               settings.regWeights ? &_regWeight : nullptr, nullptr),
        _whole(settings.nColumns, _capacity, table.weights ? &_weight : nullptr, nullptr, nullptr),
        _marked(settings.nColumns, 0.0),
        _incomplete(WordsForRows(_blockRows)),
        _partMeans(settings.nColumns),
        _partCscp(vorelstat::figures::TriangleSize(settings.nColumns)) {
    // A batch held full for good: a whole block is written into its columns
    // in place, rather than row by row.
    for (std::size_t r = 0; r < _blockRows; ++r)
      _whole.AddRow(_marked.data());
    // Regression weights play no part in the group tables.
    if (settings.grouped)
      _groupBatch.emplace(settings.nColumns, _capacity, table.weights ? &_weight : nullptr, nullptr,
                          nullptr);
  }

  // The tally of rows [first, first + n), n at most _blockRows.
  void Reduce(std::size_t first, std::size_t n, Tally& tally) {
    _reader.Load(first, n);
    _groupRows.clear();
    if (n == _blockRows && !_settings.regWeights && wholeBlocks.load(std::memory_order_relaxed)
        && TakeWholeBlock(first, tally.counts)) {
      AddBatch(_whole, tally);
      return;
    }
    _batch.Clear();
    for (std::size_t r = 0; r < n; ++r)
      TakeRow(first + r, _reader.Row(r), tally.counts);
    AddBatch(_batch, tally);
  }

  bool SawStandIn() const { return _sawStandIn; }

 private:
  void AddBatch(vorel::DataBatch& batch, Tally& tally) {
    if (batch.NRows() == 0) return;
    if (_measured) {
      tally.extremes.Add(*_measured);
      _measured.reset();
    } else {
      AddExtremes(batch, tally.extremes);
    }
    if (_settings.pairwise) tally.extremes.AddPairs(batch, _settings.pairwiseCode);
    if (_settings.grouped) AddGroups(batch, tally);
    // Last: a listwise matrix centres the batch's columns in place.
    if (tally.listwise) *tally.listwise += batch;
    if (tally.pairwise) *tally.pairwise += batch;
  }

  // A block of _blockRows rows that all go into the matrix (every weight
  // positive and, listwise, every row complete), written into _whole column by
  // column. The same cells in the same order as row by row; false, having
  // counted nothing, when some row has to be left out.
  bool TakeWholeBlock(std::size_t first, RowCounts& counts) {
    const double* weights = _table.weights ? _table.weights + first : nullptr;
    if (weights && std::find(weights, weights + _blockRows, 0.0) != weights + _blockRows)
      return false;
    const unsigned k = _settings.nColumns;
    _reader.ToColumns(_blockRows, _whole.Column(0), _capacity);
    std::fill(_incomplete.begin(), _incomplete.end(), 0);
    _measured.emplace(k, false);
    for (unsigned c = 0; c < k; ++c) {
      if (!SweepWholeColumn(c)) {
        _measured.reset();
        return false;
      }
    }
    const auto nIncomplete = std::accumulate(
        _incomplete.begin(), _incomplete.end(), std::uint64_t{0},
        [](std::uint64_t sum, std::uint64_t word) { return sum + std::popcount(word); });
    if (weights) std::copy(weights, weights + _blockRows, _whole.Weights());
    counts.rows += _blockRows;
    counts.incomplete += nIncomplete;
    if (!_settings.grouped) return true;
    for (std::size_t r = 0; r < _blockRows; ++r) {
      const std::int64_t group = _table.groups ? _table.groups[first + r] : -1;
      if (group < 0) {
        ++counts.withoutGroup;
      } else if (!RowFlagged(_incomplete, r)) {
        _groupRows.emplace_back(group, static_cast<unsigned>(r));
      }
    }
    return true;
  }

  // Column c of _whole, swept once: its extremes into _measured, its rows
  // with a missing cell flagged and, pairwise with NaN as the missing mark,
  // the pairwise matrix's stand-in code in its NaN cells (which must not occur
  // as a value). False when listwise deletion has to leave a row out.
  bool SweepWholeColumn(unsigned c) {
    double* x = _whole.Column(c);
    const auto n = static_cast<unsigned>(_blockRows);
    const bool nan = _table.missing.nan;
    const double code = _settings.pairwise ? _settings.pairwiseCode : _table.missing.code;
    ColumnSweep found;
    if (nan && _settings.pairwise) {
      found = SweepColumn<Sweep::kMarkNaN>(x, n, code, _incomplete.data(), x);
      _sawStandIn |= found.sawCode;
    } else if (nan) {
      found = SweepColumn<Sweep::kAll>(x, n, code);
    } else {
      found = SweepColumn<Sweep::kFlagCode>(x, n, code, _incomplete.data());
    }
    if (!_settings.pairwise && (nan ? found.sawNaN : found.sawCode)) return false;
    _measured->nan[c] = static_cast<char>(found.sawNaN);
    std::optional<double> skip;
    if (_settings.pairwise) skip = code;
    _measured->Include(c, found.low, found.high, x, n, skip);
    return true;
  }

  void TakeRow(std::size_t row, const double* cells, RowCounts& counts) {
    ++counts.rows;
    _weight = _table.weights ? _table.weights[row] : 1.0;
    _regWeight = _table.regWeights ? _table.regWeights[row] : 1.0;
    if (_weight == 0.0 || _regWeight == 0.0) {
      ++counts.zeroWeight;
      return;
    }
    const bool complete = IsComplete(cells);
    if (!complete) {
      ++counts.incomplete;
      if (!_settings.pairwise) return;
      if (_table.missing.nan) cells = MarkMissing(cells);
    }
    _batch.AddRow(cells);
    if (!_settings.grouped) return;
    const std::int64_t group = _table.groups ? _table.groups[row] : -1;
    if (group < 0) {
      ++counts.withoutGroup;
    } else if (complete) {
      _groupRows.emplace_back(group, _batch.NRows() - 1);
    }
  }

  bool IsComplete(const double* cells) {
    bool complete = true;
    for (unsigned c = 0; c < _settings.nColumns; ++c)
      complete &= !_table.missing.IsMissing(cells[c]);
    // The stand-in for NaN must not occur as a value, or it would be dropped.
    if (_settings.pairwise && _table.missing.nan) {
      for (unsigned c = 0; c < _settings.nColumns; ++c)
        _sawStandIn |= cells[c] == _settings.pairwiseCode;
    }
    return complete;
  }

  // The row with its NaN cells replaced by the pairwise matrix's code.
  const double* MarkMissing(const double* cells) {
    for (unsigned c = 0; c < _settings.nColumns; ++c)
      _marked[c] = std::isnan(cells[c]) ? _settings.pairwiseCode : cells[c];
    return _marked.data();
  }

  void AddExtremes(const vorel::DataBatch& batch, Extremes& extremes) {
    std::optional<double> skip;
    if (_settings.pairwise) skip = _settings.pairwiseCode;
    for (unsigned c = 0; c < _settings.nColumns; ++c)
      extremes.Add(c, batch.Column(c), batch.NRows(), skip);
  }

  // The centred results of each group of the block over its complete rows in
  // row order, the rows less the group's first row there, so that the means
  // round as the spread of the data does, not as its distance from zero.
  void AddGroups(const vorel::DataBatch& batch, Tally& tally) {
    namespace figures = vorelstat::figures;
    std::stable_sort(_groupRows.begin(), _groupRows.end(),
                     [](const auto& a, const auto& b) { return a.first < b.first; });
    const double* weights = batch.Weights();
    const unsigned k = _settings.nColumns;
    for (std::size_t at = 0; at < _groupRows.size();) {
      const std::int64_t code = _groupRows[at].first;
      for (unsigned c = 0; c < k; ++c)
        _marked[c] = batch.Column(c)[_groupRows[at].second];
      const std::vector<double> origin = figures::OriginOf(_marked.data(), k);
      _groupBatch->Clear();
      for (; at < _groupRows.size() && _groupRows[at].first == code; ++at) {
        const unsigned r = _groupRows[at].second;
        for (unsigned c = 0; c < k; ++c)
          _marked[c] = batch.Column(c)[r] - origin[c];
        _weight = weights ? weights[r] : 1.0;
        _groupBatch->AddRow(_marked.data());
      }
      vorel::MatrixListwise part;
      part += *_groupBatch;
      for (unsigned i = 0; i < k; ++i) {
        _partMeans[i] = part.Mean(i);
        for (unsigned j = 0; j <= i; ++j)
          _partCscp[figures::TriangleIndex(i, j)] = part.CCP(i, j);
      }
      tally.groups.push_back(GroupTally{code, figures::GroupMoments(k, false)});
      tally.groups.back().moments.Join(part.NRows(), part.WeightSum(), origin.data(),
                                       _partMeans.data(), _partCscp.data(), tally.within);
    }
  }

  const Table& _table;
  const Settings& _settings;
  const std::size_t _blockRows;
  const unsigned _capacity;  // of every batch: their columns' stride
  RowReader _reader;
  // The current row's weights, read by AddRow.
  double _weight = 1.0;
  double _regWeight = 1.0;
  vorel::DataBatch _batch;  // filled row by row
  vorel::DataBatch _whole;  // _blockRows rows for good
  std::optional<vorel::DataBatch> _groupBatch;
  std::vector<std::pair<std::int64_t, unsigned>> _groupRows;  // group, row of _batch
  std::vector<double> _marked;                                // one row of scratch
  std::vector<std::uint64_t> _incomplete;                     // flags of the rows of _whole
  std::optional<Extremes> _measured;          // of _whole, when taking it found them
  std::vector<double> _partMeans, _partCscp;  // a group part's centred results
  bool _sawStandIn = false;
};

class BlockProblem : public vorel::ProblemBase {
 public:
  BlockProblem(const Table& rows, const Settings& shape, std::uint64_t first)
      : table(rows),
        settings(shape),
        blockRows(BlockRows(shape.nColumns)),
        nBlocks((rows.nRows + blockRows - 1) / blockRows),
        firstBlock(first),
        tree([&shape] { return Tally(shape); }, first) {}

  vorel::WorkerBase* CreateWorker() override;

  const Table& table;
  const Settings& settings;
  const std::size_t blockRows;
  const std::size_t nBlocks;
  const std::uint64_t firstBlock;  // on the grid of the whole table
  std::size_t handedOut = 0;       // under the read lock
  vorel::BlockTree<Tally> tree;
  std::atomic<bool> sawStandIn{false};
};

class BlockWorker : public vorel::WorkerBase {
 public:
  explicit BlockWorker(BlockProblem& problem)
      : _problem(problem), _reducer(problem.table, problem.settings) {}

  bool ReadBatch() override {
    if (_problem.handedOut == _problem.nBlocks) return false;
    ++_problem.handedOut;
    _block = _problem.tree.NextBlock();
    return true;
  }

  void ProcessBatch() override {
    const std::size_t first = (_block - _problem.firstBlock) * _problem.blockRows;
    Tally tally = _problem.tree.NewResult();
    _reducer.Reduce(first, std::min(_problem.blockRows, _problem.table.nRows - first), tally);
    _problem.tree.AddBlock(_block, std::move(tally));
  }

  void MergeResult() override {
    if (_reducer.SawStandIn()) _problem.sawStandIn = true;
  }

 private:
  BlockProblem& _problem;
  BlockReducer _reducer;
  std::uint64_t _block = 0;
};

vorel::WorkerBase* BlockProblem::CreateWorker() { return new BlockWorker(*this); }

}  // namespace

std::size_t BlockRows(unsigned nColumns) {
  constexpr std::size_t kMostRows = 4096, kFewestRows = 256, kCells = std::size_t{1} << 19;
  return std::clamp(kCells / std::max(nColumns, 1u), kFewestRows, kMostRows);
}

void UseWholeBlocks(bool use) { wholeBlocks = use; }

vorel::BlockForest<Tally> RunPartPass(const Table& table, const Settings& settings, int threads,
                                      std::uint64_t firstBlock) {
  BlockProblem problem(table, settings, firstBlock);
  const auto blocks = static_cast<int>(std::min<std::size_t>(problem.nBlocks, 1 << 20));
  vorel::Driver(&problem, threads > 0 ? std::min(threads, blocks) : threads);
  if (problem.sawStandIn) throw ValueTaken{settings.pairwiseCode};
  return problem.tree.TakeForest();
}

Tally RunPass(const Table& table, const Settings& settings, int threads) {
  vorel::BlockForest<Tally> forest = RunPartPass(table, settings, threads, 0);
  Tally total(settings);
  forest.AddTo(total);
  return total;
}

}  // namespace vorelpy
