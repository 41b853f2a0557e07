#!/usr/bin/env python3
"""The Python module against NumPy and pandas on one table.

    PYTHONPATH=build/release/python /usr/bin/python3 bench/python_describe.py [--rows N] [--columns K]

Complete data (rows x columns of normal numbers, C order): vorel.describe on 1
and 2 threads against np.cov + mean + min + max of the same array, and on 2
threads the same array in Fortran order. Then with
5 % of the cells NaN at random: vorel.describe(deletion="pairwise") against
pandas DataFrame.cov(). Each figure is the best of --repeat runs (wall clock,
with the processor time of that run); the ratios are of figures from this one
run. The load average is printed with them, since other work on the machine
slows every contender.
"""

import argparse
import os
import time

import numpy as np
import pandas as pd

import vorel


class Timing:
    """The best wall-clock time of some runs, and the processor time (all
    threads of the process) of that run: on a loaded machine the wall clock
    counts the waits for a core too, the processor time does not."""

    def __init__(self, call, repeat):
        self.wall = self.cpu = float("inf")
        for _ in range(repeat):
            start, start_cpu = time.perf_counter(), time.process_time()
            call()
            wall, cpu = time.perf_counter() - start, time.process_time() - start_cpu
            if wall < self.wall:
                self.wall, self.cpu = wall, cpu

    def line(self, name, reference=None, against=""):
        text = f"  {name:28s}{self.wall:8.3f} s wall {self.cpu:8.3f} s cpu"
        if reference is not None:
            text += f"   {reference.wall / self.wall:5.2f}x {against} (cpu {reference.cpu / self.cpu:5.2f}x)"
        return text


def numpy_figures(x):
    return np.cov(x, rowvar=False), x.mean(axis=0), x.min(axis=0), x.max(axis=0)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--rows", type=int, default=1_000_000)
    parser.add_argument("--columns", type=int, default=50)
    parser.add_argument("--repeat", type=int, default=3)
    parser.add_argument("--pandas-repeat", type=int, default=1)
    args = parser.parse_args()

    rng = np.random.default_rng(20261124)
    x = rng.normal(size=(args.rows, args.columns))
    print(f"{args.rows} rows x {args.columns} columns; vorel {vorel.__version__}, "
          f"NumPy {np.__version__}, pandas {pd.__version__}; {os.cpu_count()} CPUs; "
          f"load average {os.getloadavg()[0]:.2f}")

    # Same answers first: a benchmark of wrong figures measures nothing.
    r = vorel.describe(x, threads=2)
    cov, mean, lo, hi = numpy_figures(x)
    assert np.allclose(r.cov, cov, rtol=0, atol=1e-12) and np.allclose(r.mean, mean, atol=1e-14)
    assert np.array_equal(r.min, lo) and np.array_equal(r.max, hi)

    t_numpy = Timing(lambda: numpy_figures(x), args.repeat)
    t_one = Timing(lambda: vorel.describe(x, threads=1), args.repeat)
    t_two = Timing(lambda: vorel.describe(x, threads=2), args.repeat)
    print("complete data")
    print(t_numpy.line("np.cov + mean + min + max"))
    print(t_one.line("vorel.describe, 1 thread", t_numpy, "NumPy"))
    print(t_two.line("vorel.describe, 2 threads", t_numpy, "NumPy"))
    # Column by column (Fortran order, a DataFrame's own layout) is read in place too.
    columns = np.asfortranarray(x)
    t_columns = Timing(lambda: vorel.describe(columns, threads=2), args.repeat)
    print(t_columns.line("  the same, Fortran order", t_numpy, "NumPy"))
    del columns

    x[rng.random(x.shape) < 0.05] = np.nan
    frame = pd.DataFrame(x)
    r = vorel.describe(frame, deletion="pairwise", threads=2)
    t_pandas = Timing(lambda: frame.cov(), args.pandas_repeat)
    expected = frame.cov()
    assert np.allclose(r.cov, expected.to_numpy(), rtol=0, atol=1e-12)
    t_pair_one = Timing(lambda: vorel.describe(frame, deletion="pairwise", threads=1), args.repeat)
    t_pair_two = Timing(lambda: vorel.describe(frame, deletion="pairwise", threads=2), args.repeat)
    print("5 % of cells missing, pairwise deletion")
    print(t_pandas.line("DataFrame.cov()"))
    print(t_pair_one.line("vorel.describe, 1 thread", t_pandas, "pandas"))
    print(t_pair_two.line("vorel.describe, 2 threads", t_pandas, "pandas"))
    print(f"load average at the end {os.getloadavg()[0]:.2f}")


if __name__ == "__main__":
    main()
