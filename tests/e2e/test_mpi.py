"""vorelstat under mpirun with local ranks: the report of K = 1 to 4 ranks is
byte-identical to one process on data where the order of the sums shows, with
group labels and the options of the report; a column that turns to text late,
quoted line ends across the ranks' cuts and a bad line give what one process
gives; a pipe and compressed input are refused; a rank that is killed ends the
job with an error, never a hang."""
import gzip
import os
import random
import shutil
import signal
import subprocess
import time
import unittest

from common import BAD_DATA, BAD_USAGE, BINARY, ScratchCase, run
from test_state import write_csv

MPIRUN = shutil.which("mpirun")
TIMEOUT = 120


def mpirun(ranks, *args, wrap=None):
    """Runs the tool on `ranks` local ranks; returns the completed process."""
    env = dict(os.environ)
    if os.geteuid() == 0:
        env.update(OMPI_ALLOW_RUN_AS_ROOT="1", OMPI_ALLOW_RUN_AS_ROOT_CONFIRM="1")
    command = [BINARY, *args] if wrap is None else wrap([BINARY, *args])
    return subprocess.Popen([MPIRUN, "--oversubscribe", "-n", str(ranks), *command], env=env,
                            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                            stderr=subprocess.PIPE, text=True)


def finish(process):
    out, err = process.communicate(timeout=TIMEOUT)
    return process.returncode, out, err


def one_process(*args):
    done = run(*args, timeout=TIMEOUT)
    return done.returncode, done.stdout, done.stderr


def write_late_text(path, rows, text_from):
    """Column `late` holds numbers, then a word from row text_from on."""
    rng = random.Random(2)
    with open(path, "w") as out:
        out.write("x,late,w,g\n")
        for row in range(rows):
            late = "n/a" if row >= text_from else repr(1e6 + rng.gauss(0, 1))
            out.write(f"{2.5e9 + rng.gauss(0, 1e-3)!r},{late},{rng.randint(1, 4)},"
                      f"{rng.randint(0, 4)}\n")


