"""Shared helpers of the end-to-end tests of vorelstat.

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

# The checksum of saved states, as docs/state-format.md gives it.
sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "examples"))
from crc32c import crc32c  # noqa: E402
NUMERIC = ["members", "age", "income", "rent", "rooms", "commute"]


def run(*args, stdin=None):
    """Runs the tool; returns the completed process with text output."""
    return subprocess.run([BINARY, *args], input=stdin, capture_output=True, text=True, timeout=60)


def run_json(*args, stdin=None):
    done = run(*args, "--format", "json", stdin=stdin)
    if done.returncode != 0:
        raise AssertionError(f"exit {done.returncode}: {done.stderr}")
    return json.loads(done.stdout)


class TempCsv:
    """A file holding `text`, removed on exit from the with block."""

    def __init__(self, text, suffix=".csv"):
        self.text = text
        self.suffix = suffix

    def __enter__(self):
        handle = tempfile.NamedTemporaryFile("w", suffix=self.suffix, delete=False)
        handle.write(self.text)
        handle.close()
        self.path = handle.name
        return self.path

    def __exit__(self, *exc):
        os.unlink(self.path)


class CsvCase(unittest.TestCase):
    """Tests that share one file holding the class's `text`, at `path`."""

    @classmethod
    def setUpClass(cls):
        cls.csv = TempCsv(cls.text)
        cls.path = cls.csv.__enter__()

    @classmethod
    def tearDownClass(cls):
        cls.csv.__exit__(None, None, None)


def matrix(report, key):
    """A matrix of the JSON report as floats, NaN where the report says null."""
    import numpy as np  # only the suites that compare matrices need NumPy
    return np.array([[np.nan if v is None else v for v in row] for row in report[key]], dtype=float)
