"""Restore every image of a folder on a dask.distributed cluster.

    python3 examples/dask_folder.py blurred/ kernel.png sharp/                # local cluster
    python3 examples/dask_folder.py blurred/ kernel.npy sharp/ --scheduler tcp://host:8786

Each image is one task on the cluster: a worker reads it, restores it with marlith.deconvolve
and writes it under the same name into the output folder (which the workers must see, as they
must see the input). The kernel is an image (its first channel is read, on any scale) or a .npy
array. Without --scheduler a LocalCluster of --workers processes runs the tasks. An image too
large for one worker is restored chunk by chunk instead: marlith.dask.deconvolve on a
dask.array read from zarr or a memory-mapped file.

Needs Pillow (Debian: python3-pil) for reading and writing the images.
"""

from __future__ import annotations

import argparse
import sys
from pathlib import Path

import numpy as np
from dask.distributed import Client, LocalCluster, as_completed
from PIL import Image

import marlith

EXTENSIONS = {".png", ".jpg", ".jpeg", ".tif", ".tiff", ".bmp"}


def read_pixels(path: Path) -> np.ndarray:
    """The image's samples as uint8 or uint16, grey, RGB or RGBA."""
    with Image.open(path) as image:
        if image.mode not in ("L", "RGB", "RGBA", "I;16"):
            alpha = "A" in image.mode or "transparency" in image.info
            image = image.convert("RGBA" if alpha else "RGB")
        return np.asarray(image)


def read_kernel(path: Path) -> np.ndarray:
    kernel = np.load(path) if path.suffix == ".npy" else read_pixels(path)
    return kernel[..., 0] if kernel.ndim == 3 else kernel


def restore(source: str, target: str, kernel: np.ndarray, options: dict) -> str:
    """Runs on a worker: one image, read, restored and written."""
    restored = marlith.deconvolve(read_pixels(Path(source)), kernel, **options)
    Image.fromarray(restored).save(target)
    return target


def main(argv: list[str] | None = None) -> int:
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("input", type=Path, help="folder of blurred images")
    parser.add_argument("kernel", type=Path, help="the blur kernel: an image or a .npy array")
    parser.add_argument("output", type=Path, help="folder for the restored images")
    parser.add_argument("--scheduler", help="address of a running scheduler")
    parser.add_argument("--workers", type=int, default=2, help="local worker processes")
    parser.add_argument("--noise", default="auto", help="noise strength, or auto (default)")
    parser.add_argument("--threads", type=int, default=1, help="engine threads per image")
    args = parser.parse_args(argv)

    sources = sorted(p for p in args.input.iterdir() if p.suffix.lower() in EXTENSIONS)
    if not sources:
        print(f"no images in {args.input}", file=sys.stderr)
        return 1
    args.output.mkdir(parents=True, exist_ok=True)
    kernel = read_kernel(args.kernel)
    options = dict(noise=args.noise if args.noise == "auto" else float(args.noise),
                   threads=args.threads)

    if args.scheduler:
        client = Client(args.scheduler)
    else:
        cluster = LocalCluster(n_workers=args.workers, threads_per_worker=1,
                               dashboard_address=None)
        client = Client(cluster)
    with client:
        shared_kernel = client.scatter(kernel, broadcast=True)
        futures = client.map(restore, [str(p) for p in sources],
                             [str(args.output / p.name) for p in sources],
                             kernel=shared_kernel, options=options)
        names = dict(zip(futures, sources))
        failed = 0
        for future in as_completed(futures):
            try:
                print(future.result())
            except (ValueError, TypeError, OSError) as e:
                failed += 1
                print(f"{names[future]}: {e}", file=sys.stderr)
    if not args.scheduler:
        cluster.close()
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
