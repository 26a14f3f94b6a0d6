#!/usr/bin/env bash
# Runs the fuzz harnesses (tests/fuzz/*_fuzz.cpp) with libFuzzer, ASan and
# UBSan, built with clang in build-fuzz/:
#   scripts/fuzz.sh [--time SECONDS | --runs N] [--jobs N] [harness ...]
# Default: every harness for 60 s. Each starts from its seed corpus
# (tests/fuzz/corpus/<harness>, read only) and keeps what it finds in
# build-fuzz/corpus/<harness>; a crash is written to
# build-fuzz/artifacts/<harness>/ and ends that harness with a failure. At the
# end one line per harness: runs made, corpus size, result. A crash input
# that has been fixed belongs in tests/fuzz/corpus/<harness>/ as crash-<name>,
# where the test command replays it.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
limit=(-max_total_time=60)
harnesses=()
while [ $# -gt 0 ]; do
  case "$1" in
    --time) limit=(-max_total_time="$2"); shift 2 ;;
    --runs) limit=(-runs="$2"); shift 2 ;;
    -h|--help) sed -n '2,12p' "$0"; exit 0 ;;
    -*) echo "unknown option $1" >&2; exit 2 ;;
    *) harnesses+=("$1"); shift ;;
  esac
done
if [ ${#harnesses[@]} -eq 0 ]; then
  for f in tests/fuzz/*_fuzz.cpp; do harnesses+=("$(basename "$f" .cpp)"); done
fi
command -v clang++ >/dev/null || { echo "clang++ not found: apt-get install clang libclang-rt-14-dev" >&2; exit 1; }

build=build-fuzz
CC=clang CXX=clang++ cmake -S . -B "$build" -DORVANE_FUZZ=ON -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" -j "$(nproc)" --target "${harnesses[@]}" >/dev/null

summary=()
status=0
for h in "${harnesses[@]}"; do
  mkdir -p "$build/corpus/$h" "$build/artifacts/$h"
  log=$build/$h.log
  echo "=== $h"
  set +e
  ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
    "$build/tests/$h" "${limit[@]}" -artifact_prefix="$build/artifacts/$h/" -print_final_stats=1 \
    "$build/corpus/$h" "tests/fuzz/corpus/$h" >"$log" 2>&1
  result=$?
  set -e
  runs=$(grep -o 'stat::number_of_executed_units: *[0-9]*' "$log" | grep -o '[0-9]*$' || echo "?")
  size=$(ls "$build/corpus/$h" | wc -l)
  if [ $result -eq 0 ]; then
    summary+=("$h: $runs runs, $size new corpus inputs, no finding")
  else
    summary+=("$h: $runs runs, FINDING (exit $result): see $log and $build/artifacts/$h/")
    status=1
  fi
  tail -3 "$log"
done
echo "=== summary"
printf '%s\n' "${summary[@]}"
exit $status
