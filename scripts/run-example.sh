#!/usr/bin/env bash
# Installs what is missing, builds, and deblurs the shipped example into
# examples/earth_deblurred.png.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
scripts/build.sh
build/app/marlith examples/earth_blurred.png examples/motion_kernel.png \
  examples/earth_deblurred.png 1 0.1 1
echo "Restored image: examples/earth_deblurred.png"
