#!/usr/bin/env python3
"""The Levin set blurred with 'valid' convolution, restored by the Python package's defaults.

Each of the four sharp images is blurred by each of the eight kernels with 'valid' convolution
(the frame's blur reaches outside it: the blurred frame is the sharp image less half a kernel
on every side), given white noise of 1 % of the range and quantised to 8 bits. marlith.deconvolve
restores it with every option at its default; PSNR is taken over the whole frame against the
sharp image's matching crop, and averaged over the 32 cases.

  PYTHONPATH=build/python /usr/bin/python3 bench/levin_valid_bench.py [--args "noise=0.05"]
"""
import argparse
import os

import numpy as np
from PIL import Image
from scipy import signal

import marlith

LEVIN = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "shared", "data", "levin")


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--args", default="", help="keyword options, e.g. \"boundary='smooth'\"")
    parser.add_argument("-v", "--verbose", action="store_true")
    args = parser.parse_args()
    options = eval(f"dict({args.args})")
    rng = np.random.default_rng(11)
    values = []
    for i in range(1, 5):
        sharp = np.asarray(Image.open(os.path.join(LEVIN, f"im{i}.png")).convert("L")) / 255.0
        for j in range(1, 9):
            k = np.loadtxt(os.path.join(LEVIN, f"kernel{j}.txt"))
            r = k.shape[0] // 2
            blurred = signal.convolve2d(sharp, k, mode="valid")
            noisy = np.clip(np.round((blurred + 0.01 * rng.standard_normal(blurred.shape)) * 255), 0, 255)
            restored = marlith.deconvolve(noisy.astype(np.uint8), k, **options) / 255.0
            value = 10 * np.log10(1.0 / np.mean((restored - sharp[r:-r, r:-r]) ** 2))
            values.append(value)
            if args.verbose:
                print(f"im{i} kernel{j}: {value:.2f} dB", flush=True)
    print(f"Levin set, 'valid' blur, 1 % noise, 8-bit: {np.mean(values):.2f} dB over {len(values)} cases")


if __name__ == "__main__":
    main()
