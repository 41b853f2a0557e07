#include "statpass.h"

#include <vorel/databatch.h>
#include <vorel/driver.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <deque>
#include <functional>
#include <numeric>
#include <optional>
#include <string>

#include "batchcapacity.h"
#include "errors.h"

namespace vorelstat {
namespace {

// A bad line as one thread found it; the line number is known only later.
// Where a thread met something: a chunk and a line in it.
struct ChunkLine {
  std::uint64_t chunkIndex = 0;
  std::uint64_t lineInChunk = 0;  // 0-based

  bool Before(const ChunkLine& other) const {
    if (chunkIndex != other.chunkIndex) return chunkIndex < other.chunkIndex;
    return lineInChunk < other.lineInChunk;
  }
};

// A bad line as one thread found it; the line number is known only later.
struct FoundError {
  ChunkLine where;
  LineError error;
  bool cutInsideQuotes = false;  // quotes still open at a guessed cut: the cut is wrong
};

// The first text cell of a column, likewise.
struct FoundText {
  ChunkLine where;
  std::string text;
};

std::string TooManyGroups(std::size_t most) {
  return "the group column holds more than " + std::to_string(most)
         + " distinct labels, the limit of --max-groups";
}

// Keeps the earlier of two findings.
template <class Found>
void KeepEarlier(std::optional<Found>& kept, const Found& offered) {
  if (!kept || offered.where.Before(kept->where)) kept = offered;
}

// The complete, grouped rows of a sub-batch not yet reduced: row after row,
// and at a flush each group's rows through a MatrixListwise of their own.
class GroupRows {
 public:
  GroupRows(unsigned nValues, unsigned capacity)
      : _nValues(nValues),
        _capacity(capacity),
        _batch(nValues, BatchCapacity(capacity), &_weight, nullptr, nullptr),
        _moved(nValues),
        _means(nValues),
        _cscp(figures::TriangleSize(nValues)) {
    _slots.reserve(capacity);
    _weights.reserve(capacity);
    _values.reserve(std::size_t{capacity} * nValues);
  }

  bool Full() const { return _slots.size() == _capacity; }

  // `slot`: the group's place in the GroupTable the rows go to.
  void Add(std::size_t slot, double weight, const double* values) {
    _slots.push_back(slot);
    _weights.push_back(weight);
    _values.insert(_values.end(), values, values + _nValues);
  }

  // Reduces each group's rows, in their order, and joins them into `table`,
  // the groups in slot order.
  void Flush(GroupTable& table) {
    const std::size_t n = _slots.size();
    if (n == 0) return;
    _order.resize(n);
    std::iota(_order.begin(), _order.end(), std::size_t{0});
    std::stable_sort(_order.begin(), _order.end(),
                     [this](std::size_t a, std::size_t b) { return _slots[a] < _slots[b]; });
    for (std::size_t first = 0; first < n;) {
      const std::size_t slot = _slots[_order[first]];
      figures::GroupMoments& group = table.At(slot);
      // Rows go in less the group's origin, so that the batch's means round
      // as the spread of the data does, not as its distance from zero.
      const std::vector<double> origin =
          figures::OriginOf(group.Rows() != 0 ? group.Origin() : Row(first), _nValues);
      double weightSquares = 0.0;
      std::size_t last = first;
      _batch.Clear();
      for (; last < n && _slots[_order[last]] == slot; ++last) {
        const double* row = Row(last);
        for (unsigned i = 0; i < _nValues; ++i)
          _moved[i] = row[i] - origin[i];
        _weight = _weights[_order[last]];
        weightSquares += _weight * _weight;
        _batch.AddRow(_moved.data());
      }
      vorel::MatrixListwise part;
      part += _batch;
      for (unsigned i = 0; i < _nValues; ++i) {
        _means[i] = part.Mean(i);
        for (unsigned j = 0; j <= i; ++j)
          _cscp[figures::TriangleIndex(i, j)] = part.CCP(i, j);
      }
      group.Join(part.NRows(), part.WeightSum(), origin.data(), _means.data(), _cscp.data(),
                 table.Within(), weightSquares);
      first = last;
    }
    _slots.clear();
    _weights.clear();
    _values.clear();
  }

