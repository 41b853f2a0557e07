"""Rows in chunks and merged accumulators give the figures of one call."""

import concurrent.futures

import numpy as np
import pandas as pd
import pytest

import vorel
from conftest import table


# Figures that depend on how the rows were cut up, within rounding.
ROUNDED = {"mean", "std", "cov", "corr", "group_means", "pooled_cov"}


def assert_close(a, b):
    """Figures of the same rows cut differently: counts, extremes and labels
    exact, the rest within rounding of the data's scale."""
    for key, value in vars(a).items():
        other = getattr(b, key)
        if key in ROUNDED and value is not None:
            np.testing.assert_allclose(value, other, rtol=1e-11, atol=1e-12, err_msg=key)
        elif isinstance(value, np.ndarray):
            assert np.array_equal(value, other, equal_nan=True), key
        else:
            assert value == other, key


@pytest.mark.parametrize("sizes", [[1], [4095, 1, 4097], [10_000], [0, 3, 0, 9000]])
@pytest.mark.parametrize("deletion", ["listwise", "pairwise"])
def test_chunks_equal_one_call(rng, sizes, deletion):
    n = 20_000
    x, w, g = table(rng, n, 4)
    whole = vorel.describe(x, weights=w, groups=g, deletion=deletion)
    acc = vorel.ByGroup(deletion=deletion)
    edges = [0, *np.cumsum(sizes), n]  # chunks of the given sizes, then the rest
    for lo, hi in zip(edges, edges[1:]):
        acc.update(x[lo:hi], weights=w[lo:hi], groups=g[lo:hi])
    assert_close(acc.result(), whole)
    # Labels that do not compare are in order of first appearance.
    assert whole.groups == [label for label in dict.fromkeys(g) if label is not None]


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
def test_merge_into_an_empty_accumulator_and_with_itself(rng, kind):
    x = rng.normal(size=(100, 2))
    acc = kind().merge(kind().update(x))
    once = acc.result()
    assert_close(once, vorel.describe(x, deletion=once.deletion))
    doubled = acc.merge(acc).result()
    assert doubled.weight[0] == 200 and np.allclose(doubled.mean, x.mean(0), rtol=1e-14)


def test_accumulators_filled_on_python_threads_at_once_merge_to_one_call(rng):
    # The GIL is released while they compute, so the module's calls overlap.
    x = rng.normal(size=(40_000, 3))
    x[rng.random(x.shape) < 0.05] = np.nan
    with concurrent.futures.ThreadPoolExecutor(4) as pool:
        parts = list(pool.map(lambda rows: vorel.Pairwise(threads=1).update(rows),
                              np.array_split(x, 8)))
    total = vorel.Pairwise()
    for part in parts:
        total.merge(part)
    assert_close(total.result(), vorel.describe(x, deletion="pairwise"))


def test_an_accumulator_without_rows_in_its_chunks_has_figures_of_none():
    r = vorel.Listwise().update(np.empty((0, 2))).result()
    assert r.n.tolist() == [0, 0] and np.isnan(r.mean).all()
