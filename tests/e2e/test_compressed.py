"""gzip and zstd input read directly: the same report as the plain text, byte
for byte, and a clear error for every cut or damaged file."""
import gzip
import shutil
import struct
import subprocess
import unittest
import zlib

import numpy as np
import pandas as pd

from common import BAD_DATA, ScratchCase, run, run_ok

ZSTD = shutil.which("zstd")


def zstd_compress(data, *options):
    return subprocess.run([ZSTD, "-q", "-c", *options], input=data, capture_output=True, check=True,
                          timeout=60).stdout


def bgzf_member(content):
    """A gzip member that states its size in the BGZF extra field."""
    deflate = zlib.compressobj(6, zlib.DEFLATED, -zlib.MAX_WBITS)
    body = deflate.compress(content) + deflate.flush()
    size = 18 + len(body) + 8
    return (b"\x1f\x8b\x08\x04" + bytes(4) + b"\x00\xff" + struct.pack("<H", 6) + b"BC"
            + struct.pack("<HH", 2, size - 1) + body
            + struct.pack("<II", zlib.crc32(content), len(content)))


def bgzf_compress(data, piece=50000):
    """BGZF members, then the empty member that ends such files."""
    return b"".join(bgzf_member(data[start:start + piece])
                    for start in range(0, len(data), piece)) + bgzf_member(b"")


def zstd_frames(data, sizes=(1, 30000, 7000, 65536, 0, 20000)):
    """zstd frames of several sizes, cut anywhere in lines, with a skippable
    frame among them, as seekable and parallel writers make."""
    frames, start, i = [], 0, 0
    while start < len(data):
        size = sizes[i % len(sizes)]
        frames.append(zstd_compress(data[start:start + size]))
        if i == 3:
            frames.append(struct.pack("<II", 0x184D2A5E, 5) + b"index")
        start, i = start + size, i + 1
    return b"".join(frames)


def make_text(rows=20000):
    rng = np.random.default_rng(7)
    frame = pd.DataFrame({
        # Labels with line ends inside their quotes: decompressed text is cut
        # outside quotes too.
        "g": rng.choice(["north", "south", "east, far", "west\nside", '"up"\r\nhill'], rows),
        "x": rng.normal(0.0, 1.0, rows),
        "y": rng.exponential(3.0, rows),
        "w": rng.integers(1, 4, rows),
    })
    frame.loc[rng.random(rows) < 0.05, "y"] = np.nan
    return frame.to_csv(index=False).encode()


