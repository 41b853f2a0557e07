"""vorel: counts, means, extremes, covariances and correlations in one pass.

The rows of a NumPy array or a pandas DataFrame go through vorel's C++ library
on a pool of threads, with the GIL released: weighted counts, means, standard
deviations, minima and maxima of each column, the covariance and correlation
matrices with listwise or pairwise deletion of missing cells, and, by group,
the group means and the pooled within-group covariance.

``describe`` does it in one call. ``Listwise``, ``Pairwise`` and ``ByGroup``
take the rows in chunks (``update``), join results made elsewhere (``merge``)
and give the same ``Result``; they pickle, bit for bit, so they travel between
processes. ``vorel.dask.describe`` runs the pass on a Dask cluster.

The figures are those of the command-line tool ``vorelstat``. With W the
frequency weight behind a figure:

* sd = sqrt(CSS / (W - ddof)), covariance = CSCP / (W - ddof), correlation =
  CSCP / (sqrt(CSS_i) sqrt(CSS_j)); CSS and CSCP are the corrected sums of
  squares and cross-products, weighted by weight x regression weight;
* a column whose minimum equals its maximum has that value as its mean, 0 as
  its sd and covariances, and no correlation;
* a row of weight 0 is absent from every figure and counted in
  ``rows_zero_weight``;
* a figure that is not defined is NaN.

The rows are cut into blocks of a fixed size and the partial results joined
along a fixed tree, so a call gives the same bits on any number of threads.
"""

from __future__ import annotations

import math
import numbers
import sys
from typing import Any, Hashable, Optional, Sequence

import numpy as np

from . import _core

__version__: str = _core.__version__

__all__ = ["describe", "Result", "Listwise", "Pairwise", "ByGroup", "__version__"]

_DELETIONS = ("listwise", "pairwise")
# The version of the pickled form of an accumulator.
_PICKLE_VERSION = 1
# Cell types the core reads in place; other real types are converted first.
_READ_IN_PLACE = {"f": (4, 8), "i": (1, 2, 4, 8), "u": (1, 2, 4, 8), "b": (1,)}


def _pandas():
    """pandas if the caller has imported it, else None (importing it is slow)."""
    return sys.modules.get("pandas")


def _is_frame(data: Any) -> bool:
    pd = _pandas()
    return pd is not None and isinstance(data, pd.DataFrame)


def _is_series(values: Any) -> bool:
    pd = _pandas()
    return pd is not None and isinstance(values, (pd.Series, pd.Index))


# ---------------------------------------------------------------- checking arguments


def _check_deletion(deletion: Any) -> bool:
    if deletion not in _DELETIONS:
        raise ValueError(f"deletion: needs 'listwise' or 'pairwise', got {deletion!r}")
    return deletion == "pairwise"


def _check_missing(missing: Any) -> Optional[float]:
    if isinstance(missing, bool) or not isinstance(missing, numbers.Real):
        raise TypeError(f"missing: needs a number (NaN, the default, or a missing code), got {missing!r}")
    value = float(missing)
    if math.isinf(value):
        raise ValueError(f"missing: needs NaN or a finite code, got {missing!r}")
    return None if math.isnan(value) else value


def _check_threads(threads: Any) -> int:
    if threads is None:
        return 0
    if isinstance(threads, bool) or not isinstance(threads, numbers.Integral):
        raise TypeError(f"threads: needs a whole number or None, got {threads!r}")
    if threads < 1:
        raise ValueError(f"threads: needs 1 or more (None: the machine's count), got {threads}")
    return int(threads)


def _check_ddof(ddof: Any) -> float:
    if isinstance(ddof, bool) or not isinstance(ddof, numbers.Integral):
        raise TypeError(f"ddof: needs a whole number, got {ddof!r}")
    if ddof < 0:
        raise ValueError(f"ddof: needs 0 or more, got {ddof}")
    return float(ddof)


def _real_array(values: Any, argument: str) -> np.ndarray:
    """values as an array of a real type the core reads, without a copy when it reads them in place."""
    array = np.asarray(values)
    kind = array.dtype.kind
    if kind not in "biuf":
        raise TypeError(f"{argument}: needs real numbers, got cells of type {array.dtype}")
    if array.dtype.itemsize not in _READ_IN_PLACE[kind] or not array.dtype.isnative:
        array = array.astype(np.float64)
    return array


