"""Figures of describe against NumPy and pandas, on every input layout."""

import math
from fractions import Fraction

import numpy as np
import pandas as pd
import pytest

import vorel
from conftest import tolerance, weighted_reference


def layouts(x):
    """The same rows in the layouts the core reads: C and Fortran order, a
    strided view, and other cell types converted."""
    wide = np.empty((x.shape[0], 2 * x.shape[1]))
    wide[:, ::2] = x
    return {
        "C": np.ascontiguousarray(x),
        "F": np.asfortranarray(x),
        "strided": wide[:, ::2],
        "reversed rows": x[::-1].copy()[::-1],
    }


@pytest.mark.parametrize("layout", ["C", "F", "strided", "reversed rows"])
@pytest.mark.parametrize("threads", [1, 2, 3])
def test_listwise_matches_numpy(rng, layout, threads):
    x = rng.normal(5.0, 3.0, size=(9000, 6))
    r = vorel.describe(layouts(x)[layout], threads=threads)
    tol = tolerance(x)
    np.testing.assert_allclose(r.cov, np.cov(x, rowvar=False), rtol=0, atol=tol)
    np.testing.assert_allclose(r.corr, np.corrcoef(x, rowvar=False), rtol=0, atol=1e-13)
    np.testing.assert_allclose(r.mean, x.mean(0), rtol=0, atol=tol)
    np.testing.assert_allclose(r.std, x.std(0, ddof=1), rtol=1e-13)
    assert np.array_equal(r.min, x.min(0)) and np.array_equal(r.max, x.max(0))
    assert list(r.n) == [9000] * 6 and list(r.weight) == [9000.0] * 6
    assert r.rows == r.rows_used == 9000


@pytest.mark.parametrize("dtype", [np.float32, np.int8, np.int64, np.uint16, np.bool_])
def test_other_cell_types_are_converted(rng, dtype):
    x = rng.integers(0, 2 if dtype is np.bool_ else 100, size=(5000, 3)).astype(dtype)
    r = vorel.describe(x)
    as_double = x.astype(np.float64)
    np.testing.assert_allclose(r.cov, np.cov(as_double, rowvar=False), rtol=0,
                               atol=tolerance(as_double))
    assert np.array_equal(r.max, as_double.max(0))
    if dtype is np.bool_:
        return
    # A missing code is compared with the converted cells.
    r = vorel.describe(x, missing=x[0, 1], deletion="pairwise")
    kept = as_double[x[:, 1] != x[0, 1], 1]
    assert r.n[1] == kept.size and r.mean[1] == pytest.approx(kept.mean(), rel=1e-14)


@pytest.mark.parametrize("ddof", [0, 1, 3])
def test_frequency_weights_and_ddof_match_numpy(rng, ddof):
    x = rng.normal(size=(7000, 4))
    w = rng.integers(0, 5, size=7000)
    r = vorel.describe(x, weights=w, ddof=ddof)
    np.testing.assert_allclose(r.cov, np.cov(x, rowvar=False, fweights=w, ddof=ddof), rtol=0,
                               atol=1e-13)
    np.testing.assert_allclose(r.mean, np.average(x, axis=0, weights=w), rtol=0, atol=1e-14)
    kept = w > 0
    assert r.rows_zero_weight == np.count_nonzero(~kept)
    assert r.n[0] == np.count_nonzero(kept) and r.weight[0] == w.sum()
    # A row of weight 0 is absent, also from the extremes.
    assert np.array_equal(r.min, x[kept].min(0))


def test_regression_weights_enter_means_and_sums_not_divisors(rng):
    x = rng.normal(size=(3000, 3))
    w = rng.integers(1, 4, size=3000).astype(float)
    rw = rng.uniform(0.5, 2.0, size=3000)
    r = vorel.describe(x, weights=w, reg_weights=rw, ddof=1)
    mean, cov, sd = weighted_reference(x, w, rw)
    np.testing.assert_allclose(r.mean, mean, rtol=0, atol=1e-14)
    np.testing.assert_allclose(r.cov, cov, rtol=0, atol=1e-13)
    np.testing.assert_allclose(r.std, sd, rtol=1e-13)


