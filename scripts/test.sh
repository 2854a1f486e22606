#!/usr/bin/env bash
# Installs what is missing, builds, and runs every test: the suite, the Python package's tests
# (pytest, Debian's python3), the suite again under AddressSanitizer, UndefinedBehaviorSanitizer
# and LeakSanitizer (clang), and the fuzz targets for 20 seconds each.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh

scripts/build.sh
ctest --test-dir build --output-on-failure -j "$(nproc)"

echo "== the Python package, with Debian's python3"
status=0
PYTHONPATH=build/python /usr/bin/python3 -m pytest tests/python -q \
  --marlith-exe build/app/marlith || status=$?
if [ "$status" -eq 5 ]; then
  echo "pytest collected no tests in tests/python" >&2
  exit 1
fi
[ "$status" -eq 0 ] || exit "$status"

echo "== the suite under AddressSanitizer, UndefinedBehaviorSanitizer and LeakSanitizer"
CC=clang CXX=clang++ MARLITH_BUILD_DIR=build-sanitize scripts/build.sh -DMARLITH_SANITIZE=ON
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1 \
  ctest --test-dir build-sanitize --output-on-failure -j "$(nproc)"

echo "== fuzzing"
scripts/fuzz.sh 20
