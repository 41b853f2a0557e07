#include "statpass.h"

#include <vorel/databatch.h>
#include <vorel/driver.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <deque>
#include <numeric>
#include <optional>
#include <string>
#include <unordered_map>

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

// Cell counts and extremes of the columns, and under pairwise deletion
// whether each column holds one value on the rows of each pair.
struct Extremes {
  std::vector<std::uint64_t> counts;
  std::vector<figures::Range> ranges;
  std::vector<figures::Constancy> pairConstancy;
  std::vector<double> weightSquares;  // see PassResult::weightSquares

  Extremes(unsigned nValues, bool pairwise, bool keepWeightSquares)
      : counts(nValues, 0),
        ranges(nValues),
        pairConstancy(pairwise ? std::size_t{nValues} * nValues : 0),
        weightSquares(!keepWeightSquares ? 0
                      : pairwise         ? figures::TriangleSize(nValues)
                                         : 1) {}

  void Add(const Extremes& o) {
    for (std::size_t c = 0; c < counts.size(); ++c) {
      counts[c] += o.counts[c];
      ranges[c].Include(o.ranges[c]);
    }
    for (std::size_t c = 0; c < pairConstancy.size(); ++c)
      pairConstancy[c].Include(o.pairConstancy[c]);
    for (std::size_t c = 0; c < weightSquares.size(); ++c)
      weightSquares[c] += o.weightSquares[c];
  }
};

// The results by group of one worker, or of the whole pass: state for the
// groups that occurred, and the sum of their corrected cross-products.
class GroupTable {
 public:
  GroupTable(unsigned nValues, bool keepCrossProducts)
      : _nValues(nValues), _keep(keepCrossProducts), _within(figures::TriangleSize(nValues), 0.0) {}

  // The place of a label's group, made when the label is first seen, at
  // `where`; an earlier sighting moves the label's first appearance there.
  std::size_t Slot(const GroupLabel& label, const ChunkLine& where) {
    const auto [it, added] = _index.try_emplace(label, _groups.size());
    if (added) {
      _labels.push_back(label);
      _first.push_back(where);
      _groups.emplace_back(_nValues, _keep);
    } else if (where.Before(_first[it->second])) {
      _first[it->second] = where;
    }
    return it->second;
  }
  std::size_t Size() const { return _groups.size(); }
  figures::GroupMoments& At(std::size_t slot) { return _groups[slot]; }
  const GroupLabel& Label(std::size_t slot) const { return _labels[slot]; }
  std::vector<double>& Within() { return _within; }

  // Groups are joined in sorted label order, whatever order the two tables
  // met them in, so that the sums do not depend on the threads.
  void Add(const GroupTable& other) {
    for (std::size_t c = 0; c < _within.size(); ++c)
      _within[c] += other._within[c];
    for (std::size_t g : other.Sorted(false))
      At(Slot(other._labels[g], other._first[g])).Join(other._groups[g], _within);
  }

  // The slots in sorted label order, or in order of first appearance in the file.
  std::vector<std::size_t> Sorted(bool byFirstAppearance) const {
    std::vector<std::size_t> order(_groups.size());
    std::iota(order.begin(), order.end(), std::size_t{0});
    std::sort(order.begin(), order.end(), [&](std::size_t a, std::size_t b) {
      if (byFirstAppearance) return _first[a].Before(_first[b]);
      return GroupLabel::SortsBefore(_labels[a], _labels[b]);
    });
    return order;
  }

  // Moves the groups into `result` in the order asked for.
  void TakeInto(PassResult& result, bool byFirstAppearance) {
    for (std::size_t g : Sorted(byFirstAppearance)) {
      result.groupLabels.push_back(_labels[g]);
      result.groups.push_back(std::move(_groups[g]));
    }
    result.withinCscp = std::move(_within);
  }

 private:
  unsigned _nValues;
  bool _keep;
  std::unordered_map<GroupLabel, std::size_t, GroupLabel::Hash> _index;
  std::vector<GroupLabel> _labels;
  std::vector<ChunkLine> _first;  // where each label was first seen
  std::vector<figures::GroupMoments> _groups;
  std::vector<double> _within;
};

// The complete, grouped rows of a worker not yet reduced: row after row, and
// at a flush each group's rows through a MatrixListwise of their own.
class GroupRows {
 public:
  GroupRows(unsigned nValues, unsigned capacity)
      : _nValues(nValues),
        _capacity(capacity),
        _batch(nValues, capacity, &_weight, nullptr, nullptr),
        _moved(nValues),
        _means(nValues),
        _cscp(figures::TriangleSize(nValues)) {
    _slots.reserve(capacity);
    _weights.reserve(capacity);
    _values.reserve(std::size_t{capacity} * nValues);
  }

