#!/usr/bin/env bash
# Recovery measured on real files: the corpus of scripts/recover_corpus.sh
# (ffmpeg, GStreamer, this project's recorder), each file cut inside its
# media, at a chunk boundary, at an odd length, mid-frame and at the end of
# its media, stripped of its moov and recovered with the other file of its
# setting as reference. Prints the share of the samples whole in each cut
# file that come back with the same bytes, size, decode time, composition
# offset and key flag, and fails when a check of the test does.
#   scripts/recover_check.sh [PRESET]    (default: dev)
set -euo pipefail
cd "$(dirname "$0")/.."
preset="${1:-dev}"
cmake --preset "$preset" >/dev/null
cmake --build --preset "$preset" --target mp4stbl_cli mp4stbl_recover_tests
"build/$preset/tests/mp4stbl_recover_tests" --gtest_filter='RecoverCorpus.CutFiles*'
