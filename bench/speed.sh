#!/usr/bin/env bash
# Time and peak memory of whole marlith runs: grey and colour images of 0.25, 1, 4 and 12
# megapixels, kernels of 15, 31 and 61 samples, boundary types 0 and 1.
# Runs use noise strength 0.1 (the best on the quality benchmark) and weight 1.
# Usage: bench/speed.sh [build dir] [output table] [sizes...]
# Writes a Markdown table (default bench/results/speed.md) and a CSV next to it.
set -euo pipefail
cd "$(dirname "$0")/.."
build="${1:-build}"
table="${2:-bench/results/speed.md}"
shift $(( $# > 2 ? 2 : $# ))
megapixels=("$@")
[ ${#megapixels[@]} -gt 0 ] || megapixels=(0.25 1 4 12)
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
mkdir -p "$(dirname "$table")"
csv="${table%.md}.csv"

echo "megapixels,width,height,channels,kernel,boundary,seconds,peak_mib" > "$csv"
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
        # A refused run (its reason is on stderr) is recorded as failed, and the rest go on.
        if /usr/bin/time -f "%e %M" -o "$work/time" "$build/app/marlith" "$work/blurred.png" \
          "$work/k$kernel.png" "$work/out.png" "$boundary" 0.1 1 > "$work/stdout"; then
          seconds=$(sed -n 's/^time cost : //p' "$work/stdout")
        else
          seconds=failed
        fi
        peak_kib=$(awk 'END { print $2 }' "$work/time")
        echo "$mp,$width,$height,$channels,$kernel,$boundary,$seconds,$((peak_kib / 1024))" | tee -a "$csv"
      done
    done
  done
done

{
  echo "| MP | size | channels | kernel | boundary | seconds | peak MiB |"
  echo "|---:|---|---:|---:|---:|---:|---:|"
  tail -n +2 "$csv" | awk -F, '{ printf "| %s | %sx%s | %s | %s | %s | %s | %s |\n", $1, $2, $3, $4, $5, $6, ($7 == "failed" ? $7 : sprintf("%.2f", $7)), $8 }'
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
  "< awk -F, -v k=".k." -v b=".b." '\$4 == 3 && \$5 == k && \$6 == b' $csv" \
  using 1:7 with linespoints title sprintf("kernel %s, boundary %s", k, b)
PLOT
  echo "wrote $plot"
fi
echo "wrote $table and $csv"
