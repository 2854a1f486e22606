"""marlith.psf: the microscope PSFs through Python, against the Airy pattern's first zero."""

import numpy as np
import pytest

import marlith


def test_in_focus_widefield_psf_has_its_first_zero_at_0_61_wavelength_over_na():
    na, wavelength, dxy = 1.3, 500.0, 10.0
    psf = marlith.psf.widefield(na=na, wavelength=wavelength, ri=1.515, dxy=dxy, nxy=81)
    assert psf.shape == (81, 81) and psf.dtype == np.float64
    assert abs(psf.sum() - 1) < 1e-12
    row = psf[40, 40:]
    first_minimum = next(i for i in range(1, 40) if row[i] < row[i - 1] and row[i] <= row[i + 1])
    assert abs(first_minimum * dxy - 0.61 * wavelength / na) <= dxy


@pytest.mark.parametrize(
    "make, spec, shape",
    [
        (lambda: marlith.psf.widefield(na=1.4, wavelength=520, ri=1.515, dxy=65, dz=200, nz=9),
         "widefield:na=1.4,wavelength=520,ri=1.515,dxy=65,dz=200,nz=9", (9, 71, 71)),
        (lambda: marlith.psf.confocal(na=1.2, excitation=488, emission=520, ri=1.33, dxy=50),
         "confocal:na=1.2,excitation=488,emission=520,ri=1.33,dxy=50", (71, 71)),
    ],
)
def test_functions_and_kernel_strings_give_the_same_psf(make, spec, shape):
    psf = make()
    assert psf.shape == shape
    np.testing.assert_array_equal(psf, marlith._core.shape_kernel(spec))
    np.testing.assert_allclose(psf, psf[..., ::-1, :], rtol=0, atol=1e-15)


@pytest.mark.parametrize(
    "kwargs, error, words",
    [
        (dict(na=1.6, wavelength=520, ri=1.515, dxy=65), ValueError, "below the refractive index"),
        (dict(na=1.4, wavelength=520, ri=1.515, dxy=65, dz=100, nz=8), ValueError, "odd"),
        (dict(na=1.4, wavelength="520", ri=1.515, dxy=65), TypeError, "wavelength"),
        (dict(na=1.4, wavelength=520, ri=1.515, dxy=65, nz=2.5), TypeError, "nz"),
    ],
)
def test_bad_optics_are_refused_naming_the_parameter(kwargs, error, words):
    with pytest.raises(error, match=words):
        marlith.psf.widefield(**kwargs)
