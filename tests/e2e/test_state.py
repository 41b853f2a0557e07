"""Saved states read back in fresh processes: parts of a file cut on the grid
merge to the one-pass report byte for byte; yesterday's state and today's file
give the report over both; damaged or mismatched states are refused with a
clear error; a state file that fails half way leaves the old one whole."""
import errno
import json
import os
import random
import resource
import signal
import unittest

from common import BAD_DATA, BAD_USAGE, ScratchCase, crc32c, run, run_ok as ok


def group_label(rng, row, rows):
    """Labels of every kind (1, 1.0 and +1 one group; texts with line ends,
    quotes and delimiters inside their quotes); "late" and "z" first
    show in later blocks, so that the order of first appearance is not the
    sorted one and is decided past the first part."""
    pick = rng.random()
    if row > rows // 3 and pick < 0.05:
        return "late"
    if row > 3 * rows // 4 and pick < 0.09:
        return "z"
    return rng.choice(['the "north"\r\nside', "1", "2.5", "1.0", "-3", "+1", "south,\nfar"])


def write_csv(path, rows, seed, decimal="."):
    """Values where the order of the sums shows in the last bits; weights of
    mixed size, whose squares count with analytic weights. Labels may hold
    line ends in their quotes; with a decimal comma, fields are split at
    semicolons as R's write.csv2 writes them."""
    rng = random.Random(seed)
    delimiter = ";" if decimal == "," else ","

    def number(value):
        return repr(value).replace(".", decimal)

    with open(path, "w", newline="") as out:
        out.write(delimiter.join(["big", "mixed", "tiny", "w", "g"]) + "\n")
        for row in range(rows):
            big = 2.5e9 + rng.gauss(0, 1e-3)
            mixed = rng.gauss(0, 1) * (1e8 if rng.random() < 0.1 else 1e-2)
            tiny = "" if rng.random() < 0.08 else number(1e-7 + 1e-9 * rng.gauss(0, 1))
            weight = 0.1 * rng.randint(1, 37)
            label = group_label(rng, row, rows).replace(".", decimal)
            if any(c in label for c in ',"\n'):
                label = '"' + label.replace('"', '""') + '"'
            out.write(delimiter.join([number(big), number(mixed), tiny, number(weight), label])
                      + "\n")


def with_checksum(body):
    return body + crc32c(body).to_bytes(4, "little")


