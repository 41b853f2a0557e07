"""Figures of describe against NumPy and pandas, on every input layout."""

import math

import numpy as np
import pandas as pd
import pytest

import vorel
from conftest import bits, tolerance


def layouts(x):
    """The same rows in the layouts the core reads: C and Fortran order and
    strided views."""
    wide = np.empty((x.shape[0], 2 * x.shape[1]))
    wide[:, ::2] = x
    return {"C": x, "F": np.asfortranarray(x), "strided": wide[:, ::2],
            "reversed rows": x[::-1].copy()[::-1]}


@pytest.mark.parametrize("case", ["C", "F", "strided", "reversed rows", "frequency ddof 0",
                                  "frequency ddof 3", "regression weights", "incomplete rows"])
@pytest.mark.parametrize("threads", [1, 3])
def test_figures_match_numpy_and_the_weighted_reference(rng, case, threads):
    n = 9000
    x = rng.normal(5.0, 3.0, size=(n, 6))
    w, rw, ddof = rng.integers(0, 5, size=n).astype(float), None, 1
    if case.startswith("frequency"):
        ddof = int(case[-1])
    if case == "regression weights":  # they enter means and sums, not divisors
        rw = rng.uniform(0.5, 2.0, size=n)
    if case == "incomplete rows":
        x[rng.random(x.shape) < 0.05] = np.nan
    if case in layouts(x):
        w = np.ones(n)
        r = vorel.describe(layouts(x)[case], threads=threads)
    else:
        r = vorel.describe(x, weights=w, reg_weights=rw, ddof=ddof, threads=threads)
    complete = ~np.isnan(x).any(axis=1)
    xc, wc = x[complete], w[complete]
    if rw is None:
        mean = np.average(xc, axis=0, weights=wc)
        cov = np.cov(xc, rowvar=False, fweights=wc.astype(int), ddof=ddof)
    else:  # means and sums weighed by w rw, divided by sum(w) - ddof
        v = wc * rw[complete]
        mean = np.average(xc, axis=0, weights=v)
        cov = np.cov(xc, rowvar=False, aweights=v, ddof=0) * v.sum() / (wc.sum() - ddof)
    sd = np.sqrt(np.diag(cov))
    np.testing.assert_allclose(r.mean, mean, rtol=0, atol=tolerance(x))
    np.testing.assert_allclose(r.cov, cov, rtol=0, atol=tolerance(x))
    np.testing.assert_allclose(r.std, sd, rtol=1e-13)
    np.testing.assert_allclose(r.corr, cov / np.outer(sd, sd), rtol=0, atol=1e-13)
    # A row of weight 0 is absent, also from the extremes, and not counted as incomplete.
    kept = complete & (w > 0)
    assert r.rows == n and r.rows_zero_weight == np.count_nonzero(w == 0)
    assert r.rows_incomplete == np.count_nonzero(~complete & (w > 0))
    assert list(r.n) == [np.count_nonzero(kept)] * 6 and list(r.weight) == [w[complete].sum()] * 6
    assert np.array_equal(r.min, x[kept].min(0)) and np.array_equal(r.max, x[kept].max(0))


@pytest.mark.parametrize("dtype", [np.float32, np.int8, np.int64, np.uint16, np.bool_])
def test_other_cell_types_are_converted(rng, dtype):
    x = rng.integers(0, 2 if dtype is np.bool_ else 100, size=(5000, 3)).astype(dtype)
    r = vorel.describe(x)
    as_double = x.astype(np.float64)
    np.testing.assert_allclose(r.cov, np.cov(as_double, rowvar=False), rtol=0,
                               atol=tolerance(as_double))
    assert np.array_equal(r.max, as_double.max(0))
    # A missing code is compared with the converted cells.
    r = vorel.describe(x, missing=float(x[0, 1]), deletion="pairwise")
    kept = as_double[x[:, 1] != x[0, 1], 1]
    assert r.n[1] == kept.size and r.mean[1] == pytest.approx(kept.mean(), rel=1e-14)


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


NAN = math.nan
CODED = [[1.0, 4.0], [2.0, -99.0], [-99.0, 8.0], [3.0, 5.0]]
ZERO_WEIGHTS_FIRST = [[1.0, 5.0], [2.0, 3.0], [3.0, 4.0], [4.0, 9.0], [5.0, 1.0]], [0, 0, 1, 1, 1]


