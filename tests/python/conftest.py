"""Shared fixtures of the Python tests. scripts/test.sh runs them with Debian's python3 and
PYTHONPATH=build/python; --marlith-exe (or MARLITH_EXE) names the command-line executable,
--marlith-deblur (or MARLITH_DEBLUR) marlith-deblur when it is not in the same build tree."""

import os
from pathlib import Path

import numpy as np
import pytest
from PIL import Image

# The machines the suite runs on are shared: OpenMP threads that spin while waiting for work
# make a run on a busy machine ten times slower. Results do not depend on this. Set before
# marlith's module (and its OpenMP runtime) is loaded; the command line inherits it.
os.environ.setdefault("OMP_WAIT_POLICY", "passive")

ROOT = Path(__file__).resolve().parents[2]


def pytest_addoption(parser):
    parser.addoption(
        "--marlith-exe",
        default=os.environ.get("MARLITH_EXE", str(ROOT / "build" / "app" / "marlith")),
        help="the marlith command-line executable",
    )
    parser.addoption(
        "--marlith-deblur",
        default=os.environ.get("MARLITH_DEBLUR"),
        help="the marlith-deblur executable (default: beside --marlith-exe's build folder)",
    )


@pytest.fixture(scope="session")
def marlith_exe(request) -> Path:
    exe = Path(request.config.getoption("--marlith-exe"))
    if not exe.is_file():
        pytest.fail(f"the marlith executable {exe} is missing: build first or pass --marlith-exe")
    return exe


@pytest.fixture(scope="session")
def marlith_deblur(request, marlith_exe) -> Path:
    given = request.config.getoption("--marlith-deblur")
    exe = Path(given) if given else marlith_exe.parent.parent / "deblur" / "marlith-deblur"
    if not exe.is_file():
        pytest.fail(f"the marlith-deblur executable {exe} is missing: build first or pass "
                    "--marlith-deblur")
    return exe


def read_image(path) -> np.ndarray:
    """An image file as uint8 (H, W, 3)."""
    return np.asarray(Image.open(path).convert("RGB"))


def blurred_texture(h: int, w: int, kernel: np.ndarray, channels: int = 0, noise: float = 0.005,
                    seed: int = 0) -> np.ndarray:
    """A float64 texture (edges at every scale) circularly blurred with the kernel (centred)
    plus white noise; (h, w) or (h, w, channels)."""
    rng = np.random.default_rng(seed)
    shape = (h, w, channels) if channels else (h, w)
    fy = np.fft.fftfreq(h)[:, None]
    fx = np.fft.rfftfreq(w)[None, :]
    k = np.zeros((h, w))
    kh, kw = kernel.shape
    k[:kh, :kw] = kernel / kernel.sum()
    k = np.roll(k, (-(kh // 2), -(kw // 2)), axis=(0, 1))
    spectrum = np.fft.rfft2(rng.standard_normal(shape), axes=(0, 1))
    filt = np.fft.rfft2(k) / (0.01 + np.hypot(fx, fy))
    if channels:
        filt = filt[..., None]
    img = np.fft.irfft2(spectrum * filt, s=(h, w), axes=(0, 1))
    img = 0.1 + 0.8 * (img - img.min()) / (img.max() - img.min())
    return img + noise * rng.standard_normal(shape)


def psnr(a: np.ndarray, b: np.ndarray) -> float:
    mse = float(np.mean((np.asarray(a, float) - np.asarray(b, float)) ** 2))
    return float("inf") if mse == 0 else 10 * np.log10(1.0 / mse)
