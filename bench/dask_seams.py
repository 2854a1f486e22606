"""How far a chunk's own margins reach into its result: marlith.dask against the whole image.

    PYTHONPATH=build/python /usr/bin/python3 bench/dask_seams.py --size 4096 --chunk 1024 \
        --overlaps 8

A size x size colour photograph (NASA's Blue Marble from Debian's xplanet-images, mirrored to
fill the square, or a synthetic texture when it is missing) is blurred with
examples/motion_kernel.png (replicated borders) plus 0.5 % white noise, restored whole, and
restored by marlith.dask in chunk x chunk chunks with each overlap given (in kernel sizes).
Prints, per overlap, the PSNR of the chunked result against the whole one over the image and in
the worst band of 32 rows or 32 columns (the bands across the chunk edges are the worst).
"""

import argparse
import os
import subprocess
import sys
import time

# The machine is shared: OpenMP threads that spin while they wait slow a busy machine down
# tenfold. Set before marlith's OpenMP runtime loads.
os.environ.setdefault("OMP_WAIT_POLICY", "passive")

import dask  # noqa: E402
import dask.array as da  # noqa: E402
import numpy as np  # noqa: E402

import marlith  # noqa: E402
import marlith.dask  # noqa: E402

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
EARTH = "/usr/share/xplanet/images/earth.jpg"


def read_image(path: str) -> np.ndarray:
    """Any image GraphicsMagick reads, as float64 (H, W, 3) on [0, 1] (through binary PPM)."""
    data = subprocess.run(["gm", "convert", path, "ppm:-"], check=True,
                          capture_output=True).stdout
    fields, pos = [], 0
    while len(fields) < 4:  # magic, width, height, maximum
        while data[pos:pos + 1].isspace():
            pos += 1
        end = pos
        while not data[end:end + 1].isspace():
            end += 1
        fields.append(data[pos:end])
        pos = end
    w, h, top = int(fields[1]), int(fields[2]), int(fields[3])
    dtype = np.uint8 if top < 256 else np.dtype(">u2")
    pixels = np.frombuffer(data, dtype, w * h * 3, pos + 1).reshape(h, w, 3)
    return pixels / top


def sharp_image(size: int) -> np.ndarray:
    if os.path.exists(EARTH):
        tile = read_image(EARTH)
        tile = np.concatenate([tile, tile[::-1]], axis=0)
        tile = np.concatenate([tile, tile[:, ::-1]], axis=1)
        reps = (-(-size // tile.shape[0]), -(-size // tile.shape[1]), 1)
        return np.tile(tile, reps)[:size, :size]
    rng = np.random.default_rng(3)
    f = np.fft.rfft2(rng.standard_normal((size, size)), axes=(0, 1))
    fy, fx = np.fft.fftfreq(size)[:, None], np.fft.rfftfreq(size)[None, :]
    a = np.fft.irfft2(f / (2e-3 + np.hypot(fx, fy)), s=(size, size), axes=(0, 1))
    a = (a - a.min()) / (a.max() - a.min())
    return np.repeat(a[..., None], 3, axis=2)


def blur(sharp: np.ndarray, kernel: np.ndarray, sigma: float, seed: int = 7) -> np.ndarray:
    """Blurs (kernel centred, replicated borders) and adds white noise."""
    kh, kw = kernel.shape
    p = max(kh, kw)
    padded = np.pad(sharp, ((p, p), (p, p), (0, 0)), mode="edge")
    h, w = padded.shape[:2]
    k = np.zeros((h, w))
    k[:kh, :kw] = kernel / kernel.sum()
    k = np.roll(k, (-(kh // 2), -(kw // 2)), axis=(0, 1))
    out = np.empty_like(sharp)
    kf = np.fft.rfft2(k)
    for c in range(sharp.shape[2]):
        full = np.fft.irfft2(np.fft.rfft2(padded[..., c]) * kf, s=(h, w))
        out[..., c] = full[p:-p, p:-p]
    return out + sigma * np.random.default_rng(seed).standard_normal(out.shape)


def psnr(a: np.ndarray, b: np.ndarray) -> float:
    mse = float(np.mean((a - b) ** 2))
    return float("inf") if mse == 0 else 10 * np.log10(1.0 / mse)


def worst_band(a: np.ndarray, b: np.ndarray, band: int = 32) -> float:
    rows = [psnr(a[i:i + band], b[i:i + band]) for i in range(0, a.shape[0], band)]
    cols = [psnr(a[:, i:i + band], b[:, i:i + band]) for i in range(0, a.shape[1], band)]
    return min(rows + cols)


def main() -> None:
    p = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    p.add_argument("--size", type=int, default=4096)
    p.add_argument("--chunk", type=int, default=1024)
    p.add_argument("--overlaps", type=float, nargs="+", default=[8],
                   help="overlaps in kernel sizes")
    p.add_argument("--noise", default="auto",
                   help="noise strength, or auto: the one marlith.dask estimates on its sample")
    p.add_argument("--kernel", default=os.path.join(ROOT, "examples", "motion_kernel.png"))
    p.add_argument("--workers", type=int, default=2)
    args = p.parse_args()

    kernel = read_image(args.kernel)[..., 0]
    extent = marlith.dask._kernel_extent(kernel, "center")
    blurred = blur(sharp_image(args.size), kernel, 0.005)
    if args.noise == "auto":
        sample = marlith.dask._noise_sample(da.from_array(blurred))
        args.noise = marlith.estimate_noise(sample).strength
        print(f"strength estimated on the central {sample.shape[0]}-sample square: "
              f"{args.noise:.5f}; on the whole image: "
              f"{marlith.estimate_noise(blurred).strength:.5f}")
    args.noise = float(args.noise)
    print(f"{args.size} x {args.size} colour, {args.chunk}-sample chunks, kernel "
          f"{kernel.shape[1]} x {kernel.shape[0]} (extent {extent}), noise {args.noise:.5f}",
          flush=True)
    t = time.perf_counter()
    whole = marlith.deconvolve(blurred, kernel, noise=args.noise)
    print(f"whole image: {time.perf_counter() - t:.1f} s", flush=True)
    chunked = da.from_array(blurred, chunks=(args.chunk, args.chunk, 3))
    print("| overlap (kernel sizes) | overlap (samples) | PSNR whole (dB) "
          "| worst 32-band PSNR (dB) | time (s) |")
    print("|---|---|---|---|---|")
    for m in args.overlaps:
        overlap = int(round(m * extent))
        t = time.perf_counter()
        with dask.config.set(scheduler="threads", num_workers=args.workers):
            result = marlith.dask.deconvolve(chunked, kernel, noise=args.noise,
                                             overlap=overlap).compute()
        print(f"| {m:g} | {overlap} | {psnr(result, whole):.1f} | "
              f"{worst_band(result, whole):.1f} | {time.perf_counter() - t:.1f} |", flush=True)


if __name__ == "__main__":
    sys.exit(main())
