# What the benchmarks share; sourced from the repository's root. Each script
# defines clean_outputs, which removes what one run of a command wrote.
source scripts/lib.sh
ensure_packages "${BUILD_PACKAGES[@]}" "${BENCH_PACKAGES[@]}"

RUNS="${RUNS:-3}"
bin=build/release/tools/mp4stbl
cmake --preset release >/dev/null
cmake --build --preset release --target mp4stbl_cli

# make_big DIR: DIR/clip.mp4, 20 s of lossless 1280x720 H.264 at 30
# frames/s and AAC at 128 kbit/s, and DIR/big.mp4, the clip joined 26 times
# over with mp4stbl (1 GiB); both made once and kept.
make_big() {
  local clip="$1/clip.mp4" big="$1/big.mp4" clips=()
  mkdir -p "$1"
  if [ ! -s "$clip" ]; then
    ffmpeg -nostdin -v error -y -f lavfi -i testsrc2=size=1280x720:rate=30:duration=20 \
      -f lavfi -i sine=frequency=440:sample_rate=48000:duration=20 \
      -c:v libx264 -preset ultrafast -qp 0 -g 30 -c:a aac -b:a 128k "$clip.part.mp4"
    mv -f "$clip.part.mp4" "$clip"
  fi
  for ((i = 0; i < 26; i++)); do clips+=("$clip"); done
  [ -s "$big" ] || "$bin" join "${clips[@]}" -o "$big"
}

# measure COMMAND...: prints the median wall time in ms over RUNS runs,
# each after clean_outputs and a sync.
measure() {
  "$@" >/dev/null 2>&1 || { echo "failed: $*" >&2; exit 1; }
  local times=() start end
  for ((i = 0; i < RUNS; i++)); do
    clean_outputs
    sync  # the previous run's writeback must not land in this run's time
    start=$(date +%s%N)
    "$@" >/dev/null 2>&1
    end=$(date +%s%N)
    times+=($(((end - start) / 1000000)))
  done
  printf '%s\n' "${times[@]}" | sort -n | awk '{a[NR] = $1} END {print a[int((NR + 1) / 2)]}'
}
