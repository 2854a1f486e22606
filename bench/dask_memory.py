"""Peak memory of marlith.dask on an image far larger than its chunks.

    PYTHONPATH=build/python /usr/bin/python3 bench/dask_memory.py [--size 16384] [--chunk 2048]

Writes a size x size grey 8-bit blurred photograph (NASA's Blue Marble from Debian's
xplanet-images, mirrored and tiled, blurred with examples/motion_kernel.png, 0.5 % noise) to a
zarr store in --workdir (once; kept for later runs), then restores it from zarr to zarr with
marlith.dask.deconvolve on a dask.distributed LocalCluster of --workers single-threaded worker
processes. Samples the resident memory of every worker (and of this client process) every
0.2 s and prints the peaks, beside the peak of one chunk restored alone (with its overlap) in a
fresh process: the memory a worker needs is that of the chunk it works on, not the image's.
"""

import argparse
import os
import subprocess
import sys
import threading
import time

# The machine is shared: OpenMP threads that spin while they wait slow a busy machine down
# tenfold. Set before marlith's OpenMP runtime loads (workers inherit it).
os.environ.setdefault("OMP_WAIT_POLICY", "passive")

import dask.array as da  # noqa: E402
import numpy as np  # noqa: E402
import psutil  # noqa: E402
import zarr  # noqa: E402
from dask.distributed import Client, LocalCluster  # noqa: E402

import marlith  # noqa: E402
import marlith.dask  # noqa: E402

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from dask_seams import ROOT, blur, read_image, sharp_image  # noqa: E402

MiB = 1 << 20


def make_input(path: str, size: int, chunk: int, kernel: np.ndarray) -> None:
    """The blurred photograph, tiled from a 4096-sample square blurred once."""
    tile = blur(sharp_image(4096), kernel, 0.0)[..., 1]
    reps = -(-size // tile.shape[0])
    image = da.tile(da.from_array(tile, chunks=chunk), (reps, reps))[:size, :size]
    noise = da.random.RandomState(7).normal(0, 0.005, (size, size), chunks=chunk)
    pixels = da.clip(da.rint((image + noise) * 255), 0, 255).astype(np.uint8)
    pixels.rechunk(chunk).to_zarr(path, overwrite=True)


def one_chunk_peak(side: int, kernel_path: str) -> float:
    """Peak resident MiB of a fresh process that restores one side x side grey uint8 chunk."""
    code = (
        "import numpy as np, marlith, sys\n"
        "sys.path.insert(0, %r)\n"
        "from dask_seams import read_image\n"
        "k = read_image(%r)[..., 0]\n"
        "img = np.random.default_rng(0).integers(0, 256, (%d, %d), dtype=np.uint8)\n"
        "marlith.deconvolve(img, k, noise=0.05, threads=1)\n"
        # VmHWM: this process image's own peak (ru_maxrss would keep the parent's across exec)
        "print(open('/proc/self/status').read().split('VmHWM:')[1].split()[0])\n"
    ) % (os.path.dirname(os.path.abspath(__file__)), kernel_path, side, side)
    out = subprocess.run([sys.executable, "-c", code], check=True, capture_output=True,
                         text=True).stdout
    return int(out.split()[-1]) / 1024


class PeakSampler:
    """Samples the resident memory of some processes until stopped; keeps each one's peak."""

    def __init__(self, pids, interval=0.2):
        self.procs = {pid: psutil.Process(pid) for pid in pids}
        self.peaks = {pid: 0 for pid in pids}
        self.interval = interval
        self._stop = threading.Event()
        self._thread = threading.Thread(target=self._run, daemon=True)

    def _run(self):
        while not self._stop.is_set():
            for pid, p in self.procs.items():
                try:
                    self.peaks[pid] = max(self.peaks[pid], p.memory_info().rss)
                except psutil.Error:
                    pass
            time.sleep(self.interval)

    def __enter__(self):
        self._thread.start()
        return self

    def __exit__(self, *exc):
        self._stop.set()
        self._thread.join()


def main() -> None:
    p = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    p.add_argument("--size", type=int, default=16384)
    p.add_argument("--chunk", type=int, default=2048)
    p.add_argument("--workers", type=int, default=2)
    p.add_argument("--workdir", default="/tmp/marlith-dask-memory")
    args = p.parse_args()

    kernel_path = os.path.join(ROOT, "examples", "motion_kernel.png")
    kernel = read_image(kernel_path)[..., 0]
    source = os.path.join(args.workdir, f"blurred-{args.size}-{args.chunk}.zarr")
    target = os.path.join(args.workdir, f"restored-{args.size}-{args.chunk}.zarr")
    if not os.path.exists(source):
        t = time.perf_counter()
        make_input(source, args.size, args.chunk, kernel)
        print(f"input written to {source} in {time.perf_counter() - t:.0f} s", flush=True)
    blurred = da.from_zarr(source)
    print(f"{args.size} x {args.size} grey uint8 ({blurred.nbytes / MiB:.0f} MiB) in "
          f"{args.chunk}-sample chunks, {args.workers} worker processes of 1 thread", flush=True)

    cluster = LocalCluster(n_workers=args.workers, threads_per_worker=1, dashboard_address=None)
    with cluster, Client(cluster) as client:
        # What noise="auto" does, spelled out to report the strength and the overlap.
        t = time.perf_counter()
        strength = marlith.estimate_noise(marlith.dask._noise_sample(blurred)).strength
        overlap = marlith.dask.overlap_for(kernel, strength)
        restored = marlith.dask.deconvolve(blurred, kernel, noise=strength)
        setup = time.perf_counter() - t
        worker_pids = list(client.run(os.getpid).values())
        with PeakSampler(worker_pids + [os.getpid()]) as sampler:
            t = time.perf_counter()
            restored.to_zarr(target, overwrite=True)
            elapsed = time.perf_counter() - t
        workers = [sampler.peaks[pid] / MiB for pid in worker_pids]
        client_peak = sampler.peaks[os.getpid()] / MiB

    overlap_side = args.chunk + 2 * overlap
    alone = one_chunk_peak(overlap_side, kernel_path)
    print(f"noise strength {strength:.4f}, overlap {overlap} samples; estimate and graph: "
          f"{setup:.1f} s; restoring: {elapsed:.0f} s")
    print("| process | peak resident memory (MiB) |")
    print("|---|---|")
    for i, peak in enumerate(workers):
        print(f"| worker {i + 1} | {peak:.0f} |")
    print(f"| client (this process) | {client_peak:.0f} |")
    print(f"| one {overlap_side} x {overlap_side} chunk restored alone | {alone:.0f} |")
    out = zarr.open(target, mode="r")
    print(f"result: {out.shape} {out.dtype}, chunks {out.chunks}")


if __name__ == "__main__":
    main()
