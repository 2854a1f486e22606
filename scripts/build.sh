#!/usr/bin/env bash
# Configures and builds marlith into build/ (or $MARLITH_BUILD_DIR). Extra arguments go to cmake.
set -euo pipefail
cd "$(dirname "$0")/.."
build="${MARLITH_BUILD_DIR:-build}"
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@" > /dev/null
cmake --build "$build" -j "$(nproc)"
