#!/usr/bin/env python3
"""Photon-limited fluorescence images and z-stacks: marlith's Poisson model against
scikit-image's Richardson-Lucy at its best iteration count.

Each specimen (filaments: smooth random curves; beads: small spheres) is blurred by an
anisotropic Gaussian PSF on a frame wider than the one recorded (the blur reaches past the
border), scaled so that the blurred peak holds PEAK photons, given Poisson noise, offset by 100
and stored as 16-bit samples. Richardson-Lucy is given the known offset and every iteration count
of a list, and the best one by PSNR is kept (an oracle choice); marlith estimates the offset and
the strength itself (noise_model="poisson", boundary="unknown"). PSNR is taken in photons against
the specimen as the blur's peak scales it, over the whole frame, peak = the specimen's largest
value.

  PYTHONPATH=build/python python3 bench/microscopy_bench.py --set held-out
  PYTHONPATH=build/python python3 bench/microscopy_bench.py --set tuning --only 2d

Memory: each 3-D run is repeated in a child process that loads the stack and reads its peak
resident set (VmHWM) less what it held before the run, per voxel of the stack.
"""
import argparse
import json
import os
import subprocess
import sys
import tempfile
import time

import numpy as np
from scipy import ndimage
from skimage.restoration import richardson_lucy

import marlith

OFFSET = 100
SETS = {"tuning": (0, 1), "held-out": (10, 11, 12)}
PEAKS = (30, 100, 300)
RL_ITERATIONS = (10, 20, 40, 80, 120, 160, 240)
PSF2 = (1.6, 2.4)  # sigma along y, x
PSF3 = (3.2, 1.5, 1.5)  # sigma along z, y, x (voxels)


def specimen(shape, kind, rng):
    """Filaments or beads, values in [0, 1]."""
    out = np.zeros(shape)
    dims = len(shape)
    if kind == "filaments":
        for _ in range(12 if dims == 2 else 10):
            p = rng.uniform(0, 1, dims) * np.array(shape)
            d = rng.normal(size=dims)
            d /= np.linalg.norm(d)
            brightness = rng.uniform(0.3, 1.0)
            for _ in range(4 * max(shape)):
                d += 0.15 * rng.normal(size=dims)
                d /= np.linalg.norm(d)
                p = p + 0.5 * d
                i = np.floor(p).astype(int)
                f = p - i
                # Splat the point over its neighbours (linear weights).
                for corner in range(2**dims):
                    offs = np.array([(corner >> k) & 1 for k in range(dims)])
                    j = i + offs
                    if np.all(j >= 0) and np.all(j < shape):
                        out[tuple(j)] += 0.5 * brightness * np.prod(np.where(offs, f, 1 - f))
        return np.minimum(out, 1.0)
    count = 60 if dims == 2 else 120
    for _ in range(count):
        c = rng.integers(0, shape)
        out[tuple(c)] = rng.uniform(0.4, 1.0)
    return ndimage.gaussian_filter(out, 0.6) / ndimage.gaussian_filter(
        np.pad(np.ones((1,) * dims), 4), 0.6
    ).max()


def gaussian_psf(sigmas):
    radius = [int(np.ceil(3.5 * s)) for s in sigmas]
    grids = np.meshgrid(*[np.arange(-r, r + 1) for r in radius], indexing="ij")
    psf = np.exp(-sum(g**2 / (2 * s * s) for g, s in zip(grids, sigmas)))
    return psf / psf.sum()


def make_case(shape, kind, peak, seed, sigmas):
    rng = np.random.default_rng(seed)
    pad = [int(np.ceil(4 * s)) for s in sigmas]
    big = specimen(tuple(n + 2 * p for n, p in zip(shape, pad)), kind, rng)
    blurred = ndimage.gaussian_filter(big, sigmas, mode="constant", truncate=3.5)
    crop = tuple(slice(p, p + n) for n, p in zip(shape, pad))
    scale = peak / blurred[crop].max()
    truth = big[crop] * scale
    counts = rng.poisson(blurred[crop] * scale)
    image = np.minimum(counts + OFFSET, 65535).astype(np.uint16)
    return image, truth


