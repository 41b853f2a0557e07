"""Rows in chunks and merged accumulators give the figures of one call."""

import concurrent.futures

import numpy as np
import pandas as pd
import pytest

import vorel
from conftest import table


def chunks(n, sizes):
    """Row ranges of the given sizes, then the rest."""
    edges = [0, *np.cumsum(sizes), n]
    return [slice(lo, hi) for lo, hi in zip(edges, edges[1:])]


def assert_close(a, b):
    """Figures of the same rows cut differently: counts, extremes and labels
    exact, the rest within rounding of the data's scale."""
    assert a.columns == b.columns and a.groups == b.groups
    for key in ("n", "weight", "min", "max", "pair_n", "pair_weight", "group_n", "group_weight"):
        if getattr(a, key) is not None:
            assert np.array_equal(getattr(a, key), getattr(b, key), equal_nan=True), key
    for key in ("mean", "std", "cov", "corr", "group_means", "pooled_cov"):
        if getattr(a, key) is not None:
            np.testing.assert_allclose(getattr(a, key), getattr(b, key), rtol=1e-11, atol=1e-12,
                                       err_msg=key)
    assert (a.rows, a.rows_used, a.rows_incomplete, a.rows_zero_weight) == (
        b.rows, b.rows_used, b.rows_incomplete, b.rows_zero_weight)


@pytest.mark.parametrize("sizes", [[1], [4095, 1, 4097], [10_000], [0, 3, 0, 9000]])
@pytest.mark.parametrize("deletion", ["listwise", "pairwise"])
def test_chunks_equal_one_call(rng, sizes, deletion):
    n = 20_000
    x, w, g = table(rng, n, 4)
    whole = vorel.describe(x, weights=w, groups=g, deletion=deletion)
    acc = vorel.ByGroup(deletion=deletion)
    for part in chunks(n, sizes):
        acc.update(x[part], weights=w[part], groups=g[part])
    assert_close(acc.result(), whole)


def test_merge_in_any_order_with_labels_met_in_another_order(rng):
    n = 9000
    x = rng.normal(size=(n, 3))
    g = np.array(["x"] * 3000 + ["y"] * 3000 + ["z"] * 3000)
    whole = vorel.describe(x, groups=g)
    left, right = vorel.ByGroup(), vorel.ByGroup()
    left.update(x[:4500], groups=g[:4500])    # meets x, y
    right.update(x[4500:], groups=g[4500:])   # meets y, z: y has another code here
    assert_close(right.merge(left).result(), whole)
    assert right.result().groups == ["x", "y", "z"]


def test_dataframe_chunks_are_taken_by_column_name(rng):
    frame = pd.DataFrame(rng.normal(size=(1000, 3)), columns=["a", "b", "c"])
    acc = vorel.Listwise().update(frame[:500])
    acc.update(frame[500:][["c", "a", "b"]])
    assert_close(acc.result(), vorel.describe(frame))


@pytest.mark.parametrize("kind", [vorel.Listwise, vorel.Pairwise])
def test_merge_with_itself_doubles_the_weight(rng, kind):
    x = rng.normal(size=(100, 2))
    acc = kind().update(x)
    doubled = acc.merge(acc).result()
    assert doubled.weight[0] == 200 and np.allclose(doubled.mean, x.mean(0), rtol=1e-14)


def partial(rows):
    return vorel.Pairwise(threads=1).update(rows)


def test_accumulators_from_worker_threads_merge(rng):
    x = rng.normal(size=(40_000, 3))
    x[rng.random(x.shape) < 0.05] = np.nan
    with concurrent.futures.ThreadPoolExecutor(4) as pool:
        parts = list(pool.map(partial, np.array_split(x, 8)))
    total = vorel.Pairwise()
    for part in parts:
        total.merge(part)
    assert_close(total.result(), vorel.describe(x, deletion="pairwise"))


def test_an_accumulator_without_rows_has_no_result():
    with pytest.raises(ValueError, match="no rows"):
        vorel.Listwise().result()
    empty = vorel.Listwise().update(np.empty((0, 2)))
    r = empty.result()
    assert r.n.tolist() == [0, 0] and np.isnan(r.mean).all()