class Compressed(ScratchCase):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.text = make_text()
        cls.plain = cls.write("data.csv", cls.text)
        half = cls.text.index(b"\n", len(cls.text) // 2) + 1
        cls.forms = {
            # The plain text too: its chunks, not the decompression's, are cut
            # inside the labels' quotes.
            "plain": cls.plain,
            "gzip": cls.write("data.csv.gz", gzip.compress(cls.text)),
            # Named for neither format: the first bytes decide.
            "gzip, no suffix": cls.write("data-gz", gzip.compress(cls.text)),
            # Two members, as cat a.gz b.gz makes; the cut inside a line.
            "gzip, two members": cls.write(
                "two.gz", gzip.compress(cls.text[:half + 5]) + gzip.compress(cls.text[half + 5:])),
            "gzip, BGZF": cls.write("data.bgz", bgzf_compress(cls.text)),
        }
        if ZSTD:
            cls.forms["zstd"] = cls.write("data.csv.zst", zstd_compress(cls.text))
            cls.forms["zstd, two frames"] = cls.write(
                "two.zst", zstd_compress(cls.text[:half]) + zstd_compress(cls.text[half:]))
            # Decompressed on the threads.
            cls.forms["zstd, many frames"] = cls.write("many.zst", zstd_frames(cls.text))

    def report(self, path, *args, stdin=False):
        """The JSON report without the line that names the file."""
        if stdin:
            with open(path, "rb") as handle:
                out = run_ok("-", *args, "-f", "json", stdin=handle.read()).decode()
        else:
            out = run_ok(path, *args, "-f", "json")
        return [line for line in out.splitlines() if '"file"' not in line]

    def test_compressed_reports_equal_the_plain_one_byte_for_byte(self):
        # Small blocks, so that the decompressed text spreads over many of the
        # grid's blocks whatever the threads.
        for args in (["-p", "-w", "w", "-g", "g", "--group-covariance", "--block-size", "4k"],
                     ["-w", "w", "-g", "g", "--weight-kind", "analytic", "--group-order", "first",
                      "--block-size", "16k"]):
            expected = self.report(self.plain, *args, "-j", "1")
            for name, path in self.forms.items():
                for read_size, threads in (("1", "3"), ("4k", "2"), ("64k", "1"), ("1M", "8")):
                    with self.subTest(args=args, form=name, read_size=read_size):
                        self.assertEqual(
                            self.report(path, *args, "--read-size", read_size, "-j", threads),
                            expected)
                with self.subTest(args=args, form=name, stdin=True):
                    self.assertEqual(self.report(path, *args, stdin=True), expected)

    def test_every_cut_is_an_error_naming_the_truncation(self):
        # From the first cut that still shows the format's magic bytes.
        for form, magic in (("gzip", 2), ("gzip, BGZF", 2), ("zstd", 4), ("zstd, many frames", 4)):
            if form not in self.forms:
                continue
            name = form.split(",")[0]
            with open(self.forms[form], "rb") as handle:
                data = handle.read()
            for cut in sorted({magic, 5, 11, 100, len(data) // 2, len(data) - 8, len(data) - 1}):
                with self.subTest(form=form, cut=cut):
                    path = self.write(f"cut.{name}", data[:cut])
                    err = self.assertFails(run(path, "-j", "2"), BAD_DATA)
                    self.assertRegex(err, f"{path}: (the {name} data ends before its end mark: "
                                          f"the file is truncated|corrupt {name} data)")

    def test_damaged_data_and_an_early_error_end_the_run(self):
        # One member, and BGZF members decompressed on the threads.
        for form in ("gzip", "gzip, BGZF"):
            with open(self.forms[form], "rb") as handle:
                whole = handle.read()
            middle = len(whole) // 2
            damaged = whole[:middle] + bytes([whole[middle] ^ 0x55]) + whole[middle + 1:]
            for name, content in (("damaged.gz", damaged), ("trailing.gz", whole + b"not gzip")):
                with self.subTest(form=form, name=name):
                    path = self.write(name, content)
                    self.assertFails(run(path, "-j", "3"), BAD_DATA, f"{path}: corrupt gzip data")
        # The pass stops at line 3 while megabytes are still to be
        # decompressed: the run ends with the error, no hang, no report.
        text = b"a,b\n1,2\n3,x\n" + b"4,5\n" * 2000000
        for name, data in (("gz", gzip.compress(text, 1)),
                           ("zst", zstd_compress(text) if ZSTD else None)):
            if data is not None:
                with self.subTest(form=name):
                    path = self.write(f"early.csv.{name}", data)
                    self.assertFails(run(path, "-c", "a,b"), BAD_DATA, 'line 3, column 2 ("b")')

    def test_a_column_with_late_text_is_read_twice_from_a_compressed_file(self):
        # Text past the first megabyte makes the tool read the file again
        # without that column: a compressed file can be, standard input not.
        late = gzip.compress(b"a,b\n" + b"1,2\n" * 400000 + b"3,oops\n")
        path = self.write("late.csv.gz", late)
        self.assertIn('"name": "b", "reason": "holds text (line 400002', run_ok(path, "-f", "json"))
        self.assertFails(run("-", stdin=late), BAD_DATA,
                         "needs its numeric columns named with --columns")


if __name__ == "__main__":
    unittest.main()
