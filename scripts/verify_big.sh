#!/usr/bin/env bash
# `mp4stbl verify` on a file past 4 GiB: the shipped clip with a 4.5 GiB
# hole before its media and co64 offsets past 4 GiB (made by make_big_file).
# Verify must find it identical, and its peak resident memory must stay
# under LIMIT_MB (64 by default): the tables of this clip are a few
# kilobytes, so that is all memory beyond them.
#   MP4STBL_BIG=1 scripts/verify_big.sh MP4STBL MAKE_BIG_FILE WORKDIR
# It reads 9 GB of holes and takes about half a minute, so ctest runs it
# only with MP4STBL_BIG=1 (CI does); otherwise it exits 77, skipped.
set -euo pipefail
if [ -z "${MP4STBL_BIG:-}" ]; then
  echo "skipped: set MP4STBL_BIG=1 to verify a sparse file past 4 GiB"
  exit 77
fi
[ $# -eq 3 ] || { echo "usage: $0 MP4STBL MAKE_BIG_FILE WORKDIR" >&2; exit 2; }
mp4stbl="$1"
make_big_file="$2"
dir="$3"
limit_kb=$(( ${LIMIT_MB:-64} * 1024 ))
clip="$(dirname "$0")/../tests/data/h264_aac.mp4"
big="$dir/big.mp4"
mkdir -p "$dir"
trap 'rm -f "$big"' EXIT

"$make_big_file" "$clip" "$big" $(( 9 << 29 ))
bytes=$(stat -c %s "$big")
[ "$bytes" -gt $(( 1 << 32 )) ] || { echo "$big is only $bytes bytes" >&2; exit 1; }
"$mp4stbl" info "$big" | grep -q ' co64 ' || { echo "no co64 in $big" >&2; exit 1; }

/usr/bin/time -v "$mp4stbl" verify "$big" >"$dir/verify.out" 2>"$dir/verify.time"
cat "$dir/verify.out"
grep -q 'identical when written back' "$dir/verify.out"
rss_kb=$(sed -nE 's/^[[:space:]]*Maximum resident set size \(kbytes\): ([0-9]+)$/\1/p' \
  "$dir/verify.time")
seconds=$(sed -nE 's/^[[:space:]]*Elapsed \(wall clock\) time.*: (.*)$/\1/p' "$dir/verify.time")
echo "verify on $bytes bytes: peak RSS $rss_kb kB, $seconds wall clock"
[ "$rss_kb" -lt "$limit_kb" ] || { echo "peak RSS $rss_kb kB is over $limit_kb kB" >&2; exit 1; }
