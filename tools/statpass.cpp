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

  Extremes(unsigned nValues, bool pairwise)
      : counts(nValues, 0),
        ranges(nValues),
        pairConstancy(pairwise ? std::size_t{nValues} * nValues : 0) {}

  void Add(const Extremes& o) {
    for (std::size_t c = 0; c < counts.size(); ++c) {
      counts[c] += o.counts[c];
      ranges[c].Include(o.ranges[c]);
    }
    for (std::size_t c = 0; c < pairConstancy.size(); ++c)
      pairConstancy[c].Include(o.pairConstancy[c]);
  }
};

// The results by group of one worker, or of the whole pass: state for the
// groups that occurred, and the sum of their corrected cross-products.
class GroupTable {
 public:
  GroupTable(unsigned nValues, bool keepCrossProducts)
      : _nValues(nValues), _keep(keepCrossProducts), _within(figures::TriangleSize(nValues), 0.0) {}

  figures::GroupMoments& Of(long long code) {
    const auto [it, added] = _index.try_emplace(code, _groups.size());
    if (added) {
      _codes.push_back(code);
      _groups.emplace_back(_nValues, _keep);
    }
    return _groups[it->second];
  }
  std::vector<double>& Within() { return _within; }

  void Add(const GroupTable& other) {
    for (std::size_t c = 0; c < _within.size(); ++c)
      _within[c] += other._within[c];
    for (std::size_t g = 0; g < other._codes.size(); ++g)
      Of(other._codes[g]).Join(other._groups[g], _within);
  }

  // Moves the groups into `result` in code order.
  void TakeInto(PassResult& result) {
    std::vector<std::size_t> order(_codes.size());
    std::iota(order.begin(), order.end(), std::size_t{0});
    std::sort(order.begin(), order.end(),
              [this](std::size_t a, std::size_t b) { return _codes[a] < _codes[b]; });
    for (std::size_t g : order) {
      result.groupCodes.push_back(_codes[g]);
      result.groups.push_back(std::move(_groups[g]));
    }
    result.withinCscp = std::move(_within);
  }

 private:
  unsigned _nValues;
  bool _keep;
  std::unordered_map<long long, std::size_t> _index;
  std::vector<long long> _codes;
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
    _codes.reserve(capacity);
    _weights.reserve(capacity);
    _values.reserve(std::size_t{capacity} * nValues);
  }

  bool Full() const { return _codes.size() == _capacity; }

  void Add(long long code, double weight, const double* values) {
    _codes.push_back(code);
    _weights.push_back(weight);
    _values.insert(_values.end(), values, values + _nValues);
  }

  // Reduces each group's rows, in their order, and joins them into `table`.
  void Flush(GroupTable& table) {
    const std::size_t n = _codes.size();
    if (n == 0) return;
    _order.resize(n);
    std::iota(_order.begin(), _order.end(), std::size_t{0});
    std::stable_sort(_order.begin(), _order.end(),
                     [this](std::size_t a, std::size_t b) { return _codes[a] < _codes[b]; });
    for (std::size_t first = 0; first < n;) {
      const long long code = _codes[_order[first]];
      figures::GroupMoments& group = table.Of(code);
      // Rows go in less the group's origin, so that the batch's means round
      // as the spread of the data does, not as its distance from zero.
      const std::vector<double> origin =
          figures::OriginOf(group.Rows() != 0 ? group.Origin() : Row(first), _nValues);
      std::size_t last = first;
      _batch.Clear();
      for (; last < n && _codes[_order[last]] == code; ++last) {
        const double* row = Row(last);
        for (unsigned i = 0; i < _nValues; ++i)
          _moved[i] = row[i] - origin[i];
        _weight = _weights[_order[last]];
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
                 table.Within());
      first = last;
    }
    _codes.clear();
    _weights.clear();
    _values.clear();
  }

 private:
  // The values of the row at place `k` of the group order.
  const double* Row(std::size_t k) const { return &_values[_order[k] * _nValues]; }

  unsigned _nValues;
  unsigned _capacity;
  std::vector<long long> _codes;
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
        _extremes(layout.NValues(), options.pairwise),
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
        _extremes(problem._layout.NValues(), _pairwise),
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
      TakeRow();
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
  void TakeRow() {
    ++_counters.read;
    _counters.cellsCoerced += _row.nCoerced;
    if (_row.weightMissing) {
      ++_counters.withoutWeight;
      return;
    }
    // A row of weight 0 is not there, as frequency weights mean; the library
    // would still count it, and a batch of such rows would divide by 0.
    if (_row.weight == 0.0 || _row.weight * _row.regWeight == 0.0) {
      ++_counters.zeroWeight;
      return;
    }
    const bool complete = _row.nMissing == 0;
    if (!complete) ++_counters.incomplete;
    if (!complete && !_pairwise) return;
    _weight = _row.weight;
    _regWeight = _row.regWeight;
    _batch.AddRow(_row.values.data());
    ++_counters.used;
    if (_batch.NRows() == _problem._options.batchRows) FlushBatch();
    if (!_groupRows) return;
    if (_row.groupMissing) {
      ++_counters.withoutGroup;
      return;
    }
    if (!complete) return;
    _groupRows->Add(_row.group, _row.weight, _row.values.data());
    if (_groupRows->Full()) _groupRows->Flush(*_groups);
  }

  // Extremes first: a listwise matrix centres the batch's columns in place.
  void FlushBatch() {
    if (_batch.NRows() == 0) return;
    UpdateExtremes();
    if (_pairwise) UpdatePairConstancy();
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
  result.listwise = std::move(problem._listwise);
  result.pairwise = std::move(problem._pairwise);
  if (problem._groups) {
    result.grouped = true;
    problem._groups->TakeInto(result);
  }
  for (unsigned slot = 0; slot < problem._texts.size(); ++slot) {
    const std::optional<FoundText>& found = problem._texts[slot];
    if (found) result.textColumns.push_back({slot, problem.LineNumber(found->where), found->text});
  }
  return result;
}

}  // namespace vorelstat
