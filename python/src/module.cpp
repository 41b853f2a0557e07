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
#include <mutex>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>

#include "blockpass.h"
#include "results.h"

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

// The state of one accumulator: its settings, fixed by the constructor and
// the first rows, and the tally of every row added so far.
class Accumulator {
 public:
  Accumulator(bool pairwise, std::optional<double> missingCode, bool grouped, int threads)
      : _threads(threads) {
    _settings.pairwise = pairwise;
    _settings.grouped = grouped;
    _missing.nan = !missingCode || std::isnan(*missingCode);
    if (!_missing.nan) _missing.code = *missingCode;
    // NaN cells stand in as the lowest double in a pairwise matrix.
    _settings.pairwiseCode = _missing.nan ? std::numeric_limits<double>::lowest() : _missing.code;
  }

  void Update(const py::object& data, const py::object& weights, const py::object& regWeights,
              const py::object& groups) {
    Table table;
    table.columns = ColumnsOf(data, table.nRows);
    table.weights = ValuesOf<double>(weights, table.nRows, "weights");
    table.regWeights = ValuesOf<double>(regWeights, table.nRows, "reg_weights");
    table.groups = ValuesOf<std::int64_t>(groups, table.nRows, "groups");
    table.missing = _missing;
    if (table.groups && !_settings.grouped)
      throw py::value_error("groups: this accumulator was made without groups");
    py::gil_scoped_release unlocked;
    std::lock_guard lock(_mutex);
    Start(table);
    if (table.nRows == 0) return;
    try {
      _tally->Merge(RunPass(table, _settings, _threads));
    } catch (const ValueTaken& taken) {
      std::ostringstream text;
      text << std::setprecision(17) << "data: the value " << taken.value
           << " stands for missing cells in pairwise deletion with missing=NaN;"
              " give another missing code";
      throw std::invalid_argument(text.str());
    }
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
    CheckSame(settings);
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

  void CheckSame(const Settings& other) const {
    if (other.nColumns != _settings.nColumns || other.pairwise != _settings.pairwise
        || other.grouped != _settings.grouped || other.regWeights != _settings.regWeights
        || !(other.pairwiseCode == _settings.pairwiseCode))
      throw std::invalid_argument(
          "other: holds another kind of result (columns, deletion, groups, missing code or "
          "regression weights differ)");
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
      .def_property_readonly("n_columns", &Accumulator::NColumns)
      .def_property_readonly("empty", &Accumulator::Empty);
}
