"""marlith.deconvolve and marlith.estimate_noise: dtypes, shapes and layouts, the command
line's results, refused arguments, threads in parallel."""

import doctest
import subprocess
import threading
import time

import numpy as np
import pytest
from conftest import ROOT, blurred_texture, read_image

import marlith

KERNEL = np.outer([1, 2, 3, 2, 1], [1, 1, 2, 1, 1]).astype(float)
H, W = 40, 56


def colour(channels: int = 3) -> np.ndarray:
    return np.clip(blurred_texture(H, W, KERNEL, channels), 0, 1)


def reference(image: np.ndarray, **options) -> np.ndarray:
    """The float64 result, channel by channel, on C-ordered float64 planes on [0, 1]."""
    scale = {np.uint8: 1 / 255, np.uint16: 1 / 65535}.get(image.dtype.type, 1.0)
    planes = np.atleast_3d(image).astype(np.float64) * scale
    return np.dstack([marlith.deconvolve(np.ascontiguousarray(planes[..., c]), KERNEL, **options)
                      for c in range(planes.shape[2])]).reshape(image.shape)


@pytest.mark.parametrize("dtype", [np.uint8, np.uint16, np.float32, np.float64])
@pytest.mark.parametrize("channels", [0, 1, 3, 4])
def test_keeps_shape_and_dtype_and_scales_samples_by_their_range(dtype, channels):
    image = colour(channels) if channels else colour(1)[..., 0]
    top = np.iinfo(dtype).max if np.issubdtype(dtype, np.integer) else 0
    image = np.round(image * top).astype(dtype) if top else image.astype(dtype)
    out = marlith.deconvolve(image, KERNEL, noise=0.05)
    assert out.shape == image.shape and out.dtype == image.dtype
    expected = reference(image[..., :3] if channels == 4 else image, noise=0.05)
    if top:
        expected = np.rint(np.clip(expected, 0, 1) * top)
    # Floating-point results are computed in double and stored as given.
    np.testing.assert_array_equal(out[..., :3] if channels == 4 else out, expected.astype(dtype))
    if channels == 4:
        np.testing.assert_array_equal(out[..., 3], image[..., 3])


@pytest.mark.parametrize(
    "layout",
    [
        lambda a: np.asfortranarray(a),
        lambda a: a[::-1, :, :],  # negative row stride
        lambda a: np.pad(a, ((3, 5), (2, 4), (0, 0)))[3:-5, 2:-4],  # rows of padded arrays
        lambda a: np.repeat(np.repeat(a, 2, 0), 2, 1)[::2, ::2],  # every other sample
        lambda a: np.moveaxis(np.ascontiguousarray(np.moveaxis(a, 2, 0)), 0, 2),  # planar
        lambda a: a[:, :, ::-1],  # channels reversed
    ],
    ids=["fortran", "flipped", "cropped", "strided", "planar", "bgr"],
)
def test_reads_any_layout(layout):
    image = (colour(3) * 255).astype(np.uint8)
    view = layout(image)
    out = marlith.deconvolve(view, KERNEL, noise=0.05)
    assert out.shape == view.shape
    np.testing.assert_array_equal(out, marlith.deconvolve(view.copy(order="C"), KERNEL, noise=0.05))


@pytest.mark.parametrize("boundary_type, boundary", [(1, "smooth"), (0, "periodic")])
def test_float_result_truncated_is_the_command_lines_output(tmp_path, marlith_exe,
                                                            boundary_type, boundary):
    blurred = ROOT / "examples" / "earth_blurred.png"
    kernel_png = ROOT / "examples" / "motion_kernel.png"
    out_png = tmp_path / "out.png"
    run = subprocess.run([str(marlith_exe), str(blurred), str(kernel_png), str(out_png),
                          str(boundary_type), "0.1", "1"], capture_output=True, text=True)
    assert run.returncode == 0, run.stdout + run.stderr
    image = read_image(blurred) / 255.0
    kernel = read_image(kernel_png)[..., 0]  # red levels, on any scale
    restored = marlith.deconvolve(image, kernel, noise=0.1, boundary=boundary, margins="exact",
                                  kernel_origin="support")
    saved = np.floor(np.clip(restored, 0, 1) * 255).astype(np.uint8)
    np.testing.assert_array_equal(saved, read_image(out_png))


