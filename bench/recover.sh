#!/usr/bin/env bash
# Recovery of a recording of about 1 GB whose movie box was never written,
# side by side with reading the same bytes (cat, page cache warm) and with
# ffmpeg's stream copy of the healthy file (ffmpeg cannot open the broken
# one) and with cp (the bytes copied to a new file, nothing else); with the
# peak memory of recover, on the whole file and on its first half.
#
#   bench/recover.sh              RUNS=7 bench/recover.sh   (runs per figure; 5 by default)
#   RECOVER_DIR=/mnt/xfs bench/recover.sh   (files on another file system, e.g. one
#                                            that shares blocks; build/bench-data by default)
#
# Made once with ffmpeg in that directory and kept (delete rec-* there to
# make them again): a 20 s clip (1280x720 lossless H.264 at 30 frames/s, AAC
# at 48 kHz) looped 26 times by ffmpeg's stream copy into rec-good.mp4, and
# the same with its sound as 16-bit PCM in a QuickTime file (rec-good.mov);
# a 4 s clip of the same settings as each one's reference; and each healthy
# file made broken as a killed recording leaves it: the movie box gone, the
# media data box of size 0, the end cut in the middle of a sample. Every
# command runs once to warm the page cache, then RUNS times, each after a
# sync; the figures are the median wall time and the largest peak RSS.
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/lib.sh
ensure_packages "${BUILD_PACKAGES[@]}" "${BENCH_PACKAGES[@]}"

RUNS="${RUNS:-5}"
bin=build/release/tools/mp4stbl
data="${RECOVER_DIR:-build/bench-data}"
out="$data/rec-out"

cmake --preset release >/dev/null
cmake --build --preset release --target mp4stbl_cli
mkdir -p "$data"
rss_file="$(mktemp)"
trap 'rm -f "$out.mp4" "$out.mov" "$out.json" "$rss_file"' EXIT

ff() { ffmpeg -nostdin -v error -y "$@"; }

# encode OUT SECONDS AUDIO-CODEC...: the test pattern and a tone.
encode() {
  local file="$1" seconds="$2"
  shift 2
  ff -f lavfi -i "testsrc2=size=1280x720:rate=30:duration=$seconds" \
    -f lavfi -i "sine=frequency=440:sample_rate=48000:duration=$seconds" \
    -c:v libx264 -preset ultrafast -qp 0 -g 30 "$@" "$file.part.${file##*.}"
  mv -f "$file.part.${file##*.}" "$file"
}

# box_at FILE OFFSET: "SIZE TYPE" of the box header at OFFSET.
box_at() {
  local bytes
  read -r -a bytes < <(od -An -v -tu1 -j "$2" -N 8 "$1")
  printf '%d %b\n' $(((bytes[0] << 24) | (bytes[1] << 16) | (bytes[2] << 8) | bytes[3])) \
    "$(printf '\\%03o' "${bytes[@]:4:4}")"
}

# break_file GOOD BROKEN: GOOD's top-level boxes up to its mdat, mdat's size
# set to 0, and its media data cut 1000 bytes before it ends (inside a video
# frame of this clip); no movie box.
break_file() {
  local good="$1" broken="$2" pos=0 size type
  while :; do
    read -r size type < <(box_at "$good" "$pos")
    [ "$type" = mdat ] && break
    ((size >= 8)) || { echo "$good: no mdat" >&2; exit 1; }
    pos=$((pos + size))
  done
  head -c $((pos + size - 1000)) "$good" >"$broken.part"
  printf '\0\0\0\0' | dd of="$broken.part" bs=1 seek="$pos" conv=notrunc status=none
  mv -f "$broken.part" "$broken"
}

clip="$data/rec-clip.mp4"
[ -s "$clip" ] || encode "$clip" 20 -c:a aac -b:a 128k
for kind in mp4 mov; do
  good="$data/rec-good.$kind"
  if [ ! -s "$good" ]; then
    if [ $kind = mp4 ]; then
      ff -stream_loop 25 -i "$clip" -map 0 -c copy "$good.part.$kind"
    else
      ff -stream_loop 25 -i "$clip" -map 0 -c:v copy -c:a pcm_s16le "$good.part.$kind"
    fi
    mv -f "$good.part.$kind" "$good"
  fi
  ref="$data/rec-ref.$kind"
  if [ ! -s "$ref" ]; then
    if [ $kind = mp4 ]; then encode "$ref" 4 -c:a aac -b:a 128k; else encode "$ref" 4 -c:a pcm_s16le; fi
  fi
  [ -s "$data/rec-broken.$kind" ] || break_file "$good" "$data/rec-broken.$kind"
done

