"""The numpy functions against the reference model, and how they take arrays."""

import concurrent.futures

import numpy as np
import pytest
from numpy.lib.stride_tricks import as_strided

import flatmorph
from conftest import DTYPES, FILTERS, FOOTPRINTS, custom_pads, sample_image
from reference import MODELS, neutral


def assert_same(actual, expected, context=""):
    """Equal bit for bit, NaN included."""
    assert actual.dtype == expected.dtype, context
    assert actual.shape == expected.shape, context
    assert actual.tobytes() == expected.tobytes(), f"{context}: {np.argwhere(actual != expected)[:5].tolist()}"


# Shapes on the narrow path (at most one vector wide) and on the wide one.
SHAPES = ((6, 9), (19, 45))


@pytest.mark.parametrize("dtype", DTYPES, ids=str)
@pytest.mark.parametrize("name", FILTERS)
def test_results_equal_the_reference(name, dtype):
    """Every tag this processor runs (the report header names those skipped)."""
    function, model = getattr(flatmorph, name), MODELS[name]
    neutral_pads = (neutral(dtype, True), neutral(dtype, False))
    for shape in SHAPES:
        image = sample_image(dtype, shape)
        for fp_name, footprint in FOOTPRINTS.items():
            for low, high in ((None, None), custom_pads(dtype)):
                expected = model(image, footprint, *((low, high) if low is not None else neutral_pads))
                for tag in flatmorph.tags():
                    result = function(image, footprint, low_pad=low, high_pad=high, tag=tag)
                    assert_same(result, expected, f"{shape} {fp_name} pads {low}, {high} tag {tag}")


def _views(image):
    """Views of `image` (11 x 40) the library reads in place or after a copy."""
    big_endian = image.astype(image.dtype.newbyteorder(">"))
    read_only = image.copy()
    read_only.flags.writeable = False
    return {
        "window": image[2:-3, 1:-4],
        "every_other_row": image[::2],
        "rows_reversed": image[::-1],
        "every_other_column": image[:, ::2],
        "transposed": image.T,
        "fortran": np.asfortranarray(image),
        "big_endian": big_endian,
        "read_only": read_only,
        "repeated_row": np.broadcast_to(image[3], (7, image.shape[1])),
    }


@pytest.mark.parametrize("dtype", DTYPES, ids=str)
def test_views_equal_a_contiguous_copy(dtype, tag):
    image = sample_image(dtype, (11, 40))
    for view_name, view in _views(image).items():
        copy = np.ascontiguousarray(view, dtype=dtype)
        for name in FILTERS:
            function = getattr(flatmorph, name)
            fp = FOOTPRINTS["sparse5x4"]
            assert_same(function(view, fp, tag=tag), function(copy, fp, tag=tag), f"{view_name} {name}")


@pytest.mark.parametrize("name", FILTERS)
def test_out_receives_the_result(name):
    function = getattr(flatmorph, name)
    image = sample_image(np.dtype(np.float32), (13, 37))
    expected = function(image, FOOTPRINTS["disk5"])
    holder = np.full((20, 80), 99.0, np.float32)
    targets = {
        "contiguous": np.empty_like(image),
        "window_of_larger": holder[3:16, 5:42],
        "every_other_column": holder[3:16, 2:76:2],
    }
    for target_name, out in targets.items():
        returned = function(image, FOOTPRINTS["disk5"], out=out)
        assert returned is out, target_name
        assert_same(out.copy(), expected, target_name)
    assert np.all(holder[:3] == 99.0) and np.all(holder[16:] == 99.0), "rows around the windows untouched"


def test_integer_and_bool_footprints_agree():
    image = sample_image(np.dtype(np.uint16), (15, 50))
    footprint = FOOTPRINTS["sparse5x4"]
    for name in FILTERS:
        function = getattr(flatmorph, name)
        assert_same(function(image, footprint.astype(np.uint8)), function(image, footprint.astype(bool)), name)


@pytest.mark.parametrize("shape", ((0, 5), (4, 0), (0, 0)))
def test_empty_images_give_empty_results(shape):
    image = np.zeros(shape, np.int16)
    for name in FILTERS:
        result = getattr(flatmorph, name)(image, FOOTPRINTS["disk5"])
        assert result.shape == shape and result.dtype == np.int16