def _weights(values: Any, n_rows: int, argument: str) -> Optional[np.ndarray]:
    if values is None:
        return None
    if _is_series(values):
        values = values.to_numpy(dtype=np.float64, na_value=np.nan)
    try:
        array = np.ascontiguousarray(_real_array(values, argument), dtype=np.float64)
    except (TypeError, ValueError) as error:
        raise TypeError(f"{argument}: needs one real number per row ({error})") from None
    if array.ndim != 1:
        raise ValueError(f"{argument}: needs one dimension, got shape {array.shape}")
    if array.shape[0] != n_rows:
        raise ValueError(f"{argument}: has {array.shape[0]} values for {n_rows} rows of data")
    bad = ~np.isfinite(array)
    if bad.any():
        row = int(np.argmax(bad))
        raise ValueError(f"{argument}: needs finite values, row {row} holds {array[row]}")
    negative = array < 0
    if negative.any():
        row = int(np.argmax(negative))
        raise ValueError(f"{argument}: needs values of 0 or more, row {row} holds {array[row]}")
    return array


class _Table:
    """The caller's data split into what the core reads: value columns, their
    names, and the arrays or columns named for weights and groups."""

    def __init__(self, data: Any, missing: Optional[float], roles: dict[str, Any],
                 names: Optional[list] = None):
        self.roles = dict(roles)
        if _is_frame(data):
            self._from_frame(data, missing, names)
        else:
            self._from_array(data)
        if not self.names:
            raise ValueError("data: has no columns to describe")

    def _from_array(self, data: Any) -> None:
        if data is None:
            raise TypeError("data: needs a 2-D array or a pandas DataFrame, got None")
        try:
            array = _real_array(data, "data")
        except ValueError as error:  # ragged lists and the like
            raise ValueError(f"data: is not a 2-D array of numbers ({error})") from None
        if array.ndim != 2:
            raise ValueError(
                f"data: needs a 2-D array (rows x columns), got shape {array.shape}"
                + ("; one column is data.reshape(-1, 1)" if array.ndim == 1 else ""))
        for argument, value in self.roles.items():
            if value is not None and not _is_array_like(value):
                raise TypeError(f"{argument}: names a column, which needs data to be a pandas DataFrame")
        self.cells = array
        self.n_rows = array.shape[0]
        self.names = list(range(array.shape[1]))

    def _from_frame(self, frame: Any, missing: Optional[float], names: Optional[list]) -> None:
        """The frame's columns but those named for weights or groups; with
        names, those columns in that order (the columns of earlier chunks)."""
        taken = set()
        for argument, value in self.roles.items():
            if value is None or _is_array_like(value):
                continue
            self.roles[argument] = _frame_column_by_name(frame, value, argument)
            taken.add(value)
        if names is None:
            names = [name for name in frame.columns if name not in taken]
        else:
            absent = [name for name in names if name not in frame.columns]
            if absent:
                raise ValueError(f"chunk: lacks the columns {absent!r} of the rows before")
        self.names = list(names)
        self.cells = [_frame_column(_frame_column_by_name(frame, name, "data"), name, missing)
                      for name in self.names]
        self.n_rows = len(frame)


def _frame_column_by_name(frame: Any, name: Hashable, argument: str) -> Any:
    if name not in frame.columns:
        raise ValueError(f"{argument}: data has no column {name!r}")
    column = frame[name]
    if column.ndim != 1:
        raise ValueError(f"{argument}: more than one column of data is named {name!r}")
    return column


def _is_array_like(value: Any) -> bool:
    return isinstance(value, (np.ndarray, list, tuple, range)) or _is_series(value) or hasattr(
        value, "__array__")


def _frame_column(column: Any, name: Hashable, missing: Optional[float]) -> np.ndarray:
    pd = _pandas()
    dtype = column.dtype
    if isinstance(dtype, np.dtype):
        if dtype.kind not in "biuf":
            raise TypeError(f"data: column {name!r} is not numeric (dtype {dtype}); "
                            "select the numeric columns, e.g. data.select_dtypes('number')")
        return _real_array(column.to_numpy(), "data")
    # pandas' own numeric types (Int64, Float64, boolean): NA is a missing cell.
    if not (pd.api.types.is_numeric_dtype(dtype) or pd.api.types.is_bool_dtype(dtype)):
        raise TypeError(f"data: column {name!r} is not numeric (dtype {dtype}); "
                        "select the numeric columns, e.g. data.select_dtypes('number')")
    return column.to_numpy(dtype=np.float64, na_value=np.nan if missing is None else missing)