# measure COMMAND...: prints "MEDIAN_MS PEAK_RSS_KB" over RUNS runs.
measure() {
  "$@" >/dev/null 2>&1 || { echo "failed: $*" >&2; exit 1; }
  local times=() peak=0 start end rss
  for ((i = 0; i < RUNS; i++)); do
    rm -f "$out.mp4" "$out.mov"
    sync  # the previous run's writeback must not land in this run's time
    start=$(date +%s%N)
    /usr/bin/time -f %M -o "$rss_file" "$@" >/dev/null 2>&1
    end=$(date +%s%N)
    times+=($(((end - start) / 1000000)))
    rss=$(tail -n 1 "$rss_file")
    if ((rss > peak)); then peak=$rss; fi
  done
  local median
  median=$(printf '%s\n' "${times[@]}" | sort -n | awk '{a[NR] = $1} END {print a[int((NR + 1) / 2)]}')
  echo "$median $peak"
}

# entries FILE.json: the samples of the tracks whose sizes make a table (not PCM).
entries() {
  awk -F'"' '/"entry"/ {e = $4} /"samples"/ && e ~ /^(avc1|avc3|hvc1|hev1|mp4a)$/ {
    gsub(/[^0-9]/, "", $3); s += $3 } END {print s + 0}' "$1"
}

# recovered BROKEN REF: "PEAK_RSS_KB ENTRIES" of one recovery.
recovered() {
  /usr/bin/time -f %M -o "$rss_file" "$bin" recover "$1" --reference "$2" -o "$out.${1##*.}" -y --json >"$out.json"
  local line
  line="$(tail -n 1 "$rss_file") $(entries "$out.json")"
  # Before the line: the caller goes on as soon as it reads it.
  rm -f "$out.json" "$out.${1##*.}"
  echo "$line"
}

half="$data/rec-broken-half.mp4"
[ -s "$half" ] || head -c $(($(stat -c %s "$data/rec-broken.mp4") / 2)) "$data/rec-broken.mp4" >"$half"

echo "machine: $(nproc) CPUs, $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2 | sed 's/^ *//'), load $(cut -d' ' -f1-3 /proc/loadavg)"
echo "runs per figure: $RUNS (median wall ms, largest peak RSS)"
printf '%-5s %8s %9s %7s %7s %8s %8s %8s %8s %8s\n' file "MiB" entries cat cp recover ffmpeg "rec/cat" "cp/cat" \
  "rec MiB"
for kind in mp4 mov; do
  broken="$data/rec-broken.$kind"
  read -r cat_ms _ < <(measure sh -c 'cat "$1" >/dev/null' sh "$broken")
  read -r cp_ms _ < <(measure cp "$broken" "$out.$kind")
  read -r rec_ms rec_rss < <(measure "$bin" recover "$broken" --reference "$data/rec-ref.$kind" -o "$out.$kind" -y)
  read -r ff_ms _ < <(measure ffmpeg -nostdin -v error -y -i "$data/rec-good.$kind" -map 0 -c copy "$out.$kind")
  read -r _ count < <(recovered "$broken" "$data/rec-ref.$kind")
  awk -v n="$kind" -v size="$(stat -c %s "$broken")" -v e="$count" -v c="$cat_ms" -v p="$cp_ms" \
    -v r="$rec_ms" -v f="$ff_ms" -v rr="$rec_rss" 'BEGIN {
      printf "%-5s %8.1f %9d %7d %7d %8d %8d %8.2f %8.2f %8.1f\n",
        n, size / 1048576, e, c, p, r, f, r / c, p / c, rr / 1024 }'
done
read -r whole_rss whole_entries < <(recovered "$data/rec-broken.mp4" "$data/rec-ref.mp4")
read -r half_rss half_entries < <(recovered "$half" "$data/rec-ref.mp4")
base_rss=$(/usr/bin/time -f %M "$bin" --version 2>&1 >/dev/null | tail -n 1)
echo
awk -v w="$whole_rss" -v we="$whole_entries" -v h="$half_rss" -v he="$half_entries" -v b="$base_rss" 'BEGIN {
  printf "peak RSS of recover: %.1f MiB for the whole mp4 (%d entries), %.1f MiB for its first half (%d); ", w / 1024, we, h / 1024, he
  printf "mp4stbl --version %.1f MiB; growth %.1f bytes an entry\n", b / 1024, (w - h) * 1024 / (we - he) }'
echo
echo "columns: cat = cat BROKEN >/dev/null; cp = cp BROKEN OUT, the least a new file of the same bytes costs;"
echo "recover = mp4stbl recover BROKEN --reference REF -o OUT;"
echo "ffmpeg = ffmpeg -i GOOD -map 0 -c copy OUT (the healthy file, as ffmpeg cannot open the broken one);"
echo "entries = samples of the tracks with a size table (H.264, AAC); rec MiB = recover's peak RSS"
