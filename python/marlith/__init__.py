"""Non-blind image deconvolution: restore a sharp image from a blurred one and its blur kernel.

numpy arrays in, numpy arrays out, in the style of ``skimage.restoration``::

    >>> import numpy as np, marlith
    >>> blurred = np.random.default_rng(0).random((64, 64))
    >>> marlith.deconvolve(blurred, np.ones((3, 3))).shape
    (64, 64)

``marlith.dask`` restores dask arrays chunk by chunk, for images larger than one machine.
"""

from __future__ import annotations

import operator
import sys
from numbers import Real
from typing import Callable, Literal, NamedTuple, Union

import numpy as np

from . import _core

__all__ = ["deconvolve", "estimate_noise", "NoiseEstimate", "kernels", "psf", "__version__"]

__version__: str = _core.__version__

# The defaults live in the C++ options record; these are its values in Python's words.
_DEFAULTS = _core.default_options()

ProgressCallable = Callable[[str, float], object]

_SAMPLE_TYPES = (np.uint8, np.uint16, np.float32, np.float64)


class NoiseEstimate(NamedTuple):
    """What :func:`estimate_noise` found."""

    level: float
    """Standard deviation of the image's white noise, on the [0, 1] scale."""
    strength: float
    """The noise strength ``deconvolve(..., noise="auto")`` chooses for it."""


def _image_array(image, name: str = "image", volume: bool = False) -> np.ndarray:
    """The image (or a volume) as an array the library can view, or TypeError/ValueError saying
    why not."""
    a = np.asarray(image)
    if a.dtype.type not in _SAMPLE_TYPES:
        raise TypeError(
            f"the {name}'s samples must be uint8, uint16, float32 or float64, not {a.dtype}"
        )
    if volume:
        if a.ndim != 3:
            raise TypeError(
                f"with a 3-D kernel the {name} must be a 3-D volume (depth, height, width), "
                f"not {a.ndim}-D"
            )
    elif a.ndim not in (2, 3):
        raise TypeError(
            f"the {name} must be 2-D (height, width) or 3-D (height, width, channels), "
            f"not {a.ndim}-D"
        )
    if not volume and a.ndim == 3 and a.shape[2] not in (1, 3, 4):
        raise ValueError(
            f"the {name} has {a.shape[2]} channels: it must have 1 (grey), 3 (colour) "
            "or 4 (colour and alpha)"
        )
    # The library reads any strides in whole samples of the machine's byte order; other arrays
    # (byte-swapped, misaligned, strides between samples) are copied first.
    if (
        not a.dtype.isnative
        or not a.flags.aligned
        or any(s % a.itemsize for s in a.strides)
    ):
        a = np.ascontiguousarray(a, dtype=a.dtype.newbyteorder("="))
    return a


def _kernel_array(kernel, image=None, colorspace="linear") -> np.ndarray:
    if isinstance(kernel, str):
        if kernel == "gaussian:auto":
            return kernels.gaussian(kernels.estimate_gaussian_sigma(image, colorspace=colorspace))
        return _core.shape_kernel(kernel)
    k = np.asarray(kernel)
    if k.dtype.kind not in "biuf":
        raise TypeError(f"the kernel's values must be real numbers, not {k.dtype}")
    if k.ndim not in (2, 3):
        raise TypeError(
            "the kernel must be a 2-D array (height, width) or, for a volume, a 3-D one "
            f"(depth, height, width), not {k.ndim}-D"
        )
    return np.ascontiguousarray(k, dtype=np.float64)


def _noise_option(noise) -> float | None:
    if isinstance(noise, str):
        if noise == "auto":
            return None
        raise ValueError(f"the noise option is 'auto' or a number, not '{noise}'")
    if isinstance(noise, (bool, np.bool_)) or not isinstance(noise, Real):
        raise TypeError(f"the noise option is 'auto' or a number, not {type(noise).__name__}")
    return float(noise)


def _threads_option(threads) -> int:
    if threads is None:
        return 0
    if isinstance(threads, (bool, np.bool_)):
        raise TypeError("the thread count is None (every core) or an integer, not bool")
    try:
        return operator.index(threads)
    except TypeError:
        raise TypeError(
            f"the thread count is None (every core) or an integer, not {type(threads).__name__}"
        ) from None


