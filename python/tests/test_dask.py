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
CODED = np.where(np.isnan(X), -99.0, X)  # NaN then a value, as is any cell
# Rows per chunk: one aligned with the block grid, partitions inside one
# block, a block spread over several partitions, one partition of all rows.
CHUNKS = {"even": 5000, "ragged": (1, 4095, 4097, 3, 2, 12_000, 19_805), "small": 997,
          "one": X.shape[0]}
CASES = {
    "listwise": dict(deletion="listwise"),
    "pairwise": dict(deletion="pairwise"),
    "groups pairwise": dict(deletion="pairwise", groups=G),
    "groups listwise": dict(deletion="listwise", groups=G),
    "code and regression weights": dict(deletion="pairwise", groups=G, missing=-99.0,
                                        reg_weights=np.linspace(0.5, 2.0, X.shape[0]), ddof=0),
}


def both(dask_data, case, **roles):
    """The Dask result and the one-process result of the same arguments;
    roles may give weights and groups in Dask's form."""
    kw = dict(CASES[case], weights=W)
    one = vorel.describe(CODED if "missing" in kw else X, **kw)
    return vorel.dask.describe(dask_data, threads=1, **dict(kw, **roles)), one


@pytest.mark.parametrize("chunks", CHUNKS)
@pytest.mark.parametrize("case", CASES)
def test_threaded_scheduler_gives_the_bits_of_one_process(chunks, case):
    with dask.config.set(scheduler="threads"):
        cells = da.from_array(CODED if "missing" in CASES[case] else X, chunks=(CHUNKS[chunks], 3))
        got, want = both(cells, case, weights=da.from_array(W, chunks=1000))
    assert bits(got) == bits(want)


FRAME = pd.DataFrame(X, columns=[f"x{c}" for c in range(X.shape[1])]).assign(g=G)
FRAME.insert(3, "w", W)


@pytest.fixture(scope="module", params=[2, 3], ids=lambda n: f"{n} workers")
def cluster(request):
    with distributed.LocalCluster(n_workers=request.param, threads_per_worker=1, processes=True,
                                  memory_limit="600MB", dashboard_address=None) as local:
        with distributed.Client(local, timeout=60) as client:
            yield client


@pytest.mark.parametrize("case", ["listwise", "pairwise", "groups pairwise", "groups listwise"])
def test_worker_processes_give_the_bits_of_one_process(cluster, case):
    # Partitions of a DataFrame are counted and their labels found first; the
    # blocks and accumulators made on the workers are pickled back.
    groups = "g" if "groups" in CASES[case] else None
    f = FRAME if groups else FRAME.drop(columns="g")
    kw = dict(weights="w", groups=groups, deletion=CASES[case]["deletion"])
    one = vorel.describe(f, **kw)
    got = vorel.dask.describe(dd.from_pandas(f, npartitions=9), threads=1, **kw)
    assert got.columns == one.columns and bits(got) == bits(one)


def test_a_partition_with_bad_data_raises_once_at_the_caller(cluster):
    w = W.copy()
    w[23_456] = -1.0
    with pytest.raises(ValueError, match="weights: needs values of 0 or more"):
        vorel.dask.describe(da.from_array(X, chunks=(3000, 7)), weights=w)
    # The next test goes on with the same cluster.


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
    got, want = both(da.concatenate(parts), "groups pairwise")
    assert os.path.exists(marker)
    assert bits(got) == bits(want)


@pytest.mark.parametrize("data, args, error, message", [
    (X, {}, TypeError, "Dask array or DataFrame"),
    (da.from_array(W), {}, ValueError, "2-D"),
    (da.from_array(X), dict(weights=W[:-1]), ValueError, "one value per row"),
    (dd.from_pandas(FRAME, npartitions=2), dict(weights="nothing"), ValueError, "name of a column"),
    (da.zeros((0, 3), chunks=(1, 3)), {}, ValueError, "no rows"),
])
def test_arguments_are_checked_before_any_work(data, args, error, message):
    with pytest.raises(error, match=message), dask.config.set(scheduler="threads"):
        vorel.dask.describe(data, **args)
