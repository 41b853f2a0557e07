"""Shared helpers of the end-to-end tests of vorelstat: one way to run the
tool, to write its input and to read its report.

CTest sets VORELSTAT (the binary) and VORELSTAT_DATA (the data/ directory).
"""
import json
import os
import subprocess
import sys
import tempfile
import unittest

BINARY = os.environ.get("VORELSTAT", "vorelstat")
DATA = os.environ.get("VORELSTAT_DATA", os.path.join(os.path.dirname(__file__), "..", "..", "data"))
SAMPLE = os.path.join(DATA, "households.csv")
BAD_DATA, BAD_USAGE = 1, 2

# The checksum of saved states, as docs/state-format.md gives it.
sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "examples"))
from crc32c import crc32c  # noqa: E402
NUMERIC = ["members", "age", "income", "rent", "rooms", "commute"]


def run(*args, stdin=None, timeout=60, **options):
    """Runs the tool; text output unless `stdin` is bytes."""
    return subprocess.run([BINARY, *args], input=stdin, capture_output=True, timeout=timeout,
                          text=not isinstance(stdin, bytes), **options)


def run_ok(*args, stdin=None):
    """The tool's standard output; an error unless it succeeds."""
    done = run(*args, stdin=stdin)
    if done.returncode != 0:
        raise AssertionError(f"{args}: exit {done.returncode}: {done.stderr}")
    return done.stdout


def run_json(*args, stdin=None):
    return json.loads(run_ok(*args, "--format", "json", stdin=stdin))


def csv_text(header, rows):
    return ",".join(header) + "\n" + "".join(",".join(str(c) for c in row) + "\n" for row in rows)


class ToolCase(unittest.TestCase):
    def assertFails(self, done, code, *fragments):
        """The documented exit code, one message holding the fragments on
        standard error and nothing at all on standard output."""
        err = done.stderr.decode() if isinstance(done.stderr, bytes) else done.stderr
        self.assertEqual(done.returncode, code, err)
        self.assertFalse(done.stdout, "no partial output on failure")
        if code == BAD_DATA:
            self.assertTrue(err.startswith("vorelstat: "), err)
        for fragment in fragments:
            self.assertIn(fragment, err)
        self.assertLess(len(err.splitlines()), 8, "one clear message, not a dump")
        return err


    def assertClose(self, actual, expected, rtol=1e-10, atol=0.0, msg=""):
        import numpy as np  # only the suites that compare figures need NumPy
        np.testing.assert_allclose(np.asarray(actual, dtype=float), np.asarray(expected, dtype=float),
                                   rtol=rtol, atol=atol, err_msg=msg)


class ScratchCase(ToolCase):
    """Tests that share a scratch directory, removed after the class."""

    @classmethod
    def setUpClass(cls):
        cls.scratch = tempfile.TemporaryDirectory(prefix="vorelstat-")

    @classmethod
    def tearDownClass(cls):
        cls.scratch.cleanup()

    @classmethod
    def path(cls, name):
        return os.path.join(cls.scratch.name, name)

    @classmethod
    def write(cls, name, data):
        path = cls.path(name)
        binary = isinstance(data, bytes)
        with open(path, "wb" if binary else "w", newline=None if binary else "") as handle:
            handle.write(data)
        return path


class CsvCase(ScratchCase):
    """Tests that share one file holding the class's `text`, at `csv`."""

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.csv = cls.write("data.csv", cls.text)


COLUMNS = ["a", "b", "c"]


def make_frame(rows=400, missing=0.1, seed=20261124):
    """Three columns of different scales with a share of empty cells, an
    integer frequency weight f, a positive analytic weight r and a group code g."""
    import numpy as np
    import pandas as pd
    rng = np.random.default_rng(seed)
    frame = pd.DataFrame({
        "a": rng.normal(10.0, 2.0, rows),
        "b": rng.normal(-3.0, 50.0, rows),
        "c": rng.exponential(4.0, rows) + 1e6,
        "f": rng.integers(1, 6, rows),
        "r": rng.uniform(0.05, 3.0, rows),
        "g": rng.integers(1, 5, rows),
    })
    for name in COLUMNS:
        frame.loc[rng.random(rows) < missing, name] = np.nan
    return frame


def matrix(report, key):
    """A matrix of the JSON report as floats, NaN where the report says null."""
    import numpy as np  # only the suites that compare matrices need NumPy
    return np.array([[np.nan if v is None else v for v in row] for row in report[key]], dtype=float)
