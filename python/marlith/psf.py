"""Point spread functions of fluorescence microscopes, for users with no measured PSF.

Sizes and wavelengths are in nanometres (wavelengths in vacuum, sizes in the specimen). With
``dz`` the PSF is a stack (Z, Y, X) whose centre plane is the focus; without it, the in-focus
(Y, X) plane. The arrays are odd-sized, centred, and sum to 1::

    >>> import marlith
    >>> psf = marlith.psf.widefield(na=1.4, wavelength=520, ri=1.515, dxy=65, dz=200)
    >>> psf.shape
    (19, 99, 99)

The same PSFs are kernel strings for :func:`marlith.deconvolve` and ``marlith-deblur -k``:
``"widefield:na=1.4,wavelength=520,ri=1.515,dxy=65,dz=200"``.
"""

from __future__ import annotations

from typing import Optional

import numpy as np

from . import _core
from .kernels import _number

__all__ = ["widefield", "confocal"]


def _spec(shape: str, values: dict) -> str:
    pairs = []
    for key, value in values.items():
        if value is None:
            continue
        if key in ("nz", "nxy"):
            if isinstance(value, (bool, np.bool_)) or not isinstance(value, (int, np.integer)):
                raise TypeError(f"{key} must be an int, not {type(value).__name__}")
            pairs.append(f"{key}={int(value)}")
        else:
            pairs.append(f"{key}={_number(value, key)}")
    return shape + ":" + ",".join(pairs)


def widefield(
    *,
    na: float,
    wavelength: float,
    ri: float,
    dxy: float,
    dz: Optional[float] = None,
    nz: Optional[int] = None,
    nxy: Optional[int] = None,
) -> np.ndarray:
    """A widefield microscope's PSF in the Born and Wolf model.

    ``h(r, z) = |integral_0^1 J0(k na r rho) exp(-i k z na^2 rho^2 / (2 ri)) rho d rho|^2``,
    ``k = 2 pi / wavelength``, each sample averaged over its pixel: the Airy pattern in focus
    (first zero at 0.61 wavelength / na), first zero on the axis at 2 ri wavelength / na^2.

    Parameters
    ----------
    na : float
        Numerical aperture of the objective, below ``ri``.
    wavelength : float
        Emission wavelength in nm.
    ri : float
        Refractive index of the immersion medium (1.515 oil, 1.33 water, 1.0 air).
    dxy : float
        Pixel size in the specimen, nm.
    dz : float, optional
        Z step in nm; without it the in-focus plane alone (2-D).
    nz : int, optional
        Planes (odd); by default enough to reach twice the first axial zero each side.
    nxy : int, optional
        Width and height (odd); by default 4 wavelength / na beyond the light cone.

    Returns
    -------
    numpy.ndarray
        float64, (nz, nxy, nxy) with ``dz``, else (nxy, nxy); sums to 1. Raises ValueError
        naming the parameter out of range.
    """
    return _core.shape_kernel(
        _spec("widefield", dict(na=na, wavelength=wavelength, ri=ri, dxy=dxy, dz=dz, nz=nz,
                                nxy=nxy))
    )


def confocal(
    *,
    na: float,
    excitation: float,
    emission: float,
    ri: float,
    dxy: float,
    dz: Optional[float] = None,
    nz: Optional[int] = None,
    nxy: Optional[int] = None,
) -> np.ndarray:
    """A point-scanning confocal microscope's PSF (pinhole far below the Airy disc): the
    widefield PSF at the excitation wavelength times the one at the emission wavelength,
    renormalised. Parameters as for :func:`widefield`, with ``excitation`` and ``emission``
    wavelengths in nm.

    >>> confocal(na=1.2, excitation=488, emission=520, ri=1.33, dxy=50).shape
    (71, 71)
    """
    return _core.shape_kernel(
        _spec("confocal", dict(na=na, excitation=excitation, emission=emission, ri=ri, dxy=dxy,
                               dz=dz, nz=nz, nxy=nxy))
    )
