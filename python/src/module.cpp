// vorel._core: the compiled part of the Python module. It takes arrays that
// the pure-Python layer has already checked and shaped (a 2-D array or a list
// of columns, contiguous float64 weights, int64 group codes), runs the pass
// with the GIL released, and hands the figures back as NumPy arrays. Checks
// here guard the memory the pass reads; the messages users see for bad
// arguments come from the Python layer.
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <algorithm>
#include <cmath>
#include <iomanip>
#include <limits>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <sstream>
#include <stdexcept>
#include <string>

#include "blockpass.h"
#include "results.h"
#include "savedstate.h"

namespace py = pybind11;

namespace vorelpy {
namespace {

CellType CellTypeOf(const py::dtype& dtype, const char* argument) {
  if (dtype.byteorder() == '>')
    throw py::type_error(std::string(argument) + ": byte order is not native");
  const char kind = dtype.kind();
  const auto size = dtype.itemsize();
  if (kind == 'f' && size == 8) return CellType::kFloat64;
  if (kind == 'f' && size == 4) return CellType::kFloat32;
  if (kind == 'b' && size == 1) return CellType::kBool;
  if (kind == 'i' || kind == 'u') {
    const bool sign = kind == 'i';
    switch (size) {
      case 1:
        return sign ? CellType::kInt8 : CellType::kUInt8;
      case 2:
        return sign ? CellType::kInt16 : CellType::kUInt16;
      case 4:
        return sign ? CellType::kInt32 : CellType::kUInt32;
      case 8:
        return sign ? CellType::kInt64 : CellType::kUInt64;
      default:
        break;
    }
  }
  throw py::type_error(std::string(argument) + ": cells of type "
                       + py::str(static_cast<const py::handle&>(dtype)).cast<std::string>()
                       + " are not numbers vorel reads");
}

ColumnView ColumnOf(const py::array& column, std::size_t nRows) {
  if (column.ndim() != 1 || static_cast<std::size_t>(column.shape(0)) != nRows)
    throw py::value_error("data: every column needs one dimension and the same length");
  return ColumnView{static_cast<const char*>(column.data()), column.strides(0),
                    CellTypeOf(column.dtype(), "data")};
}

// The columns of a 2-D array, or a list of 1-D columns; the arrays stay the
// caller's and must outlive the pass.
std::vector<ColumnView> ColumnsOf(const py::object& data, std::size_t& nRows) {
  if (py::isinstance<py::array>(data)) {
    const auto array = data.cast<py::array>();
    if (array.ndim() != 2) throw py::value_error("data: needs two dimensions");
    nRows = static_cast<std::size_t>(array.shape(0));
    const CellType type = CellTypeOf(array.dtype(), "data");
    std::vector<ColumnView> columns(static_cast<std::size_t>(array.shape(1)));
    for (std::size_t c = 0; c < columns.size(); ++c)
      columns[c] = ColumnView{
          static_cast<const char*>(array.data()) + static_cast<py::ssize_t>(c) * array.strides(1),
          array.strides(0), type};
    return columns;
  }
  const auto list = data.cast<std::vector<py::array>>();
  if (list.empty()) throw py::value_error("data: has no columns");
  nRows = static_cast<std::size_t>(list[0].ndim() == 1 ? list[0].shape(0) : 0);
  std::vector<ColumnView> columns;
  for (const py::array& column : list)
    columns.push_back(ColumnOf(column, nRows));
  return columns;
}

template <typename T>
const T* ValuesOf(const py::object& values, std::size_t nRows, const char* argument) {
  if (values.is_none()) return nullptr;
  const auto array = values.cast<py::array>();
  if (!py::isinstance<py::array_t<T, py::array::c_style>>(array) || array.ndim() != 1
      || static_cast<std::size_t>(array.shape(0)) != nRows)
    throw py::value_error(std::string(argument)
                          + ": needs a contiguous 1-D array, one value per row");
  return static_cast<const T*>(array.data());
}

py::array_t<double> Vector(const std::vector<double>& values) {
  return py::array_t<double>(static_cast<py::ssize_t>(values.size()), values.data());
}
py::array_t<std::uint64_t> Vector(const std::vector<std::uint64_t>& values) {
  return py::array_t<std::uint64_t>(static_cast<py::ssize_t>(values.size()), values.data());
}
template <typename T>
py::array_t<T> Matrix(const std::vector<T>& values, std::size_t rows, std::size_t columns) {
  return py::array_t<T>({static_cast<py::ssize_t>(rows), static_cast<py::ssize_t>(columns)},
                        values.data());
}

MissingRule MissingRuleOf(const std::optional<double>& missingCode) {
  MissingRule missing;
  missing.nan = !missingCode || std::isnan(*missingCode);
  if (!missing.nan) missing.code = *missingCode;
  return missing;
}

Settings SettingsOf(bool pairwise, const MissingRule& missing, bool grouped) {
  Settings settings;
  settings.pairwise = pairwise;
  settings.grouped = grouped;
  settings.pairwiseCode = PairwiseCodeOf(missing);
  return settings;
}

Table TableOf(const py::object& data, const py::object& weights, const py::object& regWeights,
              const py::object& groups, const MissingRule& missing, const Settings& settings) {
  Table table;
  table.columns = ColumnsOf(data, table.nRows);
  table.weights = ValuesOf<double>(weights, table.nRows, "weights");
  table.regWeights = ValuesOf<double>(regWeights, table.nRows, "reg_weights");
  table.groups = ValuesOf<std::int64_t>(groups, table.nRows, "groups");
  table.missing = missing;
  if (table.groups && !settings.grouped)
    throw py::value_error("groups: this accumulator was made without groups");
  return table;
}

// Runs pass, telling the caller plainly when a cell held the stand-in for NaN.
template <class Pass>
auto ExplainingStandIn(Pass pass) {
  try {
    return pass();
  } catch (const ValueTaken& taken) {
    std::ostringstream text;
    text << std::setprecision(17) << "data: the value " << taken.value
         << " stands for missing cells in pairwise deletion with missing=NaN;"
            " give another missing code";
    throw std::invalid_argument(text.str());
  }
}

void CheckSameKind(const Settings& mine, const Settings& other) {
  if (other.nColumns != mine.nColumns || other.pairwise != mine.pairwise
      || other.grouped != mine.grouped || other.regWeights != mine.regWeights
      || !(other.pairwiseCode == mine.pairwiseCode))
    throw std::invalid_argument(
        "other: holds another kind of result (columns, deletion, groups, missing code or "
        "regression weights differ)");
}

py::bytes BytesOf(const std::vector<std::byte>& bytes) {
  return py::bytes(reinterpret_cast<const char*>(bytes.data()), bytes.size());
}

std::span<const std::byte> SpanOf(const py::bytes& bytes) {
  char* data = nullptr;
  Py_ssize_t size = 0;
  if (PyBytes_AsStringAndSize(bytes.ptr(), &data, &size) != 0) throw py::error_already_set();
  return {reinterpret_cast<const std::byte*>(data), static_cast<std::size_t>(size)};
}

// Whether two forests hold no block in common: nodes of each are in block order.
bool Disjoint(const Forest& a, const Forest& b) {
  auto ia = a.Nodes().begin(), ib = b.Nodes().begin();
  while (ia != a.Nodes().end() && ib != b.Nodes().end()) {
    if (ia->EndBlock() <= ib->FirstBlock()) {
      ++ia;
    } else if (ib->EndBlock() <= ia->FirstBlock()) {
      ++ib;
    } else {
      return false;
    }
  }
  return true;
}

// The blocks of one part of a table that is reduced in parts, perhaps on
// other processes, on the grid of the whole table: parts combine into the
// forest of the whole, which an accumulator then takes in.
class PartForest {
 public:
  PartForest(const py::object& data, const py::object& weights, const py::object& regWeights,
             const py::object& groups, bool pairwise, std::optional<double> missingCode,
             bool grouped, int threads, std::uint64_t firstBlock)
      : _missing(MissingRuleOf(missingCode)), _settings(SettingsOf(pairwise, _missing, grouped)) {
    const Table table = TableOf(data, weights, regWeights, groups, _missing, _settings);
    if (table.columns.empty()) throw std::invalid_argument("data: has no columns");
    // Far below the end of the 64-bit block numbers the tree can hold.
    if (firstBlock >= std::uint64_t{1} << 48)
      throw std::invalid_argument("first_block: beyond the blocks of any table");
    _settings.nColumns = static_cast<unsigned>(table.columns.size());
    _settings.regWeights = table.regWeights != nullptr;
    py::gil_scoped_release unlocked;
    _forest = ExplainingStandIn([&] { return RunPartPass(table, _settings, threads, firstBlock); });
  }
  explicit PartForest(const py::bytes& state) {
    const auto bytes = SpanOf(state);
    py::gil_scoped_release unlocked;
    _forest = LoadForest(bytes, _settings, _missing);
  }

