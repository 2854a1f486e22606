"""Blur kernels described by their shape rather than held as a file.

Every sample is the continuous shape integrated over that sample's square, so sub-sample radii
and lengths come out right; the array is odd-sized, centred on its centre sample (the default
kernel origin of :func:`marlith.deconvolve`), just large enough, and sums to 1::

    >>> import marlith
    >>> marlith.kernels.disk(1.5).shape
    (3, 3)

:func:`marlith.deconvolve` also takes the same kernels as strings: ``"gaussian:1.6"``,
``"disk:3.5"``, ``"motion:15,30"`` and ``"gaussian:auto"`` (sigma estimated from the image).
"""

from __future__ import annotations

from numbers import Real

import numpy as np

from . import _core

__all__ = ["gaussian", "disk", "motion", "estimate_gaussian_sigma"]


def _number(value, name: str) -> str:
    if isinstance(value, (bool, np.bool_)) or not isinstance(value, Real):
        raise TypeError(f"the {name} must be a number, not {type(value).__name__}")
    return repr(float(value))


def gaussian(sigma: float) -> np.ndarray:
    """A Gaussian blur of standard deviation ``sigma`` samples (lens softness).

    It reaches ``ceil(4 sigma)`` samples from the centre. Raises ValueError unless
    0 < sigma <= 1000.

    >>> k = gaussian(1.0)
    >>> k.shape, round(float(k.sum()), 12)
    ((9, 9), 1.0)
    """
    return _core.shape_kernel("gaussian:" + _number(sigma, "sigma"))


def disk(radius: float) -> np.ndarray:
    """A uniform disc of ``radius`` samples (a lens's defocus); each sample holds the disc's
    area inside it. Raises ValueError unless 0 < radius <= 1000."""
    return _core.shape_kernel("disk:" + _number(radius, "radius"))


def motion(length: float, angle: float) -> np.ndarray:
    """A straight shake of ``length`` samples at ``angle`` degrees counter-clockwise from the
    x axis, y pointing up as on screen (row 0 of the array is the top). Raises ValueError
    unless 0 < length <= 1000 and the angle is finite.

    >>> motion(3, 0)
    array([[0.33333333, 0.33333333, 0.33333333]])
    """
    return _core.shape_kernel(
        "motion:" + _number(length, "length") + "," + _number(angle, "angle")
    )


def _srgb_to_linear(v: np.ndarray) -> np.ndarray:
    v = np.clip(v, 0.0, 1.0)
    return np.where(v <= 0.04045, v / 12.92, ((v + 0.055) / 1.055) ** 2.4)


def estimate_gaussian_sigma(image: np.ndarray, *, colorspace: str = "linear") -> float:
    """Estimate the sigma (samples) of an image's Gaussian blur from its edges.

    The ratio of each strong edge's gradient before and after a further blur of known width
    gives its width (Zhuo and Sim, 2011); the median over the strongest edges, less the width
    a sharp photograph's own edges have, is the blur. Meant for photographs blurred by sigma
    1 to 3. ``image`` is as for :func:`marlith.deconvolve` (an alpha channel is left out);
    ``colorspace="srgb"`` linearises its samples first. Raises ValueError for images under
    about 35 samples a side or with too few clear edges.
    """
    from . import _image_array

    a = _image_array(image)
    scale = {np.uint8: 255.0, np.uint16: 65535.0}.get(a.dtype.type, 1.0)
    a = a.astype(np.float64) / scale
    if a.ndim == 2:
        a = a[..., None]
    a = a[..., :3]
    if colorspace == "srgb":
        a = _srgb_to_linear(a)
    elif colorspace != "linear":
        raise ValueError(f"the colorspace option is 'linear' or 'srgb', not '{colorspace}'")
    return _core.estimate_gaussian_sigma(np.ascontiguousarray(a))
