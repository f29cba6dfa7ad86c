#!/usr/bin/env bash
# Recording about 1 GB of elementary streams (H.264 Annex B + AAC ADTS) into
# an MP4 file: `mp4stbl record` in each layout, side by side with the tools a
# user would pick instead (ffmpeg's stream copy, GStreamer's mp4mux) and with
# cat, which reads the same bytes and writes them to /dev/null or to a file.
#
#   bench/record.sh                     every row, RUNS=3 by default
#   bench/record.sh ffmpeg gstreamer    only these rows (names below)
#   REC_DIR=/mnt/disk bench/record.sh   streams and outputs elsewhere
#
# Rows: cat (the streams read, nothing written: the I/O floor), cat-file
# (the same bytes written to a file: the floor of any muxer), ffmpeg,
# gstreamer, and mp4stbl record in the layouts hybrid, plain, moov-first and
# sync (hybrid with fdatasync after every fragment).
#
# The streams are made once and kept in REC_DIR (build/bench-data/rec): a
# 40 s clip (720p25 H.264 at about 13 Mbit/s, no B-frames, a key frame every
# 2 s; 48 kHz stereo AAC) encoded by ffmpeg, whose Annex B and ADTS streams
# are concatenated 16 times (v.264 + a.aac, 640 s, 1.1 GB) and 4 times
# (v4.264 + a4.aac, a quarter of it). Each copy of the video starts with its
# parameter sets and an IDR frame, and each copy of the audio lasts exactly
# 40 s (1875 frames), so the joined streams stay in step.
#
# Every command runs once to warm the page cache, then RUNS times, each
# after a sync (the previous run's writeback stays out of the next one).
# The figures are those of the fastest run: wall time, user + system CPU,
# and the largest peak RSS over the runs (GNU time).
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/lib.sh
ensure_packages "${BUILD_PACKAGES[@]}" "${BENCH_PACKAGES[@]}"

RUNS="${RUNS:-3}"
bin=build/release/tools/mp4stbl
data="${REC_DIR:-build/bench-data/rec}"
out="$data/out.mp4"
rows=("$@")
[ ${#rows[@]} -eq 0 ] && rows=(cat cat-file ffmpeg gstreamer hybrid plain moov-first sync)

case " ${rows[*]} " in
  *" hybrid "* | *" plain "* | *" moov-first "* | *" sync "*)
    cmake --preset release >/dev/null
    cmake --build --preset release --target mp4stbl_cli
    ;;
esac
mkdir -p "$data"
times_file="$(mktemp)"
trap 'rm -f "$out" "$times_file"' EXIT

# The clip, then the joined streams: COPIES copies into NAME.264 / NAME.aac.
clip="$data/clip"
if [ ! -s "$clip.264" ] || [ ! -s "$clip.aac" ]; then
  ffmpeg -nostdin -v error -y -f lavfi -i testsrc2=size=1280x720:rate=25 \
    -f lavfi -i sine=frequency=440:sample_rate=48000 \
    -map 0:v -frames:v 1000 -vf noise=alls=4:allf=t -c:v libx264 -preset ultrafast -qp 20 -g 50 \
    -f h264 "$clip.264.part" \
    -map 1:a -frames:a 1875 -c:a aac -b:a 192k -ac 2 -f adts "$clip.aac.part"
  mv -f "$clip.264.part" "$clip.264"
  mv -f "$clip.aac.part" "$clip.aac"
fi
# join_copies COPIES FROM TO: TO = COPIES copies of FROM, unless made before.
join_copies() {
  local copies="$1" from="$2" to="$3"
  [ -s "$to" ] && return 0
  for ((i = 0; i < copies; i++)); do cat "$from"; done >"$to.part"
  mv -f "$to.part" "$to"
}
join_copies 16 "$clip.264" "$data/v.264"
join_copies 16 "$clip.aac" "$data/a.aac"
join_copies 4 "$clip.264" "$data/v4.264"
join_copies 4 "$clip.aac" "$data/a4.aac"

# command_of ROW VIDEO AUDIO: sets `command` to the command line of a row.
command_of() {
  local row="$1" video="$2" audio="$3"
  local record=("$bin" record -y -o "$out" --video "$video" --audio "$audio")
  case "$row" in
    hybrid) command=("${record[@]}") ;;
    plain) command=("${record[@]}" --plain) ;;
    moov-first) command=("${record[@]}" --moov-first) ;;
    sync) command=("${record[@]}" --sync) ;;
    ffmpeg) command=(ffmpeg -nostdin -v error -y -i "$video" -i "$audio" -c copy -f mp4 "$out") ;;
    gstreamer) command=(/usr/bin/python3 bench/gst_mux.py "$video" "$audio" "$out") ;;
    cat) command=(cat "$video" "$audio") ;;
    cat-file) command=(sh -c 'cat "$1" "$2" >"$3"' cat "$video" "$audio" "$out") ;;
    *) echo "unknown row: $row" >&2; exit 2 ;;
  esac
}

