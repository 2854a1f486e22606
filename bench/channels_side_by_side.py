"""Colour channels solved one after another with two threads each, against two channels side by
side on one thread each and the third on two, through the Python package (periodic boundary, noise
strength 0.1, warm plans). Usage (from the build tree's python folder on PYTHONPATH):

    python3 bench/channels_side_by_side.py blurred.png kernel.png
"""
import sys
import threading
import time

import numpy as np
from PIL import Image

import marlith

img = np.asarray(Image.open(sys.argv[1]).convert("RGB"), dtype=np.float64) / 255
ker = np.asarray(Image.open(sys.argv[2]).convert("L"), dtype=np.float64)
channels = [np.ascontiguousarray(img[:, :, c]) for c in range(3)]


def run(c, threads):
    return marlith.deconvolve(channels[c], ker, noise=0.1, boundary="periodic", threads=threads)


def timed(f, runs=11):
    """Best and median seconds of runs calls."""
    seconds = []
    for _ in range(runs):
        start = time.perf_counter()
        f()
        seconds.append(time.perf_counter() - start)
    return min(seconds), sorted(seconds)[runs // 2]


def one_after_another():
    for c in range(3):
        run(c, 2)


def side_by_side():
    pair = [threading.Thread(target=run, args=(c, 1)) for c in range(2)]
    for t in pair:
        t.start()
    for t in pair:
        t.join()
    run(2, 2)


for threads in (1, 2):  # plans of both thread counts measured and warm
    run(0, threads)
    run(0, threads)
rows = [
    ("one channel, 2 threads", lambda: run(0, 2)),
    ("one channel, 1 thread", lambda: run(0, 1)),
    ("3 channels one after another, 2 threads each", one_after_another),
    ("2 channels side by side on 1 thread each, the third on 2", side_by_side),
]
for name, f in rows:
    print("%s: best %.3f s, median %.3f s" % ((name,) + timed(f)))
difference = np.abs(run(0, 2) - run(0, 1)).max()
print("largest difference between 1 and 2 threads:", float(difference))
