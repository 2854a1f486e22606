"""marlith.dask: chunked results against the whole image, one noise strength for every chunk,
refused arguments, and the example that restores a folder on a dask.distributed cluster."""

import subprocess
import sys

import dask
import dask.array as da
import numpy as np
import pytest
from PIL import Image as pil
from conftest import ROOT, blurred_texture, psnr, read_image

import marlith
import marlith.dask

# A 9 x 9 camera-shake-like kernel: a bent line.
KERNEL = np.zeros((9, 9))
KERNEL[[1, 2, 3, 4, 4, 5, 6, 7], [1, 2, 3, 4, 5, 5, 6, 7]] = [1, 2, 3, 4, 4, 3, 2, 1]


def worst_band(a, b, band=32):
    rows = [psnr(a[i:i + band], b[i:i + band]) for i in range(0, a.shape[0], band)]
    cols = [psnr(a[:, i:i + band], b[:, i:i + band]) for i in range(0, a.shape[1], band)]
    return min(rows + cols)


@pytest.mark.parametrize("boundary", ["smooth", "periodic"])
def test_chunks_do_not_show_against_the_whole_image(boundary):
    # Camera shake (a 13-sample kernel), 0.5 % noise and the strength "auto" gives it; 2 x 3
    # chunks, both seams crossing. The rule's overlap of 8 kernel sizes gives 56 dB (smooth) and
    # 53 dB (periodic) over the image, 52 and 48 dB in the worst band; 3 kernel sizes give 48 and
    # 45 dB over the image, 42 and 40 dB in the worst band.
    shake = read_image(ROOT / "examples" / "motion_kernel.png")[..., 0].astype(float)
    image = blurred_texture(512, 512, shake)
    whole = marlith.deconvolve(image, shake, noise=0.05, boundary=boundary, threads=1)
    with dask.config.set(scheduler="threads", num_workers=2):
        chunked = marlith.dask.deconvolve(da.from_array(image, chunks=(256, 192)), shake,
                                          noise=0.05,
                                          boundary=boundary).compute()
    assert psnr(chunked, whole) >= 50
    assert worst_band(chunked, whole) >= 45  # every band of 32 rows and of 32 columns


def test_every_chunk_gets_the_noise_strength_of_the_whole_image():
    # Noisy on the left, clean on the right: chunks estimated on their own would differ. The
    # image is smaller than the estimate's sample square, so the whole of it is the sample.
    image = np.clip(blurred_texture(256, 384, KERNEL, noise=0), 0, 1)
    image[:, :192] += 0.03 * np.random.default_rng(1).standard_normal((256, 192))
    strength = marlith.estimate_noise(image).strength
    with dask.config.set(scheduler="synchronous"):
        auto, given = (marlith.dask.deconvolve(da.from_array(image, chunks=128), KERNEL,
                                               **options).compute()
                       for options in ({}, dict(noise=strength)))
    # Later runs of a size may use measured plans: rounding differs.
    np.testing.assert_allclose(auto, given, rtol=0, atol=1e-12)


def test_keeps_dtype_shape_and_alpha_and_refuses_what_whole_images_refuse():
    rng = np.random.default_rng(2)
    image = rng.integers(0, 256, (200, 150, 4), dtype=np.uint8)
    result = marlith.dask.deconvolve(da.from_array(image, chunks=(100, 75, 2)), np.ones((3, 3)),
                                     noise=0.1)
    computed = result.compute(scheduler="synchronous")
    assert computed.shape == image.shape and computed.dtype == np.uint8
    np.testing.assert_array_equal(computed[..., 3], image[..., 3])
    array = da.zeros((64, 64), chunks=32)
    # Refused now, by the whole-image checks (the dtype's, the library's) or the chunks' own.
    for image, options, error in [(da.zeros((64, 64), dtype=np.int64), {}, TypeError),
                                  (array, dict(noise=-1), ValueError),
                                  (array, dict(boundary="wavy"), ValueError),
                                  (array, dict(refine_kernel=True), ValueError)]:
        with pytest.raises(error):
            marlith.dask.deconvolve(image, np.ones((3, 3)), **options)


def test_example_restores_a_folder_on_a_local_cluster(tmp_path):
    rng = np.random.default_rng(4)
    folder, out = tmp_path / "in", tmp_path / "out"
    folder.mkdir()
    images = {
        "grey.png": np.uint8(255 * np.clip(blurred_texture(64, 80, KERNEL), 0, 1)),
        "colour.png": rng.integers(0, 256, (72, 64, 3), dtype=np.uint8),
    }
    for name, pixels in images.items():
        pil.fromarray(pixels).save(folder / name)
    np.save(tmp_path / "kernel.npy", KERNEL)
    run = subprocess.run(
        [sys.executable, str(ROOT / "examples" / "dask_folder.py"), str(folder),
         str(tmp_path / "kernel.npy"), str(out), "--workers", "2", "--noise", "0.1"],
        capture_output=True, text=True, timeout=120)
    assert run.returncode == 0, run.stderr
    for name, pixels in images.items():
        restored = np.asarray(pil.open(out / name))
        expected = marlith.deconvolve(pixels, KERNEL, noise=0.1)
        np.testing.assert_array_equal(restored, expected)


def test_docstring_examples():
    import doctest
    assert doctest.testmod(marlith.dask).failed == 0
