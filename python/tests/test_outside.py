"""Against outside implementations: scipy.ndimage's grey dilation and erosion,
scikit-image's top-hats, with footprints, borders and origins matched.

Where conventions differ the comparison is narrowed, each for the reason given:
- NaN: images are NaN-free; scipy's and skimage's max and min treat NaN their
  own way, ours keeps the value the last comparison leaves (tested against the
  reference model in test_filters).
- bool: scipy's grey filters do not take bool images.
"""

import numpy as np
import pytest
import scipy.ndimage as ndi
import skimage.morphology as skm

import flatmorph
from conftest import FOOTPRINTS, custom_pads, sample_image
from reference import neutral
from test_filters import assert_same

NUMBER_TYPES = tuple(np.dtype(t) for t in ("int8", "uint8", "int16", "uint16", "int32", "uint32", "float32", "float64"))
SCIPY_FOOTPRINTS = ("disk5", "even4x2", "sparse5x4", "line1x7", "single")


def finite_image(dtype, shape=(23, 61)):
    image = sample_image(dtype, shape, seed=2)
    return np.nan_to_num(image, nan=0.0, posinf=1e4) if dtype.kind == "f" else image


def scipy_origin(footprint):
    """Ours is the middle of an odd side and the element before the middle of
    an even one; scipy's origin 0 is the element at side // 2."""
    return [(side + 1) // 2 - 1 - side // 2 for side in footprint.shape]


def scipy_dilation(image, footprint, low):
    return ndi.grey_dilation(image, footprint=footprint, mode="constant", cval=low, origin=scipy_origin(footprint))


def scipy_erosion(image, footprint, high):
    return ndi.grey_erosion(image, footprint=footprint, mode="constant", cval=high, origin=scipy_origin(footprint))


def scipy_closing(image, footprint, low, high):
    # Our closing's first dilation reaches past the border (its intermediate is
    # the image grown by the footprint), so scipy works on the image padded
    # with the low pad and is cut back.
    rows, columns = footprint.shape
    grown = np.pad(image, ((rows, rows), (columns, columns)), constant_values=low)
    closed = scipy_erosion(scipy_dilation(grown, footprint, low), footprint, high)
    return closed[rows : rows + image.shape[0], columns : columns + image.shape[1]]


# Each stage pads with its own value; scipy's grey_opening and grey_closing take
# one cval for both stages, so they are composed from two calls here.
SCIPY_MODELS = {
    "dilation": lambda image, fp, low, high: scipy_dilation(image, fp, low),
    "erosion": lambda image, fp, low, high: scipy_erosion(image, fp, high),
    "opening": lambda image, fp, low, high: scipy_dilation(scipy_erosion(image, fp, high), fp, low),
    "closing": scipy_closing,
}


@pytest.mark.parametrize("dtype", NUMBER_TYPES, ids=str)
@pytest.mark.parametrize("name", SCIPY_MODELS)
def test_scipy_grey_filters_agree(name, dtype):
    image = finite_image(dtype)
    for fp_name in SCIPY_FOOTPRINTS:
        footprint = FOOTPRINTS[fp_name]
        for low, high in ((neutral(dtype, True), neutral(dtype, False)), custom_pads(dtype)):
            ours = getattr(flatmorph, name)(image, footprint, low_pad=low, high_pad=high)
            assert_same(ours, SCIPY_MODELS[name](image, footprint, low, high), f"{fp_name} pads {low}, {high}")


# skimage mirrors the footprint for its dilation, pads by reflection and
# subtracts in the image's type: point-symmetric footprints with odd sides make
# the first two match ours (a reflected sample lies under the footprint too),
# and unsigned and float types keep the difference in range, where ours saturates.
SKIMAGE_TYPES = tuple(np.dtype(t) for t in ("uint8", "uint16", "uint32", "float32", "float64"))
SYMMETRIC_FOOTPRINTS = ("disk5", "line1x7", "single")


@pytest.mark.parametrize("dtype", SKIMAGE_TYPES, ids=str)
def test_skimage_white_tophat_agrees(dtype):
    image = finite_image(dtype)
    for fp_name in SYMMETRIC_FOOTPRINTS:
        footprint = FOOTPRINTS[fp_name]
        assert_same(flatmorph.white_tophat(image, footprint), skm.white_tophat(image, footprint), fp_name)


@pytest.mark.parametrize("dtype", SKIMAGE_TYPES, ids=str)
def test_skimage_black_tophat_agrees(dtype):
    # Our closing's dilation reaches past the border, skimage's reflects: it
    # gets the image padded with the lowest value, and the result is cut back.
    image = finite_image(dtype)
    for fp_name in SYMMETRIC_FOOTPRINTS:
        footprint = FOOTPRINTS[fp_name]
        rows, columns = 2 * np.array(footprint.shape)
        grown = np.pad(image, ((rows, rows), (columns, columns)), constant_values=neutral(dtype, True))
        with np.errstate(invalid="ignore"):  # -inf - -inf in the cut-away margin
            theirs = skm.black_tophat(grown, footprint)[rows:-rows, columns:-columns]
        assert_same(flatmorph.black_tophat(image, footprint), theirs, fp_name)
