#include "statpass.h"

#include <vorel/databatch.h>
#include <vorel/driver.h>

#include <atomic>
#include <cstring>
#include <deque>
#include <limits>
#include <mutex>
#include <optional>
#include <string>

#include "errors.h"

namespace vorelstat {
namespace {

// A bad line as one thread found it; the line number is known only later.
struct FoundError {
  std::uint64_t chunkIndex = 0;
  std::uint64_t lineInChunk = 0;  // 0-based
  LineError error;

  bool Before(const FoundError& other) const {
    if (chunkIndex != other.chunkIndex) return chunkIndex < other.chunkIndex;
    return lineInChunk < other.lineInChunk;
  }
};

struct Counters {
  std::uint64_t rowsRead = 0;
  std::uint64_t rowsUsed = 0;
  std::uint64_t rowsIncomplete = 0;
  std::uint64_t rowsWithoutWeight = 0;
  std::uint64_t rowsWithoutGroup = 0;
  std::uint64_t cellsCoerced = 0;

  void Add(const Counters& o) {
    rowsRead += o.rowsRead;
    rowsUsed += o.rowsUsed;
    rowsIncomplete += o.rowsIncomplete;
    rowsWithoutWeight += o.rowsWithoutWeight;
    rowsWithoutGroup += o.rowsWithoutGroup;
    cellsCoerced += o.cellsCoerced;
  }
};

struct Extremes {
  std::vector<std::uint64_t> counts;
  std::vector<double> minima, maxima;

  explicit Extremes(unsigned nValues)
      : counts(nValues, 0),
        minima(nValues, std::numeric_limits<double>::infinity()),
        maxima(nValues, -std::numeric_limits<double>::infinity()) {}

  void Add(const Extremes& o) {
    for (std::size_t c = 0; c < counts.size(); ++c) {
      counts[c] += o.counts[c];
      if (o.minima[c] < minima[c]) minima[c] = o.minima[c];
      if (o.maxima[c] > maxima[c]) maxima[c] = o.maxima[c];
    }
  }
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
        _extremes(layout.NValues()),
        _groupRows(layout.groupField ? GroupCount() : 0, 0) {
    if (options.pairwise) {
      _pairwise = std::make_unique<vorel::MatrixPairwise>(rules.missingCode);
    } else {
      _listwise = std::make_unique<vorel::MatrixListwise>();
    }
    if (layout.groupField) _groups = std::make_unique<vorel::DiscriminantMatrix>();
  }

  vorel::WorkerBase* CreateWorker() override;

  int GroupCount() const { return static_cast<int>(_rules.groupHi - _rules.groupLo + 1); }

  // Keeps the earliest of the errors offered; called under the result lock.
  void OfferError(const FoundError& error) {
    if (!_firstError || error.Before(*_firstError)) _firstError = error;
  }