def test_pairwise_matches_pandas(rng):
    x = rng.normal(10.0, 2.0, size=(6000, 5))
    x[rng.random(x.shape) < 0.1] = np.nan
    frame = pd.DataFrame(x, columns=["a", "b", "c", "d", "e"])
    r = vorel.describe(frame, deletion="pairwise", threads=2)
    frames = r.to_pandas()
    pd.testing.assert_frame_equal(frames["cov"], frame.cov(), rtol=1e-12)
    pd.testing.assert_frame_equal(frames["corr"], frame.corr(), rtol=1e-12)
    present = frame.notna().astype(np.int64)
    assert np.array_equal(r.pair_n, (present.T @ present).to_numpy())
    assert np.array_equal(r.n, frame.count().to_numpy())
    np.testing.assert_allclose(r.mean, frame.mean().to_numpy(), rtol=1e-14)
    assert np.array_equal(r.min, frame.min().to_numpy())
    assert r.rows_used == 6000 and r.rows_incomplete == frame.isna().any(axis=1).sum()


def test_listwise_leaves_out_incomplete_rows(rng):
    x = rng.normal(size=(4000, 3))
    x[rng.random(x.shape) < 0.05] = np.nan
    complete = x[~np.isnan(x).any(axis=1)]
    r = vorel.describe(x)
    np.testing.assert_allclose(r.cov, np.cov(complete, rowvar=False), rtol=0, atol=1e-13)
    assert r.rows_incomplete == 4000 - complete.shape[0] and r.n[0] == complete.shape[0]


def test_missing_code_is_compared_exactly_and_nan_is_then_a_value():
    x = np.array([[1.0, 4.0], [2.0, -99.0], [-99.0, 8.0], [3.0, 5.0]])
    r = vorel.describe(x, missing=-99, deletion="pairwise")
    assert list(r.n) == [3, 3] and r.pair_n[0, 1] == 2
    assert r.mean[0] == 2.0 and r.max[1] == 8.0
    x[3, 0] = np.nan
    r = vorel.describe(x, missing=-99)
    # Not constant for all that its other cell is 1: the NaN makes the mean NaN.
    assert math.isnan(r.mean[0]) and r.mean[1] == 4.5 and r.min[0] == r.max[0] == 1.0


@pytest.mark.parametrize("deletion", ["listwise", "pairwise"])
def test_constant_columns_are_exact(deletion):
    # Three rows of 0.1: the mean is 0.1 itself, the spread exactly 0, no correlation.
    x = np.array([[0.1, 1.0], [0.1, 2.0], [0.1, 4.0]])
    r = vorel.describe(np.vstack([x] * 3000), deletion=deletion)
    assert r.mean[0] == 0.1 and r.std[0] == 0.0 and r.cov[0, 1] == 0.0
    assert math.isnan(r.corr[0, 1]) and math.isnan(r.corr[0, 0]) and r.corr[1, 1] == 1.0


def test_undefined_figures_are_nan():
    r = vorel.describe(np.array([[1.0, 2.0]]))
    assert r.mean.tolist() == [1.0, 2.0]
    assert np.isnan(r.std).all() and np.isnan(r.cov).all() and np.isnan(r.corr).all()
    r = vorel.describe(np.array([[np.nan, 2.0], [np.nan, 3.0]]), deletion="pairwise")
    assert r.n[0] == 0 and math.isnan(r.mean[0]) and math.isnan(r.min[0]) and r.pair_n[0, 1] == 0


def test_zero_weights_first_do_not_poison_later_rows():
    # Rows of weight 0 are absent, wherever the batch boundaries fall.
    x = np.array([[1.0, 5.0], [2.0, 3.0], [3.0, 4.0], [4.0, 9.0], [5.0, 1.0]])
    w = np.array([0.0, 0.0, 1.0, 1.0, 1.0])
    for deletion in ("listwise", "pairwise"):
        r = vorel.describe(x, weights=w, deletion=deletion)
        assert r.mean.tolist() == [4.0, 14.0 / 3.0] and r.rows_zero_weight == 2
    sorted_rows = np.repeat(x, 2000, axis=0)
    weights = np.repeat(w, 2000)
    r = vorel.describe(sorted_rows, weights=weights, deletion="pairwise")
    assert r.mean[0] == pytest.approx(4.0, rel=1e-14) and r.n[0] == 6000


