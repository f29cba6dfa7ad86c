#!/usr/bin/env bash
# Trim and join of a file of about 1 GB, side by side with cp (the same
# bytes copied, nothing else) and with ffmpeg's stream copy (-c copy).
#
#   bench/edit.sh              RUNS=5 bench/edit.sh   (runs per figure; 3 by default)
#   EDIT_DIR=/mnt/xfs bench/edit.sh   (files on another file system, e.g. one
#                                      that reflinks; build/bench-data by default)
#
# The clip is encoded once (lossless H.264 so that it is large, with AAC),
# joined 26 times over with mp4stbl into build/bench-data/big.mp4 (1 GiB),
# and kept. Every command runs once to warm the page cache, then RUNS times,
# each after a sync; the figure is the median wall time. Outputs go to the
# same directory.
set -euo pipefail
cd "$(dirname "$0")/.."
source bench/common.sh

data="${EDIT_DIR:-build/bench-data}"
out="$data/edit-out.mp4"
clean_outputs() { rm -f "$out"; }
trap 'rm -f "$out" "$data/concat.txt"' EXIT

make_big "$data"
clip="$data/clip.mp4"
big="$data/big.mp4"
clips=()
for ((i = 0; i < 26; i++)); do clips+=("$clip"); done
for c in "${clips[@]}"; do echo "file '$(realpath "$c")'"; done >"$data/concat.txt"

# row NAME MP4STBL-MS OTHER-MS CP-MS
row() {
  awk -v n="$1" -v m="$2" -v f="$3" -v c="$4" 'BEGIN {
    printf "%-34s %9d %9d %9d %10.2f %10.2f\n", n, m, f, c, c / m, f / m }'
}

echo "machine: $(nproc) CPUs, $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2 | sed 's/^ *//')"
echo "file: $big, $(($(stat -c %s "$big") / 1048576)) MiB on $(stat -f -c %T "$data"); runs per figure: $RUNS (median)"
printf '%-34s %9s %9s %9s %10s %10s\n' job "mp4stbl" "ffmpeg" "cp" "vs cp" "ffmpeg/m"
cp_ms=$(measure cp "$big" "$out")
row "trim, whole file" "$(measure "$bin" trim "$big" --from 0 --to 100000 -o "$out" -y)" \
  "$(measure ffmpeg -nostdin -v error -y -i "$big" -c copy -map 0 "$out")" "$cp_ms"
row "trim 100 s to 400 s" "$(measure "$bin" trim "$big" --from 100 --to 400 -o "$out" -y)" \
  "$(measure ffmpeg -nostdin -v error -y -ss 100 -to 400 -i "$big" -c copy -map 0 "$out")" "$cp_ms"
row "join 26 clips" "$(measure "$bin" join "${clips[@]}" -o "$out" -y)" \
  "$(measure ffmpeg -nostdin -v error -y -f concat -safe 0 -i "$data/concat.txt" -c copy -map 0 "$out")" \
  "$cp_ms"
echo
echo "columns: median ms; vs cp = cp's time / mp4stbl's (1.00 = as fast as cp);"
echo "ffmpeg/m = ffmpeg's time / mp4stbl's. The partial trim copies less than cp."