class _ProgressBar:
    """A one-line bar on standard error, redrawn when the shown percentage or phase changes."""

    def __init__(self, stream=None, width: int = 30):
        self._stream = stream if stream is not None else sys.stderr
        self._width = width
        self._shown = None

    def __call__(self, phase: str, fraction: float) -> None:
        percent = int(fraction * 100)
        if (phase, percent) == self._shown:
            return
        self._shown = (phase, percent)
        filled = int(fraction * self._width)
        bar = "#" * filled + "-" * (self._width - filled)
        end = "\n" if phase == "done" else ""
        self._stream.write(f"\r{phase:<17} [{bar}] {percent:3d}%{end}")
        self._stream.flush()

    def close(self) -> None:
        """Ends the bar's line when the run stopped before it was done."""
        if self._shown is not None and self._shown[0] != "done":
            self._stream.write("\n")
            self._shown = None


def deconvolve(
    image: np.ndarray,
    kernel: np.ndarray,
    *,
    noise: Union[float, Literal["auto"]] = _DEFAULTS["noise"],
    boundary: Literal["smooth", "periodic", "unknown"] = _DEFAULTS["boundary"],
    margins: Literal["fast", "exact"] = _DEFAULTS["margins"],
    kernel_origin: Literal["center", "support"] = _DEFAULTS["kernel_origin"],
    refine_kernel: bool = _DEFAULTS["refine_kernel"],
    colorspace: Literal["linear", "srgb"] = _DEFAULTS["colorspace"],
    mask: np.ndarray | None = None,
    noise_model: Literal["gaussian", "poisson"] = _DEFAULTS["noise_model"],
    offset: float | None = _DEFAULTS["offset"],
    voxel_aspect: float = _DEFAULTS["voxel_aspect"],
    threads: int | None = _DEFAULTS["threads"],
    progress: bool | ProgressCallable = False,
) -> np.ndarray:
    """Restore a blurred image with a known blur kernel.

    Parameters
    ----------
    image : ndarray, shape (H, W) or (H, W, C) with C of 1, 3 or 4, or (Z, Y, X)
        The blurred image, or with a 3-D kernel a volume (a z-stack of one channel), restored
        in 3-D. In any memory layout (C or Fortran order, or a strided view). uint8
        and uint16 samples are scaled by their full range; float32 and float64 samples are
        taken on the [0, 1] scale. Every channel is restored on its own; a fourth channel is
        alpha and is copied unchanged.
    kernel : array_like, shape (KH, KW) or (KZ, KY, KX), or str
        The blur kernel, real numbers on any scale: it is normalised to sum 1. Every value
        must be finite and non-negative, and their sum positive. Or a shape (see
        :mod:`marlith.kernels`): ``"gaussian:SIGMA"``, ``"disk:RADIUS"``,
        ``"motion:LENGTH,ANGLE"``, or ``"gaussian:auto"`` (sigma estimated from the image).
    noise : float or "auto", optional
        Noise strength: smaller restores more detail and more noise (0.1 suits about 1 %
        noise). "auto" estimates it from the image (see :func:`estimate_noise`).
    boundary : {"smooth", "periodic", "unknown"}, optional
        "smooth" gives the image smooth periodic margins first (right for photographs);
        "periodic" takes the image as periodic (right for circularly blurred test images);
        "unknown" restores a margin as wide as the kernel's reach without observing it
        (the blur reached past the frame; margins="fast" only).
    margins : {"fast", "exact"}, optional
        "exact" adds three kernel sizes on every side and fits them as the ``marlith``
        command line does; "fast" widens them so that the transforms run at fast sizes and
        fits them directly, with the same quality in a small part of the time.
    kernel_origin : {"center", "support"}, optional
        "center": the kernel array's centre sample ``(KH // 2, KW // 2)`` is its origin, as in
        scipy.ndimage and scikit-image. "support": the kernel is trimmed to its support, which
        is centred, as the command line does.
    refine_kernel : bool, optional
        Re-estimate the kernel from a first solve and deconvolve with the refined kernel.
    colorspace : {"linear", "srgb"}, optional
        How the samples encode light. "linear" (the default: an array's values are data)
        restores them as they are; "srgb" linearises them with the sRGB curve, restores
        them in linear light (where the blur happened) and encodes the result back. Use
        "srgb" for photographs read from 8- or 16-bit files.
    mask : ndarray, shape (H, W) or (H, W, C), optional
        A weight for every sample, in [0, 1], as MATLAB's ``deconvlucy`` WEIGHT: 0 leaves the
        sample out of the fit (dust, dead pixels, text laid over the image), 1 counts it
        fully. (H, W) weighs every channel alike, (H, W, C) channel by channel; uint8 and
        uint16 masks are scaled by their full range. Needs ``margins="fast"`` and no
        ``refine_kernel``.
    noise_model : {"gaussian", "poisson"}, optional
        "poisson": the samples are photon counts over a camera offset (fluorescence
        microscopes, astronomy): the fit weighs every sample by its photon noise, the gain and
        read noise are estimated from the image, and the result is non-negative above the
        offset. Needs ``margins="fast"``, no ``refine_kernel`` and linear samples.
    offset : float or None, optional
        With ``noise_model="poisson"``: the camera's baseline in sample units (100 on a
        16-bit camera that adds 100 to every count). None estimates it from the darkest
        samples.
    voxel_aspect : float, optional
        Volumes: the z step over the pixel size (200 nm steps over 65 nm pixels: 3.08).
    threads : int or None, optional
        Threads for the engine; None uses every core.
    progress : bool or callable, optional
        True draws a progress bar on standard error; a callable receives ``(phase, fraction)``
        about 100 times a second at most, and an exception it raises stops the run.

    Returns
    -------
    ndarray
        The restored image, of the input's shape and dtype. Integer results are rounded and
        clipped to their range; floating-point results are neither rounded nor clipped.

    Raises
    ------
    TypeError
        For an image of another dtype or dimension, or a kernel that is not a 2-D array of
        real numbers.
    ValueError
        For input or options the library refuses, with its one-line reason.
    KeyboardInterrupt
        When interrupted (Ctrl+C): the run stops at the library's next progress report (the
        engine reports between solver rounds, not while it fits the margins or sets up).

    Examples
    --------
    >>> import numpy as np, marlith
    >>> rng = np.random.default_rng(0)
    >>> blurred = rng.integers(0, 256, (120, 160, 3), dtype=np.uint8)
    >>> kernel = np.ones((5, 5))
    >>> sharp = marlith.deconvolve(blurred, kernel, noise=0.1)
    >>> sharp.shape, sharp.dtype
    ((120, 160, 3), dtype('uint8'))
    """
    original = np.asarray(image)
    # A 3-D kernel (an array or a generated PSF with planes) makes the image a volume.
    k = None if isinstance(kernel, str) and kernel == "gaussian:auto" else _kernel_array(kernel)
    volume = k is not None and k.ndim == 3
    a = _image_array(original, volume=volume)
    if k is None:
        k = _kernel_array(kernel, original, colorspace)
    options = dict(
        noise=_noise_option(noise),
        boundary=boundary,
        margins=margins,
        kernel_origin=kernel_origin,
        refine_kernel=bool(refine_kernel),
        colorspace=colorspace,
        noise_model=noise_model,
        offset=None if offset is None else float(offset),
        voxel_aspect=float(voxel_aspect),
        threads=_threads_option(threads),
    )
    if mask is not None:
        m = _image_array(mask, "mask")
        if m.ndim == 3 and m.shape[2] == 4:
            m = m[..., :3]
        options["mask"] = m
    if progress is True:
        callback = _ProgressBar()
    elif progress is False or progress is None:
        callback = None
    elif callable(progress):
        callback = progress
    else:
        raise TypeError(
            f"progress is True, False or a callable, not {type(progress).__name__}"
        )
    out = np.empty_like(a)
    alpha = not volume and a.ndim == 3 and a.shape[2] == 4
    colour_in, colour_out = (a[..., :3], out[..., :3]) if alpha else (a, out)
    try:
        _core.deconvolve(colour_in, k, colour_out, progress=callback, **options)
    finally:
        if isinstance(callback, _ProgressBar):
            callback.close()
    if alpha:
        out[..., 3] = a[..., 3]
    return out if out.dtype == original.dtype else out.astype(original.dtype)


def estimate_noise(image: np.ndarray) -> NoiseEstimate:
    """Estimate the noise of a blurred image and the noise strength to restore it with.

    Parameters
    ----------
    image : ndarray, shape (H, W) or (H, W, C) with C of 1, 3 or 4
        As for :func:`deconvolve`; an alpha channel is left out.

    Returns
    -------
    NoiseEstimate
        ``level``: the standard deviation of the image's white noise on the [0, 1] scale
        (robust to blur, texture and 8-bit quantisation); ``strength``: the noise strength
        ``deconvolve(image, kernel, noise="auto")`` uses.

    Examples
    --------
    >>> import numpy as np, marlith
    >>> rng = np.random.default_rng(1)
    >>> noisy = 0.5 + 0.01 * rng.standard_normal((256, 256))
    >>> level, strength = marlith.estimate_noise(noisy)
    >>> round(level, 3)
    0.01
    """
    a = _image_array(image)
    if a.ndim == 3 and a.shape[2] == 4:
        a = a[..., :3]
    return NoiseEstimate(*_core.estimate_noise(a))


from . import kernels  # noqa: E402  (uses _image_array above)
from . import psf  # noqa: E402
