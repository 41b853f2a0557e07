"""Bad input: a clear message naming file, line and column, the documented
exit code (1 bad data, 2 bad usage), and nothing at all on standard output."""
import os

from common import BAD_DATA, BAD_USAGE, SAMPLE, ScratchCase, run, run_json


class BadInput(ScratchCase):
    def test_bad_usage_names_the_option_or_the_file(self):
        wide = ",".join(f"c{i}" for i in range(70000)) + "\n" + ",".join("1" * 70000) + "\n"
        cases = [
            ([], [], None),
            (["/nonexistent/data.csv"], ["/nonexistent/data.csv", "No such file"], None),
            ([os.path.dirname(SAMPLE)], ["directory"], None),
            *[([SAMPLE, option, "salary"], [SAMPLE, 'no column "salary"', "income"], None)
              for option in ("--columns", "--weight", "--reg-weight", "--group")],
            *[([SAMPLE, *args], [], None) for args in (
                ["--threads", "-1"], ["--format", "xml"], ["--batch-size", "0"],
                ["--group-range", "5:1"], ["--group-range", "a:b"], ["--pairwise", "--listwise"],
                ["--delimiter", "ab"], ["--missing-code", "minus nine"],
                ["--columns", "income,income"], ["--weight", "weight", "--columns", "weight"])],
            *[([SAMPLE, "-p", "--missing-code", code], ["vorelstat: --missing-code must be a number"],
               None) for code in ("nan", "NaN", "-nan")],
            ([SAMPLE, "--threads", "many"], ["vorelstat: --threads"], None),
            *[([SAMPLE, "--decimal", ",", *args], ["--decimal , cannot go with ',' as the delimiter"],
               None) for args in ([], ["-d", ","])],
            ([SAMPLE, "--no-such-option"], ["vorelstat: The following argument"], None),
            (["-"], ["analyses at most 65535"], wide),
        ]
        for args, fragments, stdin in cases:
            with self.subTest(args=args[:3]):
                self.assertFails(run(*args, stdin=stdin), BAD_USAGE, *fragments)

    def test_data_errors_name_the_line_and_the_column(self):
        cases = [
            ("", [], "is empty"),
            # The blank line 3 still counts.
            ("a,b,c\n1,2,3\n\n4,5,6\n7,8,9,10\n", [], "line 5:", "4 fields, the header has 3"),
            ("a,b\n1,2\n3,4\n5", ["-j", "2", "--read-size", "3"], "line 4:",
             "1 fields, the header has 2"),
            # Read in pieces smaller than a line: the cuts are guessed, and
            # the quote still open at the end is the data's fault.
            ('a,b\n1,"2\n3,4\n' + "5,6\n" * 2000, ["--read-size", "16"], "line 2",
             "no closing quote"),
            ("a;b;c\n1;2;3\n4;five;6\n", ["-c", "a,b,c"], 'line 3, column 2 ("b")',
             'cell "five" is not a number'),
            ("x,w\n1,1\n2,-3\n", ["-w", "w"], 'line 3, column 2 ("w")', "is negative",
             "unchanged into every sum"),
            # Naming a text column is allowed; its first cell is what fails.
            ("household,x\nh1,2\n", ["--columns", "household"], 'line 2, column 1 ("household")'),
        ]
        for text, args, *fragments in cases:
            with self.subTest(fragments[-1]):
                path = self.write("bad.csv", text)
                self.assertFails(run(path, *args), BAD_DATA, path, *fragments)

    def test_cells_not_numeric_can_count_as_missing(self):
        report = run_json("-", "-c", "a,b,c", "--non-numeric", "missing",
                          stdin="a;b;c\n1;2;3\n4;five;6\n7;8;x\n")
        self.assertEqual((report["cells_not_numeric"], report["rows"]["used"]), (2, 1))

    def test_help_version_and_standard_input(self):
        for flag in ("--help", "--version"):
            done = run(flag)
            self.assertEqual(done.returncode, 0)
            self.assertIn("vorelstat", done.stdout)
        self.assertIn("Exit codes", run("--help").stdout)
        done = run("-", "--format", "csv", stdin="a,b\n1,2\n3,5\n")
        self.assertIn("column,,b,,mean,3.5", done.stdout)
        self.assertFails(run("-", stdin=""), BAD_DATA, "empty")


if __name__ == "__main__":
    import unittest
    unittest.main()
