"""Generated kernels against the true continuous blur, through marlith-deblur.

Each photograph is decoded from sRGB to linear light, blurred there by a finely sampled continuous
blur (the shape rendered at 16 x 16 points per sample and summed over each sample's square),
given 0.5 % white noise, encoded to sRGB and written as an 8-bit PNG. The blur runs past the
frame: the sharp and blurred images are the interior of a larger blurred crop. marlith-deblur then
restores it with the true kernel (the rendered one, as .npy) and with the generated one
(-k gaussian:SIGMA, ...), and with -k gaussian:auto for the Gaussian blurs; PSNR is against the
sharp 8-bit image.

Usage:
    /usr/bin/python3 bench/kernel_shapes_bench.py [--build build-kern] [--set test|train]

--set train: scikit-image's sample photographs (what gaussian:auto was calibrated on);
--set test (default): the nature photographs of Debian's mate-backgrounds, held out.
"""
import argparse
import glob
import os
import subprocess
import sys
import tempfile

import numpy as np
from PIL import Image
from scipy.signal import fftconvolve

MARGIN = 24  # samples of blurred context around the restored crop: more than any blur's reach
SUPER = 16   # points per sample and axis when rendering the continuous blur

BLURS = [
    ("gaussian:1.6", "gaussian", 1.6, 0.0),
    ("gaussian:2.5", "gaussian", 2.5, 0.0),
    ("disk:3.5", "disk", 3.5, 0.0),
    ("disk:6", "disk", 6.0, 0.0),
    ("motion:15,30", "motion", 15.0, 30.0),
    ("motion:21,120", "motion", 21.0, 120.0),
]


def to_linear(s):
    return np.where(s <= 0.04045, s / 12.92, ((s + 0.055) / 1.055) ** 2.4)


def to_srgb(v):
    v = np.clip(v, 0.0, 1.0)
    return np.where(v <= 0.0031308, 12.92 * v, 1.055 * v ** (1 / 2.4) - 0.055)


def true_kernel(shape, size, angle):
    """The continuous blur rendered at SUPER x SUPER points per sample, each sample the sum of
    its points: y points up, rows go down."""
    if shape == "motion":
        r = int(np.ceil(size / 2)) + 1
        k = np.zeros((2 * r + 1, 2 * r + 1))
        n = int(size * SUPER * SUPER)
        s = (np.arange(n) + 0.5) / n - 0.5
        a = np.radians(angle)
        x, y = s * size * np.cos(a), s * size * np.sin(a)
        np.add.at(k, (r - np.floor(y + 0.5).astype(int), r + np.floor(x + 0.5).astype(int)), 1.0)
        return k / k.sum()
    r = int(np.ceil(4 * size if shape == "gaussian" else size)) + 1
    t = (np.arange((2 * r + 1) * SUPER) + 0.5) / SUPER - (r + 0.5)
    x, y = np.meshgrid(t, t)
    if shape == "gaussian":
        fine = np.exp(-(x * x + y * y) / (2 * size * size))
    else:
        fine = (x * x + y * y <= size * size).astype(float)
    k = fine.reshape(2 * r + 1, SUPER, 2 * r + 1, SUPER).sum(axis=(1, 3))
    return k / k.sum()


