"""Deconvolution of dask arrays, chunk by chunk, for images larger than one machine's memory.

Each chunk is restored with an overlap of its neighbours' samples wide enough that the chunks'
own margins do not show in the result, and every chunk with the same noise strength.

    >>> import dask.array as da, numpy as np, marlith.dask
    >>> blurred = da.random.random((256, 256), chunks=128)
    >>> marlith.dask.deconvolve(blurred, np.ones((5, 5)), noise=0.1).chunks
    ((128, 128), (128, 128))
"""

from __future__ import annotations

import math

import dask.array as da
import numpy as np
from dask.array.overlap import ensure_minimum_chunksize

import marlith

__all__ = [
    "deconvolve",
    "overlap_for",
    "OVERLAP_KERNEL_SIZES",
    "OVERLAP_REFERENCE_STRENGTH",
    "NOISE_SAMPLE_SIZE",
]

# The overlap, in kernel sizes, at noise strengths of OVERLAP_REFERENCE_STRENGTH and above; a
# weaker regularisation reaches further, so below it the overlap grows as 1 / sqrt(strength).
# Measured with bench/dask_seams.py against the whole-image result (a 13-sample camera-shake
# kernel on photographs; PSNR over the image / in the worst band of 32 rows or columns):
#   4096 x 4096 colour, 1024-sample chunks, strength 0.047 ("auto" at 0.5 % noise):
#     3 sizes 71.5 / 59.7 dB, 8 sizes 76.7 / 65.8 dB;
#   1024 x 1024 colour, 256-sample chunks, worst band: strength 0.047: 3 sizes 52 dB, 4: 55,
#     6: 57; strength 0.02: 2 sizes 45 dB, 4: 49, 6: 52, 8: 49; strength 0.005: 8 sizes 40 dB,
#     16: 51.
# Kernels whose spectrum has exact zeros reach further: a 9-sample box at strength 0.02 up to
# 18 sizes, a 25-sample straight line more than 10 even at 0.1. Pass overlap= for those.
OVERLAP_KERNEL_SIZES = 8
OVERLAP_REFERENCE_STRENGTH = 0.02

# With noise="auto" the strength is estimated once, on the array's central square of at most
# this many samples a side.
NOISE_SAMPLE_SIZE = 1024