def test_calls_from_many_threads_are_correct():
    cases = [(name, dtype) for name in FILTERS for dtype in DTYPES]
    images = {dtype: sample_image(dtype, (64, 300), seed=3) for dtype in DTYPES}

    def filtered(case):
        name, dtype = case
        return getattr(flatmorph, name)(images[dtype], FOOTPRINTS["disk5"])

    expected = [filtered(case) for case in cases]
    with concurrent.futures.ThreadPoolExecutor(8) as pool:
        for _ in range(3):
            for case, result, wanted in zip(cases, pool.map(filtered, cases), expected):
                assert_same(result, wanted, str(case))


def test_origin_is_the_middle_or_just_before_it():
    assert [flatmorph.origin((side, side)) for side in (0, 1, 2, 3, 4, 5, 100, 101)] == [
        (-1, -1), (0, 0), (0, 0), (1, 1), (1, 1), (2, 2), (49, 49), (50, 50)]


# Bad input: (description, call arguments as a function of a valid image, out
# and footprint, exception type, words the message holds).
def _huge_rows(rows):
    return as_strided(np.zeros(1, np.uint8), shape=(rows, 1), strides=(0, 1))


def _read_only(array):
    view = array.view()
    view.flags.writeable = False
    return view


BAD_CALLS = [
    ("3-D image", lambda im, out, fp: (im[None], fp, {}), ValueError, "2-D"),
    ("1-D image", lambda im, out, fp: (im[0], fp, {}), ValueError, "2-D"),
    ("int64 image", lambda im, out, fp: (im.astype(np.int64), fp, {}), TypeError, "unsupported image type"),
    ("complex image", lambda im, out, fp: (im.astype(np.complex64), fp, {}), TypeError, "unsupported image type"),
    ("3-D footprint", lambda im, out, fp: (im, fp[None], {}), ValueError, "footprint must be 2-D"),
    ("footprint value 2", lambda im, out, fp: (im, fp * 2, {}), ValueError, "only 0 and 1"),
    ("float footprint", lambda im, out, fp: (im, fp.astype(float), {}), TypeError, "bool or integer"),
    ("out of another shape", lambda im, out, fp: (im[1:], fp, {"out": out}), ValueError, "shape"),
    ("out of another type", lambda im, out, fp: (im.astype(np.int16), fp, {"out": out}), TypeError, "type"),
    ("out not an array", lambda im, out, fp: (im, fp, {"out": out.tolist()}), TypeError, "numpy array"),
    ("out read-only", lambda im, out, fp: (im, fp, {"out": _read_only(out)}), ValueError, "read-only"),
    ("out is the image", lambda im, out, fp: (out, fp, {"out": out}), ValueError, "shares memory"),
    ("out overlaps the image", lambda im, out, fp: (out[:, :-1], fp, {"out": out[:, 1:]}), ValueError, "shares memory"),
    ("unknown tag", lambda im, out, fp: (im, fp, {"tag": "sse9"}), ValueError, "unknown tag"),
    ("pad not a number", lambda im, out, fp: (im, fp, {"low_pad": "dark"}), TypeError, "low_pad"),
    ("height past 32 bits", lambda im, out, fp: (_huge_rows(2**31), fp, {}), ValueError, "32-bit"),
]


@pytest.mark.parametrize("description, make_call, error, words", BAD_CALLS, ids=[c[0] for c in BAD_CALLS])
def test_bad_input_raises_and_writes_nothing(description, make_call, error, words):
    image = sample_image(np.dtype(np.uint8), (9, 40))
    out = np.full(image.shape, 123, np.uint8)
    before = out.copy()
    image_arg, footprint, options = make_call(image, out, FOOTPRINTS["disk5"].astype(np.uint8))
    for name in FILTERS:
        with pytest.raises(error, match=words):
            getattr(flatmorph, name)(image_arg, footprint, **options)
    assert_same(out, before, "out untouched")


def test_library_refusals_carry_the_runtime_message():
    # Images of 2^31 - 10 and 2^30 rows: np.empty only reserves the memory,
    # and the library refuses both calls before it reads or writes a sample.
    out_memory = np.full(1, 7, np.uint8)
    # A mask reaching past 2^31 around the last row: the library's region check.
    with pytest.raises(flatmorph.LibraryError, match="imdilate_uint8_.* refused the call with status -4"):
        flatmorph.dilation(np.empty((2**31 - 10, 1), np.uint8), np.ones((41, 1), bool),
                           out=as_strided(out_memory, (2**31 - 10, 1), (0, 1)))
    # A closing whose intermediate (the image grown by the mask) the runtime cannot get.
    with pytest.raises(MemoryError):
        flatmorph.closing(np.empty((2**30, 1), np.uint8), np.ones((1, 2**20), bool),
                          out=as_strided(out_memory, (2**30, 1), (0, 1)))
    assert out_memory[0] == 7
