#!/usr/bin/env python3
"""vorel.dask on local worker processes against vorel.describe in one process.

    PYTHONPATH=build/release/python /usr/bin/python3 bench/python_dask.py [--megabytes MB]

The data: the benchmark data set of the tool (vorel-gendata, 20 numeric
columns), read once with pandas. One process: vorel.describe on 2 threads.
Dask: a LocalCluster of 2 worker processes of 1 thread each, the DataFrame
persisted on it in --partitions partitions (so the pass is timed, not the
transfer of the data), vorel.dask.describe on it; and the same rows as a Dask
array, whose partitions' offsets are known without a first pass. Both give
the same bits, which is checked.

Then the cost of the exchange of states at 20 and 200 columns: the pickled
forest of one partition of --partition-rows rows (bytes, and the time to
pickle, unpickle and combine it) against the time to reduce its rows.
Best of --repeat runs; the load average is printed with the figures.
"""

import argparse
import os
import pickle
import subprocess
import sys
import tempfile
import time

import numpy as np
import pandas as pd

import dask.array as da
import dask.dataframe as dd
import distributed

import vorel
import vorel.dask
from vorel import _core

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))


def best(call, repeat):
    seconds = float("inf")
    for _ in range(repeat):
        start = time.perf_counter()
        call()
        seconds = min(seconds, time.perf_counter() - start)
    return seconds


def bits(result):
    return [value.tobytes() for value in vars(result).values() if isinstance(value, np.ndarray)]


def benchmark_frame(megabytes, build):
    gendata = os.path.join(build, "tools", "vorel-gendata")
    with tempfile.TemporaryDirectory(prefix="vorel-bench-") as scratch:
        path = os.path.join(scratch, "bench.csv")
        subprocess.run([gendata, "--megabytes", str(megabytes), "--output", path], check=True,
                       stdout=subprocess.DEVNULL)
        frame = pd.read_csv(path)
    return frame.select_dtypes("number")


def passes(frame, args):
    one = best(lambda: vorel.describe(frame, threads=2), args.repeat)
    whole = vorel.describe(frame, threads=2)
    with distributed.LocalCluster(n_workers=2, threads_per_worker=1, processes=True,
                                  dashboard_address=None) as cluster, distributed.Client(cluster):
        parts = dd.from_pandas(frame, npartitions=args.partitions).persist()
        array = da.from_array(frame.to_numpy(), chunks=(-(-len(frame) // args.partitions), -1))
        array = array.persist()
        distributed.wait([parts, array])
        assert bits(vorel.dask.describe(parts, threads=1)) == bits(whole)
        assert bits(vorel.dask.describe(array, threads=1)) == bits(whole)
        on_frame = best(lambda: vorel.dask.describe(parts, threads=1), args.repeat)
        on_array = best(lambda: vorel.dask.describe(array, threads=1), args.repeat)
    print(f"{len(frame)} rows x {frame.shape[1]} columns, {args.partitions} partitions; "
          f"best of {args.repeat}")
    print(f"  vorel.describe, 1 process x 2 threads     {one:7.3f} s")
    print(f"  vorel.dask, 2 processes x 1 thread, frame {on_frame:7.3f} s  ({on_frame / one:4.2f}x)")
    print(f"  vorel.dask, 2 processes x 1 thread, array {on_array:7.3f} s  ({on_array / one:4.2f}x)")


def exchange(columns, rows, pairwise, repeat):
    x = np.random.default_rng(columns).normal(size=(rows, columns))
    if pairwise:
        x[np.random.default_rng(1).random(x.shape) < 0.05] = np.nan
    block = _core.block_rows(columns)

    def reduce(first_block):
        return _core.Forest(x, None, None, None, pairwise, None, False, 1, first_block)

    forest = reduce(7)  # a partition that starts at block 7 of the data
    reduce_time = best(lambda: reduce(7), repeat)
    state = pickle.dumps(forest)
    round_trip = best(lambda: pickle.loads(pickle.dumps(forest)), repeat)
    neighbour = pickle.dumps(reduce(7 + forest.block_count))
    pairs = [(pickle.loads(state), pickle.loads(neighbour)) for _ in range(repeat)]
    combine_time = best(lambda: (lambda left, right: left.combine(right))(*pairs.pop()), repeat)
    kind = "pairwise" if pairwise else "listwise"
    print(f"  {columns:3d} columns, {kind:8s}: state {len(state) / 1e3:8.1f} kB"
          f" ({forest.block_count} blocks of {block} rows); pickle + unpickle"
          f" {round_trip * 1e3:6.2f} ms, combine {combine_time * 1e3:6.2f} ms;"
          f" reducing the rows {reduce_time * 1e3:7.1f} ms"
          f" (exchange {(round_trip + combine_time) / reduce_time * 100:4.1f} % of it)")

def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--megabytes", type=float, default=200)
    parser.add_argument("--partitions", type=int, default=8)
    parser.add_argument("--partition-rows", type=int, default=100_000)
    parser.add_argument("--repeat", type=int, default=3)
    parser.add_argument("--build", default=os.path.join(ROOT, "build", "release"))
    args = parser.parse_args()
    print(f"vorel {vorel.__version__}, {os.cpu_count()} CPUs, "
          f"load average {os.getloadavg()[0]:.2f}")
    passes(benchmark_frame(args.megabytes, args.build), args)
    print(f"exchange of states, one partition of {args.partition_rows} rows")
    for columns in (20, 200):
        for pairwise in (False, True):
            exchange(columns, args.partition_rows, pairwise, args.repeat)
    print(f"load average at the end {os.getloadavg()[0]:.2f}")
    sys.stdout.flush()


if __name__ == "__main__":
    main()
