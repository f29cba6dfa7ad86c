#!/usr/bin/env bash
# More real files for the --wide corpus (scripts/make_corpus.sh calls it):
# other audio and video codecs, timecode and chapter tracks, a one-frame
# video, files cut short, and files written by GStreamer's mp4mux and qtmux
# (whose sample descriptions end with a zero word).
#   scripts/make_corpus_more.sh OUTDIR
# Sources are synthetic with fixed sizes and lengths, so each build of the
# tools writes files of the same sizes.
set -euo pipefail
[ $# -eq 1 ] || { echo "usage: $0 OUTDIR" >&2; exit 2; }
out="$1"
mkdir -p "$out"

# ff NAME INPUT-AND-OUTPUT-OPTIONS...: ffmpeg into OUTDIR/NAME through a temporary.
ff() {
  local name="$1"
  shift
  local format=mp4
  [ "${name##*.}" = "mov" ] && format=mov
  ffmpeg -nostdin -hide_banner -loglevel error -y -fflags +bitexact "$@" \
    -flags:v +bitexact -flags:a +bitexact -f "$format" "$out/.$name.part"
  mv -f "$out/.$name.part" "$out/$name"
  echo "$out/$name"
}

# gst NAME PIPELINE...: gst-launch-1.0 into OUTDIR/NAME; the pipeline ends
# in the muxer, the file sink is added here.
gst() {
  local name="$1"
  shift
  gst-launch-1.0 -q "$@" ! filesink location="$out/.$name.part" >/dev/null
  mv -f "$out/.$name.part" "$out/$name"
  echo "$out/$name"
}

# cut NAME FROM BYTES: the first BYTES of OUTDIR/FROM, moov first, mdat cut short.
cut_short() {
  head -c "$3" "$out/$2" >"$out/$1"
  echo "$out/$1"
}

tone() { echo "sine=frequency=440:sample_rate=$1:duration=$2"; }
video() { echo "testsrc2=size=$1:rate=25:duration=$2"; }
X264=(-c:v libx264 -preset ultrafast -threads 1)

ff pcm_s16le.mov -f lavfi -i "$(tone 16000 0.5)" -c:a pcm_s16le
ff alaw_only.mov -f lavfi -i "$(tone 8000 0.5)" -c:a pcm_alaw
ff mp3.mp4 -f lavfi -i "$(tone 44100 1)" -c:a libmp3lame -b:a 64k
ff ac3.mp4 -f lavfi -i "$(tone 48000 1)" -c:a ac3 -b:a 96k
# Video entries read as plain visual entries: MPEG-4 Part 2, Motion JPEG,
# VP9 and AV1, beside Opus and FLAC audio.
ff mpeg4_mp3.mp4 -f lavfi -i "$(video 96x64 1)" -f lavfi -i "$(tone 44100 1)" \
  -map 0:v -map 1:a -c:v mpeg4 -c:a libmp3lame -b:a 64k
ff mjpeg.mov -f lavfi -i "$(video 96x64 0.4)" -c:v mjpeg
ff vp9_opus.mp4 -f lavfi -i "$(video 96x64 1)" -f lavfi -i "$(tone 48000 1)" \
  -map 0:v -map 1:a -c:v libvpx-vp9 -deadline realtime -cpu-used 8 -threads 1 -c:a libopus
ff av1_flac.mp4 -f lavfi -i "$(video 64x48 0.4)" -f lavfi -i "$(tone 44100 0.4)" \
  -map 0:v -map 1:a -c:v libaom-av1 -cpu-used 8 -threads 1 -c:a flac -strict -2
# Entries known only by their track's handler: QuickTime video codings
# (DNxHR, MPEG-2, 10-bit 4:2:2, Animation, PNG, uncompressed) and IMA ADPCM;
# ALAC at 96 kHz, past the entry's 16.16 rate; AC-3 and E-AC-3 5.1, whose
# channels only dac3 and dec3 tell; Vorbis in esds.
ff dnxhr.mov -f lavfi -i "testsrc2=size=256x120:rate=25:duration=0.2" -c:v dnxhd \
  -profile:v dnxhr_lb -pix_fmt yuv422p
ff mpeg2.mov -f lavfi -i "$(video 64x48 0.2)" -c:v mpeg2video
ff v210.mov -f lavfi -i "$(video 64x48 0.2)" -c:v v210
ff qtrle.mov -f lavfi -i "$(video 64x48 0.2)" -c:v qtrle
ff png.mov -f lavfi -i "$(video 64x48 0.2)" -c:v png
ff raw.mov -f lavfi -i "$(video 64x48 0.2)" -c:v rawvideo -pix_fmt rgb24
ff ima4.mov -f lavfi -i "$(tone 48000 0.2)" -c:a adpcm_ima_qt
ff alac_96k.mp4 -f lavfi -i "$(tone 96000 0.2)" -c:a alac
ff ac3_51.mp4 -f lavfi -i "$(tone 48000 0.2)" -c:a ac3 -ac 6
ff eac3_51.mp4 -f lavfi -i "$(tone 48000 0.2)" -c:a eac3 -ac 6
ff vorbis.mp4 -f lavfi -i "$(tone 48000 0.2)" -c:a vorbis -ac 2 -strict -2
ff timecode.mov -f lavfi -i "$(video 64x48 0.4)" "${X264[@]}" -timecode 01:00:00:00
chapter() { printf '[CHAPTER]\nTIMEBASE=1/1000\nSTART=%s\nEND=%s\ntitle=%s\n' "$@"; }
{ echo ';FFMETADATA1'; chapter 0 500 One; chapter 500 1000 Two; } >"$out/.chapters.txt"
ff chapters.mp4 -f lavfi -i "$(video 64x48 1)" -i "$out/.chapters.txt" -map 0:v \
  -map_chapters 1 "${X264[@]}"
ff chapters.mov -f lavfi -i "$(video 64x48 1)" -i "$out/.chapters.txt" -map 0:v \
  -map_chapters 1 "${X264[@]}"
rm -f "$out/.chapters.txt"
ff one_frame.mp4 -f lavfi -i "$(video 64x48 1)" -frames:v 1 "${X264[@]}"
ff moov_first.mp4 -f lavfi -i "$(video 96x64 1)" -f lavfi -i "$(tone 22050 1)" \
  -map 0:v -map 1:a "${X264[@]}" -c:a aac -b:a 32k -movflags +faststart
size=$(stat -c %s "$out/moov_first.mp4")
cut_short cut_half.mp4 moov_first.mp4 $((size / 2))
cut_short cut_last_byte.mp4 moov_first.mp4 $((size - 1))

if ! command -v gst-launch-1.0 >/dev/null; then
  echo "$0: gst-launch-1.0 is not on PATH: no GStreamer files" >&2
  exit 0
fi
VIDEO=(videotestsrc num-buffers=20 ! video/x-raw,width=96,height=64,framerate=25/1)
H264=(x264enc threads=1 speed-preset=ultrafast key-int-max=10 ! h264parse)
AUDIO=(audiotestsrc num-buffers=20 samplesperbuffer=1024 ! audio/x-raw,rate=44100,channels=1)
gst gst_h264.mp4 "${VIDEO[@]}" ! "${H264[@]}" ! mp4mux
gst gst_mp3.mov "${AUDIO[@]}" ! audioconvert ! lamemp3enc ! mpegaudioparse ! qtmux
gst gst_pcm.mov "${AUDIO[@]}",format=S16LE ! qtmux
gst gst_h264.mov "${VIDEO[@]}" ! "${H264[@]}" ! qtmux
gst gst_h264_aac.mp4 "${VIDEO[@]}" ! "${H264[@]}" ! mux. \
  "${AUDIO[@]}" ! audioconvert ! avenc_aac ! aacparse ! mux. mp4mux name=mux