# measure COMMAND...: prints "WALL_S CPU_S PEAK_KB" of the fastest of RUNS
# runs (CPU of that run; peak RSS of all runs).
measure() {
  rm -f "$out"
  "$@" >/dev/null 2>&1 || { echo "failed: $*" >&2; exit 1; }
  local best="" peak=0 wall user sys rss
  for ((i = 0; i < RUNS; i++)); do
    rm -f "$out"
    sync
    /usr/bin/time -f '%e %U %S %M' -o "$times_file" "$@" >/dev/null 2>/dev/null
    read -r wall user sys rss <"$times_file"
    ((rss > peak)) && peak=$rss
    if [ -z "$best" ] || awk -v a="$wall" -v b="${best%% *}" 'BEGIN {exit !(a < b)}'; then
      best="$wall $(awk -v u="$user" -v s="$sys" 'BEGIN {printf "%.2f", u + s}')"
    fi
  done
  echo "$best $peak"
}

# What the output holds, by ffprobe: video packets, audio packets, seconds.
probe() {
  ffprobe -v error -count_packets -show_entries stream=nb_read_packets \
    -show_entries format=duration -of csv=p=0 "$out" | paste -sd' '
}

echo "machine: $(nproc) CPUs, $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2 | sed 's/^ *//'), $(awk '/MemTotal/ {printf "%.1f GiB", $2 / 1048576}' /proc/meminfo)"
echo "load average at start: $(cut -d' ' -f1-3 /proc/loadavg)"
echo "streams: $data/v.264 + a.aac, $(( ($(stat -L -c %s "$data/v.264") + $(stat -L -c %s "$data/a.aac")) / 1048576 )) MiB, 640 s;" \
  "quarter: v4.264 + a4.aac, $(( ($(stat -L -c %s "$data/v4.264") + $(stat -L -c %s "$data/a4.aac")) / 1048576 )) MiB, 160 s"
echo "on $(stat -L -f -c %T "$data"); runs per figure: $RUNS (fastest run; peak RSS of all)"
printf '%-11s %8s %8s %9s %8s %9s %9s %8s  %s\n' row "wall s" "cpu s" "RSS MiB" "¼ wall" "¼ RSS" "GB/s" "vs ffm" "output: packets, seconds"
declare -A wall_of
for row in "${rows[@]}"; do
  command_of "$row" "$data/v4.264" "$data/a4.aac"
  read -r q_wall _ q_rss < <(measure "${command[@]}")
  command_of "$row" "$data/v.264" "$data/a.aac"
  read -r wall cpu rss < <(measure "${command[@]}")
  wall_of[$row]=$wall
  bytes=$(($(stat -L -c %s "$data/v.264") + $(stat -L -c %s "$data/a.aac")))
  what=""
  [[ "$row" != cat* ]] && what=$(probe)
  awk -v n="$row" -v w="$wall" -v c="$cpu" -v r="$rss" -v qw="$q_wall" -v qr="$q_rss" -v b="$bytes" \
    -v f="${wall_of[ffmpeg]:-}" -v what="$what" 'BEGIN {
      vs = f == "" ? "-" : sprintf("%.2f", f / w)
      printf "%-11s %8.2f %8.2f %9.1f %8.2f %9.1f %9.2f %8s  %s\n",
        n, w, c, r / 1024, qw, qr / 1024, b / w / 1e9, vs, what }'
done
echo
echo "columns: the full streams (wall, user + system CPU, peak RSS), then the quarter-size"
echo "streams (¼); GB/s = input bytes / wall; vs ffm = ffmpeg's wall / the row's (ffmpeg"
echo "runs before the rows that show it); output = video packets, audio packets, seconds."
