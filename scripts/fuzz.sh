#!/usr/bin/env bash
# Builds the libFuzzer targets (fuzz preset) and runs one of them from its
# seed corpus for a while.
#   scripts/fuzz.sh TARGET SECONDS
#     TARGET: fuzz_file, fuzz_child, fuzz_edit, fuzz_record or fuzz_command (the whole
#     command, seeded with fuzz_file's inputs as well as its own)
# The inputs in fuzz/corpus/TARGET are copied to a scratch directory first, so
# the inputs the fuzzer adds never land in the source tree. Any crash, leak,
# timeout or memory-limit report fails the run; the input that caused it is
# kept in build/fuzz/findings/TARGET/.
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/lib.sh

if [ $# -ne 2 ] || ! [[ "$2" =~ ^[0-9]+$ ]] || [ ! -d "fuzz/corpus/$1" ]; then
  echo "usage: $0 {fuzz_file|fuzz_child|fuzz_edit|fuzz_record|fuzz_command} SECONDS" >&2
  exit 2
fi
target="$1"
seconds="$2"

ensure_packages "${BUILD_PACKAGES[@]}" "${FUZZ_PACKAGES[@]}"
# clang++ if there is one, else the newest clang++-N on PATH (Debian installs
# only the versioned name).
cxx="$(command -v clang++ || true)"
if [ -z "$cxx" ]; then
  cxx="$(compgen -c clang++- | grep -E '^clang\+\+-[0-9]+$' | sort -t- -k2,2n | tail -n 1 || true)"
fi
if [ -z "$cxx" ]; then
  echo "$0: no clang++ on PATH" >&2
  exit 1
fi
cmake --preset fuzz -DCMAKE_CXX_COMPILER="$cxx" >/dev/null
cmake --build --preset fuzz --target "$target"

scratch="$(mktemp -d)"
trap 'rm -rf "$scratch"' EXIT
cp -R "fuzz/corpus/$target" "$scratch/corpus"
extra=()
if [ "$target" = fuzz_command ]; then
  cp fuzz/corpus/fuzz_file/* "$scratch/corpus/"
  # The command's messages go to stderr; libFuzzer keeps its own reports.
  extra=(-close_fd_mask=2)
fi
findings="build/fuzz/findings/$target"
mkdir -p "$findings"
log="build/fuzz/$target.log"

# A smaller quarantine than ASan's 256 MB keeps the RSS limit for the code.
export ASAN_OPTIONS="detect_leaks=1:quarantine_size_mb=64"
export UBSAN_OPTIONS="halt_on_error=1:print_stacktrace=1"
status=0
"./build/fuzz/fuzz/$target" "$scratch/corpus" \
  -rss_limit_mb=512 -malloc_limit_mb=256 -timeout=10 -max_total_time="$seconds" \
  -dict=fuzz/mp4.dict -artifact_prefix="$findings/" -print_final_stats=1 "${extra[@]}" \
  >"$log" 2>&1 || status=$?
grep -E '^(#[0-9]+[[:space:]]+(INITED|DONE)|Done [0-9]+ runs|stat::peak_rss_mb)' "$log" || true

# libFuzzer exits non-zero on every report; the log is checked as well, so a
# report can never pass unnoticed.
if [ "$status" -ne 0 ] ||
  grep -qE 'ERROR: (libFuzzer|AddressSanitizer|LeakSanitizer)|runtime error:|==[0-9]+== ?ERROR|SUMMARY: (Address|Leak|Undefined)' "$log"; then
  echo "$target: FAILED (exit $status); report:" >&2
  grep -m 1 -A 40 -E 'ERROR|runtime error|out-of-memory|timeout' "$log" >&2 || tail -40 "$log" >&2
  echo "$target: input saved in $findings/, full log in $log" >&2
  exit 1
fi
echo "$target: ${seconds}s without a finding"
