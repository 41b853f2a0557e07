"""The module keeps no references and no memory across calls, and lets other
Python threads run while it computes."""

import gc
import os
import resource
import sys
import threading
import time

import numpy as np
import pandas as pd

import vorel
from conftest import table


def max_rss_kib():
    return resource.getrusage(resource.RUSAGE_SELF).ru_maxrss


def test_repeated_calls_keep_no_references_and_no_memory(rng):
    x, w, g = table(rng, 20_000, 8)
    frame = pd.DataFrame(x)

    def calls():
        vorel.describe(x, weights=w, groups=g, deletion="pairwise")
        vorel.describe(frame)
        vorel.ByGroup().update(x, groups=g).merge(vorel.ByGroup().update(x, groups=g)).result()
        try:
            vorel.describe(x, weights=-w)
        except ValueError:
            pass

    for _ in range(5):  # warm up: caches, pandas' lazy imports
        calls()
    gc.collect()
    counts = [sys.getrefcount(a) for a in (x, w, g, frame)]
    rss = max_rss_kib()
    for _ in range(200):
        calls()
    gc.collect()
    assert [sys.getrefcount(a) for a in (x, w, g, frame)] == counts
    # 200 rounds of every call: any copy of the data kept per call (1.3 MB
    # for x alone) would add hundreds of megabytes. Under AddressSanitizer
    # freed memory waits in quarantine, so the resident size says nothing.
    if "asan" not in os.environ.get("LD_PRELOAD", ""):
        assert max_rss_kib() - rss < 20_000


def test_other_threads_run_while_describe_computes(rng):
    x = rng.normal(size=(1_000_000, 20))
    ticks = []
    done = threading.Event()

    def tick():
        while not done.is_set():
            ticks.append(time.perf_counter())
            time.sleep(0.001)

    ticker = threading.Thread(target=tick)
    ticker.start()
    try:
        time.sleep(0.05)
        start = time.perf_counter()
        vorel.describe(x, deletion="pairwise", threads=1)
        end = time.perf_counter()
    finally:
        done.set()
        ticker.join(timeout=10)
    during = [t for t in ticks if start < t < end]
    # With the GIL held the ticker would stop for the whole call.
    assert end - start > 0.05 and len(during) >= 5, (end - start, len(during))


def test_float64_data_is_read_in_place(rng):
    # 128 MB of data in three layouts: reading it must not copy it (the
    # batches take well under a megabyte per thread).
    x = rng.normal(size=(1_000_000, 16))
    for data in (x, np.asfortranarray(x), pd.DataFrame(x)):
        before = max_rss_kib()
        vorel.describe(data, threads=2)
        vorel.describe(data, deletion="pairwise", threads=2)
        assert max_rss_kib() - before < 32_000, type(data)