def test_estimate_noise_reads_8_bit_samples_and_leaves_alpha_out():
    base = np.clip(blurred_texture(128, 128, KERNEL, noise=0), 0, 1)
    noisy = base + 0.02 * np.random.default_rng(5).standard_normal(base.shape)
    eight_bit = np.uint8(np.round(np.clip(noisy, 0, 1) * 255))
    assert marlith.estimate_noise(eight_bit).level == pytest.approx(0.02, rel=0.15)
    rgba = np.dstack([colour(3), np.zeros((H, W))])
    assert marlith.estimate_noise(rgba) == marlith.estimate_noise(rgba[..., :3])


GREY = np.full((32, 32), 0.5)
BAD = [
    (dict(image=GREY.astype(np.int32)), TypeError, "uint8, uint16, float32 or float64, not int32"),
    (dict(image=np.zeros(32)), TypeError, "2-D .* or 3-D .* not 1-D"),
    (dict(image=np.zeros((32, 32, 2))), ValueError, "has 2 channels"),
    (dict(kernel=np.ones((3, 3), complex)), TypeError, "real numbers, not complex128"),
    (dict(kernel=np.ones(3)), TypeError, "2-D array"),
    (dict(kernel=np.zeros((3, 3))), ValueError, "the kernel sums to 0"),
    (dict(noise="loud"), ValueError, "'auto' or a number, not 'loud'"),
    (dict(noise=[0.1]), TypeError, "'auto' or a number, not list"),
    (dict(boundary="wavy"), ValueError, "the boundary option has no value 'wavy'"),
    (dict(colorspace="sRGB"), ValueError, "the colorspace option has no value 'sRGB'"),
    (dict(threads=1.5), TypeError, "None .* or an integer, not float"),
    (dict(progress="yes"), TypeError, "progress is True, False or a callable"),
]


@pytest.mark.parametrize("change, error, words", BAD, ids=[b[2][:30] for b in BAD])
def test_refuses_bad_arguments_in_the_librarys_words(change, error, words):
    args = dict(image=GREY, kernel=np.ones((3, 3)))
    args.update(change)
    options = {k: v for k, v in args.items() if k not in ("image", "kernel")}
    with pytest.raises(error, match=words):
        marlith.deconvolve(args["image"], args["kernel"], **options)


def test_other_threads_run_while_the_library_works():
    # The GIL is released for the run: a thread of pure Python counts on through it at about its
    # own pace. (Runs in threads give the serial results: the options API's concurrency test.)
    image = np.clip(blurred_texture(384, 384, KERNEL), 0, 1)
    done, counts = threading.Event(), [0]

    def count():
        while not done.is_set():
            counts[0] += 1

    def rate(work):
        before, start = counts[0], time.perf_counter()
        work()
        return (counts[0] - before) / (time.perf_counter() - start)

    counter = threading.Thread(target=count)
    counter.start()
    alone = rate(lambda: time.sleep(0.1))
    running = rate(lambda: marlith.deconvolve(image, KERNEL, noise=0.01, threads=1))
    done.set()
    counter.join()
    assert running > 0.25 * alone, (running, alone)


def test_version_and_docstring_examples():
    assert marlith.__version__.count(".") == 2
    cmake = (ROOT / "CMakeLists.txt").read_text()
    assert f"VERSION {marlith.__version__} " in cmake
    assert doctest.testmod(marlith).failed == 0


def test_arrays_are_data_unless_said_to_be_srgb():
    import inspect

    assert inspect.signature(marlith.deconvolve).parameters["colorspace"].default == "linear"
    flat = np.full((32, 32, 3), 128, np.uint8)
    for colorspace in ("linear", "srgb"):
        # A flat image is its own restoration through any tone curve.
        out = marlith.deconvolve(flat, np.ones((3, 3)), noise=0.1, colorspace=colorspace)
        assert np.abs(out.astype(int) - 128).max() <= 1, colorspace
