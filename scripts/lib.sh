# Shared by the project's scripts: installs missing Debian packages.
# shellcheck shell=bash

# ensure_packages PKG...: installs with apt-get those not yet installed.
ensure_packages() {
  local missing=()
  local pkg
  for pkg in "$@"; do
    dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q 'install ok installed' || missing+=("$pkg")
  done
  [ ${#missing[@]} -eq 0 ] && return 0
  echo "installing: ${missing[*]}"
  local sudo=""
  [ "$(id -u)" -ne 0 ] && sudo="sudo"
  $sudo apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
}

# The library needs only a compiler; the command parses its arguments with
# CLI11 and writes JSON with nlohmann-json; recover decodes AAC frames with
# libavcodec to find their lengths.
BUILD_PACKAGES=(cmake ninja-build g++ libgtest-dev libcli11-dev nlohmann-json3-dev pkg-config
  libavcodec-dev)
# The 32-bit build (preset m32).
M32_PACKAGES=(g++-multilib googletest)
# The tests encode real MP4 and QuickTime files with ffmpeg and GStreamer's
# muxers (scripts/make_corpus.sh), and record the x264 program's own stream
# too; the micro-benchmarks are built with them so that they cannot rot; GNU
# time measures verify on a file past 4 GiB; headless Chromium opens the pages
# that mp4stbl report writes; help2man writes the man page, which a test
# reads (the build skips it without help2man).
TEST_PACKAGES=(help2man ffmpeg chromium libbenchmark-dev time gstreamer1.0-tools gstreamer1.0-plugins-base
  gstreamer1.0-plugins-good gstreamer1.0-plugins-bad gstreamer1.0-plugins-ugly gstreamer1.0-libav
  x264)
# mp4box.js, a browser's MP4 reader, opens what the command writes; npm
# installs it in the build tree (scripts/install_mp4box.sh).
ensure_npm() {
  command -v npm >/dev/null || ensure_packages nodejs npm
}
# The libFuzzer targets (scripts/fuzz.sh): clang and its sanitizer runtimes.
FUZZ_PACKAGES=(clang-14 libclang-rt-14-dev)
# The benchmarks (scripts/bench.sh): Google Benchmark, the command's parsers,
# ffprobe to compare with and GNU time for peak memory; GStreamer's muxer from
# Python (bench/gst_mux.py) for the recorder's.
BENCH_PACKAGES=(libbenchmark-dev libcli11-dev nlohmann-json3-dev ffmpeg mediainfo time
  gstreamer1.0-tools gstreamer1.0-plugins-good gstreamer1.0-plugins-bad python3-gi gir1.2-gstreamer-1.0)
