"""The same report, byte for byte, whatever the threads, batch size and read
size, and whether the file is read from disk or from a pipe, in both formats,
on the sample rewritten with quoted line ends and with decimal commas; with
text group labels in order of first appearance and analytic weights too.
(The JSON report of plain files under every deletion and weighting: the
tool's ReproducibleThreaded tests.)"""
import csv
import itertools
import unittest

from common import BAD_DATA, SAMPLE, ScratchCase, TempCsv, run, run_ok

SETTINGS = list(itertools.product(("1", "2", "3", "8"), ("1", "7", "10000"), ("256", "1M")))


def without_file(report):
    """The report less the line that names the input."""
    return [line for line in report.splitlines()
            if not line.startswith("file ") and not line.startswith('  "file":')]


def rewrite_sample(path, delimiter, cell, line_end="\n"):
    """The sample with each cell as `cell(column, text)` makes it, quoted where
    a cell holds the delimiter, a quote or a line end."""
    with open(SAMPLE, newline="") as source, open(path, "w", newline="") as out:
        rows = csv.reader(source)
        header = next(rows)
        writer = csv.writer(out, delimiter=delimiter, lineterminator=line_end)
        writer.writerow(header)
        for row in rows:
            writer.writerow([cell(name, text) for name, text in zip(header, row)])


def noted(name, text):
    """Household labels that hold line ends, delimiters and quotes."""
    if name != "household":
        return text
    return text + "".join(f'\n"line" {k}, of {text}' for k in range(int(text[-1]) % 4))


class SplitInvariance(ScratchCase):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        # Records whose quoted labels run over several lines, cut anywhere;
        # the records end in CR LF, the lines inside the quotes in LF.
        cls.quoted = cls.path("quoted.csv")
        rewrite_sample(cls.quoted, ",", noted, "\r\n")
        # As R's write.csv2 writes: semicolons and decimal commas.
        cls.comma = cls.path("comma.csv")
        rewrite_sample(cls.comma, ";", lambda name, text: noted(name, text).replace(".", ","))

    def check(self, *args, source):
        for fmt in ("json", "table"):
            # Small blocks, so that the sample spreads over many of them.
            shape = ("--block-size", "2k", "-f", fmt, *args)
            base = run_ok(source, *shape, "-j", "1", "-b", "10000")
            for threads, batch, read in SETTINGS:
                with self.subTest(format=fmt, threads=threads, batch=batch, read=read):
                    self.assertEqual(
                        run_ok(source, *shape, "-j", threads, "-b", batch, "--read-size", read),
                        base)
            with open(source, newline="") as handle:
                piped = run_ok("-", *shape, "-j", "2", "--read-size", "300", stdin=handle.read())
            self.assertEqual(without_file(piped), without_file(base))

    def test_quoted_line_ends(self):
        # Each household a group of its own: text labels whose first
        # appearance is spread over every block.
        self.check("-w", "weight", "-g", "household", "--group-order", "first",
                   "--weight-kind", "analytic", source=self.quoted)
        self.check("-p", "-w", "weight", "-g", "region", source=self.quoted)

    def test_decimal_comma(self):
        self.check("-p", "-w", "weight", "-g", "household", "--decimal", ",", source=self.comma)

    def test_a_part_names_lines_as_the_whole_file_does(self):
        # Quoted line ends before the bad line, which lies in the part's
        # third block; a pipe drops the blocks before the part as they come.
        rows = [f'{k % 7},{k % 5},"note\n{k}"' if k % 50 == 0 else f"{k % 7},{k % 5},plain"
                for k in range(1, 2000)]
        rows[1500] = "1,2x,plain"
        text = "a,b,c\n" + "\n".join(rows) + "\n"
        line = text[:text.index("2x")].count("\n") + 1
        expected = f'line {line}, column 2 ("b"): cell "2x" is not a number'
        with TempCsv(text) as path:
            for blocks in ("0:", "2:", "3:"):
                for source, stdin in ((path, None), ("-", text)):
                    with self.subTest(blocks=blocks, source=source):
                        done = run(source, "--columns", "a,b", "--block-size", "4k", "--blocks",
                                   blocks, stdin=stdin)
                        self.assertFails(done, BAD_DATA, expected)
            # A column the part finds text in is named with the same line.
            self.assertIn(f"line {line}: cell",
                          run_ok(path, "--block-size", "4k", "--blocks", "3:", "-f", "json"))


if __name__ == "__main__":
    unittest.main()