def photographs(which):
    """(name, sRGB float image) of the set, each sharp at the sample level."""
    if which == "train":
        import skimage.data as d

        for name in ("astronaut", "coffee", "chelsea", "rocket", "camera", "immunohistochemistry"):
            img = getattr(d, name)()
            img = np.stack([img] * 3, axis=2) if img.ndim == 2 else img[..., :3]
            yield name, img.astype(np.float64) / 255
        return
    for path in sorted(glob.glob("/usr/share/backgrounds/mate/nature/*.jpg"))[:6]:
        img = np.asarray(Image.open(path).convert("RGB"), dtype=np.float64) / 255
        # Halved in light where large enough (JPEG wallpapers are soft at their full size), the
        # central crop.
        lin = to_linear(img)
        size = 512 + 2 * MARGIN
        if min(lin.shape[:2]) >= 2 * size:
            h, w = (lin.shape[0] // 2) * 2, (lin.shape[1] // 2) * 2
            lin = lin[:h, :w].reshape(h // 2, 2, w // 2, 2, 3).mean(axis=(1, 3))
        y0, x0 = (lin.shape[0] - size) // 2, (lin.shape[1] - size) // 2
        yield os.path.basename(path)[:-4], to_srgb(lin[y0 : y0 + size, x0 : x0 + size])


def blurred_pair(img, kernel, seed):
    """The sharp interior and its blurred, noisy version, both 8-bit sRGB."""
    lin = to_linear(img)
    blurred = np.stack([fftconvolve(lin[..., c], kernel, mode="same") for c in range(3)], axis=2)
    blurred += np.random.default_rng(seed).normal(0, 0.005, blurred.shape)
    crop = (slice(MARGIN, -MARGIN), slice(MARGIN, -MARGIN))
    q = lambda v: np.round(np.clip(v, 0, 1) * 255).astype(np.uint8)
    return np.ascontiguousarray(q(img[crop])), np.ascontiguousarray(q(to_srgb(blurred[crop])))


def psnr(a, b):
    err = np.mean((a.astype(np.float64) - b.astype(np.float64)) ** 2)
    return 10 * np.log10(255.0**2 / err)


def restore(exe, kernel, blurred_path, out_path, verbose=False):
    args = [exe, "-k", kernel, "-o", out_path, blurred_path] + (["-v"] if verbose else [])
    run = subprocess.run(args, capture_output=True, text=True)
    if run.returncode != 0:
        sys.exit(run.stderr)
    return np.asarray(Image.open(out_path).convert("RGB")), run.stderr


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--build", default="build-kern")
    parser.add_argument("--set", default="test", choices=("test", "train"))
    parser.add_argument("--auto-only", action="store_true")
    args = parser.parse_args()
    exe = os.path.join(args.build, "deblur", "marlith-deblur")
    print("| image | blur | blurred dB | true kernel dB | generated dB | difference | auto sigma | auto dB | auto - true |")
    print("|---|---|---|---|---|---|---|---|---|")
    worst = {"generated": 0.0, "auto": 0.0}
    with tempfile.TemporaryDirectory() as tmp:
        for i, (name, img) in enumerate(photographs(args.set)):
            for spec, shape, size, angle in BLURS:
                if args.auto_only and shape != "gaussian":
                    continue
                kernel = true_kernel(shape, size, angle)
                sharp, blurred = blurred_pair(img, kernel, seed=i)
                bpath = os.path.join(tmp, "blurred.png")
                Image.fromarray(blurred).save(bpath)
                kpath = os.path.join(tmp, "true.npy")
                np.save(kpath, kernel)
                true_db = psnr(restore(exe, kpath, bpath, os.path.join(tmp, "t.png"))[0], sharp)
                gen_db = psnr(restore(exe, spec, bpath, os.path.join(tmp, "g.png"))[0], sharp)
                worst["generated"] = min(worst["generated"], gen_db - true_db)
                auto = ["", "", ""]
                if shape == "gaussian":
                    out, log = restore(exe, "gaussian:auto", bpath, os.path.join(tmp, "a.png"), True)
                    auto_db = psnr(out, sharp)
                    sigma = [l.split("sigma ")[1].split()[0] for l in log.splitlines() if "sigma " in l]
                    auto = [sigma[0] if sigma else "?", "%.2f" % auto_db, "%+.2f" % (auto_db - true_db)]
                    worst["auto"] = min(worst["auto"], auto_db - true_db)
                print("| %s | %s | %.2f | %.2f | %.2f | %+.2f | %s |"
                      % (name, spec, psnr(blurred, sharp), true_db, gen_db, gen_db - true_db, " | ".join(auto)),
                      flush=True)
    print("\nworst generated - true: %+.2f dB; worst auto - true: %+.2f dB" % (worst["generated"], worst["auto"]))


if __name__ == "__main__":
    main()