 private:
  // The values of the row at place `k` of the group order.
  const double* Row(std::size_t k) const { return &_values[_order[k] * _nValues]; }

  unsigned _nValues;
  unsigned _capacity;
  std::vector<std::size_t> _slots;
  std::vector<double> _weights;
  std::vector<double> _values;
  std::vector<std::size_t> _order;
  double _weight = 1.0;  // read by AddRow
  vorel::DataBatch _batch;
  std::vector<double> _moved, _means, _cscp;
};

class StatWorker;

class StatProblem : public vorel::ProblemBase {
 public:
  StatProblem(ChunkReader& reader, const RowLayout& layout, const CellRules& rules,
              const PassOptions& options)
      : _reader(reader),
        _layout(layout),
        _rules(rules),
        _options(options),
        _shape(ShapeOf(layout, rules, options)),
        _tree([this] { return BlockResult(_shape); }, options.firstBlock),
        _finished(_shape),
        _totals(layout.NValues(), options.pairwise),
        _texts(layout.NValues()) {
    reader.SetGrid(options.blockBytes, options.firstBlock, options.endBlock);
    _endBlock = options.firstBlock;
  }

  vorel::WorkerBase* CreateWorker() override;

  // Line number in the file of a line a thread found.
  std::uint64_t LineNumber(const ChunkLine& where) const {
    std::uint64_t line = _reader.HeaderLine() + 1 + where.lineInChunk;
    if (_options.linesFromFileStart) line += _reader.LineEndsBeforeFirstChunk();
    for (std::uint64_t k = 0; k < where.chunkIndex; ++k)
      line += _lineCounts[k];
    return line;
  }

  ChunkReader& _reader;
  const RowLayout& _layout;
  const CellRules& _rules;
  const PassOptions& _options;
  const BlockShape _shape;
  vorel::BlockTree<BlockResult> _tree;

  // Read and written in the serial stage only, or after the pass.
  // One entry per chunk handed out, written by the thread that parses it.
  // A deque, so that handing out a chunk never moves the entries of others.
  std::deque<std::uint64_t> _lineCounts;
  std::uint64_t _endBlock = 0;  // past the last block handed out
  // Set by a thread that met a bad line: hand out no further chunk.
  std::atomic<bool> _failed{false};

  // Written under the result lock.
  std::optional<FoundError> _firstError;
  BlockResult _finished;  // finishOrder: the workers' results as they finish
  ExactTotals _totals;
  std::vector<std::optional<FoundText>> _texts;  // per value column
};

std::function<void()>& ChunkHook() {
  static std::function<void()> hook;
  return hook;
}

class StatWorker : public vorel::WorkerBase {
 public:
  explicit StatWorker(StatProblem& problem)
      : _problem(problem),
        _layout(problem._layout),
        _pairwise(problem._options.pairwise),
        _tree(!problem._options.finishOrder),
        _batchRows(_tree ? kBlockBatchRows : problem._options.batchRows),
        _missingCode(problem._rules.missingCode),
        _parser(problem._layout, problem._rules),
        _batch(problem._layout.NValues(), BatchCapacity(_batchRows),
               problem._layout.weightField ? &_weight : nullptr,
               problem._layout.regWeightField ? &_regWeight : nullptr, nullptr),
        _result(problem._shape),
        _totals(problem._layout.NValues(), _pairwise),
        _texts(problem._layout.NValues()) {
    if (_layout.groupField) _groupRows.emplace(_layout.NValues(), _batchRows);
  }

  bool ReadBatch() override {
    if (_problem._failed.load(std::memory_order_relaxed)) return false;
    if (!_problem._reader.Next(_chunk)) return false;
    // The reader hands out the blocks of the grid in order, as the tree does.
    for (std::uint64_t block = _chunk.firstBlock; block < _chunk.endBlock; ++block)
      _problem._tree.NextBlock();
    _problem._endBlock = _chunk.endBlock;
    _problem._lineCounts.push_back(0);
    _lineCount = &_problem._lineCounts.back();
    if (_problem._options.onProgress) _problem._options.onProgress(_problem._reader.BytesRead());
    return true;
  }