# ---------------------------------------------------------------- results


class Result:
    """The figures of a pass; arrays follow the order of ``columns``.

    Per column: ``n`` (rows behind the column's figures), ``weight`` (their
    frequency weight), ``mean``, ``std``, ``min``, ``max``. Matrices:
    ``cov``, ``corr``; with pairwise deletion also ``pair_n`` and
    ``pair_weight``, the rows and weight behind each pair (the column's own on
    the diagonal). With groups: ``groups`` (the labels, sorted when they can
    be), ``group_n``, ``group_weight``, ``group_means`` (one row per label) and
    ``pooled_cov``. Counts of rows: ``rows`` (seen), ``rows_used`` (reached
    the matrix), ``rows_incomplete`` (with a missing cell), ``rows_zero_weight``
    (left out), ``rows_without_group``. Undefined figures are NaN.
    """

    columns: list
    deletion: str
    ddof: int

    def __init__(self, figures: dict, columns: list, deletion: str, ddof: int,
                 labels: Optional[list] = None):
        self.columns = list(columns)
        self.deletion = deletion
        self.ddof = ddof
        self.pair_n = self.pair_weight = None
        self.groups = self.group_n = self.group_weight = self.group_means = None
        self.pooled_cov = None
        self.rows_without_group = 0
        for key, value in figures.items():
            if key != "group_codes":
                setattr(self, key, value)
        if labels is not None:
            self.groups = [labels[code] for code in figures["group_codes"]]

    def __repr__(self) -> str:
        text = (f"<vorel.Result {self.deletion}, {len(self.columns)} columns, "
                f"{self.rows_used} of {self.rows} rows used")
        if self.groups is not None:
            text += f", {len(self.groups)} groups"
        return text + ">"

    def __eq__(self, other: object) -> bool:
        if not isinstance(other, Result):
            return NotImplemented
        mine, theirs = vars(self), vars(other)
        return mine.keys() == theirs.keys() and all(
            _same(mine[key], theirs[key]) for key in mine)

    def to_pandas(self) -> dict:
        """The figures as DataFrames labelled with the column names (and the
        group labels): ``columns`` (n, weight, mean, std, min, max per column),
        ``cov``, ``corr``; pairwise also ``pair_n``, ``pair_weight``; with
        groups ``groups`` (n, weight per label), ``group_means`` and
        ``pooled_cov``."""
        import pandas as pd

        names = pd.Index(self.columns)
        square = lambda values: pd.DataFrame(values, index=names, columns=names)
        frames = {
            "columns": pd.DataFrame(
                {key: getattr(self, key) for key in ("n", "weight", "mean", "std", "min", "max")},
                index=names),
            "cov": square(self.cov),
            "corr": square(self.corr),
        }
        if self.pair_n is not None:
            frames["pair_n"] = square(self.pair_n)
            frames["pair_weight"] = square(self.pair_weight)
        if self.groups is not None:
            labels = pd.Index(self.groups)
            frames["groups"] = pd.DataFrame({"n": self.group_n, "weight": self.group_weight},
                                            index=labels)
            frames["group_means"] = pd.DataFrame(self.group_means, index=labels, columns=names)
            frames["pooled_cov"] = square(self.pooled_cov)
        return frames


def _same(a: Any, b: Any) -> bool:
    if isinstance(a, np.ndarray) or isinstance(b, np.ndarray):
        return np.array_equal(np.asarray(a), np.asarray(b), equal_nan=True)
    return bool(a == b)


# ---------------------------------------------------------------- accumulators


