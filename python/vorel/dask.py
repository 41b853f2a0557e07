"""vorel.dask: the pass of ``vorel.describe`` over a Dask array or DataFrame.

``describe`` takes the arguments of ``vorel.describe`` and gives the same
``Result``, to the last bit: the rows are cut into the blocks that one
process would cut them into, whatever the partitions.

Each partition is reduced on its worker. The whole blocks it holds become a
forest of block results on the fixed merge tree; the rows of a block that the
partition holds only in part (at its edges) travel as they are, keyed by the
block's number. Pieces are combined pairwise: forests join where they meet,
and the rows of a block whose parts have all arrived are reduced there as one
block. The last combination holds every block, and the sum along the tree is
the sum one process makes. A block's rows are reduced by the same code on any
worker, so the number of workers and where the partitions lie change nothing.

The row offsets of the partitions must be known before the blocks can be
cut: a Dask array knows them from its chunks; for a DataFrame, or where the
groups are given, a first quick pass counts each partition's rows and
collects the group labels in order of appearance (so that the codes, and with
them the order of every join, are those of one process).
"""

from __future__ import annotations

import math
from typing import Any, Optional

import numpy as np

import dask
import dask.array as da
import dask.dataframe as dd

import vorel
from vorel import _core

__all__ = ["describe"]


def describe(data: Any, weights: Any = None, reg_weights: Any = None, groups: Any = None,
             deletion: str = "listwise", missing: float = math.nan,
             threads: Optional[int] = None, ddof: int = 1) -> vorel.Result:
    """``vorel.describe`` over a Dask array (rows x columns) or Dask
    DataFrame, on the scheduler in use (a ``distributed.Client`` if one is
    active). weights, reg_weights and groups are column names of a DataFrame,
    or 1-D arrays (NumPy or Dask) with one value per row. threads: the threads
    of each partition's pass on its worker (None: the worker machine's cores).
    The result is bit for bit that of ``vorel.describe`` on the whole data.
    """
    pairwise = vorel._check_deletion(deletion)
    missing_code = vorel._check_missing(missing)
    threads = vorel._check_threads(threads)
    vorel._check_ddof(ddof)
    parts = _Partitions(data, {"weights": weights, "reg_weights": reg_weights, "groups": groups})
    plan = _Plan(parts.names, pairwise, missing_code, groups is not None, threads)
    plan.offsets, labels = parts.survey(groups is not None)
    plan.codes = {label: code for code, label in enumerate(labels)}
    if plan.offsets[-1] == 0:
        raise ValueError("data: has no rows")
    pieces = [dask.delayed(_reduce_partition)(part, plan, first)
              for part, first in zip(parts.delayed, plan.offsets)]
    while len(pieces) > 1:
        pieces = [dask.delayed(_combine)(*pieces[at:at + 2], plan) if at + 1 < len(pieces)
                  else pieces[at] for at in range(0, len(pieces), 2)]
    (accumulator,) = dask.compute(dask.delayed(_finish)(pieces[0], plan))
    return accumulator.result(ddof)


class _Plan:
    """What every task needs to know: the columns, the settings, the grid and
    the group codes."""

    def __init__(self, names: list, pairwise: bool, missing_code: Optional[float],
                 grouped: bool, threads: int):
        self.names = names
        self.pairwise = pairwise
        self.missing_code = missing_code
        self.grouped = grouped
        self.threads = threads
        self.block_rows = _core.block_rows(len(names))
        self.offsets: list = []
        self.codes: dict = {}