  void ProcessBatch() override {
    if (const auto& hook = ChunkHook()) hook();
    _problem._reader.Load(_chunk);
    const char* const begin = _chunk.text.Data();
    const char* p = begin;
    const char* end = p + _chunk.text.Size();
    const std::uint64_t dataStart = _problem._reader.DataStart();
    const std::uint64_t blockBytes = _problem._options.blockBytes;
    _block = _chunk.firstBlock;
    // Where the block in hand ends, in the file.
    std::uint64_t blockEnd = dataStart + (_block + 1) * blockBytes;
    std::uint64_t line = 0;
    for (; p < end; ++line) {
      const std::uint64_t at = _chunk.offset + static_cast<std::uint64_t>(p - begin);
      if (_tree && at >= blockEnd) {
        EndBlocksBefore((at - dataStart) / blockBytes);
        blockEnd = dataStart + (_block + 1) * blockBytes;
      }
      LineError error;
      RecordEnd record;
      bool parsed = _parser.ParseRecord(p, end, _row, error, record);
      const std::uint64_t firstLine = line;
      line += record.lineEndsInside;
      p = record.next;
      if (record.length > _problem._reader.MaxLine()) {
        error = {LineError::kWholeLine, "the line is longer than "
                                            + std::to_string(_problem._reader.MaxLine())
                                            + " bytes, the limit of --max-line-length"};
        parsed = false;
      }
      if (!parsed) {
        const bool cutInsideQuotes = error.openQuote && _chunk.cutGuessed;
        _error = FoundError{{_chunk.index, firstLine}, std::move(error), cutInsideQuotes};
        _problem._failed.store(true, std::memory_order_relaxed);
        *_lineCount = line;
        return;
      }
      if (record.blank) continue;
      for (const TextCell& cell : _row.texts)
        KeepEarlier(_texts[cell.slot], FoundText{{_chunk.index, firstLine}, cell.text});
      if (!TakeRow({_chunk.index, firstLine}, at)) {
        *_lineCount = line;
        return;
      }
    }
    *_lineCount = line;
    EndBlocksBefore(_chunk.endBlock);
  }

  void MergeResult() override {
    if (_error) {
      KeepEarlier(_problem._firstError, *_error);
      return;
    }
    if (!_tree) {
      // Batches run on across chunks, so each worker still holds partly
      // filled batches: they go in here, once per worker.
      FlushRows();
      _problem._finished += _result;
    }
    _problem._totals.Add(_totals);
    for (std::size_t c = 0; c < _texts.size(); ++c) {
      if (_texts[c]) KeepEarlier(_problem._texts[c], *_texts[c]);
    }
  }

 private:
  // Hands the blocks before `block` to the tree, each with its rows (none
  // for a block in which no line starts).
  void EndBlocksBefore(std::uint64_t block) {
    if (!_tree) return;
    for (; _block < block; ++_block) {
      FlushRows();
      _problem._tree.AddBlock(_block, std::move(_result));
      _result = _problem._tree.NewResult();
    }
  }

  // The row found at `where`, which starts at offset `place` of the input.
  // False, with the error kept, when the row makes more groups than allowed.
  bool TakeRow(const ChunkLine& where, std::uint64_t place) {
    RowCounts& counts = _totals.rows;
    ++counts.read;
    counts.cellsCoerced += _row.nCoerced;
    if (_row.weightMissing) {
      ++counts.withoutWeight;
      return true;
    }
    // A row of weight 0 is not there, as frequency weights mean; the library
    // would still count it, and a batch of such rows would divide by 0.
    if (_row.weight == 0.0 || _row.weight * _row.regWeight == 0.0) {
      ++counts.zeroWeight;
      return true;
    }
    const bool complete = _row.nMissing == 0;
    if (!complete) ++counts.incomplete;
    if (!complete && !_pairwise) return true;
    _weight = _row.weight;
    _regWeight = _row.regWeight;
    _batch.AddRow(_row.values.data());
    ++counts.used;
    if (_batch.NRows() == _batchRows) FlushBatch();
    if (!_groupRows) return true;
    if (_row.groupMissing) {
      ++counts.withoutGroup;
      return true;
    }
    if (!complete) return true;
    GroupTable& table = *_result.groups;
    const std::size_t slot = table.Slot(_row.group, place);
    if (table.Size() > _problem._options.mostGroups) {
      _error = FoundError{where,
                          {_layout.groupField.value_or(LineError::kWholeLine),
                           TooManyGroups(_problem._options.mostGroups)}};
      _problem._failed.store(true, std::memory_order_relaxed);
      return false;
    }
    _groupRows->Add(slot, _row.weight, _row.values.data());
    if (_groupRows->Full()) _groupRows->Flush(table);
    return true;
  }

