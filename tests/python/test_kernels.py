"""marlith.kernels and kernel strings in marlith.deconvolve."""
import numpy as np
import pytest

import marlith
from marlith import kernels


def moments(k):
    """Centroid and covariance in screen coordinates (x right, y up, centre sample at 0)."""
    h, w = k.shape
    y, x = np.mgrid[0:h, 0:w]
    x, y = x - w // 2, h // 2 - y
    mx, my = (k * x).sum(), (k * y).sum()
    return mx, my, np.array([[(k * x * x).sum(), (k * x * y).sum()], [(k * x * y).sum(), (k * y * y).sum()]])


@pytest.mark.parametrize(
    "kernel, variance",
    [
        (kernels.gaussian(1.6), 1.6**2 + 1 / 12),
        (kernels.disk(6), 36 / 4 + 1 / 12),
        (kernels.motion(15, 0), 15**2 / 12),
    ],
)
def test_shapes_are_centred_normalised_and_as_wide_as_their_shape(kernel, variance):
    assert kernel.dtype == np.float64 and kernel.shape[0] % 2 == 1 and kernel.shape[1] % 2 == 1
    mx, my, cov = moments(kernel)
    assert kernel.sum() == pytest.approx(1, abs=1e-12)
    assert (mx, my) == pytest.approx((0, 0), abs=1e-9)
    assert cov[0, 0] == pytest.approx(variance, rel=0.01)


def test_motion_angle_counts_counter_clockwise_with_y_up():
    # 45 degrees runs from bottom left to top right: rows go down, so the top-right sample is
    # set and the top-left one empty.
    k = kernels.motion(5, 45)
    assert k[0, -1] > 0 and k[0, 0] == 0
    _, _, cov = moments(kernels.motion(21, 120))
    angle = np.degrees(np.arctan2(*np.linalg.eigh(cov)[1][::-1, 1]))
    assert angle % 180 == pytest.approx(120, abs=1)


def test_deconvolve_takes_kernel_strings():
    rng = np.random.default_rng(0)
    image = rng.random((64, 64))
    by_array = marlith.deconvolve(image, kernels.disk(2.5), noise=0.1)
    by_string = marlith.deconvolve(image, "disk:2.5", noise=0.1)
    np.testing.assert_array_equal(by_array, by_string)
    with pytest.raises(ValueError, match="motion:LENGTH,ANGLE"):
        marlith.deconvolve(image, "motion:15", noise=0.1)
    with pytest.raises(TypeError, match="sigma must be a number"):
        kernels.gaussian("2")


def test_gaussian_auto_finds_the_blur_of_step_edges():
    from scipy.ndimage import gaussian_filter

    rng = np.random.default_rng(1)
    sharp = np.kron(rng.uniform(0.05, 0.95, (8, 8)), np.ones((32, 32)))
    blurred = gaussian_filter(sharp, 2.0, mode="nearest") + rng.normal(0, 0.005, sharp.shape)
    assert kernels.estimate_gaussian_sigma(blurred) == pytest.approx(2.0, abs=0.3)
    assert marlith.deconvolve(blurred, "gaussian:auto").shape == blurred.shape
