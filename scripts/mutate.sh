#!/usr/bin/env bash
# Measures what the test suite catches: applies the hand-written faults of
# tests/mutants/ one at a time, rebuilds, runs the suite and counts the
# faults it catches.
#   scripts/mutate.sh [PATTERN...]  only the mutants whose file name holds a PATTERN
# Each mutant is a small patch (git diff) whose text before the first
# "diff --git" line says which fault it seeds. The source tree is never
# touched: the tree is copied to build/mutate/src, the patch is applied to
# that copy and reverted from the tree after the run, and the copy is built
# in build/mutate/build (no sanitizers, no -Werror, no benchmarks), so each
# mutant rebuilds only what it changed. Logs go to build/mutate/logs/.
#
# killed   the suite fails with the fault in place
# SURVIVED the suite passes with it
# invalid  the patch does not apply or the mutant does not compile: fix the
#          patch; it is left out of the score
#
# The exit status is 0 whatever the score: the script measures, it does not
# gate. It is 1 when the unmutated copy does not build or pass, 2 on misuse.
# MUTATE_TIMEOUT (seconds, default 300) bounds one mutant's suite run.
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/lib.sh

patterns=("$@")
[ ${#patterns[@]} -gt 0 ] || patterns=("")
ensure_packages "${BUILD_PACKAGES[@]}" "${TEST_PACKAGES[@]}" git
ensure_npm

root="$PWD"
work="$root/build/mutate"
src="$work/src"
bld="$work/build"
logs="$work/logs"
timeout_s="${MUTATE_TIMEOUT:-300}"
mkdir -p "$src" "$logs"

mutants=()
for patch in tests/mutants/*.patch; do
  [ -e "$patch" ] || continue
  for pattern in "${patterns[@]}"; do
    case "$(basename "$patch")" in *"$pattern"*) mutants+=("$patch") && break ;; esac
  done
done
if [ ${#mutants[@]} -eq 0 ]; then
  echo "mutate: no mutant matches '${patterns[*]}'" >&2
  exit 2
fi

# git apply on the copy, which lies inside this repository: the ceiling keeps
# git from finding the repository and resolving the paths against its top.
apply() { (cd "$src" && GIT_CEILING_DIRECTORIES="$work" git apply "$@"); }

# Makes the copy equal to the tree: tracked and new files, compared by
# content. A file copied gets a fresh time stamp, so that the build sees every
# file that changed, a mutant's revert included.
sync_copy() {
  local listed="$work/files"
  git ls-files -z --cached --others --exclude-standard | sort -z >"$listed"
  while IFS= read -r -d '' file; do
    [ -f "$file" ] || continue
    if ! cmp -s "$file" "$src/$file"; then
      mkdir -p "$src/$(dirname "$file")"
      cp "$file" "$src/$file"
    fi
  done <"$listed"
  # Files gone from the tree leave the copy too.
  (cd "$src" && find . -type f -printf '%P\0' | sort -z) |
    comm -z -23 - "$listed" |
    while IFS= read -r -d '' gone; do rm -f "$src/$gone"; done
}

active=""
restore() {
  if [ -n "$active" ]; then
    apply -R "$root/$active" 2>/dev/null || true
    active=""
  fi
}
trap 'restore; sync_copy' EXIT
trap 'echo; echo "mutate: interrupted" >&2; exit 130' INT TERM

build() { cmake --build "$bld" -j2 >"$1" 2>&1; }
suite() {
  timeout --kill-after=10 "$timeout_s" \
    ctest --test-dir "$bld" -j2 --timeout 120 --output-on-failure >"$1" 2>&1
}

sync_copy
if [ ! -f "$bld/CMakeCache.txt" ]; then
  cmake -S "$src" -B "$bld" -G Ninja -DCMAKE_BUILD_TYPE=Debug -DMP4STBL_WERROR=OFF \
    -DMP4STBL_BUILD_BENCH=OFF -DMP4STBL_BUILD_EXAMPLES=OFF >"$logs/configure.log" 2>&1 || {
    echo "mutate: the copy does not configure, see $logs/configure.log" >&2
    exit 1
  }
fi
if ! build "$logs/baseline.build.log" || ! suite "$logs/baseline.test.log"; then
  echo "mutate: the unmutated tree does not build or pass, see $logs/baseline.*.log" >&2
  exit 1
fi

killed=0
survived=0
invalid=0
for patch in "${mutants[@]}"; do
  name="$(basename "$patch" .patch)"
  log="$logs/$name.log"
  if ! apply --check "$root/$patch" >"$log" 2>&1; then
    status=invalid
    detail="(does not apply)"
  else
    apply "$root/$patch"
    active="$patch"
    if ! build "$log"; then
      status=invalid
      detail="(does not compile)"
    elif suite "$log"; then
      status=SURVIVED
      detail=""
    else
      status=killed
      # "  7 - Suite.Name<Suite/type.  # TypeParam = ... (Failed)" after
      # "tests FAILED:" (skipped tests are listed before it): the name.
      failed="$(sed -n '/tests FAILED:/,$p' "$log" | grep -E '^\s+[0-9]+ - ' |
        sed -E -e 's/^\s+[0-9]+ - //' -e 's/ \([^()]*\)$//' -e 's/  # .*//' \
          -e 's|^([^.<]+)\.([^<]+)<[^/]*/([^.]*)\.$|\1/\3.\2|' || true)"
      count="$(printf '%s\n' "$failed" | grep -c . || true)"
      detail="by $(printf '%s\n' "$failed" | head -n 1)"
      [ "$count" -gt 1 ] && detail="$detail and $((count - 1)) more"
      [ "$count" -eq 0 ] && detail="(suite timed out or crashed)"
    fi
    restore
  fi
  case "$status" in
    killed) killed=$((killed + 1)) ;;
    SURVIVED) survived=$((survived + 1)) ;;
    invalid) invalid=$((invalid + 1)) ;;
  esac
  printf '%-9s %-44s %s\n' "$status" "$name" "$detail"
done

scored=$((killed + survived))
percent=0
[ "$scored" -gt 0 ] && percent=$((100 * killed / scored))
[ "$invalid" -gt 0 ] && echo "mutate: $invalid invalid mutants left out of the score"
echo "mutate: $killed of $scored seeded faults caught ($percent%)"