@unittest.skipIf(MPIRUN is None, "mpirun not found")
class UnderMpirun(ScratchCase):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.csv = cls.path("data.csv")
        write_csv(cls.csv, 6000, 1)

    def test_reports_of_one_to_four_ranks_are_the_one_process_bytes(self):
        # The data's group labels are of every kind; the options of the
        # report travel in the state.
        conventions = ["--ddof", "0", "--weight-kind", "analytic", "--group-order", "first",
                       "--exclude", "tiny", "--sections", "columns,groups,pooled"]
        for shape in (["-w", "w", "-g", "g", "--group-covariance", "-f", "json"],
                      ["-p", "-w", "w", "-g", "g", "-f", "table"],
                      ["-w", "w", "-g", "g", *conventions, "-f", "csv"]):
            args = [self.csv, "--block-size", "4k", *shape]
            code, expected, err = one_process(*args, "-j", "2")
            self.assertEqual(code, 0, err)
            for ranks in (1, 2, 3, 4):
                with self.subTest(shape=shape, ranks=ranks):
                    code, out, err = finish(mpirun(ranks, *args, "-j", "1"))
                    self.assertEqual(code, 0, err)
                    self.assertEqual(out, expected)

    def test_a_column_that_turns_to_text_late_and_the_saved_state(self):
        # Text after the first megabyte, which the columns are chosen from, in
        # the last rank's part: every rank reads again without the column.
        late = self.path("late.csv")
        write_late_text(late, 30000, 28000)
        with open(late) as handle:
            self.assertGreater(handle.read().index("n/a"), 1 << 20)
        code, expected, err = one_process(late, "-w", "w", "-g", "g", "-f", "json")
        self.assertEqual(code, 0, err)
        self.assertIn("line 28002", expected)
        state = self.path("late.state")
        code, out, err = finish(mpirun(3, late, "-w", "w", "-g", "g", "-f", "json",
                                       "--save-state", state))
        self.assertEqual(code, 0, err)
        self.assertEqual(out, expected)
        code, merged, err = one_process("merge", state, "-f", "json")
        self.assertEqual((code, merged), (0, expected), err)

    def test_quoted_line_ends_across_the_cuts_of_the_ranks(self):
        # Quoted fields that span lines, and so some cuts of one block per
        # chunk: a guessed cut inside quotes makes every rank read again.
        quoted = self.path("quoted.csv")
        rng = random.Random(4)
        with open(quoted, "w") as out:
            out.write("a,note,b,g\n")
            for _ in range(8000):
                note = '"' + "x\n1,2\n" * rng.randint(1, 30) + '"' if rng.random() < 0.3 else "-"
                out.write(f"{2.5e9 + rng.gauss(0, 1e-3)!r},{note},{rng.gauss(0, 1e4)!r},"
                          f"{rng.randint(0, 3)}\n")
        args = [quoted, "-c", "a,b", "-g", "g", "--block-size", "4k", "--read-size", "4k",
                "-f", "json"]
        code, expected, err = one_process(*args, "-j", "2")
        self.assertEqual(code, 0, err)
        for ranks in (2, 3):
            with self.subTest(ranks=ranks):
                code, out, err = finish(mpirun(ranks, *args, "-j", "1"))
                self.assertEqual((code, out), (0, expected), err)

    def test_a_bad_line_in_a_later_rank_is_one_error_with_its_line_in_the_file(self):
        bad = self.path("bad.csv")
        with open(self.csv) as source:
            lines = source.readlines()
        lines[5000] = "1,2,3,heavy,north\n"
        with open(bad, "w") as out:
            out.writelines(lines)
        expected = self.assertFails(run(bad, "-w", "w", "--block-size", "4k"), BAD_DATA, "line 5001")
        for ranks in (2, 4):
            with self.subTest(ranks=ranks):
                code, out, err = finish(mpirun(ranks, bad, "-w", "w", "--block-size", "4k"))
                self.assertEqual((code, out), (BAD_DATA, ""))
                self.assertEqual([line for line in err.splitlines()
                                  if line.startswith("vorelstat:")], [expected.strip()])

    def test_standard_input_and_compressed_input_are_refused(self):
        with open(self.csv, "rb") as plain:
            packed = self.write("data.csv.gz", gzip.compress(plain.read()))
        for source in ("-", packed):
            with self.subTest(source=source):
                code, out, err = finish(mpirun(2, source))
                self.assertEqual((code, out), (BAD_USAGE, ""))
                self.assertEqual(err.count("under MPI the input must be a regular file"), 1)

    def test_a_killed_rank_ends_the_job(self):
        big = self.path("big.csv")
        write_csv(big, 60000, 3)
        pids = self.path("pid")

        def rank_writes_its_pid(command):
            quoted = " ".join(f"'{part}'" for part in command)
            return ["sh", "-c", f'echo $$ > {pids}.$OMPI_COMM_WORLD_RANK; exec {quoted}']

        start = time.monotonic()
        process = mpirun(2, big, "-j", "1", "--block-size", "4k", wrap=rank_writes_its_pid)
        victim = None
        # Killed once it has the file open: in the middle of its pass.
        while victim is None and time.monotonic() - start < TIMEOUT:
            try:
                with open(pids + ".1") as handle:
                    pid = int(handle.read())
                if any(os.path.realpath(os.path.join(f"/proc/{pid}/fd", fd)) == os.path.realpath(big)
                       for fd in os.listdir(f"/proc/{pid}/fd")):
                    os.kill(pid, signal.SIGKILL)
                    victim = pid
            except (FileNotFoundError, ValueError, ProcessLookupError):
                pass
            time.sleep(0.001)
        code, out, err = finish(process)
        self.assertIsNotNone(victim, "rank 1 never opened the file")
        self.assertNotEqual(code, 0)
        self.assertEqual(out, "")
        self.assertIn("signal 9", err)


if __name__ == "__main__":
    unittest.main()