  // Takes in the blocks of other, which is left empty.
  void Combine(PartForest& other) {
    if (&other == this) throw std::invalid_argument("other: is this forest");
    CheckSameKind(_settings, other._settings);
    if (!Disjoint(_forest, other._forest))
      throw std::invalid_argument("other: holds blocks this forest holds too");
    py::gil_scoped_release unlocked;
    _forest.Combine(std::move(other._forest));
    other._forest = Forest();
  }

  py::bytes Save() const {
    std::vector<std::byte> bytes;
    {
      py::gil_scoped_release unlocked;
      bytes = SaveForest(_settings, _missing, _forest);
    }
    return BytesOf(bytes);
  }

  std::uint64_t BlockCount() const { return _forest.BlockCount(); }
  std::uint64_t EndBlock() const { return _forest.EndBlock(); }
  const Settings& Shape() const { return _settings; }
  const MissingRule& Missing() const { return _missing; }
  // The sum of the blocks, as one pass over the whole table gives it.
  Tally Total() {
    if (!_forest.Complete()) throw std::invalid_argument("forest: blocks are missing");
    Tally total(_settings);
    _forest.AddTo(total);
    return total;
  }

 private:
  MissingRule _missing;
  Settings _settings;
  Forest _forest;
};

// The state of one accumulator: its settings, fixed by the constructor and
// the first rows, and the tally of every row added so far.
class Accumulator {
 public:
  Accumulator(bool pairwise, std::optional<double> missingCode, bool grouped, int threads)
      : _settings(SettingsOf(pairwise, MissingRuleOf(missingCode), grouped)),
        _missing(MissingRuleOf(missingCode)),
        _threads(threads) {}

