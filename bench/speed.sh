#!/usr/bin/env bash
# Time and peak memory of whole marlith runs: grey and colour images of 0.25, 1, 4 and 12
# megapixels, kernels of 15, 31 and 61 samples, boundary types 0 and 1.
# Runs use noise strength 0.1 (the best on the quality benchmark) and weight 1.
# Usage: bench/speed.sh [--floor] [--fast-margins[=COMMAND]] [build dir] [output table] [sizes...]
#   --floor         adds each row's transform floor (inner rounds x one forward and one inverse
#                   transform at the working size, measured plans) and the run's ratio to it,
#                   from build/bench/run_bench (one more untimed run per row)
#   --fast-margins  adds, for boundary type 1, a row solved with fast margins (working sides
#                   widened to 2, 3, 5, 7-smooth sizes) by COMMAND, which takes the six
#                   arguments of marlith (default: build/bench/marlith-fast-margins)
# Writes a Markdown table (default bench/results/speed.md) and a CSV next to it.
set -euo pipefail
cd "$(dirname "$0")/.."
floor=0
fast=""
while [ $# -gt 0 ]; do
  case "$1" in
    --floor) floor=1; shift ;;
    --fast-margins) fast=default; shift ;;
    --fast-margins=*) fast="${1#--fast-margins=}"; shift ;;
    *) break ;;
  esac
done
build="${1:-build}"
[ "$fast" = default ] && fast="$build/bench/marlith-fast-margins"
table="${2:-bench/results/speed.md}"
shift $(( $# > 2 ? 2 : $# ))
megapixels=("$@")
[ ${#megapixels[@]} -gt 0 ] || megapixels=(0.25 1 4 12)
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
mkdir -p "$(dirname "$table")"
csv="${table%.md}.csv"

echo "megapixels,width,height,channels,kernel,boundary,margins,seconds,peak_mib,work,rounds,floor" > "$csv"
# One timed run: prints "seconds,peak MiB", or "failed,peak" for a refused run (its reason is on
# stderr), and the rest go on.
timed_run() {
  if /usr/bin/time -f "%e %M" -o "$work/time" "$@" > "$work/stdout"; then
    seconds=$(sed -n 's/^time cost : //p' "$work/stdout")
  else
    seconds=failed
  fi
  echo "$seconds,$(( $(awk 'END { print $2 }' "$work/time") / 1024 ))"
}
# The row's working plane, inner rounds and transform floor, or empty fields.
floor_of() {
  [ "$floor" = 1 ] || { echo ",,"; return; }
  "$build/bench/run_bench" --floor-only "$work/blurred.png" "$work/k$1.png" 0.1 1 "$2" \
    | awk '/^floor/ { printf "%sx%s,%s,%s\n", $2, $3, $4, $6 }'
}
for mp in "${megapixels[@]}"; do
  # 3:2 images from the example photograph, enlarged.
  width=$(awk -v m="$mp" 'BEGIN { printf "%d", sqrt(m * 1e6 * 1.5) }')
  height=$(awk -v m="$mp" -v w="$width" 'BEGIN { printf "%d", m * 1e6 / w }')
  gm convert examples/earth_sharp.png -resize "${width}x${height}!" "$work/colour.png"
  gm convert "$work/colour.png" -colorspace GRAY "$work/grey.png"
  for kernel in 15 31 61; do
    "$build/bench/marlith-kernel" "$kernel" "$work/k$kernel.png"
    for kind in grey colour; do
      channels=$([ "$kind" = grey ] && echo 1 || echo 3)
      "$build/bench/marlith-blur" "$work/$kind.png" "$work/k$kernel.png" "$work/blurred.png" \
        replicated 0.005 1
      for boundary in 0 1; do
        result=$(timed_run "$build/app/marlith" "$work/blurred.png" "$work/k$kernel.png" \
          "$work/out.png" "$boundary" 0.1 1)
        echo "$mp,$width,$height,$channels,$kernel,$boundary,exact,$result,$(floor_of "$kernel" "command:$boundary")" | tee -a "$csv"
        if [ "$boundary" = 1 ] && [ -n "$fast" ]; then
          result=$(timed_run $fast "$work/blurred.png" "$work/k$kernel.png" "$work/out.png" 1 0.1 1)
          echo "$mp,$width,$height,$channels,$kernel,1,fast,$result,$(floor_of "$kernel" "engine:1:fast")" | tee -a "$csv"
        fi
      done
    done
  done
done

{
  echo "| MP | size | channels | kernel | boundary | margins | seconds | peak MiB | working plane | rounds | floor s | ratio |"
  echo "|---:|---|---:|---:|---:|---|---:|---:|---|---:|---:|---:|"
  tail -n +2 "$csv" | awk -F, '{
    ratio = ($8 != "failed" && $12 != "" && $12 > 0) ? sprintf("%.2f", $8 / $12) : ""
    floor = $12 != "" ? sprintf("%.3f", $12) : ""
    printf "| %s | %sx%s | %s | %s | %s | %s | %s | %s | %s | %s | %s | %s |\n", $1, $2, $3, $4, $5, $6, $7,
      ($8 == "failed" ? $8 : sprintf("%.2f", $8)), $9, $10, $11, floor, ratio }'
} > "$table"
# Time against megapixels for the colour runs, one line per kernel size and boundary type.
plot="${table%.md}.png"
if command -v gnuplot > /dev/null; then
  gnuplot <<PLOT
set terminal png size 900,600
set output "$plot"
set datafile separator ","
set key left top
set xlabel "megapixels"
set ylabel "seconds (whole run, colour image)"
set logscale xy
set grid
plot for [k in "15 31 61"] for [b in "0 1"] \
  "< awk -F, -v k=".k." -v b=".b." '\$4 == 3 && \$5 == k && \$6 == b && \$7 == \"exact\"' $csv" \
  using 1:8 with linespoints title sprintf("kernel %s, boundary %s", k, b)
PLOT
  echo "wrote $plot"
fi
echo "wrote $table and $csv"