class _Partitions:
    """The data as a list of delayed partitions, each a dict of the cells
    (a 2-D array or a DataFrame) and the arrays given for weights and groups."""

    def __init__(self, data: Any, roles: dict):
        if isinstance(data, dd.DataFrame):
            self._from_frame(data, roles)
        elif isinstance(data, da.Array):
            self._from_array(data, roles)
        else:
            raise TypeError(f"data: needs a Dask array or DataFrame, got {type(data).__name__}; "
                            "vorel.describe takes NumPy arrays and pandas DataFrames")
        if not self.names:
            raise ValueError("data: has no columns to describe")

    def _from_array(self, data: Any, roles: dict) -> None:
        if data.ndim != 2:
            raise ValueError(f"data: needs a 2-D array (rows x columns), got {data.ndim} dimensions")
        if any(isinstance(value, str) for value in roles.values()):
            raise TypeError("weights, reg_weights and groups: name columns only of a DataFrame")
        if any(math.isnan(size) for size in data.chunks[0]):
            data = data.compute_chunk_sizes()
        data = data.rechunk({1: -1})
        self.names = list(range(data.shape[1]))
        self.lengths: Optional[list] = list(data.chunks[0])
        columns = {"cells": data.to_delayed()[:, 0].tolist()}
        for role, values in roles.items():
            if values is None:
                continue
            if not isinstance(values, da.Array):
                values = np.asarray(values)
            if values.ndim != 1 or values.shape[0] != data.shape[0]:
                raise ValueError(f"{role}: needs one value per row of data, got shape {values.shape}")
            values = (values.rechunk((data.chunks[0],)) if isinstance(values, da.Array)
                      else da.from_array(values, chunks=(data.chunks[0],)))
            columns[role] = values.to_delayed().tolist()
        self.delayed = [dask.delayed(dict)(zip(columns, part)) for part in zip(*columns.values())]
        self._groups = columns.get("groups")

    def _from_frame(self, frame: Any, roles: dict) -> None:
        taken = set()
        for role, values in roles.items():
            if values is None:
                continue
            if not isinstance(values, str) or values not in frame.columns:
                raise ValueError(f"{role}: needs the name of a column of data, got {values!r}")
            taken.add(values)
        self.names = [name for name in frame.columns if name not in taken]
        self.lengths = None
        self.delayed = [dask.delayed(_frame_part)(part, roles) for part in frame.to_delayed()]
        self._groups = [dask.delayed(_frame_groups)(part, roles["groups"])
                        for part in frame.to_delayed()] if roles["groups"] is not None else None

    def survey(self, grouped: bool) -> tuple:
        """The row offset of each partition and one past the last, and the
        group labels in order of appearance."""
        lengths, labels = self.lengths, []
        if lengths is None or grouped:
            tasks = self._groups if grouped else self.delayed
            found = dask.compute(*[dask.delayed(_survey)(part) for part in tasks])
            lengths = [n for n, _ in found]
            labels = _ordered_labels([seen for _, seen in found])
        return [0] + np.cumsum(lengths).tolist(), labels


def _frame_part(frame: Any, roles: dict) -> dict:
    part = {"cells": frame}
    for role, name in roles.items():
        if name is not None:
            part[role] = frame[name]
    return part


def _frame_groups(frame: Any, name: Any) -> Any:
    return frame[name].to_numpy()


def _survey(values: Any) -> tuple:
    """The rows of a partition and its labels in order of appearance (those
    that mark no group left out, as pandas.factorize does)."""
    import pandas as pd

    if isinstance(values, dict):
        return len(values["cells"]), []
    _, uniques = pd.factorize(np.asarray(values))
    return len(values), list(uniques)


def _ordered_labels(seen: list) -> list:
    labels, known = [], set()
    for part in seen:
        for label in part:
            if label not in known:
                known.add(label)
                labels.append(label)
    return labels


# ---------------------------------------------------------------- on the workers


class _Piece:
    """The reduced rows of some partitions: a forest of whole blocks, and the
    rows of blocks held in part, by block number, as (first row in the block,
    the rows' arrays)."""

    def __init__(self, forest: Optional[Any] = None, fragments: Optional[dict] = None):
        self.forest = forest
        self.fragments = fragments or {}

    def add_forest(self, forest: Any) -> None:
        if self.forest is None:
            self.forest = forest
        else:
            self.forest.combine(forest)


def _rows(part: dict, lo: int, hi: int) -> dict:
    return {role: values.iloc[lo:hi] if hasattr(values, "iloc") else values[lo:hi]
            for role, values in part.items()}


