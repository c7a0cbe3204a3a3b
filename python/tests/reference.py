"""An independent numpy model of the six filters, sample by sample from their
definitions, for in-range pads: the folds visit the footprint's rows, then its
columns, in ascending order, and keep the accumulator only if it compares
strictly greater (dilation) or less (erosion) than the sample, so a NaN is
replaced by the next sample, as in the library."""

import numpy as np


def neutral(dtype, dilation):
    """The pad (and identity) that never wins: the type's lowest value for a
    dilation, its highest for an erosion."""
    if dtype == np.bool_:
        return not dilation
    if dtype.kind == "f":
        return -np.inf if dilation else np.inf
    info = np.iinfo(dtype)
    return info.min if dilation else info.max


def _fold(image, footprint, pad, reflect, keep):
    rows, columns = footprint.shape
    cy, cx = (rows + 1) // 2 - 1, (columns + 1) // 2 - 1
    height, width = image.shape
    margin_y, margin_x = rows + 1, columns + 1
    padded = np.pad(image, ((margin_y, margin_y), (margin_x, margin_x)), constant_values=pad)
    acc = np.full(image.shape, neutral(image.dtype, reflect), image.dtype)
    for j in range(rows):
        for k in range(columns):
            if footprint[j, k] == 1:
                dy, dx = (cy - j, cx - k) if reflect else (j - cy, k - cx)
                sample = padded[margin_y + dy : margin_y + dy + height, margin_x + dx : margin_x + dx + width]
                acc = np.where(keep(acc, sample), acc, sample)
    return acc


def dilate(image, footprint, low):
    return _fold(image, footprint, low, True, np.greater)


def erode(image, footprint, high):
    return _fold(image, footprint, high, False, np.less)


def opening(image, footprint, low, high):
    return dilate(erode(image, footprint, high), footprint, low)


def closing(image, footprint, low):
    # The intermediate dilation reaches past the image by the footprint.
    rows, columns = footprint.shape
    grown = np.pad(image, ((rows, rows), (columns, columns)), constant_values=low)
    closed = erode(dilate(grown, footprint, low), footprint, low)
    return closed[rows : rows + image.shape[0], columns : columns + image.shape[1]]


def saturating_difference(a, b):
    if a.dtype == np.bool_:
        return a & ~b
    if a.dtype.kind == "f":
        with np.errstate(invalid="ignore"):  # inf - inf
            d = a.astype(np.float64) - b.astype(np.float64)
        d = np.where(d < np.inf, d, np.inf)  # NaN becomes +inf
        return d.astype(a.dtype)
    info = np.iinfo(a.dtype)
    return np.clip(a.astype(np.float64) - b.astype(np.float64), info.min, info.max).astype(a.dtype)


def white_tophat(image, footprint, low, high):
    return saturating_difference(image, opening(image, footprint, low, high))


def black_tophat(image, footprint, low, high):
    return saturating_difference(closing(image, footprint, low), image)


MODELS = {
    "dilation": lambda image, fp, low, high: dilate(image, fp, low),
    "erosion": lambda image, fp, low, high: erode(image, fp, high),
    "opening": opening,
    "closing": lambda image, fp, low, high: closing(image, fp, low),
    "white_tophat": white_tophat,
    "black_tophat": black_tophat,
}