def test_infinite_values_reach_mean_and_extremes():
    r = vorel.describe(np.array([[1.0], [np.inf], [2.0]]))
    assert r.max[0] == np.inf and r.mean[0] == np.inf and r.min[0] == 1.0


def test_same_bits_for_any_thread_count(rng):
    x = rng.normal(1e6, 1.0, size=(50_000, 4))
    x[rng.random(x.shape) < 0.02] = np.nan
    g = rng.integers(0, 5, size=50_000)
    for deletion in ("listwise", "pairwise"):
        results = [vorel.describe(x, groups=g, deletion=deletion, threads=t) for t in (1, 2, 4)]
        assert results[0] == results[1] == results[2]


def test_groups_match_pandas_groupby(rng):
    x = rng.normal(size=(5000, 3))
    x[rng.random(x.shape) < 0.03] = np.nan
    labels = rng.choice(["north", "south", "east", None], size=5000)
    frame = pd.DataFrame(x, columns=["p", "q", "r"])
    frame["region"] = labels
    r = vorel.describe(frame, groups="region")
    assert r.columns == ["p", "q", "r"]
    complete = frame.dropna(subset=["p", "q", "r"])
    expected = complete.groupby("region").mean()
    assert r.groups == list(expected.index)
    pd.testing.assert_frame_equal(r.to_pandas()["group_means"], expected, rtol=1e-13,
                                  check_names=False)
    assert r.group_n.tolist() == complete.groupby("region").size().tolist()
    # Rows left out of the group tables for want of a label, among those used.
    assert r.rows_without_group == complete["region"].isna().sum()


def exact_pooled(x, g):
    """The pooled within-group covariance of the complete rows, in rationals."""
    keep = ~np.isnan(x).any(axis=1)
    x, g = x[keep], g[keep]
    k = x.shape[1]
    within = [[Fraction(0)] * k for _ in range(k)]
    for label in np.unique(g):
        rows = [[Fraction(v) for v in row] for row in x[g == label]]
        mean = [sum(column) / len(rows) for column in zip(*rows)]
        for i in range(k):
            for j in range(k):
                within[i][j] += sum((row[i] - mean[i]) * (row[j] - mean[j]) for row in rows)
    divisor = len(x) - len(np.unique(g))
    return np.array([[float(within[i][j] / divisor) for j in range(k)] for i in range(k)])


@pytest.mark.parametrize("apart", [100.0, 1e5, 1e6])
def test_pooled_covariance_far_from_zero_is_exact_to_rounding(rng, apart):
    # Epoch-like values, two groups `apart` within-group deviations apart, the
    # first cell missing, and more rows than one block.
    x = rng.normal(size=(5000, 2)) + 1.6e9
    g = rng.integers(0, 2, size=5000)
    x[g == 1] += apart
    x[0, 0] = np.nan
    r = vorel.describe(x, groups=g)
    expected = exact_pooled(x, g)
    assert np.abs(r.pooled_cov - expected).max() <= 1e-12 * np.abs(expected).max()
    assert r.groups == [0, 1]


def test_group_labels_of_any_hashable_kind(rng):
    x = rng.normal(size=(600, 2))
    labels = np.array([("a", 1), ("b", 2), 3.5] * 200, dtype=object)
    r = vorel.describe(x, groups=labels)
    assert len(r.groups) == 3 and set(map(repr, r.groups)) == {"('a', 1)", "('b', 2)", "3.5"}
    assert r.group_n.tolist() == [200, 200, 200]


def test_dataframe_names_weights_by_column_and_to_pandas(rng):
    frame = pd.DataFrame({"w": rng.integers(1, 3, 300), "x": rng.normal(size=300),
                          "y": rng.normal(size=300), "n": pd.array([1, None, 3] * 100, "Int64")})
    r = vorel.describe(frame, weights="w")
    assert r.columns == ["x", "y", "n"] and r.n[0] == 200  # NA in the Int64 column is missing
    frames = r.to_pandas()
    assert list(frames["columns"].index) == ["x", "y", "n"]
    assert list(frames["cov"].columns) == ["x", "y", "n"]
    assert frames["columns"].loc["x", "weight"] == frame["w"][frame["n"].notna()].sum()