class States(ScratchCase):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.csv = cls.path("data.csv")
        write_csv(cls.csv, 6000, 1)
        cls.comma = cls.path("comma.csv")
        write_csv(cls.comma, 6000, 1, decimal=",")

    def save(self, name, *args, source=None, stdin=None):
        state = self.path(name)
        ok(source or self.csv, "--block-size", "4k", "--save-state", state, *args, stdin=stdin)
        return state

    def test_parts_on_the_grid_merge_to_the_one_pass_report(self):
        for source, decimal, shape in (
                (self.csv, [], ["-w", "w", "-g", "g", "--group-covariance", "--weight-kind",
                                "analytic", "--group-order", "first", "--ddof", "0"]),
                (self.csv, [], ["-p", "-w", "w", "-g", "g", "--weight-kind", "analytic"]),
                # Columns named, so that no look ahead reads the pipe's
                # bytes before the part starts.
                (self.comma, ["--decimal", ","], ["-p", "-w", "w", "-g", "g", "--group-order",
                                                  "first", "-c", "big,mixed,tiny"])):
            with open(source, "rb") as handle:
                text = handle.read()
            shape = decimal + shape
            for fmt in ("json", "table"):
                with self.subTest(source=source, shape=shape, format=fmt):
                    one = ok(source, *shape, "--block-size", "4k", "-j", "2", "-f", fmt)
                    parts = [
                        self.save("a.state", *shape, "--blocks", "0:17", "-j", "1", source=source),
                        # The middle part from a pipe, read in pieces smaller
                        # than the bytes it passes over: the report names the
                        # file of the part that starts at block 0.
                        self.save("b.state", *shape, "--blocks", "17:40", "-j", "3",
                                  "--read-size", "1k", source="-", stdin=text),
                        self.save("c.state", *shape, "--blocks", "40:", "-j", "2", source=source),
                    ]
                    self.assertEqual(ok("merge", *parts, "-f", fmt), one)
                    # A part that starts past the end of the file holds nothing.
                    empty = self.save("d.state", *shape, "--blocks", "5000:", source=source)
                    self.assertEqual(ok("merge", *parts, empty, "-f", fmt), one)
                    both = self.path("ab.state")
                    ok("merge", parts[0], parts[1], "--save-state", both)
                    self.assertEqual(ok("merge", both, parts[2], "-f", fmt), one)
                    # What is printed is the merge's to choose.
                    self.assertEqual(ok("merge", *parts, "-f", fmt, "--sections", "groups,pooled"),
                                     ok(source, *shape, "--block-size", "4k", "-f", fmt,
                                        "--sections", "groups,pooled"))

    def test_parts_missing_or_given_twice_are_named(self):
        first = self.save("first.state", "--blocks", "0:10")
        second = self.save("second.state", "--blocks", "10:")
        self.assertFails(run("merge", second), BAD_DATA, "the state of a part is missing")
        self.assertFails(run("merge", first, second, second), BAD_DATA,
                         f"{second} holds blocks 10 to ", "a part given twice?")

    def test_a_part_names_lines_as_the_whole_file_does(self):
        # Quoted line ends before the bad line, which lies in the part's
        # third block; a pipe drops the blocks before the part as they come.
        rows = [f'{k % 7},{k % 5},"note\n{k}"' if k % 50 == 0 else f"{k % 7},{k % 5},plain"
                for k in range(1, 2000)]
        rows[1500] = "1,2x,plain"
        text = "a,b,c\n" + "\n".join(rows) + "\n"
        path = self.write("bad.csv", text)
        line = text[:text.index("2x")].count("\n") + 1
        for blocks in ("0:", "3:"):
            for source, stdin in ((path, None), ("-", text)):
                with self.subTest(blocks=blocks, source=source):
                    done = run(source, "--columns", "a,b", "--block-size", "4k", "--blocks",
                               blocks, stdin=stdin)
                    self.assertFails(done, BAD_DATA,
                                     f'line {line}, column 2 ("b"): cell "2x" is not a number')
        # A column the part finds text in is named with the same line.
        self.assertIn(f"line {line}: cell",
                      ok(path, "--block-size", "4k", "--blocks", "3:", "-f", "json"))

    def test_yesterday_and_today(self):
        today = self.path("today.csv")
        write_csv(today, 2500, 2)
        yesterday = self.save("yesterday.state", "-w", "w", "-g", "g")
        today_state = self.save("today.state", "-w", "w", "-g", "g", source=today)
        merged = json.loads(ok("merge", yesterday, today_state, "-f", "json"))
        # Against one pass over both days' rows: exact where the figures are
        # exact, up to rounding elsewhere.
        with open(self.csv, newline="") as first, open(today, newline="") as second:
            joined = self.write("joined.csv", first.read() + second.read().split("\n", 1)[1])
        one = json.loads(ok(joined, "-w", "w", "-g", "g", "--block-size", "4k", "-f", "json"))
        self.assertEqual(merged["rows"], one["rows"])
        for got, want in zip(merged["columns"], one["columns"]):
            self.assertEqual((got["n"], got["min"], got["max"]), (want["n"], want["min"], want["max"]))
            # Weights of 0.1 k add up with rounding too, in another order.
            self.assertAlmostEqual(got["weight"] / want["weight"], 1.0, delta=1e-14)
            self.assertAlmostEqual(got["mean"] / want["mean"], 1.0, delta=1e-14)
            # The spread of a column far from zero keeps fewer digits: the
            # rounding grows with the distance over the spread.
            tolerance = 1e-13 * max(1.0, abs(want["mean"]) / want["sd"])
            self.assertAlmostEqual(got["sd"] / want["sd"], 1.0, delta=tolerance)

    def test_damaged_states_are_refused(self):
        good = self.save("good.state", "-w", "w", "-g", "g")
        with open(good, "rb") as handle:
            data = handle.read()
        kind = bytearray(data[:-4])
        kind[10:12] = (1).to_bytes(2, "little")  # a MatrixListwise, checksum and all
        cases = {
            "truncated.state": (data[: len(data) // 2], "truncated"),
            "flipped.state": (data[:100] + bytes([data[100] ^ 4]) + data[101:], "checksum mismatch"),
            "kind.state": (with_checksum(bytes(kind)), "holds a MatrixListwise, not a vorelstat pass"),
            # The layout before the options and labels were kept.
            "layout.state": (with_checksum(data[:24] + (1).to_bytes(4, "little") + data[28:-4]),
                             "the layout of the vorelstat state is 1, outside 2 to 2"),
            "text.state": (b"big,mixed\n1,2\n" * 4, "not a vorel state (wrong magic bytes)"),
        }
        for name, (content, says) in cases.items():
            with self.subTest(name):
                path = self.write(name, content)
                self.assertFails(run("merge", good, path), BAD_DATA,
                                 f"{path}: not a usable vorelstat state: ")
                self.assertFails(run("merge", path), BAD_DATA, says)
        self.assertFails(run("merge", self.path("missing.state")), BAD_USAGE, "missing.state")

    def test_states_of_other_columns_or_options_are_refused(self):
        columns = ["-c", "big,mixed,tiny"]
        base = self.save("base.state", *columns, "-w", "w", "-g", "g")
        cases = [
            (["-w", "w"], "group column: g against (none)"),
            (["-w", "w", "-g", "g", "-p"], "deletion: listwise against pairwise"),
            (["-w", "w", "-g", "g", "-c", "big,tiny"], "value columns: big,mixed,tiny against big,tiny"),
            (["-g", "g"], "weight column: w against (none)"),
            (["-w", "w", "-g", "g", "--missing-code", "-99"], "missing code: "),
            (["-w", "w", "-g", "g", "--weight-kind", "analytic"],
             "--weight-kind: frequency against analytic"),
            (["-w", "w", "-g", "g", "--ddof", "0"], "--ddof: 1 against 0"),
            (["-w", "w", "-g", "g", "--group-order", "first"], "--group-order: sorted against first"),
            (["-w", "w", "-g", "g", "--max-groups", "50"], "--max-groups: 100000 against 50"),
            (["-w", "w", "-g", "g", "--group-covariance"], "--group-covariance: off against on"),
            (["-w", "w", "-g", "g", "--missing-text", "empty,NA"], "missing texts: "),
        ]
        for args, says in cases:
            with self.subTest(args=args):
                named = args if "-c" in args else columns + args
                other = self.save("other.state", *named)
                self.assertFails(run("merge", base, other), BAD_USAGE,
                             f"{other} does not fit the states before it: {says}")
        other = self.path("grid.state")
        ok(self.csv, *columns, "-w", "w", "-g", "g", "--block-size", "8k", "--save-state", other)
        self.assertFails(run("merge", base, other), BAD_USAGE, "block size: 4096 against 8192")

    def test_a_write_that_fails_half_way_leaves_the_old_state(self):
        state = self.save("kept.state", "-w", "w", "-g", "g", "--group-covariance")
        with open(state, "rb") as handle:
            before = handle.read()
        self.assertGreater(len(before), 2000)

        def small_files():
            # Writes past 1000 bytes fail with EFBIG instead of killing the process.
            signal.signal(signal.SIGXFSZ, signal.SIG_IGN)
            resource.setrlimit(resource.RLIMIT_FSIZE, (1000, 1000))

        done = run(self.csv, "-p", "--save-state", state, timeout=120, preexec_fn=small_files)
        self.assertNotEqual(done.returncode, 0)
        self.assertIn(f"{state}: the write stopped after ", done.stderr)
        self.assertIn(os.strerror(errno.EFBIG), done.stderr)
        self.assertEqual(done.stdout, "", "no report when the state could not be kept")
        with open(state, "rb") as handle:
            self.assertEqual(handle.read(), before)
        leftovers = [name for name in os.listdir(self.scratch.name) if name.startswith("kept.state.")]
        self.assertEqual(leftovers, [])
        self.assertFails(run(self.csv, "--save-state", "/nonexistent-folder/a.state"), BAD_USAGE,
                         "cannot write /nonexistent-folder/a.state")


if __name__ == "__main__":
    unittest.main()
