"""Bad input: a clear message naming file, line and column, the documented
exit code (1 bad data, 2 bad usage), and nothing at all on standard output."""
import os
import unittest

from common import SAMPLE, TempCsv, run

BAD_DATA, BAD_USAGE = 1, 2


class BadInput(unittest.TestCase):
    def expect_failure(self, args, code, *fragments, stdin=None):
        done = run(*args, stdin=stdin)
        self.assertEqual(done.returncode, code, done.stderr)
        self.assertEqual(done.stdout, "", "no partial output on failure")
        self.assertTrue(done.stderr.startswith("vorelstat: ") or code == BAD_USAGE, done.stderr)
        for fragment in fragments:
            self.assertIn(fragment, done.stderr)
        self.assertLess(len(done.stderr.splitlines()), 8, "one clear message, not a dump")
        return done.stderr

    def expect_data_error(self, text, args, *fragments):
        with TempCsv(text) as path:
            return self.expect_failure([path, *args], BAD_DATA, path, *fragments)

    def test_missing_file_or_a_directory(self):
        self.expect_failure(["/nonexistent/data.csv"], BAD_USAGE, "/nonexistent/data.csv",
                            "No such file")
        self.expect_failure([os.path.dirname(SAMPLE)], BAD_USAGE, "directory")

    def test_header_without_the_named_column(self):
        for option in ("--columns", "--weight", "--reg-weight", "--group"):
            with self.subTest(option):
                self.expect_failure([SAMPLE, option, "salary"], BAD_USAGE, SAMPLE,
                                    'no column "salary"', "income")

    def test_data_errors_name_the_line_and_the_column(self):
        cases = [
            ("", [], "is empty"),
            # The blank line 3 still counts.
            ("a,b,c\n1,2,3\n\n4,5,6\n7,8,9,10\n", [], "line 5:", "4 fields, the header has 3"),
            ('a,b\n1,"2\n3,4\n', [], "line 2", "no closing quote"),
            ("x,w\n1,1\n2,-3\n", ["-w", "w"], 'line 3, column 2 ("w")', "is negative",
             "unchanged into every sum"),
            ("x,w\n1,1\n2,NaN\n", ["-w", "w", "--missing-text", "empty"], "line 3", "not a number"),
            ("x,g\n1,1\n2,5\n", ["-g", "g", "--group-range", "1:4"], 'line 3, column 2 ("g")',
             "group 5 is outside the group range 1..4"),
            ("x,g\n1,1\n2,1.5\n", ["-g", "g", "--group-range", "0:9"], "line 3",
             "not a whole number"),
        ]
        for text, args, *fragments in cases:
            with self.subTest(fragments[-1]):
                self.expect_data_error(text, args, *fragments)

    def test_cell_that_is_not_a_number(self):
        text = "a;b;c\n1;2;3\n4;five;6\n7;8;x\n"
        self.expect_data_error(text, ["-c", "a,b,c"], 'line 3, column 2 ("b")',
                               'cell "five" is not a number')
        with TempCsv(text) as path:
            done = run(path, "-c", "a,b,c", "--non-numeric", "missing", "--format", "json")
        self.assertEqual(done.returncode, 0, done.stderr)
        self.assertIn('"cells_not_numeric": 2', done.stdout)
        self.assertIn('"used": 1', done.stdout)

    def test_bad_usage(self):
        self.expect_failure([], BAD_USAGE)
        cases = [
            ["--threads", "-1"], ["--format", "xml"], ["--batch-size", "0"], ["--no-such-option"],
            ["--group-range", "5:1"], ["--group-range", "a:b"], ["--pairwise", "--listwise"],
            ["--delimiter", "ab"], ["--missing-code", "minus nine"], ["--columns", "income,income"],
            ["--weight", "weight", "--columns", "weight"],
        ]
        for args in cases:
            with self.subTest(args=args):
                self.expect_failure([SAMPLE, *args], BAD_USAGE)
        # Naming a text column is allowed; its first cell is what fails.
        self.expect_failure([SAMPLE, "--columns", "household"], BAD_DATA,
                            'line 2, column 1 ("household")')

    def test_help_and_version_succeed(self):
        for flag in ("--help", "--version"):
            done = run(flag)
            self.assertEqual(done.returncode, 0)
            self.assertIn("vorelstat", done.stdout)
        self.assertIn("Exit codes", run("--help").stdout)

    def test_standard_input(self):
        done = run("-", "--format", "csv", stdin="a,b\n1,2\n3,5\n")
        self.assertEqual(done.returncode, 0, done.stderr)
        self.assertIn("column,,b,,mean,3.5", done.stdout)
        self.expect_failure(["-"], BAD_DATA, "empty", stdin="")


if __name__ == "__main__":
    unittest.main()
