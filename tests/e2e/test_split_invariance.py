"""The same output whatever the threads, batch size and read size: exact for
counts, minima and maxima, within rounding for the rest."""
import itertools
import math
import unittest

from common import SAMPLE, run_json

EXACT = {"n", "min", "max", "weight", "code"}
SETTINGS = list(itertools.product(("1", "2", "8"), ("1", "7", "10000"), ("256", "1M")))


def flatten(value, key=""):
    """(path, leaf) pairs of a JSON document."""
    if isinstance(value, dict):
        for k, v in value.items():
            yield from flatten(v, f"{key}.{k}")
    elif isinstance(value, list):
        for i, v in enumerate(value):
            yield from flatten(v, f"{key}[{i}]")
    else:
        yield key, value


class SplitInvariance(unittest.TestCase):
    def check(self, *args):
        base = run_json(SAMPLE, *args, "-j", "1", "-b", "10000")
        base.pop("threads")
        for threads, batch, read in SETTINGS:
            with self.subTest(threads=threads, batch=batch, read=read):
                report = run_json(SAMPLE, *args, "-j", threads, "-b", batch, "--read-size", read)
                self.assertEqual(report.pop("threads"), int(threads))
                got, want = dict(flatten(report)), dict(flatten(base))
                self.assertEqual(got.keys(), want.keys())
                for path, expected in want.items():
                    actual = got[path]
                    leaf = path.rsplit(".", 1)[-1].split("[")[0]
                    exact = leaf in EXACT or path.startswith(".rows") or path.startswith(".pair_rows")
                    numbers = isinstance(expected, (int, float)) and isinstance(actual, (int, float))
                    if exact or not numbers or isinstance(expected, bool):
                        self.assertEqual(actual, expected, path)
                    else:
                        self.assertTrue(math.isclose(actual, expected, rel_tol=1e-12, abs_tol=1e-12),
                                        f"{path}: {actual} vs {expected}")

    def test_listwise_weighted_by_group(self):
        self.check("-w", "weight", "-g", "region")

    def test_pairwise_weighted_by_group(self):
        self.check("-p", "-w", "weight", "-g", "region")

    def test_pairwise_unweighted(self):
        self.check("-p")


if __name__ == "__main__":
    unittest.main()
