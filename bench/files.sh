#!/usr/bin/env bash
# Whole-file timings: `mp4stbl info` and `mp4stbl verify` on long
# recordings and on the shipped 15 KB clip, side by side with the least work
# the same tables need (lower_bound) and with ffprobe and mediainfo.
#
#   bench/files.sh              RUNS=9 bench/files.sh   (runs per figure; 5 by default)
#
# The recordings are made once under build/bench-data and kept (delete the
# directory to make them again). Each command is run once to warm the page
# cache, then RUNS times; the figures are the median wall time and the
# largest peak resident set.
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/lib.sh
ensure_packages "${BUILD_PACKAGES[@]}" "${BENCH_PACKAGES[@]}"

RUNS="${RUNS:-5}"
bin=build/release
data=build/bench-data

cmake --preset release >/dev/null
cmake --build --preset release --target mp4stbl_cli make_recording lower_bound
mkdir -p "$data"

# record NAME OPTIONS...: makes data/NAME.mp4 unless it is already there.
files=()
record() {
  local name="$1"
  shift
  files+=("$name")
  [ -s "$data/$name.mp4" ] && return 0
  "$bin/bench/make_recording" "$data/$name.mp4.part" "$@"
  mv -f "$data/$name.mp4.part" "$data/$name.mp4"
}
record v1e5-c1 --samples 100000 --per-chunk 1
record v1e5-c30 --samples 100000 --per-chunk 30
record v1e6-c1 --samples 1000000 --per-chunk 1
record v1e6-c30 --samples 1000000 --per-chunk 30
record v1e7-c1 --samples 10000000 --per-chunk 1
record v1e7-c30 --samples 10000000 --per-chunk 30
record av1e6-c1-co64 --samples 1000000 --per-chunk 1 --audio --co64
# The 15 KB clip that ships with the repository, for the start-up cost.
cp -f tests/data/h264_aac.mp4 "$data/clip15k.mp4"
files=(clip15k "${files[@]}")

rss_file="$(mktemp)"
trap 'rm -f "$rss_file"' EXIT

# measure COMMAND...: prints "MEDIAN_MS PEAK_RSS_KB" over RUNS runs.
measure() {
  "$@" >/dev/null 2>&1 || { echo "failed: $*" >&2; exit 1; }
  local times=() peak=0 start end rss
  for ((i = 0; i < RUNS; i++)); do
    start=$(date +%s%N)
    /usr/bin/time -f %M -o "$rss_file" "$@" >/dev/null 2>&1
    end=$(date +%s%N)
    times+=($(((end - start) / 1000)))
    rss=$(tail -n 1 "$rss_file")
    if ((rss > peak)); then peak=$rss; fi
  done
  local median
  median=$(printf '%s\n' "${times[@]}" | sort -n | awk '{a[NR] = $1} END {print a[int((NR + 1) / 2)]}')
  awk -v us="$median" -v kb="$peak" 'BEGIN {printf "%.1f %d\n", us / 1000, kb}'
}

echo
echo "machine: $(nproc) CPUs, $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2 | sed 's/^ *//'), $(awk '/MemTotal/ {printf "%.1f GiB", $2 / 1048576}' /proc/meminfo)"
echo "runs per figure: $RUNS (median wall time, largest peak RSS)"
echo "transparent huge pages: $(cat /sys/kernel/mm/transparent_hugepage/enabled 2>/dev/null || echo none)"
echo
"$bin/tools/mp4stbl" info "$data/v1e7-c1.mp4"
echo

declare -A info_ms
printf '%-14s %7s %7s | %7s %7s %7s %7s %8s %8s | %7s %7s | %7s %7s %7s %7s %7s %7s\n' \
  file "MiB" "tables" "info" "lower" "steps" "verify" "ffprobe" "mediainf" "info MB" "ver MB" \
  "info/lb" "stp/lb" "ver/inf" "ffp/inf" "mi/inf" "rss/lim"
for name in "${files[@]}"; do
  file="$data/$name.mp4"
  read -r tables largest < <("$bin/bench/lower_bound" "$file" |
    sed -E 's/.*tables ([0-9]+) bytes, largest ([0-9]+).*/\1 \2/')
  read -r info info_rss < <(measure "$bin/tools/mp4stbl" info "$file")
  read -r lower _ < <(measure "$bin/bench/lower_bound" "$file")
  read -r steps _ < <(measure "$bin/bench/lower_bound" --steps "$file")
  read -r verify verify_rss < <(measure "$bin/tools/mp4stbl" verify "$file")
  read -r probe _ < <(measure ffprobe -v error -show_streams "$file")
  read -r mi _ < <(measure mediainfo "$file")
  info_ms[$name]=$info
  awk -v n="$name" -v size="$(stat -c %s "$file")" -v t="$tables" -v big="$largest" -v i="$info" \
    -v l="$lower" -v s="$steps" -v v="$verify" -v p="$probe" -v m="$mi" -v ir="$info_rss" -v vr="$verify_rss" 'BEGIN {
      printf "%-14s %7.1f %7.2f | %7.1f %7.1f %7.1f %7.1f %8.1f %8.1f | %7.1f %7.1f | %7.2f %7.2f %7.2f %7.1f %7.1f %7.2f\n",
        n, size / 1048576, t / 1048576, i, l, s, v, p, m, ir / 1024, vr / 1024,
        i / l, s / l, v / i, p / i, m / i, ir * 1024 / (1.3 * t + big) }'
done
echo
echo "columns: MiB and tables in MiB; times are median ms; MB columns are peak RSS in MiB;"
echo "steps = lower_bound --steps, the table reader's own steps and nothing else;"
echo "rss/lim = info's peak RSS / (1.3 x the table bytes + the largest table)"
echo
for chunking in c1 c30; do
  awk -v c="$chunking" -v a="${info_ms[v1e7-$chunking]}" -v b="${info_ms[v1e6-$chunking]}" \
    'BEGIN {printf "info(10^7)/info(10^6), %s: %.2f\n", c, a / b}'
done
