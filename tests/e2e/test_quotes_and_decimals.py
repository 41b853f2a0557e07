"""Files as spreadsheets and R write them: numbers with a decimal comma, read
against pandas, and quoted fields holding line ends, which the line numbers
of errors count wherever the reader cuts the file into chunks. (Reports over
such files whatever the cuts: test_split_invariance.)"""
import unittest

import numpy as np
import pandas as pd

from common import BAD_DATA, BAD_USAGE, TempCsv, ToolCase, make_frame, matrix, run, run_json


class DecimalComma(ToolCase):
    """--decimal , against pandas' read_csv(sep=';', decimal=',')."""

    def test_listwise_and_pairwise_against_pandas(self):
        for seed, args in ((1, []), (2, ["-p", "-j", "2", "--read-size", "4k"])):
            # Six decimals, which pandas reads exactly with a decimal comma.
            frame = make_frame(3000, 0.05, seed).round(6)
            with self.subTest(args=args), TempCsv(frame.to_csv(sep=";", decimal=",", index=False)) as path:
                report = run_json(path, "--decimal", ",", *args)
                theirs = pd.read_csv(path, sep=";", decimal=",")
            used = theirs if args else theirs.dropna()
            self.assertEqual([c["name"] for c in report["columns"]], list(theirs.columns))
            self.assertEqual(report["rows"]["used"], len(used))
            self.assertEqual([c["min"] for c in report["columns"]], used.min().tolist())
            self.assertEqual([c["max"] for c in report["columns"]], used.max().tolist())
            self.assertClose([c["mean"] for c in report["columns"]], used.mean(), rtol=1e-11)
            # Columns nearly uncorrelated, one near 1e6: the bound is on the
            # difference in units of the spreads.
            scale = np.outer(used.std(), used.std())
            self.assertClose(matrix(report, "covariance") / scale, used.cov() / scale, atol=1e-10)
            self.assertClose(matrix(report, "correlation"), used.corr(), atol=1e-10)

    def test_the_comma_cannot_also_delimit(self):
        for args in (["--decimal", ","], ["--decimal", ",", "-d", ","]):
            self.assertFails(run("-", *args, stdin="a,b\n1,2\n"), BAD_USAGE,
                             "--decimal , cannot go with ',' as the delimiter")
        # One column and no delimiter in the header: the semicolon is taken.
        report = run_json("-", "--decimal", ",", stdin="x\n1,5\n2,5\n")
        self.assertEqual(report["columns"][0]["mean"], 2.0)

    def test_a_decimal_point_is_named(self):
        done = run("-", "--decimal", ",", "-c", "x", stdin="x;y\n1,5;a\n2.5;b\n")
        self.assertFails(done, BAD_DATA, "line 3, column 1", "a decimal point?")


def multiline_csv(rows, seed):
    """A frame whose text column holds line ends, quotes and delimiters
    inside quotes, with numbers around it; some records span many lines."""
    random = np.random.default_rng(seed)
    frame = make_frame(rows, 0.0, seed)
    notes = []
    for i in range(rows):
        lines = int(random.integers(0, 4))
        note = "row %d" % i + "".join('\nsays "hi", %d' % k for k in range(lines))
        notes.append(note if i % 11 else "\n" * 5)
    frame.insert(1, "note", notes)
    return frame


class QuotedLineEnds(ToolCase):
    def test_line_numbers_count_the_line_ends_in_quotes(self):
        frame = multiline_csv(300, 4).astype({"b": object})
        frame.loc[280, "b"] = "x"
        line_number = frame.iloc[:280].to_csv(index=False).count("\n") + 1
        self.assertGreater(line_number, 400)
        with TempCsv(frame.to_csv(index=False)) as path:
            for read_size in ("1", "64", "1M"):
                with self.subTest(read_size=read_size):
                    done = run(path, "-c", "b,c", "--read-size", read_size, "-j", "2")
                    self.assertFails(done, BAD_DATA, ", line %d, column 3" % line_number)

    def test_a_quote_left_open_is_still_an_error(self):
        with TempCsv('a,b\n1,"2\n3,4\n' + "5,6\n" * 2000) as path:
            for read_size in ("16", "1M"):
                self.assertFails(run(path, "--read-size", read_size), BAD_DATA, "line 2",
                                 "no closing quote")


if __name__ == "__main__":
    unittest.main()
