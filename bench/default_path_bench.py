#!/usr/bin/python3
"""The default road, timed as a user meets it, next to scikit-image's Wiener filter.

A nature photograph of Debian's mate-backgrounds package, cut to the size asked (1000 x 1000 is
1 MP, 4242 x 2828 is 12 MP), blurred in linear light by a 25-sample motion kernel at 30 degrees
(marlith.kernels.motion), given noise of standard deviation 0.01 sqrt(v + 0.02), encoded with
the sRGB curve, saved as an 8-bit PNG. Each round (five by default) runs, in turn:

  deblur auto    marlith-deblur -k k.npy -o out.png in.png (every default): whole-process wall time
                 and peak resident memory (/usr/bin/time)
  deblur given   the same with --noise X, X the strength the automatic run chose (shown by -v)
  python auto    a child python3 that reads the PNG (Pillow) and calls marlith.deconvolve(image,
                 kernel) with its defaults: whole process, and the call alone
  python given   the same with noise=X
  wiener         skimage.restoration.wiener(channel, kernel, balance=0.05) on the three channels
                 of the same PNG in a child python3: the filtering alone
  floor          build/bench/default_path_floor on the same files: the split solver's inner
                 rounds x two transform pairs of its working plane (best of 15 pairs)

and the table gives the median of the rounds, the memory as bytes per pixel (peak RSS / pixels).

  /usr/bin/python3 bench/default_path_bench.py --build build --sizes 1000x1000 4242x2828
"""
import argparse
import os
import re
import statistics
import subprocess
import sys
import tempfile
import time

import numpy as np
from PIL import Image
from scipy import signal

HERE = os.path.dirname(os.path.abspath(__file__))
PHOTO = "/usr/share/backgrounds/mate/nature/Storm.jpg"


def srgb_to_linear(e):
    return np.where(e <= 0.04045, e / 12.92, ((e + 0.055) / 1.055) ** 2.4)


def linear_to_srgb(v):
    v = np.clip(v, 0.0, None)
    return np.where(v <= 0.0031308, 12.92 * v, 1.055 * v ** (1 / 2.4) - 0.055)


def make_case(folder, width, height, kernel):
    photo = Image.open(PHOTO).convert("RGB")
    scale = max(width / photo.width, height / photo.height)
    photo = photo.resize((round(photo.width * scale) + 1, round(photo.height * scale) + 1), Image.LANCZOS)
    x, y = (photo.width - width) // 2, (photo.height - height) // 2
    scene = np.asarray(photo.crop((x, y, x + width, y + height))) / 255.0
    r = kernel.shape[0] // 2
    linear = np.pad(srgb_to_linear(scene), ((r, r), (r, r), (0, 0)), mode="edge")
    blurred = np.stack([signal.fftconvolve(linear[..., c], kernel, mode="valid") for c in range(3)], -1)
    rng = np.random.default_rng(3)
    noisy = blurred + 0.01 * np.sqrt(np.clip(blurred, 0, None) + 0.02) * rng.standard_normal(blurred.shape)
    encoded = np.round(linear_to_srgb(np.clip(noisy, 0, 1)) * 255).astype(np.uint8)
    path = os.path.join(folder, f"in{width}x{height}.png")
    Image.fromarray(encoded).save(path, compress_level=1)
    return path


def timed(cmd, env=None):
    """Wall seconds, peak RSS in bytes and output of a child process (under /usr/bin/time)."""
    t0 = time.perf_counter()
    p = subprocess.run(["/usr/bin/time", "-f", "@@%M", *cmd], capture_output=True, text=True, env=env)
    wall = time.perf_counter() - t0
    if p.returncode != 0:
        sys.exit(f"failed: {' '.join(cmd)}\n{p.stderr}")
    rss = int(re.findall(r"@@(\d+)", p.stderr)[-1]) * 1024
    return wall, rss, p.stdout + p.stderr


PYTHON_CALL = """
import sys, time
import numpy as np
from PIL import Image
import marlith
image = np.asarray(Image.open(sys.argv[1]))
kernel = np.load(sys.argv[2])
kw = {} if sys.argv[3] == "auto" else {"noise": float(sys.argv[3])}
t0 = time.perf_counter()
out = marlith.deconvolve(image, kernel, **kw)
print("call", time.perf_counter() - t0)
"""

