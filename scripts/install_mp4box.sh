#!/usr/bin/env bash
# Installs mp4box.js (npm package mp4box) into DIR for the command's tests,
# which read files with it as a browser's MP4 reader would. Without node and
# npm, or when the registry cannot be reached, it says so and the tests that
# need it skip: the exit status is 0 either way.
#   scripts/install_mp4box.sh DIR
set -uo pipefail
[ $# -eq 1 ] || { echo "usage: $0 DIR" >&2; exit 2; }
dir="$1"
if [ -f "$dir/node_modules/mp4box/package.json" ]; then exit 0; fi
if ! command -v node >/dev/null || ! command -v npm >/dev/null; then
  echo "$0: node or npm is missing; the mp4box.js checks will skip"
  exit 0
fi
mkdir -p "$dir"
if ! timeout 300 npm install --no-audit --no-fund --silent --prefix "$dir" mp4box@2; then
  echo "$0: npm could not install mp4box; the mp4box.js checks will skip"
fi
exit 0