  void Update(const py::object& data, const py::object& weights, const py::object& regWeights,
              const py::object& groups) {
    const Table table = TableOf(data, weights, regWeights, groups, _missing, _settings);
    py::gil_scoped_release unlocked;
    std::lock_guard lock(_mutex);
    Start(table);
    if (table.nRows == 0) return;
    _tally->Merge(ExplainingStandIn([&] { return RunPass(table, _settings, _threads); }));
  }

  // Takes in the rows of a complete forest, as Update takes in a table.
  void AddForest(PartForest& part) {
    if (part.Missing().nan != _missing.nan
        || (!_missing.nan && !(part.Missing().code == _missing.code)))
      throw std::invalid_argument("forest: has another missing code");
    py::gil_scoped_release unlocked;
    std::lock_guard lock(_mutex);
    Tally total = part.Total();
    if (!_tally) {
      _settings = part.Shape();
      _tally.emplace(_settings);
    }
    CheckSameKind(_settings, part.Shape());
    _tally->Merge(total);
  }

  py::bytes Save() {
    std::vector<std::byte> bytes;
    {
      py::gil_scoped_release unlocked;
      std::lock_guard lock(_mutex);
      bytes = SaveAccumulator(_settings, _missing, _tally);
    }
    return BytesOf(bytes);
  }