def _forest(rows: dict, plan: _Plan, first_block: int) -> Any:
    """The forest of rows, whole blocks from block first_block on: checked
    and converted as vorel.describe does."""
    cells = rows["cells"]
    table = vorel._Table(cells, plan.missing_code, {}, plan.names if vorel._is_frame(cells) else None)
    n = table.n_rows
    weights = vorel._weights(rows.get("weights"), n, "weights")
    reg_weights = vorel._weights(rows.get("reg_weights"), n, "reg_weights")
    codes = None
    if plan.grouped:
        import pandas as pd

        values = rows["groups"]
        values = values.to_numpy() if vorel._is_series(values) else np.asarray(values)
        labels = pd.Index(list(plan.codes), dtype=object, tupleize_cols=False)
        codes = np.ascontiguousarray(labels.get_indexer(values), dtype=np.int64)
    return _core.Forest(table.cells, weights, reg_weights, codes, plan.pairwise, plan.missing_code,
                        plan.grouped, plan.threads, first_block)


def _reduce_partition(part: dict, plan: _Plan, first_row: int) -> _Piece:
    """The whole blocks of a partition starting at row first_row of the data,
    and the rows of the blocks at its edges that it holds only in part."""
    n = len(part["cells"])
    if vorel._is_frame(part["cells"]):
        part = dict(part, cells=part["cells"][plan.names])
    b = plan.block_rows
    end = first_row + n
    whole_from = -(-first_row // b) * b
    whole_to = max(whole_from, end // b * b)
    piece = _Piece()
    if whole_from >= end:  # within one block
        whole_from = whole_to = end
    for lo, hi in ((first_row, whole_from), (whole_to, end)):
        if lo < hi:
            piece.fragments[lo // b] = [(lo % b, _rows(part, lo - first_row, hi - first_row))]
    if whole_from < whole_to:
        rows = _rows(part, whole_from - first_row, whole_to - first_row)
        piece.add_forest(_forest(rows, plan, whole_from // b))
    return piece


def _block_size(plan: _Plan, block: int) -> int:
    return min(plan.block_rows, plan.offsets[-1] - block * plan.block_rows)


def _join_rows(fragments: list) -> dict:
    """The rows of fragments, in order of their first row, as one table."""
    import pandas as pd

    fragments = sorted(fragments, key=lambda fragment: fragment[0])
    joined = {}
    for role in fragments[0][1]:
        values = [rows[role] for _, rows in fragments]
        if isinstance(values[0], (pd.DataFrame, pd.Series)):
            joined[role] = pd.concat(values)
        else:
            joined[role] = np.concatenate(values)
    return joined


def _combine(left: _Piece, right: _Piece, plan: _Plan) -> _Piece:
    """The rows of both pieces: blocks whose parts have all arrived are
    reduced here. Each piece goes into one combination only, so their
    forests are moved into the result rather than copied."""
    piece = _Piece(left.forest, dict(left.fragments))
    if right.forest is not None:
        piece.add_forest(right.forest)
    for block, fragments in right.fragments.items():
        held = piece.fragments.get(block, []) + fragments
        if sum(len(rows["cells"]) for _, rows in held) == _block_size(plan, block):
            piece.fragments.pop(block, None)
            piece.add_forest(_forest(_join_rows(held), plan, block))
        else:
            piece.fragments[block] = held
    return piece


def _finish(piece: _Piece, plan: _Plan) -> Any:
    """An accumulator that holds every block, as vorel.describe's does."""
    for block, fragments in sorted(piece.fragments.items()):
        piece.add_forest(_forest(_join_rows(fragments), plan, block))
    if plan.grouped:
        accumulator = vorel.ByGroup("pairwise" if plan.pairwise else "listwise", _missing_of(plan),
                                    plan.threads or None)
    elif plan.pairwise:
        accumulator = vorel.Pairwise(_missing_of(plan), plan.threads or None)
    else:
        accumulator = vorel.Listwise(_missing_of(plan), plan.threads or None)
    accumulator._core.add_forest(piece.forest)
    accumulator._columns = plan.names
    accumulator._labels = list(plan.codes)
    accumulator._codes = dict(plan.codes)
    return accumulator


def _missing_of(plan: _Plan) -> float:
    return math.nan if plan.missing_code is None else plan.missing_code