  // Line number in the file of a bad line: the header is line 1.
  std::uint64_t LineNumber(const FoundError& error) const {
    std::uint64_t line = 2 + error.lineInChunk;
    for (std::uint64_t k = 0; k < error.chunkIndex; ++k)
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
  Counters _counters;
  Extremes _extremes;
  std::unique_ptr<vorel::MatrixListwise> _listwise;
  std::unique_ptr<vorel::MatrixPairwise> _pairwise;
  std::unique_ptr<vorel::DiscriminantMatrix> _groups;
  std::vector<std::uint64_t> _groupRows;
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
        _extremes(problem._layout.NValues()),
        _groupRows(problem._groupRows.size(), 0),
        _groupShift(problem._options.groupShift),
        _shifted(_groupShift.size()) {
    if (_pairwise) {
      _pairwiseMatrix = std::make_unique<vorel::MatrixPairwise>(_missingCode);
    } else {
      _listwiseMatrix = std::make_unique<vorel::MatrixListwise>();
    }
    if (_layout.groupField) {
      // Regression weights play no part in the discriminant sums, so the
      // group batch does not carry them.
      _groupBatch.emplace(_layout.NValues(), problem._options.batchRows,
                          _layout.weightField ? &_weight : nullptr, nullptr, &_group);
      _groupMatrix = std::make_unique<vorel::DiscriminantMatrix>(
          problem.GroupCount(), static_cast<int>(_layout.NValues()));
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
      const void* found = std::memchr(p, '\n', static_cast<std::size_t>(end - p));
      const char* lineEnd = found != nullptr ? static_cast<const char*>(found) : end;
      std::string_view text(p, static_cast<std::size_t>(lineEnd - p));
      if (!text.empty() && text.back() == '\r') text.remove_suffix(1);
      p = lineEnd + 1;
      if (text.empty()) continue;
      LineError error;
      if (!_parser.Parse(text, _row, error)) {
        _error = FoundError{_chunk.index, line, std::move(error)};
        _problem._failed.store(true, std::memory_order_relaxed);
        break;
      }
      TakeRow();
    }
    *_lineCount = line;
  }

  void MergeResult() override {
    if (_error) {
      _problem.OfferError(*_error);
      return;
    }
    // Batches run on across chunks, so each worker still holds one partly
    // filled batch: it goes in here, once per worker.
    FlushBatch();
    FlushGroupBatch();
    if (_listwiseMatrix) *_problem._listwise += *_listwiseMatrix;
    if (_pairwiseMatrix) *_problem._pairwise += *_pairwiseMatrix;
    if (_groupMatrix) *_problem._groups += *_groupMatrix;
    for (std::size_t g = 0; g < _groupRows.size(); ++g)
      _problem._groupRows[g] += _groupRows[g];
    _problem._extremes.Add(_extremes);
    _problem._counters.Add(_counters);
  }

 private:
  void TakeRow() {
    ++_counters.rowsRead;
    _counters.cellsCoerced += _row.nCoerced;
    if (_row.weightMissing) {
      ++_counters.rowsWithoutWeight;
      return;
    }
    const bool complete = _row.nMissing == 0;
    if (!complete) ++_counters.rowsIncomplete;
    if (!complete && !_pairwise) return;
    _weight = _row.weight;
    _regWeight = _row.regWeight;
    _batch.AddRow(_row.values.data());
    ++_counters.rowsUsed;
    if (_batch.NRows() == _problem._options.batchRows) FlushBatch();
    if (!_groupBatch) return;
    if (_row.groupMissing) {
      ++_counters.rowsWithoutGroup;
      return;
    }
    if (!complete) return;
    _group = _row.group;
    const double* cells = _row.values.data();
    if (!_groupShift.empty()) {
      for (std::size_t c = 0; c < _shifted.size(); ++c)
        _shifted[c] = cells[c] - _groupShift[c];
      cells = _shifted.data();
    }
    _groupBatch->AddRow(cells);
    ++_groupRows[_row.group];
    if (_groupBatch->NRows() == _problem._options.batchRows) FlushGroupBatch();
  }

  // Extremes first: a listwise matrix centres the batch's columns in place.
  void FlushBatch() {
    if (_batch.NRows() == 0) return;
    UpdateExtremes();
    if (_listwiseMatrix) *_listwiseMatrix += _batch;
    if (_pairwiseMatrix) *_pairwiseMatrix += _batch;
    _batch.Clear();
  }

  void FlushGroupBatch() {
    if (!_groupBatch || _groupBatch->NRows() == 0) return;
    *_groupMatrix += *_groupBatch;
    _groupBatch->Clear();
  }

  void UpdateExtremes() {
    const unsigned n = _batch.NRows();
    for (unsigned c = 0; c < _batch.NColumns(); ++c) {
      const double* x = _batch.Column(c);
      double lo = _extremes.minima[c];
      double hi = _extremes.maxima[c];
      std::uint64_t count = 0;
      for (unsigned r = 0; r < n; ++r) {
        // Compared exactly, on purpose: that is what makes a cell missing.
        if (x[r] == _missingCode) continue;
        ++count;
        if (x[r] < lo) lo = x[r];
        if (x[r] > hi) hi = x[r];
      }
      _extremes.minima[c] = lo;
      _extremes.maxima[c] = hi;
      _extremes.counts[c] += count;
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

  // The current row's weight, regression weight and group, read by AddRow.
  double _weight = 1.0;
  double _regWeight = 1.0;
  unsigned _group = 0;

  vorel::DataBatch _batch;
  std::optional<vorel::DataBatch> _groupBatch;
  std::unique_ptr<vorel::MatrixListwise> _listwiseMatrix;
  std::unique_ptr<vorel::MatrixPairwise> _pairwiseMatrix;
  std::unique_ptr<vorel::DiscriminantMatrix> _groupMatrix;
  Extremes _extremes;
  std::vector<std::uint64_t> _groupRows;
  const std::vector<double>& _groupShift;
  std::vector<double> _shifted;  // the current row less the group shift
  Counters _counters;
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
    where +=
        ", column " + std::to_string(error.field + 1) + " (\"" + layout.names[error.field] + "\")";
  }
  return where;
}

}  // namespace

PassResult RunPass(ChunkReader& reader, const RowLayout& layout, const CellRules& rules,
                   const PassOptions& options) {
  StatProblem problem(reader, layout, rules, options);
  vorel::Driver(&problem, options.threads);
  if (problem._firstError) {
    const FoundError& found = *problem._firstError;
    throw DataError(Location(reader, layout, problem.LineNumber(found), found.error) + ": "
                    + found.error.message);
  }
  PassResult result;
  result.threads = problem._workersMade;
  result.rowsRead = problem._counters.rowsRead;
  result.rowsUsed = problem._counters.rowsUsed;
  result.rowsIncomplete = problem._counters.rowsIncomplete;
  result.rowsWithoutWeight = problem._counters.rowsWithoutWeight;
  result.rowsWithoutGroup = problem._counters.rowsWithoutGroup;
  result.cellsCoerced = problem._counters.cellsCoerced;
  result.cellCounts = std::move(problem._extremes.counts);
  result.minima = std::move(problem._extremes.minima);
  result.maxima = std::move(problem._extremes.maxima);
  result.listwise = std::move(problem._listwise);
  result.pairwise = std::move(problem._pairwise);
  result.groups = std::move(problem._groups);
  result.groupRows = std::move(problem._groupRows);
  result.groupShift = options.groupShift;
  result.groupShift.resize(layout.NValues(), 0.0);
  return result;
}

}  // namespace vorelstat
