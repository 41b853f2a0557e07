"""Files a user would have and files made to hurt: the tool never crashes and
never prints a wrong figure without saying so. One grouped case per fault
that was found in the tool, on small files made here."""
import gzip
import json
import math
import os
import random
import resource
import unittest
from fractions import Fraction

import numpy as np

from common import BAD_DATA, BAD_USAGE, ScratchCase, ToolCase, csv_text, run, run_json


def run_limited(args, megabytes, stdin):
    """Runs the tool with its address space capped, unless a sanitizer, which
    reserves terabytes of shadow memory, is built in: then only its answers count."""
    def cap():
        limit = megabytes << 20
        resource.setrlimit(resource.RLIMIT_AS, (limit, limit))

    sanitized = os.environ.get("VORELSTAT_SANITIZED")
    return run(*args, stdin=stdin, timeout=120, preexec_fn=None if sanitized else cap)


def exact_pooled(rows):
    """The pooled within-group covariance of (group, [cell text]) rows and its
    divisor, in rationals of the doubles the tool reads: what it was given, exactly."""
    rows = [(g, values) for g, values in rows if "NA" not in values]
    groups = np.array([g for g, _ in rows])
    exact = np.array([[Fraction(float(v)) for v in values] for _, values in rows], dtype=object)
    within = 0
    for label in np.unique(groups):
        members = exact[groups == label]
        deviations = members - members.sum(axis=0) / len(members)
        within = within + deviations.T @ deviations
    divisor = len(rows) - len(np.unique(groups))
    return within / divisor, divisor


class Crashes(ToolCase):
    def test_an_open_quote_past_the_header_names_no_header_field(self):
        done = run("-", stdin="a,b\n1,2,3,3,3,\"x\n")
        self.assertFails(done, BAD_DATA, "line 2: the line has more fields than the header's 2",
                         "no closing quote")

    def test_group_ranges_up_to_the_limits_of_64_bits(self):
        text = "g,x\n-5,1\n9223372036854775807,2\n-5,3\n0,4\n"
        report = run_json("-", "-g", "g", "--group-range=-5:9223372036854775807", stdin=text)
        self.assertEqual([g["code"] for g in report["groups"]], [-5, 0, 9223372036854775807])
        self.assertEqual([g["means"][0] for g in report["groups"]], [2, 4, 2])
        done = run("-", "-g", "g", "--group-range=-9223372036854775808:9223372036854775807",
                   stdin=text)
        self.assertEqual(done.returncode, 0, done.stderr)
        done = run("-", "-g", "g", "--group-range=0:9223372036854775808", stdin=text)
        self.assertFails(done, BAD_USAGE, "vorelstat: --group-range")


