"""The module and the command-line tool give the same figures for the same rows."""

import json
import os
import subprocess

import numpy as np
import pandas as pd
import pytest

import vorel

DATA = os.path.join(os.environ["VOREL_DATA"], "households.csv")


def tool(*options):
    run = subprocess.run([os.environ["VORELSTAT"], DATA, "--format", "json", "--threads", "2",
                          *options], capture_output=True, text=True, timeout=60, check=True)
    return json.loads(run.stdout)


def undefined_as_nan(values):
    return np.array(values, dtype=float)  # JSON null becomes NaN


@pytest.mark.parametrize("deletion", ["listwise", "pairwise"])
def test_same_figures_as_vorelstat(deletion):
    report = tool("--weight", "weight", "--group", "region", f"--{deletion}")
    frame = pd.read_csv(DATA).drop(columns=["household"])
    r = vorel.describe(frame, weights="weight", groups="region", deletion=deletion)
    columns = report["columns"]
    assert r.columns == [c["name"] for c in columns]
    for key, mine in (("n", r.n), ("weight", r.weight), ("min", r.min), ("max", r.max)):
        assert np.array_equal(mine, undefined_as_nan([c[key] for c in columns])), key
    for key, mine in (("mean", r.mean), ("sd", r.std)):
        np.testing.assert_allclose(mine, undefined_as_nan([c[key] for c in columns]), rtol=1e-13)
    np.testing.assert_allclose(r.cov, undefined_as_nan(report["covariance"]), rtol=1e-12)
    np.testing.assert_allclose(r.corr, undefined_as_nan(report["correlation"]), rtol=1e-12)
    if deletion == "pairwise":
        assert np.array_equal(r.pair_n, report["pair_rows"])
    groups = report["groups"]
    assert r.groups == [g["code"] for g in groups]
    assert r.group_n.tolist() == [g["n"] for g in groups]
    np.testing.assert_allclose(r.group_means, undefined_as_nan([g["means"] for g in groups]),
                               rtol=1e-13)
    np.testing.assert_allclose(r.pooled_cov, undefined_as_nan(report["pooled_covariance"]),
                               rtol=1e-11)
    assert r.rows_used == report["rows"]["used"]
