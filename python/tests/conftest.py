import numpy as np
import pytest

import flatmorph
from flatmorph import _flatmorph

FILTERS = tuple(flatmorph.LIBRARY_NAMES)
DTYPES = tuple(
    np.dtype(name)
    for name in ("bool", "int8", "uint8", "int16", "uint16", "int32", "uint32", "float32", "float64")
)

# Footprints by kind: odd and even sides, sparse and asymmetric, wider than
# tall, one element, no active element, no element at all.
FOOTPRINTS = {
    "disk5": np.array([[0, 1, 1, 1, 0], [1, 1, 1, 1, 1], [1, 1, 1, 1, 1], [1, 1, 1, 1, 1], [0, 1, 1, 1, 0]], bool),
    "even4x2": np.ones((2, 4), np.uint8),
    "sparse5x4": np.array([[1, 0, 0, 0], [0, 0, 1, 0], [0, 0, 0, 0], [1, 1, 0, 0], [0, 0, 0, 1]], np.int32),
    "line1x7": np.ones((1, 7), bool),
    "single": np.ones((1, 1), bool),
    "no_active": np.zeros((3, 3), bool),
    "empty": np.zeros((0, 3), bool),
}


def sample_image(dtype, shape, seed=0):
    """Values over the type's whole range (so residuals saturate); float
    images hold a few NaNs and infinities."""
    rng = np.random.default_rng(seed)
    if dtype == np.bool_:
        return rng.random(shape) < 0.5
    if dtype.kind == "f":
        image = rng.normal(0, 1e3, shape).astype(dtype)
        image.flat[rng.choice(image.size, image.size // 20, replace=False)] = np.nan
        image.flat[rng.choice(image.size, image.size // 50, replace=False)] = np.inf
        return image
    info = np.iinfo(dtype)
    return rng.integers(info.min, info.max, shape, dtype=dtype, endpoint=True)


def custom_pads(dtype):
    """In-range pads that are not neutral, so they show in the result."""
    if dtype == np.bool_:
        return 1.0, 0.0
    if dtype.kind == "f":
        return 5.5, -7.25
    return (7.0, 9.0) if dtype.kind == "u" else (-3.0, 5.0)


def pytest_report_header():
    lines = []
    for tag in ("none", "avx", "avx2"):
        missing = _flatmorph.missing_features(tag)
        lines.append(f"flatmorph tag {tag}: " + (f"skipped, this processor lacks {missing}" if missing else "runs"))
    return lines


@pytest.fixture(params=("none", "avx", "avx2"))
def tag(request):
    missing = _flatmorph.missing_features(request.param)
    if missing:
        pytest.skip(f"tag {request.param}: this processor lacks {missing}")
    return request.param
