#!/usr/bin/env bash
# Installs the Debian packages marlith builds, tests and benchmarks with. Idempotent: packages
# already present are left alone and no package index is fetched when nothing is missing.
set -euo pipefail

packages=(
  build-essential cmake ninja-build pkg-config
  libfftw3-dev libopenblas-dev libsuitesparse-dev libgraphicsmagick++1-dev libspng-dev
  libgtest-dev
  clang libclang-rt-14-dev libomp-dev
  graphicsmagick time gnuplot-nox linux-perf
)

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
