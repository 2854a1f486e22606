#!/usr/bin/env bash
# Installs the Debian packages marlith builds, tests and benchmarks with (with --bench, also the
# photographs of the noise benchmark). Idempotent: packages already present are left alone and no
# package index is fetched when nothing is missing.
set -euo pipefail

packages=(
  build-essential cmake ninja-build pkg-config
  libfftw3-dev libopenblas-dev libsuitesparse-dev libgraphicsmagick++1-dev libspng-dev
  libtiff-dev zlib1g-dev libjpeg-dev liblcms2-dev
  libgtest-dev libcli11-dev
  clang libclang-rt-14-dev
  graphicsmagick time gnuplot-nox linux-perf
  # The Python package (built and tested with Debian's python3), its Dask door and example, and
  # the offline `pip install .` route (venv, pip, setuptools and wheel from Debian).
  python3-dev python3-numpy python3-pybind11 pybind11-dev python3-pytest
  python3-dask python3-distributed python3-zarr python3-psutil python3-pil python3-tifffile
  python3-venv python3-pip python3-setuptools python3-wheel
  # The Debian package's dependencies (cpack's dpkg-shlibdeps).
  dpkg-dev
)

# Only with --bench: the photographs bench/noise_bench reads (scikit-image's sample images and
# xplanet's Earth). scikit-image brings SciPy and Matplotlib along, over 400 MB that building and
# testing do not need.
if [[ "${1:-}" == "--bench" ]]; then
  packages+=(python3-skimage xplanet-images)
fi

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done

if ((${#missing[@]})); then
  sudo=""
  [ "$(id -u)" -eq 0 ] || sudo="sudo"
  echo "Installing: ${missing[*]}"
  $sudo apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
