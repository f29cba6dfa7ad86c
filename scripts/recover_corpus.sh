#!/usr/bin/env bash
# Healthy recordings for recovery, two of each setting: NAME.0.EXT (6 s),
# the one to cut, and NAME.1.EXT (3 s), the reference recorded apart with
# the same settings. ffmpeg (H.264 and HEVC, with and without B-frames;
# AAC, PCM, A-law), GStreamer's mp4mux and qtmux (x264enc with AAC), and
# this project's recorder (its plain layout: ftyp, mdat, moov).
#   scripts/recover_corpus.sh OUTDIR [MP4STBL]
# Prints "NAME FILE REFERENCE" a line. Without gst-launch-1.0 or MP4STBL the
# files they make are left out, and a line on stderr says so.
set -euo pipefail
[ $# -ge 1 ] && [ $# -le 2 ] || { echo "usage: $0 OUTDIR [MP4STBL]" >&2; exit 2; }
out="$1"
mp4stbl="${2:-}"
mkdir -p "$out"

quiet() { ffmpeg -nostdin -v error -y "$@"; }
seconds() { [ "$1" = 0 ] && echo 6 || echo 3; }
made() { echo "$1 $out/$1.0.$2 $out/$1.1.$2"; }

# ff NAME EXT VIDEO-SOURCE VIDEO-OPTIONS AUDIO-OPTIONS
ff() {
  local take
  for take in 0 1; do
    local s
    s="$(seconds $take)"
    # shellcheck disable=SC2086 # the options are words
    quiet -f lavfi -i "$3:duration=$s" -f lavfi -i "sine=frequency=440:duration=$s" \
      $4 -pix_fmt yuv420p $5 "$out/$1.$take.$2"
  done
  made "$1" "$2"
}

plain=testsrc=size=160x120:rate=25
moving=testsrc2=size=160x120:rate=25
x264="-c:v libx264 -g 25"
x265="-c:v libx265 -x265-params log-level=error:keyint=25:pools=none:frame-threads=1"
ff aac mp4 "$plain" "$x264 -bf 0" "-c:a aac -b:a 64k"
ff pcm mov "$plain" "$x264 -bf 0" "-c:a pcm_s16le"
ff alaw mov "$plain" "$x264 -bf 0" "-c:a pcm_alaw -ar 8000"
ff b-frames mp4 "$moving" "$x264 -bf 3 -x264-params b-adapt=0" "-c:a aac -b:a 64k"
ff hevc mp4 "$moving" "$x265:bframes=0" "-c:a aac -b:a 64k"
ff hevc-b-frames mp4 "$moving" "$x265" "-c:a aac -b:a 64k"

# gst NAME EXT MUXER X264-BFRAMES AAC-ENCODER
gst() {
  local take
  for take in 0 1; do
    local s
    s="$(seconds $take)"
    gst-launch-1.0 -q videotestsrc num-buffers=$((25 * s)) pattern=ball \
      ! video/x-raw,width=160,height=120,framerate=25/1 ! x264enc key-int-max=25 bframes="$4" \
      ! h264parse ! "$3" name=mux ! filesink location="$out/$1.$take.$2" \
      audiotestsrc num-buffers=$((44100 * s / 1024)) ! audio/x-raw,rate=44100,channels=1 \
      ! audioconvert ! "$5" ! aacparse ! mux. >/dev/null
  done
  made "$1" "$2"
}

if command -v gst-launch-1.0 >/dev/null; then
  gst gst-mp4mux mp4 mp4mux 2 avenc_aac
  gst gst-qtmux mov qtmux 0 voaacenc
else
  echo "$0: gst-launch-1.0 is not on PATH: no GStreamer files" >&2
fi

# recorded NAME VIDEO-OPTIONS AUDIO-FLAG AUDIO-FORMAT AUDIO-OPTIONS
recorded() {
  local take
  for take in 0 1; do
    local s
    s="$(seconds $take)"
    # shellcheck disable=SC2086 # the options are words
    quiet -f lavfi -i "$moving:duration=$s" $2 -pix_fmt yuv420p -f "${2##* }" "$out/$1.$take.video"
    # shellcheck disable=SC2086
    quiet -f lavfi -i "sine=duration=$s" $5 -f "$4" "$out/$1.$take.audio"
    "$mp4stbl" record --plain -y -o "$out/$1.$take.mp4" --video "$out/$1.$take.video" \
      "$3" "$out/$1.$take.audio" >/dev/null
    rm -f "$out/$1.$take.video" "$out/$1.$take.audio"
  done
  made "$1" mp4
}

if [ -n "$mp4stbl" ]; then
  recorded recorder "-c:v libx264 -bf 2 -g 25 -f h264" --audio adts "-c:a aac"
  recorded recorder-hevc "$x265 -f hevc" --alaw alaw \
    "-ar 8000"
else
  echo "$0: no MP4STBL given: no files from the recorder" >&2
fi
