#!/usr/bin/env bash
# Records streams that ffmpeg makes with `mp4stbl record` and checks what
# the players make of the files, briefly: each layout decodes with ffmpeg to
# the streams' own pictures and sound with no error, writes back identical
# and is a regular file; a producer writing two named pipes records whole;
# a recording killed at random moments, and its bytes cut at random
# lengths, open in ffprobe without error and keep their fragments.
#   scripts/record_check.sh [MP4STBL]    (default: build/dev/tools/mp4stbl)
set -uo pipefail
cd "$(dirname "$0")/.."
mp4stbl="$(realpath "${1:-build/dev/tools/mp4stbl}")"
[ -x "$mp4stbl" ] || { echo "$0: no $mp4stbl; build it first (cmake --build --preset dev)" >&2; exit 2; }
for tool in ffmpeg ffprobe; do
  command -v "$tool" >/dev/null || { echo "$0: $tool is not on PATH" >&2; exit 2; }
done
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
cd "$work"

passed=0
failed=0
check() {  # check NAME COMMAND...: runs the command, counts and says the outcome
  local name="$1"
  shift
  if "$@" >/dev/null 2>&1; then
    passed=$((passed + 1))
  else
    failed=$((failed + 1))
    echo "FAIL $name"
  fi
}
quiet() { ffmpeg -nostdin -v error -y "$@"; }

quiet -f lavfi -i testsrc2=size=320x240:rate=30000/1001:duration=4 -c:v libx264 -preset veryfast \
  -bf 3 -g 30 -f h264 v.264
quiet -f lavfi -i sine=sample_rate=48000:duration=4 -c:a aac -f adts a.aac
quiet -f lavfi -i sine=sample_rate=8000:duration=4 -f alaw a.alaw

# Decoded with no error to the pictures and sound of the streams themselves.
same_media() {
  local file="$1"
  [ -z "$(ffmpeg -v error -i "$file" -f null - 2>&1)" ] &&
    [ "$(ffmpeg -v error -i "$file" -map 0:v -f framemd5 - | grep -v '^#' | cut -d, -f6)" = \
      "$(ffmpeg -v error -i v.264 -f framemd5 - | grep -v '^#' | cut -d, -f6)" ] &&
    [ "$(ffmpeg -v error -i "$file" -map 0:a -f md5 -)" = "$(ffmpeg -v error -i a.aac -f md5 -)" ]
}
regular() {
  "$mp4stbl" verify "$1" | grep -q identical &&
    "$mp4stbl" info "$1" | grep -q "fragmented: no"
}
for layout in "" --plain --moov-first; do
  name="layout ${layout:-hybrid}"
  check "$name: recorded" "$mp4stbl" record -o "rec$layout.mp4" --video v.264 --audio a.aac $layout
  check "$name: decodes as the streams" same_media "rec$layout.mp4"
  check "$name: regular, written back identical" regular "rec$layout.mp4"
done
check "G.711 with video" "$mp4stbl" record -o alaw.mp4 --video v.264 --alaw a.alaw
check "G.711 decodes as the stream" test "$(ffmpeg -v error -i alaw.mp4 -map 0:a -f md5 -)" = \
  "$(ffmpeg -v error -f alaw -ar 8000 -i a.alaw -f md5 -)"

# One producer, two named pipes.
mkfifo v.fifo a.fifo
quiet -f lavfi -i testsrc2=size=320x240:rate=25:duration=4 -f lavfi -i sine=sample_rate=48000:duration=4 \
  -map 0:v -c:v libx264 -f h264 v.fifo -map 1:a -c:a aac -f adts a.fifo &
check "two pipes of one producer" timeout 60 "$mp4stbl" record -o live.mp4 --video v.fifo --audio a.fifo
check "two pipes: every frame" test "$(ffprobe -v error -count_packets -select_streams v \
  -show_entries stream=nb_read_packets -of csv=p=0 live.mp4)" = 100

# Fed slowly through stdin and killed; the files left, and their bytes cut
# at random lengths, open in ffprobe with their video (a fragment cut short
# holds a cut frame, which ffprobe reports) and in mp4stbl info.
opens() {
  ffprobe -v quiet -show_streams "$1" | grep -q codec_type=video && "$mp4stbl" info "$1" >/dev/null
}
for round in 1 2 3 4 5; do
  (for offset in $(seq 0 4096 "$(stat -c %s v.264)"); do
    dd if=v.264 bs=4096 skip=$((offset / 4096)) count=1 status=none
    sleep 0.05
  done) | "$mp4stbl" record -o killed.mp4 --video - --fragment 0.2 >/dev/null 2>&1 &
  sleep "0.$((RANDOM % 6 + 3))"
  kill -KILL $! 2>/dev/null
  wait 2>/dev/null
  [ "$(stat -c %s killed.mp4 2>/dev/null || echo 0)" -gt 20000 ] || continue
  check "killed $round: opens" opens killed.mp4
  # Killed while still fragmented (not after it finished): cut it.
  "$mp4stbl" info killed.mp4 | grep -q "fragmented: yes" || continue
  size=$(stat -c %s killed.mp4)
  for cut in 1 2 3 4; do
    head -c $((size - RANDOM % (size / 2))) killed.mp4 >cut.mp4
    check "killed $round, cut $cut: opens" opens cut.mp4
  done
done

echo "record_check: $passed passed, $failed failed"
[ "$failed" -eq 0 ]
