"""The same report, byte for byte, whatever the threads, batch size and read
size, and whether the file is read from disk or from a pipe; with text group
labels in order of first appearance and analytic weights too."""
import itertools
import unittest

from common import SAMPLE, run

SETTINGS = list(itertools.product(("1", "2", "3", "8"), ("1", "7", "10000"), ("256", "1M")))


def without_file(report):
    """The report less the line that names the input."""
    return [line for line in report.splitlines()
            if not line.startswith("file ") and not line.startswith('  "file":')]


class SplitInvariance(unittest.TestCase):
    def report(self, *args, stdin=None):
        done = run(*args, stdin=stdin)
        self.assertEqual(done.returncode, 0, done.stderr)
        return done.stdout

    def check(self, *args):
        for fmt in ("json", "table"):
            # Small blocks, so that the sample spreads over many of them.
            shape = ("--block-size", "2k", "-f", fmt, *args)
            base = self.report(SAMPLE, *shape, "-j", "1", "-b", "10000")
            for threads, batch, read in SETTINGS:
                with self.subTest(format=fmt, threads=threads, batch=batch, read=read):
                    self.assertEqual(
                        self.report(SAMPLE, *shape, "-j", threads, "-b", batch, "--read-size", read),
                        base)
            with open(SAMPLE) as handle:
                piped = self.report("-", *shape, "-j", "2", "--read-size", "300", stdin=handle.read())
            self.assertEqual(without_file(piped), without_file(base))

    def test_listwise_weighted_by_text_group_in_order_of_appearance(self):
        # Each household a group of its own: text labels whose first
        # appearance is spread over every block.
        self.check("-w", "weight", "-g", "household", "--group-order", "first",
                   "--weight-kind", "analytic")

    def test_pairwise_weighted_by_group(self):
        self.check("-p", "-w", "weight", "-g", "region", "--weight-kind", "analytic")

    def test_pairwise_unweighted(self):
        self.check("-p")


if __name__ == "__main__":
    unittest.main()
