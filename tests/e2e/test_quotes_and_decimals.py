"""Files as spreadsheets and R write them: numbers with a decimal comma, read
against pandas, and quoted fields holding line ends, which the line numbers
of errors count wherever the reader cuts the file into chunks. (Reports over
such files whatever the cuts: test_split_invariance.)"""
import unittest

import numpy as np
import pandas as pd

from common import TempCsv, matrix, run, run_json

BAD_DATA, BAD_USAGE = 1, 2


def sample_frame(rows, seed, missing_share):
    """Columns of different scales, a share of their cells missing."""
    random = np.random.default_rng(seed)
    base = random.normal(size=(rows, 1))
    frame = pd.DataFrame({
        "small": 1e-3 * (base[:, 0] + random.normal(size=rows)),
        "mid": 40 + 3 * base[:, 0] + random.normal(size=rows),
        "large": 1e6 + 5e4 * random.normal(size=rows),
        "neg": -7.25 * base[:, 0] + random.normal(size=rows),
    })
    frame = frame.round(6)
    if missing_share:
        frame = frame.mask(random.random(frame.shape) < missing_share)
    return frame


class DecimalComma(unittest.TestCase):
    """--decimal , against pandas' read_csv(sep=';', decimal=',')."""

    def check(self, frame, *args):
        text = frame.to_csv(sep=";", decimal=",", index=False)
        with TempCsv(text) as path:
            report = run_json(path, "--decimal", ",", *args)
            theirs = pd.read_csv(path, sep=";", decimal=",")
        self.assertEqual([c["name"] for c in report["columns"]], list(theirs.columns))
        return report, theirs

    def test_listwise_against_pandas(self):
        report, theirs = self.check(sample_frame(3000, 1, 0.05))
        complete = theirs.dropna()
        self.assertEqual(report["rows"]["used"], len(complete))
        self.assertEqual([c["min"] for c in report["columns"]], complete.min().tolist())
        np.testing.assert_allclose([c["mean"] for c in report["columns"]], complete.mean(), rtol=1e-11)
        np.testing.assert_allclose(matrix(report, "covariance"), complete.cov(), rtol=1e-10)

    def test_pairwise_against_pandas(self):
        report, theirs = self.check(sample_frame(3000, 2, 0.05), "-p", "-j", "2", "--read-size", "4k")
        self.assertEqual([c["max"] for c in report["columns"]], theirs.max().tolist())
        np.testing.assert_allclose(matrix(report, "covariance"), theirs.cov(), rtol=1e-10)
        np.testing.assert_allclose(matrix(report, "correlation"), theirs.corr(), rtol=1e-10,
                                   atol=1e-14)

    def test_the_comma_cannot_also_delimit(self):
        with TempCsv("a,b\n1,2\n") as path:
            done = run(path, "--decimal", ",")
            self.assertEqual(done.returncode, BAD_USAGE, done.stderr)
            self.assertIn("--decimal , cannot go with ',' as the delimiter", done.stderr)
            done = run(path, "--decimal", ",", "-d", ",")
            self.assertEqual(done.returncode, BAD_USAGE, done.stderr)
        # One column and no delimiter in the header: the semicolon is taken.
        report = run_json("-", "--decimal", ",", stdin="x\n1,5\n2,5\n")
        self.assertEqual(report["columns"][0]["mean"], 2.0)

    def test_a_decimal_point_is_named(self):
        done = run("-", "--decimal", ",", "-c", "x", stdin="x;y\n1,5;a\n2.5;b\n")
        self.assertEqual(done.returncode, BAD_DATA)
        self.assertIn("line 3, column 1", done.stderr)
        self.assertIn("a decimal point?", done.stderr)


def multiline_csv(rows, seed):
    """A CSV file whose text column holds line ends, quotes and delimiters
    inside quotes, with numbers around it; some records span many lines."""
    random = np.random.default_rng(seed)
    frame = sample_frame(rows, seed, 0.0)
    notes = []
    for i in range(rows):
        lines = int(random.integers(0, 4))
        note = "row %d" % i + "".join('\nsays "hi", %d' % k for k in range(lines))
        notes.append(note if i % 11 else "\n" * 5)
    frame.insert(1, "note", notes)
    return frame, frame.to_csv(index=False)


class QuotedLineEnds(unittest.TestCase):
    def test_line_numbers_count_the_line_ends_in_quotes(self):
        frame, _ = multiline_csv(300, 4)
        frame = frame.astype({"mid": object})
        frame.loc[280, "mid"] = "x"
        text = frame.to_csv(index=False)
        line_number = frame.iloc[:280].to_csv(index=False).count("\n") + 1
        self.assertGreater(line_number, 400)
        with TempCsv(text) as path:
            for read_size in ("1", "64", "1M"):
                with self.subTest(read_size=read_size):
                    done = run(path, "-c", "mid,large", "--read-size", read_size, "-j", "2")
                    self.assertEqual(done.returncode, BAD_DATA, done.stderr)
                    self.assertIn(", line %d, column 3" % line_number, done.stderr)

    def test_a_quote_left_open_is_still_an_error(self):
        with TempCsv('a,b\n1,"2\n3,4\n' + "5,6\n" * 2000) as path:
            for read_size in ("16", "1M"):
                done = run(path, "--read-size", read_size)
                self.assertEqual(done.returncode, BAD_DATA, done.stderr)
                self.assertIn("line 2", done.stderr)
                self.assertIn("no closing quote", done.stderr)


if __name__ == "__main__":
    unittest.main()
