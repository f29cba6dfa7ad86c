#!/usr/bin/env bash
# Builds the project and runs its main job: records a time-to-sample table,
# writes the box to a file, reads it back and prints it.
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/lib.sh
ensure_packages "${BUILD_PACKAGES[@]}"

cmake --preset release >/dev/null
cmake --build --preset release --target record_stts
./build/release/examples/record_stts build/release/stts.box
