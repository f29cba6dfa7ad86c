#!/usr/bin/env bash
# Builds the optimised preset and runs the benchmarks: the micro-benchmarks
# of the tables, then the whole-file timings (bench/files.sh) and the
# recovery of a 1 GB recording (bench/recover.sh). Not part of CI.
#   scripts/bench.sh [BENCHMARK-OPTIONS...]    e.g. --benchmark_filter=AddEntry
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/lib.sh
ensure_packages "${BUILD_PACKAGES[@]}" "${BENCH_PACKAGES[@]}"

cmake --preset release >/dev/null
cmake --build --preset release --target tables_bench
./build/release/bench/tables_bench --benchmark_counters_tabular=true "$@"
./bench/files.sh
./bench/recover.sh