  static std::unique_ptr<Accumulator> Load(const py::bytes& state, int threads) {
    auto accumulator = std::make_unique<Accumulator>(false, std::nullopt, false, threads);
    const auto bytes = SpanOf(state);
    py::gil_scoped_release unlocked;
    LoadAccumulator(bytes, accumulator->_settings, accumulator->_missing, accumulator->_tally);
    return accumulator;
  }

  // Adds other's rows; codeMap[g] is this accumulator's code for other's
  // group g.
  void Merge(Accumulator& other, const std::vector<std::int64_t>& codeMap) {
    py::gil_scoped_release unlocked;
    std::optional<Tally> copy;
    Settings settings;
    {
      std::lock_guard lock(other._mutex);
      if (!other._tally) return;
      copy = other._tally;
      settings = other._settings;
    }
    Recode(copy->groups, codeMap);
    std::lock_guard lock(_mutex);
    if (!_tally) {
      _settings = settings;
      _tally = std::move(copy);
      return;
    }
    CheckSameKind(_settings, settings);
    _tally->Merge(*copy);
  }

  py::dict Result(const std::vector<std::int64_t>& groupOrder, double ddof) {
    Figures f;
    {
      py::gil_scoped_release unlocked;
      std::lock_guard lock(_mutex);
      if (!_tally) throw std::invalid_argument("no rows were added");
      f = MakeFigures(_settings, *_tally, groupOrder, ddof);
    }
    const std::size_t k = f.nColumns;
    py::dict r;
    r["rows"] = f.counts.rows;
    r["rows_used"] = f.rowsUsed;
    r["rows_zero_weight"] = f.counts.zeroWeight;
    r["rows_incomplete"] = f.counts.incomplete;
    r["weight_sum"] = f.weightSum;
    r["n"] = Vector(f.n);
    r["weight"] = Vector(f.weight);
    r["mean"] = Vector(f.mean);
    r["std"] = Vector(f.sd);
    r["min"] = Vector(f.min);
    r["max"] = Vector(f.max);
    r["cov"] = Matrix(f.cov, k, k);
    r["corr"] = Matrix(f.corr, k, k);
    if (_settings.pairwise) {
      r["pair_n"] = Matrix(f.pairN, k, k);
      r["pair_weight"] = Matrix(f.pairWeight, k, k);
    }
    if (_settings.grouped) {
      r["rows_without_group"] = f.counts.withoutGroup;
      r["group_codes"] = f.groupCodes;
      r["group_n"] = Vector(f.groupN);
      r["group_weight"] = Vector(f.groupWeight);
      r["group_means"] = Matrix(f.groupMeans, f.groupCodes.size(), k);
      r["pooled_cov"] = Matrix(f.pooledCov, k, k);
      r["pooled_divisor"] = f.pooledDivisor;
    }
    return r;
  }

  unsigned NColumns() const { return _settings.nColumns; }
  bool Empty() const { return !_tally; }
  bool Pairwise() const { return _settings.pairwise; }
  bool Grouped() const { return _settings.grouped; }
  std::optional<double> MissingCode() const {
    return _missing.nan ? std::nullopt : std::optional<double>(_missing.code);
  }
  // The number of group codes the tally uses: one above the highest.
  std::int64_t GroupCodes() const {
    return _tally && !_tally->groups.empty() ? _tally->groups.back().code + 1 : 0;
  }

