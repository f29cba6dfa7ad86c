#!/usr/bin/env bash
# mp4stbl extract of the video and audio of a file of about 1 GB, side by
# side with ffmpeg's stream copy through its bitstream filter
# (h264_mp4toannexb) and its ADTS muxer.
#
#   bench/extract.sh              RUNS=5 bench/extract.sh   (runs per figure; 3 by default)
#   EXTRACT_DIR=/mnt/disk bench/extract.sh   (build/bench-data by default)
#
# The file is bench/edit.sh's: a lossless H.264 clip with AAC joined 26
# times over (1 GiB), made here the same way when it is missing. Every
# command runs once to warm the page cache, then RUNS times, each after a
# sync; the figure is the median wall time. Before measuring, ffmpeg checks
# that both tools wrote the same bytes.
set -euo pipefail
cd "$(dirname "$0")/.."
source bench/common.sh

data="${EXTRACT_DIR:-build/bench-data}"
ours="$data/extract-ours"
theirs="$data/extract-ffmpeg"
clean_outputs() { rm -f "$ours".* "$theirs".*; }
trap 'rm -f "$ours".* "$theirs".*' EXIT

make_big "$data"
big="$data/big.mp4"

# row NAME MP4STBL-MS FFMPEG-MS
row() {
  awk -v n="$1" -v m="$2" -v f="$3" 'BEGIN { printf "%-28s %9d %9d %10.2f\n", n, m, f, f / m }'
}

video_ours=("$bin" extract "$big" --track video -o "$ours.h264" -y)
video_ffmpeg=(ffmpeg -nostdin -v error -y -i "$big" -map 0:v -c copy -bsf:v h264_mp4toannexb
  -f h264 "$theirs.h264")
audio_ours=("$bin" extract "$big" --track audio -o "$ours.aac" -y)
audio_ffmpeg=(ffmpeg -nostdin -v error -y -i "$big" -map 0:a -c copy -f adts "$theirs.aac")

# The same streams: the decoded pictures of the first seconds, and the bytes
# of the sound.
"${video_ours[@]}" >/dev/null && "${video_ffmpeg[@]}"
"${audio_ours[@]}" >/dev/null && "${audio_ffmpeg[@]}"
pictures() { ffmpeg -nostdin -v error -i "$1" -frames:v 60 -f framemd5 - | grep -v '^#' | cut -d, -f6; }
cmp -s <(pictures "$ours.h264") <(pictures "$theirs.h264") || { echo "the video streams differ" >&2; exit 1; }
cmp -s "$ours.aac" "$theirs.aac" || { echo "the ADTS streams differ" >&2; exit 1; }

echo "machine: $(nproc) CPUs, $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2 | sed 's/^ *//')"
echo "file: $big, $(($(stat -L -c %s "$big") / 1048576)) MiB on $(stat -f -c %T "$data"); runs per figure: $RUNS (median)"
printf '%-28s %9s %9s %10s\n' job "mp4stbl" "ffmpeg" "ffmpeg/m"
row "video to Annex B" "$(measure "${video_ours[@]}")" "$(measure "${video_ffmpeg[@]}")"
row "audio to ADTS" "$(measure "${audio_ours[@]}")" "$(measure "${audio_ffmpeg[@]}")"
echo
echo "columns: median ms; ffmpeg/m = ffmpeg's time / mp4stbl's (above 1: mp4stbl is faster)."