class WrongFigures(ScratchCase):
    def test_rows_of_weight_zero_are_absent_whatever_the_batches(self):
        text = "x,y,w\n1,5,0\n2,3,0\n3,4,1\n4,9,1\n5,1,1\n"
        without = run_json("-", "-w", "w", stdin="x,y,w\n3,4,1\n4,9,1\n5,1,1\n")
        for deletion in ("-l", "-p"):
            for batch in ("1", "2", "3", "100"):
                with self.subTest(deletion=deletion, batch=batch):
                    report = run_json("-", "-w", "w", "-b", batch, deletion, "-j", "2", stdin=text)
                    self.assertEqual(report["rows"]["zero_weight"], 2)
                    means = [c["mean"] for c in report["columns"]]
                    self.assertEqual(means, [4, 14 / 3])
                    self.assertEqual(report["covariance"], without["covariance"])
        # Sorted by weight, the zeros come first in every batch.
        rows = [(x, x * x % 7, 0 if x < 40 else 1) for x in range(100)]
        report = run_json("-", "-w", "w", "-p", "-b", "8", stdin=csv_text("xyw", rows))
        self.assertEqual(report["columns"][0]["mean"], sum(range(40, 100)) / 60)
        self.assertTrue(all(v is not None for row in report["correlation"] for v in row))

    def test_constant_columns_are_exact_under_both_deletions(self):
        text = "a,b,c\n0.1,1,7\n0.1,2,NA\n0.1,4,7\n0.1,3,8\n"
        for deletion in ("-l", "-p"):
            for batch in ("1", "3"):
                with self.subTest(deletion=deletion, batch=batch):
                    report = run_json("-", deletion, "-b", batch, stdin=text)
                    a = report["columns"][0]
                    self.assertEqual((a["mean"], a["sd"], a["min"], a["max"]), (0.1, 0, 0.1, 0.1))
                    self.assertIsNone(report["correlation"][0][1])
                    self.assertIsNone(report["correlation"][0][0])
                    self.assertEqual(report["covariance"][0][1], 0)
                    self.assertTrue(any("constant" in note for note in report["notes"]))
        # Under pairwise deletion, c is constant on the rows it shares with b
        # only where b is present: rows 1 and 3 give 7, 7.
        pair = run_json("-", "-p", "-c", "b,c", stdin="b,c\n1,7\n2,7\nNA,8\n")
        self.assertIsNone(pair["correlation"][0][1])
        self.assertEqual(pair["covariance"][0][1], 0)
        # A group's constant column, joined over blocks of a few rows each.
        grouped = run_json("-", "-g", "g", "--block-size", "64", "--group-covariance",
                           stdin="g,a,b\n" + "1,0.1,1\n2,0.1,2\n1,0.1,4\n" * 30)
        for group in grouped["groups"]:
            self.assertEqual(group["means"][0], 0.1)
            self.assertEqual(group["covariance"][0], [0, 0])

    def test_no_rows_give_counts_of_0_and_no_figures(self):
        for deletion in ("-l", "-p"):
            for text in ("a,b,g\nNA,1,0\n", "a,b,g\n"):
                with self.subTest(deletion=deletion, text=text):
                    report = run_json("-", deletion, "-c", "a,b", "-g", "g", stdin=text)
                    a = report["columns"][0]
                    self.assertEqual((report["rows"]["read"], a["n"]), (text.count("\n") - 1, 0))
                    self.assertEqual((a["mean"], a["min"], a["max"]), (None, None, None))
                    self.assertEqual((report["covariance"][0][0], report["groups"]), (None, []))

    def test_columns_are_typed_from_every_cell_and_the_skipped_ones_listed(self):
        # What R's write.csv2 writes: semicolons and decimal commas.
        csv2 = 'id;x;y;n;z\n"a";1,5;2;3;4,25\n"b";2,5;3;4;1,75\n'
        report = run_json("-", stdin=csv2)
        self.assertEqual([c["name"] for c in report["columns"]], ["y", "n"])
        reasons = {s["name"]: s["reason"] for s in report["skipped_columns"]}
        self.assertEqual(sorted(reasons), ["id", "x", "z"])
        self.assertIn("decimal comma", reasons["x"])
        # Text deep in a column counts as much as text in its first row, from a
        # file (a second pass) and from a pipe (which cannot be read twice).
        rows = [(i, i * 2, "n/a" if i == 3 else i) for i in range(1, 3000)]
        text = csv_text("abc", rows)
        first = run_json("-", stdin=csv_text("abc", [("n/a", 1, 2)] + rows[:2]))
        self.assertEqual([c["name"] for c in first["columns"]], ["b", "c"])
        late = run_json(self.write("late.csv", text), "--read-size", "256")
        self.assertEqual([c["name"] for c in late["columns"]], ["a", "b"])
        self.assertIn("line 4", late["skipped_columns"][0]["reason"])
        self.assertEqual(late["rows"]["used"], len(rows))
        deep = csv_text("abc", [(i, i, i) for i in range(1, 200000)] + [(1, "x", 2)])
        self.assertFails(run("-", "--read-size", "64k", stdin=deep), BAD_DATA,
                         'column "b" looked numeric in the first lines', "--columns")
        # Numbers a first row used to lose, and a trailing delimiter. (Why each
        # is skipped: the tool's RowParser tests.)
        edge = run_json("-", stdin='a,c,d,\n"1,234",1e-400,0x1p3,\n')
        self.assertEqual([s["name"] for s in edge["skipped_columns"]], ["a", "d", ""])
        self.assertEqual([(c["name"], c["min"]) for c in edge["columns"]], [("c", 0)])

    def pooled_case(self, rows, ncols, args=()):
        text = csv_text(["g"] + [f"x{i}" for i in range(ncols)], [(g, *values) for g, values in rows])
        report = run_json("-", "-g", "g", *args, stdin=text)
        exact, divisor = exact_pooled(rows)
        self.assertEqual(report["pooled_divisor"], divisor)
        scale = np.sqrt(np.outer(np.diag(exact), np.diag(exact)).astype(float))
        error = np.abs(np.array(report["pooled_covariance"]) - exact.astype(float))
        self.assertTrue((error <= 1e-12 * scale).all(), error / scale)

    def test_pooled_within_group_covariance_against_rationals(self):
        rng = random.Random(13)
        # Epoch timestamps, the first cell missing.
        stamps = [(1 + i % 3, [f"{1.7e9 + rng.gauss(0, 1000):.3f}", f"{rng.gauss(0, 1):.6f}"])
                  for i in range(300)]
        stamps[0] = (1, ["NA", "0.5"])
        self.pooled_case(stamps, 2)
        # Two groups k within-group standard deviations apart.
        for k in (100, 1e5, 1e6):
            with self.subTest(k=k):
                rows = [(g, [f"{g * k + rng.gauss(0, 1):.6f}", f"{rng.gauss(0, 1):.6f}"])
                        for g in (0, 1) for _ in range(200)]
                self.pooled_case(rows, 2, ("-b", "7"))
        # Measurements of three species, to one decimal.
        flowers = [(s, [f"{m + rng.gauss(0, 0.4):.1f}" for m in (5 + s, 3 - s / 4, 1.5 + 2 * s, s)])
                   for s in (1, 2, 3) for _ in range(50)]
        self.pooled_case(flowers, 4)

    def test_infinity_is_an_extreme_and_signed_zeros_order(self):
        for deletion in ("-l", "-p"):
            report = run_json("-", deletion, stdin="x,y\n1,0\ninf,-0\n2,0\n-3,-0\n")
            x, y = report["columns"]
            self.assertEqual((x["min"], x["max"], x["mean"]), (-3, math.inf, math.inf))
            self.assertIsNone(x["sd"])
            self.assertTrue(any("infinite" in note for note in report["notes"]))
        done = run("-", "-f", "csv", "-j", "4", stdin="x\n" + "0\n-0\n" * 50)
        self.assertIn("column,,x,,min,-0\n", done.stdout)
        self.assertIn("column,,x,,max,0\n", done.stdout)
        table = run("-", stdin="x\n1\ninf\n").stdout
        self.assertIn("inf", table.split("\nColumns\n")[1].splitlines()[1])