  void FlushRows() {
    FlushBatch();
    if (_groupRows) _groupRows->Flush(*_result.groups);
  }

  // Extremes first: a listwise matrix centres the batch's columns in place.
  void FlushBatch() {
    if (_batch.NRows() == 0) return;
    UpdateExtremes();
    if (_pairwise) UpdatePairConstancy();
    if (!_result.weightSquares.empty()) UpdateWeightSquares();
    if (_result.listwise) *_result.listwise += _batch;
    if (_result.pairwise) *_result.pairwise += _batch;
    _batch.Clear();
  }
  // Compared exactly, on purpose: that is what makes a cell missing.
  bool Present(double x) const { return x != _missingCode; }

  void UpdateExtremes() {
    const unsigned n = _batch.NRows();
    for (unsigned c = 0; c < _batch.NColumns(); ++c) {
      _totals.counts[c] += _totals.ranges[c].IncludeAllBut(_batch.Column(c), n, _missingCode);
    }
  }

  // For each pair, whether each column holds one value on the rows where
  // both are present: a column may be constant there and not elsewhere. A
  // pair whose column varies is not looked at again, so after the first
  // batches this costs next to nothing.
  void UpdatePairConstancy() {
    const unsigned n = _batch.NRows();
    const std::size_t k = _batch.NColumns();
    for (unsigned i = 0; i < k; ++i) {
      const double* xi = _batch.Column(i);
      for (unsigned j = 0; j < k; ++j) {
        figures::Constancy& constancy = _totals.pairConstancy[i * k + j];
        if (i == j || constancy.Varies()) continue;
        const double* xj = _batch.Column(j);
        for (unsigned r = 0; r < n; ++r) {
          if (Present(xi[r]) && Present(xj[r]) && !constancy.Include(xi[r])) break;
        }
      }
    }
  }

  // Row after row, as the weights are added; under pairwise deletion over the
  // rows where both columns of a pair are present.
  void UpdateWeightSquares() {
    const unsigned n = _batch.NRows();
    const double* w = _batch.Weights();
    std::vector<double>& squares = _result.weightSquares;
    if (!_pairwise) {
      double sum = squares[0];
      for (unsigned r = 0; r < n; ++r)
        sum += w[r] * w[r];
      squares[0] = sum;
      return;
    }
    for (unsigned i = 0; i < _batch.NColumns(); ++i) {
      const double* xi = _batch.Column(i);
      for (unsigned j = 0; j <= i; ++j) {
        const double* xj = _batch.Column(j);
        double sum = squares[figures::TriangleIndex(i, j)];
        for (unsigned r = 0; r < n; ++r) {
          if (Present(xi[r]) && Present(xj[r])) sum += w[r] * w[r];
        }
        squares[figures::TriangleIndex(i, j)] = sum;
      }
    }
  }

  StatProblem& _problem;
  const RowLayout& _layout;
  const bool _pairwise;
  const bool _tree;  // each block to a fresh result and the block tree
  const unsigned _batchRows;
  const double _missingCode;
  RowParser _parser;
  ParsedRow _row;
  Chunk _chunk;
  std::uint64_t* _lineCount = nullptr;

  // The current row's weight and regression weight, read by AddRow.
  double _weight = 1.0;
  double _regWeight = 1.0;

