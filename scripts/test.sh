#!/usr/bin/env bash
# Builds the project and runs every test.
#   scripts/test.sh [PRESET]    (dev by default; asan for the sanitizer build,
#                                m32 for the 32-bit one)
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/lib.sh
preset="${1:-dev}"
ensure_packages "${BUILD_PACKAGES[@]}" "${TEST_PACKAGES[@]}"
ensure_npm
if [ "$preset" = m32 ]; then ensure_packages "${M32_PACKAGES[@]}"; fi

cmake --preset "$preset"
cmake --build --preset "$preset"
ctest --preset "$preset" -j 2
