#!/usr/bin/env bash
# Builds the optimised preset and runs the benchmarks: the micro-benchmarks
# of the tables, the whole-file timings (bench/files.sh), the recorder's own
# costs (record_bench), recording a gigabyte of elementary streams beside
# ffmpeg and GStreamer (bench/record.sh) and recovering a 1 GB recording
# (bench/recover.sh). Not part of CI.
#   scripts/bench.sh [BENCHMARK-OPTIONS...]    e.g. --benchmark_filter=AddEntry
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/lib.sh
ensure_packages "${BUILD_PACKAGES[@]}" "${BENCH_PACKAGES[@]}"

cmake --preset release >/dev/null
cmake --build --preset release --target tables_bench record_bench
./build/release/bench/tables_bench --benchmark_counters_tabular=true "$@"
./bench/files.sh
./build/release/bench/record_bench
./bench/record.sh
./bench/recover.sh
