"""Accumulators pickle through their saved state: unpickled ones merge to the
same bits and take more rows, and damaged bytes are refused plainly. Pickles
that cross process boundaries: the Dask tests' worker processes."""

import pickle
import struct

import numpy as np
import pytest

import vorel
from conftest import bits, crc32c, table

KINDS = {
    "listwise": lambda: vorel.Listwise(),
    "pairwise": lambda: vorel.Pairwise(),
    "missing code": lambda: vorel.Pairwise(missing=-9.0),
    "groups listwise": lambda: vorel.ByGroup(),
    "groups pairwise": lambda: vorel.ByGroup("pairwise"),
}
def fill(accumulator, x, w, g):
    extra = {"groups": g} if isinstance(accumulator, vorel.ByGroup) else {}
    return accumulator.update(x, weights=w, **extra)


@pytest.mark.parametrize("kind", KINDS)
def test_unpickled_accumulators_merge_to_the_same_bits(rng, kind):
    x, w, g = table(rng, 9000, 5)
    parts = [fill(KINDS[kind](), x[lo:hi], w[lo:hi], g[lo:hi]) for lo, hi in ((0, 4000), (4000, 9000))]
    copies = [pickle.loads(pickle.dumps(part)) for part in parts]
    assert bits(copies[0].result()) == bits(parts[0].result())
    merged = parts[0].merge(parts[1]).result()
    assert bits(copies[0].merge(copies[1]).result()) == bits(merged)
    # An unpickled accumulator keeps taking rows.
    more = fill(pickle.loads(pickle.dumps(parts[1])), x[:100], w[:100], g[:100])
    assert more.result().rows == 5100


def test_an_accumulator_without_rows_pickles():
    back = pickle.loads(pickle.dumps(vorel.ByGroup("pairwise", missing=0.5, threads=2)))
    assert back._missing == 0.5 and back._threads == 2
    with pytest.raises(ValueError, match="no rows"):
        back.result()
    back.update(np.ones((3, 2)) * [[1.0], [2.0], [0.5]], groups=["a", "b", "a"])
    assert back.result().rows_incomplete == 1


# ---------------------------------------------------------------- damaged pickles


def with_field(state, offset, fmt, value):
    """The saved state with a field rewritten and its checksum made good again."""
    body = bytearray(state[:-4])
    struct.pack_into(fmt, body, offset, value)
    return bytes(body) + struct.pack("<I", crc32c(body))


def reload(accumulator, **changes):
    state = accumulator.__getstate__()
    state.update(changes)
    fresh = type(accumulator).__new__(type(accumulator))
    fresh.__setstate__(state)
    return fresh


@pytest.fixture
def grouped(rng):
    x, w, g = table(rng, 500, 3)
    return fill(vorel.ByGroup("pairwise"), x, w, g)


COLUMNS_AT, FLAGS_AT, TALLY_AT = 24, 28, 37


@pytest.mark.parametrize("damage, message", [
    (lambda s: s[:-1], "length"),
    (lambda s: s[:20], "too few bytes"),
    (lambda s: b"x" + s[1:], "not a saved state"),
    (lambda s: s[:200] + bytes([s[200] ^ 4]) + s[201:], "checksum"),
    (lambda s: with_field(s, 8, "<H", 2), "version"),
    (lambda s: with_field(s, COLUMNS_AT, "<I", 1 << 20), "more columns"),
    (lambda s: with_field(s, FLAGS_AT, "<B", 0x40), "flags"),
    (lambda s: with_field(s, TALLY_AT, "<B", 2), "flag other than 0 or 1"),
    (lambda s: with_field(s, TALLY_AT + 1, "<Q", 0), "more rows left out"),
])
def test_damaged_states_raise_value_error(grouped, damage, message):
    state = grouped.__getstate__()["state"]
    with pytest.raises(ValueError, match=message):
        reload(grouped, state=damage(state))


@pytest.mark.parametrize("changes, message", [
    ({"version": 2}, "version 1"),
    ({"labels": ["north"]}, "labels"),
    ({"labels": ["a", "a", "b", "c"]}, "labels"),
    ({"columns": [0, 1]}, "column names"),
    ({"state": "text"}, "another type"),
])
def test_pickles_that_do_not_fit_raise_value_error(grouped, changes, message):
    with pytest.raises(ValueError, match=message):
        reload(grouped, **changes)


@pytest.mark.parametrize("other", [vorel.Pairwise().update(np.ones((3, 2))),
                                   vorel.ByGroup().update(np.ones((3, 2)), groups=[1, 1, 2])])
def test_a_pickle_of_another_kind_is_refused(other):
    with pytest.raises(ValueError, match="another kind"):
        reload(vorel.Listwise().update(np.ones((3, 2))), state=other.__getstate__()["state"])


# ---------------------------------------------------------------- forests of parts
# (pickled and combined on worker processes in the Dask tests)


def forest(x, first_block, pairwise=True):
    return vorel._core.Forest(x, None, None, None, pairwise, None, False, 1, first_block)


def test_forests_that_do_not_fit_together_are_refused(rng):
    x = rng.normal(size=(5000, 3))
    whole = forest(x, 0)
    with pytest.raises(ValueError, match="blocks this forest holds"):
        whole.combine(forest(x[4096:], 1))
    with pytest.raises(ValueError, match="another kind"):
        whole.combine(forest(x[:4096], 9, pairwise=False))
    with pytest.raises(ValueError, match="beyond"):
        forest(x, 1 << 60)
    with pytest.raises(ValueError, match="blocks are missing"):
        vorel.Pairwise()._core.add_forest(forest(x[:4096], 1))
