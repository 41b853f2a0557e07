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


# Group labels of several kinds, which do not compare; None marks no group.
LABELS = np.array(["north", ("s", 1), 7, None], dtype=object)


def table(rng, n, k):
    """Rows of k columns far from zero with 4 % of their cells missing and
    column 1 constant, frequency weights 0 to 3, and group labels."""
    x = rng.normal(1e3, 3.0, size=(n, k))
    x[rng.random(x.shape) < 0.04] = np.nan
    x[:, 1] = 2.5
    return x, rng.integers(0, 4, size=n).astype(float), LABELS[rng.integers(0, 4, size=n)]


def tolerance(x):
    """An absolute tolerance for figures of x: a few hundred roundings of its scale."""
    return 1e-13 * max(1.0, float(np.nanmax(np.abs(x)))) ** 2


def bits(result):
    """Every figure of a result as bytes, for comparisons to the last bit."""
    return {key: value.tobytes() if isinstance(value, np.ndarray) else value
            for key, value in vars(result).items()}
