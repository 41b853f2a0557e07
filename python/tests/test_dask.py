"""vorel.dask.describe gives the bits of vorel.describe on the whole data,
whatever the partitions, the scheduler and the number of worker processes."""

import faulthandler
import os

import numpy as np
import pandas as pd
import pytest

# Skipped where Dask is not installed; continuous integration installs it, and
# there a missing Dask is a failure.
if os.environ.get("VOREL_CI") == "1":
    import dask
    import distributed
else:
    dask = pytest.importorskip("dask")
    distributed = pytest.importorskip("distributed")
import dask.array as da  # noqa: E402
import dask.dataframe as dd  # noqa: E402

import vorel  # noqa: E402
import vorel.dask  # noqa: E402
from conftest import bits, table  # noqa: E402

# Every test is bounded: a hang dumps the stacks and ends the run.
TEST_SECONDS = 240


@pytest.fixture(autouse=True)
def bounded():
    faulthandler.dump_traceback_later(TEST_SECONDS, exit=True)
    yield
    faulthandler.cancel_dump_traceback_later()


X, W, G = table(np.random.default_rng(5), 40_003, 7)
# Rows per chunk: one aligned with the block grid, partitions inside one
# block, a block spread over several partitions, one partition of all rows.
CHUNKS = {
    "even": 5000,
    "ragged": (1, 4095, 4097, 3, 2, 12_000, 19_805),
    "small": 997,
    "one": X.shape[0],
}
CASES = [dict(deletion="listwise"), dict(deletion="pairwise"),
         dict(deletion="pairwise", groups=True), dict(deletion="listwise", groups=True)]


def both(dask_data, case, **roles):
    """The Dask result and the one-process result of the same arguments."""
    groups = G if case.get("groups") else None
    one = vorel.describe(X, weights=W, groups=groups, deletion=case["deletion"])
    kw = dict(weights=roles.get("weights", W), deletion=case["deletion"], threads=1)
    if groups is not None:
        kw["groups"] = roles.get("groups", groups)
    return vorel.dask.describe(dask_data, **kw), one


@pytest.mark.parametrize("chunks", CHUNKS)
@pytest.mark.parametrize("case", CASES, ids=lambda c: "-".join(map(str, c.values())))
def test_threaded_scheduler_gives_the_bits_of_one_process(chunks, case):
    with dask.config.set(scheduler="threads"):
        got, want = both(da.from_array(X, chunks=(CHUNKS[chunks], 3)), case,
                         weights=da.from_array(W, chunks=1000))
    assert bits(got) == bits(want)


def test_a_missing_code_and_regression_weights_give_the_bits_of_one_process():
    x = np.where(np.isnan(X), -99.0, X)
    rw = np.linspace(0.5, 2.0, X.shape[0])
    kw = dict(weights=W, reg_weights=rw, groups=G, deletion="pairwise", missing=-99.0, ddof=0)
    with dask.config.set(scheduler="threads"):
        got = vorel.dask.describe(da.from_array(x, chunks=(CHUNKS["ragged"], 7)), threads=1, **kw)
    assert bits(got) == bits(vorel.describe(x, **kw))


def frame():
    f = pd.DataFrame(X, columns=[f"x{c}" for c in range(X.shape[1])])
    f.insert(3, "w", W)
    f["g"] = G
    return f


@pytest.fixture(scope="module", params=[2, 3], ids=lambda n: f"{n} workers")
def cluster(request):
    with distributed.LocalCluster(n_workers=request.param, threads_per_worker=1, processes=True,
                                  memory_limit="600MB", dashboard_address=None) as local:
        with distributed.Client(local, timeout=60) as client:
            yield client


@pytest.mark.parametrize("case", CASES, ids=lambda c: "-".join(map(str, c.values())))
def test_worker_processes_give_the_bits_of_one_process(cluster, case):
    for chunks in ("ragged", "small"):
        got, want = both(da.from_array(X, chunks=(CHUNKS[chunks], X.shape[1])), case)
        assert bits(got) == bits(want), chunks
    groups = "g" if case.get("groups") else None
    f = frame() if groups else frame().drop(columns="g")
    one = vorel.describe(f, weights="w", groups=groups, deletion=case["deletion"])
    got = vorel.dask.describe(dd.from_pandas(f, npartitions=9), weights="w", groups=groups,
                              deletion=case["deletion"], threads=1)
    assert got.columns == one.columns and bits(got) == bits(one)


def test_a_partition_with_bad_data_raises_once_at_the_caller(cluster):
    w = W.copy()
    w[23_456] = -1.0
    with pytest.raises(ValueError, match="weights: needs values of 0 or more"):
        vorel.dask.describe(da.from_array(X, chunks=(3000, 7)), weights=w)
    # The cluster is still in working order.
    got, want = both(da.from_array(X, chunks=(6000, 7)), CASES[0])
    assert bits(got) == bits(want)


def chunk_that_kills_its_worker_once(x, marker):
    """The rows of a chunk, the first time after ending the worker's process."""
    try:
        os.close(os.open(marker, os.O_CREAT | os.O_EXCL))
    except FileExistsError:
        return x
    os._exit(1)


def test_a_worker_that_dies_mid_pass_is_replaced_with_the_same_result(cluster, tmp_path):
    marker = str(tmp_path / "died")
    rows = [X[lo:lo + 5000] for lo in range(0, X.shape[0], 5000)]
    parts = [da.from_delayed(dask.delayed(chunk_that_kills_its_worker_once)(part, marker)
                             if at == 3 else dask.delayed(part), part.shape, X.dtype)
             for at, part in enumerate(rows)]
    got, want = both(da.concatenate(parts), CASES[2])
    assert os.path.exists(marker)
    assert bits(got) == bits(want)


@pytest.mark.parametrize("data, args, error, message", [
    (X, {}, TypeError, "Dask array or DataFrame"),
    (da.from_array(W), {}, ValueError, "2-D"),
    (da.from_array(X), dict(weights=W[:-1]), ValueError, "one value per row"),
    (dd.from_pandas(frame(), npartitions=2), dict(weights="nothing"), ValueError, "name of a column"),
    (da.zeros((0, 3), chunks=(1, 3)), {}, ValueError, "no rows"),
])
def test_arguments_are_checked_before_any_work(data, args, error, message):
    with pytest.raises(error, match=message), dask.config.set(scheduler="threads"):
        vorel.dask.describe(data, **args)
