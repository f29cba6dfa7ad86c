#!/usr/bin/env bash
# Builds the mp4stbl command and runs its main job on a file: the summary of
# every track, then where to start playing a tenth of a second in.
#   scripts/run.sh [FILE]     (default: a sample clip that ships with the repository)
set -euo pipefail
# A FILE given relative to where the script is run from.
file="${1:-}"
if [ -n "$file" ] && [ "${file#/}" = "$file" ]; then file="$PWD/$file"; fi
cd "$(dirname "$0")/.."
source scripts/lib.sh
ensure_packages "${BUILD_PACKAGES[@]}"

file="${file:-tests/data/h264_aac.mp4}"
cmake --preset release >/dev/null
cmake --build --preset release --target mp4stbl_cli >/dev/null
mp4stbl=build/release/tools/mp4stbl
"$mp4stbl" info "$file"
echo
"$mp4stbl" seek "$file" --time 0.1
