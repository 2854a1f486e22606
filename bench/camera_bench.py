#!/usr/bin/env python3
"""Photographs as cameras make them, restored by marlith-deblur.

Each scene (a sharp 8-bit sRGB photograph) is linearised, multiplied by an exposure, blurred in
linear light by a motion kernel, given noise of standard deviation 0.01 sqrt(v + 0.02), clipped
to [0, 1], encoded with the sRGB curve and quantised to 8 bits, then saved as PNG or as JPEG of
quality 90. The cases:

  light       exposure 1.0, PNG, blur with replicated borders
  highlights  exposure 1.6 (clipped highlights), PNG
  jpeg        exposure 1.0, JPEG quality 90
  borders     exposure 1.0, PNG, 'valid' blur: the frame's blur reaches outside it

PSNR is taken against the scene as the camera records it (the sRGB encoding of the clipped linear
scene), on the interior (a kernel-size margin cut), except for borders (the whole frame).

  bench/camera_bench.py --deblur build/deblur/marlith-deblur --set held-out
  bench/camera_bench.py --deblur ... --set training --args "--noise 0.05"

The training set is scikit-image's sample photographs; the held-out set is the nature photographs
of Debian's mate-backgrounds package (install with scripts/install-deps.sh --bench). The motion
kernels are Levin et al.'s 17- and 23-sample kernels from ../shared/data/levin.
"""
import argparse
import os
import subprocess
import sys
import tempfile

import numpy as np
from PIL import Image
from scipy import ndimage, signal

HERE = os.path.dirname(os.path.abspath(__file__))
LEVIN = os.path.join(HERE, "..", "..", "shared", "data", "levin")
CASES = ("light", "highlights", "jpeg", "borders")


def srgb_to_linear(e):
    return np.where(e <= 0.04045, e / 12.92, ((e + 0.055) / 1.055) ** 2.4)


def linear_to_srgb(v):
    v = np.clip(v, 0.0, None)
    return np.where(v <= 0.0031308, 12.92 * v, 1.055 * v ** (1 / 2.4) - 0.055)


def training_scenes(size):
    from skimage import data

    for name in ("astronaut", "coffee", "chelsea", "rocket"):
        yield name, centre_crop(getattr(data, name)(), size)


def held_out_scenes(size):
    folder = "/usr/share/backgrounds/mate/nature"
    for name in sorted(os.listdir(folder))[:6]:
        img = np.asarray(Image.open(os.path.join(folder, name)).convert("RGB"))
        # Reduced by 4 first: the photographs are sharper than their pixels at full size.
        small = np.asarray(Image.fromarray(img).reduce(4))
        yield os.path.splitext(name)[0], centre_crop(small, size)


def centre_crop(img, size):
    h, w = img.shape[:2]
    y, x = (h - size) // 2, (w - size) // 2
    return img[y : y + size, x : x + size, :3]


def kernel(n):
    index = {17: 2, 23: 7}[n]
    return np.loadtxt(os.path.join(LEVIN, f"kernel{index}.txt"))


def make_case(scene8, k, case, rng, size):
    """The camera's file (as an array of 8-bit samples, and whether JPEG) and the reference."""
    linear = srgb_to_linear(scene8 / 255.0) * (1.6 if case == "highlights" else 1.0)
    r = k.shape[0] // 2
    if case == "borders":
        blurred = np.stack([signal.convolve2d(linear[..., c], k, mode="valid") for c in range(3)], -1)
        reference = linear[r:-r, r:-r]
    else:
        blurred = np.stack([ndimage.convolve(linear[..., c], k, mode="nearest") for c in range(3)], -1)
        reference = linear
    noisy = blurred + 0.01 * np.sqrt(np.clip(blurred, 0, None) + 0.02) * rng.standard_normal(blurred.shape)
    encoded = np.round(linear_to_srgb(np.clip(noisy, 0.0, 1.0)) * 255).astype(np.uint8)
    recorded = linear_to_srgb(np.clip(reference, 0.0, 1.0))
    return encoded, recorded


def psnr(a, b):
    return 10 * np.log10(1.0 / np.mean((a - b) ** 2))


def run(args):
    size = args.size
    scenes = training_scenes(size + 24) if args.set == "training" else held_out_scenes(size + 24)
    rng = np.random.default_rng(7)
    results = {c: [] for c in args.cases}
    with tempfile.TemporaryDirectory() as tmp:
        for name, scene in scenes:
            for n in (17, 23):
                k = kernel(n)
                kpath = os.path.join(tmp, f"k{n}.npy")
                np.save(kpath, k)
                for case in args.cases:
                    encoded, recorded = make_case(scene, k, case, rng, size)
                    ext = ".jpg" if case == "jpeg" else ".png"
                    src = os.path.join(tmp, f"in{ext}")
                    out = os.path.join(tmp, "out.png")
                    if case == "jpeg":
                        Image.fromarray(encoded).save(src, quality=90)
                    else:
                        Image.fromarray(encoded).save(src)
                    cmd = [args.deblur, "-q", "-k", kpath, "-o", out, *args.args.split(), src]
                    subprocess.run(cmd, check=True)
                    restored = np.asarray(Image.open(out).convert("RGB")) / 255.0
                    m = 0 if case == "borders" else n
                    cut = (slice(m, -m or None), slice(m, -m or None))
                    value = psnr(restored[cut], recorded[cut])
                    results[case].append(value)
                    if args.verbose:
                        print(f"{name:14s} k{n} {case:10s} {value:6.2f} dB", flush=True)
    print("| case | images | mean PSNR (dB) |")
    print("|---|---:|---:|")
    for case in args.cases:
        print(f"| {case} | {len(results[case])} | {np.mean(results[case]):.2f} |")


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--deblur", default=os.path.join(HERE, "..", "build", "deblur", "marlith-deblur"))
    parser.add_argument("--set", choices=("training", "held-out"), default="held-out")
    parser.add_argument("--cases", nargs="+", choices=CASES, default=list(CASES))
    parser.add_argument("--size", type=int, default=272)
    parser.add_argument("--args", default="", help="extra options for marlith-deblur")
    parser.add_argument("-v", "--verbose", action="store_true")
    run(parser.parse_args())


if __name__ == "__main__":
    sys.exit(main())
