"""The dask filters against the in-memory call: every filter and type, chunkings
on both sides of a vector and of the halo, the threaded and the distributed
scheduler, and a worker process lost while a graph runs."""

import logging
import os
import signal
import time

import dask
import dask.array as da
import numpy as np
import pytest
from distributed import Client, LocalCluster

import flatmorph
import flatmorph.dask as fmd
from conftest import DTYPES, FILTERS, FOOTPRINTS, custom_pads, sample_image
from test_filters import assert_same

SHAPE = (24, 70)
# Chunks of 12 columns make narrow tiles; of 28, tiles wider than a uint8
# vector around outputs narrower than one; then uneven chunks, with one of a
# single column, and the whole image as one chunk.
CHUNKINGS = ((8, 12), (12, 28), ((3, 16, 5), (37, 1, 32)), SHAPE)
# (footprint, pads) pairs: odd and neutral, even and sparse with pads that show.
CASES = (("disk5", False), ("sparse5x4", True))


def lazy_results(name, image, footprint, pads, chunkings):
    function = getattr(fmd, name)
    low, high = pads or (None, None)
    return [function(da.from_array(image, chunks=c), footprint, low_pad=low, high_pad=high) for c in chunkings]


def expected(name, image, footprint, pads):
    low, high = pads or (None, None)
    return getattr(flatmorph, name)(image, footprint, low_pad=low, high_pad=high)


@pytest.mark.parametrize("name", FILTERS)
def test_every_chunking_equals_the_in_memory_call(name):
    for dtype in DTYPES:
        image = sample_image(dtype, SHAPE)
        for fp_name, with_pads in CASES:
            pads = custom_pads(dtype) if with_pads else None
            want = expected(name, image, FOOTPRINTS[fp_name], pads)
            results = dask.compute(*lazy_results(name, image, FOOTPRINTS[fp_name], pads, CHUNKINGS),
                                   scheduler="threads")
            for chunks, result in zip(CHUNKINGS, results):
                assert_same(result, want, f"{dtype} {fp_name} chunks {chunks}")


@pytest.mark.parametrize("name", FILTERS)
def test_chunks_thinner_than_the_halo(name):
    # One row and two columns a chunk against halos of up to 3 (the even
    # footprint's are unequal): the chunks are merged up to the halo first. An
    # image no taller than the 6-row halo of a 7 x 1 line's two-stage filters
    # is one chunk along that axis.
    for dtype in DTYPES:
        for shape, fp_name in (((9, 20), "even4x2"), ((5, 12), "line1x7")):
            image = sample_image(dtype, shape, seed=5)
            footprint = FOOTPRINTS[fp_name] if fp_name != "line1x7" else FOOTPRINTS[fp_name].T
            want = expected(name, image, footprint, None)
            (result,) = dask.compute(*lazy_results(name, image, footprint, None, [(1, 2)]), scheduler="sync")
            assert_same(result, want, f"{dtype} {shape} {fp_name}")


def test_halo_is_the_reach_of_the_footprint():
    # (top, bottom), (left, right) for a footprint of 5 rows and 4 columns,
    # origin (2, 1): a dilation reads 2 left and 1 right of a sample (the
    # reflected footprint), an erosion 1 left and 2 right; a two-stage filter
    # reads both stages' reach, the footprint's extent less one on every side.
    uint8 = np.dtype(np.uint8)
    assert fmd.halo("imdilate", uint8, (5, 4), "none") == ((2, 2), (2, 1))
    assert fmd.halo("imerode", uint8, (5, 4), "none") == ((2, 2), (1, 2))
    for name in ("imopen", "imclose", "imtophat", "imbothat"):
        assert fmd.halo(name, uint8, (5, 4), "none") == ((4, 4), (3, 3)), name


def test_bad_dask_input_is_refused_before_anything_runs():
    image = da.zeros((10, 10), chunks=5, dtype=np.int64)
    with pytest.raises(TypeError, match="unsupported image type"):
        fmd.dilation(image, FOOTPRINTS["disk5"])
    with pytest.raises(ValueError, match="only 0 and 1"):
        fmd.dilation(image.astype(np.uint8), FOOTPRINTS["disk5"] * 3)
    with pytest.raises(TypeError, match="dask array"):
        fmd.dilation(np.zeros((10, 10), np.uint8), FOOTPRINTS["disk5"])


@pytest.fixture(scope="module")
def client():
    cluster = LocalCluster(n_workers=2, threads_per_worker=1, processes=True, dashboard_address=None,
                           scheduler_port=0, silence_logs=logging.ERROR)
    with cluster, Client(cluster) as client:
        yield client


@pytest.mark.parametrize("name", FILTERS)
def test_distributed_workers_equal_the_in_memory_call(client, name):
    chunkings = CHUNKINGS[1:3]
    lazy, wanted, labels = [], [], []
    for index, dtype in enumerate(DTYPES):
        image = sample_image(dtype, SHAPE, seed=7)
        fp_name, with_pads = CASES[index % 2]
        pads = custom_pads(dtype) if with_pads else None
        lazy += lazy_results(name, image, FOOTPRINTS[fp_name], pads, chunkings)
        wanted += [expected(name, image, FOOTPRINTS[fp_name], pads)] * len(chunkings)
        labels += [f"{dtype} {fp_name} chunks {c}" for c in chunkings]
    for result, want, label in zip(client.gather(client.compute(lazy)), wanted, labels):
        assert_same(result, want, label)


def _slowly(block):
    time.sleep(0.15)
    return block


def test_a_killed_worker_leaves_the_result_bit_identical(client):
    image = sample_image(np.dtype(np.uint16), (96, 200), seed=11)
    slow_source = da.from_array(image, chunks=(24, 50)).map_blocks(_slowly, dtype=image.dtype)
    future = client.compute(fmd.white_tophat(slow_source, FOOTPRINTS["disk5"]))
    pids = client.run(os.getpid)
    victim = sorted(pids)[0]
    # Wait until the victim holds finished tiles of this graph, then kill its process.
    while not client.has_what()[victim]:
        time.sleep(0.01)
    assert not future.done(), "the graph must still be running when the worker dies"
    os.kill(pids[victim], signal.SIGKILL)
    assert_same(future.result(timeout=120), flatmorph.white_tophat(image, FOOTPRINTS["disk5"]))
    assert victim not in client.scheduler_info()["workers"], "the killed worker is gone"