  bool Full() const { return _slots.size() == _capacity; }

  // `slot`: the group's place in the worker's GroupTable.
  void Add(std::size_t slot, double weight, const double* values) {
    _slots.push_back(slot);
    _weights.push_back(weight);
    _values.insert(_values.end(), values, values + _nValues);
  }

  // Reduces each group's rows, in their order, and joins them into `table`,
  // the groups in sorted label order.
  void Flush(GroupTable& table) {
    const std::size_t n = _slots.size();
    if (n == 0) return;
    _order.resize(n);
    std::iota(_order.begin(), _order.end(), std::size_t{0});
    std::stable_sort(_order.begin(), _order.end(),
                     [this](std::size_t a, std::size_t b) { return _slots[a] < _slots[b]; });
    // Each group's rows: [start, end) in _order.
    _runs.clear();
    for (std::size_t start = 0, end = 0; start < n; start = end) {
      for (end = start; end < n && _slots[_order[end]] == _slots[_order[start]];)
        ++end;
      _runs.emplace_back(start, end);
    }
    std::sort(_runs.begin(), _runs.end(), [&](const auto& a, const auto& b) {
      return GroupLabel::SortsBefore(table.Label(_slots[_order[a.first]]),
                                     table.Label(_slots[_order[b.first]]));
    });
    for (const auto& [first, last] : _runs) {
      figures::GroupMoments& group = table.At(_slots[_order[first]]);
      // Rows go in less the group's origin, so that the batch's means round
      // as the spread of the data does, not as its distance from zero.
      const std::vector<double> origin =
          figures::OriginOf(group.Rows() != 0 ? group.Origin() : Row(first), _nValues);
      double weightSquares = 0.0;
      _batch.Clear();
      for (std::size_t k = first; k < last; ++k) {
        const double* row = Row(k);
        for (unsigned i = 0; i < _nValues; ++i)
          _moved[i] = row[i] - origin[i];
        _weight = _weights[_order[k]];
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
  std::vector<std::pair<std::size_t, std::size_t>> _runs;
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
        _extremes(layout.NValues(), options.pairwise, options.weightSquares),
        _texts(layout.NValues()) {
    if (options.pairwise) {
      _pairwise = std::make_unique<vorel::MatrixPairwise>(rules.missingCode);
    } else {
      _listwise = std::make_unique<vorel::MatrixListwise>();
    }
    if (layout.groupField) _groups.emplace(layout.NValues(), options.groupCovariance);
  }

  vorel::WorkerBase* CreateWorker() override;

  // Line number in the file of a line a thread found.
  std::uint64_t LineNumber(const ChunkLine& where) const {
    std::uint64_t line = _reader.HeaderLine() + 1 + where.lineInChunk;
    for (std::uint64_t k = 0; k < where.chunkIndex; ++k)
      line += _lineCounts[k];
    return line;
  }

  ChunkReader& _reader;
  const RowLayout& _layout;
  const CellRules& _rules;
  const PassOptions& _options;

  // Read and written in the serial stage only, or after the pass.
  int _workersMade = 0;
  // One entry per chunk handed out, written by the thread that parses it.
  // A deque, so that handing out a chunk never moves the entries of others.
  std::deque<std::uint64_t> _lineCounts;
  // Set by a thread that met a bad line: hand out no further chunk.
  std::atomic<bool> _failed{false};

  // Written under the result lock.
  std::optional<FoundError> _firstError;
  RowCounts _counters;
  Extremes _extremes;
  std::vector<std::optional<FoundText>> _texts;  // per value column
  std::unique_ptr<vorel::MatrixListwise> _listwise;
  std::unique_ptr<vorel::MatrixPairwise> _pairwise;
  std::optional<GroupTable> _groups;
};

class StatWorker : public vorel::WorkerBase {
 public:
  explicit StatWorker(StatProblem& problem)
      : _problem(problem),
        _layout(problem._layout),
        _pairwise(problem._options.pairwise),
        _missingCode(problem._rules.missingCode),
        _parser(problem._layout, problem._rules),
        _batch(problem._layout.NValues(), problem._options.batchRows,
               problem._layout.weightField ? &_weight : nullptr,
               problem._layout.regWeightField ? &_regWeight : nullptr, nullptr),
        _extremes(problem._layout.NValues(), _pairwise, problem._options.weightSquares),
        _texts(problem._layout.NValues()) {
    if (_pairwise) {
      _pairwiseMatrix = std::make_unique<vorel::MatrixPairwise>(_missingCode);
    } else {
      _listwiseMatrix = std::make_unique<vorel::MatrixListwise>();
    }
    if (_layout.groupField) {
      _groupRows.emplace(_layout.NValues(), problem._options.batchRows);
      _groups.emplace(_layout.NValues(), problem._options.groupCovariance);
    }
  }

  bool ReadBatch() override {
    if (_problem._failed.load(std::memory_order_relaxed)) return false;
    if (!_problem._reader.Next(_chunk)) return false;
    _problem._lineCounts.push_back(0);
    _lineCount = &_problem._lineCounts.back();
    if (_problem._options.onProgress) _problem._options.onProgress(_problem._reader.BytesRead());
    return true;
  }

  void ProcessBatch() override {
    _problem._reader.Load(_chunk);
    const char* p = _chunk.text.Data();
    const char* end = p + _chunk.text.Size();
    std::uint64_t line = 0;
    for (; p < end; ++line) {
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
        break;
      }
      if (record.blank) continue;
      for (const TextCell& cell : _row.texts)
        KeepEarlier(_texts[cell.slot], FoundText{{_chunk.index, firstLine}, cell.text});
      if (!TakeRow({_chunk.index, firstLine})) break;
    }
    *_lineCount = line;
  }

  void MergeResult() override {
    if (_error) {
      KeepEarlier(_problem._firstError, *_error);
      return;
    }
    // Batches run on across chunks, so each worker still holds partly filled
    // batches: they go in here, once per worker.
    FlushBatch();
    if (_groupRows) _groupRows->Flush(*_groups);
    if (_listwiseMatrix) *_problem._listwise += *_listwiseMatrix;
    if (_pairwiseMatrix) *_problem._pairwise += *_pairwiseMatrix;
    if (_groups) _problem._groups->Add(*_groups);
    _problem._extremes.Add(_extremes);
    _problem._counters.Add(_counters);
    for (std::size_t c = 0; c < _texts.size(); ++c) {
      if (_texts[c]) KeepEarlier(_problem._texts[c], *_texts[c]);
    }
  }

 private:
  // False, with the error kept, when the row makes more groups than allowed.
  bool TakeRow(const ChunkLine& where) {
    ++_counters.read;
    _counters.cellsCoerced += _row.nCoerced;
    if (_row.weightMissing) {
      ++_counters.withoutWeight;
      return true;
    }
    // A row of weight 0 is not there, as frequency weights mean; the library
    // would still count it, and a batch of such rows would divide by 0.
    if (_row.weight == 0.0 || _row.weight * _row.regWeight == 0.0) {
      ++_counters.zeroWeight;
      return true;
    }
    const bool complete = _row.nMissing == 0;
    if (!complete) ++_counters.incomplete;
    if (!complete && !_pairwise) return true;
    _weight = _row.weight;
    _regWeight = _row.regWeight;
    _batch.AddRow(_row.values.data());
    ++_counters.used;
    if (_batch.NRows() == _problem._options.batchRows) FlushBatch();
    if (!_groupRows) return true;
    if (_row.groupMissing) {
      ++_counters.withoutGroup;
      return true;
    }
    if (!complete) return true;
    const std::size_t slot = _groups->Slot(_row.group, where);
    if (_groups->Size() > _problem._options.mostGroups) {
      _error = FoundError{where,
                          {_layout.groupField.value_or(LineError::kWholeLine),
                           TooManyGroups(_problem._options.mostGroups)}};
      _problem._failed.store(true, std::memory_order_relaxed);
      return false;
    }
    _groupRows->Add(slot, _row.weight, _row.values.data());
    if (_groupRows->Full()) _groupRows->Flush(*_groups);
    return true;
  }

  // Extremes first: a listwise matrix centres the batch's columns in place.
  void FlushBatch() {
    if (_batch.NRows() == 0) return;
    UpdateExtremes();
    if (_pairwise) UpdatePairConstancy();
    if (!_extremes.weightSquares.empty()) UpdateWeightSquares();
    if (_listwiseMatrix) *_listwiseMatrix += _batch;
    if (_pairwiseMatrix) *_pairwiseMatrix += _batch;
    _batch.Clear();
  }

  // Compared exactly, on purpose: that is what makes a cell missing.
  bool Present(double x) const { return x != _missingCode; }

  void UpdateExtremes() {
    const unsigned n = _batch.NRows();
    for (unsigned c = 0; c < _batch.NColumns(); ++c) {
      const double* x = _batch.Column(c);
      figures::Range range = _extremes.ranges[c];
      std::uint64_t count = 0;
      for (unsigned r = 0; r < n; ++r) {
        if (!Present(x[r])) continue;
        ++count;
        range.Include(x[r]);
      }
      _extremes.ranges[c] = range;
      _extremes.counts[c] += count;
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
        figures::Constancy& constancy = _extremes.pairConstancy[i * k + j];
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
    if (!_pairwise) {
      double sum = _extremes.weightSquares[0];
      for (unsigned r = 0; r < n; ++r)
        sum += w[r] * w[r];
      _extremes.weightSquares[0] = sum;
      return;
    }
    for (unsigned i = 0; i < _batch.NColumns(); ++i) {
      const double* xi = _batch.Column(i);
      for (unsigned j = 0; j <= i; ++j) {
        const double* xj = _batch.Column(j);
        double sum = _extremes.weightSquares[figures::TriangleIndex(i, j)];
        for (unsigned r = 0; r < n; ++r) {
          if (Present(xi[r]) && Present(xj[r])) sum += w[r] * w[r];
        }
        _extremes.weightSquares[figures::TriangleIndex(i, j)] = sum;
      }
    }
  }

  StatProblem& _problem;
  const RowLayout& _layout;
  const bool _pairwise;
  const double _missingCode;
  RowParser _parser;
  ParsedRow _row;
  Chunk _chunk;
  std::uint64_t* _lineCount = nullptr;

  // The current row's weight and regression weight, read by AddRow.
  double _weight = 1.0;
  double _regWeight = 1.0;

  vorel::DataBatch _batch;
  std::unique_ptr<vorel::MatrixListwise> _listwiseMatrix;
  std::unique_ptr<vorel::MatrixPairwise> _pairwiseMatrix;
  std::optional<GroupRows> _groupRows;
  std::optional<GroupTable> _groups;
  Extremes _extremes;
  std::vector<std::optional<FoundText>> _texts;
  RowCounts _counters;
  std::optional<FoundError> _error;
};

vorel::WorkerBase* StatProblem::CreateWorker() {
  ++_workersMade;
  return new StatWorker(*this);
}

std::string Location(const ChunkReader& reader, const RowLayout& layout, std::uint64_t line,
                     const LineError& error) {
  std::string where = reader.Path() + ", line " + std::to_string(line);
  if (error.field != LineError::kWholeLine) {
    where += ", column " + std::to_string(error.field + 1);
    if (error.field < layout.names.size()) where += " (\"" + layout.names[error.field] + "\")";
  }
  return where;
}

}  // namespace

void RowCounts::Add(const RowCounts& o) {
  read += o.read;
  used += o.used;
  incomplete += o.incomplete;
  withoutWeight += o.withoutWeight;
  zeroWeight += o.zeroWeight;
  withoutGroup += o.withoutGroup;
  cellsCoerced += o.cellsCoerced;
}

PassResult RunPass(ChunkReader& reader, const RowLayout& layout, const CellRules& rules,
                   const PassOptions& options) {
  StatProblem problem(reader, layout, rules, options);
  vorel::Driver(&problem, options.threads);
  if (problem._firstError) {
    const FoundError& found = *problem._firstError;
    if (found.cutInsideQuotes) throw CutInsideQuotes(reader.Path());
    throw DataError(Location(reader, layout, problem.LineNumber(found.where), found.error) + ": "
                    + found.error.message);
  }
  PassResult result;
  result.threads = problem._workersMade;
  result.rows = problem._counters;
  result.cellCounts = std::move(problem._extremes.counts);
  result.ranges = std::move(problem._extremes.ranges);
  result.pairConstancy = std::move(problem._extremes.pairConstancy);
  result.weightSquares = std::move(problem._extremes.weightSquares);
  result.listwise = std::move(problem._listwise);
  result.pairwise = std::move(problem._pairwise);
  if (problem._groups) {
    result.grouped = true;
    if (problem._groups->Size() > options.mostGroups) {
      throw DataError(reader.Path() + ": " + TooManyGroups(options.mostGroups));
    }
    problem._groups->TakeInto(result, options.groupsInFileOrder);
  }
  for (unsigned slot = 0; slot < problem._texts.size(); ++slot) {
    const std::optional<FoundText>& found = problem._texts[slot];
    if (found) result.textColumns.push_back({slot, problem.LineNumber(found->where), found->text});
  }
  return result;
}

}  // namespace vorelstat
