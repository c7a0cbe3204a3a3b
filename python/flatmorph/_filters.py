"""The six filters on numpy arrays: argument checks, then one library call."""

import numpy as np

from . import _flatmorph

LibraryError = _flatmorph.LibraryError

# Public name -> the library's filter name.
LIBRARY_NAMES = {
    "dilation": "imdilate",
    "erosion": "imerode",
    "opening": "imopen",
    "closing": "imclose",
    "white_tophat": "imtophat",
    "black_tophat": "imbothat",
}

ELEMENT_TYPES = tuple(
    np.dtype(name)
    for name in ("bool", "int8", "uint8", "int16", "uint16", "int32", "uint32", "float32", "float64")
)
TAGS = ("none", "avx", "avx2")
_INT32_MAX = 2**31 - 1


def tags():
    """The instruction-set tags this processor runs, narrowest first."""
    return tuple(tag for tag in TAGS if not _flatmorph.missing_features(tag))


def origin(footprint_shape):
    """The footprint element (row, column) that lies on the output sample: the
    middle of an odd side, the element just before the middle of an even one."""
    return tuple((side + 1) // 2 - 1 for side in footprint_shape)


def element_type(dtype):
    """The native-order type of a supported `dtype`; TypeError otherwise."""
    native = np.dtype(dtype).newbyteorder("=")
    if native not in ELEMENT_TYPES:
        names = ", ".join(t.name for t in ELEMENT_TYPES)
        raise TypeError(f"unsupported image type {np.dtype(dtype)}; supported: {names}")
    return native


def check_image_shape(shape):
    if len(shape) != 2:
        raise ValueError(f"image must be 2-D, got {len(shape)}-D")
    if max(shape) > _INT32_MAX:
        raise ValueError(f"image shape {shape} exceeds the library's 32-bit coordinates")


def mask(footprint):
    """The footprint as the library's mask: C-contiguous uint8 of 0 and 1."""
    footprint = np.asarray(footprint)
    if footprint.ndim != 2:
        raise ValueError(f"footprint must be 2-D, got {footprint.ndim}-D")
    if footprint.dtype != np.bool_ and footprint.dtype.kind not in "iu":
        raise TypeError(f"footprint must be bool or integer, got {footprint.dtype}")
    if max(footprint.shape) > _INT32_MAX:
        raise ValueError(f"footprint shape {footprint.shape} exceeds the library's 32-bit coordinates")
    if footprint.dtype != np.bool_ and np.any((footprint != 0) & (footprint != 1)):
        raise ValueError("footprint may hold only 0 and 1")
    return np.ascontiguousarray(footprint, dtype=np.uint8)


def resolve_tag(tag):
    """`tag`, or the widest this processor runs if None; ValueError if it cannot run here."""
    if tag is None:
        return _flatmorph.best_tag()
    if tag not in TAGS:
        raise ValueError(f"unknown tag {tag!r}; tags are {', '.join(TAGS)}")
    missing = _flatmorph.missing_features(tag)
    if missing:
        raise ValueError(f"tag {tag} needs {missing}, which this processor lacks")
    return tag


def pad(value, name):
    if value is None:
        return None
    try:
        return float(value)
    except (TypeError, ValueError):
        raise TypeError(f"{name} must be a real number or None, got {value!r}") from None


def _rows_contiguous(array):
    """Whether the library can use `array` in place: native order, elements
    contiguous along the last axis, whole-element row strides within 32 bits
    and not 0 (the host front end reads a row stride of 0 as dense rows)."""
    item = array.itemsize
    return (
        array.dtype.isnative
        and (array.shape[1] <= 1 or array.strides[1] == item)
        and (array.shape[0] <= 1 or array.strides[0] != 0)
        and array.strides[0] % item == 0
        and abs(array.strides[0] // item) <= _INT32_MAX
    )


def readable(image, dtype):
    """`image` as the library can read it, copied only if it must be."""
    if image.dtype == dtype and _rows_contiguous(image):
        return image
    return np.ascontiguousarray(image, dtype=dtype)


def _check_out(out, image, dtype):
    if not isinstance(out, np.ndarray):
        raise TypeError(f"out must be a numpy array, got {type(out).__name__}")
    if out.shape != image.shape:
        raise ValueError(f"out has shape {out.shape}, the image {image.shape}")
    if out.dtype != dtype:
        raise TypeError(f"out has type {out.dtype}, the result is {dtype}")
    if not out.flags.writeable:
        raise ValueError("out is read-only")
    if np.shares_memory(out, image):
        raise ValueError("out shares memory with the image; the filters need separate buffers")


def run_into(name, image, strel, out, x, y, low, high, tag):
    """Filters `image` (placed at (0, 0)) and stores the output samples from
    (x, y) on into `out`, through a scratch array if the library cannot write
    `out` in place."""
    target = out if _rows_contiguous(out) else np.empty(out.shape, out.dtype)
    _flatmorph.run(name, tag, image, strel, target, x, y, low, high)
    if target is not out:
        np.copyto(out, target)


def apply(name, image, footprint, out, low_pad, high_pad, tag):
    image = np.asarray(image)
    check_image_shape(image.shape)
    dtype = element_type(image.dtype)
    strel = mask(footprint)
    tag = resolve_tag(tag)
    low, high = pad(low_pad, "low_pad"), pad(high_pad, "high_pad")
    if out is None:
        out = np.empty(image.shape, dtype)
    else:
        _check_out(out, image, dtype)
    if image.size:
        run_into(name, readable(image, dtype), strel, out, 0, 0, low, high, tag)
    return out


def _documented(public_name, summary):
    library_name = LIBRARY_NAMES[public_name]

    def filter_function(image, footprint, *, out=None, low_pad=None, high_pad=None, tag=None):
        return apply(library_name, image, footprint, out, low_pad, high_pad, tag)

    filter_function.__name__ = filter_function.__qualname__ = public_name
    filter_function.__doc__ = f"""{summary} (the library's `{library_name}`).

    image: 2-D array of bool, int8, uint8, int16, uint16, int32, uint32,
        float32 or float64, any strides and byte order.
    footprint: 2-D bool array, or integers of 0 and 1. Its origin is
        flatmorph.origin(footprint.shape); dilation stages use it reflected.
    out: array of the image's shape and (native) type to store into; it must
        not share memory with the image.
    low_pad, high_pad: the values of samples outside the image in dilation
        and erosion stages; None is the type's lowest and highest value.
    tag: 'none', 'avx' or 'avx2'; None is the widest this processor runs.

    Returns `out`, or a new array. Raises TypeError and ValueError for bad
    arguments, LibraryError or MemoryError when the library refuses the call.
    """
    return filter_function


dilation = _documented("dilation", "Grey-scale dilation by a flat footprint")
erosion = _documented("erosion", "Grey-scale erosion by a flat footprint")
opening = _documented("opening", "Opening: erosion, then dilation")
closing = _documented("closing", "Closing: dilation, then erosion")
white_tophat = _documented("white_tophat", "White top-hat: the image minus its opening, saturated")
black_tophat = _documented("black_tophat", "Black top-hat: the closing minus the image, saturated")
