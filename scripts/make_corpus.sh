#!/usr/bin/env bash
# Makes the real MP4 and QuickTime files that the whole-file tests read.
#   scripts/make_corpus.sh OUTDIR           the small set kept in tests/data
#   scripts/make_corpus.sh OUTDIR --wide    the same, plus longer clips, fast
#                                           start, several tracks, NTSC rates,
#                                           B-frames, G.711 audio, a known
#                                           H.264 profile and level,
#                                           languages, fragmented files and
#                                           entries of many more codings
# The small set holds B-frames (composition offsets) in a track that starts
# late (an edit list that begins with an empty edit), and a fragmented file.
# The flags are chosen so that one ffmpeg build always writes the same bytes:
# synthetic sources, fixed sizes and durations, bit-exact muxing, no
# metadata, one encoder thread.
set -euo pipefail

usage() {
  echo "usage: $0 OUTDIR [--wide]" >&2
  exit 2
}
[ $# -ge 1 ] && [ $# -le 2 ] || usage
out="$1"
wide=0
if [ $# -eq 2 ]; then
  [ "$2" = "--wide" ] || usage
  wide=1
fi
command -v ffmpeg >/dev/null || { echo "$0: ffmpeg is not on PATH" >&2; exit 1; }
mkdir -p "$out"

# Inputs of the next file, gathered by video and tone and used up by make.
IN=()
video() { IN+=(-f lavfi -i "testsrc2=size=$1:rate=$2:duration=$3"); }           # SIZE RATE SECONDS
tone() { IN+=(-f lavfi -i "sine=frequency=${3:-440}:sample_rate=$1:duration=$2"); } # RATE SECONDS [HZ]

X264=(-c:v libx264 -preset ultrafast -threads 1)
X265=(-c:v libx265 -preset ultrafast -tag:v hvc1 -x265-params log-level=error:pools=none:frame-threads=1)
AAC=(-c:a aac -b:a 32k)

# make NAME OUTPUT-OPTIONS...: encodes IN into OUTDIR/NAME, the container
# taken from the extension, through a temporary so no half file is left.
make() {
  local name="$1"
  shift
  local format=mp4
  [ "${name##*.}" = "mov" ] && format=mov
  local tmp="$out/.$name.part"
  ffmpeg -nostdin -hide_banner -loglevel error -y -fflags +bitexact "${IN[@]}" \
    -map_metadata -1 -flags:v +bitexact -flags:a +bitexact "$@" -f "$format" "$tmp"
  mv -f "$tmp" "$out/$name"
  IN=()
  echo "$out/$name"
}

video 96x64 25 0.4 && tone 22050 0.4
make h264_aac.mp4 -map 0:v -map 1:a "${X264[@]}" -g 4 "${AAC[@]}"
video 64x48 25 0.4
make hevc.mp4 "${X265[@]}"
video 64x48 25 0.2
make prores_apcn.mov -c:v prores_ks -profile:v 2
video 64x48 25 0.2 && tone 22050 0.2
make prores_apch_aac.mov -map 0:v -map 1:a -c:v prores_ks -profile:v 3 "${AAC[@]}"
video 64x48 25 0.4
make bframes_late.mp4 -c:v libx264 -preset veryfast -threads 1 -bf 2 -output_ts_offset 0.5
X264B=(-c:v libx264 -preset veryfast -threads 1 -bf 3)
video 96x64 25 0.8 && tone 22050 0.8
make frag_h264_aac.mp4 -map 0:v -map 1:a "${X264B[@]}" -g 8 "${AAC[@]}" \
  -movflags +frag_keyframe+empty_moov+default_base_moof+negative_cts_offsets

[ "$wide" -eq 1 ] || exit 0

# Other codecs, timecode and chapter tracks, files cut short, GStreamer's muxers.
bash "$(dirname "$0")/make_corpus_more.sh" "$out"

video 160x120 25 10 && tone 44100 10
make long_h264_aac.mp4 -map 0:v -map 1:a "${X264[@]}" -g 50 "${AAC[@]}" -ac 2
# Edit lists as ffmpeg writes them when it cuts without re-encoding, seeking
# before and after opening the input. ffmpeg's own reader drops the audio
# that the first one's edit hides, so it stays out of the comparison of
# every file with ffprobe, in a folder of its own.
IN=(-ss 1.32 -i "$out/long_h264_aac.mp4")
make ss_before.mp4 -c copy
mkdir -p "$out/edits"
mv -f "$out/ss_before.mp4" "$out/edits/"
IN=(-i "$out/long_h264_aac.mp4" -ss 1.32)
make ss_after.mp4 -c copy
# Clips that a join puts side by side: B-frame delays of 2, 1 and 0
# frames, other profiles and key-frame intervals.
video 160x120 25 1 && tone 48000 1
make join_bf2.mp4 -map 0:v -map 1:a -c:v libx264 -preset veryfast -threads 1 -bf 2 -g 25 \
  -x264-params b-pyramid=0 "${AAC[@]}"
video 160x120 25 1 && tone 48000 1 660
make join_bf1_high.mp4 -map 0:v -map 1:a -c:v libx264 -preset veryfast -threads 1 -bf 1 -g 12 \
  -profile:v high "${AAC[@]}"
video 160x120 25 1 && tone 48000 1 880
make join_baseline.mp4 -map 0:v -map 1:a "${X264[@]}" -profile:v baseline -g 8 "${AAC[@]}"
# Audio 0.3 s longer than the video: a clip of it plays as long as its video.
video 160x120 25 1 && tone 48000 1.3
make join_long_audio.mp4 -map 0:v -map 1:a "${X264[@]}" "${AAC[@]}"
video 160x120 30 4 && tone 48000 4
make h264_30fps_aac.mp4 -map 0:v -map 1:a "${X264B[@]}" -g 30 "${AAC[@]}"
# A time scale of 10^9: a media time of a few seconds passes 2^31.
video 96x64 25 4
make timescale_1e9.mp4 "${X264[@]}" -g 250 -video_track_timescale 1000000000
video 128x96 25 2 && tone 48000 2
make faststart.mp4 -map 0:v -map 1:a "${X264[@]}" "${AAC[@]}" -movflags +faststart
video 128x96 25 2 && tone 48000 2 && tone 22050 2 880
make two_audio.mp4 -map 0:v -map 1:a -map 2:a "${X264[@]}" "${AAC[@]}"
video 96x64 30000/1001 3 && tone 48000 3
make hevc_ntsc.mp4 -map 0:v -map 1:a "${X265[@]}" "${AAC[@]}"
video 64x48 25 0.4
make hevc_hev1.mp4 "${X265[@]}" -tag:v hev1
video 96x64 24000/1001 3
make h264_bframes.mp4 -c:v libx264 -preset veryfast -threads 1 -bf 3 -g 24
# A variable frame rate: the frames whose number 3 or 5 divides, at uneven gaps.
video 96x64 25 3
make h264_vfr.mp4 "${X264[@]}" -vf "select='not(mod(n\,3))+not(mod(n\,5))'" -fps_mode vfr
video 64x48 25 0.4 && tone 8000 0.4
make prores_apcs_alaw.mov -map 0:v -map 1:a -c:v prores_ks -profile:v 1 -c:a pcm_alaw
video 64x48 25 0.4 && tone 8000 0.4
make prores_apco_ulaw.mov -map 0:v -map 1:a -c:v prores_ks -profile:v 0 -c:a pcm_mulaw
video 64x48 25 0.4 && tone 16000 0.4
make h264_ulaw.mov -map 0:v -map 1:a "${X264[@]}" -c:a pcm_mulaw -metadata:s:a language=eng
video 128x96 25 1 && tone 48000 1
make h264_high_eng.mp4 -map 0:v -map 1:a -c:v libx264 -preset veryfast -threads 1 \
  -profile:v high -level 3.1 "${AAC[@]}" \
  -ac 2 -metadata:s:v language=fra -metadata:s:a language=eng

# Fragmented files: samples in movie fragments after an empty or a short
# sample table, data counted from the moof, from an explicit base or from
# the fragment before, signed composition offsets and a segment index.
video 96x64 25 2 && tone 22050 2
make frag_keyframe_aac.mp4 -map 0:v -map 1:a "${X264[@]}" -g 12 "${AAC[@]}" \
  -movflags +frag_keyframe+empty_moov+default_base_moof
video 96x64 25 1 && tone 22050 1
make frag_every_frame.mp4 -map 0:v -map 1:a "${X264[@]}" -g 12 "${AAC[@]}" \
  -movflags +frag_every_frame+empty_moov+default_base_moof
video 96x64 24000/1001 2 && tone 48000 2
make frag_separate_moof.mp4 -map 0:v -map 1:a "${X264B[@]}" -g 24 "${AAC[@]}" \
  -frag_duration 300000 -movflags +empty_moov+separate_moof+omit_tfhd_offset
video 96x64 24000/1001 2 && tone 48000 2
make frag_cmaf_negative_cts.mp4 -map 0:v -map 1:a "${X264B[@]}" -g 24 "${AAC[@]}" \
  -frag_duration 500000 -movflags +cmaf+dash+delay_moov+global_sidx+negative_cts_offsets
video 96x64 25 2 && tone 22050 2
make frag_table_first.mp4 -map 0:v -map 1:a "${X264[@]}" -g 12 "${AAC[@]}" \
  -movflags +frag_keyframe
# An empty moov written late: each edit lasts 0, the length being unknown.
video 96x64 25 2 && tone 22050 2
make frag_delay_moov.mp4 -map 0:v -map 1:a "${X264[@]}" -g 12 "${AAC[@]}" \
  -movflags +frag_keyframe+empty_moov+delay_moov
video 64x48 25 1.2 && tone 44100 1.2
make frag_hevc_base_offset.mp4 -map 0:v -map 1:a "${X265[@]}" -g 10 "${AAC[@]}" \
  -movflags +frag_keyframe+empty_moov