WIENER_CALL = """
import sys, time
import numpy as np
from PIL import Image
from skimage.restoration import wiener
image = np.asarray(Image.open(sys.argv[1])) / 255.0
kernel = np.load(sys.argv[2])
t0 = time.perf_counter()
out = np.stack([wiener(image[..., c], kernel, balance=0.05) for c in range(3)], -1)
print("call", time.perf_counter() - t0)
"""


def call_seconds(text):
    return float(re.findall(r"call ([0-9.e-]+)", text)[-1])


def load():
    return os.getloadavg()[0]


def bench(args, folder, width, height, kernel_path):
    image = make_case(folder, width, height, np.load(kernel_path))
    out = os.path.join(folder, "out.png")
    deblur = os.path.join(args.build, "deblur", "marlith-deblur")
    floor_tool = args.floor or os.path.join(args.build, "bench", "default_path_floor")
    env = dict(os.environ, PYTHONPATH=os.path.join(args.build, "python"))
    _, _, text = timed([deblur, "-v", "-k", kernel_path, "-o", out, image])
    strength = re.findall(r"noise strength ([0-9.e+-]+)", text)[-1]
    rows = {k: [] for k in ("deblur auto", "deblur given", "python auto", "python auto call",
                            "python given", "python given call", "wiener", "floor")}
    memory = {"deblur auto": [], "python auto": []}
    rounds = set()
    loads = [load()]
    for _ in range(args.runs):
        wall, rss, _ = timed([deblur, "-k", kernel_path, "-o", out, image])
        rows["deblur auto"].append(wall)
        memory["deblur auto"].append(rss)
        rows["deblur given"].append(timed([deblur, "--noise", strength, "-k", kernel_path, "-o", out, image])[0])
        for noise, name in (("auto", "python auto"), (strength, "python given")):
            wall, rss, text = timed([sys.executable, "-c", PYTHON_CALL, image, kernel_path, noise], env)
            rows[name].append(wall)
            rows[name + " call"].append(call_seconds(text))
            if noise == "auto":
                memory["python auto"].append(rss)
        rows["wiener"].append(call_seconds(timed([sys.executable, "-c", WIENER_CALL, image, kernel_path])[2]))
        text = timed([floor_tool, image, kernel_path])[2]
        fields = text.split()
        rows["floor"].append(float(fields[fields.index("floor") + 1]))
        rounds.add((int(fields[1]), fields[3] + "x" + fields[4]))
        loads.append(load())
    pixels = width * height
    med = {k: statistics.median(v) for k, v in rows.items()}
    print(f"\n{width} x {height} colour, 25-sample motion kernel, strength chosen {strength}, "
          f"rounds and working plane {sorted(rounds)}, load average {min(loads):.2f} to {max(loads):.2f}")
    print("| run | median s | min s | max s | / Wiener | / floor | peak MiB | bytes / pixel |")
    print("|---|---:|---:|---:|---:|---:|---:|---:|")
    for k, v in rows.items():
        mem = memory.get(k)
        mib = f"{statistics.median(mem) / 2**20:.0f}" if mem else ""
        per = f"{statistics.median(mem) / pixels:.0f}" if mem else ""
        print(f"| {k} | {med[k]:.3f} | {min(v):.3f} | {max(v):.3f} | {med[k] / med['wiener']:.2f} | "
              f"{med[k] / med['floor']:.2f} | {mib} | {per} |")
    print(f"automatic strength over given: deblur {med['deblur auto'] / med['deblur given'] - 1:+.1%}, "
          f"python call {med['python auto call'] / med['python given call'] - 1:+.1%}")


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--build", default=os.path.join(HERE, "..", "build"))
    parser.add_argument("--sizes", nargs="+", default=["1000x1000", "4242x2828"])
    parser.add_argument("--runs", type=int, default=5)
    parser.add_argument("--floor", help="the default_path_floor program (default: the build's)")
    args = parser.parse_args()
    with tempfile.TemporaryDirectory() as folder:
        sys.path.insert(0, os.path.join(args.build, "python"))
        import marlith

        kernel_path = os.path.join(folder, "k.npy")
        np.save(kernel_path, marlith.kernels.motion(25, 30))
        for size in args.sizes:
            width, height = map(int, size.split("x"))
            bench(args, folder, width, height, kernel_path)


if __name__ == "__main__":
    sys.exit(main())