def psnr(estimate, truth):
    mse = np.mean((estimate - truth) ** 2)
    return 10 * np.log10(truth.max() ** 2 / mse)


def run_rl(image, psf, truth):
    data = np.maximum(image.astype(np.float64) - OFFSET, 0.0)
    best = (-np.inf, 0, 0.0)
    for n in RL_ITERATIONS:
        start = time.perf_counter()
        restored = richardson_lucy(data, psf, num_iter=n, clip=False)
        seconds = time.perf_counter() - start
        quality = psnr(restored, truth)
        if quality > best[0]:
            best = (quality, n, seconds)
    return best


def run_marlith(image, psf, truth, args, aspect=1.0):
    options = dict(noise_model="poisson", boundary="unknown")
    if args.noise is not None:
        options["noise"] = args.noise
    start = time.perf_counter()
    restored = marlith.deconvolve(image, psf, voxel_aspect=aspect, **options)
    seconds = time.perf_counter() - start
    return psnr(restored.astype(np.float64) - OFFSET, truth), seconds


def child_memory(path, aspect):
    """Runs in a child: loads the stack and kernel, restores, prints the peak growth in bytes."""

    def status(key):
        with open("/proc/self/status") as f:
            for line in f:
                if line.startswith(key):
                    return int(line.split()[1]) * 1024
        return 0

    data = np.load(path)
    image, psf = data["image"], data["psf"]
    before = status("VmRSS:")
    marlith.deconvolve(image, psf, noise_model="poisson", boundary="unknown", voxel_aspect=aspect)
    print(json.dumps({"bytes": status("VmHWM:") - before}))


def memory_per_voxel(image, psf, aspect):
    with tempfile.TemporaryDirectory() as folder:
        path = os.path.join(folder, "stack.npz")
        np.savez(path, image=image, psf=psf)
        out = subprocess.run(
            [sys.executable, __file__, "--memory-child", path, "--aspect", str(aspect)],
            check=True,
            capture_output=True,
            text=True,
        ).stdout
    return json.loads(out)["bytes"] / image.size


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--set", choices=SETS, default="held-out")
    parser.add_argument("--only", choices=("2d", "3d"))
    parser.add_argument("--noise", type=float, help="a fixed strength for marlith")
    parser.add_argument("--memory-child", help=argparse.SUPPRESS)
    parser.add_argument("--aspect", type=float, default=1.0, help=argparse.SUPPRESS)
    args = parser.parse_args()
    if args.memory_child:
        child_memory(args.memory_child, args.aspect)
        return

    print("| case | peak | RL best (iterations) | RL s | marlith | marlith s | gain | bytes/voxel |")
    print("|---|---|---|---|---|---|---|---|")
    gains = {"2d": [], "3d": []}
    for dims, shape, sigmas in (("2d", (256, 256), PSF2), ("3d", (48, 128, 128), PSF3)):
        if args.only and args.only != dims:
            continue
        psf = gaussian_psf(sigmas)
        for kind in ("filaments", "beads"):
            for peak in PEAKS if dims == "2d" else (30, 300):
                for seed in SETS[args.set]:
                    image, truth = make_case(shape, kind, peak, seed * 7 + peak, sigmas)
                    rl, iterations, rl_seconds = run_rl(image, psf, truth)
                    ours, seconds = run_marlith(image, psf, truth, args)
                    memory = ""
                    if dims == "3d" and seed == SETS[args.set][0]:
                        memory = f"{memory_per_voxel(image, psf, 1.0):.0f}"
                    gains[dims].append(ours - rl)
                    print(
                        f"| {dims} {kind} seed {seed} | {peak} | {rl:.2f} ({iterations}) | "
                        f"{rl_seconds:.2f} | {ours:.2f} | {seconds:.2f} | {ours - rl:+.2f} | "
                        f"{memory} |",
                        flush=True,
                    )
    for dims, values in gains.items():
        if values:
            print(f"\n{dims}: mean gain over RL {np.mean(values):+.2f} dB, worst {min(values):+.2f}")


if __name__ == "__main__":
    main()
