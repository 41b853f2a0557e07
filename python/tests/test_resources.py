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
    call = threading.Thread(target=vorel.describe, args=(x,),
                            kwargs={"deletion": "pairwise", "threads": 1})
    call.start()
    ticks = 0
    while call.is_alive():  # with the GIL held, this loop would stop for the whole call
        ticks += 1
        time.sleep(0.001)
    call.join()
    assert ticks >= 20, ticks


def test_float64_data_is_read_in_place(rng):
    # 128 MB of data in three layouts: reading it must not copy it (the
    # batches take well under a megabyte per thread).
    x = rng.normal(size=(1_000_000, 16))
    for data in (x, np.asfortranarray(x), pd.DataFrame(x)):
        before = max_rss_kib()
        vorel.describe(data, threads=2)
        vorel.describe(data, deletion="pairwise", threads=2)
        assert max_rss_kib() - before < 32_000, type(data)
