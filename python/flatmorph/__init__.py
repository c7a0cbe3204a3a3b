"""Grey-scale morphology by a flat footprint on numpy arrays, through the
flatmorph library: exact, the same bit for bit on every instruction-set tag.

    dilation, erosion, opening, closing, white_tophat, black_tophat

`flatmorph.dask` has the same six filters for dask arrays.
"""

from ._filters import (
    LIBRARY_NAMES,
    LibraryError,
    black_tophat,
    closing,
    dilation,
    erosion,
    opening,
    origin,
    tags,
    white_tophat,
)

__all__ = [
    "LIBRARY_NAMES",
    "LibraryError",
    "black_tophat",
    "closing",
    "dilation",
    "erosion",
    "opening",
    "origin",
    "tags",
    "white_tophat",
]