class _Accumulator:
    _pairwise: bool
    _grouped = False

    def __init__(self, missing: Any, threads: Optional[int]):
        self._missing = _check_missing(missing)
        self._threads = _check_threads(threads)
        self._core = _core.Accumulator(self._pairwise, self._missing, self._grouped,
                                       self._threads)
        self._columns: Optional[list] = None
        self._labels: list = []
        self._codes: dict = {}

    def update(self, chunk: Any, weights: Any = None, reg_weights: Any = None,
               groups: Any = None) -> "_Accumulator":
        """Adds the rows of chunk (a 2-D array or a DataFrame); weights,
        reg_weights and groups are arrays with one value per row or, with a
        DataFrame, column names. Every chunk has the same columns: a
        DataFrame's are taken by name. Returns the accumulator."""
        return self._add(chunk, weights, reg_weights, groups, require_rows=False)

    def _add(self, chunk: Any, weights: Any, reg_weights: Any, groups: Any,
             require_rows: bool) -> "_Accumulator":
        if self._grouped and groups is None:
            raise TypeError("groups: ByGroup needs the group of each row")
        if not self._grouped and groups is not None:
            raise TypeError("groups: only ByGroup takes groups")
        table = _Table(chunk, self._missing,
                       {"weights": weights, "reg_weights": reg_weights, "groups": groups},
                       self._columns if _is_frame(chunk) else None)
        if require_rows and table.n_rows == 0:
            raise ValueError("data: has no rows")
        codes = self._group_codes(table.roles["groups"], table.n_rows)
        self._core.update(table.cells, _weights(table.roles["weights"], table.n_rows, "weights"),
                          _weights(table.roles["reg_weights"], table.n_rows, "reg_weights"), codes)
        if self._columns is None:
            self._columns = table.names
        return self

    def merge(self, other: "_Accumulator") -> "_Accumulator":
        """Adds the rows of another accumulator of the same class and settings
        (which is not changed). Returns this accumulator."""
        if type(other) is not type(self):
            raise TypeError(f"other: needs a {type(self).__name__}, got {type(other).__name__}")
        if self._missing != other._missing and not (self._missing is None and other._missing is None):
            raise ValueError("other: has another missing code")
        if self._columns is not None and other._columns is not None and len(
                self._columns) != len(other._columns):
            raise ValueError(f"other: has {len(other._columns)} columns, this one "
                             f"{len(self._columns)}")
        code_map = [self._code(label) for label in list(other._labels)]
        self._core.merge(other._core, code_map)
        if self._columns is None:
            self._columns = other._columns
        return self

    def result(self, ddof: int = 1) -> Result:
        """The figures of every row added so far; ddof as in NumPy: the
        divisor is W - ddof (W - ddof x groups for the pooled covariance)."""
        divisor = _check_ddof(ddof)
        if self._columns is None:
            raise ValueError("no rows: call update() before result()")
        order = self._group_order()
        figures = self._core.result(order, divisor)
        return Result(figures, self._columns, "pairwise" if self._pairwise else "listwise",
                      int(ddof), self._labels if self._grouped else None)

    def __repr__(self) -> str:
        columns = "no rows yet" if self._columns is None else f"{len(self._columns)} columns"
        return f"<vorel.{type(self).__name__} {columns}>"

    # -- pickling: the core's saved state, the column names and group labels

    def __getstate__(self) -> dict:
        return {"version": _PICKLE_VERSION, "columns": self._columns, "labels": self._labels,
                "threads": self._threads or None, "state": self._core.save()}

    def __setstate__(self, state: Any) -> None:
        if not isinstance(state, dict) or state.get("version") != _PICKLE_VERSION:
            found = state.get("version") if isinstance(state, dict) else type(state).__name__
            raise ValueError(f"vorel pickle: needs version {_PICKLE_VERSION} of a pickled "
                             f"accumulator, got {found!r}")
        columns, labels, threads, saved = (state.get(key) for key in (
            "columns", "labels", "threads", "state"))
        if not isinstance(saved, bytes) or not isinstance(labels, list) or not (
                columns is None or isinstance(columns, list)):
            raise ValueError("vorel pickle: the state, labels or columns are missing or of another type")
        core = _core.Accumulator.load(saved, _check_threads(threads))
        if core.grouped != self._grouped or (not self._grouped and core.pairwise != self._pairwise):
            raise ValueError(f"vorel pickle: holds another kind of accumulator than {type(self).__name__}")
        if (columns is None) != core.empty or (columns is not None and len(columns) != core.n_columns):
            raise ValueError("vorel pickle: the column names do not fit the state")
        codes = {label: code for code, label in enumerate(labels)}
        if len(codes) != len(labels) or len(labels) < core.group_codes:
            raise ValueError("vorel pickle: the group labels do not fit the state")
        self._core, self._columns, self._labels, self._codes = core, columns, labels, codes
        self._pairwise, self._missing, self._threads = core.pairwise, core.missing_code, threads or 0

    # -- group labels

    def _code(self, label: Hashable) -> int:
        code = self._codes.get(label)
        if code is None:
            code = self._codes[label] = len(self._labels)
            self._labels.append(label)
        return code

    def _group_codes(self, groups: Any, n_rows: int) -> Optional[np.ndarray]:
        if groups is None:
            return None
        import pandas as pd

        values = groups.to_numpy() if _is_series(groups) else np.asarray(groups)
        if values.ndim != 1:
            raise ValueError(f"groups: needs one dimension, got shape {values.shape}")
        if values.shape[0] != n_rows:
            raise ValueError(f"groups: has {values.shape[0]} labels for {n_rows} rows of data")
        codes, uniques = pd.factorize(values)  # missing labels (None, NaN) get -1
        table = np.array([self._code(label) for label in uniques] + [-1], dtype=np.int64)
        return np.ascontiguousarray(table[codes])

    def _group_order(self) -> list:
        codes = list(range(len(self._labels)))
        try:
            return sorted(codes, key=lambda code: self._labels[code])
        except TypeError:  # labels that do not compare: in order of appearance
            return codes


