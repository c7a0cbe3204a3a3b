"""The six filters on dask arrays, lazily, bit for bit the in-memory call's.

Each output chunk is computed from its own input chunk grown by the halo that
the library's bounds query gives for the footprint: the image region a call
reads around its output, one number per side (unequal for even footprint
sides, and for the two-stage filters the reach of both stages). The grown
block is passed to the library as an image of its own at (0, 0), with the
chunk as the output region inside it. A block edge that is not the image's
edge lies at least a halo away from the chunk, so nothing the chunk depends
on reaches it; where the block touches the image's edge (dask's
boundary='none' adds nothing there), the library's own border rules apply
exactly as in the whole-image call, the pads included.

Chunks thinner than the halo are merged with their neighbours first, so the
result may be chunked more coarsely than the input along such an axis.
"""

import functools

import dask.array as da
import numpy as np
from dask.array.overlap import ensure_minimum_chunksize

from . import _filters, _flatmorph

# A probe output this wide is at least one vector of every element type and
# tag, so the query's answer carries no widening for short rows.
_PROBE_WIDTH = 128


def halo(name, dtype, footprint_shape, tag):
    """((top, bottom), (left, right)): how far the image samples a call of the
    library filter `name` reads reach beyond its output, for a footprint of
    `footprint_shape` (rows, columns)."""
    rows, columns = footprint_shape
    margin = max(rows, columns) + _PROBE_WIDTH
    side = 2 * margin + _PROBE_WIDTH
    output = (margin, _PROBE_WIDTH, margin, _PROBE_WIDTH)
    (x, width, y, height), _ = _flatmorph.query(name, dtype, tag, (0, side, 0, side), columns, rows, output)
    end = margin + _PROBE_WIDTH
    # An empty footprint reads less than the output itself: no halo.
    return ((max(margin - y, 0), max(y + height - end, 0)), (max(margin - x, 0), max(x + width - end, 0)))


def filter_region(name, tile, strel, top, left, height, width, low, high, tag):
    """The output samples [top, top + height) x [left, left + width) of the
    filter over `tile` as a whole image at (0, 0)."""
    out = np.empty((height, width), tile.dtype)
    (_, need_width, _, _), (_, out_width, _, _) = _flatmorph.query(
        name, tile.dtype, tag, (0, tile.shape[1], 0, tile.shape[0]), strel.shape[1], strel.shape[0],
        (left, width, top, height))
    if out_width == width:
        _filters.run_into(name, tile, strel, out, left, top, low, high, tag)
        return out
    # A wide tile stores whole vectors: an output narrower than one vector is
    # computed one vector wide, inside the tile (the hats read the image at
    # every output column), and cut out.
    start = min(left, tile.shape[1] - out_width)
    wide = np.empty((height, out_width), tile.dtype)
    _filters.run_into(name, tile, strel, wide, start, top, low, high, tag)
    out[:] = wide[:, left - start : left - start + width]
    return out


def _filter_block(block, name, strel, low, high, tag, chunks, depth, block_id):
    row, column = block_id
    top = depth[0][0] if row > 0 else 0
    left = depth[1][0] if column > 0 else 0
    block = _filters.readable(block, _filters.element_type(block.dtype))
    tag = _filters.resolve_tag(tag)
    return filter_region(name, block, strel, top, left, chunks[0][row], chunks[1][column], low, high, tag)


def _fit_chunks(x, depth):
    """Rechunks `x` so that every chunk is at least as thick as the halo it
    shares; an axis no longer than its halo becomes one chunk with no halo."""
    chunks, fitted = [], []
    for extent, axis_chunks, (before, after) in zip(x.shape, x.chunks, depth):
        thickness = max(before, after)
        if thickness >= extent:
            chunks.append((extent,))
            fitted.append((0, 0))
        else:
            chunks.append(ensure_minimum_chunksize(thickness, axis_chunks))
            fitted.append((before, after))
    return x.rechunk(tuple(chunks)), tuple(fitted)


def apply(name, x, footprint, low_pad, high_pad, tag):
    if not isinstance(x, da.Array):
        raise TypeError(f"expected a dask array, got {type(x).__name__}")
    _filters.check_image_shape(x.shape)
    dtype = _filters.element_type(x.dtype)
    strel = _filters.mask(footprint)
    local_tag = _filters.resolve_tag(tag)
    low, high = _filters.pad(low_pad, "low_pad"), _filters.pad(high_pad, "high_pad")
    if 0 in x.shape:
        return x.astype(dtype)
    x, depth = _fit_chunks(x, halo(name, dtype, strel.shape, local_tag))
    # tag None lets each worker pick the widest its own processor runs.
    block_filter = functools.partial(
        _filter_block, name=name, strel=strel, low=low, high=high, tag=tag, chunks=x.chunks, depth=depth)
    return da.map_overlap(
        block_filter, x, depth={0: depth[0], 1: depth[1]}, boundary="none", trim=False, dtype=dtype,
        meta=np.empty((0, 0), dtype))


def _documented(public_name):
    library_name = _filters.LIBRARY_NAMES[public_name]

    def filter_function(x, footprint, *, low_pad=None, high_pad=None, tag=None):
        return apply(library_name, x, footprint, low_pad, high_pad, tag)

    filter_function.__name__ = filter_function.__qualname__ = public_name
    filter_function.__doc__ = f"""flatmorph.{public_name} on a 2-D dask array, lazily.

    The result equals flatmorph.{public_name}(x.compute(), ...) bit for bit,
    for any chunking. Arguments as there; tag None lets each worker pick the
    widest tag its processor runs.
    """
    return filter_function


dilation = _documented("dilation")
erosion = _documented("erosion")
opening = _documented("opening")
closing = _documented("closing")
white_tophat = _documented("white_tophat")
black_tophat = _documented("black_tophat")