class ResourcesAndMessages(ToolCase):
    def test_memory_is_bounded_on_any_input(self):
        # No line end at all: stopped at the line limit, not by the memory.
        done = run_limited(["-", "--max-line-length", "1M"], 300, stdin=b"7" * (8 << 20))
        self.assertFails(done, BAD_DATA, "longer than 1048576 bytes, the limit of --max-line-length")
        done = run_limited(["-"], 300, stdin=b"x\n1\n" + b"2" * (40 << 20) + b"\n")
        self.assertFails(done, BAD_DATA, "--max-line-length")
        # A wide row and a wide report: memory for the figures, not the text.
        k = 400
        wide = csv_text([f"c{i}" for i in range(k)],
                        [[(r * 7 + i * 13) % 101 for i in range(k)] for r in range(5)])
        done = run_limited(["-", "-f", "csv", "-j", "2"], 400, stdin=wide.encode())
        self.assertEqual(done.returncode, 0, done.stderr)
        self.assertEqual(done.stdout.count(b"\npair,"), 2 * k * k)
        # A wide group range costs nothing for the groups that do not occur.
        groups = csv_text("gx", [(i * 10007 % 999999, i) for i in range(100)])
        done = run_limited(["-", "-g", "g", "--group-range", "0:999999", "-f", "json"], 300,
                           stdin=groups.encode())
        self.assertEqual(done.returncode, 0, done.stderr)
        self.assertEqual(len(json.loads(done.stdout)["groups"]), 100)

    def test_messages_name_the_real_cause(self):
        packed = gzip.compress(gzip.compress(b"x,y\n1,2\n"))
        self.assertFails(run("-", stdin=packed), BAD_DATA,
                         "is compressed (gzip), not delimited text inside its gzip compression")
        # Blank lines before the header are skipped, and lines still count from 1.
        report = run_json("-", stdin="\n\nx,y\n1,2\n3,4\n")
        self.assertEqual(report["rows"]["read"], 2)
        done = run("-", "-c", "x,y", stdin="\n\nx,y\n1,2\n3,z\n")
        self.assertIn("line 5, column 2", done.stderr)
        # A weight total of 1: n/a, and a note that says the divisor W - 1 is 0.
        report = run_json("-", "-w", "w", stdin="x,w\n1,0.5\n3,0.5\n")
        self.assertEqual(report["columns"][0]["mean"], 2)
        self.assertIsNone(report["columns"][0]["sd"])
        self.assertTrue(any("divisor W - 1" in note for note in report["notes"]))
        # Invalid UTF-8 in a header still makes valid JSON, the byte read as Latin-1.
        done = run("-", "-f", "json", stdin=b"caf\xe9,\xff\xfeb\n1,2\n")
        names = [c["name"] for c in json.loads(done.stdout.decode("utf-8"))["columns"]]
        self.assertEqual(names, ["caf\u00e9", "\u00ff\u00feb"])


if __name__ == "__main__":
    unittest.main()
