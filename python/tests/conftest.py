"""Shared helpers of the vorel module's tests: seeded data and reference figures
written out with NumPy."""

import os
import sys

import numpy as np
import pytest

# The checksum of saved states, as docs/state-format.md gives it.
sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "examples"))
from crc32c import crc32c  # noqa: E402,F401


@pytest.fixture
def rng(request):
    # One seed per test, printed on failure by the test's name.
    seed = abs(hash(request.node.name)) % (2**32)
    print(f"seed {seed}")
    return np.random.default_rng(seed)


def weighted_reference(x, w, rw=None, ddof=1):
    """Mean, covariance and sd of the rows of x under frequency weights w
    (times regression weights rw for the means and sums), divisor sum(w) - ddof."""
    v = w if rw is None else w * rw
    mean = (v[:, None] * x).sum(0) / v.sum()
    centred = x - mean
    cov = (v[:, None] * centred).T @ centred / (w.sum() - ddof)
    return mean, cov, np.sqrt(np.diag(cov))


def tolerance(x):
    """An absolute tolerance for figures of x: a few hundred roundings of its scale."""
    return 1e-13 * max(1.0, float(np.nanmax(np.abs(x)))) ** 2


def bits(result):
    """Every figure of a result as bytes, for comparisons to the last bit."""
    return {key: value.tobytes() if isinstance(value, np.ndarray) else value
            for key, value in vars(result).items()}