  vorel::DataBatch _batch;
  std::optional<GroupRows> _groupRows;
  // The result the rows go to: the block's (the tree) or the worker's.
  BlockResult _result;
  std::uint64_t _block = 0;  // the block of _result
  ExactTotals _totals;
  std::vector<std::optional<FoundText>> _texts;
  std::optional<FoundError> _error;
};

vorel::WorkerBase* StatProblem::CreateWorker() { return new StatWorker(*this); }

// What follows the line number in the message of a bad line.
std::string AfterLine(const RowLayout& layout, const LineError& error) {
  std::string after;
  if (error.field != LineError::kWholeLine) {
    after += ", column " + std::to_string(error.field + 1);
    if (error.field < layout.names.size()) after += " (\"" + layout.names[error.field] + "\")";
  }
  return after + ": " + error.message;
}

}  // namespace

void SetChunkHookForTests(std::function<void()> hook) { ChunkHook() = std::move(hook); }

BlockShape ShapeOf(const RowLayout& layout, const CellRules& rules, const PassOptions& options) {
  BlockShape shape;
  shape.nValues = layout.NValues();
  shape.pairwise = options.pairwise;
  shape.missingCode = rules.missingCode;
  shape.grouped = layout.groupField.has_value();
  shape.groupCovariance = options.groupCovariance;
  shape.weightSquares = options.weightSquares;
  return shape;
}

BlockResult SumOf(const Forest& forest, const BlockShape& shape) {
  BlockResult total(shape);
  for (const Forest::Node& node : forest.Nodes())
    total += node.result;
  return total;
}

void TakeFigures(PassResult& result, ExactTotals&& totals, BlockResult&& sums,
                 bool groupsInSlotOrder, std::size_t mostGroups, const std::string& what) {
  if (sums.groups && sums.groups->Size() > mostGroups)
    throw DataError(what + ": " + TooManyGroups(mostGroups));
  result.rows = totals.rows;
  result.cellCounts = std::move(totals.counts);
  result.ranges = std::move(totals.ranges);
  result.pairConstancy = std::move(totals.pairConstancy);
  result.weightSquares = std::move(sums.weightSquares);
  result.listwise = std::move(sums.listwise);
  result.pairwise = std::move(sums.pairwise);
  if (sums.groups) {
    result.grouped = true;
    sums.groups->TakeInto(result.groupLabels, result.groups, result.withinCscp, groupsInSlotOrder);
  }
}

PassResult RunPass(ChunkReader& reader, const RowLayout& layout, const CellRules& rules,
                   const PassOptions& options) {
  StatProblem problem(reader, layout, rules, options);
  vorel::Driver(&problem, options.threads);
  if (problem._firstError) {
    const FoundError& found = *problem._firstError;
    if (found.cutInsideQuotes) throw CutInsideQuotes(reader.Path());
    throw LineDataError(reader.Path() + ", line ", problem.LineNumber(found.where),
                        AfterLine(layout, found.error));
  }
  PassResult result;
  result.blockBytes = options.finishOrder ? 0 : options.blockBytes;
  result.firstBlock = options.firstBlock;
  result.endBlock = problem._endBlock;
  for (std::uint64_t count : problem._lineCounts)
    result.lines += count;
  const auto takeFigures = [&](BlockResult&& sums) {
    TakeFigures(result, std::move(problem._totals), std::move(sums), options.groupsInFileOrder,
                options.mostGroups, reader.Path());
  };
  if (options.finishOrder) {
    if (problem._finished.groups) problem._finished.groups->OrderSlotsByPlace();
    takeFigures(std::move(problem._finished));
  } else {
    Forest forest = problem._tree.TakeForest();
    takeFigures(SumOf(forest, problem._shape));
    if (options.keepForest) result.forest = std::move(forest);
  }
  for (unsigned slot = 0; slot < problem._texts.size(); ++slot) {
    const std::optional<FoundText>& found = problem._texts[slot];
    if (found) result.textColumns.push_back({slot, problem.LineNumber(found->where), found->text});
  }
  return result;
}

}  // namespace vorelstat
