#!/usr/bin/env bash
# Builds the libFuzzer targets with clang and runs each for a bounded time from a copy of its
# committed seed corpus. Fails when a target finds a crash, a leak or undefined behaviour; the
# reproducer is left in the working folder as crash-* / leak-* / timeout-*.
# Usage: scripts/fuzz.sh [seconds per target, default 20]
set -euo pipefail
cd "$(dirname "$0")/.."
seconds="${1:-20}"
CC=clang CXX=clang++ MARLITH_BUILD_DIR=build-fuzz scripts/build.sh -DMARLITH_FUZZ=ON -DBUILD_TESTING=OFF
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
status=0
for target in image_load:image kernel_file:kernel_file kernel_preparation:kernel \
    memory_entry:entry deblur_options:deblur_options; do
  name="${target%%:*}"
  seeds="${target##*:}"
  mkdir -p "$work/$name"
  cp tests/fuzz/corpus/"$seeds"/* "$work/$name/"
  if ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1 \
      "build-fuzz/tests/fuzz/fuzz_$name" -max_total_time="$seconds" -timeout=10 \
      -rss_limit_mb=2048 -print_final_stats=1 "$work/$name" > "$work/$name.log" 2>&1; then
    runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$work/$name.log")
    echo "fuzz_$name: $runs runs in ${seconds} s, no failure"
  else
    echo "fuzz_$name: FAILED"
    grep -E "ERROR|SUMMARY|Test unit written" "$work/$name.log" | head -20
    status=1
  fi
done
exit $status
