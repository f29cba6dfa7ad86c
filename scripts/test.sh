#!/usr/bin/env bash
# Builds the project and runs every test.
#   scripts/test.sh [PRESET]    (dev by default; asan for the sanitizer build)
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/lib.sh
ensure_packages "${BUILD_PACKAGES[@]}"

preset="${1:-dev}"
cmake --preset "$preset"
cmake --build --preset "$preset"
ctest --preset "$preset" -j 2
