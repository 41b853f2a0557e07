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


@pytest.mark.parametrize("deletion", ["listwise", "pairwise"])
def test_same_figures_as_vorelstat(deletion):
    report = tool("--weight", "weight", "--group", "region", f"--{deletion}")
    frame = pd.read_csv(DATA).drop(columns=["household"])
    r = vorel.describe(frame, weights="weight", groups="region", deletion=deletion)
    columns, groups = report["columns"], report["groups"]
    assert r.columns == [c["name"] for c in columns]
    assert r.groups == [g["code"] for g in groups]
    assert r.rows_used == report["rows"]["used"]
    # Counts and extremes exact, the rest within rounding; JSON null is NaN.
    pairs = [(r.n, [c["n"] for c in columns], 0), (r.weight, [c["weight"] for c in columns], 0),
             (r.min, [c["min"] for c in columns], 0), (r.max, [c["max"] for c in columns], 0),
             (r.group_n, [g["n"] for g in groups], 0),
             (r.mean, [c["mean"] for c in columns], 1e-13), (r.std, [c["sd"] for c in columns], 1e-13),
             (r.group_means, [g["means"] for g in groups], 1e-13),
             (r.cov, report["covariance"], 1e-12), (r.corr, report["correlation"], 1e-12),
             (r.pooled_cov, report["pooled_covariance"], 1e-11)]
    if deletion == "pairwise":
        pairs.append((r.pair_n, report["pair_rows"], 0))
    for mine, theirs, rtol in pairs:
        np.testing.assert_allclose(mine, np.array(theirs, dtype=float), rtol=rtol, atol=0)