@pytest.mark.parametrize("rows, args, expected", [
    # A missing code is compared exactly; NaN is then a value, which makes the
    # mean NaN and leaves the extremes.
    (CODED, dict(missing=-99, deletion="pairwise"),
     {"n": [3, 3], ("pair_n", 0, 1): 2, ("mean", 0): 2.0, ("max", 1): 8.0}),
    ([[1.0, 4.0], [2.0, -99.0], [-99.0, 8.0], [NAN, 5.0]], dict(missing=-99),
     {("mean", 0): NAN, ("mean", 1): 4.5, ("min", 0): 1.0, ("max", 0): 1.0}),
    # A constant column: the mean is 0.1 itself, the spread exactly 0, no correlation.
    *[([[0.1, 1.0], [0.1, 2.0], [0.1, 4.0]] * 3000, dict(deletion=deletion),
       {("mean", 0): 0.1, ("std", 0): 0.0, ("cov", 0, 1): 0.0, ("corr", 0, 1): NAN,
        ("corr", 0, 0): NAN, ("corr", 1, 1): 1.0}) for deletion in ("listwise", "pairwise")],
    # Column a varies, but on the rows where b is present it is 0.1 throughout.
    ([[0.1, 1.0], [0.1, 2.0], [0.1, 4.0], [5.0, NAN]] * 2000, dict(deletion="pairwise"),
     {("cov", 0, 1): 0.0, ("corr", 0, 1): NAN, ("pair_n", 0, 1): 6000, ("corr", 0, 0): 1.0}),
    # A column without cells.
    ([[NAN, 2.0], [NAN, 3.0]], dict(deletion="pairwise"),
     {("n", 0): 0, ("mean", 0): NAN, ("min", 0): NAN, ("pair_n", 0, 1): 0}),
    ([[1.0], [np.inf], [2.0]], {}, {"max": [np.inf], "mean": [np.inf], "min": [1.0]}),
    # Rows of weight 0 are absent, wherever the batch boundaries fall.
    *[(ZERO_WEIGHTS_FIRST[0], dict(weights=ZERO_WEIGHTS_FIRST[1], deletion=deletion),
       {"mean": [4.0, 14.0 / 3.0], "rows_zero_weight": 2}) for deletion in ("listwise", "pairwise")],
    (np.repeat(ZERO_WEIGHTS_FIRST[0], 2000, axis=0),
     dict(weights=np.repeat(ZERO_WEIGHTS_FIRST[1], 2000), deletion="pairwise"),
     {("n", 0): 6000, "min": [3.0, 1.0]}),
], ids=["code", "NaN under a code", "constant listwise", "constant pairwise",
        "constant on a pair's rows", "all missing", "infinity", "zero weights listwise",
        "zero weights pairwise", "zero weights in batches"])
def test_exact_figures_of_small_tables(rows, args, expected):
    r = vorel.describe(np.array(rows, dtype=float), **args)
    for (field, *at), want in ((k if isinstance(k, tuple) else (k,), v) for k, v in expected.items()):
        got = getattr(r, field)[tuple(at)] if at else getattr(r, field)
        assert np.array_equal(got, want, equal_nan=True), (field, at, got)


def test_same_bits_for_any_thread_count(rng):
    x = rng.normal(1e6, 1.0, size=(50_000, 4))
    x[rng.random(x.shape) < 0.02] = np.nan
    g = rng.integers(0, 5, size=50_000)
    for deletion in ("listwise", "pairwise"):
        results = [vorel.describe(x, groups=g, deletion=deletion, threads=t) for t in (1, 2, 4)]
        assert bits(results[0]) == bits(results[1]) == bits(results[2])


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


def pooled(x, g):
    """The pooled within-group covariance of the complete rows, from the
    deviations from each group's own mean, which lose no digits far from zero."""
    keep = ~np.isnan(x).any(axis=1)
    x, g = x[keep], g[keep]
    deviations = x - pd.DataFrame(x).groupby(g).transform("mean").to_numpy()
    return deviations.T @ deviations / (len(x) - len(np.unique(g)))


@pytest.mark.parametrize("apart", [100.0, 1e5, 1e6])
def test_pooled_covariance_far_from_zero_is_exact_to_rounding(rng, apart):
    # Epoch-like values, two groups `apart` within-group deviations apart, the
    # first cell missing, and more rows than one block.
    x = rng.normal(size=(5000, 2)) + 1.6e9
    g = rng.integers(0, 2, size=5000)
    x[g == 1] += apart
    x[0, 0] = np.nan
    r = vorel.describe(x, groups=g)
    expected = pooled(x, g)
    assert np.abs(r.pooled_cov - expected).max() <= 1e-12 * np.abs(expected).max()
    assert r.groups == [0, 1]


def test_dataframe_names_weights_by_column_and_to_pandas(rng):
    frame = pd.DataFrame({"w": rng.integers(1, 3, 300), "x": rng.normal(size=300),
                          "y": rng.normal(size=300), "n": pd.array([1, None, 3] * 100, "Int64")})
    r = vorel.describe(frame, weights="w")
    assert r.columns == ["x", "y", "n"] and r.n[0] == 200  # NA in the Int64 column is missing
    columns = r.to_pandas()["columns"]
    assert list(columns.index) == r.columns
    assert columns.loc["x", "weight"] == frame["w"][frame["n"].notna()].sum()


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
    assert bits(whole) == bits(by_row)


def test_whole_blocks_of_an_odd_number_of_rows_on_more_threads_than_blocks(rng):
    # Rows flagged as incomplete a bit each, 64 to a word: a block that ends
    # within a word, after a last cell swept on its own. Threads beyond the
    # three blocks find no work.
    k = 139
    rows = vorel._core.block_rows(k)
    assert rows % 2 == 1
    x = rng.normal(size=(2 * rows + 5, k))
    x[rng.random(x.shape) < 0.01] = np.nan
    args = {"deletion": "pairwise", "groups": rng.integers(0, 3, size=len(x)), "threads": 64}
    whole, by_row = whole_blocks_and_rows(x, args)
    present = np.isfinite(x).astype(np.int64)
    assert bits(whole) == bits(by_row) and np.array_equal(whole.pair_n, present.T @ present)
    assert whole.group_n.sum() == present.all(axis=1).sum()
