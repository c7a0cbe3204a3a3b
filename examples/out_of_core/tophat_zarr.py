#!/usr/bin/python3
"""Rolling-ball style background removal on an image larger than comfortable
memory: a white top-hat with a disk, chunk by chunk on a Dask cluster, from a
zarr store into another.

By default it makes a synthetic 40000 x 40000 uint16 micrograph (3.2 GB) in
zarr, filters it on a LocalCluster of 2 worker processes, writes the result to
zarr with a progress bar, prints the throughput, and checks a sample of tiles
against the in-memory call. --size makes a smaller image for a quick try;
--scheduler runs the same code on an existing cluster (the store must then be
a path or URL every worker can reach).

    PYTHONPATH=build/python examples/out_of_core/tophat_zarr.py --size 4096
"""

import argparse
import os
import shutil
import tempfile
import time

import dask.array as da
import numpy as np
from distributed import Client, LocalCluster, progress

import flatmorph
import flatmorph.dask as fmd


def disk(radius):
    y, x = np.ogrid[-radius : radius + 1, -radius : radius + 1]
    return x * x + y * y <= radius * radius


def _synthetic_tile(block, block_info=None):
    """A tile of the synthetic micrograph at its place in the whole: a slowly
    varying background, bright round spots (the tile's own, from a seed of its
    position) and noise."""
    (top, bottom), (left, right) = block_info[None]["array-location"]
    y, x = np.ogrid[top:bottom, left:right]
    background = 9000 + 6000 * np.sin(x / 2900.0) * np.cos(y / 2300.0) + 0.05 * (x + y)
    rng = np.random.default_rng([top, left])
    tile = background + rng.normal(0, 120, block.shape)
    height, width = block.shape
    for cy, cx in rng.integers(0, [height, width], size=(height * width // 4000, 2)):
        spot = (slice(max(cy - 4, 0), min(cy + 5, height)), slice(max(cx - 4, 0), min(cx + 5, width)))
        yy, xx = np.ogrid[spot]
        tile[spot] += 20000 * np.exp(-((yy - cy) ** 2 + (xx - cx) ** 2) / 8.0)
    return np.clip(tile, 0, 65535).astype(np.uint16)


def make_image(client, path, size, chunk):
    """Writes the synthetic image to a zarr store at `path`."""
    canvas = da.zeros((size, size), dtype=np.uint16, chunks=chunk)
    image = canvas.map_blocks(_synthetic_tile, dtype=np.uint16)
    print(f"Writing a {size} x {size} uint16 image ({size * size * 2 / 1e9:.2f} GB) to {path}")
    future = client.compute(image.to_zarr(path, overwrite=True, compute=False))
    progress(future)
    future.result()


def check_tiles(source_path, result_path, footprint, samples, chunk, seed=0):
    """Compares `samples` chunks of the result (the image's corners among them)
    with the in-memory call on a window around each chunk; the window's margin,
    twice the footprint, is more than any sample of the chunk reads."""
    source = da.from_zarr(source_path)
    result = da.from_zarr(result_path)
    rows, columns = (len(c) for c in source.chunks)
    corners = [(0, 0), (0, columns - 1), (rows - 1, 0), (rows - 1, columns - 1)]
    rng = np.random.default_rng(seed)
    picks = corners + [tuple(p) for p in rng.integers(0, [rows, columns], size=(max(samples - 4, 0), 2))]
    margin = 2 * max(footprint.shape)
    height, width = source.shape
    for row, column in picks[:samples]:
        top, left = row * chunk, column * chunk
        bottom, right = min(top + chunk, height), min(left + chunk, width)
        y0, x0 = max(top - margin, 0), max(left - margin, 0)
        window = source[y0 : min(bottom + margin, height), x0 : min(right + margin, width)].compute()
        wanted = flatmorph.white_tophat(window, footprint)[top - y0 : bottom - y0, left - x0 : right - x0]
        if not np.array_equal(result[top:bottom, left:right].compute(), wanted):
            raise SystemExit(f"tile ({row}, {column}) differs from the in-memory call")
    return len(picks[:samples])


def run(client, store, size, chunk, radius, samples):
    """Makes the image, filters it, checks it; returns the filter's throughput
    in megapixels per second."""
    source_path, result_path = os.path.join(store, "image.zarr"), os.path.join(store, "tophat.zarr")
    make_image(client, source_path, size, chunk)
    footprint = disk(radius)
    tophat = fmd.white_tophat(da.from_zarr(source_path), footprint)
    print(f"White top-hat with a disk of radius {radius} ({footprint.sum()} elements) into {result_path}")
    start = time.perf_counter()
    future = client.compute(tophat.to_zarr(result_path, overwrite=True, compute=False))
    progress(future)
    future.result()
    seconds = time.perf_counter() - start
    megapixels = size * size / 1e6
    print(f"Filtered {megapixels:.0f} Mpixel in {seconds:.1f} s: {megapixels / seconds:.1f} Mpixel/s, "
          f"{2 * megapixels / seconds:.1f} MB/s read")
    checked = check_tiles(source_path, result_path, footprint, samples, chunk)
    print(f"{checked} tiles equal the in-memory call")
    return megapixels / seconds


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--size", type=int, default=40000, help="image side in pixels (default 40000)")
    parser.add_argument("--chunk", type=int, default=2048, help="chunk side in pixels (default 2048)")
    parser.add_argument("--radius", type=int, default=8, help="disk radius in pixels (default 8)")
    parser.add_argument("--workers", type=int, default=2, help="LocalCluster worker processes (default 2)")
    parser.add_argument("--memory-limit", default="2GB", help="memory limit of each local worker (default 2GB)")
    parser.add_argument("--scheduler", help="address of an existing cluster's scheduler, e.g. tcp://host:8786")
    parser.add_argument("--store", help="folder or URL for the zarr stores (default: a temporary folder)")
    parser.add_argument("--samples", type=int, default=8, help="tiles checked against the in-memory call")
    parser.add_argument("--keep", action="store_true", help="keep the zarr stores")
    args = parser.parse_args()

    store = args.store or tempfile.mkdtemp(prefix="flatmorph-out-of-core-")
    if args.scheduler:
        client = Client(args.scheduler)
    else:
        cluster = LocalCluster(n_workers=args.workers, threads_per_worker=1, memory_limit=args.memory_limit)
        client = Client(cluster)
    try:
        print(f"Cluster: {len(client.scheduler_info()['workers'])} workers, dashboard {client.dashboard_link}")
        run(client, store, args.size, args.chunk, args.radius, args.samples)
    finally:
        client.close()
        if not args.scheduler:
            cluster.close()
        if not args.keep and not args.store:
            shutil.rmtree(store, ignore_errors=True)


if __name__ == "__main__":
    main()