def whole_blocks_and_rows(x, args):
    """describe(x, **args) with whole blocks written column by column, and
    with every row added one at a time."""
    try:
        whole = vorel.describe(x, **args)
        vorel._core._use_whole_blocks(False)
        return whole, vorel.describe(x, **args)
    finally:
        vorel._core._use_whole_blocks(True)


@pytest.mark.parametrize("case", ["C", "F", "frame", "frame block", "weights", "listwise NaN",
                                  "listwise code", "pairwise NaN", "pairwise code", "groups"])
def test_whole_blocks_give_the_bits_of_rows_one_by_one(rng, case):
    # Blocks whose rows all count are written into the batch column by column;
    # the figures must be those of adding the same rows one at a time.
    n = 3 * vorel._core.block_rows(7) + 17
    x = rng.normal(100.0, 3.0, size=(n, 7))
    args = {"threads": 2}
    if case == "F":
        x = np.asfortranarray(x)
    if case == "frame":
        x = pd.DataFrame(x).astype({0: np.float32, 3: np.int64})
    if case == "frame block":  # one float64 block; the weights column leaves a gap in each row
        x[:, 2] = rng.integers(1, 4, size=n)
        x = pd.DataFrame(x, columns=list("abwdefg"))
        args["weights"] = "w"
    if case == "weights":
        args["weights"] = rng.integers(1, 4, size=n)
    if case.startswith("pairwise"):
        # Zeros of both signs and infinities: the extremes of a block swept
        # two cells at a time must be those of the cells one by one.
        x[:, 5] = np.where(rng.random(n) < 0.5, -0.0, 0.0)
        x[[9, n - 2], 6] = [np.inf, -np.inf]
        x[rng.random(x.shape) < 0.05] = -5.0 if case == "pairwise code" else np.nan
        args.update(deletion="pairwise", missing=-5.0 if case == "pairwise code" else np.nan)
    if case == "groups":
        args["groups"] = rng.integers(-1, 4, size=n)
    if case.startswith("listwise"):  # one block goes row by row, the others whole
        x[n // 2, 3] = np.nan if case == "listwise NaN" else -5.0
        if case == "listwise code":
            x[n // 3, 4] = np.nan  # a value here, which only makes the column's mean NaN
            args["missing"] = -5.0
    whole, by_row = whole_blocks_and_rows(x, args)
    assert whole == by_row
    assert (np.signbit(whole.min) == np.signbit(by_row.min)).all()
    assert (np.signbit(whole.max) == np.signbit(by_row.max)).all()


def test_whole_blocks_of_an_odd_number_of_rows(rng):
    # Rows flagged as incomplete a bit each, 64 to a word: a block that ends
    # within a word, after a last cell swept on its own.
    k = 139
    rows = vorel._core.block_rows(k)
    assert rows % 2 == 1
    x = rng.normal(size=(2 * rows + 5, k))
    x[rng.random(x.shape) < 0.01] = np.nan
    args = {"deletion": "pairwise", "groups": rng.integers(0, 3, size=len(x)), "threads": 2}
    whole, by_row = whole_blocks_and_rows(x, args)
    assert whole == by_row and whole.group_n.sum() == np.isfinite(x).all(axis=1).sum()


def test_wide_table_on_more_threads_than_blocks(rng):
    x = rng.normal(size=(700, 1200))
    assert vorel._core.block_rows(1200) < 700  # two blocks, and a batch of a few MB
    r = vorel.describe(x, threads=64)
    np.testing.assert_allclose(r.cov, np.cov(x, rowvar=False), rtol=0, atol=1e-13)


def test_a_column_constant_on_a_pairs_rows_only():
    # Column a varies, but on the rows where b is present it is 0.1 throughout.
    a = np.array([0.1, 0.1, 0.1, 5.0] * 2000)
    b = np.array([1.0, 2.0, 4.0, np.nan] * 2000)
    r = vorel.describe(np.column_stack([a, b]), deletion="pairwise")
    assert r.cov[0, 1] == 0.0 and math.isnan(r.corr[0, 1]) and r.pair_n[0, 1] == 6000
    assert r.std[0] > 0 and r.corr[0, 0] == 1.0