class Listwise(_Accumulator):
    """Rows in chunks, listwise deletion: a row with a missing cell is left out.

    ``Listwise(missing=nan, threads=None)``: a cell is missing when it is NaN,
    or when it equals ``missing`` if that is a number; ``threads`` None uses
    every core. ``update(chunk, weights=None, reg_weights=None)``,
    ``merge(other)``, ``result(ddof=1)``.
    """

    _pairwise = False

    def __init__(self, missing: float = math.nan, threads: Optional[int] = None):
        super().__init__(missing, threads)


class Pairwise(_Accumulator):
    """Rows in chunks, pairwise deletion: each figure uses the rows where its
    own cells are present. Arguments as ``Listwise``."""

    _pairwise = True

    def __init__(self, missing: float = math.nan, threads: Optional[int] = None):
        super().__init__(missing, threads)


class ByGroup(_Accumulator):
    """Rows in chunks with a group label each: the figures of ``Listwise`` or
    ``Pairwise`` (``deletion``) over all rows, and, over the rows complete in
    every column that have a label, the rows, weight and means of each group
    and the pooled within-group covariance. Labels may be any hashable
    values; a missing label (None, NaN) leaves the row out of the group
    tables. ``update(chunk, weights=None, reg_weights=None, groups=...)``.
    """

    _grouped = True

    def __init__(self, deletion: str = "listwise", missing: float = math.nan,
                 threads: Optional[int] = None):
        self._pairwise = _check_deletion(deletion)
        super().__init__(missing, threads)


def describe(data: Any, weights: Any = None, reg_weights: Any = None, groups: Any = None,
             deletion: str = "listwise", missing: float = math.nan,
             threads: Optional[int] = None, ddof: int = 1) -> Result:
    """Counts, means, sd, extremes, covariance and correlation of the columns
    of data, in one pass on a pool of threads.

    data: a 2-D NumPy array (rows x columns, any layout and real type;
    float64 is read in place) or a pandas DataFrame of numeric columns.
    weights: frequency weights, finite and not negative; a row of weight 0 is
    left out. reg_weights: regression weights, multiplied into the weights for
    means and sums, not for the divisors. groups: a label per row for the
    group tables. With a DataFrame each of the three may name a column.
    deletion: "listwise" (a row with a missing cell is left out) or
    "pairwise" (each figure uses the rows where its cells are present).
    missing: NaN (cells that are NaN are missing) or a code (cells equal to
    it are missing; NaN cells are then values). threads: None for every core.
    ddof: the divisor is W - ddof.

    Returns a Result; ``result.to_pandas()`` gives DataFrames.
    """
    pairwise = _check_deletion(deletion)
    _check_ddof(ddof)
    if groups is not None:
        accumulator: _Accumulator = ByGroup(deletion, missing, threads)
    elif pairwise:
        accumulator = Pairwise(missing, threads)
    else:
        accumulator = Listwise(missing, threads)
    accumulator._add(data, weights, reg_weights, groups, require_rows=True)
    return accumulator.result(ddof)
