#!/usr/bin/env bash
# Installs what is missing, builds, and deblurs the shipped example into
# examples/earth_deblurred.png.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
scripts/build.sh
build/deblur/marlith-deblur --kernel examples/motion_kernel.png \
  --output examples/earth_deblurred.png examples/earth_blurred.png
echo "Restored image: examples/earth_deblurred.png"