 private:
  // The first rows fix the columns and whether regression weights are used;
  // later rows must agree.
  void Start(const Table& table) {
    const auto nColumns = static_cast<unsigned>(table.columns.size());
    if (!_tally) {
      if (nColumns == 0) throw std::invalid_argument("data: has no columns");
      _settings.nColumns = nColumns;
      _settings.regWeights = table.regWeights != nullptr;
      _tally.emplace(_settings);
      return;
    }
    if (nColumns != _settings.nColumns)
      throw std::invalid_argument("data: has " + std::to_string(nColumns)
                                  + " columns, the rows before had "
                                  + std::to_string(_settings.nColumns));
    if (table.regWeights && !_settings.regWeights)
      throw std::invalid_argument("reg_weights: the first rows came without regression weights");
  }

  static void Recode(std::vector<GroupTally>& groups, const std::vector<std::int64_t>& codeMap) {
    for (GroupTally& group : groups) {
      if (group.code < 0 || static_cast<std::size_t>(group.code) >= codeMap.size())
        throw std::invalid_argument("other: a group has no code here");
      group.code = codeMap[static_cast<std::size_t>(group.code)];
    }
    std::stable_sort(groups.begin(), groups.end(),
                     [](const GroupTally& a, const GroupTally& b) { return a.code < b.code; });
  }

  std::mutex _mutex;
  Settings _settings;
  MissingRule _missing;
  int _threads;
  std::optional<Tally> _tally;
};

}  // namespace
}  // namespace vorelpy

PYBIND11_MODULE(_core, m) {
  using vorelpy::Accumulator;
  using vorelpy::PartForest;
  m.doc() = "The compiled core of vorel; use the functions and classes of the package vorel.";
  m.attr("__version__") = VOREL_VERSION;
  m.def("block_rows", &vorelpy::BlockRows, py::arg("n_columns"),
        "Rows of one block of the pass for a table of n_columns columns.");
  m.def("_use_whole_blocks", &vorelpy::UseWholeBlocks, py::arg("use"),
        "Tests only: write whole blocks column by column (True, the default) or row by row.");
  py::class_<Accumulator>(m, "Accumulator")
      .def(py::init<bool, std::optional<double>, bool, int>(), py::arg("pairwise"),
           py::arg("missing_code"), py::arg("grouped"), py::arg("threads"))
      .def("update", &Accumulator::Update, py::arg("data"), py::arg("weights"),
           py::arg("reg_weights"), py::arg("groups"))
      .def("merge", &Accumulator::Merge, py::arg("other"), py::arg("code_map"))
      .def("result", &Accumulator::Result, py::arg("group_order"), py::arg("ddof"))
      .def("add_forest", &Accumulator::AddForest, py::arg("forest"))
      .def("save", &Accumulator::Save, "The accumulator's saved state, as bytes.")
      .def_static("load", &Accumulator::Load, py::arg("state"), py::arg("threads"))
      .def_property_readonly("n_columns", &Accumulator::NColumns)
      .def_property_readonly("empty", &Accumulator::Empty)
      .def_property_readonly("pairwise", &Accumulator::Pairwise)
      .def_property_readonly("grouped", &Accumulator::Grouped)
      .def_property_readonly("missing_code", &Accumulator::MissingCode)
      .def_property_readonly("group_codes", &Accumulator::GroupCodes);
  py::class_<PartForest>(m, "Forest")
      .def(py::init<const py::object&, const py::object&, const py::object&, const py::object&,
                    bool, std::optional<double>, bool, int, std::uint64_t>(),
           py::arg("data"), py::arg("weights"), py::arg("reg_weights"), py::arg("groups"),
           py::arg("pairwise"), py::arg("missing_code"), py::arg("grouped"), py::arg("threads"),
           py::arg("first_block"),
           "The blocks of rows that start at block first_block of a larger table's grid.")
      .def("combine", &PartForest::Combine, py::arg("other"))
      .def_property_readonly("block_count", &PartForest::BlockCount)
      .def_property_readonly("end_block", &PartForest::EndBlock)
      .def(py::pickle([](const PartForest& forest) { return forest.Save(); },
                      [](const py::bytes& state) { return PartForest(state); }));
}