def _kernel_extent(kernel: np.ndarray, origin: str) -> int:
    """The larger side of the kernel's non-zero samples: of the box centred on its origin for
    "center", of their bounding box for "support"."""
    rows, cols = np.nonzero(kernel)
    if rows.size == 0:
        return 1
    if origin == "center":
        h, w = kernel.shape
        return 2 * int(max(np.abs(rows - h // 2).max(), np.abs(cols - w // 2).max())) + 1
    return int(max(rows.max() - rows.min(), cols.max() - cols.min())) + 1


def overlap_for(
    kernel, noise: float, *, kernel_origin: str = marlith._DEFAULTS["kernel_origin"]
) -> int:
    """The samples of overlap each chunk takes from its neighbours on every side.

    Parameters
    ----------
    kernel : array_like, shape (KH, KW)
        The blur kernel.
    noise : float
        The noise strength the chunks are restored with.
    kernel_origin : {"center", "support"}, optional
        As for :func:`marlith.deconvolve`.

    Returns
    -------
    int
        ``OVERLAP_KERNEL_SIZES`` times the extent of the kernel's non-zero samples, times
        ``sqrt(OVERLAP_REFERENCE_STRENGTH / noise)`` for weaker noise strengths.

    Examples
    --------
    >>> import numpy as np, marlith.dask
    >>> kernel = np.ones((9, 9))
    >>> marlith.dask.overlap_for(kernel, 0.1), marlith.dask.overlap_for(kernel, 0.005)
    (72, 144)
    """
    k = marlith._kernel_array(kernel)
    scale = math.sqrt(max(1.0, OVERLAP_REFERENCE_STRENGTH / max(float(noise), 1e-9)))
    return math.ceil(OVERLAP_KERNEL_SIZES * scale * _kernel_extent(k, kernel_origin))


def _noise_sample(array: da.Array) -> np.ndarray:
    """The central square of at most NOISE_SAMPLE_SIZE samples a side, computed."""
    h, w = array.shape[:2]
    sh, sw = min(h, NOISE_SAMPLE_SIZE), min(w, NOISE_SAMPLE_SIZE)
    y, x = (h - sh) // 2, (w - sw) // 2
    return np.asarray(array[y : y + sh, x : x + sw].compute())


def _depth(size: int, chunks: tuple, overlap: int, periodic: bool) -> int:
    """The overlap along one axis, one sample more where needed so that the last chunk with its
    overlap has the parity of the whole axis. The library extends an image of odd size by
    repeating its last row or column, which shows near that edge: the last chunk must be
    extended when, and only when, the whole image is. (The other chunks' far edges lie in the
    overlap, which is cut off; a periodic axis has no edge.)"""
    if periodic or len(chunks) == 1:
        return overlap
    return overlap + (overlap + chunks[-1] - size) % 2


def deconvolve(array: da.Array, kernel, *, overlap: int | None = None, **options) -> da.Array:
    """Restore a blurred dask array chunk by chunk.

    Parameters
    ----------
    array : dask.array.Array, shape (H, W) or (H, W, C) with C of 1, 3 or 4
        The blurred image, in any chunks along its rows and columns (the channels are taken
        into one chunk), of a dtype :func:`marlith.deconvolve` takes.
    kernel : array_like, shape (KH, KW)
        The blur kernel, as for :func:`marlith.deconvolve`.
    overlap : int, optional
        Samples each chunk takes from its neighbours on every side; by default
        :func:`overlap_for` the kernel and noise strength. Chunks narrower than the overlap are
        merged with their neighbours.
    **options
        The options of :func:`marlith.deconvolve`: ``noise``, ``boundary``, ``margins``,
        ``kernel_origin``, ``colorspace`` and ``threads`` (per chunk; 1 by default here, since
        dask restores chunks in parallel). ``noise="auto"`` (the default) estimates the
        strength once, on the array's central square of at most ``NOISE_SAMPLE_SIZE`` samples
        a side, and every chunk uses it. ``refine_kernel`` and ``progress`` apply to whole
        images only (dask's diagnostics show progress).

    Returns
    -------
    dask.array.Array
        The restored image, lazily, in the input's shape and dtype.

    Raises
    ------
    TypeError, ValueError
        As :func:`marlith.deconvolve` does, here rather than when the result is computed.

    Examples
    --------
    >>> import dask.array as da, numpy as np, marlith.dask
    >>> blurred = da.from_array(np.full((256, 256, 3), 0.5), chunks=(128, 128, 3))
    >>> sharp = marlith.dask.deconvolve(blurred, np.ones((5, 5)), noise=0.1)
    >>> float(abs(sharp - 0.5).max().compute()) < 1e-6
    True
    """
    if not isinstance(array, da.Array):
        raise TypeError(f"the image must be a dask array, not {type(array).__name__}")
    for name in ("refine_kernel", "progress"):
        if options.pop(name, False):
            raise ValueError(f"the {name} option applies to whole images, not to dask arrays")
    # The whole-image checks (and words) for the dtype and shape, on an empty stand-in.
    stand_in = (0,) * min(array.ndim, 2) + array.shape[2:]
    marlith._image_array(np.empty(stand_in, dtype=array.dtype))
    k = marlith._kernel_array(kernel)
    boundary = options.pop("boundary", marlith._DEFAULTS["boundary"])
    if boundary not in ("periodic", "smooth"):
        raise ValueError(
            f"the boundary option has no value '{boundary}' ('periodic' or 'smooth')"
        )
    options.setdefault("threads", 1)
    noise = options.get("noise", marlith._DEFAULTS["noise"])
    auto = isinstance(noise, str) and noise == "auto"
    # Refused kernels and options raise now rather than when the chunks are computed: a tiny
    # periodic image (no margins to fit) goes through the library once.
    side = max(k.shape) + 2
    check = dict(options, noise=1.0) if auto else options
    marlith.deconvolve(np.zeros((side, side)), k, boundary="periodic", **check)
    if auto:
        options["noise"] = marlith.estimate_noise(_noise_sample(array)).strength
    if overlap is None:
        origin = options.get("kernel_origin", marlith._DEFAULTS["kernel_origin"])
        overlap = overlap_for(k, options["noise"], kernel_origin=origin)
    overlap = int(overlap)
    if overlap < 0:
        raise ValueError(f"the overlap must be 0 or more samples, not {overlap}")

    # A chunk is no periodic image: it always gets smooth margins. The array's own edges are
    # those of the whole image: left alone for smooth margins, wrapped around for periodic.
    periodic = boundary == "periodic"
    outer = "periodic" if periodic else "none"
    # Every chunk at least one sample wider than the overlap (room for the parity sample), the
    # channels in one chunk.
    chunks = {}
    for axis in (0, 1):
        overlap_here = min(overlap, array.shape[axis])
        chunks[axis] = ensure_minimum_chunksize(
            min(overlap_here + 1, array.shape[axis]), array.chunks[axis]
        )
    if array.ndim == 3:
        chunks[2] = -1
    array = array.rechunk(chunks)
    depth = {
        axis: _depth(array.shape[axis], array.chunks[axis],
                     min(overlap, array.shape[axis]), periodic)
        for axis in (0, 1)
    }
    boundaries = {0: outer, 1: outer}
    if array.ndim == 3:
        depth[2], boundaries[2] = 0, "none"

    def restore(block: np.ndarray) -> np.ndarray:
        return marlith.deconvolve(block, k, boundary="smooth", **options)

    return da.map_overlap(
        restore,
        array,
        depth=depth,
        boundary=boundaries,
        trim=True,
        dtype=array.dtype,
        meta=np.empty((0,) * array.ndim, dtype=array.dtype),
    )
